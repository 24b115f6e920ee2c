"""Real processes for tests: vlmmaster with its output and status, and its surroundings.

VLMMASTER, VLM_CATALOG and WITH_CATALOG name the program, the generated catalog and tests/support/with-catalog;
VLM_VEHICLE names vlm-vehicle. Each vlmmaster has a folder, a state socket and a discovery port of its own.
"""
import json
import os
import queue
import signal
import socket
import subprocess
import threading
import time
from pathlib import Path

VLMMASTER = os.environ["VLMMASTER"]
CATALOG = os.environ["VLM_CATALOG"]
WITH_CATALOG = os.environ["WITH_CATALOG"]
VLM_VEHICLE = os.environ.get("VLM_VEHICLE")

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


def fake_clock(**variables):
    """The environment of a process under libfaketime; None if that is not installed.

    The times of files stay as they are: faking them needs a semaphore that libfaketime takes away at the end of a
    process, under threads that still work.
    """
    found = sorted(Path("/usr/lib").glob("*/faketime/libfaketimeMT.so.1"))
    return {"LD_PRELOAD": str(found[0]), "NO_FAKE_STAT": "1", **variables} if found else None


def faster_clock(speed):
    return fake_clock(FAKETIME=f"+0 x{speed:g}")


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


class Vlmmaster:
    """A process with its output, line by line.

    `manifest` changes the machine manifest, `environment` and `inside` are for the program alone: variables, and
    what stands between the namespace's making and the program. `outside` stands before all of it.
    """

    def __init__(self, arguments, folder, catalog=CATALOG, before=None, address="127.0.0.1", port=None, manifest=None,
                 environment=None, outside=()):
        self.folder = folder
        self.socket = os.path.join(folder, "state.sock")
        path = os.path.join(folder, "manifest.json")
        content = {"log": {"dlt": False},
                   "state": {"socket": self.socket},
                   "someip": {"address": address, "discovery": {"port": port or free_udp_port()}},
                   "backend": {"directory": {"path": os.path.join(folder, "backend")}}}
        with open(path, "w") as file:
            json.dump(merged(content, manifest or {}), file)
        self.lines = []
        self._incoming = queue.Queue()
        inside = ["env", *(f"{name}={value}" for name, value in environment.items())] if environment else []
        self.process = subprocess.Popen(
            [*outside, WITH_CATALOG, catalog, *inside, VLMMASTER, *arguments], cwd=folder, text=True, errors="replace",
            env=dict(os.environ, VLM_MACHINE_MANIFEST=path), stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, preexec_fn=before)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self.process.stdout:
            self._incoming.put(line.rstrip("\n"))
        self._incoming.put(None)

    def _next(self, deadline):
        line = self._incoming.get(timeout=max(0.0, deadline - time.monotonic()))
        if line is not None:
            self.lines.append(line)
        return line

    def wait_for(self, text):
        """The first line with the text among those not read yet."""
        deadline = time.monotonic() + DEADLINE
        try:
            while (line := self._next(deadline)) is not None:
                if text in line:
                    return line
        except queue.Empty:
            pass
        raise AssertionError(f"no line with {text!r} in:\n" + "\n".join(self.lines[-40:]))

    def see(self, text):
        """As wait_for(), but among all lines."""
        if not any(text in line for line in self.lines):
            self.wait_for(text)

    def end(self, limit=DEADLINE):
        """The exit status, after reading all output."""
        try:
            status = self.process.wait(timeout=limit)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise AssertionError("does not end:\n" + "\n".join(self.lines[-40:]))
        self._reader.join()
        while self._next(time.monotonic() + DEADLINE) is not None:
            pass
        self.process.stdout.close()
        return status

    def stop(self, number=signal.SIGTERM, limit=STOP_LIMIT):
        self.process.send_signal(number)
        return self.end(limit)

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

    def text(self):
        return "\n".join(self.lines)

    def kill(self):
        if self.process.poll() is None:
            self.process.kill()
            self.end()


class Vehicle:
    """vlm-vehicle; its output goes to a file."""

    def __init__(self, folder, port, *arguments, environment=None):
        self.output = os.path.join(folder, "vehicle.txt")
        with open(self.output, "ab") as out:
            self.process = subprocess.Popen(
                [VLM_VEHICLE, "--discovery-port", str(port), "--status-seconds", "0", *arguments],
                env=dict(os.environ, **(environment or {})), stdin=subprocess.DEVNULL, stdout=out, stderr=out)

    def end(self, number=signal.SIGKILL):
        if self.process.poll() is None:
            self.process.send_signal(number)
        return self.process.wait(DEADLINE)
