#!/usr/bin/env python3
"""Calls every method of the station's services once, with nothing but the .proto files.

Start a station: "scripts/demo" shows how, or rfidd (it must be Uninitialized) and "virtual-station serve". Then:

    every_method.py unix:ROOT/run/rfid/rfid.sock unix:ROOT/run/feedback.sock unix:ROOT/run/diagnostics.sock

The three addresses are "listen" and the two "peers" of ROOT/etc/plex.json. The program generates its client, brings the
daemon to Enabled and simulates cards. It ends with an error where an answer is not what the documentation says, and
when the files have a method that is not called here. It needs the Debian packages python3-grpcio, python3-protobuf,
protobuf-compiler and protobuf-compiler-grpc.
"""

import argparse
import pathlib
import shutil
import subprocess
import sys
import tempfile

PATIENCE = 60  # seconds; a slow reader may keep the daemon busy for half of it

here = pathlib.Path(__file__).resolve().parent
places = [here / "../../../rfidd/proto", here / "../../framework/proto"]  # installed; in the source tree
parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
parser.add_argument("daemon", help="address of the daemon: unix:PATH or HOST:PORT")
parser.add_argument("feedback", help="address of the feedback service")
parser.add_argument("diagnostics", help="address of the diagnostics service")
parser.add_argument("--protos", type=pathlib.Path, default=next(filter(pathlib.Path.is_dir, places), places[0]),
                    help="folder of the .proto files, default: %(default)s")
arguments = parser.parse_args()
DAEMON, FEEDBACK, DIAGNOSTICS = arguments.daemon, arguments.feedback, arguments.diagnostics

with tempfile.TemporaryDirectory() as generated:
    subprocess.run(["protoc", "-I", arguments.protos, f"--python_out={generated}", f"--grpc_out={generated}",
                    f"--plugin=protoc-gen-grpc={shutil.which('grpc_python_plugin')}",
                    *arguments.protos.glob("ipc/*.proto")], check=True)
    sys.path.insert(0, generated)
    import grpc
    from ipc import (common_pb2, diagnostics_pb2, diagnostics_pb2_grpc, feedback_pb2, feedback_pb2_grpc,
                     generic_control_pb2, generic_control_pb2_grpc, log_config_pb2, log_config_pb2_grpc, rfid_pb2,
                     rfid_pb2_grpc)

Empty = common_pb2.MEmpty


def channel(address, name):
    """A channel to the service that is registered under this name, which the client asks for by the authority."""
    return grpc.insecure_channel(address, options=[("grpc.default_authority", name)])


# Checks

called = set()


def call(service, stub, method, request):
    """Calls stub.method and notes it. A client that runs on gives its subscriptions no timeout."""
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


# RfidGenCtrl: the supervisor brings the daemon to Enabled

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

# Rfid: cards, malformed ones, and cards that are learned

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
learning.enable = False
expect("no more learning", result("Rfid", rfid, "EnableLearning", learning), "EResultOk")

# RfidLog: the log level

log = log_config_pb2_grpc.LogConfigStub(channel(DAEMON, "RfidLog"))
debug = log_config_pb2.MLogLevel(level=log_config_pb2.ELogDebug)
expect("set level", result("LogConfig", log, "SetLogLevel", debug), "EResultOk")
expect("level", call("LogConfig", log, "GetLogLevel", Empty()), debug)
unknown = log_config_pb2.MLogLevel(level=77)
expect("unknown level", result("LogConfig", log, "SetLogLevel", unknown), "EResultIllegal")

# Feedback and Diagnostics: what the daemon calls

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

# What is refused

nobody = generic_control_pb2_grpc.GenericControlStub(channel(DAEMON, "Nobody"))
expect_status("unknown name", lambda: nobody.Enable(Empty(), timeout=PATIENCE), grpc.StatusCode.UNIMPLEMENTED)
stranger = rfid_pb2_grpc.RfidStub(channel(DAEMON, "RfidLog"))
expect_status("a service under another's name", lambda: stranger.InjectToken(token, timeout=PATIENCE),
              grpc.StatusCode.UNIMPLEMENTED)
large = rfid_pb2.MInjectToken(uid="A" * 70000)
expect_status("large request", lambda: rfid.InjectToken(large, timeout=PATIENCE),
              grpc.StatusCode.RESOURCE_EXHAUSTED, "larger than max")

# Nothing was left out

files = (generic_control_pb2, rfid_pb2, log_config_pb2, feedback_pb2, diagnostics_pb2)
offered = {(name, method.name) for file in files for name, service in file.DESCRIPTOR.services_by_name.items()
           for method in service.methods}
expect("methods called", called, offered)
print("every method was called:", len(called))
