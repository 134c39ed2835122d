// The command line, one argument a line. The settings stay from one input to the next, because nothing in the
// process resets them.
#include "src/commandline.h"

#include <getopt.h>

#include <algorithm>
#include <iostream>
#include <sstream>
#include <vector>

#include "framework/log.h"
#include "fuzz/check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::vector<char>> words{
      {'r', 'f', 'i', 'd', 'd', '\0'}};  // of exact size, so that over-reads are found
  bool anyOption = false;
  const auto* const last = data + size;
  for (const auto* at = data; at < last;) {
    const auto* const end = std::find(at, last, '\n');
    const auto* const nul = std::find(at, end, '\0');  // ends the argument
    auto& word = words.emplace_back(nul - at + 1, '\0');
    std::copy(at, nul, word.begin());
    anyOption = anyOption || (word.size() > 2 && word[0] == '-');
    at = end == last ? last : end + 1;
  }
  std::vector<char*> arguments(words.size() + 1);
  std::transform(words.begin(), words.end(), arguments.begin(), [](auto& word) { return word.data(); });

  optind = 0;  // restarts getopt
  opterr = 0;
  const std::string rootBefore(GetFilesystemRoot(), 0);  // a copy, because the root may change
  const auto levelBefore = Log::GetLogLevel();
  static std::ostringstream printed;
  printed.str("");
  auto* const console = std::cout.rdbuf(printed.rdbuf());
  const bool accepted = ParseCommandLine(static_cast<int>(words.size()), arguments.data());
  std::cout.rdbuf(console);

  FUZZ_CHECK(accepted ? printed.str().empty() : printed.str().rfind("usage: rfidd [OPTION]\n", 0) == 0);
  FUZZ_CHECK(Log::GetLogLevel() <= levelBefore && Log::GetLogLevel() >= Log::ELogLevel::Trace);
  const std::string& root = GetFilesystemRoot();
  FUZZ_CHECK(anyOption || (accepted && Log::GetLogLevel() == levelBefore && root == rootBefore));
  FUZZ_CHECK(root == rootBefore || std::any_of(words.begin(), words.end(), [&](const auto& word) {
               return std::string(word.data()).ends_with(root);  // -r is the last in its word
             }));
  return 0;
}
