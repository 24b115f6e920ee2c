"""Real vlmmaster processes: start-up, its failures, and stops.

The environment is that of tests/support/processes.py.
"""
import json
import os
import re
import resource
import signal
import tempfile
import time
from datetime import datetime
from pathlib import Path

from processes import CATALOG, COLLECTOR, STOP_LIMIT, ProcessCase, Vlmmaster, faster_clock, merged, wait_until

MAIN = " int main(int, char**) "


def pattern_of(row):
    """In the rows of these tests # is a number and … any text."""
    return re.escape(row).replace(r"\#", r"\d+").replace("…", ".*")


class ProcessTest(ProcessCase):
    def setUp(self):
        super().setUp()
        self.application = self.write("vlm.json", '{"OfferedDataTypes": ["a", "b"]}')
        self.collector = self.write("collector.json", COLLECTOR)

    def start(self, *arguments, **options):
        folder = tempfile.mkdtemp(dir=self.folder)
        log = os.path.join(folder, "log")
        options["manifest"] = merged({"log": {"file": log, "fileMaxBytes": 100_000_000}}, options.get("manifest", {}))
        master = self.until_end(Vlmmaster(arguments, folder, **options))
        master.log = Path(log)
        return master

    @staticmethod
    def times(master, text):
        return [datetime.fromisoformat(line[:23]) for line in master.log.read_text().splitlines() if line.endswith(text)]

    @staticmethod
    def shortest_pause(times):
        """In seconds; a busy machine makes some longer."""
        return min((after - before).total_seconds() for before, after in zip(times, times[1:]))

    @staticmethod
    def logged(master):
        """The log file's lines: level and text."""
        return [line[24:] for line in master.log.read_text().splitlines()]

    def assert_in_order(self, master, rows):
        """That lines begin so, level first."""
        lines = self.logged(master)
        remaining = iter(lines)
        for row in rows:
            self.assertTrue(any(re.match(pattern_of(row), line) for line in remaining),
                            f"{row!r} is missing, or out of order, in:\n" + "\n".join(lines[-60:]))


class EndsOfStartUp(ProcessTest):
    def test_help_is_printed_before_any_file_is_read(self):
        master = self.start("-h", "-c", "/absent.json", catalog="none")
        self.assertEqual(master.end(), 0, master.text())
        for text in ("vlmmaster configuration file", "This is a vlmmaster program.", "-c, --configfile",
                     "-l, --localFile", "Local Collector config file"):
            self.assertIn(text, master.text())
        self.assertNotIn("absent", master.text())
        self.assert_in_order(master, ["5" + MAIN + "This is a vlmmaster program."])

    def test_command_lines_and_files_that_do_not_lead_to_the_main_loop(self):
        last = ["5" + MAIN + "Unknown exception", "5" + MAIN + "Exiting from main"]
        application = ["-c", self.application]
        broken = self.write("broken.json", '{\n"OfferedDataTypes": [')
        malformed = self.write("malformed.json", '{"meta": ')
        nameless = self.write("nameless.json", "{}")
        front = self.write("front.json", json.dumps({
            "meta": {"vlmVersion": "1"}, "services": {"GNSS": {"positions": {"instances": {"front": []}}}}}))
        ends = "3" + MAIN + "Start-up ends: "
        for arguments, catalog, status, expected in (
                (["-l", self.collector], CATALOG, 0, [
                    "3" + MAIN + "No application configuration is named",
                    "5" + MAIN + "VLM Will start with local configuration " + self.collector,
                    ends + "VLM Config::getInstance() ERROR: VLM Config not created yet!", *last]),
                (["--none"], CATALOG, 0, [ends + "…none…", *last]),
                (["-c", "/absent.json"], CATALOG, 0, [ends + "VLM Config file path not valid", *last]),
                (["-c", self.folder], CATALOG, 250, ["1 …:# VLM config file parsing not successful, check format"]),
                (["-c", broken], CATALOG, 250, ["7 …configfile=" + broken, "1 …:# VLM config file parsing not successful, check format"]),
                (application, "none", 1, [
                    "5" + MAIN + "VLM Config Object is created", "5" + MAIN + "Offered Data Types Size = 2",
                    "5" + MAIN + "after creating component_client", "3 …:# Catalog file path not valid.",
                    "3 …json cannot be read. Install the signal catalog there."]),
                (application, malformed, 250, ["3 …_20210311.json: …Line 1…", "3 …:# catalog file parsing not successful, check format"]),
                (application, nameless, 0, [
                    "5" + MAIN + "Successfully created the catalog file parser",
                    ends + "Server name from JSON catalog is empty", *last]),
                (application, front, 0, ["3 …services.GNSS.positions.instances.front", *last])):
            with self.subTest(arguments=arguments, catalog=catalog):
                master = self.start(*arguments, catalog=catalog)
                self.assertEqual(master.end(), status, master.text())
                self.assert_in_order(master, expected)


