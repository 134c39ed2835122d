#pragma once

#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "framework/rpc.h"
#include "ipc/generic_control.grpc.pb.h"
#include "ipc/rfid.grpc.pb.h"

namespace rpctesting {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

/// Polls a condition that has no event to wait for.
template <typename Condition>
bool Eventually(Condition condition, Clock::duration timeout = seconds(10)) {
  const auto deadline = Clock::now() + timeout;
  while (!condition()) {
    if (Clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(milliseconds(2));
  }
  return true;
}

/// A root folder with an etc folder, gone with the object.
class Root {
 public:
  Root() {
    std::string name = (std::filesystem::temp_directory_path() / "rpc-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("mkdtemp");
    }
    mPath = name;
    std::filesystem::create_directories(mPath / "etc");
  }
  ~Root() { std::filesystem::remove_all(mPath); }
  Root(const Root&) = delete;
  Root& operator=(const Root&) = delete;

  std::string At(const std::string& relative) const { return (mPath / relative).string(); }
  std::string ConfigPath() const { return At("etc/plex.json"); }

  std::string Configure(const std::string& text) const {
    std::ofstream(ConfigPath(), std::ios::binary | std::ios::trunc) << text;
    return ConfigPath();
  }
  std::string Listen(const std::string& address = "unix:run/rfid/rfid.sock") const {
    return Configure(R"({"listen": ")" + address +
                     R"(", "peers": {"Feedback": "unix:feedback.sock"}, "configuration": "var/lib/hub"})");
  }

 private:
  std::filesystem::path mPath;
};

/// Values handed from one thread to another.
template <typename T>
class Mailbox {
 public:
  void Put(T value) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mValues.push_back(std::move(value));
    mWake.notify_all();
  }
  std::optional<T> Take(Clock::duration timeout = seconds(10)) {
    std::unique_lock<std::mutex> lock(mMutex);
    if (!mWake.wait_for(lock, timeout, [&] { return !mValues.empty(); })) {
      return std::nullopt;
    }
    T value = std::move(mValues.front());
    mValues.pop_front();
    return value;
  }

 private:
  std::mutex mMutex;
  std::condition_variable mWake;
  std::deque<T> mValues;
};

/// Holds callers back until it is opened.
class Gate {
 public:
  void Open() {
    const std::lock_guard<std::mutex> lock(mMutex);
    mOpen = true;
    mWake.notify_all();
  }
  void Pass() {
    std::unique_lock<std::mutex> lock(mMutex);
    ++mWaiting;
    mWake.notify_all();
    mWake.wait(lock, [&] { return mOpen; });
  }
  bool AwaitWaiting(int count) {
    std::unique_lock<std::mutex> lock(mMutex);
    return mWake.wait_for(lock, seconds(10), [&] { return mWaiting >= count; });
  }

 private:
  std::mutex mMutex;
  std::condition_variable mWake;
  bool mOpen = false;
  int mWaiting = 0;
};

/// A host with its two threads, as the application runs it.
class RunningHost {
 public:
  explicit RunningHost(const std::string& config) : mHost(config) {}
  ~RunningHost() { Stop(); }

  AppCommunicationHost<GrpcBackend>& Host() { return mHost; }
  void Start() {
    mHost.StartServices();
    mServer = std::thread([this] { mHost.RunServer(); });
    mNotifier = std::thread([this] { mHost.HandleClientNotifications(); });
  }
  void Stop() {
    mHost.Stop();
    for (std::thread* thread : {&mServer, &mNotifier}) {
      if (thread->joinable()) {
        thread->join();
      }
    }
  }

 private:
  AppCommunicationHost<GrpcBackend> mHost;
  std::thread mServer;
  std::thread mNotifier;
};

inline std::shared_ptr<grpc::Channel> ChannelTo(const std::string& address, const std::string& name,
                                                grpc::ChannelArguments arguments = {}) {
  arguments.SetString(GRPC_ARG_DEFAULT_AUTHORITY, name);
  return grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments);
}

/// A call's context; every call in these tests ends within half a minute.
struct Context : grpc::ClientContext {
  explicit Context(Clock::duration timeout = seconds(30)) {
    set_deadline(std::chrono::system_clock::now() + std::chrono::duration_cast<milliseconds>(timeout));
  }
};

/// A TCP port that is free now.
int FreePort();

}  // namespace rpctesting
