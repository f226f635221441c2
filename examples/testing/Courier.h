/// @file
/// A protocol machine that carries messages in order over a wire that may lose them.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>

#include "Mox/Clock.h"
#include "Mox/Entity.h"
#include "Pavo/EthAddr.h"
#include "Pavo/HdrWrapper.h"
#include "Pavo/NetU.h"
#include "Pavo/Pam.h"

namespace Guide {

enum class FrameKind : uint8_t {
    message = 1,  ///< carries a message, numbered from 0
    receipt = 2,  ///< says that the message of that number has come
};

/// What stands between the Ethernet header and the message, in network byte order. The length is
/// there because a wire pads short frames.
///
///     | kind (1) | reserved (1) | bytes of the message (2) | number (4) |
class CourierHdr {
  public:
    static constexpr std::string_view recordName = "CourierHdr";

    /// Any byte may be there: it reads as that number.
    FrameKind kind() const { return static_cast<FrameKind>(kind_); }
    void kindIs(FrameKind kind) { kind_ = static_cast<uint8_t>(kind); }
    uint16_t messageBytes() const { return messageBytes_.value(); }
    void messageBytesIs(uint16_t bytes) { messageBytes_.valueIs(bytes); }
    uint32_t number() const { return number_.value(); }
    void numberIs(uint32_t number) { number_.valueIs(number); }

    /// Whether the message ends inside the frame.
    Pavo::PktErrors check(uint32_t bytes) const {
        return sizeof(*this) + messageBytes() <= bytes ? Pavo::PktErrors::noError
                                                       : Pavo::PktErrors::pktTooShort;
    }

  private:
    uint8_t kind_ = 0;
    [[maybe_unused]] uint8_t reserved_ = 0;
    Pavo::NetU16 messageBytes_;
    Pavo::NetU32 number_;
};
static_assert(Pavo::isOverlay<CourierHdr>(8));

struct CourierConfig {
    Pavo::EthAddr own;
    Pavo::EthAddr peer;
    double retrySeconds = 0.5;
    /// How often a message is sent before the courier gives up.
    uint32_t maxTries = 10;
};

/// One of two couriers on a wire. It sends a message again and again until the other one has sent
/// the receipt, and only then the next; the other one hands each number out once and sends a
/// receipt for every copy, since the receipt before may have been lost. A courier that gave up
/// sends no more messages, and still receives.
///
/// It takes any endpoint for Ethernet frames and any clock.
class Courier {
  public:
    /// Of the local experiment (IEEE 802-2014, 9.2.4).
    static constexpr uint16_t ethType = 0x88b5;
    static constexpr uint32_t maxMessageBytes = 1500 - sizeof(CourierHdr);

    /// Told of each message. From inside it the courier may not be destroyed.
    using Received = std::function<void(const std::string&)>;

    /// The clock has to outlive the courier.
    Courier(const CourierConfig& config, Mox::Ptr<Pavo::Pam> pam, Mox::Clock* clock,
            Received received);

    /// Sends when the messages before have arrived.
    /// @pre of at most `maxMessageBytes` bytes (assertion "message.size() <= maxMessageBytes").
    void send(std::string message);

    /// Messages without a receipt.
    uint32_t waiting() const { return static_cast<uint32_t>(messages_.size()); }
    bool gaveUp() const { return gaveUp_; }
    /// Frames with a message that were sent again.
    uint32_t retries() const { return retries_; }

  private:
    void takeFrame();
    void takeMessage(uint32_t number, const std::string& message);
    void takeReceipt(uint32_t number);
    void sendFirst();
    void handleTimeout();

    CourierConfig config_;
    Mox::Ptr<Pavo::Pam> pam_;
    Received received_;
    std::deque<std::string> messages_;  // The first is under way.
    uint32_t number_ = 0;               // Of the first.
    uint32_t tries_ = 0;                // Of the first.
    uint32_t retries_ = 0;
    bool gaveUp_ = false;
    uint32_t expected_ = 0;  // The number of the next message to hand out.
    Mox::Timer timer_;
    Mox::Watch<Pavo::Pam> readable_;
};

/// A frame as couriers send it, for simulated peers too.
Mox::Ptr<Pavo::Pkt> newFrame(const CourierConfig& sender, FrameKind kind, uint32_t number,
                             std::string_view message);

}  // namespace Guide
