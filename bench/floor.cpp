// What the libraries alone cost. One program for both, so that they start and link alike.
//
//   rfid-bench-floor card LISTEN FEEDBACK   only a card's messages, on one thread: the kernel's event, the
//   target's
//                                           dump, two feedback calls, one notification, DEV_UP and START_POLL
//   rfid-bench-floor server LISTEN          a gRPC server that answers at once
#include <fmt/format.h>
#include <grpcpp/grpcpp.h>
#include <linux/nfc.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/netlink.h>

#include <atomic>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "ipc/feedback.grpc.pb.h"
#include "ipc/rfid.grpc.pb.h"

namespace {

class Subscriber : public grpc::ServerWriteReactor<ipc::MRfidNotification> {
 public:
  Subscriber() { StartSendInitialMetadata(); }

  /// Call it only after the previous notification was written.
  void Notify(const std::string& uid) {
    mNotification.mutable_token()->set_uid(uid);
    mNotification.mutable_token()->set_auth_state(ipc::ERfidUidNotInList);
    StartWrite(&mNotification);
  }
  void OnDone() override { delete this; }
  void OnCancel() override { Finish(grpc::Status::CANCELLED); }

 private:
  ipc::MRfidNotification mNotification;
};

class RfidService : public ipc::Rfid::CallbackService {
 public:
  grpc::ServerWriteReactor<ipc::MRfidNotification>* Subscribe(grpc::CallbackServerContext* /*context*/,
                                                              const ipc::MEmpty* /*request*/) override {
    auto* const subscriber = new Subscriber;
    mSubscriber = subscriber;
    return subscriber;
  }
  grpc::ServerUnaryReactor* InjectToken(grpc::CallbackServerContext* context,
                                        const ipc::MInjectToken* /*request*/, ipc::MResult* result) override {
    result->set_result(ipc::EResultOk);
    auto* const reactor = context->DefaultReactor();
    reactor->Finish(grpc::Status::OK);
    return reactor;
  }

  void Notify(const std::string& uid) {
    if (Subscriber* const subscriber = mSubscriber) {
      subscriber->Notify(uid);
    }
  }

 private:
  std::atomic<Subscriber*> mSubscriber{nullptr};
};

std::unique_ptr<grpc::Server> Serve(const std::string& address, grpc::Service& service) {
  grpc::ServerBuilder builder;
  builder.AddListeningPort(address, grpc::InsecureServerCredentials());
  builder.RegisterService(&service);
  auto server = builder.BuildAndStart();
  if (!server) {
    throw std::runtime_error("cannot listen on " + address);
  }
  return server;
}

void Require(int result, const char* what) {
  if (result < 0) {
    throw std::runtime_error(fmt::format("{}: {}", what, nl_geterror(result)));
  }
}

/// Handles cards as "card" says.
class CardFloor {
 public:
  CardFloor(RfidService& service, const std::string& feedback)
      : mService(service),
        mFeedback(ipc::Feedback::NewStub(grpc::CreateChannel(feedback, grpc::InsecureChannelCredentials()))),
        mCommands(nl_socket_alloc()),
        mEvents(nl_socket_alloc()) {
    Require(genl_connect(mCommands), "genl_connect");
    Require(genl_connect(mEvents), "genl_connect");
    mFamily = genl_ctrl_resolve(mCommands, "nfc");
    Require(mFamily, "genl_ctrl_resolve");
    const int group = genl_ctrl_resolve_grp(mCommands, "nfc", "events");
    Require(group, "genl_ctrl_resolve_grp");
    Require(nl_socket_add_membership(mEvents, group), "nl_socket_add_membership");
    nl_socket_disable_seq_check(mEvents);
    nl_socket_modify_cb(mEvents, NL_CB_VALID, NL_CB_CUSTOM, TakeEvent, this);
    nl_socket_modify_cb(mCommands, NL_CB_VALID, NL_CB_CUSTOM, TakeTarget, this);
  }
  ~CardFloor() {
    nl_socket_free(mEvents);
    nl_socket_free(mCommands);
  }
  CardFloor(const CardFloor&) = delete;
  CardFloor& operator=(const CardFloor&) = delete;

