#pragma once

#include <chrono>
#include <thread>

/// The usual timeout for an event: many times what it takes, even under a sanitizer on a slow machine that
/// stalls.
constexpr std::chrono::seconds kLongestWait(120);

/// Polls until the condition is true. Returns false on timeout. Use it only for changes outside this process
/// that send no event.
template <typename Condition>
bool Eventually(Condition condition, std::chrono::steady_clock::duration timeout = kLongestWait) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}
