#pragma once

// Does again what a record says was done, and compares what the kernel says to it.

#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>

#include "record.h"
#include "recordcompare.h"
#include "replaychannel.h"
#include "replaysocket.h"

namespace virtualnfc {

/// The kernel and the reader of a replay.
class ReplayTarget {
 public:
  virtual ~ReplayTarget() = default;
  /// @returns null with errno when there is no such kernel
  virtual std::shared_ptr<NetlinkChannel> Open() = 0;
  /// Brings about what happens at the reader. @returns why it could not, or nothing
  virtual std::string AtReader(const std::string& words) = 0;
  /// A command for another family than "nfc" would do something there.
  virtual bool IsReal() const = 0;
  /// How long an answer or event may take beyond the time in the record.
  virtual std::chrono::seconds Patience() const = 0;
};

/// The server at this address.
std::unique_ptr<ReplayTarget> ReplayOnServer(std::string address);
/// The machine's own kernel: a person is asked, on standard error, to do what happens at the reader and to
/// press Enter.
std::unique_ptr<ReplayTarget> ReplayOnOwnKernel();

/// @throws RecordError when a real kernel can or should not be asked for what is in it
void RequireForOwnKernel(const Record& record);

/// There is no kernel with NFC, or none any more.
class NoKernel : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct ReplayResult {
  std::size_t sent = 0;
  /// Messages of answers and events that the record has.
  std::size_t compared = 0;
  std::size_t differences = 0;
};

/// One replay, from the construction on. One thread.
class Replay {
 public:
  /// @param speed how many times faster than recorded
  /// @param report receives each difference
  /// @throws NoKernel
  Replay(const Record& record, ReplayTarget& target, double speed,
         std::function<void(const Difference&)> report);

  /// Goes through the whole record. Every wait has a limit. @throws NoKernel
  ReplayResult Run();

 private:
  using Clock = ReplaySocket::Clock;
  struct Socket {
    std::unique_ptr<ReplaySocket> socket;
    /// Something that was recorded did not come: nothing is waited for so long any more.
    bool hasMissed = false;
  };

  void LearnIds();
  void Act(const RecordEntry& entry, Clock::duration untilNext);
  void Close(std::size_t line, std::uint32_t number);
  void Receive(std::size_t index, Clock::time_point deadline);
  void Compare(const RecordEntry& entry, const Datagram& datagram);
  std::string WithPorts(const std::string& words) const;
  const RecordEntry* NextDelivery(std::size_t index) const;
  std::vector<MessageText> Describe(const ReplaySocket& socket, const Datagram& datagram) const;
  void ReportExtra(std::size_t line, std::uint32_t number, std::span<const MessageText> messages);
  void Report(std::size_t line, std::string text);

  const Record& mRecord;
  ReplayTarget& mTarget;
  const double mSpeed;
  const std::function<void(const Difference&)> mReport;
  NetlinkIds mIds;
  std::map<std::uint32_t, Socket> mSockets;
  ReplayResult mResult;
};

}  // namespace virtualnfc
