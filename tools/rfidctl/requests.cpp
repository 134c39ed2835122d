#include "tools/rfidctl/commands.h"

#include <algorithm>
#include <chrono>

#include "ipc/diagnostics.grpc.pb.h"
#include "ipc/generic_control.grpc.pb.h"
#include "ipc/log_config.grpc.pb.h"
#include "ipc/rfid.grpc.pb.h"
#include "tools/common/channel.h"
#include "tools/common/output.h"
#include "tools/common/texts.h"

namespace {

// A command to the reader may keep the daemon's machine busy for half a minute.
constexpr auto kAnswerTime = std::chrono::seconds(60);
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

/// Makes one request to the service registered under `name`. Returns the status of the call.
template <typename Service, typename Request, typename Response>
grpc::Status Try(const Daemon& daemon, const char* name,
                 grpc::Status (Service::Stub::*operation)(grpc::ClientContext*, const Request&, Response*),
                 const Request& request, Response& response, std::chrono::seconds patience) {
  const auto stub = Service::NewStub(OpenChannel(daemon.address, name));
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + patience);
  return ((*stub).*operation)(&context, request, &response);
}

/// The same, but returns the answer. Fails without one.
template <typename Service, typename Request, typename Response>
Response Ask(const Daemon& daemon, const char* name,
             grpc::Status (Service::Stub::*operation)(grpc::ClientContext*, const Request&, Response*),
             const Request& request) {
  Response response;
  const grpc::Status status = Try<Service>(daemon, name, operation, request, response, kAnswerTime);
  if (!status.ok()) {
    Fail(daemon, status);
  }
  return response;
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

EExit Conclude(const Daemon& daemon, const ipc::MResult& result, const std::string& refusal) {
  const bool ok = result.result() == ipc::EResultOk;
  if (daemon.json) {
    Print(daemon, "result", ok ? "Ok" : "Illegal");
  }
  if (!ok) {
    PrintError(kTool, "the daemon refuses: " + refusal);
  }
  return ok ? EExit::Ok : EExit::Failed;
}

}  // namespace

EExit PrintState(const Daemon& daemon) {
  const auto stub = ipc::GenericControl::NewStub(OpenChannel(daemon.address, kControlService));
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + kLookTime);
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

EExit Enable(const Daemon& daemon) {
  return Conclude(
      daemon,
      Ask<ipc::GenericControl>(daemon, kControlService, &ipc::GenericControl::Stub::Enable, ipc::MEmpty()),
      "it cannot be enabled in its present state");
}

EExit Disable(const Daemon& daemon) {
  return Conclude(
      daemon,
      Ask<ipc::GenericControl>(daemon, kControlService, &ipc::GenericControl::Stub::Disable, ipc::MEmpty()),
      "it cannot be disabled in its present state");
}

EExit SetLearning(const Daemon& daemon, bool on) {
  ipc::MEnableLearning request;
  request.set_enable(on);
  return Conclude(daemon, Ask<ipc::Rfid>(daemon, kRfidService, &ipc::Rfid::Stub::EnableLearning, request),
                  "learning needs the daemon to be enabled");
}

EExit InjectToken(const Daemon& daemon, const std::string& uid) {
  ipc::MInjectToken request;
  request.set_uid(uid);
  return Conclude(daemon, Ask<ipc::Rfid>(daemon, kRfidService, &ipc::Rfid::Stub::InjectToken, request),
                  "injecting a token needs the daemon to be enabled");
}

EExit PrintLogLevel(const Daemon& daemon) {
  const auto level =
      Ask<ipc::LogConfig>(daemon, kLogService, &ipc::LogConfig::Stub::GetLogLevel, ipc::MEmpty());
  const auto number = static_cast<std::size_t>(level.level());
  Print(daemon, "level", number < kLogLevels.size() ? kLogLevels[number] : std::to_string(level.level()));
  return EExit::Ok;
}

EExit SetLogLevel(const Daemon& daemon, const std::string& level) {
  const auto number = std::find(kLogLevels.begin(), kLogLevels.end(), level) - kLogLevels.begin();
  ipc::MLogLevel request;
  request.set_level(static_cast<ipc::ELogLevel>(number));
  return Conclude(daemon,
                  Ask<ipc::LogConfig>(daemon, kLogService, &ipc::LogConfig::Stub::SetLogLevel, request),
                  "it has no such log level");
}

EExit PrintSignals(const Daemon& diagnostics) {
  ipc::MSignals known;
  const grpc::Status status = Try<ipc::Diagnostics>(
      diagnostics, kDiagnosticsService, &ipc::Diagnostics::Stub::List, ipc::MEmpty(), known, kLookTime);
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
