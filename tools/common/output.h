#pragma once

#include <json/value.h>

#include <string>
#include <string_view>

/// Standard output, flushed after each line. One thread at a time.
class LineOutput {
 public:
  /// Writes to a closed pipe become errors instead of ending the process.
  LineOutput();

  /// Returns false when nobody reads any more. Throws std::runtime_error when the line cannot be written for
  /// another reason.
  bool Write(const std::string& line);

  /// Whether colours are wanted: on a terminal, unless the environment has NO_COLOR.
  bool HasColour() const { return mHasColour; }

 private:
  const bool mHasColour;
};

/// The JSON document in one line.
std::string ToJsonLine(const Json::Value& value);

/// The JSON object in this text, by the strict rules; null when it has none.
Json::Value ParseJsonObject(const std::string& text);

/// The text with control characters as \xNN, so that text from outside cannot control the terminal.
std::string Printable(std::string_view text);

std::string TimeForPeople();    ///< the local time: "2024-05-17 09:30:01.250"
std::string TimeForPrograms();  ///< ISO 8601, UTC: "2024-05-17T07:30:01.250Z"

/// Prints one line on standard error: the tool's name and the message.
void PrintError(std::string_view tool, std::string_view message);
