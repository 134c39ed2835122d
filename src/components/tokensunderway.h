#pragma once

#include <functional>
#include <memory>

/// Knows whether a token is between its find and its outcome, and holds a failure of the reader back until
/// the outcome is posted: the failure leads the machine out of the state in which it notifies tokens, and a
/// card that was accepted must be notified.
///
/// Threads: any. Nothing waits here.
class CTokensUnderWay {
 public:
  /// A token is under way for as long as a copy of its handle lives. Handles may outlive this object.
  using Handle = std::shared_ptr<void>;

  /// `postFailure` must not throw. It is called without a lock held, on the thread that fails or lets go of
  /// the last handle.
  explicit CTokensUnderWay(std::function<void()> postFailure);

  Handle Begin();

  /// Posts the failure now, or when no token is under way any more. Several held back are posted as one.
  void Fail();

 private:
  struct State;
  std::shared_ptr<State> mState;
};
