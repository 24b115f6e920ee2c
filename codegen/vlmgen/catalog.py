"""The signal catalog: what can be collected, service by service."""


def document(services, version):
    """Members are sorted by name; instances and properties have the order of the records."""
    registered = sorted((service for service in services if service.registry_key), key=lambda s: s.catalog_name)
    return {
        "meta": {"vlmVersion": version},
        "services": {service.catalog_name: _resources(service) for service in registered},
    }


def _resources(service):
    return {
        event.name: {
            "loadFactor": event.load_factor,
            "serviceId": f"0x{service.service_id:04X}",
            "someipKeyProperty": event.key_property.name,
            "instances": {
                str(value): [
                    {"property": field.name, "signal": field.signal, "privacy_group": field.privacy_group}
                    for field in fields
                ]
                for value, fields in event.instances()
            },
        }
        for event in sorted(service.events, key=lambda event: event.name)
    }
