#include "rpcqueue.h"

CRpcQueue::COperation::COperation(Done done) {
  const std::lock_guard<std::mutex> lock(mMutex);
  mDone = std::move(done);
}

void CRpcQueue::COperation::End(bool ok) {
  Done done;
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    done.swap(mDone);
  }
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
    static_cast<COperation*>(tag)->End(ok);
  }
}

void CRpcQueue::Close() {
  const std::lock_guard<std::shared_mutex> lock(mMutex);
  if (!std::exchange(mIsClosed, true)) {
    mQueue->Shutdown();
  }
}
