#!/usr/bin/env python3
"""Two instances of vlm-backend with one PostgreSQL and one persistent broker, while vehicles send. Instances, broker and
database are killed in turn: no envelope is lost, none is stored twice, and another instance takes the vehicles over.

VLM_BACKEND names the program, VLM_FAULT_ROUNDS how often each is killed (1).
"""
import base64
import json
import os
import sys
import tempfile
import threading
import time
import unittest
from pathlib import Path

import paho.mqtt.client as mqtt

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../support"))
from servers import Broker, Instance, Postgres, wait_until  # noqa: E402

BACKEND = os.environ["VLM_BACKEND"]
ROUNDS = int(os.environ.get("VLM_FAULT_ROUNDS", "1"))
VEHICLES = 6
SAMPLES = 20  # of an envelope
RESULT_TIMEOUT = 3  # s
CONFIGURATION = {"CONFIG": [{"name": "trip", "version": "1"}], "CLOCK": [{"name": "minute", "duration": 60000}],
                 "COLLECT": [{"name": "position", "serv": "GNSS", "res": "positions", "index": 1, "on": "minute"}],
                 "REPORT": [{"name": "Trip", "application": "App", "from": ["position"]}]}


class Vehicle:
    """What docs/mqtt.md describes: an envelope is sent again until its result is 0."""

    def __init__(self, number, broker):
        self.name = f"v{number}"
        self.prefix = f"vlm/{self.name}"
        self.delivered = 0
        self.is_open = False
        self.configurations = []
        self.openings = 0
        self.lock = threading.Condition()
        self.ending = False
        self.client = mqtt.Client(f"vehicle-{number}", protocol=mqtt.MQTTv5)
        self.client.reconnect_delay_set(1, 1)
        self.client.will_set(self.prefix + "/status", '{"state":"offline"}', 1, True)
        self.client.on_connect = self.on_connect
        self.client.on_message = self.on_message
        self.client.connect_async("127.0.0.1", broker.port, keepalive=5)
        self.client.loop_start()
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def on_connect(self, client, *_):
        client.subscribe([(self.prefix + "/mastercontrol", 1), (self.prefix + "/config/response", 1)])
        client.publish(self.prefix + "/status", '{"state":"online","serverName":"21","offeredDataTypes":["VLMReport"]}',
                       1, True)

    def on_message(self, _client, _object, message):
        content = json.loads(message.payload)
        with self.lock:
            if message.topic.endswith("/config/response"):
                self.configurations.append(content[0]["recordId"])
                assert json.loads(base64.b64decode(content[0]["recordBody"])) == CONFIGURATION
            elif content.get("messageId") == self.message_id() and content["dataDeliveryResult"] == 0:
                self.delivered += 1
            elif content["backendChannelControl"] == 0 and content["dataDeliveryResult"] == 0:
                self.is_open = True
                self.openings += "messageId" not in content
            elif content["dataDeliveryResult"] != 0:
                self.is_open = False
            self.lock.notify_all()

    def message_id(self):
        return f"{self.name}-{self.delivered}"

    def run(self):
        while not self.ending:
            with self.lock:
                if not self.lock.wait_for(lambda: self.is_open or self.ending, 1):
                    continue
                number = self.delivered
                samples = [{"timestamp": str(1_700_000_000_000 + number * 1000 + i),
                            "propertyValuePairs": {"latitude": 48.0, "longitude": 9.0}} for i in range(SAMPLES)]
                report = {"applicationName": "App", "functionId": "21", "reportName": "Trip", "sequenceNumber": number,
                          "signalCollections": [{"index": 1, "resourceName": "positions", "serviceName": "GNSSProxy",
                                                 "samples": samples}]}
                envelope = {"messageId": self.message_id(), "timestamp": 1_700_000_000,
                            "orxClientDataReport": json.dumps(report)}
            self.client.publish(self.prefix + "/data", json.dumps(envelope), 1)
            with self.lock:
                self.lock.wait_for(lambda: self.delivered > number or self.ending, RESULT_TIMEOUT)
            time.sleep(0.01)  # the pace of sending

    def end(self):
        with self.lock:
            self.ending = True
            self.lock.notify_all()
        self.thread.join()
        self.client.loop_stop()


