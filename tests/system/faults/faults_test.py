"""Faults around a vehicle computer: peers that die, stall or refuse, a bad network, a wrong clock, a full disk.

The environment is that of tests/support/processes.py, and VLM_SPOOL. VLM_FAULT_ROUNDS is how often each fault is made
(a few times without it), VLM_FAULT_SEED repeats a run's random moments. Most run with a faster clock, as nothing ticks
faster than once a minute.
"""
import contextlib
import ctypes
import json
import os
import random
import signal
import socket
import subprocess
import tempfile
import time
from pathlib import Path

from cluster import Cluster
from processes import (APPLICATION, BACKEND, SOURCE, ProcessCase, Vehicle, Vlmmaster, count_in, fake_clock, faster_clock,
                       free_tcp_port, free_udp_port, program, wait_until)
from relay import Relay

SPOOL = os.environ["VLM_SPOOL"]
CONFIGURATION = str(SOURCE / "examples/collector.json")
ROUNDS = int(os.environ.get("VLM_FAULT_ROUNDS", "0"))
SEED = int(os.environ.get("VLM_FAULT_SEED", "0")) or random.SystemRandom().randrange(1, 1 << 31)
SERVICES = ("GNSS", "Chassis", "Temperature", "DrivingRange", "Airbag")
COLLECTORS = 8  # of examples/collector.json
EVENTS = 6  # which these collect from
SPEED = 20  # a tick every three seconds
NEVER = ("someip.malformed", "someip.truncated", "someip.wrongPeer", "someip.handlerFailures", "someip.sd.malformed",
         "threads.failed", "config.refused")
LIBC = ctypes.CDLL(None)
PIDFD_GETFD, TCP_REPAIR = 438, 19  # which Python does not name


def connections_of(process):
    """Copies of the process's ends of its TCP connections. Needs root."""
    handle = os.pidfd_open(process.pid)
    for descriptor in os.listdir(f"/proc/{process.pid}/fd"):
        with contextlib.suppress(OSError):  # no socket, or not connected
            end = socket.socket(fileno=LIBC.syscall(PIDFD_GETFD, handle, int(descriptor), 0))
            if end.getpeername() and end.type == socket.SOCK_STREAM:
                yield end
    os.close(handle)


