#include "src/components/rfidhsmactionhandler.h"

#include <fmt/format.h>
#include <netlink/errno.h>

#include <cctype>
#include <exception>
#include <utility>

#include "framework/log.h"

namespace {

constexpr const char* kClassName = "CRfidHsmActionHandler";

std::string ToUpper(std::string text) {
  for (auto& character : text) {
    character = static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
  }
  return text;
}

ipc::MRfidToken MakeToken(const std::string& uid, ipc::ERfidAuthState state) {
  ipc::MRfidToken token;
  token.set_uid(uid);
  token.set_auth_state(state);
  return token;
}

std::shared_ptr<CDiagnosticsSignal<std::string>> MakeSignal(
    const CSignalDefinition<std::string>& definition) {
  return std::make_shared<CDiagnosticsSignal<std::string>>(&definition);
}

}  // namespace

CRfidHsmActionHandler::CRfidHsmActionHandler(std::shared_ptr<CRfidReader> reader,
                                             std::shared_ptr<CRfidConfig> config,
                                             std::shared_ptr<IFeedback> feedback)
    : CWorker("rfid-worker"),
      mRfidStateSignal(MakeSignal(SignalCatalogue::kRfidState)),
      mLastUidSignal(MakeSignal(SignalCatalogue::kRfidLastUid)),
      mLastTechnologySignal(MakeSignal(SignalCatalogue::kRfidLastTechnology)),
      mUserInteractionSignal(MakeSignal(SignalCatalogue::kUserInteraction)),
      mRfidReader(std::move(reader)),
      mRfidConfig(std::move(config)),
      mFeedback(std::move(feedback)),
      mTokensUnderWay([this] { PostReaderFailure(); }) {
  mRfidReader->SetErrorCallback([this](const CRfidError& cause) { OnReaderFailed(cause); });
  CWorker::Start();
}

CRfidHsmActionHandler::~CRfidHsmActionHandler() {
  IntStopAliveTimer();
  CWorker::Stop();
}

void CRfidHsmActionHandler::IntInitialize() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  Drive("Failed to initialze NFC controller.", "Ready", [this] { InitializeReader(); });
}

void CRfidHsmActionHandler::IntDeinitialize() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  Drive("Failed to deinitialize NFC controller.", "Uninitialized", [this] { mRfidReader->Deinitialize(); });
}

void CRfidHsmActionHandler::IntStartPolling() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  Drive("Failed to start polling.", "Polling", [this] { mRfidReader->StartPolling(); });
}

void CRfidHsmActionHandler::IntStopPolling() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  Drive("Failed to stop polling.", "Ready", [this] { mRfidReader->StopPolling(); });
}

void CRfidHsmActionHandler::Drive(const char* failure, const char* stateText,
                                  const std::function<void()>& operation) {
  try {
    operation();
    UpdateDiagSignal(mRfidStateSignal, stateText);
  } catch (const CRfidError& e) {
    LOG_ERROR("{} Error: {}.", failure, e.what());
    KeepError(e);
    PostFailure<IntError>();
  } catch (const std::exception& e) {
    LOG_ERROR("{} Error: {}.", failure, e.what());
    KeepError(CRfidError(e.what(), NLE_FAILURE));
    PostFailure<IntError>();
  }
}

void CRfidHsmActionHandler::InitializeReader() {
  mRfidReader->Initialize([this](const CToken& token, bool valid) { OnTokenFound(token, valid); });
}

/// The reader stopped reading although it should read. Runs on the NFC monitor's thread. The error counts as
/// recoverable, because reopening the reader may help with any cause. A token under way gets its outcome
/// first.
void CRfidHsmActionHandler::OnReaderFailed(const CRfidError& cause) {
  LOG_ERROR("The reader does not read tags any more. Error: {} rc: {}.", cause.what(), cause.GetErrorCode());
  KeepError(
      CRfidError(fmt::format("Reader stopped reading tags: {} (rc {})", cause.what(), cause.GetErrorCode()),
                 NLE_FAILURE));
  mTokensUnderWay.Fail();
}

