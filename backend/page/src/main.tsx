import { render } from "preact";
import type { JSX } from "preact";
import { useEffect, useRef } from "preact/hooks";
import type { Session } from "./api";
import { get } from "./api";
import { Configure } from "./configure/Configure";
import { zone } from "./format";
import { connection, epoch, startUpdates } from "./live";
import { Machine } from "./Machine";
import { link, route, startRouting } from "./route";
import { useLoad, useStore } from "./store";
import { theme, toggleTheme } from "./theme";
import { Empty } from "./ui";
import { Unusable } from "./Unusable";
import { Vehicle } from "./vehicle/Vehicle";
import { Vehicles } from "./Vehicles";
import "./styles.css";

const NONE: Session = { user: "", role: "view", version: "", machine: false, tiles: "", attribution: "" };

function View(props: { session: Session }): JSX.Element {
  const { path } = useStore(route);
  switch (path[0] ?? "vehicles") {
    case "vehicles":
      return <Vehicles />;
    case "vehicle":
      if (path[1] !== undefined) return <Vehicle key={path[1]} name={path[1]} session={props.session} />;
      break;
    case "configure":
      return <Configure session={props.session} path={path.slice(1)} />;
    case "machine":
      return <Machine />;
    case "unusable":
      return <Unusable />;
  }
  return (
    <Empty title="There is no such view.">
      <p><a href={link(["vehicles"])}>All vehicles</a></p>
    </Empty>
  );
}

function Connection(): JSX.Element {
  const state = useStore(connection);
  return (
    <span class={`connection ${state}`} role="status">
      {state === "open" ? "live" : state === "lost" ? "connection lost, trying again" : "connecting"}
    </span>
  );
}

function Page(): JSX.Element {
  const { path } = useStore(route);
  const version = useStore(epoch);
  const session = useLoad("session", version, (signal) => get<Session>(["session"], {}, signal));
  const { machine, user, role, version: program } = session.value ?? NONE;
  const dark = useStore(theme) === "dark";
  const main = useRef<HTMLElement>(null);
  const current = path[0] ?? "vehicles";
  const views: [string, string][] = [
    ["vehicles", "Vehicles"], ["configure", "Configure"], ...(machine ? [["machine", "This machine"] as [string, string]] : []),
    ["unusable", "Unusable"],
  ];
  useEffect(() => {
    const title = current === "vehicle" ? path[1] : views.find(([name]) => name === current)?.[1];
    document.title = title ? `${title} · vlmmaster` : "vlmmaster";
  }, [path]);
  return (
    <>
      <a class="skip" href="#content" onClick={(event) => {
        event.preventDefault();
        main.current?.focus();
      }}>Skip to content</a>
      <header class="top">
        <a class="brand" href={link(["vehicles"])}><img src="./icon.svg" alt="" width="24" height="24" /> vlmmaster</a>
        <nav aria-label="Views">
          {views.map(([name, text]) => (
            <a key={name} href={link([name])}
              aria-current={current === name || (name === "vehicles" && current === "vehicle") ? "page" : undefined}>{text}</a>
          ))}
        </nav>
        <div class="top-end">
          <Connection />
          <button type="button" class="quiet" onClick={toggleTheme}
            aria-label={dark ? "Light colours" : "Dark colours"} title={dark ? "Light colours" : "Dark colours"}>
            {dark ? "☀" : "☾"}
          </button>
        </div>
      </header>
      <main id="content" ref={main} tabIndex={-1}>
        {session.value === undefined && session.error
          ? <Empty title="The backend does not answer."><p>{session.error.message}</p></Empty>
          : session.value && <View session={session.value} />}
      </main>
      <footer class="foot">
        <span>vlm-backend {program}</span>
        <span>{user === "" ? "" : `${user} (${role})`}</span>
        <span>Times are local ({zone(Date.now())}); tooltips show UTC.</span>
      </footer>
    </>
  );
}

startRouting();
startUpdates();
render(<Page />, document.getElementById("page")!);
