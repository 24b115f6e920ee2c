#!/usr/bin/env python3
"""The bench of `make run`: it shows reports of all five services, ends cleanly, and works again afterwards.

VLM_BUILD and VLM_SOURCE name the build folder and the checkout, VLM_CATALOG the generated catalog. The vehicle
and vlmmaster get a faster clock, as nothing ticks faster than once a minute.
"""
import json
import os
import signal
import socket
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

SOURCE = Path(os.environ["VLM_SOURCE"])
BUILD = os.environ["VLM_BUILD"]
CATALOG = os.environ["VLM_CATALOG"]
WITH_CATALOG = str(SOURCE / "tests/support/with-catalog")
DEADLINE = 240  # s for what must come
FIVE = {"GNSSProxy", "TemperatureProxy", "DrivingRangeProxy", "ChassisProxy", "AirbagProxy"}


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def children_of(pid):
    result = []
    for entry in Path("/proc").iterdir():
        if entry.name.isdigit():
            try:
                if int((entry / "stat").read_text().rsplit(")", 1)[1].split()[1]) == pid:
                    result.append(int(entry.name))
            except (OSError, IndexError):
                pass
    return result


class Bench:
    """One run of tools/run/vlm-run, its output in a file."""

    def __init__(self, folder, *arguments, catalog=CATALOG):
        self.folder = Path(folder)
        self.output = self.folder.parent / (self.folder.name + ".txt")
        with open(self.output, "wb") as out:
            self.process = subprocess.Popen(
                [WITH_CATALOG, catalog, str(SOURCE / "tools/run/vlm-run"), "--build", BUILD, "--folder", folder,
                 "--discovery-port", str(free_udp_port()), *arguments],
                stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT, start_new_session=True)

    def text(self):
        return self.output.read_text(errors="replace")

    def reports(self):
        result = []
        for path in sorted(self.folder.glob("reports/*.json")):
            try:
                result.append(json.loads(path.read_text()))
            except ValueError:
                pass  # is being written
        return result

    def status(self):
        """What vlmmaster says about itself; empty while it does not answer."""
        try:
            with socket.socket(socket.AF_UNIX) as peer:
                peer.settimeout(5)
                peer.connect(str(self.folder / "vlmmaster.sock"))
                peer.sendall(b'{"request":"status"}\n')
                answer = b""
                while not answer.endswith(b"\n"):
                    answer += peer.recv(65536) or b"\n"
            answer = json.loads(answer)
            return answer.get("status", answer)
        except (OSError, ValueError):
            return {}

    def count(self, name):
        value = self.status()
        for key in name.split("."):
            value = value.get(key, {})
        return value or 0

    def wait_until(self, condition, what):
        end = time.monotonic() + DEADLINE
        while not condition():
            if self.process.poll() is not None or time.monotonic() > end:
                raise AssertionError(f"{what} did not come:\n{self.text()[-4000:]}")
            time.sleep(0.2)

    def end(self, number=signal.SIGINT):
        """Exit status; every process that the run has started must be gone then."""
        started = children_of(self.process.pid)
        self.process.send_signal(number)
        status = self.process.wait(40)
        left = [pid for pid in started if Path(f"/proc/{pid}").exists()]
        return status, left


def services_with_samples(reports):
    return {collection["serviceName"] for report in reports for collection in report["signalCollections"] or []
            if collection["samples"]}


