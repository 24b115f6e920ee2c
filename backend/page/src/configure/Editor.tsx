/** A configuration as a form and as JSON; both show the same text. */
import type { JSX } from "preact";
import { useEffect, useMemo, useRef, useState } from "preact/hooks";
import type { CatalogEvent, Configuration, Finding, Fleet, Session, Vehicle } from "../api";
import { ApiError, get, MOST_VEHICLES, post } from "../api";
import { plural, words } from "../format";
import { epoch } from "../live";
import { changeQuery, link, route } from "../route";
import { useLoad, useSettled, useStore } from "../store";
import { Chip, Empty, ErrorBox, Panel, Scroll, Show, Time } from "../ui";
import { useVehicles } from "../Vehicles";
import { Assign } from "./Assign";
import type { Model } from "./model";
import * as edit from "./model";

const ROWS = 60;
const CHECK_AFTER_MS = 350;

type Change = (model: Model) => void;

function EventPicker(props: { catalog: CatalogEvent[]; model: Model; onChange: Change }): JSX.Element {
  const { catalog, model, onChange } = props;
  const [search, setSearch] = useState("");
  const [most, setMost] = useState(12);
  const wanted = search.toLowerCase().split(/\s+/).filter((word) => word !== "");
  const texts = useMemo(() => catalog.map((event) => [event.catalogService, event.resource, words(event.resource), event.summary,
    ...event.indexes.flatMap(({ name, meaning }) => [name, words(name), meaning]), ...event.fields.flatMap((field) => [field.name, words(field.name), field.meaning, field.unit])].join(" ").toLowerCase()), [catalog]);
  const found = catalog.filter((_, index) => wanted.every((word) => texts[index]!.includes(word)));
  return (
    <Panel title="Choose events" actions={
      <input type="search" aria-label="Find an event" placeholder="Speed, battery, door …" value={search} onInput={(event) => {
        setSearch(event.currentTarget.value);
        setMost(12);
      }} />
    }>
      <p class="muted">{plural(found.length, "event")}. Each instance that you tick becomes a collector.</p>
      {found.length === 0 && <Empty title="No event has these words." />}
      <ul class="picker">
        {found.slice(0, most).map((event) => {
          const chosen = event.indexes.filter(({ value }) => edit.collectorOf(model, event.catalogService, event.resource, value)).length;
          return (
            <li key={event.view}>
              <details open={wanted.length > 0 && found.length <= 2}>
                <summary>
                  <strong>{event.catalogService}.{event.resource}</strong> {chosen > 0 && <Chip tone="good">{chosen} chosen</Chip>}
                  <span class="muted picker-summary">{event.summary}</span>
                </summary>
                <fieldset>
                  <legend>Instances</legend>
                  {event.indexes.map(({ value, name, meaning }) => {
                    const collector = edit.collectorOf(model, event.catalogService, event.resource, value);
                    return (
                      <label key={value} class="check" title={meaning}>
                        <input type="checkbox" checked={collector !== undefined} onChange={(change) => onChange(change.currentTarget.checked
                          ? edit.added(model, event.catalogService, event.resource, value) : edit.removed(model, collector!.name))} />
                        <span class="num">{value}</span> {name} <span class="muted">{meaning}</span>
                      </label>
                    );
                  })}
                </fieldset>
                <p class="muted picker-fields">{event.fields.filter((field) => !field.name.endsWith("ValueType"))
                  .map((field) => `${field.name}${field.unit ? ` [${field.unit}]` : ""}`).join(", ")}</p>
              </details>
            </li>
          );
        })}
      </ul>
      {found.length > most && <p class="more"><button type="button" onClick={() => setMost(most + 24)}>Show more events</button></p>}
    </Panel>
  );
}

