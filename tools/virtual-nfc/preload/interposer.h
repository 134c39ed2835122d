#pragma once

// Connects the generic-netlink sockets of this process to a VirtualNfc server, by defining the socket calls
// of the C library. All other sockets and descriptors go to the C library unchanged.
//
// The server's address is the one set here, else the environment variable VIRTUAL_NFC_SOCKET. Without both,
// creating a generic-netlink socket fails with EPROTONOSUPPORT; the real kernel is never reached.

namespace virtualnfc {

/// For sockets created from now on. Any thread. @param address null or empty: as if never set
void SetInterposedServer(const char* address);

/// How many netlink sockets this process has open, for tests that look for leaks. Any thread.
int CountInterposedSockets();

}  // namespace virtualnfc
