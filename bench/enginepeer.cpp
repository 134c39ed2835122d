#include "enginepeer.h"

namespace bench {

namespace {

void Tell(const std::function<void()>& callback) {
  if (callback) {
    callback();
  }
}

}  // namespace

ipc::MRfidToken MakeToken(const std::string& uid) {
  ipc::MRfidToken token;
  token.set_uid(uid);
  token.set_auth_state(ipc::ERfidUidNotInList);
  return token;
}

SwitchPeer::SwitchPeer(const std::shared_ptr<CountingHandler>& handler) : mHandler(handler) {
  mHandler->onToken = [this](const std::string& uid) {
    PostEvent(std::make_shared<TokenEvent>(MakeToken(uid)));
  };
}

void SwitchPeer::PostEvent(std::shared_ptr<PeerEvent> event) {
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mEvents.push_back(std::move(event));
  }
  mChanged.notify_all();
}

std::shared_ptr<PeerEvent> SwitchPeer::Take() {
  std::unique_lock<std::mutex> lock(mMutex);
  mChanged.wait(lock, [this] { return mStopped || !mEvents.empty(); });
  if (mStopped) {
    return nullptr;
  }
  auto event = std::move(mEvents.front());
  mEvents.pop_front();
  return event;
}

void SwitchPeer::Stop() {
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mStopped = true;
  }
  mChanged.notify_all();
}

void SwitchPeer::Run() {
  while (const auto event = Take()) {
    event->handled.set_value(Process(*event));
  }
}

bool SwitchPeer::EnableAndWait() {
  const auto event = std::make_shared<PeerEvent>(EPeerEvent::Enable);
  auto handled = event->handled.get_future();
  PostEvent(event);
  return handled.get();
}

void SwitchPeer::Leave() {
  if (mState == EState::Enabled) {
    mHandler->IntStopAliveTimer();
  }
}

bool SwitchPeer::ProcessWhileEnabled(PeerEvent& event) {
  switch (event.id) {
    case EPeerEvent::Disable:
      Leave();
      mHandler->IntStopPolling();
      mHandler->IntDeinitialize();
      Post(EPeerEvent::Disabled);
      mState = EState::Disabling;
      return true;
    case EPeerEvent::TokenFound:
      mHandler->onToken(static_cast<UidEvent&>(event).uid);
      return true;
    case EPeerEvent::TokenDone:
      if (mHandler->ExtRfidToken) {
        mHandler->ExtRfidToken(static_cast<TokenEvent&>(event).token);
      }
      return true;
    case EPeerEvent::Enable:
      Tell(mHandler->ExtEnabledRsp);
      return true;
    default:
      return false;
  }
}

bool SwitchPeer::ProcessInLeaf(PeerEvent& event) {
  switch (mState) {
    case EState::Uninitialized:
      if (event.id == EPeerEvent::Disable) {
        mState = EState::Initializing;
        Post(EPeerEvent::Initialized);
        return true;
      }
      return false;
    case EState::Initializing:
      if (event.id == EPeerEvent::Initialized) {
        Tell(mHandler->ExtDisabledRsp);
        mState = EState::Disabled;
        return true;
      }
      return false;
    case EState::Disabled:
      if (event.id == EPeerEvent::Enable) {
        mHandler->IntInitialize();
        Post(EPeerEvent::Enabled);
        mState = EState::Enabling;
        return true;
      }
      if (event.id == EPeerEvent::Disable) {
        Tell(mHandler->ExtDisabledRsp);
        return true;
      }
      return false;
    case EState::Enabling:
      if (event.id == EPeerEvent::Enabled) {
        mHandler->IntStartPolling();
        Tell(mHandler->ExtEnabledRsp);
        mHandler->IntStartAliveTimer();
        mState = EState::Enabled;
        return true;
      }
      return false;
    case EState::Enabled:
      return ProcessWhileEnabled(event);
    case EState::Disabling:
      if (event.id == EPeerEvent::Disabled) {
        Tell(mHandler->ExtDisabledRsp);
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

bool SwitchPeer::Process(PeerEvent& event) {
  if (ProcessInLeaf(event)) {
    return true;
  }
  switch (event.id) {
    case EPeerEvent::Error:
      Leave();
      mState = EState::Error;
      mHandler->IntProcessError();
      Tell(mHandler->ExtErrorRsp);
      Post(EPeerEvent::Recover);
      return true;
    case EPeerEvent::FatalError:
      Leave();
      mState = EState::FatalError;
      Tell(mHandler->ExtFatalErrorRsp);
      return true;
    case EPeerEvent::Alive:
      Tell(mHandler->ExtSendAlive);
      return true;
    default:
      return false;
  }
}

}  // namespace bench
