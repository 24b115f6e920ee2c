"""The bench of `make run`: it prints reports of all five services, ends cleanly, and can run again.

The environment is that of tests/support/processes.py, and VLM_BUILD, the build folder. The vehicle and vlmmaster get a
faster clock, as nothing ticks faster than once a minute.
"""
import contextlib
import fcntl
import json
import os
import pty
import re
import select
import signal
import socket
import struct
import termios
import time
import urllib.request
from pathlib import Path

from processes import CATALOG, SOURCE, WITH_CATALOG, Peer, ProcessCase, count_in, free_udp_port, status_of, wait_until

DEADLINE = 240  # s; reached only on failure
FIVE = {"GNSSProxy", "TemperatureProxy", "DrivingRangeProxy", "ChassisProxy", "AirbagProxy"}


def children_of(pid):
    with contextlib.suppress(OSError):  # has ended
        return [int(child) for child in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]
    return []


def still_there(pids):
    return [pid for pid in pids if Path(f"/proc/{pid}").exists()]


class Bench(Peer):
    """One run of tools/run/vlm-run, with its output in a file or on a terminal."""

    def __init__(self, folder, *arguments, catalog=CATALOG, terminal=None):
        self.folder = Path(folder)
        on_terminal = {"stdin": terminal, "stdout": terminal, "stderr": terminal,
                       "preexec_fn": lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0)} if terminal else {}
        super().__init__(f"{folder}-{time.monotonic()}.txt", WITH_CATALOG, catalog, SOURCE / "tools/run/vlm-run", "--build",
                         os.environ["VLM_BUILD"], "--folder", folder, "--discovery-port", free_udp_port(), *arguments,
                         start_new_session=True, **on_terminal)

    def count(self, name):
        return count_in(status_of(self.folder / "vlmmaster.sock"), name)

    def with_samples(self):
        """The services and resources with samples in a report."""
        result = set()
        for path in sorted(self.folder.glob("reports/*.json")):
            with contextlib.suppress(ValueError):  # not completely written
                result |= {(c["serviceName"], c["resourceName"])
                           for c in json.loads(path.read_text())["signalCollections"] or [] if c["samples"]}
        return result

    def services_with_samples(self):
        return {service for service, _ in self.with_samples()}

    def wait_until(self, condition, what):
        def met():
            assert self.process.poll() is None, f"ended before {what}:\n{self.text()[-4000:]}"
            return condition()
        wait_until(met, lambda: f"{what() if callable(what) else what}:\n{self.text()[-4000:]}", DEADLINE, 0.2)

    def abandon(self):
        """Ends what a failed test has left: the run, and all that it started."""
        started = children_of(self.process.pid)
        self.kill()
        for pid in still_there(started):
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        wait_until(lambda: not still_there(started), "the end of all processes")


