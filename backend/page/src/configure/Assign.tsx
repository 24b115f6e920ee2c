/** Says which vehicles are to have a configuration. */
import type { JSX } from "preact";
import { useState } from "preact/hooks";
import type { Assignment, Configuration, Fleet, Vehicle } from "../api";
import { put } from "../api";
import { ErrorBox } from "../ui";

export function assign(assignment: Assignment): Promise<Assignment> {
  return put<Assignment>(["assignments"], assignment);
}

/** `vehicles` are the first ones of a large fleet. */
export function Assign(props: { configuration: Configuration; fleet: Fleet; vehicles: Vehicle[] }): JSX.Element {
  const { configuration, fleet, vehicles } = props;
  const [to, setTo] = useState("");
  const [done, setDone] = useState<string[]>([]);
  const [error, setError] = useState<Error | null>(null);
  const [busy, setBusy] = useState(false);
  const send = async (): Promise<void> => {
    const [kind = "", name = ""] = to.split(/ (.*)/s);
    setBusy(true);
    setError(null);
    try {
      await assign({ vehicle: kind === "vehicle" ? name : "", group: kind === "group" ? name : "", configuration: configuration.id });
      setDone((all) => [...all, `${kind} ${name}`]);
    } catch (caught) {
      setError(caught as Error);
    }
    setBusy(false);
  };
  if (vehicles.length === 0) return <p class="muted">There is no vehicle yet to assign it to.</p>;
  return (
    <>
      <div class="row">
        <select aria-label="Assign to" value={to} onChange={(event) => setTo(event.currentTarget.value)}>
          <option value="">Assign to …</option>
          {fleet.groups.length > 0 && <optgroup label="Groups">{fleet.groups.map(({ name }) => <option key={name} value={`group ${name}`}>{name}</option>)}</optgroup>}
          <optgroup label="Vehicles">{vehicles.map(({ name, online }) => (
            <option key={name} value={`vehicle ${name}`}>{name}{online ? "" : " (offline)"}</option>))}</optgroup>
        </select>
        <button type="button" class="primary" disabled={to === "" || busy} onClick={() => void send()}>Assign</button>
      </div>
      {vehicles.length < fleet.vehicles && <p class="muted">These are the first {vehicles.length} vehicles; Configure finds the others by name.</p>}
      {done.length > 0 && <p class="notice good" role="status">Assigned to {done.join(", ")}. A vehicle that is online gets it at once, another one
        when it returns.</p>}
      {error && <ErrorBox error={error} title="Not assigned." />}
    </>
  );
}
