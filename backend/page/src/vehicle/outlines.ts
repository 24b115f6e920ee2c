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
  const lines = mesh(topology, topology.objects.countries).coordinates
    .map((line) => line.map(([longitude, latitude]): L.LatLngTuple => [latitude!, longitude!]));
  const pane = map.createPane("outlines");
  pane.style.zIndex = "140"; // below grid and track
  const outlines = L.polyline(lines, { pane: "outlines", renderer: L.canvas({ pane: "outlines" }), color: colour("muted"), weight: 1, opacity: 0.6,
    interactive: false, smoothFactor: 1.5 });
  const show = (): void => {
    if (map.getZoom() > NEAREST_ZOOM) outlines.remove();
    else outlines.addTo(map);
  };
  map.on("zoomend", show);
  show();
}
