"""docs/mqtt.md is enough to write a backend: one that was written from it alone serves a vehicle, with window and
compression. And vlm-backend answers as its script says.

The environment is that of tests/support/processes.py, and VLM_SPOOL.
"""
import json
import os
import signal
import subprocess
from pathlib import Path

from mqtt_client import Client
from page_backend import PageBackend
from processes import (APPLICATION, BACKEND, SOURCE, ProcessCase, Vehicle, Vlmmaster, faster_clock, free_tcp_port,
                       free_udp_port, wait_until)
from servers import envelope, positions

DICTIONARY = SOURCE / "platform/linux/backend/dictionaries/50001.zdict"
SPEED = 40  # a tick, with two reports, every one and a half seconds
BACKLOG = 20


class PageBackendTest(ProcessCase):
    def setUp(self):
        super().setUp()
        self.clock = faster_clock(SPEED)
        self.need(clock=self.clock)
        self.port = free_tcp_port()
        self.place = Path(self.folder)

    def start_vehicle(self, backend):
        discovery = free_udp_port()
        self.until_end(Vehicle(self.folder, discovery, environment=self.clock))
        mqtt = {"port": self.port, "prefix": "vlm/page", "reconnectMaxSeconds": 5, "keepAliveSeconds": 1200}
        self.master = self.until_end(Vlmmaster(
            ["-c", APPLICATION], self.folder, port=discovery, environment=self.clock,
            manifest={"log": {"console": False, "maxLevel": 3}, "backend": {"transport": "mqtt", "mqtt": mqtt, **backend}}))

    def tool(self, *options):
        return subprocess.run([os.environ["VLM_SPOOL"], *map(str, options), self.place / "spool"], check=False,
                              capture_output=True, text=True)

    def test_it_serves_a_vehicle_with_window_results_and_a_dictionary(self):
        # One of a fleet's own, which no program has built in: its number is at byte 4.
        content = DICTIONARY.read_bytes()
        own = self.place / "60001.zdict"
        own.write_bytes(content[:4] + (60001).to_bytes(4, "little") + content[8:])
        broker = self.start_broker(self.port)
        backend = PageBackend([self.port], "vlm/page", self.place / "store.jsonl", SOURCE / "examples/collector.json",
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
        broker.kill()
        self.master.wait_for_count("spool.waiting", BACKLOG)
        backend.answer_after = 0.3
        broker.start()
        wait_until(lambda: self.master.count("spool.waiting") <= 2, about)
        backend.answer_after = 0
        last = self.master.count("spool.stored")
        wait_until(lambda: self.master.count("spool.delivered") >= last, about)
        self.assertEqual(backend.faults, [])
        self.assertGreaterEqual(backend.most_unanswered, 8, "the window grows")
        self.assertEqual({encoding for _, _, encoding in backend.received}, {"zstd-60001"})
        numbers = {number for number, _, _ in backend.received}
        self.assertGreaterEqual(numbers, set(range(1, last + 1)), "no number is missing")
        stored = [json.loads(line) for line in (self.place / "store.jsonl").read_text().splitlines()]
        self.assertEqual(len({one["messageId"] for one in stored}), len(stored))

        broker.kill()
        self.master.wait_for_count("spool.waiting", 2)
        self.assertIn("belongs to another process", self.tool("purge").stderr)
        self.assertEqual(self.master.stop(), 0)
        self.check_tools(own)

    def check_tools(self, dictionary):
        """Whoever has the disk needs the dictionary, and is told which. What was purged keeps its numbers."""
        spool, export, store = (self.place / name for name in ("spool", "export", "imported"))
        self.assertIn("its dictionary 60001 is not known", self.tool("list").stdout)
        self.tool("export", "--dictionary", dictionary, "--output", export)
        lines = [json.loads(line) for line in export.read_text().splitlines()]
        subprocess.run([BACKEND, "--prefix", "vlm/page", "--store", store, "--import", export], check=True)
        self.assertEqual([json.loads(line) for line in store.read_text().splitlines()],
                         [line["envelope"] for line in lines])
        last = lines[-1]["spool"]
        shown = self.tool("show", "--number", last, "--dictionary", dictionary).stdout
        self.assertEqual(json.loads(shown), lines[-1]["envelope"])
        (spool / "bad").mkdir()
        (spool / f"bad/{1:019}-4.envelope").write_text("none")
        for options, deleted in ((["--bad"], 1), ([], len(lines))):
            self.assertEqual(self.tool("purge", *options).stdout, f"{deleted} envelopes deleted\n")
        self.assertEqual(self.tool("list").stdout, "0 envelopes, 0 of them bad, 0 bytes\n")
        self.assertEqual([file.name for file in spool.glob("*.last")], [f"{last:019}.last"])


class ScriptTest(ProcessCase):
    def test_vlm_backend_gives_the_results_of_its_script_and_opens_and_closes_upon_signals(self):
        port = free_tcp_port()
        self.start_broker(port)
        car = Client(port, "car", ["test/car/mastercontrol"])
        self.addCleanup(car.end)
        backend = self.start_peer("vlm-backend", BACKEND, "--port", port, "--prefix", "test/car", "--closed",
                                  "--results", "0,1,2,-", "--store", f"{self.folder}/store.jsonl")

        def wait_for(control, result, identifier=None):
            """The last message."""
            names = ("backendChannelControl", "dataDeliveryResult", "messageId")
            car.wait(lambda: car.received and [control, result, identifier] == [
                json.loads(car.received[-1][1]).get(name) for name in names])

        car.wait(lambda: car.connected)
        car.publish("test/car/status", '{"state": "online", "serverName": "1", "offeredDataTypes": ["VLMReport"]}', True)
        wait_for(1, 0)
        backend.process.send_signal(signal.SIGUSR1)
        wait_for(0, 0)
        for number, result in enumerate((0, 1, 2)):
            car.publish("test/car/data", envelope(f"m{number}", number, positions(0, 1)))
            wait_for(0, result, f"m{number}")
        for _ in range(2):
            car.publish("test/car/data", envelope("m3", 3, positions(0, 1)))
        backend.wait_for("again, no answer")
        backend.process.send_signal(signal.SIGUSR2)
        wait_for(1, 0)
        self.assertEqual(backend.stop(), 0)
        self.assertIn("5 envelopes, 1 of them again, 5 samples", backend.text())
        self.assertEqual(len(Path(self.folder, "store.jsonl").read_text().splitlines()), 5)
