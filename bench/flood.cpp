#include <fmt/format.h>
#include <grpcpp/grpcpp.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <thread>

#include "cardsubject.h"
#include "ipc/rfid.grpc.pb.h"
#include "measures.h"
#include "measuring.h"
#include "tools/common/channel.h"

namespace bench {

namespace {

constexpr std::size_t kConnections = 20;
/// Time for the program to give memory back.
constexpr std::chrono::milliseconds kRecovery(3000);

/// One request under way.
struct Request {
  grpc::ClientContext context;
  ipc::MInjectToken token;
  ipc::MResult result;
};

/// The number of requests. All of them are sent before the program sees the first one.
class Flood {
 public:
  Flood(const std::string& address, std::size_t count) : mRequests(count) {
    for (std::size_t i = 0; i < kConnections; ++i) {
      grpc::ChannelArguments arguments;
      arguments.SetString(GRPC_ARG_DEFAULT_AUTHORITY, kRfidService);
      arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);  // one connection for each channel
      auto channel = grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
      if (!channel->WaitForConnected(std::chrono::system_clock::now() + kLongestWait)) {
        throw std::runtime_error("no connection to " + address);
      }
      mStubs.push_back(ipc::Rfid::NewStub(channel));
    }
  }

  void Start() {
    for (std::size_t i = 0; i < mRequests.size(); ++i) {
      mRequests[i] = std::make_unique<Request>();
      Request& request = *mRequests[i];
      request.token.set_uid(fmt::format("{:08X}", 0x30000000 + i));
      request.context.set_deadline(std::chrono::system_clock::now() + kLongestWait);
      mStubs[i % kConnections]->async()->InjectToken(&request.context, &request.token, &request.result,
                                                     [this](const grpc::Status& status) { Take(status); });
    }
  }

  /// Every request must be carried out or refused with RESOURCE_EXHAUSTED.
  void WaitForEnd() const {
    if (!Eventually([this] { return mEnded == mRequests.size(); })) {
      throw std::runtime_error(fmt::format("{} of {} requests have no answer",
                                           mRequests.size() - mEnded.load(), mRequests.size()));
    }
    if (mOtherwise > 0) {
      throw std::runtime_error(fmt::format("{} requests ended with another status", mOtherwise.load()));
    }
  }

 private:
  void Take(const grpc::Status& status) {
    if (!status.ok() && status.error_code() != grpc::StatusCode::RESOURCE_EXHAUSTED) {
      ++mOtherwise;
    }
    ++mEnded;
  }

  std::vector<std::unique_ptr<ipc::Rfid::Stub>> mStubs;
  std::vector<std::unique_ptr<Request>> mRequests;
  std::atomic<std::size_t> mEnded{0};
  std::atomic<std::size_t> mOtherwise{0};
};

struct Memory {
  double peak = 0;
  double kept = 0;
};

std::size_t RequestsOf(const Plan& plan) {
  return static_cast<std::size_t>(plan.Count(10000, 100));
}

/// `daemon` as in CardSubject.
Memory FloodProgram(const std::string& daemon, const Plan& plan) {
  const CardSubject subject(daemon);
  const Process& process = subject.Program();
  Flood flood(subject.Address(), RequestsOf(plan));
  process.Signal(SIGSTOP);
  flood.Start();
  std::this_thread::sleep_for(kRecovery / 10);  // the requests reach the sockets
  process.Signal(SIGCONT);
  flood.WaitForEnd();
  std::this_thread::sleep_for(plan.isFull ? kRecovery : kRecovery / 10);
  return {static_cast<double>(process.Memory("VmHWM")) / 1024,
          static_cast<double>(process.Memory("VmRSS")) / 1024};
}

}  // namespace

Run MeasureFlood(const Plan& plan) {
  const Memory ours = FloodProgram(Daemon(), plan);
  Run run;
  const auto add = [&](const char* peer, const std::string& daemon) {
    const Memory theirs = FloodProgram(daemon, plan);
    const auto what = fmt::format("{} requests at once: memory ", RequestsOf(plan));
    run.rows.push_back({what + "at its peak", "MiB", ours.peak, peer, theirs.peak, 0, 30});
    run.rows.push_back({what + "kept", "MiB", ours.kept, peer, theirs.kept, 0, 18});
  };
  add("bare gRPC server", "");
  if (!plan.before.empty()) {
    add("rfidd before", plan.before);
  }
  return run;
}

}  // namespace bench
