"""What a machine object does to the program around it: its end, its children, its signals, its threads."""

from __future__ import annotations

import signal
import subprocess
import sys
import textwrap
from collections.abc import Iterator

import pytest
from vorlinkit.simulator import SimulatorProcess

HEAD = """
import asyncio, os, signal, sys, threading, time, warnings
import vorlinkit.aio
host, port = sys.argv[1], int(sys.argv[2])
"""


@pytest.fixture
def simulator() -> Iterator[SimulatorProcess]:
    with SimulatorProcess(rules=["command=GetServerTime no_answer"]) as started:
        yield started


def program(simulator: SimulatorProcess, text: str, *options: str) -> subprocess.Popen[str]:
    words = [
        sys.executable,
        *options,
        "-c",
        HEAD + textwrap.dedent(text),
        simulator.host,
        str(simulator.port),
    ]
    return subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def output(simulator: SimulatorProcess, text: str, *options: str) -> str:
    """What a program prints, that prints nothing else and ends well."""
    running = program(simulator, text, *options)
    out, err = running.communicate(timeout=30)
    assert (err, running.returncode) == ("", 0)
    return out


ENDS = {
    "machines are left open": """
        machine = vorlinkit.connect(host, port)
        subscription = machine.subscribe.get_feed_rate("F1", handler=lambda rate: None)
        waiting = threading.Thread(target=lambda: list(machine.events), daemon=True)
        waiting.start()
    """,
    "a machine is forgotten, and its threads end": """
        before = threading.active_count()
        vorlinkit.connect(host, port).get_machine_info()
        until = time.monotonic() + 10
        while threading.active_count() > before and time.monotonic() < until:
            time.sleep(0.01)
        assert threading.active_count() == before
    """,
    "a child has to connect anew": """
        machine = vorlinkit.connect(host, port)
        rates = machine.subscribe.get_feed_rate("F1")
        rates.get(5)
        child = os.fork()
        if child == 0:
            signal.alarm(10)
            try:
                machine.get_machine_info()
            except vorlinkit.Closed as error:
                assert "connect anew" in str(error)
                assert list(rates) == []
                machine.close()
                with vorlinkit.connect(host, port) as own:
                    own.get_machine_info()
                os._exit(0)
            os._exit(1)
        assert os.waitpid(child, 0)[1] == 0
        machine.get_machine_info()
    """,
    "two loops, one after the other": """
        async def main():
            asyncio.get_running_loop().slow_callback_duration = 10  # seconds: others work on this computer, too
            before = threading.active_count()
            async with vorlinkit.aio.connect(host, port) as machine:
                asked = (machine.get_machine_info() for _ in range(200))
                assert len(await asyncio.gather(*asked)) == 200
                assert threading.active_count() <= before + 1  # a link in pure Python has its own
                assert asyncio.get_running_loop()._default_executor is None
                async with machine.subscribe.get_feed_rate("F1") as rates:
                    async for rate in rates:
                        break
        for debug in (False, True):
            asyncio.run(main(), debug=debug)
    """,
    "a loop ends before its machine is closed": """
        async def main():
            return await vorlinkit.aio.connect(host, port)
        machine = asyncio.run(main())
    """,
    "a cancelled call is free at once, and its answer is nobody's": """
        import logging
        logging.disable()
        async def main():
            async with vorlinkit.aio.connect(host, port, timeout=1) as machine:
                try:
                    await asyncio.wait_for(machine.get_server_time(), 0.1)
                except TimeoutError as error:
                    assert not isinstance(error, vorlinkit.VorlinError)
                start = time.monotonic()
                try:
                    await machine.get_server_time()
                except vorlinkit.RequestTimeout:
                    pass
                assert time.monotonic() - start > 0.8  # waits for its turn: the first one is still on its way
                assert (await machine.get_machine_info()).serial_number
        asyncio.run(main())
    """,
}


@pytest.mark.parametrize("text", ENDS.values(), ids=ENDS.keys())
def test_a_program_ends_well(simulator: SimulatorProcess, text: str) -> None:
    assert output(simulator, text, "-W", "error", "-X", "dev") == ""


@pytest.mark.parametrize("wait", ["machine.get_server_time()", "next(machine.listen(44))"])
def test_ctrl_c_ends_a_wait(simulator: SimulatorProcess, wait: str) -> None:
    running = program(
        simulator,
        f"""
        machine = vorlinkit.connect(host, port, timeout=1)
        try:
            print("waits", flush=True)
            {wait}
        except KeyboardInterrupt:
            print(machine.get_machine_info().serial_number, flush=True)
            machine.close()
        """,
    )
    assert running.stdout is not None and running.stdout.readline() == "waits\n"
    if "get_server_time" in wait:
        simulator.wait_for("request", name="GetServerTime")
    running.send_signal(signal.SIGINT)
    simulator.control("clear-rules")
    out, err = running.communicate(timeout=30)
    assert (out, err, running.returncode) == ("SIM-0001\n", "", 0)


def test_the_log_carries_the_place_in_the_core(simulator: SimulatorProcess) -> None:
    out = output(
        simulator,
        """
        import logging
        logging.basicConfig(level=logging.INFO, stream=sys.stdout, format="%(levelname)s|%(name)s|%(filename)s|%(funcName)s|%(message)s")
        with vorlinkit.connect(host, port) as machine:
            try:
                machine.get_server_time(timeout=0.05)
            except vorlinkit.RequestTimeout:
                pass
            logging.getLogger("vorlinkit").setLevel(logging.ERROR)
        """,
    )
    lines = [line.split("|", 4) for line in out.splitlines()]
    assert {(level, name) for level, name, *_ in lines} == {
        ("INFO", f"vorlinkit.{simulator.host}"),
        ("WARNING", f"vorlinkit.{simulator.host}"),
    }
    texts = {text: place for _, _, *place, text in lines}
    assert all(texts[text] for text in ("Connected successfully", "Client ID assigned: 1"))
    assert sum("did not answer within 0.05 s" in text for text in texts) == 1
