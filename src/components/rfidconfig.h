#pragma once

#include <memory>
#include <optional>
#include <string>

#include "framework/hubconfig.h"
#include "ipc/rfid.pb.h"
#include "src/components/standalonelist.h"

/// What the station's configuration says about authorisation. Loads a changed section before it answers.
///
/// Threads: the machine's thread only. Errors of the configuration client pass through. Nobody else may
/// reload the standalone list's section, because the list is indexed when it is loaded here.
class CRfidConfig {
 public:
  CRfidConfig(std::shared_ptr<HubConfig> settings, std::shared_ptr<HubConfig> standaloneList);

  /// Whether OCPP is active on the station, so that UIDs are authorised externally.
  bool GetOcppStatus();

  /// False when charging is allowed without authorisation.
  bool GetAuthorizationEnabled();

  /// Looks the UID up in the standalone list, byte for byte: ERfidUidInStandAloneList or ERfidUidNotInList.
  /// Warns of every faulty element before the match, as a walk through the list would. After loading a list,
  /// it also warns of the entries that can never match a card.
  ipc::ERfidAuthState AuthenticateToken(const std::string& uid);

 private:
  void ReloadSettings();
  void ReloadList();
  void WarnOfUselessEntries() const;

  std::shared_ptr<HubConfig> mSettings;
  std::shared_ptr<HubConfig> mStandaloneList;
  std::optional<CStandaloneList> mLoadedList;  ///< empty: to be taken from the client
};
