/** What the backend reports by itself, through /api/updates. */
import { Store } from "./store";

export interface VehicleUpdate {
  name: string;
  online: boolean;
  reports: number;
  receivedMs: number;
  measuredToMs: number | null;
}

/** "lost" until the next connection; the page keeps showing what it has. */
export const connection = new Store<"connecting" | "open" | "lost">("connecting");
/** Grows at each connection: what was loaded before may be outdated. */
export const epoch = new Store(0);
/** Grows with each change of any vehicle. */
export const vehiclesVersion = new Store(0);
/** Grows with each change of a configuration, an assignment or a vehicle's state of it. */
export const configurationsVersion = new Store(0);
/** By vehicle: grows with each change of that vehicle. */
export const vehicleVersions = new Store<Readonly<Record<string, number>>>({});
/** Grows when any vehicle may have changed, since many did. */
export const manyVersion = new Store(0);

const RETRY_MS = 2000;
const MANY_MS = 5000; // between two of those: all that is shown is loaded again

let manyTimer: ReturnType<typeof setTimeout> | undefined;

export function startUpdates(): void {
  const source = new EventSource("/api/updates");
  source.addEventListener("open", () => {
    if (connection.value === "lost") epoch.set(epoch.value + 1);
    connection.set("open");
  });
  source.addEventListener("vehicles", (event) => {
    const versions = { ...vehicleVersions.value };
    for (const { name } of JSON.parse((event as MessageEvent<string>).data) as VehicleUpdate[]) {
      versions[name] = (versions[name] ?? 0) + 1;
    }
    vehicleVersions.set(versions);
    vehiclesVersion.set(vehiclesVersion.value + 1);
  });
  source.addEventListener("many", () => {
    manyTimer ??= setTimeout(() => {
      manyTimer = undefined;
      manyVersion.set(manyVersion.value + 1);
    }, MANY_MS);
  });
  source.addEventListener("configurations", () => configurationsVersion.set(configurationsVersion.value + 1));
  source.addEventListener("error", () => {
    connection.set("lost");
    // The browser tries again after a broken connection, but not after an answer that is no stream.
    if (source.readyState === EventSource.CLOSED) setTimeout(startUpdates, RETRY_MS);
  });
}
