#!/usr/bin/env python3
"""Samples from vlm-vehicle become records of vlmmaster over IPv6.

To be run by tests/support/with-ipv6, in the environment of tests/support/processes.py.
"""
import json
import os
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../support"))
from processes import ProcessCase, Vehicle, Vlmmaster, free_udp_port  # noqa: E402

NETWORKS = {"usual": ("fd00::1", "fd00::2", "fd00::/64", "ff05::4:c0de"),
            "link-local": ("fe80::1%v0", "fe80::2%v0", "fe80::/64", "ff02::4:c0de")}


class OverIpv6(ProcessCase):
    def test_samples_become_records_over_udp_and_tcp(self):
        application = self.write("vlm.json", json.dumps({"OfferedDataTypes": ["a"]}))
        collector = self.write("collector.json", json.dumps({
            "CONFIG": [{"name": "ipv6", "version": "1"}],
            "CLOCK": [{"name": "tick", "duration": 60000}],
            "REPORT": [{"name": "all", "application": "test", "from": ["position"]}],
            "COLLECT": [{"name": "position", "serv": "GNSS", "res": "positions", "index": 1, "on": "tick"}]}))
        for name, (own, vehicle_address, network, group) in NETWORKS.items():
            for transport in ([], ["--tcp"]):
                with self.subTest(network=name, transport=transport):
                    port = free_udp_port()
                    folder = tempfile.mkdtemp(dir=self.folder)
                    master = Vlmmaster(["-c", application, "-l", collector], folder, address=own, port=port,
                                       manifest={"someip": {"network": network, "discovery": {"group": group}}})
                    self.addCleanup(master.kill)
                    vehicle = Vehicle(folder, port, "--services", "GNSS", "--period-ms", "50", "--network", network,
                                      "--address", vehicle_address, "--group", group, *transport)
                    self.addCleanup(vehicle.end)
                    master.wait_for(f"found at [{vehicle_address}]:")
                    master.wait_for_count("records.collected", 20)
                    self.assertEqual(master.count("someip.tcp.connected") == 1, bool(transport))
                    self.assertEqual(master.stop(), 0, master.text())
                    vehicle.end()


if __name__ == "__main__":
    unittest.main()
