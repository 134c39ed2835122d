#include "tools/virtual-station/bench.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <system_error>
#include <utility>

#include "tools/common/channel.h"
#include "tools/common/output.h"
#include "tools/common/texts.h"
#include "tools/virtual-nfc/server/controlprotocol.h"

namespace {

constexpr auto kLookPeriod = std::chrono::milliseconds(250);

std::string TextOf(const Json::Value& request, const char* key) {
  return request[key].isString() ? request[key].asString() : "";
}

BenchAnswer ToBenchAnswer(const Answer& answer, const std::string& done) {
  if (!answer.status.ok()) {
    return {false, "The daemon cannot be reached: " + ReasonOf(answer.status) + "."};
  }
  return answer.IsOk() ? BenchAnswer{true, done}
                       : BenchAnswer{false, "The daemon refuses: " + answer.refusal + "."};
}

/// The last lines of a log file, without control characters.
Json::Value LastLines(const std::string& path) {
  constexpr std::streamoff kMost = 128L * 1024;  // a dozen cards at trace
  Json::Value lines(Json::arrayValue);
  if (std::error_code error; !std::filesystem::is_regular_file(path, error)) {
    return lines;
  }
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  const std::streamoff size = file.tellg();
  file.seekg(std::max<std::streamoff>(0, size - kMost));
  std::string line;
  if (size > kMost) {
    std::getline(file, line);  // the end of a line
  }
  while (std::getline(file, line)) {
    lines.append(Printable(line));
  }
  return lines;
}

}  // namespace

Bench::Bench(BenchSettings settings)
    : mSettings(std::move(settings)),
      mConfiguration(mSettings.rpc.configuration),
      mDaemon(mSettings.rpc.listen),
      mStation(mSettings.rpc.peers,
               [this](const VirtualStation::Call& call) {
                 if (const auto* event = std::get_if<ipc::MFbEventType>(&call)) {
                   mModel.OnFeedback(event->type());
                 } else {
                   mModel.OnSignal(std::get<ipc::MSignal>(call));
                 }
               }),
      mTokens(
          OpenChannel(mSettings.rpc.listen, kRfidService),
          [this](const auto& notification) { OnToken(notification); },
          [this](const auto& end) { mModel.OnStreamEnd(BenchModel::EStream::Cards, ReasonOf(end)); },
          [this] { mModel.OnStreamOpen(BenchModel::EStream::Cards); }),
      mStates(
          OpenChannel(mSettings.rpc.listen, kControlService),
          [this](const auto& notification) { OnState(notification); },
          [this](const auto& end) { mModel.OnStreamEnd(BenchModel::EStream::States, ReasonOf(end)); },
          [this] { mModel.OnStreamOpen(BenchModel::EStream::States); }),
      mWatcher([this](const std::stop_token& stop) { Watch(stop); }) {}

void Bench::OnToken(const ipc::MRfidNotification& notification) {
  if (notification.has_token()) {
    mModel.OnToken(notification.token());
  } else if (notification.has_learning_token()) {
    mModel.OnLearningToken(notification.learning_token().uid());
  }
}

void Bench::OnState(const ipc::MGenericControlNotification& notification) {
  if (notification.has_state()) {
    mModel.OnState(StateText(notification.state().state()));
  } else if (notification.has_alive()) {
    mModel.OnAlive();
  }
}

void Bench::Watch(const std::stop_token& stop) {
  std::mutex mutex;
  std::condition_variable_any wake;
  std::unique_lock lock(mutex);
  while (!stop.stop_requested()) {
    mModel.Set("reader", Reader());
    mModel.Set("settings", Settings());
    mModel.Set("log", LastLines(mSettings.logFile));
    mModel.GiveUpWaiting(std::chrono::steady_clock::now());
    wake.wait_for(lock, stop, kLookPeriod, [] { return false; });
  }
}

