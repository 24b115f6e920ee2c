"""The Wireshark tables decode what the descriptions say that events look like on the wire."""

import os
import shutil
import struct
import subprocess
import unittest
import xml.etree.ElementTree
from pathlib import Path

from support import SOURCE, Folder
from vlmgen import model, outputs, source

PORT = 40001
# The dissector makes its value fields when a table changes after all of them were read.
REREAD = 'uat:SOMEIP_parameter_structs:"fffffff0","unused","32","0","FALSE","1","0","unused","1","00000001","unused"'
PACKED = {"bool": ">B", "uint8": ">B", "uint16": ">H", "uint32": ">I", "uint64": ">Q", "int8": ">b", "int16": ">h",
          "int32": ">i", "int64": ">q", "float": ">f", "double": ">d"}
ODD = SOURCE / "tests" / "unit" / "bindings" / "odd"


def sample_value(field):
    """A value that the field can have, and how tshark shows it."""
    if field.enumeration:
        last = field.enumeration.enumerators[-1]
        return last.value, str(last.value)
    if field.scalar == "string":
        return "Größe", "Größe"
    if field.scalar in ("float", "double"):
        return 12.5, "12.5"
    return 1, "1"


def member(field):
    value, _ = sample_value(field)
    if field.scalar == "string":
        text = b"\xef\xbb\xbf" + value.encode("utf-8") + b"\x00"
        return struct.pack(">HI", 7 << 12 | field.data_id, len(text)) + text
    packed = struct.pack(PACKED[field.scalar], value)
    return struct.pack(">H", (len(packed).bit_length() - 1) << 12 | field.data_id) + packed


def datagram(service, event):
    sample = b"".join(member(field) for field in event.fields)
    payload = struct.pack(">II", len(sample) + 4, len(sample)) + sample
    someip = struct.pack(">HHIHHBBBB", service.service_id, event.event_id, 8 + len(payload), 0, 1, 1,
                         service.major_version, 2, 0) + payload
    udp = struct.pack(">HHHH", PORT, PORT, 8 + len(someip), 0) + someip
    return struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), 1, 0, 64, 17, 0, b"\x7f\0\0\2", b"\x7f\0\0\1") + udp


def capture(path, datagrams):
    with path.open("wb") as file:
        file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101))  # 101: bare IP
        for data in datagrams:
            file.write(struct.pack("<IIII", 0, 0, len(data), len(data)) + data)


@unittest.skipUnless(shutil.which("tshark"), "tshark is not installed")
class Tables(unittest.TestCase):
    def decode(self, folder, tables, datagrams):
        path = folder / "events.pcap"
        capture(path, datagrams)
        environment = os.environ | {"WIRESHARK_CONFIG_DIR": str(tables), "HOME": str(folder), "LC_ALL": "C.UTF-8"}
        result = subprocess.run(["tshark", "-r", path, "-d", f"udp.port=={PORT},someip", "-o", REREAD, "-T", "pdml"],
                                capture_output=True, env=environment, check=True, text=True)
        self.assertNotIn("Error loading table", result.stderr)
        return xml.etree.ElementTree.fromstring(result.stdout).findall("packet")

    def check(self, services, packets):
        events = [(service, event) for service in services for event in service.events]
        self.assertEqual(len(packets), len(events))
        for (service, event), packet in zip(events, packets):
            with self.subTest(service=service.name, event=event.name):
                fields = {field.get("name"): field for field in packet.iter("field")}
                self.assertFalse([name for name in fields if "expert" in name or "unparsed" in name])
                self.assertEqual(fields["someip.servicename"].get("show"), service.name)
                self.assertEqual(fields["someip.methodname"].get("show"), event.name)
                for field in event.fields:
                    name = f"someip.payload.{service.ns}.{event.name.lower()}.{field.name.lower()}"
                    _, shown = sample_value(field)
                    whole = fields[name].get("showname")
                    self.assertTrue(whole.startswith(field.name + " ["), whole)
                    if field.scalar == "string":  # "show" repeats the name of a text
                        self.assertTrue(whole.endswith(shown), whole)
                    else:
                        self.assertEqual(fields[name].get("show"), shown, name)

    def test_every_event_of_every_service_is_decoded_member_by_member(self):
        services = model.load(SOURCE / "interfaces", source.Problems())
        with Folder() as folder:
            self.check(services, self.decode(folder.path, Path(os.environ["VLM_GENERATED_DIR"]) / "wireshark",
                                             [datagram(service, event) for service in services
                                              for event in service.events]))

    def test_every_scalar_type_and_a_signed_enumeration_are_decoded(self):
        services = model.load(ODD, source.Problems())
        with Folder() as folder:
            tables = folder.path / "tables"
            tables.mkdir()
            for name, text in outputs.contents(services, "1"):
                if name.startswith("wireshark/"):
                    (tables / Path(name).name).write_text(text, encoding="utf-8")
            self.check(services, self.decode(folder.path, tables, [datagram(service, event) for service in services
                                                                   for event in service.events]))


if __name__ == "__main__":
    unittest.main()
