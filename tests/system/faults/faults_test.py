#!/usr/bin/env python3
"""What a vehicle computer goes through: peers that die, stall, refuse; a bad network, a wrong clock, a full disk.

The environment is that of tests/support/processes.py, and VLM_BACKEND, VLM_SOURCE. VLM_FAULT_ROUNDS tells how often
each fault is made (a few times without it), VLM_FAULT_SEED repeats a run's random moments. Most run with a faster
clock, as nothing ticks faster than once a minute.
"""
import json
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../support"))
from processes import (Vehicle, Vlmmaster, fake_clock, faster_clock, free_tcp_port, free_udp_port,  # noqa: E402
                       wait_until)
from relay import Relay  # noqa: E402

SOURCE = Path(os.environ["VLM_SOURCE"])
BACKEND = os.environ["VLM_BACKEND"]
CONFIGURATION = str(SOURCE / "examples/collector.json")
APPLICATION = str(SOURCE / "examples/application.json")
ROUNDS = int(os.environ.get("VLM_FAULT_ROUNDS", "0"))
SEED = int(os.environ.get("VLM_FAULT_SEED", "0")) or random.SystemRandom().randrange(1, 1 << 31)
SERVICES = ("GNSS", "Chassis", "Temperature", "DrivingRange", "Airbag")
COLLECTORS = 8  # of examples/collector.json
EVENTS = 6  # which these collect from
SPEED = 20  # a tick every three seconds
# Where a preempted holder of a lock may cost something on a loaded machine: told, as none of these faults does it.
QUEUES = ("queue.bus.dropped", "queue.ingress.dropped", "queue.collector.input.dropped",
          "queue.collector.output.dropped", "queue.report.dropped", "queue.shipping.dropped", "queue.discovery.dropped")
NEVER = ("someip.malformed", "someip.truncated", "someip.wrongPeer", "someip.handlerFailures", "someip.sd.malformed",
         "threads.failed", "config.refused")


def program(name):
    return shutil.which(name, path=os.environ["PATH"] + ":/usr/sbin")


