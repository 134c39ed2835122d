#pragma once

#include <stdexcept>
#include <string>

/// The exit statuses, as the help documents them.
enum class EExit { Ok = 0, Failed = 1, Usage = 2, Unreachable = 3, Incomplete = 4 };

/// The daemon cannot be reached, or does not answer as it should.
class Unreachable : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The daemon's address, and the output format.
struct Daemon {
  std::string address;
  bool json = false;
  std::string who = "daemon";  ///< for people
};

constexpr const char* kTool = "rfidctl";
