#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "Mox/Trace.h"
#include "Pavo/SockBufUtils.h"
#include "Pavo/SocketAt.h"
#include "netns/netns.h"
#include "support/FailSyscall.h"
#include "support/SandboxTest.h"

namespace Pavo {
namespace {

std::string traced;

class SocketTest : public PavoTest::SandboxTest {
  protected:
    SocketTest() {
        Mox::traceSinkIs([](const char* facility, int level, std::string_view message) {
            traced += std::string(facility) + "/" + std::to_string(level) + " " +
                      std::string(message) + "\n";
        });
        Mox::traceSettingsIs("Pavo::SockBufUtils/0-9,Pavo::SocketAt/0-9");
    }
    ~SocketTest() override {
        Mox::traceSettingsIs("Pavo::SockBufUtils/,Pavo::SocketAt/");
        Mox::traceSinkIs(nullptr);
    }
};

TEST_F(SocketTest, BufferSizesAreTriedWithPrivilegeFirst) {
    const auto warning = [](int fd, const std::string& option, const char* why) {
        return "Pavo::SockBufUtils/1 setOptWithFallback warning: failed to set primary " + option +
               " for socket " + std::to_string(fd) + ": " + why + "\n";
    };
    const std::string badSend = warning(-1, "SO_SNDBUF", "Bad file descriptor") +
                                "Pavo::SockBufUtils/1 setOptWithFallback error: failed to set "
                                "fallback SO_SNDBUF for socket -1: Bad file descriptor\n";
    const int good = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const struct {
        int fd, sndBuf, rcvBuf;
        unsigned failing;  // The call that is made to fail, from 1.
        unsigned calls;
        int result;
        std::string trace;
    } cases[] = {
        {good, -1, -1, 0, 0, 0, ""},
        {good, 8192, 8192, 0, 2, 0, ""},
        {good, 8192, -1, 1, 2, 0, warning(good, "SO_SNDBUF", "Operation not permitted")},
        {good, -1, 8192, 1, 2, 0, warning(good, "SO_RCVBUF", "Operation not permitted")},
        {-1, 8192, 8192, 0, 2, -1, badSend},  // The receive buffer is not tried any more.
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        traced.clear();
        PavoTest::FailSyscall fail(c.failing, EPERM, "setsockopt");
        errno = 0;
        const int result = setSocketBufferSize(c.fd, c.sndBuf, c.rcvBuf);
        const int error = errno;
        fail.disarm();
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(error, c.result == 0 ? 0 : EBADF);
        EXPECT_EQ(fail.count(), c.calls);
        EXPECT_EQ(traced, c.trace);
    }
    close(good);
}

TEST_F(SocketTest, OpensInTheNamedNamespaceAndSaysWhatFailed) {
    PavoTest::makeNetns("blue");
    traced.clear();
    const auto here = PavoTest::threadNetnsInode();
    const int fd = socket_at(AF_INET, SOCK_DGRAM, 0, "blue");
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(traced,
              "Pavo::SocketAt/9 int Pavo::socketAt(int, int, int, const char*)\n"
              "Pavo::SocketAt/9  opened socket " +
                  std::to_string(fd) + "\n");
    close(fd);

    traced.clear();
    errno = 0;
    EXPECT_EQ(socketAt(AF_INET, SOCK_DGRAM, 0, "green"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_NE(traced.find("Pavo::SocketAt/0 netnsSocketAt failed : "), std::string::npos);
    EXPECT_NE(traced.find(netnsGetTracebuffer()), std::string::npos);
    EXPECT_EQ(PavoTest::threadNetnsInode(), here);
    PavoTest::removeNetns("blue");
}

}  // namespace
}  // namespace Pavo
