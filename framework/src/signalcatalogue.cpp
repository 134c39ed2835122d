#include "framework/diagnostics.h"

namespace SignalCatalogue {

const CSignalDefinition<std::string> RfidState{ipc::ESignalRfidState, "Rfid state", "Unknown", ""};
const CSignalDefinition<std::string> RfidLastUid{ipc::ESignalRfidLastUid, "Rfid last scanned UID", "", ""};
const CSignalDefinition<std::string> RfidLastTechnology{ipc::ESignalRfidLastTechnology,
                                                        "Rfid last scanned tag technology", "", ""};
const CSignalDefinition<std::string> UserInteraction{ipc::ESignalUserInteraction, "User interaction", "", ""};

}  // namespace SignalCatalogue
