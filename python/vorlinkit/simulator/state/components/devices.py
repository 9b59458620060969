"""Automated devices and their motors: positions move towards their target, step by step."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import Final

from vorlinkit.wire.records import Known, Record, number, text

from ..component import Handler, Services
from ..subscriptions import Client

HIGHEST_POSITION: Final = 1000
STEP: Final = 100
"""How far a motor moves at a time."""

INVALID_DEVICE: Final = 1
CLOSED_LOOP_ACTIVE: Final = 2
UNKNOWN_MOTOR: Final = 3
LIMITED_BY_DEVICE: Final = 3
INVALID_MEASURE_POINT: Final = 2
MEASURE_POINTS: Final = (0, 1)
IDLE_CURRENT: Final = 50
MOVING_CURRENT: Final = 350
SUPPLY_VOLTAGE: Final = 240


@dataclass
class Motor:
    """One motor: where it is and where it is going."""

    number: int
    type: int
    actual: int = 0
    target: int = 0

    def step(self) -> bool:
        """Move one step towards the target; says whether it moved."""
        before = self.actual
        self.actual += max(-STEP, min(STEP, self.target - self.actual))
        return self.actual != before


@dataclass
class Device:
    """One automated device."""

    id: str
    type: int
    motors: tuple[Motor, ...] = ()
    closed_loop: int = 0
    temperature: int = 35

    def motor(self, motor_number: int) -> Motor | None:
        return next((motor for motor in self.motors if motor.number == motor_number), None)


@dataclass
class DevicesComponent:
    """The devices AD1 (two motors), AD2 (one motor) and AD3 (another type, no motor)."""

    machine: Services
    devices: tuple[Device, ...] = field(
        default_factory=lambda: (
            Device("AD1", 1, (Motor(1, 3), Motor(2, 5))),
            Device("AD2", 1, (Motor(1, 3),)),
            Device("AD3", 2),
        )
    )

    def __post_init__(self) -> None:
        self.machine.every_motor_interval(self.move)

    def handlers(self) -> Mapping[str, Handler]:
        return {
            "GetAutomatedDevices": self._get_devices,
            "GetAttachedMotors": self._get_motors,
            "GetClosedLoopControlStatus": self._get_closed_loop,
            "SetClosedLoopControlStatus": self._set_closed_loop,
            "GetMotorPosition": self._get_position,
            "SetMotorPosition": self._set_position,
            "GetMotorVoltage": self._get_voltage,
            "GetMotorCurrent": self._get_current,
            "GetOperatingTemperature": self._get_temperature,
        }

    def move(self) -> bool:
        """Move every motor on by one step and report it; says whether any motor is still on its way."""
        for device in self.devices:
            for motor in device.motors:
                if not motor.step():
                    continue
                where: Record = {"AutomatedDeviceID": device.id, "AttachedMotorNumber": motor.number}
                self.machine.changed("GetMotorPosition", where)
                if motor.actual == motor.target:
                    device.temperature = min(device.temperature + 1, 60)
                    self.machine.changed("GetOperatingTemperature", {"AutomatedDeviceID": device.id})
        return any(motor.actual != motor.target for device in self.devices for motor in device.motors)

    def _find(self, request: Record) -> tuple[Device | None, Motor | None]:
        wanted = text(request, "AutomatedDeviceID")
        device = next((one for one in self.devices if one.id == wanted), None)
        return device, device.motor(number(request, "AttachedMotorNumber")) if device is not None else None

    def _get_devices(self, client: Client, request: Record) -> Known:
        wanted = number(request, "DeviceType")
        found = [device for device in self.devices if wanted in (0, device.type)]
        items: list[Record] = [
            {"AutomatedDeviceID": one.id, "AutomatedDeviceType": one.type} for one in found
        ]
        return {"CommandError": 0 if found else 0x0001, "listOfAutomatedDevices": items}

    def _get_motors(self, client: Client, request: Record) -> Known:
        device, _ = self._find(request)
        motors = device.motors if device is not None else ()
        items: list[Record] = [{"AttachedMotorNumber": one.number, "MotorType": one.type} for one in motors]
        return {"CommandError": 0 if device is not None else INVALID_DEVICE, "listOfMotors": items}

    def _get_closed_loop(self, client: Client, request: Record) -> Known:
        device, _ = self._find(request)
        if device is None:
            return {"CommandError": INVALID_DEVICE, "ClosedLoopControlStatus": 0}
        return {"CommandError": 0, "ClosedLoopControlStatus": device.closed_loop}

    def _set_closed_loop(self, client: Client, request: Record) -> Known:
        device, _ = self._find(request)
        if device is None:
            return {"CommandError": INVALID_DEVICE}
        wanted = number(request, "ClosedLoopControlStatus")
        if wanted != device.closed_loop:
            device.closed_loop = wanted
            self.machine.changed("GetClosedLoopControlStatus", {"AutomatedDeviceID": device.id})
        return {"CommandError": 0}

    def _get_position(self, client: Client, request: Record) -> Known:
        device, motor = self._find(request)
        if motor is None:
            error = INVALID_DEVICE if device is None else UNKNOWN_MOTOR
            return {"CommandError": error, "ActualMotorPosition": 0, "SetMotorPosition": 0}
        return {"CommandError": 0, "ActualMotorPosition": motor.actual, "SetMotorPosition": motor.target}

    def _set_position(self, client: Client, request: Record) -> Known:
        device, motor = self._find(request)
        if device is None or motor is None:
            return {"CommandError": INVALID_DEVICE, "NewTargetMotorPosition": 0}
        if device.closed_loop:
            return {"CommandError": CLOSED_LOOP_ACTIVE, "NewTargetMotorPosition": motor.target}
        wanted = number(request, "MotorPosition")
        motor.target = min(wanted, HIGHEST_POSITION)
        self.machine.wake_motors()
        error = 0 if wanted <= HIGHEST_POSITION else LIMITED_BY_DEVICE
        return {"CommandError": error, "NewTargetMotorPosition": motor.target}

    def _get_voltage(self, client: Client, request: Record) -> Known:
        _, motor = self._find(request)
        if motor is None:
            return {"CommandError": INVALID_DEVICE, "MotorVoltage": 0}
        if number(request, "VoltageMeasurePoint") not in MEASURE_POINTS:
            return {"CommandError": INVALID_MEASURE_POINT, "MotorVoltage": 0}
        return {"CommandError": 0, "MotorVoltage": SUPPLY_VOLTAGE}

    def _get_current(self, client: Client, request: Record) -> Known:
        _, motor = self._find(request)
        if motor is None:
            return {"CommandError": INVALID_DEVICE, "MotorCurrent": 0}
        return {
            "CommandError": 0,
            "MotorCurrent": IDLE_CURRENT if motor.actual == motor.target else MOVING_CURRENT,
        }

    def _get_temperature(self, client: Client, request: Record) -> Known:
        device, _ = self._find(request)
        if device is None:
            return {"CommandError": INVALID_DEVICE, "OperatingTemperature": 0}
        return {"CommandError": 0, "OperatingTemperature": device.temperature}
