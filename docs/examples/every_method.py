#!/usr/bin/env python3
r"""One call of every method of the station's services, with nothing but the installed .proto files.

The client is generated once:

    protos=/usr/share/rfidd/proto
    protoc -I $protos --python_out=. --grpc_out=. --plugin=protoc-gen-grpc=$(command -v grpc_python_plugin) \
      $protos/ipc/*.proto

Then, with a daemon that has just been started (it is Uninitialized), and Feedback and Diagnostics, for which
"virtual-station serve" can stand in:

    python3 every_method.py unix:ROOT/run/rfid/rfid.sock unix:ROOT/run/feedback.sock unix:ROOT/run/diagnostics.sock

The three addresses are "listen" and the two "peers" of ROOT/etc/plex.json. The program brings the daemon to Enabled and
simulates cards. It ends with an error where an answer is not what the documentation says, and when the files have a
method that is not called here.
"""

import sys

import grpc
from ipc import (common_pb2, diagnostics_pb2, diagnostics_pb2_grpc, feedback_pb2, feedback_pb2_grpc,
                 generic_control_pb2, generic_control_pb2_grpc, log_config_pb2, log_config_pb2_grpc, rfid_pb2,
                 rfid_pb2_grpc)

PATIENCE = 60  # seconds; a slow reader may keep the daemon busy for half of it

if len(sys.argv) != 4:
    sys.exit("usage: every_method.py DAEMON FEEDBACK DIAGNOSTICS (addresses, see the beginning of this file)")
DAEMON, FEEDBACK, DIAGNOSTICS = sys.argv[1:]
Empty = common_pb2.MEmpty


def channel(address, name):
    """The way to the service that is registered under this name: whom a client wants it says by the authority."""
    return grpc.insecure_channel(address, options=[("grpc.default_authority", name)])


# ---- Checks ----------------------------------------------------------------------------------------------------------

called = set()


def call(service, stub, method, request):
    """Calls stub.method and notes it. A client that is to stay gives its subscriptions no timeout."""
    called.add((service, method))
    return getattr(stub, method)(request, timeout=PATIENCE)


def result(service, stub, method, request):
    return common_pb2.EResult.Name(call(service, stub, method, request).result)


def expect(what, actual, expected):
    if actual != expected:
        sys.exit(f"{what}: {actual!r}, expected {expected!r}")


def expect_state(notifications, state):
    for notification in notifications:  # signs of life may come between
        if notification.HasField("state"):
            return expect("state", common_pb2.EState.Name(notification.state.state), state)
    sys.exit("the stream of states ended")


def expect_status(what, stub_call, code, detail=""):
    try:
        stub_call()
    except grpc.RpcError as error:
        expect(what, error.code(), code)
        expect(what + ", in words", detail in error.details(), True)
    else:
        sys.exit(f"{what}: no error")


# ---- RfidGenCtrl: the supervisor brings the daemon to Enabled --------------------------------------------------------

control = generic_control_pb2_grpc.GenericControlStub(channel(DAEMON, "RfidGenCtrl"))
rfid = rfid_pb2_grpc.RfidStub(channel(DAEMON, "Rfid"))

states = call("GenericControl", control, "Subscribe", Empty())
cards = call("Rfid", rfid, "Subscribe", Empty())
cards.initial_metadata()  # waits until subscribed: from now on no card is missed

expect_state(states, "EStateUninitialized")
token = rfid_pb2.MInjectToken(uid="04a12b5c")
expect("inject before enable", result("Rfid", rfid, "InjectToken", token), "EResultIllegal")
expect("enable before disable", result("GenericControl", control, "Enable", Empty()), "EResultIllegal")
expect("disable", result("GenericControl", control, "Disable", Empty()), "EResultOk")
expect_state(states, "EStateDisabled")
expect("enable", result("GenericControl", control, "Enable", Empty()), "EResultOk")
expect_state(states, "EStateEnabled")

# ---- Rfid: cards, malformed ones, and cards that are learned ---------------------------------------------------------

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

# ---- RfidLog: the log level ------------------------------------------------------------------------------------------

log = log_config_pb2_grpc.LogConfigStub(channel(DAEMON, "RfidLog"))
debug = log_config_pb2.MLogLevel(level=log_config_pb2.ELogDebug)
expect("set level", result("LogConfig", log, "SetLogLevel", debug), "EResultOk")
expect("level", call("LogConfig", log, "GetLogLevel", Empty()), debug)
unknown = log_config_pb2.MLogLevel(level=77)
expect("unknown level", result("LogConfig", log, "SetLogLevel", unknown), "EResultIllegal")

# ---- Feedback and Diagnostics: what the daemon calls -----------------------------------------------------------------

feedback = feedback_pb2_grpc.FeedbackStub(channel(FEEDBACK, "Feedback"))
event = feedback_pb2.MFbEventType(type=feedback_pb2.EFbAuthRejected)
expect("feedback", result("Feedback", feedback, "TriggerFeedbackEvent", event), "EResultOk")

diagnostics = diagnostics_pb2_grpc.DiagnosticsStub(channel(DIAGNOSTICS, "Diagnostics"))
signal = diagnostics_pb2.MSignal(id=diagnostics_pb2.ESignalNone, name="an example", value="1.5", unit="V")
expect("signal", result("Diagnostics", diagnostics, "UpdateSignal", signal), "EResultOk")
later = diagnostics_pb2.MSignal(id=diagnostics_pb2.ESignalNone, name="an example", value="2.5", unit="V")
both = diagnostics_pb2.MSignals(signals=[signal, later])
expect("signals", result("Diagnostics", diagnostics, "UpdateSignals", both), "EResultOk")
known = call("Diagnostics", diagnostics, "List", Empty()).signals
expect("the last value among those listed", later in known, True)

# ---- What is refused -------------------------------------------------------------------------------------------------

nobody = generic_control_pb2_grpc.GenericControlStub(channel(DAEMON, "Nobody"))
expect_status("unknown name", lambda: nobody.Enable(Empty(), timeout=PATIENCE), grpc.StatusCode.UNIMPLEMENTED)
stranger = rfid_pb2_grpc.RfidStub(channel(DAEMON, "RfidLog"))
expect_status("a service under another's name", lambda: stranger.InjectToken(token, timeout=PATIENCE),
              grpc.StatusCode.UNIMPLEMENTED)
large = rfid_pb2.MInjectToken(uid="A" * 70000)
expect_status("large request", lambda: rfid.InjectToken(large, timeout=PATIENCE),
              grpc.StatusCode.RESOURCE_EXHAUSTED, "larger than max")

# ---- Nothing was left out --------------------------------------------------------------------------------------------

files = (generic_control_pb2, rfid_pb2, log_config_pb2, feedback_pb2, diagnostics_pb2)
offered = {(name, method.name) for file in files for name, service in file.DESCRIPTOR.services_by_name.items()
           for method in service.methods}
expect("methods called", called, offered)
print("every method was called:", len(called))
