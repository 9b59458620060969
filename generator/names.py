"""The naming rules: one place for every name that follows from a command, a key or a record."""

import re

# And one name that no member can have, since the standard library defines it as a macro.
CPP_KEYWORDS = frozenset(
    (
        "alignas alignof and and_eq asm auto bitand bitor bool break case catch char char8_t char16_t char32_t "
        "class compl concept const consteval constexpr constinit const_cast continue co_await co_return co_yield "
        "decltype default delete do double dynamic_cast else enum explicit export extern false float for friend "
        "goto if inline int long mutable namespace new noexcept not not_eq nullptr operator or or_eq private "
        "protected public register reinterpret_cast requires return short signed sizeof static static_assert "
        "static_cast struct switch template this thread_local throw true try typedef typeid typename union "
        "unsigned using virtual void volatile wchar_t while xor xor_eq errno"
    ).split()
)


def command_snake(name: str) -> str:
    """`UiLogInOut` -> `ui_log_in_out`: a command's name, split at each capital."""
    return re.sub(r"(?<!^)(?=[A-Z])", "_", name).lower()


def command_constant(name: str) -> str:
    """`NoOpCommand` -> `NO_OP_COMMAND_COMMAND_ID`."""
    return command_snake(name).upper() + "_COMMAND_ID"


def attribute(key: str) -> str:
    """The attribute of a JSON key. Mechanical, odd results included: `NumberOfIDs` -> `number_of_i_ds`."""
    name = re.sub(r"([A-Z]+)([A-Z][a-z])", r"\1_\2", key)
    name = re.sub(r"([a-z0-9])([A-Z])", r"\1_\2", name)
    return name.lower()


def cpp_member(attribute_name: str) -> str:
    """A C++ member is its attribute, except that a keyword gets a trailing underscore."""
    return attribute_name + "_" if attribute_name in CPP_KEYWORDS else attribute_name


def list_key(base: str) -> str:
    return "listOf" + base


def item_type(container: str, base: str) -> str:
    return container + base + "Item"


def message_type(command: str, role: str) -> str:
    return command + role.capitalize()


def camel_back(snake: str) -> str:
    """`flush_log_error_table` -> `flushLogErrorTable`: the case of what C++ programs do not see."""
    return re.sub(r"_([a-z0-9])", lambda found: found[1].upper(), snake)