class Run(ProcessCase):
    def start(self, *arguments, **more):
        bench = Bench(os.path.join(self.folder, "run"), *arguments, **more)
        self.addCleanup(bench.abandon)
        return bench

    def check_end(self, bench, number=signal.SIGINT):
        """By the end of the run every process of it must have ended."""
        started = children_of(bench.process.pid)
        self.assertEqual((bench.stop(number, 40), still_there(started)), (0, []), bench.text())
        self.assertIn("All processes have ended cleanly.", bench.text())

    def test_a_folder_as_backend_gets_reports_with_samples_of_all_five_services(self):
        bench = self.start("--speed", "10")
        bench.wait_until(lambda: bench.services_with_samples() >= FIVE, "samples of all five services")
        address = re.search(r"The page is at (\S+)", bench.text())[1]
        self.assertIn(b"<html", urllib.request.urlopen(address).read())

        def points():
            return json.load(urllib.request.urlopen(address + "api/vehicles/bench/track"))["samples"]
        before = points()
        bench.wait_until(lambda: points() > max(before, 1), "a track that grows")
        self.check_end(bench)
        self.assertRegex(bench.text(), r"Report DriveReport no\. 1 of BenchDrive 1\.0\.0: \S+0001-DriveReport\.json")
        self.assertRegex(bench.text(), r"services 5/5 \| events \d+ \| samples \d+")

    def test_a_broker_and_its_backend_get_them_as_well_and_the_spool_fills_while_the_broker_is_away_and_drains_when_it_is_back(self):
        bench = self.start("--backend", "mqtt", "--speed", "20")
        pattern = r"mosquitto \(pid (\d+)\).*\n  (\S+) -c (\S+)\n"
        bench.wait_until(lambda: re.search(pattern, bench.text()), "the broker's name")
        pid, *command = re.search(pattern, bench.text()).groups()
        bench.wait_until(lambda: bench.services_with_samples() >= FIVE, "samples of all five services")
        os.kill(int(pid), signal.SIGKILL)
        bench.wait_until(lambda: re.search(r"[2-9] envelopes wait in the spool", bench.text()), "a spool that fills")
        self.start_peer("broker", command[0], "-c", command[1])
        bench.wait_until(lambda: "the spool is empty again" in bench.text(), "a spool that drains")
        self.check_end(bench)

    def test_everything_that_the_catalog_names_can_be_collected_at_once(self):
        config = SOURCE / "examples/collector-everything.json"
        lines = [line for line in config.read_text().splitlines() if not line.startswith("//")]
        wanted = {(c["serv"] + "Proxy", c["res"]) for c in json.loads("\n".join(lines))["COLLECT"]}
        bench = self.start("--speed", "8", "--config", str(config), "--log-level", "3")
        bench.wait_until(lambda: bench.with_samples() >= wanted, lambda: f"records of {wanted - bench.with_samples()}")
        self.check_end(bench)

    def test_faults_of_the_vehicle_are_counted_and_survived(self):
        scenario = self.write("faults.json", json.dumps({
            "phases": [{"duration": 600, "set": {"targetSpeed": 50}}],
            "faults": ["60:truncated GNSS.positions 2", "62:wrong-version Chassis.axes",
                       "64:doubled-member GNSS.positions", "66:silence Airbag 3", "70:restart", "90:stop Temperature", "94:offer Temperature"]}))
        bench = self.start("--speed", "8", "--scenario", scenario)
        for name, least in (("someip.truncated", 2), ("someip.wrongVersion", 1), ("someip.doubledMembers", 1),
                            ("someip.sd.reboots", 1)):
            bench.wait_until(lambda: bench.count(name) >= least, name)
        before = bench.count("samples.received")
        bench.wait_until(lambda: bench.count("samples.received") > before + 200, "samples after the restart")
        bench.wait_until(lambda: bench.services_with_samples() >= FIVE, "samples of all five services")
        log = bench.folder / "logs/vlmmaster.txt"
        self.assertIn("Violation of [PRS_SOMEIP_00900]", log.read_text(errors="replace"))
        self.check_end(bench)

    def test_it_ends_by_itself_and_installs_the_catalog_over_any_other(self):
        other = self.write("other.json", '{"meta": {"vlmVersion": "old"}, "services": {}}')
        for catalog, text in ((other, "differs; the existing one is kept as "
                                      "/etc/VLM_Available_Signals_Catalog_20210311.json.bak-"),
                              ("none", "Installing the signal catalog as")):
            bench = self.start("--duration", "2", catalog=catalog)  # the second time in the same folder
            self.assertEqual(bench.process.wait(60), 0, bench.text())
            self.assertIn(text, bench.text())
            self.assertIn("All processes have ended cleanly.", bench.text())

    def test_a_stop_while_everything_starts_leaves_nothing_behind(self):
        bench = self.start()
        bench.wait_for("Ctrl-C ends them")
        self.check_end(bench, signal.SIGTERM)

    def test_the_end_of_its_terminal_ends_everything(self):
        master, terminal = pty.openpty()
        fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 72, 0, 0))
        bench = self.start("--backend", "mqtt", "--speed", "8", terminal=terminal)
        os.close(terminal)
        shown = b""
        table = re.compile(r"(?:\r\x1b\[K  .*\r\n){3,}")
        for _ in range(2000):
            if b"| samples" in shown and table.search(shown.decode(errors="replace")):
                break
            self.assertTrue(select.select([master], [], [], DEADLINE)[0], shown)
            shown += os.read(master, 65536)
        for line in table.search(shown.decode(errors="replace"))[0].split("\r\n"):
            self.assertLessEqual(len(line.removeprefix("\r\x1b[K")), 72, line)
        started = children_of(bench.process.pid)
        self.assertEqual(len(started), 4, "broker, backend, vehicle and vlmmaster")
        os.close(master)
        bench.process.wait(40)
        wait_until(lambda: not still_there(started), "the end of all processes")

    def test_a_discovery_port_that_is_taken_is_named_with_its_holder(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as holder:
            holder.bind(("0.0.0.0", 0))
            port = holder.getsockname()[1]
            bench = self.start("--discovery-port", str(port))
            bench.wait_for(f"UDP port {port} is held by ")
            self.assertIn(f"(pid {os.getpid()}) at 0.0.0.0", bench.text())
            bench.process.send_signal(signal.SIGTERM)
            bench.process.wait(40)

    def test_a_wrong_configuration_is_refused_before_anything_starts(self):
        good = (SOURCE / "examples/collector.json").read_text()
        bad = self.write("bad.json", good.replace('"GNSS"', '"GNSSProxy"', 1))
        bench = self.start("--config", bad)
        self.assertEqual(bench.process.wait(60), 1, bench.text())
        self.assertIn('the catalog has no service "GNSSProxy"', bench.text())
        self.assertFalse((bench.folder / "logs").exists())

    def test_a_process_that_dies_is_reported_and_ends_the_run(self):
        bench = self.start()
        bench.wait_for("Ctrl-C ends them")
        os.kill(next(pid for pid in children_of(bench.process.pid)
                     if Path(f"/proc/{pid}/comm").read_text() == "vlm-vehicle\n"), signal.SIGKILL)
        self.assertEqual(bench.process.wait(60), 1, bench.text())
        self.assertIn("vlm-vehicle has ended by itself with status -9", bench.text())
