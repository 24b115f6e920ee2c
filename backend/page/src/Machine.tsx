/** vlmmaster on this machine, as vlm-status shows it. */
import type { JSX } from "preact";
import { useEffect, useRef, useState } from "preact/hooks";
import type { Machine as Status } from "./api";
import { get } from "./api";
import { bytes, countsLoss, flat, span, value as digits, whole } from "./format";
import { epoch } from "./live";
import { changeQuery, route } from "./route";
import { useLoad, useStore } from "./store";
import { Chip, Empty, Panel, Show, Stat } from "./ui";

const PERIOD_MS = 2000;

/** Effects of the configured history, attempts, and lost log lines: worth seeing, but no lost data. */
const EFFECTS = ["records.expired", "records.replaced", "records.withoutCollector", "orx.failed", "orx.undelivered",
  "reports.resendFailed", "reports.overtaken", "config.refused", "control.refused", "orx.refused", "samples.notFinite"];

function shown(name: string, entry: unknown): string {
  if (typeof entry === "boolean") return entry ? "yes" : "no";
  if (typeof entry !== "number") return typeof entry === "string" ? entry : JSON.stringify(entry);
  if (/bytes/i.test(name)) return bytes(entry);
  if (name.endsWith("KiB")) return bytes(entry * 1024);
  if (name.endsWith("Ms")) return span(entry);
  return Number.isInteger(entry) ? whole(entry) : digits(entry);
}

function Counters(props: { entries: [string, unknown][] }): JSX.Element {
  return (
    <dl class="counter-list">
      {props.entries.map(([name, entry]) => (
        <div key={name}><dt>{name}</dt><dd class="num">{shown(name, entry)}</dd></div>
      ))}
    </dl>
  );
}

/** Samples a second between two answers. */
function useRate(count: number | undefined): number | undefined {
  const before = useRef<{ count: number; at: number; rate: number | undefined } | null>(null);
  const now = performance.now();
  const last = before.current;
  if (count === undefined) return undefined;
  if (!last || count < last.count) before.current = { count, at: now, rate: undefined };
  else if (now - last.at > PERIOD_MS / 2) {
    before.current = { count, at: now, rate: (count - last.count) / ((now - last.at) / 1000) };
  }
  return before.current!.rate;
}

function Lines(props: { lines: string[] }): JSX.Element {
  const box = useRef<HTMLDivElement>(null);
  const atEnd = useRef(true);
  useEffect(() => {
    if (box.current && atEnd.current) box.current.scrollTop = box.current.scrollHeight;
  }, [props.lines]);
  if (props.lines.length === 0) {
    return <Empty title="No log line up to level 3."><p>Such lines report errors and what a person should know.</p></Empty>;
  }
  return (
    <div class="log" ref={box} role="log" tabIndex={0} aria-label="Log lines"
      onScroll={(event) => {
        const { scrollTop, scrollHeight, clientHeight } = event.currentTarget;
        atEnd.current = scrollTop + clientHeight > scrollHeight - 30;
      }}>
      {props.lines.map((line, index) => <div key={index}>{line}</div>)}
    </div>
  );
}

function Running(props: { status: Record<string, unknown> }): JSX.Element {
  const inner = props.status.status;
  const values = flat((typeof inner === "object" && inner !== null ? inner : props.status) as Record<string, unknown>);
  const number = (name: string): number | undefined => {
    const entry = values[name];
    return typeof entry === "number" ? entry : undefined;
  };
  const count = (name: string): string => {
    const entry = number(name);
    return entry === undefined ? "–" : whole(entry);
  };
  const rate = useRate(number("samples.received"));
  const search = useStore(route).query.get("search") ?? "";
  const all = Object.entries(values).sort(([a], [b]) => a.localeCompare(b));
  const lost = all.filter(([name]) => countsLoss(name));
  const sum = lost.reduce((total, [, entry]) => total + (typeof entry === "number" ? entry : 0), 0);
  const effects = all.filter(([name]) => EFFECTS.includes(name) || name.startsWith("log.dropped."));
  const memory = number("process.memoryKiB");
  const rest = all.filter(([name]) => name.toLowerCase().includes(search.toLowerCase()));
  const next = number("clock.nextTickMs");
  return (
    <>
      <dl class="stats">
        <Stat label="Samples received" value={count("samples.received")}
          note={rate === undefined ? "counting …" : `${whole(rate)} a second`} />
        <Stat label="Records waiting" value={count("records.waiting")} note={next === undefined ? "" : `tick in ${span(Math.max(next, 0))}`} />
        <Stat label="Reports sent" value={count("reports.sent")} note={`${count("reports.waiting")} waiting`} />
        <Stat label="Events subscribed" value={count("events.subscribed")}
          note={`${count("services.found")} of ${count("services.configured")} services found`} />
        <Stat label="Memory" value={memory === undefined ? "–" : bytes(memory * 1024)} note="resident" />
        <Stat label="Lost" value={whole(sum)} tone={sum > 0 ? "warn" : "good"} note={sum > 0 ? "see the counters" : "nothing was lost"} />
      </dl>
      <div class="columns">
        <Panel title="Loss counters" actions={sum > 0 ? <Chip tone="warn">{whole(sum)} lost</Chip> : <Chip tone="good">all 0</Chip>}>
          <Counters entries={[...lost].sort(([, a], [, b]) => Number(b) - Number(a))} />
          {effects.length > 0 && <><h3>Effects of the configuration, and attempts</h3><Counters entries={effects} /></>}
        </Panel>
        <Panel title="All counters" actions={
          <label class="field-inline"><span class="visually-hidden">Find a counter</span>
            <input type="search" placeholder="Find a counter" value={search}
              onInput={(event) => changeQuery({ search: event.currentTarget.value }, true)} /></label>}>
          <div class="tall" tabIndex={0} role="region" aria-label="All counters"><Counters entries={rest} />
            {rest.length === 0 && <Empty title="No counter has this name." />}</div>
        </Panel>
      </div>
    </>
  );
}

export function Machine(): JSX.Element {
  const [tick, setTick] = useState(0);
  useEffect(() => {
    const timer = setInterval(() => setTick((count) => count + 1), PERIOD_MS);
    return () => clearInterval(timer);
  }, []);
  const machine = useLoad("machine", `${tick} ${useStore(epoch)}`, (signal) => get<Status>(["machine"], {}, signal));
  if (machine.error?.status === 404) {
    return (
      <>
        <h1>This machine</h1>
        <Empty title="No vlmmaster runs on this machine.">
          <p><code>make run</code> starts one, and this view shows its status.</p>
        </Empty>
      </>
    );
  }
  return (
    <>
      <h1>This machine</h1>
      <Show loaded={machine} what="the status">
        {(status) => (
          <>
            {status.running ? <Running status={status.status} />
              : <Empty title="vlmmaster does not answer."><p>{status.reason}</p></Empty>}
            <Panel title="Log, level 1 to 3"><Lines lines={status.lines} /></Panel>
          </>
        )}
      </Show>
    </>
  );
}
