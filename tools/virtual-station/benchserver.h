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

/// Serves the bench's page on the loopback address: the files, `/news` for what the page shows (see
/// BenchModel), and `/do` for requests. A request can start a charge, so requests from other pages are
/// refused: every request must name this server as its host, a browser's request must come from this server's
/// page, and `/do` needs a header that other pages cannot send.
class BenchServer {
 public:
  /// Carries out one request of the page.
  using Carrier = std::function<BenchAnswer(const Json::Value& request)>;

  /// Listens on the port; 0 takes any free one. Throws std::runtime_error if it cannot.
  BenchServer(const BenchModel& model, Carrier carrier, int port);
  ~BenchServer();
  BenchServer(const BenchServer&) = delete;
  BenchServer& operator=(const BenchServer&) = delete;

  std::string Url() const;

  /// Blocks until Stop.
  void Run();
  /// May be called from any thread, also before Run. Waits for the requests in progress.
  void Stop();

 private:
  bool IsPermitted(const httplib::Request& request, std::string& reason) const;
  void ServeRequest(const httplib::Request& request, httplib::Response& response) const;

  const BenchModel& mModel;
  const Carrier mCarrier;
  int mPort;
  std::unique_ptr<httplib::Server> mServer;
  std::atomic<bool> mEnded = false;
};