class FaultTest(ProcessCase):
    def setUp(self):
        super().setUp()
        self.chance = random.Random(f"{SEED} {self.id()}")
        self.clock = faster_clock(SPEED)
        self.need(clock=self.clock)
        self.port, self.broker_port = free_udp_port(), free_tcp_port()
        self.store = os.path.join(self.folder, "store.jsonl")
        self.mqtt = {"port": self.broker_port, "prefix": "vlm/faults", "reconnectMaxSeconds": 5}
        self.figures = {}

    def tearDown(self):
        print(f"\n{self.id().split('.', 1)[1]}: seed {SEED}; " + ", ".join(f"{k} {v}" for k, v in self.figures.items()),
              flush=True)

    def start_vehicle(self, *arguments, port=None, period=200):
        return self.until_end(Vehicle(self.folder, port or self.port, "--services", ",".join(SERVICES), "--period-ms",
                                      period, *arguments, environment=self.clock))

    def start_master(self, *arguments, backend=None, log=None, **options):
        """Starts self.master; self.store is the file of envelopes if the backend is a folder."""
        folder = tempfile.mkdtemp(dir=self.folder)
        if backend is None:
            backend = {"directory": {"path": os.path.join(folder, "backend"), "configuration": CONFIGURATION}}
            self.store = os.path.join(folder, "backend", "envelopes.jsonl")
        manifest = {"log": {"maxLevel": 3, **(log or {})}, "backend": backend}
        self.master = self.until_end(Vlmmaster(["-c", APPLICATION, *arguments], folder, port=self.port, manifest=manifest,
                                               **{"environment": self.clock, **options}))

    def start_backend(self, *arguments, **options):
        self.start_peer("backend", BACKEND, "--port", self.broker_port, "--prefix", "vlm/faults", "--config", CONFIGURATION,
                        "--store", self.store, *arguments, **options)

    def random_pause(self, most):
        time.sleep(self.chance.uniform(0, most))  # a random moment, not a wait for something

    def status(self):
        return json.dumps(self.master.status())

    def wait_for_samples(self, more=300):
        self.master.wait_for_count("samples.received", self.master.count("samples.received") + more)

    def wait_for_all_services(self):
        self.master.wait_for_count("services.found", len(SERVICES), 120)
        self.master.wait_for_count("events.subscribed", EVENTS, 120)

    def arrived(self):
        """The envelopes at the backend, in that order."""
        store = Path(self.store)
        lines = store.read_bytes().split(b"\n")[:-1] if store.exists() else []
        return [one.get("envelope", one) for one in map(json.loads, lines)]

    def reports(self):
        """The backend's reports in order of arrival, without repetitions."""
        envelopes = {envelope["messageId"]: envelope for envelope in self.arrived()}
        return [json.loads(envelope["orxClientDataReport"]) for envelope in envelopes.values()]

    def wait_for_fresh_samples(self):
        """Waits for a whole set of samples that was collected after this call."""
        older = len(self.reports()) + 2  # the first two (one of each report) may contain older records
        filled = lambda: {c["collectName"] for report in self.reports()[older:]  # noqa: E731
                          for c in report["signalCollections"] or [] if c["samples"]}
        wait_until(lambda: len(filled()) >= COLLECTORS - 2,  # crash and airbags may have no new samples
                   lambda: f"fresh samples in the reports; status {self.status()}", 90, 0.1)

    def check_some(self, *names):
        """That there are some of each of these counters. All are among the figures."""
        self.figures["status"] = self.status()
        self.assertNotIn(0, [self.master.count(name) for name in names], self.status())

    def check_no_gap(self):
        """The numbers of the reports have no gap."""
        reports = self.reports()
        for name in ("DriveReport", "SafetyReport"):
            got = sorted(report["sequenceNumber"] for report in reports if report["reportName"] == name)
            self.assertEqual(got, list(range(1, len(got) + 1)), name)
            self.assertTrue(got, name)
        self.figures["reports delivered"] = len(reports)

    def check_each_report_is_accounted_for(self):
        """Every report so far arrives, waits, or is counted as dropped."""
        queued, *elsewhere = self.master.count("reports.queued", "reports.waiting", "reports.discarded", "reports.failed")
        wait_until(lambda: len(self.reports()) >= queued - sum(elsewhere),
                   lambda: f"{len(self.reports())} reports; {self.status()}", 20)
        self.figures["reports delivered"] = len(self.reports())

    def finish(self):
        """Nothing was lost in between, and a stop ends the process in order."""
        self.check_some("samples.received", "records.dispatched")
        self.assertEqual(dict(zip(NEVER, self.master.count(*NEVER))), dict.fromkeys(NEVER, 0))
        self.assertEqual(self.master.stop(), 0, self.master.text()[-3000:])


