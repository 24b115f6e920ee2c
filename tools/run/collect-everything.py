#!/usr/bin/env python3
"""Writes a collector configuration that collects every instance of every resource of a signal catalog.

    tools/run/collect-everything.py CATALOG > examples/collector-everything.json

One report per service; of each instance the newest record of a tick. `make everything` does it with the
catalog of the build; a test tells when the file in examples/ is no longer that of the descriptions.
"""
import json
import sys


def lines(catalog):
    yield "// Collects every instance of every resource that the signal catalog names, one report per service."
    yield "// Made by tools/run/collect-everything.py; do not change it by hand."
    yield "{"
    yield f'  "CONFIG": [{{"name": "everything", "version": {json.dumps(catalog["meta"]["vlmVersion"])}}}],'
    yield '  "CLOCK": [{"name": "everyMinute", "duration": 60000}],'
    reports, collectors = [], []
    for service, resources in sorted(catalog["services"].items()):
        names = []
        for resource, described in sorted(resources.items()):
            for index in sorted(map(int, described["instances"])):
                name = f"{service}.{resource}.{index}"
                names.append(name)
                collectors.append({"name": name, "serv": service, "res": resource, "index": index, "on": "everyMinute"})
        reports.append((service, names))
    yield '  "REPORT": ['
    for number, (service, names) in enumerate(reports):
        yield f'    {{"name": "{service}", "application": "everything", "from": ['
        for place, name in enumerate(names):
            yield f"      {json.dumps(name)}" + ("," if place + 1 < len(names) else "")
        yield "    ]}" + ("," if number + 1 < len(reports) else "")
    yield "  ],"
    yield '  "COLLECT": ['
    for place, collector in enumerate(collectors):
        yield f"    {json.dumps(collector)}" + ("," if place + 1 < len(collectors) else "")
    yield "  ]"
    yield "}"


def main():
    if len(sys.argv) != 2 or sys.argv[1].startswith("-"):
        sys.exit(__doc__)
    with open(sys.argv[1], encoding="utf-8") as file:
        print("\n".join(lines(json.load(file))))


if __name__ == "__main__":
    main()
