#include "tools/virtual-nfc/server/controlprotocol.h"

#include <fmt/format.h>
#include <json/json.h>
#include <sys/time.h>

#include <cmath>
#include <stdexcept>

namespace virtualnfc {

namespace {

constexpr double kMaxHold = 24.0 * 60 * 60;

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
  json["commandWaits"] = status.commandWaits;
  json["hung"] = status.hung;
  return Json::writeString(Json::StreamWriterBuilder(), json) + "\n";
}

void RequireDevice(bool isThere, std::uint32_t index) {
  if (!isThere) {
    throw std::invalid_argument(fmt::format("there is no device {}", index));
  }
}

}  // namespace

CLI::App& ControlCommands::Add(CLI::App& parent, const char* name, const char* help, Command command) {
  return *parent.add_subcommand(name, help)->callback([this, command = std::move(command)] {
    mCommand = command;
  });
}

ControlCommands::ControlCommands(CLI::App& app) {
  auto& tap =
      Add(app, "tap", "put a tag in front of the reader, in place of any other", [this](auto& server) {
        Tag tag = MakeTag(ParseTagKind(mKind), mUid, server.Settings().kernel.stack);
        const bool isPolling = server.GetStatus().Device().polling;
        server.PresentTagFor(std::move(tag), std::chrono::milliseconds(std::lround(mHold * 1000)));
        return isPolling ? "" : "No device is polling; the tag is found as soon as one does.\n";
      });
  tap.add_option("UID", mUid, "as printed on the tag, hexadecimal")->required();
  tap.add_option("--tech", mKind, "kind of tag")->check(CLI::IsMember(TagKindNames()))->capture_default_str();
  tap.add_option("--hold", mHold, "take it away after this time; by default it stays until 'remove'")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, kMaxHold));
  Add(app, "remove", "take all tags away", [](auto& server) {
    server.RemoveTags();
    return "";
  });
  Add(app, "plug", "plug in a reader and print its number",
      [](auto& server) { return fmt::format("device {}\n", server.Plug()); });
  Add(app, "unplug", "unplug the reader", [this](auto& server) {
    const std::uint32_t index = mDevice.value_or(server.GetStatus().Device().index);
    RequireDevice(server.Unplug(index), index);
    return "";
  }).add_option("N", mDevice, "the number that 'plug' printed; by default the first reader");
  auto& fault = Add(app, "fault", "let the reader fail without telling programs", [this](auto& server) {
    const std::uint32_t index = server.GetStatus().Device().index;
    RequireDevice(server.SetFault(ParseFault(mFault), !mIsOff, index), index);
    return "";
  });
  fault.add_option("NAME", mFault)->required()->check(CLI::IsMember(FaultNames()));
  fault.add_flag("--off", mIsOff, "end the fault");
  Add(app, "status", "show the reader, the tags and who is connected, as JSON",
      [](auto& server) { return StatusAsJson(server.GetStatus()); });
  AddRuleCommands(app);
}

void ControlCommands::AddRuleCommands(CLI::App& app) {
  CLI::App& rule = *app.add_subcommand("rule", "make the kernel misbehave");
  rule.require_subcommand(1);
  auto& add = Add(rule, "add", "COMMAND [CONDITION...] ACTION..., as in: START_POLL nth=2 errno=EBUSY",
                  [this](auto& server) {
                    server.AddRule(fmt::format("{}", fmt::join(mRule, " ")));
                    return "";
                  });
  add.add_option("RULE", mRule)->required();
  add.footer(
      "Commands: GET_DEVICE DEV_UP DEV_DOWN START_POLL STOP_POLL GET_TARGET UNSPEC GETFAMILY any\n"
      "Events: TARGETS_FOUND DEVICE_ADDED DEVICE_REMOVED\n"
      "Conditions: nth=N times=N\n"
      "Actions: errno=E delay=MS fault=NAME cross unplug drop truncate=N "
      "garble[=long|short|missing|twice|nested] duplicate\n"
      "reverse no-done interrupted seq=N sender=N overrun close");
  Add(rule, "list", "show the rules and how often they fired", [](auto& server) {
    std::string text;
    for (const Rule& one : server.ListRules()) {
      text += fmt::format("{}  (seen {}, fired {})\n", one.text, one.seen, one.fired);
    }
    return text;
  });
  Add(rule, "clear", "remove all rules", [](auto& server) {
    server.ClearRules();
    return "";
  });
}

std::string HandleControlLine(VirtualNfc& server, const std::string& line) {
  CLI::App app;
  app.require_subcommand(1);
  ControlCommands commands(app);
  try {
    app.parse(line);
    return "ok\n" + commands.CarryOut(server);
  } catch (const std::exception& error) {  // of the parser, or std::invalid_argument
    return fmt::format("error: {}\n", error.what());
  }
}

std::string AskServer(const std::string& address, std::string_view line) {
  const UniqueFd fd = ConnectUnix(address, SOCK_SEQPACKET);
  const wire::OperationHeader header{wire::Operation::Control, 0};
  const ByteView head = BytesOf(header);
  std::string request(head.begin(), head.end());
  request += line;
  const timeval limit{5, 0};
  std::string reply(wire::kMaxMessage, '\0');
  if (!fd || ::setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) != 0 ||
      ::send(fd.Get(), request.data(), request.size(), MSG_NOSIGNAL) < 0) {
    return "";
  }
  const ssize_t length = ::recv(fd.Get(), reply.data(), reply.size(), 0);
  reply.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return reply;
}

}  // namespace virtualnfc
