"""The model of the descriptions. It loads and checks them and derives everything that the templates write.

This file checks every rule for descriptions and reports the line that breaks it.
"""

from dataclasses import dataclass
from pathlib import Path

from . import names, source

SCHEMA_KEYS = {
    "service": {"service", "summary", "registry", "someip", "enumerations", "events"},
    "registry": {"key", "order"},
    "someip of the service": {"serviceId", "majorVersion", "minorVersion"},
    "enumeration": {"base", "summary", "values"},
    "enumerator": {"value", "name", "summary"},
    "event": {"summary", "someip", "cycle", "loadFactor", "privacyGroup", "key", "fields", "writers"},
    "someip of the event": {"eventId", "eventgroup", "transport"},
    "field": {"type", "unit", "range", "meaning", "signal", "privacyGroup"},
    "writer": {"meaning", "fields"},
}

# An unkeyed event has one catalog instance for each value of its first field.
MOST_INSTANCES = 256
# Data ids on the wire have 12 bits.
MOST_FIELDS = 4096


@dataclass
class Enumerator:
    name: str
    value: int
    summary: str


@dataclass
class Enumeration:
    name: str
    base: str
    summary: str
    enumerators: list

    @property
    def cpp_base(self):
        return names.SCALARS[self.base]


@dataclass
class Field:
    name: str
    data_id: int
    type: str
    enumeration: Enumeration | None
    unit: str
    minimum: float | None
    maximum: float | None
    meaning: str
    signal: str
    privacy_group: int
    place: source.Place

    @property
    def scalar(self):
        """The scalar type on the wire."""
        return self.enumeration.base if self.enumeration else self.type

    @property
    def cpp_type(self):
        return self.enumeration.name if self.enumeration else names.SCALARS[self.type]

    @property
    def has_range(self):
        return self.minimum is not None

    def possible_values(self):
        """All values of the field, ascending; None unless they are integers and few."""
        if self.enumeration:
            return [enumerator.value for enumerator in self.enumeration.enumerators]
        if self.type in names.INTEGER_LIMITS and self.has_range and self.maximum - self.minimum < MOST_INSTANCES:
            return list(range(int(self.minimum), int(self.maximum) + 1))
        return None

    def value_name(self, value):
        for enumerator in self.enumeration.enumerators if self.enumeration else []:
            if enumerator.value == value:
                return enumerator.name
        return ""


@dataclass
class Writer:
    key_value: int
    meaning: str
    fields: list


@dataclass
class Event:
    name: str
    summary: str
    event_id: int
    eventgroup: int
    reliable: bool  # sent over TCP
    cycle_ms: int
    load_factor: int
    key: Field | None
    fields: list
    writers: list

    @property
    def data_type(self):
        return names.data_type(self.name)

    @property
    def key_property(self):
        """The member whose value is the catalog's instance."""
        return self.key or self.fields[0]

    def instances(self):
        """Pairs of a catalog instance and the fields of its records, without the common members."""
        if self.key:
            return [(writer.key_value, writer.fields) for writer in self.writers]
        return [(value, self.fields) for value in self.fields[0].possible_values()]

    def indexes(self):
        """What each catalog instance is: value, name and meaning; the last two may be empty."""
        key = self.key_property
        meanings = {e.value: e.summary for e in key.enumeration.enumerators} if key.enumeration else {}
        meanings.update({writer.key_value: writer.meaning for writer in self.writers if writer.meaning})
        return sorted((value, key.value_name(value), meanings.get(value, "")) for value, _ in self.instances())


@dataclass
class Service:
    name: str
    summary: str
    registry_key: str
    registry_order: int
    service_id: int
    major_version: int
    minor_version: int
    enumerations: list
    events: list
    file: str

    @property
    def ns(self):
        return names.namespace(self.name)

    @property
    def adapter(self):
        return names.adapter(self.name)

    @property
    def catalog_name(self):
        return self.registry_key.removesuffix("Proxy")

    @property
    def uses_strings(self):
        return any(field.scalar == "string" for event in self.events for field in event.fields)


def load(folder: Path, problems: source.Problems):
    """All services of a folder, sorted by name. Do not use the result if there are problems."""
    services = []
    for path in sorted(folder.glob("*.yaml")):
        shown_as = f"{folder.name}/{path.name}"
        document = source.read(path, shown_as, problems)
        if document is not None:
            service = _Reader(shown_as, problems).service(document)
            if service is not None:
                services.append((service, document))
    if not services and not problems:
        problems.add(source.Place(folder.name, 1), "there is no description (*.yaml) in this folder")
    _check_across(services, problems)
    return sorted((service for service, _ in services), key=lambda service: service.name)


