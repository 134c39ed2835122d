#pragma once

#include <netlink/errno.h>

#include <stdexcept>
#include <string>

/// A failure of the reader or of the netlink connection to it.
class CRfidError : public std::runtime_error {
 public:
  /// `code` is positive: a libnl error code or the kernel's errno from a refused request.
  CRfidError(const std::string& message, int code)
      : std::runtime_error(message), mErrorCode(code), mRecoverable(IsRecoverableCode(code)) {}

  int GetErrorCode() const { return mErrorCode; }

  /// Whether reopening the reader may help.
  bool IsRecoverable() const { return mRecoverable; }

 private:
  static bool IsRecoverableCode(int code) {
    return code == NLE_FAILURE || code == NLE_BAD_SOCK || code == NLE_BUSY || code == NLE_NODEV;
  }

  int mErrorCode;
  bool mRecoverable;
};
