/// @file
/// Whole messages over a TCP stream.
#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <memory>
#include <span>

#include "Mox/Clock.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/tcp/TcpPduPamBase.h"
#include "Pavo/tcp/TcpPduPamValues.h"
#include "Pavo/tcp/TcpSockOpt.h"

namespace Pavo {

/// One piece of what is sent.
using SocketIovec = iovec;

class DeferredCall;
struct TcpFraming;
class TcpPduReader;
class TcpPduWriter;

/// A packet endpoint on an established TCP stream, whose packets are whole messages (PDUs). A
/// derived class answers in `getPduSize` how long the PDU being received is. The endpoint holds the
/// stream's descriptor, which has to be non-blocking, and is created with both directions off. The
/// stream is closed when the last holder of its descriptor drops it.
///
/// The reader. One PDU is received and held at a time:
/// - between PDUs: no byte of the next one is there;
/// - receiving: some of its bytes are in `rxPktHolderShadow`. Each event of the socket is followed
///   by reads, up to the end of the PDU or of what there is;
/// - holding: `readable` is true, and reading stops until `rxPkt` takes the PDU. `readableCount`
///   has been incremented. If an observer of it takes the PDU, the next one is read at once, up to
///   32 in one turn;
/// - stopped, with `readOnePktOnly`: the one PDU has been taken;
/// - failed, for ever: after an error or the end of the stream, after a PDU above `maxPduLength` or
///   shorter than what was read to learn its length, and when the socket cannot be watched. A
///   partial PDU is dropped, `rxErrorReason` has the cause, and `rxErrors` counts it. Writing goes
///   on.
///
/// With `readAheadBytes` one system call also fills a buffer, from which the next PDUs are copied:
/// each is an object of its own. The states are as above, and bytes in the buffer belong to none of
/// them. They raise no event: what is not taken in one turn is served in the next one, and when
/// reading is on again after it was off. Like the PDUs before it, an error is met in its place: the
/// socket is read only while the buffer is empty. With a level-triggered descriptor a system call
/// that found less than there was room for is the last one of its turn. Memory for the buffer is
/// held while there are bytes in it; a failed reader drops them, and so does a dropped endpoint.
///
/// `rxPkt` reads the socket itself when no PDU is held, so an agent may take PDUs until it gets
/// null. It increments no count: the count of a read error, and a change of mode that follows from
/// the read, are published in the next turn.
///
/// The writer. A packet is sent by one system call, and is the agent's again at once:
/// - ready: `writable` is true while writing is on, and a packet is taken;
/// - waiting: the socket had no room for all of the last packet. A copy of the rest follows when
///   there is room; until then `writable` is false and no packet is taken;
/// - failed, for ever: after an error of the socket, and when it cannot be watched. The rest is
///   dropped, `txErrorReason` has the cause, and `txErrors` counts it. Reading goes on.
/// `writableCount` is incremented whenever `writable` becomes true, by enabling too.
///
/// `txPktsIs` sends the packets of a batch with one system call for each 64 KiB or 256 packets. Of
/// those that find no room the first is kept, as a single one would be. The others are not taken
/// and not counted; `txErrno` is EAGAIN. While writing is off or has failed, all are dropped.
///
/// The outgoing queue, with `txQueueBytes`. Copies of packets wait for the end of the turn, to be
/// sent together, and for room in the socket:
/// - `writable` is true while at most half of `txQueueBytes` is queued. A batch is taken as long as
///   it is. `txPktIs` may be called at any time;
/// - a packet that does not fit is dropped and counted in `txDrops`; `txErrno` is ENOBUFS. So is
///   one while writing is off, has failed, or ends with a pending mode, where `txErrno` stays;
/// - a packet larger than the queue is sent when nothing is queued, and then kept as without one;
/// - when writing fails, `txErrors` counts one packet and `txDrops` the others that were queued.
/// Each packet is sent at once where the thread has no event loop.
///
/// A mode that would cut a transfer short is pending until the transfer, that of all that is queued
/// too, ends or fails. Dropping the endpoint discards what waits for room and a PDU that is held:
/// to send everything, wait until `txQueuedBytes` is 0, or use `closeAfterTx`. There is no timer
/// but that of `closeAfterTx`.
///
/// Every operation changes all states first and then notifies, in this order: error of writing,
/// `txDrops`, error of reading, `readable`, `readableCount`, mode, `writable`, `writableCount`,
/// `closed`. An observer may therefore, while it is notified of anything, read, write, change the
/// mode or drop the last reference to the endpoint. If it throws, the exception leaves the call
/// that notifies, and what is not yet published is so in the next turn.
class PAVO_EXPORT TcpPduPam : public Mox::EntityOf<TcpPduPam, TcpPduPamBase> {
  public:
    static constexpr Mox::Attribute<TcpPduPam> enabledAttr{10, "enabled"};
    static constexpr Mox::Attribute<TcpPduPam> enableModeAttr{11, "enableMode"};
    static constexpr Mox::Attribute<TcpPduPam> pendingEnableReadOnlyOrWriteOnlyModeAttr{
        12, "pendingEnableReadOnlyOrWriteOnlyMode"};
    static constexpr Mox::Attribute<TcpPduPam> keepaliveOptsAttr{13, "keepaliveOpts"};
    static constexpr Mox::Attribute<TcpPduPam> tcpOptErrorsAttr{14, "tcpOptErrors"};
    static constexpr Mox::Attribute<TcpPduPam> tcpOptErrorReasonAttr{15, "tcpOptErrorReason"};
    static constexpr Mox::Attribute<TcpPduPam> maxPduLengthAttr{16, "maxPduLength"};
    static constexpr Mox::Attribute<TcpPduPam> readableAttr{17, "readable"};
    static constexpr Mox::Attribute<TcpPduPam> writableAttr{18, "writable"};
    static constexpr Mox::Attribute<TcpPduPam> readOnePktOnlyAttr{19, "readOnePktOnly"};
    static constexpr Mox::Attribute<TcpPduPam> rxErrorReasonAttr{20, "rxErrorReason"};
    static constexpr Mox::Attribute<TcpPduPam> txErrorReasonAttr{21, "txErrorReason"};
    static constexpr Mox::Attribute<TcpPduPam> readAheadBytesAttr{22, "readAheadBytes"};
    static constexpr Mox::Attribute<TcpPduPam> txQueueBytesAttr{23, "txQueueBytes"};
    static constexpr Mox::Attribute<TcpPduPam> closedAttr{24, "closed"};
    static constexpr auto description() {
        return Mox::classRecord(
            "Pavo::TcpPduPam", Mox::attribute(enabledAttr, &TcpPduPam::enabled),
            Mox::attribute(enableModeAttr, &TcpPduPam::enableMode),
            Mox::attribute(pendingEnableReadOnlyOrWriteOnlyModeAttr,
                           &TcpPduPam::pendingEnableReadOnlyOrWriteOnlyMode),
            Mox::attribute(keepaliveOptsAttr, &TcpPduPam::keepaliveOpts),
            Mox::attribute(tcpOptErrorsAttr, &TcpPduPam::tcpOptErrors),
            Mox::attribute(tcpOptErrorReasonAttr, &TcpPduPam::tcpOptErrorReason),
            Mox::attribute(maxPduLengthAttr, &TcpPduPam::maxPduLength),
            Mox::attribute(readableAttr, &TcpPduPam::readable),
            Mox::attribute(writableAttr, &TcpPduPam::writable),
            Mox::attribute(readOnePktOnlyAttr, &TcpPduPam::readOnePktOnly),
            Mox::attribute(rxErrorReasonAttr, &TcpPduPam::rxErrorReason),
            Mox::attribute(txErrorReasonAttr, &TcpPduPam::txErrorReason),
            Mox::attribute(readAheadBytesAttr, &TcpPduPam::readAheadBytes),
            Mox::attribute(txQueueBytesAttr, &TcpPduPam::txQueueBytes),
            Mox::attribute(closedAttr, &TcpPduPam::closed));
    }

