#pragma once

#include <string>
#include <utility>

#include "tools/virtual-nfc/preload/interposer.h"
#include "tools/virtual-nfc/server/virtualnfc.h"

namespace virtualnfc {

/// The simulated kernel of this very process: while it lives, netlink sockets that are made here belong to
/// it. One at a time. The program must be linked with the interposer.
class InProcessVirtualNfc : public VirtualNfc {
 public:
  explicit InProcessVirtualNfc(VirtualNfcSettings settings = {}) : VirtualNfc(std::move(settings)) {
    SetInterposedServer(Address().c_str());
  }
  ~InProcessVirtualNfc() { SetInterposedServer(nullptr); }
};

}  // namespace virtualnfc
