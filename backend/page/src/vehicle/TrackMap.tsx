/** The track on a map: tiles when the backend names a server, else outlines and a grid of degrees. */
import "leaflet/dist/leaflet.css";
import L from "leaflet";
import type { JSX } from "preact";
import { useEffect, useRef } from "preact/hooks";
import type { Track } from "../api";
import { stamp } from "../format";
import { useStore } from "../store";
import { colour, theme } from "../theme";
import { cursor } from "./cursor";
import { nearest, runs } from "./range";

const REACH = 40; // px from the pointer to the track
const STEPS = [30, 10, 5, 2, 1, 0.5, 0.2, 0.1, 0.05, 0.02, 0.01, 0.005, 0.002, 0.001, 0.0005, 0.0002, 0.0001];

// A frame that was requested before the map's end may still come, and then finds no canvas.
const renderer = L.Canvas.prototype as unknown as { _ctx?: CanvasRenderingContext2D; _redraw: () => void };
const redraw = renderer._redraw;
renderer._redraw = function (): void {
  if (this._ctx) redraw.call(this);
};

/** Lines of equal latitude and longitude, labelled at the edges. */
class Graticule extends L.Layer {
  private canvas: HTMLCanvasElement | undefined;

  override onAdd(map: L.Map): this {
    const pane = map.getPane("graticule") ?? map.createPane("graticule");
    pane.style.zIndex = "150";
    pane.style.pointerEvents = "none";
    this.canvas = L.DomUtil.create("canvas", "graticule", pane);
    map.on("move zoomend resize viewreset", this.draw, this);
    map.on("zoomstart", this.hide, this);
    this.draw();
    return this;
  }

  override onRemove(map: L.Map): this {
    map.off("move zoomend resize viewreset", this.draw, this);
    map.off("zoomstart", this.hide, this);
    this.canvas?.remove();
    return this;
  }

  private hide(): void {
    if (this.canvas) this.canvas.style.visibility = "hidden"; // it would not follow the animation
  }

  private draw(): void {
    const map = this._map;
    const canvas = this.canvas;
    const context = canvas?.getContext("2d");
    if (!map || !canvas || !context) return;
    const { x: width, y: height } = map.getSize();
    const ratio = devicePixelRatio || 1;
    canvas.width = width * ratio;
    canvas.height = height * ratio;
    canvas.style.width = `${width}px`;
    canvas.style.height = `${height}px`;
    canvas.style.visibility = "visible";
    L.DomUtil.setPosition(canvas, map.containerPointToLayerPoint([0, 0]));
    context.scale(ratio, ratio);
    context.strokeStyle = colour("map-line");
    context.fillStyle = colour("muted");
    context.font = `11px ${getComputedStyle(document.body).fontFamily}`;
    context.lineWidth = 1;
    const bounds = map.getBounds();
    const most = Math.max(width / 110, 2);
    const step = [...STEPS].reverse().find((each) => (bounds.getEast() - bounds.getWest()) / each <= most) ?? 30;
    const digits = Math.max(0, Math.ceil(-Math.log10(step)));
    const label = (value: number, [positive, negative]: [string, string]): string =>
      `${Math.abs(value).toFixed(digits)}° ${value < 0 ? negative : positive}`;
    context.beginPath();
    for (let index = Math.ceil(bounds.getWest() / step); index * step < bounds.getEast(); ++index) {
      const { x } = map.latLngToContainerPoint([bounds.getSouth(), index * step]);
      context.moveTo(Math.round(x) + 0.5, 0);
      context.lineTo(Math.round(x) + 0.5, height);
      if (x > 60) context.fillText(label(index * step, ["E", "W"]), x + 4, 13);
    }
    for (let index = Math.ceil(bounds.getSouth() / step); index * step < bounds.getNorth(); ++index) {
      const { y } = map.latLngToContainerPoint([index * step, bounds.getWest()]);
      context.moveTo(0, Math.round(y) + 0.5);
      context.lineTo(width, Math.round(y) + 0.5);
      const text = label(index * step, ["N", "S"]);
      if (y > 30) context.fillText(text, width - context.measureText(text).width - 5, y - 4);
    }
    context.stroke();
  }
}

type Points = L.LatLngTuple[];

/** The map takes HTML where it shows whose tiles they are. */
function escaped(text: string): string {
  const box = document.createElement("span");
  box.textContent = text;
  return box.innerHTML;
}

function pointsOf(track: Track | undefined): Points {
  return track ? track.latitudes.map((latitude, index) => [latitude, track.longitudes[index]!]) : [];
}

