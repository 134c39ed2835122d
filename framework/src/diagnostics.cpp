#include "framework/diagnostics.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

#include "diagnosticstransport.h"
#include "framework/thread.h"
#include "rpclogging.h"
#include "utf8.h"

namespace {

constexpr std::chrono::seconds kRetryPeriod{1};
// How long the first value waits for others: a card sends three, and must be authorised first.
constexpr std::chrono::milliseconds kGatherPeriod{20};
constexpr std::size_t kQueueBound = 256;
constexpr std::size_t kCallBytes = 32UL * 1024;  // half of what a service accepts in one call
// How long Terminate waits for queued values to leave, and then for the cancelled transport to return.
constexpr std::chrono::milliseconds kFlushGrace{300};
constexpr std::chrono::milliseconds kCancelGrace{150};

/// What the signals and the delivering thread share: the latest value of every signal and the queue.
class CPublisher {
 public:
  // Never destroyed: signals may go on sending while the process exits.
  static CPublisher& Instance() {
    static auto* const publisher = new CPublisher;
    return *publisher;
  }

  void Send(ipc::MSignal signal) {
    std::unique_lock<std::mutex> lock(mMutex);
    std::erase_if(mLatest, [&](const auto& latest) { return latest.id() == signal.id(); });
    mLatest.push_back(signal);
    if (mSession && mSession->present) {
      mSession->queue.push_back(std::move(signal));
      if (mSession->queue.size() > kQueueBound) {
        mSession->queue = mLatest;  // the peer cannot keep up
      }
      if (mSession->queue.size() == 1) {  // the delivering thread waits for the first value only
        const std::shared_ptr<Session> session = mSession;
        lock.unlock();  // that thread needs it
        session->wake.notify_all();
      }
    }
  }

  void Start(std::shared_ptr<IDiagnosticsTransport> transport) {
    const std::lock_guard<std::mutex> life(mLifeMutex);
    End();
    auto session = std::make_shared<Session>();
    session->transport = std::move(transport);
    session->transport->OnPeerLost([this, lost = session.get()] { TakeLoss(lost); });
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      session->queue = mLatest;
      mSession = session;
    }
    mThread = std::thread([this, session] { Deliver(*session); });
  }

  void Stop() {
    const std::lock_guard<std::mutex> life(mLifeMutex);
    End();
  }

 private:
  struct Session {
    std::shared_ptr<IDiagnosticsTransport> transport;
    std::condition_variable wake;
    std::condition_variable endedWake;
    std::deque<ipc::MSignal> queue;
    bool present = true;  // false: the peer is unreachable, and only mLatest keeps values
    bool resend = false;  // the peer may have lost all values
    bool stopping = false;
    bool cutOff = false;
    bool ended = false;
  };

  /// Compares the address only: the reporting thread must not become the last owner of the session.
  void TakeLoss(const Session* session) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mSession.get() == session) {
      mSession->resend = true;
      mSession->wake.notify_all();
    }
  }

  void End() {
    std::unique_lock<std::mutex> lock(mMutex);
    const std::shared_ptr<Session> session = std::exchange(mSession, nullptr);
    if (!session) {
      return;
    }
    session->stopping = true;
    session->wake.notify_all();
    const auto hasEnded = [&] { return session->ended; };
    bool ended = session->endedWake.wait_for(lock, kFlushGrace, hasEnded);
    if (!ended) {
      session->cutOff = true;
      lock.unlock();
      session->transport->Cancel();
      lock.lock();
      ended = session->endedWake.wait_for(lock, kCancelGrace, hasEnded);
    }
    lock.unlock();
    if (ended) {
      mThread.join();
    } else {
      RpcLogging::Error("Diagnostics: a delivery does not return; its thread is left behind");
      mThread.detach();
    }
  }

  // The delivering thread.
  void Deliver(Session& session) {
    SetThreadName("diagnostics");
    std::unique_lock<std::mutex> lock(mMutex);
    while (!session.cutOff) {
      if (!session.present) {
        if (session.wake.wait_for(lock, kRetryPeriod, [&] { return session.stopping; })) {
          break;
        }
        session.present = session.resend = true;
      }
      if (session.resend) {
        session.resend = false;
        session.queue = mLatest;
      }
      if (session.queue.empty()) {
        if (session.stopping) {
          break;
        }
        session.wake.wait(lock, [&] { return session.stopping || session.resend || !session.queue.empty(); });
        session.wake.wait_for(lock, kGatherPeriod, [&] { return session.stopping || session.resend; });
        continue;
      }
      const ipc::MSignals signals = TakeCall(session.queue);
      lock.unlock();
      const bool reached = TryDeliver(*session.transport, signals);
      lock.lock();
      if (!reached) {
        session.present = false;
        session.queue.clear();
      }
    }
    session.ended = true;
    session.endedWake.notify_all();
  }

  /// The values of one call: at least one, and then as many as a peer accepts.
  static ipc::MSignals TakeCall(std::deque<ipc::MSignal>& queue) {
    ipc::MSignals signals;
    std::size_t bytes = 0;
    do {
      bytes += queue.front().ByteSizeLong();
      *signals.add_signals() = std::move(queue.front());
      queue.pop_front();
    } while (!queue.empty() && bytes + queue.front().ByteSizeLong() <= kCallBytes);
    return signals;
  }

  static bool TryDeliver(IDiagnosticsTransport& transport, const ipc::MSignals& signals) {
    try {
      return transport.Deliver(signals);
    } catch (const std::exception& e) {
      RpcLogging::Error(std::string("Diagnostics: values cannot be delivered: ") + e.what());
      return false;
    }
  }

  std::mutex mLifeMutex;  // Start and Stop, one at a time; guards the thread
  std::thread mThread;
  std::mutex mMutex;                 // guards the rest, sessions included
  std::deque<ipc::MSignal> mLatest;  // the latest value of each signal, in the order of sending
  std::shared_ptr<Session> mSession;
};

}  // namespace

void CDiagnosticsCommClient::Initialize(std::shared_ptr<IDiagnosticsTransport> transport) {
  CPublisher::Instance().Start(std::move(transport));
}

void CDiagnosticsCommClient::Terminate() {
  CPublisher::Instance().Stop();
}

CDiagnosticsSignal<std::string>::CDiagnosticsSignal(const CSignalDefinition<std::string>* definition)
    : mDefinition(definition), mValue(definition->defaultValue) {}

void CDiagnosticsSignal<std::string>::Send() noexcept {
  SendNoThrow(nullptr);
}

void CDiagnosticsSignal<std::string>::Send(const std::string& value) noexcept {
  SendNoThrow(&value);
}

void CDiagnosticsSignal<std::string>::SendNoThrow(const std::string* value) noexcept {
  try {
    // Held until the publisher has the value, so that values leave in the order of the Send calls.
    const std::lock_guard<std::mutex> lock(mMutex);
    if (value != nullptr) {
      mValue = *value;
    }
    ipc::MSignal signal;
    signal.set_id(mDefinition->id);
    signal.set_name(mDefinition->name);
    signal.set_value(ValidUtf8(mValue));
    signal.set_unit(mDefinition->unit);
    CPublisher::Instance().Send(std::move(signal));
  } catch (const std::exception& e) {
    RpcLogging::Error(e.what());
  }
}
