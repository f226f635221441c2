/// @file
/// What the tests of endpoints share.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Mox/Exception.h"
#include "Pavo/FdPam.h"
#include "Pavo/RawIpPam.h"
#include "Pavo/deferClose.h"
#include "support/FailSyscall.h"
#include "support/SandboxTest.h"

namespace Pavo {

using PavoTest::Wire;
using Texts = std::vector<std::string>;

inline Mox::Ptr<Pkt> pktOf(std::string_view bytes) {
    const Mox::Ptr<Pkt> pkt = globalPktManager()->newPkt();
    pkt->stringValueIs(bytes, /*atTail=*/true);
    return pkt;
}

inline IpGenAddr addr(const char* text) {
    return Mox::fromText<IpGenAddr>(text);
}

// A packet that begins with its own header, of the family of its addresses.
inline Mox::Ptr<Pkt> pktWithHeader(const std::string& text, char ttl, const IpGenAddr& source,
                                   const IpGenAddr& destination) {
    const bool six = source.af() == ipv6;
    std::string header(six ? 40 : 20, '\0');
    header[0] = six ? 0x60 : 0x45;
    header[5] = six ? static_cast<char>(text.size()) : 0;  // The kernel of IPv4 fills in its own.
    header[six ? 6 : 9] = static_cast<char>(IpProtocolNumber::experiment1);
    header[six ? 7 : 8] = ttl;
    auto* const bytes = reinterpret_cast<unsigned char*>(header.data());
    source.copyToBuffer(bytes + (six ? 8 : 12));
    destination.copyToBuffer(bytes + (six ? 24 : 16));
    return pktOf(header + text);
}

inline std::string thrown(const std::string& text, int error) {
    return text + " (" + std::to_string(error) + ")";
}

// What was thrown, as "text (errno)" or "text"; "" for nothing.
inline std::string errorOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const Mox::ErrnoException& error) {
        return thrown(error.message().c_str(), error.errnoValue());
    } catch (const Mox::Exception& error) {
        return error.what();
    }
    return "";
}

// The same where the n-th setting of an option fails.
inline std::string errorOfFailing(unsigned n, int error, const std::function<void()>& call) {
    const PavoTest::FailSyscall fail(n, error, "setsockopt");
    return errorOf(call);
}

template <class Endpoint>
Mox::Ptr<Endpoint> opened(const Mox::Ptr<Endpoint>& pam) {
    pam->enabledIs(true);
    return pam;
}

// Enabling it fails, and opens nothing.
inline void expectRefuses(const Mox::Ptr<FdPam>& pam, const char* call, int error) {
    EXPECT_EQ(errorOf([&] { pam->enabledIs(true); }), thrown(call, error));
    EXPECT_FALSE(pam->enabled());
    EXPECT_EQ(pam->fileDesc(), nullptr);
}

// Each call of enabling fails in turn: the error names it, and nothing stays open. Those that look
// for a namespace have the text of `openers`. In the end the endpoint is enabled.
inline unsigned enableWhole(const Mox::Ptr<FdPam>& pam, const std::string& openers) {
    (void)deferClose(dup(0));  // Starts its thread.
    deferCloseWait();
    const auto before = PavoTest::openDescriptors();
    return PavoTest::failEachSyscall(
        EPERM, [&] { return errorOf([&] { pam->enabledIs(true); }); },
        [&](const auto& fail, const std::string& error, int) {
            const bool isNamed = error.find(fail.name()) != std::string::npos;
            EXPECT_TRUE(isNamed || openers.find(error.substr(0, 6)) != std::string::npos) << error;
            EXPECT_FALSE(pam->enabled());
            deferCloseWait();
            EXPECT_EQ(PavoTest::openDescriptors(), before);
        },
        "!setns");  // Whose failure on the way back ends the process.
}

