"""Objects that were made by `__new__` alone, as a subclass's `__init__` has them before `super().__init__()`."""

import vorlinkit_python as vorlin
from fake_server import run_script

# Every attribute of every class, with any arguments. An interpreter of its own, since what is looked for ends it.
SCRIPT = """
import vorlinkit_python as vorlin

MADE_BY_INIT = {"__init__", "__setstate__"}
ARGUMENTS = [(), (1,), (print,), (1, print), (vorlin.LogLevel.info,)]
kept, tried, refused = [], set(), set()

def attempt(kind, name, act):
    tried.add((kind.__name__, name))
    try:
        act()
    except Exception as error:
        if str(error).endswith("__init__() must be called before the object is used"):
            refused.add((kind.__name__, name))

for bound in [each for each in vars(vorlin).values() if isinstance(each, type)]:
    for kind in (bound, type(bound.__name__, (bound,), {})):
        for name, member in vars(bound).items():
            if name in MADE_BY_INIT or not (callable(member) or hasattr(member, "__get__")):
                continue
            kept.append(kind.__new__(kind))
            if callable(member) and not isinstance(member, (staticmethod, type)):
                for arguments in ARGUMENTS:
                    attempt(kind, name, lambda: getattr(kept[-1], name)(*arguments))
            else:
                attempt(kind, name, lambda: getattr(kept[-1], name))
                for value in (1, "text", [], vorlin.CodedValueKind.Enum):
                    attempt(kind, name, lambda: setattr(kept[-1], name, value))
kept.append(vorlin.IVorlinLogger.__new__(vorlin.IVorlinLogger))
attempt(vorlin.VorlinSession, "logger", lambda: vorlin.VorlinSession(vorlin.SessionConfig(), kept[-1]))
attempt(vorlin.VorlinSession, "config", lambda: vorlin.VorlinSession(vorlin.SessionConfig.__new__(vorlin.SessionConfig)))
del kept
print(len(tried), *sorted(f"{kind}.{name}" for kind, name in refused))
"""

NEEDS_INIT = {
    vorlin.IVorlinLogger: ["set_log_level", "get_log_level"],
    vorlin.SessionConfig: [name for name in vars(vorlin.SessionConfig) if not name.startswith("_")],
    vorlin.FieldCodedValue: ["code", "description"],
    vorlin.FieldCodedValues: ["values", "kind"],
    vorlin.VorlinSession: [name for name in vars(vorlin.VorlinSession) if not name.startswith("_")]
    + ["config", "logger"],
} | {
    kind: ["__int__", "__index__", "__hash__", "__getstate__", "__repr__", "__str__", "name", "value"]
    for kind in (vorlin.LogLevel, vorlin.CodedValueKind, vorlin.FrameDirection)
}


def test_nothing_of_a_half_made_object_can_be_used_and_all_of_it_survives():
    result = run_script(SCRIPT)
    assert (result.returncode, result.stderr) == (0, "")
    count, *refused = result.stdout.split()
    assert int(count) > 2500  # records included, which are whole from the beginning
    expected = {f"{kind.__name__}.{name}" for kind, names in NEEDS_INIT.items() for name in names}
    assert expected - set(refused) == set()
    assert {name.partition(".")[0] for name in refused} == {kind.__name__ for kind in NEEDS_INIT}


def test_a_record_is_whole_without_its_init():
    class Early(vorlin.FlushLogRequest):
        def __init__(self):
            self.log_name += "before"

    assert vorlin.encode_flush_log_request(Early()) == b"before\0"
    assert vorlin.GetMachineInfoResponse.__new__(vorlin.GetMachineInfoResponse).machine_type == ""
