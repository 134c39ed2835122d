// Sightings at the front of the reader. Each line is a step: the first character says what happens, the rest
// is the UID. A digit: seen that many half seconds after the step before. '+': seen two seconds and a
// nanosecond after it. '!': seen at once, and the callback fails. '-': polling is stopped.
#include "fuzz/check.h"
#include "src/components/rfidreader.h"
#include "tests/components/fakenfcnetlink.h"

namespace {

/// Four to eight bytes of two digits each. The last digit may be missing.
bool IsUid(const std::string& text) {
  size_t digits = 0;
  for (const char c : text) {
    digits += (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f') ? 1 : 0;
  }
  return digits == text.size() && digits / 2 >= 4 && (digits + 1) / 2 <= 8;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace std::chrono_literals;
  CToken token{.uid = "", .protocol = "MIFARE"};
  int calls = 0;
  bool fails = false;
  CRfidReader reader(std::make_shared<FakeNfcNetlink>());
  reader.Initialize([&](const CToken& reported, bool valid) {
    ++calls;
    FUZZ_CHECK(reported.uid == token.uid && reported.protocol == token.protocol && valid == IsUid(token.uid));
    if (fails) {
      throw std::runtime_error("callback");
    }
  });

  std::map<std::string, std::chrono::steady_clock::time_point> lastSeen;
  std::chrono::steady_clock::time_point now(1h);
  for (std::string steps = TextOf(data, size); !steps.empty();) {
    token.uid = TakeUntil(steps, "\n");
    const char what = token.uid.empty() ? '0' : token.uid[0];
    token.uid.erase(0, 1);
    if (what == '-') {
      reader.StopPolling();
      lastSeen.clear();
      continue;
    }
    now += what == '+' ? 2s + 1ns : (what >= '0' && what <= '9' ? (what - '0') * 500ms : 0ms);
    const auto last = lastSeen.find(token.uid);
    const bool isNew = last == lastSeen.end() || now - last->second > 2s;
    fails = what == '!';
    calls = 0;
    try {
      reader.ValidateTokenAndNotify(token, now);
      lastSeen[token.uid] = now;
      FUZZ_CHECK(!fails || !isNew);
    } catch (const std::runtime_error&) {
      FUZZ_CHECK(fails && isNew);  // so a repeat is reported again
    }
    FUZZ_CHECK(calls == (isNew ? 1 : 0));
  }
  return 0;
}
