#include "cardsubject.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/nfc.h>

#include <filesystem>
#include <future>
#include <stdexcept>

#include "tools/common/channel.h"

namespace bench {

namespace {

/// The command or event of a message of the family; 0 when the message is too short.
std::uint8_t CommandOf(virtualnfc::ByteView datagram) {
  return datagram.size() < sizeof(nlmsghdr) + sizeof(genlmsghdr) ? 0 : datagram[sizeof(nlmsghdr)];
}

}  // namespace

CardSubject::CardSubject(const std::string& daemon)
    : mKernel({.detectionDelay = std::chrono::milliseconds(1),
               .watch = [this](auto traffic, auto datagram) { Watch(traffic, datagram); }}) {
  std::filesystem::create_directory(mFolder.Path("etc"));
  std::filesystem::create_directory(mFolder.Path("hub"));
  std::filesystem::create_directory(mFolder.Path("run"));
  mFolder.Write("etc/plex.json", R"({"listen": "unix:run/rfid.sock", "configuration": "hub",
    "peers": {"Feedback": "unix:run/feedback.sock", "Diagnostics": "unix:run/diagnostics.sock"}})");
  mPeers = std::make_unique<VirtualStation>(
      LoadRpcConfig(mFolder.Path("")).peers, [this](const VirtualStation::Call& call) {
        if (const auto* event = std::get_if<ipc::MFbEventType>(&call)) {
          Mark(event->type() == ipc::EFbTokenScanned ? EMark::Scanned : EMark::Result);
        }
      });
  if (daemon.empty()) {
    StartFloor();
  } else {
    StartDaemon(daemon);
  }
  Subscribe();
  WaitForPolling();
}

CardSubject::~CardSubject() {
  mContext.TryCancel();
  if (mSubscriber.joinable()) {
    mSubscriber.join();
  }
  mSupervisor.reset();
  mProcess.reset();
}

std::string CardSubject::Address() const {
  return LoadRpcConfig(mFolder.Path("")).listen;
}

std::unique_ptr<Process> CardSubject::Spawn(const std::vector<std::string>& command) const {
  return std::make_unique<Process>(
      command,
      std::map<std::string, std::string>{{"LD_PRELOAD", bench::Program("virtual-nfc-preload.so")},
                                         {"VIRTUAL_NFC_SOCKET", mKernel.Address()}},
      mFolder.Path("output"), mFolder.Path("log"));
}

void CardSubject::StartDaemon(const std::string& program) {
  mProcess = Spawn({program, "-q", "-r", mFolder.Path("")});
  mSupervisor = std::make_unique<Supervisor>(Address());
  const bool isEnabled = mSupervisor->WaitFor("Uninitialized") && mSupervisor->Disable() == "Ok" &&
                         mSupervisor->WaitFor("Disabled") && mSupervisor->Enable() == "Ok" &&
                         mSupervisor->WaitFor("Enabled");
  if (!isEnabled) {
    throw std::runtime_error("the daemon does not become Enabled: " + ReadFile(mFolder.Path("log")));
  }
}

void CardSubject::StartFloor() {
  const auto feedback = LoadRpcConfig(mFolder.Path("")).peers.at("Feedback");
  mProcess = Spawn({bench::Program("rfid-bench-floor"), "card", Address(), feedback});
}

void CardSubject::Subscribe() {
  mRfid = ipc::Rfid::NewStub(OpenChannel(Address(), kRfidService));
  std::promise<void> subscribed;
  mSubscriber = std::thread([this, &subscribed] {
    mContext.set_wait_for_ready(true);
    const auto reader = mRfid->Subscribe(&mContext, {});
    reader->WaitForInitialMetadata();
    subscribed.set_value();
    ipc::MRfidNotification notification;
    while (reader->Read(&notification)) {
      Mark(EMark::Notified);
    }
    reader->Finish();
  });
  subscribed.get_future().wait();
}

void CardSubject::Mark(EMark mark) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mPassage[static_cast<std::size_t>(mark)] = Now();
  mChanged.notify_all();
}

void CardSubject::Watch(virtualnfc::Traffic traffic, virtualnfc::ByteView datagram) {
  using virtualnfc::Traffic;
  if (traffic == Traffic::Request) {
    mIsTargetAsked = CommandOf(datagram) == NFC_CMD_GET_TARGET;
    if (mIsTargetAsked) {
      Mark(EMark::TargetAsked);
    }
  } else if (traffic == Traffic::Answer && mIsTargetAsked) {
    Mark(EMark::TargetTold);  // by the dump's last datagram
  } else if (traffic == Traffic::Event && CommandOf(datagram) == NFC_EVENT_TARGETS_FOUND) {
    Mark(EMark::Found);
  }
}

void CardSubject::WaitForPolling() {
  if (!mKernel.WaitFor([](const virtualnfc::Status& status) { return status.Device().polling; },
                       kLongestWait)) {
    throw std::runtime_error("the subject does not poll: " + ReadFile(mFolder.Path("log")));
  }
}

Passage CardSubject::Tap(const std::string& uid) {
  WaitForPolling();  // a card that comes and goes meanwhile is not found
  constexpr auto kNotified = static_cast<std::size_t>(EMark::Notified);
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mPassage = {};
  }
  mKernel.PresentTagFor(virtualnfc::MakeTag(virtualnfc::TagKind::Mifare, uid), std::chrono::milliseconds(2));
  std::unique_lock<std::mutex> lock(mMutex);
  if (!mChanged.wait_for(lock, kLongestWait, [&] { return mPassage[kNotified] != 0; })) {
    throw std::runtime_error("the card " + uid + " was not notified: " + ReadFile(mFolder.Path("log")));
  }
  Passage passage = mPassage;
  const double found = passage[static_cast<std::size_t>(EMark::Found)];
  for (double& mark : passage) {
    mark = mark == 0 ? 0 : mark - found;
  }
  return passage;
}

}  // namespace bench
