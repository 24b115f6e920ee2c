"""What several instances of vlm-backend need: a PostgreSQL server, a persistent broker, and the instances."""
import http.client
import json
import os
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path

DEADLINE = 90  # s; reached only on failure


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until(condition, what, deadline=DEADLINE):
    end = time.monotonic() + deadline
    while not (value := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"did not come: {what() if callable(what) else what}")
        time.sleep(0.05)
    return value


class Postgres:
    """A server of its own, which refuses to run as root. `settings` are those of postgresql.conf."""

    def __init__(self, folder, settings=()):
        self.folder = Path(folder)
        self.settings = [word for setting in settings for word in ("-c", setting)]
        self.bin = sorted(Path("/usr/lib/postgresql").glob("*/bin"))[-1]
        self.user = ["runuser", "-u", "postgres", "--"] if os.geteuid() == 0 else []
        if self.user:
            shutil.chown(folder, "postgres")
        self.port = free_port()
        subprocess.run([*self.user, self.bin / "initdb", "-D", self.folder / "data", "-U", "test", "-A", "trust", "-E",
                        "UTF8", "--locale=C.UTF-8"], check=True, stdout=subprocess.DEVNULL)
        self.start()
        subprocess.run([self.bin / "createdb", "-h", folder, "-p", str(self.port), "-U", "test", "fleet"], check=True)
        self.url = f"postgresql://test@127.0.0.1:{self.port}/fleet"

    def start(self):
        self.spawn()
        ready = [self.bin / "pg_isready", "-h", self.folder, "-p", str(self.port)]

        def answers():
            if self.process.poll() is not None:
                self.spawn()  # of a killed server, something was still there
            return subprocess.run(ready, stdout=subprocess.DEVNULL, check=False).returncode == 0
        wait_until(answers, "PostgreSQL")

    def spawn(self):
        with open(self.folder / "log", "ab") as log:
            self.process = subprocess.Popen(
                [*self.user, self.bin / "postgres", "-D", self.folder / "data", "-p", str(self.port), "-k", self.folder,
                 "-c", "listen_addresses=127.0.0.1", *self.settings], stdout=log, stderr=log, stdin=subprocess.DEVNULL)

    def processes(self):
        """The server's own process, which the first line of its file names, and those that it has started."""
        server = int((self.folder / "data/postmaster.pid").read_text().split()[0])
        return [server, *map(int, Path(f"/proc/{server}/task/{server}/children").read_text().split())]

    def kill(self):
        for process in self.processes():
            try:
                os.kill(process, signal.SIGKILL)
            except ProcessLookupError:
                pass  # it ended with its server
        self.process.wait()

    def stop(self):
        subprocess.run([*self.user, self.bin / "pg_ctl", "-D", self.folder / "data", "-m", "immediate", "stop"],
                       check=False, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.process.wait(DEADLINE)

    def ask(self, statement):
        done = subprocess.run([self.bin / "psql", "-At", self.url, "-c", statement], capture_output=True, text=True,
                              check=True)
        return done.stdout.strip()


class Broker:
    """mosquitto, which writes its state to the disk each second, if there is a change, or each `save_every` seconds."""

    def __init__(self, folder, save_every=None):
        self.port = free_port()
        self.file = Path(folder) / "mosquitto.conf"
        on_changes = "true" if save_every is None else "false"
        self.file.write_text(f"listener {self.port} 127.0.0.1\nallow_anonymous true\npersistence true\n"
                             f"persistence_location {folder}/\nautosave_interval {save_every or 1}\n"
                             f"autosave_on_changes {on_changes}\nuser root\n")
        self.start()

    def start(self):
        program = shutil.which("mosquitto", path=os.environ["PATH"] + ":/usr/sbin")
        self.process = subprocess.Popen([program, "-c", self.file], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)

    def kill(self):
        self.process.kill()
        self.process.wait()


class Instance:
    """One of several of vlm-backend. `more` are further arguments."""

    def __init__(self, program, folder, name, broker, database, more=()):
        self.listen = free_port()
        self.output = Path(folder) / f"{name}.txt"
        self.command = [program, "--port", str(broker.port), "--prefix", "vlm/+", "--database", database.url,
                        "--instances", "fleet", "--listen", f"127.0.0.1:{self.listen}", *more]
        self.start()

    def start(self):
        with open(self.output, "ab") as out:
            self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=out,
                                            stderr=subprocess.STDOUT)

    def kill(self):
        self.process.kill()
        self.process.wait()

    def text(self):
        return self.output.read_text()

    def put(self, method, target, body):
        peer = http.client.HTTPConnection("127.0.0.1", self.listen, timeout=DEADLINE)
        peer.request(method, target, json.dumps(body), {"Content-Type": "application/json"})
        answer = peer.getresponse()
        content = answer.read()
        peer.close()
        assert answer.status < 300, content
        return json.loads(content)