class VehicleFaults(FaultTest):
    def test_a_vehicle_that_is_killed_and_starts_again_is_heard_again(self):
        self.kill_and_restart()
        self.finish()

    def test_over_tcp_a_vehicle_is_heard_again_after_its_end_a_stall_a_reset_and_a_power_cut(self):
        vehicle = self.kill_and_restart("--tcp")
        self.assertGreater(self.master.count("someip.tcp.connected"), ROUNDS or 3)
        for stalled in (vehicle, self.master):
            stalled.process.send_signal(signal.SIGSTOP)
            time.sleep(4)  # longer than the TTL of offers and subscriptions, and than a server waits
            stalled.process.send_signal(signal.SIGCONT)
            self.wait_for_samples()
        if os.geteuid() == 0:
            lost = self.master.count("someip.tcp.lost")
            for end in connections_of(vehicle.process):
                LIBC.connect(end.fileno(), bytes(16), 16)  # AF_UNSPEC: resets the connection
            self.master.wait_for_count("someip.tcp.lost", lost + 1)
            self.wait_for_samples()
            # As after a power cut of the vehicle: its end is gone, and our one is not told.
            ends = list(connections_of(vehicle.process))
            self.assertTrue(ends)
            for end in ends:
                end.setsockopt(socket.IPPROTO_TCP, TCP_REPAIR, 1)
            vehicle.kill()
            ends = [end.close() for end in ends]
            vehicle.start()
            self.wait_for_samples()
        self.assertEqual(self.master.count("someip.tcp.broken", "someip.tp.segments"), [0, 0])
        self.finish()

    def kill_and_restart(self, *arguments):
        vehicle = self.start_vehicle(*arguments)
        self.start_master()
        self.wait_for_all_services()
        longest = 0.0
        for _ in range(ROUNDS or 3):
            self.random_pause(1)
            vehicle.kill()
            self.random_pause(0.5)
            before = self.master.count("samples.received")
            began = time.monotonic()
            vehicle.start()
            self.master.wait_for_count("samples.received", before + 200)
            longest = max(longest, time.monotonic() - began)
        self.figures["longest time to 200 samples"] = f"{longest:.1f} s"
        self.assertEqual(self.master.count("services.found"), len(SERVICES))
        # Each was noticed: a quick return as a reboot, a slow one as an expired offer.
        self.check_some("someip.sd.reboots")
        self.wait_for_fresh_samples()
        self.check_no_gap()
        return vehicle


class NetworkFaults(FaultTest):
    def start_with_relay(self, **faults):
        vehicle_port = free_udp_port()
        relay = Relay(vehicle_port, self.port, SEED, **faults)
        self.addCleanup(relay.end)
        vehicle = self.start_vehicle(port=vehicle_port)
        self.start_master()
        return relay, vehicle

    def settle(self, relay, vehicle):
        """Ends the faults and the vehicle, and waits for the last datagram. Returns the relay's counters."""
        relay.share = relay.mutated = 0
        vehicle.stop()
        arrived = lambda: sum(self.master.count("someip.datagrams", "someip.kernelDropped"))  # noqa: E731
        wait_until(lambda: arrived() == relay.counted["events forwarded"],
                   lambda: f"{arrived()} of {relay.counted['events forwarded']} datagrams", 20)
        return relay.counted

    def test_a_network_that_loses_doubles_and_reorders(self):
        relay, vehicle = self.start_with_relay()
        self.wait_for_all_services()
        wanted = 2000 * (ROUNDS or 1)
        wait_until(lambda: relay.counted["events forwarded"] >= wanted, "datagrams through the relay", 60 + wanted / 100)
        self.wait_for_fresh_samples()
        # No reboot is detected, whatever the order of messages.
        self.assertEqual(self.master.count("someip.sd.reboots"), 0)
        counted = self.settle(relay, vehicle)
        for what in ("events lost", "events doubled", "events overtaken", "discovery lost", "events forwarded"):
            self.assertGreater(counted[what], 0, what)
        self.figures.update(counted)
        gaps, repeats = self.master.count("someip.sessionGaps", "someip.sessionRepeats")
        # A lost message next to an overtaken or a doubled one may not be seen.
        self.assertGreater(gaps, counted["events lost"] / 2)
        self.assertLess(gaps, counted["events lost"] * 1.1 + 5)
        self.assertGreater(repeats, counted["events doubled"] / 2)
        self.check_no_gap()
        self.finish()

    def test_the_sums_of_the_counters_hold_while_packets_are_mutated(self):
        """Ten minutes in the long form."""
        relay, vehicle = self.start_with_relay(share=0.01, mutated=0.3)
        begin = time.monotonic()
        wait_until(lambda: relay.counted["events forwarded"] >= 3000 and time.monotonic() - begin >= (600 if ROUNDS else 0),
                   lambda: f"datagrams through the relay: {relay.counted}; {self.status()}", 60 + (720 if ROUNDS else 0))
        self.settle(relay, vehicle)

        def differences():
            status = self.master.status()
            total = lambda *names: sum(count_in(status, name) for name in names)  # noqa: E731
            return {left: difference for left, difference in (
                ("datagrams", total("someip.datagrams", "someip.bundled", "someip.tp.joined") - total(
                    "someip.notifications", "someip.malformed", "someip.truncated", "someip.handlerFailures",
                    "someip.wrongVersion", "someip.notSubscribed", "someip.wrongPeer", "someip.tp.segments")),
                ("samples.received", total("samples.received") - total("samples.converted", "queue.ingress.dropped")),
                ("samples.converted", total("samples.converted") - total("records.dispatched", "threads.failed")),
                ("records.dispatched", total("records.dispatched") - total(
                    "records.collected", "records.withoutCollector", "records.expired", "queue.collector.input.dropped",
                    "queue.collector.output.dropped"))) if difference}

        wait_until(lambda: not differences(), lambda: f"{differences()} in {self.status()}", 30)
        self.check_some("someip.malformed", "someip.truncated", "someip.wrongVersion", "someip.sd.malformed",
                        "samples.received", "records.dispatched")
        self.figures.update(relay.counted)
        self.master.stop()


