"""The backend link: bytes on the wire and on the disk, processor time, a day and a start without a broker. A group of
bench/run.

Two vlmmasters drive one after the other, with the same drive and a faster clock, through a relay that counts bytes: one
without compression and spool, one with both. What the first sends is then fed to the client alone (bench_backend), and
so are the many small envelopes of a third drive.
"""
import json
import os
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
SPEED = 20  # of the clock while driving
TICKS = 8  # a minute of the drive each
SENDS = 200  # for the processor time
WARM_UP = 50  # sent before, by bench_backend
DAY = 1440  # ticks
SMALL_SPEED = 8  # of the clock while everything is collected
STARTS = 3
# Compression as in packaging/machine-manifest.json.
SPOOL = {"spool": {"path": "spool", "drainJitterSeconds": 0}, "compression": {"method": "zstd", "dictionary": "50001"},
         "remember": {"afterSeconds": 0}}
NO_DICTIONARY = {**SPOOL, "compression": {"method": "zstd"}}
# Runs a program with an ext4 file system of its own; prints the statistics of its device before and after that.
ON_A_DISK = """set -e
mount -o loop "$1" "$2"
device=$(findmnt -n -o SOURCE "$2")
show() { sync -f "$1"; cat "/sys/block/${device##*/}/stat"; }
folder=$2
shift 2
show "$folder"
"$@"
show "$folder"
"""


class Relay:
    """Passes on TCP connections to a port, and counts their bytes, in both directions."""

    def __init__(self, target):
        self.sent, self.answered = 0, 0
        self.target = target
        self.socket = socket.create_server(("127.0.0.1", 0))
        self.port = self.socket.getsockname()[1]
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        while True:
            try:
                peer, _ = self.socket.accept()
            except OSError:
                return
            try:
                broker = socket.create_connection(("127.0.0.1", self.target))
            except OSError:
                peer.close()
                continue
            for way in ((peer, broker, "sent"), (broker, peer, "answered")):
                threading.Thread(target=self.carry, args=way, daemon=True).start()

    def bytes(self):
        return self.sent + self.answered

    def carry(self, source, sink, counted):
        try:
            while data := source.recv(65536):
                setattr(self, counted, getattr(self, counted) + len(data))
                sink.sendall(data)
        except OSError:
            pass
        for end in (source, sink):
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass


class Peers:
    """Processes that end with it, in reverse order."""

    def __init__(self, folder):
        self.folder, self.started = folder, []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in reversed(self.started):
            process.kill()
            process.wait()

    def start(self, *command, **options):
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL, **options}
        process = subprocess.Popen([str(part) for part in command], cwd=self.folder, **options)
        self.started.append(process)
        return process

    def start_broker(self, port):
        mosquitto = shutil.which("mosquitto", path=os.environ["PATH"] + ":/usr/sbin")
        Path(self.folder, "mosquitto.conf").write_text(f"listener {port} 127.0.0.1\nallow_anonymous true\n")
        self.start(mosquitto, "-c", "mosquitto.conf")

        def listens():
            with socket.socket() as probe:
                return probe.connect_ex(("127.0.0.1", port)) == 0
        wait_until(listens, "the broker", 20)

    def start_client(self, build, port, arguments, name, settings, before=()):
        """bench_backend with pipes. `before` stands before its command."""
        manifest = Path(self.folder, name + ".json")
        manifest.write_text(json.dumps({"log": {"dlt": False, "console": False},
                                        "backend": {"transport": "mqtt", **settings,
                                                    "mqtt": {"port": port, "prefix": "vlm/bench", "reconnectMaxSeconds": 1}}}))
        return self.start(*before, build / "bench/bench_backend", *arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          text=True, env={**os.environ, "VLM_MACHINE_MANIFEST": str(manifest)})


def wait_until(condition, what, deadline):
    end = time.monotonic() + deadline
    while not condition():
        if time.monotonic() > end:
            raise RuntimeError(f"{what} did not come")
        time.sleep(0.02)


def support(build):
    """tests/support/processes.py with the programs of this build; a test names them in the environment."""
    sys.path.insert(0, str(ROOT / "tests/support"))
    import processes
    processes.VLMMASTER, processes.VLM_VEHICLE = build / "app/vlmmaster", build / "tools/vehicle/vlm-vehicle"
    processes.CATALOG = next((build / "generated").glob("VLM_Available_Signals_Catalog_*.json"))
    return processes


def line_of(process):
    line = process.stdout.readline()
    if not line:
        raise RuntimeError(f"bench_backend ended with status {process.wait()}")
    return json.loads(line)


