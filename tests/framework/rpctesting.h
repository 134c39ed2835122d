#pragma once

#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "framework/handover.h"
#include "framework/rpc.h"
#include "ipc/generic_control.grpc.pb.h"
#include "ipc/rfid.grpc.pb.h"

namespace rpctesting {

using namespace handover;

/// A temporary root folder with an etc folder.
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

/// A host with its two threads, as the application runs it.
class RunningHost {
 public:
  explicit RunningHost(const std::string& config) : mHost(config) {}
  ~RunningHost() { Stop(); }

  AppCommunicationHost<GrpcBackend>& Host() { return mHost; }
  const AppCommunicationHost<GrpcBackend>& Host() const { return mHost; }
  void Start() {
    mHost.StartServices();
    Serve();
  }
  void Serve() {
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

/// A call's context, with a deadline.
struct Context : grpc::ClientContext {
  Context() { set_deadline(std::chrono::system_clock::now() + seconds(100)); }
};

/// Keeps what the framework logs.
struct Lines final : Rpc::ILogger {
  void Critical(const std::string& message) override { Put("critical", message); }
  void Error(const std::string& message) override { Put("error", message); }
  void Warning(const std::string& message) override { Put("warning", message); }
  void Info(const std::string& message) override { Put("info", message); }
  void Debug(const std::string& message) override { Put("debug", message); }
  void Trace(const std::string& message) override { Put("trace", message); }

  void Put(const std::string& level, const std::string& message) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mText += level + ": " + message + "\n";
  }
  std::string Text() {
    const std::lock_guard<std::mutex> lock(mMutex);
    return mText;
  }

 private:
  std::mutex mMutex;
  std::string mText;
};

/// A TCP port that is free now.
int FreePort();

}  // namespace rpctesting