function Collectors(props: { model: Model; catalog: CatalogEvent[]; onChange: Change }): JSX.Element {
  const { model, catalog, onChange } = props;
  const [search, setSearch] = useState("");
  const [most, setMost] = useState(ROWS);
  const found = model.collectors.filter((each) => `${each.name} ${each.serv}.${each.res}`.toLowerCase().includes(search.toLowerCase()));
  return (
    <Panel title={`Collectors (${model.collectors.length})`} actions={model.collectors.length > 10 &&
      <input type="search" aria-label="Find a collector" placeholder="Find a collector" value={search}
        onInput={(event) => setSearch(event.currentTarget.value)} />}>
      {model.collectors.length === 0 ? (
        <Empty title="Nothing is collected yet."><p>Choose events below: position, speed, battery …</p></Empty>
      ) : (
        <Scroll label="Collectors">
          <table class="cards form collectors">
            <thead><tr><th>Name</th><th>Event</th><th>Instance</th><th>Records</th><th>Report</th><th><span class="visually-hidden">Remove</span></th></tr></thead>
            <tbody>
              {found.slice(0, most).map((each, row) => {
                const event = catalog.find(({ catalogService, resource }) => catalogService === each.serv && resource === each.res);
                const reports = model.reports.filter(({ from }) => from.includes(each.name));
                const choice = reports.length > 1 ? "\n" : reports[0]?.name ?? "";
                return (
                  <tr key={row}>
                    <td data-label="Name"><input aria-label="Name of the collector" value={each.name}
                      onChange={(change) => onChange(edit.changed(model, each.name, { name: change.currentTarget.value }))} /></td>
                    <td data-label="Event"><span title={event?.summary}>{each.serv}.<wbr />{each.res}</span></td>
                    <td data-label="Instance">
                      {event ? (
                        <select aria-label={`Instance of ${each.name}`} value={String(each.index)}
                          onChange={(change) => onChange(edit.changed(model, each.name, { index: Number(change.currentTarget.value) }))}>
                          {!event.indexes.some(({ value }) => value === each.index) && <option value={String(each.index)}>{each.index}</option>}
                          {event.indexes.map(({ value, name }) => <option key={value} value={String(value)}>{value} {name}</option>)}
                        </select>
                      ) : <span class="num">{each.index}</span>}
                    </td>
                    <td data-label="Records">
                      <span class="history">
                        <select aria-label={`Records of ${each.name}`} value={each.history === 0 ? "newest" : "all"}
                          onChange={(change) => onChange(edit.changed(model, each.name,
                            { history: change.currentTarget.value === "newest" ? 0 : 10000 }))}>
                          <option value="newest">the newest</option>
                          <option value="all">all of a tick</option>
                        </select>
                        {each.history !== 0 && (
                          <label title="Records that arrive while a tick is served are kept for this long.">
                            <span class="visually-hidden">History of {each.name} in seconds</span>
                            <input type="number" min="0.001" step="any" class="short num" value={each.history / 1000}
                              onChange={(change) => onChange(edit.changed(model, each.name,
                                { history: Math.round(Number(change.currentTarget.value) * 1000) }))} /> s
                          </label>
                        )}
                      </span>
                    </td>
                    <td data-label="Report">
                      <select aria-label={`Report of ${each.name}`} value={choice}
                        onChange={(change) => onChange(edit.moved(model, each.name, change.currentTarget.value))}>
                        <option value="">none: never sent</option>
                        {reports.length > 1 && <option value={"\n"}>{reports.map(({ name }) => name).join(", ")}</option>}
                        {model.reports.map(({ name }, at) => <option key={at} value={name}>{name}</option>)}
                      </select>
                    </td>
                    <td><button type="button" class="quiet small" aria-label={`Remove ${each.name}`} title="Remove"
                      onClick={() => onChange(edit.removed(model, each.name))}>✕</button></td>
                  </tr>
                );
              })}
            </tbody>
          </table>
        </Scroll>
      )}
      {found.length > most && <p class="more"><button type="button" onClick={() => setMost(most + ROWS)}>
        Show {Math.min(ROWS, found.length - most)} more of {found.length}</button></p>}
    </Panel>
  );
}

