#pragma once

// Rules: how the simulated kernel departs from the real one, changed while it runs. A rule in words is
// "COMMAND [condition...] action...", as in "START_POLL nth=2 errno=EBUSY"; docs/man/virtual-nfc.1 describes
// the words.

#include <linux/nfc.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/virtual-nfc/kernel/genlmessage.h"
#include "tools/virtual-nfc/kernel/nfcdevice.h"

namespace virtualnfc {

enum class Family { Nfc, Controller };

/// A command or an event of a family.
struct Command {
  Family family;
  const char* name;
  std::uint8_t number;
  /// Who may use it and how: GENL_ADMIN_PERM and GENL_CMD_CAP_*. 0 for what only the kernel sends.
  std::uint32_t flags = 0;
};

inline constexpr std::uint32_t kDo = GENL_CMD_CAP_DO | GENL_CMD_CAP_HASPOL;
inline constexpr std::uint32_t kDump = GENL_CMD_CAP_DUMP | GENL_CMD_CAP_HASPOL;
inline constexpr std::uint32_t kAdmin = kDo | GENL_ADMIN_PERM;

/// Rules name them, and the simulated kernel lists its commands from here, in this order.
inline constexpr Command kCommands[] = {
    {Family::Nfc, "GET_DEVICE", NFC_CMD_GET_DEVICE, kDo | kDump},
    {Family::Nfc, "DEV_UP", NFC_CMD_DEV_UP, kAdmin},
    {Family::Nfc, "DEV_DOWN", NFC_CMD_DEV_DOWN, kAdmin},
    {Family::Nfc, "START_POLL", NFC_CMD_START_POLL, kAdmin},
    {Family::Nfc, "STOP_POLL", NFC_CMD_STOP_POLL, kAdmin},
    {Family::Nfc, "DEP_LINK_UP", NFC_CMD_DEP_LINK_UP, kAdmin},
    {Family::Nfc, "DEP_LINK_DOWN", NFC_CMD_DEP_LINK_DOWN, kAdmin},
    {Family::Nfc, "GET_TARGET", NFC_CMD_GET_TARGET, kDump},
    {Family::Nfc, "LLC_GET_PARAMS", NFC_CMD_LLC_GET_PARAMS, kDo},
    {Family::Nfc, "LLC_SET_PARAMS", NFC_CMD_LLC_SET_PARAMS, kAdmin},
    {Family::Nfc, "LLC_SDREQ", NFC_CMD_LLC_SDREQ, kAdmin},
    {Family::Nfc, "FW_DOWNLOAD", NFC_CMD_FW_DOWNLOAD, kAdmin},
    {Family::Nfc, "ENABLE_SE", NFC_CMD_ENABLE_SE, kAdmin},
    {Family::Nfc, "DISABLE_SE", NFC_CMD_DISABLE_SE, kAdmin},
    {Family::Nfc, "GET_SE", NFC_CMD_GET_SE, kDump},
    {Family::Nfc, "SE_IO", NFC_CMD_SE_IO, kAdmin},
    {Family::Nfc, "ACTIVATE_TARGET", NFC_CMD_ACTIVATE_TARGET, kAdmin},
    {Family::Nfc, "VENDOR", NFC_CMD_VENDOR, kAdmin},
    {Family::Nfc, "DEACTIVATE_TARGET", NFC_CMD_DEACTIVATE_TARGET, kAdmin},
    {Family::Nfc, "UNSPEC", NFC_CMD_UNSPEC},
    {Family::Nfc, "TARGETS_FOUND", NFC_EVENT_TARGETS_FOUND},
    {Family::Nfc, "DEVICE_ADDED", NFC_EVENT_DEVICE_ADDED},
    {Family::Nfc, "DEVICE_REMOVED", NFC_EVENT_DEVICE_REMOVED},
    {Family::Controller, "GETFAMILY", CTRL_CMD_GETFAMILY, kDo | kDump},
    {Family::Controller, "GETPOLICY", CTRL_CMD_GETPOLICY, kDump},
};

/// The kernel's number for "restart the call". No header for programs defines it, but it reaches the program
/// when a signal ends the wait for the chip.
inline constexpr int kRestartSys = 512;

/// What is sent for one request or event: messages that may share datagrams, and who seems to send them.
struct Answer {
  std::vector<Bytes> messages;
  std::uint32_t sender = 0;
  /// The receiving socket has lost messages instead.
  bool overruns = false;
  /// The receiving socket is closed instead.
  bool closes = false;
};

struct Change {
  /// As in a rule; one that ends in '=' takes a number.
  std::string_view word;
  void (*apply)(Answer& answer, std::uint32_t number);
};

/// All changes that a rule can make to the messages of an answer or event before they are sent.
std::span<const Change> Changes();

/// One command or event, as rules see it.
struct Occurrence {
  Family family = Family::Nfc;
  std::uint8_t command = 0;
  bool isEvent = false;
  std::optional<std::uint32_t> device;
};

struct Rule {
  std::string text;
  /// Occurrences of its command or event, and how often it fired.
  std::uint32_t seen = 0;
  std::uint32_t fired = 0;

  Family family = Family::Nfc;
  /// Nothing here: the rule applies to every command of the family and to no event.
  std::optional<std::uint8_t> command;
  std::optional<std::uint32_t> nth;
  std::optional<std::uint32_t> times;

  std::optional<int> error;
  std::chrono::milliseconds delay{0};
  std::optional<Fault> fault;
  bool cross = false;
  bool unplug = false;
  std::vector<std::function<void(Answer&)>> changes;
};

/// @throws std::invalid_argument naming the word that is wrong
Rule ParseRule(const std::string& text);

/// The first rule that fires for this occurrence. Every matching rule counts the occurrence.
std::optional<Rule> MatchRule(std::vector<Rule>& rules, const Occurrence& occurrence);

}  // namespace virtualnfc
