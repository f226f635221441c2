/// @file
/// Reading the datagrams of a netlink port, and taking them apart.
#pragma once

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "Mox/Ptr.h"

#include "Pavo/base/FirstException.h"
#include "Pavo/kernel/NetlinkPort.h"
#include "Pavo/kernel/NetlinkSession.h"

namespace Pavo {

/// The answer in an NLMSG_ERROR or NLMSG_DONE message. One whose error is no errno has EBADMSG.
NetlinkAnswer netlinkAnswerOf(const nlmsghdr& message);

/// One of the two halves of a session: reads its port when that is readable, and hands each message
/// to the half.
class NetlinkReader {
  public:
    NetlinkReader(const NetlinkReader&) = delete;
    NetlinkReader& operator=(const NetlinkReader&) = delete;

    /// Reads `port` from now on; null ends that.
    void portIs(Mox::Ptr<NetlinkPort> port);
    /// Null while the session is disabled.
    const Mox::Ptr<NetlinkPort>& port() const { return port_; }

  protected:
    /// `session` owns this object.
    explicit NetlinkReader(NetlinkSession* session) : session_(session) {}
    virtual ~NetlinkReader();

    NetlinkSession* session() const { return session_; }
    /// Adds one to a counter of the session and notifies; what an observer throws is collected.
    /// @{
    void overflowsInc(FirstException* exception);
    void interruptedDumpsInc(FirstException* exception);
    void staleAnswersInc(FirstException* exception);
    void deadlinesInc(FirstException* exception);
    void foreignDatagramsInc(FirstException* exception);
    /// @}

    /// Reads what there is now, as when the port is readable. May drop the session.
    void readAll();

    /// A message that lies in the buffer with all its bytes.
    virtual void handleMessage(nlmsghdr& message, FirstException* exception) = 0;
    /// Messages were lost, not necessarily before the next that is read.
    virtual void handleLoss(FirstException* exception) = 0;
    /// A datagram did not fit: this is the beginning of its first message. The buffer is larger
    /// now.
    virtual void handleCut(const nlmsghdr& message, FirstException* exception) = 0;
    /// Everything that had come was read.
    virtual void handleEmpty(FirstException* exception) = 0;
    /// Whether more is expected; where not, the port is not asked once more to say so.
    virtual bool expectsMore() const = 0;

  private:
    enum class Next { read, stop, waitForMore };

    void bufferBytesIs(std::size_t bytes);
    Next readOne(FirstException* exception);
    Next readFailed(int error, FirstException* exception);
    void takeApart(std::size_t bytes, FirstException* exception);
    void takeCut(std::size_t bytes, FirstException* exception);

    NetlinkSession* const session_;
    Mox::Ptr<NetlinkPort> port_;
    // Not set to zero, so that a session of little traffic takes little memory.
    std::unique_ptr<uint8_t[]> buffer_;
    std::size_t bufferBytes_ = 0;
};

}  // namespace Pavo
