"""The access rules of examples/mosquitto in a real broker: a vehicle writes and reads below its own name alone. That
vlmmaster and vlm-backend work with them is seen in faults_test.py.

The environment is that of tests/support/processes.py.
"""
import os
import subprocess
from pathlib import Path

from mqtt_client import Client
from processes import SOURCE, ProcessCase, free_tcp_port, listens, program, wait_until

PASSWORDS = {"backend": "b1", "bench": "v1", "other": "v2"}


class AccessTest(ProcessCase):
    def client(self, login, topics=()):
        password = PASSWORDS.get(login)
        client = Client(self.port, f"test-{login}-{id(topics)}", topics, password and login, password)
        self.addCleanup(client.end)
        client.wait(lambda: client.connected is not None)
        return client

    def test_a_vehicle_writes_and_reads_below_its_own_name_alone(self):
        self.port = free_tcp_port()
        for file in ("access.acl", "mosquitto.conf"):
            text = (SOURCE / "examples/mosquitto" / file).read_text()
            path = self.write(file, text.replace("listener 1883 127.0.0.1", f"listener {self.port} 127.0.0.1\nuser root"))
            os.chmod(path, 0o600)
        passwords = Path(self.folder, "passwords")
        passwords.touch(0o600)
        for login, password in PASSWORDS.items():
            subprocess.run([program("mosquitto_passwd"), "-b", passwords, login, password], check=True)
        broker = self.start_peer("broker", program("mosquitto"), "-c", "mosquitto.conf", cwd=self.folder)
        wait_until(lambda: listens(self.port), broker.text)
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
