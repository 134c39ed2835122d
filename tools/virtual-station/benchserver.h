#pragma once

#include <json/value.h>

#include <atomic>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "tools/virtual-station/benchmodel.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

/// One file of the page, compiled in.
struct PageFile {
  std::string_view path;  ///< as it is asked for: "/page.js"
  std::string_view type;
  std::string_view content;
};
std::span<const PageFile> PageFiles();

/// Serves the bench's page on the loopback address: the files, `/events` (server-sent events: "snapshot" and
/// "log"), and `/do` for requests. A request can start a charge, so requests from other pages are refused:
/// every request must name this server as its host, a browser's request must come from this server's page,
/// and `/do` needs a header that other pages cannot send.
class BenchServer {
 public:
  /// Carries out one request of the page. Returns whether it was done, and a text for people.
  using Carrier = std::function<std::pair<bool, std::string>(const Json::Value& request)>;

  /// Listens on the port; 0 takes any free one. Throws std::runtime_error if it cannot.
  BenchServer(BenchModel& model, Carrier carrier, int port);
  ~BenchServer();
  BenchServer(const BenchServer&) = delete;
  BenchServer& operator=(const BenchServer&) = delete;

  std::string Url() const;

  /// Blocks until Stop.
  void Run();
  /// May be called from any thread, also before Run. Close the model first: Stop waits for its readers.
  void Stop();

 private:
  bool IsPermitted(const httplib::Request& request, std::string& reason) const;
  void ServeEvents(httplib::Response& response);
  void ServeRequest(const httplib::Request& request, httplib::Response& response) const;

  BenchModel& mModel;
  const Carrier mCarrier;
  int mPort;
  const std::shared_ptr<std::atomic<int>> mStreams = std::make_shared<std::atomic<int>>(0);
  std::unique_ptr<httplib::Server> mServer;
  std::atomic<bool> mEnded = false;
};
