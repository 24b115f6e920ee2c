"""The page in a real browser, on real processes: vehicle, vlmmaster, broker, PostgreSQL and backend. The browser's steps
are in page_test.mjs, which says what is to end and to start again.

The environment is that of tests/support/processes.py, and VLM_BUILD.
"""
import os
import subprocess
from pathlib import Path

from processes import (APPLICATION, BACKEND, CATALOG, ProcessCase, Vehicle, Vlmmaster, faster_clock, free_tcp_port,
                       free_udp_port, program)
from servers import Postgres

BUILD = Path(os.environ["VLM_BUILD"])
PACKAGES = BUILD / "backend/page/work"
SPEED = 15  # the clock ticks at most once a minute


class PageTest(ProcessCase):
    def test_in_a_browser(self):
        clock = faster_clock(SPEED)
        self.need("node", "chromium", clock=clock)
        if not (BUILD / "page/index.html").exists() or not (PACKAGES / "node_modules").exists():
            self.skipTest("the page is not built, as npm could not fetch its packages")
        os.chmod(self.folder, 0o755)
        place = os.path.join(self.folder, "database")
        os.mkdir(place)
        database = Postgres(place)
        self.addCleanup(database.stop)
        broker_port, discovery, port = free_tcp_port(), free_udp_port(), free_tcp_port()
        broker = self.start_broker(broker_port)
        log = os.path.join(self.folder, "log.txt")
        master = self.until_end(Vlmmaster(["-c", APPLICATION], self.folder, port=discovery, environment=clock, manifest={
            "log": {"console": False, "file": log, "fileLevel": 3},
            "backend": {"transport": "mqtt", "mqtt": {"port": broker_port, "prefix": "vlm/bench", "reconnectMaxSeconds": 5},
                        "spool": {"path": "spool"}, "compression": {"method": "zstd"}}}))
        backend = self.start_peer("vlm-backend", BACKEND, "--prefix", "vlm/bench", "--port", broker_port, "--database",
                                  database.url, "--listen", f"127.0.0.1:{port}", "--page", BUILD / "page", "--catalog",
                                  CATALOG, "--machine", master.socket, "--machine-log", log)
        backend.wait_for("the page is at ")
        self.until_end(Vehicle(self.folder, discovery, environment=clock))
        peers = {"database": database, "broker": broker, "backend": backend}
        told, telling = os.pipe()
        steps = subprocess.Popen(["node", "page_test.mjs", f"http://127.0.0.1:{port}/", program("chromium"), PACKAGES,
                                  str(telling)], stdin=subprocess.PIPE, pass_fds=[telling])
        self.addCleanup(steps.communicate)
        self.addCleanup(steps.kill)
        os.close(telling)
        with open(told) as lines:
            for line in lines:
                peer, what = line.split()
                getattr(peers[peer], what)()
                steps.stdin.write(b"\n")
                steps.stdin.flush()
        self.assertEqual(steps.wait(), 0, "".join(f"\n{name}:\n{peer.text()[-2000:]}" for name, peer in peers.items()))
