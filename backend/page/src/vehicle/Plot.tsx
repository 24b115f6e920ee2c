/** One field over time. */
import "uplot/dist/uPlot.min.css";
import type { JSX } from "preact";
import { useEffect, useRef } from "preact/hooks";
import uPlot from "uplot";
import type { Series, Track } from "../api";
import { get } from "../api";
import { clock, stamp, utc, value as digits, whole } from "../format";
import { useLoad, useStore } from "../store";
import { colour, theme } from "../theme";
import { cursor } from "./cursor";
import type { Known } from "./fields";
import { named } from "./fields";
import type { Plotted, Range } from "./range";
import { nearest, plottedText, withGaps } from "./range";

export type Located = Pick<Track, "timesMs">;

const COLOURS = 6; // --plot-1 to --plot-6
const HEIGHT = { many: 132, few: 172 }; // px, for more than FEW plots and up to so many
const FEW = 3;
const AXIS_HEIGHT = 42;
const LEAST_DRAG = 6; // px
const LEAST_WIDTH = 50; // px; less before the first layout
const READ_STEPS = 2000; // of the value at the cursor, over the plotted range

/** Labels that tell a date where a day begins, and as much of a second as the distance needs. */
export function timeLabels(seconds: readonly number[], step: number): string[] {
  let day = "";
  return seconds.map((second, index) => {
    const ms = second * 1000;
    const date = stamp(ms).slice(5, 10);
    const time = step >= 60 ? clock(ms).slice(0, 5) : clock(ms, step < 1);
    const text = index === 0 || date !== day ? (step >= 86400 ? date : `${time}\n${date}`) : step >= 86400 ? date : time;
    day = date;
    return text;
  });
}

function yRange(known: Known | undefined) {
  return (_: uPlot, least: number | null, most: number | null): [number, number] => {
    if (known?.field.kind === "boolean") return [-0.2, 1.2];
    if (least === null || most === null) return [0, 1];
    if (known && known.field.values.length > 0) return [least - 0.5, most + 0.5];
    if (least === most) {
      const margin = Math.abs(least) * 0.05 || 1;
      return [least - margin, most + margin];
    }
    const margin = (most - least) * 0.08;
    return [least - margin, most + margin];
  };
}

