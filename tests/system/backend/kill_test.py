"""vlm-backend is killed while vehicles send: no envelope is lost, none is stored twice. With SQLite, at random moments; with
PostgreSQL and a persistent broker, two instances, of which one takes the other's vehicles over, and broker and database are
killed in turn.

The environment is that of tests/support/processes.py. VLM_FAULT_ROUNDS tells how often each is killed, VLM_FAULT_SEED
repeats a run's moments.
"""
import base64
import json
import os
import random
import sqlite3
import threading
import time

from mqtt_client import Client
from processes import BACKEND, COLLECTOR, ProcessCase, wait_until
from servers import Broker, Instance, Postgres, envelope, positions

ROUNDS = int(os.environ.get("VLM_FAULT_ROUNDS", "0"))
SEED = int(os.environ.get("VLM_FAULT_SEED", "0")) or random.SystemRandom().randrange(1, 1 << 31)
VEHICLES = 6
SAMPLES = 20  # of an envelope
RESULT_TIMEOUT = 3  # s
PATIENT = 90  # s; reached only on failure


class Vehicle(Client):
    """What docs/mqtt.md describes: an envelope is sent again until its result is 0."""

    def __init__(self, number, broker):
        self.name = f"v{number}"
        self.prefix = f"vlm/{self.name}"
        self.delivered = 0
        self.is_open = self.ending = False
        self.configurations = []
        super().__init__(broker.port, f"vehicle-{number}", [self.prefix + "/mastercontrol", self.prefix + "/config/response"],
                         will=(self.prefix + "/status", '{"state":"offline"}'))
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def on_connect(self, *arguments):
        super().on_connect(*arguments)
        self.publish(self.prefix + "/status", '{"state":"online","serverName":"21","offeredDataTypes":["VLMReport"]}', True)

    def take(self, topic, payload):
        content = json.loads(payload)
        if topic.endswith("/config/response"):
            self.configurations.append(content[0]["recordId"])
            assert json.loads(base64.b64decode(content[0]["recordBody"])) == json.loads(COLLECTOR)
        elif content.get("messageId") == self.message_id() and content["dataDeliveryResult"] == 0:
            self.delivered += 1
        elif content["backendChannelControl"] == 0 and content["dataDeliveryResult"] == 0:
            self.is_open = True
        elif content["dataDeliveryResult"] != 0:
            self.is_open = False

    def message_id(self):
        return f"{self.name}-{self.delivered}"

    def run(self):
        while not self.ending:
            with self.changed:
                if not self.changed.wait_for(lambda: self.is_open or self.ending, 1):
                    continue
                number = self.delivered
                message = envelope(self.message_id(), number, positions(number * SAMPLES, SAMPLES))
            self.publish(self.prefix + "/data", message)
            with self.changed:
                self.changed.wait_for(lambda: self.delivered > number or self.ending, RESULT_TIMEOUT)
            time.sleep(0.01)  # the pace of sending

    def end(self):
        with self.changed:
            self.ending = True
            self.changed.notify_all()
        self.thread.join()
        super().end()


class KillTest(ProcessCase):
    def start_vehicles(self):
        self.vehicles = [Vehicle(number, self.broker) for number in range(VEHICLES)]
        for vehicle in self.vehicles:
            self.addCleanup(vehicle.end)

    def place(self, name):
        place = os.path.join(self.folder, name)
        os.mkdir(place)
        return place

    def wait_for_progress(self, more=3):
        """Each vehicle delivers."""
        before = [vehicle.delivered for vehicle in self.vehicles]
        wait_until(lambda: all(v.delivered >= b + more for v, b in zip(self.vehicles, before)),
                   lambda: f"deliveries: {before} became {[v.delivered for v in self.vehicles]};\n" +
                   "\n".join(backend.text()[-2000:] for backend in self.backends), PATIENT)

    def check_all_is_there_once(self):
        """`ask` gives the rows of a statement as texts."""
        for vehicle in self.vehicles:
            vehicle.end()
        for backend in self.backends:
            backend.kill()
        delivered = {vehicle.name: vehicle.delivered for vehicle in self.vehicles}
        print(f"\nseed {SEED}; delivered: {delivered}; results waited for {RESULT_TIMEOUT} s", flush=True)
        (reports, different, samples), = self.ask("SELECT COUNT(*), COUNT(DISTINCT message_id), SUM(samples) FROM reports")
        self.assertEqual(reports, different)
        for rows in ("samples", "(SELECT DISTINCT report, measured FROM samples) one"):
            self.assertEqual(self.ask("SELECT COUNT(*) FROM " + rows), [[samples]], "each sample is there once")
        for name, count in delivered.items():
            found = self.ask("SELECT COUNT(*) FROM reports r JOIN vehicles v ON v.id = r.vehicle WHERE "
                             f"v.name = '{name}' AND r.sequence < {count}")
            self.assertEqual(found, [[str(count)]], f"what {name} has delivered is stored")
        # The totals of the vehicles belong to the same transactions.
        self.assertEqual(self.ask("SELECT SUM(reports), SUM(samples) FROM vehicles"), [[reports, samples]])
        self.assertEqual(self.ask("SELECT COUNT(*) FROM unusable"), [["0"]])


