"""Texts for a field on the reference page of its service."""


def cell(text):
    """The text, escaped for a Markdown table cell."""
    return str(text).replace("|", "\\|").replace("\n", " ")


def value_range(field):
    if field.enumeration:
        return ""
    return f"{field.minimum} to {field.maximum}" if field.has_range else ""


def type_name(field):
    if field.enumeration:
        return f"[{field.type}](#{field.type.lower()})"
    return field.type


def written_for(event, field):
    """The key values whose records contain the field."""
    if event.key is field:
        return "always (the key)"
    values = [writer.key_value for writer in event.writers if field in writer.fields]
    if len(values) == len(event.writers):
        return "all"
    return ranges(values) if values else "never"


def ranges(values):
    """'1, 3 to 6' for [1, 3, 4, 5, 6]."""
    parts = []
    for value in values:
        if parts and parts[-1][1] == value - 1:
            parts[-1][1] = value
        else:
            parts.append([value, value])
    return ", ".join(str(first) if first == last else f"{first} to {last}" if last - first > 1 else f"{first}, {last}"
                     for first, last in parts)
