#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "src/components/nfcnetlink.h"
#include "tests/jitter.h"
#include "tools/virtual-nfc/preload/inprocess.h"

using namespace std::chrono_literals;
using namespace virtualnfc;

namespace {

VirtualNfcSettings QuickReader() {
  VirtualNfcSettings settings;
  settings.detectionDelay = 1ms;
  return settings;
}

/// Presents a card and takes it away, again and again.
class RestlessDriver {
 public:
  explicit RestlessDriver(VirtualNfc& kernel)
      : mThread([this, &kernel] {
          Jitter jitter(1);
          while (!mDone) {
            kernel.PresentTag(MakeTag(TagKind::Mifare, "04A12B5C"));
            jitter.Pass();
            // Sometimes long enough for the reader of a slow machine to find it.
            const unsigned hold = jitter.Below(8) > 0 ? jitter.Below(4) : 50;
            std::this_thread::sleep_for(std::chrono::milliseconds(hold));
            kernel.RemoveTags();
            jitter.Pass();
          }
        }) {}
  ~RestlessDriver() {
    mDone = true;
    mThread.join();
  }

 private:
  std::atomic<bool> mDone{false};
  std::thread mThread;
};

/// Leaves libnl few ports to choose from, so that a new socket often gets the port of a socket just closed.
/// The kernel ends the polling of a closed socket's port some milliseconds later.
std::vector<NlSocket> TakePorts() {
  constexpr size_t kAll = 1024;
  constexpr size_t kLeft = 40;
  std::vector<NlSocket> sockets;
  while (sockets.size() < kAll - kLeft) {
    sockets.emplace_back(nl_socket_alloc());
    nl_socket_get_local_port(sockets.back().get());
  }
  return sockets;
}

}  // namespace

TEST(NfcNetlinkSchedules, OffMeansOffAndOnReadsCardsAtEveryTiming) {
  InProcessVirtualNfc kernel(QuickReader());
  std::mutex mutex;
  std::condition_variable read;
  unsigned cards = 0;   // guarded by mutex
  std::string failure;  // what the monitor reported; guarded by mutex
  const auto taken = TakePorts();
  // The period is so short that the monitor also renews polling whenever no card is there.
  CNfcNetlink controller({.watchPeriod = 3ms});
  controller.SetErrorCallback([&](const CRfidError& error) {
    const std::lock_guard lock(mutex);
    failure = error.what();
    read.notify_one();
  });
  const RestlessDriver driver(kernel);
  Jitter jitter(2);
  for (int round = 0; round < 200 && !HasFailure(); ++round) {
    controller.InitializeController([&](const CToken&) {
      const std::lock_guard lock(mutex);
      ++cards;
      read.notify_one();
    });
    jitter.Pass();
    if (jitter.Below(4) > 0) {
      controller.StartPolling();
      jitter.Pass();
      if (jitter.Below(2) == 0) {
        std::unique_lock lock(mutex);
        const bool reads =
            read.wait_for(lock, 60s, [&, before = cards] { return cards > before || !failure.empty(); });
        EXPECT_TRUE(reads) << "deaf";
      }
      controller.StopPolling();
      jitter.Pass();
      const auto reader = kernel.GetStatus().Device();
      EXPECT_FALSE(reader.polling || reader.powered) << "not off";
    }
    if (jitter.Below(2) == 0) {  // else the next opening closes this one
      controller.DeinitializeController();
    }
    const std::lock_guard lock(mutex);
    EXPECT_EQ(failure, "");
  }
}
