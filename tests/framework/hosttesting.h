#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "framework/rpctesting.h"

namespace rpctesting {

/// Answers Ok to Enable and Illegal to Disable.
struct Control : IGenericControl {
  ipc::MResult Enable() override {
    std::function<void()> action;
    {
      const std::lock_guard<std::mutex> lock(mMutex);
      action = mOnEnable;
    }
    if (action) {
      action();
    }
    return {};
  }
  ipc::MResult Disable() override {
    ipc::MResult result;
    result.set_result(ipc::EResultIllegal);
    return result;
  }
  void OnEnable(std::function<void()> action) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mOnEnable = std::move(action);
  }

 private:
  std::mutex mMutex;
  std::function<void()> mOnEnable;
};

struct Rfid : IRfid {
  ipc::MResult EnableLearning(bool) override { return {}; }
  ipc::MResult InjectToken(const std::string& uid) override {
    mInjected.Put(uid);
    return {};
  }
  Mailbox<std::string> mInjected;
};

struct ControlClient {
  ControlClient(const std::string& address, const std::string& name)
      : ControlClient(ChannelTo(address, name)) {}
  explicit ControlClient(const std::shared_ptr<grpc::Channel>& channel)
      : stub(ipc::GenericControl::NewStub(channel)) {}
  grpc::Status Enable() {
    Context context;
    return stub->Enable(&context, {}, &result);
  }
  std::unique_ptr<ipc::GenericControl::Stub> stub;
  ipc::MResult result;
};

class RpcHostTest : public testing::Test {
 protected:
  void Start() {
    mRunning.Host().AddService<IGenericControl>("RfidGenCtrl", mControl);
    mRunning.Host().AddService<IRfid>("Rfid", mRfid);
    mRunning.Start();
  }
  ControlClient Client() const { return {mAddress, "RfidGenCtrl"}; }
  std::unique_ptr<ipc::Rfid::Stub> RfidStub() const {
    return ipc::Rfid::NewStub(ChannelTo(mAddress, "Rfid"));
  }

  const Root mRoot;
  const std::string mAddress = "unix:" + mRoot.At("run/rfid/rfid.sock");
  const std::shared_ptr<Control> mControl = std::make_shared<Control>();
  const std::shared_ptr<Rfid> mRfid = std::make_shared<Rfid>();
  RunningHost mRunning{mRoot.Listen()};
};

}  // namespace rpctesting
