#include "src/components/rfidconfig.h"

#include <utility>

#include "framework/log.h"
#include "src/components/token.h"

namespace {

constexpr const char* kClassName = "CRfidConfig";

}  // namespace

CRfidConfig::CRfidConfig(std::shared_ptr<HubConfig> settings, std::shared_ptr<HubConfig> standaloneList)
    : mSettings(std::move(settings)), mStandaloneList(std::move(standaloneList)) {
  LOG_TRACE("{}::{}", kClassName, "CRfidConfig");
}

void CRfidConfig::ReloadSettings() {
  if (mSettings->IsUpdated()) {
    LOG_DEBUG("Settings have been updated, reloading.");
    mSettings->Reload();
  }
}

bool CRfidConfig::GetOcppStatus() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  ReloadSettings();
  const bool active = mSettings->GetBool("SeccOcppActive", false);
  LOG_DEBUG("OCPP Status: {}", active ? "Active" : "Inactive");
  return active;
}

bool CRfidConfig::GetAuthorizationEnabled() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  ReloadSettings();
  const bool enabled = !mSettings->GetBool("SessionManagerChargeWithoutAuth", false);
  LOG_DEBUG("Authorization enabled: {}", enabled);
  return enabled;
}

void CRfidConfig::ReloadList() {
  if (mStandaloneList->IsUpdated()) {
    LOG_DEBUG("Standalone list has been updated");
    mLoadedList.reset();  // before the new list takes memory
    mStandaloneList->Reload();
  }
}

/// Without these warnings, nothing says why a list that looks right refuses a card.
void CRfidConfig::WarnOfUselessEntries() const {
  // The client has reported an unusable file, and IsUpdated stays true.
  if (mLoadedList->GetKind() == CStandaloneList::EKind::Missing && !mStandaloneList->IsUpdated()) {
    LOG_WARNING("Standalone list: there is no \"Tokens\", so no card is let in.");
  }
  const auto& named = mLoadedList->GetFirstUseless();
  for (const auto& [position, uid] : named) {
    LOG_WARNING(
        "Standalone list: element {} matches no card: RfidTokenUid is \"{}\" and not {} to {} upper-case "
        "hexadecimal digits.",
        position, uid, kLeastUidDigits, kMostUidDigits);
  }
  if (const auto count = mLoadedList->CountUseless(); count > named.size()) {
    LOG_WARNING("Standalone list: {} more elements match no card.", count - named.size());
  }
}

ipc::ERfidAuthState CRfidConfig::AuthenticateToken(const std::string& uid) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  ReloadList();
  LOG_DEBUG("Checking standalone list for: {}", uid);
  if (!mLoadedList) {
    mLoadedList.emplace(*mStandaloneList);
    WarnOfUselessEntries();
  }
  if (mLoadedList->GetKind() == CStandaloneList::EKind::NoArray) {
    // A broken list permits no card.
    LOG_ERROR("Standalone list: \"Tokens\" must be an array. Taking it as empty.");
  }
  const auto [permitted, faults] = mLoadedList->Find(uid);
  for (const auto fault : faults) {
    switch (fault) {
      case CStandaloneList::EFault::NoUid:
        LOG_WARNING("Token has no member RfidTokenUid. Skipping...");
        break;
      case CStandaloneList::EFault::NoText:
        LOG_WARNING("RfidTokenUid is not a text. Skipping...");
        break;
    }
  }
  if (permitted) {
    LOG_INFO("Found Match!");
    return ipc::ERfidUidInStandAloneList;
  }
  LOG_INFO("UID not in list.");
  return ipc::ERfidUidNotInList;
}
