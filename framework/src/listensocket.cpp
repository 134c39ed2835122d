#include "listensocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>

#include "framework/rpc.h"

namespace {

[[noreturn]] void Fail(const std::string& address, const std::string& reason) {
  throw Rpc::ConfigurationException("Cannot listen on unix:" + address + ": " + reason);
}

std::string ErrorText(int code) {
  return std::generic_category().message(code);
}

void MakeFolder(const std::string& address, const std::filesystem::path& folder) {
  std::error_code error;
  std::filesystem::create_directories(folder.parent_path(), error);
  // A new folder is for the daemon and its group only. An existing folder keeps its mode.
  if (mkdir(folder.c_str(), 0750) != 0 && errno != EEXIST) {
    Fail(address, "the folder " + folder.string() + " cannot be made: " + ErrorText(errno));
  }
}

}  // namespace

CListenSocket::CListenSocket(std::string path) : mPath(std::move(path)), mLockPath(mPath + ".lock") {
  MakeFolder(mPath, std::filesystem::path(mPath).parent_path());
  TakeLock();
  try {
    struct stat status {};
    if (lstat(mPath.c_str(), &status) == 0 && !S_ISSOCK(status.st_mode)) {
      Fail(mPath, "the path exists and is not a socket");
    }
    MakeTemporaryFolder();
  } catch (...) {
    unlink(mLockPath.c_str());
    close(mLock);
    throw;
  }
}

CListenSocket::~CListenSocket() {
  RemoveTemporaryFolder();
  if (mPublished) {
    unlink(mPath.c_str());
  }
  // Nobody else can own a lock file of this name while we hold the lock, so this removes ours.
  unlink(mLockPath.c_str());
  close(mLock);
}

void CListenSocket::TakeLock() {
  for (;;) {
    mLock = open(mLockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (mLock < 0) {
      Fail(mPath, "the lock file " + mLockPath + " cannot be opened: " + ErrorText(errno));
    }
    if (flock(mLock, LOCK_EX | LOCK_NB) != 0) {
      const int code = errno;
      close(mLock);
      Fail(mPath, code == EWOULDBLOCK
                      ? "address in use by a running instance"
                      : "the lock file " + mLockPath + " cannot be locked: " + ErrorText(code));
    }
    // The former owner may have removed the file after we opened and before we locked it.
    struct stat locked {};
    struct stat named {};
    if (fstat(mLock, &locked) == 0 && stat(mLockPath.c_str(), &named) == 0 && locked.st_dev == named.st_dev &&
        locked.st_ino == named.st_ino) {
      return;
    }
    close(mLock);
  }
}

void CListenSocket::MakeTemporaryFolder() {
  std::string folder = (std::filesystem::path(mPath).parent_path() / ".XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) {
    Fail(mPath, "cannot create a folder beside it: " + ErrorText(errno));
  }
  mTemporaryFolder = folder;
}

void CListenSocket::RemoveTemporaryFolder() {
  if (!mTemporaryFolder.empty()) {
    unlink(TemporaryPath().c_str());
    rmdir(mTemporaryFolder.c_str());
    mTemporaryFolder.clear();
  }
}

void CListenSocket::Publish() {
  if (chmod(TemporaryPath().c_str(), 0660) != 0 || rename(TemporaryPath().c_str(), mPath.c_str()) != 0) {
    Fail(mPath, "the socket cannot be put in place: " + ErrorText(errno));
  }
  mPublished = true;
  RemoveTemporaryFolder();
}
