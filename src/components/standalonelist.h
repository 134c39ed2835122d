#pragma once

#include <json/value.h>

#include <cstddef>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

/// The standalone list of permitted UIDs as it was when it was loaded. An answer equals that of a walk
/// through the list up to the first match, but its cost does not depend on the list's length.
class CStandaloneList {
 public:
  enum class EKind { Missing, Array, NoArray };

  /// Why an element of the list does not permit a UID.
  enum class EFault : char { NoUid, NoText };

  struct Answer {
    bool permitted;
    std::span<const EFault>
        faults;  ///< of the elements before the match, in order; valid as long as the list
  };

  /// An element that permits no card, because no card's UID is written like that.
  struct Useless {
    std::size_t position;  ///< in the list, from 1
    std::string uid;
  };

  /// Takes the list from a configuration client with HubConfig's GetValue. If the client can also visit the
  /// elements one at a time, the whole list never has to be in memory as values.
  template <typename Config>
  explicit CStandaloneList(const Config& config) {
    const auto add = [this](const Json::Value& element) { Add(element); };
    if constexpr (requires { config.ForEachElement(kKey, add); }) {
      if (config.ForEachElement(kKey, add)) {
        return;
      }
    }
    const Json::Value list = config.GetValue(kKey, Json::Value());
    mKind = list.isArray() ? EKind::Array : list.isNull() ? EKind::Missing : EKind::NoArray;
    if (list.isArray()) {
      for (const Json::Value& element : list) {
        Add(element);
      }
    }
  }

  /// What the configuration has as its list: an array or something else. Without an array the list is empty.
  EKind GetKind() const { return mKind; }

  /// The first few useless elements, and the total number.
  const std::vector<Useless>& GetFirstUseless() const { return mFirstUseless; }
  std::size_t CountUseless() const { return mUselessCount; }

  /// Compares byte for byte.
  Answer Find(const std::string& uid) const;

 private:
  static constexpr const char* kKey = "Tokens";

  void Add(const Json::Value& element);

  EKind mKind = EKind::Array;
  std::size_t mSize = 0;
  std::size_t mUselessCount = 0;
  std::vector<Useless> mFirstUseless;
  std::vector<EFault> mFaults;  // in the list's order
  std::unordered_map<std::string, std::size_t>
      mPermitted;  // and the number of faults before the first of them
};