function Frame(props: { model: Model; onChange: Change }): JSX.Element {
  const { model, onChange } = props;
  const change = (at: number, part: Partial<edit.Report>): void =>
    onChange({ ...model, reports: model.reports.map((report, index) => (index === at ? { ...report, ...part } : report)) });
  return (
    <Panel title="Clock and reports">
      <div class="fields">
        <label class="field">Name in reports
          <input value={model.name} onChange={(event) => onChange({ ...model, name: event.currentTarget.value })} /></label>
        <label class="field">Version in reports
          <input value={model.version} onChange={(event) => onChange({ ...model, version: event.currentTarget.value })} /></label>
        <label class="field">Clock
          <input value={model.clock.name} onChange={(event) => onChange(edit.clockNamed(model, event.currentTarget.value))} /></label>
        <label class="field">A report every … seconds
          <input type="number" min={edit.LEAST_DURATION / 1000} step="1" class="num" value={model.clock.duration / 1000}
            onChange={(event) => onChange({ ...model, clock: { ...model.clock, duration: Math.round(Number(event.currentTarget.value) * 1000) } })} />
        </label>
      </div>
      <h3>Reports</h3>
      <ul class="reports">
        {model.reports.map((report, index) => (
          <li key={index}>
            <label class="field">Report<input value={report.name} onChange={(event) => change(index, { name: event.currentTarget.value })} /></label>
            <label class="field">Application<input value={report.application}
              onChange={(event) => change(index, { application: event.currentTarget.value })} /></label>
            <details class="members">
              <summary>{plural(report.from.length, "collector")}</summary>
              {model.collectors.map(({ name }) => (
                <label key={name} class="check"><input type="checkbox" checked={report.from.includes(name)} onChange={(event) => change(index, {
                  from: event.currentTarget.checked ? [...report.from, name] : report.from.filter((each) => each !== name) })} /> {name}</label>
              ))}
            </details>
            <button type="button" class="quiet small" aria-label={`Remove report ${report.name}`} title="Remove"
              onClick={() => onChange({ ...model, reports: model.reports.filter((_, at) => at !== index) })}>✕</button>
          </li>
        ))}
      </ul>
      <button type="button" onClick={() => {
        let number = model.reports.length + 1;
        while (model.reports.some(({ name }) => name === `Report${number}`)) ++number;
        onChange({ ...model, reports: [...model.reports, { name: `Report${number}`, application: model.reports[0]?.application ?? "vlm", from: [], rest: {} }] });
      }}>Add a report</button>
    </Panel>
  );
}

function JsonText(props: { text: string; findings: Finding[]; line: { number: number } | null; onChange: (text: string) => void }): JSX.Element {
  const { text, findings, line } = props;
  const area = useRef<HTMLTextAreaElement>(null);
  const gutter = useRef<HTMLDivElement>(null);
  const count = text.split("\n").length;
  const marks = new Map(findings.map((finding) => [finding.line, finding.severity]));
  useEffect(() => {
    if (!line || !area.current) return;
    const before = text.split("\n").slice(0, line.number - 1).join("\n").length + (line.number > 1 ? 1 : 0);
    const end = text.indexOf("\n", before);
    area.current.focus();
    area.current.setSelectionRange(before, end < 0 ? text.length : end);
    area.current.scrollTop = Math.max(0, (line.number - 5) * parseFloat(getComputedStyle(area.current).lineHeight));
  }, [line]);
  return (
    <div class="code">
      <div class="code-lines num" ref={gutter} aria-hidden="true">
        {Array.from({ length: count }, (_, index) => <span key={index} class={marks.get(index + 1) ?? ""}>{index + 1}</span>)}
      </div>
      <textarea ref={area} aria-label="Configuration as JSON" spellcheck={false} wrap="off" value={text}
        onInput={(event) => props.onChange(event.currentTarget.value)}
        onScroll={(event) => {
          if (gutter.current) gutter.current.scrollTop = event.currentTarget.scrollTop;
        }} />
    </div>
  );
}

