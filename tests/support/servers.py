"""What several instances of vlm-backend need: a PostgreSQL server, a persistent broker, and the instances."""
import contextlib
import http.client
import json
import os
import shutil
import signal
import subprocess
from pathlib import Path

from processes import DEADLINE, Peer, free_tcp_port, program, wait_until

NOW = 1_700_000_000_000  # ms


def positions(first, count):
    return [{"timestamp": str(NOW + i * 100),
             "propertyValuePairs": {"latitude": 48 + i % 10_000 / 1e4, "longitude": 9 + i % 10_000 / 1e4, "type": 1}}
            for i in range(first, first + count)]


def envelope(message_id, number, samples):
    compact = json.JSONEncoder(separators=(",", ":")).encode
    report = {"applicationName": "App", "createDatetime": str(NOW), "functionId": "21", "reportName": "Trip", "sequenceNumber": number,
              "signalCollections": [{"index": 1, "resourceName": "positions", "serviceName": "GNSSProxy", "samples": samples}]}
    return compact({"messageId": message_id, "orxClientDataReport": compact(report), "timestamp": NOW // 1000})


class Postgres(Peer):
    """A server of its own, which refuses to run as root. `settings` are those of postgresql.conf."""

    def __init__(self, folder, settings=()):
        self.folder = Path(folder)
        self.bin = sorted(Path("/usr/lib/postgresql").glob("*/bin"))[-1]
        self.user = ["runuser", "-u", "postgres", "--"] if os.geteuid() == 0 else []
        if self.user:
            shutil.chown(folder, "postgres")
        port = str(free_tcp_port())
        self.place = ["-h", folder, "-p", port]
        self.url = f"postgresql://test@127.0.0.1:{port}/fleet"
        subprocess.run([*self.user, self.bin / "initdb", "-D", self.folder / "data", "-U", "test", "-A", "trust", "-E",
                        "UTF8", "--locale=C.UTF-8"], check=True, stdout=subprocess.DEVNULL)
        super().__init__(self.folder / "log", *self.user, self.bin / "postgres", "-D", self.folder / "data", "-p", port, "-k",
                         folder, "-c", "listen_addresses=127.0.0.1", *(word for one in settings for word in ("-c", one)))
        subprocess.run([self.bin / "createdb", *self.place, "-U", "test", "fleet"], check=True)

    def start(self):
        super().start()

        def answers():
            if self.process.poll() is not None:
                super(Postgres, self).start()  # of a killed server, something was still there
            return subprocess.run([self.bin / "pg_isready", *self.place], stdout=subprocess.DEVNULL, check=False).returncode == 0
        wait_until(answers, "PostgreSQL")

    def processes(self):
        """The server's own process, which the first line of its file names, and those that it has started."""
        server = int((self.folder / "data/postmaster.pid").read_text().split()[0])
        return [server, *map(int, Path(f"/proc/{server}/task/{server}/children").read_text().split())]

    def kill(self):
        for process in self.processes():
            with contextlib.suppress(ProcessLookupError):  # it ended with its server
                os.kill(process, signal.SIGKILL)
        self.process.wait()

    def stop(self):
        subprocess.run([*self.user, self.bin / "pg_ctl", "-D", self.folder / "data", "-m", "immediate", "stop"],
                       check=False, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.process.wait(DEADLINE)

    def ask(self, statement):
        return subprocess.run([self.bin / "psql", "-At", self.url, "-c", statement], capture_output=True, text=True,
                              check=True).stdout.strip()


class Broker(Peer):
    """mosquitto, which writes its state to the disk each second, if there is a change, or each `save_every` seconds."""

    def __init__(self, folder, save_every=None):
        self.port = free_tcp_port()
        file = Path(folder) / "mosquitto.conf"
        file.write_text(f"listener {self.port} 127.0.0.1\nallow_anonymous true\npersistence true\n"
                        f"persistence_location {folder}/\nautosave_interval {save_every or 1}\n"
                        f"autosave_on_changes {'false' if save_every else 'true'}\nuser root\n")
        super().__init__("/dev/null", program("mosquitto"), "-c", file)


class VlmBackend(Peer):
    """vlm-backend, which answers HTTP requests at `port`; with TLS if there is a `context` for it."""

    port, context = None, None

    def ask(self, target, method="GET", headers=None, body=None):
        """Status, headers and body."""
        place = {"host": "127.0.0.1", "port": self.port, "timeout": DEADLINE}
        with contextlib.closing(http.client.HTTPSConnection(**place, context=self.context) if self.context
                                else http.client.HTTPConnection(**place)) as peer:
            peer.request(method, target, body, headers or {})
            answer = peer.getresponse()
            return answer.status, answer.headers, answer.read()

    def change(self, method, target, body):
        """Status and content of the answer."""
        status, _, content = self.ask(target, method, {"Content-Type": "application/json"}, json.dumps(body))
        return status, json.loads(content)


class Instance(VlmBackend):
    """One of several. `more` are further arguments."""

    def __init__(self, command, folder, name, broker, database, more=()):
        self.port = free_tcp_port()
        super().__init__(Path(folder) / f"{name}.txt", command, "--port", broker.port, "--prefix", "vlm/+", "--database",
                         database.url, "--instances", "fleet", "--listen", f"127.0.0.1:{self.port}", *more)
