/// @file
/// The mode of an endpoint on a TCP stream, and the results of its reads.
#pragma once

#include <compare>
#include <cstdint>
#include <string_view>
#include <utility>

#include "Mox/Enum.h"
#include "Mox/String.h"
#include "Mox/ValueType.h"
#include "Pavo/base/ValueFunctions.h"

namespace Pavo {

/// Which directions of a stream an endpoint serves, a bit for each.
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
    error = 0,            ///< the stream has failed
    readMoreData = 1,     ///< bytes came, and more are needed
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

/// The result of one read, and the text of an error.
class TcpPduPamReadReturn : public Mox::ValueType<TcpPduPamReadReturn> {
  public:
    using Result = TcpPduPamReadResult;

    TcpPduPamReadReturn() = default;
    TcpPduPamReadReturn(Result result) : result_(result) {}
    TcpPduPamReadReturn(Result result, Mox::String reason)
        : result_(result), reason_(std::move(reason)) {}
    TcpPduPamReadReturn(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit TcpPduPamReadReturn(std::string_view text) { readWhole(text); }
    TcpPduPamReadReturn(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// `error` by default.
    Result result() const { return result_; }
    /// Empty but for an error.
    const Mox::String& reason() const { return reason_; }

    friend auto operator<=>(const TcpPduPamReadReturn&, const TcpPduPamReadReturn&) = default;

    static constexpr auto description() {
        return Mox::record("Pavo::TcpPduPamReadReturn",
                           Mox::field("result", &TcpPduPamReadReturn::result_),
                           Mox::field("reason", &TcpPduPamReadReturn::reason_));
    }

  private:
    Result result_ = Result::error;
    Mox::String reason_;
};

}  // namespace Pavo
