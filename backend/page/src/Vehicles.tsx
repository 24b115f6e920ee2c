/** All vehicles: who is online, what came last, what was lost, what waits. */
import type { JSX } from "preact";
import type { Configuration, Vehicle } from "./api";
import { get } from "./api";
import { bytes, losses, plural, whole } from "./format";
import { configurationsVersion, epoch, vehiclesVersion } from "./live";
import { changeQuery, link, route } from "./route";
import { useLoad, useStore } from "./store";
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

const FILTERS: Record<string, { text: string; keeps: (vehicle: Vehicle) => boolean }> = {
  all: { text: "All", keeps: () => true },
  online: { text: "Online", keeps: (vehicle) => vehicle.online },
  offline: { text: "Offline", keeps: (vehicle) => !vehicle.online && vehicle.seenMs > 0 },
  losses: { text: "With losses", keeps: (vehicle) => lossesOf(vehicle) > 0 },
  waiting: { text: "Envelopes waiting", keeps: (vehicle) => (vehicle.health?.waitingEnvelopes ?? 0) > 0 },
  refused: { text: "Configuration refused", keeps: (vehicle) => vehicle.configuration.state === "refused" },
};

function lossesOf(vehicle: Vehicle): number {
  return losses(vehicle.health?.counters).reduce((sum, [, count]) => sum + count, 0);
}

function Losses(props: { vehicle: Vehicle }): JSX.Element {
  const { vehicle } = props;
  if (!vehicle.health) return <span class="muted" title="Only vehicles with a spool send health messages.">not reported</span>;
  const found = losses(vehicle.health.counters);
  if (found.length === 0) return <span>none</span>;
  return (
    <details class="counters">
      <summary><Chip tone="warn">{whole(lossesOf(vehicle))} lost</Chip></summary>
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

export function Vehicles(): JSX.Element {
  const version = `${useStore(vehiclesVersion)} ${useStore(configurationsVersion)} ${useStore(epoch)}`;
  const vehicles = useLoad("vehicles", version, (signal) => get<Vehicle[]>(["vehicles"], {}, signal));
  const configurations = useLoad("configurations", `${useStore(configurationsVersion)} ${useStore(epoch)}`,
    (signal) => get<Configuration[]>(["configurations"], {}, signal));
  const { query } = useStore(route);
  const text = query.get("search") ?? "";
  const filter = FILTERS[query.get("show") ?? "all"] ? query.get("show") ?? "all" : "all";
  const most = Number(query.get("rows")) || PAGE;
  return (
    <>
      <h1>Vehicles</h1>
      <Show loaded={vehicles} what="the vehicles">
        {(all) => {
          if (all.length === 0) {
            return (
              <Empty title="No vehicle has reported yet.">
                <p>A vehicle appears here with its first message. With <code>make run</code> that takes about a minute, as the
                  clock ticks at most once a minute.</p>
                <p>Until then, <a href={link(["machine"])}>This machine</a> shows what vlmmaster receives.</p>
              </Empty>
            );
          }
          const wanted = text.toLowerCase();
          const found = all.filter((vehicle) => FILTERS[filter]!.keeps(vehicle)
            && (vehicle.name.toLowerCase().includes(wanted) || vehicle.group.toLowerCase().includes(wanted)));
          const online = all.filter((vehicle) => vehicle.online).length;
          const present = all.filter((vehicle) => vehicle.seenMs > 0).length;
          const withLosses = all.filter((vehicle) => lossesOf(vehicle) > 0).length;
          const waiting = all.reduce((sum, vehicle) => sum + (vehicle.health?.waitingEnvelopes ?? 0), 0);
          const refused = all.filter((vehicle) => vehicle.configuration.state === "refused").length;
          return (
            <>
              <dl class="stats">
                {present === 0 ? <Stat label="Vehicles" value={whole(all.length)} />
                  : <Stat label="Online" value={`${whole(online)} of ${whole(present)}`} tone={online > 0 ? "good" : "plain"} />}
                <Stat label="Samples stored" value={whole(all.reduce((sum, vehicle) => sum + vehicle.samples, 0))} />
                <Stat label="Envelopes waiting" value={whole(waiting)} tone={waiting > 0 ? "info" : "plain"} note="on vehicles' disks" />
                <Stat label="With losses" value={whole(withLosses)} tone={withLosses > 0 ? "warn" : "plain"} note="vehicles" />
                <Stat label="Configuration refused" value={whole(refused)} tone={refused > 0 ? "bad" : "plain"} note="vehicles" />
              </dl>
              <Panel title={plural(found.length, "vehicle")} actions={
                <>
                  <label class="field-inline"><span class="visually-hidden">Name or group</span>
                    <input type="search" placeholder="Name or group" value={text}
                      onInput={(event) => changeQuery({ search: event.currentTarget.value, rows: undefined }, true)} />
                  </label>
                  <label class="field-inline"><span class="visually-hidden">Show</span>
                    <select value={filter} onChange={(event) => changeQuery({
                      show: event.currentTarget.value === "all" ? undefined : event.currentTarget.value, rows: undefined })}>
                      {Object.entries(FILTERS).map(([name, entry]) => <option key={name} value={name}>{entry.text}</option>)}
                    </select>
                  </label>
                </>
              }>
                {found.length === 0 ? <Empty title="No vehicle fits."><p><button type="button"
                  onClick={() => changeQuery({ search: undefined, show: undefined })}>Show all</button></p></Empty> : (
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
                )}
                {found.length > most && <p class="more"><button type="button"
                  onClick={() => changeQuery({ rows: String(most + PAGE) }, true)}>Show {Math.min(PAGE, found.length - most)} more</button></p>}
              </Panel>
            </>
          );
        }}
      </Show>
    </>
  );
}
