// The configuration sections. The input: a UID, a line "settings:", that section, a line "standalone:", that
// section. Any content of the files gives an answer, and only UIDs that stand literally in the list are
// permitted.
#include "fuzz/check.h"
#include "src/components/rfidconfig.h"
#include "tests/components/temporarystore.h"

namespace {

/// Whether the text contains the key with this value, both written literally. A text with an escape may say
/// anything.
bool Says(const std::string& text, const std::string& key, const std::string& value) {
  static const char* const blanks = " \t\r\n";
  const std::string quoted = '"' + key + '"';
  for (auto at = text.find(quoted); at != std::string::npos; at = text.find(quoted, at + 1)) {
    const auto colon = text.find_first_not_of(blanks, at + quoted.size());
    const auto begin =
        std::min(text.find_first_not_of(blanks, std::min(colon, text.size() - 1) + 1), text.size());
    const auto end = begin + value.size();
    if (text.compare(begin, value.size(), value) == 0 && text.find_first_of(" \t\r\n,}", end) == end) {
      return true;
    }
  }
  return text.find('\\') != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const TemporaryStore store;
  static const std::string knownUid = "0A1B2C3D";
  std::string list = TextOf(data, size);
  const std::string uid = TakeUntil(list, "\nsettings:\n");
  const std::string settings = TakeUntil(list, "\nstandalone:\n");

  store.Write("settings", settings);
  store.Write("rfid_standalone", R"({"Tokens": [{"RfidTokenUid": "0A1B2C3D"}]})");
  CRfidConfig config(HubConfig::Create("settings", "/", {}), HubConfig::Create("rfid_standalone", "/", {}));
  FUZZ_CHECK(!config.GetOcppStatus() || Says(settings, "SeccOcppActive", "true"));
  FUZZ_CHECK(config.GetAuthorizationEnabled() || Says(settings, "SessionManagerChargeWithoutAuth", "true"));
  FUZZ_CHECK(config.AuthenticateToken(knownUid) == ipc::ERfidUidInStandAloneList);

  store.Write("rfid_standalone", list);
  const auto answer = config.AuthenticateToken(uid);
  FUZZ_CHECK(answer == ipc::ERfidUidInStandAloneList || answer == ipc::ERfidUidNotInList);
  FUZZ_CHECK(config.AuthenticateToken(uid) == answer);
  // A broken list leaves the earlier one in force. Numbers with a fraction are not UIDs, so they are not
  // compared.
  const bool isUid = !uid.empty() && uid.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
  FUZZ_CHECK(answer == ipc::ERfidUidNotInList || uid == knownUid || !isUid ||
             Says(list, "RfidTokenUid", '"' + uid + '"') || Says(list, "RfidTokenUid", uid));
  return 0;
}
