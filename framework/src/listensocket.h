#pragma once

#include <string>

/// This process's claim on a unix socket's path.
///
/// The process that holds the lock (flock) on `<path>.lock` owns the path. The kernel frees the lock when its
/// owner ends, even by a crash. The socket is made in a folder that only this user can enter, gets its mode
/// there and is then moved to its path. So the mode protects the socket from the first moment, independently
/// of the umask, and a stale socket is replaced in one step.
class CListenSocket {
 public:
  /// Creates the socket's folder if it is missing and takes the lock. Throws Rpc::ConfigurationException when
  /// a running instance uses the path or the system refuses.
  explicit CListenSocket(std::string path);
  ~CListenSocket();  ///< removes the socket and then the lock
  CListenSocket(const CListenSocket&) = delete;
  CListenSocket& operator=(const CListenSocket&) = delete;

  /// Where the server has to listen before Publish.
  std::string TemporaryPath() const { return mTemporaryFolder + "/s"; }

  /// Moves the listening socket to its path, with mode 0660.
  void Publish();

 private:
  void TakeLock();
  void MakeTemporaryFolder();
  void RemoveTemporaryFolder();

  const std::string mPath;
  const std::string mLockPath;
  std::string mTemporaryFolder;
  int mLock = -1;
  bool mPublished = false;
};
