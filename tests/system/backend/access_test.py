#!/usr/bin/env python3
"""The access rules of examples/mosquitto in a real broker: a vehicle writes and reads below its own name alone.

The environment is that of tests/support/processes.py, and VLM_BACKEND and VLM_SOURCE.
"""
import json
import os
import socket
import subprocess
import sys
import threading
import unittest
from pathlib import Path

import paho.mqtt.client as mqtt

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../support"))
from processes import DEADLINE, ProcessCase, Vlmmaster, free_tcp_port, program, wait_until  # noqa: E402

VLM_BACKEND = os.environ["VLM_BACKEND"]
SOURCE = Path(os.environ["VLM_SOURCE"])
PASSWORDS = {"backend": "b1", "bench": "v1", "other": "v2"}


def envelope(message_id):
    report = {"applicationName": "App", "functionId": "21", "reportName": "Trip", "sequenceNumber": 1,
              "signalCollections": [{"index": 1, "resourceName": "positions", "serviceName": "GNSSProxy", "samples": [
                  {"timestamp": "1700000000000", "propertyValuePairs": {"latitude": 48.0, "longitude": 9.0}}]}]}
    return json.dumps({"messageId": message_id, "timestamp": 1_700_000_000, "orxClientDataReport": json.dumps(report)})


class Client:
    """A login at the broker, and the topics that came."""

    def __init__(self, port, login, password=None, topics=()):
        self.received, self.connected, self.changed = [], None, threading.Condition()
        self.client = mqtt.Client(f"test-{login}-{id(self)}", protocol=mqtt.MQTTv5)
        if password is not None:
            self.client.username_pw_set(login, password)
        self.client.on_connect = lambda client, _u, _f, code, _p: self.note(client, code, topics)
        self.client.on_message = lambda _c, _u, message: self.add((message.topic, message.payload.decode()))
        self.client.connect("127.0.0.1", port)
        self.client.loop_start()
        self.wait(lambda: self.connected is not None)

    def note(self, client, code, topics):
        for topic in topics:
            client.subscribe(topic, 1)
        with self.changed:
            self.connected = code.value < 0x80
            self.changed.notify_all()

    def add(self, message):
        with self.changed:
            self.received.append(message)
            self.changed.notify_all()

    def wait(self, condition):
        with self.changed:
            assert self.changed.wait_for(condition, DEADLINE), self.received

    def publish(self, topic, payload, retain=False):
        self.client.publish(topic, payload, 1, retain)

    def end(self):
        self.client.disconnect()
        self.client.loop_stop()


class AccessTest(ProcessCase):
    def setUp(self):
        super().setUp()
        self.port = free_tcp_port()
        for file in ("access.acl", "mosquitto.conf"):
            text = (SOURCE / "examples/mosquitto" / file).read_text()
            self.assertIn("listener 1883 127.0.0.1", text) if file.endswith("conf") else None
            path = self.write(file, text.replace("listener 1883 127.0.0.1", f"listener {self.port} 127.0.0.1\nuser root"))
            os.chmod(path, 0o600)
        passwords = Path(self.folder, "passwords")
        passwords.touch(0o600)
        for login, password in PASSWORDS.items():
            subprocess.run([program("mosquitto_passwd"), "-b", passwords, login, password], check=True)
        self.start_peer("broker", program("mosquitto"), "-c", "mosquitto.conf", cwd=self.folder)
        wait_until(self.takes_connections, Path(self.folder, "broker.txt").read_text)

    def takes_connections(self):
        try:
            socket.create_connection(("127.0.0.1", self.port), 1).close()
            return True
        except OSError:
            return False

    def client(self, login, topics=()):
        client = Client(self.port, login, PASSWORDS.get(login), topics)
        self.addCleanup(client.end)
        return client

    def backend(self):
        self.start_peer("backend", VLM_BACKEND, "--port", self.port, "--prefix", "vlm/+", "--user", "backend", "--listen", "none",
                        "--database", f"{self.folder}/vehicles.db", "--config", SOURCE / "examples/collector.json",
                        env={**os.environ, "VLM_BACKEND_PASSWORD": PASSWORDS["backend"]})
        output = Path(self.folder, "backend.txt")
        wait_until(lambda: "connected to the broker" in output.read_text(), output.read_text)
        return output

    def test_a_vehicle_writes_and_reads_below_its_own_name_alone(self):
        seen = self.client("backend", ["vlm/#"])
        shared = self.client("backend", ["$share/fleet/vlm/+/data/#"])
        other = self.client("other", ["vlm/#", "#", "vlm/bench/config/response", "vlm/other/config/response"])
        for topic in ("vlm/bench/data", "vlm/bench/data/zstd/1", "vlm/bench/status", "vlm/bench/health", "vlm/bench/config/request",
                      "vlm/other/mastercontrol", "vlm/bench/mastercontrol", "vlm/other", "elsewhere"):
            other.publish(topic, "forged")
            other.publish(topic, "forged", retain=True)
        # The broker takes a client's messages in their order: when these are through, the others were refused.
        own = ["vlm/other/" + topic for topic in ("status", "health", "config/request", "data", "data/zstd/1")]
        for topic in own:
            other.publish(topic, "own")
        seen.wait(lambda: len(seen.received) >= len(own))
        self.assertEqual(seen.received, [(topic, "own") for topic in own])
        shared.wait(lambda: len(shared.received) >= 2)
        self.assertEqual(shared.received, [(topic, "own") for topic in own if "/data" in topic], "as several instances share")
        seen.publish("vlm/bench/config/response", "bench's")
        seen.publish("vlm/other/config/response", "other's")
        other.wait(lambda: other.received)
        self.assertEqual(set(other.received), {("vlm/other/config/response", "other's")}, "once for each subscription")
        self.assertFalse(self.client("nobody").connected, "no login, no connection")

    def test_vlmmaster_and_vlm_backend_work_with_these_rules(self):
        output = self.backend()
        application = self.write("vlm.json", '{"OfferedDataTypes": ["VLMReport"]}')
        master = Vlmmaster(["-c", application], self.folder, manifest={"backend": {"transport": "mqtt", "mqtt": {
            "port": self.port, "prefix": "vlm/bench", "user": "bench", "password": PASSWORDS["bench"]}}})
        self.addCleanup(master.kill)
        wait_until(lambda: "vlm/bench asks for a configuration" in output.read_text(), output.read_text)
        master.wait_for_count("config.answers", 1)
        self.assertEqual(master.count("config.refused"), 0)
        other = self.client("other")
        other.publish("vlm/bench/data", envelope("forged"))
        other.publish("vlm/other/data", envelope("own"))
        wait_until(lambda: "vlm/other Trip #1" in output.read_text(), output.read_text)
        self.assertNotIn("vlm/bench Trip", output.read_text())


if __name__ == "__main__":
    unittest.main(verbosity=2)