    /// Disabled, on the stream, with a registration from `fdFactory`.
    TcpPduPam(Mox::Ptr<TcpFileDescriptor> fileDescriptor,
              Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory);

    void zeroReferencesIs(bool zero) override;

    /// Takes a packet of at most 65,535 bytes; a longer one is counted as an error (EMSGSIZE),
    /// after which writing goes on. Null and a packet without data are ignored.
    /// @pre without a queue, and before `closeAfterTx`: no packet waits for room, and `writable()`:
    /// assertions "!txPktHolderShadow()", "writable()".
    void txPktIsImpl(Mox::Ptr<Pkt> pkt) override;
    void doGetRxPkt() override;
    void handleSocketReadable() override;
    void handleSocketWritable() override;

    /// The length of the PDU in `rxPktHolderShadow`, its header included; while that has too few
    /// bytes to know, how many bytes of it are needed. Called with an empty packet first, and again
    /// when the bytes asked for are there; the packet is never null here, and its bytes are
    /// contiguous at `frontData()`. 0 is a read error, "PDU length too small". For a PDU longer
    /// than 65535 bytes return 65535, with a smaller `maxPduLength`: it is refused as too big. The
    /// base fails with the assertion "Need to implement getRemainingLength in a derived class". It
    /// must not change the endpoint.
    virtual uint16_t getPduSize();
    /// Sends the packet's pieces.
    virtual void sendPkt(Mox::Ptr<Pkt> pkt);
    /// Sends the pieces with one sendmsg(2) and keeps a copy of what did not fit; with a queue or
    /// in a batch, keeps a copy of all. Also called with what waits for room when there is some.
    /// More than 65,535 bytes or IOV_MAX pieces are counted as an error (EMSGSIZE), after which
    /// writing goes on. While writing is off or has failed, the packet is counted in `txDrops`.
    /// @pre no packet waits for room, as above: assertion "!txPktHolderShadow()".
    virtual void sendIov(SocketIovec* iov, uint16_t iovLen);

