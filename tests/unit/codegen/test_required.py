"""What every event of every service must have, independent of its description: the tables in required/."""

import re
import unittest
from pathlib import Path

from support import SOURCE
from vlmgen import model, outputs, source


def required(table):
    lines = Path(__file__).with_name("required").joinpath(f"{table}.psv").read_text(encoding="utf-8").splitlines()
    return [line.split("|") for line in lines if not line.startswith("#")]


def names_of(fields):
    return [field.name for field in fields]


class Required(unittest.TestCase):
    def test_each_event_has_its_key_writers_and_members_and_each_adapter_its_place(self):
        services = model.load(SOURCE / "interfaces", source.Problems())
        rows, written = [], {}
        for service in services:
            for event in service.events:
                values, members = "-", " ".join(names_of(event.fields))
                if event.key:
                    added = {name for writer in event.writers for name in names_of(writer.fields)} - {event.key.name}
                    values, members = " ".join(str(writer.key_value) for writer in event.writers), str(len(added))
                rows.append([service.adapter, service.registry_key or "-", service.ns, event.name,
                             event.key.name if event.key else "-", values, members])
                written.update({(service.adapter, event.name, str(writer.key_value)): names_of(writer.fields)
                                for writer in event.writers})
        self.assertCountEqual(rows, required("events"))
        for *writer, fields in required("written_fields"):
            self.assertEqual(written[tuple(writer)], fields.split(), writer)
        registry = dict(outputs.contents(services, ""))["services/adapters/RegisteredAdapters.cpp"]
        created = re.findall(r"make\(proxyNames::(\w+), make(\w+)\)", registry)
        self.assertEqual([[str(place), *one] for place, one in enumerate(created, 1)], required("registry"))
