"""Lays out C++: comments, text literals and lists that fit the line."""

import textwrap

WIDTH = 110


def cpp_string(text):
    escaped = text.replace("\\", "\\\\").replace('"', '\\"')
    return f'"{escaped}"'


def comment(text, indent=0, mark="///"):
    """Whole comment lines."""
    prefix = " " * indent + mark + " "
    return textwrap.fill(text, WIDTH, initial_indent=prefix, subsequent_indent=prefix, break_long_words=False,
                         break_on_hyphens=False)


def described(declaration, text, indent=4):
    """A declaration with its comment behind it, or before it where the line would be too long."""
    line = f"{' ' * indent}{declaration}  ///< {text}"
    if len(line) <= WIDTH:
        return line
    return f"{comment(text, indent)}\n{' ' * indent}{declaration}"


def listed(items, indent):
    """Items separated by commas, filled to the line's width, each further line indented."""
    prefix = " " * indent
    return textwrap.fill(", ".join(items), WIDTH, initial_indent=prefix, subsequent_indent=prefix,
                         break_long_words=False, break_on_hyphens=False).lstrip()


def field_meaning(field):
    """What a field's comment says: meaning, unit and range in one sentence."""
    facts = []
    if field.unit and field.unit != "1":
        facts.append(field.unit)
    if field.has_range:
        facts.append(f"{field.minimum:g} to {field.maximum:g}" if isinstance(field.minimum, float) or
                     isinstance(field.maximum, float) else f"{field.minimum} to {field.maximum}")
    return f"{field.meaning.rstrip('.')} ({', '.join(facts)})." if facts else field.meaning
