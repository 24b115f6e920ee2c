/** All vehicles: who is online, what came last, what was lost, what waits. */
import type { JSX } from "preact";
import type { Configuration, Fleet, Vehicle } from "./api";
import { get, MOST_VEHICLES } from "./api";
import { bytes, losses, plural, whole } from "./format";
import { configurationsVersion, epoch, manyVersion, vehiclesVersion } from "./live";
import { changeQuery, link, route } from "./route";
import type { Loaded } from "./store";
import { useLoad, useSettled, useStore } from "./store";
import type { Tone } from "./ui";
import { Age, Chip, Empty, Online, Panel, Scroll, Show, Stat } from "./ui";

const PAGE = 100;

export const STATES: Record<Vehicle["configuration"]["state"], { tone: Tone; text: string; meaning: string }> = {
  none: { tone: "plain", text: "none", meaning: "No configuration is assigned." },
  waiting: { tone: "warn", text: "waiting", meaning: "The vehicle is offline. It gets the configuration when it returns." },
  sent: { tone: "info", text: "sent", meaning: "The vehicle has not yet said whether it applies the configuration." },
  applied: { tone: "good", text: "applied", meaning: "The vehicle collects with it." },
  refused: { tone: "bad", text: "refused", meaning: "The vehicle refused it." },
};

const FILTERS: Record<string, string> = {
  all: "All",
  online: "Online",
  offline: "Offline",
  losses: "With losses",
  waiting: "Envelopes waiting",
  refused: "Configuration refused",
};

function Losses(props: { vehicle: Vehicle }): JSX.Element {
  const { vehicle } = props;
  if (!vehicle.health) return <span class="muted" title="Only vehicles with a spool send health messages.">not reported</span>;
  const found = losses(vehicle.health.counters);
  if (found.length === 0) return <span>none</span>;
  return (
    <details class="counters">
      <summary><Chip tone="warn">{whole(vehicle.lost)} lost</Chip></summary>
      <dl>{found.map(([name, count]) => <div key={name}><dt>{name}</dt><dd class="num">{whole(count)}</dd></div>)}</dl>
    </details>
  );
}

function Waiting(props: { vehicle: Vehicle }): JSX.Element {
  const { health } = props.vehicle;
  if (!health) return <span class="muted" title="Only vehicles with a spool send health messages.">not reported</span>;
  if (!health.waitingEnvelopes) return <span>none</span>;
  return <span class="num">{whole(health.waitingEnvelopes)} <small class="muted">{bytes(health.waitingBytes ?? 0)}</small></span>;
}

export function configurationName(id: number | null, all: Configuration[] | undefined): string {
  if (id === null) return "none";
  const found = all?.find((configuration) => configuration.id === id);
  return found ? `${found.name} v${found.version}` : `no. ${id}`;
}

function Row(props: { vehicle: Vehicle; configurations: Configuration[] | undefined }): JSX.Element {
  const { vehicle } = props;
  const { configuration, lastReport } = vehicle;
  const state = STATES[configuration.state];
  return (
    <tr>
      <th scope="row">
        <a href={link(["vehicle", vehicle.name])}>{vehicle.name}</a>
        {vehicle.group !== "" && <small class="muted"> {vehicle.group}</small>}
      </th>
      <td data-label="State"><Online online={vehicle.online} seenMs={vehicle.seenMs} />
        {vehicle.seenMs > 0 && <small class="muted"> seen <Age ms={vehicle.seenMs} /></small>}</td>
      <td data-label="Last report">
        {lastReport ? <>{lastReport.name} <small class="muted">no. {lastReport.sequence}, <Age ms={lastReport.receivedMs} /></small></>
          : <span class="muted">none yet</span>}
      </td>
      <td data-label="Samples" class="num right">{whole(vehicle.samples)}</td>
      <td data-label="Configuration">
        {configuration.state === "none" ? <span class="muted">none assigned</span>
          : <>{configurationName(configuration.desired, props.configurations)}{" "}
            <Chip tone={state.tone} title={configuration.reason || state.meaning}>{state.text}</Chip></>}
      </td>
      <td data-label="Losses"><Losses vehicle={vehicle} /></td>
      <td data-label="Waiting"><Waiting vehicle={vehicle} /></td>
      <td data-label="Unusable" class="num right">
        {vehicle.unusable > 0 ? <a href={link(["unusable"], { vehicle: vehicle.name })}>{whole(vehicle.unusable)}</a> : "0"}
      </td>
    </tr>
  );
}

/** The vehicles that the address asks for, as many as it says, and one more if there is one. */
export function useVehicles(search: string, show: string, most: number): Loaded<Vehicle[]> {
  const version = `${useStore(vehiclesVersion)} ${useStore(manyVersion)} ${useStore(configurationsVersion)} ${useStore(epoch)}`;
  const wanted = useSettled(search, 250);
  return useLoad(`vehicles ${show} ${most} ${wanted}`, version, (signal) =>
    get<Vehicle[]>(["vehicles"], { search: wanted, show, limit: Math.min(most + 1, MOST_VEHICLES) }, signal));
}