Json::Value Bench::Reader() const {
  Json::Value reader;
  reader["simulated"] = !mSettings.nfcSocket.empty();
  if (!mSettings.nfcSocket.empty()) {
    const std::string reply = virtualnfc::AskServer(mSettings.nfcSocket, "status");
    reader["there"] = reply.starts_with("ok\n");
    reader["devices"] = ParseJsonObject(reply.substr(reply.find('\n') + 1))["devices"];
  }
  return reader;
}

Json::Value Bench::Settings() const {
  Json::Value settings;
  try {
    settings["ocpp"] = mConfiguration.IsOn(kOcppActive);
    settings["free"] = mConfiguration.IsOn(kFreeCharging);
    settings["permitted"] = Json::arrayValue;
    for (const std::string& uid : mConfiguration.PermittedUids()) {
      settings["permitted"].append(uid);
    }
  } catch (const std::exception& e) {
    settings["problem"] = e.what();
  }
  return settings;
}

BenchAnswer Bench::Do(const Json::Value& request) try {
  const std::string what = TextOf(request, "do");
  const std::string uid = TextOf(request, "uid");
  if (what == "enable") {
    return ToBenchAnswer(mDaemon.Enable(), "The daemon was asked to read cards.");
  }
  if (what == "disable") {
    return ToBenchAnswer(mDaemon.Disable(), "The daemon was asked to stop reading cards.");
  }
  if (what == "plug" || what == "unplug") {
    return AskReader(what, what == "plug" ? "The reader is plugged in." : "The reader is pulled out.");
  }
  if (what == "fault") {
    return AskReader("rule add START_POLL nth=1 errno=EPROTO",
                     "The reader fails when it next starts to poll.");
  }
  if (what == "tap" || what == "inject") {
    return Present(uid, what == "tap" ? TextOf(request, "kind") : "");
  }
  if (!request["on"].isBool()) {
    return {false, "the bench does not understand this request"};
  }
  const bool on = request["on"].asBool();
  if (what == "permit") {
    mConfiguration.Permit(uid, on);
    return {true, uid + (on ? " is in the local list." : " is no longer in the local list.")};
  }
  return SetMode(what, on);
} catch (const std::exception& e) {
  return {false, e.what()};
}

BenchAnswer Bench::SetMode(const std::string& mode, bool on) {
  if (mode == "learning") {
    const auto answer = mDaemon.SetLearning(on);
    if (answer.IsOk()) {
      mModel.Set("learning", on);
    }
    return ToBenchAnswer(answer, on ? "Cards are learned from now on." : "Cards are authorised from now on.");
  }
  if (mode == "ocpp") {
    mConfiguration.Switch(kOcppActive, on);
    return {true, on ? "The backend authorises cards." : "The local list authorises cards."};
  }
  if (mode == "free") {
    mConfiguration.Switch(kFreeCharging, on);
    return {true, on ? "Charging is free." : "Charging needs a card."};
  }
  return {false, "the bench does not understand this request"};
}

/// Taps the card, or injects one without a kind.
BenchAnswer Bench::Present(const std::string& uid, const std::string& kind) {
  const auto card = mModel.OnCardPresented(uid, kind, std::chrono::steady_clock::now());
  auto answer = kind.empty()
                    ? ToBenchAnswer(mDaemon.Inject(uid), uid + " was injected.")
                    : AskReader("tap " + uid + " --tech " + kind + " --hold 0.7", uid + " is at the reader.");
  if (!answer.done) {
    mModel.Withdraw(card);
  }
  return answer;
}

BenchAnswer Bench::AskReader(const std::string& line, const std::string& done) const {
  if (mSettings.nfcSocket.empty()) {
    return {false, "There is no simulated reader: the bench was started without --nfc. Injecting works."};
  }
  const std::string reply = virtualnfc::AskServer(mSettings.nfcSocket, line);
  if (reply.empty()) {
    return {false, "virtual-nfc cannot be reached at " + mSettings.nfcSocket + ": " +
                       std::generic_category().message(errno) + "."};
  }
  const auto first = reply.substr(0, reply.find('\n'));
  return first == "ok" ? BenchAnswer{true, done} : BenchAnswer{false, "virtual-nfc: " + first + "."};
}
