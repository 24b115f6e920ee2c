#!/usr/bin/env python3
"""docs/mqtt.md is enough to write a backend: one that was written from it alone serves a vehicle, with window and
compression.

The environment is that of tests/support/processes.py, and VLM_SPOOL, VLM_SOURCE.
"""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../support"))
from page_backend import PageBackend  # noqa: E402
from processes import Vehicle, Vlmmaster, faster_clock, free_tcp_port, free_udp_port, wait_until  # noqa: E402

SOURCE = Path(os.environ["VLM_SOURCE"])
DICTIONARY = SOURCE / "platform/linux/backend/dictionaries/50001.zdict"
MOSQUITTO = shutil.which("mosquitto", path=os.environ["PATH"] + ":/usr/sbin")
SPEED = 40  # a tick, with two reports, every one and a half seconds
BACKLOG = 20


class PageBackendTest(unittest.TestCase):
    def setUp(self):
        self.clock = faster_clock(SPEED)
        if not MOSQUITTO or self.clock is None:
            self.skipTest("mosquitto and libfaketime are needed")
        temporary = tempfile.TemporaryDirectory(prefix="vlm-page-")
        self.addCleanup(temporary.cleanup)
        self.folder = Path(temporary.name)
        self.port = free_tcp_port()
        (self.folder / "mosquitto.conf").write_text(f"listener {self.port} 127.0.0.1\nallow_anonymous true\n")

    def start_broker(self):
        broker = subprocess.Popen([MOSQUITTO, "-c", self.folder / "mosquitto.conf"], stdin=subprocess.DEVNULL,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(self.kill, broker)
        return broker

    @staticmethod
    def kill(process):
        if process.poll() is None:
            process.kill()
        process.wait()

    def start_vehicle(self, backend):
        discovery = free_udp_port()
        self.addCleanup(Vehicle(str(self.folder), discovery, environment=self.clock).end)
        mqtt = {"port": self.port, "prefix": "vlm/page", "reconnectMaxSeconds": 5, "keepAliveSeconds": 1200}
        self.master = Vlmmaster(["-c", str(SOURCE / "examples/application.json")], str(self.folder), port=discovery,
                                environment=self.clock,
                                manifest={"log": {"console": False, "maxLevel": 3},
                                          "backend": {"transport": "mqtt", "mqtt": mqtt, **backend}})
        self.addCleanup(self.master.kill)

    def listed(self, *options):
        return subprocess.run([os.environ["VLM_SPOOL"], *options, self.folder / "spool"], check=False,
                              capture_output=True, text=True)

    def test_it_serves_a_vehicle_with_window_results_and_a_dictionary(self):
        # One of a fleet's own, which no program has built in: its number is at byte 4.
        content = DICTIONARY.read_bytes()
        own = self.folder / "60001.zdict"
        own.write_bytes(content[:4] + (60001).to_bytes(4, "little") + content[8:])
        broker = self.start_broker()
        backend = PageBackend([self.port], "vlm/page", self.folder / "store.jsonl", SOURCE / "examples/collector.json",
                              dictionaries=[own], results=[0, 1, 2])
        self.addCleanup(backend.end)
        self.start_vehicle({"spool": {"path": "spool", "drainJitterSeconds": 0, "resultTimeoutSeconds": 2400},
                            "compression": {"method": "zstd", "dictionary": str(own)},
                            "remember": {"afterSeconds": 0}})
        about = lambda: f"{backend.faults} {backend.received[-5:]} {json.dumps(self.master.status())}"  # noqa: E731
        wait_until(lambda: self.master.count("spool.delivered") >= 3, about)
        identifiers = [identifier for _, identifier, _ in backend.received]
        for refused in identifiers[1:3]:
            self.assertGreater(identifiers.count(refused), 1, "what got result 1 or 2 comes again")

        self.kill(broker)
        self.master.wait_for_count("spool.waiting", BACKLOG)
        # Whoever has the disk needs the dictionary, and is told which.
        self.assertIn("its dictionary 60001 is not known", self.listed("list").stdout)
        exported = self.listed("export", "--dictionary", own).stdout.splitlines()
        self.assertGreaterEqual(len(exported), BACKLOG)
        self.assertIn("orxClientDataReport", json.loads(exported[0])["envelope"])

        backend.answer_after = 0.3
        self.start_broker()
        wait_until(lambda: self.master.count("spool.waiting") <= 2, about)
        backend.answer_after = 0
        last = self.master.count("spool.stored")
        wait_until(lambda: self.master.count("spool.delivered") >= last, about)
        self.assertEqual(backend.faults, [])
        self.assertGreaterEqual(backend.most_unanswered, 8, "the window grows")
        self.assertEqual({encoding for _, _, encoding in backend.received}, {"zstd-60001"})
        numbers = {number for number, _, _ in backend.received}
        self.assertGreaterEqual(numbers, set(range(1, last + 1)), "no number is missing")
        stored = [json.loads(line) for line in (self.folder / "store.jsonl").read_text().splitlines()]
        self.assertEqual(len({one["messageId"] for one in stored}), len(stored))
        self.assertEqual(self.master.stop(), 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
