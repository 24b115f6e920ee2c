"""vlm-status as metrics of a real vlmmaster: Prometheus scrapes them, promtool accepts them, and a bug report's bundle has
no payloads.

The environment is that of tests/support/processes.py, and VLM_STATUS.
"""
import hashlib
import json
import os
import re
import subprocess
import urllib.request
from pathlib import Path

from processes import APPLICATION, COLLECTOR, ProcessCase, Vehicle, Vlmmaster, free_udp_port, wait_until

VLM_STATUS = os.environ["VLM_STATUS"]
OPEN = {"Accept": "application/openmetrics-text; version=1.0.0"}


def fetched(url, headers=None):
    with urllib.request.urlopen(urllib.request.Request(url, headers=headers or {}), timeout=30) as answer:
        return answer.headers["Content-Type"], answer.read().decode()


class MetricsTest(ProcessCase):
    def setUp(self):
        super().setUp()
        port = free_udp_port()
        self.master = self.until_end(Vlmmaster(["-c", APPLICATION, "-l", self.write("collector.json", COLLECTOR)],
                                               self.folder, port=port))
        self.until_end(Vehicle(self.folder, port, "--services", "GNSS"))
        self.master.wait_for_count("records.collected", 3)

    def status(self, *arguments):
        return subprocess.run([VLM_STATUS, *arguments, "--socket", self.master.socket], capture_output=True, text=True,
                              check=True, timeout=60).stdout

    def exporter(self, path):
        """The exporter's address; it serves until the end of the test."""
        exporter = self.start_peer(os.path.basename(path), VLM_STATUS, "--listen", "127.0.0.1:0", "--socket", path)
        return wait_until(lambda: re.search(r"(http://\S+)\s", exporter.text()), exporter.text)[1]

    def test_every_value_of_the_status_is_a_described_metric_that_promtool_accepts(self):
        text = self.status("--openmetrics")
        helped = set(re.findall(r"^# HELP (\S+) \S", text, flags=re.M))
        families = set(re.findall(r"^# TYPE (\S+) \S", text, flags=re.M))
        self.assertEqual(families - helped, set())
        for name in ("vlm_samples_received", "vlm_records_waiting", "vlm_latency_event_to_output_seconds", "vlm_clock_jumps"):
            self.assertIn(name, families)
        self.need("promtool")
        found = subprocess.run(["promtool", "check", "metrics"], input=self.status("--prometheus"), capture_output=True,
                               text=True, timeout=60)
        self.assertEqual((found.returncode, found.stdout + found.stderr), (0, ""))

    def test_the_exporter_chooses_the_format_and_outlives_vlmmaster(self):
        url = self.exporter(self.master.socket)
        kind, text = fetched(url, OPEN)
        self.assertTrue(kind.startswith("application/openmetrics-text"))
        self.assertTrue(text.endswith("# EOF\n"))
        kind, text = fetched(url)
        self.assertTrue(kind.startswith("text/plain"))
        self.assertIn("\nvlm_up 1\n", text)
        self.assertIn("\nvlm_up 0\n", fetched(self.exporter(os.path.join(self.folder, "nobody")))[1])

    def test_prometheus_scrapes(self):
        value = self.start_prometheus(self.exporter(self.master.socket).split("/")[2])
        wait_until(lambda: value("vlm_samples_received_total") >= 3, "samples in Prometheus", period=0.3)
        self.assertEqual(value("vlm_up"), 1)
        self.assertGreaterEqual(value('vlm_latency_event_to_output_seconds_bucket{le="+Inf"}'), 3)

    def test_a_bundle_has_digests_and_no_payloads(self):
        file = os.path.join(self.folder, "bundle.json")
        self.status("--bundle", file)
        text = Path(file).read_text()
        bundle = json.loads(text)
        self.assertEqual(bundle["configuration"]["application"]["sha256"],
                         hashlib.sha256(APPLICATION.read_bytes()).hexdigest())
        self.assertEqual(set(bundle["configuration"]), {"application", "collector", "manifest", "catalog"})
        self.assertGreaterEqual(bundle["status"]["samples"]["received"], 3)
        self.assertEqual(bundle["versions"]["vlm-status"], bundle["status"]["process"]["version"])
        for secret in ("latitude", "OfferedDataTypes", "propertyValuePairs"):
            self.assertNotIn(secret, text)
