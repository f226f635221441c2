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

TEST_F(SocketTest, SetsBufferSizesWithPrivilegeAndElseWithout) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    traced.clear();
    PavoTest::FailSyscall fail(1, EPERM, "setsockopt");
    EXPECT_EQ(setSocketBufferSize(fd, 8192, 8192), 0);
    fail.disarm();
    EXPECT_EQ(fail.count(), 3u);  // The failed call, its fallback, and the other buffer.
    EXPECT_EQ(traced,
              "Pavo::SockBufUtils/1 setOptWithFallback warning: failed to set primary SO_SNDBUF "
              "for socket " +
                  std::to_string(fd) + ": Operation not permitted\n");
    close(fd);
    PavoTest::FailSyscall calls("setsockopt");
    EXPECT_EQ(setSocketBufferSize(-1, -1, -1), 0);  // Nothing to set.
    errno = 0;
    EXPECT_EQ(setSocketBufferSize(-1, 8192, 8192), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(calls.count(), 2u);  // The receive buffer is not tried.
}

TEST_F(SocketTest, OpensInTheNamedNamespaceAndTracesFailures) {
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
