"""Wrong descriptions are refused, each with file, line and reason."""

import unittest

from support import Folder, generate
from vlmgen import model, source

GOOD = """\
service: Spring
summary: Water of a spring.
registry: {key: SpringProxy, order: 1}
someip: {serviceId: 0x1101, majorVersion: 1, minorVersion: 0}
enumerations:
  Kind:
    base: uint8
    summary: Which water.
    values:
      - {value: 1, name: tap}
      - {value: 2, name: spring}
events:
  flows:
    summary: How much flows.
    someip: {eventId: 0x8001}
    cycle: 100
    key: kind
    fields:
      kind: {type: Kind, meaning: Which water.}
      flow: {type: double, unit: l/min, range: [0, 10], meaning: Amount.}
      age: {type: uint16, meaning: Days under ground.}
    writers:
      1: {meaning: Tap., fields: [flow]}
      2: {meaning: Spring., fields: [flow, age]}
  alarms:
    summary: What is wrong.
    someip: {eventId: 0x8002}
    cycle: 1000
    fields:
      kind: {type: Kind, meaning: Which water.}
"""

# Errors: text of the good description, its replacement, line of the refusal, part of the reason.
WRONG = [
    ("an unknown key", "    cycle: 100\n", "    cycle: 100\n    period: 5\n", 17, "'period' is no key of this event"),
    ("a doubled key", "    cycle: 100\n", "    cycle: 100\n    cycle: 5\n", 17, "'cycle' is given twice"),
    ("an unclosed bracket", "fields: [flow]}", "fields: [flow}", 23, "not YAML"),
    ("a missing key", "summary: Water of a spring.\n", "", 1, "'summary' is missing"),
    ("a text for a number", "cycle: 100", "cycle: often", 16, "'cycle' must be a whole number, not a text"),
    ("a number out of range", "cycle: 100", "cycle: 0", 16, "'cycle' must be between"),
    ("a doubled enumerator", "name: spring}", "name: tap}", 11, "enumerator 'tap' is given twice"),
    ("two enumerators of one value", "value: 2,", "value: 1,", 11, "'tap' and 'spring' have the same value 1"),
    ("events that differ in case only", "  alarms:", "  fLows:", 25, "'fLows' differs from 'flows' in case only"),
    ("a member of every record", "      age: {", "      timestamp: {", 21, "the record's own member"),
    ("a C++ word as a field", "      age: {", "      double: {", 21, "field 'double' is a C++ word"),
    ("a macro as a field", "      age: {", "      errno: {", 21, "'errno' is a macro"),
    ("a field in upper camel case", "      age: {", "      Age: {", 21, "field 'Age' must be lower camel case"),
    ("a namespace that hides another", "service: Spring", "service: Std", 1, "would make the namespace 'std'"),
    ("an unknown type", "type: uint16", "type: uint24", 21, "type 'uint24' is neither a scalar nor an enumeration"),
    ("a range that does not fit", "type: uint16,", "type: uint16, range: [0, 70000],", 21, "does not fit uint16"),
    ("a key that is no field", "key: kind", "key: sort", 17, "key 'sort' is no field"),
    ("a key without writers", "    writers:\n      1: {meaning: Tap., fields: [flow]}\n      2: {meaning: Spring., fields:"
     " [flow, age]}\n", "", 14, "'writers' is missing"),
    ("writers without a key", "    key: kind\n", "", 21, "has writers but no key"),
    ("a writer of a missing field", "[flow, age]", "[flow, taste]", 24, "names 'taste', which is no field"),
    ("a field written twice", "[flow, age]", "[flow, flow]", 24, "names 'flow' twice"),
    ("a writer for no value of the key", "      2: {m", "      3: {m", 24, "Kind has no enumerator of that value"),
    ("a doubled event id", "eventId: 0x8002", "eventId: 0x8001", 27, "event id 0x8001 is also that of 'flows'"),
    ("a doubled eventgroup", "eventId: 0x8002", "eventId: 0x8002, eventgroup: 1", 27,
     "eventgroup 0x0001 is also that of 'flows'"),
    ("an unkeyed event whose first field cannot be enumerated", "cycle: 1000\n    fields:\n", "cycle: 1000\n    fields:"
     "\n      amount: {type: uint8, meaning: Much.}\n", 30, "'amount' selects the instance of the unkeyed event 'alarms'"),
]


SECOND = GOOD.replace("Spring", "Well").replace("order: 1", "order: 2").replace("0x1101", "0x1102")


class Refusals(unittest.TestCase):
    def refusals(self, files):
        with Folder() as folder:
            for name, text in files.items():
                folder.write(name, text)
            problems = source.Problems()
            model.load(folder.path, problems)
            return problems.lines()

    def test_each_error_is_reported_with_file_line_and_reason(self):
        for what, good, wrong, line, reason in WRONG:
            with self.subTest(what):
                self.assertIn(good, GOOD)
                refusals = self.refusals({"spring.yaml": GOOD.replace(good, wrong, 1)})
                named = [text.split(": ")[0] for text in refusals if reason in text]
                self.assertEqual(named, [f"interfaces/spring.yaml:{line}"], refusals)

    def test_a_collision_of_two_files_is_reported_in_the_second(self):
        self.assertEqual(self.refusals({"spring.yaml": GOOD, "well.yaml": SECOND}), [])
        for what, change, line in (
                ("service id 0x1101", ("0x1102", "0x1101"), 4),
                ("registry key 'SpringProxy'", ("WellProxy", "SpringProxy"), 3),
                ("registry order '1'", ("order: 2", "order: 1"), 3)):
            with self.subTest(what):
                self.assertEqual(self.refusals({"spring.yaml": GOOD, "well.yaml": SECOND.replace(*change)}),
                                 [f"interfaces/well.yaml:{line}: {what} is also that of interfaces/spring.yaml"])

    def test_the_program_reports_all_errors_of_all_files_in_order_and_writes_nothing(self):
        with Folder() as folder:
            folder.write("spring.yaml",
                         GOOD.replace("type: uint16", "type: uint24").replace("cycle: 100\n", "cycle: x\n"))
            folder.write("well.yaml", "service: [1]\n")
            output = folder.path.parent / "out"
            result = generate(folder.path, "--output", output)
            self.assertEqual(result.returncode, 1)
            self.assertFalse(output.exists())
        places = [line.split(": ")[0] for line in result.stderr.splitlines()]
        self.assertEqual(places[:2], ["interfaces/spring.yaml:16", "interfaces/spring.yaml:21"])
        self.assertIn("interfaces/well.yaml:1", places[2:])

    def test_content_of_any_shape_is_refused_without_a_crash(self):
        for text in ("", "[]", "text", "service: {a: b}", "events: 5", "{[a]: b}", "\tx", "service: Spring\nevents: {e: 1}",
                     "events: {e: {fields: {f: {range: 7}}}}", "events: {e: {fields: {f: {type: [x]}}, key: [f]}}",
                     "events: {e: {key: f, fields: {f: {type: uint8}}, writers: {1: {fields: [{a: b}, [c]]}}}}",
                     "enumerations: {E: {values: [5, {value: x, name: [y]}]}}", "registry: [1]", "\xff: &a [*a]"):
            with self.subTest(text):
                refusals = self.refusals({"spring.yaml": text})
                self.assertTrue(refusals)
                for refusal in refusals:
                    self.assertRegex(refusal, r"\Ainterfaces/spring\.yaml:\d+: ")


if __name__ == "__main__":
    unittest.main()
