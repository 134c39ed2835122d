#include "src/components/standalonelist.h"

void CStandaloneList::Add(const Json::Value& element) {
  static constexpr const char* kUidKey = "RfidTokenUid";
  if (!element.isObject() || !element.isMember(kUidKey)) {
    mFaults.push_back(EFault::NoUid);
  } else if (const auto& uid = element[kUidKey]; !uid.isConvertibleTo(Json::stringValue)) {
    mFaults.push_back(EFault::NoText);
  } else {
    mPermitted.try_emplace(uid.asString(), mFaults.size());
  }
}

CStandaloneList::CAnswer CStandaloneList::Find(const std::string& uid) const {
  const auto match = mPermitted.find(uid);
  const std::span faults(mFaults);
  return match != mPermitted.end() ? CAnswer{true, faults.first(match->second)} : CAnswer{false, faults};
}
