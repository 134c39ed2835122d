#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "src/components/infcnetlink.h"

/// A fake controller: keeps its callbacks, remembers its calls and fails on demand.
class FakeNfcNetlink : public INfcNetlink {
 public:
  void SetErrorCallback(ErrorCallback onError) override { mOnError = std::move(onError); }
  void InitializeController(TargetCallback onTarget) override {
    mOnTarget = std::move(onTarget);
    Called("InitializeController");
  }
  void StartPolling() override { Called("StartPolling"); }
  void StopPolling() override { Called("StopPolling"); }
  void DeinitializeController() override { Called("DeinitializeController"); }

  /// A tag at the reader.
  void Report(const CToken& token) { mOnTarget(token); }
  /// The reader goes deaf.
  void Break(const CRfidError& error) { mOnError(error); }

  std::vector<std::string> mCalls;
  std::map<std::string, int> mFail;           ///< the code of the error that an operation throws
  std::map<std::string, std::string> mThrow;  ///< the text of another exception that it throws

 private:
  void Called(const std::string& operation) {
    mCalls.push_back(operation);
    if (const auto fail = mFail.find(operation); fail != mFail.end()) {
      throw CRfidError(operation + " failed", fail->second);
    }
    if (const auto other = mThrow.find(operation); other != mThrow.end()) {
      throw std::runtime_error(other->second);
    }
  }

  TargetCallback mOnTarget;
  ErrorCallback mOnError;
};
