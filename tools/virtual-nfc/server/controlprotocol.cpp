#include "tools/virtual-nfc/server/controlprotocol.h"

#include <fmt/format.h>
#include <json/json.h>

#include <stdexcept>

#include "tools/virtual-nfc/kernel/words.h"

namespace virtualnfc {

namespace {

constexpr std::uint32_t kMaxHoldMs = 24U * 60 * 60 * 1000;

Json::Value CountsAsJson(const std::array<std::uint32_t, 256>& counts) {
  Json::Value json(Json::objectValue);
  for (std::size_t i = 0; i < counts.size(); ++i) {
    if (counts[i] != 0) {
      json[CommandName(Family::Nfc, static_cast<std::uint8_t>(i))] = counts[i];
    }
  }
  return json;
}

std::string StatusAsJson(const Status& status) {
  Json::Value json;
  json["devices"] = Json::arrayValue;
  for (const DeviceStatus& device : status.devices) {
    Json::Value& one = json["devices"].append({});
    one["index"] = device.index;
    one["name"] = device.name;
    one["powered"] = device.powered;
    one["polling"] = device.polling;
    one["removed"] = device.removed;
    one["ownerPort"] = device.ownerPort;
    one["mask"] = device.mask;
    one["targetsFound"] = device.targetsFound;
    one["faults"] = Json::arrayValue;
    for (const Fault fault : device.faults) {
      one["faults"].append(FaultName(fault));
    }
  }
  json["tags"] = Json::arrayValue;
  for (const std::string& tag : status.tags) {
    json["tags"].append(tag);
  }
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
    const std::string polling =
        device.polling ? fmt::format("polling for {:#x} by port {}", device.mask, device.ownerPort)
                       : "not polling";
    text += fmt::format("device   {}{}, power {}, {}", device.name, device.removed ? " (gone)" : "",
                        device.powered ? "on" : "off", polling);
    for (const Fault fault : device.faults) {
      text += fmt::format(", {}", FaultName(fault));
    }
    text += fmt::format(", {} tag(s) found\n", device.targetsFound);
  }
  const char* waiting = status.hung           ? ", the kernel hangs"
                        : status.commandWaits ? ", a command waits for the chip"
                                              : "";
  return fmt::format("{}tags     {}\nsockets  {} open, {} listening to events{}\n",
                     text.empty() ? "device   none\n" : text,
                     status.tags.empty() ? "none" : fmt::format("{}", fmt::join(status.tags, ", ")),
                     status.openSockets, status.listeners, waiting);
}

/// The device with the number in this word; without one, the first device that is plugged in.
std::uint32_t DeviceNumber(const VirtualNfc& server, const Words& words, std::size_t at) {
  return words.size() > at ? ParseNumber("the device number", words[at], 0, 255)
                           : server.GetStatus().Device().index;
}

void RequireDevice(bool isThere, std::uint32_t index) {
  if (!isThere) {
    throw std::invalid_argument(fmt::format("there is no device {}", index));
  }
}

std::string Tap(VirtualNfc& server, const Words& words) {
  Tag tag = MakeTag(ParseTagKind(words[1]), words[2], server.Settings().kernel.stack);
  const bool isPolling = server.GetStatus().Device().polling;
  if (words.size() > 3) {
    const std::uint32_t hold = ParseNumber("the time to hold the tag", words[3], 1, kMaxHoldMs);
    server.PresentTagFor(std::move(tag), std::chrono::milliseconds(hold));
  } else {
    server.PresentTag(std::move(tag));
  }
  return isPolling ? "" : "No device is polling; the tag is found as soon as one does.\n";
}

std::string Remove(VirtualNfc& server, const Words& /*words*/) {
  server.RemoveTags();
  return "";
}

std::string Plug(VirtualNfc& server, const Words& words) {
  return fmt::format("device {}\n",
                     words.size() > 1 ? server.Plug(DeviceNumber(server, words, 1)) : server.Plug());
}

std::string Unplug(VirtualNfc& server, const Words& words) {
  const std::uint32_t index = DeviceNumber(server, words, 1);
  RequireDevice(server.Unplug(index), index);
  return "";
}

std::string SetFault(VirtualNfc& server, const Words& words) {
  if (words[2] != "on" && words[2] != "off") {
    throw std::invalid_argument(fmt::format("a fault is on or off, not '{}'", words[2]));
  }
  const std::uint32_t index = DeviceNumber(server, words, 3);
  RequireDevice(server.SetFault(ParseFault(words[1]), words[2] == "on", index), index);
  return "";
}

std::string ShowStatus(VirtualNfc& server, const Words& words) {
  if (words.size() > 1 && words[1] != "json") {
    throw std::invalid_argument(fmt::format("unknown format '{}'", words[1]));
  }
  return words.size() > 1 ? StatusAsJson(server.GetStatus()) : StatusAsText(server.GetStatus());
}

std::string HandleRule(VirtualNfc& server, const Words& words) {
  if (words[1] == "add") {
    return fmt::format("rule {}\n",
                       server.AddRule(fmt::format("{}", fmt::join(words.begin() + 2, words.end(), " "))));
  }
  if (words.size() > 2 || (words[1] != "list" && words[1] != "clear")) {
    throw std::invalid_argument("rule takes add, list or clear");
  }
  std::string text;
  if (words[1] == "clear") {
    server.ClearRules();
  } else {
    for (const RuleStatus& rule : server.ListRules()) {
      text += fmt::format("{}  {}  (seen {}, fired {})\n", rule.id, rule.text, rule.seen, rule.fired);
    }
  }
  return text;
}

struct LineForm {
  /// Its first word is the name.
  std::string_view usage;
  std::size_t minWords;
  std::size_t maxWords;
  std::string (*handle)(VirtualNfc& server, const Words& words);
};

constexpr LineForm kForms[] = {
    {"tap KIND UID [HOLD_MS]", 3, 4, &Tap},
    {"remove", 1, 1, &Remove},
    {"plug [N]", 1, 2, &Plug},
    {"unplug [N]", 1, 2, &Unplug},
    {"fault NAME on|off [N]", 3, 4, &SetFault},
    {"status [json]", 1, 2, &ShowStatus},
    {"rule add RULE|list|clear", 2, SIZE_MAX, &HandleRule},
};

}  // namespace

std::optional<std::uint32_t> ParseRecordLine(std::string_view line) {
  const Words words = SplitWords(line);
  if (words.empty() || words[0] != "record") {
    return std::nullopt;
  }
  if (words.size() > 2) {
    throw std::invalid_argument("usage: record [N]");
  }
  return words.size() > 1 ? ParseNumber("the number of messages", words[1]) : 0;
}

std::string HandleControlLine(VirtualNfc& server, std::string_view line) {
  const Words words = SplitWords(line);
  const std::string_view name = words.empty() ? "" : words[0];
  for (const LineForm& form : kForms) {
    if (name != form.usage.substr(0, form.usage.find(' '))) {
      continue;
    }
    if (words.size() < form.minWords || words.size() > form.maxWords) {
      return fmt::format("error: usage: {}\n", form.usage);
    }
    try {
      return "ok\n" + form.handle(server, words);
    } catch (const std::invalid_argument& error) {
      return fmt::format("error: {}\n", error.what());
    }
  }
  return fmt::format("error: unknown command '{}'\n", name);
}

std::string ControlAddress(std::string_view address) {
  return std::string(address) + ".control";
}

}  // namespace virtualnfc