class FaultTest(unittest.TestCase):
    def setUp(self):
        temporary = tempfile.TemporaryDirectory(prefix="vlm-faults-")
        self.addCleanup(temporary.cleanup)
        self.folder = temporary.name
        self.chance = random.Random(f"{SEED} {self.id()}")
        self.clock = faster_clock(SPEED)
        self.port = free_udp_port()
        self.told = {}

    def tearDown(self):
        print(f"\n{self.id().split('.', 1)[1]}: seed {SEED}; " + ", ".join(f"{k} {v}" for k, v in self.told.items()),
              flush=True)

    def need(self, *programs, clock=True):
        for name in programs:
            if not program(name):
                self.skipTest(f"{name} is needed")
        if clock and self.clock is None:
            self.skipTest("libfaketime is needed")

    def start_vehicle(self, *arguments, port=None, period=200):
        vehicle = Vehicle(self.folder, port or self.port, "--services", ",".join(SERVICES), "--period-ms", str(period),
                          *arguments, environment=self.clock)
        self.addCleanup(vehicle.end)
        return vehicle

    def start_master(self, *arguments, backend=None, log=None, **options):
        folder = tempfile.mkdtemp(dir=self.folder)
        self.backend = os.path.join(folder, "backend")
        manifest = {"log": {"maxLevel": 3, **(log or {})},
                    "backend": backend or {"directory": {"path": self.backend, "configuration": CONFIGURATION}}}
        options.setdefault("environment", self.clock)
        master = Vlmmaster(["-c", APPLICATION, *arguments], folder, port=self.port, manifest=manifest, **options)
        self.addCleanup(master.kill)
        return master

    def wait_for_all_services(self, master):
        master.wait_for_count("services.found", len(SERVICES), 120)
        master.wait_for_count("events.subscribed", EVENTS, 120)

    def reports(self, path=None):
        """What the backend has, in order of arrival; without those that came again."""
        found, seen = [], set()
        try:
            lines = Path(path or os.path.join(self.backend, "envelopes.jsonl")).read_bytes().split(b"\n")[:-1]
        except OSError:
            return []
        for line in lines:
            stored = json.loads(line)
            envelope = stored.get("envelope", stored)
            if envelope["messageId"] not in seen:
                seen.add(envelope["messageId"])
                found.append(json.loads(envelope["orxClientDataReport"]))
        return found

    def wait_for_fresh_samples(self, master, path=None):
        """Waits for a whole set of samples that was collected after this call."""
        before = len(self.reports(path))

        def fresh():
            # The first two (one of each report) may hold what was collected before.
            filled = {c["collectName"] for report in self.reports(path)[before + 2:]
                      for c in report["signalCollections"] or [] if c["samples"]}
            return len(filled) >= COLLECTORS - 2  # of a crash and the airbags there is not always news
        wait_until(fresh, lambda: f"fresh samples in the reports; status {json.dumps(master.status())}", 90, 0.1)

    def check_no_gap(self, path=None):
        """Reports have their numbers without a gap."""
        numbers = {}
        for report in self.reports(path):
            numbers.setdefault(report["reportName"], []).append(report["sequenceNumber"])
        self.assertEqual(set(numbers), {"DriveReport", "SafetyReport"})
        for name, got in numbers.items():
            self.assertEqual(sorted(got), list(range(1, max(got) + 1)), name)
        self.told["reports delivered"] = sum(len(got) for got in numbers.values())

    def check_each_report_is_accounted_for(self, master, path=None):
        """What was made by now arrives, waits, or is counted where it was given up."""
        queued, waiting, discarded, failed, resent = master.count(
            "reports.queued", "reports.waiting", "reports.discarded", "reports.failed", "reports.resent")
        wait_until(lambda: len(self.reports(path)) >= queued - waiting - discarded - failed,
                   lambda: f"{len(self.reports(path))} reports; {json.dumps(master.status())}", 20)
        self.told.update({"reports delivered": len(self.reports(path)), "discarded": discarded, "failed": failed,
                          "sent again": resent})

    def check_nothing_lost_in_between(self, master):
        for name, value in zip(NEVER, master.count(*NEVER)):
            self.assertEqual(value, 0, f"{name} in {json.dumps(master.status())}")
        self.told.update({name: value for name, value in zip(QUEUES, master.count(*QUEUES)) if value})
        received, converted, dispatched = master.count("samples.received", "samples.converted", "records.dispatched")
        self.told["samples received"] = received
        self.assertGreater(received, 100)
        self.assertGreater(converted, 0)
        self.assertGreater(dispatched, 0)

    def stop(self, master):
        self.assertEqual(master.stop(), 0, master.text()[-3000:])


class VehicleFaults(FaultTest):
    def test_a_vehicle_that_is_killed_and_starts_again_is_heard_again(self):
        self.need()
        vehicle = self.start_vehicle()
        master = self.start_master()
        self.wait_for_all_services(master)
        rounds = ROUNDS or 3
        self.told["rounds"] = rounds
        longest = 0.0
        for _ in range(rounds):
            time.sleep(self.chance.uniform(0, 1.0))  # the moment is what varies; nothing is waited for
            vehicle.end(signal.SIGKILL)
            time.sleep(self.chance.uniform(0, 0.5))
            before = master.count("samples.received")
            began = time.monotonic()
            vehicle = self.start_vehicle()
            master.wait_for_count("samples.received", before + 200)
            longest = max(longest, time.monotonic() - began)
        self.told["longest time to 200 samples"] = f"{longest:.1f} s"
        self.assertEqual(master.count("services.found"), len(SERVICES))
        # Each was noticed: as a reboot where it was back soon, as an offer that ran out where it was not.
        self.told["reboots seen"] = master.count("someip.sd.reboots")
        self.assertGreater(self.told["reboots seen"], 0)
        self.wait_for_fresh_samples(master)
        self.check_no_gap()
        self.check_nothing_lost_in_between(master)
        self.stop(master)