def _check_across(services, problems):
    for of_what, value_of, where in (
        ("service", lambda s: s.name, ("service",)),
        ("service id", lambda s: s.service_id, ("someip", "serviceId")),
        ("registry key", lambda s: s.registry_key or None, ("registry", "key")),
        ("registry order", lambda s: s.registry_order or None, ("registry", "order")),
    ):
        first = {}
        for service, document in services:
            value = value_of(service)
            if value is None:
                continue
            place = document
            for key in where:
                place = place.value.get(key, place) if isinstance(place.value, dict) else place
            shown = f"0x{value:04X}" if of_what == "service id" else f"'{value}'"
            if value in first:
                problems.add(place.place, f"{of_what} {shown} is also that of {first[value]}")
            else:
                first[value] = service.file


class _Reader:
    """Converts the document of one file into a Service."""

    def __init__(self, file, problems):
        self._file = file
        self._problems = problems

    def _refuse(self, located, reason):
        self._problems.add(located.place, reason)

    # Each returns a member of a mapping with the required type, or a harmless default after an error.

    def _known_keys(self, mapping, what):
        for key, place in mapping.key_places.items():
            if key not in SCHEMA_KEYS[what]:
                known = ", ".join(sorted(SCHEMA_KEYS[what]))
                self._problems.add(place, f"'{key}' is no key of this {what}; it may have: {known}")

    def _member(self, mapping, key, kind, stand_in, required=True):
        found = mapping.value.get(key)
        if found is None:
            if required:
                self._refuse(mapping, f"'{key}' is missing")
            return None if not required else source.Located(stand_in, mapping.place)
        if found.kind != kind:
            self._refuse(found, f"'{key}' must be {kind}, not {found.kind}")
            return source.Located(stand_in, found.place)
        return found

    def _text(self, mapping, key, required=True):
        found = self._member(mapping, key, "a text", "", required)
        if found is None:
            return ""
        text = " ".join(found.value.split())
        if not text and key in mapping.value and mapping.value[key].kind == "a text":
            self._refuse(found, f"'{key}' is empty")
        return text

    def _number(self, mapping, key, lowest, highest, default=None):
        found = self._member(mapping, key, "a whole number", lowest, required=default is None)
        if found is None:
            return default
        if not lowest <= found.value <= highest:
            shown = (lambda n: f"0x{n:04X}") if lowest >= 0 and highest >= 0xFFF else str
            self._refuse(found, f"'{key}' must be between {shown(lowest)} and {shown(highest)}")
        return found.value

    def _transport(self, someip):
        found = self._member(someip, "transport", "a text", "udp", required=False)
        if found is not None and found.value not in ("udp", "tcp"):
            self._refuse(found, "'transport' must be udp or tcp")
        return found.value if found is not None else "udp"

    def _mapping(self, mapping, key, required=True):
        return self._member(mapping, key, "a mapping", {}, required)

    # The parts of a description.

    def service(self, document):
        if document.kind != "a mapping":
            self._refuse(document, f"a description is a mapping, not {document.kind}")
            return None
        self._known_keys(document, "service")
        name = self._text(document, "service")
        if name and not names.SERVICE.match(name):
            self._refuse(document.value["service"], f"service '{name}' must be upper camel case")
        elif name:
            self._check_namespace(document.value["service"], name)
        enumerations = self._enumerations(document)
        registry_key, registry_order = self._registry(document)
        someip = self._mapping(document, "someip")
        self._known_keys(someip, "someip of the service")
        service = Service(
            name=name, summary=self._text(document, "summary"), registry_key=registry_key,
            registry_order=registry_order, service_id=self._number(someip, "serviceId", 0x0001, 0xFFFE),
            major_version=self._number(someip, "majorVersion", 0, 0xFE),
            minor_version=self._number(someip, "minorVersion", 0, 0xFFFFFFFE),
            enumerations=list(enumerations.values()), events=[], file=self._file)
        events = self._mapping(document, "events")
        if not events.value and "events" in document.value:
            self._refuse(events, "a service has at least one event")
        used = set()
        for event_name, node in events.value.items():
            self._check_member_name(events, event_name, "event")
            event = self._event(service, str(event_name), node, enumerations)
            if event:
                service.events.append(event)
                used |= {field.type for field in event.fields}
        self._check_event_ids(service, events)
        for unused in sorted(set(enumerations) - used):
            place = document.value["enumerations"].key_places[unused]
            self._problems.add(place, f"enumeration '{unused}' is the type of no field")
        return service

    def _check_namespace(self, located, name):
        ns = names.namespace(name)
        if ns in names.CPP_WORDS:
            self._refuse(located, f"service '{name}' would make the namespace '{ns}', a C++ word")
        if ns in names.NAMESPACES:
            self._refuse(located, f"service '{name}' would make the namespace '{ns}', which hides another of that name")
        if Path(self._file).stem != ns:
            self._refuse(located, f"service '{name}' belongs in a file named {ns}.yaml")

    def _check_member_name(self, mapping, name, what):
        place = mapping.key_places[name]
        if not isinstance(name, str) or not names.MEMBER.match(name):
            self._problems.add(place, f"{what} '{name}' must be lower camel case")
        elif names.reserved_as(name):
            self._problems.add(place, f"{what} '{name}' is {names.reserved_as(name)}")

    def _registry(self, document):
        registry = self._mapping(document, "registry", required=False)
        if registry is None:
            return "", 0
        self._known_keys(registry, "registry")
        key = self._text(registry, "key")
        if key and not names.REGISTRY_KEY.match(key):
            self._refuse(registry.value["key"], f"registry key '{key}' must be upper camel case and end in 'Proxy'")
        return key, self._number(registry, "order", 1, 9999)

    def _enumerations(self, document):
        result = {}
        section = self._mapping(document, "enumerations", required=False)
        if section is None:
            return result
        folded = {}
        for name, node in section.value.items():
            place = section.key_places[name]
            if not isinstance(name, str) or not names.TYPE.match(name):
                self._problems.add(place, f"enumeration '{name}' must be upper camel case")
                continue
            if name.lower() in folded:
                self._problems.add(place, f"enumeration '{name}' differs from '{folded[name.lower()]}' in case only")
            folded[name.lower()] = name
            enumeration = self._enumeration(name, node)
            if enumeration:
                result[name] = enumeration
        return result

    def _enumeration(self, name, node):
        if node.kind != "a mapping":
            self._refuse(node, f"enumeration '{name}' must be a mapping, not {node.kind}")
            return None
        self._known_keys(node, "enumeration")
        base = self._text(node, "base")
        if base not in names.INTEGER_LIMITS:
            if base:
                self._refuse(node.value["base"], f"base '{base}' is no integer type")
            base = "int64"
        lowest = max(names.INTEGER_LIMITS[base][0], names.ENUMERATOR_LIMITS[0])
        highest = min(names.INTEGER_LIMITS[base][1], names.ENUMERATOR_LIMITS[1])
        values = self._member(node, "values", "a list", [])
        if not values.value and "values" in node.value:
            self._refuse(values, f"enumeration '{name}' has no enumerators")
        enumerators, by_value, by_name = [], {}, {}
        for item in values.value:
            if item.kind != "a mapping":
                self._refuse(item, f"an enumerator is a mapping with value and name, not {item.kind}")
                continue
            self._known_keys(item, "enumerator")
            value = self._member(item, "value", "a whole number", 0)
            enumerator = Enumerator(self._text(item, "name"), value.value, self._text(item, "summary", required=False))
            if not enumerator.name:
                continue
            if not names.MEMBER.match(enumerator.name):
                self._refuse(item, f"enumerator '{enumerator.name}' must be lower camel case")
            elif names.reserved_as(enumerator.name):
                self._refuse(item, f"enumerator '{enumerator.name}' is {names.reserved_as(enumerator.name)}")
            if enumerator.name in by_name:
                self._refuse(item, f"enumerator '{enumerator.name}' is given twice")
            elif enumerator.value in by_value:
                self._refuse(item, f"enumerators '{by_value[enumerator.value]}' and '{enumerator.name}' have the same "
                                   f"value {enumerator.value}")
            if not lowest <= enumerator.value <= highest:
                self._refuse(item, f"enumerator '{enumerator.name}' = {enumerator.value} is not between {lowest} "
                                   f"and {highest}")
            by_name[enumerator.name] = enumerator
            by_value.setdefault(enumerator.value, enumerator.name)
            enumerators.append(enumerator)
        enumerators.sort(key=lambda enumerator: enumerator.value)
        return Enumeration(name, base, self._text(node, "summary"), enumerators)

    def _event(self, service, name, node, enumerations):
        if node.kind != "a mapping":
            self._refuse(node, f"event '{name}' must be a mapping, not {node.kind}")
            return None
        self._known_keys(node, "event")
        someip = self._mapping(node, "someip")
        self._known_keys(someip, "someip of the event")
        event_id = self._number(someip, "eventId", 0x8001, 0xFFFE)
        privacy_group = self._number(node, "privacyGroup", 0, 2**31 - 1, default=1)
        fields = self._fields(service, name, node, privacy_group, enumerations)
        event = Event(
            name=name, summary=self._text(node, "summary"), event_id=event_id,
            eventgroup=self._number(someip, "eventgroup", 0x0001, 0xFFFE, default=event_id & 0x7FFF),
            reliable=self._transport(someip) == "tcp",
            cycle_ms=self._number(node, "cycle", 1, 86_400_000),
            load_factor=self._number(node, "loadFactor", 0, 2**31 - 1, default=1),
            key=None, fields=list(fields.values()), writers=[])
        if not fields:
            if "fields" in node.value:
                self._refuse(node.value["fields"], f"event '{name}' has no fields")
            return None
        if "key" in node.value:
            self._key_and_writers(event, node, fields)
        else:
            if "writers" in node.value:
                self._problems.add(node.key_places["writers"], f"event '{name}' has writers but no key")
            first = event.fields[0]
            if first.possible_values() is None:
                self._problems.add(first.place, f"'{first.name}' selects the instance of the unkeyed event '{name}': "
                                                "it must be an enumeration or an integer with a range of at most "
                                                f"{MOST_INSTANCES} values")
        return event

    def _fields(self, service, event_name, node, privacy_group, enumerations):
        result = {}
        section = self._mapping(node, "fields")
        if len(section.value) > MOST_FIELDS:
            self._refuse(section, f"event '{event_name}' has more than {MOST_FIELDS} fields")
        for data_id, (name, item) in enumerate(section.value.items()):
            self._check_member_name(section, name, "field")
            place = section.key_places[name]
            if name in names.RECORD_MEMBERS:
                self._problems.add(place, f"field '{name}' would hide the record's own member of that name")
            if item.kind != "a mapping":
                self._refuse(item, f"field '{name}' must be a mapping, not {item.kind}")
                continue
            self._known_keys(item, "field")
            type_name = self._text(item, "type")
            if type_name and type_name not in names.SCALARS and type_name not in enumerations:
                self._refuse(item.value["type"], f"type '{type_name}' is neither a scalar nor an enumeration of this file")
            field_ = Field(
                name=str(name), data_id=data_id, type=type_name if type_name in names.SCALARS else "uint8",
                enumeration=enumerations.get(type_name), unit=self._text(item, "unit", required=False),
                minimum=None, maximum=None, meaning=self._text(item, "meaning"),
                signal=self._text(item, "signal", required=False) or f"{service.name}.{event_name}.{name}",
                privacy_group=self._number(item, "privacyGroup", 0, 2**31 - 1, default=privacy_group), place=place)
            if field_.enumeration:
                field_.type = type_name
            self._check_unit(field_, item)
            self._range(field_, item)
            result[field_.name] = field_
        return result

    def _check_unit(self, field_, item):
        if "unit" in item.value:
            if field_.unit and not names.is_unit(field_.unit):
                self._refuse(item.value["unit"], f"unit '{field_.unit}' is not known")
            if field_.enumeration or field_.type in ("bool", "string"):
                self._refuse(item.value["unit"], f"a field of type {field_.type} has no unit")
        elif field_.scalar in ("float", "double"):
            self._problems.add(field_.place, f"field '{field_.name}' is a {field_.scalar} without a unit; "
                                             "a count or a ratio has the unit \"1\"")

    def _range(self, field_, item):
        limits = self._member(item, "range", "a list", [0, 0], required=False)
        if limits is None or limits.kind != "a list" or not isinstance(item.value["range"].value, list):
            return
        numbers = [limit.value for limit in limits.value if limit.kind in ("a whole number", "a number")]
        if len(numbers) != 2 or len(limits.value) != 2:
            self._refuse(limits, "a range is a list of two numbers")
        elif numbers[0] > numbers[1]:
            self._refuse(limits, f"the range's first number {numbers[0]} is above its second {numbers[1]}")
        elif field_.enumeration or field_.type in ("bool", "string"):
            self._refuse(limits, f"a field of type {field_.type} has no range")
        else:
            if field_.type in names.INTEGER_LIMITS:
                lowest, highest = names.INTEGER_LIMITS[field_.type]
                if any(isinstance(number, float) for number in numbers):
                    self._refuse(limits, f"the range of a {field_.type} has whole numbers")
                if numbers[0] < lowest or numbers[1] > highest:
                    self._refuse(limits, f"the range does not fit {field_.type}")
            field_.minimum, field_.maximum = numbers

    def _key_and_writers(self, event, node, fields):
        key_name = self._text(node, "key")
        key = fields.get(key_name)
        if key is None:
            if key_name:
                self._refuse(node.value["key"], f"key '{key_name}' is no field of event '{event.name}'")
            return
        event.key = key
        if key.scalar not in ("uint8", "uint16", "uint32", "uint64"):
            self._refuse(node.value["key"], f"key '{key.name}' must be unsigned: an enumeration over, or itself, an "
                                            f"unsigned integer, not {key.scalar}")
        section = self._mapping(node, "writers")
        if not section.value and "writers" in node.value:
            self._refuse(section, f"keyed event '{event.name}' has no writer")
        for key_value, item in section.value.items():
            place = section.key_places[key_value]
            if not isinstance(key_value, int) or isinstance(key_value, bool) or not 0 <= key_value <= 2**31 - 1:
                self._problems.add(place, f"a writer is named by a key value (a whole number), not '{key_value}'")
                continue
            self._check_key_value(event, key_value, place)
            if item.kind != "a mapping":
                self._refuse(item, f"writer {key_value} must be a mapping, not {item.kind}")
                continue
            self._known_keys(item, "writer")
            meaning = self._text(item, "meaning")
            event.writers.append(Writer(key_value, meaning, self._written_fields(event, key_value, item, fields)))
        event.writers.sort(key=lambda writer: writer.key_value)

    def _check_key_value(self, event, key_value, place):
        key = event.key
        if key.enumeration:
            if not key.value_name(key_value):
                self._problems.add(place, f"writer {key_value}: {key.type} has no enumerator of that value")
        elif key.scalar in names.INTEGER_LIMITS:
            lowest, highest = names.INTEGER_LIMITS[key.scalar]
            if key.has_range:
                lowest, highest = key.minimum, key.maximum
            if not lowest <= key_value <= highest:
                self._problems.add(place, f"writer {key_value}: the key '{key.name}' cannot have that value")

    def _written_fields(self, event, key_value, item, fields):
        written = {}
        listed = self._member(item, "fields", "a list", [])
        if not listed.value and "fields" in item.value:
            self._refuse(listed, f"writer {key_value} of event '{event.name}' writes no field")
        for entry in listed.value:
            if entry.kind != "a text":
                self._refuse(entry, f"a written field is a name, not {entry.kind}")
            elif entry.value not in fields:
                self._refuse(entry, f"writer {key_value} of event '{event.name}' names '{entry.value}', which is no "
                                    "field of the event")
            elif entry.value == event.key.name:
                self._refuse(entry, f"writer {key_value} of event '{event.name}' names the key '{entry.value}', which "
                                    "every record has")
            elif entry.value in written:
                self._refuse(entry, f"writer {key_value} of event '{event.name}' names '{entry.value}' twice")
            else:
                written[entry.value] = fields[entry.value]
        # Records hold their fields in alphabetical order.
        return [written[name] for name in sorted(written)]

    def _check_event_ids(self, service, events):
        folded, ids, groups = {}, {}, {}
        for event in service.events:
            node = events.value[event.name]
            place = events.key_places[event.name]
            someip = node.value["someip"] if "someip" in node.value else node
            located = someip.value.get("eventId", someip) if isinstance(someip.value, dict) else someip
            if event.name.lower() in folded:
                self._problems.add(place, f"event '{event.name}' differs from '{folded[event.name.lower()]}' in case "
                                          "only")
            if event.event_id in ids:
                self._refuse(located, f"event id 0x{event.event_id:04X} is also that of '{ids[event.event_id]}'")
            elif event.eventgroup in groups:
                self._refuse(located, f"eventgroup 0x{event.eventgroup:04X} is also that of "
                                      f"'{groups[event.eventgroup]}'")
            folded.setdefault(event.name.lower(), event.name)
            ids.setdefault(event.event_id, event.name)
            groups.setdefault(event.eventgroup, event.name)