class MainLoop(ProcessTest):
    def test_start_up_keeps_its_order_and_a_stop_ends_it_in_order(self):
        master = self.start("-c", self.application, "-l", self.collector)
        master.wait_for(MAIN + "Sleeping for 30 secs")
        self.assertEqual(master.stop(), 0, master.text())
        self.assert_in_order(master, [
            "5" + MAIN + "VLM Config Object is created",
            "5" + MAIN + "VLM Will start with local configuration " + self.collector,
            "5" + MAIN + "Offered Data Types Size = 2",
            "5" + MAIN + "after creating component_client",
            "5" + MAIN + "Successfully created the catalog file parser",
            "5" + MAIN + "Server name = ",
            "3 …Valid configuration file",
            "5 …ApplicationName, ConfigName, ConfigVersion: test, test, 1",
            "5 …historyDuration: 0 , Lag:  0 , Collector name: position And OnEvent Type: 0",
            "5 …COLLECT MAP FOUND, collectName = position",
            "5 …Pushing the service GNSSProxy  to queue to discover it",
            "5 …CLOCK NAME = tick  And DURATION = 60000",
            "5 …ZEPH-43022: VLM implements a timer object",
            "5 …IAmAlive, call CheckpointReached, supervision id=6521, checkpoint id=6521",
            "5" + MAIN + "Sleeping for 30 secs",
            "5 void signal_handler(int32_t) SIGNAL HANDLER HAPPENED= 15",
            "5" + MAIN + "Exiting from main"])

    def test_a_thread_that_cannot_be_started_ends_start_up_as_a_runtime_error(self):
        local = os.path.join(self.folder, "local")
        os.mkfifo(local)
        master = self.start("-c", self.application, "-l", local)
        with open(local, "w") as file:  # once vlmmaster reads it
            size = int(Path(f"/proc/{master.process.pid}/statm").read_text().split()[0]) * os.sysconf("SC_PAGE_SIZE")
            resource.prlimit(master.process.pid, resource.RLIMIT_AS, (size + (2 << 20),) * 2)
            file.write(Path(self.collector).read_text())
        self.assertEqual(master.end(), 0, master.text())
        self.assert_in_order(master, ["5" + MAIN + "Runtime error: ", "5" + MAIN + "Exiting from main"])

    def test_a_configuration_that_is_refused_or_odd_leaves_the_process_living(self):
        odd = self.write("odd.json", '{"OfferedDataTypes": ["a", ["b"], 3]}')
        absent = os.path.join(self.folder, "absent.json")
        wrong = self.write("wrong.json", '{"COLLECT": [{"name": "a", "index": "1"}]}')
        nowhere = {"state": {"socket": "/no/folder/socket"}}
        for local, reason, manifest in ((absent, "absent.json: it cannot be opened", nowhere),
                                        (wrong, "COLLECT[0].index", {})):
            master = self.start("-c", odd, "-l", local, manifest=manifest)
            master.wait_for("OfferedDataTypes[1]: a text is expected, found an array")
            master.wait_for(MAIN + "Offered Data Types Size = 2")
            if manifest:
                master.wait_for(MAIN + "VLM Component client creation failed, ERR = generic:2")
            master.wait_for(reason)
            master.wait_for("Create Config parser from failed FAILED")
            for text in ("Size of All services and Resources = 0", MAIN + "Sleeping for 30 secs"):
                wait_until(lambda: text in master.text(), text)
            self.assertEqual(master.stop(signal.SIGABRT), 0, master.text())


class Retry(ProcessTest):
    def test_the_configuration_is_asked_for_every_eleven_minutes_until_it_comes(self):
        clock = faster_clock(200)
        self.need(clock=clock)
        wanted = os.path.join(self.folder, "wanted.json")
        master = self.start("-c", self.application, environment=clock, manifest={
            "log": {"console": False},
            "backend": {"directory": {"path": os.path.join(self.folder, "backend"), "configuration": wanted}}})
        master.wait_for_count("config.requests", 3)
        os.rename(self.collector, wanted)
        master.wait_for_count("clock.ticks", 1)
        requests = master.count("config.requests")
        master.wait_for_count("clock.ticks", 12)
        self.assertEqual(master.count("config.requests"), requests, "no more than were needed")
        self.assertEqual(master.stop(), 0)
        asked = self.times(master, "The configuration answer holds no record; the request goes on")
        self.assertAlmostEqual(self.shortest_pause(asked), 660, delta=60)


class Stops(ProcessTest):
    """A stop at any moment ends the process soon, with status 0."""

    def test_that_came_before_the_program_began_is_kept_for_the_main_loop(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            blocked = lambda: signal.pthread_sigmask(signal.SIG_BLOCK, [number])
            master = self.start("-c", self.application, "-l", self.collector, before=blocked)
            master.process.send_signal(number)
            self.assertEqual(master.end(), 0, master.text())
            self.assert_in_order(master, ["5" + MAIN + "Sleeping for 30 secs",
                                          f"5 …SIGNAL HANDLER HAPPENED= {number.value}", "5" + MAIN + "Exiting from main"])

    def test_under_a_flood_of_further_stops(self):
        master = self.start("-c", self.application, "-l", self.collector)
        master.wait_for(MAIN + "Sleeping for 30 secs")
        until = time.monotonic() + STOP_LIMIT
        while master.process.poll() is None and time.monotonic() < until:
            master.process.send_signal(signal.SIGTERM)
            master.process.send_signal(signal.SIGINT)
        self.assertEqual(master.end(STOP_LIMIT), 0, master.text())
