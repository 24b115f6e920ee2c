/** The time range of the vehicle view, and what lies in it. */

export interface Range {
  fromMs: number;
  /** Not part of the range. */
  toMs: number;
  /** The range ends at the newest sample and moves with it. */
  follows: boolean;
}

/** Seconds before the newest sample; 0: everything. */
export const PRESETS: readonly [number, string][] = [
  [300, "5 min"], [900, "15 min"], [3600, "1 h"], [21600, "6 h"], [86400, "24 h"], [0, "All"],
];
export const DEFAULT_LAST = 3600;
const LEAST_MS = 100;

/** Follows the vehicle's clock, not this machine's: it may be years off. */
export function rangeOf(query: URLSearchParams, measuredFromMs: number, measuredToMs: number): Range {
  const from = Number(query.get("from") ?? NaN);
  const to = Number(query.get("to") ?? NaN);
  if (Number.isFinite(from) && Number.isFinite(to) && to > from) {
    return { fromMs: Math.round(from), toMs: Math.round(to), follows: false };
  }
  const last = lastOf(query);
  const fromMs = last === 0 ? measuredFromMs : Math.max(measuredFromMs, measuredToMs - last * 1000);
  return { fromMs: Math.min(fromMs, measuredToMs - 1000), toMs: measuredToMs + 1, follows: true };
}

export function lastOf(query: URLSearchParams): number {
  const last = Number(query.get("last") ?? NaN);
  return Number.isFinite(last) && last >= 0 ? last : DEFAULT_LAST;
}

/** Zooms by `factor` around `atMs`; more than 1 shows more. */
export function zoomed(range: Range, factor: number, atMs: number): { fromMs: number; toMs: number } {
  const width = Math.max((range.toMs - range.fromMs) * factor, LEAST_MS);
  const share = (atMs - range.fromMs) / (range.toMs - range.fromMs);
  const fromMs = Math.round(atMs - width * share);
  return { fromMs, toMs: Math.round(fromMs + width) };
}

/** The index of the time nearest to `at` in ascending times; -1 without times. */
export function nearest(times: ArrayLike<number>, at: number): number {
  if (times.length === 0) return -1;
  let low = 0;
  let high = times.length - 1;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (times[middle]! < at) low = middle + 1;
    else high = middle;
  }
  return low > 0 && at - times[low - 1]! <= times[low]! - at ? low - 1 : low;
}

/** A pause this much longer than the usual one is a gap: nothing was collected in between. */
const GAP = 20;

/** The pause from which on two neighbours are not joined; infinite for fewer than three times. */
export function gapOf(times: readonly number[]): number {
  if (times.length < 3) return Infinity;
  const pauses = times.slice(1).map((time, index) => time - times[index]!).sort((a, b) => a - b);
  return Math.max(pauses[pauses.length >> 1]! * GAP, 1);
}

/** Times in seconds and the columns, with an empty row in each gap, as uPlot draws them. */
export function withGaps(timesMs: readonly number[], ...columns: (readonly number[])[]): [number[], ...(number | null)[][]] {
  const gap = gapOf(timesMs);
  const times: number[] = [];
  const out: (number | null)[][] = columns.map(() => []);
  timesMs.forEach((time, index) => {
    const before = timesMs[index - 1];
    if (before !== undefined && time - before > gap) {
      times.push((before + time) / 2000);
      out.forEach((column) => column.push(null));
    }
    times.push(time / 1000);
    out.forEach((column, which) => column.push(columns[which]![index]!));
  });
  return [times, ...out];
}

/** Runs of indexes without a gap. */
export function runs(times: readonly number[]): [number, number][] {
  const gap = gapOf(times);
  const found: [number, number][] = [];
  let begin = 0;
  for (let index = 1; index <= times.length; ++index) {
    if (index === times.length || times[index]! - times[index - 1]! > gap) {
      found.push([begin, index]);
      begin = index;
    }
  }
  return times.length ? found : [];
}

/** What is plotted: a column, and the instance if somebody chose one. Its text is "view.column@instance". */
export interface Plotted {
  column: string;
  instance: number | undefined;
}

export function plottedOf(text: string): Plotted {
  const [column = "", instance = ""] = text.split("@");
  return { column, instance: /^-?\d+$/.test(instance) ? Number(instance) : undefined };
}

export function plottedText({ column, instance }: Plotted): string {
  return instance === undefined ? column : `${column}@${instance}`;
}
