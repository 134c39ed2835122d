#pragma once

// What the two simulated readers share: commands as lines of words, and tags.

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/virtual-nfc/kernel/tag.h"

namespace kernelbed {

using virtualnfc::Bytes;
using Clock = std::chrono::steady_clock;

void Append(Bytes& bytes, const Bytes& more);

/// The bytes in lower case.
std::string ToHex(const Bytes& bytes);

/// The next word. Throws std::invalid_argument when there is none.
std::string NextWord(std::istream& words);

/// The next word as a number; the default when there is no further word. Throws std::invalid_argument for any
/// other word.
template <typename Number>
Number NextNumber(std::istream& words, Number otherwise) {
  Number number{};
  if ((words >> std::ws).eof()) {
    return otherwise;
  }
  if (!(words >> number)) {
    throw std::invalid_argument("a number is missing");
  }
  return number;
}

/// A tag as the words of a command name it: KIND UID [NAME=VALUE...], for example "a4 04A1B2C3 sak=28".
class TagWords {
 public:
  /// Throws std::invalid_argument for an unknown kind or a UID of the wrong length.
  explicit TagWords(std::istream& words);

  const std::string& Kind() const { return mKind; }
  /// As printed on the tag.
  const Bytes& Uid() const { return mUid; }
  /// The value of an option: one byte in hexadecimal.
  uint8_t ByteOption(const std::string& name, const std::string& otherwise) const;
  bool IsNfcA() const { return mKind.front() == 'a'; }

 private:
  std::string mKind;
  Bytes mUid;
  std::map<std::string, std::string> mOptions;
};

/// A reader that is driven by lines of words; kReaderWords lists them. Any thread may give commands;
/// implementations have threads of their own.
class Reader {
 public:
  /// @param log receives everything between kernel and tags; may be null
  explicit Reader(FILE* log) : mLog(log) {}
  virtual ~Reader() = default;
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  /// Carries out one line and returns the reply. Blocks while the kernel adds or removes a device.
  /// Throws std::exception saying what is wrong.
  std::string Command(const std::string& line);

 protected:
  void Log(const std::string& text) const;

  // Without mMutex:
  virtual void Plug() = 0;
  virtual void Unplug() = 0;

  // With mMutex held:
  virtual std::string State() const = 0;
  virtual void PutTag(const TagWords& tag) = 0;
  virtual void TakeTags() = 0;
  /// The commands of this kind of reader only. Returns false for an unknown word.
  virtual bool OwnCommand(const std::string& word, std::istream& words) = 0;

  mutable std::mutex mMutex;
  std::map<std::string, int> mCounts;  ///< what happened how often, for the command "state"

 private:
  void WaitForState(std::istream& words) const;

  FILE* const mLog;
  const Clock::time_point mStart = Clock::now();
};

/// The commands of every reader, for --help.
extern const char* const kReaderWords;

}  // namespace kernelbed
