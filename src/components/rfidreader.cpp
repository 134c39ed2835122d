#include "src/components/rfidreader.h"

#include <utility>

#include "framework/log.h"

namespace {

constexpr const char* kClassName = "CRfidReader";
constexpr std::chrono::nanoseconds kRecentTagTimeout = std::chrono::seconds(2);

bool IsValidUid(const std::string& uid) {
  bool valid = true;
  if (uid.size() < kLeastUidDigits || uid.size() > kMostUidDigits) {
    LOG_WARNING("UID must be between 4 and 8 bytes.");
    valid = false;
  }
  if (uid.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    LOG_WARNING("UID must be a valid HEX number.");
    valid = false;
  }
  return valid;
}

}  // namespace

CRfidReader::CRfidReader(std::shared_ptr<INfcNetlink> nfcNetlink) : mNfcNetlink(std::move(nfcNetlink)) {
  LOG_TRACE("{}::{}", kClassName, "CRfidReader");
}

void CRfidReader::SetErrorCallback(INfcNetlink::ErrorCallback onError) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  mNfcNetlink->SetErrorCallback(std::move(onError));
}

void CRfidReader::Initialize(TokenCallback onToken) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  {
    const std::lock_guard sighting(mSightingMutex);
    mTokenCallback = std::move(onToken);
  }
  mNfcNetlink->InitializeController([this](const CToken& token) { ValidateTokenAndNotify(token); });
}

void CRfidReader::Deinitialize() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  LOG_DEBUG("Deinitializing RFID reader.");
  mNfcNetlink->DeinitializeController();
}

void CRfidReader::StartPolling() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  LOG_DEBUG("Starting polling.");
  ForgetTags();  // a find during the last StopPolling was handled after it, and its tag may still be there
  mNfcNetlink->StartPolling();
}

void CRfidReader::StopPolling() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  LOG_DEBUG("Stopping polling.");
  ForgetTags();
  mNfcNetlink->StopPolling();
}

void CRfidReader::ForgetTags() {
  const std::lock_guard lock(mRecentTagsMutex);
  mRecentTags.clear();
  ++mPollings;
}

void CRfidReader::UpdateRecentTags(TimePoint now) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  const std::lock_guard lock(mRecentTagsMutex);
  if (mRecentTags.empty()) {
    return;
  }
  LOG_DEBUG("Cleansing previously swiped tags when their last time seen exceeds the timeout.");
  std::erase_if(mRecentTags, [now](const auto& entry) { return now - entry.second > kRecentTagTimeout; });
}

void CRfidReader::ValidateTokenAndNotify(const CToken& token) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  const std::lock_guard sighting(mSightingMutex);  // before reading the clock: this can wait for seconds
  HandleSighting(token, std::chrono::steady_clock::now());
  // The callback can take seconds, and no sighting is handled meanwhile: the card may have stayed all the
  // time.
  const std::lock_guard lock(mRecentTagsMutex);
  if (const auto seen = mRecentTags.find(token.uid); seen != mRecentTags.end()) {
    seen->second = std::chrono::steady_clock::now();
  }
}

void CRfidReader::ValidateTokenAndNotify(const CToken& token, TimePoint now) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  const std::lock_guard sighting(mSightingMutex);
  HandleSighting(token, now);
}

void CRfidReader::HandleSighting(const CToken& token, TimePoint now) {
  const bool valid = IsValidUid(token.uid);
  LOG_INFO("Token validation result {}: {}", token.uid, valid ? "Valid" : "Not valid");
  UpdateRecentTags(now);
  bool isNew = false;
  unsigned polling = 0;
  {
    const std::lock_guard lock(mRecentTagsMutex);
    isNew = !mRecentTags.contains(token.uid);
    polling = mPollings;
  }
  if (isNew) {
    if (mTokenCallback) {
      mTokenCallback(token, valid);
    } else {
      LOG_WARNING("Nobody to report the tag to yet, dropping it.");
    }
  }
  const std::lock_guard lock(mRecentTagsMutex);
  if (polling == mPollings) {  // StopPolling during the callback forgets this sighting, too
    mRecentTags[token.uid] = now;
  }
}
