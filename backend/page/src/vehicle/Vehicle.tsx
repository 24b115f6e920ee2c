/** One vehicle: track, plots, values and samples of one time range. */
import type { JSX } from "preact";
import { useEffect, useMemo, useRef, useState } from "preact/hooks";
import type { CatalogEvent, Configuration, Sample, Session, Track, Vehicle as Data } from "../api";
import { address, get } from "../api";
import { losses, span, stamp, utc, whole, zone } from "../format";
import { configurationsVersion, epoch, manyVersion, vehicleVersions } from "../live";
import { changeQuery, link, route } from "../route";
import { useLoad, useStore } from "../store";
import { Age, Chip, Empty, ErrorBox, Online, Panel, Show, Stat } from "../ui";
import { configurationName, STATES } from "../Vehicles";
import { cursor } from "./cursor";
import { firstPlots, knownFields } from "./fields";
import { FieldSearch } from "./FieldSearch";
import { Latest } from "./Latest";
import { Plot } from "./Plot";
import type { Plotted, Range } from "./range";
import { lastOf, plottedOf, plottedText, PRESETS, rangeOf, zoomed } from "./range";
import { Samples } from "./Samples";
import { TrackMap } from "./TrackMap";

const WHOLE_TRACK = 1000; // points
const OTHER_CLOCK_MS = 5 * 60 * 1000;
const POSITIONS = "gnss_positions";

function setRange(range: { fromMs: number; toMs: number }): void {
  changeQuery({ from: String(range.fromMs), to: String(range.toMs), last: undefined });
}

function RangeBar(props: { range: Range; query: URLSearchParams }): JSX.Element {
  const { range, query } = props;
  const last = lastOf(query);
  const width = range.toMs - range.fromMs;
  const middle = (range.fromMs + range.toMs) / 2;
  const sameZone = zone(range.fromMs) === "UTC";
  return (
    <div class="range-bar">
      <div class="segments" role="group" aria-label="Time range">
        {PRESETS.map(([seconds, text]) => (
          <button key={seconds} type="button" aria-pressed={range.follows && last === seconds}
            onClick={() => changeQuery({ last: String(seconds), from: undefined, to: undefined })}>{text}</button>
        ))}
      </div>
      <div class="segments" role="group" aria-label="Move and zoom">
        <button type="button" aria-label="Earlier" title="Earlier" onClick={() => setRange({ fromMs: range.fromMs - width / 2, toMs: range.toMs - width / 2 })}>←</button>
        <button type="button" aria-label="Zoom out" title="Zoom out" onClick={() => setRange(zoomed(range, 2, middle))}>−</button>
        <button type="button" aria-label="Zoom in" title="Zoom in" onClick={() => setRange(zoomed(range, 0.5, middle))}>+</button>
        <button type="button" aria-label="Later" title="Later" onClick={() => setRange({ fromMs: range.fromMs + width / 2, toMs: range.toMs + width / 2 })}>→</button>
      </div>
      {range.follows ? <Chip tone="good" title="New samples appear by themselves.">● follows</Chip>
        : <button type="button" onClick={() => changeQuery({ from: undefined, to: undefined })}>Follow newest</button>}
      <p class="range-text num">
        {stamp(range.fromMs)} – {stamp(range.toMs)} <span class="muted">{zone(range.fromMs)}, {span(width)}</span>
        {!sameZone && <small class="muted"> {utc(range.fromMs).slice(0, 19)} – {utc(range.toMs).slice(11)}</small>}
      </p>
    </div>
  );
}

function Downloads(props: { name: string; range: Range; columns: string[] }): JSX.Element {
  const { name, range, columns } = props;
  const time = { from: range.fromMs, to: range.toMs };
  const file = `${name.replace(/[^\w.-]+/g, "_")}-${utc(range.fromMs).slice(0, 19).replace(/[: ]/g, "-")}`;
  const forms: [string, string, string, string][] = [
    ["csv", "CSV", "csv", "the plotted fields and positions, a line per sample"],
    ["gpx", "GPX", "gpx", "the track"],
    ["jsonl", "JSON Lines", "jsonl", "the envelopes as the vehicle sent them"],
  ];
  return (
    <details class="menu">
      <summary class="button">Download</summary>
      <div class="menu-body">
        <p class="muted">What the time range holds:</p>
        {forms.map(([form, text, ending, meaning]) => (
          <a key={form} download={`${file}.${ending}`} href={address(["vehicles", name, "export"], { form, ...time,
            columns: form === "csv" ? columns.join(",") : undefined })}>
            <strong>{text}</strong> <small class="muted">{meaning}</small>
          </a>
        ))}
      </div>
    </details>
  );
}

