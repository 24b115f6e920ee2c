"""The HTTP side of vlm-backend: its answers compared with backend/api/openapi.yaml, who gets in, and what it does with
wrong input, slow readers and its end.

The environment is that of tests/support/processes.py.
"""
import base64
import contextlib
import json
import os
import re
import socket
import ssl
import subprocess
import time
from pathlib import Path

import jsonschema
import yaml

from processes import APPLICATION, BACKEND, COLLECTOR, DEADLINE, SOURCE, ProcessCase, Vlmmaster, wait_until
from servers import NOW, VlmBackend, envelope, positions

CONTRACT = yaml.safe_load((SOURCE / "backend/api/openapi.yaml").read_text())
SAMPLES = 3000
JSON_TYPE = {"Content-Type": "application/json"}


class Backend(VlmBackend):
    """It follows a file."""

    def __init__(self, folder, *arguments, listen="127.0.0.1:0", environment=None):
        self.file = Path(folder, "envelopes.jsonl")
        super().__init__(Path(folder, "vlm-backend.txt"), BACKEND, "--database", Path(folder, "vehicles.db"), "--prefix",
                         "vlm/bench", "--follow", self.file, "--listen", listen, *arguments,
                         env={**os.environ, **(environment or {})})
        self.wait_for("the page is at ")
        self.port = int(wait_until(lambda: re.search(r"the page is at \S+:(\d+)/?\n", self.text()), "its port")[1])

    def write(self, *lines):
        with open(self.file, "a") as file:
            file.writelines(line + "\n" for line in lines)

    def raw(self, data):
        """What comes for these bytes until the connection ends."""
        with socket.create_connection(("127.0.0.1", self.port), DEADLINE) as peer:
            peer.sendall(data)
            answer = b""
            with contextlib.suppress(ConnectionResetError):
                while part := peer.recv(65536):
                    answer += part
            return answer


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


