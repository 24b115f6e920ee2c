/** Fields of the catalog: found by their words, and those that a vehicle has. */
import type { CatalogEvent, Field, Sample } from "../api";
import { words } from "../format";

export interface Known {
  event: CatalogEvent;
  field: Field;
  /** "gnss_positions.latitude" */
  column: string;
  /** What a search compares with, in lower case. */
  text: string;
}

export function numeric(field: Field): boolean {
  return field.kind !== "text";
}

/** A "...ValueType" is the state of its neighbour, which is rarely plotted. */
export function isState(field: Field): boolean {
  return field.name.endsWith("ValueType");
}

export function knownFields(catalog: CatalogEvent[]): Map<string, Known> {
  const all = new Map<string, Known>();
  for (const event of catalog) {
    for (const field of event.fields) {
      const column = `${event.view}.${field.column}`;
      const text = [field.name, words(field.name), event.catalogService, event.resource, words(event.resource), field.meaning,
        field.unit].join(" ").toLowerCase();
      all.set(column, { event, field, column, text });
    }
  }
  return all;
}

/** Fields that contain all words: with samples first, then those whose name begins like the search. */
export function search(all: Iterable<Known>, text: string, views: ReadonlySet<string>, most = 60): Known[] {
  const wanted = text.toLowerCase().split(/\s+/).filter((word) => word !== "");
  const rank = ({ event, field }: Known): number => {
    const name = words(field.name);
    return (views.has(event.view) ? 0 : 8) + (isState(field) ? 4 : 0)
      + (wanted[0] === undefined || name.startsWith(wanted[0]) ? 0 : name.includes(wanted[0]) ? 1 : 2);
  };
  return [...all]
    .filter((known) => numeric(known.field) && wanted.every((word) => known.text.includes(word)))
    .map((known) => ({ known, rank: rank(known) }))
    .sort((a, b) => a.rank - b.rank || a.known.column.localeCompare(b.known.column))
    .slice(0, most)
    .map(({ known }) => known);
}

/** The view with the vehicle's speed: others have speeds of their own, such as a crash's. */
const SPEED = "chassis_velocity_info";
/** What most people want to see first, in this order, as far as the vehicle has it. */
const FIRST = [/velocity|speed/i, /altitude/i, /stateOfCharge|range/i, /temperature/i, /power|torque/i];

export function firstPlots(known: Map<string, Known>, latest: Sample[], most = 3): string[] {
  const views = [...new Set(latest.map((sample) => sample.view))].sort();
  const candidates = [...known.values()].filter(({ event, field }) => views.includes(event.view)
    && (field.kind === "real" || field.kind === "integer") && field.unit !== "" && field.values.length === 0
    && !/accuracy|deviation|latency|counter|time|nanoseconds|seconds/i.test(field.name))
    .sort((a, b) => Number(b.event.view === SPEED) - Number(a.event.view === SPEED));
  const chosen: Known[] = [];
  for (const wanted of FIRST) {
    const found = candidates.find((candidate) => wanted.test(candidate.field.name) && !chosen.includes(candidate)
      && !chosen.some((other) => other.event.view === candidate.event.view && wanted.test(other.field.name)));
    if (found) chosen.push(found);
    if (chosen.length === most) break;
  }
  return (chosen.length ? chosen : candidates.slice(0, most)).map(({ column }) => column);
}

/** 1 as "fused" when the field is an enumeration. */
export function named(field: Field | undefined, value: unknown): string {
  return field?.values.find((entry) => entry.value === value)?.name ?? "";
}

/** A value of a sample as text; a fraction has at most ten digits, as 1 cm of a position needs. */
export function valueText(value: unknown): string {
  if (value === null || value === undefined) return "";
  if (typeof value === "number" && !Number.isInteger(value)) return String(Number(value.toPrecision(10)));
  return typeof value === "object" ? JSON.stringify(value) : String(value);
}
