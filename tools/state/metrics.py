#!/usr/bin/env python3
"""metrics.py STATUS_MD OUTPUT.cpp: the names, kinds and meanings in the tables of docs/status.md, as a C++ table for
vlm-status. So the page and the metrics' help texts are one text."""
import re
import sys

ROW = re.compile(r"^\| `([A-Za-z.]+)` \| (\w+) \| (.*) \|$")
KINDS = {"counter": "Counter", "gauge": "Gauge", "histogram": "Histogram", "text": "Text"}


def rows(lines):
    """(name, kind, meaning) of each row; exits when two have the same name or a kind is unknown."""
    found = {}
    for line in lines:
        row = ROW.match(line.rstrip("\n"))
        if not row:
            continue
        name, kind, meaning = row.groups()
        if name in found or kind not in KINDS:
            sys.exit(f"docs/status.md: {name} is {'there twice' if name in found else f'of an unknown kind, {kind}'}")
        found[name] = (kind, meaning.replace("`", ""))
    return [(name, *rest) for name, rest in sorted(found.items())]


def main():
    source, output = sys.argv[1:]
    with open(source) as page:
        table = rows(page)
    with open(output, "w") as out:
        out.write('// Generated from docs/status.md by metrics.py.\n#include "tools/state/Metrics.h"\n\n'
                  "namespace tools {\n\nconst std::vector<MetricDescription>& metricDescriptions() {\n"
                  "    static const std::vector<MetricDescription> table{\n")
        for name, kind, meaning in table:
            out.write('        {"%s", MetricKind::%s, "%s"},\n' % (name, KINDS[kind], meaning.replace("\\", "\\\\").replace('"', '\\"')))
        out.write("    };\n    return table;\n}\n\n}  // namespace tools\n")


if __name__ == "__main__":
    main()