def drive(build, folder, settings, config, ticks, speed=SPEED, subscribed=1):
    """Bytes on the wire and of envelopes, and how many these are, in that many ticks; and the file with envelopes."""
    processes = support(build)
    clock = processes.faster_clock(speed)
    if clock is None:
        raise RuntimeError("libfaketime is needed")
    broker, discovery = processes.free_tcp_port(), processes.free_udp_port()
    relay = Relay(broker)
    store = Path(folder, "envelopes.jsonl")
    with Peers(folder) as peers:
        peers.start_broker(broker)
        peers.start(build / "backend/vlm-backend", "--port", broker, "--prefix", "vlm/bench", "--config", config,
                    "--store", store)
        vehicle = processes.Vehicle(folder, discovery, environment=clock)
        mqtt = {"port": relay.port, "prefix": "vlm/bench", "keepAliveSeconds": 30 * speed}
        master = processes.Vlmmaster(["-c", str(ROOT / "examples/application.json")], folder, port=discovery,
                                     environment=clock,
                                     manifest={"log": {"console": False, "maxLevel": 3},
                                               "backend": {"transport": "mqtt", "mqtt": mqtt, **settings}})

        def stored():
            return store.read_bytes().count(b"\n") if store.exists() else 0

        def settle(tick):
            """Once all that belongs to a tick has arrived."""
            master.wait_for_count("clock.ticks", tick, 300)
            count = -1
            while count != stored():
                count = stored()
                time.sleep(0.5)
            return count, relay.bytes()

        try:
            master.wait_for_count("samples.received", 100, 120)
            master.wait_for_count("events.subscribed", subscribed, 120)
            # The first reports have other lengths.
            first = master.count("clock.ticks") + 2
            count, wire = settle(first)
            count, wire = [after - before for after, before in zip(settle(first + ticks), (count, wire))]
            real_ticks = master.count("clock.ticks") - first
        finally:
            master.kill()
            vehicle.kill()
            relay.socket.close()
    lines = store.read_bytes().splitlines()[-count:]
    Path(folder, "last.jsonl").write_bytes(b"\n".join(lines) + b"\n")
    return {"wire": wire / real_ticks, "text": sum(map(len, lines)) / real_ticks, "envelopes": count / real_ticks}


def offline(build, table, options):
    config = ROOT / "examples/collector.json"
    ticks = 60 if options.long else TICKS
    with tempfile.TemporaryDirectory(prefix="vlm-bench-") as top:
        folders = {}
        for name in ("plain", "packed", "cost-plain", "cost-packed", "day"):
            folders[name] = os.path.join(top, name)
            os.mkdir(folders[name])
        print(f"... driving twice, {ticks} min at {SPEED} times the speed", file=sys.stderr, flush=True)
        plain = drive(build, folders["plain"], {}, config, ticks)
        packed = drive(build, folders["packed"], SPOOL, config, ticks)
        envelopes = Path(folders["plain"], "last.jsonl")
        table.at_most(11, f"kB on the wire a minute, compared with none ({plain['wire'] / 1e3:.0f} kB) / 20",
                      packed["wire"] / 1e3, plain["wire"] / 20e3, "kB")
        table.note(11, "", f"a day of it: {packed['wire'] * DAY / 1e6:.1f} MB instead of {plain['wire'] * DAY / 1e6:.0f} MB")
        small(build, table, top)
        print("... the client alone", file=sys.stderr, flush=True)
        costs = {name: cost(build, folders[f"cost-{name}"], envelopes, settings)
                 for name, settings in (("plain", {}), ("packed", SPOOL))}
        each = {name: one["processorMs"] / SENDS for name, one in costs.items()}
        table.ratio(12, "processor time of an envelope, spool and zstd", each["packed"], each["plain"], 2, "ms",
                    "without both")
        table.at_most(12, "  the same for a MB of its text", costs["packed"]["processorMs"] / costs["packed"]["textMb"], 15,
                      "ms")
        count = round(plain["envelopes"] * DAY)
        print(f"... {count} envelopes without a broker", file=sys.stderr, flush=True)
        filled, drained, taken = day(build, folders["day"], envelopes, count)
        table.at_most(13, f"memory that grew in a day without a broker ({count} envelopes, {filled['textMb']:.0f} MB)",
                      drained["residentMibMost"] - filled["residentMibAtFirst"], 4, "MiB")
        table.at_least(13, "text forwarded afterwards, by one broker and one backend on loopback",
                       drained["textMb"] / drained["seconds"], 50, "MB/s")
        lost = drained["stored"] - taken["arrived"]
        table.at_most(13, f"of {drained['stored']:,} envelopes lost ({taken['again']} came again)", lost, 0.5, "envelopes")
        print("... starts without a broker", file=sys.stderr, flush=True)
        starts(build, table, top)