class SeveralInstances(unittest.TestCase):
    def setUp(self):
        temporary = tempfile.TemporaryDirectory(prefix="vlm-instances-")
        self.addCleanup(temporary.cleanup)
        os.chmod(temporary.name, 0o755)
        places = {name: Path(temporary.name) / name for name in ("database", "broker")}
        for place in places.values():
            place.mkdir()
        self.database = Postgres(str(places["database"]))
        self.addCleanup(self.database.stop)
        self.broker = Broker(str(places["broker"]))
        self.addCleanup(lambda: self.broker.kill())
        self.instances = [Instance(BACKEND, temporary.name, name, self.broker, self.database) for name in ("one", "two")]
        for instance in self.instances:
            self.addCleanup(instance.kill)
        self.vehicles = [Vehicle(number, self.broker) for number in range(VEHICLES)]
        self.addCleanup(lambda: [vehicle.end() for vehicle in self.vehicles if not vehicle.ending])

    def wait_for_progress(self, more=3):
        """Each vehicle delivers."""
        before = [vehicle.delivered for vehicle in self.vehicles]
        wait_until(lambda: all(v.delivered >= b + more for v, b in zip(self.vehicles, before)),
                   lambda: f"deliveries: {before} became {[v.delivered for v in self.vehicles]};\n" +
                   "\n".join(i.text()[-2000:] for i in self.instances))

    def test_lose_nothing_and_store_nothing_twice_while_each_part_is_killed(self):
        self.wait_for_progress()
        for _ in range(ROUNDS):
            for part in (*self.instances, self.database, self.broker):
                part.kill()
                if part in self.instances:
                    self.wait_for_progress()  # the other one takes over
                else:
                    time.sleep(1)  # an outage
                part.start()
                self.wait_for_progress()
        for vehicle in self.vehicles:
            vehicle.end()
        delivered = [vehicle.delivered for vehicle in self.vehicles]
        print("\ndelivered:", delivered, flush=True)
        stored = self.database.ask("SELECT COUNT(*), COUNT(DISTINCT message_id), SUM(samples) FROM reports").split("|")
        rows = self.database.ask("SELECT COUNT(*), COUNT(DISTINCT (report, measured)) FROM samples").split("|")
        self.assertEqual(stored[0], stored[1])
        self.assertEqual(rows, [stored[2], stored[2]], "each sample is there once")
        for vehicle, count in zip(self.vehicles, delivered):
            found = int(self.database.ask(
                f"SELECT COUNT(*) FROM reports r JOIN vehicles v ON v.id = r.vehicle WHERE v.name = '{vehicle.name}' "
                f"AND r.sequence < {count}"))
            self.assertEqual(found, count, f"what {vehicle.name} has delivered is stored")
        self.assertEqual(self.database.ask("SELECT COUNT(*) FROM unusable"), "0")

    def test_send_a_configuration_once_that_either_was_asked_for(self):
        self.wait_for_progress(1)
        made = self.instances[0].put("POST", "/api/configurations",
                                     {"name": "trip", "text": json.dumps(CONFIGURATION)})
        for vehicle in self.vehicles:
            self.instances[0].put("PUT", f"/api/vehicles/{vehicle.name}/group", {"group": "fleet"})
        self.instances[1].put("PUT", "/api/assignments", {"vehicle": "", "group": "fleet", "configuration": made["id"]})
        wait_until(lambda: all(vehicle.configurations for vehicle in self.vehicles),
                   lambda: [vehicle.configurations for vehicle in self.vehicles])
        owners = self.database.ask("SELECT COUNT(DISTINCT owner) FROM vehicles WHERE owner <> ''")
        self.assertIn(owners, ("1", "2"))
        self.instances[0].kill()
        self.wait_for_progress()
        wait_until(lambda: self.database.ask("SELECT COUNT(*) FROM vehicles v JOIN instances i ON i.name = v.owner WHERE "
                                             "i.alive_until > EXTRACT(EPOCH FROM now()) * 1000") == str(VEHICLES),
                   "the takeover")
        self.assertTrue(all(set(v.configurations) == {made["recordId"]} for v in self.vehicles))
        self.assertTrue(all(len(v.configurations) <= 2 for v in self.vehicles), "once more after the takeover, at most")


if __name__ == "__main__":
    unittest.main(verbosity=2)
