#include "Pavo/Netlink.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "Mox/Exception.h"
#include "Mox/Trace.h"
#include "Pavo/EthAddr.h"
#include "Pavo/Ip6Addr.h"
#include "Pavo/IpAddr.h"
#include "Pavo/NetlinkUtils.h"
#include "support/FailSyscall.h"
#include "support/SandboxTest.h"

namespace Pavo {
namespace {

using PavoTest::FailSyscall;
using testing::HasSubstr;

std::string hex(std::string_view bytes) {
    std::string text;
    for (const char each : bytes) {
        const auto byte = static_cast<uint8_t>(each);
        text += {"0123456789abcdef"[byte >> 4], "0123456789abcdef"[byte & 0xf]};
    }
    return text;
}

// A handle whose other end is this program instead of the kernel, and a record of the trace.
class NetlinkTest : public testing::Test {
  protected:
    NetlinkTest() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends_), 0);
        handle_.fd = ends_[0];
        trace_.clear();
        Mox::traceSinkIs([](const char*, int, std::string_view message) { trace_ += message; });
        Mox::traceSettingsIs("Pavo::NetlinkUtils/0-9");
    }
    ~NetlinkTest() override {
        Mox::traceSettingsIs("Pavo::NetlinkUtils/");
        Mox::traceSinkIs(nullptr);
        closeNetlinkSocket(&handle_);
        close(ends_[1]);
    }

    // What was traced since the last call.
    static std::string trace() { return std::exchange(trace_, ""); }
    // Answers with an NLMSG_ERROR message, cut off or filled up to `bytes`.
    void answer(unsigned seq, int error = 0, size_t bytes = 36, uint16_t type = NLMSG_ERROR) const {
        const struct {
            nlmsghdr header;
            nlmsgerr body;
            char request[64];
        } message = {{36, type, 0, seq, 0}, {error, {}}, {}};
        EXPECT_EQ(send(ends_[1], &message, bytes, 0), static_cast<ssize_t>(bytes));
    }
    // The next message that was sent, in hexadecimal.
    std::string sent() const {
        char bytes[200];
        return hex({bytes, static_cast<size_t>(recv(ends_[1], bytes, sizeof(bytes), 0))});
    }

    netlinkHandle handle_;

  private:
    int ends_[2];
    static inline std::string trace_;
};

