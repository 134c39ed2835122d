#include "src/components/standalonelist.h"

#include "src/components/token.h"

namespace {

constexpr std::size_t kMostNamed = 10;

/// Whether a card can have this UID: the comparison knows upper case only.
bool CanBeScanned(const std::string& uid) {
  return uid.size() >= kLeastUidDigits && uid.size() <= kMostUidDigits &&
         uid.find_first_not_of("0123456789ABCDEF") == std::string::npos;
}

}  // namespace

void CStandaloneList::Add(const Json::Value& element) {
  static constexpr const char* kUidKey = "RfidTokenUid";
  ++mSize;
  if (!element.isObject() || !element.isMember(kUidKey)) {
    mFaults.push_back(EFault::NoUid);
    return;
  }
  const auto& value = element[kUidKey];
  if (!value.isConvertibleTo(Json::stringValue)) {
    mFaults.push_back(EFault::NoText);
    return;
  }
  auto uid = value.asString();
  if (!CanBeScanned(uid) && ++mUselessCount <= kMostNamed) {
    mFirstUseless.push_back({mSize, uid});
  }
  mPermitted.try_emplace(std::move(uid), mFaults.size());
}

CStandaloneList::Answer CStandaloneList::Find(const std::string& uid) const {
  const auto match = mPermitted.find(uid);
  const std::span faults(mFaults);
  return match != mPermitted.end() ? Answer{true, faults.first(match->second)} : Answer{false, faults};
}
