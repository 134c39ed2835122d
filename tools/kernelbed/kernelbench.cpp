#include "tools/kernelbed/kernelbench.h"

#include <fmt/format.h>
#include <sys/syscall.h>

#include <filesystem>
#include <future>
#include <map>

#include "tools/harness/process.h"
#include "tools/kernelbed/digitalreader.h"
#include "tools/kernelbed/ncichip.h"
#include "tools/virtual-nfc/preload/inprocess.h"

using namespace virtualnfc;

namespace {

struct NamedTag {
  /// As words of a reader's command. The kernel knows all tags that the digital reader reports.
  const char* words;
  TagKind kind;
  const char* uid;
};

const std::map<std::string, NamedTag> kTags{
    {"type2", {"a2 04A12B5C", TagKind::Mifare, "04A12B5C"}},
    {"long", {"a2 04112233445566", TagKind::Mifare, "04112233445566"}},
    {"longest", {"a2 04112233445566778899", TagKind::Mifare, "04112233445566778899"}},
    {"type4", {"a4 08A1B2C3", TagKind::Iso14443A, "08A1B2C3"}},
    {"telephone", {"a4 08A1B2C3 sak=40", TagKind::NfcDep, "08A1B2C3"}},
    {"b", {"b 11223344", TagKind::Iso14443B, "11223344"}},
    {"felica", {"f 0102030405060708", TagKind::Felica, "0102030405060708"}},
    {"vicinity", {"v E004010203040506", TagKind::Iso15693, "E004010203040506"}},
    {"foreign", {"a1 01020304", TagKind::Foreign, "01020304"}},
};

class SimulatedBench : public KernelBench {
 public:
  SimulatedBench(Stack stack, const KernelIds& ids)
      : mKernel({.kernel = {.stack = stack, .familyId = ids.family, .groupId = ids.group},
                 .removedListing = std::chrono::seconds(1)}),
        mStack(stack) {}

  UniqueFd Socket() override {
    return UniqueFd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC));
  }
  void PutTags(const std::vector<std::string>& names) override {
    std::vector<Tag> tags;
    for (const std::string& name : names) {
      const NamedTag& tag = kTags.at(name);
      tags.push_back(MakeTag(tag.kind, tag.uid, mStack));
    }
    mKernel.PresentTags(std::move(tags));
  }
  void Plug() override {
    mKernel.WaitFor([](const Status& status) { return status.devices.empty(); });
    mKernel.Plug();
  }
  void Unplug() override { mKernel.Unplug(); }
  void GoWrong(const std::string& what) override {
    static const std::map<std::string, std::string> kRules{
        {"start-late", "START_POLL times=1 delay=2000"},
        {"start-refused", "START_POLL times=1 errno=EBUSY fault=out-of-step"},
        {"stop-refused", "STOP_POLL times=1 fault=chip-polls"},
        {"stop-crosses", "STOP_POLL times=1 cross"}};
    if (const auto rule = kRules.find(what); rule != kRules.end()) {
      mKernel.AddRule(rule->second);
    } else {
      mKernel.SetFault(what == "well" ? Fault::Deaf : ParseFault(what), what != "well");
    }
  }
  std::chrono::milliseconds TimeToFind() const override { return std::chrono::milliseconds(200); }
  std::chrono::milliseconds TimeToSettle() const override { return std::chrono::milliseconds(300); }

 private:
  InProcessVirtualNfc mKernel;
  const Stack mStack;
};

class RealBench : public KernelBench {
 public:
  explicit RealBench(Stack stack) : mIsNci(stack == Stack::Nci) {
    if (mIsNci) {
      mReader = std::make_unique<kernelbed::NciChip>(nullptr);
    } else {
      mReader = std::make_unique<kernelbed::DigitalReader>(KERNELBED_MODULE, nullptr);
    }
    RealBench::Plug();
  }

  UniqueFd Socket() override {
    // Bypasses the interposer, which replaces the calls of the C library.
    return UniqueFd(
        static_cast<int>(::syscall(SYS_socket, AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC)));
  }
  void PutTags(const std::vector<std::string>& names) override {
    mReader->Command("take");
    for (const std::string& name : names) {
      mReader->Command(std::string("put ") + kTags.at(name).words);
    }
  }
  void Plug() override {
    if (mUnplugging.valid()) {
      mUnplugging.get();
    }
    mReader->Command("plug");
    // The kernel frees the number of a device shortly after it was unplugged.
    while (!std::filesystem::exists("/sys/class/nfc/nfc0")) {
      mReader->Command("unplug");
      mReader->Command("plug");
    }
  }
  void Unplug() override {
    // The kernel removes a powered NCI device at once, but takes five seconds to let go of its chip.
    mUnplugging = std::async(std::launch::async, [this] { mReader->Command("unplug"); });
  }
  void GoWrong(const std::string& what) override {
    static const std::map<std::string, std::string> kDigital{
        {"poll-dead", "fail send 5"}, {"deaf", "fail configure 5 1000000"}, {"well", "fail configure 5 0"}};
    static const std::map<std::string, std::string> kNci{{"poll-dead", "reset"},
                                                         {"start-late", "fail discover late 2000"},
                                                         {"start-refused", "fail deactivate 03 1000000"},
                                                         {"stop-refused", "fail deactivate 03"},
                                                         {"stop-crosses", "cross a2 04A12B5C"}};
    mReader->Command((mIsNci ? kNci : kDigital).at(what));
  }
  std::chrono::milliseconds TimeToFind() const override { return std::chrono::seconds(4); }
  std::chrono::milliseconds TimeToSettle() const override { return std::chrono::seconds(1); }

 private:
  const bool mIsNci;
  std::unique_ptr<kernelbed::Reader> mReader;
  /// Destroyed before mReader.
  std::future<void> mUnplugging;
};

}  // namespace

std::unique_ptr<KernelBench> MakeRealBench(Stack stack) {
  return std::make_unique<RealBench>(stack);
}

std::unique_ptr<KernelBench> MakeSimulatedBench(Stack stack, const KernelIds& ids) {
  return std::make_unique<SimulatedBench>(stack, ids);
}