class NetworkFaults(FaultTest):
    def test_a_network_that_loses_doubles_and_reorders(self):
        self.need()
        vehicle_port = free_udp_port()
        relay = Relay(vehicle_port, self.port, SEED)
        self.addCleanup(relay.end)
        vehicle = self.start_vehicle(port=vehicle_port)
        master = self.start_master()
        self.wait_for_all_services(master)
        wanted = 2000 * (ROUNDS or 1)
        wait_until(lambda: relay.counted["events forwarded"] >= wanted, "datagrams through the relay", 60 + wanted / 100)
        self.wait_for_fresh_samples(master)
        # No peer seems to have rebooted, however its messages come.
        self.assertEqual(master.count("someip.sd.reboots"), 0)
        relay.share = 0
        vehicle.end(signal.SIGTERM)
        counted = dict(relay.counted)
        arrived = lambda: sum(master.count("someip.datagrams", "someip.kernelDropped"))  # noqa: E731
        wait_until(lambda: arrived() == relay.counted["events forwarded"],
                   lambda: f"{arrived()} of {relay.counted['events forwarded']} datagrams", 20)
        for what in ("events lost", "events doubled", "events overtaken", "discovery lost", "events forwarded"):
            self.assertGreater(counted.get(what, 0), 0, what)
            self.told[what] = counted[what]
        gaps, repeats = master.count("someip.sessionGaps", "someip.sessionRepeats")
        self.told.update({"session gaps": gaps, "session repeats": repeats})
        # An overtaken message is a gap first; a lost one whose follower is overtaken too may be told once only.
        self.assertGreater(gaps, counted["events lost"] / 2)
        self.assertGreater(repeats, counted["events doubled"] / 2)
        self.check_no_gap()
        self.check_nothing_lost_in_between(master)
        self.stop(master)


