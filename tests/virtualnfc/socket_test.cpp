// Netlink sockets as programs see them: ports, buffers, waiting, signals, closing.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "tools/kernelbed/nfcclient.h"
#include "tools/virtual-nfc/preload/inprocess.h"
#include "tools/virtual-nfc/server/controlprotocol.h"

namespace {

using namespace std::chrono_literals;
using nfctest::Message;
using nfctest::NfcClient;
using testing::IsEmpty;
using testing::SizeIs;
using virtualnfc::Bytes;
using virtualnfc::InProcessVirtualNfc;
using virtualnfc::MakeTag;
using virtualnfc::Stack;
using virtualnfc::Status;
using virtualnfc::TagKind;
using virtualnfc::UniqueFd;
using virtualnfc::VirtualNfcSettings;

/// Waits for this status. A failure shows the status that was seen last.
testing::AssertionResult Reaches(virtualnfc::VirtualNfc& kernel,
                                 const std::function<bool(const Status&)>& wanted) {
  return kernel.WaitFor(wanted) ? testing::AssertionSuccess()
                                : testing::AssertionFailure() << HandleControlLine(kernel, "status");
}

VirtualNfcSettings WithPromptRelease() {
  VirtualNfcSettings settings;
  settings.ownerReleaseDelay = 0ms;
  return settings;
}

UniqueFd PlainSocket() {
  return UniqueFd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC));
}

int Bind(int fd, std::uint32_t port) {
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_pid = port;
  return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? 0 : errno;
}

std::uint32_t PortOf(int fd) {
  sockaddr_nl address{};
  socklen_t length = sizeof(address);
  EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
  EXPECT_EQ(length, sizeof(address));
  EXPECT_EQ(address.nl_family, AF_NETLINK);
  return address.nl_pid;
}

TEST(VirtualNfcSockets, AreRefusedWithoutAServer) {
  const UniqueFd fd = PlainSocket();
  EXPECT_FALSE(fd);
  EXPECT_EQ(errno, EPROTONOSUPPORT);
}

TEST(VirtualNfcSockets, HaveAPortOfTheirOwn) {
  const InProcessVirtualNfc kernel;
  const UniqueFd first = PlainSocket();
  UniqueFd second = PlainSocket();
  const UniqueFd third = PlainSocket();
  EXPECT_EQ(PortOf(first.Get()), 0U);
  EXPECT_EQ(Bind(first.Get(), 0), 0);
  EXPECT_EQ(PortOf(first.Get()), static_cast<std::uint32_t>(::getpid()));
  EXPECT_EQ(Bind(second.Get(), PortOf(first.Get())), EADDRINUSE);
  EXPECT_EQ(Bind(second.Get(), 0), 0);
  EXPECT_GE(PortOf(second.Get()), 0x80000000U);
  EXPECT_EQ(Bind(second.Get(), 4711), EINVAL);
  // Closing a socket frees its port.
  const std::uint32_t port = PortOf(second.Get());
  second.Reset();
  EXPECT_EQ(Bind(third.Get(), port), 0);
}

