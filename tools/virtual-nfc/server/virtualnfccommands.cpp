// The part of the server that carries out commands, one after the other, and delays them when their chip is
// slow.

#include <cerrno>
#include <utility>

#include "tools/virtual-nfc/server/virtualnfc.h"

namespace virtualnfc {

using namespace std::chrono_literals;

void VirtualNfc::WorkOff() {
  while (!mWaiting && !mWork.empty()) {
    Work work = std::move(mWork.front());
    mWork.pop_front();
    Begin(std::move(work));
  }
}

void VirtualNfc::Begin(Work work) {
  const auto connection = mConnections.find(work.connection);
  if (connection == mConnections.end()) {
    return;
  }
  Request request = ParseRequest(work.message);
  const auto occurrence = mKernel.Classify(request);
  Rule rule;
  std::optional<std::uint32_t> device;
  if (occurrence) {
    rule = MatchRule(mRules, *occurrence).value_or(Rule{});
    if (occurrence->family == Family::Nfc) {
      ++mStatus.commands[occurrence->command];
      device = DeviceOf(*occurrence);
    }
  }
  if (rule.unplug && device && NfcKernel::NeedsChip(request)) {
    RemoveDevice(*device);
  }
  const auto now = Clock::now();
  const bool crosses = rule.cross && mKernel.CanCross(request, connection->second->port);
  mStatus.hung = device && NfcKernel::UsesDevice(request) && mFindWaitsUntil && now < *mFindWaitsUntil;
  mWaiting = Waiting{std::move(work), std::move(request), std::move(rule), crosses, device, mNextWaiting++};
  if (mStatus.hung) {
    return;
  }
  const auto delay = mWaiting->rule.delay + (crosses ? mSettings.crossingWait : 0ms);
  if (delay.count() == 0) {
    FinishWaiting(false);
    return;
  }
  mTimers.emplace(now + delay, [this, id = mWaiting->id] {
    if (mWaiting && mWaiting->id == id) {
      FinishWaiting(false);
    }
  });
}

void VirtualNfc::Interrupt(std::uint64_t id) {
  if (mWaiting && mWaiting->work.connection == id && !mStatus.hung &&
      mKernel.IsInterruptible(mWaiting->request)) {
    FinishWaiting(true);
  }
}

void VirtualNfc::FinishWaiting(bool interrupted) {
  const Waiting waiting = std::move(*mWaiting);
  mWaiting.reset();
  const auto asker = mConnections.find(waiting.work.connection);
  const std::uint32_t port = asker == mConnections.end() ? 0 : asker->second->port;
  const Request& request = waiting.request;
  const int vanished = mKernel.ErrorOfVanishedChip(request, waiting.device);

  if (waiting.rule.error == EALREADY && NfcKernel::SwitchesPower(request)) {
    // The kernel gives this answer only when the device is in that state already; rfkill or another program
    // may have switched it.
    mKernel.Handle(request, port);
  }
  NfcKernel::Result result = interrupted          ? mKernel.Interrupt(request, port)
                             : waiting.rule.error ? mKernel.Refuse(request, port, *waiting.rule.error)
                             : vanished != 0      ? mKernel.Refuse(request, port, vanished)
                                                  : mKernel.Handle(request, port);
  const auto occurrence = mKernel.Classify(request);
  if (occurrence && occurrence->family == Family::Nfc) {
    mStatus.interrupted += result.error == kRestartSys ? 1 : 0;
    if (waiting.rule.fault && waiting.device && IsDeviceThere(*waiting.device)) {
      ChangeFault(*waiting.device, *waiting.rule.fault, true);
    }
    if (waiting.rule.unplug && waiting.device && IsDeviceThere(*waiting.device)) {
      RemoveDevice(*waiting.device);
    }
  }
  if (waiting.crosses) {
    mKernel.FindDevice(*waiting.device)->DropFind();
    mFindWaitsUntil = Clock::now() + mSettings.crossingPause;
  }
  if (result.startedPoll) {
    ScheduleDetection(*result.startedPoll, Clock::now());
  }
  // A rule for an event that was sent meanwhile may have closed the connection.
  const auto connection = mConnections.find(waiting.work.connection);
  if (connection == mConnections.end()) {
    return;
  }
  for (const auto& change : waiting.rule.changes) {
    change(result.answer);
  }
  for (const Bytes& datagram : PackDatagrams(result.answer.messages)) {
    connection->second->Deliver(result.answer.sender, 0, datagram);
    mSettings.watch(Traffic::Answer, datagram);
  }
  if (waiting.work.isLast) {
    connection->second->Reply(0);
  }
  if (result.answer.overruns) {
    connection->second->MarkOverrun();
  }
  if (result.answer.closes) {
    CloseConnection(waiting.work.connection);
  }
}

}  // namespace virtualnfc
