#pragma once

#include <atomic>
#include <thread>

#include "tools/kernelbed/digitaltag.h"
#include "tools/kernelbed/reader.h"
#include "tools/virtual-nfc/server/uniquefd.h"

namespace kernelbed {

/// The radio side of the reader that the module digireader adds to the kernel's digital stack: it answers
/// each frame as the tags in the field would. Different answers of two tags collide. Threads: see Reader; it
/// has one thread for the frames.
class DigitalReader : public Reader {
 public:
  /// Loads the module if needed. Throws std::exception on failure. There is no device before "plug".
  DigitalReader(const std::string& module, FILE* log);
  ~DigitalReader() override;  ///< unplugs the device

  static const char* const kWords;  ///< its own commands, for --help

 private:
  void Plug() override;
  void Unplug() override;
  std::string State() const override;
  void PutTag(const TagWords& tag) override;
  void TakeTags() override { mField.clear(); }
  bool OwnCommand(const std::string& word, std::istream& words) override;

  void Tell(const std::string& line) const;
  void Listen();
  void OnLine(const std::string& line);
  void OnFrame(const std::string& number, Tech tech, const Bytes& frame);

  const virtualnfc::UniqueFd mDevice;
  std::atomic<bool> mPlugged{false};
  std::atomic<bool> mStop{false};
  // under mMutex
  std::vector<DigitalTag> mField;
  Clock::time_point mLastFrame;
  int mAnswerError = 0;
  int mFailingAnswers = 0;
  std::thread mThread;
};

}  // namespace kernelbed
