#!/usr/bin/env python3
"""vlm-backend with SQLite is killed at random moments while it stores what vehicles send: what got result 0 is there
once, and the file is sound.

VLM_BACKEND names the program, VLM_FAULT_ROUNDS how often it is killed (3), VLM_FAULT_SEED repeats a run's moments.
"""
import os
import random
import sqlite3
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

from instances_test import BACKEND, RESULT_TIMEOUT, Broker, Vehicle, wait_until

ROUNDS = int(os.environ.get("VLM_FAULT_ROUNDS", "3"))
SEED = int(os.environ.get("VLM_FAULT_SEED", "0")) or random.SystemRandom().randrange(1, 1 << 31)
VEHICLES = 6


class Sqlite(unittest.TestCase):
    def setUp(self):
        temporary = tempfile.TemporaryDirectory(prefix="vlm-sqlite-")
        self.addCleanup(temporary.cleanup)
        self.folder = Path(temporary.name)
        self.database = self.folder / "vehicles.db"
        self.broker = Broker(temporary.name)
        self.addCleanup(self.broker.kill)
        self.process = None
        self.start()
        self.addCleanup(lambda: self.kill())
        self.vehicles = [Vehicle(number, self.broker) for number in range(VEHICLES)]
        self.addCleanup(lambda: [vehicle.end() for vehicle in self.vehicles if not vehicle.ending])

    def start(self):
        with open(self.folder / "backend.txt", "ab") as out:
            self.process = subprocess.Popen([BACKEND, "--port", str(self.broker.port), "--prefix", "vlm/+", "--database",
                                             str(self.database), "--listen", "none"], stdin=subprocess.DEVNULL, stdout=out,
                                            stderr=out)

    def kill(self):
        self.process.kill()
        self.process.wait()

    def wait_for_progress(self):
        before = [vehicle.delivered for vehicle in self.vehicles]
        wait_until(lambda: all(v.delivered >= b + 3 for v, b in zip(self.vehicles, before)),
                   lambda: (self.folder / "backend.txt").read_text()[-2000:])

    def ask(self, statement):
        connection = sqlite3.connect(self.database)
        try:
            return connection.execute(statement).fetchall()
        finally:
            connection.close()

    def test_killed_at_random_moments_it_loses_nothing_and_stores_nothing_twice(self):
        chance = random.Random(SEED)
        for _ in range(ROUNDS):
            self.wait_for_progress()
            time.sleep(chance.uniform(0, 0.3))  # any moment of a transaction
            self.kill()
            self.start()
        self.wait_for_progress()
        for vehicle in self.vehicles:
            vehicle.end()
        delivered = {vehicle.name: vehicle.delivered for vehicle in self.vehicles}
        print(f"\nseed {SEED}; delivered: {delivered}; results waited for {RESULT_TIMEOUT} s", flush=True)
        self.kill()
        self.assertEqual(self.ask("PRAGMA integrity_check"), [("ok",)])
        reports, different, samples = self.ask("SELECT COUNT(*), COUNT(DISTINCT message_id), SUM(samples) FROM reports")[0]
        self.assertEqual(reports, different)
        self.assertEqual(self.ask("SELECT COUNT(*) FROM (SELECT DISTINCT report, measured FROM samples)"), [(samples,)])
        self.assertEqual(self.ask("SELECT COUNT(*) FROM samples"), [(samples,)], "each sample is there once")
        for name, count in delivered.items():
            self.assertEqual(self.ask("SELECT COUNT(*) FROM reports r JOIN vehicles v ON v.id = r.vehicle WHERE v.name = "
                                      f"'{name}' AND r.sequence < {count}"), [(count,)], f"what {name} has delivered is stored")
        # The totals of the vehicles belong to the same transactions.
        self.assertEqual(self.ask("SELECT SUM(reports), SUM(samples) FROM vehicles"), [(reports, samples)])
        self.assertEqual(self.ask("SELECT COUNT(*) FROM unusable"), [(0,)])


if __name__ == "__main__":
    unittest.main(verbosity=2)