def small(build, table, top):
    """Many small envelopes, as of a configuration with a report for each service."""
    print(f"... driving once with everything collected, {TICKS} min at {SMALL_SPEED} times the speed", file=sys.stderr, flush=True)
    folder = os.path.join(top, "small")
    os.mkdir(folder)
    driven = drive(build, folder, {}, ROOT / "examples/collector-everything.json", TICKS, SMALL_SPEED, 107)
    envelopes = Path(folder, "last.jsonl")
    wire = {}
    for name, settings in (("none", {}), ("zstd", NO_DICTIONARY), ("dictionary", SPOOL)):
        wire[name] = driven["envelopes"] * bytes_of(build, os.path.join(top, f"small-{name}"), envelopes, settings)["wire"] / 1e3
    table.ratio(11, f"the same with everything collected ({driven['envelopes']:.0f} small envelopes)",
                wire["dictionary"], wire["none"], 1 / 5, "kB", "none")
    table.ratio(11, "  what the dictionary gains there", wire["dictionary"], wire["zstd"], 0.9, "kB", "zstd without it")
    for name, file in (("of examples/collector.json", os.path.join(top, "plain", "last.jsonl")), ("small ones", envelopes)):
        on_disk = bytes_of(build, os.path.join(top, "disk-" + name.split()[0]), file, SPOOL, disk=True)
        if "disk" in on_disk:
            table.note(11, f"kB that reach an ext4 disk for an envelope, {name} ({on_disk['sent'] / 1e3:.1f} kB sent)",
                       f"{on_disk['disk'] / 1e3:.1f} kB ({on_disk['disk'] / on_disk['sent']:.1f} times)")
        else:
            table.missing(11, "kB that reach the disk for an envelope", "needs root and a loop device")


def bytes_of(build, folder, envelopes, settings, disk=False):
    """What an envelope takes on the wire, in both directions ("wire") and in its own ("sent"), and on a disk."""
    os.mkdir(folder)
    port = support(build).free_tcp_port()
    relay = Relay(port)
    before = []
    if disk:
        image, place = Path(folder, "image"), Path(folder, "spool")
        place.mkdir()
        with open(image, "wb") as file:
            file.truncate(256 << 20)
        mkfs = shutil.which("mkfs.ext4", path=os.environ["PATH"] + ":/usr/sbin:/sbin")
        if mkfs is None or os.geteuid() != 0:
            return {}
        subprocess.run([mkfs, "-q", "-E", "lazy_itable_init=0,lazy_journal_init=0", str(image)], check=True)
        before = ["unshare", "-m", "sh", "-c", ON_A_DISK, "sh", image, place]
    with Peers(folder) as peers:
        peers.start_broker(port)
        peers.start_client(build, port, ["take"], "take", {})
        client = peers.start_client(build, relay.port, ["send", envelopes, SENDS], "send", settings, before)
        lines = client.stdout.read().splitlines()
        if client.wait() != 0:
            if disk:
                return {}
            raise RuntimeError(f"bench_backend ended with status {client.returncode}")
    relay.socket.close()
    count = SENDS + WARM_UP
    result = {"wire": relay.bytes() / count, "sent": relay.sent / count}
    if disk:
        written = [int(line.split()[6]) for line in (lines[0], lines[-1])]  # sectors
        result["disk"] = (written[1] - written[0]) * 512 / count
    return result


def starts(build, table, top):
    """From the start of the process to its first sample, in real time: with a file, and with what it remembers."""
    processes = support(build)
    config = ROOT / "examples/collector.json"
    application = str(ROOT / "examples/application.json")
    port, discovery = processes.free_tcp_port(), processes.free_udp_port()
    backend = {"transport": "mqtt", "mqtt": {"port": port, "prefix": "vlm/bench"}, **SPOOL}
    folder = os.path.join(top, "starts")
    os.mkdir(folder)

    def start(arguments, until="samples.received"):
        began = time.monotonic()
        master = processes.Vlmmaster(["-c", application, *arguments], folder, port=discovery,
                                     manifest={"log": {"console": False, "maxLevel": 3}, "backend": backend})
        try:
            master.wait_for_count(until, 1, 60)
            return time.monotonic() - began
        finally:
            master.stop()

    vehicle = processes.Vehicle(folder, discovery)
    try:
        with Peers(folder) as peers:  # gives it something to remember
            peers.start_broker(port)
            peers.start(build / "backend/vlm-backend", "--port", port, "--prefix", "vlm/bench", "--config", config)
            start([])
        times = {name: [] for name in ("file", "remembered")}
        for _ in range(STARTS):
            times["file"].append(start(["-l", str(config)]))
            times["remembered"].append(start([]))
    finally:
        vehicle.kill()
    table.ratio(14, "start to the first sample without a broker, afterSeconds 0", statistics.median(times["remembered"]),
                statistics.median(times["file"]), 1.05, "s", "with a local file")


def cost(build, folder, envelopes, settings):
    """The client's last line: what it used for all, with spool until the last was delivered."""
    port = support(build).free_tcp_port()
    with Peers(folder) as peers:
        peers.start_broker(port)
        peers.start_client(build, port, ["take"], "take", {})
        client = peers.start_client(build, port, ["send", envelopes, SENDS], "send", settings)
        line = line_of(client)
        return line_of(client) if settings else line


def day(build, folder, envelopes, count):
    port = support(build).free_tcp_port()
    with Peers(folder) as peers:
        client = peers.start_client(build, port, ["send", envelopes, count], "send", SPOOL)
        filled = line_of(client)
        peers.start_broker(port)
        taker = peers.start_client(build, port, ["take"], "take", {})
        drained = line_of(client)
        taker.stdin.write("\n")
        taker.stdin.flush()
        return filled, drained, line_of(taker)
