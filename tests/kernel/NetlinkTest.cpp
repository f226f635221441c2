#include "Pavo/Netlink.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "Mox/Trace.h"
#include "Pavo/EthAddr.h"
#include "Pavo/Ip6Addr.h"
#include "Pavo/IpAddr.h"
#include "Pavo/NetlinkUtils.h"
#include "Pavo/NetnsUtils.h"
#include "support/FailSyscall.h"
#include "support/GuardedText.h"
#include "support/SandboxTest.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

// While one lives, keeps what `NetlinkUtils` traces at these levels.
class Traced {
  public:
    explicit Traced(const std::string& levels = "0") {
        Mox::traceSinkIs([](const char*, int, std::string_view message) { text_ += message; });
        Mox::traceSettingsIs("Pavo::NetlinkUtils/" + levels);
        text_.clear();
    }
    ~Traced() {
        Mox::traceSettingsIs("Pavo::NetlinkUtils/");
        Mox::traceSinkIs(nullptr);
    }

    std::string take() const { return std::exchange(text_, ""); }

  private:
    static inline std::string text_;
};

std::string hex(std::string_view bytes) {
    std::ostringstream out;
    for (const unsigned char byte : bytes) {
        out << "0123456789abcdef"[byte >> 4] << "0123456789abcdef"[byte & 0xf];
    }
    return out.str();
}

// An open handle whose other end is here instead of in the kernel. Messages keep their bounds.
class FakeKernel {
  public:
    explicit FakeKernel(int flags = 0) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | flags, 0, ends), 0);
        handle.fd = ends[0];
        end_ = ends[1];
    }
    ~FakeKernel() {
        closeNetlinkSocket(&handle);
        close(end_);
    }

    // An NLMSG_ERROR message, cut off or filled up to `bytes`.
    void answer(unsigned seq, int error = 0, size_t bytes = 36, uint16_t type = NLMSG_ERROR) const {
        const struct {
            nlmsghdr header;
            nlmsgerr body;
            char request[64];
        } message = {{36, type, 0, seq, 0}, {error, {}}, {}};
        EXPECT_EQ(send(end_, &message, bytes, 0), static_cast<ssize_t>(bytes));
    }
    std::string request() const {
        std::string bytes(200, '\0');
        const ssize_t got = recv(end_, bytes.data(), bytes.size(), MSG_DONTWAIT);
        bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
        return bytes;
    }

    netlinkHandle handle;

  private:
    int end_ = -1;
};

TEST(Netlink, KeepsTheValueLaws) {
    expectValueLaws<NetlinkFamily>({0, NETLINK_GENERIC, 65535});
    expectValueLaws<NetlinkMsgType>({0, RTM_NEWLINK, 65535});
    expectValueLaws<NetlinkMsgFlags>({0, NLM_F_REQUEST | NLM_F_ACK, 65535});
    expectValueLaws<NetlinkPortId>({0, 4711, 0xffffffff});
    expectValueLaws<NetlinkGroups>({0, RTMGRP_LINK, 0xffffffff});
    NetlinkFamily family;
    EXPECT_EQ(textErrorOf("65536", &family), "Invalid NetlinkFamily");
    NetlinkGroups groups;
    EXPECT_EQ(textErrorOf("4294967296", &groups), "Invalid NetlinkGroups");
}

[[noreturn]] void numberMessages() {
    FakeKernel kernels[2];
    nlmsghdr msg = {};
    msg.nlmsg_len = sizeof(msg);
    kernels[0].answer(1000);
    int results = sendNetlinkMsg(&kernels[0].handle, &msg);
    results |= sendNetlinkVec(&kernels[1].handle, &msg, sizeof(msg));  // Numbered by its caller.
    sendNetlinkRequest(kernels[1].handle.fd, 8, RTM_GETLINK);
    results |= sendRecvXfrmNetlinkMsg(&kernels[1].handle, &msg) - 1001;
    kernels[1].answer(1002);
    results |= sendNetlinkMsg(&kernels[1].handle, &msg);
    for (const FakeKernel& kernel : kernels) {
        for (std::string sent; !(sent = kernel.request()).empty();) {
            fprintf(stderr, "%s ", hex(sent.substr(8, 4)).c_str());
        }
    }
    _exit(results);
}

TEST(Netlink, NumbersMessagesFromAThousandWhateverTheHandle) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // The program from the top.
    EXPECT_EXIT(numberMessages(), testing::ExitedWithCode(0),
                "e8030000 e8030000 08000000 e9030000 ea030000 ");
}

