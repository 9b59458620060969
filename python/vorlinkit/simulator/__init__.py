"""A simulated sorting machine: ``python3 -m vorlinkit.simulator``, or ``SimulatorProcess`` in a test.

It is a process of its own that listens on this computer, answers every command of the catalogue with
plausible, repeatable values, keeps the state that setters change, sends notifications, and misbehaves when
told to. It is a simulator, not a machine: only confirmed payload layouts are certain
(``vorlinkit.catalogue.layout_status``).
"""

from .process import Event, SimulatorFailed, SimulatorProcess

__all__ = ["Event", "SimulatorFailed", "SimulatorProcess"]
