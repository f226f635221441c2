/// @file
/// Whole messages over a TCP stream.
#pragma once

#include <sys/uio.h>

#include <compare>
#include <cstdint>

#include "Mox/Enum.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Mox/ValueType.h"
#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/tcp/TcpPduPamBase.h"

namespace Pavo {

/// Which directions of a stream an endpoint serves.
enum TcpPduPamEnableMode : uint32_t {
    tcpEnableModeNone = 0,
    tcpEnableModeReadOnly = 1,
    tcpEnableModeWriteOnly = 2,
    tcpEnableModeReadWrite = 3,
};

constexpr auto enumDescription(TcpPduPamEnableMode) {
    return Mox::enumeration<TcpPduPamEnableMode>(
        "Invalid TcpPduPamEnableMode", {{tcpEnableModeNone, "tcpEnableModeNone"},
                                        {tcpEnableModeReadOnly, "tcpEnableModeReadOnly"},
                                        {tcpEnableModeWriteOnly, "tcpEnableModeWriteOnly"},
                                        {tcpEnableModeReadWrite, "tcpEnableModeReadWrite"}});
}

/// How one read of a stream ended.
enum class TcpPduPamReadResult : uint32_t {
    error = 0,            ///< the stream is of no more use
    readMoreData = 1,     ///< bytes came, and more are to be asked for
    waitForMoreData = 2,  ///< the socket is empty
    fullPduRead = 3,      ///< the packet is whole
};

constexpr auto enumDescription(TcpPduPamReadResult) {
    using enum TcpPduPamReadResult;
    return Mox::enumeration<TcpPduPamReadResult>("Invalid TcpPduPamReadResult",
                                                 {{error, "error"},
                                                  {readMoreData, "readMoreData"},
                                                  {waitForMoreData, "waitForMoreData"},
                                                  {fullPduRead, "fullPduRead"}});
}

/// The outcome of one read, and with an error its text.
class TcpPduPamReadReturn : public Mox::ValueType<TcpPduPamReadReturn> {
  public:
    using Result = TcpPduPamReadResult;

    TcpPduPamReadReturn() = default;
    TcpPduPamReadReturn(Result result) : result_(result) {}
    TcpPduPamReadReturn(Result result, Mox::String reason)
        : result_(result), reason_(std::move(reason)) {}
    TcpPduPamReadReturn(TextIt& it, const TextIt& end) { readText(it, end); }
    TcpPduPamReadReturn(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    Result result() const { return result_; }
    const Mox::String& reason() const { return reason_; }

    friend auto operator<=>(const TcpPduPamReadReturn&, const TcpPduPamReadReturn&) = default;

    static constexpr const char* leftoverText = "Invalid TcpPduPamReadReturn";
    static constexpr auto description() {
        return Mox::record("Pavo::TcpPduPamReadReturn",
                           Mox::field("result", &TcpPduPamReadReturn::result_),
                           Mox::field("reason", &TcpPduPamReadReturn::reason_));
    }

  private:
    Result result_ = Result::error;
    Mox::String reason_;
};

/// When the kernel probes a silent peer (tcp(7)): after `idleTime` seconds of silence, then every
/// `probeInterval` seconds, giving up after `probeCount` probes. Linux takes 1 to 32767 seconds and
/// 1 to 127 probes.
class TcpKeepaliveOptions : public Mox::ValueType<TcpKeepaliveOptions> {
  public:
    /// The off value: all zero, the default.
    static const TcpKeepaliveOptions keepaliveDisabled;

