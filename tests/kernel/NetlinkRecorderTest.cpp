// Recordings of what sessions exchange with the kernel, and sessions over them.
#include "Pavo/NetlinkRecorder.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "Mox/EventLoop.h"
#include "Pavo/NetlinkAttributes.h"
#include "Pavo/NetlinkSession.h"
#include "support/SandboxTest.h"

namespace Pavo {
namespace {

// What an agent does and sees: follows a table, and asks for something. `turn` brings events on.
struct Exchange : NetlinkFollower {
    const char* name;  // And of the file of its recording.
    uint16_t getType;
    uint32_t group;
    std::vector<std::string> log = {};

    Exchange(const char* itsName, uint16_t itsGetType, uint32_t itsGroup)
        : name(itsName), getType(itsGetType), group(itsGroup) {}

    void callback(nlmsghdr* message) override {
        note(std::to_string(message->nlmsg_type), *message);
    }
    void handleDumpBegin(uint16_t) override { log.emplace_back("begin"); }
    void handleDumpEnd(uint16_t) override { log.emplace_back("end"); }
    // With the name of a link, or the address in attribute 1, as IFA_ADDRESS, NDA_DST and RTA_DST.
    void note(std::string line, const nlmsghdr& message) {
        const bool isAddress = getType == RTM_GETADDR;
        const bool isLink = getType == RTM_GETLINK;
        const NetlinkAttributes attributes(message,
                                           isLink      ? sizeof(ifinfomsg)
                                           : isAddress ? 8
                                                       : 12,
                                           /*highest=*/3);
        char text[INET_ADDRSTRLEN] = "";
        if (const auto bytes = attributes.payload(1); bytes.size() == sizeof(in_addr)) {
            (void)inet_ntop(AF_INET, bytes.data(), text, sizeof(text));
        }
        log.push_back(line + ' ' + (isLink ? std::string(attributes.text(IFLA_IFNAME)) : text));
    }
    void noteEnd(const NetlinkAnswer& answer) {
        log.push_back("answer " + std::to_string(answer.error) + ' ' + answer.text.c_str());
    }

    void run(const Mox::Ptr<NetlinkSession>& session, const std::function<void()>& turn) {
        const auto until = [&](auto condition) {
            for (int turns = 0; turns < 200 && !condition(); ++turns) {
                turn();
            }
            EXPECT_TRUE(condition()) << name;
        };
        session->followIs(getType, {group}, this, AF_INET);
        session->enabledIs(true);
        until([&] { return session->isInSync(); });
        bool isDone = false;
        NetlinkMessage link(RTM_GETLINK);
        link.bodyIs<ifinfomsg>().ifi_index = 1;
        session->requestIs(
            link, [&](const NetlinkAnswer& answer) { noteEnd(answer); },
            [&](const nlmsghdr& message) {
                log.push_back("link " + std::to_string(message.nlmsg_type));
            });
        NetlinkMessage route(RTM_NEWROUTE, NLM_F_CREATE);
        route.bodyIs<rtmsg>() = {AF_INET, 8, 0, 0, RT_TABLE_MAIN, RTPROT_STATIC, 0, RTN_UNICAST, 0};
        route.attributeIs(RTA_DST, htonl(0x0a000001));
        session->requestIs(route, [&](const NetlinkAnswer& answer) {
            noteEnd(answer);
            isDone = true;
        });
        until([&] { return isDone; });
        session->enabledIs(false);
        session->followDel(this);
    }
};

std::vector<Exchange> exchanges() {
    return {{"links", RTM_GETLINK, RTNLGRP_LINK},
            {"addresses", RTM_GETADDR, RTNLGRP_IPV4_IFADDR},
            {"neighbours", RTM_GETNEIGH, RTNLGRP_NEIGH},
            {"routes", RTM_GETROUTE, RTNLGRP_IPV4_ROUTE}};
}

// The log of what comes of an exchange that is played back.
std::vector<std::string> played(Exchange exchange, const std::string& path) {
    exchange.log.clear();
    Mox::ManualClock clock;
    const auto player = netlinkPlayerFactory(path, &clock);
    const auto session = netlinkSessionFactory("played", NamespaceName(), &clock);
    session->portOpenerIs(player->opener());
    exchange.run(session, [&clock] { clock.advance(0.001); });
    EXPECT_EQ(player->difference(), "");
    EXPECT_TRUE(player->isAtEnd());
    return exchange.log;
}

using NetlinkRecorderTest = PavoTest::SandboxTest;

TEST_F(NetlinkRecorderTest, RecordsExchangesThatPlayBackTheSame) {
    const PavoTest::Wire wire;
    PavoTest::run({"ip", "-n", "left", "neigh", "add", "192.0.2.9", "lladdr", "02:00:00:00:00:09",
                   "dev", "veth-left"});
    for (Exchange exchange : exchanges()) {
        const std::string path = testing::TempDir() + "netlink-" + exchange.name + ".pcapng";
        const NamespaceName left(Mox::String("left"));
        Mox::EventLoop loop;
        const auto file = captureFileFactory(path);
        const auto session = netlinkSessionFactory("recorded", left, loop.clock());
        session->portOpenerIs(netlinkRecorder(file, netlinkSocketOpener(left)));
        exchange.run(session, [&loop] { loop.turn(0.1); });
        file->flush();
        EXPECT_EQ(played(exchange, path), exchange.log);
        // The first requests of a session: the dump of the table, then the link and the route.
        const std::string shown = PavoTest::run(
            {"tshark", "-r", path, "-Y", "netlink-route && frame.packet_flags_direction == 2", "-T",
             "fields", "-e", "netlink-route.nltype"});
        EXPECT_THAT(shown, testing::EndsWith(std::to_string(exchange.getType) + "\n18\n24\n"));
        if (std::getenv("PAVO_KEEP_RECORDINGS") == nullptr) {
            EXPECT_EQ(unlink(path.c_str()), 0);
        }
    }
}

TEST(NetlinkRecorder, PlaysBackRecordingsWithoutAKernel) {
    const std::string refused = "answer 22 Invalid prefix for given prefix length";
    const std::vector<std::string> logs[] = {
        {"begin", "16 lo", "16 veth-left", "end", "link 16", "answer 0 ", refused},
        {"begin", "20 127.0.0.1", "20 192.0.2.1", "end", "link 16", "answer 0 ", refused},
        {"begin", "28 192.0.2.9", "end", "link 16", "answer 0 ", refused},
        {"begin", "24 192.0.2.0", "24 127.0.0.0", "24 127.0.0.1", "24 127.255.255.255",
         "24 192.0.2.1", "24 192.0.2.255", "end", "link 16", "answer 0 ", refused}};
    const std::vector<std::string>* log = logs;
    for (const Exchange& each : exchanges()) {
        EXPECT_EQ(played(each, std::string(PAVO_RECORDINGS "/") + each.name + ".pcapng"), *log++);
    }
}

}  // namespace
}  // namespace Pavo