function Summary(props: { vehicle: Data; configurations: Configuration[] | undefined }): JSX.Element {
  const { vehicle } = props;
  const { configuration, lastReport } = vehicle;
  const lost = losses(vehicle.health?.counters).reduce((sum, [, count]) => sum + count, 0);
  const off = lastReport ? lastReport.measuredToMs - lastReport.receivedMs : 0;
  return (
    <>
      <dl class="stats">
        <Stat label="Last report" value={lastReport ? <Age ms={lastReport.receivedMs} /> : "none yet"}
          note={lastReport ? `${lastReport.name} no. ${lastReport.sequence}, ${whole(lastReport.samples)} samples` : undefined} />
        <Stat label="Samples" value={whole(vehicle.samples)} note={`in ${whole(vehicle.reports)} reports`} />
        <Stat label="Configuration" value={configuration.state === "none" ? "none assigned" : configurationName(configuration.desired, props.configurations)}
          note={configuration.state === "none" ? undefined : STATES[configuration.state].text}
          tone={STATES[configuration.state].tone} />
        <Stat label="Lost" value={vehicle.health ? whole(lost) : "not reported"} tone={lost > 0 ? "warn" : "plain"}
          note={vehicle.health ? `${whole(vehicle.health.waitingEnvelopes ?? 0)} envelopes waiting` : "no health message yet"} />
        {vehicle.unusable > 0 && <Stat label="Unusable" tone="warn" value={<a href={link(["unusable"], { vehicle: vehicle.name })}>
          {whole(vehicle.unusable)}</a>} note="not stored as rows" />}
      </dl>
      {configuration.state === "refused" && <p class="notice bad">The vehicle refused its configuration: {configuration.reason}</p>}
      {Math.abs(off) > OTHER_CLOCK_MS && <p class="notice">The vehicle's clock is {span(Math.abs(off))} {off > 0 ? "ahead of" : "behind"} this
        backend's. Times of samples are the vehicle's.</p>}
    </>
  );
}

function useWidth(): [{ current: HTMLDivElement | null }, number] {
  const box = useRef<HTMLDivElement>(null);
  const [width, setWidth] = useState(0);
  useEffect(() => {
    if (!box.current) return;
    const observer = new ResizeObserver(([entry]) => setWidth(Math.floor(entry!.contentRect.width)));
    observer.observe(box.current);
    return () => observer.disconnect();
  }, []);
  return [box, width];
}

