"""vlm-watch shows what a vehicle sends, next to a vlmmaster and a second vlm-watch, and ends cleanly.

The environment is that of tests/support/processes.py, and VLM_WATCH.
"""
import contextlib
import csv
import io
import json
import os
import pty
import re
import signal
import struct
import subprocess
import termios
import time
from fcntl import ioctl

from processes import APPLICATION, COLLECTOR, DEADLINE, ProcessCase, Vehicle, Vlmmaster, free_udp_port

VLM_WATCH = os.environ["VLM_WATCH"]
# A parked car: what it sends is known.
SCENARIO = {
    "name": "parked", "description": "Nothing changes.",
    "start": {"latitude": 48.4, "longitude": 9.99, "heading": 205, "chargeState": 61, "batteryTemperature": 5},
    "set": {"outsideTemperature": -9, "ignition": "off", "gear": "park", "targetSpeed": 0},
    "faults": [f"{second}:truncated GNSS.positions 1" for second in range(1, 120)],
    "phases": [{"name": "parked", "duration": 3600, "overrides": [
        {"event": "GNSS.positions", "field": "altitudeMeanSeaLevel", "value": 123.5},
        {"event": "GNSS.positions", "field": "altitudeMeanSeaLevelValueType", "value": "substituted"},
        {"event": "GNSS.positionsQuality", "field": "antennaState", "value": "open"}]}]}


