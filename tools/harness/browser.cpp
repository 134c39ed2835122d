#include "tools/harness/browser.h"

#include <httplib.h>
#include <json/reader.h>

#include <regex>
#include <sstream>
#include <stdexcept>

#include "tools/common/output.h"

namespace {

constexpr const char* kElementKey = "element-6066-11e4-a52e-4f735466cecf";

Json::Value Object(const char* key, const Json::Value& value) {
  Json::Value object(Json::objectValue);
  object[key] = value;
  return object;
}

}  // namespace

Browser::Browser(const std::filesystem::path& folder) {
  const std::string output = folder / "chromedriver.out";
  mDriver = std::make_unique<Process>(std::vector<std::string>{CHROMEDRIVER_PATH, "--port=0"},
                                      std::map<std::string, std::string>{{"HOME", folder}}, output,
                                      folder / "chromedriver.err");
  std::smatch port;
  std::string text;
  if (!Eventually([&] {
        text = ReadFile(output);
        return std::regex_search(text, port, std::regex("successfully on port ([0-9]+)"));
      })) {
    throw std::runtime_error("chromedriver does not start: " + text);
  }
  mAddress = "http://127.0.0.1:" + port[1].str();

  Json::Value options;
  options["binary"] = CHROMIUM_PATH;
  for (const char* argument :
       {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
        "--disable-background-networking", "--disable-component-update", "--disable-sync",
        "--disable-dev-shm-usage", "--window-size=1400,1100"}) {
    options["args"].append(argument);
  }
  options["args"].append("--user-data-dir=" + (folder / "chromium").string());
  mSession =
      Ask("POST", "/session",
          Object("capabilities", Object("alwaysMatch", Object("goog:chromeOptions", options))))["sessionId"]
          .asString();
}

Browser::~Browser() {
  try {
    Ask("DELETE", "/session/" + mSession);
  } catch (const std::runtime_error& e) {
    fprintf(stderr, "the browser does not end: %s\n", e.what());
  }
}

Json::Value Browser::Ask(const std::string& method, const std::string& path, const Json::Value& body) {
  httplib::Client client(mAddress);
  client.set_read_timeout(std::chrono::minutes(5));  // the first request starts the browser
  const auto result = method == "POST"  ? client.Post(path, ToJsonLine(body), "application/json")
                      : method == "GET" ? client.Get(path)
                                        : client.Delete(path);
  if (!result) {
    throw std::runtime_error("chromedriver does not answer: " + httplib::to_string(result.error()));
  }
  Json::Value answer;
  std::istringstream(result->body) >> answer;
  if (result->status != 200) {
    throw std::runtime_error(path + ": " + answer["value"]["message"].asString());
  }
  return answer["value"];
}

void Browser::Open(const std::string& url) {
  Ask("POST", "/session/" + mSession + "/url", Object("url", url));
}

Json::Value Browser::Run(const std::string& script, const std::string& argument) {
  Json::Value body = Object("script", script);
  body["args"].append(argument);
  return Ask("POST", "/session/" + mSession + "/execute/sync", body);
}

std::string Browser::Element(const std::string& selector) {
  Json::Value body = Object("using", "css selector");
  body["value"] = selector;
  const auto path = "/session/" + mSession + "/element";
  return path + "/" + Ask("POST", path, body)[kElementKey].asString();
}

void Browser::Click(const std::string& selector) {
  Ask("POST", Element(selector) + "/click", Json::Value(Json::objectValue));
}

void Browser::Type(const std::string& selector, const std::string& keys) {
  Ask("POST", Element(selector) + "/value", Object("text", keys));
}

bool Browser::Shows(const std::string& selector) {
  return Run("const e = document.querySelector(arguments[0]); return !!e && e.checkVisibility();", selector)
      .asBool();
}

std::string Browser::Text(const std::string& selector) {
  return Run("return document.querySelector(arguments[0])?.textContent ?? '(no such element)';", selector)
      .asString();
}
