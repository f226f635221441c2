// Attribute logs of all value types: any value that bytes can be read as, and the order of three.
// The first line names the type.

#include <vector>

#include "fuzz/ValueOracles.h"

namespace {

// Any two are ordered one way, and any three keep to it.
template <class T>
void checkOrder(const std::vector<T>& values) {
    for (const T& a : values) {
        for (const T& b : values) {
            Mox::require((a == b) == (b == a) && !(a == b && a != b), "equal is mutual");
            Mox::require(!(a == b) || a.hash() == b.hash(), "equal values, equal hashes");
            if constexpr (requires { a < b; }) {
                Mox::require((a < b) + (b < a) <= 1 && !(a == b && a < b), "one way");
                Mox::require((a < b) == (b > a) && (a <= b) == !(b < a), "the four agree");
                for (const T& c : values) {
                    Mox::require(!(a < b && b < c) || a < c, "below what is below");
                }
            }
        }
    }
}

template <class T>
void checkLogs(std::string_view log) {
    Mox::NboAttrLog::In in(log.data(), static_cast<uint32_t>(log.size()));
    std::vector<T> values;
    const std::string error = fuzz::rangeErrorOf([&] {
        while (values.size() < 3 && in.left() != 0) {
            const uint32_t left = in.left();
            const std::string_view image = log.substr(log.size() - left);
            values.push_back(T(&in, Mox::StreamBogon()));
            Mox::require(in.left() <= left, "reads forwards");
            const Mox::Bytes again = fuzz::checkLog(values.back());
            Mox::require(
                fuzz::asText(again.data(), again.bytes()) == image.substr(0, left - in.left()),
                "log, value, log");
        }
    });
    for (const T& value : values) {
        fuzz::checkValue(value);
    }
    checkOrder(values);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzz::withNamedType(
        fuzz::ValueTypes(), fuzz::asText(data, size),
        []<class T>(std::type_identity<T>, std::string_view log) { checkLogs<T>(log); });
    return 0;
}
