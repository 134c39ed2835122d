#include "tools/virtual-station/bench.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "tools/common/channel.h"
#include "tools/common/output.h"
#include "tools/common/texts.h"
#include "tools/virtual-nfc/kernel/tag.h"
#include "tools/virtual-nfc/server/controlprotocol.h"

namespace {

// A command to the reader may take the daemon half a minute.
constexpr auto kAnswerTime = std::chrono::seconds(60);
constexpr auto kLogPeriod = std::chrono::milliseconds(250);
constexpr int kLookPeriods = 4;
constexpr const char* kHoldSeconds = "0.7";
constexpr std::size_t kLongestUid = 64;

bool IsHex(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

bool IsPrintableAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

std::string TextOf(const Json::Value& request, const char* key) {
  return request[key].isString() ? request[key].asString() : "";
}

}  // namespace

Bench::Bench(BenchSettings settings)
    : mSettings(std::move(settings)),
      mSwitches(mSettings.rpc.configuration),
      mCards(mSettings.rpc.configuration),
      mLog(mSettings.logFile),
      mControlChannel(OpenChannel(mSettings.rpc.listen, kControlService)),
      mRfidChannel(OpenChannel(mSettings.rpc.listen, kRfidService)) {
  mModel.SetLearning(false);
  LookAtSettings();
  ServePeers();
  Subscribe();
  mWatcher = std::thread([this] { WatchFiles(); });
}

Bench::~Bench() {
  Stop();
  mWatcher.join();
}

void Bench::Stop() {
  const std::lock_guard lock(mMutex);
  mStopping = true;
  mWake.notify_all();
  for (grpc::ClientContext* call : mCalls) {
    call->TryCancel();
  }
}

void Bench::ServePeers() {
  try {
    mStation =
        std::make_unique<VirtualStation>(mSettings.rpc.peers, [this](const VirtualStation::Call& call) {
          if (const auto* event = std::get_if<ipc::MFbEventType>(&call)) {
            mModel.OnFeedback(event->type());
          } else {
            mModel.OnSignal(std::get<ipc::MSignal>(call));
          }
        });
  } catch (const std::runtime_error& e) {
    mPeersProblem = std::string("the lamp and the signals do not work: ") + e.what();
    mModel.SetNotice("No feedback here: " + mPeersProblem + ".");
  }
}

void Bench::Subscribe() {
  const auto opened = [this](BenchModel::EStream stream) {
    return [this, stream] { mModel.OnStreamOpen(stream); };
  };
  const auto ended = [this](BenchModel::EStream stream) {
    return [this, stream](const grpc::Status& status) { mModel.OnStreamEnd(stream, ReasonOf(status)); };
  };
  // Subscribe to cards first: a state may lead to a card at once, and the bench must not miss its outcome.
  mTokens = std::make_unique<Subscriber<ipc::Rfid, ipc::MRfidNotification>>(
      mRfidChannel,
      [this](const ipc::MRfidNotification& notification) {
        if (notification.has_token()) {
          mModel.OnToken(notification.token());
        } else if (notification.has_learning_token()) {
          mModel.OnLearningToken(notification.learning_token().uid());
        }
      },
      ended(BenchModel::EStream::Cards), opened(BenchModel::EStream::Cards));
  mStates = std::make_unique<Subscriber<ipc::GenericControl, ipc::MGenericControlNotification>>(
      mControlChannel,
      [this](const ipc::MGenericControlNotification& notification) {
        if (notification.has_state()) {
          mModel.OnState(StateText(notification.state().state()));
        } else if (notification.has_alive()) {
          mModel.OnAlive();
        }
      },
      ended(BenchModel::EStream::States), opened(BenchModel::EStream::States));
}

void Bench::WatchFiles() {
  int period = 0;
  std::unique_lock lock(mMutex);
  while (!mStopping) {
    const bool look = std::exchange(mLookSoon, false) || period == 0;
    lock.unlock();
    if (const auto lines = mLog.Read(); !lines.empty()) {
      mModel.OnLogLines(lines);
    }
    if (look) {
      Look();
    }
    period = (period + 1) % kLookPeriods;
    lock.lock();
    mWake.wait_for(lock, kLogPeriod, [this] { return mStopping || mLookSoon; });
  }
}

void Bench::Look() {
  LookAtReader();
  LookAtSettings();
  mModel.GiveUpWaiting(std::chrono::steady_clock::now());
}

void Bench::LookAtReader() {
  Json::Value reader;
  reader["simulated"] = !mSettings.nfcSocket.empty();
  if (!mSettings.nfcSocket.empty()) {
    const std::string reply = virtualnfc::AskServer(mSettings.nfcSocket, "status");
    reader["there"] = reply.starts_with("ok\n");
    reader["devices"] = ParseJsonObject(reply.substr(reply.find('\n') + 1))["devices"];
  }
  mModel.SetReader(reader);
}

void Bench::LookAtSettings() {
  Json::Value settings;
  try {
    settings["ocpp"] = mSwitches.IsOcppActive();
    settings["free"] = mSwitches.IsFreeCharging();
    settings["permitted"] = Json::Value(Json::arrayValue);
    for (const std::string& uid : mCards.Uids()) {
      settings["permitted"].append(uid);
    }
  } catch (const std::exception& e) {
    settings["problem"] = e.what();
  }
  mModel.SetSettings(settings);
}

BenchAnswer Bench::Do(const Json::Value& request) {
  try {
    if (!request.isObject() || !request["do"].isString()) {
      return {false, "the request has no \"do\" field"};
    }
    BenchAnswer answer = Carry(request);
    const std::lock_guard lock(mMutex);
    mLookSoon = true;
    mWake.notify_all();
    return answer;
  } catch (const std::exception& e) {
    return {false, e.what()};
  }
}

BenchAnswer Bench::Carry(const Json::Value& request) {
  const std::string what = TextOf(request, "do");
  const std::string uid = TextOf(request, "uid");
  const bool isSwitch = request["on"].isBool();
  const bool on = isSwitch && request["on"].asBool();
  if (what == "enable") {
    const auto control = ipc::GenericControl::NewStub(mControlChannel);
    return Ask([&](auto& context, auto& result) { return control->Enable(&context, {}, &result); },
               "The daemon was asked to read cards.", "it cannot be enabled in its present state");
  }
  if (what == "disable") {
    const auto control = ipc::GenericControl::NewStub(mControlChannel);
    return Ask([&](auto& context, auto& result) { return control->Disable(&context, {}, &result); },
               "The daemon was asked to stop reading cards.", "it cannot be disabled in its present state");
  }
  if (what == "plug" || what == "unplug") {
    return AskReader(what, what == "plug" ? "The reader is plugged in." : "The reader is pulled out.");
  }
  if (what == "fault") {
    return AskReader("rule add START_POLL nth=1 errno=EPROTO",
                     "The reader fails when it next starts to poll.");
  }
  if (what == "tap") {
    return Tap(TextOf(request, "kind"), uid);
  }
  if (what == "inject") {
    return Inject(uid);
  }
  if (what == "learning" && isSwitch) {
    return SetLearning(on);
  }
  if (what == "ocpp" && isSwitch) {
    mSwitches.SetOcppActive(on);
    return {true, on ? "The backend authorises cards." : "The local list authorises cards."};
  }
  if (what == "free" && isSwitch) {
    mSwitches.SetFreeCharging(on);
    return {true, on ? "Charging is free." : "Charging needs a card."};
  }
  if (what == "permit" && isSwitch && IsHex(uid)) {
    if (on) {
      mCards.Add(uid);
    } else {
      mCards.Remove(uid);
    }
    return {true, uid + (on ? " is in the local list." : " is no longer in the local list.")};
  }
  return {false, "the bench does not understand this request"};
}

BenchAnswer Bench::Ask(const std::function<grpc::Status(grpc::ClientContext&, ipc::MResult&)>& call,
                       const std::string& done, const std::string& refusal) {
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + kAnswerTime);
  {
    const std::lock_guard lock(mMutex);
    if (mStopping) {
      return {false, "the bench is stopping"};
    }
    mCalls.insert(&context);
  }
  ipc::MResult result;
  const grpc::Status status = call(context, result);
  {
    const std::lock_guard lock(mMutex);
    mCalls.erase(&context);
  }
  if (!status.ok()) {
    return {false, "The daemon cannot be reached: " + ReasonOf(status) + "."};
  }
  return result.result() == ipc::EResultOk ? BenchAnswer{true, done}
                                           : BenchAnswer{false, "The daemon refuses: " + refusal + "."};
}