    /// Whether any direction is on; true stands for both.
    bool enabled() const { return enableMode_ != tcpEnableModeNone; }
    void enabledIs(bool enable) {
        if (enable != enabled()) {
            enableModeIs(enable ? tcpEnableModeReadWrite : tcpEnableModeNone);
        }
    }
    /// The directions that are on. A transfer in one that is switched off is kept, and goes on when
    /// the direction is on again; a PDU that is held can still be taken. `tcpEnableModeReadOnly`
    /// while a packet waits for room, and `tcpEnableModeWriteOnly` while a PDU is being received,
    /// are pending until that transfer has ended.
    /// @throws Mox::ErrnoException "epoll_ctl" when the loop cannot watch the socket; both are then
    /// off.
    /// @pre one of the four values: assertion "Unexpected value".
    TcpPduPamEnableMode enableMode() const { return enableMode_; }
    void enableModeIs(TcpPduPamEnableMode mode);
    /// The mode that is pending, or `tcpEnableModeNone`.
    TcpPduPamEnableMode pendingEnableReadOnlyOrWriteOnlyMode() const { return pendingMode_; }
    /// Whether the endpoint has been enabled once.
    bool initialized() const { return initialized_; }

    /// Applied when set; each option that fails is counted in `tcpOptErrors`.
    const TcpKeepaliveOptions& keepaliveOpts() const { return keepaliveOpts_; }
    void keepaliveOptsIs(const TcpKeepaliveOptions& options);
    /// Applies `keepaliveOpts` to the socket.
    void handleKeepaliveOptions();
    /// Keep-alive options that could not be applied.
    uint32_t tcpOptErrors() const { return tcpOptErrors_; }
    /// "Setsockopt failed with " and the error, of the last failure.
    const Mox::String& tcpOptErrorReason() const { return tcpOptErrorReason_; }

    /// The longest PDU that is received, in bytes with its header; 9600 by default. Packets that
    /// are sent may be longer.
    uint16_t maxPduLength() const { return maxPduLength_; }
    void maxPduLengthIs(uint16_t bytes) { attributeIs(maxPduLength_, bytes, maxPduLengthAttr); }
    /// Reading stops by itself after the next PDU, with what follows left in the socket for the
    /// next owner of the stream. False resumes reading.
    /// @throws Mox::RangeException "TcpPduPam::readOnePktOnly not allowed with read-ahead" for true
    /// unless `readAheadBytes` and `rxBufferedBytes` are 0.
    bool readOnePktOnly() const { return readOnePktOnly_; }
    void readOnePktOnlyIs(bool only);

    /// How many bytes one system call receives ahead of the part that is needed; 0 by default,
    /// which stands for exact reads. 65,536 suits most streams. Without memory for the buffer the
    /// reads are exact. A change takes effect when the buffer is empty: its bytes are served first.
    /// @throws Mox::RangeException "TcpPduPam::readOnePktOnly not allowed with read-ahead" above 0
    /// with `readOnePktOnly`.
    uint32_t readAheadBytes() const;
    void readAheadBytesIs(uint32_t bytes);
    /// Bytes that were received ahead and wait; they are not in the packet that is received or
    /// held.
    uint32_t rxBufferedBytes() const;

