// Text from outside on its way into a log line.
#include "framework/src/logtext.h"

#include "framework/src/utf8.h"
#include "fuzz/check.h"

namespace {

std::string Escaped(const std::string& text) {
  constexpr size_t longestRemark = 40;  // " ... (N bytes more)"
  fmt::memory_buffer line;
  line.push_back('>');
  AppendLogText(line, text);
  const std::string result = fmt::to_string(line);
  FUZZ_CHECK(result[0] == '>' && result.size() <= 1 + cLongestLogText + longestRemark);
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
  std::string text = TextOf(data, size);
  const std::string once = Escaped(text);
  if (once.size() <= cLongestLogText) {
    FUZZ_CHECK(once.size() >= text.size() && Escaped(once) == once);  // what is fit for a line stays as it is
  }
  if (size % 16 == 1) {  // seldom, because it takes long: the same text over and over, to be cut
    while (text.size() <= cLongestLogText) {
      text += text;
    }
    Escaped(text);
  }
  return 0;
}
