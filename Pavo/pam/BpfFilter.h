/// @file
/// Filter expressions of tcpdump (pcap-filter(7)), run over packets here or by the kernel. Whoever
/// includes this needs libpcap's headers.
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
#include "Pavo/pam/IpPam.h"
#include "Pavo/pam/IpSocketPam.h"

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
///
/// Used on the thread of the event loop only: so is compiling, since libpcap before 1.8 keeps its
/// state in globals, and `match` has a buffer that it uses again.
class PAVO_EXPORT BpfFilter : public Mox::Described<BpfFilter> {
  public:
    static constexpr auto description() { return Mox::classRecord("Pavo::BpfFilter"); }

    /// A filter without a program. The name stands in trace lines only.
    explicit BpfFilter(Mox::String name);

    const Mox::String& name() const { return name_; }

    /// The expression in use, empty for none.
    const Mox::String& bpfFilterString() const { return bpfFilterString_; }
    /// Compiles an expression other than the one in use. One that libpcap refuses is fatal,
    /// "false", after a trace line with libpcap's text: for what comes from outside use
    /// `tryCompile`.
    void bpfFilterStringIs(Mox::String expression);
    /// The same for an expression that may be wrong: returns what is wrong, in which case program
    /// and expression stay as they were, or an empty string. The text is libpcap's, or "a zero byte
    /// in the expression", behind which libpcap would not look.
    Mox::String tryCompile(const Mox::String& expression);

    /// Whether the packet passes; none does without a program. A packet in one piece is looked at
    /// where it lies, one in two pieces is copied together first.
    bool match(const Mox::Ptr<Pkt>& pkt) const;

    // The state, for those who bring a program of their own: these store, and neither compile nor
    // release. While `initialized`, the program pointed at is released by pcap_freecode(3) when
    // another takes its place and when the filter ends.

    /// The program that `match` runs, null for none.
    bpf_program* bpfFilter() const { return bpfFilter_; }
    void bpfFilterIs(bpf_program* program) { bpfFilter_ = program; }
    /// What holds a compiled program.
    const bpf_program& bpfFilterHolder() const { return bpfFilterHolder_; }
    void bpfFilterHolderIs(bpf_program program) { bpfFilterHolder_ = program; }
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
    mutable std::vector<uint8_t> joined_;  // The packet in two pieces that was last looked at.
};

/// A filter without a program.
PAVO_EXPORT Mox::Ptr<BpfFilter> bpfFilterFactory(Mox::String name);

/// The most instructions that the `rxFilter` of an endpoint holds.
constexpr uint32_t maxIpFilterInstructions = 256;

/// Makes an expression a program for a raw IPv4 socket, to which a packet begins with its IP
/// header; packets that pass are received whole. An empty expression passes all. The socket sees
/// packets after reassembly, so none is a fragment to it.
///
/// Returns an empty string and writes `*program`, or says what is wrong and leaves it: in libpcap's
/// words, also of expressions about link layers, which such a packet does not have; or
/// "N instructions, and a receive filter has 256 at most"; or "a loop, which the kernel does not
/// take", which "protochain" is. Used on the thread of the event loop only.
PAVO_EXPORT Mox::String ipFilterFromText(const Mox::String& expression,
                                         std::vector<IpFilter>* program);

/// Makes an expression the `rxFilter` of an endpoint, in place of all instructions it had; a
/// notification comes with each that differs. Returns what `ipFilterFromText` does, and leaves the
/// endpoint as it is unless that is empty. A socket keeps the filter that is attached to it until
/// the option `ipAttachFilter` is next switched on, or the endpoint enabled.
PAVO_EXPORT Mox::String rxFilterFromText(const Mox::String& expression, Mox::Ptr<IpSocketPam> pam);

}  // namespace Pavo
