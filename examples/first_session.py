"""A first session with a machine.

    python3 examples/first_session.py [--host HOST] [--port PORT] [--move-motor]

Connects, learns its client id, asks who is there, takes and releases exclusive control, sets and reads the
clock, receives notifications while requests go on, and survives the loss of the connection. Every message is
printed as the one line of JSON that the library makes of it.

On a real machine this does no harm: the clock is set to the time that was just read from it, and a motor is
only moved if --move-motor says so. With no machine at hand, examples/run_first_session.py runs it against the
simulator.
"""

import argparse
import queue
import threading

import vorlinkit_python as vorlin

PATIENCE = 10  # seconds to wait for what the machine does by itself


def ask(session, command_id, payload=b""):
    """The payload of the answer. A failure is a text, not an exception; here it ends the program."""
    answer, problem = session.send(command_id, payload)
    if answer is None:
        raise SystemExit(f"command {command_id}: {problem}")
    return answer


def show(title, json):
    print(f"{title:22}{json}")


def learn_client_id(session):
    # The session takes note of the id and sends it with every request from now on.
    answer = vorlin.decode_get_client_id_response(ask(session, vorlin.GET_CLIENT_ID_COMMAND_ID))
    show("client id", vorlin.get_client_id_response_to_json(answer))
    assert session.client_id() == answer.client_id


def who_is_it(session):
    answer = vorlin.decode_get_machine_info_response(ask(session, vorlin.GET_MACHINE_INFO_COMMAND_ID))
    show("machine", vorlin.get_machine_info_response_to_json(answer))


def take_control(session):
    answer = vorlin.decode_get_exclusive_control_response(
        ask(session, vorlin.GET_EXCLUSIVE_CONTROL_COMMAND_ID)
    )
    show("take control", vorlin.get_exclusive_control_response_to_json(answer))
    if answer.command_error:  # a refusal is an ordinary answer; its bits have texts
        raise SystemExit(vorlin.get_exclusive_control_command_error_string(answer.command_error))


def release_control(session):
    answer = vorlin.decode_release_exclusive_control_response(
        ask(session, vorlin.RELEASE_EXCLUSIVE_CONTROL_COMMAND_ID)
    )
    show("release control", vorlin.release_exclusive_control_response_to_json(answer))


def read_clock(session):
    answer = vorlin.decode_get_server_time_response(ask(session, vorlin.GET_SERVER_TIME_COMMAND_ID))
    show("clock", vorlin.get_server_time_response_to_json(answer))
    return answer.timestamp


def set_clock(session, timestamp):
    request = vorlin.SetServerTimeRequest()
    request.timestamp = timestamp
    payload = vorlin.encode_set_server_time_request(request)
    answer = vorlin.decode_set_server_time_response(ask(session, vorlin.SET_SERVER_TIME_COMMAND_ID, payload))
    show("set the clock", vorlin.set_server_time_response_to_json(answer))


def watch_motor(session, device, motor, move_to):
    # Handlers run on the session's own thread: they hand over what came and return at once.
    arrived = queue.Queue()
    session.on_notification(vorlin.GET_MOTOR_POSITION_COMMAND_ID, arrived.put)

    request = vorlin.GetMotorPositionRequest()
    request.automated_device_id = device
    request.attached_motor_number = motor
    request.notification_level = 1  # any other value than 0 subscribes
    payload = vorlin.encode_get_motor_position_request(request)
    answer = vorlin.decode_get_motor_position_response(
        ask(session, vorlin.GET_MOTOR_POSITION_COMMAND_ID, payload)
    )
    show("motor", vorlin.get_motor_position_response_to_json(answer))
    if move_to is None:
        return

    request = vorlin.SetMotorPositionRequest()
    request.automated_device_id = device
    request.attached_motor_number = motor
    request.motor_position = move_to
    payload = vorlin.encode_set_motor_position_request(request)
    answer = vorlin.decode_set_motor_position_response(
        ask(session, vorlin.SET_MOTOR_POSITION_COMMAND_ID, payload)
    )
    show("move it", vorlin.set_motor_position_response_to_json(answer))

    while True:
        # Requests and notifications share the connection; neither waits for the other.
        ask(session, vorlin.GET_SERVER_TIME_COMMAND_ID)
        try:
            told = vorlin.decode_get_motor_position_notification(arrived.get(timeout=PATIENCE))
        except queue.Empty:
            raise SystemExit("the motor did not report that it arrived") from None
        show("  notification", vorlin.get_motor_position_notification_to_json(told))
        if told.actual_motor_position == answer.new_target_motor_position:
            return


def survive_a_loss(session, connected_again):
    # The simulator that run_first_session.py starts drops the connection here; a machine simply answers.
    answer, problem = session.send(vorlin.NO_OP_COMMAND_COMMAND_ID)
    if answer is not None:
        show("still connected", "no loss to survive")
        return
    show("the connection broke", problem)
    if not connected_again.wait(PATIENCE):
        raise SystemExit("the machine did not come back")
    show("connected again", f"client id {session.client_id()}, so ask for a new one:")
    learn_client_id(session)


def main(host, port, move_motor):
    config = vorlin.SessionConfig()
    config.host = host
    config.port = port
    config.reconnect_delay = 100  # milliseconds
    session = vorlin.VorlinSession(config)

    connected_again = threading.Event()
    connected, problem = session.connect()
    if not connected:
        raise SystemExit(f"cannot connect to {host}, port {port}: {problem}")
    session.on_connection_state_changed(lambda up, reason: connected_again.set() if up else None)

    learn_client_id(session)
    who_is_it(session)
    take_control(session)
    set_clock(session, read_clock(session))
    read_clock(session)
    watch_motor(session, "AD1", 1, move_to=300 if move_motor else None)
    release_control(session)
    survive_a_loss(session, connected_again)
    who_is_it(session)
    session.disconnect()


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description="A first session with a machine.")
    parser.add_argument("--host", default="localhost")
    parser.add_argument("--port", type=int, default=50713)
    parser.add_argument(
        "--move-motor", action="store_true", help="move motor 1 of device AD1 (on a simulator!)"
    )
    given = parser.parse_args()
    main(given.host, given.port, given.move_motor)
