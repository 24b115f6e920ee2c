/** Texts for people. Local time comes first; UTC is next to it where it matters. */

const two = (number: number): string => String(number).padStart(2, "0");

/** 2026-11-25 10:02:11 in local time. */
export function stamp(ms: number, withMs = false): string {
  const date = new Date(ms);
  if (Number.isNaN(date.getTime())) return "unknown time";
  return `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())} ${clock(ms, withMs)}`;
}

/** 10:02:11 in local time. */
export function clock(ms: number, withMs = false): string {
  const date = new Date(ms);
  return `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}`
    + (withMs ? `.${String(date.getMilliseconds()).padStart(3, "0")}` : "");
}

/** 2026-11-25 09:02:11 UTC. */
export function utc(ms: number, withMs = false): string {
  const date = new Date(ms);
  if (Number.isNaN(date.getTime())) return "unknown time";
  return `${date.toISOString().slice(0, withMs ? 23 : 19).replace("T", " ")} UTC`;
}

/** UTC+1 or UTC-3:30: the local zone at that time. */
export function zone(ms: number): string {
  const minutes = -new Date(ms).getTimezoneOffset();
  if (minutes === 0) return "UTC";
  const part = Math.abs(minutes) % 60;
  return `UTC${minutes < 0 ? "−" : "+"}${Math.floor(Math.abs(minutes) / 60)}${part ? `:${two(part)}` : ""}`;
}

/** 45 s, 3 min, 2 h 5 min, 4 d. */
export function span(ms: number): string {
  const seconds = Math.round(ms / 1000);
  if (seconds < 90) return `${seconds} s`;
  const minutes = Math.round(seconds / 60);
  if (minutes < 60) return `${minutes} min`;
  const hours = Math.floor(minutes / 60);
  if (hours < 48) return minutes % 60 && hours < 10 ? `${hours} h ${minutes % 60} min` : `${hours} h`;
  return `${Math.round(hours / 24)} d`;
}

/** A vehicle's clock may be ahead of this one. */
export function age(ms: number, now: number): string {
  const past = now - ms;
  if (Math.abs(past) < 2000) return "now";
  return past > 0 ? `${span(past)} ago` : `in ${span(-past)}`;
}

/** 12 345: digits in groups of three, with narrow spaces. */
export function whole(number: number): string {
  return Math.round(number).toString().replace(/\B(?=(\d{3})+$)/g, "\u202f");
}

export function bytes(number: number): string {
  if (number < 1024) return `${number} B`;
  if (number < 1024 ** 2) return `${(number / 1024).toFixed(1)} KiB`;
  if (number < 1024 ** 3) return `${(number / 1024 ** 2).toFixed(1)} MiB`;
  return `${(number / 1024 ** 3).toFixed(2)} GiB`;
}

/** As many digits as a step of `resolution` needs; seven without one. */
export function value(number: number, resolution = 0): string {
  if (!Number.isFinite(number)) return String(number);
  if (resolution > 0) {
    const digits = Math.min(Math.max(-Math.floor(Math.log10(resolution)), 0), 9);
    return number.toFixed(digits);
  }
  return String(Number(number.toPrecision(7)));
}

/** "velocityPhysicalValue" or "lastReport" as words. */
export function words(name: string): string {
  return name.replace(/([a-z0-9])([A-Z])/g, "$1 $2").toLowerCase();
}

export function plural(count: number, one: string, many = `${one}s`): string {
  return `${whole(count)} ${count === 1 ? one : many}`;
}

const LOSSES = new Set([
  "someip.kernelDropped", "someip.malformed", "someip.truncated", "someip.sd.malformed", "threads.failed",
  "reports.failed", "reports.discarded", "orx.givenUp", "spool.setAside",
]);

/** Whether a counter counts lost data, as vlm-status understands it. */
export function countsLoss(name: string): boolean {
  if (name.startsWith("log.dropped.")) return false;
  return LOSSES.has(name) || name.endsWith(".dropped") || name.includes(".dropped.");
}

/** The losses of a flat list of counters, the largest first. */
export function losses(counters: Record<string, unknown> | undefined): [string, number][] {
  return Object.entries(counters ?? {})
    .filter((entry): entry is [string, number] => countsLoss(entry[0]) && typeof entry[1] === "number" && entry[1] > 0)
    .sort((a, b) => b[1] - a[1]);
}

/** {"a": {"b": 1}} as "a.b": 1. */
export function flat(tree: Record<string, unknown>, prefix = ""): Record<string, unknown> {
  const all: Record<string, unknown> = {};
  for (const [name, member] of Object.entries(tree)) {
    if (member !== null && typeof member === "object" && !Array.isArray(member)) {
      Object.assign(all, flat(member as Record<string, unknown>, `${prefix}${name}.`));
    } else {
      all[prefix + name] = member;
    }
  }
  return all;
}
