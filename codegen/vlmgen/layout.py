"""Lays out C++: comments, text literals, lists, and lines that would be too long.

The result has the format of clang-format, which a build then does not need.
"""

import re
import textwrap

WIDTH = 110


def cpp_string(text):
    escaped = text.replace("\\", "\\\\").replace('"', '\\"')
    return f'"{escaped}"'


def literal(number):
    """A 64-bit integer literal; C++ has none for the smallest number."""
    return str(number) if number != -(2**63) else f"{number + 1} - 1"


def comment(text, indent=0, mark="///"):
    """Whole comment lines."""
    prefix = " " * indent + mark + " "
    return textwrap.fill(text, WIDTH, initial_indent=prefix, subsequent_indent=prefix, break_long_words=False,
                         break_on_hyphens=False)


def described(declarations, indent=4):
    """Declarations with their comments: on the same line, or above it if the line would be too long.
    `declarations` are pairs of code and comment. Comments of neighbouring lines are aligned."""
    prefix = " " * indent
    lines, block = [], []

    def end_block():
        column = max((len(code) for code, _ in block), default=0)
        lines.extend(prefix + (f"{code.ljust(column)}  ///< {text}" if text else code) for code, text in block)
        block.clear()

    for code, text in declarations:
        column = max([len(code)] + [len(other) for other, _ in block])
        longest = max([len(text)] + [len(other) for _, other in block])
        fits_alone = indent + len(code) + len(text) + 7 <= WIDTH
        if not text or fits_alone and indent + column + longest + 7 <= WIDTH:
            block.append((code, text))
            continue
        end_block()
        if fits_alone:
            block.append((code, text))
        else:
            lines += [comment(text, indent), prefix + code]
    end_block()
    return "\n".join(lines)


def assigned_names(fields, target, indent=4):
    """The statement that assigns the names of `fields` to `target`; a long text is broken between names."""
    names = " ".join(field.name for field in fields)
    line = f"{' ' * indent}{target} = splitNames(\"{names}\");"
    if len(line) <= WIDTH:
        return line
    deeper = " " * (indent + 4)
    parts = textwrap.wrap(names, WIDTH - len(deeper) - 5)
    texts = [f'{deeper}"{part} "' for part in parts[:-1]] + [f'{deeper}"{parts[-1]}");']
    return "\n".join([f"{' ' * indent}{target} = splitNames(", *texts])


def field_declarations(fields):
    return [(f"eb::com::optional<{field.cpp_type}> {field.name};", field_meaning(field)) for field in fields]


def enumerator_declarations(enumerators):
    return [(f"{enumerator.name} = {literal(enumerator.value)},", enumerator.summary) for enumerator in enumerators]


def field_meaning(field):
    """The comment of a field: meaning, unit and range in one sentence."""
    facts = []
    if field.has_range:
        facts.append(f"{field.minimum} to {field.maximum}")
    if field.unit and field.unit != "1":
        facts.append(field.unit)
    return f"{field.meaning.rstrip('.')} ({' '.join(facts)})." if facts else field.meaning


def fit(text):
    """Breaks lines that are too long, as clang-format would."""
    return "\n".join(part for line in text.split("\n") for part in _fit_line(line))


def _fit_line(line):
    if len(line) <= WIDTH or line.lstrip().startswith("//"):
        return [line]
    indent = len(line) - len(line.lstrip())
    deeper = " " * (indent + 4)
    inherits = re.match(r"\s*class \w+( : )", line)
    if inherits:
        return [line[: inherits.start(1)], *_fit_line(deeper + line[inherits.start(1) + 1:])]
    assigned = re.match(r"\s*using \w+ =( )", line)
    if assigned:
        return [line[: assigned.start(1)], *_fit_line(deeper + line[assigned.end(1):])]
    inner = re.match(r".*<[\w:]+(, )[\w:]+> {$", line)
    if inherits is None and inner:
        opening = " " * (line.index("<") + 1)
        return [line[: inner.start(1) + 1], opening + line[inner.end(1):]]
    fitted = _fit_arguments(line, deeper)
    if fitted:
        return fitted
    declared = re.match(r"\s*[\w:<>]+( )\w+{", line)
    return [line[: declared.start(1)], deeper + line[declared.end(1):]] if declared else [line]


def _fit_arguments(line, deeper):
    """Breaks between the arguments of the bracket that gives the most readable lines; None if none helps."""
    best = None
    for start, bracket in enumerate(line):
        if bracket not in "({" or start + 1 == len(line) or start >= WIDTH:
            continue
        end = _closing(line, start)
        if end is None:
            continue
        tail = line[end:]
        arguments = _split(line[start + 1: end])
        for head, indent in ((line[: start + 1], " " * (start + 1)), (line[: start + 1] + "\n", deeper)):
            lines, current = [], head.rstrip("\n")
            fresh = head.endswith("\n")
            if fresh:
                lines.append(current)
                current = indent
            for position, argument in enumerate(arguments):
                piece = argument + (", " if position + 1 < len(arguments) else tail)
                if len((current + piece).rstrip()) > WIDTH and current.strip() and not fresh and position > 0:
                    lines.append(current.rstrip())
                    current = indent
                current += piece
                fresh = False
            lines.append(current)
            if max(map(len, lines)) <= WIDTH and (best is None or len(lines) < len(best)):
                best = lines
        if best:
            return best
    return None


def _closing(line, start):
    depth = 0
    for position in range(start, len(line)):
        if line[position] in "({[":
            depth += 1
        elif line[position] in ")}]":
            depth -= 1
            if depth == 0:
                return position
    return None


def _split(arguments):
    """Splits at the commas outside brackets and string literals."""
    parts, depth, quoted, current = [], 0, False, ""
    for position, character in enumerate(arguments):
        if character == '"' and arguments[position - 1: position] != "\\":
            quoted = not quoted
        if not quoted:
            depth += (character in "({[<") - (character in ")}]>")
            if character == "," and depth == 0:
                parts.append(current.strip())
                current = ""
                continue
        current += character
    return parts + [current.strip()]
