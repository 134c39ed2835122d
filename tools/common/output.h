#pragma once

#include <json/value.h>

#include <string>
#include <string_view>

/// Standard output, line by line: each line is with its reader when Write returns. One thread at a time.
class LineOutput {
 public:
  /// Writes to a closed pipe become errors instead of ending the process.
  LineOutput();

  /// False when nobody reads any more. Throws std::runtime_error when the line cannot be written for another
  /// reason.
  bool Write(const std::string& line);

  /// Whether colours are wanted: on a terminal, unless the environment has NO_COLOR.
  bool HasColour() const { return mHasColour; }

 private:
  const bool mHasColour;
};

/// One JSON document in one line.
std::string ToJsonLine(const Json::Value& value);

/// The text with control characters as \xNN: what comes from outside must not drive the terminal.
std::string Printable(std::string_view text);

std::string TimeForPeople();    ///< the local time: "2024-05-17 09:30:01.250"
std::string TimeForPrograms();  ///< ISO 8601, UTC: "2024-05-17T07:30:01.250Z"

/// One line on standard error, after the tool's name.
void PrintError(std::string_view tool, std::string_view message);