export function useFleet(): Loaded<Fleet> {
  const version = `${useStore(vehiclesVersion)} ${useStore(manyVersion)} ${useStore(configurationsVersion)} ${useStore(epoch)}`;
  return useLoad("fleet", version, (signal) => get<Fleet>(["fleet"], {}, signal));
}

/** The button that shows more of them, or what to do when no more fit. */
export function More(props: { found: number; most: number; page: number }): JSX.Element | null {
  const { found, most, page } = props;
  if (most >= MOST_VEHICLES) {
    return found < MOST_VEHICLES ? null : <p class="more muted">These are the first {whole(MOST_VEHICLES)}. A part of the name finds others.</p>;
  }
  return found <= most ? null : <p class="more"><button type="button"
    onClick={() => changeQuery({ rows: String(most + page) }, true)}>Show more</button></p>;
}

function Totals(props: { fleet: Fleet }): JSX.Element {
  const { fleet } = props;
  return (
    <dl class="stats">
      {fleet.present === 0 ? <Stat label="Vehicles" value={whole(fleet.vehicles)} />
        : <Stat label="Online" value={`${whole(fleet.online)} of ${whole(fleet.present)}`} tone={fleet.online > 0 ? "good" : "plain"} />}
      <Stat label="Samples stored" value={whole(fleet.samples)} />
      <Stat label="Envelopes waiting" value={whole(fleet.waitingEnvelopes)} tone={fleet.waitingEnvelopes > 0 ? "info" : "plain"} note="on vehicles' disks" />
      <Stat label="With losses" value={whole(fleet.withLosses)} tone={fleet.withLosses > 0 ? "warn" : "plain"} note="vehicles" />
      <Stat label="Configuration refused" value={whole(fleet.refused)} tone={fleet.refused > 0 ? "bad" : "plain"} note="vehicles" />
    </dl>
  );
}

export function Vehicles(): JSX.Element {
  const { query } = useStore(route);
  const text = query.get("search") ?? "";
  const filter = FILTERS[query.get("show") ?? "all"] ? query.get("show") ?? "all" : "all";
  const most = Math.min(Number(query.get("rows")) || PAGE, MOST_VEHICLES);
  const fleet = useFleet();
  const vehicles = useVehicles(text, filter, most);
  const configurations = useLoad("configurations", `${useStore(configurationsVersion)} ${useStore(epoch)}`,
    (signal) => get<Configuration[]>(["configurations"], {}, signal));
  const isWhole = text === "" && filter === "all";
  return (
    <>
      <h1>Vehicles</h1>
      <Show loaded={fleet} what="the vehicles">
        {(all) => all.vehicles === 0 ? (
          <Empty title="No vehicle has reported yet.">
            <p>A vehicle appears here with its first message. With <code>make run</code> that takes about a minute, as the
              clock ticks at most once a minute.</p>
            <p>Until then, <a href={link(["machine"])}>This machine</a> shows what vlmmaster receives.</p>
          </Empty>
        ) : (
          <>
            <Totals fleet={all} />
            <Panel title={isWhole ? plural(all.vehicles, "vehicle") : "Vehicles"} actions={
              <>
                <label class="field-inline"><span class="visually-hidden">Name or group</span>
                  <input type="search" placeholder="Name or group" value={text}
                    onInput={(event) => changeQuery({ search: event.currentTarget.value, rows: undefined }, true)} />
                </label>
                <label class="field-inline"><span class="visually-hidden">Show</span>
                  <select value={filter} onChange={(event) => changeQuery({
                    show: event.currentTarget.value === "all" ? undefined : event.currentTarget.value, rows: undefined })}>
                    {Object.entries(FILTERS).map(([name, label]) => <option key={name} value={name}>{label}</option>)}
                  </select>
                </label>
              </>
            }>
              <Show loaded={vehicles} what="the vehicles">
                {(found) => found.length === 0 ? <Empty title="No vehicle fits."><p><button type="button"
                  onClick={() => changeQuery({ search: undefined, show: undefined })}>Show all</button></p></Empty> : (
                  <>
                    <Scroll label="Vehicles">
                      <table class="cards">
                        <thead>
                          <tr><th>Vehicle</th><th>State</th><th>Last report</th><th class="right">Samples</th><th>Configuration</th>
                            <th>Losses</th><th>Waiting</th><th class="right">Unusable</th></tr>
                        </thead>
                        <tbody>{found.slice(0, most).map((vehicle) =>
                          <Row key={vehicle.name} vehicle={vehicle} configurations={configurations.value} />)}</tbody>
                      </table>
                    </Scroll>
                    <More found={found.length} most={most} page={PAGE} />
                  </>
                )}
              </Show>
            </Panel>
          </>
        )}
      </Show>
    </>
  );
}