TEST(Netlink, JudgesAnAnswer) {
    const struct {
        const char* what;
        size_t bytes;
        unsigned seq;
        uint16_t type;
        int error;
        int result;
        int errnoLeft;
        const char* trace;
    } cases[] = {
        {"acknowledged", 36, 5, NLMSG_ERROR, 0, 0, 0, ""},
        {"the least acknowledgement", 20, 5, NLMSG_ERROR, 0, 0, 0, ""},
        {"with the request, longer than what is read", 92, 5, NLMSG_ERROR, 0, 0, 0, ""},
        {"refused", 92, 5, NLMSG_ERROR, -ENODEV, -ENODEV, ENODEV,
         "recv returned error : No such device"},
        {"no error to turn round", 36, 5, NLMSG_ERROR, INT_MIN, INT_MIN, INT_MIN,
         "recv returned error : Unknown error -2147483648"},
        {"nothing", 0, 5, NLMSG_ERROR, 0, -1, 0, ""},
        {"half a header", 15, 5, NLMSG_ERROR, 0, -1, 0,
         "incomplete netlink response, expecting at least 16"},
        {"half an error", 19, 5, NLMSG_ERROR, -ENODEV, -1, 0,
         "incomplete NLMSG_ERROR response, expecting at least 20"},
        {"data", 36, 5, RTM_NEWLINK, 0, -1, EBADE, "got unexpected message type 16"},
        {"another's", 36, 4294967295, NLMSG_ERROR, 0, -1, EBADE,
         "netlink sequence number mismatch, expecting 5, saw 4294967295"},
        {"another's data, cut", 16, 6, RTM_NEWLINK, 0, -1, EBADE,
         "netlink sequence number mismatch, expecting 5, saw 6"},
    };
    const FakeKernel kernel(SOCK_NONBLOCK);
    const Traced traced;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        kernel.answer(c.seq, c.error, c.bytes, c.type);
        errno = 0;
        EXPECT_EQ(getNetlinkResponse(kernel.handle.fd, 5), c.result);
        EXPECT_EQ(errno, c.errnoLeft);
        EXPECT_EQ(traced.take(), c.trace);
    }
    EXPECT_EQ(getNetlinkResponse(kernel.handle.fd, 5), -1);  // Whole messages were taken.
    EXPECT_EQ(errno, EAGAIN);

    // A stale answer costs its request, and a signal costs none.
    kernel.answer(4);
    kernel.answer(6);
    EXPECT_EQ(getNetlinkResponse(kernel.handle.fd, 5), -1);
    const PavoTest::FailSyscall interrupted(1, EINTR, "recv");
    EXPECT_EQ(getNetlinkResponse(kernel.handle.fd, 6), 0);
    EXPECT_EQ(interrupted.count(), 2u);
}

TEST(Netlink, SendsWhatItIsGivenOrSaysWhyNot) {
    FakeKernel kernel;
    nlmsghdr messages[2] = {{16, 1, 2, 3, 4}, {16, 5, 6, 7, 8}};
    EXPECT_EQ(sendNetlinkVec(&kernel.handle, messages, sizeof(messages)), 0);
    EXPECT_EQ(hex(kernel.request()), hex({reinterpret_cast<char*>(messages), sizeof(messages)}));
    EXPECT_EQ(sendNetlinkRequest(kernel.handle.fd, 0x01020304, RTM_GETNEIGH), 20);
    EXPECT_EQ(hex(kernel.request()), "140000001e000103040302010000000000000000");

    const struct {
        std::function<int()> call;
        const char* trace;
    } cases[] = {
        {[&] { return sendNetlinkMsg(&kernel.handle, messages); }, ""},
        {[&] { return sendNetlinkVec(&kernel.handle, messages, 16); }, ""},
        {[&] { return sendRecvXfrmNetlinkMsg(&kernel.handle, messages); },
         "Cannot send netlink msg Connection refused"},
    };
    const Traced traced;
    for (const auto& c : cases) {
        const PavoTest::FailSyscall fail(1, ECONNREFUSED, "send");
        EXPECT_EQ(c.call(), -1);
        EXPECT_EQ(errno, ECONNREFUSED);
        EXPECT_EQ(traced.take(), c.trace);
    }
    const PavoTest::FailSyscall fail(1, ECONNREFUSED, "send");
    EXPECT_THAT([&] { sendNetlinkRequest(kernel.handle.fd, 1, RTM_GETLINK); },
                testing::ThrowsMessage<Mox::ErrnoException>("send: Connection refused"));
}

