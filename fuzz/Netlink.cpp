// Netlink messages: attributes as they are read, and a session whose ports give any bytes.

#include <linux/rtnetlink.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <map>

#include "Mox/Assert.h"
#include "Mox/Clock.h"
#include "Pavo/NetlinkAttributes.h"
#include "Pavo/NetlinkSession.h"

#include "fuzz/Frames.h"

namespace {

using namespace Pavo;

// The attributes as the macros of the kernel's headers find them.
void checkAttributes(std::span<const uint8_t> list, const NetlinkAttributes& attributes,
                     uint16_t highest, int depth) {
    std::map<uint16_t, const uint8_t*> last;
    std::size_t left = list.size();
    const uint8_t* at = list.data();
    while (left >= sizeof(rtattr)) {
        rtattr head;
        std::memcpy(&head, at, sizeof(head));
        if (head.rta_len < sizeof(rtattr) || head.rta_len > left) {
            break;
        }
        last[head.rta_type & NLA_TYPE_MASK] = at;
        const std::size_t step = std::min<std::size_t>(RTA_ALIGN(head.rta_len), left);
        at += step;
        left -= step;
    }
    Mox::require(attributes.isSound() == (left == 0), "sound");
    for (uint16_t type = 0; type <= highest; ++type) {
        const auto found = last.find(type);
        const uint8_t* const wanted = found == last.end() ? nullptr : found->second;
        Mox::require(reinterpret_cast<const uint8_t*>(attributes.find(type)) == wanted, "find");
        const std::span<const uint8_t> payload = attributes.payload(type);
        const std::string_view text = attributes.text(type);
        Mox::require(text.size() <= payload.size() && text.find('\0') == text.npos, "text");
        uint32_t value = 0;
        Mox::require(attributes.read(type, &value) == (payload.size() >= 4), "read");
        if (depth > 0 && !payload.empty()) {
            checkAttributes(payload, attributes.nested(type, highest), highest, depth - 1);
        }
    }
}

// A port that gives the datagrams of the input, among errors.
class HostilePort final : public Mox::Described<HostilePort, NetlinkPort> {
  public:
    static constexpr auto description() { return Mox::classRecord("fuzz::HostilePort"); }

    HostilePort(fuzz::Input* input, HostilePort** self) : input_(input), self_(self) {
        *self_ = this;
    }
    uint32_t portId() const override { return 7; }
    uint32_t rcvBufBytes() const override { return 8192; }
    int send(std::span<const uint8_t> messages) override {
        Mox::require(messages.size() % NLMSG_ALIGNTO == 0, "whole messages");
        return input_->u8() == 1 ? EMSGSIZE : 0;
    }
    ssize_t receive(std::span<uint8_t> buffer, uint32_t* sender) override {
        const uint8_t kind = input_->u8();
        const std::string_view bytes = input_->bytes(input_->u8());
        if (kind < 3 || bytes.empty()) {
            errno = kind == 1 ? ENOBUFS : kind == 2 ? EINTR : EAGAIN;
            return -1;
        }
        *sender = kind == 3 ? 1 : 0;
        std::memcpy(buffer.data(), bytes.data(), bytes.size());
        datagram_ = buffer.first(bytes.size());
        return static_cast<ssize_t>(kind == 4 ? buffer.size() + bytes.size() : bytes.size());
    }
    void receiveTried(bool) override {}
    void groupIs(uint32_t, bool) override {}
    void readableIs(std::function<void()> readable) override { readable_ = std::move(readable); }

    void read() {
        const auto readable = readable_;
        readable ? readable() : void();
    }
    void checkInside(const nlmsghdr& message) const {
        const auto* const begin = reinterpret_cast<const uint8_t*>(&message);
        Mox::require(message.nlmsg_len >= sizeof(nlmsghdr) && begin >= datagram_.data() &&
                         begin + message.nlmsg_len <= datagram_.data() + datagram_.size(),
                     "the message is in the datagram");
    }

  protected:
    ~HostilePort() override { *self_ = nullptr; }

  private:
    fuzz::Input* input_;
    HostilePort** self_;
    std::span<uint8_t> datagram_;
    std::function<void()> readable_;
};

struct Agent : NetlinkFollower {
    void callback(nlmsghdr* message) override { ports[1]->checkInside(*message); }

    HostilePort* ports[2] = {};
};

void runSession(fuzz::Input input) {
    Mox::ManualClock clock;
    const auto session = netlinkSessionFactory("fuzz", NamespaceName(), &clock);
    Agent agent;
    uint32_t begun = 0;
    uint32_t ends = 0;
    const auto each = [&](const nlmsghdr& message) { agent.ports[0]->checkInside(message); };
    const auto done = [&](const NetlinkAnswer&) { ++ends; };
    session->portOpenerIs([&](NetlinkPortUse use) {
        return Mox::make<HostilePort>(&input, &agent.ports[static_cast<std::size_t>(use)]);
    });
    session->followIs(RTM_GETLINK, {RTNLGRP_LINK}, &agent);
    session->followIs(RTM_GETADDR, {RTNLGRP_IPV4_IFADDR}, &agent, 2);
    session->enabledIs(true);
    const NetlinkMessage message(RTM_GETLINK);
    for (int i = 0; i < 8 && !input.atEnd(); ++i) {
        const uint8_t kind = input.u8() % 4;
        begun += kind == 2 ? 3 : kind == 3 ? 0 : 1;
        if (kind == 0) {
            session->requestIs(message, done, each);
        } else if (kind == 1) {
            session->dumpIs(message, {}, each, done);
        } else if (kind == 2) {
            session->requestsAre(std::array{message, message, message},
                                 [&](std::size_t, const NetlinkAnswer& answer) { done(answer); });
        }
        agent.ports[input.u8() % 2]->read();
        clock.advance(input.u8() == 1 ? 10 : 0.001);
    }
    session->enabledIs(false);
    clock.advance(20);
    Mox::require(ends == begun, "each request has one end");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const auto highest = static_cast<uint16_t>(input.u8() % (NetlinkAttributes::maxType + 1));
    const fuzz::ExactBytes list(fuzz::Input(input).rest());
    const std::span<const uint8_t> bytes(list.data(), list.size());
    checkAttributes(bytes, NetlinkAttributes(bytes, highest), highest, /*depth=*/2);
    runSession(input);
    return 0;
}
