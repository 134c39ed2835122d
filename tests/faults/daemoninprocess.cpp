#include "tests/faults/daemoninprocess.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "src/components/nfcnetlink.h"

using namespace std::chrono_literals;
using namespace virtualnfc;

namespace {

/// A card held for longer than one detection and shorter than two is found once.
constexpr auto kDetection = 20ms;
constexpr auto kHold = 30ms;

VirtualNfcSettings Settings() {
  VirtualNfcSettings settings;
  settings.detectionDelay = kDetection;
  settings.ownerReleaseDelay = 60s;  // the kernel's few milliseconds would make the outcome random
  settings.removedListing = 5ms;
  return settings;
}

class SilentFeedback : public IFeedback {
 public:
  ipc::MResult TriggerFeedbackEvent(const ipc::MFbEventType&) override { return {}; }
};

[[noreturn]] void Stuck(const char* where) {
  std::fprintf(stderr, "The daemon hangs: %s\n", where);
  std::abort();
}

template <typename List, typename Value>
bool Holds(const List& list, const Value& value, size_t since = 0) {
  return std::find(list.begin() + static_cast<std::ptrdiff_t>(since), list.end(), value) != list.end();
}

}  // namespace

DaemonInProcess::DaemonInProcess(std::chrono::milliseconds watchPeriod) : mKernel(Settings()) {
  mReader = std::make_shared<CRfidReader>(std::make_shared<CNfcNetlink>(
      CNfcNetlink::Settings{.answerTimeout = kAnswerTimeout, .watchPeriod = watchPeriod}));
  mHandler = std::make_shared<CRfidHsmActionHandler>(
      mReader,
      std::make_shared<CRfidConfig>(HubConfig::Create("settings", "/", {}),
                                    HubConfig::Create("rfid_standalone", "/", {})),
      std::make_shared<SilentFeedback>());
  mMachine = std::make_shared<CRfidHsm>(mHandler);
  mHandler->ExtUninitializedRsp = [this] { Tell(State::Uninitialized); };
  mHandler->ExtDisabledRsp = [this] { Tell(State::Disabled); };
  mHandler->ExtEnabledRsp = [this] { Tell(State::Enabled); };
  mHandler->ExtErrorRsp = [this] { Tell(State::Error); };
  mHandler->ExtFatalErrorRsp = [this] { Tell(State::FatalError); };
  mHandler->ExtSendAlive = [] {};
  mHandler->ExtRfidToken = [this](const ipc::MRfidToken& token) {
    const std::lock_guard lock(mMutex);
    mNotified.push_back(token.uid());
    mChanged.notify_all();
  };
  mRun = std::async(std::launch::async, [this] { mMachine->Run(); });
  Disable();
}

DaemonInProcess::~DaemonInProcess() {
  mHandler->RequestTermination();  // as the interrupt does
  if (mRun.wait_for(kBound) != std::future_status::ready) {
    Stuck("the machine does not end");
  }
  // As the application does at its end. By then the real kernel has ended the polls of closed sockets.
  mKernel.WaitFor([](const Status& status) {
    return status.openSockets == static_cast<size_t>(CountInterposedSockets());
  });
  mKernel.EndPollsOfClosedSockets();
  try {
    mReader->Deinitialize();
  } catch (const CRfidError&) {
  }
  const auto reader = mKernel.GetStatus().Device();
  EXPECT_FALSE((reader.powered || reader.polling) && !mMayStayOn) << "the reader is on after the end";
}

template <typename Event, typename... Payload>
bool DaemonInProcess::Post(Payload... payload) {
  const auto event = std::make_shared<Event>(payload...);
  auto handled = event->mHandled.get_future();
  mMachine->PostEvent(event);
  if (handled.wait_for(kBound) != std::future_status::ready) {
    Stuck("the machine does not dispatch");
  }
  return handled.get();
}

DaemonInProcess::State DaemonInProcess::Enable() {
  Post<ExtEnableReq>();
  return Settle();
}

DaemonInProcess::State DaemonInProcess::Disable() {
  Post<ExtDisableReq>();
  return Settle();
}

DaemonInProcess::State DaemonInProcess::Settle() {
  for (;;) {
    State last{};
    {
      std::unique_lock lock(mMutex);
      if (!mChanged.wait_for(lock, kBound,
                             [this] { return !mTold.empty() && mTold.back() != State::Error; })) {
        Stuck("it stays in Error");
      }
      mSettled = mTold.size();
      last = mTold.back();
    }
    // Each of these events is dispatched after everything that the previous one has posted. Between two
    // reported states there is at most one that is not reported.
    bool enabled = false;
    for (int i = 0; i < 3; ++i) {
      enabled = Post<ExtOnEnableLearning>(false);
    }
    if (CountTold() == mSettled) {
      if (enabled != (last == State::Enabled)) {
        Stuck("the last reported state is not the state");
      }
      return last;
    }
  }
}

void DaemonInProcess::Tell(State state) {
  const std::lock_guard lock(mMutex);
  mTold.push_back(state);
  mChanged.notify_all();
}

Tag DaemonInProcess::NextCard() {
  mPresented.push_back(fmt::format("04{:06X}", mPresented.size() + 1));
  return MakeTag(TagKind::Mifare, mPresented.back());
}

std::string DaemonInProcess::Tap() {
  mKernel.PresentTagFor(NextCard(), kHold);
  return mPresented.back();
}

bool DaemonInProcess::ReadsCardOrTells(std::chrono::milliseconds timeout) {
  mKernel.PresentTag(NextCard());
  std::unique_lock lock(mMutex);
  const bool heard = mChanged.wait_for(
      lock, timeout, [this] { return mTold.size() > mSettled || Holds(mNotified, mPresented.back()); });
  lock.unlock();
  mKernel.RemoveTags();
  return heard;
}

void DaemonInProcess::Repair() {
  mKernel.ClearRules();
  const auto isGone = [](const DeviceStatus& device) { return device.removed; };
  const auto devices = mKernel.GetStatus().devices;
  if (std::all_of(devices.begin(), devices.end(), isGone)) {
    mKernel.WaitFor([](const Status& status) { return status.devices.empty(); });
    mKernel.Plug();
  }
}

size_t DaemonInProcess::CountTold() const {
  const std::lock_guard lock(mMutex);
  return mTold.size();
}

bool DaemonInProcess::WaitForMoreTold(size_t than) const {
  std::unique_lock lock(mMutex);
  return mChanged.wait_for(lock, kBound, [&] { return mTold.size() > than; });
}

bool DaemonInProcess::WasTold(State state, size_t since) const {
  const std::lock_guard lock(mMutex);
  return Holds(mTold, state, since);
}

bool DaemonInProcess::WasNotified(const std::string& uid) const {
  const std::lock_guard lock(mMutex);
  return Holds(mNotified, uid);
}

bool DaemonInProcess::HasInvented() const {
  const std::lock_guard lock(mMutex);
  return std::any_of(mNotified.begin(), mNotified.end(),
                     [this](const auto& uid) { return !uid.empty() && !Holds(mPresented, uid); });
}
