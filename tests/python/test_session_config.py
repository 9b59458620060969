"""Configuration, enumerations and coded values: what they hold and what they refuse."""

import pytest
import vorlinkit_python as vorlin

DEFAULTS = {
    "host": "localhost",
    "port": 50713,
    "connection_timeout": 3000,
    "request_timeout": 15000,
    "request_attempts": 1,
    "reconnect_delay": 1000,
    "auto_reconnect": True,
    "access_keys": (90, 195, 30, 135),
}
STORED = {
    "host": ["machine-7.plant"],
    "port": [0, 65535],
    "connection_timeout": [-5],
    "request_timeout": [2**31 - 1],
    "request_attempts": [2**32 - 1],
    "reconnect_delay": [-(2**31)],
    "auto_reconnect": [False],
    "access_keys": [(1, 2, 3, 255)],
}
REFUSED = {
    "host": [7, b"machine-7", "machine-\ud800"],
    "port": [65536, -1],
    "connection_timeout": [2**31],
    "request_timeout": [1.5],
    "request_attempts": [-1],
    "reconnect_delay": [-(2**31) - 1],
    "access_keys": [[9, 8, 7, 6], b"1234"],
}


def test_defaults():
    config = vorlin.SessionConfig()
    assert {name: getattr(config, name) for name in DEFAULTS} == DEFAULTS
    assert [name for name in vars(vorlin.SessionConfig) if not name.startswith("_")] == list(DEFAULTS)


@pytest.mark.parametrize("name", DEFAULTS)
def test_values_that_are_stored_and_refused(name):
    config = vorlin.SessionConfig()
    for value in REFUSED.get(name, []):
        with pytest.raises(TypeError):
            setattr(config, name, value)
        assert getattr(config, name) == DEFAULTS[name]
    for value in STORED[name]:
        setattr(config, name, value)
        assert getattr(config, name) == value


def test_access_keys_of_another_length_are_ignored_and_a_bad_one_keeps_those_before_it():
    config = vorlin.SessionConfig()
    for keys in ((), (9, 8, 7), (9, 8, 7, 6, 5)):
        config.access_keys = keys
        assert config.access_keys == DEFAULTS["access_keys"]
    for bad in (300, -1, 7.0, "7"):
        config = vorlin.SessionConfig()
        with pytest.raises(RuntimeError, match="^Unable to cast Python instance of type "):
            config.access_keys = (9, 8, bad, 6)
        assert config.access_keys == (9, 8, 30, 135)


def test_a_host_with_a_0_byte_is_no_host():
    config = vorlin.SessionConfig()
    with pytest.raises(ValueError, match="^host: a 0 byte is no part of a name or an address$"):
        config.host = "localhost\0.example"
    assert config.host == "localhost"


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
