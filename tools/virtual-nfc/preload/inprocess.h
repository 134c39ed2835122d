#pragma once

#include <string>
#include <utility>

#include "tools/virtual-nfc/preload/interposer.h"
#include "tools/virtual-nfc/server/virtualnfc.h"

namespace virtualnfc {

/// A simulated kernel for this process: while it exists, netlink sockets of this process are connected to it.
/// One at a time. The program must be linked with the interposer.
class InProcessVirtualNfc : public VirtualNfc {
 public:
  explicit InProcessVirtualNfc(VirtualNfcSettings settings = {}) : VirtualNfc(std::move(settings)) {
    SetInterposedServer(Address().c_str());
  }
  ~InProcessVirtualNfc() { SetInterposedServer(nullptr); }
};

}  // namespace virtualnfc
