"""Reads YAML so that every value knows its line, and refuses what YAML itself lets pass (doubled keys)."""

import re
from dataclasses import dataclass
from pathlib import Path

import yaml

_Loader = getattr(yaml, "CSafeLoader", yaml.SafeLoader)

# Plain scalars: only the YAML 1.2 core forms, so that "on", "off", "yes" and "no" are names.
_INTEGER = re.compile(r"[-+]?[0-9]+\Z|0x[0-9a-fA-F]+\Z")
_NUMBER = re.compile(r"[-+]?(\.[0-9]+|[0-9]+(\.[0-9]*)?)([eE][-+]?[0-9]+)?\Z")


class Problems:
    """Collects what is wrong with the descriptions; each with file, line and reason."""

    def __init__(self):
        self._found = []

    def add(self, place, reason):
        problem = (place.file, place.line, reason)
        if problem not in self._found:
            self._found.append(problem)

    def __bool__(self):
        return bool(self._found)

    def lines(self):
        return [f"{file}:{line}: {reason}" for file, line, reason in sorted(self._found)]


@dataclass(frozen=True)
class Place:
    file: str
    line: int


class Located:
    """One YAML value. `value` is a scalar, a list of Located, or a dict from text to Located."""

    def __init__(self, value, place, key_places=None):
        self.value = value
        self.place = place
        self.key_places = key_places or {}

    @property
    def kind(self):
        for name, types in (("a mapping", dict), ("a list", list), ("true or false", bool), ("a whole number", int),
                            ("a number", float), ("a text", str)):
            if isinstance(self.value, types):
                return name
        return "nothing"


def read(path: Path, shown_as: str, problems: Problems):
    """The document of one file, or None after a problem was added."""
    try:
        node = yaml.compose(path.read_text(encoding="utf-8"), Loader=_Loader)
    except yaml.MarkedYAMLError as error:
        mark = error.problem_mark or error.context_mark
        problems.add(Place(shown_as, mark.line + 1 if mark else 1), f"not YAML: {error.problem or error.context}")
        return None
    except (yaml.YAMLError, UnicodeDecodeError) as error:
        problems.add(Place(shown_as, 1), f"not YAML: {error}")
        return None
    if node is None:
        problems.add(Place(shown_as, 1), "the file is empty")
        return None
    return _Converter(shown_as, problems).convert(node)


class _Converter:
    def __init__(self, file, problems):
        self._file = file
        self._problems = problems
        self._open = []

    def convert(self, node):
        place = Place(self._file, node.start_mark.line + 1)
        if isinstance(node, yaml.ScalarNode):
            return Located(_scalar(node), place)
        if node in self._open:
            self._problems.add(place, "an alias is inside the value that it repeats")
            return Located(None, place)
        self._open.append(node)
        result = self._sequence(node, place) if isinstance(node, yaml.SequenceNode) else self._mapping(node, place)
        self._open.pop()
        return result

    def _sequence(self, node, place):
        return Located([self.convert(item) for item in node.value], place)

    def _mapping(self, node, place):
        members, key_places = {}, {}
        for key_node, value_node in node.value:
            key = self.convert(key_node)
            if isinstance(key.value, (dict, list)) or key.value is None:
                self._problems.add(key.place, "a key must be a text or a number")
            elif key.value in members:
                self._problems.add(key.place, f"'{key.value}' is given twice; first in line {key_places[key.value].line}")
            else:
                members[key.value] = self.convert(value_node)
                key_places[key.value] = key.place
        return Located(members, place, key_places)


def _scalar(node):
    text = node.value
    if node.style in ("'", '"', "|", ">"):
        return text
    if text in ("", "~", "null"):
        return None
    if text in ("true", "false"):
        return text == "true"
    if _INTEGER.match(text):
        return int(text, 16 if text.startswith("0x") else 10)
    if _NUMBER.match(text):
        return float(text)
    return text
