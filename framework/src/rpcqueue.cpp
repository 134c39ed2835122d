#include "rpcqueue.h"

void CRpcQueue::COperation::End(bool ok) {
  const Done done = std::move(mDone);
  delete this;
  done(ok);
}

CRpcQueue::~CRpcQueue() {
  Close();
  Run();
}

void CRpcQueue::Run() {
  void* tag = nullptr;
  bool ok = false;
  while (mQueue->Next(&tag, &ok)) {
    static_cast<void>(mHandedOver.load(std::memory_order_acquire));
    static_cast<COperation*>(tag)->End(ok);
  }
}

void CRpcQueue::Close() {
  const std::lock_guard<std::shared_mutex> lock(mMutex);
  if (!std::exchange(mIsClosed, true)) {
    mQueue->Shutdown();
  }
}
