"""One run from start to stop, in which each peer hears what it must and the log has the lines of lines.txt."""
import base64
import contextlib
import hashlib
import json
import os
import re
import socket
import threading
from pathlib import Path

from mqtt_client import Client
from process_test import ProcessTest, pattern_of
from processes import Vehicle, faster_clock, free_tcp_port, free_udp_port, wait_until


class DrivenRun(ProcessTest):
    """One run from start to stop, with a vehicle, a backend that paces it, a service manager and a log daemon."""

    SPEED = 20  # a tick every three seconds

    def setUp(self):
        super().setUp()
        self.clock = faster_clock(self.SPEED)
        self.need(clock=self.clock)
        self.broker_port, self.port = free_tcp_port(), free_udp_port()
        self.start_broker(self.broker_port)
        self.backend = Client(self.broker_port, "backend", ["d/#"])
        self.addCleanup(self.backend.end)
        self.backend.wait(lambda: self.backend.connected)
        self.until_end(Vehicle(self.folder, self.port, "--services", "GNSS,Temperature", "--period-ms", "2000",
                               environment=self.clock))
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.manager.close)
        self.manager.bind(os.path.join(self.folder, "manager"))
        os.mkfifo(os.path.join(self.folder, "dlt"))
        daemon = os.open(os.path.join(self.folder, "dlt"), os.O_RDWR)
        self.dlt = bytearray()
        threading.Thread(target=lambda: [self.dlt.extend(os.read(daemon, 65536)) for _ in iter(int, 1)], daemon=True).start()

    def control(self, result=0, channel=0, permitted=("a",)):
        self.backend.publish("d/mastercontrol", json.dumps({
            "eventTicket": "t", "permittedDataType": permitted, "backendChannelControl": channel, "dataDeliveryResult": result}))

    def configure(self, number, *collects):
        body = json.dumps({
            "CONFIG": [{"name": "driven", "version": number}], "CLOCK": [{"name": "tick", "duration": 60000}],
            "REPORT": [{"name": "all", "application": "test", "from": [name for name, *_ in collects]}],
            "COLLECT": [dict(zip(("name", "serv", "res", "index", "history"), row), on="tick") for row in collects]})
        self.answer(number, base64.b64encode(body.encode()).decode())
        return hashlib.sha256(body.encode()).hexdigest()

    def answer(self, number, body):
        self.backend.publish("d/config/response", json.dumps([{"recordId": f"record{number}", "recordBody": body}]))

    def on_topic(self, wanted):
        return [json.loads(payload) for topic, payload in list(self.backend.received) if topic == wanted]

    def numbers(self, count):
        """The numbers of the reports that came, once there are that many."""
        envelopes = wait_until(lambda: len(found := self.on_topic("d/data")) >= count and found, f"{count} envelopes")
        return [json.loads(e["orxClientDataReport"])["sequenceNumber"] for e in envelopes]

    def test_each_line_comes_with_its_text_level_and_form_and_each_peer_hears_what_it_must(self):
        master = self.start(
            "-c", self.application, port=self.port,
            manifest={"log": {"console": False, "dlt": True},
                      "backend": {"transport": "mqtt", "mqtt": {"port": self.broker_port, "prefix": "d"}}},
            environment={**self.clock, "NOTIFY_SOCKET": os.path.join(self.folder, "manager"), "DLT_PIPE_DIR": self.folder})
        wait_until(lambda: self.on_topic("d/status"), "the presence")
        self.assertIn(b"APP_INSTANCE_ID=vlmmaster\0", self.heap_of(master))
        self.control()
        wait_until(lambda: self.on_topic("d/config/request"), "the request")
        digest = self.configure("1", ("position", "GNSS", "positions", 1, 5000))
        self.assertEqual(self.numbers(1), [1])
        self.assertEqual(master.status()["config"]["accepted"],
                         {"name": "driven", "version": "1", "recordId": "record1", "digest": digest})
        self.answer("2", "!!")  # its identifier is in force all the same
        master.wait_for_count("reports.queued", 3)
        # Closed with result 2, or by an empty list, the channel lets the last report come again when it opens.
        self.control(result=2, channel=1)
        self.control()
        self.assertEqual(self.numbers(2), [1, 1])
        self.control()
        self.assertEqual(self.numbers(3), [1, 1, 2])
        self.control(permitted=())
        self.control()
        self.assertEqual(self.numbers(4), [1, 1, 2, 2])
        # One that is refused changes nothing; a further one reaches the thread that subscribes already.
        self.configure("3")
        self.configure("4", ("outside", "Temperature", "temperatures", 0))
        master.wait_for_count("events.subscribed", 2)
        for state in ("kPrepSD", "kOn", "kNew"):
            self.assertEqual(master.ask({"request": "state", "state": state})["state"], state)
        self.assertEqual(master.stop(), 0, master.text())

        notices = self.notices()
        self.assertEqual((notices[0], notices[-1]), ("READY=1\nSTATUS=Running", "STOPPING=1\nSTATUS=Terminating"))
        self.assertEqual(set(notices[1:-1]), {"WATCHDOG=1"})
        alive = self.times(master, "Sleeping for 30 secs")
        self.assertEqual(len(notices) - 2, len(alive))
        self.assertAlmostEqual(self.shortest_pause(alive), 30, delta=4)
        self.check_lines(self.logged(master))
        self.check_dlt(self.logged(master))

    @staticmethod
    def heap_of(master):
        """Where a process's own variables are; what /proc shows as its environment is that of its start."""
        maps = Path(f"/proc/{master.process.pid}/maps").read_text()
        begin, end = (int(at, 16) for at in re.search(r"^(\w+)-(\w+) .*\[heap\]$", maps, re.M).groups())
        with open(f"/proc/{master.process.pid}/mem", "rb") as memory:
            memory.seek(begin)
            return memory.read(end - begin)

    def notices(self):
        self.manager.setblocking(False)
        found = []
        with contextlib.suppress(BlockingIOError):
            while True:
                found.append(self.manager.recv(500).decode())
        return found

    def check_lines(self, lines):
        rows = [row for row in Path(__file__).with_name("lines.txt").read_text().splitlines() if row[:1].isdigit()]
        text = "\n".join(lines)
        missing = [row for row in rows if not re.search(f"^{pattern_of(row)}$", text, re.M)]
        self.assertEqual(missing, [])

    def check_dlt(self, lines):
        """Application and severity of what the log daemon got, by the level of the same line in the file."""
        wait_until(lambda: b"Exiting from main" in self.dlt, "the last line at the log daemon")
        severities = {"3": 2, "4": 3, "5": 4, "6": 5, "7": 5}
        severity = {line[2:].encode(): severities[line[0]] for line in lines if line}
        seen = set()
        messages = [(found[1][0] >> 4, self.dlt[found.end():found.end() + int.from_bytes(found[2], "little") - 1])
                    for found in re.finditer(rb"(?s)(.)\x01VLM\0VLM\0....(..)", self.dlt)]
        for level, text in messages:
            if bytes(text) in severity:
                self.assertEqual(level, severity[bytes(text)], text)
                seen.add(level)
        self.assertEqual(seen, set(severities.values()))
        # A long line comes in pieces.
        self.assertIn(max(lines, key=len)[2:].encode(), b"".join(bytes(text) for _, text in messages))
