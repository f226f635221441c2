/// @file
/// Captures the packets of an interface, for tshark(1) and others.
#pragma once

#include <memory>
#include <string>

namespace Demo {

/// Captures on an interface of a namespace from its construction on; `write` writes the packets.
class Capture {
  public:
    /// @throws std::runtime_error with libpcap's text.
    Capture(const std::string& netNs, const std::string& interface);
    ~Capture();

    /// Writes all packets captured so far to a pcap file; returns how many.
    /// @throws std::runtime_error with libpcap's text.
    unsigned write(const std::string& path);

  private:
    struct Closer {
        void operator()(void* handle) const;
    };
    std::unique_ptr<void, Closer> handle_;
};

}  // namespace Demo
