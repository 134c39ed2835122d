#include "tools/kernelbed/digitalreader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/syscall.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace kernelbed {

namespace {

constexpr auto kDevice = "/dev/digi-reader";
/// A poll sends a frame every 60 ms.
constexpr std::chrono::milliseconds kLongestSilence(300);
constexpr int kStopCheck = 50;  // ms

virtualnfc::UniqueFd OpenDevice(const std::string& module) {
  const auto check = [](int result, const std::string& what) {
    if (result < 0) {
      throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
  };
  if (access(kDevice, F_OK) != 0) {
    const virtualnfc::UniqueFd file(check(open(module.c_str(), O_RDONLY | O_CLOEXEC), module));
    check(static_cast<int>(syscall(SYS_finit_module, file.Get(), "", 0)), "cannot load " + module);
  }
  return virtualnfc::UniqueFd(check(open(kDevice, O_RDWR | O_CLOEXEC), kDevice));
}

}  // namespace

const char* const DigitalReader::kWords = R"(Commands of this reader:
  fail CALL ERRNO [N]   the next N (1) of these calls by the kernel fail at once: send, configure, switch, framing
                        (configuring for a tag that was found); or "answer": commands end with this error (a bad CRC,
                        a collision)
  slow CALL MS          these calls take this much longer, holding the driver's lock
  hang / unhang         commands never end / end again

State: off (unplugged), polling, or ready (no frame for 300 ms).
)";

DigitalReader::DigitalReader(const std::string& module, FILE* log)
    : Reader(log), mDevice(OpenDevice(module)), mThread(&DigitalReader::Listen, this) {}

DigitalReader::~DigitalReader() {
  mStop = true;
  mThread.join();
}

void DigitalReader::Plug() {
  Tell("plug");
  mPlugged = true;
}

void DigitalReader::Unplug() {
  Tell("unplug");
  mPlugged = false;
}

std::string DigitalReader::State() const {
  if (!mPlugged) {
    return "off";
  }
  return Clock::now() - mLastFrame < kLongestSilence ? "polling" : "ready";
}

void DigitalReader::PutTag(const TagWords& tag) {
  mField.emplace_back(tag);
}

bool DigitalReader::OwnCommand(const std::string& word, std::istream& words) {
  if (word == "hang" || word == "unhang") {
    Tell(word == "hang" ? "hang 1" : "hang 0");
  } else if (word == "slow") {
    const auto call = NextWord(words);
    Tell(fmt::format("slow {} {}", call, NextNumber(words, 0)));
  } else if (word == "fail") {
    const auto call = NextWord(words);
    const auto error = NextNumber(words, EIO);
    const auto count = NextNumber(words, 1);
    if (call == "answer") {
      mAnswerError = error;
      mFailingAnswers = count;
    } else {
      Tell(fmt::format("fail {} {} {}", call, error, count));
    }
  } else {
    return false;
  }
  return true;
}

void DigitalReader::Tell(const std::string& line) const {
  if (write(mDevice.Get(), line.data(), line.size()) < 0) {
    throw std::system_error(errno, std::generic_category(), line);
  }
}

void DigitalReader::Listen() {
  std::array<char, 1024> line;
  while (!mStop) {
    pollfd waiting{mDevice.Get(), POLLIN, 0};
    if (poll(&waiting, 1, kStopCheck) <= 0) {
      continue;
    }
    const auto length = read(mDevice.Get(), line.data(), line.size());
    if (length <= 0) {
      continue;
    }
    try {
      OnLine(std::string(line.data(), static_cast<size_t>(length)));
    } catch (const std::exception& e) {
      Log(e.what());  // for example, the answer came too late
    }
  }
}

void DigitalReader::OnLine(const std::string& line) {
  std::istringstream words(line);
  const std::lock_guard lock(mMutex);
  if (NextWord(words) == "cmd") {
    const auto number = NextWord(words);
    const auto tech = static_cast<Tech>(NextNumber(words, 0));
    OnFrame(number, tech, virtualnfc::ParseHex(NextWord(words)));
  } else {
    for (auto& tag : mField) {
      tag.Reset();
    }
    ++mCounts[line];
  }
}

void DigitalReader::OnFrame(const std::string& number, Tech tech, const Bytes& frame) {
  mLastFrame = Clock::now();
  ++mCounts["frames"];
  Bytes answer;
  int error = 0;
  for (auto& tag : mField) {
    const auto one = tag.Answer(tech, frame);
    if (!one.empty()) {
      error = error != 0 || (!answer.empty() && answer != one) ? EIO : 0;
      answer = one;
    }
  }
  if (mFailingAnswers > 0) {
    --mFailingAnswers;
    error = mAnswerError;
  }
  const auto technology = static_cast<int>(tech);
  if (error != 0) {
    Log(fmt::format("{} {} -> error {}", technology, ToHex(frame), error));
    Tell(fmt::format("error {} {}", number, error));
  } else if (!answer.empty()) {
    Log(fmt::format("{} {} -> {}", technology, ToHex(frame), ToHex(answer)));
    Tell(fmt::format("answer {} {}", number, ToHex(answer)));
  }
}

}  // namespace kernelbed
