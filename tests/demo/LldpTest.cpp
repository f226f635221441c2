// The LLDP agent: its frames, its table and its machine in virtual time, its endpoint on a wire.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Mox/Clock.h"
#include "Pavo/BuildPkt.h"
#include "Pavo/EthHdr.h"
#include "Pavo/PamConnector.h"
#include "lldp/LldpAgent.h"

namespace Lldp {
namespace {

Pdu pduOf(const std::string& name, uint16_t ttlSeconds) {
    Pdu pdu{.key = {{chassisMac, std::string("\2\0\0\0\0\1", 6)}, {portInterfaceName, name}}};
    pdu.ttlSeconds = ttlSeconds;
    pdu.portDescription = "a port";
    pdu.systemName = name;
    pdu.systemDescription = std::string(255, 'x');
    pdu.capabilities = router | bridge;
    pdu.enabledCapabilities = router;
    pdu.managementAddresses = {Pavo::IpAddr("192.0.2.1"), Pavo::Ip6Addr("2001:db8::1")};
    return pdu;
}

// Of bytes that end where the memory does, so that the address sanitizer sees a read past them.
std::optional<Pdu> parseExact(const std::string& bytes) {
    const auto copy = std::make_unique<uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    return parse({copy.get(), bytes.size()});
}

std::string tlv(uint8_t type, const std::string& value) {
    const size_t head = static_cast<size_t>(type) << 9 | value.size();
    return std::string{static_cast<char>(head >> 8), static_cast<char>(head)} + value;
}

TEST(LldpPdu, TakesWholeFieldsOnly) {
    const std::string good = image(pduOf("eth0", 120));
    EXPECT_EQ(parseExact(good + "padding"), pduOf("eth0", 120));
    uint32_t accepted = 0;
    for (size_t bytes = 0; bytes < good.size(); ++bytes) {
        accepted += parseExact(good.substr(0, bytes)) ? 1 : 0;
    }
    EXPECT_EQ(accepted, 7u);  // After the time to live, and after each field but the last.
}

TEST(LldpPdu, RefusesWhatIsNotInItsPlace) {
    const std::string chassis = tlv(1, "\4chassi"), port = tlv(2, "\5p"), ttl = tlv(3, {0, 9});
    const std::string head = chassis + port + ttl;
    const std::string bad[] = {port + chassis + ttl,
                               chassis + ttl + port,
                               chassis + port + tlv(5, "name"),
                               head + chassis,
                               head + ttl,
                               tlv(1, "\4") + port + ttl,
                               tlv(1, std::string(257, 'i')) + port + ttl,
                               chassis + port + tlv(3, "9")};
    const std::string good[] = {
        head,
        head + tlv(0, "") + chassis,
        tlv(1, std::string(256, 'i')) + port + ttl,
        head + tlv(127, std::string(511, 'o')),
        head + tlv(7, {0, 4}),
        head + tlv(8, {5, 1, 1, 2, 3, 4}),                     // Cut after the address,
        head + tlv(8, {0, 1, 0, 0, 0, 0, 0, 0}),               // without one,
        head + tlv(8, {5, 2, 1, 2, 3, 4, 1, 0, 0, 0, 0, 0})};  // and of another length.
    for (const std::string& each : bad) {
        EXPECT_FALSE(parseExact(each)) << printable(each);
    }
    for (const std::string& each : good) {
        const auto pdu = parseExact(each);
        EXPECT_TRUE(pdu && pdu->managementAddresses.empty() && pdu->capabilities == 0)
            << printable(each);
    }
    EXPECT_EQ(parseExact(head + tlv(5, "one") + tlv(5, "two"))->systemName, "one");
    EXPECT_EQ(printable("a\x1b[2J\xff"), "a\\x1b[2J\\xff");
}

TEST(NeighbourTable, RemovesEachNeighbourInTime) {
    Mox::ManualClock clock;
    const auto table = Mox::make<NeighbourTable>(&clock);
    std::vector<std::string> events;
    const Mox::Watch<NeighbourTable> watch(
        table, NeighbourTable::neighbourAttr, [&](const Key& key) {
            events.push_back((table->neighbour(key) ? "+" : "-") + key.port.bytes + " at " +
                             std::to_string(static_cast<int>(clock.now())));
        });
    table->neighbourIs(pduOf("a", 3));
    table->neighbourIs(pduOf("b", 3));
    table->neighbourIs(pduOf("c", 10));
    clock.advance(2);
    table->neighbourIs(pduOf("a", 3));  // Nothing new.
    table->neighbourIs(pduOf("b", 9));
    clock.advance(7);
    table->neighbourIs(pduOf("c", 0));
    clock.advance(100);
    EXPECT_EQ(events, (std::vector<std::string>{"+a at 0", "+b at 0", "+c at 0", "+b at 2",
                                                "-a at 5", "-c at 9", "-b at 11"}));
    for (uint32_t i = 0; i < 40; ++i) {
        table->neighbourIs(pduOf(std::to_string(i), 3));
    }
    EXPECT_EQ(table->neighbour().members(), NeighbourTable::maxNeighbours);
    EXPECT_EQ(table->tooManyNeighbours(), 8u);
}

TEST(LldpAgent, AnswersNewNeighboursAndMayBeDestroyedByAnObserver) {
    Mox::ManualClock clock;
    const auto wire = Pavo::pamConnectorFactory(&clock);
    const auto sent = wire->pam("pam0");
    auto agent = std::make_unique<LldpAgent>(AgentConfig{.own = pduOf("a", 0)}, sent, &clock);
    const auto receive = [&](const std::string& name) {
        wire->pam("pam1")->txPktIs(Pavo::buildPkt(
            Pavo::Eth{.dst = nearestBridge, .type = Pavo::EthType::lldp}, image(pduOf(name, 100))));
        clock.advance(0.5);
    };
    clock.advance(10);
    EXPECT_EQ(sent->peekPktCount(), 1u);
    receive("b");
    receive("b");
    clock.advance(10);
    EXPECT_EQ(sent->peekPktCount(), 5u);
    for (int i = 0; i < 20; ++i) {  // In ten seconds.
        receive(std::to_string(i));
    }
    EXPECT_LE(sent->peekPktCount(), 16u);
    const Mox::Watch<NeighbourTable> watch(agent->table(), NeighbourTable::neighbourAttr,
                                           [&](const Key&) { agent = nullptr; });
    receive("c");
    EXPECT_EQ(agent, nullptr);
}

}  // namespace
}  // namespace Lldp
