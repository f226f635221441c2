#include "Mox/NboAttrLog.h"

#include <cstring>

#include "Mox/Exception.h"

namespace Mox {

void NboAttrLog::Out::number(uint64_t value, int width) {
    uint8_t image[8];
    for (int i = 0; i < width; ++i) {
        image[i] = static_cast<uint8_t>(value >> (8 * (width - 1 - i)));
    }
    raw(image, static_cast<uint32_t>(width));
}

const uint8_t* NboAttrLog::In::take(uint32_t length) {
    if (left() < length) {
        throwRangeException("NboAttrLog: premature end");
    }
    const uint8_t* taken = at_;
    at_ += length;
    return taken;
}

uint64_t NboAttrLog::In::number(int width) {
    const uint8_t* image = take(static_cast<uint32_t>(width));
    uint64_t value = 0;
    for (int i = 0; i < width; ++i) {
        value = value << 8 | image[i];
    }
    return value;
}

void NboAttrLog::In::raw(void* data, uint32_t length) {
    const uint8_t* image = take(length);
    if (length != 0) {
        std::memcpy(data, image, length);
    }
}

String NboAttrLog::In::string() {
    In ahead = *this;
    const uint32_t length = ahead.u32();
    const uint8_t* text = ahead.take(length);
    *this = ahead;
    return String(reinterpret_cast<const char*>(text), length);
}

}  // namespace Mox
