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

Json::Value Browser::Run(const std::string& script) {
  Json::Value body = Object("script", script);
  body["args"] = Json::Value(Json::arrayValue);
  return Ask("POST", "/session/" + mSession + "/execute/sync", body);
}

Json::Value Browser::Element(const std::string& selector) {
  Json::Value body = Object("using", "css selector");
  body["value"] = selector;
  return Ask("POST", "/session/" + mSession + "/element", body);
}

void Browser::Click(const std::string& selector) {
  Ask("POST", "/session/" + mSession + "/element/" + Element(selector)[kElementKey].asString() + "/click",
      Json::Value(Json::objectValue));
}

void Browser::Type(const std::string& selector, const std::string& keys) {
  Ask("POST", "/session/" + mSession + "/element/" + Element(selector)[kElementKey].asString() + "/value",
      Object("text", keys));
}

void Browser::Drag(const std::string& from, const std::string& to) {
  Json::Value pointer = Object("type", "pointer");
  pointer["id"] = "mouse";
  const auto add = [&pointer](const char* type, const Json::Value& origin) {
    Json::Value action = Object("type", type);
    if (origin.isNull()) {
      action["button"] = 0;
    } else {
      action["origin"] = origin;
      action["duration"] = 100;
      action["x"] = action["y"] = 0;
    }
    pointer["actions"].append(action);
  };
  add("pointerMove", Element(from));
  add("pointerDown", {});
  add("pointerMove", Element(to));
  add("pointerUp", {});
  Json::Value actions(Json::arrayValue);
  actions.append(pointer);
  Ask("POST", "/session/" + mSession + "/actions", Object("actions", actions));
}

bool Browser::Shows(const std::string& selector) {
  Json::Value body =
      Object("script", "const e = document.querySelector(arguments[0]); return !!e && e.checkVisibility();");
  body["args"].append(selector);
  return Ask("POST", "/session/" + mSession + "/execute/sync", body).asBool();
}

std::string Browser::Text(const std::string& selector) {
  Json::Value body =
      Object("script", "return document.querySelector(arguments[0])?.textContent ?? '(no such element)';");
  body["args"].append(selector);
  return Ask("POST", "/session/" + mSession + "/execute/sync", body).asString();
}