class Sqlite(KillTest):
    def setUp(self):
        super().setUp()
        self.database = os.path.join(self.folder, "vehicles.db")
        self.broker = self.until_end(Broker(self.place("broker")))
        self.backends = [self.start_peer("backend", BACKEND, "--port", self.broker.port, "--prefix", "vlm/+", "--database",
                                         self.database, "--listen", "none")]
        self.start_vehicles()

    def ask(self, statement):
        connection = sqlite3.connect(self.database)
        try:
            return [[str(value) for value in row] for row in connection.execute(statement)]
        finally:
            connection.close()

    def test_killed_at_random_moments_it_loses_nothing_and_stores_nothing_twice(self):
        chance = random.Random(SEED)
        for _ in range(ROUNDS or 3):
            self.wait_for_progress()
            time.sleep(chance.uniform(0, 0.3))  # any moment of a transaction
            self.backends[0].kill()
            self.backends[0].start()
        self.wait_for_progress()
        self.check_all_is_there_once()
        self.assertEqual(self.ask("PRAGMA integrity_check"), [["ok"]])


class SeveralInstances(KillTest):
    def setUp(self):
        super().setUp()
        os.chmod(self.folder, 0o755)
        self.database = Postgres(self.place("database"))
        self.addCleanup(self.database.stop)
        self.broker = self.until_end(Broker(self.place("broker")))
        self.backends = [self.until_end(Instance(BACKEND, self.folder, name, self.broker, self.database))
                         for name in ("one", "two")]
        self.start_vehicles()

    def ask(self, statement):
        return [row.split("|") for row in self.database.ask(statement).splitlines()]

    def test_lose_nothing_and_store_nothing_twice_while_each_part_is_killed(self):
        self.wait_for_progress()
        for _ in range(ROUNDS or 1):
            for part in (*self.backends, self.database, self.broker):
                part.kill()
                if part in self.backends:
                    self.wait_for_progress()  # the other one takes over
                else:
                    time.sleep(1)  # an outage
                part.start()
                self.wait_for_progress()
        self.check_all_is_there_once()

    def test_send_a_configuration_once_that_either_was_asked_for(self):
        self.wait_for_progress(1)
        one, two = self.backends
        _, made = one.change("POST", "/api/configurations", {"name": "trip", "text": COLLECTOR})
        for vehicle in self.vehicles:
            one.change("PUT", f"/api/vehicles/{vehicle.name}/group", {"group": "fleet"})
        two.change("PUT", "/api/assignments", {"vehicle": "", "group": "fleet", "configuration": made["id"]})
        wait_until(lambda: all(vehicle.configurations for vehicle in self.vehicles),
                   lambda: [vehicle.configurations for vehicle in self.vehicles], PATIENT)
        self.assertIn(self.ask("SELECT COUNT(DISTINCT owner) FROM vehicles WHERE owner <> ''"), ([["1"]], [["2"]]))
        one.kill()
        self.wait_for_progress()
        wait_until(lambda: self.ask("SELECT COUNT(*) FROM vehicles v JOIN instances i ON i.name = v.owner WHERE "
                                    "i.alive_until > EXTRACT(EPOCH FROM now()) * 1000") == [[str(VEHICLES)]],
                   "the takeover", PATIENT)
        self.assertTrue(all(set(v.configurations) == {made["recordId"]} for v in self.vehicles))
        self.assertTrue(all(len(v.configurations) <= 2 for v in self.vehicles), "once more after the takeover, at most")
