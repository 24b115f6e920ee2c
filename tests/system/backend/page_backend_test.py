#!/usr/bin/env python3
"""docs/mqtt.md is enough to write a backend: one that was written from it alone serves a vehicle, with window and
compression. And vlm-backend answers as its script says.

The environment is that of tests/support/processes.py, and VLM_SPOOL, VLM_BACKEND, VLM_SOURCE.
"""
import json
import os
import signal
import subprocess
import sys
import unittest
from pathlib import Path

import paho.mqtt.client as mqtt

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../support"))
from page_backend import PageBackend  # noqa: E402
from processes import ProcessCase, Vehicle, Vlmmaster, faster_clock, free_tcp_port, free_udp_port, kill, wait_until  # noqa: E402

SOURCE = Path(os.environ["VLM_SOURCE"])
DICTIONARY = SOURCE / "platform/linux/backend/dictionaries/50001.zdict"
SPEED = 40  # a tick, with two reports, every one and a half seconds
BACKLOG = 20


class PageBackendTest(ProcessCase):
    def setUp(self):
        super().setUp()
        self.clock = faster_clock(SPEED)
        self.need("mosquitto", clock=self.clock)
        self.port = free_tcp_port()
        self.place = Path(self.folder)

    def start_vehicle(self, backend):
        discovery = free_udp_port()
        self.addCleanup(Vehicle(self.folder, discovery, environment=self.clock).end)
        mqtt = {"port": self.port, "prefix": "vlm/page", "reconnectMaxSeconds": 5, "keepAliveSeconds": 1200}
        self.master = Vlmmaster(["-c", str(SOURCE / "examples/application.json")], self.folder, port=discovery,
                                environment=self.clock,
                                manifest={"log": {"console": False, "maxLevel": 3},
                                          "backend": {"transport": "mqtt", "mqtt": mqtt, **backend}})
        self.addCleanup(self.master.kill)

    def listed(self, *options):
        return subprocess.run([os.environ["VLM_SPOOL"], *options, self.place / "spool"], check=False,
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

        kill(broker)
        self.master.wait_for_count("spool.waiting", BACKLOG)
        # Whoever has the disk needs the dictionary, and is told which.
        self.assertIn("its dictionary 60001 is not known", self.listed("list").stdout)
        exported = self.listed("export", "--dictionary", own).stdout.splitlines()
        self.assertGreaterEqual(len(exported), BACKLOG)
        self.assertIn("orxClientDataReport", json.loads(exported[0])["envelope"])

        backend.answer_after = 0.3
        self.start_broker(self.port)
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
        self.assertEqual(self.master.stop(), 0)


class ScriptTest(ProcessCase):
    def test_vlm_backend_gives_the_results_of_its_script_and_opens_and_closes_upon_signals(self):
        self.need("mosquitto")
        port = free_tcp_port()
        self.start_broker(port)
        heard = []
        car = mqtt.Client("car", protocol=mqtt.MQTTv5)
        car.on_connect = lambda *_: car.subscribe("test/car/mastercontrol", 1)
        car.on_message = lambda _client, _data, message: heard.append(json.loads(message.payload))
        car.reconnect_delay_set(1, 1)
        car.connect_async("127.0.0.1", port)
        car.loop_start()
        self.addCleanup(car.loop_stop)
        backend = self.start_peer("vlm-backend", os.environ["VLM_BACKEND"], "--port", port, "--prefix", "test/car", "--closed",
                                  "--results", "0,1,2,-", "--store", f"{self.folder}/store.jsonl")
        output = Path(self.folder, "vlm-backend.txt")

        def publish(topic, **message):
            car.publish("test/car/" + topic, json.dumps(message), 1)

        def wait_for(control, result, identifier=None):
            """The last message."""
            wanted = (control, result, identifier)
            wait_until(lambda: heard and wanted == tuple(heard[-1].get(name) for name in (
                "backendChannelControl", "dataDeliveryResult", "messageId")), lambda: f"{wanted} in {heard}")

        wait_until(car.is_connected, "the broker")
        publish("status", state="online", serverName="1", offeredDataTypes=["VLMReport"])
        wait_for(1, 0)
        backend.send_signal(signal.SIGUSR1)
        wait_for(0, 0)
        report = json.dumps({"reportName": "r", "signalCollections": [{"samples": [{"timestamp": "1"}]}]})
        for number, result in enumerate((0, 1, 2)):
            publish("data", messageId=f"m{number}", orxClientDataReport=report)
            wait_for(0, result, f"m{number}")
        for _ in range(2):
            publish("data", messageId="m3", orxClientDataReport=report)
        wait_until(lambda: "again, no answer" in output.read_text(), output.read_text)
        backend.send_signal(signal.SIGUSR2)
        wait_for(1, 0)
        backend.send_signal(signal.SIGTERM)
        self.assertEqual(backend.wait(), 0)
        self.assertIn("5 envelopes, 1 of them again, 5 samples", output.read_text())
        self.assertEqual(len(Path(self.folder, "store.jsonl").read_text().splitlines()), 5)


if __name__ == "__main__":
    unittest.main(verbosity=2)