class BrokerFaults(FaultTest):
    def setUp(self):
        super().setUp()
        self.need("mosquitto", "mosquitto_passwd")
        self.broker_port = free_tcp_port()
        self.store = os.path.join(self.folder, "store.jsonl")
        self.broker = None
        self.start_broker()
        self.start_vehicle()
        mqtt = {"port": self.broker_port, "prefix": "vlm/faults", "user": "car", "password": "right",
                "reconnectMaxSeconds": 5, "keepAliveSeconds": 60}
        self.master = self.start_master(backend={"transport": "mqtt", "mqtt": mqtt})
        self.start_backend()
        self.wait_for_all_services(self.master)
        self.wait_for_fresh_samples(self.master, self.store)

    def start_broker(self, password="right"):
        users = os.path.join(self.folder, "users")
        subprocess.run([program("mosquitto_passwd"), "-c", "-b", users, "car", password], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        subprocess.run([program("mosquitto_passwd"), "-b", users, "backend", "right"], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        configuration = os.path.join(self.folder, "mosquitto.conf")
        # Root's broker becomes another user, who could not read the file.
        Path(configuration).write_text(f"listener {self.broker_port} 127.0.0.1\nallow_anonymous false\n"
                                       f"password_file {users}\nuser {'root' if os.geteuid() == 0 else ''}\n")
        self.broker_log = os.path.join(self.folder, "broker.txt")
        with open(self.broker_log, "ab") as out:
            self.broker = subprocess.Popen([program("mosquitto"), "-c", configuration], stdin=subprocess.DEVNULL,
                                           stdout=out, stderr=out)
        self.addCleanup(self.end_broker, self.broker)

    @staticmethod
    def end_broker(broker):
        if broker.poll() is None:
            broker.send_signal(signal.SIGCONT)
            broker.kill()
        broker.wait()

    def start_backend(self):
        with open(os.path.join(self.folder, "backend.txt"), "ab") as out:
            backend = subprocess.Popen([BACKEND, "--port", str(self.broker_port), "--prefix", "vlm/faults", "--user",
                                        "backend", "--config", CONFIGURATION, "--store", self.store,
                                        "--reopen-after", "100"],
                                       env=dict(os.environ, VLM_BACKEND_PASSWORD="right"),
                                       stdin=subprocess.DEVNULL, stdout=out, stderr=out)
        self.addCleanup(backend.wait)
        self.addCleanup(backend.kill)

    def finish(self):
        self.wait_for_fresh_samples(self.master, self.store)
        self.told["connected again"] = self.master.count("orx.reconnects")
        self.check_each_report_is_accounted_for(self.master, self.store)
        self.check_nothing_lost_in_between(self.master)
        self.stop(self.master)

    def test_a_broker_that_is_killed_and_starts_again(self):
        rounds = self.told["rounds"] = ROUNDS or 2
        for _ in range(rounds):
            time.sleep(self.chance.uniform(0, 1.5))
            reconnects = self.master.count("orx.reconnects")
            self.end_broker(self.broker)
            time.sleep(self.chance.uniform(0, 1.5))
            self.start_broker()
            self.master.wait_for_count("orx.reconnects", reconnects + 1)
        self.finish()

    def test_a_broker_that_stalls(self):
        rounds = self.told["rounds"] = ROUNDS or 2
        for _ in range(rounds):
            received = self.master.count("samples.received")
            self.broker.send_signal(signal.SIGSTOP)
            # Collection goes on meanwhile, and nobody waits for the broker.
            self.master.wait_for_count("samples.received", received + 300)
            time.sleep(self.chance.uniform(0, 2))
            self.broker.send_signal(signal.SIGCONT)
            self.wait_for_fresh_samples(self.master, self.store)
        self.finish()

    def test_a_broker_that_refuses_the_login_for_a_while(self):
        rounds = self.told["rounds"] = ROUNDS or 1
        for _ in range(rounds):
            self.end_broker(self.broker)
            self.start_broker("wrong")
            refused = Path(self.broker_log).read_text().count("not authorised")
            wait_until(lambda: Path(self.broker_log).read_text().count("not authorised") > refused, "a refusal")
            received = self.master.count("samples.received")
            self.master.wait_for_count("samples.received", received + 300)
            reconnects = self.master.count("orx.reconnects")
            self.end_broker(self.broker)
            self.start_broker()
            self.master.wait_for_count("orx.reconnects", reconnects + 1)
        self.finish()


class DiskFaults(FaultTest):
    """The backend's folder on a small disk of its own, which exists in the process's namespace only.

    In real time, a tick a minute: libfaketime does not know the wait after which the disk is tried again.
    """

    def setUp(self):
        super().setUp()
        self.need("unshare", "nsenter", "mount", clock=False)
        self.clock = None
        self.place = os.path.join(self.folder, "disk")
        os.mkdir(self.place)
        self.start_vehicle(period=50)
        user = [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
        self.master = self.start_master(
            backend={"directory": {"path": self.place, "configuration": CONFIGURATION}},
            outside=["unshare", *user, "--mount", "--propagation", "private", "bash", "-c",
                     'mount -t tmpfs -o size=16m tmpfs "$0" && exec "$@"', self.place])
        self.disk = Path(f"/proc/{self.master.process.pid}/root{self.place}")
        self.store = self.disk / "envelopes.jsonl"
        self.wait_for_all_services(self.master)

    def remount(self, how):
        user = [] if os.geteuid() == 0 else ["--user", "--preserve-credentials"]
        subprocess.run(["nsenter", *user, "--mount", "-t", str(self.master.process.pid), "mount", "-o",
                        f"remount,{how}", self.place], check=True)

    def check_a_fault(self, begin, end):
        rounds = self.told["rounds"] = max(1, ROUNDS // 4)
        for turn in range(rounds):
            begin()
            self.master.wait_for_count("orx.failed", turn + 1, 90)
            received = self.master.count("samples.received")
            self.master.wait_for_count("samples.received", received + 300)
            end()
            # The tick's two reports: the one whose sending failed is gone, the one behind it comes.
            wait_until(lambda: len(self.reports(self.store)) + self.master.count("reports.failed") >= 2 * (turn + 1),
                       lambda: json.dumps(self.master.status()), 20)
        self.check_each_report_is_accounted_for(self.master, self.store)
        self.assertGreaterEqual(self.told["reports delivered"], rounds)
        self.check_nothing_lost_in_between(self.master)
        self.stop(self.master)

    def test_a_full_disk(self):
        filling = self.disk / "filling"

        def fill():
            with open(filling, "wb", buffering=0) as file:
                try:
                    while file.write(b" " * 4096):
                        pass
                except OSError:
                    pass  # no space left
        self.check_a_fault(fill, filling.unlink)

    def test_a_read_only_disk(self):
        self.check_a_fault(lambda: self.remount("ro"), lambda: self.remount("rw"))


class ClockFaults(FaultTest):
    """The wall clock jumps, the monotonic one does not. Without a faster clock: a tick is a real minute."""

    def test_the_wall_clock_set_back_and_forward_by_an_hour(self):
        self.need()
        file = Path(self.folder) / "clock"

        def set_to(offset):
            fresh = file.with_suffix(".new")
            fresh.write_text(offset + "\n")
            fresh.rename(file)
        set_to("+0")
        self.clock = fake_clock(FAKETIME_TIMESTAMP_FILE=str(file), FAKETIME_DONT_FAKE_MONOTONIC="1",
                                FAKETIME_NO_CACHE="1")
        master = self.start_master()
        self.start_vehicle(period=50)
        self.wait_for_all_services(master)

        def phase():
            """When ticks are due, on this process's monotonic clock: the same all the time."""
            due = master.count("clock.nextTickMs")
            return (time.monotonic() * 1000 + due) % 60000

        began = phase()
        jumps = ("+3600", "+0", "-3600", "+0") * (ROUNDS or 2)
        for offset in jumps:
            set_to(offset)
            received = master.count("samples.received")
            master.wait_for_count("samples.received", received + 100)
            shift = (phase() - began + 30000) % 60000 - 30000
            self.assertLess(abs(shift), 2000, f"ticks come {shift} ms later than before the jump by {offset}")
        set_to("+0")
        wait_until(lambda: len(self.reports()) >= 2, lambda: json.dumps(master.status()), 100, 0.2)
        self.check_no_gap()
        self.check_nothing_lost_in_between(master)
        self.assertEqual(master.count("someip.sd.reboots"), 0)
        self.told.update(jumps=len(jumps), expired=master.count("records.expired"))
        self.stop(master)


class DltFaults(FaultTest):
    def setUp(self):
        super().setUp()
        self.need("dlt-daemon")
        self.pipes = os.path.join(self.folder, "dlt")
        os.mkdir(self.pipes)
        self.dlt_port = free_tcp_port()
        Path(self.pipes, "dlt.conf").write_text(
            "SendContextRegistration = 1\nECUId = ECU1\nLoggingMode = 2\nLoggingLevel = 3\n"
            f"LoggingFilename = {self.pipes}/daemon.log\nTimeOutOnSend = 4\nRingbufferMinSize = 500000\n"
            f"RingbufferMaxSize = 10000000\nRingbufferStepSize = 500000\nPersistanceStoragePath = {self.pipes}\n"
            f"ControlSocketPath = {self.pipes}/ctrl.sock\nBindAddress = ::ffff:127.0.0.1\n")
        self.daemon = None
        self.start_daemon()
        self.start_vehicle()
        self.master = self.start_master(log={"maxLevel": 7, "console": False, "dlt": True},
                                        environment={**self.clock, "DLT_PIPE_DIR": self.pipes})
        self.wait_for_all_services(self.master)
        self.wait_for_messages(100)

    def start_daemon(self):
        with open(os.path.join(self.folder, "daemon.txt"), "ab") as out:
            self.daemon = subprocess.Popen(["dlt-daemon", "-c", f"{self.pipes}/dlt.conf", "-t", self.pipes, "-p",
                                            str(self.dlt_port)], stdin=subprocess.DEVNULL, stdout=out, stderr=out)
        self.addCleanup(self.end_daemon, self.daemon)
        wait_until(lambda: os.path.exists(f"{self.pipes}/dlt"), "the daemon's pipe", 20)

    @staticmethod
    def end_daemon(daemon):
        if daemon.poll() is None:
            daemon.send_signal(signal.SIGCONT)
            daemon.kill()
        daemon.wait()

    def wait_for_messages(self, more):
        self.master.wait_for_count("log.dlt.messages", self.master.count("log.dlt.messages") + more)

    def finish(self):
        self.wait_for_messages(1000)
        self.assertEqual(self.master.count("log.dlt.connected"), True)
        self.wait_for_fresh_samples(self.master)
        self.check_no_gap()
        self.check_nothing_lost_in_between(self.master)
        names = ("log.dlt.messages", "log.dropped.dlt", "log.dlt.noDaemon")
        self.told.update(zip(names, self.master.count(*names)))
        self.stop(self.master)
        # Standard error and output are one here, and the console is off.
        self.assertLess(len(self.master.lines), 5, "\n".join(self.master.lines[:20]))

    def test_a_daemon_that_is_killed_and_starts_again(self):
        rounds = self.told["rounds"] = ROUNDS or 3
        for _ in range(rounds):
            time.sleep(self.chance.uniform(0, 0.5))
            self.end_daemon(self.daemon)
            wait_until(lambda: not self.master.count("log.dlt.connected"), "that the daemon's end is noticed")
            received = self.master.count("samples.received")
            self.master.wait_for_count("samples.received", received + 300)
            self.start_daemon()
            wait_until(lambda: self.master.count("log.dlt.connected"), "that the daemon's return is noticed")
            self.wait_for_messages(100)
        self.finish()

    def test_a_daemon_that_stalls(self):
        rounds = self.told["rounds"] = ROUNDS or 1
        for _ in range(rounds):
            dropped = self.master.count("log.dropped.dlt")
            self.daemon.send_signal(signal.SIGSTOP)
            self.master.wait_for_count("log.dropped.dlt", dropped + 2000)
            received = self.master.count("samples.received")
            self.master.wait_for_count("samples.received", received + 300)
            self.daemon.send_signal(signal.SIGCONT)
            self.wait_for_messages(100)
        self.finish()


class Stops(FaultTest):
    """At random moments, under load, in both modes: the end comes within 5 s, with status 0, and as an end.

    In real time: libfaketime's own end takes away what other threads still use.
    """

    def test_at_random_moments_under_load(self):
        self.clock = None
        self.start_vehicle(period=4)
        longest = 0.0
        turns = ROUNDS * 10 or 12
        for turn in range(turns):
            mode = ["-l", CONFIGURATION] if turn % 2 else []
            # Blocked until the program itself takes care of it: what comes before would end the loader.
            master = self.start_master(*mode, log={"maxLevel": 7, "console": turn % 4 < 2},
                                       before=lambda: signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM]))
            wait_until(lambda: Path(f"/proc/{master.process.pid}/comm").read_text() == "vlmmaster\n", "its start")
            # The moment is what varies: in start-up, while services are found and subscribed, in full flow.
            time.sleep(self.chance.uniform(0.05, 0.5 if turn % 3 else 8))
            began = time.monotonic()
            self.assertEqual(master.stop(limit=5), 0, f"turn {turn}:\n{master.text()[-3000:]}")
            longest = max(longest, time.monotonic() - began)
            if turn % 4 < 2:
                self.assertIn("Exiting from main", master.text(), f"turn {turn}")
        self.told.update({"stops": turns, "longest": f"{longest:.2f} s"})


if __name__ == "__main__":
    unittest.main(verbosity=2)
