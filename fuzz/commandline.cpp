// The command line, one argument a line. Settings stay from one input to the next: nothing resets them in a
// process.
#include "src/commandline.h"

#include <getopt.h>

#include <algorithm>
#include <iostream>
#include <sstream>
#include <vector>

#include "framework/log.h"
#include "fuzz/check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> words;
  for (std::string text = TextOf(data, size); !text.empty();) {
    words.emplace_back(TakeUntil(text, "\n").c_str());  // no argument goes beyond its NUL
  }
  const bool anyOption = std::any_of(words.begin(), words.end(),
                                     [](const auto& word) { return word[0] == '-' && word.size() > 1; });
  std::vector<std::vector<char>> exact{{'r', 'f', 'i', 'd', 'd', '\0'}};  // buffers of the very size
  for (const auto& word : words) {
    exact.emplace_back(word.c_str(), word.c_str() + word.size() + 1);
  }
  std::vector<char*> arguments(exact.size() + 1);
  std::transform(exact.begin(), exact.end(), arguments.begin(), [](auto& word) { return word.data(); });

  optind = 0;  // starts the scanner anew
  opterr = 0;
  const std::string rootBefore(GetFilesystemRoot(), 0);  // a copy: what it refers to changes
  const auto levelBefore = Log::GetLogLevel();
  std::ostringstream printed;
  auto* const console = std::cout.rdbuf(printed.rdbuf());
  const bool accepted = ParseCommandLine(static_cast<int>(exact.size()), arguments.data());
  std::cout.rdbuf(console);

  FUZZ_CHECK(accepted ? printed.str().empty() : printed.str().rfind("usage: rfidd [OPTION]\n", 0) == 0);
  FUZZ_CHECK(Log::GetLogLevel() <= levelBefore && Log::GetLogLevel() >= Log::ELogLevel::Trace);
  const std::string& root = GetFilesystemRoot();
  FUZZ_CHECK(anyOption || (accepted && Log::GetLogLevel() == levelBefore && root == rootBefore));
  FUZZ_CHECK(root == rootBefore || std::any_of(words.begin(), words.end(), [&](const auto& word) {
               return word.size() >= root.size() &&
                      word.substr(word.size() - root.size()) == root;  // -r is the last in its word
             }));
  return 0;
}