template <class Endpoint>
int optionOf(const Endpoint& pam, int level, int option) {
    int value = 0;
    socklen_t length = sizeof(value);
    EXPECT_EQ(getsockopt(pam.fileDesc()->descriptor(), level, option, &value, &length), 0);
    return value;
}

template <class Endpoint>
void optionIs(const Endpoint& pam, int option, int value) {
    ASSERT_EQ(setsockopt(pam.fileDesc()->descriptor(), SOL_SOCKET, option, &value, sizeof(value)),
              0);
}

// What is known of a received packet, on one line.
inline std::string textOf(const IpGenAddr& source, const IpGenAddr& destination,
                          const IpGenAddr& origDestination, uint32_t ifIndex, int tos, int ttl) {
    std::ostringstream out;
    out << source << " > " << destination << " (" << origDestination << ") on " << ifIndex
        << " TOS " << tos << " TTL " << ttl;
    return out.str();
}
inline std::string textOf(const RxInfo& info) {
    return textOf(info.srcIpAddr, info.dstIpAddr, info.origDstIpAddr, info.ifIndex, info.tos,
                  info.ttl);
}
inline std::string rxAttributes(const RawIpPam& pam) {
    return textOf(pam.rxSrcIpAddr(), pam.rxDstIpAddr(), pam.rxOrigDstIpAddr(), pam.rxIfIndex(),
                  pam.rxTOS(), pam.rxTTL());
}

// Passes on all that can be read. A failed read, such as of an error, does not end it.
template <class Endpoint, class Take>
void readAll(Endpoint& pam, bool inBatches, Take take) {
    for (int failed = 0; failed < 2;) {
        const auto packets = inBatches ? static_cast<uint32_t>(pam.rxPktBulk()) : 0;
        for (uint32_t slot = 0; slot < packets; ++slot) {
            take(*pam.savedPacket(slot), pam.rxInfo(slot));
        }
        const Mox::Ptr<Pkt> pkt = inBatches ? nullptr : pam.rxPkt();
        pkt ? take(*pkt, pam.rxInfo()) : void();
        failed += packets == 0 && !pkt ? 1 : 0;
    }
}

// Endpoints for an experimental protocol.
class PamFixture : public PavoTest::SandboxTest {
  protected:
    static constexpr IpProtocolNumber protocol = IpProtocolNumber::experiment1;

    // Turns until a packet has come; one from the same host is there within the send.
    Mox::Ptr<Pkt> receive(const Mox::Ptr<Pam>& pam) {
        Mox::Ptr<Pkt> pkt;
        EXPECT_TRUE(PavoTest::turnsUntil(loop_, [&] { return (pkt = pam->rxPkt()) != nullptr; }));
        return pkt ? pkt : pktOf(std::string(40, '?'));
    }

    // What follows the header that an IPv4 packet is received with.
    static std::string payload(const Mox::Ptr<Pkt>& pkt) {
        const bool hasHeader = pkt->frontBytes() >= 20 && pkt->frontData()[0] == 0x45;
        return std::string(pkt->stringValue().view().substr(hasHeader ? 20 : 0));
    }

    // Turns until nothing is reported any more, at most 50 times; returns how often there was.
    uint32_t turnsUntilQuiet() {
        uint32_t turns = 0;
        while (turns < 50 && loop_.turn(0) != 0) {
            ++turns;
        }
        return turns;
    }

    Mox::EventLoop loop_;
};

// Endpoints of both families: each test runs for IPv4 and for IPv6.
class FamilyFixture : public PamFixture, public testing::WithParamInterface<AddressFamily> {
  public:
    static std::string nameOf(const testing::TestParamInfo<AddressFamily>& test) {
        return test.param == ipv4 ? "ipv4" : "ipv6";
    }

  protected:
    static bool isV6() { return GetParam() == ipv6; }
    template <class T>
    static T pick(T four, T six) {
        return isV6() ? six : four;
    }
    static IpGenAddr loopback() { return addr(pick("127.0.0.1", "::1")); }
};

}  // namespace Pavo