BenchAnswer Bench::SetLearning(bool on) {
  ipc::MEnableLearning request;
  request.set_enable(on);
  const auto rfid = ipc::Rfid::NewStub(mRfidChannel);
  BenchAnswer answer =
      Ask([&](auto& context, auto& result) { return rfid->EnableLearning(&context, request, &result); },
          on ? "Cards are learned from now on." : "Cards are authorised from now on.",
          "learning needs it to be enabled");
  if (answer.done) {
    mModel.SetLearning(on);
  }
  return answer;
}

BenchAnswer Bench::Inject(const std::string& uid) {
  if (uid.empty() || uid.size() > kLongestUid || !IsPrintableAscii(uid)) {
    return {false, "A UID to inject has 1 to 64 printable characters."};
  }
  ipc::MInjectToken request;
  request.set_uid(uid);
  const auto rfid = ipc::Rfid::NewStub(mRfidChannel);
  const std::uint64_t card = mModel.OnCardPresented(uid, "", std::chrono::steady_clock::now());
  BenchAnswer answer =
      Ask([&](auto& context, auto& result) { return rfid->InjectToken(&context, request, &result); },
          uid + " was injected.", "injecting a card needs it to be enabled");
  if (!answer.done) {
    mModel.Withdraw(card);
  }
  return answer;
}

BenchAnswer Bench::Tap(const std::string& kind, const std::string& uid) {
  const auto& kinds = virtualnfc::TagKindNames();
  if (std::find(kinds.begin(), kinds.end(), kind) == kinds.end() || !IsHex(uid)) {
    return {false, "A card has one of virtual-nfc's kinds and a hexadecimal UID."};
  }
  const std::uint64_t card = mModel.OnCardPresented(uid, kind, std::chrono::steady_clock::now());
  BenchAnswer answer =
      AskReader("tap " + uid + " --tech " + kind + " --hold " + kHoldSeconds, uid + " is at the reader.");
  if (!answer.done) {
    mModel.Withdraw(card);
  }
  return answer;
}

BenchAnswer Bench::AskReader(const std::string& line, const std::string& done) {
  if (mSettings.nfcSocket.empty()) {
    return {false, "There is no simulated reader: the bench was started without --nfc. Injecting works."};
  }
  const std::string reply = virtualnfc::AskServer(mSettings.nfcSocket, line);
  if (reply.empty()) {
    return {false, "virtual-nfc cannot be reached at " + mSettings.nfcSocket + ": " +
                       std::generic_category().message(errno) + "."};
  }
  const std::size_t end = std::min(reply.find('\n'), reply.size());
  const std::string first = reply.substr(0, end);
  return first == "ok" ? BenchAnswer{true, done} : BenchAnswer{false, "virtual-nfc: " + first + "."};
}
