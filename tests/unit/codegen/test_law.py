"""The descriptions and the catalog against what every service must be."""

import json
import os
import unittest
from pathlib import Path

from support import SOURCE, key_values, law
from vlmgen import model, source


def described_services():
    problems = source.Problems()
    services = model.load(SOURCE / "interfaces", problems)
    assert not problems, "\n".join(problems.lines())
    return {service.adapter: service for service in services}


class DescriptionsFollowTheLaw(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.services = described_services()

    def test_exactly_the_known_events_are_described(self):
        described = [(adapter, event.name) for adapter, service in self.services.items() for event in service.events]
        self.assertCountEqual(described, [(row[0], row[3]) for row in law("events")])

    def test_every_event_has_its_namespace_key_writers_and_members(self):
        for adapter, registry_key, namespace, name, key, writers, members in law("events"):
            with self.subTest(adapter=adapter, event=name):
                service = self.services[adapter]
                event = next(event for event in service.events if event.name == name)
                self.assertEqual(service.registry_key or "-", registry_key)
                self.assertEqual(service.ns, namespace)
                self.assertEqual(event.key.name if event.key else "-", key)
                if key == "-":
                    self.assertEqual([field.name for field in event.fields], members.split())
                else:
                    self.assertEqual([writer.key_value for writer in event.writers], key_values(writers))
                    added = {field.name for writer in event.writers for field in writer.fields}
                    self.assertEqual(len(added), int(members), sorted(added))

    def test_writers_that_are_laid_down_write_exactly_those_fields(self):
        for adapter, name, key_value, fields in law("written_fields"):
            with self.subTest(adapter=adapter, event=name, key_value=key_value):
                event = next(event for event in self.services[adapter].events if event.name == name)
                writer = next(writer for writer in event.writers if writer.key_value == int(key_value))
                self.assertEqual([field.name for field in writer.fields], fields.split())

    def test_the_registry_makes_its_adapters_in_order(self):
        registered = sorted((s for s in self.services.values() if s.registry_key), key=lambda s: s.registry_order)
        self.assertEqual([[str(place), s.registry_key, s.adapter] for place, s in enumerate(registered, start=1)],
                         law("registry"))

    def test_the_radar_information_keeps_its_misspelled_field(self):
        event = next(e for e in self.services["VLMACC"].events if e.name == "additionalRadarInformation")
        self.assertIn("unvailability", [field.name for field in event.fields])


class CatalogFollowsTheLaw(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        path = Path(os.environ["VLM_GENERATED_DIR"]) / "VLM_Available_Signals_Catalog_20210311.json"
        cls.catalog = json.loads(path.read_text(encoding="utf-8"))
        cls.services = cls.catalog["services"]
        cls.described = described_services()

    def test_it_names_its_version(self):
        self.assertIsInstance(self.catalog["meta"]["vlmVersion"], str)
        self.assertTrue(self.catalog["meta"]["vlmVersion"])

    def test_a_service_name_with_proxy_appended_is_a_key_of_the_registry(self):
        self.assertEqual(sorted(name + "Proxy" for name in self.services), sorted(row[1] for row in law("registry")))

    def test_every_event_of_a_registered_service_is_a_resource_with_its_key_and_instances(self):
        resources = {}
        for adapter, registry_key, _, name, key, writers, members in law("events"):
            if registry_key == "-":
                continue
            service = registry_key.removesuffix("Proxy")
            resources.setdefault(service, set()).add(name)
            with self.subTest(service=service, resource=name):
                resource = self.services[service][name]
                self.assertIsInstance(resource["loadFactor"], int)
                self.assertIsInstance(resource["serviceId"], str)
                instances = resource["instances"]
                listed = {instance: [entry["property"] for entry in entries]
                          for instance, entries in instances.items()}
                if key == "-":
                    first = self.first_field(adapter, name)
                    self.assertEqual(resource["someipKeyProperty"], first.name)
                    self.assertEqual([int(i) for i in instances], first.possible_values())
                    for properties in listed.values():
                        self.assertEqual(properties, members.split())
                else:
                    self.assertEqual(resource["someipKeyProperty"], key)
                    self.assertEqual([int(i) for i in instances], key_values(writers))
                    self.assertEqual(len({name for properties in listed.values() for name in properties}),
                                     int(members))
                for entries in instances.values():
                    for entry in entries:
                        self.assertIsInstance(entry["privacy_group"], int)
                        self.assertTrue(entry["signal"])
        self.assertEqual({name: set(service) for name, service in self.services.items()}, resources)

    def first_field(self, adapter, event_name):
        return next(event for event in self.described[adapter].events if event.name == event_name).fields[0]

    def test_writers_that_are_laid_down_can_be_asked_for_field_by_field(self):
        for adapter, name, key_value, fields in law("written_fields"):
            service = next(row[1] for row in law("events") if row[0] == adapter).removesuffix("Proxy")
            entries = self.services[service][name]["instances"][key_value]
            self.assertEqual([entry["property"] for entry in entries], fields.split())


if __name__ == "__main__":
    unittest.main()
