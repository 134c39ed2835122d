#include "src/components/tokensunderway.h"

#include <mutex>
#include <utility>

struct CTokensUnderWay::State {
  explicit State(std::function<void()> post) : postFailure(std::move(post)) {}

  void End() {
    {
      const std::lock_guard lock(mutex);
      if (--tokens > 0 || !std::exchange(hasFailed, false)) {
        return;
      }
    }
    postFailure();
  }

  const std::function<void()> postFailure;
  std::mutex mutex;
  unsigned tokens = 0;     // guarded by mutex
  bool hasFailed = false;  // guarded by mutex
};

CTokensUnderWay::CTokensUnderWay(std::function<void()> postFailure)
    : mState(std::make_shared<State>(std::move(postFailure))) {}

CTokensUnderWay::Handle CTokensUnderWay::Begin() {
  {
    const std::lock_guard lock(mState->mutex);
    ++mState->tokens;
  }
  return {nullptr, [weak = std::weak_ptr<State>(mState)](std::nullptr_t) {
            if (const auto state = weak.lock()) {
              state->End();
            }
          }};
}

void CTokensUnderWay::Fail() {
  {
    const std::lock_guard lock(mState->mutex);
    if (mState->tokens > 0) {
      mState->hasFailed = true;
      return;
    }
  }
  mState->postFailure();
}
