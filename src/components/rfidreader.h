#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "src/components/infcnetlink.h"

/// The front of the reader: checks every UID, reports a card once for as long as it stays, and passes the
/// life cycle on to the NFC controller.
///
/// Threads: Initialize, Deinitialize, StartPolling and StopPolling on the machine's thread.
/// ValidateTokenAndNotify on the controller's thread for tags and on the machine's thread for simulated
/// swipes. Sightings are handled one at a time. The recent-tag table has its own lock, which is not held
/// while the callback runs, so StopPolling never waits for a sighting. Errors: the controller's CRfidError
/// and the callback's exceptions pass through.
class CRfidReader {
 public:
  using TokenCallback = std::function<void(const CToken&, bool valid)>;

  explicit CRfidReader(std::shared_ptr<INfcNetlink> nfcNetlink);

  /// `onError` gets every failure that ends the reading of tags while it is wanted. Set it before Initialize.
  void SetErrorCallback(INfcNetlink::ErrorCallback onError);

  /// `onToken` gets every new sighting, valid or not.
  void Initialize(TokenCallback onToken);
  void Deinitialize();
  void StartPolling();

  /// Forgets the recent tags and stops polling.
  void StopPolling();

  /// Forgets the tags that were last seen more than two seconds before `now`.
  void UpdateRecentTags(std::chrono::steady_clock::time_point now);

  /// One sighting. A UID is reported when it was not seen within the last two seconds. The two seconds begin
  /// when the callback returns, so a card that is held during a long callback is reported once.
  void ValidateTokenAndNotify(const CToken& token);
  /// The same, seen at `now`.
  void ValidateTokenAndNotify(const CToken& token, std::chrono::steady_clock::time_point now);

 private:
  using TimePoint = std::chrono::steady_clock::time_point;

  void ForgetTags();
  void HandleSighting(const CToken& token, TimePoint now);

  std::shared_ptr<INfcNetlink> mNfcNetlink;
  TokenCallback mTokenCallback;                  // guarded by mSightingMutex
  std::map<std::string, TimePoint> mRecentTags;  // guarded by mRecentTagsMutex

  unsigned mPollings = 0;  // guarded by mRecentTagsMutex; changes whenever the tags are forgotten
  std::mutex mSightingMutex;
  std::mutex mRecentTagsMutex;
};
