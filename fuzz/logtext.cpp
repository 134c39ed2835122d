// Text from outside in a log line: it is escaped and cut.
#include "framework/src/logtext.h"

#include <algorithm>
#include <functional>

#include "framework/src/utf8.h"
#include "fuzz/check.h"

namespace {

std::string Escaped(const std::string& text) {
  constexpr size_t kLongestRemark = 40;  // " ... (N bytes more)"
  fmt::memory_buffer line;
  line.push_back('>');
  AppendLogText(line, text);
  const std::string result = fmt::to_string(line);
  FUZZ_CHECK(result[0] == '>' && result.size() <= 1 + kLongestLogText + kLongestRemark);
  FUZZ_CHECK(ValidUtf8(result) == result);
  for (size_t i = 0; i < result.size(); ++i) {
    const auto byte = static_cast<uint8_t>(result[i]);
    FUZZ_CHECK(byte >= 0x20 && byte != 0x7F);
    FUZZ_CHECK(byte != 0xC2 || static_cast<uint8_t>(result[i + 1]) >= 0xA0);  // U+0080 to U+009F
  }
  return result.substr(1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kLongest = 64;  // longer texts show nothing new and take long
  std::string text = TextOf(data, std::min(size, kLongest));
  const std::string once = Escaped(text);
  if (once.size() <= kLongestLogText) {
    FUZZ_CHECK(once.size() >= text.size() && Escaped(once) == once);  // escaping twice changes nothing
  }
  // Repeat the text until it must be cut. This takes long, so only one input in 256 does it. A hash chooses
  // the inputs, because the fuzzer would learn any simpler rule and produce little else.
  if (!text.empty() && std::hash<std::string>()(text) % 256 == 0) {
    while (text.size() <= kLongestLogText) {
      text += text;
    }
    Escaped(text);
  }
  return 0;
}
