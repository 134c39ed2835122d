#define BOOST_MPL_CFG_NO_PREPROCESSED_HEADERS
#define BOOST_MPL_LIMIT_VECTOR_SIZE 30
#define BOOST_MPL_LIMIT_MAP_SIZE 30
#include <boost/msm/back/state_machine.hpp>
#include <boost/msm/front/functor_row.hpp>
#include <boost/msm/front/internal_row.hpp>
#include <boost/msm/front/state_machine_def.hpp>

#include "enginepeers.h"

namespace bench {

namespace {

namespace msm = boost::msm;

// The library's rows name types, so each event is a type.
struct EventDisable {};
struct EventEnable {};
struct EventAlive {};
struct EventInitialized {};
struct EventEnabled {};
struct EventDisabled {};
struct EventError {};
struct EventFatalError {};
struct EventRecover {};
struct EventTokenFound {
  const std::string& uid;
};
struct EventTokenDone {
  const ipc::MRfidToken& token;
};

struct Definition : msm::front::state_machine_def<Definition> {
  using no_exception_thrown = int;
  using no_message_queue = int;

  CountingHandler* handler = nullptr;
  PostEvent post;

  struct Uninitialized : msm::front::state<> {};
  struct Initializing : msm::front::state<> {
    template <typename Event, typename Machine>
    void on_entry(const Event& /*event*/, Machine& machine) {
      machine.post(EPeerEvent::Initialized);
    }
  };
  struct Disabled : msm::front::state<> {
    template <typename Event, typename Machine>
    void on_entry(const Event& /*event*/, Machine& machine) {
      Tell(machine.handler->ExtDisabledRsp);
    }
  };
  struct Enabling : msm::front::state<> {
    template <typename Event, typename Machine>
    void on_entry(const Event& /*event*/, Machine& machine) {
      machine.handler->IntInitialize();
      machine.post(EPeerEvent::Enabled);
    }
  };
  struct Enabled : msm::front::state<> {
    template <typename Event, typename Machine>
    void on_entry(const Event& /*event*/, Machine& machine) {
      machine.handler->IntStartPolling();
      Tell(machine.handler->ExtEnabledRsp);
      machine.handler->IntStartAliveTimer();
    }
    template <typename Event, typename Machine>
    void on_exit(const Event& /*event*/, Machine& machine) {
      machine.handler->IntStopAliveTimer();
    }
  };
  struct Disabling : msm::front::state<> {
    template <typename Event, typename Machine>
    void on_entry(const Event& /*event*/, Machine& machine) {
      machine.handler->IntStopPolling();
      machine.handler->IntDeinitialize();
      machine.post(EPeerEvent::Disabled);
    }
  };
  struct Error : msm::front::state<> {
    template <typename Event, typename Machine>
    void on_entry(const Event& /*event*/, Machine& machine) {
      machine.handler->IntProcessError();
      Tell(machine.handler->ExtErrorRsp);
      machine.post(EPeerEvent::Recover);
    }
  };
  struct FatalError : msm::front::state<> {
    template <typename Event, typename Machine>
    void on_entry(const Event& /*event*/, Machine& machine) {
      Tell(machine.handler->ExtFatalErrorRsp);
    }
  };
  using initial_state = Uninitialized;

  void AuthenticateToken(const EventTokenFound& event) { handler->onToken(event.uid); }
  void NotifyToken(const EventTokenDone& event) {
    if (handler->ExtRfidToken) {
      handler->ExtRfidToken(event.token);
    }
  }
  void ConfirmEnabled(const EventEnable& /*event*/) { Tell(handler->ExtEnabledRsp); }
  void ConfirmDisabled(const EventDisable& /*event*/) { Tell(handler->ExtDisabledRsp); }
  void SendAlive(const EventAlive& /*event*/) { Tell(handler->ExtSendAlive); }

  struct transition_table
      : boost::mpl::vector<_row<Uninitialized, EventDisable, Initializing>,
                           _row<Initializing, EventInitialized, Disabled>,
                           _row<Disabled, EventEnable, Enabling>,
                           a_irow<Disabled, EventDisable, &Definition::ConfirmDisabled>,
                           _row<Enabling, EventEnabled, Enabled>, _row<Enabled, EventDisable, Disabling>,
                           a_irow<Enabled, EventTokenFound, &Definition::AuthenticateToken>,
                           a_irow<Enabled, EventTokenDone, &Definition::NotifyToken>,
                           a_irow<Enabled, EventEnable, &Definition::ConfirmEnabled>,
                           _row<Disabling, EventDisabled, Disabled>, _row<Enabled, EventError, Error>,
                           _row<Enabling, EventError, Error>, _row<Disabling, EventError, Error>,
                           _row<Disabled, EventError, Error>, _row<Enabled, EventFatalError, FatalError>,
                           _row<Error, EventFatalError, FatalError>> {};
  struct internal_transition_table
      : boost::mpl::vector<msm::front::a_internal<EventAlive, Definition, &Definition::SendAlive>> {};

  template <typename Machine, typename Event>
  void no_transition(const Event& /*event*/, Machine& /*machine*/, int /*state*/) {}
};

}  // namespace

class MsmMachine::Impl {
 public:
  Impl(CountingHandler& handler, PostEvent post) {
    mMachine.handler = &handler;
    mMachine.post = std::move(post);
    mMachine.start();
  }

  template <typename Event>
  bool Process(const Event& event) {
    return mMachine.process_event(event) == msm::back::HANDLED_TRUE;
  }

 private:
  msm::back::state_machine<Definition> mMachine;
};

MsmMachine::MsmMachine(CountingHandler& handler, PostEvent post)
    : mImpl(std::make_unique<Impl>(handler, std::move(post))) {}

MsmMachine::~MsmMachine() = default;

bool MsmMachine::Process(PeerEvent& event) {
  switch (event.id) {
    case EPeerEvent::Disable:
      return mImpl->Process(EventDisable{});
    case EPeerEvent::Enable:
      return mImpl->Process(EventEnable{});
    case EPeerEvent::Alive:
      return mImpl->Process(EventAlive{});
    case EPeerEvent::Initialized:
      return mImpl->Process(EventInitialized{});
    case EPeerEvent::Enabled:
      return mImpl->Process(EventEnabled{});
    case EPeerEvent::Disabled:
      return mImpl->Process(EventDisabled{});
    case EPeerEvent::Error:
      return mImpl->Process(EventError{});
    case EPeerEvent::FatalError:
      return mImpl->Process(EventFatalError{});
    case EPeerEvent::Recover:
      return mImpl->Process(EventRecover{});
    case EPeerEvent::TokenFound:
      return mImpl->Process(EventTokenFound{static_cast<UidEvent&>(event).uid});
    case EPeerEvent::TokenDone:
      return mImpl->Process(EventTokenDone{static_cast<TokenEvent&>(event).token});
  }
  return false;
}

}  // namespace bench