function Drive(props: { vehicle: Data; catalog: CatalogEvent[]; latest: Sample[]; latestBusy: boolean; session: Session; version: string }): JSX.Element {
  const { vehicle, catalog, latest, session, version } = props;
  const { name } = vehicle;
  const { query } = useStore(route);
  const range = rangeOf(query, vehicle.measuredFromMs!, vehicle.measuredToMs!);
  const { fromMs, toMs, follows } = range;
  // Samples may still come into a fixed range that ends later than they do.
  const changing = follows || toMs > vehicle.measuredToMs! ? version : "";

  const known = useMemo(() => knownFields(catalog), [catalog]);
  const views = useMemo(() => new Set(latest.map((sample) => sample.view)), [latest]);
  const byView = useMemo(() => {
    const all = new Map<string, number[]>();
    for (const { view, instance } of latest) all.set(view, [...(all.get(view) ?? []), instance].sort((a, b) => a - b));
    return all;
  }, [latest]);
  const instancesOf = (view: string): number[] => byView.get(view) ?? [];

  const start = useMemo(() => firstPlots(known, latest), [known, views.size]);
  const chosen = query.getAll("plot").filter((text) => text !== "none");
  const plots = (query.has("plot") ? chosen : start).map(plottedOf);
  const setPlots = (changed: Plotted[]): void =>
    changeQuery({ plot: changed.length ? changed.map(plottedText) : ["none"] }, true);
  const add = (column: string, instance?: number): void => {
    const added = { column, instance: instancesOf(column.split(".")[0]!).length > 1 ? instance : undefined };
    if (!plots.some((plotted) => plottedText(plotted) === plottedText(added))) setPlots([...plots, added]);
  };

  const source = query.get("position") ? Number(query.get("position")) : undefined;
  const hasPositions = views.has(POSITIONS);
  const track = useLoad(hasPositions ? `track ${name} ${source}` : null, `${changing} ${fromMs} ${toMs}`, (signal) =>
    get<Track>(["vehicles", name, "track"], { from: fromMs, to: toMs, instance: source, points: 2000 }, signal));
  const part = fromMs > vehicle.measuredFromMs! || toMs < vehicle.measuredToMs!;
  const wholeTrack = useLoad(hasPositions && part ? `whole ${name} ${source}` : null, useStore(epoch), (signal) =>
    get<Track>(["vehicles", name, "track"], { instance: source, points: WHOLE_TRACK }, signal));
  const [visible, setVisible] = useState<{ fromMs: number; toMs: number } | null>(null);

  const [box, width] = useWidth();
  const table = query.get("table") ?? (hasPositions ? POSITIONS : [...views].sort()[0] ?? "");
  const tableInstance = query.get("tableInstance") ? Number(query.get("tableInstance")) : undefined;
  const columns = [...new Set([...(hasPositions ? [`${POSITIONS}.latitude`, `${POSITIONS}.longitude`] : []),
    ...plots.map(({ column }) => column)])];

  const onKeyDown = (event: KeyboardEvent): void => {
    if (event.target !== event.currentTarget || event.ctrlKey || event.altKey || event.metaKey) return;
    const at = cursor.value ?? (fromMs + toMs) / 2;
    const step = (toMs - fromMs) * (event.shiftKey ? 0.25 : 0.01);
    const direction = event.key === "ArrowLeft" ? -1 : event.key === "ArrowRight" ? 1 : 0;
    if (direction !== 0 && event.shiftKey) setRange({ fromMs: Math.round(fromMs + direction * step), toMs: Math.round(toMs + direction * step) });
    else if (direction !== 0) cursor.set(Math.round(Math.min(Math.max(at + direction * step, fromMs), toMs - 1)));
    else if (event.key === "+") setRange(zoomed(range, 0.5, at));
    else if (event.key === "-") setRange(zoomed(range, 2, at));
    else if (event.key === "Home") changeQuery({ from: undefined, to: undefined });
    else if (event.key === "Escape") cursor.set(null);
    else return;
    event.preventDefault();
  };

  return (
    <>
      <div class="toolbar">
        <RangeBar range={range} query={query} />
        <Downloads name={name} range={range} columns={columns} />
      </div>
      <div class="drive">
        <div class="drive-side">
          <Panel title="Track" busy={track.loading} actions={
            <>
              {visible && <button type="button" onClick={() => setRange(visible)}>Limit time to this part</button>}
              {instancesOf(POSITIONS).length > 1 && (
                <select aria-label="Source of positions" value={String(source ?? track.value?.instance ?? "")}
                  onChange={(event) => changeQuery({ position: event.currentTarget.value })}>
                  {instancesOf(POSITIONS).map((each) => {
                    const index = catalog.find((event) => event.view === POSITIONS)?.indexes.find(({ value }) => value === each);
                    return <option key={each} value={String(each)}>{index?.name || each}</option>;
                  })}
                </select>
              )}
            </>
          }>
            {!hasPositions ? <Empty title="No positions."><p>Collect <code>GNSS.positions</code> to see a track.{" "}
              <a href={link(["configure"])}>Configure</a></p></Empty> : (
              <>
                {track.error && <ErrorBox error={track.error} title="Cannot load the track." />}
                <TrackMap tiles={session.tiles} attribution={session.attribution} track={track.value} whole={part ? wholeTrack.value : undefined}
                  fitKey={`${name} ${query.get("from")} ${query.get("to")} ${query.get("last")}`} onVisible={setVisible} />
                <p class="map-text muted num" data-positions={track.value?.samples ?? 0}>
                  {track.value ? track.value.samples === 0 ? "No positions in this time range."
                    : `${whole(track.value.samples)} positions${track.value.samples > track.value.timesMs.length
                      ? `, ${whole(track.value.timesMs.length)} drawn` : ""}` : ""}
                </p>
              </>
            )}
          </Panel>
          <Latest catalog={catalog} latest={latest} busy={props.latestBusy} onPlot={add} />
        </div>
        <Panel title="Plots" class="plots" actions={<FieldSearch known={known} views={views} onChoose={(column) => add(column)} />}>
          <div ref={box} class="plot-stack" tabIndex={0} role="group" onKeyDown={onKeyDown}
            aria-label="Plots: arrow keys move the cursor, with shift the range; plus and minus zoom; Home follows the newest samples">
            {plots.length === 0 && <Empty title="Nothing is plotted."><p>Search a field by name, meaning or unit.</p></Empty>}
            {plots.map((plotted, index) => (
              <Plot key={plottedText(plotted)} vehicle={name} plotted={plotted} known={known.get(plotted.column)}
                instances={instancesOf(plotted.column.split(".")[0]!)} range={range} version={changing} width={width} index={index}
                count={plots.length}
                onChange={(changed) => setPlots(changed ? plots.with(index, changed) : plots.filter((_, at) => at !== index))}
                onMove={(step) => {
                  const moved = [...plots];
                  const to = Math.min(Math.max(index + step, 0), plots.length - 1);
                  moved.splice(to, 0, ...moved.splice(index, 1));
                  setPlots(moved);
                }}
                onRange={(from, to) => setRange({ fromMs: from, toMs: to })}
                onReset={() => changeQuery({ from: undefined, to: undefined })} />
            ))}
          </div>
          {plots.length > 0 && <p class="hint muted">Drag over a plot to zoom, double click to follow the newest samples again.</p>}
        </Panel>
      </div>
      <Samples vehicle={name} catalog={catalog} views={views} view={table} instance={tableInstance} instances={instancesOf(table)}
        range={range} version={changing} />
    </>
  );
}

