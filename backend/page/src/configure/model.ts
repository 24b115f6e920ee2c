/** A collector configuration (docs/configuration.md) between its text and the form. */
import type { ParseError } from "jsonc-parser";
import { parse, printParseErrorCode } from "jsonc-parser";

type Members = Record<string, unknown>;

export interface Collector {
  name: string;
  serv: string;
  res: string;
  index: number;
  /** ms; 0 keeps only the newest record. */
  history: number;
  on: string;
  /** Members that the form does not know. */
  rest: Members;
}

export interface Report {
  name: string;
  application: string;
  from: string[];
  rest: Members;
}

export interface Model {
  name: string;
  version: string;
  clock: { name: string; duration: number };
  reports: Report[];
  collectors: Collector[];
  /** Of the whole text, the first CONFIG and the first CLOCK: what the form does not know. */
  rest: { members: Members; config: Members; clock: Members; clocks: unknown[] };
}

export const LEAST_DURATION = 60000;

class Unfit extends Error {}

function members(value: unknown, place: string): Members {
  if (value === null || typeof value !== "object" || Array.isArray(value)) throw new Unfit(`${place} is no object`);
  return value as Members;
}

function list(value: unknown, place: string): unknown[] {
  if (value === undefined || value === null) return [];
  if (!Array.isArray(value)) throw new Unfit(`${place} is no array`);
  return value;
}

/** Takes a member out of `from`, so that the rest remains. */
function take<T extends string | number>(from: Members, name: string, stand: T, place: string): T {
  const value = from[name];
  delete from[name];
  if (value === undefined || value === null) return stand;
  if (typeof value !== typeof stand) throw new Unfit(`${place}.${name} is no ${typeof stand === "number" ? "number" : "text"}`);
  return value as T;
}

/** The model, or why the form cannot show the text. */
export function read(text: string): { model: Model } | { problem: string } {
  const errors: ParseError[] = [];
  const root: unknown = parse(text, errors, { allowTrailingComma: false });
  const first = errors[0];
  if (first) {
    const line = text.slice(0, first.offset).split("\n").length;
    return { problem: `line ${line}: ${printParseErrorCode(first.error)}` };
  }
  try {
    const all = { ...members(root, "The text") };
    const [config, clocks] = [list(all.CONFIG, "CONFIG"), list(all.CLOCK, "CLOCK")];
    const [reports, collectors] = [list(all.REPORT, "REPORT"), list(all.COLLECT, "COLLECT")];
    for (const name of ["CONFIG", "CLOCK", "REPORT", "COLLECT"]) delete all[name];
    const head = config.length > 0 ? { ...members(config[0], "CONFIG[0]") } : {};
    const clock = clocks.length > 0 ? { ...members(clocks[0], "CLOCK[0]") } : {};
    const model: Model = {
      name: take(head, "name", "", "CONFIG[0]"),
      version: take(head, "version", "", "CONFIG[0]"),
      clock: { name: take(clock, "name", "", "CLOCK[0]"), duration: take(clock, "duration", LEAST_DURATION, "CLOCK[0]") },
      reports: reports.map((entry, index) => {
        const place = `REPORT[${index}]`;
        const rest = { ...members(entry, place) };
        const from = list(rest.from, `${place}.from`).map((name) => {
          if (typeof name !== "string") throw new Unfit(`${place}.from holds something else than names`);
          return name;
        });
        delete rest.from;
        return { name: take(rest, "name", "", place), application: take(rest, "application", "", place), from, rest };
      }),
      collectors: collectors.map((entry, index) => {
        const place = `COLLECT[${index}]`;
        const rest = { ...members(entry, place) };
        return { name: take(rest, "name", "", place), serv: take(rest, "serv", "", place), res: take(rest, "res", "", place),
          index: take(rest, "index", 0, place), history: take(rest, "history", 0, place), on: take(rest, "on", "", place), rest };
      }),
      rest: { members: all, config: head, clock, clocks: clocks.slice(1) },
    };
    return { model };
  } catch (error) {
    if (error instanceof Unfit) return { problem: error.message };
    throw error;
  }
}