  [[noreturn]] void Run() {
    Poll();
    for (;;) {
      Require(nl_recvmsgs_default(mEvents), "nl_recvmsgs");
    }
  }

 private:
  nl_msg* MakeMessage(int flags, std::uint8_t command) const {
    nl_msg* const message = nlmsg_alloc();
    genlmsg_put(message, NL_AUTO_PORT, NL_AUTO_SEQ, mFamily, 0, flags, command, 1);
    nla_put_u32(message, NFC_ATTR_DEVICE_INDEX, 0);
    return message;
  }

  void Send(nl_msg* message) const {
    const int result = nl_send_auto(mCommands, message);
    nlmsg_free(message);
    Require(result, "nl_send_auto");
  }

  void Poll() const {
    Send(MakeMessage(NLM_F_REQUEST, NFC_CMD_DEV_UP));
    nl_wait_for_ack(mCommands);  // an error when the device is up
    nl_msg* const start = MakeMessage(NLM_F_REQUEST, NFC_CMD_START_POLL);
    nla_put_u32(start, NFC_ATTR_IM_PROTOCOLS, kProtocols);
    nla_put_u32(start, NFC_ATTR_PROTOCOLS, kProtocols);
    Send(start);
    Require(nl_wait_for_ack(mCommands), "START_POLL");
  }

  static int TakeTarget(nl_msg* message, void* self) {
    nlattr* attributes[NFC_ATTR_MAX + 1];
    genlmsg_parse(nlmsg_hdr(message), 0, attributes, NFC_ATTR_MAX, nullptr);
    std::string uid;
    if (nlattr* const id = attributes[NFC_ATTR_TARGET_NFCID1]) {
      const auto* const bytes = static_cast<const unsigned char*>(nla_data(id));
      for (int i = 0; i < nla_len(id); ++i) {
        uid += fmt::format("{:02X}", bytes[i]);
      }
    }
    static_cast<CardFloor*>(self)->mUid = uid;
    return NL_OK;
  }

  static int TakeEvent(nl_msg* message, void* self) {
    const auto* const header = static_cast<genlmsghdr*>(nlmsg_data(nlmsg_hdr(message)));
    if (header->cmd == NFC_EVENT_TARGETS_FOUND) {
      static_cast<CardFloor*>(self)->TakeCard();
    }
    return NL_OK;
  }

  void TakeCard() {
    Send(MakeMessage(NLM_F_REQUEST | NLM_F_DUMP, NFC_CMD_GET_TARGET));
    Require(nl_recvmsgs_default(mCommands), "GET_TARGET");
    Trigger(ipc::EFbTokenScanned);
    Trigger(ipc::EFbAuthRejected);
    mService.Notify(mUid);
    Poll();
  }

  void Trigger(ipc::EFbEventType type) const {
    ipc::MFbEventType event;
    event.set_type(type);
    ipc::MResult result;
    grpc::ClientContext context;
    mFeedback->TriggerFeedbackEvent(&context, event, &result);
  }

  static constexpr std::uint32_t kProtocols = 0xfc;

  RfidService& mService;
  const std::unique_ptr<ipc::Feedback::Stub> mFeedback;
  nl_sock* const mCommands;
  nl_sock* const mEvents;
  int mFamily = 0;
  std::string mUid;
};

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::string kind = argc > 2 ? argv[1] : "";
    RfidService service;
    if (!(kind == "server" && argc == 3) && !(kind == "card" && argc == 4)) {
      std::fputs("usage: rfid-bench-floor card LISTEN FEEDBACK | server LISTEN\n", stderr);
      return 2;
    }
    const auto server = Serve(argv[2], service);
    if (kind == "card") {
      CardFloor(service, argv[3]).Run();
    }
    std::fputs("ready\n", stderr);
    server->Wait();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "rfid-bench-floor: %s\n", e.what());
    return 1;
  }
}
