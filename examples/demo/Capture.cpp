#include "demo/Capture.h"

#include <pcap/pcap.h>

#include <stdexcept>

#include "Pavo/ScopedNetNs.h"

namespace Demo {

namespace {

constexpr int snapBytes = 65535;
constexpr int bufferBytes = 16 << 20;

pcap_t* open(const std::string& interface) {
    char text[PCAP_ERRBUF_SIZE];
    pcap_t* handle = pcap_create(interface.c_str(), text);
    if (handle == nullptr) {
        throw std::runtime_error(text);
    }
    pcap_set_snaplen(handle, snapBytes);
    pcap_set_buffer_size(handle, bufferBytes);
    pcap_set_immediate_mode(handle, 1);
    if (pcap_activate(handle) < 0 || pcap_setnonblock(handle, 1, text) < 0) {
        const std::string why = pcap_geterr(handle);
        pcap_close(handle);
        throw std::runtime_error("capture on " + interface + ": " + why);
    }
    return handle;
}

}  // namespace

Capture::Capture(const std::string& netNs, const std::string& interface) {
    const Pavo::ScopedNetNs inside(netNs.c_str());
    handle_.reset(open(interface));
}

Capture::~Capture() = default;

void Capture::Closer::operator()(void* handle) const {
    pcap_close(static_cast<pcap_t*>(handle));
}

unsigned Capture::write(const std::string& path) {
    auto* const handle = static_cast<pcap_t*>(handle_.get());
    pcap_dumper_t* const file = pcap_dump_open(handle, path.c_str());
    if (file == nullptr) {
        throw std::runtime_error(pcap_geterr(handle));
    }
    unsigned written = 0;
    int got = 0;
    while ((got = pcap_dispatch(handle, -1, pcap_dump, reinterpret_cast<u_char*>(file))) > 0) {
        written += static_cast<unsigned>(got);
    }
    const bool flushed = pcap_dump_flush(file) == 0;
    pcap_dump_close(file);
    if (got < 0 || !flushed) {
        throw std::runtime_error("writing " + path + " failed");
    }
    return written;
}

}  // namespace Demo
