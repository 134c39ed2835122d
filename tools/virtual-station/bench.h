#pragma once

#include <json/value.h>

#include <string>
#include <thread>

#include "framework/rpcconfig.h"
#include "ipc/generic_control.grpc.pb.h"
#include "ipc/rfid.grpc.pb.h"
#include "tools/common/daemonclient.h"
#include "tools/common/subscriber.h"
#include "tools/virtual-station/benchmodel.h"
#include "tools/virtual-station/configuration.h"
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
  /// Starts watching. The daemon and the simulated reader may come later. Throws std::runtime_error if it
  /// cannot serve Feedback and Diagnostics.
  explicit Bench(BenchSettings settings);
  Bench(const Bench&) = delete;
  Bench& operator=(const Bench&) = delete;

  const BenchModel& Model() const { return mModel; }

  /// Carries out a request of the page: {"do": "enable" | "disable" | "plug" | "unplug" | "fault"}, {"do":
  /// "learning" | "ocpp" | "free", "on": B}, {"do": "tap", "kind": K, "uid": U}, {"do": "inject", "uid": U},
  /// {"do": "permit", "uid": U, "on": B}. Blocks until it is done, a minute at most, or until Stop. Answers
  /// any other request with an error text; does not throw.
  BenchAnswer Do(const Json::Value& request);

  /// Cancels the requests in progress.
  void Stop() { mDaemon.Cancel(); }

 private:
  BenchAnswer SetMode(const std::string& mode, bool on);
  BenchAnswer Present(const std::string& uid, const std::string& kind);
  BenchAnswer AskReader(const std::string& line, const std::string& done) const;
  void OnToken(const ipc::MRfidNotification& notification);
  void OnState(const ipc::MGenericControlNotification& notification);
  void Watch(const std::stop_token& stop);
  Json::Value Reader() const;
  Json::Value Settings() const;

  const BenchSettings mSettings;
  const Configuration mConfiguration;
  BenchModel mModel;
  DaemonClient mDaemon;
  VirtualStation mStation;
  // Cards before states: a state may lead to a card at once, and the bench must not miss its outcome.
  Subscriber<ipc::Rfid, ipc::MRfidNotification> mTokens;
  Subscriber<ipc::GenericControl, ipc::MGenericControlNotification> mStates;
  std::jthread mWatcher;
};
