#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

/// Ends the process when the condition does not hold, which makes the fuzzer keep the input.
#define FUZZ_CHECK(condition) \
  ((condition)                \
       ? void()               \
       : (std::fprintf(stderr, "%s:%d: broken: %s\n", __FILE__, __LINE__, #condition), std::abort()))

inline std::string TextOf(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Cuts off and returns the text before the first `separator`, or the whole text when there is none.
inline std::string TakeUntil(std::string& text, const std::string& separator) {
  const auto end = text.find(separator);
  std::string taken = text.substr(0, end);
  text.erase(0, end == std::string::npos ? end : end + separator.size());
  return taken;
}
