"""Devices, classes, defects and sensitivities: read them, set them, and be told of every change.

    python3 examples/tune_sorting.py

starts the machine simulator for itself, because it changes settings. What is set comes back as a notification
to whoever subscribed, here to the program itself.
"""

import queue
import sys
from pathlib import Path

try:
    import vorlinkit_python as vorlin  # from PYTHONPATH
except ImportError:
    sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "build" / "release" / "python"))
    import vorlinkit_python as vorlin

from vorlinkit.simulator import SimulatorProcess

PATIENCE = 10  # seconds to wait for a notification


class Machine:
    """A session by the names of commands: request and answer objects in, JSON on the screen."""

    def __init__(self, host, port):
        config = vorlin.SessionConfig()
        config.host, config.port = host, port
        self.session = vorlin.VorlinSession(config)
        connected, problem = self.session.connect()
        if not connected:
            raise SystemExit(problem)
        self._told = queue.Queue()

    def ask(self, name, /, **values):
        """Send the request ``name`` with these values and return the decoded answer."""
        payload = b""
        if values:
            request = getattr(vorlin, "".join(word.capitalize() for word in name.split("_")) + "Request")()
            for attribute, value in values.items():
                setattr(request, attribute, value)
            payload = getattr(vorlin, f"encode_{name}_request")(request)
        answer, problem = self.session.send(getattr(vorlin, f"{name.upper()}_COMMAND_ID"), payload)
        if answer is None:
            raise SystemExit(f"{name}: {problem}")
        response = getattr(vorlin, f"decode_{name}_response")(answer)
        print(f"{name}\n    {getattr(vorlin, f'{name}_response_to_json')(response)}")
        return response

    def watch(self, name, /, **values):
        """Subscribe, and have every notification put where ``told`` finds it."""
        decode = getattr(vorlin, f"decode_{name}_notification")
        number = getattr(vorlin, f"{name.upper()}_COMMAND_ID")
        self.session.on_notification(number, lambda payload: self._told.put((name, decode(payload))))
        return self.ask(name, **values)

    def told(self, name):
        """The next notification of this command."""
        while True:
            of, notification = self._told.get(timeout=PATIENCE)
            if of == name:
                print(f"    told: {getattr(vorlin, f'{name}_notification_to_json')(notification)}")
                return notification


def drive_a_motor(machine):
    device = machine.ask("get_automated_devices", device_type=0).list_of_automated_devices[0]
    motor = machine.ask("get_attached_motors", automated_device_id=device.automated_device_id).list_of_motors[
        0
    ]
    where = {
        "automated_device_id": device.automated_device_id,
        "attached_motor_number": motor.attached_motor_number,
    }
    machine.watch("get_motor_position", **where, notification_level=1)
    target = machine.ask("set_motor_position", **where, motor_position=250).new_target_motor_position
    while machine.told("get_motor_position").actual_motor_position != target:
        pass


def move_a_class(machine):
    entry = machine.ask("get_classes_list", notification_level=0).list_of_classes[1]
    key = {"class_name": entry.class_name, "division": entry.division_name}
    machine.watch("get_class_info", **key, notification_level=1)
    machine.told("get_class_info")  # how it stands, told once for having subscribed
    machine.ask("set_class_state_destination", **key, state=1, destination=2)
    machine.told("get_class_info")
    machine.ask("set_class_sensitivity_level", **key, sensitivity_level=75)
    machine.told("get_class_info")
    refused = machine.ask("set_class_sensitivity_level", **key, sensitivity_level=200)
    print("    refused:", vorlin.set_class_sensitivity_level_command_error_string(refused.command_error))


def ease_a_defect(machine):
    entry = machine.ask("get_defect_list", notification_level=0).list_of_defects[0]
    key = {"defect": entry.defect, "division": entry.division}
    machine.watch("get_defect_info", **key, notification_level=1)
    machine.told("get_defect_info")
    machine.ask("set_defect_removal_level", **key, removal_level=5)
    machine.told("get_defect_info")
    machine.ask("set_additional_defect_info", **key, name="Note", information="eased for the wet harvest")


def set_a_sensitivity(machine):
    entry = machine.ask("get_sensitivities", notifications_required=0).list_of_sensitivities[0]
    names = ("sensitivity_type", "division", "camera_position", "side", "list_index")
    key = {name: getattr(entry, name) for name in names}
    machine.watch("get_sensitivity_value", **key, notifications_required=1)
    machine.told("get_sensitivity_value")
    machine.ask("set_sensitivity_value", **key, new_value=55)
    machine.told("get_sensitivity_value")


if __name__ == "__main__":
    with SimulatorProcess() as simulator:
        machine = Machine(simulator.host, simulator.port)
        machine.ask("get_client_id")
        machine.ask("get_exclusive_control")
        drive_a_motor(machine)
        move_a_class(machine)
        ease_a_defect(machine)
        set_a_sensitivity(machine)
        machine.ask("release_exclusive_control")
        machine.session.disconnect()