export function Vehicle(props: { name: string; session: Session }): JSX.Element {
  const { name, session } = props;
  const version = `${useStore(vehicleVersions)[name] ?? 0} ${useStore(manyVersion)} ${useStore(epoch)}`;
  const configurationVersion = useStore(configurationsVersion);
  const vehicle = useLoad(`vehicle ${name}`, `${version} ${configurationVersion}`, (signal) => get<Data>(["vehicles", name], {}, signal));
  const catalog = useLoad("catalog", "", (signal) => get<CatalogEvent[]>(["catalog"], {}, signal));
  const latest = useLoad(`latest ${name}`, version, (signal) => get<Sample[]>(["vehicles", name, "latest"], {}, signal));
  const configurations = useLoad("configurations", configurationVersion,
    (signal) => get<Configuration[]>(["configurations"], {}, signal));
  return (
    <>
      <nav aria-label="Path" class="path"><a href={link(["vehicles"])}>Vehicles</a></nav>
      <div class="title">
        <h1>{name}</h1>
        {vehicle.value && <Online online={vehicle.value.online} seenMs={vehicle.value.seenMs} />}
        {vehicle.value?.group && <Chip tone="plain">group {vehicle.value.group}</Chip>}
        {vehicle.value && <span class="muted">catalog {vehicle.value.catalog || "unknown"}</span>}
      </div>
      {vehicle.error?.status === 404 ? (
        <Empty title={`No vehicle is named ${name}.`}><p><a href={link(["vehicles"])}>All vehicles</a></p></Empty>
      ) : (
        <Show loaded={vehicle} what="the vehicle">
          {(data) => (
            <>
              <Summary vehicle={data} configurations={configurations.value} />
              {data.measuredFromMs === null || data.measuredToMs === null ? (
                <Empty title="No samples yet.">
                  <p>The first report comes with the first tick of the vehicle's clock, a minute after its start at the earliest.</p>
                </Empty>
              ) : (
                <Show loaded={catalog} what="the catalog">
                  {(events) => (
                    <Show loaded={latest} what="the latest values">
                      {(samples) => <Drive vehicle={data} catalog={events} latest={samples} latestBusy={latest.loading} session={session}
                        version={version} />}
                    </Show>
                  )}
                </Show>
              )}
            </>
          )}
        </Show>
      )}
    </>
  );
}
