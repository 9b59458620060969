"""Objects that were made by `__new__` alone, as a subclass's `__init__` has them before `super().__init__()`."""

import vorlinkit_python as vorlin
from fake_server import run_script

# Every attribute of every class, with any arguments. An interpreter of its own, since what is looked for ends it.
SCRIPT = """
kept, tried, refused = [], set(), set()

def attempt(kind, name, act, *arguments):
    tried.add((kind.__name__, name))
    try:
        act(*arguments)
    except Exception as error:
        if str(error).endswith("__init__() must be called before the object is used"):
            refused.add((kind.__name__, name))

for bound in [each for each in vars(vorlin).values() if isinstance(each, type)]:
    for kind in (bound, type(bound.__name__, (bound,), {})):
        for name, member in vars(bound).items():
            if name in {"__init__", "__setstate__"} or not (callable(member) or hasattr(member, "__get__")):
                continue
            kept.append(kind.__new__(kind))
            if callable(member) and not isinstance(member, (staticmethod, type)):
                for arguments in [(), (1,), (print,), (1, print), (vorlin.LogLevel.info,)]:
                    attempt(kind, name, lambda: getattr(kept[-1], name)(*arguments))
            else:
                attempt(kind, name, getattr, kept[-1], name)
                for value in (1, "text", [], vorlin.CodedValueKind.Enum):
                    attempt(kind, name, setattr, kept[-1], name, value)
needed = vorlin.SessionConfig, vorlin.IVorlinLogger, vorlin._EventLogger, vorlin._EventQueue
config, logger, derived, queue = (kind.__new__(kind) for kind in needed)
attempt(vorlin.VorlinSession, "logger", vorlin.VorlinSession, vorlin.SessionConfig(), logger)
attempt(vorlin.VorlinSession, "derived", vorlin.VorlinSession, vorlin.SessionConfig(), derived)
attempt(vorlin.VorlinSession, "queue", vorlin.VorlinSession(vorlin.SessionConfig())._attach, queue)
attempt(vorlin.VorlinSession, "config", vorlin.VorlinSession, config)
del kept, config, logger, derived, queue
print(len(tried), *(f"{kind}.{name}" for kind, name in refused))
"""


def public(kind):
    return [name for name in vars(kind) if not name.startswith("_")]


ENUM = ["__int__", "__index__", "__hash__", "__getstate__", "__repr__", "__str__", "name", "value"]
NEEDS_INIT = {
    **{kind: public(kind) for kind in (vorlin.IVorlinLogger, vorlin.SessionConfig)},
    **{kind: public(kind) for kind in (vorlin.FieldCodedValue, vorlin.FieldCodedValues)},
    **dict.fromkeys((vorlin.LogLevel, vorlin.CodedValueKind, vorlin.FrameDirection), ENUM),
    vorlin._EventQueue: public(vorlin._EventQueue),
    vorlin.VorlinSession: [*public(vorlin.VorlinSession), "config", "logger", "derived", "queue"],
}


def test_nothing_of_a_half_made_object_can_be_used_and_all_of_it_survives():
    code, output, errors = run_script(SCRIPT)
    assert (code, errors) == (0, "")
    count, *refused = output.split()
    assert int(count) > 2500  # records included, which are whole from the beginning
    expected = {f"{kind.__name__}.{name}" for kind, names in NEEDS_INIT.items() for name in names}
    assert expected - set(refused) == set()
    assert {name.partition(".")[0] for name in refused} == {kind.__name__ for kind in NEEDS_INIT}