TEST(Netlink, AddsAnAttributeUpToTheBound) {
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
        {17, 23, 0, "", "message exceeded bound of 23 (24)"},
        {16, 1 << 20, 65532, "", "no attribute has a length of 65532"},
        {16, 24, -1, "", "no attribute has a length of -1"},
    };
    const Traced traced;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.bound << " " << c.payload);
        const GuardedBuffer memory(28);
        std::memset(memory.data(), 0x55, memory.size());
        auto* const msg = reinterpret_cast<nlmsghdr*>(memory.data());
        msg->nlmsg_len = c.lengthBefore;
        const bool fits = *c.trace == '\0';
        EXPECT_EQ(addattr_l(msg, c.bound, IFLA_GROUP, "abcde", c.payload), fits ? 0 : -1);
        EXPECT_EQ(traced.take(), c.trace);
        const size_t added = std::strlen(c.added) / 2;
        EXPECT_EQ(msg->nlmsg_len, c.lengthBefore + added);
        EXPECT_EQ(hex({memory.data() + c.lengthBefore, added}), c.added);
        EXPECT_EQ(memory.data()[27] == 0x55, c.lengthBefore + added < 28);  // Nothing behind it.
    }
}

// An attribute in front of an unmapped page, with no more than `payload` bytes behind its header.
class CutAttribute {
  public:
    explicit CutAttribute(size_t payload) : memory_((payload + 7) / 4 * 4) {
        std::memcpy(memory_.data() + 4, "abcdefghijklmnop", memory_.size() - 4);
        get()->rta_len = static_cast<uint16_t>(4 + payload);
    }
    rtattr* get() const { return reinterpret_cast<rtattr*>(memory_.data()); }

  private:
    GuardedBuffer memory_;
};

template <class Address>
void expectAddress(const char* text, size_t bytes) {
    const Traced traced;
    const CutAttribute whole(bytes);
    Address address;
    getRtaAddr(whole.get(), &address);
    EXPECT_EQ(address.stringValue(), text);
    EXPECT_EQ(traced.take(), "");
    const CutAttribute cut((bytes - 1) / 4 * 4);  // What is not read need not be there.
    for (const size_t length : {3 + bytes, size_t{4}, size_t{3}}) {  // 3: less than its header.
        cut.get()->rta_len = static_cast<uint16_t>(length);
        getRtaAddr(cut.get(), &address);
        EXPECT_EQ(address.stringValue(), text);
        EXPECT_EQ(traced.take(), "attribute too short for an address, expecting at least " +
                                     std::to_string(bytes) + ", saw " +
                                     std::to_string(std::max<size_t>(length, 4) - 4));
    }
}