class WatchTest(ProcessCase):
    def setUp(self):
        super().setUp()
        self.port = free_udp_port()
        self.until_end(Vehicle(self.folder, self.port, "--services", "GNSS,Temperature", "--scenario",
                               self.write("scenario.json", json.dumps(SCENARIO))))

    def start(self, *arguments, stdout=subprocess.PIPE):
        process = self.enterContext(subprocess.Popen(
            [VLM_WATCH, "--discovery-port", str(self.port), *arguments], stdin=subprocess.DEVNULL, stdout=stdout,
            stderr=subprocess.PIPE, text=True))
        self.addCleanup(process.kill)
        return process

    def watch(self, *arguments, status=0):
        """Standard output and error of one that ends with this status."""
        process = self.start(*arguments)
        out, err = process.communicate(timeout=DEADLINE)
        self.assertEqual(process.returncode, status, err)
        return out, err

    def test_it_shows_what_the_vehicle_sends(self):
        out, _ = self.watch("--once", "--json", "GNSS.positions:1", "GNSS.positionsQuality", "temperature.temperatures:outside")
        lines = {(line["event"], line["index"]): line for line in map(json.loads, out.splitlines())}
        self.assertEqual({name for name, _ in lines}, {"positions", "positionsQuality", "temperatures"})
        position = lines["positions", 1]["values"]
        self.assertAlmostEqual(position["latitude"], 48.4, delta=0.001)
        self.assertAlmostEqual(position["longitude"], 9.99, delta=0.001)
        self.assertEqual((position["altitudeMeanSeaLevel"], position["altitudeMeanSeaLevelValueType"]), (123.5, 4))
        self.assertAlmostEqual(lines["positions", 1]["timestamp"] / 1000, time.time(), delta=60)
        self.assertEqual(lines["positionsQuality", 1]["values"]["antennaState"], 1)
        self.assertAlmostEqual(lines["temperatures", 0]["values"]["temperatureRawPhysicalValue"], -9, delta=3)
        self.assertNotIn(("positions", 2), lines)

        self.assertRegex(self.watch("--once", "--explain", "GNSS.positions:1")[0],
                         r"altitudeMeanSeaLevel +123\.5 \(substituted\) m +Height above mean sea level\.")

    def test_csv_can_be_replayed(self):
        out, err = self.watch("--csv", "--seconds", "2", "GNSS.positions")
        self.assertRegex(err, r"samples in .* s; .*malformed notifications\n")
        rows = list(csv.DictReader(io.StringIO(out)))
        self.assertGreater(len(rows), 3)
        self.assertEqual({row["altitudeMeanSeaLevelValueType"] for row in rows}, {"substituted"})
        self.port = free_udp_port()
        self.until_end(Vehicle(self.folder, self.port, "--address", "127.0.0.3", "--services", "GNSS", "--loop", "--csv",
                               "GNSS.positions=" + self.write("positions.csv", out)))
        again, _ = self.watch("--once", "--json", "GNSS.positions:1")
        self.assertIn(json.loads(again)["values"]["latitude"], {float(row["latitude"]) for row in rows})

    def test_it_runs_next_to_vlmmaster_and_a_second_one(self):
        master = self.until_end(Vlmmaster(["-c", APPLICATION, "-l", self.write("collector.json", COLLECTOR)], self.folder,
                                          port=self.port))
        watching = [self.start("--json", "GNSS.positions:1") for _ in range(2)]
        for least in (0, 3):
            master.wait_for_count("records.collected", least)
            for process in watching:
                self.assertEqual(json.loads(process.stdout.readline())["event"], "positions")
        for address in ("127.0.0.1", "127.0.0.2"):
            out, err = self.watch("--address", address, "GNSS", status=2)
            self.assertEqual(out, "")
            self.assertIn(f"{address} cannot be used: another process of this kind uses {address}:{self.port}", err)
        self.watch("--once", "--json", "--address", "127.0.0.4", "GNSS.positions:2")

    def test_it_says_why_nothing_arrives_and_lists_who_offers_what(self):
        out, err = self.watch("--once", "--seconds", "3", "GNSS.positions:1", "Chassis", status=1)
        self.assertIn("GNSS.positions:1", out)
        self.assertIn("not arrived: Chassis.axes, ", err)
        self.assertIn("Chassis: is offered by nobody", err)
        out, err = self.watch("GNSS.position", status=2)
        self.assertEqual(out, "")
        self.assertIn('did you mean "positions"?', err)
        out, _ = self.watch("--list")
        self.assertRegex(out, rf"GNSS +0x1102 +1 +1\.0  127\.0\.0\.2:{self.port} +127\.0\.0\.2:\d+")
        self.assertRegex(out, r"nobody offers ACC, AWV, ")
        out, _ = self.watch("--list", "--json", "GNSS", "Chassis")
        self.assertEqual([json.loads(line)["service"] for line in out.splitlines()], ["GNSS"])

    def test_it_ends_with_its_reader_and_with_a_signal(self):
        process = self.start("--json", "GNSS.positions")
        process.stdout.readline()
        process.stdout.close()
        self.assertEqual(process.wait(DEADLINE), 0)
        self.assertNotIn("rror", process.stderr.read())
        # A reader that does not read: the pipe is full, and the signal still ends it.
        process = self.start("--json", "--all", "GNSS.positions")
        process.stdout.readline()
        process.send_signal(signal.SIGINT)
        process.communicate(timeout=DEADLINE)
        self.assertEqual(process.returncode, 0)

    def test_a_terminal_gets_whole_lines_of_its_width(self):
        ours, theirs = pty.openpty()
        ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 100, 0, 0))
        process = self.start("--seconds", "3", "GNSS.positions", "Temperature", stdout=theirs)
        os.close(theirs)

        def part():
            with contextlib.suppress(OSError):  # the other end is closed
                return os.read(ours, 4096)
            return b""
        shown = b"".join(iter(part, b""))
        os.close(ours)
        self.assertEqual(process.wait(DEADLINE), 0)
        self.assertIn("Lines were too long for the terminal", process.stderr.read())
        lines = shown.decode().splitlines()
        self.assertLessEqual(max(map(len, lines)), 100)
        self.assertLess(len(lines), 20 * 3 + 25)
        names = [re.match(r"\d\d:\d\d:\d\d\.\d{3}  ( +\+\d+| {6})  (\S+)", line)[2] for line in lines]
        self.assertEqual(set(names), {"GNSS.positions:1", "GNSS.positions:2", "Temperature.temperatures:0",
                                      "Temperature.temperatures:1", *(name for name in names if "Warnings" in name)})
