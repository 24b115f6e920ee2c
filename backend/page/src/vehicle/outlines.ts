/** The borders and coasts of the world, for a map without tiles. Loaded when such a map is shown. */
import L from "leaflet";
import { mesh } from "topojson-client";
import type { GeometryCollection, Topology } from "topojson-specification";
import world from "world-atlas/countries-110m.json";
import { colour } from "../theme";

// Where a kilometre is less than a pixel: the lines are off by some kilometres.
const NEAREST_ZOOM = 7;

export function addOutlines(map: L.Map): void {
  const topology = world as unknown as Topology<{ countries: GeometryCollection }>;
  const lines: L.LatLngTuple[][] = [];
  for (const points of mesh(topology, topology.objects.countries).coordinates) {
    let before: number | undefined;
    for (const [longitude, latitude] of points as [number, number][]) {
      // A line that leaves the map at 180 degrees goes on at its other side.
      if (before === undefined || Math.abs(longitude - before) > 180) lines.push([]);
      lines[lines.length - 1]!.push([latitude, longitude]);
      before = longitude;
    }
  }
  const pane = map.createPane("outlines");
  pane.style.zIndex = "140"; // below grid and track
  const outlines = L.polyline(lines, { pane: "outlines", renderer: L.canvas({ pane: "outlines" }), color: colour("muted"), weight: 1, opacity: 0.6,
    interactive: false, smoothFactor: 1.5 });
  const show = (): void => {
    if (map.getZoom() > NEAREST_ZOOM) outlines.remove();
    else outlines.addTo(map);
  };
  map.on("zoomend", show);
  // Before its renderer, which would otherwise redraw what it no longer has.
  map.on("unload", () => outlines.remove());
  show();
}
