"""Samples from vlm-vehicle become records of vlmmaster over IPv6.

To be run by tests/support/with-ipv6, in the environment of tests/support/processes.py.
"""
import tempfile

from processes import APPLICATION, COLLECTOR, ProcessCase, Vehicle, Vlmmaster, free_udp_port

NETWORKS = {"usual": ("fd00::1", "fd00::2", "fd00::/64", "ff05::4:c0de"),
            "link-local": ("fe80::1%v0", "fe80::2%v0", "fe80::/64", "ff02::4:c0de")}


class OverIpv6(ProcessCase):
    def test_samples_become_records_over_udp_and_tcp(self):
        collector = self.write("collector.json", COLLECTOR)
        for name, (own, vehicle_address, network, group) in NETWORKS.items():
            for transport in ([], ["--tcp"]):
                with self.subTest(network=name, transport=transport):
                    port = free_udp_port()
                    folder = tempfile.mkdtemp(dir=self.folder)
                    master = self.until_end(Vlmmaster(
                        ["-c", APPLICATION, "-l", collector], folder, address=own, port=port,
                        manifest={"someip": {"network": network, "discovery": {"group": group}}}))
                    vehicle = self.until_end(Vehicle(
                        folder, port, "--services", "GNSS", "--period-ms", "50", "--network", network,
                        "--address", vehicle_address, "--group", group, *transport))
                    master.wait_for(f"found at [{vehicle_address}]:")
                    master.wait_for_count("records.collected", 20)
                    self.assertEqual(master.count("someip.tcp.connected") == 1, bool(transport))
                    self.assertEqual(master.stop(), 0, master.text())
                    vehicle.kill()
