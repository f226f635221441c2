#include "Mox/Trace.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/SandboxTest.h"

namespace {

TEST(TraceTest, GoesToSyslogWithAPriorityForEachLevelAndErrnoUnchanged) {
    SANDBOX_OR_SKIP();
    ASSERT_EQ(mount("tmpfs", "/dev", "tmpfs", 0, ""), 0);
    const sockaddr_un address = {AF_UNIX, "/dev/log"};
    const int logger = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(logger, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    openlog("agent", 0, LOG_DAEMON);
    Mox::traceSinkIs(Mox::syslogTraceSink);
    const Mox::TraceFacility facility("moxtest::Unit");
    const int priorities[] = {3, 4, 5, 6, 6, 6, 7, 7, 7, 7};  // RFC 5424, 6.2.1: 3 is "error".
    for (int level = 0; level < 10; ++level) {
        Mox::traceWrite(facility, level, "100%s of " + std::to_string(level));
        char text[200] = "";
        EXPECT_GT(recv(logger, text, sizeof(text) - 1, 0), 0);
        const std::string got = text;
        EXPECT_TRUE(got.starts_with("<" + std::to_string(LOG_DAEMON | priorities[level]) + ">"))
            << got;
        EXPECT_TRUE(got.ends_with(" agent: moxtest::Unit: 100%s of " + std::to_string(level)))
            << got;
    }
    close(logger);
    errno = ERANGE;
    Mox::syslogTraceSink("moxtest::Unit", 0, "no logger listens");
    EXPECT_EQ(errno, ERANGE);
    Mox::traceSinkIs(nullptr);
    closelog();
    EXPECT_EQ(umount("/dev"), 0);
}

}  // namespace
