#pragma once

#include <gmock/gmock.h>

#include <string>
#include <string_view>
#include <type_traits>

#include "tools/common/eventually.h"

/// The last lines of a text, for messages.
inline std::string Tail(std::string_view text, size_t lines = 20) {
  size_t begin = text.size();
  for (size_t line = 0; line <= lines && begin != std::string_view::npos && begin > 0; ++line) {
    begin = text.rfind('\n', begin - 1);
  }
  return std::string(text.substr(begin == std::string_view::npos ? 0 : begin));
}

/// Polls `ask` until its value matches. On timeout the failure shows the last value, of a text its last
/// lines:
///
///   EXPECT_TRUE(Becomes([&] { return peers.FeedbackEvents(); }, SizeIs(2)));
template <typename Ask, typename Matcher>
::testing::AssertionResult Becomes(Ask ask, const Matcher& matcher,
                                   std::chrono::steady_clock::duration timeout = kLongestWait) {
  using Value = decltype(ask());
  Value last{};
  const auto matches = [&] {
    last = ask();
    return ::testing::Value(last, matcher);
  };
  if (Eventually(matches, timeout)) {
    return ::testing::AssertionSuccess();
  }
  auto failure = ::testing::AssertionFailure() << "timeout, and the last value was\n";
  if constexpr (std::is_convertible_v<Value, std::string_view>) {
    failure << Tail(last);
  } else {
    failure << ::testing::PrintToString(last);
  }
  return failure << "\nwhich should be a value that " << ::testing::DescribeMatcher<Value>(matcher);
}
