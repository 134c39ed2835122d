#include "tools/virtual-nfc/server/controlprotocol.h"

#include <fmt/format.h>
#include <json/json.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <vector>

namespace virtualnfc {

namespace {

constexpr std::uint32_t kMaxHoldMs = 24U * 60 * 60 * 1000;

/// The line's words, taken one after the other.
class Words {
 public:
  explicit Words(std::string_view line) : mLeft(line) {}

  std::string_view Next() {
    SkipBlanks();
    const std::size_t end = std::min(mLeft.find_first_of(kBlanks), mLeft.size());
    const std::string_view word = mLeft.substr(0, end);
    mLeft.remove_prefix(end);
    return word;
  }

  std::string_view Rest() {
    SkipBlanks();
    return mLeft;
  }

  void RequireEnd() {
    if (!Rest().empty()) throw std::invalid_argument(fmt::format("'{}' is too much", mLeft));
  }

 private:
  static constexpr std::string_view kBlanks = " \t\r\n";

  void SkipBlanks() { mLeft.remove_prefix(std::min(mLeft.find_first_not_of(kBlanks), mLeft.size())); }

  std::string_view mLeft;
};

/// The number in the word, or the default when there is no word.
std::uint32_t NumberOr(std::string_view word, std::uint32_t otherwise, std::uint32_t max, const char* what) {
  if (word.empty()) return otherwise;
  std::uint32_t value = 0;
  const auto [stop, failure] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (failure != std::errc() || stop != word.data() + word.size() || value > max) {
    throw std::invalid_argument(fmt::format("{} is a number up to {}, not '{}'", what, max, word));
  }
  return value;
}

Json::Value CountsAsJson(const std::array<std::uint32_t, 256>& counts) {
  Json::Value json(Json::objectValue);
  for (std::size_t i = 0; i < counts.size(); ++i) {
    if (counts[i] != 0) json[CommandName(static_cast<std::uint8_t>(i))] = counts[i];
  }
  return json;
}

std::string StatusAsJson(const Status& status) {
  Json::Value json;
  json["devices"] = Json::arrayValue;
  for (const DeviceStatus& device : status.devices) {
    Json::Value one;
    one["index"] = device.index;
    one["name"] = device.name;
    one["powered"] = device.powered;
    one["polling"] = device.polling;
    one["removed"] = device.removed;
    one["ownerPort"] = device.ownerPort;
    one["mask"] = device.mask;
    one["targetsFound"] = device.targetsFound;
    one["faults"] = Json::arrayValue;
    for (const Fault fault : device.faults) one["faults"].append(std::string(FaultName(fault)));
    json["devices"].append(std::move(one));
  }
  json["tags"] = Json::arrayValue;
  for (const std::string& tag : status.tags) json["tags"].append(tag);
  json["openSockets"] = static_cast<Json::UInt64>(status.openSockets);
  json["listeners"] = static_cast<Json::UInt64>(status.listeners);
  json["commands"] = CountsAsJson(status.commands);
  json["events"] = CountsAsJson(status.events);
  json["commandWaits"] = status.commandWaits;
  json["hung"] = status.hung;
  Json::StreamWriterBuilder writer;
  writer["indentation"] = "";
  return Json::writeString(writer, json) + "\n";
}

std::string StatusAsText(const Status& status) {
  std::string text;
  for (const DeviceStatus& device : status.devices) {
    text += fmt::format("device   {}{}, power {}, ", device.name, device.removed ? " (gone)" : "",
                        device.powered ? "on" : "off");
    text += device.polling ? fmt::format("polling for {:#x} by port {}", device.mask, device.ownerPort)
                           : "not polling";
    for (const Fault fault : device.faults) text += fmt::format(", {}", FaultName(fault));
    text += fmt::format(", {} tag(s) found\n", device.targetsFound);
  }
  if (status.devices.empty()) text += "device   none\n";
  text += fmt::format("tags     {}\n",
                      status.tags.empty() ? "none" : fmt::format("{}", fmt::join(status.tags, ", ")));
  text += fmt::format("sockets  {} open, {} listening to events{}\n", status.openSockets, status.listeners,
                      status.hung           ? ", the kernel hangs"
                      : status.commandWaits ? ", a command waits for the chip"
                                            : "");
  return text;
}

std::string HandleTap(VirtualNfc& server, Words& words) {
  const TagKind kind = ParseTagKind(words.Next());
  const std::string_view uid = words.Next();
  if (uid.empty()) throw std::invalid_argument("tap needs a UID");
  Tag tag = MakeTag(kind, uid, server.Settings().kernel.stack);
  const std::uint32_t hold = NumberOr(words.Next(), 0, kMaxHoldMs, "the time to hold the tag");
  words.RequireEnd();
  const bool isPolling = server.GetStatus().Device().polling;
  if (hold == 0) {
    server.PresentTag(std::move(tag));
  } else {
    server.PresentTagFor(std::move(tag), std::chrono::milliseconds(hold));
  }
  return isPolling ? "" : "No device is polling; the tag is found as soon as one does.\n";
}

std::string HandleRule(VirtualNfc& server, Words& words) {
  const std::string_view what = words.Next();
  if (what == "add") return fmt::format("rule {}\n", server.AddRule(words.Rest()));
  words.RequireEnd();
  if (what == "clear") {
    server.ClearRules();
    return "";
  }
  if (what != "list") throw std::invalid_argument("rule takes add, list or clear");
  std::string text;
  for (const RuleStatus& rule : server.ListRules()) {
    text += fmt::format("{}  {}  (seen {}, fired {})\n", rule.id, rule.text, rule.seen, rule.fired);
  }
  return text;
}

std::string HandleFault(VirtualNfc& server, Words& words) {
  const Fault fault = ParseFault(words.Next());
  const std::string_view state = words.Next();
  if (state != "on" && state != "off") {
    throw std::invalid_argument(fmt::format("a fault is on or off, not '{}'", state));
  }
  const std::uint32_t index = NumberOr(words.Next(), 0, 255, "a device's number");
  words.RequireEnd();
  if (!server.SetFault(fault, state == "on", index)) {
    throw std::invalid_argument(fmt::format("there is no device {}", index));
  }
  return "";
}

std::string HandleWords(VirtualNfc& server, Words& words) {
  const std::string_view command = words.Next();
  if (command == "tap") return HandleTap(server, words);
  if (command == "rule") return HandleRule(server, words);
  if (command == "fault") return HandleFault(server, words);
  if (command == "remove") {
    words.RequireEnd();
    server.RemoveTags();
    return "";
  }
  if (command == "plug") {
    const std::string_view number = words.Next();
    words.RequireEnd();
    const std::uint32_t index =
        number.empty() ? server.Plug() : server.Plug(NumberOr(number, 0, 255, "a device's number"));
    return fmt::format("device {}\n", index);
  }
  if (command == "unplug") {
    const std::uint32_t index = NumberOr(words.Next(), 0, 255, "a device's number");
    words.RequireEnd();
    if (!server.Unplug(index)) throw std::invalid_argument(fmt::format("there is no device {}", index));
    return "";
  }
  if (command == "status") {
    const std::string_view format = words.Next();
    words.RequireEnd();
    if (format == "json") return StatusAsJson(server.GetStatus());
    if (format.empty()) return StatusAsText(server.GetStatus());
    throw std::invalid_argument(fmt::format("unknown format '{}'", format));
  }
  throw std::invalid_argument(fmt::format("unknown command '{}'", command));
}

}  // namespace

std::optional<std::uint32_t> ParseRecordLine(std::string_view line) {
  Words words(line);
  if (words.Next() != "record") return std::nullopt;
  const std::uint32_t count = NumberOr(words.Next(), 0, 0xFFFFFFFF, "the number of messages");
  words.RequireEnd();
  return count;
}

std::string HandleControlLine(VirtualNfc& server, std::string_view line) {
  try {
    Words words(line);
    return "ok\n" + HandleWords(server, words);
  } catch (const std::invalid_argument& error) {
    return fmt::format("error: {}\n", error.what());
  }
}

std::string ControlAddress(std::string_view address) {
  return std::string(address) + ".control";
}

}  // namespace virtualnfc
