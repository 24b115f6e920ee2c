/** Types and requests of backend/api/openapi.yaml. */

export interface Session {
  user: string;
  role: "view" | "configure";
  version: string;
  machine: boolean;
  tiles: string;
  attribution: string;
}

/** Totals of all vehicles. */
export interface Fleet {
  vehicles: number;
  present: number;
  online: number;
  samples: number;
  waitingEnvelopes: number;
  withLosses: number;
  refused: number;
  groups: { name: string; vehicles: number }[];
  configurations: { id: number; vehicles: number }[];
}

/** Vehicles in one answer, at most. */
export const MOST_VEHICLES = 1000;

export type Kind = "boolean" | "integer" | "unsigned64" | "real" | "text";

export interface Field {
  name: string;
  column: string;
  kind: Kind;
  unit: string;
  meaning: string;
  values: { value: number; name: string }[];
}

export interface CatalogEvent {
  service: string;
  catalogService: string;
  resource: string;
  view: string;
  summary: string;
  indexes: { value: number; name: string; meaning: string }[];
  fields: Field[];
}

export interface Health {
  configurations?: { recordId: string; state: string; reason?: string }[];
  counters?: Record<string, number>;
  waitingEnvelopes?: number;
  waitingBytes?: number;
}

export interface VehicleConfiguration {
  desired: number | null;
  sentMs: number | null;
  state: "none" | "waiting" | "sent" | "applied" | "refused";
  stateMs: number | null;
  reason: string;
}

export interface Vehicle {
  name: string;
  prefix: string;
  online: boolean;
  catalog: string;
  seenMs: number;
  group: string;
  reports: number;
  samples: number;
  unusable: number;
  measuredFromMs: number | null;
  measuredToMs: number | null;
  lastReport: { name: string; sequence: number; receivedMs: number; measuredToMs: number; samples: number } | null;
  health: Health | null;
  healthMs: number | null;
  lost: number;
  configuration: VehicleConfiguration;
}

export interface Sample {
  service: string;
  resource: string;
  view: string;
  instance: number;
  measuredMs: number;
  receivedMs: number;
  values: Record<string, unknown>;
  /** Of a page of samples: what follows this one. */
  cursor?: string;
}

export interface Track {
  instance: number;
  samples: number;
  timesMs: number[];
  latitudes: number[];
  longitudes: number[];
}

export interface Series {
  column: string;
  unit: string;
  meaning: string;
  instance: number;
  samples: number;
  fromMs: number;
  toMs: number;
  timesMs: number[];
  minimums: number[];
  maximums: number[];
}

export interface Unusable {
  id: number;
  vehicle: string;
  receivedMs: number;
  reason: string;
  bytes: number;
}

export interface Machine {
  running: boolean;
  reason: string;
  status: Record<string, unknown>;
  lines: string[];
}

export interface Finding {
  severity: "error" | "warning";
  line: number;
  path: string;
  reason: string;
  suggestion: string;
}

export interface Configuration {
  id: number;
  name: string;
  version: number;
  recordId: string;
  createdMs: number;
  user: string;
  text?: string;
}

export interface Assignment {
  vehicle: string;
  group: string;
  configuration: number | null;
}

/** The backend refused, or could not be reached (status 0). */
export class ApiError extends Error {
  constructor(
    readonly status: number,
    text: string,
    readonly findings: Finding[] = [],
  ) {
    super(text);
  }
}

async function request<T>(method: string, path: string, content?: unknown, signal?: AbortSignal): Promise<T> {
  let response: Response;
  const init: RequestInit = { method };
  if (signal) init.signal = signal;
  if (content !== undefined) {
    init.headers = { "content-type": "application/json" };
    init.body = JSON.stringify(content);
  }
  try {
    response = await fetch(path, init);
  } catch (error) {
    if (signal?.aborted) throw error;
    throw new ApiError(0, "The backend does not answer. The page tries again by itself.");
  }
  const text = await response.text();
  let body: unknown;
  try {
    body = JSON.parse(text);
  } catch {
    body = undefined;
  }
  if (response.ok && body !== undefined) return body as T;
  const { error, findings } = (body ?? {}) as { error?: string; findings?: Finding[] };
  if (response.status === 401) throw new ApiError(401, "This backend wants a login. Load the page again to log in.");
  throw new ApiError(response.status, error ?? `The backend answers ${path} with status ${response.status}.`, findings);
}

type Query = Record<string, string | number | undefined>;

/** "/api/vehicles/a%2Fb/series?column=..."; members without a value are left out. */
export function address(parts: string[], query: Query = {}): string {
  const search = new URLSearchParams();
  for (const [name, value] of Object.entries(query)) {
    if (value !== undefined && value !== "") search.set(name, String(value));
  }
  const text = search.toString();
  return `/api/${parts.map(encodeURIComponent).join("/")}${text ? `?${text}` : ""}`;
}

export function get<T>(parts: string[], query: Query = {}, signal?: AbortSignal): Promise<T> {
  return request<T>("GET", address(parts, query), undefined, signal);
}

export function post<T>(parts: string[], content: unknown, signal?: AbortSignal): Promise<T> {
  return request<T>("POST", address(parts), content, signal);
}

export function put<T>(parts: string[], content: unknown): Promise<T> {
  return request<T>("PUT", address(parts), content);
}
