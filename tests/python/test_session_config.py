"""Configuration, enumerations and coded values: what they hold and what they refuse."""

import pytest
import vorlinkit_python as vorlin

FIELDS = {
    "host": ("localhost", ["machine-7.plant"], [7, b"machine-7", "machine-\ud800"]),
    "port": (50713, [0, 65535], [65536, -1]),
    "connection_timeout": (3000, [-5], [2**31]),
    "request_timeout": (15000, [2**31 - 1], [1.5]),
    "request_attempts": (1, [2**32 - 1], [-1]),
    "reconnect_delay": (1000, [-(2**31)], [-(2**31) - 1]),
    "auto_reconnect": (True, [False], []),
    "access_keys": ((90, 195, 30, 135), [(1, 2, 3, 255)], [[9, 8, 7, 6], b"1234"]),
}
"""Every field's default, values that are stored, and values that are refused."""


def test_every_field():
    assert [name for name in vars(vorlin.SessionConfig) if not name.startswith("_")] == list(FIELDS)
    config = vorlin.SessionConfig()
    for name, (default, stored, refused) in FIELDS.items():
        for value in refused:
            with pytest.raises(TypeError):
                setattr(config, name, value)
        assert getattr(config, name) == default
        for value in stored:
            setattr(config, name, value)
            assert getattr(config, name) == value
    with pytest.raises(ValueError, match="^host: a 0 byte is no part of a name or an address$"):
        config.host = "localhost\0.example"
    assert config.host == "machine-7.plant"


def test_access_keys_of_another_length_are_ignored_and_a_bad_one_keeps_those_before_it():
    for keys in ((), (9, 8, 7), (9, 8, 7, 6, 5)):
        config = vorlin.SessionConfig()
        config.access_keys = keys
        assert config.access_keys == (90, 195, 30, 135)
    for bad in (300, -1, 7.0, "7"):
        config = vorlin.SessionConfig()
        with pytest.raises(RuntimeError, match="^Unable to cast Python instance of type "):
            config.access_keys = (9, 8, bad, 6)
        assert config.access_keys == (9, 8, 30, 135)


@pytest.mark.parametrize(
    ("enumeration", "members"),
    [
        ("LogLevel", ["trace", "debug", "info", "warn", "err", "critical", "off"]),
        ("CodedValueKind", ["Enum", "Bitfield"]),
        ("FrameDirection", ["Tx", "Rx"]),
    ],
)
def test_enumerations(enumeration, members):
    kind = getattr(vorlin, enumeration)
    assert list(kind.__members__) == members
    for value, name in enumerate(members):
        member = getattr(kind, name)
        assert (int(member), member.name, kind(value)) == (value, name, member)
        assert getattr(vorlin, name) is member
    with pytest.raises(TypeError):
        member < member  # noqa: B015
    with pytest.raises(TypeError):
        member | member


def test_the_module():
    assert vorlin.__doc__ == "Wrapper Python para VorlinKit"