    /// Whether a whole PDU is held.
    bool readable() const { return readable_; }
    /// Whether a packet would be taken.
    bool writable() const { return writable_; }

    /// "Connection closed by peer", "PDU length too big", "PDU length too small",
    /// "Failed to obtain new packet object", "Failed to allocate packet", or "Recv failed with "
    /// or, where the event loop could not watch the socket any more, "Epoll_ctl failed with " and
    /// the error; empty while there was none.
    const Mox::String& rxErrorReason() const { return rxErrorReason_; }
    /// The packet being received or held, null between PDUs.
    const Mox::Ptr<Pkt>& rxPktHolderShadow() const;
    /// Bytes still needed of the part asked for.
    uint16_t rxRemainingLength() const;

    /// "Send failed with " or, where the event loop could not watch the socket for room,
    /// "Epoll_ctl failed with " and the error; empty while there was none.
    const Mox::String& txErrorReason() const { return txErrorReason_; }
    /// A packet of the bytes that wait for room, and these as pieces; null while none do. With a
    /// queue there may be more than these.
    /// @{
    const Mox::Ptr<Pkt>& txPktHolderShadow() const;
    const SocketIovec* txIovHolderShadow() const;
    uint16_t txIovLenHolderShadow() const { return txPktHolderShadow() ? 1 : 0; }
    /// @}
    /// Bytes that wait for room.
    uint16_t txRemainingLength() const;
    /// Bytes of the packet that was handed over last.
    uint16_t writeLength() const;

    /// The bound of the outgoing queue in bytes of packets; 0, the default, is no queue. A change
    /// drops nothing: with 0, `writable` is false until all that is queued has been sent.
    uint32_t txQueueBytes() const { return txQueueBytes_; }
    void txQueueBytesIs(uint32_t bytes);
    /// Bytes that were taken and have not left, with or without a queue.
    uint32_t txQueuedBytes() const;
    /// Packets of them, the one that has left in part among them.
    uint32_t txQueuedPkts() const;

    /// Sends what waits, then ends the stream. No packet is taken any more: it is dropped and
    /// counted, and `txErrno` is ESHUTDOWN. Reading goes on as the mode says until all is sent,
    /// also after an error of reading. Then the peer is shown the end (shutdown(2)), and what it
    /// still sends is dropped until it ends its side: bytes that arrive unread would make the
    /// kernel reset the connection and forget what it has not delivered. Then, or when writing
    /// fails, or after `seconds`, `closed` becomes true and the mode `tcpEnableModeNone`, for good;
    /// the owner may drop the endpoint. At the limit what has not been sent is counted in
    /// `txDrops`, `txErrno` is ETIMEDOUT, and the connection is reset, so that the peer does not
    /// take what it has for all. What waits while writing is off is sent once that is on again.
    ///
    /// The endpoint does not hold itself: dropped earlier, it discards what waits for room. Called
    /// again before the end, this changes only the limit; +infinity is none.
    /// @pre `seconds` is not negative (assertion "seconds >= 0"), and a limit has a clock
    /// (assertion "clock"): null stands for that of the thread's event loop.
    void closeAfterTx(double seconds, Mox::Clock* clock = nullptr);
    /// Whether `closeAfterTx` has come to its end, of which observers are notified once.
    bool closed() const { return closing_ == Closing::closed; }

  protected:
    ~TcpPduPam() override;

    /// For the constructor of an endpoint that keeps the framing: instead of `getPduSize` the
    /// endpoint asks it.
    /// @pre it has no fault.
    void framingIs(const TcpFraming* framing);

  private:
    struct WatchError;
    struct TxBatch;
    // What has changed and is to be published, in this order.
    enum Change : uint32_t {
        txErrnoCleared,
        txErrnoSet,
        txErrorReasonChanged,
        txErrorsCounted,
        txDropsCounted,
        rxErrorReasonChanged,
        rxErrorsCounted,
        readableChanged,
        readableCounted,
        enableModeChanged,
        enabledChanged,
        writableChanged,
        writableCounted,
        pendingModeChanged,
        readOnePktOnlyChanged,
        txQueueBytesChanged,
        closedChanged,
        changeKinds,
    };
    static void (*const publishers[changeKinds])(TcpPduPam* pam);

    void mark(Change change) { changes_ |= 1u << change; }
    void publish();
    void settle();
    void followStates();
    WatchError watch();
    void modeIs(TcpPduPamEnableMode mode);
    bool mustWait(TcpPduPamEnableMode mode) const;

