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

/// A kernel with one reader, number 0, that was just plugged in, and a hand that moves it and its tags: the
/// same for the machine's own kernel and for the simulated one. One at a time. All operations throw
/// std::exception saying what went wrong.
class KernelBench {
 public:
  virtual ~KernelBench() = default;
  /// A generic-netlink socket that is not bound.
  virtual virtualnfc::UniqueFd Socket() = 0;

  /// These lie on the reader, and no others; the names are those of a table.
  virtual void PutTags(const std::vector<std::string>& names) = 0;
  virtual void Plug() = 0;
  virtual void Unplug() = 0;
  /// poll-dead, deaf: see virtualnfc::Fault; well: it is deaf no more. Only with Nci: start-late: the chip
  /// takes two seconds for the next START_POLL; start-refused: it does not leave the tag at the next
  /// START_POLL; stop-refused: it does not stop at the next STOP_POLL; stop-crosses: it finds a tag in the
  /// moment of the next STOP_POLL.
  virtual void GoWrong(const std::string& what) = 0;

  /// Within this a polling reader has found a tag.
  virtual std::chrono::milliseconds TimeToFind() const = 0;
  /// Within this the kernel is done with what it does by itself.
  virtual std::chrono::milliseconds TimeToSettle() const = 0;
};

/// The machine's own kernel, with a reader of the test bed.
std::unique_ptr<KernelBench> MakeRealBench(virtualnfc::Stack stack);
std::unique_ptr<KernelBench> MakeSimulatedBench(virtualnfc::Stack stack, const KernelIds& ids);