TEST_F(NetlinkTest, ChecksAnAnswer) {
    const struct {
        size_t bytes;  // 20 are the shortest acknowledgement; what follows 36 is not read.
        unsigned seq;
        uint16_t type;
        int error, result, errnoLeft;
        const char* trace;
    } cases[] = {
        {20, 5, NLMSG_ERROR, 0, 0, 0, ""},
        {92, 5, NLMSG_ERROR, 0, 0, 0, ""},
        {92, 5, NLMSG_ERROR, -ENODEV, -ENODEV, ENODEV, "recv returned error : No such device"},
        {36, 5, NLMSG_ERROR, INT_MIN, -1, EBADMSG,
         "no error number in NLMSG_ERROR response: -2147483648"},
        {0, 5, NLMSG_ERROR, 0, -1, 0, ""},
        {15, 5, NLMSG_ERROR, 0, -1, 0, "incomplete netlink response, expecting at least 16"},
        {19, 5, NLMSG_ERROR, -ENODEV, -1, 0,
         "incomplete NLMSG_ERROR response, expecting at least 20"},
        {36, 5, RTM_NEWLINK, 0, -1, EBADE, "got unexpected message type 16"},
        {16, 6, RTM_NEWLINK, 0, -1, EBADE, "netlink sequence number mismatch, expecting 5, saw 6"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        answer(c.seq, c.error, c.bytes, c.type);
        errno = 0;
        EXPECT_EQ(getNetlinkResponse(handle_.fd, 5), c.result);
        EXPECT_EQ(errno, c.errnoLeft);
        EXPECT_EQ(trace(), c.trace);
    }
    // Each took a whole message, a signal costs none, and a stale answer is not skipped.
    answer(4);
    answer(6);
    EXPECT_EQ(getNetlinkResponse(handle_.fd, 5), -1);
    const FailSyscall interrupted(1, EINTR, "recv");
    EXPECT_EQ(getNetlinkResponse(handle_.fd, 6), 0);
    EXPECT_EQ(getNetlinkResponse(handle_.fd, 7), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(NetlinkTest, NumbersMessagesOfAllHandlesOrSendsThemUnchangedAndPassesOnAFailure) {
    netlinkHandle other = handle_;
    nlmsghdr msg = {16, 1, 2, 3, 4};
    const int number = sendRecvXfrmNetlinkMsg(&other, &msg);
    EXPECT_GE(number, 1000);
    EXPECT_EQ(sent().size(), 32u);
    msg.nlmsg_seq = 3;
    EXPECT_EQ(sendNetlinkVec(&handle_, &msg, 16), 0);
    EXPECT_EQ(sent(), "10000000010002000300000004000000");
    EXPECT_EQ(sendNetlinkRequest(handle_.fd, 0x01020304, RTM_GETNEIGH), 20);
    EXPECT_EQ(sent(), "140000001e000103040302010000000000000000");
    answer(static_cast<unsigned>(number) + 1);
    EXPECT_EQ(sendNetlinkMsg(&handle_, &msg), 0);
    const FailSyscall fail(1, ECONNREFUSED, "send", /*andAllAfter=*/true);
    EXPECT_EQ(sendNetlinkMsg(&handle_, &msg), -1);
    EXPECT_EQ(sendNetlinkVec(&handle_, &msg, 16), -1);
    EXPECT_EQ(sendRecvXfrmNetlinkMsg(&handle_, &msg), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(trace(), "Cannot send netlink msg Connection refused");
    EXPECT_THAT([&] { sendNetlinkRequest(handle_.fd, 1, RTM_GETLINK); },
                testing::ThrowsMessage<Mox::ErrnoException>("send: Connection refused"));
}

TEST_F(NetlinkTest, AddsAnAttributeUpToTheBound) {
    const struct {
        uint32_t lengthBefore;
        int bound;
        int payload;
        const char* added;  // In hexadecimal.
        const char* trace;  // Why nothing was added.
    } cases[] = {
        {16, 24, 4, "08001b0061626364", ""},
        {16, 23, 4, "", "message exceeded bound of 23 (24)"},
        {16, 28, 5, "09001b006162636465000000", ""},
        {16, 27, 5, "", "message exceeded bound of 27 (28)"},  // Padding counts.
        {17, 24, 0, "00000004001b00", ""},                     // Starts on 4 bytes.
        {0xffffffff, INT_MAX, 0, "", "message exceeded bound of 2147483647 (4294967300)"},
        {16, 1 << 20, 65532, "", "no attribute has a length of 65532"},
        {16, 24, -1, "", "no attribute has a length of -1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.bound << " " << c.payload);
        std::vector<char> memory(28, 'U');
        auto* const msg = reinterpret_cast<nlmsghdr*>(memory.data());
        msg->nlmsg_len = c.lengthBefore;
        std::string expected = hex({memory.data(), memory.size()});
        const std::string added = c.added;
        if (!added.empty()) {
            expected.replace(2 * c.lengthBefore, added.size(), added);
        }
        EXPECT_EQ(addattr_l(msg, c.bound, IFLA_GROUP, "abcde", c.payload), added.empty() ? -1 : 0);
        EXPECT_EQ(trace(), c.trace);
        EXPECT_EQ(std::exchange(msg->nlmsg_len, c.lengthBefore), c.lengthBefore + added.size() / 2);
        EXPECT_EQ(hex({memory.data(), memory.size()}), expected);
    }
}

// Passes attributes that end where an allocation does: one with `payload`, then ones that are too
// short, the last even for its header.
template <class Read>
void readAttributes(const std::string& payload, Read read) {
    for (const size_t bytes : {4 + payload.size(), payload.size(), size_t{3}}) {
        std::vector<char> memory((bytes + 3) / 4 * 4);
        std::memcpy(memory.data(), (std::string(4, '\0') + payload).data(), memory.size());
        auto* const attribute = reinterpret_cast<rtattr*>(memory.data());
        attribute->rta_len = static_cast<uint16_t>(bytes);
        read(attribute, bytes == 4 + payload.size());
    }
}

TEST_F(NetlinkTest, ReadsNothingPastAnAttribute) {
    const auto expectAddress = [](auto address, const std::string& text, const std::string& bytes) {
        readAttributes(bytes, [&](rtattr* attribute, bool isWhole) {
            getRtaAddr(attribute, &address);
            EXPECT_EQ(address.stringValue(), text);  // A short one leaves it as it was.
            EXPECT_EQ(trace().find("too short for an address") == std::string::npos, isWhole);
        });
    };
    expectAddress(Ip6Addr(), "6162:6364:6566:6768:696a:6b6c:6d6e:6f70", "abcdefghijklmnop");
    expectAddress(IpAddr(), "97.98.99.100", "abcd");
    expectAddress(EthAddr(), "61:62:63:64:65:66", "abcdef");
    readAttributes(
        std::string("\1\0\0\0\2\0\0\0\3\0\0\0\xff\xff\xff\xff", 16), [](auto* info, bool isWhole) {
            getCacheInfo(info);
            EXPECT_THAT(trace(), HasSubstr(isWhole ? "NDA_CACHEINFO:\nconfirmed=1 used=2 updated=3 "
                                                     "refcnt=4294967295"
                                                   : "too short for nda_cacheinfo"));
        });
}

TEST(Netlink, StopsOnAMistakeOfTheProgram) {
    EXPECT_DEATH(closeNetlinkSocket(nullptr), "assertion failed: nlh");
    netlinkHandle closed;
    closeNetlinkSocket(&closed);
    closed.fd = 1 << 20;
    EXPECT_DEATH(closeNetlinkSocket(&closed), "assertion failed: close\\( nlh->fd \\) == 0");
    EXPECT_DEATH(addPrioQdisc("nosuch"), "assertion failed: ifIndex > 0");
    EXPECT_DEATH(NetlinkMessageCallback().callback(nullptr),
                 "assertion failed: NetlinkMessageCallback::callback not overwritten");
}

using NetlinkLinkTest = PavoTest::SandboxTest;

TEST_F(NetlinkLinkTest, PutsLinksIntoGroupsAndDeletesThem) {
    const PavoTest::Wire wire;
    netlinkHandle handle;
    ASSERT_EQ(createNetlinkSocket(&handle, RTMGRP_TC, "right", SOCK_RAW, /*nonBlocking=*/true,
                                  NETLINK_ROUTE),
              0);
    EXPECT_EQ(fcntl(handle.fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(fcntl(handle.fd, F_GETFD), FD_CLOEXEC);
    const auto linksOf = [](const std::string& group) {
        const std::string list =
            PavoTest::run({"ip", "-n", "right", "-o", "link", "show", "group", group});
        return std::count(list.begin(), list.end(), '\n');
    };
    EXPECT_EQ(setDeviceGroup(&handle, wire.index("right"), 4711), 0);
    EXPECT_EQ(linksOf("4711"), 1);
    EXPECT_EQ(setDeviceGroup(&handle, 1 << 20, 4711), -ENODEV);
    const auto others = linksOf("default");
    EXPECT_EQ(delDeviceGroup(&handle, 4712), -ENODEV);
    EXPECT_EQ(delDeviceGroup(&handle, 0), -EPERM);
    EXPECT_EQ(linksOf("4711"), 1);
    EXPECT_EQ(delDeviceGroup(&handle, 4711), 0);
    EXPECT_EQ(linksOf("default"), others);
    EXPECT_EQ(wire.index("left"), 0u);  // The two ends of a pair are deleted together.
    closeNetlinkSocket(&handle);
}

TEST(Netlink, AsksForAPrioQueueAsTcDoes) {
    FailSyscall fail(1, ECONNREFUSED, "send");
    EXPECT_EQ(addPrioQdisc("lo"), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    fail.disarm();
    std::string request = hex(fail.sent());
    request.replace(2 * 8, 8, "(number)").replace(2 * 20, 8, "(link)");
    // What tc(8) sends, but for an empty list of further options at the end.
    EXPECT_EQ(request,
              "4800000024000506(number)0000000000000000(link)00000100ffffffff00000000"
              "090001007072696f0000000018000200030000000102020201020000"
              "0101010101010101");
}

}  // namespace
}  // namespace Pavo
