/** Configurations, and which vehicle is to have which. */
import type { JSX } from "preact";
import { useEffect, useState } from "preact/hooks";
import type { Assignment, Configuration, Fleet, Session } from "../api";
import { get, MOST_VEHICLES, put } from "../api";
import { plural } from "../format";
import { configurationsVersion, epoch } from "../live";
import { changeQuery, link, route } from "../route";
import { useLoad, useStore } from "../store";
import { Age, Chip, Empty, ErrorBox, Online, Panel, Scroll, Show, Time } from "../ui";
import { configurationName, More, STATES, useFleet, useVehicles } from "../Vehicles";
import { assign } from "./Assign";
import { Editor } from "./Editor";

const PAGE = 50;

/** A change that somebody prepares and then confirms: the keyboard passes all options of a list on its way. */
function Confirmed<T extends string>(props: {
  value: T;
  label: string;
  disabled: boolean;
  send: (value: T) => Promise<unknown>;
  children: (value: T, change: (value: T) => void) => JSX.Element;
}): JSX.Element {
  const [draft, setDraft] = useState<T>(props.value);
  const [busy, setBusy] = useState(false);
  const [error, setError] = useState<Error | null>(null);
  useEffect(() => setDraft(props.value), [props.value]);
  const send = async (): Promise<void> => {
    setBusy(true);
    setError(null);
    try {
      await props.send(draft);
    } catch (caught) {
      setError(caught as Error);
    }
    setBusy(false);
  };
  return (
    <form class="row" onSubmit={(event) => {
      event.preventDefault();
      void send();
    }}>
      {props.children(draft, setDraft)}
      {draft !== props.value && <button type="submit" class="primary small" disabled={props.disabled || busy}>{props.label}</button>}
      {error && <ErrorBox error={error} />}
    </form>
  );
}

function ConfigurationChoice(props: {
  label: string;
  configurations: Configuration[];
  assigned: number | null;
  without: string;
  disabled: boolean;
  send: (id: number | null) => Promise<unknown>;
}): JSX.Element {
  return (
    <Confirmed value={props.assigned === null ? "" : String(props.assigned)} label="Assign" disabled={props.disabled}
      send={(value) => props.send(value === "" ? null : Number(value))}>
      {(value, change) => (
        <select aria-label={props.label} value={value} disabled={props.disabled} onChange={(event) => change(event.currentTarget.value)}>
          <option value="">{props.without}</option>
          {props.configurations.map(({ id, name, version }) => <option key={id} value={String(id)}>{name} v{version}</option>)}
        </select>
      )}
    </Confirmed>
  );
}