export function Plot(props: {
  vehicle: string;
  plotted: Plotted;
  known: Known | undefined;
  instances: number[];
  range: Range;
  version: string;
  width: number;
  index: number;
  count: number;
  onChange: (plotted: Plotted | null) => void;
  onMove: (step: number) => void;
  onRange: (fromMs: number, toMs: number) => void;
  onReset: () => void;
}): JSX.Element {
  const { vehicle, plotted, known, range, width, index, count } = props;
  const last = index === count - 1;
  const height = count > FEW ? HEIGHT.many : HEIGHT.few;
  const box = useRef<HTMLDivElement>(null);
  const readout = useRef<HTMLSpanElement>(null);
  const plot = useRef<uPlot | null>(null);
  const shade = useStore(theme);
  const text = plottedText(plotted);
  const bins = Math.max(100, Math.ceil(width / 50) * 50);
  const series = useLoad(width < LEAST_WIDTH ? null : `${vehicle} ${text}`, `${range.fromMs} ${range.toMs} ${bins} ${props.version}`, (signal) =>
    get<Series>(["vehicles", vehicle, "series"], { column: plotted.column, from: range.fromMs, to: range.toMs,
      instance: plotted.instance, width: bins }, signal));
  const shown = series.value;
  const current = useRef({ range, shown, props, known });
  current.current = { range, shown, props, known };
  const banded = shown !== undefined && shown.minimums.some((least, at) => least !== shown.maximums[at]);
  const stepped = known !== undefined && (known.field.kind === "boolean" || known.field.values.length > 0);
  const tint = `plot-${(index % COLOURS) + 1}`;

  // Says the value at the cursor, or the newest one; drawn past Preact, since the pointer moves often.
  const say = (at: number | null): void => {
    const target = readout.current;
    const { shown: now, known: what } = current.current;
    if (!target) return;
    if (!now || now.timesMs.length === 0) {
      target.textContent = "";
      return;
    }
    const where = at === null ? now.timesMs.length - 1 : nearest(now.timesMs, at);
    const least = now.minimums[where]!;
    const most = now.maximums[where]!;
    const name = what ? named(what.field, least) : "";
    const unit = now.unit === "" ? "" : ` ${now.unit}`;
    const step = now.minimums.every(Number.isInteger) ? 0 : (Math.max(...now.maximums) - Math.min(...now.minimums)) / READ_STEPS;
    const one = what?.field.kind === "boolean" ? (least ? "true" : "false") : name === "" ? digits(least, step) : `${least} ${name}`;
    target.textContent = `${least === most ? one : `${digits(least, step)} … ${digits(most, step)}`}${unit}`;
    target.title = utc(now.timesMs[where]!, true);
  };

  useEffect(() => {
    if (!box.current || width < LEAST_WIDTH) return;
    const line: uPlot.Series = { stroke: colour(tint), width: 1.75, spanGaps: false,
      points: { size: 5, fill: colour(tint), stroke: colour(tint) } };
    if (stepped) line.paths = uPlot.paths.stepped!({ align: 1 });
    const grid: uPlot.Axis.Grid = { stroke: colour("grid"), width: 1 };
    const ticks: uPlot.Axis.Ticks = { stroke: colour("grid"), width: 1, size: 5 };
    const font = `11px ${getComputedStyle(document.body).fontFamily}`;
    const yAxis: uPlot.Axis = { stroke: colour("muted"), grid, ticks, font, size: 62,
      values: (_, splits, __, ___, step) => splits.map((split) => {
        const name = known ? named(known.field, split) : "";
        if (known?.field.kind === "boolean") return split === 0 ? "false" : split === 1 ? "true" : "";
        if (known && known.field.values.length > 0) return name.length > 9 ? `${name.slice(0, 8)}…` : name;
        return digits(split, step);
      }) };
    if (known && (known.field.values.length > 0 || known.field.kind === "boolean")) {
      yAxis.splits = (u) => {
        const from = Math.ceil(u.scales.y!.min ?? 0);
        const to = Math.floor(u.scales.y!.max ?? 1);
        return Array.from({ length: Math.min(to - from + 1, 12) }, (_, at) => from + at);
      };
    }
    const made = new uPlot({
      width, height: height + (last ? AXIS_HEIGHT : 6),
      padding: [8, 12, last ? 0 : 4, 0],
      legend: { show: false },
      cursor: {
        y: false,
        drag: { x: true, y: false, setScale: false },
        points: { size: 7, fill: colour(tint) },
        bind: { dblclick: () => () => { current.current.props.onReset(); return null; } },
      },
      scales: {
        x: { time: true, range: () => [current.current.range.fromMs / 1000, current.current.range.toMs / 1000] },
        y: { range: yRange(known) },
      },
      axes: [
        { stroke: colour("muted"), grid, ticks: { ...ticks, show: last }, font, size: last ? AXIS_HEIGHT : 0, space: 70,
          values: last ? (_, splits, __, ___, step) => timeLabels(splits, step) : (_, splits) => splits.map(() => "") },
        yAxis,
      ],
      series: banded ? [{}, { ...line, width: 1 }, { ...line, width: 1 }] : [{}, line],
      bands: banded ? [{ series: [2, 1], fill: colour(`${tint}-band`) }] : [],
      hooks: {
        setCursor: [(u) => {
          const left = u.cursor.left ?? -1;
          cursor.set(left < 0 ? null : Math.round(u.posToVal(left, "x") * 1000));
        }],
        setSelect: [(u) => {
          const { left, width: dragged } = u.select;
          if (dragged >= LEAST_DRAG) {
            current.current.props.onRange(Math.round(u.posToVal(left, "x") * 1000), Math.round(u.posToVal(left + dragged, "x") * 1000));
          }
          if (dragged > 0) u.setSelect({ left: 0, top: 0, width: 0, height: 0 }, false);
        }],
      },
    }, [[], [], []].slice(0, banded ? 3 : 2) as unknown as uPlot.AlignedData, box.current);
    plot.current = made;
    const end = cursor.follow((at) => {
      const left = at === null ? -10 : made.valToPos(at / 1000, "x");
      if (Math.abs((made.cursor.left ?? -10) - left) > 0.5) made.setCursor({ left, top: at === null ? -10 : 10 }, false);
      say(at);
    });
    return () => {
      end();
      made.destroy();
      plot.current = null;
    };
  }, [shade, banded, stepped, last, height, tint, known, width]);

  useEffect(() => {
    if (!plot.current) return;
    const data = shown ? withGaps(shown.timesMs, shown.minimums, ...(banded ? [shown.maximums] : [])) : [[], []];
    plot.current.setData(data as uPlot.AlignedData);
    say(cursor.value);
  }, [shown, range.fromMs, range.toMs, shade, banded, stepped, last, height, tint, known, width]);

  const name = known ? known.field.name : plotted.column;
  const source = known ? `${known.event.catalogService}.${known.event.resource}` : "";
  const instance = plotted.instance ?? shown?.instance;
  const summary = shown && shown.timesMs.length > 0
    ? `${name}: ${whole(shown.samples)} samples, from ${digits(Math.min(...shown.minimums))} to ${digits(Math.max(...shown.maximums))} ${shown.unit}`
    : `${name}: no samples`;
  return (
    <figure class="plot">
      <figcaption>
        <span class={`swatch ${tint}`} aria-hidden="true" />
        <span class="plot-title">
          <strong>{name}</strong> <span class="muted">{source}</span>
          {props.instances.length > 1 && (
            <select aria-label={`Instance of ${name}`} value={instance === undefined ? "" : String(instance)}
              onChange={(event) => props.onChange({ column: plotted.column, instance: Number(event.currentTarget.value) })}>
              {props.instances.map((each) => {
                const index = known?.event.indexes.find(({ value }) => value === each);
                return <option key={each} value={String(each)}>{each}{index?.name ? ` ${index.name}` : ""}</option>;
              })}
            </select>
          )}
        </span>
        <span class="plot-value num" ref={readout} data-plot={text} />
        <span class="plot-actions">
          {series.loading && <span class="spinner" role="status" aria-label="loading" />}
          <button type="button" class="quiet small" aria-label={`Move ${name} up`} title="Move up" onClick={() => props.onMove(-1)}>↑</button>
          <button type="button" class="quiet small" aria-label={`Move ${name} down`} title="Move down" onClick={() => props.onMove(1)}>↓</button>
          <button type="button" class="quiet small" aria-label={`Remove ${name}`} title="Remove" onClick={() => props.onChange(null)}>✕</button>
        </span>
        {known && <span class="plot-meaning">{known.field.meaning}</span>}
      </figcaption>
      {series.error && <p class="plot-note bad">{series.error.message}</p>}
      {!series.error && shown && shown.timesMs.length === 0 && <p class="plot-note">No samples in this time range.</p>}
      <div class="plot-box" ref={box} role="img" aria-label={summary} data-points={shown?.timesMs.length ?? 0} />
    </figure>
  );
}