class HttpTest(ProcessCase):
    def filled(self, *arguments, **options):
        backend = self.until_end(Backend(self.folder, *arguments, **options))
        backend.write(*(envelope(f"m-{n}", n, positions(n * 600, 600)) for n in range(SAMPLES // 600)),
                      '{"messageId":"broken","timestamp":1,"orxClientDataReport":"no report"}')
        backend.wait_for("kept aside")
        return backend


class Contract(HttpTest):
    def setUp(self):
        super().setUp()
        self.backend = self.filled()

    def tearDown(self):
        self.assertEqual(self.backend.stop(), 0)

    # The queries with which each path is asked; other paths have none.
    QUERIES = {"/api/vehicles/{vehicle}/samples": ["view=gnss_positions", "view=airbag_crash_info&limit=1"],
               "/api/vehicles/{vehicle}/track": ["", "points=10", f"from={NOW}&to={NOW + 1000}&instance=1"],
               "/api/vehicles/{vehicle}/series": ["column=gnss_positions.latitude&width=10",
                                                  "column=chassis_velocity_info.velocity_physical_value"],
               "/api/vehicles/{vehicle}/export": ["form=gpx", "form=jsonl", "form=csv&columns=gnss_positions.latitude"],
               "/api/vehicles": ["", "search=ENC&show=all&limit=1", "show=losses"],
               "/api/unusable": ["", "vehicle=bench"]}
    APART = {"/api/updates", "/api/machine"}  # tested below
    # Each request that changes something, and what it is answered with, in this order.
    CHANGES = (("POST", "/api/check", {"text": "{"}, 200),
               ("POST", "/api/configurations", {"name": "trip", "text": "{"}, 422),
               ("POST", "/api/configurations", {"name": "trip", "text": COLLECTOR}, 201),
               ("PUT", "/api/vehicles/{vehicle}/group", {"group": "fleet"}, 200),
               ("PUT", "/api/assignments", {"vehicle": "", "group": "fleet", "configuration": 1}, 200),
               ("PUT", "/api/assignments", {"vehicle": "", "group": "fleet", "configuration": 9}, 404),
               ("PUT", "/api/assignments", {"vehicle": "bench", "group": "fleet", "configuration": 1}, 400))

    def test_every_change_and_then_every_get_is_answered_as_described(self):
        for method, path, body, expected in self.CHANGES:
            with self.subTest(path, expected=expected):
                status, answer = self.backend.change(method, path.replace("{vehicle}", "bench"), body)
                self.assertEqual(status, expected, answer)
                described = schema_of(CONTRACT["paths"][path][method.lower()]["responses"][str(expected)])
                jsonschema.validate(answer, described["content"]["application/json"]["schema"])
        state = json.loads(self.backend.ask("/api/vehicles/bench")[2])
        self.assertEqual((state["group"], state["configuration"]["desired"], state["configuration"]["state"]),
                         ("fleet", 1, "waiting"))
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
        for target, status in (("/api/vehicles/none", 404), ("/api/none", 404), ("/api/vehicles/bench/series", 400),
                               ("/api/unusable/1x", 400), ("/api/machine", 404), ("/../etc/passwd", 404), ("/%2e%2e/%2e%2e/etc/passwd", 404), ("//etc/passwd", 404),
                               ("/assets/..%2f..%2fetc/passwd", 404), ("/api/" + "a" * 9000, 414)):
            answer = ask(target)
            self.assertEqual(answer[0], status, target)
            self.assertTrue(json.loads(answer[2])["error"], target)
        self.assertEqual(ask("/api/vehicles", "DELETE", JSON_TYPE)[0], 405)
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
        # These keep other sites out.
        headers = ask("/")[1]
        self.assertIn("default-src 'none'", headers["Content-Security-Policy"])
        self.assertNotIn("unsafe", headers["Content-Security-Policy"])
        self.assertEqual(headers["X-Content-Type-Options"], "nosniff")
        self.assertNotIn("Access-Control-Allow-Origin", headers)


class Updates(HttpTest):
    def test_readers_get_what_changes_and_are_limited(self):
        backend = self.filled()

        def reader(until):
            peer = until.enter_context(socket.create_connection(("127.0.0.1", backend.port), DEADLINE))
            peer.sendall(b"GET /api/updates HTTP/1.1\r\nHost: localhost\r\n\r\n")
            return peer
        with contextlib.ExitStack() as first, contextlib.ExitStack() as further:
            events = first.enter_context(reader(first).makefile("rb"))
            self.assertTrue(any(line.startswith(b"event: vehicles") for line in events))
            self.assertTrue(any(b'"reports":5' in line for line in events))
            for number in range(100, 105):
                backend.write(envelope(f"m-{number}", number, positions(number * 600, 10)))
            self.assertTrue(any(b'"reports":10' in line for line in events))
            # More readers than are served, and half of the connections of which nobody reads.
            answers = [reader(further).recv(12) for _ in range(40)]
            self.assertEqual([answers.count(b"HTTP/1.1 " + status) for status in (b"200", b"503")], [31, 9])
            self.assertEqual(backend.ask("/api/vehicles/bench")[0], 200)
            further.close()
            wait_until(lambda: b"vlm_backend_update_readers 1" in backend.ask("/metrics")[2],
                       "that readers that have gone are not counted")
            began = time.monotonic()
            self.assertEqual(backend.stop(), 0)
        self.assertLess(time.monotonic() - began, 5)


class Downloads(HttpTest):
    def test_slow_ones_are_not_cut_and_hold_neither_others_nor_the_log_of_the_database_up(self):
        backend = self.until_end(Backend(self.folder))

        def write(numbers):
            samples = [{"timestamp": str(NOW), "propertyValuePairs": {"text": os.urandom(1 << 19).hex()}}]
            backend.write(*(envelope(f"m-{number}", number, samples) for number in numbers))
            wait_until(lambda: b"vlm_backend_envelopes_total %d\n" % (numbers[-1] + 1) in backend.ask("/metrics")[2], "all stored")
        write(range(8))
        target = "/api/vehicles/bench/export?form=jsonl"
        whole = len(backend.ask(target)[2])
        peers = [self.enterContext(socket.socket()) for _ in range(8)]  # more than there are connections to the database
        for peer in peers:
            peer.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
            peer.connect(("127.0.0.1", backend.port))
            peer.sendall(f"GET {target} HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n".encode())
        taken, began = 0, time.monotonic()
        while time.monotonic() - began < 12:  # 20 kB/s
            taken += [len(peer.recv(4096)) for peer in peers][0]
            self.assertEqual(backend.ask("/healthz")[0], 200)
            time.sleep(0.2)
        write(range(8, 30))
        wait_until(lambda: int(re.search(rb"vlm_backend_wal_bytes (\d+)", backend.ask("/metrics")[2])[1]) < 8 << 20,
                   "a log that is emptied")
        while part := peers[0].recv(1 << 20):
            taken += len(part)
        self.assertGreater(taken, whole)


class Access(HttpTest):
    def refuse(self, *arguments):
        done = subprocess.run([BACKEND, "--database", f"{self.folder}/v.db", *arguments], text=True, capture_output=True,
                              timeout=DEADLINE, check=False)
        self.assertEqual(done.returncode, 1)
        return done.stderr

    def test_other_machines_need_users_and_tls(self):
        certificate, key, file = (f"{self.folder}/{name}" for name in ("cert.pem", "key.pem", "users"))
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=localhost",
                        "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1", "-keyout", key, "-out", certificate],
                       check=True, capture_output=True)
        secure = ["--http-cert", certificate, "--http-key", key]
        users = ["--users", file]
        for name, role in (("eva", "view"), ("udo", "configure")):
            subprocess.run([BACKEND, *users, "--add-user", name, "--role", role], input=f"{name}'s password\n",
                           text=True, check=True, stdout=subprocess.DEVNULL, timeout=DEADLINE)
        self.assertEqual(Path(file).stat().st_mode & 0o777, 0o600)
        self.assertNotIn("password", Path(file).read_text())
        anywhere = ["--listen", "0.0.0.0:0"]
        self.assertRegex(self.refuse(*anywhere), "users .*token.* and TLS")
        self.assertRegex(self.refuse(*anywhere, *users), r"needs TLS")
        self.assertRegex(self.refuse(*anywhere, *secure), r"needs users .*token \(VLM_BACKEND_TOKEN\)\n")
        self.assertIn("--listen", self.refuse("--listen", "localhost"))
        self.assertIn("contains / + or #", self.refuse("--prefix", "vlm/+", "--import", "/dev/null"))
        self.assertIn("--add-user creates it", self.refuse("--users", f"{self.folder}/none", "--listen", "127.0.0.1:0"))
        backend = self.filled(*users, *secure, listen="0.0.0.0:0", environment={"VLM_BACKEND_TOKEN": "s3cret"})
        backend.context = ssl.create_default_context(cafile=certificate)

        def ask(target, authorization=None):
            return backend.ask(target, headers={"Authorization": authorization} if authorization else {})
        eva, udo = ("Basic " + base64.b64encode(f"{name}:{name}'s password".encode()).decode() for name in ("eva", "udo"))
        self.assertEqual(ask("/healthz")[0], 200)
        for target in ("/", "/api/vehicles", "/api/updates", "/metrics"):
            status, headers, _ = ask(target)
            self.assertEqual(status, 401, target)
            self.assertIn("Basic", headers["WWW-Authenticate"])
        self.assertEqual(json.loads(ask("/api/session", eva)[2])["role"], "view")
        self.assertEqual(json.loads(ask("/api/session", udo)[2])["user"], "udo")
        self.assertEqual(json.loads(ask("/api/session", "Bearer s3cret")[2])["role"], "configure")
        for path in (path for path, item in CONTRACT["paths"].items() if "put" in item):
            answer = backend.ask(path.replace("{vehicle}", "bench"), "PUT", {**JSON_TYPE, "Authorization": eva}, "{}")
            self.assertIn(answer[0], (403, 404), path)
        # A connection that never speaks TLS, and one that never ends its request, hold nobody up.
        with socket.create_connection(("127.0.0.1", backend.port)) as silent:
            silent.sendall(b"GET / HTTP/1.1\r\n")
            began = time.monotonic()
            self.assertEqual(ask("/healthz")[0], 200)
        self.assertLess(time.monotonic() - began, 30)

    def test_a_prometheus_reads_the_metrics(self):
        backend = self.filled()
        value = self.start_prometheus(f"127.0.0.1:{backend.port}")
        wait_until(lambda: value("vlm_backend_samples_total") == SAMPLES, "the samples in Prometheus", period=0.3)
        self.assertEqual(value("vlm_backend_envelopes_total"), SAMPLES // 600 + 1)
        self.assertEqual(value("vlm_backend_database_up"), 1)


class ThisMachine(ProcessCase):
    def test_status_and_log_lines_of_a_vlmmaster_that_ends_and_comes_back(self):
        master = self.until_end(Vlmmaster(["-c", APPLICATION], self.folder))
        log = self.write("log", "2026-03-11 14:05:09.123 3 seen\n2026-03-11 14:05:09.123 5 not\n")
        backend = self.until_end(Backend(self.folder, "--machine", master.socket, "--machine-log", log))
        schema = schema_of(CONTRACT["paths"]["/api/machine"]["get"]["responses"]["200"]["content"]["application/json"]["schema"])

        def ask():
            answer = json.loads(backend.ask("/api/machine")[2])
            jsonschema.validate(answer, schema)
            return answer
        for _ in range(2):
            answer = wait_until(lambda: (found := ask())["running"] and found, "the status")
            self.assertEqual(answer["status"]["process"]["pid"], master.process.pid)
            self.assertEqual(answer["lines"], ["2026-03-11 14:05:09.123 3 seen"])
            master.stop()
            self.assertFalse(ask()["running"])
            self.assertIn("no process answers", ask()["reason"])
            master.start()
