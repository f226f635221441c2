/// @file
/// Talking to the kernel over netlink: sockets, requests built attribute by attribute, answers, and
/// ready-made requests of rtnetlink(7).
///
/// Unless stated otherwise a function that fails returns -1 with `errno` as the failing call left
/// it. Numbers in messages are in host byte order. Single-threaded: the sequence numbers come from
/// one plain counter of the process.
#pragma once

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstdint>
#include <type_traits>

#include "Pavo/base/Export.h"

namespace Pavo {

class EthAddr;
class Ip6Addr;
class IpAddr;

/// An open netlink socket, which the caller owns and closes with `closeNetlinkSocket`.
struct netlinkHandle {
    int fd = -1;             ///< -1 when closed.
    sockaddr_nl local = {};  ///< As bound: port id and multicast groups.
    sockaddr_nl peer = {};   ///< All zero: the kernel.
    uint32_t seq = 0;        ///< When it was opened, in seconds since 1970; numbers no message.
    /// Not used.
    uint32_t dump = 0;
};

/// Opens a socket of netlink protocol `protocol` and type `type` (SOCK_RAW) inside the network
/// namespace `nsName` (as for `socketAt`) and binds it to the multicast groups of the bit mask
/// `groups`, with a port id of the kernel's choice and close-on-exec set. Returns 0, or -1; `h->fd`
/// is then -1 and nothing stays open. An address that is not netlink's fails with EBADE.
PAVO_EXPORT int createNetlinkSocket(netlinkHandle* h, unsigned groups, const char* nsName, int type,
                                    bool nonBlocking, unsigned protocol);
/// Closes the socket, if it is open, and sets `nlh->fd` to -1. Assertions: "nlh" for a null handle,
/// "close( nlh->fd ) == 0".
PAVO_EXPORT void closeNetlinkSocket(netlinkHandle* nlh);

/// Sends a request and waits for its acknowledgement: sets the process's next sequence number
/// (1000, 1001, ...) in the message, sends `nlmsg_len` bytes and returns the result of
/// `getNetlinkResponse`, after whose EBADE the handle has to be closed.
/// @pre NLM_F_ACK is among the flags and `nlmsg_len` is at least 16: the kernel answers no other
/// message and the call would never return.
PAVO_EXPORT int sendNetlinkMsg(netlinkHandle* h, nlmsghdr* msg);
/// Sends `len` bytes, one or more messages that the caller has numbered, as they are. Returns 0 or
/// -1; reads no answer.
PAVO_EXPORT int sendNetlinkVec(netlinkHandle* h, nlmsghdr* buf, int len);
/// Sends a request as `sendNetlinkMsg` does but reads nothing: returns the sequence number by which
/// the caller finds the answer, or -1.
PAVO_EXPORT int sendRecvXfrmNetlinkMsg(netlinkHandle* h, nlmsghdr* msg);
/// Requests a dump of all objects of a kind: a message of type `type` (RTM_GETLINK) with
/// NLM_F_REQUEST, NLM_F_ROOT and NLM_F_MATCH, for any address family. Returns the bytes sent, 20.
/// Unlike the other functions it throws when `send` fails, and never returns -1.
/// @throws Mox::ErrnoException "send"
PAVO_EXPORT int sendNetlinkRequest(int fd, unsigned seq, unsigned short type);
/// Reads one answer. Waits for it on a blocking socket, and reads again after a signal. Returns
/// - 0 for an acknowledgement;
/// - the error that the kernel reports, as a negative errno, which `errno` holds too;
/// - -1 when `recv` fails or receives nothing; when the message is cut short (`errno` unchanged);
///   when its error field is no negative errno (EBADMSG); when it has another sequence number than
///   `seq` or another type than NLMSG_ERROR (EBADE).
///
/// No second message is read: a stale answer makes the request fail. After EBADE the answer to this
/// request may still be in the socket, where every later request would find it instead of its own:
/// close the handle and open a new one.
PAVO_EXPORT int getNetlinkResponse(int fd, unsigned seq);

/// Appends an attribute, aligned to 4 bytes at both ends (padded with zeros), and adds its bytes to
/// `nlmsg_len`. Returns 0; or -1, with message and `errno` unchanged, when the message would be
/// longer than `bound` bytes, or `alen` is not the payload of an attribute (0 to 65531 bytes).
PAVO_EXPORT int addattr_l(nlmsghdr* n, int bound, int type, const void* data, int alen);

/// A request of at most `bound` bytes: a header, a zeroed `Body` (`ifinfomsg`, `tcmsg`) and
/// attributes.
template <class Body, int bound>
class NetlinkRequest {
  public:
    /// Without attributes; the body is all zero.
    NetlinkRequest(uint16_t type, uint16_t flags) {
        message_.header.nlmsg_len = sizeof(Message);
        message_.header.nlmsg_type = type;
        message_.header.nlmsg_flags = flags;
    }

    /// The message, to be changed and sent; `nlmsg_len` counts header, body and attributes.
    /// @{
    nlmsghdr* header() { return &message_.header; }
    Body& body() { return message_.body; }
    /// @}
    /// As `addattr_l`, for a payload type without padding.
    template <class Payload>
    int addAttribute(int type, const Payload& payload) {
        static_assert(std::is_trivially_copyable_v<Payload> && !std::is_pointer_v<Payload>,
                      "the payload is sent as its bytes: pass texts to addattr_l");
        return addattr_l(header(), bound, type, &payload, sizeof(payload));
    }

  private:
    struct Message {
        nlmsghdr header;
        Body body;
    };
    static_assert(sizeof(Message) == NLMSG_LENGTH(sizeof(Body)) && sizeof(Message) <= bound);

    union {
        Message message_ = {};
        unsigned char bytes_[bound];
    };
};

/// Reads the address in an attribute: 16, 4 or 6 bytes in network byte order. An attribute of fewer
/// bytes leaves the address unchanged, with a trace; of more, the first count.
/// @{
PAVO_EXPORT void getRtaAddr(rtattr* attribute, Ip6Addr* address);
PAVO_EXPORT void getRtaAddr(rtattr* attribute, IpAddr* address);
PAVO_EXPORT void getRtaAddr(rtattr* attribute, EthAddr* address);
/// @}
/// Traces the `nda_cacheinfo` of a neighbour entry, at level 9.
PAVO_EXPORT void getCacheInfo(const rtattr* attribute);

/// Attaches a prio queueing discipline (tc-prio(8)) of three bands, with the usual priority map, to
/// an interface of the default namespace, as its root 1:0. Returns the result of `sendNetlinkMsg`:
/// -EEXIST when there is a root discipline already. The name is looked up in the namespace of the
/// calling thread, so the thread has to be in the default one. Assertions: "ifIndex > 0" when the
/// interface is unknown, "ret == 0" when no socket can be opened.
PAVO_EXPORT int addPrioQdisc(const char* ifname);
/// Puts a link into a group; 0 is the default group. Returns the result of `sendNetlinkMsg`.
PAVO_EXPORT int setDeviceGroup(netlinkHandle* h, unsigned ifIndex, unsigned group);
/// Deletes all links of a group. Returns the result of `sendNetlinkMsg`: -ENODEV for an empty
/// group, -EPERM for the default one.
PAVO_EXPORT int delDeviceGroup(netlinkHandle* h, unsigned group);

}  // namespace Pavo