    bool isReading() const;
    bool isWriting() const;
    bool wantsReadEvents() const;
    bool wantsWriteEvents() const;
    bool hasToRead() const;
    bool hasToServe() const;
    bool isDrained() const;
    bool serve();
    void serveDeferred();
    bool readPdus();
    void serveBuffered();
    bool readPdu();
    void afterTaking();
    void readFailed(Mox::String reason);
    void writeErrorIs(const char* text, int error);

    // What `closeAfterTx` does: nothing, sends, reads what is in the way of an orderly end, has
    // ended.
    enum class Closing : uint8_t { no, sending, draining, closed };
    static uint32_t sendBatch(Pam* pam, std::span<const Mox::Ptr<Pkt>> pkts);
    uint32_t sendEach(std::span<const Mox::Ptr<Pkt>> pkts);
    uint32_t gatherEach(std::span<const Mox::Ptr<Pkt>> pkts, TxBatch* batch);
    uint32_t sendGathered(TxBatch* batch);
    bool takesPkts() const;
    bool hasTxRoom() const;
    void sendNow(SocketIovec* iov, uint16_t iovLen);
    void queue(SocketIovec* iov, uint16_t iovLen);
    void gather(const SocketIovec* iov, uint16_t iovLen);
    void sendLater();
    void flush();
    void flushGathered();
    void dropTx(uint32_t pkts, int error);
    void makeDeferredSending();
    void sendDeferred();
    void followClosing();
    void drain();
    void endClosing();
    void closeLimitReached();

    bool initialized_ = false;
    bool readable_ = false;
    bool writable_ = false;
    bool readOnePktOnly_ = false;
    bool serving_ = false;
    bool inBatch_ = false;
    Closing closing_ = Closing::no;
    uint16_t maxPduLength_ = 9600;
    uint32_t changes_ = 0;  // A bit for each `Change`.
    uint32_t uncountedTxErrors_ = 0;
    uint32_t uncountedTxDrops_ = 0;
    uint32_t txQueueBytes_ = 0;
    int unpublishedTxErrno_ = 0;
    uint32_t tcpOptErrors_ = 0;
    TcpPduPamEnableMode enableMode_ = tcpEnableModeNone;
    TcpPduPamEnableMode pendingMode_ = tcpEnableModeNone;
    TcpKeepaliveOptions keepaliveOpts_;
    Mox::String tcpOptErrorReason_;
    Mox::String rxErrorReason_;
    Mox::String txErrorReason_;
    std::unique_ptr<TcpPduReader> reader_;
    std::unique_ptr<TcpPduWriter> writer_;
    Mox::Ptr<Pkt>
        taken_;  // By `rxPkt`, which an exception from an observer kept from returning it.
    std::unique_ptr<DeferredCall> deferredServing_;
    std::unique_ptr<DeferredCall> deferredSending_;  // Null until there is a queue, or an end.
    std::unique_ptr<Mox::Timer> closeLimit_;
};

/// An endpoint whose PDUs begin with a header of 20 bytes, with the total length in bytes 2 and 3,
/// in network order.
class PAVO_EXPORT SimpleTcpPduPam : public Mox::EntityOf<SimpleTcpPduPam, TcpPduPam> {
  public:
    /// The length of the header.
    static constexpr uint16_t headerBytes = 20;
    static constexpr auto description() { return Mox::classRecord("Pavo::SimpleTcpPduPam"); }

    /// Disabled, on the stream, with a registration from `fdFactory`.
    SimpleTcpPduPam(Mox::Ptr<TcpFileDescriptor> fileDescriptor,
                    Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory)
        : EntityOf(std::move(fileDescriptor), std::move(fdFactory)) {}

    /// @pre a PDU is being received: assertion "pkt".
    uint16_t getPduSize() override;

  protected:
    ~SimpleTcpPduPam() override;
};

/// A disabled endpoint on the stream, with registrations from `fdFactory`. It cannot read: it has
/// no framing.
PAVO_EXPORT Mox::Ptr<TcpPduPam> tcpPduPamFactory(
    Mox::Ptr<TcpFileDescriptor> fileDescriptor,
    Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory);
/// A disabled endpoint on the stream, with registrations from `fdFactory`.
PAVO_EXPORT Mox::Ptr<SimpleTcpPduPam> simpleTcpPduPamFactory(
    Mox::Ptr<TcpFileDescriptor> fileDescriptor,
    Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory);

}  // namespace Pavo
