#include "tools/kernelbed/reader.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <thread>

namespace kernelbed {

namespace {

/// The kernel frees the number of a device shortly after it was unplugged.
constexpr std::chrono::milliseconds kNumberIsFree(50);

}  // namespace

const char* const kReaderWords = R"(Commands of every reader:
  put TAG          put a tag into the field
  take             take all tags away
  swap TAG         take, then put
  unplug / plug    remove, add the kernel's NFC device
  replug           both at once: the kernel's new device may get another number
  state            show the reader's state and what happened how often
  wait STATE [S]   wait for this state, for S seconds (10) at most

TAG (UIDs in hexadecimal as printed on the tag, then options):
  a2 UID [sak=00]           NFC-A Type 2, UID of 4, 7 or 10 bytes; MIFARE Classic with sak=08
  a4 UID [sak=20]           NFC-A Type 4
  a1 UID                    NFC-A Type 1 (Jewel)
  b PUPI                    NFC-B Type 4
  f IDM                     NFC-F
  v UID                     ISO 15693; the UID begins with E0
)";

void Append(Bytes& bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

std::string ToHex(const Bytes& bytes) {
  return fmt::format("{:02x}", fmt::join(bytes, ""));
}

std::string NextWord(std::istream& words) {
  std::string word;
  if (!(words >> word)) {
    throw std::invalid_argument("a word is missing");
  }
  return word;
}

TagWords::TagWords(std::istream& words) : mKind(NextWord(words)) {
  const auto uid = NextWord(words);
  mUid = virtualnfc::ParseHex(uid);
  for (std::string word; words >> word;) {
    const auto equals = std::min(word.find('='), word.size() - 1);
    mOptions[word.substr(0, equals)] = word.substr(equals + 1);
  }
  static const std::map<std::string, std::vector<size_t>> kLengths{
      {"a1", {4}}, {"a2", {4, 7, 10}}, {"a4", {4, 7, 10}}, {"ax", {4, 7, 10}},
      {"b", {4}},  {"f", {8}},         {"v", {8}}};
  const auto lengths = kLengths.find(mKind);
  if (lengths == kLengths.end()) {
    throw std::invalid_argument("unknown kind of tag: " + mKind);
  }
  if (std::find(lengths->second.begin(), lengths->second.end(), mUid.size()) == lengths->second.end()) {
    throw std::invalid_argument(
        fmt::format("a tag of kind {} has a UID of {} bytes", mKind, fmt::join(lengths->second, ", ")));
  }
}

uint8_t TagWords::ByteOption(const std::string& name, const std::string& otherwise) const {
  const auto option = mOptions.find(name);
  return virtualnfc::ParseHex(option == mOptions.end() ? otherwise : option->second).at(0);
}

void Reader::Log(const std::string& text) const {
  if (mLog != nullptr) {
    fmt::print(mLog, "{:9.3f} {}\n", std::chrono::duration<double>(Clock::now() - mStart).count(), text);
    fflush(mLog);
  }
}

void Reader::WaitForState(std::istream& words) const {
  const auto wanted = NextWord(words);
  const auto end = Clock::now() + std::chrono::seconds(NextNumber(words, 10));
  for (;;) {
    {
      const std::lock_guard lock(mMutex);
      if (State() == wanted) {
        return;
      }
      if (Clock::now() > end) {
        throw std::runtime_error("still " + State());
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::string Reader::Command(const std::string& line) {
  Log("> " + line);
  std::istringstream words(line);
  const auto word = NextWord(words);
  if (word == "wait") {
    WaitForState(words);
  } else if (word == "plug") {
    Plug();
  } else if (word == "unplug") {
    Unplug();
    std::this_thread::sleep_for(kNumberIsFree);
  } else if (word == "replug") {
    Unplug();
    Plug();
  } else {
    const std::lock_guard lock(mMutex);
    if (word == "put") {
      PutTag(TagWords(words));
    } else if (word == "swap") {
      const TagWords tag(words);
      TakeTags();
      PutTag(tag);
    } else if (word == "take") {
      TakeTags();
    } else if (word == "state") {
      auto text = State();
      for (const auto& [what, count] : mCounts) {
        text += fmt::format(" {}={}", what, count);
      }
      return text;
    } else if (!OwnCommand(word, words)) {
      throw std::invalid_argument("unknown command: " + word);
    }
  }
  return {};
}

}  // namespace kernelbed
