#include "tools/virtual-station/benchserver.h"

#include <httplib.h>

#include <cstdlib>
#include <stdexcept>

#include "tools/common/output.h"

namespace {

constexpr const char* kAddress = "127.0.0.1";
constexpr const char* kHeader = "X-Bench";
constexpr std::size_t kThreads = 24;
constexpr std::size_t kLongestRequest = 4096;

/// The page runs only this server's files, and no other page can embed it.
const httplib::Headers kHeaders{
    {"Content-Security-Policy",
     "default-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Referrer-Policy", "no-referrer"},
    {"Cache-Control", "no-store"}};

}  // namespace

BenchServer::BenchServer(const BenchModel& model, Carrier carrier, int port)
    : mModel(model), mCarrier(std::move(carrier)), mPort(port), mServer(std::make_unique<httplib::Server>()) {
  httplib::Server& server = *mServer;
  server.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
  // By default the library shares a port that is in use. Here that is an error.
  server.set_socket_options([](socket_t socket) {
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  });
  server.set_keep_alive_max_count(1);  // an idle connection would hold a thread
  server.set_keep_alive_timeout(1);
  server.set_read_timeout(std::chrono::seconds(2));
  server.set_write_timeout(std::chrono::seconds(2));
  server.set_payload_max_length(kLongestRequest);
  server.set_default_headers(kHeaders);
  server.set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
    std::string reason;
    if (IsPermitted(request, reason)) {
      return httplib::Server::HandlerResponse::Unhandled;
    }
    response.status = 403;
    response.set_content(reason + "\n", "text/plain");
    return httplib::Server::HandlerResponse::Handled;
  });
  server.set_exception_handler(
      [](const httplib::Request&, httplib::Response& response, const std::exception_ptr&) {
        response.status = 500;
        response.set_content("the bench failed\n", "text/plain");
      });
  for (const PageFile& file : PageFiles()) {
    server.Get(std::string(file.path), [&file](const httplib::Request&, httplib::Response& response) {
      response.set_content(file.content.data(), file.content.size(), std::string(file.type));
    });
  }
  server.Get("/news", [this](const httplib::Request& request, httplib::Response& response) {
    const auto revision = std::strtoull(request.get_param_value("revision").c_str(), nullptr, 10);
    response.set_content(ToJsonLine(mModel.NewsSince(revision)), "application/json");
  });
  server.Post("/do", [this](const httplib::Request& request, httplib::Response& response) {
    ServeRequest(request, response);
  });
  const bool bound =
      port == 0 ? (mPort = server.bind_to_any_port(kAddress)) > 0 : server.bind_to_port(kAddress, port);
  if (!bound) {
    throw std::runtime_error("cannot listen on " + std::string(kAddress) + ":" + std::to_string(port) +
                             "; is the port in use? --port 0 takes any that is free");
  }
  mThread = std::thread([this] {
    mServer->listen_after_bind();
    mEnded = true;
  });
}

BenchServer::~BenchServer() {
  // The library ignores a stop before it runs.
  while (!mEnded && !mServer->is_running()) {
    std::this_thread::yield();
  }
  mServer->stop();
  mThread.join();
}

std::string BenchServer::Url() const {
  return "http://" + std::string(kAddress) + ":" + std::to_string(mPort) + "/";
}

bool BenchServer::IsPermitted(const httplib::Request& request, std::string& reason) const {
  const std::string port = mPort == 80 ? "" : ":" + std::to_string(mPort);
  const auto isHere = [&port](const std::string& host) {
    return host == kAddress + port || host == "localhost" + port;
  };
  const std::string origin = request.get_header_value("Origin");
  const std::string kScheme = "http://";
  if (!isHere(request.get_header_value("Host")) || request.get_header_value_count("Host") != 1) {
    reason = "the request names another host";
  } else if (request.has_header("Origin") &&
             (origin.rfind(kScheme, 0) != 0 || !isHere(origin.substr(kScheme.size())))) {
    reason = "requests from other pages are refused";
  } else if (request.method != "GET" && request.method != "HEAD" && !request.has_header(kHeader)) {
    reason = std::string("the request lacks the header ") + kHeader;
  }
  return reason.empty();
}

void BenchServer::ServeRequest(const httplib::Request& request, httplib::Response& response) const {
  const Json::Value wanted = ParseJsonObject(request.body);
  if (!wanted.isObject()) {
    response.status = 400;
    response.set_content("the request is not a JSON object\n", "text/plain");
    return;
  }
  const auto [done, text] = mCarrier(wanted);
  Json::Value answer;
  answer["done"] = done;
  answer["text"] = text;
  response.set_content(ToJsonLine(answer), "application/json");
}
