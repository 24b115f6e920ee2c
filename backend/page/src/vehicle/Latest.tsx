/** The newest sample of each event and instance. */
import type { JSX } from "preact";
import { useState } from "preact/hooks";
import type { CatalogEvent, Sample } from "../api";
import { Empty, Panel, Time } from "../ui";
import { isState, named, numeric, valueText } from "./fields";

const OPEN = 3; // more events start closed

export function Latest(props: {
  catalog: CatalogEvent[];
  latest: Sample[];
  busy: boolean;
  onPlot: (column: string, instance: number) => void;
}): JSX.Element {
  const [search, setSearch] = useState("");
  const wanted = search.toLowerCase();
  const entries = props.latest.map((sample) => {
    const event = props.catalog.find((each) => each.view === sample.view);
    const name = `${event?.catalogService ?? sample.service}.${sample.resource}`;
    const inName = name.toLowerCase().includes(wanted);
    const fields = (event?.fields ?? []).filter((field) => sample.values[field.column] !== undefined
      && (wanted === "" ? !isState(field) : inName ? !isState(field) : field.name.toLowerCase().includes(wanted)
        || field.meaning.toLowerCase().includes(wanted)));
    return { sample, event, name, fields };
  }).filter(({ fields }) => fields.length > 0);
  return (
    <Panel title="Latest values" class="latest" busy={props.busy} actions={
      <input type="search" aria-label="Find a value" placeholder="Find a value" value={search}
        onInput={(event) => setSearch(event.currentTarget.value)} />
    }>
      {entries.length === 0 && <Empty title={search === "" ? "No samples yet." : "No value has this name."} />}
      <div class="tall" tabIndex={0} role="region" aria-label="Latest values">
        {entries.map(({ sample, event, name, fields }, index) => {
          const instance = event?.indexes.find(({ value }) => value === sample.instance);
          return (
            <details key={`${sample.view} ${sample.instance}`} class="event" open={wanted !== "" || index < OPEN}>
              <summary>
                <span class="event-name">{name}</span>
                <span class="muted">{sample.instance}{instance?.name ? ` ${instance.name}` : ""}</span>
                <span class="event-time"><Time ms={sample.measuredMs} withMs /></span>
              </summary>
              <dl class="values">
                {fields.map((field) => {
                  const value = sample.values[field.column];
                  const meaning = named(field, value);
                  return (
                    <div key={field.column}>
                      <dt title={field.meaning}>{field.name}</dt>
                      <dd class="num">
                        <span title={String(value)}>{valueText(value)}{field.unit !== "" && <span class="unit">{field.unit}</span>}
                          {meaning !== "" && <small class="muted"> {meaning}</small>}</span>
                        {numeric(field) ? (
                          <button type="button" class="quiet small" aria-label={`Plot ${field.name} of ${name}`} title="Plot"
                            onClick={() => props.onPlot(`${sample.view}.${field.column}`, sample.instance)}>∿</button>
                        ) : <span class="no-plot" />}
                      </dd>
                    </div>
                  );
                })}
              </dl>
            </details>
          );
        })}
      </div>
    </Panel>
  );
}
