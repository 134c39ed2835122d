#include "tests/components/nfcnetlinktest.h"

#include <dirent.h>
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

using namespace std::chrono_literals;
using namespace virtualnfc;
using ::testing::AssertionResult;

NfcNetlink::NfcNetlink(VirtualNfcSettings settings)
    : mKernel(std::make_unique<InProcessVirtualNfc>(std::move(settings))) {
  Make(1h);
}

void NfcNetlink::Make(Milliseconds watchPeriod, Milliseconds answerTimeout) {
  mController = std::make_unique<CNfcNetlink>(
      CNfcNetlink::Settings{.answerTimeout = answerTimeout, .watchPeriod = watchPeriod});
}

void NfcNetlink::Open() {
  mController->SetErrorCallback([this](const CRfidError& error) {
    Report(fmt::format("error {}: {}", error.GetErrorCode(), error.what()));
  });
  mController->InitializeController([this](const CToken& token) {
    if (mInCallback) {
      mInCallback();
    }
    Report(token.protocol + " " + token.uid);
  });
}

void NfcNetlink::Start() {
  Open();
  mController->StartPolling();
}

std::string NfcNetlink::Tap(const Tag& tag) {
  const auto before = WaitFor(0).size();
  mKernel->PresentTag(tag);
  const auto reports = WaitFor(before + 1);
  mKernel->RemoveTags();
  return reports.size() > before ? reports[before] : "nothing reported";
}

void NfcNetlink::Report(const std::string& what) {
  const std::lock_guard lock(mMutex);
  mReports.push_back(what);
  mArrived.notify_all();
}

std::vector<std::string> NfcNetlink::WaitFor(size_t count) {
  std::unique_lock lock(mMutex);
  mArrived.wait_for(lock, handover::kPatience, [&] { return mReports.size() >= count; });
  return mReports;
}

AssertionResult NfcNetlink::WaitForReport(const std::string& report) {
  std::unique_lock lock(mMutex);
  const auto isLatest = [&] { return !mReports.empty() && mReports.back() == report; };
  return Judge(mArrived.wait_for(lock, handover::kPatience, isLatest), report);
}

void NfcNetlink::ForgetReports() {
  const std::lock_guard lock(mMutex);
  mReports.clear();
}

AssertionResult NfcNetlink::Judge(bool holds, const std::string& wanted) const {
  if (holds) {
    return ::testing::AssertionSuccess();
  }
  constexpr size_t kTail = 20;
  const auto status = mKernel->GetStatus();
  const auto device = status.Device();
  auto seen = fmt::format("wanted: {}\nreader: powered {}, polling {}, {} tags found\nlog:", wanted,
                          device.powered, device.polling, device.targetsFound);
  const auto lines = mLog.Console();
  for (size_t i = lines.size() - std::min(lines.size(), kTail); i < lines.size(); ++i) {
    seen += "\n  " + lines[i].text;
  }
  return ::testing::AssertionFailure() << seen;
}

AssertionResult NfcNetlink::WaitForPolling() {
  const bool polls = mKernel->WaitFor([](const Status& status) { return status.Device().polling; });
  return Judge(polls, "the reader polls");
}

AssertionResult NfcNetlink::WaitForCommand(uint8_t command, uint32_t count) {
  const auto has = [=](const Status& status) { return status.Commands(command) >= count; };
  return Judge(mKernel->WaitFor(has), fmt::format("{} times the command {}", count, command));
}

AssertionResult NfcNetlink::WaitForLine(Log::ELogLevel level, const std::string& end) {
  const bool said = handover::Eventually([&] {
    const auto lines = Lines(level);
    return std::any_of(lines.begin(), lines.end(), [&](const auto& line) { return line.ends_with(end); });
  });
  return Judge(said, "the line " + end);
}

AssertionResult NfcNetlink::IsOff() {
  const auto device = mKernel->GetStatus().Device();
  return Judge(!device.polling && !device.powered, "the reader is off");
}

size_t NfcNetlink::OpenDescriptors() {
  mKernel->WaitFor([](const Status& status) { return status.openSockets == 0; });
  size_t count = 0;
  DIR* folder = opendir("/proc/self/fd");
  while (readdir(folder) != nullptr) {
    ++count;
  }
  closedir(folder);
  return count;
}

std::string NfcNetlink::ErrorOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const CRfidError& e) {
    return fmt::format("{} {}{}", e.what(), e.GetErrorCode(), e.IsRecoverable() ? " recoverable" : "");
  }
  return "";
}

std::string NfcNetlink::ErrorOfOpen() {
  return ErrorOf([this] { Open(); });
}

std::string NfcNetlink::ErrorOfStart() {
  return ErrorOf([this] { mController->StartPolling(); });
}

std::string NfcNetlink::ErrorOfStop() {
  return ErrorOf([this] { mController->StopPolling(); });
}

std::string NfcNetlink::ErrorOfClose() {
  return ErrorOf([this] { mController->DeinitializeController(); });
}
