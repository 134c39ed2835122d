#include "tools/common/output.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <json/reader.h>
#include <json/writer.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <system_error>

LineOutput::LineOutput() : mHasColour(isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr) {
  std::signal(SIGPIPE, SIG_IGN);
}

bool LineOutput::Write(const std::string& line) {
  const std::string whole = line + "\n";
  errno = 0;
  if (std::fwrite(whole.data(), 1, whole.size(), stdout) == whole.size() && std::fflush(stdout) == 0) {
    return true;
  }
  if (errno == EPIPE) {
    return false;
  }
  throw std::runtime_error("cannot write to standard output: " + std::generic_category().message(errno));
}

std::string ToJsonLine(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

Json::Value ParseJsonObject(const std::string& text) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  std::istringstream stream(text);
  Json::Value value;
  try {
    return Json::parseFromStream(builder, stream, &value, nullptr) && value.isObject() ? value
                                                                                       : Json::Value();
  } catch (const Json::Exception&) {  // nested too deeply
    return {};
  }
}

std::string Printable(std::string_view text) {
  std::string printable;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<std::uint8_t>(text[i]);
    const auto next = static_cast<std::uint8_t>(i + 1 < text.size() ? text[i + 1] : 0);
    if (byte < 0x20 || byte == 0x7F) {
      printable += fmt::format("\\x{:02x}", byte);
    } else if (byte == 0xC2 && next >= 0x80 && next < 0xA0) {  // U+0080 to U+009F
      printable += fmt::format("\\x{:02x}\\x{:02x}", byte, next);
      ++i;
    } else {
      printable += text[i];
    }
  }
  return printable;
}

namespace {

/// The current second, in the time zone of `calendar` (fmt::localtime or fmt::gmtime), and the milliseconds.
std::pair<std::tm, int> Now(std::tm (*calendar)(std::time_t)) {
  const auto now = std::chrono::system_clock::now();
  const auto second = std::chrono::floor<std::chrono::seconds>(now);
  const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(now - second);
  return {calendar(std::chrono::system_clock::to_time_t(second)), static_cast<int>(rest.count())};
}

}  // namespace

std::string TimeForPeople() {
  const auto [second, milliseconds] = Now(fmt::localtime);
  return fmt::format("{:%Y-%m-%d %H:%M:%S}.{:03}", second, milliseconds);
}

std::string TimeForPrograms() {
  const auto [second, milliseconds] = Now(fmt::gmtime);
  return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", second, milliseconds);
}

void PrintError(std::string_view tool, std::string_view message) {
  const std::string line = fmt::format("{}: {}\n", tool, Printable(message));
  std::fwrite(line.data(), 1, line.size(), stderr);
}