/// A failure leads the machine out of "Terminating" again, so a requested termination is posted again behind
/// it.
template <typename Failure>
void CRfidHsmActionHandler::PostFailure() {
  SendEvent<Failure>();
  if (mTerminationRequested) {
    SendEvent<IntTerminate>();
  }
}

void CRfidHsmActionHandler::RequestTermination() {
  mTerminationRequested = true;  // before the event: a failure posted behind the event must see it
  SendEvent<IntTerminate>();
}

void CRfidHsmActionHandler::CloseReader() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  try {
    mRfidReader->Deinitialize();
    UpdateDiagSignal(mRfidStateSignal, "Uninitialized");
  } catch (const CRfidError& e) {
    LOG_ERROR("Could not close the reader at the end. Error: {} rc: {}.", e.what(), e.GetErrorCode());
    UpdateDiagSignal(mRfidStateSignal, "Error");
  }
}

void CRfidHsmActionHandler::PostReaderFailure() {
  try {
    PostFailure<IntError>();
  } catch (const std::exception& e) {
    LOG_ERROR("Could not report that the reader failed: {}", e.what());
  }
}

void CRfidHsmActionHandler::KeepError(const CRfidError& error) {
  const std::lock_guard lock(mErrorMutex);
  mLastError = error;
}

std::optional<CRfidError> CRfidHsmActionHandler::GetLastError() const {
  const std::lock_guard lock(mErrorMutex);
  return mLastError;
}

void CRfidHsmActionHandler::IntProcessError() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  const auto error = GetLastError();
  if (!error) {
    return;
  }
  LOG_WARNING("Processing RFID error: {} with rc: {}: {}.", error->what(), error->GetErrorCode(),
              nl_geterror(error->GetErrorCode()));
  UpdateDiagSignal(mRfidStateSignal, "Error");
  if (!error->IsRecoverable()) {
    LOG_WARNING("Recovery not possible.");
    PostFailure<IntFatalError>();
  }
}

void CRfidHsmActionHandler::IntAttemptRecovery() {
  LOG_TRACE("{}::{}", kClassName, __func__);
  if (const auto error = GetLastError()) {
    LOG_WARNING("Attempting recovery from error {}: {}.", error->what(), nl_geterror(error->GetErrorCode()));
  } else {
    LOG_WARNING("Attempting recovery, no error is stored.");
  }
  UpdateDiagSignal(mRfidStateSignal, "Recovering");
  try {
    InitializeReader();
    mRfidReader->StopPolling();
    mRfidReader->Deinitialize();
  } catch (const CRfidError& e) {
    LOG_ERROR("Recovery failed with error: {} rc {}: {}", e.what(), e.GetErrorCode(),
              nl_geterror(e.GetErrorCode()));
    PostFailure<IntFatalError>();
    return;
  } catch (...) {
    LOG_ERROR("Recovery failed with unknown error.");
    PostFailure<IntFatalError>();
    return;
  }
  LOG_INFO("Recovery successful.");
  {
    const std::lock_guard lock(mErrorMutex);
    mLastError.reset();
  }
  SendEvent<IntRecoveringDone>();
}

void CRfidHsmActionHandler::OnTokenFound(const CToken& token, bool valid) {
  try {
    ProcessToken(token, valid, mTokensUnderWay.Begin());
  } catch (const std::exception& e) {
    LOG_ERROR("Failed to process token {}. Error: {}.", token.uid, e.what());
  }
}

