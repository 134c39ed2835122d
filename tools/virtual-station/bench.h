#pragma once

#include <grpcpp/grpcpp.h>
#include <json/value.h>

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "framework/rpcconfig.h"
#include "ipc/generic_control.grpc.pb.h"
#include "ipc/rfid.grpc.pb.h"
#include "tools/common/subscriber.h"
#include "tools/virtual-station/benchmodel.h"
#include "tools/virtual-station/logtail.h"
#include "tools/virtual-station/sectionfile.h"
#include "tools/virtual-station/virtualstation.h"

/// The paths and addresses that a bench needs.
struct BenchSettings {
  RpcConfig rpc;          ///< where the daemon, its peers and the sections are
  std::string nfcSocket;  ///< virtual-nfc's; empty: no simulated reader
  std::string logFile;    ///< the daemon's; empty: none is shown
};

/// Plays everything around the daemon: its supervisor, its peers, the configuration editor and the person
/// with the cards. Uses the same interfaces as the command line tools.
///
/// Threads: any. The bench puts everything that it sees into Model().
class Bench {
 public:
  /// Starts watching. The daemon and the simulated reader may come later. If another program has the
  /// addresses of Feedback and Diagnostics, the bench works without them and the model's notice says so.
  explicit Bench(BenchSettings settings);
  ~Bench();
  Bench(const Bench&) = delete;
  Bench& operator=(const Bench&) = delete;

  BenchModel& Model() { return mModel; }

  /// Why Feedback and Diagnostics are not served; empty when they are.
  const std::string& PeersProblem() const { return mPeersProblem; }

  /// Carries out a request of the page: {"do": "enable" | "disable" | "plug" | "unplug" | "fault"}, {"do":
  /// "learning" | "ocpp" | "free", "on": B}, {"do": "tap", "kind": K, "uid": U}, {"do": "inject", "uid": U},
  /// {"do": "permit", "uid": U, "on": B}. Blocks until it is done, a minute at most, or until Stop. Answers
  /// any other request with an error text; does not throw.
  BenchAnswer Do(const Json::Value& request);

  /// Cancels the requests in progress.
  void Stop();

 private:
  BenchAnswer Carry(const Json::Value& request);
  BenchAnswer SetLearning(bool on);
  BenchAnswer Tap(const std::string& kind, const std::string& uid);
  BenchAnswer Inject(const std::string& uid);
  BenchAnswer AskReader(const std::string& line, const std::string& done);
  BenchAnswer Ask(const std::function<grpc::Status(grpc::ClientContext&, ipc::MResult&)>& call,
                  const std::string& done, const std::string& refusal);
  void ServePeers();
  void Subscribe();
  void Look();
  void LookAtReader();
  void LookAtSettings();
  void WatchFiles();

  const BenchSettings mSettings;
  BenchModel mModel;
  const StationSettings mSwitches;
  const CardList mCards;
  LogTail mLog;
  std::shared_ptr<grpc::Channel> mControlChannel;
  std::shared_ptr<grpc::Channel> mRfidChannel;

  std::mutex mMutex;  ///< guards the next four
  std::condition_variable mWake;
  bool mStopping = false;
  bool mLookSoon = true;
  std::set<grpc::ClientContext*> mCalls;

  std::string mPeersProblem;  ///< set by the constructor only
  std::unique_ptr<VirtualStation> mStation;
  std::unique_ptr<Subscriber<ipc::Rfid, ipc::MRfidNotification>> mTokens;
  std::unique_ptr<Subscriber<ipc::GenericControl, ipc::MGenericControlNotification>> mStates;
  std::thread mWatcher;
};
