#pragma once

// What the two simulated readers have in common: words in which they are told what happens, and a field with
// tags.

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

/// The next word as a number; the other one when there is no word.
/// Throws std::invalid_argument when it is none.
template <typename Number>
Number NextNumber(std::istream& words, Number otherwise) {
  Number number{};
  if ((words >> std::ws).eof()) {
    return otherwise;
  }
  if (!(words >> number)) {
    throw std::invalid_argument("a number is wanted");
  }
  return number;
}

/// A tag as the words of a command name it: KIND UID [NAME=VALUE...], for example "a4 04A1B2C3 sak=28".
class TagWords {
 public:
  /// Throws std::invalid_argument for what it cannot be, the length of the UID included.
  explicit TagWords(std::istream& words);

  const std::string& Kind() const { return mKind; }
  /// In the order in which it is printed on the tag.
  const Bytes& Uid() const { return mUid; }
  /// The value of an option, a byte in hexadecimal.
  uint8_t ByteOption(const std::string& name, const std::string& otherwise) const;
  bool IsNfcA() const { return mKind.front() == 'a'; }

 private:
  std::string mKind;
  Bytes mUid;
  std::map<std::string, std::string> mOptions;
};

/// A reader that one drives by lines of words; `kReaderWords` and the help of its program list them.
///
/// Threads: any may command it. Implementations have threads of their own.
class Reader {
 public:
  /// With a file, everything between kernel and tags is written to it.
  explicit Reader(FILE* log) : mLog(log) {}
  virtual ~Reader() = default;
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  /// Carries out one line and returns what it has to say. Waits for the kernel where a device comes or goes.
  /// Throws std::exception saying what is wrong.
  std::string Command(const std::string& line);

 protected:
  void Log(const std::string& text) const;

  /// The device comes or goes; without the lock.
  virtual void Plug() = 0;
  virtual void Unplug() = 0;

  // With mMutex held:
  virtual std::string State() const = 0;
  virtual void PutTag(const TagWords& tag) = 0;
  virtual void TakeTags() = 0;
  /// What only this reader can do. Returns false for a word that it does not know.
  virtual bool OwnCommand(const std::string& word, std::istream& words) = 0;

  mutable std::mutex mMutex;
  std::map<std::string, int> mCounts;  ///< how often what happened, for the command "state"

 private:
  void WaitForState(std::istream& words) const;

  FILE* const mLog;
  const Clock::time_point mStart = Clock::now();
};

/// The commands of every reader, for --help.
extern const char* const kReaderWords;

}  // namespace kernelbed
