"""Real processes for tests: vlmmaster with its output and status, and its surroundings.

VLMMASTER and VLM_CATALOG name the program and the generated catalog, VLM_VEHICLE, VLM_BACKEND and so on the others that a
test needs. Each vlmmaster has a folder, a state socket and a discovery port of its own.
"""
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

VLMMASTER, CATALOG, VLM_VEHICLE, BACKEND = map(os.environ.get, ("VLMMASTER", "VLM_CATALOG", "VLM_VEHICLE", "VLM_BACKEND"))
SOURCE = Path(__file__).resolve().parents[2]
WITH_CATALOG = SOURCE / "tests/support/with-catalog"
APPLICATION = SOURCE / "examples/application.json"
COLLECTOR = json.dumps({
    "CONFIG": [{"name": "test", "version": "1"}], "CLOCK": [{"name": "tick", "duration": 60000}],
    "REPORT": [{"name": "all", "application": "test", "from": ["position"]}],
    "COLLECT": [{"name": "position", "serv": "GNSS", "res": "positions", "index": 1, "on": "tick"}]})

DEADLINE = 60  # s; reached only on failure
STOP_LIMIT = 10  # s; a stop takes 2 s at most, a wait of the main loop 30 s


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def free_tcp_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until(condition, what, deadline=DEADLINE, period=0.02):
    """Returns the condition's value once it is true. `what` is a text or a function that returns one."""
    end = time.monotonic() + deadline
    while not (value := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"did not come: {what() if callable(what) else what}")
        time.sleep(period)
    return value


class Peer:
    """A process whose output is added to a file; it can be killed and started again."""

    def __init__(self, output, *command, **options):
        self.output = Path(output)
        self._command, self._options = [str(word) for word in command], options
        self._waited_to = 0
        self.start()

    def start(self):
        with open(self.output, "ab") as out:
            self.process = subprocess.Popen(self._command, **{"stdin": subprocess.DEVNULL, "stdout": out, "stderr": out,
                                                              **self._options})

    def text(self):
        return self.output.read_text(errors="replace")

    def wait_for(self, text):
        """That the text comes, after those waited for before."""
        def found():
            ended = self.process.poll() is not None
            at = self.text().find(text, self._waited_to)
            assert at >= 0 or not ended, f"ended without {text!r}:\n{self.text()[-4000:]}"
            self._waited_to = at + len(text) if at >= 0 else self._waited_to
            return at >= 0
        wait_until(found, lambda: f"{text!r} in:\n{self.text()[-4000:]}")

    def end(self, limit=DEADLINE):
        """The exit status."""
        try:
            return self.process.wait(timeout=limit)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError("does not end:\n" + self.text()[-4000:])

    def stop(self, number=signal.SIGTERM, limit=STOP_LIMIT):
        self.process.send_signal(number)
        return self.end(limit)

    def kill(self):
        self.process.kill()
        self.process.wait()


def listens(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def fake_clock(**variables):
    """The environment of a process under libfaketime; None if that is not installed.

    The times of files stay as they are: faking them needs a semaphore that libfaketime takes away at the end of a
    process, under threads that still work.
    """
    found = sorted(Path("/usr/lib").glob("*/faketime/libfaketimeMT.so.1"))
    return {"LD_PRELOAD": str(found[0]), "NO_FAKE_STAT": "1", **variables} if found else None


def faster_clock(speed):
    return fake_clock(FAKETIME=f"+0 x{speed:g}")


def program(name):
    return shutil.which(name, path=os.environ["PATH"] + ":/usr/sbin")


class ProcessCase(unittest.TestCase):
    """A test with a folder of its own; the processes that it starts end with it."""

    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory(prefix="vlm-test-"))

    def need(self, *programs, clock=False):
        """Skips the test without these programs, or without a clock that it needs."""
        for name in programs:
            if not program(name):
                self.skipTest(f"{name} is needed")
        if clock is None:
            self.skipTest("libfaketime is needed")

    def write(self, name, content):
        path = os.path.join(self.folder, name)
        Path(path).write_text(content)
        return path

    def until_end(self, peer):
        """The peer, which is killed at the end of the test."""
        self.addCleanup(peer.kill)
        return peer

    def start_peer(self, name, *command, **options):
        """A process with its output in a file of that name."""
        return self.until_end(Peer(os.path.join(self.folder, name + ".txt"), *command, **options))

    def start_broker(self, port, access="allow_anonymous true"):
        self.need("mosquitto")
        configuration = self.write("mosquitto.conf", f"listener {port} 127.0.0.1\n{access}\n")
        broker = self.start_peer("broker", program("mosquitto"), "-c", configuration)
        wait_until(lambda: listens(port), broker.text)
        return broker

    def start_prometheus(self, target):
        """One that scrapes the target each second. Returns a function: the value of a query, or 0."""
        self.need("prometheus", "promtool")
        address = f"127.0.0.1:{free_tcp_port()}"
        configuration = self.write("prometheus.yml", "global: {scrape_interval: 1s}\n"
                                   f"scrape_configs: [{{job_name: vlm, static_configs: [{{targets: ['{target}']}}]}}]\n")
        self.start_peer("prometheus", "prometheus", f"--config.file={configuration}", f"--web.listen-address={address}",
                        f"--storage.tsdb.path={self.folder}/tsdb")

        def value(query):
            done = subprocess.run(["promtool", "query", "instant", f"http://{address}", query], capture_output=True,
                                  text=True, timeout=30, check=False)  # fails until it has started
            found = re.search(r" => (\S+) @", done.stdout)
            return float(found[1]) if found else 0
        return value


