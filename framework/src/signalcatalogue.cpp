#include "framework/diagnostics.h"

namespace SignalCatalogue {

const CSignalDefinition<std::string> kRfidState{ipc::ESignalRfidState, "Rfid state", "Unknown", ""};
const CSignalDefinition<std::string> kRfidLastUid{ipc::ESignalRfidLastUid, "Rfid last scanned UID", "", ""};
const CSignalDefinition<std::string> kRfidLastTechnology{ipc::ESignalRfidLastTechnology,
                                                         "Rfid last scanned tag technology", "", ""};
const CSignalDefinition<std::string> kUserInteraction{ipc::ESignalUserInteraction, "User interaction", "",
                                                      ""};

}  // namespace SignalCatalogue
