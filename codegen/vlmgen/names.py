"""Names in the generated code, and the names that are refused."""

import re

SERVICE = re.compile(r"[A-Z][A-Za-z0-9]*\Z")
MEMBER = re.compile(r"[a-z][A-Za-z0-9]*\Z")
TYPE = re.compile(r"[A-Z][A-Za-z0-9]*\Z")
REGISTRY_KEY = re.compile(r"[A-Z][A-Za-z0-9]*Proxy\Z")

# Members that every record has besides those of its event.
RECORD_MEMBERS = frozenset({"timestamp", "serviceName", "resName", "collectorName", "index"})

CPP_WORDS = frozenset("""
    alignas alignof and and_eq asm auto bitand bitor bool break case catch char char8_t char16_t char32_t class compl
    concept const consteval constexpr constinit const_cast continue co_await co_return co_yield decltype default delete
    do double dynamic_cast else enum explicit export extern false float for friend goto if inline int long mutable
    namespace new noexcept not not_eq nullptr operator or or_eq private protected public register reinterpret_cast
    requires return short signed sizeof static static_assert static_cast struct switch template this thread_local throw
    true try typedef typeid typename union unsigned using virtual void volatile wchar_t while xor xor_eq
""".split())

# Macros of the C library headers that generated code includes.
MACROS = frozenset("assert errno stdin stdout stderr".split())

# Namespaces that generated code uses inside qdr::services; a service with such a name would hide them.
NAMESPACES = frozenset("std rttr ac eb kyo qdr services datatypes proxy skeleton".split())

SCALARS = {
    "bool": "bool",
    "uint8": "std::uint8_t", "uint16": "std::uint16_t", "uint32": "std::uint32_t", "uint64": "std::uint64_t",
    "int8": "std::int8_t", "int16": "std::int16_t", "int32": "std::int32_t", "int64": "std::int64_t",
    "float": "float", "double": "double", "string": "std::string",
}

INTEGER_LIMITS = {
    f"{sign}int{bits}": ((0, 2**bits - 1) if sign else (-(2 ** (bits - 1)), 2 ** (bits - 1) - 1))
    for sign in ("u", "") for bits in (8, 16, 32, 64)
}

# Enumerators are signed 64-bit numbers wherever they are data.
ENUMERATOR_LIMITS = INTEGER_LIMITS["int64"]

_UNIT_SYMBOLS = frozenset("""
    % ‰ m km cm mm µm s ms µs ns min h d g mg kg t N kN J kJ MJ W mW kW Wh kWh V mV kV A mA Ah mAh Ω mΩ kΩ MΩ F Hz kHz
    MHz Pa hPa kPa MPa bar mbar K degC deg rad mrad l ml cl lx lm cd dB dBm T mT ppm mol B kB MB px bit
""".split())


def namespace(service):
    return service.lower()


def reserved_as(name):
    """The reason why a member, event or enumerator cannot have this name, or None."""
    if name in CPP_WORDS:
        return "a C++ word"
    if name in MACROS:
        return "a macro of the C library"
    return None


def is_unit(text):
    """'km/h', 'N·m', 'm/s^2', 'kWh/100km', '1/min', '1'."""
    for factor in re.split(r"[·/]", text):
        symbol = re.sub(r"(\^-?[0-9]|[²³])\Z", "", factor)
        number = re.match(r"[0-9]*", symbol).group()
        if symbol[len(number):] not in _UNIT_SYMBOLS and not (symbol == number and number):
            return False
    return True


def data_type(event):
    return f"DT_{event}_struct"


def adapter(service):
    return f"VLM{service}"