function Findings(props: { findings: Finding[] | undefined; error: ApiError | undefined; onLine: (line: number) => void }): JSX.Element {
  const { findings, error, onLine } = props;
  if (error) return <ErrorBox error={error} title="Cannot check." />;
  if (!findings) return <p class="muted" role="status">Checking …</p>;
  if (findings.length === 0) return <p class="notice good" role="status">No finding: a vehicle takes this configuration.</p>;
  return (
    <ul class="findings" role="status">
      {findings.map((finding, index) => (
        <li key={index} class={finding.severity}>
          <Chip tone={finding.severity === "error" ? "bad" : "warn"}>{finding.severity}</Chip>{" "}
          {finding.line > 0 && <button type="button" class="link" onClick={() => onLine(finding.line)}>line {finding.line}</button>}{" "}
          <code>{finding.path}</code> {finding.reason}
          {finding.suggestion !== "" && <small class="muted">{finding.suggestion}</small>}
        </li>
      ))}
    </ul>
  );
}

/** The configurations that a vehicle has applied since its start, as far as this backend knows them. */
function appliedBy(vehicle: Vehicle, configurations: Configuration[]): Configuration[] {
  const { desired, state } = vehicle.configuration;
  const ids = (vehicle.health?.configurations ?? []).filter((each) => each.state === "applied").map(({ recordId }) => recordId);
  const all = ids.flatMap((recordId) => configurations.filter((each) => each.recordId === recordId));
  const last = state === "applied" ? configurations.find(({ id }) => id === desired) : undefined;
  return last && !all.includes(last) ? [...all, last] : all;
}

async function runningModel(applied: Configuration[], signal: AbortSignal): Promise<Model | undefined> {
  const texts = await Promise.all(applied.map(({ id }) => get<Configuration>(["configurations", String(id)], {}, signal)));
  const [first, ...others] = texts.map(({ text }) => edit.read(text ?? "")).flatMap((each) => ("model" in each ? [each.model] : []));
  return first && edit.together([first, ...others]);
}

function Differences(props: { model: Model | undefined; vehicles: Vehicle[]; configurations: Configuration[]; base: Configuration | undefined }): JSX.Element {
  const { model, vehicles, configurations, base } = props;
  const runs = vehicles.map((vehicle) => ({ vehicle: vehicle.name, applied: appliedBy(vehicle, configurations) }))
    .filter(({ applied }) => applied.length > 0);
  const query = useStore(route).query;
  const asked = query.get("with") ?? (runs[0] ? `vehicle ${runs[0].vehicle}` : base ? "base" : "");
  const others = asked === "base" && base ? [base] : runs.find(({ vehicle }) => asked === `vehicle ${vehicle}`)?.applied;
  const before = useLoad(others ? `running ${others.map(({ id }) => id).join(" ")}` : null, "", (signal) => runningModel(others!, signal));
  return (
    <Panel title="Difference" actions={(runs.length > 0 || base) &&
      <select aria-label="Compare with" value={asked} onChange={(event) => changeQuery({ with: event.currentTarget.value }, true)}>
        {base && <option value="base">{base.name} v{base.version}, as stored</option>}
        {runs.map(({ vehicle, applied }) => <option key={vehicle} value={`vehicle ${vehicle}`}>
          what {vehicle} runs ({applied.map(({ name, version }) => `${name} v${version}`).join(", ")})</option>)}
      </select>}>
      {!others && <p class="muted">No vehicle runs a configuration of this backend yet, so all of it is new.</p>}
      {others && before.loading && before.value === undefined && <p class="muted">Loading what runs …</p>}
      {before.error && <ErrorBox error={before.error} title="Cannot compare." />}
      {others && !before.loading && !before.error && (!model || !before.value) && <p class="muted">Cannot compare: one of the two has no form.</p>}
      {model && before.value && <DifferenceList found={edit.differences(before.value, model)} stored={asked === "base"} />}
    </Panel>
  );
}

