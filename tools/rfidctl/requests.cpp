#include "tools/rfidctl/commands.h"

#include <chrono>

#include "ipc/diagnostics.grpc.pb.h"
#include "ipc/generic_control.grpc.pb.h"
#include "ipc/log_config.grpc.pb.h"
#include "ipc/rfid.grpc.pb.h"
#include "tools/common/channel.h"
#include "tools/common/output.h"
#include "tools/common/texts.h"

namespace {

constexpr auto kLookTime = std::chrono::seconds(10);  ///< for values that are at hand

[[noreturn]] void Fail(const Daemon& daemon, const grpc::Status& status) {
  if (status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED) {
    throw Unreachable("the " + daemon.who + " at " + daemon.address + " does not answer");
  }
  if (status.error_code() == grpc::StatusCode::RESOURCE_EXHAUSTED) {
    throw std::runtime_error("the " + daemon.who + " refuses: " + ReasonOf(status));
  }
  throw Unreachable("cannot reach the " + daemon.who + " at " + daemon.address + ": " + ReasonOf(status));
}

void SetTimeout(grpc::ClientContext& context) {
  context.set_deadline(std::chrono::system_clock::now() + kLookTime);
}

void Print(const Daemon& daemon, const char* key, const std::string& value) {
  LineOutput output;
  if (daemon.json) {
    Json::Value line;
    line[key] = value;
    output.Write(ToJsonLine(line));
  } else {
    output.Write(value);
  }
}

}  // namespace

EExit Request(const Daemon& daemon, const std::function<Answer(DaemonClient&)>& request) {
  DaemonClient client(daemon.address);
  const Answer answer = request(client);
  if (!answer.status.ok()) {
    Fail(daemon, answer.status);
  }
  if (daemon.json) {
    Print(daemon, "result", answer.IsOk() ? "Ok" : "Illegal");
  }
  if (!answer.IsOk()) {
    PrintError(kTool, "the daemon refuses: " + answer.refusal);
  }
  return answer.IsOk() ? EExit::Ok : EExit::Failed;
}

EExit PrintState(const Daemon& daemon) {
  const auto stub = ipc::GenericControl::NewStub(OpenChannel(daemon.address, kControlService));
  grpc::ClientContext context;
  SetTimeout(context);
  const auto stream = stub->Subscribe(&context, ipc::MEmpty());
  ipc::MGenericControlNotification notification;
  while (stream->Read(&notification)) {
    if (notification.has_state()) {
      context.TryCancel();
      stream->Finish();
      Print(daemon, "state", StateText(notification.state().state()));
      return EExit::Ok;
    }
  }
  Fail(daemon, stream->Finish());
}

EExit PrintLogLevel(const Daemon& daemon) {
  const auto stub = ipc::LogConfig::NewStub(OpenChannel(daemon.address, kLogService));
  grpc::ClientContext context;
  SetTimeout(context);
  ipc::MLogLevel level;
  if (const auto status = stub->GetLogLevel(&context, {}, &level); !status.ok()) {
    Fail(daemon, status);
  }
  const auto number = static_cast<std::size_t>(level.level());
  Print(daemon, "level", number < kLogLevels.size() ? kLogLevels[number] : std::to_string(level.level()));
  return EExit::Ok;
}

EExit PrintSignals(const Daemon& diagnostics) {
  const auto stub = ipc::Diagnostics::NewStub(OpenChannel(diagnostics.address, kDiagnosticsService));
  grpc::ClientContext context;
  SetTimeout(context);
  ipc::MSignals known;
  const grpc::Status status = stub->List(&context, {}, &known);
  if (status.error_code() == grpc::StatusCode::UNIMPLEMENTED) {
    PrintError(kTool, "the diagnostics service at " + diagnostics.address +
                          " only takes signals, it does not list them");
    return EExit::Failed;
  }
  if (!status.ok()) {
    Fail(diagnostics, status);
  }
  LineOutput output;
  for (const ipc::MSignal& signal : known.signals()) {
    if (!output.Write(diagnostics.json ? ToJsonLine(SignalJson(signal)) : Printable(SignalText(signal)))) {
      break;
    }
  }
  return EExit::Ok;
}