    constexpr TcpKeepaliveOptions() = default;
    constexpr TcpKeepaliveOptions(uint32_t idleTime, uint32_t probeInterval, uint32_t probeCount)
        : idleTime_(idleTime), probeInterval_(probeInterval), probeCount_(probeCount) {}
    TcpKeepaliveOptions(TextIt& it, const TextIt& end) { readText(it, end); }
    TcpKeepaliveOptions(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    constexpr uint32_t idleTime() const { return idleTime_; }
    constexpr uint32_t probeInterval() const { return probeInterval_; }
    constexpr uint32_t probeCount() const { return probeCount_; }
    /// Any value but the off one.
    constexpr bool enabled() const { return *this != TcpKeepaliveOptions(); }

    friend constexpr auto operator<=>(const TcpKeepaliveOptions&,
                                      const TcpKeepaliveOptions&) = default;

    static constexpr const char* leftoverText = "Invalid TcpKeepaliveOptions";
    static constexpr auto description() {
        return Mox::record("Pavo::TcpKeepaliveOptions",
                           Mox::field("idleTime", &TcpKeepaliveOptions::idleTime_),
                           Mox::field("probeInterval", &TcpKeepaliveOptions::probeInterval_),
                           Mox::field("probeCount", &TcpKeepaliveOptions::probeCount_));
    }

  private:
    uint32_t idleTime_ = 0;
    uint32_t probeInterval_ = 0;
    uint32_t probeCount_ = 0;
};
inline constexpr TcpKeepaliveOptions TcpKeepaliveOptions::keepaliveDisabled{};

/// One piece of what is sent.
using SocketIovec = iovec;

/// A packet endpoint on an established TCP stream, whose packets are whole messages (PDUs). A
/// derived class says in `getPduSize` how long the message under way is. The endpoint holds the
/// stream's descriptor, which has to be non-blocking, and is born with both directions off.
///
/// Reading. A report of the socket makes the endpoint read one PDU, which it then holds: `readable`
/// goes up, `readableCount` is bumped, and `rxPkt` hands the PDU out. If it was handed out while
/// observers were told, the next PDU is read at once, up to 32 a turn, without waiting for new
/// bytes; a PDU that nobody takes stops the reading until somebody does. Where none is held `rxPkt`
/// reads the socket itself, so an agent may as well take PDUs until it gets null. What then comes
/// with it (the counting of a read error, a mode that was waiting) is told in the next turn, since
/// nothing is counted from inside `rxPkt`.
///
/// A PDU above `maxPduLength` or shorter than what was read to learn its length, an error of the
/// socket and the end of the stream are read errors: reading is off from then on, the partial PDU
/// is dropped, and `rxErrorReason` says why. Writing goes on.
///
/// Writing. A packet is sent by one system call. What the socket has no room for is copied and
/// follows when there is room, so the packet is the agent's again at once; until then `writable` is
/// down and no other packet is taken. `writableCount` is bumped whenever `writable` goes up, by
/// enabling too. A failed send ends the writing: `writable` stays down, and `txErrorReason` says
/// why.
///
/// An observer may, while it is told of anything, read, write, change the mode or drop the last
/// reference to the endpoint. The stream is closed when the last holder of its descriptor lets go.
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
            Mox::attribute(txErrorReasonAttr, &TcpPduPam::txErrorReason));
    }

    TcpPduPam(Mox::Ptr<TcpFileDescriptor> fileDescriptor,
              Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory);

    void zeroReferencesIs(bool zero) override;

    /// Takes a packet of at most 65535 bytes; a longer one is counted as an error (EMSGSIZE), with
    /// writing unharmed. Null and a packet without data are ignored.
    /// @pre no packet under way, and room: assertions "!txPktHolderShadow()", "writable()".
    void txPktIsImpl(Mox::Ptr<Pkt> pkt) override;
    void doGetRxPkt() override;
    void handleSocketReadable() override;
    void handleSocketWritable() override;

    /// The length of the PDU at the front of `rxPktHolderShadow`, its header included; while that
    /// holds too little to tell, how many bytes of it are needed. Asked with an empty packet first,
    /// and again when the bytes asked for are there. The base fails with the assertion
    /// "Need to implement getRemainingLength in a derived class".
    virtual uint16_t getPduSize();
    /// Sends the packet's pieces.
    virtual void sendPkt(Mox::Ptr<Pkt> pkt);
    /// Sends the pieces with one sendmsg(2) and keeps a copy of what was not taken.
    virtual void sendIov(SocketIovec* iov, uint16_t iovLen);

