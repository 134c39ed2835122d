#pragma once

#include <gmock/gmock.h>
#include <linux/nfc.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "src/components/nfcnetlink.h"
#include "tests/components/says.h"
#include "tests/framework/handover.h"
#include "tests/framework/logcapture.h"
#include "tools/virtual-nfc/preload/inprocess.h"

/// A controller on a simulated kernel, and what the controller reported: "PROTOCOL UID" for a tag and
/// "error CODE: TEXT" for a failure.
class NfcNetlink : public ::testing::Test {
 protected:
  using Milliseconds = std::chrono::milliseconds;

  explicit NfcNetlink(virtualnfc::VirtualNfcSettings settings = {});

  /// Replaces the controller.
  void Make(Milliseconds watchPeriod, Milliseconds answerTimeout = Milliseconds(300));
  void Open();
  /// Opens the controller and starts polling.
  void Start();
  /// Presents the tag, removes it at the controller's next report and returns that report.
  std::string Tap(const virtualnfc::Tag& tag);

  /// Waits for `count` reports and returns all reports so far.
  std::vector<std::string> WaitFor(size_t count);
  /// Waits until this is the latest report.
  ::testing::AssertionResult WaitForReport(const std::string& report);
  void ForgetReports();

  ::testing::AssertionResult WaitForPolling();
  ::testing::AssertionResult WaitForCommand(uint8_t command, uint32_t count = 1);
  ::testing::AssertionResult WaitForLine(Log::ELogLevel level, const std::string& end);
  /// The reader neither polls nor has power.
  ::testing::AssertionResult IsOff();
  /// Counts the descriptors of this process. The simulated kernel also lives in this process, so this waits
  /// until the kernel has noticed all closed sockets.
  size_t OpenDescriptors();

  /// The operation's failure as text, "" when it succeeds.
  std::string ErrorOf(const std::function<void()>& operation);
  std::string ErrorOfOpen();
  std::string ErrorOfStart();
  std::string ErrorOfStop();
  std::string ErrorOfClose();

  std::vector<std::string> Lines(Log::ELogLevel level) const { return mLog.Texts(level); }

  LogCapture mLog;
  std::unique_ptr<virtualnfc::InProcessVirtualNfc> mKernel;
  std::function<void()> mInCallback;  ///< what happens while a tag is reported
  std::unique_ptr<CNfcNetlink> mController;

 private:
  void Report(const std::string& what);
  /// Success, or the state of the kernel and the log.
  ::testing::AssertionResult Judge(bool holds, const std::string& wanted) const;

  std::mutex mMutex;
  std::condition_variable mArrived;
  std::vector<std::string> mReports;  // guarded by mMutex
};

/// With an NCI driver.
class NfcNetlinkOnNci : public NfcNetlink {
 protected:
  NfcNetlinkOnNci() : NfcNetlink({.kernel = {.stack = virtualnfc::Stack::Nci}}) {}
};

/// On a kernel that answers as real ones do, and on one that answers EALREADY instead.
class NfcNetlinkPolling : public NfcNetlink, public ::testing::WithParamInterface<bool> {
 protected:
  NfcNetlinkPolling() : NfcNetlink({.kernel = {.assumeAlready = GetParam()}}) {}
};

inline const virtualnfc::Tag kCard = virtualnfc::MakeTag(virtualnfc::TagKind::Mifare, "04A12B5C");
inline constexpr auto kCardReport = "MIFARE 04A12B5C";
inline constexpr auto kNotOpen =
    "Netlink sockets not initialized. Initialize controller first. 3 recoverable";
inline constexpr auto kNoDevice =
    "No device to power on/off. Initialize controller to find device. 31 recoverable";
