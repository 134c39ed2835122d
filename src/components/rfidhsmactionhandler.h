#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "framework/diagnostics.h"
#include "framework/interfaces.h"
#include "src/components/rfidconfig.h"
#include "src/components/rfidhsmactionhandlerbase.h"
#include "src/components/rfidreader.h"
#include "src/components/tokensunderway.h"
#include "statemachines/hsmalive.h"

/// Carries out what the RFID machine decides: drives the reader, authorises tokens, asks for feedback,
/// publishes the diagnostics signals and posts the outcome back to the machine.
///
/// Threads: the Int* actions run on the machine's thread. OnTokenFound runs on the NFC monitor's thread for
/// tags and on the machine's thread for simulated swipes. It blocks for as long as the feedback call takes
/// (seconds at worst). The worker thread sends the alive messages. Errors: no exception escapes an action or
/// OnTokenFound. Failures are logged. The reader's failures are also kept and posted as events.
class CRfidHsmActionHandler : public CHsmAlive<CRfidHsmActionHandlerBase>,
                              public virtual CRfidHsmActionHandlerBase,
                              public virtual CWorker {
 public:
  CRfidHsmActionHandler(std::shared_ptr<CRfidReader> reader, std::shared_ptr<CRfidConfig> config,
                        std::shared_ptr<IFeedback> feedback);
  ~CRfidHsmActionHandler() override;

  void IntInitialize() override;
  void IntDeinitialize() override;
  void IntStartPolling() override;
  void IntStopPolling() override;
  void IntProcessError() override;
  void IntAttemptRecovery() override;
  void IntEnableLearningTask(const std::shared_ptr<ExtOnEnableLearning>& event) override;
  void IntAuthenticateToken(const std::shared_ptr<IntOnAuthTokenFound>& event) override;
  void IntInjectToken(const std::shared_ptr<ExtOnInjectToken>& event) override;

  /// Ends the machine, from every state. Any thread.
  void RequestTermination();

  /// Closes the reader and publishes that. For the machine's thread, after the machine has ended.
  void CloseReader();

  /// The failure that stops the reader, until a recovery succeeds. Any thread.
  std::optional<CRfidError> GetLastError() const;

  /// The reader front's token callback: one new sighting.
  void OnTokenFound(const CToken& token, bool valid);

 private:
  using Signal = CDiagnosticsSignal<std::string>;

  void Drive(const char* failure, const char* stateText, const std::function<void()>& operation);
  void InitializeReader();
  void OnReaderFailed(const CRfidError& cause);
  template <typename Failure>
  void PostFailure();
  void PostReaderFailure();
  void KeepError(const CRfidError& error);
  void ProcessToken(const CToken& token, bool valid, const CTokensUnderWay::Handle& handle);
  void TriggerFeedback(ipc::ERfidAuthState state);
  void TriggerFeedbackEventCall(ipc::EFbEventType type);
  void UpdateDiagSignal(const std::shared_ptr<Signal>& signal, const std::string& value);

  std::shared_ptr<Signal> mRfidStateSignal;
  std::shared_ptr<Signal> mLastUidSignal;
  std::shared_ptr<Signal> mLastTechnologySignal;
  std::shared_ptr<Signal> mUserInteractionSignal;
  std::shared_ptr<CRfidReader> mRfidReader;
  std::shared_ptr<CRfidConfig> mRfidConfig;
  std::optional<CRfidError> mLastError;  // guarded by mErrorMutex: the reader's own thread stores errors too
  std::shared_ptr<IFeedback> mFeedback;
  std::atomic<bool> mLearningEnabled{false};
  std::atomic<bool> mTerminationRequested{false};

  mutable std::mutex mErrorMutex;
  CTokensUnderWay mTokensUnderWay;
};
