/// @file
/// Two packet endpoints joined back to back inside one process.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>

#include "Mox/Clock.h"
#include "Mox/Collections.h"
#include "Mox/Entity.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/Pam.h"

namespace Pavo {

class FirstException;
class PamConnector;

/// One end of a connector. A packet sent on it waits in the `inputQueue` of the other end, whose
/// `readableCount` goes up at the next event of the connector's clock: a send never runs the
/// receiver. Sender and receiver share the packet, without a copy.
///
/// An end is always writable. A packet that does not fit into the receiver's queue is counted in
/// the receiver's `rxDrops` only.
class PAVO_EXPORT PamConnectorPam : public Mox::EntityOf<PamConnectorPam, Pam> {
  public:
    static constexpr Mox::Attribute<PamConnectorPam> otherEndAttr{8, "otherEnd"};
    static constexpr Mox::Attribute<PamConnectorPam> peekPktAttr{9, "peekPkt"};
    static constexpr Mox::Attribute<PamConnectorPam> peekPktCountAttr{10, "peekPktCount"};
    static constexpr Mox::Attribute<PamConnectorPam> maxBufferAttr{11, "maxBuffer"};
    static constexpr auto description() {
        return Mox::classRecord("Pavo::PamConnectorPam",
                                Mox::attribute(otherEndAttr, &PamConnectorPam::otherEnd),
                                Mox::attribute(peekPktAttr, &PamConnectorPam::peekPkt),
                                Mox::attribute(peekPktCountAttr, &PamConnectorPam::peekPktCount),
                                Mox::attribute(maxBufferAttr, &PamConnectorPam::maxBuffer));
    }

    /// An end that is not joined; a connector makes its own two. `connector` is not held, and has
    /// to outlive an end that was not put into it.
    PamConnectorPam(Mox::String name, PamConnector* connector);

    /// @pre joined to another end, and a packet: assertions "otherEnd()", "pkt != __null".
    void txPktIsImpl(Mox::Ptr<Pkt> pkt) override;
    void doGetRxPkt() override;

    /// Null for an end that was taken out of its connector, or that outlived it.
    PamConnector* connector() const { return connector_; }

    /// The receiver of sent packets; not held, and null after it was destroyed.
    Mox::Ptr<PamConnectorPam> otherEnd() const { return otherEnd_; }
    /// Connects the two ends, or with null disconnects this one. Former partners of both are then
    /// disconnected.
    void otherEndIs(const Mox::Ptr<PamConnectorPam>& end);

    /// While observers are notified of a send, its packet; else null.
    const Mox::Ptr<Pkt>& peekPkt() const { return peekPkt_; }
    void peekPktIs(Mox::Ptr<Pkt> pkt) { attributeIs(peekPkt_, std::move(pkt), peekPktAttr); }
    /// Packets sent through this end, without those that were dropped.
    uint32_t peekPktCount() const { return peekPktCount_; }
    void peekPktCountIs(uint32_t count) { attributeIs(peekPktCount_, count, peekPktCountAttr); }
    uint32_t peekPktCountInc(uint32_t delta) {
        return attributeInc(peekPktCount_, delta, peekPktCountAttr);
    }

    /// A packet is dropped when more than this many wait already, so one more than this can wait.
    uint32_t maxBuffer() const { return maxBuffer_; }
    void maxBufferIs(uint32_t packets) { attributeIs(maxBuffer_, packets, maxBufferAttr); }

    // The packets that wait to be received. Changes of the queue are not notified; `readableCount`
    // announces its packets.

    /// Their number.
    uint32_t inputQueueMembers() const { return static_cast<uint32_t>(inputQueue_.size()); }
    /// The packet of that index, or null. Indices run on from 0 and wrap after 2^32 - 1.
    Mox::Ptr<Pkt> inputQueue(uint32_t index) const;
    /// Appends a packet, whatever `maxBuffer` is, and returns its index. It is announced with the
    /// next packet that is sent.
    uint32_t inputQueueEnq(Mox::Ptr<Pkt> pkt);
    /// Removes and returns the first packet, or null.
    Mox::Ptr<Pkt> inputQueueDeq();
    /// The first and the last packet, or null.
    /// @{
    Mox::Ptr<Pkt> inputQueueFront() const;
    Mox::Ptr<Pkt> inputQueueBack() const;
    /// @}
    void inputQueueDel(uint32_t index);
    void inputQueueDelAll() { inputQueue_.clear(); }

  protected:
    ~PamConnectorPam() override;

  private:
    friend class PamConnector;