class BrokerFaults(FaultTest):
    """With the access rules of examples/mosquitto."""

    def set_password(self, password):
        for user, theirs in (("faults", password), ("backend", "right")):
            subprocess.run([program("mosquitto_passwd"), "-b", self.users, user, theirs], check=True,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def refusals(self):
        return self.broker.text().count("not authorised")

    def start_again(self):
        reconnects = self.master.count("orx.reconnects")
        self.broker.start()
        self.master.wait_for_count("orx.reconnects", reconnects + 1)

    def test_a_broker_that_dies_stalls_and_refuses_the_login_for_a_while(self):
        self.need("mosquitto_passwd")
        self.users = self.write("users", "")
        self.set_password("right")
        # A broker started by root changes to a user who could not read the file.
        self.broker = self.start_broker(self.broker_port, f"allow_anonymous false\npassword_file {self.users}\n"
                                        f"acl_file {SOURCE}/examples/mosquitto/access.acl\n"
                                        f"user {'root' if os.geteuid() == 0 else ''}")
        self.start_vehicle()
        self.mqtt.update(user="faults", password="right", keepAliveSeconds=60)
        self.start_master(backend={"transport": "mqtt", "mqtt": self.mqtt})
        self.start_backend("--user", "backend", "--reopen-after", "100", env={**os.environ, "VLM_BACKEND_PASSWORD": "right"})
        self.wait_for_all_services()
        self.wait_for_fresh_samples()
        rounds = ROUNDS or 2
        for _ in range(rounds):
            self.random_pause(1.5)
            self.broker.kill()
            self.random_pause(1.5)
            self.start_again()

            self.broker.process.send_signal(signal.SIGSTOP)
            self.wait_for_samples()  # collecting does not wait for the broker
            self.random_pause(2)
            self.broker.process.send_signal(signal.SIGCONT)
            self.wait_for_fresh_samples()

            self.broker.kill()
            self.set_password("wrong")
            self.broker.start()
            refused = self.refusals()
            wait_until(lambda: self.refusals() > refused, "a refusal")
            self.wait_for_samples()
            self.broker.kill()
            self.set_password("right")
            self.start_again()
        self.wait_for_fresh_samples()
        self.assertEqual(self.master.text().count("Not authorized"), rounds, "each time once, however often it is refused")
        self.check_each_report_is_accounted_for()
        self.finish()


class SpoolFaults(FaultTest):
    """The process is killed while envelopes are written, wait, are sent and are deleted."""

    def start_process(self):
        # The process's seconds are short: no time-out of its own is to be the reason for what comes again.
        self.start_master(log={"maxLevel": 5, "console": False, "file": self.log, "fileLevel": 5},
                          backend={"transport": "mqtt", "mqtt": {**self.mqtt, "keepAliveSeconds": 1200},
                                   "compression": {"method": "zstd"},
                                   "spool": {"path": self.spool, "drainJitterSeconds": 0, "resultTimeoutSeconds": 2400},
                                   "remember": {"afterSeconds": 0}})

    def confirmed(self):
        """What the application was told that it is taken over, as far as the log got to its file."""
        ids, last = set(), None
        for line in Path(self.log).read_text(errors="replace").splitlines():
            if "create UniqueMessageId: " in line:
                last = line.rsplit(" ", 1)[1]
            elif "Send vlm Data State: SUCCESS" in line and last:
                ids.add(last)
        return ids

    def identifiers(self):
        return [envelope["messageId"] for envelope in self.arrived()]

    def kill_process(self):
        """At any moment, or at one when something is written, sent or deleted. At that moment, what has arrived and is
        deleted never comes again, and what waits comes."""
        if self.chance.random() < 0.5:
            self.random_pause(4)
        else:
            before, end = set(os.listdir(self.spool)), time.monotonic() + 4
            while set(os.listdir(self.spool)) == before and time.monotonic() < end:
                time.sleep(0.001)
            self.random_pause(0.03)
        self.master.kill()
        before = self.identifiers()
        listed = subprocess.run([SPOOL, "list", self.spool], check=True, capture_output=True, text=True).stdout.splitlines()
        waiting = {line.rsplit(" ", 1)[1] for line in listed[:-1]}
        self.gone.append((len(before), set(before) - waiting))
        self.kept |= waiting

    def test_killed_at_random_moments_it_loses_nothing_that_it_has_confirmed(self):
        self.spool = os.path.join(self.folder, "spool")
        self.log = os.path.join(self.folder, "log.txt")
        self.gone, self.kept = [], set()
        self.clock = faster_clock(2 * SPEED)
        self.broker = self.start_broker(self.broker_port)
        self.start_vehicle(period=1000)
        self.start_backend()
        self.start_process()
        self.wait_for_all_services()
        wait_until(self.arrived, "a first report", 60)
        for _ in range(ROUNDS or 2):
            self.broker.kill()
            self.kill_process()
            self.start_process()
            self.kill_process()
            self.broker.start()
            self.start_process()
            self.kill_process()
            self.start_process()
        self.master.wait_for_count("clock.ticks", 1, 60)
        # Kills in quick succession leave few; the next ticks bring more.
        confirmed = wait_until(lambda: len(taken := self.confirmed()) > 2 and taken, self.status, 200, 0.2)
        wait_until(lambda: confirmed | self.kept <= set(self.identifiers()),
                   lambda: f"what was confirmed; {self.status()}", 60)
        names = {}
        for envelope in self.arrived():
            names.setdefault(envelope["orxClientDataReport"], set()).add(envelope["messageId"])
        arrivals = self.identifiers()
        self.assertEqual([ids for ids in names.values() if len(ids) != 1], [])
        for count, gone in self.gone:
            self.assertEqual(set(arrivals[count:]) & gone, set(), "came again after its deletion")
        different = len(set(arrivals))
        self.figures.update({"kills": len(self.gone), "confirmed by the last log": len(confirmed), "arrived": different,
                             "on the disk at a kill": len(self.kept), "of them again": len(arrivals) - different})


class ClusterFaults(FaultTest):
    """Three brokers, of which one at a time is killed."""

    def setUp(self):
        super().setUp()
        self.need("nats-server")
        if not ROUNDS:
            self.skipTest("by make faults alone, as it takes minutes")
        from page_backend import PageBackend, mqtt
        self.cluster = Cluster(self.folder, self.start_peer)
        ports = self.cluster.mqtt_ports()
        # No dot in the prefix: it separates the parts of a name in this broker.
        self.backend = PageBackend(ports, "vlm/faults", self.store, CONFIGURATION, protocol=mqtt.MQTTv311)
        self.addCleanup(self.backend.end)
        self.start_vehicle()
        self.start_master(backend={
            "transport": "mqtt", "compression": {"method": "zstd"},
            "spool": {"path": os.path.join(self.folder, "spool"), "drainJitterSeconds": 0, "resultTimeoutSeconds": 120},
            "mqtt": {**self.mqtt, "hosts": [f"127.0.0.1:{port}" for port in ports], "keepAliveSeconds": 100}})
        self.wait_for_all_services()
        self.wait_for_fresh_samples()

    def test_a_random_broker_of_three_is_killed(self):
        for turn in range(ROUNDS):
            self.random_pause(4)
            # The first one is the vehicle's.
            node = self.chance.randrange(len(self.cluster.nodes)) if turn else 0
            self.cluster.nodes[node].kill()
            self.wait_for_fresh_samples()
            self.cluster.nodes[node].start()
            self.cluster.wait_until_whole()
        stored = self.master.count("spool.stored")
        self.master.wait_for_count("spool.delivered", stored, 90)
        self.check_no_gap()
        received = self.backend.received
        self.assertGreaterEqual({number for number, _, _ in received}, set(range(1, stored + 1)))
        self.assertEqual(self.backend.faults, [])
        self.figures["came again"] = len(received) - len({number for number, _, _ in received})
        self.finish()


class DiskFaults(FaultTest):
    """The backend's folder is on a small disk of its own, in the process's mount namespace.

    In real time, a tick a minute: libfaketime does not know the wait after which the disk is tried again.
    """

    def remount(self, how):
        user = [] if os.geteuid() == 0 else ["--user", "--preserve-credentials"]
        subprocess.run(["nsenter", *user, "--mount", "-t", str(self.master.process.pid), "mount", "-o",
                        f"remount,{how}", self.place], check=True)

    def fill(self):
        subprocess.run(["dd", "if=/dev/zero", f"of={self.disk}/filling"], check=False, stderr=subprocess.DEVNULL)

    def test_a_disk_that_is_full_and_then_read_only(self):
        self.need("unshare", "nsenter", "mount")
        self.clock = None
        self.place = os.path.join(self.folder, "disk")
        os.mkdir(self.place)
        self.start_vehicle(period=50)
        user = [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
        self.start_master(
            backend={"directory": {"path": self.place, "configuration": CONFIGURATION}},
            outside=["unshare", *user, "--mount", "--propagation", "private", "bash", "-c",
                     'mount -t tmpfs -o size=16m tmpfs "$0" && exec "$@"', self.place])
        self.disk = Path(f"/proc/{self.master.process.pid}/root{self.place}")
        self.store = self.disk / "envelopes.jsonl"
        self.wait_for_all_services()
        rounds = max(1, ROUNDS // 4)
        faults = ((self.fill, (self.disk / "filling").unlink), (lambda: self.remount("ro"), lambda: self.remount("rw")))
        for turn, (begin, end) in enumerate(faults * rounds, start=1):
            begin()
            self.master.wait_for_count("orx.failed", turn, 90)
            self.wait_for_samples()
            end()
            # Of the tick's two reports, the one whose sending failed is lost; the next one arrives.
            wait_until(lambda: len(self.reports()) + self.master.count("reports.failed") >= 2 * turn, self.status, 20)
        self.check_each_report_is_accounted_for()
        self.assertGreaterEqual(len(self.reports()), 2 * rounds)
        self.finish()


class ClockFaults(FaultTest):
    """The wall clock jumps, the monotonic clock does not. A tick is a real minute here."""

    def test_the_wall_clock_set_back_and_forward_by_an_hour(self):
        file = Path(self.folder) / "clock"

        def set_to(offset):
            fresh = file.with_suffix(".new")
            fresh.write_text(offset + "\n")
            fresh.rename(file)
        set_to("+0")
        self.clock = fake_clock(FAKETIME_TIMESTAMP_FILE=str(file), FAKETIME_DONT_FAKE_MONOTONIC="1",
                                FAKETIME_NO_CACHE="1")
        self.start_master()
        self.start_vehicle(period=50)
        self.wait_for_all_services()

        def phase():
            """The phase of the ticks on this process's monotonic clock, which must not change."""
            due = self.master.count("clock.nextTickMs")
            return (time.monotonic() * 1000 + due) % 60000

        began = phase()
        jumps = ("+3600", "+0", "-3600", "+0") * (ROUNDS or 2)
        for offset in jumps:
            set_to(offset)
            self.wait_for_samples(100)
            shift = (phase() - began + 30000) % 60000 - 30000
            self.assertLess(abs(shift), 2000, f"ticks come {shift} ms later than before the jump by {offset}")
        noticed = self.master.count("clock.jumps")
        set_to("+3600")
        wait_until(lambda: self.master.count("clock.jumps") > noticed, self.status, 100, 0.2)
        wait_until(lambda: len(self.reports()) >= 2, self.status, 100, 0.2)
        self.check_no_gap()
        self.assertEqual(self.master.count("someip.sd.reboots"), 0)
        self.figures["jumps"] = len(jumps)
        self.finish()


class DltFaults(FaultTest):
    def wait_for_messages(self, more):
        self.master.wait_for_count("log.dlt.messages", self.master.count("log.dlt.messages") + more)

    def test_a_daemon_that_dies_and_stalls(self):
        self.need("dlt-daemon", "dlt-receive")
        port = free_tcp_port()
        configuration = self.write("dlt.conf", (
            f"LoggingMode = 2\nLoggingFilename = {self.folder}/daemon.log\nPersistanceStoragePath = {self.folder}\n"
            f"ControlSocketPath = {self.folder}/ctrl.sock\nBindAddress = ::ffff:127.0.0.1\n"))
        daemon = self.start_peer("daemon", "dlt-daemon", "-c", configuration, "-t", self.folder, "-p", port)
        wait_until(lambda: os.path.exists(f"{self.folder}/dlt"), "the daemon's pipe", 20)
        self.start_peer("received", "stdbuf", "-oL", "dlt-receive", "-a", "-p", port, "127.0.0.1")
        self.start_vehicle()
        self.start_master(log={"maxLevel": 7, "console": False, "dlt": True},
                          environment={**self.clock, "DLT_PIPE_DIR": self.folder})
        self.wait_for_all_services()
        self.wait_for_messages(100)
        received = Path(self.folder, "received.txt")  # debug messages too, which the daemon's own level would hide
        wait_until(lambda: b"VLM- VLM- log debug" in received.read_bytes(), "a debug message through the daemon")
        for _ in range(ROUNDS or 2):
            self.random_pause(0.5)
            daemon.kill()
            wait_until(lambda: not self.master.count("log.dlt.connected"), "that the daemon's end is noticed")
            self.wait_for_samples()
            daemon.start()
            wait_until(lambda: self.master.count("log.dlt.connected"), "that the daemon's return is noticed")
            self.wait_for_messages(100)

            dropped = self.master.count("log.dropped.dlt")
            daemon.process.send_signal(signal.SIGSTOP)
            self.master.wait_for_count("log.dropped.dlt", dropped + 2000)
            self.wait_for_samples()
            daemon.process.send_signal(signal.SIGCONT)
            self.wait_for_messages(1000)
        self.wait_for_fresh_samples()
        self.check_no_gap()
        self.check_some("log.dlt.messages", "log.dropped.dlt", "log.dlt.noDaemon")
        self.finish()
        # Standard error and output are the same file, and the console is off.
        self.assertLess(self.master.text().count("\n"), 5, self.master.text()[:2000])


class Stops(FaultTest):
    """At random moments, under load, in both modes: the process ends in order within 5 s, with status 0.

    In real time: libfaketime's own end takes away what other threads still use.
    """

    def test_at_random_moments_under_load(self):
        self.clock = None
        self.start_vehicle(period=4)
        longest = 0.0
        turns = ROUNDS * 10 or 12
        for turn in range(turns):
            mode = ["-l", CONFIGURATION] if turn % 2 else []
            # The signal is blocked until the program handles it; earlier it would kill the loader.
            self.start_master(*mode, log={"maxLevel": 7, "console": turn % 4 < 2},
                              before=lambda: signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM]))
            wait_until(lambda: Path(f"/proc/{self.master.process.pid}/comm").read_text() == "vlmmaster\n", "its start")
            # A random moment: in start-up, while services are found and subscribed, or later.
            time.sleep(self.chance.uniform(0.05, 0.5 if turn % 3 else 8))
            began = time.monotonic()
            self.assertEqual(self.master.stop(limit=5), 0, f"turn {turn}:\n{self.master.text()[-3000:]}")
            longest = max(longest, time.monotonic() - began)
            if turn % 4 < 2:
                self.assertIn("Exiting from main", self.master.text(), f"turn {turn}")
        self.figures.update({"stops": turns, "longest": f"{longest:.2f} s"})
