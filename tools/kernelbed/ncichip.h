#pragma once

#include <atomic>
#include <optional>
#include <thread>

#include "tools/kernelbed/ncitag.h"
#include "tools/kernelbed/reader.h"
#include "tools/virtual-nfc/server/uniquefd.h"

namespace kernelbed {

/// An NFC chip that speaks the NFC Controller Interface 2.0 to the kernel's NCI stack, through
/// /dev/virtual_nci. Threads: see Reader; one reads the kernel's commands while the chip is plugged in, one
/// reports tags. SIGUSR1 ends the first; this class takes that signal.
class NciChip : public Reader {
 public:
  /// There is no device before "plug".
  explicit NciChip(FILE* log);
  ~NciChip() override;  ///< unplugs the device

  static const char* const kWords;  ///< its own commands, for --help

 private:
  /// How the chip fails a command.
  struct Failure {
    enum class How { Refuse, BeSilent, BeLate } how;
    int argument;  ///< a status, or milliseconds
    int count;
  };
  /// A command of the kernel.
  struct Request {
    uint8_t group;
    uint8_t operation;
    Bytes arguments;
    uint8_t status;  ///< of the response
  };

  void Plug() override;
  void Unplug() override;
  std::string State() const override { return mState; }
  void PutTag(const TagWords& tag) override;
  void TakeTags() override { mField.clear(); }
  bool OwnCommand(const std::string& word, std::istream& words) override;
  void AddFailure(std::istream& words);

  void ReadCommands(int device);
  void ReportTags();

  // with mMutex held:
  void OnCommand(const Bytes& packet, std::unique_lock<std::mutex>& lock);
  bool IsAnswered(const std::string& command, uint8_t& status, std::unique_lock<std::mutex>& lock);
  void Reset(const Request& request);
  void Discover(Request& request);
  void Deactivate(const Request& request, std::unique_lock<std::mutex>& lock);
  void SetState(const std::string& state);
  void LookForTags();
  void Report();
  void SendActivated(const NciTag& tag);
  void Respond(const Request& request, const Bytes& more = {});
  void Notify(uint8_t group, uint8_t operation, const Bytes& payload);
  void Send(uint8_t type, uint8_t group, uint8_t operation, const Bytes& payload);

  // between Plug and Unplug, which must be called by one thread
  virtualnfc::UniqueFd mDevice;
  std::atomic<bool> mStopReading{false};
  std::atomic<bool> mHasStoppedReading{false};
  std::thread mReader;

  // under mMutex
  std::string mState = "off";
  std::vector<NciTag> mField;
  std::optional<NciTag> mCrossing;
  Bytes mTechnologies;  ///< the kernel polls for these
  std::map<std::string, Failure> mFailures;
  std::optional<Clock::time_point> mNextReport;
  bool mQuit = false;
  std::condition_variable mChanged;
  std::thread mReporter;
};

}  // namespace kernelbed
