#include "framework/diagnostics.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "framework/thread.h"
#include "rpcclients.h"
#include "rpchost.h"
#include "rpclogging.h"
#include "utf8.h"

namespace {

constexpr std::chrono::seconds kRetryPeriod{1};
// How long the first value waits for others: a card has three, and is to be authorised first.
constexpr std::chrono::milliseconds kGatherPeriod{20};
constexpr std::size_t kQueueBound = 256;
constexpr std::size_t kCallBytes = 32UL * 1024;  // half of what a service of this framework takes in one call
// How long Terminate waits for values on their way, and then for the transport to give in.
constexpr std::chrono::milliseconds kFlushGrace{300};
constexpr std::chrono::milliseconds kCancelGrace{150};

/// Everything that signals and the delivering thread share: what was sent last on every signal, and what is
/// on its way.
class CPublisher {
 public:
  // Never destroyed: signals may go on sending while the process exits.
  static CPublisher& Instance() {
    static auto* const publisher = new CPublisher;
    return *publisher;
  }

  void Send(ipc::MSignal signal) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mLatest[signal.id()] = {mNextNumber++, signal};
    if (mSession && mSession->present) {
      mSession->queue.push_back(std::move(signal));
      if (mSession->queue.size() > kQueueBound) {
        QueueLatest(*mSession);  // a peer that cannot keep up gets what counts
      }
      if (mSession->queue.size() == 1) {  // the delivering thread does not wait for any other
        mSession->wake.notify_all();
      }
    }
  }

  void Start(std::shared_ptr<IDiagnosticsTransport> transport) {
    const std::lock_guard<std::mutex> life(mLifeMutex);
    End();
    auto session = std::make_shared<Session>();
    session->number = ++mSessions;
    session->transport = std::move(transport);
    session->transport->OnPeerLost([this, number = session->number] { TakeLoss(number); });
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      QueueLatest(*session);
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
    std::uint64_t number = 0;
    std::deque<ipc::MSignal> queue;
    bool present = true;  // the peer is not known to be absent: values go through the queue
    bool resend = false;  // the peer may have forgotten everything
    bool stopping = false;
    bool cutOff = false;
    bool ended = false;
  };

  /// By number: the thread that reports a loss must not be the last to own the session.
  void TakeLoss(std::uint64_t session) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mSession && mSession->number == session) {
      mSession->resend = true;
      mSession->wake.notify_all();
    }
  }

  void QueueLatest(Session& session) const {
    std::vector<const Latest*> latest;
    for (const auto& [id, entry] : mLatest) {
      latest.push_back(&entry);
    }
    std::sort(latest.begin(), latest.end(), [](auto* a, auto* b) { return a->number < b->number; });
    session.queue.clear();
    for (const Latest* entry : latest) {
      session.queue.push_back(entry->signal);
    }
  }

  void End() {
    std::unique_lock<std::mutex> lock(mMutex);
    const std::shared_ptr<Session> session = std::move(mSession);
    mSession.reset();
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
      RpcLogging::Error("Diagnostics: the delivery of a value does not end; its thread is left behind");
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
        QueueLatest(session);
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

  /// What goes out in one call: at least one value, and no more than any peer takes.
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

  struct Latest {
    std::uint64_t number = 0;
    ipc::MSignal signal;
  };

  std::mutex mLifeMutex;  // Start and Stop, one at a time; guards the next two
  std::thread mThread;
  std::uint64_t mSessions = 0;
  std::mutex mMutex;  // guards the rest, sessions included
  std::map<int, Latest> mLatest;
  std::uint64_t mNextNumber = 0;
  std::shared_ptr<Session> mSession;
};

}  // namespace

void CDiagnosticsCommClient::Initialize(AppCommunicationHost<GrpcBackend>& host) {
  static const char* const peer = "Diagnostics";
  GrpcBackend& backend = host;
  std::string address;
  try {
    address = backend.mImpl->PeerAddress(peer);
  } catch (const Rpc::ConfigurationException& e) {
    RpcLogging::Warning(std::string("Diagnostics values are not published: ") + e.what());
    return;
  }
  Initialize(CreateDiagnosticsTransport(peer, address));
}

void CDiagnosticsCommClient::Initialize(std::shared_ptr<IDiagnosticsTransport> transport) {
  CPublisher::Instance().Start(std::move(transport));
}

void CDiagnosticsCommClient::Terminate() {
  CPublisher::Instance().Stop();
}

class CDiagnosticsSignal<std::string>::Impl {
 public:
  explicit Impl(const CSignalDefinition<std::string>* definition)
      : mDefinition(definition), mValue(definition->defaultValue) {}

  // The lock is held until the value is with the publisher, so that values go out in the order they were
  // taken in.
  void Send(const std::string* value) {
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
  }

  void SendNoThrow(const std::string* value) noexcept {
    try {
      Send(value);
    } catch (const std::exception& e) {
      RpcLogging::Error(e.what());
    }
  }

 private:
  const CSignalDefinition<std::string>* const mDefinition;
  std::mutex mMutex;
  std::string mValue;
};

CDiagnosticsSignal<std::string>::CDiagnosticsSignal(const CSignalDefinition<std::string>* definition)
    : mImpl(std::make_shared<Impl>(definition)) {}

void CDiagnosticsSignal<std::string>::Send() noexcept {
  mImpl->SendNoThrow(nullptr);
}

void CDiagnosticsSignal<std::string>::Send(const std::string& value) noexcept {
  mImpl->SendNoThrow(&value);
}