/// The event that asks for authorisation owns the handle until the machine has dispatched it.
void CRfidHsmActionHandler::ProcessToken(const CToken& token, bool valid,
                                         const CTokensUnderWay::Handle& handle) {
  const auto uid = ToUpper(token.uid);
  UpdateDiagSignal(mLastUidSignal, uid);
  UpdateDiagSignal(mLastTechnologySignal, token.protocol);
  UpdateDiagSignal(mUserInteractionSignal, fmt::format("RFID token ({}) scanned", uid));
  if (!valid) {
    SendEvent<IntOnAuthDone>(MakeToken(uid, ipc::ERfidUidInvalid));
    return;
  }
  LOG_DEBUG("Learning status is: {}", mLearningEnabled.load());
  TriggerFeedbackEventCall(ipc::EFbTokenScanned);
  if (mLearningEnabled) {
    SendEvent<IntOnLearningTokenFound>(uid);
  } else {
    struct FoundToken {
      FoundToken(const std::string& text, CTokensUnderWay::Handle token)
          : event(text), handle(std::move(token)) {}
      IntOnAuthTokenFound event;
      CTokensUnderWay::Handle handle;
    };
    const auto found = std::make_shared<FoundToken>(uid, handle);
    PostEvent(std::shared_ptr<IntOnAuthTokenFound>(found, &found->event));
  }
}

void CRfidHsmActionHandler::IntInjectToken(const std::shared_ptr<ExtOnInjectToken>& event) {
  mRfidReader->ValidateTokenAndNotify(CToken{.uid = event->GetPayload(), .protocol = "InjectedToken"});
}

void CRfidHsmActionHandler::IntEnableLearningTask(const std::shared_ptr<ExtOnEnableLearning>& event) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  LOG_INFO("IntEnableLearningTask: {}", event->GetPayload());
  mLearningEnabled = event->GetPayload();
}

void CRfidHsmActionHandler::IntAuthenticateToken(const std::shared_ptr<IntOnAuthTokenFound>& event) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  const auto& uid = event->GetPayload();
  try {
    if (!mRfidConfig->GetAuthorizationEnabled()) {
      LOG_INFO("RFID Token {} detected while auth disabled, not notifying.", uid);
      return;
    }
    auto state = ipc::ERfidAuthDeferred;
    if (mRfidConfig->GetOcppStatus()) {
      LOG_INFO("Sending for external authentication.");
    } else {
      LOG_INFO("Authenticating with Standalone List.");
      state = mRfidConfig->AuthenticateToken(uid);
      TriggerFeedback(state);
    }
    SendEvent<IntOnAuthDone>(MakeToken(uid, state));
  } catch (const std::exception& e) {
    LOG_ERROR("Failed to authenticate token {}. Error: {}.", uid, e.what());
  }
}

void CRfidHsmActionHandler::TriggerFeedback(ipc::ERfidAuthState state) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  const char* text = ERfidAuthStateToString(state);
  LOG_DEBUG("Triggering Feedback with '{}' ({})", text, static_cast<int>(state));
  if (state == ipc::ERfidUidInStandAloneList) {
    TriggerFeedbackEventCall(ipc::EFbAuthAccepted);
  } else if (state == ipc::ERfidUidNotInList || state == ipc::ERfidUidInvalid) {
    TriggerFeedbackEventCall(ipc::EFbAuthRejected);
  } else {
    LOG_WARNING("Unexpected auth result: '{}' ({})", text, static_cast<int>(state));
  }
}

/// A failed feedback call does not stop the token.
void CRfidHsmActionHandler::TriggerFeedbackEventCall(ipc::EFbEventType type) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  try {
    ipc::MFbEventType event;
    event.set_type(type);
    if (mFeedback->TriggerFeedbackEvent(event).result() != ipc::EResultOk) {
      LOG_ERROR("Feedback call '{}' returned illegal result.", ipc::EFbEventType_Name(type));
    }
  } catch (const std::exception& e) {
    LOG_ERROR("Failed to trigger feedback event '{}'. Error: '{}'.", ipc::EFbEventType_Name(type), e.what());
  }
}

void CRfidHsmActionHandler::UpdateDiagSignal(const std::shared_ptr<Signal>& signal,
                                             const std::string& value) {
  LOG_TRACE("{}::{}", kClassName, __func__);
  signal->Send(value);
}
