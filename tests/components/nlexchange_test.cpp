#include "src/components/nlexchange.h"

#include <gmock/gmock.h>
#include <linux/nfc.h>
#include <netlink/errno.h>
#include <netlink/genl/genl.h>
#include <sys/socket.h>

#include <cerrno>

#include "src/components/nfcrequests.h"
#include "tools/virtual-nfc/preload/inprocess.h"

using namespace std::chrono_literals;
using namespace virtualnfc;
using EEnd = ExchangeResult::EEnd;

namespace {

class NlExchange : public ::testing::Test {
 protected:
  NlExchange() {
    genl_connect(mSocket.get());
    const timeval timeout{.tv_sec = 0, .tv_usec = 100'000};
    setsockopt(nl_socket_get_fd(mSocket.get()), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  }
  ExchangeResult Run(const NfcRequest& request, int family = 20) {
    const auto built = BuildRequest(request, family, {{NFC_ATTR_DEVICE_INDEX, 0}});
    mValid = 0;
    return RunExchange(
        mSocket.get(), built.message.get(), 50ms,
        [](nl_msg*, void* valid) {
          ++*static_cast<int*>(valid);
          return static_cast<int>(NL_SKIP);
        },
        &mValid);
  }

  InProcessVirtualNfc mKernel;
  NlSocket mSocket{nl_socket_alloc()};
  int mValid = 0;
};

}  // namespace

TEST_F(NlExchange, TellsHowItEnded) {
  struct Case {
    const char* rule;
    const NfcRequest& request;
    EEnd end;
    int code;
    int valid;
  };
  for (const auto& c : {
           Case{"", NfcRequests::kDeviceUp, EEnd::Answered, 0, 0},
           Case{"", NfcRequests::kDeviceUp, EEnd::Refused, EALREADY, 0},
           Case{"", NfcRequests::kGetDevice, EEnd::Answered, 0, 1},
           Case{"", NfcRequests::kStopPoll, EEnd::Refused, EINVAL, 0},
           Case{"GET_DEVICE duplicate", NfcRequests::kGetDevice, EEnd::Answered, 0, 2},
           Case{"DEV_DOWN errno=512", NfcRequests::kDeviceDown, EEnd::Refused, 512, 0},
           Case{"DEV_DOWN drop", NfcRequests::kDeviceDown, EEnd::NotAnswered, NLE_AGAIN, 0},
           Case{"GET_DEVICE no-done", NfcRequests::kGetDevice, EEnd::NotAnswered, NLE_AGAIN, 1},
           Case{"GET_DEVICE interrupted", NfcRequests::kGetDevice, EEnd::NotAnswered, NLE_DUMP_INTR, 1},
           Case{"DEV_DOWN overrun", NfcRequests::kDeviceDown, EEnd::NotAnswered, NLE_NOMEM, 0},
       }) {
    SCOPED_TRACE(c.rule);
    mKernel.ClearRules();
    if (*c.rule != 0) {
      mKernel.AddRule(c.rule);
    }
    const auto result = Run(c.request);
    EXPECT_EQ(result.end, c.end);
    EXPECT_EQ(result.code, c.code);
    EXPECT_EQ(mValid, c.valid);
  }
}

TEST_F(NlExchange, TakesOnlyTheAnswerToItsRequest) {
  for (const auto* rule : {"GET_DEVICE times=1 seq=4711", "GET_DEVICE times=1 sender=4711"}) {
    SCOPED_TRACE(rule);
    mKernel.AddRule(rule);
    const auto result = Run(NfcRequests::kGetDevice);
    EXPECT_EQ(result.end, EEnd::NotAnswered);
    EXPECT_EQ(mValid, 0) << "not even a part of it";
    EXPECT_GT(result.skipped, 0U);
    EXPECT_EQ(Run(NfcRequests::kGetDevice).end, EEnd::Answered);
  }
}

TEST_F(NlExchange, ASocketThatIsGoneSendsNothing) {
  mKernel.AddRule("GET_DEVICE close");
  Run(NfcRequests::kGetDevice);
  EXPECT_EQ(Run(NfcRequests::kGetDevice).end, EEnd::NotSent);
}