    /// Whether any direction is on; true stands for both.
    bool enabled() const { return enabled_; }
    void enabledIs(bool enabled);
    /// The directions that are on. What is under way in one that is switched off stays, and goes on
    /// when it is on again; a PDU that is held can still be taken. `tcpEnableModeReadOnly` while a
    /// packet is being sent, and `tcpEnableModeWriteOnly` while one is being received, wait for the
    /// end of that transfer.
    /// @throws Mox::ErrnoException "epoll_ctl" when the loop cannot watch; both are then off.
    /// @pre one of the four values: assertion "Unexpected value".
    TcpPduPamEnableMode enableMode() const { return enableMode_; }
    void enableModeIs(TcpPduPamEnableMode mode);
    /// The mode that waits, or `tcpEnableModeNone`.
    TcpPduPamEnableMode pendingEnableReadOnlyOrWriteOnlyMode() const { return pendingMode_; }
    /// Whether the endpoint has been enabled once.
    bool initialized() const { return initialized_; }

    /// Applied when set; what fails is counted in `tcpOptErrors`.
    const TcpKeepaliveOptions& keepaliveOpts() const { return keepaliveOpts_; }
    void keepaliveOptsIs(const TcpKeepaliveOptions& options);
    /// Applies `keepaliveOpts` to the socket.
    void handleKeepaliveOptions();
    uint32_t tcpOptErrors() const { return tcpOptErrors_; }
    /// "Setsockopt failed with " and the error, of the last failure.
    const Mox::String& tcpOptErrorReason() const { return tcpOptErrorReason_; }

    /// The longest PDU accepted, in bytes with its header.
    uint16_t maxPduLength() const { return maxPduLength_; }
    void maxPduLengthIs(uint16_t bytes) { attributeIs(maxPduLength_, bytes, maxPduLengthAttr); }
    /// Reading stops by itself behind the next PDU, with what follows left in the socket for
    /// whoever takes the stream over. False goes on.
    bool readOnePktOnly() const { return readOnePktOnly_; }
    void readOnePktOnlyIs(bool only);

    /// Whether a whole PDU is held.
    bool readable() const { return readable_; }
    /// Whether a packet would be taken.
    bool writable() const { return writable_; }

    /// "Connection closed by peer", "PDU length too big", "PDU length too small",
    /// "Failed to obtain new packet object", "Failed to allocate packet", or "Recv failed with "
    /// and the error; empty while there was none.
    const Mox::String& rxErrorReason() const { return rxErrorReason_; }
    /// The packet being received or held, null between PDUs.
    const Mox::Ptr<Pkt>& rxPktHolderShadow() const { return rxPktHolderShadow_; }
    /// Bytes missing of the part asked for.
    uint16_t rxRemainingLength() const { return rxRemainingLength_; }

    /// "Send failed with " and the error; empty while there was none.
    const Mox::String& txErrorReason() const { return txErrorReason_; }
    /// A packet of the bytes that wait for room, and these as pieces; null while none do.
    const Mox::Ptr<Pkt>& txPktHolderShadow() const { return txPktHolderShadow_; }
    const SocketIovec* txIovHolderShadow() const { return txPktHolderShadow_ ? &txIov_ : nullptr; }
    uint16_t txIovLenHolderShadow() const { return txPktHolderShadow_ ? 1 : 0; }
    uint16_t txRemainingLength() const { return txRemainingLength_; }
    /// Bytes of the packet that was handed over last.
    uint16_t writeLength() const { return writeLength_; }

  protected:
    ~TcpPduPam() override;

  private:
    class Later;

