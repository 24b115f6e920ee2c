"""The tables by which Wireshark's SOME/IP dissector decodes the payloads (4.0; a folder for WIRESHARK_CONFIG_DIR)."""

TABLES = ("SOMEIP_service_identifiers", "SOMEIP_method_event_identifiers", "SOMEIP_eventgroup_identifiers",
          "SOMEIP_parameter_list", "SOMEIP_parameter_arrays", "SOMEIP_parameter_structs", "SOMEIP_parameter_enums",
          "SOMEIP_parameter_strings", "SOMEIP_parameter_base_types")

# Base types by the dissector's names; it does not decode others.
_BASE_TYPES = ("uint8", "uint16", "uint32", "uint64", "int8", "int16", "int32", "int64", "float32", "float64")
_BASE_TYPE_IDS = {name: number for number, name in enumerate(_BASE_TYPES, start=1)}
_BASE_TYPE_IDS |= {"bool": _BASE_TYPE_IDS["uint8"], "float": _BASE_TYPE_IDS["float32"],
                   "double": _BASE_TYPE_IDS["float64"]}
_STRING_ID = 1
# The dissector's numbers for kinds of data types.
_BASIC, _STRING, _ARRAY, _STRUCT, _ENUM = 1, 2, 3, 4, 7
_NOTIFICATION = 2
_MOST_SAMPLES = 65535


def tables(services):
    rows = {table: [] for table in TABLES}
    for name in _BASE_TYPES:
        bits = name.lstrip("uintfloa")
        rows["SOMEIP_parameter_base_types"].append((_hex(_BASE_TYPE_IDS[name], 8), name, name, "TRUE", bits, bits))
    rows["SOMEIP_parameter_strings"].append((_hex(_STRING_ID, 8), "string", "utf-8", "TRUE", 0, 32, "TRUE", 0))
    struct_id = enum_id = 0
    for service in services:
        sid = _hex(service.service_id, 4)
        rows["SOMEIP_service_identifiers"].append((sid, service.name))
        enum_ids = {}
        for enumeration in service.enumerations:
            # The dissector stores enumerators as unsigned 32-bit numbers; it shows others as plain numbers.
            if not all(0 <= enumerator.value <= 0xFFFFFFFF for enumerator in enumeration.enumerators):
                continue
            enum_id += 1
            enum_ids[enumeration.name] = enum_id
            for enumerator in enumeration.enumerators:
                rows["SOMEIP_parameter_enums"].append((
                    _hex(enum_id, 8), f"{service.name}.{enumeration.name}", _BASIC,
                    _hex(_BASE_TYPE_IDS[enumeration.base], 8), len(enumeration.enumerators),
                    _hex(enumerator.value, 1), enumerator.name))
        for event in service.events:
            struct_id += 1
            eid = _hex(event.event_id, 4)
            name = f"{service.name}.{event.name}"
            rows["SOMEIP_method_event_identifiers"].append((sid, eid, event.name))
            rows["SOMEIP_eventgroup_identifiers"].append((sid, _hex(event.eventgroup, 4), event.name))
            rows["SOMEIP_parameter_list"].append((
                sid, eid, service.major_version, _hex(_NOTIFICATION, 1), "FALSE", 1, 0, "samples", _ARRAY,
                _hex(struct_id, 8), f"{service.ns}.{event.name.lower()}"))
            rows["SOMEIP_parameter_arrays"].append((
                _hex(struct_id, 8), f"{name} samples", _STRUCT, _hex(struct_id, 8), 1,
                f"{service.ns}.{event.name.lower()}.samples", 0, 0, _MOST_SAMPLES, 32, 0))
            for field in event.fields:
                rows["SOMEIP_parameter_structs"].append((
                    _hex(struct_id, 8), event.data_type, 32, 0, "TRUE", len(event.fields), field.data_id, field.name,
                    *_data_type(field, enum_ids), f"{service.ns}.{event.name.lower()}.{field.name.lower()}"))
    return {table: "".join(",".join(f'"{cell}"' for cell in row) + "\n" for row in rows[table]) for table in TABLES}


def _data_type(field, enum_ids):
    if field.type in enum_ids:
        return _ENUM, _hex(enum_ids[field.type], 8)
    if field.scalar == "string":
        return _STRING, _hex(_STRING_ID, 8)
    return _BASIC, _hex(_BASE_TYPE_IDS[field.scalar], 8)


def _hex(number, digits):
    return f"{number:0{digits}x}"
