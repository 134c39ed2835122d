#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

/// Ends the process when the condition is false, so that the fuzzer keeps the input.
#define FUZZ_CHECK(condition) \
  ((condition)                \
       ? void()               \
       : (std::fprintf(stderr, "%s:%d: broken: %s\n", __FILE__, __LINE__, #condition), std::abort()))

inline std::string TextOf(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Removes and returns the text before the first `separator`; without a separator, the whole text.
inline std::string TakeUntil(std::string& text, const std::string& separator) {
  const auto end = text.find(separator);
  std::string taken = text.substr(0, end);
  text.erase(0, end == std::string::npos ? end : end + separator.size());
  return taken;
}
