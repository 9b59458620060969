"""``vorlinkit simulate``: the machine simulator, by another name."""

from __future__ import annotations

from argparse import Namespace

from vorlinkit.simulator.__main__ import main

from .exits import OK, USAGE
from .output import Output


def run(arguments: Namespace, _: Output) -> int:
    return USAGE if main(arguments.words, "vorlinkit simulate") else OK
