"""Calls every method of the station's services with a client generated from the installed files.

Arguments: the daemon's address, the feedback service's, the diagnostics service's. The daemon has just been started.
Fails when a result is not what the documentation says, or when the files have a method that is not called here.
"""

import sys

import grpc
from ipc import (common_pb2, diagnostics_pb2, diagnostics_pb2_grpc, feedback_pb2, feedback_pb2_grpc,
                 generic_control_pb2, generic_control_pb2_grpc, log_config_pb2, log_config_pb2_grpc, rfid_pb2,
                 rfid_pb2_grpc)

DAEMON, FEEDBACK, DIAGNOSTICS = sys.argv[1:]
PATIENCE = 30  # seconds
Empty = common_pb2.MEmpty
called = set()


def channel(address, name):
    return grpc.insecure_channel(address, options=[("grpc.default_authority", name)])


def call(service, stub, method, request):
    called.add((service, method))
    return getattr(stub, method)(request, timeout=PATIENCE)


def expect(what, actual, expected):
    if actual != expected:
        sys.exit(f"{what}: {actual!r}, expected {expected!r}")


def result(service, stub, method, request):
    return common_pb2.EResult.Name(call(service, stub, method, request).result)


def expect_state(notifications, state):
    for notification in notifications:  # signs of life may come between
        if notification.HasField("state"):
            return expect("state", common_pb2.EState.Name(notification.state.state), state)
    sys.exit("the stream of states ended")


def expect_status(what, stub_call, code, detail):
    try:
        stub_call()
    except grpc.RpcError as error:
        expect(what, error.code(), code)
        expect(what + ", in words", detail in error.details(), True)
    else:
        sys.exit(f"{what}: no error")


control = generic_control_pb2_grpc.GenericControlStub(channel(DAEMON, "RfidGenCtrl"))
rfid = rfid_pb2_grpc.RfidStub(channel(DAEMON, "Rfid"))
log = log_config_pb2_grpc.LogConfigStub(channel(DAEMON, "RfidLog"))

states = call("GenericControl", control, "Subscribe", Empty())
cards = call("Rfid", rfid, "Subscribe", Empty())
cards.initial_metadata()  # from now on no card is missed
expect_state(states, "EStateUninitialized")
token = rfid_pb2.MInjectToken(uid="04a12b5c")
expect("inject before enable", result("Rfid", rfid, "InjectToken", token), "EResultIllegal")
expect("enable before disable", result("GenericControl", control, "Enable", Empty()), "EResultIllegal")
expect("disable", result("GenericControl", control, "Disable", Empty()), "EResultOk")
expect_state(states, "EStateDisabled")
expect("enable", result("GenericControl", control, "Enable", Empty()), "EResultOk")
expect_state(states, "EStateEnabled")
expect("inject", result("Rfid", rfid, "InjectToken", token), "EResultOk")
expect("token", next(cards).token,
       rfid_pb2.MRfidToken(uid="04A12B5C", auth_state=rfid_pb2.ERfidUidNotInList))
expect("malformed", result("Rfid", rfid, "InjectToken", rfid_pb2.MInjectToken(uid="x")), "EResultOk")
expect("malformed token", next(cards).token,
       rfid_pb2.MRfidToken(uid="X", auth_state=rfid_pb2.ERfidUidInvalid))
learning = rfid_pb2.MEnableLearning(enable=True)
expect("learning", result("Rfid", rfid, "EnableLearning", learning), "EResultOk")
expect("inject", result("Rfid", rfid, "InjectToken", rfid_pb2.MInjectToken(uid="11223344")), "EResultOk")
expect("learning token", next(cards).learning_token, rfid_pb2.MRfidLearningToken(uid="11223344"))

debug = log_config_pb2.MLogLevel(level=log_config_pb2.ELogDebug)
expect("set level", result("LogConfig", log, "SetLogLevel", debug), "EResultOk")
expect("level", call("LogConfig", log, "GetLogLevel", Empty()), debug)
unknown = log_config_pb2.MLogLevel(level=77)
expect("unknown level", result("LogConfig", log, "SetLogLevel", unknown), "EResultIllegal")

feedback = feedback_pb2_grpc.FeedbackStub(channel(FEEDBACK, "Feedback"))
event = feedback_pb2.MFbEventType(type=feedback_pb2.EFbAuthRejected)
expect("feedback", result("Feedback", feedback, "TriggerFeedbackEvent", event), "EResultOk")
diagnostics = diagnostics_pb2_grpc.DiagnosticsStub(channel(DIAGNOSTICS, "Diagnostics"))
signal = diagnostics_pb2.MSignal(id=diagnostics_pb2.ESignalRfidLastUid, name="Rfid last scanned UID", value="test")
expect("signal", result("Diagnostics", diagnostics, "UpdateSignal", signal), "EResultOk")

nobody = generic_control_pb2_grpc.GenericControlStub(channel(DAEMON, "Nobody"))
expect_status("unknown name", lambda: nobody.Enable(Empty(), timeout=PATIENCE), grpc.StatusCode.UNIMPLEMENTED, "")
expect_status("a service under another's name",
              lambda: rfid_pb2_grpc.RfidStub(channel(DAEMON, "RfidLog")).InjectToken(token, timeout=PATIENCE),
              grpc.StatusCode.UNIMPLEMENTED, "")
expect_status("large request",
              lambda: rfid.InjectToken(rfid_pb2.MInjectToken(uid="A" * 70000), timeout=PATIENCE),
              grpc.StatusCode.RESOURCE_EXHAUSTED, "larger than max")

files = (generic_control_pb2, rfid_pb2, log_config_pb2, feedback_pb2, diagnostics_pb2)
offered = {(name, method.name) for file in files for name, service in file.DESCRIPTOR.services_by_name.items()
           for method in service.methods}
expect("methods called", called, offered)
print("every method was called:", len(called))
