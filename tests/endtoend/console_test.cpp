#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/endtoend/daemontest.h"

namespace {

/// The daemon's console is a pipe that nobody reads.
class Console : public DaemonTest {
 protected:
  Console() {
    EXPECT_EQ(mkfifo(Path("log").c_str(), 0600), 0);
    mReader = open(Path("log").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_GE(mReader, 0);
  }
  ~Console() override { Close(); }

  void Close() {
    if (mReader >= 0) {
      close(mReader);
    }
    mReader = -1;
  }

  void TapCards(int count) {
    for (int i = 0; i < count; ++i) {
      const auto uid = fmt::format("{:08X}", ++mCard);
      Tap(uid);
      ASSERT_TRUE(Notifies("token " + uid + " ERfidUidNotInList")) << uid;
    }
  }

  int mReader = -1;
  int mCard = 0x10000000;
};

}  // namespace

TEST_F(Console, ThatNobodyReadsLosesNoCardAndTheDaemonExits) {
  StartDaemon();
  EnableDaemon();
  TapCards(200);
  EXPECT_EQ(Interrupt(), "exit 0");
}

TEST_F(Console, ThatIsClosedLosesNoCardAndTheDaemonExits) {
  StartDaemon();
  EnableDaemon();
  Close();
  TapCards(20);
  EXPECT_EQ(Interrupt(), "exit 0");
}