/** One line, with spaces as in the examples. */
function inline(value: unknown): string {
  if (Array.isArray(value)) return `[${value.map(inline).join(", ")}]`;
  if (value !== null && typeof value === "object") {
    return `{${Object.entries(value).map(([name, member]) => `${JSON.stringify(name)}: ${inline(member)}`).join(", ")}}`;
  }
  return JSON.stringify(value);
}

function lines(name: string, elements: unknown[]): string {
  return elements.length === 0 ? `  ${JSON.stringify(name)}: []`
    : `  ${JSON.stringify(name)}: [\n${elements.map((element) => `    ${inline(element)}`).join(",\n")}\n  ]`;
}

export function write(model: Model): string {
  const { rest } = model;
  const parts: string[] = [];
  const config = { ...(model.name !== "" && { name: model.name }), ...(model.version !== "" && { version: model.version }), ...rest.config };
  if (Object.keys(config).length > 0) parts.push(`  "CONFIG": [${inline(config)}]`);
  parts.push(`  "CLOCK": [${[{ ...model.clock, ...rest.clock }, ...rest.clocks].map(inline).join(", ")}]`);
  parts.push(lines("REPORT", model.reports.map((report) => ({ name: report.name,
    ...(report.application !== "" && { application: report.application }), from: report.from, ...report.rest }))));
  parts.push(lines("COLLECT", model.collectors.map((each) => ({ name: each.name, serv: each.serv, res: each.res, index: each.index,
    ...(each.history !== 0 && { history: each.history }), ...(each.on !== "" && { on: each.on }), ...each.rest }))));
  for (const [name, member] of Object.entries(rest.members)) parts.push(`  ${JSON.stringify(name)}: ${inline(member)}`);
  return `{\n${parts.join(",\n")}\n}\n`;
}

export function empty(): Model {
  return { name: "", version: "1.0.0", clock: { name: "everyMinute", duration: LEAST_DURATION },
    reports: [{ name: "Report", application: "vlm", from: [], rest: {} }], collectors: [],
    rest: { members: {}, config: {}, clock: {}, clocks: [] } };
}

export function collectorOf(model: Model, serv: string, res: string, index: number): Collector | undefined {
  return model.collectors.find((each) => each.serv === serv && each.res === res && each.index === index);
}

/** With a collector of that instance in the first report. */
export function added(model: Model, serv: string, res: string, index: number): Model {
  const taken = new Set(model.collectors.map(({ name }) => name));
  let name = `${serv}.${res}.${index}`;
  while (taken.has(name)) name += "'";
  const collector: Collector = { name, serv, res, index, history: 0, on: model.clock.name, rest: {} };
  const reports = model.reports.length > 0 ? model.reports : empty().reports;
  return { ...model, collectors: [...model.collectors, collector],
    reports: reports.map((report, at) => (at === 0 ? { ...report, from: [...report.from, name] } : report)) };
}

export function removed(model: Model, name: string): Model {
  return { ...model, collectors: model.collectors.filter((each) => each.name !== name),
    reports: model.reports.map((report) => ({ ...report, from: report.from.filter((each) => each !== name) })) };
}

/** Changes a collector; reports follow its name. */
export function changed(model: Model, name: string, change: Partial<Collector>): Model {
  const next = change.name;
  return { ...model,
    collectors: model.collectors.map((each) => (each.name === name ? { ...each, ...change } : each)),
    reports: next === undefined ? model.reports
      : model.reports.map((report) => ({ ...report, from: report.from.map((each) => (each === name ? next : each)) })) };
}