def ask(path, request):
    """The answer of the vlmmaster with this state socket."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as channel:
        channel.settimeout(DEADLINE)
        channel.connect(str(path))
        channel.sendall((json.dumps(request) + "\n").encode())
        with channel.makefile() as answers:
            return json.loads(answers.readline())


def status_of(path):
    """Its status; empty while it does not answer."""
    try:
        answer = ask(path, {"request": "status"})
        return answer.get("status", answer)
    except (OSError, ValueError):
        return {}


def count_in(status, name):
    """A value of the status by its dotted name; 0 if missing."""
    value = status
    for key in name.split("."):
        value = value.get(key, {}) if isinstance(value, dict) else {}
    return value or 0


def merged(base, changes):
    result = dict(base)
    for key, value in changes.items():
        result[key] = merged(result.get(key, {}), value) if isinstance(value, dict) else value
    return result


class Vlmmaster(Peer):
    """`manifest` changes the machine manifest, `environment` and `inside` are for the program alone: variables, and
    what comes between the namespace's making and the program. `outside` comes before all of it.
    """

    def __init__(self, arguments, folder, catalog=None, before=None, address="127.0.0.1", port=None, manifest=None,
                 environment=None, outside=()):
        self.folder = folder
        self.socket = os.path.join(folder, "state.sock")
        path = Path(folder, "manifest.json")
        content = {"log": {"dlt": False},
                   "state": {"socket": self.socket},
                   "someip": {"address": address, "discovery": {"port": port or free_udp_port()}},
                   "backend": {"directory": {"path": os.path.join(folder, "backend")}}}
        path.write_text(json.dumps(merged(content, manifest or {})))
        inside = ["env", *(f"{name}={value}" for name, value in environment.items())] if environment else []
        super().__init__(Path(folder, "output.txt"), *outside, WITH_CATALOG, catalog or CATALOG, *inside, VLMMASTER, *arguments,
                         cwd=folder, env=dict(os.environ, VLM_MACHINE_MANIFEST=str(path)), preexec_fn=before)

    def ask(self, request):
        return ask(self.socket, request)

    def status(self):
        status = status_of(self.socket)
        if not status and self.process.poll() is not None:
            raise AssertionError(f"has ended with status {self.process.returncode}")
        return status

    def count(self, *names):
        status = self.status()
        values = [count_in(status, name) for name in names]
        return values[0] if len(values) == 1 else values

    def wait_for_count(self, name, least, deadline=DEADLINE):
        wait_until(lambda: self.count(name) >= least,
                   lambda: f"{name} >= {least} in {json.dumps(self.status())}", deadline, 0.05)


class Vehicle(Peer):
    def __init__(self, folder, port, *arguments, environment=None):
        super().__init__(os.path.join(folder, "vehicle.txt"), VLM_VEHICLE, "--discovery-port", port, "--status-seconds", "0",
                         *arguments, env=dict(os.environ, **(environment or {})))
