/// @file
/// Filter expressions of tcpdump (pcap-filter(7)), run over packets in the process or by the
/// kernel. Code that includes this needs libpcap's headers.
#pragma once

#include <sys/types.h>  // First: pcap/bpf.h needs its types.

#include <pcap/bpf.h>

#include <cstdint>
#include <vector>

#include "Mox/FwkType.h"
#include "Mox/Ptr.h"
#include "Mox/String.h"
#include "Pavo/base/Export.h"
#include "Pavo/packet/Pkt.h"
#include "Pavo/pam/IpSocketOptions.h"

namespace Pavo {

/// Tests packets, which begin with their Ethernet header, against an expression that libpcap
/// compiles once:
///
///     no program --expression--> program --other expression--> program, the former one released
///         ^                         |
///         +-----empty expression----+
///
/// The separate VLAN tag of a packet is no part of its bytes and is not looked at. Names of hosts
/// in an expression are looked up while it is compiled, which may take as long as DNS does.
/// Names of protocols are looked up in /etc/protocols: where that file or the name is missing,
/// libpcap may compile `proto ospf` as protocol 0 without an error. Write numbers: `ip proto 89`.
///
/// Use it only on the thread of the event loop: `match` has a buffer that it uses again, and
/// libpcap before 1.8 keeps the state of its compiler in globals.
class PAVO_EXPORT BpfFilter : public Mox::Described<BpfFilter> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::BpfFilter"); }

    /// A filter without a program. The name stands in trace lines only.
    explicit BpfFilter(Mox::String name);

    /// As it was made with.
    const Mox::String& name() const { return name_; }

    /// The expression in use, or empty.
    const Mox::String& bpfFilterString() const { return bpfFilterString_; }
    /// Compiles an expression, unless it is the one in use. An expression that libpcap refuses is
    /// fatal, "false", after a trace line with libpcap's text; for expressions from outside use
    /// `tryCompile`.
    void bpfFilterStringIs(Mox::String expression);
    /// The same for an expression that may be wrong. Returns an empty string on success, else the
    /// error; program and expression are then unchanged. The text is libpcap's, or "a zero byte in
    /// the expression", since libpcap would ignore what follows that byte.
    Mox::String tryCompile(const Mox::String& expression);

    /// Whether the packet passes; without a program none does. A packet in two pieces is first
    /// copied into a buffer, a packet in one piece is not copied.
    bool match(const Mox::Ptr<Pkt>& pkt) const;

    // The state, for callers with a program of their own: the setters only store. While
    // `initialized`, the program pointed at is released by pcap_freecode(3) when another replaces
    // it and in the destructor.

    /// The program that `match` runs, or null.
    bpf_program* bpfFilter() const { return bpfFilter_; }
    void bpfFilterIs(bpf_program* program) { bpfFilter_ = program; }
    /// Holds the program that this object compiled.
    const bpf_program& bpfFilterHolder() const { return bpfFilterHolder_; }
    void bpfFilterHolderIs(bpf_program program) { bpfFilterHolder_ = program; }
    /// The program is released by this object.
    bool initialized() const { return initialized_; }
    void initializedIs(bool initialized) { initialized_ = initialized; }

  protected:
    ~BpfFilter() override;

  private:
    void handleFilterString();
    bool matchSlowly(const Pkt& pkt) const;
    void programDel();
    void programIs(const bpf_program& program);

    Mox::String name_;
    Mox::String bpfFilterString_;
    bpf_program* bpfFilter_ = nullptr;
    bpf_program bpfFilterHolder_{};
    bool initialized_ = false;
    mutable std::vector<uint8_t> joined_;  // The last packet that had two pieces.
};

/// A filter without a program.
PAVO_EXPORT Mox::Ptr<BpfFilter> bpfFilterFactory(Mox::String name);

/// The most instructions that the `rxFilter` of an endpoint holds.
constexpr uint32_t maxIpFilterInstructions = 256;

/// Compiles an expression for a raw IPv4 socket, whose packets begin with the IP header; packets
/// that pass are received whole. An empty expression passes all packets. The socket receives
/// packets after reassembly, so it sees no fragments.
///
/// Returns an empty string and writes `*program`, or returns the error and leaves `*program`
/// unchanged. The text is libpcap's, also for an expression about link layers, which such a packet
/// does not have; or "N instructions, and a receive filter has 256 at most"; or "a loop, which the
/// kernel does not take", which "protochain" compiles to. Call it only on the thread of the
/// event loop.
PAVO_EXPORT Mox::String ipFilterFromText(const Mox::String& expression,
                                         std::vector<IpFilter>* program);

/// The same for a socket whose packets begin with their Ethernet header, with the kernel's limit of
/// 4096 instructions in the text. The kernel takes the outermost VLAN tag out of a frame before a
/// filter sees it, so `vlan` does not match that one.
PAVO_EXPORT Mox::String ethFilterFromText(const Mox::String& expression,
                                          std::vector<IpFilter>* program);

}  // namespace Pavo
