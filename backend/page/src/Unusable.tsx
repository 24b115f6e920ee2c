/** What vehicles sent and could not be stored as rows. */
import type { JSX } from "preact";
import type { Unusable as Entry } from "./api";
import { address, get } from "./api";
import { bytes } from "./format";
import { epoch, manyVersion, vehiclesVersion } from "./live";
import { changeQuery, link, route } from "./route";
import { useLoad, useStore } from "./store";
import { Empty, Panel, Scroll, Show, Time } from "./ui";

export function Unusable(): JSX.Element {
  const vehicle = useStore(route).query.get("vehicle") ?? "";
  const entries = useLoad(`unusable ${vehicle}`, `${useStore(vehiclesVersion)} ${useStore(manyVersion)} ${useStore(epoch)}`,
    (signal) => get<Entry[]>(["unusable"], { vehicle }, signal));
  return (
    <>
      <h1>Unusable input</h1>
      <p class="lead">What vehicles sent and the backend could not store as rows: no envelope, an unknown encoding, or samples that
        the catalog does not know. It is kept byte for byte.</p>
      <Panel title={vehicle === "" ? "Newest first" : `Of ${vehicle}`} actions={vehicle !== "" &&
        <button type="button" onClick={() => changeQuery({ vehicle: undefined })}>Show all vehicles</button>}>
        <Show loaded={entries} what="unusable input">
          {(all) => all.length === 0
            ? <Empty title="Nothing unusable came."><p>Everything that vehicles sent is stored as rows.</p></Empty>
            : (
              <Scroll label="Unusable input">
                <table class="cards">
                  <thead><tr><th>Received</th><th>Vehicle</th><th>Reason</th><th class="right">Size</th><th>Content</th></tr></thead>
                  <tbody>
                    {all.map((entry) => (
                      <tr key={entry.id}>
                        <th scope="row"><Time ms={entry.receivedMs} both /></th>
                        <td data-label="Vehicle">{entry.vehicle === "" ? <span class="muted">unknown</span>
                          : <a href={link(["vehicle", entry.vehicle])}>{entry.vehicle}</a>}</td>
                        <td data-label="Reason" class="wrap">{entry.reason}</td>
                        <td data-label="Size" class="num right">{bytes(entry.bytes)}</td>
                        <td data-label="Content"><a href={address(["unusable", String(entry.id)])} download={`unusable-${entry.id}.bin`}>
                          Download</a></td>
                      </tr>
                    ))}
                  </tbody>
                </table>
                {all.length >= 100 && <p class="muted">Only the newest 100 are listed.</p>}
              </Scroll>
            )}
        </Show>
      </Panel>
    </>
  );
}