TEST(VirtualNfcSockets, RefuseWhatTheKernelRefuses) {
  InProcessVirtualNfc kernel;
  const NfcClient client;
  EXPECT_EQ(nl_socket_add_membership(client.Get(), 77), -NLE_OBJ_NOTFOUND);
  sockaddr_nl elsewhere{};
  elsewhere.nl_family = AF_NETLINK;
  elsewhere.nl_pid = 1;
  EXPECT_EQ(::sendto(client.Fd(), "x", 1, 0, reinterpret_cast<sockaddr*>(&elsewhere), sizeof(elsewhere)), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  // The kernel ignores a message shorter than a header.
  EXPECT_EQ(::send(client.Fd(), "x", 1, 0), 1);
  EXPECT_THAT(client.Received(), IsEmpty());
}

TEST(VirtualNfcEvents, AreLostWhenTheBufferIsFullAndReportedOnce) {
  InProcessVirtualNfc kernel;
  const NfcClient listener;
  listener.JoinEvents();
  Bytes event(64, 0);
  event[0] = 64;
  event[4] = nfctest::kFamily;
  const auto send = [&](std::uint8_t number) {
    event[20] = number;
    kernel.SendRawEvent(event);
  };
  for (int i = 0; i < 5000; ++i) {
    send(1);
  }
  send(2);
  EXPECT_EQ(nl_recvmsgs_default(listener.Get()), -NLE_NOMEM);
  const std::vector<Message> older = listener.Received();
  EXPECT_GT(older.size(), 10U);
  EXPECT_LT(older.size(), 5000U);
  for (const Message& message : older) {
    ASSERT_EQ(message.payload[4], 1);
  }
  send(3);
  const std::vector<Message> later = listener.Received();
  ASSERT_THAT(later, SizeIs(1));
  EXPECT_EQ(later[0].payload[4], 3);
}

TEST(VirtualNfcSockets, FailWhenTheKernelStops) {
  auto kernel = std::make_unique<InProcessVirtualNfc>();
  kernel->AddRule("DEV_UP delay=60000");
  const NfcClient listener;
  listener.JoinEvents();
  auto event = std::async(std::launch::async, [&] {
    char byte = 0;
    return ::recv(listener.Fd(), &byte, 1, 0) < 0 ? errno : 0;
  });
  const NfcClient client;
  auto command = std::async(std::launch::async, [&] {
    return client.Send(NFC_CMD_DEV_UP, {{NFC_ATTR_DEVICE_INDEX, 0}});
  });
  ASSERT_TRUE(Reaches(*kernel, [](const Status& status) { return status.commandWaits; }));
  kernel.reset();
  EXPECT_EQ(event.get(), EBADF);
  EXPECT_EQ(command.get(), -NLE_BAD_SOCK);
  EXPECT_EQ(listener.Send(NFC_CMD_UNSPEC), -NLE_BAD_SOCK);
}

VirtualNfcSettings WithChip() {
  VirtualNfcSettings settings = WithPromptRelease();
  settings.kernel.stack = Stack::Nci;
  settings.crossingWait = 1h;
  settings.crossingPause = 1h;
  return settings;
}

class VirtualNfcWaiting : public testing::Test {
 protected:
  VirtualNfcWaiting() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGUSR1, &action, &mBefore);
    mListener.JoinEvents();
  }
  ~VirtualNfcWaiting() override {
    EndWait();
    ::sigaction(SIGUSR1, &mBefore, nullptr);
  }

  /// Starts a command on its own thread and returns when the command waits for its chip.
  void BeginWait(std::uint8_t command) {
    const auto before = mKernel.GetStatus().Commands(command);
    mThread = std::thread([this, command] { mError = mWaiter.Command(command); });
    ASSERT_TRUE(Reaches(mKernel, [&](const Status& status) { return status.Commands(command) > before; }));
  }

  /// Sends a signal to the waiting thread. @returns the answer to the command
  std::optional<int> EndWait() {
    if (mThread.joinable()) {
      ::pthread_kill(mThread.native_handle(), SIGUSR1);
      mThread.join();
    }
    return mError;
  }

  static constexpr int kRestartSys = 512;

  InProcessVirtualNfc mKernel{WithChip()};
  const NfcClient mWaiter;
  const NfcClient mOther;
  const NfcClient mListener;

 private:
  struct sigaction mBefore {};
  std::optional<int> mError;
  std::thread mThread;
};

TEST_F(VirtualNfcWaiting, BlocksOtherCommandsButNoEvents) {
  ASSERT_EQ(mOther.Command(NFC_CMD_DEV_UP), 0);
  mKernel.AddRule("START_POLL delay=60000 times=1");
  BeginWait(NFC_CMD_START_POLL);
  auto blocked = std::async(std::launch::async, [this] { return mOther.Command(NFC_CMD_UNSPEC); });
  ASSERT_TRUE(Reaches(mKernel, [](const Status& status) { return status.queued == 1; }));
  mKernel.Plug();
  EXPECT_TRUE(mListener.WaitReadable());
  EXPECT_EQ(mListener.Received().at(0).Command(), NFC_EVENT_DEVICE_ADDED);
  EXPECT_EQ(mKernel.GetStatus().Commands(NFC_CMD_UNSPEC), 0U);
  EndWait();
  EXPECT_EQ(blocked.get(), EOPNOTSUPP);
}

