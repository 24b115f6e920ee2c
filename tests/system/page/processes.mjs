// A vehicle, vlmmaster, a broker, PostgreSQL and a backend with its page, on loopback, in a folder of their own.
import { execFileSync, spawn } from "node:child_process";
import { chmodSync, chownSync, existsSync, mkdirSync, openSync, readdirSync, readFileSync, writeFileSync } from "node:fs";
import { join } from "node:path";

const { VLMMASTER, VLM_VEHICLE, VLM_BACKEND, VLM_CATALOG, VLM_PAGE } = process.env;
const SOURCE = new URL("../../..", import.meta.url).pathname;
const SPEED = 15; // the clock ticks at most once a minute
const END_MS = 10_000;

export async function until(condition, what, deadlineMs = 30_000) {
  const end = Date.now() + deadlineMs;
  for (;;) {
    const value = await condition();
    if (value) return value;
    if (Date.now() > end) throw new Error(`did not come: ${typeof what === "function" ? what() : what}`);
    await new Promise((done) => setTimeout(done, 50));
  }
}

function postgresPrograms() {
  const versions = "/usr/lib/postgresql";
  const newest = readdirSync(versions).filter((name) => existsSync(join(versions, name, "bin/initdb"))).sort((a, b) => a - b).pop();
  return join(versions, newest, "bin");
}

// PostgreSQL refuses to run as root.
function postgresUser() {
  if (process.getuid() !== 0) return {};
  const [uid, gid] = ["-u", "-g"].map((what) => Number(execFileSync("id", [what, "postgres"])));
  return { uid, gid };
}

export class Bench {
  constructor(folder) {
    this.folder = folder;
    this.started = new Map();
  }

  prepare() {
    // Free ports and a faster clock, as the tests in Python find them.
    const found = "import json; from processes import free_tcp_port as tcp, free_udp_port as udp, faster_clock; " +
      `print(json.dumps([tcp(), tcp(), tcp(), udp(), faster_clock(${SPEED})]))`;
    [this.broker, this.port, this.databasePort, this.discovery, this.clock] = JSON.parse(execFileSync("python3", ["-B", "-c", found]));
    if (!this.clock) throw new Error("libfaketime is missing");
    mkdirSync(join(this.folder, "spool"));
    writeFileSync(join(this.folder, "mosquitto.conf"),
      `listener ${this.broker} 127.0.0.1\nallow_anonymous true\n`);
    writeFileSync(join(this.folder, "manifest.json"), JSON.stringify({
      log: { console: false, file: join(this.folder, "vlmmaster.txt"), fileLevel: 3 },
      someip: { discovery: { port: this.discovery } },
      state: { socket: join(this.folder, "vlmmaster.sock") },
      backend: { transport: "mqtt", mqtt: { host: "127.0.0.1", port: this.broker, prefix: "vlm/bench", reconnectMaxSeconds: 5 },
        spool: { path: join(this.folder, "spool") }, compression: { method: "zstd" } },
    }));
  }

  get address() {
    return `http://127.0.0.1:${this.port}/`;
  }

  start(name, command, environment = {}, user = {}) {
    const log = openSync(join(this.folder, `${name}.log`), "a");
    const child = spawn(command[0], command.slice(1), { stdio: ["ignore", log, log], env: { ...process.env, ...environment }, ...user });
    child.ended = new Promise((done) => child.once("exit", done));
    this.started.set(name, child);
  }

  startBroker() {
    this.start("mosquitto", [existsSync("/usr/sbin/mosquitto") ? "/usr/sbin/mosquitto" : "mosquitto", "-c", join(this.folder, "mosquitto.conf")]);
  }

  async startDatabase() {
    const programs = postgresPrograms();
    const user = postgresUser();
    const data = join(this.folder, "database");
    const peer = ["-h", "127.0.0.1", "-p", String(this.databasePort), "-U", "test"];
    const isNew = !existsSync(data);
    if (isNew) {
      mkdirSync(data);
      chmodSync(this.folder, 0o755);
      if (user.uid) chownSync(data, user.uid, user.gid);
      execFileSync(join(programs, "initdb"), ["-D", data, "-U", "test", "-A", "trust", "-E", "UTF8", "--locale=C.UTF-8"],
        { stdio: "ignore", cwd: "/", ...user });
    }
    this.start("postgres", [join(programs, "postgres"), "-D", data, "-p", String(this.databasePort), "-k", "", "-c", "listen_addresses=127.0.0.1"],
      {}, user);
    await until(() => {
      try {
        execFileSync(join(programs, "pg_isready"), peer, { stdio: "ignore" });
        return true;
      } catch {
        return false;
      }
    }, () => `PostgreSQL; ${this.log("postgres")}`);
    if (isNew) execFileSync(join(programs, "createdb"), [...peer, "vehicles"]);
  }

  startBackend() {
    this.start("vlm-backend", [VLM_BACKEND, "--prefix", "vlm/bench", "--port", String(this.broker), "--database",
      `postgresql://test@127.0.0.1:${this.databasePort}/vehicles`, "--listen", `127.0.0.1:${this.port}`, "--page", VLM_PAGE, "--catalog", VLM_CATALOG, "--machine", join(this.folder, "vlmmaster.sock"),
      "--machine-log", join(this.folder, "vlmmaster.txt")]);
    return until(async () => (await fetch(`${this.address}healthz`).catch(() => null))?.ok, () => `the backend; ${this.log("vlm-backend")}`);
  }

  startVehicle() {
    this.start("vlm-vehicle", [VLM_VEHICLE, "--discovery-port", String(this.discovery)], this.clock);
    this.start("vlmmaster", [join(SOURCE, "tests/support/with-catalog"), VLM_CATALOG, VLMMASTER, "-c", join(SOURCE, "examples/application.json")],
      { VLM_MACHINE_MANIFEST: join(this.folder, "manifest.json"), ...this.clock });
  }

  log(name) {
    return readFileSync(join(this.folder, `${name}.log`), "utf8").slice(-2000);
  }

  async end(name, signal = "SIGTERM") {
    const child = this.started.get(name);
    if (!child) return;
    this.started.delete(name);
    child.kill(signal);
    const timer = setTimeout(() => child.kill("SIGKILL"), END_MS);
    await child.ended;
    clearTimeout(timer);
  }

  async endAll() {
    for (const name of [...this.started.keys()].reverse()) await this.end(name);
  }
}
