/// @file
/// Writing down what passes an interface, for tshark(1) and its kin.
#pragma once

#include <memory>
#include <string>

namespace Demo {

/// Listens on an interface of a namespace from the beginning, and writes what it heard when asked.
class Capture {
  public:
    /// @throws std::runtime_error with libpcap's text.
    Capture(const std::string& netNs, const std::string& interface);
    ~Capture();

    /// Writes all packets heard so far to a pcap file; returns how many.
    /// @throws std::runtime_error with libpcap's text.
    unsigned write(const std::string& path);

  private:
    struct Closer {
        void operator()(void* handle) const;
    };
    std::unique_ptr<void, Closer> handle_;
};

}  // namespace Demo
