#pragma once

#include <json/value.h>

#include <cstddef>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

/// The standalone list of permitted UIDs as it was when it was loaded, ready for questions. Answers what a
/// walk through the list up to the first match would find, at a cost that does not depend on the list's
/// length.
class CStandaloneList {
 public:
  /// What keeps an element of the list from permitting a UID.
  enum class EFault : char { NoUid, NoText };

  struct CAnswer {
    bool permitted;
    std::span<const EFault>
        faults;  ///< of the elements before the match, in order; valid as long as the list
  };

  /// Takes the list from a configuration client that has GetValue as HubConfig has it. A client that can give
  /// the elements one at a time spares the memory for the values of all of them.
  template <typename Config>
  explicit CStandaloneList(const Config& config) {
    const auto add = [this](const Json::Value& element) { Add(element); };
    if constexpr (requires { config.ForEachElement(kKey, add); }) {
      if (config.ForEachElement(kKey, add)) {
        return;
      }
    }
    const Json::Value list = config.GetValue(kKey, Json::Value());
    mIsList = list.isNull() || list.isArray();
    if (list.isArray()) {
      for (const Json::Value& element : list) {
        Add(element);
      }
    }
  }

  /// False when what stands in the list's place is neither missing nor an array. The list is then empty.
  bool IsList() const { return mIsList; }

  /// Compares byte for byte.
  CAnswer Find(const std::string& uid) const;

 private:
  static constexpr const char* kKey = "Tokens";

  void Add(const Json::Value& element);

  bool mIsList = true;
  std::vector<EFault> mFaults;  ///< in the list's order
  std::unordered_map<std::string, std::size_t>
      mPermitted;  ///< and how many faults are before the first of them
};
