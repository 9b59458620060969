"""Reads captured payloads with the corrected layout and shows that it accounts for every byte."""

import vorlinkit_python as vorlin

captured_request = bytes.fromhex("02")
captured_response = bytes.fromhex("0000 02 00000E10 01")

request = vorlin.GetEjectorRateLimitRequest()
request.division_number = 2
assert vorlin.encode_get_ejector_rate_limit_request(request) == captured_request

response = vorlin.decode_get_ejector_rate_limit_response(captured_response)
print(vorlin.get_ejector_rate_limit_response_to_json(response))

# Surplus bytes are ignored without an error. If the layout reaches the last byte, taking it away must fail.
try:
    vorlin.decode_get_ejector_rate_limit_response(captured_response[:-1])
except RuntimeError as refusal:
    print(f"one byte less: {refusal}")
else:
    raise SystemExit("the layout does not reach the end of the captured payload")