TEST(Netlink, ReadsNothingPastAnAttribute) {
    expectAddress<Ip6Addr>("6162:6364:6566:6768:696a:6b6c:6d6e:6f70", 16);
    expectAddress<IpAddr>("97.98.99.100", 4);
    expectAddress<EthAddr>("61:62:63:64:65:66", 6);

    const Traced traced("0-9");
    const nda_cacheinfo info = {1, 22, 333, 4294967295};
    const CutAttribute whole(sizeof(info));
    std::memcpy(RTA_DATA(whole.get()), &info, sizeof(info));
    getCacheInfo(whole.get());
    EXPECT_EQ(traced.take(), "NDA_CACHEINFO:\nconfirmed=1 used=22 updated=333 refcnt=4294967295");
    getCacheInfo(CutAttribute(12).get());
    EXPECT_EQ(traced.take(),
              "attribute too short for nda_cacheinfo, expecting at least 16, saw 12");
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

TEST(Netlink, LeavesNothingOpenWhicheverCallFails) {
    const struct {
        const char* call;
        const char* printed;
        const char* trace;  // "#" is the descriptor.
    } faults[] = {
        {"stat", "", "Cannot open netlink socket: Cannot allocate memory"},  // In `socketAt`.
        {"socket", "", "Cannot open netlink socket: Cannot allocate memory"},
        {"fcntl", "fcntl(F_GETFL): Cannot allocate memory\n",
         "setNonblocking(#) fcntl failed due to Cannot allocate memory"},
        {"fcntl", "fcntl(F_SETFL): Cannot allocate memory\n",
         "setNonblocking(#) fcntl failed due to Cannot allocate memory"},
        {"bind", "", "Cannot bind netlink socket Cannot allocate memory"},
        {"getsockname", "", "Cannot getsockname Cannot allocate memory"},
    };
    netlinkHandle handle;
    const auto before = PavoTest::openDescriptors();
    const Traced traced;
    size_t n = 0;
    testing::internal::CaptureStderr();
    const unsigned failures = PavoTest::failEachSyscall(
        ENOMEM, [&] { return createNetlinkSocket(&handle, 0, "", SOCK_RAW, true, NETLINK_ROUTE); },
        [&](const PavoTest::FailSyscall& fail, int result, int errnoLeft) {
            const std::string printed = testing::internal::GetCapturedStderr();
            ASSERT_LT(n, std::size(faults));
            const auto& fault = faults[n++];
            EXPECT_STREQ(fail.name(), fault.call);
            EXPECT_EQ(result, -1);
            EXPECT_EQ(errnoLeft, ENOMEM);
            EXPECT_EQ(handle.fd, -1);
            EXPECT_EQ(PavoTest::openDescriptors(), before);
            EXPECT_EQ(printed, fault.printed);
            std::string trace = fault.trace;
            if (const size_t at = trace.find('#'); at != std::string::npos) {
                trace.replace(at, 1, std::to_string(fail.argument(0)));
            }
            EXPECT_EQ(traced.take(), trace);
            testing::internal::CaptureStderr();
        });
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(failures, std::size(faults));
    closeNetlinkSocket(&handle);
    EXPECT_EQ(handle.fd, -1);
    EXPECT_EQ(PavoTest::openDescriptors(), before);
}

class NetlinkLinkTest : public PavoTest::SandboxTest {
  protected:
    void SetUp() override {
        SANDBOX_OR_SKIP();
        PavoTest::makeNetns("nlns");
        PavoTest::makeVethPair("nl0", "", "nl1", "");
        index_ = if_nametoindex("nl0");
        ASSERT_EQ(createNetlinkSocket(&handle_, 0, "", SOCK_RAW, false, NETLINK_ROUTE), 0);
    }
    void TearDown() override {
        if (PavoTest::Sandbox::isEntered()) {
            closeNetlinkSocket(&handle_);
            outputOf("ip link delete nl0");
            PavoTest::removeNetns("nlns");
        }
    }

    // Whatever its result.
    static std::string outputOf(const std::string& command) {
        return PavoTest::run({"sh", "-c", "PATH=$PATH:/usr/sbin:/sbin; " + command + "; true"});
    }

    netlinkHandle handle_;
    unsigned index_ = 0;
};

TEST_F(NetlinkLinkTest, OpensInTheNamespaceAsAskedFor) {
    for (const bool nonBlocking : {false, true}) {
        const Traced traced("9");
        netlinkHandle handle;
        ASSERT_EQ(createNetlinkSocket(&handle, RTMGRP_LINK | RTMGRP_NEIGH, "nlns", SOCK_RAW,
                                      nonBlocking, NETLINK_ROUTE),
                  0);
        EXPECT_EQ(traced.take(),
                  " opened netlink socket " + std::to_string(handle.fd) + " for ns nlns");
        EXPECT_EQ(fcntl(handle.fd, F_GETFL) & O_NONBLOCK, nonBlocking ? O_NONBLOCK : 0);
        EXPECT_EQ(fcntl(handle.fd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(handle.local.nl_family, AF_NETLINK);
        EXPECT_NE(handle.local.nl_pid, 0u);
        EXPECT_EQ(handle.local.nl_groups, 5u);
        struct stat space = {};
        const int spaceFd = ioctl(handle.fd, SIOCGSKNS);
        EXPECT_EQ(fstat(spaceFd, &space), 0);
        EXPECT_EQ(space.st_ino, PavoTest::netnsInode("nlns"));
        close(spaceFd);
        closeNetlinkSocket(&handle);
    }
}

TEST_F(NetlinkLinkTest, PutsLinksIntoGroupsAndDeletesThem) {
    const auto linksOf = [](const std::string& group) {
        const std::string list = outputOf("ip -o link show group " + group);
        return std::count(list.begin(), list.end(), '\n');
    };
    EXPECT_EQ(setDeviceGroup(&handle_, index_, 4711), 0);
    EXPECT_EQ(linksOf("4711"), 1);
    EXPECT_EQ(setDeviceGroup(&handle_, 1 << 20, 4711), -ENODEV);
    EXPECT_EQ(errno, ENODEV);

    const auto others = linksOf("default");
    EXPECT_EQ(delDeviceGroup(&handle_, 4712), -ENODEV);
    EXPECT_EQ(delDeviceGroup(&handle_, 0), -EPERM);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(linksOf("4711"), 1);
    EXPECT_EQ(linksOf("default"), others);
    EXPECT_EQ(delDeviceGroup(&handle_, 4711), 0);
    EXPECT_EQ(linksOf("4711"), 0);
    EXPECT_EQ(if_nametoindex("nl0"), 0u);
    EXPECT_EQ(linksOf("default"), others - 1);  // A pair ends together.
}

TEST_F(NetlinkLinkTest, AddsAQueueingDisciplineIfTheKernelKnowsIt) {
    const bool known =
        outputOf("tc qdisc add dev nl1 root handle 1: prio && echo known").find("known\n") == 0;
    const auto before = PavoTest::openDescriptors();
    const Traced traced("9");
    const int result = known ? 0 : -ENOENT;
    EXPECT_EQ(addPrioQdisc("nl0"), result);
    EXPECT_NE(traced.take().find("Sending netlink request for nl0Netlink request returned " +
                                 std::to_string(result)),
              std::string::npos);
    EXPECT_EQ(PavoTest::openDescriptors(), before);
    EXPECT_EQ(outputOf("tc qdisc show dev nl0").find("qdisc prio 1: root") == 0, known);
    EXPECT_EQ(addPrioQdisc("nl0"), known ? -EEXIST : -ENOENT);
    EXPECT_EQ(errno, known ? EEXIST : ENOENT);
}

// The message that a command sends last, as strace(1) shows it.
std::string lastMessageIn(const std::string& trace) {
    std::istringstream lines(trace);
    std::string message;
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 3, " | ") != 0) {
            continue;
        }
        if (line.compare(3, 5, "00000") == 0) {
            message.clear();
        }
        std::istringstream bytes(line.substr(10, 48));
        for (std::string byte; bytes >> byte;) {
            message += static_cast<char>(std::stoi(byte, nullptr, 16));
        }
    }
    return message;
}

