"""The generated files and their templates."""

import json
from pathlib import Path

import jinja2

from . import catalog, layout, names, reference, views, wireshark

TEMPLATES = Path(__file__).resolve().parent.parent / "templates"

# Per service: file (relative to the generated folder) and template.
PER_SERVICE = (
    ("qdr/services/{ns}/interface.h", "interface.h.j2"),
    ("qdr/services/{ns}/datatypes.h", "datatypes.h.j2"),
    ("qdr/services/{ns}/codec.cpp", "codec.cpp.j2"),
    ("qdr/services/{ns}/registration.cpp", "registration.cpp.j2"),
    ("qdr/services/{ns}/proxy.h", "proxy.h.j2"),
    ("qdr/services/{ns}/skeleton.h", "skeleton.h.j2"),
    ("qdr/services/{ns}/described.cpp", "service_described.cpp.j2"),
    ("services/adapters/{adapter}.h", "adapter.h.j2"),
    ("services/adapters/{adapter}.cpp", "adapter.cpp.j2"),
)
ONCE = (
    ("qdr/services/registration.cpp", "all_types.cpp.j2"),
    ("qdr/services/described.cpp", "all_described.cpp.j2"),
    ("services/adapters/RegisteredAdapters.h", "RegisteredAdapters.h.j2"),
    ("services/adapters/RegisteredNames.h", "RegisteredNames.h.j2"),
    ("services/adapters/RegisteredAdapters.cpp", "RegisteredAdapters.cpp.j2"),
    ("backend/events.cpp", "backend_events.cpp.j2"),
)
CATALOG = "VLM_Available_Signals_Catalog_20210311.json"


def file_names(services):
    """All files generated for the build, from pairs of namespace and adapter name."""
    for pattern, _ in PER_SERVICE:
        for ns, adapter in services:
            yield pattern.format(ns=ns, adapter=adapter)
    for name, _ in ONCE:
        yield name
    yield CATALOG
    for table in wireshark.TABLES:
        yield f"wireshark/{table}"


def contents(services, catalog_version):
    """Pairs of file name and text for the build."""
    environment = _environment()
    for pattern, template in PER_SERVICE:
        for service in services:
            yield (pattern.format(ns=service.ns, adapter=service.adapter),
                   layout.fit(environment.get_template(template).render(service=service)))
    registered = sorted((service for service in services if service.registry_key), key=lambda s: s.registry_order)
    for name, template in ONCE:
        yield name, layout.fit(environment.get_template(template).render(
            services=services, registered=registered, events=views.of(registered)))
    yield CATALOG, json.dumps(catalog.document(services, catalog_version), indent=2, ensure_ascii=False) + "\n"
    for name, text in wireshark.tables(services).items():
        yield f"wireshark/{name}", text


def pages(services):
    """Pairs of file name and text of the reference documentation."""
    environment = _environment()
    for service in services:
        yield f"{service.ns}.md", environment.get_template("service.md.j2").render(service=service, reference=reference)
    yield "README.md", environment.get_template("services.md.j2").render(services=services)


def _environment():
    environment = jinja2.Environment(loader=jinja2.FileSystemLoader(TEMPLATES), trim_blocks=True, lstrip_blocks=True,
                                     keep_trailing_newline=True, undefined=jinja2.StrictUndefined)
    environment.filters.update(cpp_string=layout.cpp_string, literal=layout.literal, comment=layout.comment,
                               described=layout.described, field_declarations=layout.field_declarations,
                               assigned_names=layout.assigned_names,
                               enumerator_declarations=layout.enumerator_declarations,
                               hex4="0x{:04X}".format, cell=reference.cell)
    environment.globals.update(names=names)
    return environment
