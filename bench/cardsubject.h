#pragma once

#include <array>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ipc/rfid.grpc.pb.h"
#include "measuring.h"
#include "tools/harness/process.h"
#include "tools/harness/supervisor.h"
#include "tools/virtual-nfc/server/virtualnfc.h"
#include "tools/virtual-station/virtualstation.h"

namespace bench {

/// The steps of a card, in their order.
enum class EMark { Found, TargetAsked, TargetTold, Scanned, Result, Notified };
constexpr std::size_t kMarks = 6;

/// The time of each step, in microseconds.
using Passage = std::array<double, kMarks>;

/// A program that reads cards, in its own station. The kernel, the feedback and diagnostics services and a
/// subscriber run in this process and measure the times. One thread.
class CardSubject {
 public:
  /// Starts a build of rfidd (without one, the bare program) and waits until it reads cards.
  explicit CardSubject(const std::string& daemon = "");
  ~CardSubject();
  CardSubject(const CardSubject&) = delete;
  CardSubject& operator=(const CardSubject&) = delete;

  /// Presents a card and waits for its notification. Throws on timeout.
  Passage Tap(const std::string& uid);

  const Process& Program() const { return *mProcess; }
  std::string Address() const;  ///< where it serves

 private:
  void Mark(EMark mark);
  void WaitForPolling();
  void StartDaemon(const std::string& program);
  void StartFloor();
  std::unique_ptr<Process> Spawn(const std::vector<std::string>& command) const;
  void Subscribe();

  void Watch(virtualnfc::Traffic traffic, virtualnfc::ByteView datagram);

  const TemporaryFolder mFolder;
  std::mutex mMutex;
  std::condition_variable mChanged;
  Passage mPassage{};
  bool mIsTargetAsked = false;  ///< by the last datagram; the kernel's thread only
  // Ends before the members above, which its thread uses.
  virtualnfc::VirtualNfc mKernel;
  std::unique_ptr<VirtualStation> mPeers;
  std::unique_ptr<Process> mProcess;
  std::unique_ptr<Supervisor> mSupervisor;
  std::unique_ptr<ipc::Rfid::Stub> mRfid;
  grpc::ClientContext mContext;
  std::thread mSubscriber;
};

}  // namespace bench