TEST_F(VirtualNfcWaiting, EndsWithASignal) {
  mKernel.AddRule("DEV_UP delay=60000 times=1");
  BeginWait(NFC_CMD_DEV_UP);
  EXPECT_EQ(EndWait(), kRestartSys);
  EXPECT_EQ(mKernel.GetStatus().interrupted, 1);
  ASSERT_TRUE(mWaiter.Poll());
  mKernel.AddRule("STOP_POLL delay=60000 times=1");
  BeginWait(NFC_CMD_STOP_POLL);
  EXPECT_EQ(EndWait(), 0);
  EXPECT_FALSE(mKernel.GetStatus().Device().polling);
}

TEST_F(VirtualNfcWaiting, HangsForGoodAfterAFindThatCrossedStopPoll) {
  ASSERT_TRUE(mWaiter.Poll());
  mKernel.AddRule("STOP_POLL cross times=1");
  BeginWait(NFC_CMD_STOP_POLL);
  EXPECT_EQ(EndWait(), 0);
  BeginWait(NFC_CMD_DEV_DOWN);
  auto other = std::async(std::launch::async, [this] { return mOther.Command(NFC_CMD_GET_DEVICE); });
  EXPECT_TRUE(Reaches(mKernel, [](const Status& status) { return status.hung && status.queued == 1; }));
  mKernel.Stop();
  EXPECT_EQ(EndWait(), std::nullopt);
  EXPECT_EQ(other.get(), std::nullopt);
}

TEST_F(VirtualNfcWaiting, TimesOutWhenTheDeviceIsUnplugged) {
  // On a slow machine the device is unplugged too late, so each attempt waits longer than the one before.
  std::optional<int> error;
  mKernel.Unplug();
  for (int delay = 300; delay <= 30000 && error != ETIMEDOUT; delay *= 10) {
    const std::uint32_t device = mKernel.Plug();
    ASSERT_EQ(mWaiter.Command(NFC_CMD_DEV_UP, device), 0);
    mKernel.AddRule("START_POLL times=1 delay=" + std::to_string(delay));
    auto waiting =
        std::async(std::launch::async, [&] { return mWaiter.Command(NFC_CMD_START_POLL, device); });
    mKernel.WaitFor([](const Status& status) { return status.commandWaits; });
    mKernel.Unplug(device);
    error = waiting.get();
  }
  EXPECT_TRUE(mListener.WaitReadable());
  EXPECT_EQ(error, ETIMEDOUT);
}

TEST(VirtualNfcThreads, UseManySocketsAtOnce) {
  InProcessVirtualNfc kernel(WithPromptRelease());
  std::vector<std::future<int>> programs;
  programs.reserve(4);
  for (int i = 0; i < 4; ++i) {
    programs.push_back(std::async(std::launch::async, [] {
      int resolved = 0;
      for (int round = 0; round < 40; ++round) {
        const NfcClient client;
        resolved += genl_ctrl_resolve(client.Get(), "nfc") == nfctest::kFamily ? 1 : 0;
        client.JoinEvents();
        client.Poll();
        client.Received();
      }
      return resolved;
    }));
  }
  for (int i = 0; i < 40; ++i) {
    kernel.PresentTag(MakeTag(TagKind::Mifare, "04A12B5C"));
    kernel.RemoveTags();
    kernel.OverrunEvents();
  }
  for (auto& program : programs) {
    EXPECT_EQ(program.get(), 40);
  }
  EXPECT_TRUE(Reaches(kernel, [](const Status& status) { return status.openSockets == 0; }));
}

}  // namespace
