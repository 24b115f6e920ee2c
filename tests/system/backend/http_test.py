#!/usr/bin/env python3
"""The HTTP side of vlm-backend: its answers compared with backend/api/openapi.yaml, who gets in, and what it does with
wrong input, slow readers and its end.

VLM_BACKEND and VLM_SOURCE name the program and the checkout.
"""
import base64
import contextlib
import http.client
import json
import os
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import urllib.parse
from pathlib import Path

import jsonschema
import yaml

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../support"))
from processes import DEADLINE, ProcessCase, kill, start_peer, wait_until  # noqa: E402

BACKEND = os.environ["VLM_BACKEND"]
CONTRACT = yaml.safe_load((Path(os.environ["VLM_SOURCE"]) / "backend/api/openapi.yaml").read_text())
NOW = 1_700_000_000_000  # ms
SAMPLES = 3000


def envelope(number, samples, service="GNSSProxy", resource="positions"):
    report = {"applicationName": "Bench", "functionId": "21", "reportName": "Trip", "sequenceNumber": number,
              "signalCollections": [{"index": 1, "resourceName": resource, "serviceName": service,
                                     "samples": samples}]}
    return json.dumps({"messageId": f"m-{number}", "timestamp": NOW // 1000, "orxClientDataReport": json.dumps(report)})


def positions(first, count):
    return [{"timestamp": str(NOW + i * 100),
             "propertyValuePairs": {"latitude": 48 + i / 1e4, "longitude": 9 + i / 1e4, "type": 1}}
            for i in range(first, first + count)]


class Backend:
    """vlm-backend with a filled database, following a file."""

    def __init__(self, folder, *arguments, listen="127.0.0.1:0", environment=None):
        self.folder = Path(folder)
        self.file = self.folder / "envelopes.jsonl"
        self.output = self.folder / "vlm-backend.txt"
        self.process = start_peer(self.output, BACKEND, "--database", self.folder / "vehicles.db", "--prefix", "vlm/bench",
                                  "--follow", self.file, "--listen", listen, *arguments,
                                  env={**os.environ, **(environment or {})})
        self.port = urllib.parse.urlsplit(self.wait_for("the page is at ").split()[-1]).port

    def wait_for(self, text):
        """The line with that text."""
        lines = lambda: self.output.read_text().splitlines(keepends=True)  # noqa: E731
        return wait_until(lambda: next((line for line in lines() if text in line and line.endswith("\n")), None),
                          lambda: f"{text!r} in:\n{''.join(lines())}")

    def write(self, *lines):
        with open(self.file, "a") as file:
            file.writelines(line + "\n" for line in lines)

    def fill(self):
        self.write(*(envelope(n, positions(n * 600, 600)) for n in range(SAMPLES // 600)),
                   '{"messageId":"broken","timestamp":1,"orxClientDataReport":"no report"}')
        self.wait_for("kept aside")

    def connection(self):
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=DEADLINE)

    def ask(self, target, method="GET", headers=None, body=None):
        """Status, headers and body."""
        with contextlib.closing(self.connection()) as peer:
            peer.request(method, target, body, headers or {})
            answer = peer.getresponse()
            return answer.status, answer.headers, answer.read()

    def raw(self, data):
        """What comes for these bytes until the connection ends."""
        with socket.create_connection(("127.0.0.1", self.port), DEADLINE) as peer:
            peer.sendall(data)
            answer = b""
            with contextlib.suppress(ConnectionResetError):
                while part := peer.recv(65536):
                    answer += part
            return answer

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        try:
            return self.process.wait(10)
        finally:
            kill(self.process)


def schema_of(node):
    """A schema of the contract as jsonschema takes it: a value that may be null names that type."""
    if isinstance(node, list):
        return [schema_of(item) for item in node]
    if not isinstance(node, dict):
        return node
    if "$ref" in node:
        target = CONTRACT
        for part in node["$ref"].removeprefix("#/").split("/"):
            target = target[part]
        return schema_of(target)
    out = {key: schema_of(value) for key, value in node.items() if key != "nullable"}
    if node.get("nullable"):
        return {"anyOf": [{"type": "null"}, out]}
    if node.get("type") == "object" and "properties" in node:
        out["additionalProperties"] = False  # what is not described is wrong, too
    return out


class Contract(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.backend = Backend(cls.folder.name)
        cls.backend.fill()
        assert cls.backend.ask("/api/configurations", "POST", {"Content-Type": "application/json"},
                               json.dumps({"name": "first", "text": json.dumps(cls.GOOD)}))[0] == 201

    @classmethod
    def tearDownClass(cls):
        assert cls.backend.stop() == 0
        cls.folder.cleanup()

    # The queries with which each path is asked; other paths have none.
    QUERIES = {"/api/vehicles/{vehicle}/samples": ["view=gnss_positions", "view=airbag_crash_info&limit=1"],
               "/api/vehicles/{vehicle}/track": ["", "points=10", f"from={NOW}&to={NOW + 1000}&instance=1"],
               "/api/vehicles/{vehicle}/series": ["column=gnss_positions.latitude&width=10",
                                                  "column=chassis_velocity_info.velocity_physical_value"],
               "/api/vehicles/{vehicle}/export": ["form=gpx", "form=jsonl", "form=csv&columns=gnss_positions.latitude"],
               "/api/vehicles": ["", "search=ENC&show=all&limit=1", "show=losses"],
               "/api/unusable": ["", "vehicle=bench"]}
    APART = {"/api/updates", "/api/machine"}  # tested below
    GOOD = {"CONFIG": [{"name": "trip", "version": "1"}], "CLOCK": [{"name": "minute", "duration": 60000}],
            "COLLECT": [{"name": "position", "serv": "GNSS", "res": "positions", "index": 1, "on": "minute"}],
            "REPORT": [{"name": "Trip", "application": "App", "from": ["position"]}]}
    # Each request that changes something, and what it is answered with, in this order.
    CHANGES = (("POST", "/api/check", {"text": "{"}, 200),
               ("POST", "/api/configurations", {"name": "trip", "text": "{"}, 422),
               ("POST", "/api/configurations", {"name": "trip", "text": json.dumps(GOOD)}, 201),
               ("PUT", "/api/vehicles/{vehicle}/group", {"group": "fleet"}, 200),
               ("PUT", "/api/assignments", {"vehicle": "", "group": "fleet", "configuration": 1}, 200),
               ("PUT", "/api/assignments", {"vehicle": "", "group": "fleet", "configuration": 9}, 404),
               ("PUT", "/api/assignments", {"vehicle": "bench", "group": "fleet", "configuration": 1}, 400))

    def test_changes_are_answered_as_described(self):
        for method, path, body, expected in self.CHANGES:
            with self.subTest(path, expected=expected):
                status, _, answer = self.backend.ask(path.replace("{vehicle}", "bench"), method,
                                                     {"Content-Type": "application/json"}, json.dumps(body))
                self.assertEqual(status, expected, answer)
                described = schema_of(CONTRACT["paths"][path][method.lower()]["responses"][str(expected)])
                jsonschema.validate(json.loads(answer), described["content"]["application/json"]["schema"])
        state = json.loads(self.backend.ask("/api/vehicles/bench")[2])
        self.assertEqual((state["group"], state["configuration"]["desired"], state["configuration"]["state"]),
                         ("fleet", 1, "waiting"))

    def test_every_get_answers_as_described(self):
        some = self.backend.ask("/api/catalog")[2]
        self.assertTrue({"gnss_positions", "chassis_velocity_info"} <= {event["view"] for event in json.loads(some)})
        for path, item in CONTRACT["paths"].items():
            if "get" not in item or path in self.APART:
                continue
            for query in self.QUERIES.get(path, [""]):
                target = path.replace("{vehicle}", "bench").replace("{id}", "1") + ("?" + query if query else "")
                with self.subTest(target):
                    status, headers, body = self.backend.ask(target)
                    self.assertEqual(status, 200, body)
                    described = item["get"]["responses"]["200"]["content"]
                    kind = headers["Content-Type"].split(";")[0]
                    self.assertIn(kind, described)
                    if kind == "application/json":
                        jsonschema.validate(json.loads(body), schema_of(described[kind]["schema"]))
                    self.assertEqual(self.backend.ask(target, "HEAD")[::2], (200, b""))

    def test_wrong_requests_get_a_reason_and_break_nothing(self):
        ask = self.backend.ask
        json_type = {"Content-Type": "application/json"}
        for target, status in (("/api/vehicles/none", 404), ("/api/none", 404), ("/api/vehicles/bench/series", 400),
                               ("/api/vehicles/bench/track?from=yesterday", 400),
                               ("/api/vehicles/bench/track?points=1e3", 400),
                               ("/api/vehicles/%zz", 400), ("/api/unusable/1x", 400), ("/api/machine", 404),
                               ("/../etc/passwd", 404), ("/%2e%2e/%2e%2e/etc/passwd", 404), ("//etc/passwd", 404),
                               ("/assets/..%2f..%2fetc/passwd", 404), ("/api/" + "a" * 9000, 414)):
            answer = ask(target)
            self.assertEqual(answer[0], status, target)
            self.assertTrue(json.loads(answer[2])["error"], target)
        self.assertEqual(ask("/api/vehicles", "DELETE", json_type)[0], 405)
        self.assertEqual(ask("/api/vehicles", headers={"Host": "attacker.example"})[0], 421)
        self.assertIn(b" 431 ", self.backend.raw(b"GET / HTTP/1.1\r\n" + b"X: y\r\n" * 10000 + b"\r\n"))
        self.assertIn(b" 413 ", self.backend.raw(b"PUT /api/assignments HTTP/1.1\r\nHost: localhost\r\n"
                                                 b"Content-Type: application/json\r\nContent-Length: 9000000000\r\n\r\n"))
        self.assertIn(b" 400 ", self.backend.raw(b"\x16\x03\x01 garbage\r\n\r\n"))
        # A range would let the library parse a header of any length; a body of a GET would be the next request.
        self.assertEqual(ask("/api/vehicles", headers={"Range": "bytes=" + "0-," * 2000})[0], 200)
        smuggled = self.backend.raw(b"GET /healthz HTTP/1.1\r\nHost: localhost\r\nContent-Length: 40\r\n\r\n"
                                    b"GET /api/none HTTP/1.1\r\nHost: localhost\r\n\r\n")
        self.assertEqual(smuggled.count(b"HTTP/1.1"), 1)
        self.assertEqual(ask("/healthz")[0], 200)

    def test_headers_keep_other_sites_out(self):
        headers = self.backend.ask("/")[1]
        self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
        self.assertNotIn("unsafe", headers["Content-Security-Policy"])
        self.assertEqual(headers["X-Content-Type-Options"], "nosniff")
        self.assertNotIn("Access-Control-Allow-Origin", headers)


class Updates(ProcessCase):
    def setUp(self):
        super().setUp()
        self.backend = Backend(self.folder)
        self.addCleanup(self.backend.stop)
        self.backend.fill()

    def open(self):
        peer = socket.create_connection(("127.0.0.1", self.backend.port), DEADLINE)
        self.addCleanup(peer.close)
        peer.sendall(b"GET /api/updates HTTP/1.1\r\nHost: localhost\r\n\r\n")
        return peer

    @staticmethod
    def read_until(peer, text):
        got = b""
        while text not in got:
            part = peer.recv(65536)
            assert part, got
            got += part
        return got

    def test_readers_get_what_changes_and_a_slow_one_holds_nobody_up(self):
        slow = self.open()
        slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
        reader = self.open()
        first = self.read_until(reader, b"]\n")
        self.assertIn(b"event: vehicles", first)
        self.assertIn(b'"reports":5', first)
        for number in range(100, 105):
            self.backend.write(envelope(number, positions(number * 600, 10)))
        self.read_until(reader, b'"reports":10')
        # More readers than are served, and half of the connections of which nobody reads.
        others = [self.open() for _ in range(40)]
        answers = [peer.recv(12) for peer in others]
        self.assertEqual(answers.count(b"HTTP/1.1 200"), 30)
        self.assertEqual(answers.count(b"HTTP/1.1 503"), 10)
        self.assertEqual(self.backend.ask("/api/vehicles/bench")[0], 200)
        for peer in others:
            peer.close()
        wait_until(lambda: b"vlm_backend_update_readers 2" in self.backend.ask("/metrics")[2],
                   "that readers that have gone are not counted")
        began = time.monotonic()
        self.assertEqual(self.backend.stop(), 0)
        self.assertLess(time.monotonic() - began, 5)


class Access(ProcessCase):
    def setUp(self):
        super().setUp()
        self.folder = Path(self.folder)

    def refuse(self, *arguments, environment=None):
        done = subprocess.run([BACKEND, "--database", str(self.folder / "v.db"), *arguments], text=True,
                              capture_output=True, timeout=DEADLINE, env={**os.environ, **(environment or {})})
        self.assertEqual(done.returncode, 1)
        return done.stderr

    def certificate(self):
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=localhost",
                        "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1", "-keyout", str(self.folder / "key.pem"),
                        "-out", str(self.folder / "cert.pem")], check=True, capture_output=True)
        return ["--http-cert", str(self.folder / "cert.pem"), "--http-key", str(self.folder / "key.pem")]

    def test_other_machines_need_users_and_tls(self):
        secure = self.certificate()
        users = ["--users", str(self.folder / "users")]
        for name, role in (("eva", "view"), ("udo", "configure")):
            subprocess.run([BACKEND, *users, "--add-user", name, "--role", role], input=f"{name}'s password\n",
                           text=True, check=True, stdout=subprocess.DEVNULL, timeout=DEADLINE)
        self.assertEqual((self.folder / "users").stat().st_mode & 0o777, 0o600)
        self.assertNotIn("password", (self.folder / "users").read_text())
        anywhere = ["--listen", "0.0.0.0:0"]
        self.assertRegex(self.refuse(*anywhere), "users .*token.* and TLS")
        self.assertRegex(self.refuse(*anywhere, *users), r"needs TLS")
        self.assertRegex(self.refuse(*anywhere, *secure), r"needs users .*token \(VLM_BACKEND_TOKEN\)\n")
        self.assertIn("--listen", self.refuse("--listen", "localhost"))
        self.assertIn("--add-user creates it", self.refuse("--users", str(self.folder / "none"), "--listen",
                                                           "127.0.0.1:0"))
        backend = Backend(self.folder, *users, *secure, listen="0.0.0.0:0", environment={"VLM_BACKEND_TOKEN": "s3cret"})
        self.addCleanup(backend.stop)
        backend.fill()
        trusting = ssl.create_default_context(cafile=str(self.folder / "cert.pem"))

        def ask(target, authorization=None, method="GET"):
            with contextlib.closing(http.client.HTTPSConnection("127.0.0.1", backend.port, timeout=DEADLINE,
                                                                context=trusting)) as peer:
                headers = {"Authorization": authorization} if authorization else {}
                peer.request(method, target, "{}" if method == "PUT" else None,
                             {**headers, "Content-Type": "application/json"})
                answer = peer.getresponse()
                answer.body = answer.read()
                return answer

        def basic(name, password):
            return "Basic " + base64.b64encode(f"{name}:{password}".encode()).decode()

        eva, udo = basic("eva", "eva's password"), basic("udo", "udo's password")
        self.assertEqual(ask("/healthz").status, 200)
        for target in ("/", "/api/vehicles", "/api/updates", "/metrics"):
            answer = ask(target)
            self.assertEqual(answer.status, 401, target)
            self.assertIn("Basic", answer.headers["WWW-Authenticate"])
        self.assertEqual(json.loads(ask("/api/session", eva).body)["role"], "view")
        self.assertEqual(json.loads(ask("/api/session", udo).body)["user"], "udo")
        self.assertEqual(json.loads(ask("/api/session", "Bearer s3cret").body)["role"], "configure")
        changing = [path for path, item in CONTRACT["paths"].items() if "put" in item]
        for path in changing:
            self.assertIn(ask(path.replace("{vehicle}", "bench"), eva, "PUT").status, (403, 404), path)
        began = time.monotonic()
        self.assertEqual([ask("/api/session", basic("eva", "guess")).status for _ in range(12)], [401] * 10 + [429] * 2)
        self.assertEqual(ask("/api/session", eva).status, 429, "also with the right one")
        # A connection that never speaks TLS, and one that never ends its request, hold nobody up.
        with socket.create_connection(("127.0.0.1", backend.port)) as silent:
            silent.sendall(b"GET / HTTP/1.1\r\n")
            self.assertEqual(ask("/healthz").status, 429)
        self.assertLess(time.monotonic() - began, 30)

    def test_a_prometheus_reads_the_metrics(self):
        backend = Backend(self.folder)
        self.addCleanup(backend.stop)
        backend.fill()
        value = self.start_prometheus(f"127.0.0.1:{backend.port}")
        wait_until(lambda: value("vlm_backend_samples_total") == SAMPLES, "the samples in Prometheus", period=0.3)
        self.assertEqual(value("vlm_backend_envelopes_total"), SAMPLES // 600 + 1)
        self.assertEqual(value("vlm_backend_database_up"), 1)


class ThisMachine(unittest.TestCase):
    def test_status_and_log_lines_of_a_vlmmaster(self):
        """A socket that answers as vlmmaster's does, then ends, then comes back."""
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "state.sock")
            log = Path(folder) / "log"
            log.write_text("2026-03-11 14:05:09.123 3 seen\n2026-03-11 14:05:09.123 5 not\n")
            backend = Backend(folder, "--machine", path, "--machine-log", str(log))
            self.addCleanup(backend.stop)
            schema = schema_of(CONTRACT["paths"]["/api/machine"]["get"]["responses"]["200"]["content"]["application/json"]["schema"])

            def ask():
                answer = json.loads(backend.ask("/api/machine")[2])
                jsonschema.validate(answer, schema)
                return answer
            self.assertFalse(ask()["running"])
            self.assertIn("no process answers", ask()["reason"])
            for round_ in range(2):
                with socket.socket(socket.AF_UNIX) as server:
                    server.bind(path)
                    server.listen()

                    def serve():
                        peer, _ = server.accept()
                        with peer, peer.makefile() as lines:
                            lines.readline()
                            peer.sendall(b'{"status":{"samples":{"received":%d}}}\n' % round_)
                    served = threading.Thread(target=serve)
                    served.start()
                    answer = ask()
                    self.assertEqual(answer["status"], {"samples": {"received": round_}})
                    self.assertEqual(answer["lines"], ["2026-03-11 14:05:09.123 3 seen"])
                    served.join(DEADLINE)
                os.unlink(path)


if __name__ == "__main__":
    unittest.main(verbosity=2)
