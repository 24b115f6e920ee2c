"""The backend's view of each event: its name, and a column for each field."""

import re
from dataclasses import dataclass

from . import model

# What each view has besides the fields, and the words that a query could not use without quotes.
TAKEN = frozenset("vehicle time time_ms received received_ms instance".split())
SQL_WORDS = frozenset("""
    all and any array as asc both case cast check collate column constraint create cross current_date current_time
    current_timestamp default deferrable desc distinct do else end except exists false fetch for foreign from full grant
    group having if in index initially inner intersect into is isnull join leading left like limit natural not notnull
    null offset on only or order outer overlaps placing primary references right select set similar table then to
    trailing transaction true union unique user using values variadic verbose when where window with
""".split())

KINDS = {"bool": "Boolean", "string": "Text", "float": "Real", "double": "Real", "uint64": "Unsigned64"}


@dataclass
class Column:
    field: model.Field
    name: str

    @property
    def kind(self):
        return KINDS.get(self.field.scalar, "Integer")


@dataclass
class View:
    service: model.Service
    event: model.Event
    columns: list

    @property
    def name(self):
        return f"{self.service.catalog_name.lower()}_{snake_case(self.event.name)}"


def snake_case(name):
    """latitudeWGS84ValueType: latitude_wgs84_value_type."""
    parted = re.sub(r"([a-z0-9])([A-Z])", r"\1_\2", name)
    return re.sub(r"([A-Z]+)([A-Z][a-z])", r"\1_\2", parted).lower()


def of(services):
    """The views of all events that can be collected, sorted by service and event."""
    views = [View(service, event, _columns(event.fields)) for service in services for event in service.events]
    return sorted(views, key=lambda view: (view.service.registry_key, view.event.name))


def _columns(fields):
    used, columns = set(TAKEN), []
    for field in fields:
        name = snake_case(field.name)
        if name in SQL_WORDS:
            name += "_value"
        while name in used:
            name += "_value"
        used.add(name)
        columns.append(Column(field, name))
    return columns