    bool isReceiving() const { return rxPktHolderShadow_ && !readable_; }
    // With a mode that waits for the end of a PDU no other is begun.
    bool isReading() const {
        return (enableMode_ == tcpEnableModeReadOnly || enableMode_ == tcpEnableModeReadWrite) &&
               !rxFailed_ && !oneRead_ && (pendingMode_ != tcpEnableModeWriteOnly || isReceiving());
    }
    bool isWriting() const {
        return (enableMode_ == tcpEnableModeWriteOnly || enableMode_ == tcpEnableModeReadWrite) &&
               !txFailed_;
    }
    bool mustWait(TcpPduPamEnableMode mode) const;
    void applyMode(TcpPduPamEnableMode mode);
    void settlePendingMode();
    // While a PDU is held, a level-triggered descriptor would be reported again and again.
    void updateReadInterest() {
        const bool wanted = isReading() && !(readable_ && levelTriggered());
        if (wanted != fd()->notifyOnReadable()) {
            fd()->notifyOnReadableIs(wanted);
        }
    }
    void updateWritable();

    void serve();
    void serveLater();
    bool hasToServe() const;
    bool readNextPdu();
    TcpPduPamReadReturn readPdu();
    TcpPduPamReadReturn readFromSocket();
    void foundEmpty();
    const char* sizeUp();
    const char* newRxPkt();
    void handleReadError(Mox::String reason);
    void readFailed(Mox::String reason);
    void tellReadError();

    void saveUnsent(const SocketIovec* iov, uint16_t iovLen, uint32_t sent);
    void saveShadowPktCopy(const SocketIovec* iov, uint16_t iovLen, uint32_t skipped);
    void outOfWriteSpace();
    void writeCompleteAndSpaceAvailable();
    void writeFailed(int error);
    void handleWriteError(int error);
    void dropUnsent();

    bool enabled_ = false;
    bool initialized_ = false;
    bool readable_ = false;
    bool writable_ = false;
    bool readOnePktOnly_ = false;
    bool oneRead_ = false;      // With `readOnePktOnly`: the one PDU has come.
    bool mayHaveMore_ = false;  // The socket was not found empty since it was last reported.
    bool serving_ = false;
    bool rxFailed_ = false;
    bool rxErrorTold_ = false;
    bool txFailed_ = false;
    uint16_t maxPduLength_ = 9600;
    uint16_t rxRemainingLength_ = 0;
    uint16_t txRemainingLength_ = 0;
    uint16_t writeLength_ = 0;
    uint32_t tcpOptErrors_ = 0;
    TcpPduPamEnableMode enableMode_ = tcpEnableModeNone;
    TcpPduPamEnableMode pendingMode_ = tcpEnableModeNone;
    TcpKeepaliveOptions keepaliveOpts_;
    Mox::String tcpOptErrorReason_;
    Mox::String rxErrorReason_;
    Mox::String txErrorReason_;
    Mox::Ptr<Pkt> rxPktHolderShadow_;
    Mox::Ptr<Pkt> txPktHolderShadow_;
    SocketIovec txIov_{};
    Mox::Ptr<Later> later_;
};

/// An endpoint whose PDUs begin with a header of 20 bytes, the total length in bytes 2 and 3, in
/// network order.
class PAVO_EXPORT SimpleTcpPduPam : public Mox::EntityOf<SimpleTcpPduPam, TcpPduPam> {
  public:
    static constexpr uint16_t headerBytes = 20;
    static constexpr auto description() { return Mox::classRecord("Pavo::SimpleTcpPduPam"); }

    SimpleTcpPduPam(Mox::Ptr<TcpFileDescriptor> fileDescriptor,
                    Mox::Ptr<TcpFileDescriptorEventRegistrationFactory> fdFactory)
        : EntityOf(std::move(fileDescriptor), std::move(fdFactory)) {}

    /// @pre a packet is under way: assertion "pkt".
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