    struct QueuedPkt {
        uint32_t index;
        Mox::Ptr<Pkt> pkt;
    };
    using InputQueue = std::deque<QueuedPkt>;

    InputQueue::const_iterator find(uint32_t index) const;
    // Clears connector and other end, unless this end belongs to another connector by now.
    void leave(const PamConnector* connector);

    PamConnector* connector_;
    PamConnectorPam* otherEnd_ = nullptr;
    InputQueue inputQueue_;
    uint32_t nextIndex_ = 0;
    Mox::Ptr<Pkt> peekPkt_;
    uint32_t peekPktCount_ = 0;
    uint32_t maxBuffer_ = 1024;
};

/// Two ends, "pam0" and "pam1": a packet sent on one is received on the other. It connects two
/// users of packets in one process, such as a protocol machine and a simulated peer.
///
/// Packets are announced by one event of the clock, 2^-10 seconds after the first of them was sent:
/// `readableCount` goes up by one for each packet that waits at that moment, first at "pam0", then
/// at "pam1". Packets that receivers send while they are notified are announced by the next event.
/// When a receiver throws, the other packets are still announced; then the first exception passes
/// through the clock.
///
/// The connector holds the ends, and the ends do not hold the connector: an agent holds the
/// connector or the ends that it uses. An end that is taken out, or outlives the connector, is
/// joined to none. Observers may drop the ends and the connector, and take ends out, while a packet
/// is announced. One thread uses a connector and its clock.
class PAVO_EXPORT PamConnector : public Mox::EntityOf<PamConnector> {
  public:
    static constexpr Mox::Attribute<PamConnector, Mox::String> pamAttr{0, "pam"};
    static constexpr Mox::Attribute<PamConnector> clockAttr{1, "clock"};
    static constexpr Mox::Attribute<PamConnector> initializedAttr{2, "initialized"};
    static constexpr Mox::Attribute<PamConnector> separateVlanTagHdrAttr{3, "separateVlanTagHdr"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::PamConnector", Mox::attribute(pamAttr),
            Mox::attribute(clockAttr, &PamConnector::clock),
            Mox::attribute(initializedAttr, &PamConnector::initialized),
            Mox::attribute(separateVlanTagHdrAttr, &PamConnector::separateVlanTagHdr));
    }

    /// Seconds from a send to the event that announces it.
    static constexpr double deliverySeconds = 0.0009765625;

    /// Makes both ends. The clock has to outlive the connector, or to be removed from it.
    explicit PamConnector(Mox::Clock* clock);

    /// The end of that name, or null.
    Mox::Ptr<PamConnectorPam> pam(const Mox::String& name) const;
    const Mox::Map<Mox::String, Mox::Ptr<PamConnectorPam>>& pam() const { return pam_; }
    /// Puts an end in under its name, replacing an end of that name; this does not join it.
    void pamIs(const Mox::Ptr<PamConnectorPam>& end);
    /// Takes an end out. Its packets can still be read; it is joined to none.
    void pamDel(Mox::String name);
    void pamDelAll();

    /// Null after `clockDel`; no later event announces anything.
    Mox::Clock* clock() const { return clock_; }
    void clockDel();

    /// Whether the ends have been made. While it is set back to false a send is fatal, and nothing
    /// is announced.
    bool initialized() const { return initialized_; }
    void initializedIs(bool initialized) {
        attributeIs(initialized_, initialized, initializedAttr);
    }

    /// Whether the VLAN tag of a packet is moved out of its data, into the separate tag, when it is
    /// received.
    bool separateVlanTagHdr() const { return separateVlanTagHdr_; }
    void separateVlanTagHdrIs(bool separate) {
        attributeIs(separateVlanTagHdr_, separate, separateVlanTagHdrAttr);
    }

    /// Schedules the event that announces waiting packets, unless one is pending.
    /// @pre initialized (assertion "initialized()").
    void doScheduleEvent();

  protected:
    ~PamConnector() override;

  private:
    void handleInitializedBase();
    void handleClock();
    void announce(const Mox::Ptr<PamConnectorPam>& end, uint32_t packets,
                  FirstException* exception);

    Mox::Map<Mox::String, Mox::Ptr<PamConnectorPam>> pam_;
    Mox::Clock* clock_;
    std::optional<Mox::Timer> delivery_;  // While there is a clock.
    bool initialized_ = false;
    bool separateVlanTagHdr_ = false;
};

PAVO_EXPORT Mox::Ptr<PamConnector> pamConnectorFactory(Mox::Clock* clock);

}  // namespace Pavo
