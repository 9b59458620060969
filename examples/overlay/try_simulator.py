"""Sets the ejector rate limit of a running simulator and reads it back: python3 try_simulator.py [port]"""

import sys

import vorlinkit_python as vorlin


def ask(session: vorlin.VorlinSession, command_id: int, payload: bytes) -> bytes:
    answer, problem = session.send(command_id, payload)
    if answer is None:
        raise SystemExit(problem)
    return answer


config = vorlin.SessionConfig()
config.host = "127.0.0.1"
config.port = int(sys.argv[1]) if len(sys.argv) > 1 else config.port
config.auto_reconnect = False
session = vorlin.VorlinSession(config)
connected, problem = session.connect()
if not connected:
    raise SystemExit(problem)

setting = vorlin.SetEjectorRateLimitRequest()
setting.division_number = 2
setting.ejector_rate_limit = 90000
answer = ask(
    session, vorlin.SET_EJECTOR_RATE_LIMIT_COMMAND_ID, vorlin.encode_set_ejector_rate_limit_request(setting)
)
print(vorlin.set_ejector_rate_limit_response_to_json(vorlin.decode_set_ejector_rate_limit_response(answer)))

question = vorlin.GetEjectorRateLimitRequest()
question.division_number = 2
answer = ask(
    session, vorlin.GET_EJECTOR_RATE_LIMIT_COMMAND_ID, vorlin.encode_get_ejector_rate_limit_request(question)
)
limit = vorlin.decode_get_ejector_rate_limit_response(answer)
session.disconnect()
print(f"division {limit.division_number}: {limit.ejector_rate_limit} firings per minute")
if (limit.division_number, limit.ejector_rate_limit) != (2, 90000):
    raise SystemExit("the simulator did not answer with what was set")
