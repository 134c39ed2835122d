#pragma once

#include <gmock/gmock.h>

#include <string>

/// Matches a log line by its text behind the source position.
inline auto Says(const std::string& text) {
  return ::testing::EndsWith(") " + text);
}
