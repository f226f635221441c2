#include "Pavo/TcpFd.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "Mox/EventLoop.h"
#include "Mox/Exception.h"
#include "support/SandboxTest.h"

namespace Pavo {
namespace {

using Registration = TcpFileDescriptorEventRegistration;

TEST(TcpFd, OpensNonBlockingSocketsThatTheLastHolderCloses) {
    const auto before = PavoTest::openDescriptors();
    for (const AddressFamily af : {ipv4, ipv6}) {
        const auto fd = TcpFileDescriptor::socket(af, NamespaceName(), /*edgeTriggered=*/true);
        ASSERT_TRUE(fd);
        EXPECT_NE(fcntl(fd->descriptor(), F_GETFL) & O_NONBLOCK, 0);
        EXPECT_EQ(fcntl(fd->descriptor(), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(fd->stringValue(), "Value('Pavo::TcpFileDescriptor', ** {'descriptor': " +
                                         Mox::String(std::to_string(fd->descriptor())) +
                                         ", 'edgeTriggered': true})");
    }
    EXPECT_EQ(PavoTest::openDescriptors(), before);
    EXPECT_FALSE(TcpFileDescriptor::socket(ipv4, NamespaceName("nowhere"), false));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_DEATH(TcpFileDescriptor::socket(ipunknown, NamespaceName(), false), "Unknown af");
    EXPECT_DEATH(TcpFileDescriptor::socketAccept(0, ipunknown, NamespaceName(), false),
                 "Unknown af");
}

// Two joined sockets, the first of which is watched.
class RegistrationTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends_), 0);
    }
    void TearDown() override { close(ends_[1]); }
    Mox::Ptr<Registration> registered(bool edgeTriggered) {
        const auto factory = tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
        return factory->createEventRegistration(tcpFileDescriptorFactory(ends_[0], edgeTriggered));
    }

    Mox::EventLoop loop_;
    int ends_[2] = {-1, -1};
};

class ReadinessTest : public RegistrationTest, public testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(Watching, ReadinessTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "Edge" : "Level"; });

TEST_P(ReadinessTest, IsReportedWhileEnabledAndOfInterest) {
    const auto registration = registered(GetParam());
    ASSERT_EQ(send(ends_[1], "x", 1, 0), 1);
    const struct {
        bool enabled, readable, writable;
        uint32_t reads, writes;  // Events in two turns, level-triggered.
    } cases[] = {
        {false, true, true, 0, 0}, {true, true, false, 2, 0},  {true, false, true, 0, 2},
        {true, true, true, 2, 2},  {true, false, false, 0, 0},
    };
    for (const auto& c : cases) {
        registration->enabledIs(false);
        registration->notifyOnReadableIs(c.readable);
        registration->notifyOnWritableIs(c.writable);
        registration->enabledIs(c.enabled);
        const uint32_t reads = registration->readableCount();
        const uint32_t writes = registration->writableCount();
        loop_.turn(0);
        loop_.turn(0);
        const uint32_t share = GetParam() ? 2 : 1;  // What is there comes once.
        EXPECT_EQ(registration->readableCount() - reads, c.reads / share);
        EXPECT_EQ(registration->writableCount() - writes, c.writes / share);
    }
}

TEST_F(RegistrationTest, AnInterestThatTheKernelRefusesIsUnchanged) {
    const auto factory = tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
    const auto first = registered(/*edgeTriggered=*/false);
    const auto second = factory->createEventRegistration(first->fileDescriptor());
    uint32_t notifications = 0;
    const Mox::Watch<Registration> watch(second, Mox::allAttributes,
                                         [&](const Mox::Change&) { ++notifications; });
    first->enabledIs(true);
    first->notifyOnReadableIs(true);
    second->enabledIs(true);
    // The loop watches a descriptor once.
    EXPECT_THROW(second->notifyOnWritableIs(true), Mox::ErrnoException);
    EXPECT_FALSE(second->notifyOnWritable());
    second->enabledIs(false);
    second->notifyOnWritableIs(true);
    notifications = 0;
    EXPECT_THROW(second->enabledIs(true), Mox::ErrnoException);
    EXPECT_FALSE(second->enabled());
    EXPECT_EQ(notifications, 0u);
    first->enabledIs(false);
    second->enabledIs(true);
    EXPECT_EQ(loop_.turn(0), 1u);
    EXPECT_EQ(second->writableCount(), 1u);
}

TEST_F(RegistrationTest, LeavesTheDescriptorOpenAndMayBeDroppedByItsObserver) {
    const uint32_t objects = Mox::liveObjects();
    auto registration = registered(/*edgeTriggered=*/false);
    const auto fd = registration->fileDescriptor();
    {
        const Mox::Watch<Registration> writable(registration, Registration::writableCountAttr,
                                                [&registration] { registration = nullptr; });
        registration->notifyOnReadableIs(true);
        registration->notifyOnWritableIs(true);
        registration->enabledIs(true);
        EXPECT_GT(loop_.turn(0), 0u);
    }
    EXPECT_FALSE(registration);
    EXPECT_EQ(send(ends_[1], "x", 1, 0), 1);
    EXPECT_EQ(loop_.turn(0), 0u);
    EXPECT_NE(fcntl(fd->descriptor(), F_GETFD), -1);
    EXPECT_EQ(Mox::liveObjects(), objects + 1);
}

TEST_F(RegistrationTest, TakesInjectedEventsOfItsInterests) {
    TcpFileDescriptorEventRegistrationFactory factory;
    const auto registration =
        factory.createEventRegistration(tcpFileDescriptorFactory(ends_[0], false));
    EXPECT_DEATH(registration->handleReadable(), ": enabled\\(\\)");
    registration->enabledIs(true);
    EXPECT_DEATH(registration->handleReadable(), "notifyOnReadable\\(\\)");
    EXPECT_DEATH(registration->handleWritable(), "notifyOnWritable\\(\\)");
    registration->notifyOnReadableIs(true);
    registration->handleReadable();
    EXPECT_EQ(registration->readableCount(), 1u);
    EXPECT_EQ(registration->stringValue(),
              "<fd=" + Mox::String(std::to_string(ends_[0])) + ";read=1;write=0>");
}

}  // namespace
}  // namespace Pavo