TEST_F(NetlinkLinkTest, SendsWhatTheToolsSend) {
    // What differs: where, and the bytes in hexadecimal, "" for none. Four bytes of "any" value
    // differ by chance, since each program numbers its messages as it likes.
    struct Difference {
        const char* field;
        size_t at;
        std::string ours;
        std::string theirs;
    };
    const Difference number = {"nlmsg_seq", 8, "any", "any"};
    const struct {
        const char* command;
        std::function<int()> request;
        std::vector<Difference> differences;
    } cases[] = {
        {"tc qdisc add dev nl0 root handle 1: prio",
         [] { return addPrioQdisc("nl0"); },
         {{"nlmsg_len", 0, "48000000", "4c000000"},
          number,
          {"length of TCA_OPTIONS", 48, "1800", "1c00"},
          // tc puts a list of further options there, which has none and is not looked at.
          {"an empty list in TCA_OPTIONS", 72, "", "04000200"}}},
        {"ip link set dev nl0 group 4711",
         [this] { return setDeviceGroup(&handle_, index_, 4711); },
         // RTM_NEWLINK without NLM_F_CREATE changes a link that is there, as RTM_SETLINK does.
         {{"nlmsg_type", 4, "1300", "1000"}, number}},
        {"ip link set dev nl0 netns nlns",
         [] { return moveIntfNetNs("nl0", "", "nlns"); },
         {{"nlmsg_len", 0, "30000000", "28000000"},
          number,
          // Ours leaves the search to the kernel.
          {"ifi_index", 20, "00000000", hex({reinterpret_cast<char*>(&index_), 4})},
          {"IFLA_NET_NS_FD, a descriptor", 36, "any", "any"},
          {"IFLA_IFNAME, the name to keep", 40, "080003006e6c3000", ""}}},
        {"ip link delete group 4712", [this] { return delDeviceGroup(&handle_, 4712); }, {number}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        PavoTest::FailSyscall fail(1, ECONNREFUSED, "send");
        EXPECT_EQ(c.request(), -1);
        EXPECT_EQ(errno, ECONNREFUSED);
        fail.disarm();
        std::string ours = hex(fail.sent());
        const std::string theirs = hex(lastMessageIn(
            outputOf(std::string("strace -f -e trace=sendmsg,sendto -e write=all ") + c.command)));
        // From the end, so that what is put in moves nothing that is still to be looked at.
        for (auto d = c.differences.rbegin(); d != c.differences.rend(); ++d) {
            const size_t at = 2 * d->at;
            const bool any = d->ours == "any";
            ASSERT_LE(at, ours.size()) << d->field;
            const size_t digits = any ? 8 : d->ours.size();
            EXPECT_TRUE(any || ours.substr(at, digits) == d->ours) << d->field << " in " << ours;
            ours.replace(at, digits, any ? theirs.substr(at, digits) : d->theirs);
        }
        EXPECT_EQ(ours, theirs);
    }
}

}  // namespace
}  // namespace Pavo
