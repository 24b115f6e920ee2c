"""The generated catalog against what every service must be."""

import json
import os
import unittest
from pathlib import Path

from support import SOURCE, key_values, law
from vlmgen import model, source


class CatalogFollowsTheLaw(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        path = Path(os.environ["VLM_GENERATED_DIR"]) / "VLM_Available_Signals_Catalog_20210311.json"
        cls.catalog = json.loads(path.read_text(encoding="utf-8"))
        cls.services = cls.catalog["services"]
        problems = source.Problems()
        cls.described = {service.adapter: service for service in model.load(SOURCE / "interfaces", problems)}
        assert not problems, "\n".join(problems.lines())

    def test_a_service_name_with_proxy_appended_is_a_key_of_the_registry(self):
        self.assertTrue(self.catalog["meta"]["vlmVersion"])
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
                    first = next(event for event in self.described[adapter].events if event.name == name).fields[0]
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

    def test_writers_that_are_laid_down_can_be_asked_for_field_by_field(self):
        for adapter, name, key_value, fields in law("written_fields"):
            service = next(row[1] for row in law("events") if row[0] == adapter).removesuffix("Proxy")
            entries = self.services[service][name]["instances"][key_value]
            self.assertEqual([entry["property"] for entry in entries], fields.split())
        radar = self.services["ACC"]["additionalRadarInformation"]["instances"]["1"]
        self.assertIn("unvailability", [entry["property"] for entry in radar])  # misspelled on purpose


if __name__ == "__main__":
    unittest.main()
