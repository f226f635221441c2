// A stream of messages that arrives in pieces, beside a plain loop over its bytes. However the
// agent takes messages, with read-ahead and without, it gets the same ones in order and then the
// same reason, and the endpoint comes to rest.

#include "Pavo/TcpPduPam.h"

#include <sys/socket.h>

#include <string>
#include <string_view>
#include <vector>

#include "Mox/EventLoop.h"
#include "Pavo/FramedTcpPduPam.h"
#include "fuzz/Frames.h"

namespace {

using namespace Pavo;

constexpr uint32_t headerBytes = SimpleTcpPduPam::headerBytes;
constexpr TcpFraming framing{.headerBytes = headerBytes, .lengthAt = 2};

Mox::Ptr<TcpPduPam> pamOn(const Mox::Ptr<TcpFileDescriptor>& fd, bool isFramed) {
    const auto factory = tcpFileDescriptorEventRegistrationFactoryMoxcFactory();
    if (isFramed) {
        return framedTcpPduPamFactory(fd, factory, framing);
    }
    return simpleTcpPduPamFactory(fd, factory);
}

struct Messages {
    std::vector<std::string> whole;
    std::string reason;
};

Messages plainMessages(std::string_view stream, uint32_t maxPduLength, bool ended) {
    Messages messages;
    while (stream.size() >= headerBytes) {
        const auto length = fuzz::loadAt<uint16_t>(stream, 2);
        if (length > maxPduLength || length < headerBytes) {
            messages.reason = length < headerBytes ? "PDU length too small" : "PDU length too big";
            return messages;
        }
        if (length > stream.size()) {
            break;
        }
        messages.whole.emplace_back(stream.substr(0, length));
        stream.remove_prefix(length);
    }
    messages.reason = ended ? "Connection closed by peer" : "";
    return messages;
}

// How the agent takes messages.
enum Taking { oneWhenNotified, allWhenNotified, oneATurn, takings };

class Agent {
  public:
    Agent(const Mox::Ptr<TcpPduPam>& pam, Taking taking)
        : taking_(taking),
          pam_(pam),
          watch_(pam_, Pam::readableCountAttr, [this] { handleReadable(); }) {}

    const Mox::Ptr<TcpPduPam>& pam() const { return pam_; }
    const Messages& messages() const { return messages_; }

    // Makes turns until nothing happens any more.
    void rest(Mox::EventLoop* loop) {
        const auto busy = [&] { return loop->turn(0) != 0; };
        for (uint32_t turns = 0; busy() || (taking_ == oneATurn && take()) || busy(); ++turns) {
            Mox::require(turns < 100000, "the endpoint comes to rest");
        }
    }
    void close() { messages_.reason = std::string(pam_->rxErrorReason().view()); }

  private:
    void handleReadable() {
        if (taking_ == oneWhenNotified) {
            take();
        }
        while (taking_ == allWhenNotified && take()) {
        }
    }
    bool take() {
        const auto pkt = pam_->rxPkt();
        if (pkt) {
            messages_.whole.emplace_back(pkt->stringValue().view());
        }
        return pkt != nullptr;
    }

    Taking taking_;
    Messages messages_;
    Mox::Ptr<TcpPduPam> pam_;
    Mox::Watch<TcpPduPam> watch_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const uint8_t how = input.u8();
    const uint16_t maxPduLength = (how & 2) != 0 ? 9600 : input.u16();
    int ends[2];
    Mox::require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0,
                 "socketpair");
    Mox::EventLoop loop;
    auto far = tcpFileDescriptorFactory(ends[1], false);
    const uint8_t ahead = (how & 128) != 0 ? input.u8() : 0;
    Agent agent(pamOn(tcpFileDescriptorFactory(ends[0], (how & 1) != 0), (ahead & 1) != 0),
                static_cast<Taking>((how >> 2) % takings));
    agent.pam()->maxPduLengthIs(maxPduLength);
    agent.pam()->readAheadBytesIs(ahead * 3);
    agent.pam()->enabledIs(true);

    std::string stream;
    while (!input.atEnd()) {
        const uint8_t pieceBytes = input.u8();
        const std::string_view piece = input.bytes(pieceBytes);
        stream += piece;
        const auto write = [&] { return send(ends[1], piece.data(), piece.size(), MSG_NOSIGNAL); };
        if (write() < 0) {
            agent.rest(&loop);
            (void)write();  // There is room now, or the endpoint reads no more.
        }
        if (pieceBytes % 2 == 0) {
            agent.rest(&loop);
        }
        if (pieceBytes % 8 == 3) {  // Off and on again while bytes wait.
            agent.pam()->readAheadBytesIs(agent.pam()->readAheadBytes() == 0 ? ahead * 3 : 0);
        }
    }
    const bool ended = (how & 64) != 0;
    if (ended) {
        far = nullptr;
    }
    agent.rest(&loop);
    agent.close();

    // A header above the limit is refused before any byte of it is there.
    const bool reads = maxPduLength >= headerBytes;
    const Messages expected = reads ? plainMessages(stream, maxPduLength, ended) : Messages();
    Mox::require(agent.messages().whole == expected.whole, "the messages of the stream");
    Mox::require(!reads || agent.messages().reason == expected.reason, "the end of the stream");
    Mox::require(agent.pam()->rxErrors() == (agent.messages().reason.empty() ? 0u : 1u), "counted");
    return 0;
}
