"""The generator's output, where the build itself would not show a fault."""

import json
import unittest

import yaml

from support import SOURCE, Folder, generate
from test_refusals import GOOD
from vlmgen import model, names


class Files(unittest.TestCase):
    def test_exactly_the_listed_files_are_written_and_unchanged_ones_are_left_alone(self):
        with Folder() as folder:
            folder.write("spring.yaml", GOOD)
            output = folder.path.parent / "out"
            self.assertEqual(generate(folder.path, "--output", output).returncode, 0)
            times = {path: path.stat().st_mtime_ns for path in output.rglob("*") if path.is_file()}
            listed = generate(folder.path, "--list").stdout.split()
            self.assertCountEqual([str(path.relative_to(output)) for path in times], listed)

            folder.write("spring.yaml", GOOD.replace("meaning: Amount.", "meaning: How much."))
            generate(folder.path, "--output", output)
            changed = {path.name for path, time in times.items() if path.stat().st_mtime_ns != time}
            self.assertEqual(changed, {"datatypes.h", "described.cpp", "events.cpp"})

            generate(folder.path, "--docs", output)
            self.assertIn("| 1 | flow | double | l/min | 0 to 10 | How much. | all |",
                          (output / "spring.md").read_text(encoding="utf-8"))

    def test_a_wrong_description_still_lets_the_build_be_configured(self):
        with Folder() as folder:
            folder.write("spring.yaml", GOOD.replace("events:", "evnts:"))
            folder.write("noservice.yaml", "[")
            result = generate(folder.path, "--list")
            self.assertEqual(result.returncode, 0)
            self.assertIn("services/adapters/VLMSpring.cpp", result.stdout)


class Schema(unittest.TestCase):
    schema = json.loads((SOURCE / "interfaces" / "schema.json").read_text(encoding="utf-8"))

    def test_it_knows_the_same_keys_as_the_generator(self):
        parts = self.schema["definitions"]
        event = parts["event"]["properties"]
        keys = {
            "service": self.schema, "registry": self.schema["properties"]["registry"],
            "someip of the service": self.schema["properties"]["someip"], "enumeration": parts["enumeration"],
            "enumerator": parts["enumerator"], "event": parts["event"], "someip of the event": event["someip"],
            "field": parts["field"], "writer": parts["writer"],
        }
        self.assertEqual({name: set(part["properties"]) for name, part in keys.items()}, model.SCHEMA_KEYS)
        self.assertEqual(set(parts["field"]["properties"]["type"]["anyOf"][0]["enum"]), set(names.SCALARS))
        self.assertEqual(set(parts["enumeration"]["properties"]["base"]["enum"]), set(names.INTEGER_LIMITS))
        self.assertEqual(set(event["fields"]["propertyNames"]["allOf"][1]["not"]["enum"]), names.RECORD_MEMBERS)

    def test_it_accepts_every_description(self):
        try:
            import jsonschema
        except ImportError:
            self.skipTest("python3-jsonschema is not installed")
        validator = jsonschema.Draft7Validator(self.schema)
        for path in (SOURCE / "interfaces").glob("*.yaml"):
            description = json.loads(json.dumps(yaml.safe_load(path.read_text(encoding="utf-8"))))  # keys are texts
            errors = [error.message for error in validator.iter_errors(description)]
            self.assertEqual(errors, [], path.name)
