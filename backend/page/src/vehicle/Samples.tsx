/** The samples of one event as a table. */
import type { JSX } from "preact";
import { useEffect, useState } from "preact/hooks";
import type { CatalogEvent, Sample } from "../api";
import { get } from "../api";
import { zone } from "../format";
import { changeQuery } from "../route";
import { useLoad } from "../store";
import { Empty, Panel, Scroll, Show, Time } from "../ui";
import { isState, named, valueText } from "./fields";
import type { Range } from "./range";

const PAGE = 30;

export function Samples(props: {
  vehicle: string;
  catalog: CatalogEvent[];
  /** Events with samples. */
  views: ReadonlySet<string>;
  view: string;
  instance: number | undefined;
  instances: number[];
  range: Range;
  version: string;
}): JSX.Element {
  const { vehicle, catalog, views, view, instance, range } = props;
  const event = catalog.find((each) => each.view === view);
  // The cursors of the samples that each older page follows; empty on the newest page.
  const [ends, setEnds] = useState<string[]>([]);
  const [states, setStates] = useState(false);
  const mode = range.follows ? "follows" : `${range.fromMs} ${range.toMs}`;
  useEffect(() => setEnds([]), [view, instance, mode]);
  const end = ends[ends.length - 1];
  const samples = useLoad(view === "" ? null : `${vehicle} ${view} ${instance} ${end} ${range.follows ? "" : mode}`,
    end === undefined ? `${props.version} ${range.fromMs} ${range.toMs}` : "", (signal) =>
      get<Sample[]>(["vehicles", vehicle, "samples"], { view, instance, from: range.fromMs, to: range.toMs, after: end, limit: PAGE }, signal));
  const fields = (event?.fields ?? []).filter((field) => states || !isState(field));
  return (
    <Panel title="Samples" busy={samples.loading} actions={
      <>
        <label class="check"><input type="checkbox" checked={states} onChange={(change) => setStates(change.currentTarget.checked)} />
          states of values</label>
        <select aria-label="Event" value={view} onChange={(change) => changeQuery({ table: change.currentTarget.value, tableInstance: undefined })}>
          {catalog.filter((each) => views.has(each.view) || each.view === view).map((each) => (
            <option key={each.view} value={each.view}>{each.catalogService}.{each.resource}</option>
          ))}
        </select>
        {props.instances.length > 1 && (
          <select aria-label="Instance" value={instance === undefined ? "" : String(instance)}
            onChange={(change) => changeQuery({ tableInstance: change.currentTarget.value })}>
            <option value="">all instances</option>
            {props.instances.map((each) => {
              const name = event?.indexes.find(({ value }) => value === each)?.name;
              return <option key={each} value={String(each)}>{each}{name ? ` ${name}` : ""}</option>;
            })}
          </select>
        )}
      </>
    }>
      {event && <p class="lead">{event.summary}</p>}
      <Show loaded={samples} what="the samples">
        {(all) => all.length === 0
          ? <Empty title="No samples of this event in this time range." />
          : (
            <>
              <Scroll label={`Samples of ${view}`}>
                <table class="dense">
                  <thead>
                    <tr>
                      <th>Measured ({zone(all[0]!.measuredMs)})</th>
                      <th>Instance</th>
                      {fields.map((field) => (
                        <th key={field.column} class={field.kind === "text" ? "" : "right"} title={field.meaning}>
                          {field.name}{field.unit !== "" && <span class="unit">{field.unit}</span>}
                        </th>
                      ))}
                    </tr>
                  </thead>
                  <tbody>
                    {all.map((sample, index) => (
                      <tr key={index}>
                        <th scope="row"><Time ms={sample.measuredMs} withMs /></th>
                        <td class="num">{sample.instance}</td>
                        {fields.map((field) => {
                          const value = sample.values[field.column];
                          const name = named(field, value);
                          return (
                            <td key={field.column} class={field.kind === "text" ? "wrap" : "num right"}>
                              {valueText(value)}{name !== "" && <small class="muted"> {name}</small>}
                            </td>
                          );
                        })}
                      </tr>
                    ))}
                  </tbody>
                </table>
              </Scroll>
              <p class="more">
                <button type="button" disabled={ends.length === 0} onClick={() => setEnds(ends.slice(0, -1))}>Newer</button>
                <button type="button" disabled={all.length < PAGE}
                  onClick={() => setEnds([...ends, all[all.length - 1]!.cursor!])}>Older</button>
                <span class="muted">{ends.length === 0 ? "the newest samples of the range" : "older samples"}</span>
              </p>
            </>
          )}
      </Show>
    </Panel>
  );
}
