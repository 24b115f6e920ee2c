#!/usr/bin/env python3
"""Real vlmmaster processes: start-up, its failures, and stops.

The environment is that of tests/support/processes.py.
"""
import json
import os
import signal
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../support"))
from processes import CATALOG, STOP_LIMIT, Vlmmaster  # noqa: E402

MAIN = " int main(int, char**) "
STATE = (" main(int, char**)::<lambda(const ara::stm::ComponentClient&, uint32_t, const ComponentState&)> ")


class ProcessTest(unittest.TestCase):
    def setUp(self):
        temporary = tempfile.TemporaryDirectory(prefix="vlm-process-")
        self.addCleanup(temporary.cleanup)
        self.folder = temporary.name
        self.application = self.write("vlm.json", '{"OfferedDataTypes": ["a", "b"]}')
        self.collector = self.write("collector.json", json.dumps({
            "CONFIG": [{"name": "process", "version": "1"}],
            "CLOCK": [{"name": "tick", "duration": 60000}],
            "REPORT": [{"name": "all", "application": "test", "from": ["position"]}],
            "COLLECT": [{"name": "position", "serv": "GNSS", "res": "positions", "index": 1, "on": "tick"}]}))

    def write(self, name, content):
        path = os.path.join(self.folder, name)
        with open(path, "w") as file:
            file.write(content)
        return path

    def start(self, *arguments, **options):
        folder = tempfile.mkdtemp(dir=self.folder)
        master = Vlmmaster(arguments, folder, **options)
        self.addCleanup(master.kill)
        return master

    def assert_in_order(self, lines, expected):
        remaining = iter(lines)
        for text in expected:
            self.assertTrue(any(text in line for line in remaining),
                            f"{text!r} is missing, or out of order, in:\n" + "\n".join(lines[-60:]))


class EndsOfStartUp(ProcessTest):
    def test_help_is_printed_before_any_file_is_read(self):
        master = self.start("-h", "-c", "/absent.json", catalog="none")
        self.assertEqual(master.end(), 0, master.text())
        for text in ("vlmmaster configuration file", "This is a vlmmaster program.", "-c, --configfile",
                     "-l, --localFile", "Local Collector config file"):
            self.assertIn(text, master.text())
        self.assertNotIn("absent", master.text())

    def test_command_lines_and_files_that_do_not_lead_to_the_main_loop(self):
        last = [MAIN + "Unknown exception", MAIN + "Exiting from main"]
        application = ["-c", self.application]
        broken = self.write("broken.json", '{\n"OfferedDataTypes": [')
        malformed = self.write("malformed.json", '{"meta": ')
        nameless = self.write("nameless.json", "{}")
        front = self.write("front.json", json.dumps({
            "meta": {"vlmVersion": "1"}, "services": {"GNSS": {"positions": {"instances": {"front": []}}}}}))
        for arguments, catalog, status, expected in (
                (["-l", self.collector], CATALOG, 0, [
                    MAIN + "VLM Will start with local configuration " + self.collector,
                    "VLM Config::getInstance() ERROR: VLM Config not created yet!", *last]),
                (["--none"], CATALOG, 0, ["none", *last]),
                (["-c", "/absent.json"], CATALOG, 0, ["VLM Config file path not valid", *last]),
                (["-c", self.folder], CATALOG, 0, ["VLM Config file path not valid", *last]),
                (["-c", broken], CATALOG, 250, [broken, "VLM config file parsing not successful, check format"]),
                (application, "none", 1, [
                    MAIN + "VLM Config Object is created", MAIN + "Offered Data Types Size = 2",
                    MAIN + "after creating component_client", "Catalog file path not valid."]),
                (application, malformed, 250, ["catalog file parsing not successful, check format"]),
                (application, nameless, 0, [
                    MAIN + "Successfully created the catalog file parser", "Server name from JSON catalog is empty",
                    *last]),
                (application, front, 0, ["services.GNSS.positions.instances.front", *last])):
            with self.subTest(arguments=arguments, catalog=catalog):
                master = self.start(*arguments, catalog=catalog)
                self.assertEqual(master.end(), status, master.text())
                self.assert_in_order(master.lines, expected)


