// Recordings of what sessions exchange with the kernel, and sessions over them.
#include "Pavo/NetlinkRecorder.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "Mox/EventLoop.h"
#include "Pavo/NetlinkSession.h"
#include "support/SandboxTest.h"
#include "support/Tshark.h"

namespace Pavo {
namespace {

using Texts = std::vector<std::string>;

const std::string refused = "answer 22 Invalid prefix for given prefix length";
const struct Kind {
    const char* name;  // And of the file of its recording.
    uint16_t getType;
    uint32_t group;
} kinds[] = {{"links", RTM_GETLINK, RTNLGRP_LINK},
             {"addresses", RTM_GETADDR, RTNLGRP_IPV4_IFADDR},
             {"neighbours", RTM_GETNEIGH, RTNLGRP_NEIGH},
             {"routes", RTM_GETROUTE, RTNLGRP_IPV4_ROUTE}};

// Notes the bytes of messages.
struct Log : NetlinkFollower {
    void callback(nlmsghdr* message) override {
        texts.emplace_back(reinterpret_cast<const char*>(message), message->nlmsg_len);
    }
    void handleDumpBegin(uint16_t) override { texts.emplace_back("begin"); }
    bool handleDumpEnd(uint16_t) override {
        texts.emplace_back("end");
        return true;
    }

    Texts texts;
};

// What an agent sees that follows a table, then asks for a link and for a route that is refused.
Texts exchanged(const Kind& kind, NetlinkSession& session, const std::function<void()>& turn) {
    Log log;
    const auto answered = [&log](const NetlinkAnswer& answer) {
        log.texts.push_back("answer " + std::to_string(answer.error) + ' ' + answer.text.c_str());
    };
    session.followIs(kind.getType, {kind.group}, &log, AF_INET);
    session.enabledIs(true);
    for (int turns = 0; turns < 200 && !session.isInSync(); ++turns) {
        turn();
    }
    NetlinkMessage link(RTM_GETLINK);
    link.bodyIs<ifinfomsg>().ifi_index = 1;
    session.requestIs(link, answered, [&log](const nlmsghdr&) { log.texts.emplace_back("link"); });
    NetlinkMessage route(RTM_NEWROUTE, NLM_F_CREATE);
    route.bodyIs<rtmsg>() = {AF_INET, 8, 0, 0, RT_TABLE_MAIN, RTPROT_STATIC, 0, RTN_UNICAST, 0};
    route.attributeIs(RTA_DST, htonl(0x0a000001));
    session.requestIs(route, answered);
    for (int turns = 0; turns < 200 && log.texts.back() != refused; ++turns) {
        turn();
    }
    session.enabledIs(false);
    session.followDel(&log);
    return log.texts;
}

Texts played(const Kind& kind, const std::string& path, double pauseSeconds = 0) {
    Mox::ManualClock clock;
    const auto player = netlinkPlayerFactory(path, &clock);
    const auto session = netlinkSessionFactory("played", NamespaceName(), &clock);
    session->portOpenerIs(player->opener());
    const Texts log = exchanged(kind, *session, [&clock] { clock.advance(0.0625); });
    EXPECT_EQ(player->difference(), "");
    EXPECT_GT(clock.now(), pauseSeconds);
    EXPECT_TRUE(player->isAtEnd());
    return log;
}

// A copy of a recording, with its last datagram 2^32 ns later: 4.3 s.
std::string delayed(const std::string& path, const std::string& folder) {
    std::string file = PavoTest::fileText(path);
    const auto wordAt = [&](std::size_t at) { return reinterpret_cast<uint32_t*>(&file[at]); };
    const std::size_t lastBlock = file.size() - *wordAt(file.size() - 4);
    ++*wordAt(lastBlock + 12);  // The high word of the time, after type, length and interface.
    std::ofstream(folder + "/delayed.pcapng", std::ios::binary) << file;
    return folder + "/delayed.pcapng";
}

using NetlinkRecorderTest = PavoTest::SandboxTest;

TEST_F(NetlinkRecorderTest, RecordsExchangesThatPlayBackTheSame) {
    const PavoTest::Wire wire;
    const PavoTest::TempFolder folder;
    PavoTest::run({"ip", "-n", "left", "neigh", "add", "192.0.2.9", "lladdr", "02:00:00:00:00:09",
                   "dev", "veth-left"});
    for (const Kind& kind : kinds) {
        // Those to be kept go to the folder that is named there.
        const char* const kept = std::getenv("PAVO_KEEP_RECORDINGS");
        const std::string path = (kept ? kept : folder.path) + '/' + kind.name + ".pcapng";
        const NamespaceName left(Mox::String("left"));
        Mox::EventLoop loop;
        const auto file = captureFileFactory(path);
        const auto session = netlinkSessionFactory("recorded", left, loop.clock());
        session->portOpenerIs(netlinkRecorder(file, netlinkSocketOpener(left)));
        const Texts log = exchanged(kind, *session, [&loop] { loop.turn(0.1); });
        file->flush();
        EXPECT_EQ(played(kind, path), log);
        // The requests: the dump of the table, then the link and the route.
        const std::string shown = PavoTest::run(
            {"tshark", "-r", path, "-Y", "netlink-route && frame.packet_flags_direction == 2", "-T",
             "fields", "-e", "netlink-route.nltype"});
        EXPECT_THAT(shown, testing::EndsWith(std::to_string(kind.getType) + "\n18\n24\n"));
    }
}

TEST(NetlinkRecorder, PlaysBackRecordingsWithoutAKernel) {
    const PavoTest::TempFolder folder;
    for (const Kind& kind : kinds) {
        const std::string path = std::string(PAVO_RECORDINGS "/") + kind.name + ".pcapng";
        const std::string copy = delayed(path, folder.path);
        EXPECT_EQ(played(kind, copy, /*pauseSeconds=*/4).back(), refused);
    }
    Mox::ManualClock clock;
    const auto player = netlinkPlayerFactory(PAVO_RECORDINGS "/links.pcapng", &clock);
    const auto session = netlinkSessionFactory("other", NamespaceName(), &clock);
    session->portOpenerIs(player->opener());
    session->enabledIs(true);
    int error = 0;
    session->requestIs(NetlinkMessage(RTM_GETLINK),
                       [&error](const NetlinkAnswer& answer) { error = answer.error; });
    clock.advance(1);
    EXPECT_EQ(error, EPROTO);
    EXPECT_EQ(player->difference(), "datagram 0 differs");
}

}  // namespace
}  // namespace Pavo
