#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/harness/station.h"
#include "tools/kernelbed/nfcclient.h"
#include "tools/kernelbed/reader.h"

using virtualnfc::Stack;
namespace virtualnfc {
void PrintTo(Stack stack, std::ostream* stream);
}

/// A station with the real daemon on the real kernel, in its own guest. At the end of each test SIGINT ends
/// the daemon if it still runs, and the reader must be off. A failure shows what the supervisor was told, and
/// the logs.
class KernelTest : public ::testing::Test, public StationOnKernel {
 protected:
  /// Plugs in the reader. @param launcher see StationOnKernel
  explicit KernelTest(Stack stack, std::vector<std::string> launcher = {});
  ~KernelTest() override;
  void TearDown() override;

  void StartDaemon();
  void StartEnabled();  ///< and waits until the daemon polls
  void Enable();        ///< returns when the request is accepted
  void Disable();       ///< and waits until the supervisor is told
  void ExpectOrderlyEnd();
  ::testing::AssertionResult Logs(const std::string& text) const;              ///< waits for it
  ::testing::AssertionResult Notifies(const std::string& notification) const;  ///< waits for it

  /// A command for the reader, see kernelbed::Reader. A reader that is plugged in gets the number 0.
  void Reader(const std::string& command);

  /// The UID of a card that was not used before.
  std::string NewUid();
  /// Presents a new card, waits for its notification and removes the card.
  void ExpectCardIsRead();
  ::testing::AssertionResult IsNotified(const std::string& uid) const;

  /// What the supervisor of an enabled station sees: "read" when a new card is read without any error,
  /// "recovered" when the state was Error and then Disabled, "fatal" when it was FatalError.
  std::string Outcome();
  /// Enables or restarts the daemon, as a supervisor would do in this state, and expects that a card is read.
  void ExpectCured(const std::string& outcome);

  /// A socket of another program.
  nfctest::NfcClient Client() const;
  /// Whether device 0 has power; nothing without a device.
  std::optional<bool> IsPowered() const;

  const Stack mStack;

 private:
  void ShowLogs() const;

  std::unique_ptr<FILE, int (*)(FILE*)> mReaderLog;

 protected:
  std::unique_ptr<kernelbed::Reader> mReader;

 private:
  unsigned mCards = 0;
};

/// A test for each of the two stacks.
class OnBothStacks : public KernelTest, public ::testing::WithParamInterface<Stack> {
 protected:
  OnBothStacks() : KernelTest(GetParam()) {}
};

std::unique_ptr<kernelbed::Reader> MakeReader(Stack stack, FILE* log);

/// For the names of tests.
std::string StackName(const ::testing::TestParamInfo<Stack>& info);
