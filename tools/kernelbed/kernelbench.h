#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tools/virtual-nfc/kernel/nfcdevice.h"
#include "tools/virtual-nfc/server/uniquefd.h"

/// The numbers that a kernel has given to the family "nfc" and its group "events".
struct KernelIds {
  std::uint16_t family = 0;
  std::uint32_t group = 0;
};

/// A kernel with one newly plugged-in reader, number 0, and control over the reader and its tags. The
/// interface is the same for the machine's own kernel and the simulated one. One at a time. All operations
/// throw std::exception saying what went wrong.
class KernelBench {
 public:
  virtual ~KernelBench() = default;
  /// A generic-netlink socket that is not bound.
  virtual virtualnfc::UniqueFd Socket() = 0;

  /// Puts these tags on the reader and takes all others away. @param names from the table in kernelbench.cpp
  virtual void PutTags(const std::vector<std::string>& names) = 0;
  virtual void Plug() = 0;
  virtual void Unplug() = 0;
  /// poll-dead, deaf: see virtualnfc::Fault; well: ends deaf. Only with Nci: start-late: the chip takes two
  /// seconds for the next START_POLL; start-refused: it does not leave the tag at the next START_POLL;
  /// stop-refused: it does not stop at the next STOP_POLL; stop-crosses: it finds a tag at the moment of the
  /// next STOP_POLL.
  virtual void GoWrong(const std::string& what) = 0;

  /// A polling reader finds a tag within this time.
  virtual std::chrono::milliseconds TimeToFind() const = 0;
  /// The kernel's own delayed work is done within this time.
  virtual std::chrono::milliseconds TimeToSettle() const = 0;
};

/// The machine's own kernel with a reader of this folder.
std::unique_ptr<KernelBench> MakeRealBench(virtualnfc::Stack stack);
std::unique_ptr<KernelBench> MakeSimulatedBench(virtualnfc::Stack stack, const KernelIds& ids);
