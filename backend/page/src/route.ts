/** The address after "#" holds the state of the view: #/vehicle/bench?last=900&plot=gnss_positions.altitude */
import { Store } from "./store";

export interface Route {
  path: string[];
  query: URLSearchParams;
}

export function parseRoute(hash: string): Route {
  const [path = "", query = ""] = hash.replace(/^#/, "").split(/\?(.*)/s);
  const parts = path.split("/").filter((part) => part !== "").map(decoded);
  return { path: parts, query: new URLSearchParams(query) };
}

function decoded(part: string): string {
  try {
    return decodeURIComponent(part);
  } catch {
    return part;
  }
}

type Query = Record<string, string | string[] | undefined>;

export function link(path: string[], query: Query = {}): string {
  const search = new URLSearchParams();
  for (const [name, value] of Object.entries(query)) {
    for (const each of Array.isArray(value) ? value : [value]) {
      if (each !== undefined && each !== "") search.append(name, each);
    }
  }
  const text = search.toString().replaceAll("%2C", ",").replaceAll("%40", "@");
  return `#/${path.map(encodeURIComponent).join("/")}${text ? `?${text}` : ""}`;
}

export const route = new Store<Route>(parseRoute(typeof location === "undefined" ? "" : location.hash));

export function startRouting(): void {
  addEventListener("hashchange", () => route.set(parseRoute(location.hash)));
}

/** Changes members of the query; undefined removes one. `replace` leaves no entry in the history. */
export function changeQuery(change: Query, replace = false): void {
  const { path, query } = route.value;
  const all: Query = {};
  for (const name of new Set(query.keys())) all[name] = query.getAll(name);
  const hash = link(path, { ...all, ...change });
  if (hash === location.hash) return;
  if (replace) {
    history.replaceState(null, "", hash);
    route.set(parseRoute(hash));
  } else {
    location.hash = hash;
  }
}
