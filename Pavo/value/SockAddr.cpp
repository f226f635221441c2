#include "Pavo/value/SockAddr.h"

namespace Pavo {

namespace {

// The bytes of `name` as its family's structure; all zero where they are those of another family.
template <class Image>
Image imageOf(const SockAddr& name, sa_family_t family) {
    Image image{};
    if (name.storage.ss_family == family && name.length >= sizeof(image)) {
        std::memcpy(&image, &name.storage, sizeof(image));
    }
    return image;
}
sockaddr_in v4Image(const SockAddr& name) {
    return imageOf<sockaddr_in>(name, AF_INET);
}
sockaddr_in6 v6Image(const SockAddr& name) {
    return imageOf<sockaddr_in6>(name, AF_INET6);
}

template <class Image>
void imageIs(SockAddr& name, const Image& image) {
    std::memcpy(&name.storage, &image, sizeof(image));
    name.length = sizeof(image);
}

}  // namespace

sockaddr_in sockaddrInFrom(const IpAddr& address, uint16_t port) {
    sockaddr_in image{};
    image.sin_family = AF_INET;
    image.sin_port = htons(port);
    image.sin_addr = inAddrFrom(address);
    return image;
}

sockaddr_in6 sockaddrIn6From(const Ip6Addr& address, uint16_t port, uint32_t scopeId) {
    sockaddr_in6 image{};
    image.sin6_family = AF_INET6;
    image.sin6_port = htons(port);
    image.sin6_addr = in6AddrFrom(address);
    image.sin6_scope_id = scopeId;
    return image;
}

SockAddr::SockAddr(const IpGenAddr& address, Port port, uint32_t scopeId) {
    switch (address.af()) {
        case ipv4:
            imageIs(*this, sockaddrInFrom(address.v4Addr(), port.value()));
            break;
        case ipv6:
            imageIs(*this, sockaddrIn6From(address.v6Addr(), port.value(), scopeId));
            break;
        default:
            imageIs(*this, sockaddr{});
    }
}

IpGenAddr SockAddr::address() const {
    const sockaddr_in v4 = v4Image(*this);
    if (v4.sin_family == AF_INET) {
        return ipAddrFrom(v4.sin_addr);
    }
    const sockaddr_in6 v6 = v6Image(*this);
    return v6.sin6_family == AF_INET6 ? ip6AddrFrom(v6.sin6_addr) : IpGenAddr();
}

// Only one of the two is not zero.
Port SockAddr::port() const {
    return ntohs(v4Image(*this).sin_port | v6Image(*this).sin6_port);
}

uint32_t SockAddr::scopeId() const {
    return v6Image(*this).sin6_scope_id;
}

}  // namespace Pavo