/** Puts a collector into one report only, or into none. */
export function moved(model: Model, collector: string, report: string): Model {
  return { ...model, reports: model.reports.map((each) => {
    const without = each.from.filter((name) => name !== collector);
    return { ...each, from: each.name === report ? [...without, collector] : without };
  }) };
}

export function clockNamed(model: Model, name: string): Model {
  const old = model.clock.name;
  return { ...model, clock: { ...model.clock, name },
    collectors: model.collectors.map((each) => (each.on === old ? { ...each, on: name } : each)) };
}

export interface Difference {
  what: "clock" | "collector" | "report";
  name: string;
  kind: "added" | "changed" | "removed";
  detail: string;
  /** A configuration adds to a running one: what is there stays as it is until the next start. */
  when: "at once" | "at the next start";
}

/** What a vehicle runs after it applied all of them, one after the other: names stay with the first, the clock changes. */
export function together(applied: [Model, ...Model[]]): Model {
  const [first, ...others] = applied;
  const joined = <T extends { name: string }>(have: T[], more: T[]): T[] =>
    [...have, ...more.filter(({ name }) => !have.some((each) => each.name === name))];
  return others.reduce((running, next) => ({ ...next, reports: joined(running.reports, next.reports),
    collectors: joined(running.collectors, next.collectors) }), first);
}

function details(before: object, after: object): string {
  const [old, now] = [before as Members, after as Members];
  return [...new Set([...Object.keys(old), ...Object.keys(now)])]
    .filter((name) => name !== "name" && inline(old[name] ?? null) !== inline(now[name] ?? null))
    .map((name) => {
      if (name === "rest") return "other members";
      if (name !== "from") return `${name}: ${inline(old[name] ?? null)} → ${inline(now[name] ?? null)}`;
      const [had, has] = [old.from as string[], now.from as string[]];
      return [...has.filter((each) => !had.includes(each)).map((each) => `+ ${each}`),
        ...had.filter((each) => !has.includes(each)).map((each) => `− ${each}`)].join(", ") || "order";
    })
    .join("; ");
}

/** What a vehicle that runs `running` does differently with `next`, and when. */
export function differences(running: Model, next: Model): Difference[] {
  const found: Difference[] = [];
  if (running.clock.duration !== next.clock.duration || running.clock.name !== next.clock.name) {
    found.push({ what: "clock", name: next.clock.name, kind: "changed", detail: details({ ...running.clock, clock: running.clock.name },
      { ...next.clock, clock: next.clock.name }), when: "at once" });
  }
  const compare = <T extends { name: string }>(what: "collector" | "report", before: T[], after: T[]): void => {
    for (const each of after) {
      const old = before.find(({ name }) => name === each.name);
      if (!old) found.push({ what, name: each.name, kind: "added", detail: "", when: "at once" });
      else if (details(old, each) !== "") {
        found.push({ what, name: each.name, kind: "changed", detail: details(old, each), when: "at the next start" });
      }
    }
    for (const each of before) {
      if (!after.some(({ name }) => name === each.name)) {
        found.push({ what, name: each.name, kind: "removed", detail: "", when: "at the next start" });
      }
    }
  };
  compare("collector", running.collectors, next.collectors);
  compare("report", running.reports, next.reports);
  for (const each of found) {
    const collector = each.what === "collector" && each.kind === "added" ? next.collectors.find(({ name }) => name === each.name) : undefined;
    if (!collector) continue;
    // An instance belongs to its first collector, and a running report keeps its collectors.
    const holder = collectorOf(running, collector.serv, collector.res, collector.index);
    const sends = (report: Report): boolean => report.from.includes(collector.name);
    const sent = running.reports.some(sends) || next.reports.some((report) => sends(report) && !running.reports.some(({ name }) => name === report.name));
    if (holder) each.detail = `"${holder.name}" has this instance until then`;
    else if (!sent && next.reports.some(sends)) each.detail = "put it into a new report to get it at once";
    if (each.detail !== "") each.when = "at the next start";
  }
  return found;
}