class Run(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def start(self, *arguments, name="run", **more):
        bench = Bench(str(Path(self.folder.name) / name), *arguments, **more)
        self.addCleanup(lambda: bench.process.poll() is None and bench.process.kill())
        return bench

    def check_reports_of_all_five(self, *arguments):
        bench = self.start("--speed", "10", *arguments)
        bench.wait_until(lambda: services_with_samples(bench.reports()) >= FIVE, "samples of all five services")
        status, left = bench.end()
        self.assertEqual((status, left), (0, []), bench.text())
        text = bench.text()
        self.assertIn("All processes have ended cleanly.", text)
        self.assertRegex(text, r"Report DriveReport no\. 1 of BenchDrive 1\.0\.0: \S+0001-DriveReport\.json")
        self.assertRegex(text, r"services 5/5 \| events \d+ \| samples \d+")

    def test_a_folder_as_backend_gets_reports_with_samples_of_all_five_services(self):
        self.check_reports_of_all_five()

    def test_a_broker_and_its_backend_get_them_as_well(self):
        self.check_reports_of_all_five("--backend", "mqtt")

    def test_everything_that_the_catalog_names_can_be_collected_at_once(self):
        config = SOURCE / "examples/collector-everything.json"
        lines = [line for line in config.read_text().splitlines() if not line.startswith("//")]
        wanted = {(c["serv"] + "Proxy", c["res"]) for c in json.loads("\n".join(lines))["COLLECT"]}
        bench = self.start("--speed", "8", "--config", str(config), "--log-level", "3")
        seen = set()

        def all_seen():
            for report in bench.reports():
                seen.update((c["serviceName"], c["resourceName"]) for c in report["signalCollections"] or [] if c["samples"])
            return seen >= wanted

        try:
            bench.wait_until(all_seen, "records of every event")
        except AssertionError:
            self.fail(f"no records of {sorted(wanted - seen)}:\n{bench.text()[-2000:]}")
        status, left = bench.end()
        self.assertEqual((status, left), (0, []), bench.text()[-2000:])

    def test_faults_of_the_vehicle_are_counted_and_survived(self):
        scenario = Path(self.folder.name) / "faults.json"
        scenario.write_text(json.dumps({
            "phases": [{"duration": 600, "set": {"targetSpeed": 50}}],
            "faults": ["60:truncated GNSS.positions 2", "62:wrong-version Chassis.axes", "64:doubled-member GNSS.positions",
                       "66:silence Airbag 3", "70:restart", "90:stop Temperature", "94:offer Temperature"]}))
        bench = self.start("--speed", "8", "--scenario", str(scenario))
        for name, least in (("someip.truncated", 2), ("someip.wrongVersion", 1), ("someip.doubledMembers", 1),
                            ("someip.sd.reboots", 1)):
            bench.wait_until(lambda: bench.count(name) >= least, name)
        before = bench.count("samples.received")
        bench.wait_until(lambda: bench.count("samples.received") > before + 200, "samples after the restart")
        bench.wait_until(lambda: services_with_samples(bench.reports()) >= FIVE, "samples of all five services")
        self.assertIn("Violation of [PRS_SOMEIP_00900]", (bench.folder / "logs/vlmmaster.txt").read_text(errors="replace"))
        status, left = bench.end()
        self.assertEqual((status, left), (0, []), bench.text())

    def test_it_ends_by_itself_and_a_second_run_in_the_same_folder_works(self):
        for _ in range(2):
            bench = self.start("--duration", "3")
            self.assertEqual(bench.process.wait(60), 0, bench.text())
            self.assertIn("All processes have ended cleanly.", bench.text())
            self.assertTrue((bench.folder / "machine-manifest.json").exists())

    def test_a_stop_while_everything_starts_leaves_nothing_behind(self):
        bench = self.start()
        bench.wait_until(lambda: "Ctrl-C ends them" in bench.text(), "the start")
        status, left = bench.end(signal.SIGTERM)
        self.assertEqual((status, left), (0, []), bench.text())

    def test_a_catalog_that_differs_is_kept_aside_and_one_that_is_missing_is_put_there(self):
        other = Path(self.folder.name) / "other.json"
        other.write_text('{"meta": {"vlmVersion": "old"}, "services": {}}')
        bench = self.start("--duration", "1", catalog=str(other))
        self.assertEqual(bench.process.wait(60), 0, bench.text())
        self.assertIn("differs; the one that was there is kept as /etc/VLM_Available_Signals_Catalog_20210311.json.bak-",
                      bench.text())
        bench = self.start("--duration", "1", name="none", catalog="none")
        self.assertEqual(bench.process.wait(60), 0, bench.text())
        self.assertIn("Putting the signal catalog to", bench.text())

    def test_a_configuration_that_is_not_good_is_refused_before_anything_starts(self):
        bad = Path(self.folder.name) / "bad.json"
        bad.write_text((SOURCE / "examples/collector.json").read_text().replace('"GNSS"', '"GNSSProxy"', 1))
        bench = self.start("--config", str(bad))
        self.assertEqual(bench.process.wait(60), 1, bench.text())
        self.assertIn('the catalog has no service "GNSSProxy"', bench.text())
        self.assertFalse((bench.folder / "logs").exists())

    def test_a_process_that_dies_is_told_and_ends_the_run(self):
        bench = self.start()
        bench.wait_until(lambda: "Ctrl-C ends them" in bench.text(), "the start")
        vehicle = [pid for pid in children_of(bench.process.pid)
                   if Path(f"/proc/{pid}/comm").read_text().strip() == "vlm-vehicle"]
        os.kill(vehicle[0], signal.SIGKILL)
        self.assertEqual(bench.process.wait(60), 1, bench.text())
        self.assertIn("vlm-vehicle has ended by itself with status -9", bench.text())


if __name__ == "__main__":
    unittest.main(verbosity=2)
