#include "src/components/standalonelist.h"

void CStandaloneList::Add(const Json::Value& element) {
  static constexpr const char* uidKey = "RfidTokenUid";
  if (!element.isObject() || !element.isMember(uidKey)) {
    mFaults.push_back(EFault::NoUid);
  } else if (const auto& uid = element[uidKey]; !uid.isConvertibleTo(Json::stringValue)) {
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
