#pragma once

#include <functional>
#include <memory>

/// Holds back a failure of the reader while a token is between its find and its outcome. A failure makes the
/// machine leave the state that notifies tokens, and an accepted card must be notified.
///
/// Threads: any. Nothing waits here.
class CTokensUnderWay {
 public:
  /// A token is under way for as long as a copy of its handle lives. Handles may outlive this object.
  using Handle = std::shared_ptr<void>;

  /// `postFailure` must not throw. It is called without a lock held, on the thread that calls Fail or
  /// releases the last handle.
  explicit CTokensUnderWay(std::function<void()> postFailure);

  Handle Begin();

  /// Posts the failure now, or as soon as no token is under way. Several failures held back become one post.
  void Fail();

 private:
  struct State;
  std::shared_ptr<State> mState;
};