function DifferenceList(props: { found: edit.Difference[]; stored: boolean }): JSX.Element {
  const { found, stored } = props;
  if (found.length === 0) return <p>No difference.</p>;
  const later = found.filter(({ when }) => when !== "at once").length;
  return (
    <>
      {!stored && later > 0 && <p class="notice">A further configuration adds to the running one. {plural(later, "difference")} of {found.length}{" "}
        {later === 1 ? "takes" : "take"} effect only at the vehicle's next start.</p>}
      <ul class="differences">
        {found.map((each, index) => (
          <li key={index}>
            {!stored && <span class={`when ${each.when === "at once" ? "" : "later"}`}>{each.when}</span>}
            <Chip tone={each.kind === "added" ? "good" : each.kind === "removed" ? "bad" : "info"}>{each.kind}</Chip>{" "}
            {each.what} <strong>{each.name}</strong> <small class="muted">{each.detail}</small>
          </li>
        ))}
      </ul>
    </>
  );
}

const DRAFT = "vlm-draft ";

function draftOf(key: string): { name: string; text: string } | null {
  try {
    return JSON.parse(sessionStorage.getItem(DRAFT + key) ?? "null") as { name: string; text: string } | null;
  } catch {
    return null;
  }
}

function keepDraft(key: string, draft: { name: string; text: string } | null): void {
  try {
    if (draft) sessionStorage.setItem(DRAFT + key, JSON.stringify(draft));
    else sessionStorage.removeItem(DRAFT + key);
  } catch {
    // a draft then lives as long as the view
  }
}

function Form(props: {
  base: Configuration | undefined;
  catalog: CatalogEvent[];
  fleet: Fleet;
  vehicles: Vehicle[];
  configurations: Configuration[];
  session: Session;
}): JSX.Element {
  const { base, catalog, fleet, vehicles, configurations, session } = props;
  const key = base ? String(base.id) : "new";
  const original = useMemo(() => ({ name: base?.name ?? "", text: base?.text ?? edit.write(edit.empty()) }), [base]);
  const [draft, setDraft] = useState(() => draftOf(key) ?? original);
  const [stored, setStored] = useState<Configuration | null>(null);
  const [storing, setStoring] = useState(false);
  const [refusal, setRefusal] = useState<ApiError | null>(null);
  const [line, setLine] = useState<{ number: number } | null>(null);
  const json = useStore(route).query.get("as") === "json";
  const { name, text } = draft;
  const parsed = useMemo(() => edit.read(text), [text]);
  const model = "model" in parsed ? parsed.model : undefined;
  const settled = useSettled(text, CHECK_AFTER_MS);
  const check = useLoad("check", `${settled} ${useStore(epoch)}`, (signal) => post<Finding[]>(["check"], { text: settled }, signal));
  const dirty = name !== original.name || text !== original.text;
  const errors = check.value?.filter(({ severity }) => severity === "error").length ?? 0;
  const version = Math.max(0, ...configurations.filter((each) => each.name === name).map((each) => each.version)) + 1;

  const update = (change: Partial<typeof draft>): void => {
    const next = { ...draft, ...change };
    setDraft(next);
    setStored(null);
    setRefusal(null);
    keepDraft(key, next);
  };
  const onChange: Change = (next) => update({ text: edit.write(next) });
  // Reports carry the same name until somebody gives them another.
  const rename = (next: string): void => update({ name: next,
    ...(model && (model.name === "" || model.name === name) && { text: edit.write({ ...model, name: next }) }) });
  const showLine = (number: number): void => {
    changeQuery({ as: "json" }, true);
    setLine({ number });
  };
  const store = async (): Promise<void> => {
    setStoring(true);
    setRefusal(null);
    try {
      setStored(await post<Configuration>(["configurations"], { name, text }));
      keepDraft(key, null);
    } catch (error) {
      setRefusal(error instanceof ApiError ? error : new ApiError(0, String(error)));
    }
    setStoring(false);
  };
  const may = session.role === "configure";
  return (
    <>
      <div class="toolbar">
        <label class="field wide">Name of the configuration
          <input value={name} maxLength={64} placeholder="Commute" onInput={(event) => rename(event.currentTarget.value)} /></label>
        <div class="segments" role="group" aria-label="Show as">
          <button type="button" aria-pressed={!json} onClick={() => changeQuery({ as: undefined }, true)}>Form</button>
          <button type="button" aria-pressed={json} onClick={() => changeQuery({ as: "json" }, true)}>JSON</button>
        </div>
        {dirty && !stored && <button type="button" onClick={() => {
          setDraft(original);
          keepDraft(key, null);
        }}>Discard changes</button>}
      </div>
      <div class="editor">
        <div class="editor-main">
          {json ? <JsonText text={text} findings={check.value ?? []} line={line} onChange={(next) => update({ text: next })} />
            : model ? (
              <>
                {/(^|[\s,{[])\/[/*]/.test(text) && <p class="notice">This configuration has comments. A change in the form removes them; JSON keeps them.</p>}
                <Frame model={model} onChange={onChange} />
                <Collectors model={model} catalog={catalog} onChange={onChange} />
                <EventPicker catalog={catalog} model={model} onChange={onChange} />
              </>
            ) : (
              <Empty title="The form cannot show this text."><p>{"problem" in parsed ? parsed.problem : ""}</p>
                <p><button type="button" onClick={() => changeQuery({ as: "json" }, true)}>Edit it as JSON</button></p></Empty>
            )}
        </div>
        <div class="editor-side">
          <Panel title="Check" busy={check.loading || settled !== text}>
            <Findings findings={check.value} error={check.error} onLine={showLine} />
          </Panel>
          <Differences model={model} vehicles={vehicles} configurations={configurations} base={base} />
          <Panel title="Store and assign">
            {!may && <p class="notice">You may look. Storing needs the role "configure".</p>}
            {stored ? (
              <>
                <p class="notice good" role="status">Stored as <a href={link(["configure", String(stored.id)])}>{stored.name} v{stored.version}</a>. Vehicles
                  get it when you assign it.</p>
                <Assign configuration={stored} fleet={fleet} vehicles={vehicles} />
              </>
            ) : (
              <>
                <button type="button" class="primary" disabled={!may || storing || name.trim() === "" || errors > 0} onClick={() => void store()}>
                  {storing ? "Storing …" : `Store as version ${version}`}</button>
                {may && name.trim() === "" && <p class="muted">Give the configuration a name first.</p>}
                {errors > 0 && <p class="muted">{plural(errors, "error")} to correct first.</p>}
                {refusal && <ErrorBox error={refusal} title="Not stored." />}
                {refusal && refusal.findings.length > 0 && <Findings findings={refusal.findings} error={undefined} onLine={showLine} />}
                {base && !dirty && may && <><h3>Assign {base.name} v{base.version}</h3><Assign configuration={base} fleet={fleet} vehicles={vehicles} /></>}
              </>
            )}
          </Panel>
        </div>
      </div>
    </>
  );
}

export function Editor(props: { id: string; fleet: Fleet; configurations: Configuration[]; session: Session }): JSX.Element {
  const { id, fleet, configurations, session } = props;
  const vehicles = useVehicles("", "all", MOST_VEHICLES);
  const isNew = id === "new";
  const base = useLoad(isNew ? null : `configuration ${id}`, "", (signal) => get<Configuration>(["configurations", id], {}, signal));
  const catalog = useLoad("catalog", "", (signal) => get<CatalogEvent[]>(["catalog"], {}, signal));
  const form = (loaded: Configuration | undefined): JSX.Element => (
    <Show loaded={catalog} what="the catalog">
      {(events) => <Show loaded={vehicles} what="the vehicles">
        {(some) => <Form key={id} base={loaded} catalog={events} fleet={fleet} vehicles={some} configurations={configurations} session={session} />}
      </Show>}
    </Show>
  );
  return (
    <>
      <nav aria-label="Path" class="path"><a href={link(["configure"])}>Configure</a></nav>
      <div class="title">
        <h1>{isNew ? "New configuration" : base.value ? `${base.value.name} v${base.value.version}` : "Configuration"}</h1>
        {base.value && <span class="muted">stored <Time ms={base.value.createdMs} both />{base.value.user && ` by ${base.value.user}`}</span>}
      </div>
      {isNew ? form(undefined) : base.error?.status === 404
        ? <Empty title="There is no such configuration."><p><a href={link(["configure"])}>All configurations</a></p></Empty>
        : <Show loaded={base} what="the configuration">{form}</Show>}
    </>
  );
}
