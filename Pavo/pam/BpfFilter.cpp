#include "Pavo/pam/BpfFilter.h"

#include <pcap/pcap.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "Mox/Assert.h"
#include "Mox/Trace.h"

namespace Pavo {

namespace {

Mox::TraceFacility trace("Pavo::BpfFilter");

// Levels of trace.
constexpr int failureLevel = 0;
constexpr int matchLevel = 6;
constexpr int compileLevel = 7;

// A program returns this for a packet that passes; the kernel keeps so many bytes of the packet.
constexpr int etherSnapBytes = 65535;
constexpr int kernelSnapBytes = 262144;              // Longer than any packet.
constexpr uint32_t maxEthFilterInstructions = 4096;  // The kernel's limit.

// Compiles into `*program`, which the caller releases. Returns the error, or an empty string.
Mox::String compileWith(pcap_t* handle, const Mox::String& expression, bpf_program* program) {
    if (expression.view().find('\0') != std::string_view::npos) {
        return "a zero byte in the expression";  // libpcap would ignore the rest.
    }
    constexpr int optimize = 1;
    const int result =
        pcap_compile(handle, program, expression.c_str(), optimize, PCAP_NETMASK_UNKNOWN);
    return result == -1 ? Mox::String(pcap_geterr(handle)) : Mox::String();
}

Mox::String compilePcapFilter(const Mox::String& name, int linkType, int snapBytes,
                              const Mox::String& expression, bpf_program* program) {
    const std::unique_ptr<pcap_t, void (*)(pcap_t*)> handle(pcap_open_dead(linkType, snapBytes),
                                                            pcap_close);
    if (!handle) {
        return "out of memory";
    }
    MOX_TRACE(trace, compileLevel, name, " compiling ", expression);
    Mox::String error = compileWith(handle.get(), expression, program);
    if (!error.empty()) {
        MOX_TRACE(trace, failureLevel, name, " compilation failed with error: ", error);
    }
    return error;
}

// Does what pcap_offline_filter(3) does, without its packet header: on i386 the time in that header
// is 64 bits wide here and 32 in the library.
inline uint32_t run(const bpf_program& program, const uint8_t* data, uint32_t bytes) {
    return bpf_filter(program.bf_insns, data, bytes, bytes);
}

// The instructions of a libpcap program, in the form of the kernel and of `rxFilter`.
std::vector<IpFilter> instructionsOf(const bpf_program& program) {
    std::vector<IpFilter> instructions;
    instructions.reserve(program.bf_len);
    for (uint32_t i = 0; i < program.bf_len; ++i) {
        const bpf_insn& each = program.bf_insns[i];
        instructions.emplace_back(each.code, each.jt, each.jf, each.k);
    }
    return instructions;
}

// The kernel only allows jumps forward. A jump back of libpcap has a distance that wraps around.
bool hasLoop(const std::vector<IpFilter>& program) {
    for (uint32_t i = 0; i < program.size(); ++i) {
        if (program[i].code() == (BPF_JMP | BPF_JA) && program[i].k() >= program.size() - i - 1) {
            return true;
        }
    }
    return false;
}

}  // namespace

BpfFilter::BpfFilter(Mox::String name) : name_(std::move(name)) {
    handleFilterString();
}

BpfFilter::~BpfFilter() {
    programDel();
}

void BpfFilter::bpfFilterStringIs(Mox::String expression) {
    if (expression == bpfFilterString_) {
        return;
    }
    bpfFilterString_ = std::move(expression);
    handleFilterString();
}

Mox::String BpfFilter::tryCompile(const Mox::String& expression) {
    if (expression == bpfFilterString_) {
        return {};
    }
    Mox::String stored = expression;
    bpf_program program{};
    if (!stored.empty()) {
        const Mox::String error =
            compilePcapFilter(name_, DLT_EN10MB, etherSnapBytes, stored, &program);
        if (!error.empty()) {
            return error;
        }
    }
    programDel();
    bpfFilterString_ = std::move(stored);
    if (!bpfFilterString_.empty()) {
        programIs(program);
    }
    return {};
}

void BpfFilter::handleFilterString() {
    programDel();
    if (bpfFilterString_.empty()) {
        return;
    }
    bpf_program program{};
    const Mox::String error =
        compilePcapFilter(name_, DLT_EN10MB, etherSnapBytes, bpfFilterString_, &program);
    Mox::require(error.empty(), "false");
    programIs(program);
}

bool BpfFilter::match(const Mox::Ptr<Pkt>& pkt) const {
    // A program without instructions passes everything to bpf_filter, and nothing to libpcap.
    if (bpfFilter_ == nullptr || bpfFilter_->bf_insns == nullptr) {
        return false;
    }
    const bool isSplit = pkt->firstIoVec() == 0 && pkt->iovec(1).bytes != 0;
    if (isSplit || trace.isEnabled(matchLevel)) {
        return matchSlowly(*pkt);
    }
    return run(*bpfFilter_, pkt->frontData(), pkt->frontBytes()) != 0;
}

bool BpfFilter::matchSlowly(const Pkt& pkt) const {
    joined_.clear();  // Keeps its memory.
    for (const Pkt::Iovec& each : pkt.iovecs()) {
        joined_.insert(joined_.end(), each.data, each.data + each.bytes);
    }
    const uint32_t result = run(*bpfFilter_, joined_.data(), pkt.totalBytes());
    MOX_TRACE(trace, matchLevel, "Did filter ", name_, " match? ", result);
    return result != 0;
}

void BpfFilter::programDel() {
    if (initialized_ && bpfFilter_ != nullptr) {
        pcap_freecode(bpfFilter_);
        MOX_TRACE(trace, compileLevel, "Freed ", name_);
    }
    bpfFilter_ = nullptr;
    initialized_ = true;
}

void BpfFilter::programIs(const bpf_program& program) {
    bpfFilterHolder_ = program;
    bpfFilter_ = &bpfFilterHolder_;
    MOX_TRACE(trace, compileLevel, "Constructed bpf filter for ", name_);
}

Mox::Ptr<BpfFilter> bpfFilterFactory(Mox::String name) {
    return Mox::make<BpfFilter>(std::move(name));
}

namespace {

Mox::String kernelFilterFromText(int linkType, uint32_t maxInstructions,
                                 const Mox::String& expression, std::vector<IpFilter>* program) {
    bpf_program compiled{};
    const Mox::String error =
        compilePcapFilter("rxFilter", linkType, kernelSnapBytes, expression, &compiled);
    if (!error.empty()) {
        return error;
    }
    const std::unique_ptr<bpf_program, void (*)(bpf_program*)> owner(&compiled, pcap_freecode);
    if (compiled.bf_len > maxInstructions) {
        return std::to_string(compiled.bf_len) + " instructions, and a receive filter has " +
               std::to_string(maxInstructions) + " at most";
    }
    std::vector<IpFilter> instructions = instructionsOf(compiled);
    if (hasLoop(instructions)) {
        return "a loop, which the kernel does not take";
    }
    *program = std::move(instructions);
    return {};
}

}  // namespace

Mox::String ipFilterFromText(const Mox::String& expression, std::vector<IpFilter>* program) {
    return kernelFilterFromText(DLT_RAW, maxIpFilterInstructions, expression, program);
}

Mox::String ethFilterFromText(const Mox::String& expression, std::vector<IpFilter>* program) {
    return kernelFilterFromText(DLT_EN10MB, maxEthFilterInstructions, expression, program);
}

}  // namespace Pavo