class MainLoop(ProcessTest):
    def test_start_up_keeps_its_order_states_are_confirmed_and_a_stop_ends_it_in_order(self):
        master = self.start("-c", self.application, "-l", self.collector)
        master.wait_for(MAIN + "Sleeping for 30 secs")
        for state, text in (("kPrepSD", "VLM Application is in kPrepSD state "),
                            ("kOn", "VLM Application is in kOn state "),
                            ("kNew", "VLM Application does not know the process state.")):
            answer = master.ask({"request": "state", "state": state})
            self.assertEqual(answer["state"], state)
            for line in ("STATE = " + state, text, "Sent successful confirmation of change of state"):
                master.wait_for(STATE + line)
        self.assertEqual(master.stop(), 0, master.text())
        self.assert_in_order(master.lines, [
            MAIN + "VLM Config Object is created",
            MAIN + "VLM Will start with local configuration " + self.collector,
            MAIN + "Offered Data Types Size = 2",
            MAIN + "after creating component_client",
            MAIN + "Successfully created the catalog file parser",
            MAIN + "Server name = ",
            "Valid configuration file",
            "COLLECT MAP FOUND, collectName = position",
            "CLOCK NAME = tick  And DURATION = 60000",
            "IAmAlive, call CheckpointReached, supervision id=6521, checkpoint id=6521",
            MAIN + "Sleeping for 30 secs",
            " void signal_handler(int32_t) SIGNAL HANDLER HAPPENED= 15",
            MAIN + "Exiting from main"])

    def test_a_configuration_that_is_refused_or_odd_leaves_the_process_living(self):
        odd = self.write("odd.json", '{"OfferedDataTypes": ["a", ["b"], 3]}')
        absent = os.path.join(self.folder, "absent.json")
        wrong = self.write("wrong.json", '{"COLLECT": [{"name": "a", "index": "1"}]}')
        for local, reason in ((absent, "it is empty or cannot be opened"), (wrong, "COLLECT[0].index")):
            master = self.start("-c", odd, "-l", local)
            master.wait_for("OfferedDataTypes[1]: a text is expected, found an array")
            master.wait_for(MAIN + "Offered Data Types Size = 2")
            master.wait_for(reason)
            master.wait_for("Create Config parser from failed FAILED")
            master.see("Size of All services and Resources = 0")
            master.see(MAIN + "Sleeping for 30 secs")
            self.assertEqual(master.stop(signal.SIGABRT), 0, master.text())


class Stops(ProcessTest):
    """A stop at any moment ends the process soon, with status 0."""

    def test_that_came_before_the_program_began_is_kept_for_the_main_loop(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            blocked = lambda: signal.pthread_sigmask(signal.SIG_BLOCK, [number])
            master = self.start("-c", self.application, "-l", self.collector, before=blocked)
            master.process.send_signal(number)
            self.assertEqual(master.end(), 0, master.text())
            self.assert_in_order(master.lines, [MAIN + "Sleeping for 30 secs",
                                                f"SIGNAL HANDLER HAPPENED= {number.value}", MAIN + "Exiting from main"])

    def test_under_a_flood_of_further_stops(self):
        master = self.start("-c", self.application, "-l", self.collector)
        master.wait_for(MAIN + "Sleeping for 30 secs")
        until = time.monotonic() + STOP_LIMIT
        while master.process.poll() is None and time.monotonic() < until:
            master.process.send_signal(signal.SIGTERM)
            master.process.send_signal(signal.SIGINT)
        self.assertEqual(master.end(STOP_LIMIT), 0, master.text())


if __name__ == "__main__":
    unittest.main()
