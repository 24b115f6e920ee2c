"""vlm-backend is killed while the vehicles of bench/fleet send: no envelope is lost, none is stored twice. With PostgreSQL,
two instances, of which one takes the other's vehicles over. Database and broker, which is persistent, are killed in turn.

The environment is that of tests/support/processes.py, and VLM_BUILD. VLM_FAULT_ROUNDS tells how often each is killed,
VLM_FAULT_SEED repeats a run's moments.
"""
import contextlib
import os
import random
import runpy
import sqlite3
import sys
from pathlib import Path
from types import SimpleNamespace

from processes import BACKEND, COLLECTOR, SOURCE, Peer, ProcessCase, wait_until
from servers import Broker, envelope, positions

ROUNDS = int(os.environ.get("VLM_FAULT_ROUNDS", "0"))
SEED = int(os.environ.get("VLM_FAULT_SEED", "0")) or random.SystemRandom().randrange(1, 1 << 31)
VEHICLES = 6
SAMPLES = 20  # of an envelope
PATIENT = 90  # s; reached only on failure

sys.path.insert(0, str(SOURCE / "bench"))
fleet = SimpleNamespace(**runpy.run_path(str(SOURCE / "bench/fleet")))


class SqliteSite(fleet.Site):
    """One instance, with a file in which nothing can be killed."""

    def __init__(self, options, folder, envelopes):
        self.options, self.database, self.file = options, self, Path(folder, "vehicles.db")
        self.broker = Broker(folder)
        self.instances = [Peer(Path(folder, "backend.txt"), BACKEND, "--port", self.broker.port, "--prefix", "vlm/+",
                               "--database", self.file, "--listen", "none")]
        self.vehicles = fleet.Vehicles(options, envelopes, self.broker)

    def kill(self):
        pass

    start = stop = kill

    def ask(self, statement):
        with contextlib.closing(sqlite3.connect(self.file)) as connection:
            return "\n".join("|".join(map(str, row)) for row in connection.execute(statement))


class KillTest(ProcessCase):
    Site = fleet.Site

    def setUp(self):
        super().setUp()
        os.chmod(self.folder, 0o755)
        random.seed(SEED)
        options = SimpleNamespace(build=Path(os.environ["VLM_BUILD"]), vehicles=VEHICLES, period=0.5, timeout=3,
                                  kills=ROUNDS or 2, instances=2, postgres=())
        self.site = self.Site(options, self.folder, self.write("recorded", envelope("x" * 36, 1, positions(0, SAMPLES))))
        # Each by itself: one that has failed leaves no other running.
        self.addCleanup(self.site.database.stop)
        for peer in (self.site.broker, *self.site.instances):
            self.until_end(peer)
        self.addCleanup(self.site.vehicles.end)

    def check_kills(self):
        print(f"\nseed {SEED}", flush=True)
        self.assertTrue(fleet.kill(self.site))
        # The totals of the vehicles belong to the same transactions.
        for total, rows in (("reports", "reports"), ("samples", "samples")):
            self.assertEqual(self.site.number(f"SELECT SUM({total}) FROM vehicles"), self.site.number(f"SELECT COUNT(*) FROM {rows}"))


class Sqlite(KillTest):
    Site = SqliteSite

    def test_killed_at_random_moments_it_loses_nothing_and_stores_nothing_twice(self):
        self.check_kills()
        self.assertEqual(self.site.ask("PRAGMA integrity_check"), "ok")


class SeveralInstances(KillTest):
    def test_lose_nothing_and_store_nothing_twice_while_each_part_is_killed(self):
        self.check_kills()

    def test_send_a_configuration_once_that_either_was_asked_for(self):
        site, ask = self.site, self.site.vehicles.ask
        one, two = site.instances
        site.vehicles.wait_for(lambda state: state["configurations"] >= VEHICLES, "answers to requests", PATIENT)
        before = ask("state")["configurations"]
        _, made = one.change("POST", "/api/configurations", {"name": "trip", "text": COLLECTOR})
        for number in range(VEHICLES):
            one.change("PUT", f"/api/vehicles/fleet-{number}/group", {"group": "fleet"})
        two.change("PUT", "/api/assignments", {"vehicle": "", "group": "fleet", "configuration": made["id"]})
        site.vehicles.wait_for(lambda state: state["configurations"] >= before + VEHICLES, "configurations", PATIENT)
        self.assertIn(site.number("SELECT COUNT(DISTINCT owner) FROM vehicles WHERE owner <> ''"), (1, 2))
        ask("go")
        one.kill()
        answered = ask("state")["answered"]
        site.vehicles.wait_for(lambda state: state["answered"] >= answered + 3 * VEHICLES, "results", PATIENT)
        wait_until(lambda: site.number("SELECT COUNT(*) FROM vehicles v JOIN instances i ON i.name = v.owner WHERE "
                                       "i.alive_until > EXTRACT(EPOCH FROM now()) * 1000") == VEHICLES, "the takeover", PATIENT)
        self.assertLessEqual(ask("state")["configurations"], before + 2 * VEHICLES, "once more after the takeover, at most")
