// Frames that arrive at an ARP machine, split anywhere. Plain checks of the bytes say what it has
// to do.

#include "Keel/TimerWheel.h"
#include "Mox/Clock.h"
#include "Pavo/ArpSm.h"
#include "Pavo/BuildPkt.h"
#include "Pavo/PamConnector.h"

#include "fuzz/Frames.h"

namespace {

using namespace Pavo;

const std::string own("\2\0\0\0\0\1", 6), known("\2\0\0\0\0\2", 6), shared("\0\0\x5e\0\1\7", 6);
constexpr uint32_t ownIp = 0x0a000001, knownIp = 0x0a000002, virtualIp = 0x0a000009;

EthAddr macOf(const std::string& bytes) {
    EthAddr mac;
    mac.copyFromBuffer(reinterpret_cast<const unsigned char*>(bytes.data()));
    return mac;
}

// What the machine has to make of a frame.
struct Expected {
    explicit Expected(std::string_view frame) {
        const std::string_view fixed("\x08\x06\0\1\x08\0\6\4\0", 9);
        if (frame.size() < 42 || frame.substr(12, 9) != fixed || (frame[22] & 1) != 0) {
            return;
        }
        const auto op = frame[21];
        const std::string_view dst = frame.substr(0, 6), sender = frame.substr(22, 6);
        const auto senderIp = fuzz::loadAt<uint32_t>(frame, 28);
        const auto targetIp = fuzz::loadAt<uint32_t>(frame, 38);
        const bool isGood = (op == 1 || op == 2) && sender != std::string(6, '\0') &&
                            senderIp >> 28 != 0xe && senderIp != 0xffffffff &&
                            senderIp >> 24 != 127 && targetIp >> 24 != 127;
        const bool isOwn = sender == own || (senderIp == virtualIp && sender == shared);
        const bool isForUs =
            (dst[0] & 1) != 0 || dst == own || (targetIp == virtualIp && dst == shared);
        const bool isTaken = isGood && !isOwn && isForUs;
        isConflict = isTaken && (senderIp == ownIp || senderIp == virtualIp);
        isAnswered =
            isTaken && !isConflict && op == 1 && (targetIp == ownIp || targetIp == virtualIp);
        isNew = isAnswered && senderIp != 0 && senderIp != knownIp;
        isAboutKnown = isTaken && senderIp == knownIp;
        answer = std::string(sender) + (targetIp == virtualIp ? shared : own);
    }

    bool isConflict = false, isAnswered = false, isNew = false, isAboutKnown = false;
    std::string answer;  // Its first bytes.
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const uint32_t privateBytes = input.u8();
    const std::string_view bytes = input.rest();
    if (bytes.empty()) {
        return 0;
    }
    Mox::ManualClock clock;
    Keel::TimerWheel timers(&clock);
    const auto wire = pamConnectorFactory(&clock);
    const auto table = arpTableFactory("table");
    const auto sm = arpSmFactory("arp", {wire->pam("pam1"), table, 1, macOf(own), &timers, 1});
    sm->addressIs(IpAddr(ownIp), ArpClaim::silent);
    sm->proxy()->macIs(Prefix(IpAddr(virtualIp), 32), macOf(shared));
    sm->enabledIs(true);
    const auto entry = sm->resolve(IpAddr(knownIp));
    wire->pam("pam0")->txPktIs(
        buildPkt(Eth{macOf(own), macOf(known)},
                 Arp{ArpOp::reply, macOf(known), IpAddr(knownIp), macOf(own), IpAddr(ownIp)}));
    clock.advance(2);
    wire->pam("pam0")->inputQueueDelAll();

    const Expected expected(bytes);
    wire->pam("pam0")->txPktIs(fuzz::pktOf(bytes, privateBytes));
    clock.advance(0.01);
    Mox::require(sm->conflicts() == (expected.isConflict ? 1 : 0), "conflicts");
    Mox::require(sm->counters().txReplies == (expected.isAnswered ? 1 : 0), "answers");
    Mox::require(table->entries() == (expected.isNew ? 2 : 1), "new neighbours");
    Mox::require(expected.isAboutKnown || entry->mac() == macOf(known), "others stay");
    const auto sent = wire->pam("pam0")->inputQueueFront();
    Mox::require((sent != nullptr) == (expected.isAnswered || expected.isConflict), "frames");
    Mox::require(!expected.isAnswered || sent->stringValue().view().starts_with(expected.answer),
                 "to whom");
    return 0;
}