export function TrackMap(props: {
  tiles: string;
  /** Whose tiles they are. */
  attribution: string;
  /** Of the shown range. */
  track: Track | undefined;
  /** Of everything, drawn pale. */
  whole: Track | undefined;
  /** The map shows the whole track again when this changes. */
  fitKey: string;
  onVisible: (range: { fromMs: number; toMs: number } | null) => void;
}): JSX.Element {
  const { tiles, attribution, track, whole, fitKey } = props;
  const box = useRef<HTMLDivElement>(null);
  const map = useRef<L.Map | null>(null);
  const drawn = useRef<L.LayerGroup | null>(null);
  const current = useRef({ track, onVisible: props.onVisible });
  current.current = { track, onVisible: props.onVisible };
  const moved = useRef(false);
  const programmatic = useRef(false);
  const shade = useStore(theme);

  useEffect(() => {
    const made = L.map(box.current!, { preferCanvas: true, attributionControl: tiles !== "" && attribution !== "", zoomSnap: 0.25, worldCopyJump: true,
      center: [0, 0], zoom: 2, minZoom: 2, fadeAnimation: false });
    map.current = made;
    if (tiles === "") {
      made.addLayer(new Graticule());
      // A map without outlines is better than none.
      import("./outlines").then(({ addOutlines }) => map.current === made && addOutlines(made)).catch(() => undefined);
    } else L.tileLayer(tiles, { maxZoom: 19, attribution: escaped(attribution) }).addTo(made);
    made.attributionControl?.setPrefix(false);
    L.control.scale({ imperial: false, maxWidth: 140 }).addTo(made);
    drawn.current = L.layerGroup().addTo(made);
    made.on("dragstart zoomstart", () => {
      if (!programmatic.current) moved.current = true;
    });
    made.on("moveend", () => {
      const shown = current.current.track;
      if (!shown || shown.timesMs.length === 0 || !moved.current) return current.current.onVisible(null);
      const bounds = made.getBounds();
      const visible = shown.timesMs.filter((_, index) => bounds.contains([shown.latitudes[index]!, shown.longitudes[index]!]));
      current.current.onVisible(visible.length > 1 && visible.length < shown.timesMs.length
        ? { fromMs: visible[0]!, toMs: visible[visible.length - 1]! + 1 } : null);
    });
    made.on("mousemove", (event: L.LeafletMouseEvent) => {
      const shown = current.current.track;
      if (!shown) return;
      let best = -1;
      let least = REACH;
      shown.latitudes.forEach((latitude, index) => {
        const distance = made.latLngToContainerPoint([latitude, shown.longitudes[index]!]).distanceTo(event.containerPoint);
        if (distance < least) {
          least = distance;
          best = index;
        }
      });
      cursor.set(best < 0 ? null : shown.timesMs[best]!);
    });
    made.on("mouseout", () => cursor.set(null));
    const observer = new ResizeObserver(() => made.invalidateSize({ animate: false }));
    observer.observe(box.current!);
    return () => {
      observer.disconnect();
      made.remove();
      map.current = null;
    };
  }, [tiles, attribution, shade]);

  const fit = (): void => {
    const points = pointsOf(current.current.track?.timesMs.length ? current.current.track : whole);
    if (!map.current || points.length === 0) return;
    programmatic.current = true;
    map.current.fitBounds(L.latLngBounds(points).pad(0.08), { animate: false, maxZoom: 17 });
    programmatic.current = false;
    moved.current = false;
    current.current.onVisible(null);
  };

  useEffect(() => {
    moved.current = false;
  }, [fitKey]);

  useEffect(() => {
    const layers = drawn.current;
    if (!layers || !map.current) return;
    layers.clearLayers();
    const pale = { color: colour("track-pale"), weight: 3, interactive: false };
    if (whole) layers.addLayer(L.polyline(pointsOf(whole), pale));
    const points = pointsOf(track);
    if (track && points.length > 0) {
      layers.addLayer(L.polyline(points, { ...pale, weight: 2, dashArray: "2 6" }));
      for (const [begin, end] of runs(track.timesMs)) {
        layers.addLayer(L.polyline(points.slice(begin, end), { color: colour("track"), weight: 4, interactive: false, lineCap: "round" }));
      }
      const ends: [number, string, string][] = [[0, "Start", "surface"], [points.length - 1, "Newest", "track"]];
      for (const [index, name, fill] of ends) {
        layers.addLayer(L.circleMarker(points[index]!, { radius: 7, color: colour("track"), weight: 3, fillColor: colour(fill), fillOpacity: 1 })
          .bindTooltip(`${name}: ${stamp(track.timesMs[index]!)}`)); // nothing of the vehicle but a number
      }
    }
    if (!moved.current) fit();
    const mark = L.circleMarker([0, 0], { radius: 6, color: colour("surface"), weight: 2, fillColor: colour("cursor"), fillOpacity: 1, interactive: false });
    return cursor.follow((at) => {
      const index = at === null || !track ? -1 : nearest(track.timesMs, at);
      if (index < 0) mark.remove();
      else if (map.current) mark.setLatLng(points[index]!).addTo(map.current).bringToFront();
    });
  }, [track, whole, shade, tiles, fitKey]);

  return (
    <div class="map-frame">
      <div class="map" ref={box} role="region" aria-label="Map of the track" />
      <button type="button" class="map-fit" onClick={fit}>Whole track</button>
    </div>
  );
}
