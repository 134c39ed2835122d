#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/virtualnfc/nfcclient.h"
#include "tools/harness/station.h"
#include "tools/kernelbed/reader.h"

/// The kernel's stack on which the reader stands.
enum class EStack { Digital, Nci };
void PrintTo(EStack stack, std::ostream* stream);

/// A station with the real daemon on the real kernel, in a guest of its own. At the end of each test the
/// daemon is ended by SIGINT if it still runs, and the reader must be off.
class KernelTest : public ::testing::Test, public StationOnKernel {
 protected:
  /// The reader is plugged in. `launcher` as StationOnKernel has it.
  explicit KernelTest(EStack stack, std::vector<std::string> launcher = {});
  ~KernelTest() override;  ///< after a failure: shows what happened
  void TearDown() override;

  void StartDaemon();
  void StartEnabled();  ///< and waits until it polls
  void Enable();        ///< asks for it
  void Disable();       ///< and waits until the supervisor is told
  void ExpectOrderlyEnd();
  bool WaitForLog(const std::string& text) const;

  /// Tells the reader what happens, in the words of tools/kernelbed. A reader that is plugged in is device 0.
  void Reader(const std::string& command);

  /// The UID of a card that was not seen before.
  std::string NewUid();
  /// Puts a new card, waits until it is notified, takes it.
  void ExpectCardIsRead();
  bool IsNotified(const std::string& uid) const;

  /// What becomes of a station that was asked to be enabled, as its supervisor sees it: "read" when a new
  /// card is read and nothing was told, "recovered" when Error and then Disabled were told, "fatal" when it
  /// ended in FatalError.
  std::string Outcome();
  /// Does what a supervisor does then, enables or starts the process again, and expects that a card is read.
  void ExpectCured(const std::string& outcome);

  /// Another program's socket to the kernel.
  nfctest::NfcClient Client() const;
  /// Whether device 0 has power; nothing when there is none.
  std::optional<bool> IsPowered() const;

  const EStack mStack;

 private:
  void ShowLogs() const;

  std::unique_ptr<FILE, int (*)(FILE*)> mReaderLog;

 protected:
  std::unique_ptr<kernelbed::Reader> mReader;

 private:
  unsigned mCards = 0;
};

/// A test for each of the two stacks.
class OnBothStacks : public KernelTest, public ::testing::WithParamInterface<EStack> {
 protected:
  OnBothStacks() : KernelTest(GetParam()) {}
};

std::unique_ptr<kernelbed::Reader> MakeReader(EStack stack, FILE* log);

/// For the names of tests.
std::string StackName(const ::testing::TestParamInfo<EStack>& info);