function VehiclesPanel(props: { fleet: Fleet; configurations: Configuration[]; assignments: Assignment[]; may: boolean }): JSX.Element {
  const { fleet, configurations, assignments, may } = props;
  const query = useStore(route).query;
  const search = query.get("search") ?? "";
  const most = Math.min(Number(query.get("rows")) || PAGE, MOST_VEHICLES);
  const vehicles = useVehicles(search, "all", most);
  const groupAssignment = (group: string): Assignment | undefined =>
    group === "" ? undefined : assignments.find((each) => each.vehicle === "" && each.group === group && each.configuration !== null);
  return (
    <Panel title="Vehicles" actions={fleet.vehicles > 5 &&
      <input type="search" aria-label="Name or group" placeholder="Name or group" value={search}
        onInput={(event) => changeQuery({ search: event.currentTarget.value, rows: undefined }, true)} />}>
      {fleet.vehicles === 0 ? <Empty title="No vehicle has reported yet."><p>A vehicle appears with its first message.</p></Empty> : (
        <Show loaded={vehicles} what="the vehicles">{(found) => <><Scroll label="Configurations of vehicles">
          <table class="cards form">
            <thead><tr><th>Vehicle</th><th>Group</th><th>Own assignment</th><th>To have</th><th>Sent</th><th>State</th></tr></thead>
            <tbody>
              {found.slice(0, most).map((vehicle) => {
                const { configuration } = vehicle;
                const state = STATES[configuration.state];
                const own = assignments.find((each) => each.vehicle === vehicle.name)?.configuration ?? null;
                const ofGroup = groupAssignment(vehicle.group);
                return (
                  <tr key={vehicle.name}>
                    <th scope="row"><a href={link(["vehicle", vehicle.name])}>{vehicle.name}</a> <Online online={vehicle.online} seenMs={vehicle.seenMs} /></th>
                    <td data-label="Group">
                      <Confirmed value={vehicle.group} label="Set" disabled={!may}
                        send={(group) => put(["vehicles", vehicle.name, "group"], { group })}>
                        {(value, change) => <input class="medium" aria-label={`Group of ${vehicle.name}`} value={value} maxLength={64} disabled={!may}
                          placeholder="none" onInput={(event) => change(event.currentTarget.value)} />}
                      </Confirmed>
                    </td>
                    <td data-label="Own assignment">
                      <ConfigurationChoice label={`Configuration of ${vehicle.name}`} configurations={configurations} assigned={own} disabled={!may}
                        without={ofGroup ? `as group ${vehicle.group}` : "none"}
                        send={(id) => assign({ vehicle: vehicle.name, group: "", configuration: id })} />
                    </td>
                    <td data-label="To have">{configuration.desired === null ? <span class="muted">none</span>
                      : <a href={link(["configure", String(configuration.desired)])}>{configurationName(configuration.desired, configurations)}</a>}</td>
                    <td data-label="Sent">{configuration.sentMs === null ? <span class="muted">not yet</span> : <Age ms={configuration.sentMs} />}</td>
                    <td data-label="State">
                      <Chip tone={state.tone} title={state.meaning}>{state.text}</Chip>{" "}
                      {configuration.stateMs !== null && <small class="muted"><Age ms={configuration.stateMs} /></small>}
                      {configuration.reason !== "" && <p class="reason">{configuration.reason}</p>}
                      {configuration.state === "waiting" && <p class="reason muted">{vehicle.seenMs > 0 ? state.meaning
                        : "No presence of it came from a broker, and what reports through a file takes its configuration from its folder."}</p>}
                    </td>
                  </tr>
                );
              })}
            </tbody>
          </table>
        </Scroll>
        <More found={found.length} most={most} page={PAGE} /></>}</Show>
      )}
    </Panel>
  );
}

function GroupsPanel(props: { fleet: Fleet; configurations: Configuration[]; assignments: Assignment[]; may: boolean }): JSX.Element | null {
  const { fleet, configurations, assignments, may } = props;
  const groups = [...new Set([...fleet.groups.map(({ name }) => name), ...assignments.map(({ group }) => group)])].filter((group) => group !== "").sort();
  if (groups.length === 0) return null;
  return (
    <Panel title="Groups">
      <Scroll label="Configurations of groups">
        <table class="cards form">
          <thead><tr><th>Group</th><th>Vehicles</th><th>Configuration</th></tr></thead>
          <tbody>
            {groups.map((group) => (
              <tr key={group}>
                <th scope="row">{group}</th>
                <td data-label="Vehicles" class="num">{fleet.groups.find(({ name }) => name === group)?.vehicles ?? 0}</td>
                <td data-label="Configuration">
                  <ConfigurationChoice label={`Configuration of group ${group}`} configurations={configurations} without="none" disabled={!may}
                    assigned={assignments.find((each) => each.vehicle === "" && each.group === group)?.configuration ?? null}
                    send={(id) => assign({ vehicle: "", group, configuration: id })} />
                </td>
              </tr>
            ))}
          </tbody>
        </table>
      </Scroll>
    </Panel>
  );
}

