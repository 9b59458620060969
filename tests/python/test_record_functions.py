"""Encoding, decoding, rendering and coded values from Python: results, refusals, texts."""

import pytest
import vorlinkit_python as vorlin


def test_bytes_that_are_no_text_survive():
    response = vorlin.decode_get_attached_motors_response(b"\0\0\xff\xfe\0\0")
    assert response.automated_device_id == "\udcff\udcfe"
    assert '"\udcff\udcfe"' in vorlin.get_attached_motors_response_to_json(response)
    request = vorlin.GetAttachedMotorsRequest()
    request.automated_device_id = response.automated_device_id
    assert vorlin.encode_get_attached_motors_request(request) == b"\xff\xfe\0"


def test_the_encoder_leaves_counts_to_the_caller():
    request = vorlin.CaptureFrameExRequest()
    request.list_of_capturables = [vorlin.CaptureFrameExRequestCapturablesItem()] * 2
    request.number_of_capturables = 5
    assert vorlin.encode_capture_frame_ex_request(request).startswith(b"\x05\0\0")


@pytest.mark.parametrize("size", [0, 1, 5, 10])
def test_malformed_payloads(size):
    message = "^Decode failed: (Not enough bytes for uint(8|16)|String not null-terminated)$"
    with pytest.raises(RuntimeError, match=message):
        vorlin.decode_get_attached_motors_response(bytes.fromhex("0000414431000201030205")[:size])


ONE_BYTES = "(data: bytes) -> vorlinkit_python.FlushLogResponse"
ONE_REQUEST = "(request: vorlinkit_python.FlushLogRequest) -> "


@pytest.mark.parametrize(("call", "name", "signature", "invoked_with"), [
    (lambda f: f(), "decode_flush_log_response", ONE_BYTES, ""),
    (lambda f: f(bytearray(b"ab")), "decode_flush_log_response", ONE_BYTES, "bytearray(b'ab')"),
    (lambda f: f(memoryview(b"ab")), "decode_flush_log_response", ONE_BYTES, "<memory at "),
    (lambda f: f("ab"), "decode_flush_log_response", ONE_BYTES, "'ab'"),
    (lambda f: f(None), "decode_flush_log_response", ONE_BYTES, "None"),
    (lambda f: f(b"", b""), "decode_flush_log_response", ONE_BYTES, "b'', b''"),
    (lambda f: f(b"", data=b""), "decode_flush_log_response", ONE_BYTES, "b''; kwargs: data=b''"),
    (lambda f: f(payload=b""), "decode_flush_log_response", ONE_BYTES, "kwargs: payload=b''"),
    (lambda f: f(b""), "encode_flush_log_request", ONE_REQUEST + "bytes", "b''"),
    (lambda f: f(vorlin.FlushLogResponse()), "flush_log_request_to_json", ONE_REQUEST + "str", "FlushLogResponse("),
    (lambda f: f(None), "flush_log_request_to_json", ONE_REQUEST + "str", "None"),
    (lambda f: f(65536), "flush_log_command_error_string", "(code: int) -> str", "65536"),
    (lambda f: f(-1), "flush_log_command_error_string", "(code: int) -> str", "-1"),
    (lambda f: f(1.0), "flush_log_command_error_string", "(code: int) -> str", "1.0"),
    (lambda f: f(1), "flush_log_command_error_codes", "() -> vorlinkit_python.FieldCodedValues", "1"),
])  # fmt: skip
def test_wrong_arguments(call, name, signature, invoked_with):
    function = getattr(vorlin, name)
    assert function.__name__ == name and function.__module__ == "vorlinkit_python"
    assert function.__doc__.splitlines()[0] == name + signature
    with pytest.raises(TypeError) as caught:
        call(function)
    assert str(caught.value).startswith(
        f"{name}(): incompatible function arguments. The following argument types are supported:\n"
        f"    1. {signature}\n\nInvoked with: {invoked_with}"
    )


def test_arguments_by_name_and_subclasses():
    class OwnBytes(bytes):
        pass

    response = vorlin.decode_flush_log_response(data=OwnBytes(b"\0\x03"))
    assert vorlin.flush_log_response_to_json(response=response).startswith('{"CommandError": 3')
    assert vorlin.encode_flush_log_request(request=vorlin.FlushLogRequest()) == b"\0"
    assert vorlin.flush_log_command_error_string(code=True) == "Invalid log name; "


def test_coded_values():
    copy = vorlin.flush_log_command_error_codes()
    copy.kind = vorlin.CodedValueKind.Enum
    codes = vorlin.flush_log_command_error_codes()
    assert codes.kind == vorlin.CodedValueKind.Bitfield
    rows = [(row.code, row.description) for row in codes.values]
    assert rows == [(1, "Invalid log name"), (2, "Couldn't flush log")]
    for kind in (vorlin.FieldCodedValue, vorlin.FieldCodedValues):  # which come from the library only
        with pytest.raises(TypeError):
            kind()
    assert vorlin.get_server_status_restart_status_codes().kind == vorlin.CodedValueKind.Enum
    assert vorlin.get_server_status_restart_status_string(2) == "System Controler Restart"
    assert vorlin.get_statistics_statistics_id_string(17) == "Engineer\u2019s Shape Stats"
