#pragma once

#include <gmock/gmock.h>

#include <string_view>
#include <type_traits>

#include "tools/common/eventually.h"
#include "tools/common/tail.h"

/// Polls `ask` until its value matches. On timeout the failure shows the last value; if that is a text, only
/// its last lines.
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
