#!/usr/bin/env python3
"""Generates from the service descriptions what the build and the documentation need.

    generate.py --interfaces DIR --check             only reports errors in the descriptions
    generate.py --interfaces DIR --output DIR        bindings, adapters, catalog, Wireshark tables
    generate.py --interfaces DIR --docs DIR          a Markdown reference page per service
    generate.py --interfaces DIR --list              the files that --output would write, without checking

Writes a file only when its content changes. Exit status 1 when a description is refused; standard error gives
each reason as file:line: reason.
"""

import argparse
import re
import sys
from pathlib import Path

from vlmgen import model, names, outputs, source


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--interfaces", type=Path, required=True, metavar="DIR", help="folder of the descriptions")
    parser.add_argument("--output", type=Path, metavar="DIR", help="generated folder of the build tree")
    parser.add_argument("--docs", type=Path, metavar="DIR", help="folder for the reference pages")
    parser.add_argument("--catalog-version", default="20210311", help="\"vlmVersion\" of the signal catalog")
    parser.add_argument("--check", action="store_true", help="check the descriptions and stop")
    parser.add_argument("--list", action="store_true", help="list the generated files and stop")
    arguments = parser.parse_args()
    if not (arguments.output or arguments.docs or arguments.check or arguments.list):
        parser.error("one of --output, --docs, --check and --list is needed")

    if arguments.list:
        print("\n".join(outputs.file_names(list(declared_services(arguments.interfaces)))))
        return 0

    problems = source.Problems()
    services = model.load(arguments.interfaces, problems)
    if problems:
        print("\n".join(problems.lines()), file=sys.stderr)
        return 1
    if arguments.output:
        for name, text in outputs.contents(services, arguments.catalog_version):
            write(arguments.output / name, text)
    if arguments.docs:
        for name, text in outputs.pages(services):
            write(arguments.docs / name, text)
    return 0


def declared_services(folder):
    """Namespace and adapter of each description. Ignores errors: the build reports them better than its
    configuration could."""
    for path in sorted(folder.glob("*.yaml")):
        declared = re.search(r"^service:\s*['\"]?([A-Za-z0-9]+)", path.read_text(encoding="utf-8", errors="replace"),
                             re.MULTILINE)
        if declared:
            yield names.namespace(declared.group(1)), names.adapter(declared.group(1))


def write(path, text):
    data = text.encode("utf-8")
    if path.is_file() and path.read_bytes() == data:
        return
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(data)


if __name__ == "__main__":
    sys.exit(main())
