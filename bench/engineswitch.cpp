#include "enginepeers.h"

namespace bench {

void SwitchMachine::Leave() {
  if (mState == EState::Enabled) {
    mHandler.IntStopAliveTimer();
  }
}

bool SwitchMachine::ProcessWhileEnabled(PeerEvent& event) {
  switch (event.id) {
    case EPeerEvent::Disable:
      Leave();
      mHandler.IntStopPolling();
      mHandler.IntDeinitialize();
      mPost(EPeerEvent::Disabled);
      mState = EState::Disabling;
      return true;
    case EPeerEvent::TokenFound:
      mHandler.onToken(static_cast<UidEvent&>(event).uid);
      return true;
    case EPeerEvent::TokenDone:
      if (mHandler.ExtRfidToken) {
        mHandler.ExtRfidToken(static_cast<TokenEvent&>(event).token);
      }
      return true;
    case EPeerEvent::Enable:
      Tell(mHandler.ExtEnabledRsp);
      return true;
    default:
      return false;
  }
}

bool SwitchMachine::ProcessInLeaf(PeerEvent& event) {
  switch (mState) {
    case EState::Uninitialized:
      if (event.id == EPeerEvent::Disable) {
        mState = EState::Initializing;
        mPost(EPeerEvent::Initialized);
        return true;
      }
      return false;
    case EState::Initializing:
      if (event.id == EPeerEvent::Initialized) {
        Tell(mHandler.ExtDisabledRsp);
        mState = EState::Disabled;
        return true;
      }
      return false;
    case EState::Disabled:
      if (event.id == EPeerEvent::Enable) {
        mHandler.IntInitialize();
        mPost(EPeerEvent::Enabled);
        mState = EState::Enabling;
        return true;
      }
      if (event.id == EPeerEvent::Disable) {
        Tell(mHandler.ExtDisabledRsp);
        return true;
      }
      return false;
    case EState::Enabling:
      if (event.id == EPeerEvent::Enabled) {
        mHandler.IntStartPolling();
        Tell(mHandler.ExtEnabledRsp);
        mHandler.IntStartAliveTimer();
        mState = EState::Enabled;
        return true;
      }
      return false;
    case EState::Enabled:
      return ProcessWhileEnabled(event);
    case EState::Disabling:
      if (event.id == EPeerEvent::Disabled) {
        Tell(mHandler.ExtDisabledRsp);
        mState = EState::Disabled;
        return true;
      }
      return false;
    case EState::Error:
    case EState::FatalError:
      return false;
  }
  return false;
}

bool SwitchMachine::Process(PeerEvent& event) {
  if (ProcessInLeaf(event)) {
    return true;
  }
  switch (event.id) {
    case EPeerEvent::Error:
      Leave();
      mState = EState::Error;
      mHandler.IntProcessError();
      Tell(mHandler.ExtErrorRsp);
      mPost(EPeerEvent::Recover);
      return true;
    case EPeerEvent::FatalError:
      Leave();
      mState = EState::FatalError;
      Tell(mHandler.ExtFatalErrorRsp);
      return true;
    case EPeerEvent::Alive:
      Tell(mHandler.ExtSendAlive);
      return true;
    default:
      return false;
  }
}

}  // namespace bench
