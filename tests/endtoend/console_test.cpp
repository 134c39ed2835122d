#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "daemontest.h"

using ::testing::ContainsRegex;
using ::testing::HasSubstr;

namespace {

/// The daemon's console is a pipe that is read when the test says so.
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

  /// Reads until it finds the text; everything read by then.
  std::string ReadUntil(const std::string& text) const {
    std::string log;
    Eventually([&] {
      std::string part(65536, '\0');
      const auto length = read(mReader, part.data(), part.size());
      log.append(part, 0, length > 0 ? static_cast<size_t>(length) : 0);
      return log.find(text) != std::string::npos;
    });
    return log;
  }

  void TapCards(int count) {
    for (int i = 0; i < count; ++i) {
      const auto uid = fmt::format("{:08X}", ++mCard);
      Tap(uid);
      ASSERT_TRUE(mSupervisor->WaitFor("token " + uid + " ERfidUidNotInList")) << uid;
    }
  }

  int mReader = -1;
  int mCard = 0x10000000;
};

}  // namespace

TEST_F(Console, ThatNobodyReadsCostsNoCardAndNotTheEnd) {
  StartDaemon();
  EnableDaemon();
  TapCards(200);
  EXPECT_EQ(Interrupt(), "exit 0");
}

TEST_F(Console, ThatIsReadAgainSaysHowManyLinesAreMissingAndHasTheLastOnes) {
  StartDaemon();
  EnableDaemon();
  const size_t memory = mDaemon->Memory("VmHWM");
  const std::string large(4000, 'X');
  for (int i = 0; i < 500; ++i) {  // some megabytes of lines
    ASSERT_EQ(mSupervisor->Inject(fmt::format("{}{}", i, large)), "Ok");
  }
  if (!IsSanitized) {
    EXPECT_LE(mDaemon->Memory("VmHWM"), memory + 8 * 1024);
  }
  TapCards(1);
  const auto log = ReadUntil(fmt::format("RfidToken notif: '{:08X}'", mCard));
  EXPECT_THAT(log, ContainsRegex("Starting state machine\n"));
  EXPECT_THAT(log, ContainsRegex(" warning  [0-9]+ log lines were dropped: this log did not take them.\n"));
  EXPECT_THAT(log, HasSubstr(fmt::format("RfidToken notif: '{:08X}'", mCard)));
  EXPECT_EQ(Interrupt(), "exit 0");
  EXPECT_THAT(ReadUntil("State machine stopped"), HasSubstr("State machine stopped"));
}

TEST_F(Console, WhoseReaderHasGoneCostsNothingElse) {
  StartDaemon();
  EnableDaemon();
  Close();
  TapCards(20);
  EXPECT_EQ(Interrupt(), "exit 0");
}