function ConfigurationsPanel(props: { fleet: Fleet | undefined; configurations: Configuration[] }): JSX.Element {
  const { fleet, configurations } = props;
  const names = [...new Set(configurations.map(({ name }) => name))].sort();
  return (
    <Panel title="Configurations" actions={<a class="button primary" href={link(["configure", "new"])}>New configuration</a>}>
      {names.length === 0 ? (
        <Empty title="No configuration is stored yet.">
          <p>Choose what vehicles collect: <a href={link(["configure", "new"])}>new configuration</a>.</p>
        </Empty>
      ) : (
        <Scroll label="Configurations">
          <table class="cards">
            <thead><tr><th>Name</th><th>Newest version</th><th>Stored</th><th>By</th><th>Vehicles</th><th>Earlier versions</th></tr></thead>
            <tbody>
              {names.map((name) => {
                const [newest, ...earlier] = configurations.filter((each) => each.name === name).sort((a, b) => b.version - a.version);
                const ids = [newest!, ...earlier].map(({ id }) => id);
                const having = fleet?.configurations.filter(({ id }) => ids.includes(id)).reduce((sum, { vehicles }) => sum + vehicles, 0);
                return (
                  <tr key={name}>
                    <th scope="row"><a href={link(["configure", String(newest!.id)])}>{name}</a></th>
                    <td data-label="Newest version" class="num">v{newest!.version}</td>
                    <td data-label="Stored"><Time ms={newest!.createdMs} both /></td>
                    <td data-label="By">{newest!.user || <span class="muted">nobody named</span>}</td>
                    <td data-label="Vehicles" class="num">{having ?? "…"}</td>
                    <td data-label="Earlier versions">{earlier.length === 0 ? <span class="muted">none</span> : (
                      <details><summary>{plural(earlier.length, "version")}</summary>
                        {earlier.map(({ id, version, createdMs }) => <div key={id}><a href={link(["configure", String(id)])}>v{version}</a>{" "}
                          <small class="muted"><Time ms={createdMs} /></small></div>)}
                      </details>
                    )}</td>
                  </tr>
                );
              })}
            </tbody>
          </table>
        </Scroll>
      )}
    </Panel>
  );
}

export function Configure(props: { session: Session; path: string[] }): JSX.Element {
  const { session, path } = props;
  const version = `${useStore(configurationsVersion)} ${useStore(epoch)}`;
  const fleet = useFleet();
  const configurations = useLoad("configurations", version, (signal) => get<Configuration[]>(["configurations"], {}, signal));
  const assignments = useLoad("assignments", version, (signal) => get<Assignment[]>(["assignments"], {}, signal));
  const may = session.role === "configure";
  if (path[0] !== undefined) {
    return (
      <Show loaded={configurations} what="the configurations">
        {(all) => <Show loaded={fleet} what="the vehicles">
          {(totals) => <Editor key={path[0]} id={path[0]!} fleet={totals} configurations={all} session={session} />}
        </Show>}
      </Show>
    );
  }
  return (
    <>
      <h1>Configure</h1>
      <p class="lead">A configuration says what vehicles collect, and how often they report. A further one adds to the running one: new collectors and
        reports start at once, and so does another clock; what is removed or changed stays until the vehicle's next start.</p>
      {!may && <p class="notice">You may look. Changes need the role "configure".</p>}
      <Show loaded={configurations} what="the configurations">
        {(all) => (
          <>
            <ConfigurationsPanel fleet={fleet.value} configurations={all} />
            <Show loaded={fleet} what="the vehicles">
              {(totals) => <Show loaded={assignments} what="the assignments">
                {(assigned) => (
                  <>
                    <VehiclesPanel fleet={totals} configurations={all} assignments={assigned} may={may} />
                    <GroupsPanel fleet={totals} configurations={all} assignments={assigned} may={may} />
                  </>
                )}
              </Show>}
            </Show>
          </>
        )}
      </Show>
    </>
  );
}
