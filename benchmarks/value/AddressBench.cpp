// Address text beside the C library's, and sorting beside that of a plain struct.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/ether.h>

#include <algorithm>
#include <compare>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "Pavo/EthAddr.h"
#include "Pavo/Ip6Addr.h"
#include "Pavo/IpAddr.h"
#include "RunOver.h"

namespace {

// Enough of them, and of every length, that branches are not predicted: of 1,024 texts a
// processor learns where each octet ends, as it cannot of those that an agent reads once.
constexpr uint32_t count = 16384;

std::vector<Pavo::IpAddr> ip4Addresses() {
    std::mt19937 random(1);
    std::vector<Pavo::IpAddr> all;
    for (uint32_t i = 0; i < count; ++i) {
        all.emplace_back(static_cast<uint32_t>(random() >> (i % 3 == 0 ? random() % 24 : 0)));
    }
    return all;
}

std::vector<Pavo::Ip6Addr> ip6Addresses() {
    std::mt19937_64 random(2);
    std::vector<Pavo::Ip6Addr> all;
    for (uint32_t i = 0; i < count; ++i) {
        // Global addresses with and without an interface identifier, and some link-local ones.
        const uint64_t high =
            i % 4 == 0 ? 0xfe80000000000000 : 0x20010db800000000 | (random() >> 40);
        all.emplace_back(high, i % 3 == 0 ? random() % 0xffff : random());
    }
    return all;
}

std::vector<Pavo::EthAddr> ethAddresses() {
    std::mt19937 random(3);
    std::vector<Pavo::EthAddr> all(count);
    for (auto& each : all) {
        for (unsigned word = 0; word < 3; ++word) {
            each.wordIs(word, static_cast<uint16_t>(random()));
        }
    }
    return all;
}

template <class T>
std::vector<Mox::String> textsOf(const std::vector<T>& values) {
    std::vector<Mox::String> texts;
    for (const T& each : values) {
        texts.push_back(each.stringValue());
    }
    return texts;
}

template <class T>
void parsePavo(benchmark::State& state, const std::vector<T>& values) {
    const auto texts = textsOf(values);
    runOver(count, state, [&texts](uint32_t i) {
        T value;
        auto it = texts[i].begin();
        sequenceToValue(it, texts[i].end(), &value);
        benchmark::DoNotOptimize(value);
    });
}

template <class T>
void printPavo(benchmark::State& state, const std::vector<T>& values) {
    runOver(count, state, [&values](uint32_t i) {
        char buffer[64];
        benchmark::DoNotOptimize(values[i].printToBuffer(buffer, sizeof(buffer)));
        benchmark::ClobberMemory();
    });
}

template <class T>
void parseInet(benchmark::State& state, const std::vector<T>& values, int family) {
    const auto texts = textsOf(values);
    runOver(count, state, [&texts, family](uint32_t i) {
        unsigned char address[16];
        benchmark::DoNotOptimize(inet_pton(family, texts[i].c_str(), address));
        benchmark::ClobberMemory();
    });
}

template <class T>
void printInet(benchmark::State& state, const std::vector<T>& values, int family) {
    runOver(count, state, [&values, family](uint32_t i) {
        char buffer[64];
        benchmark::DoNotOptimize(inet_ntop(family, &values[i], buffer, sizeof(buffer)));
        benchmark::ClobberMemory();
    });
}

void parseEther(benchmark::State& state, const std::vector<Pavo::EthAddr>& values) {
    const auto texts = textsOf(values);
    runOver(count, state, [&texts](uint32_t i) {
        ether_addr address;
        benchmark::DoNotOptimize(ether_aton_r(texts[i].c_str(), &address));
        benchmark::ClobberMemory();
    });
}

void printSnprintf(benchmark::State& state, const std::vector<Pavo::EthAddr>& values) {
    runOver(count, state, [&values](uint32_t i) {
        const auto* b = reinterpret_cast<const unsigned char*>(&values[i]);
        char buffer[64];
        benchmark::DoNotOptimize(std::snprintf(buffer, sizeof(buffer),
                                               "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2],
                                               b[3], b[4], b[5]));
        benchmark::ClobberMemory();
    });
}

// What stands in for a `Prefix` elsewhere, with the order that the compiler makes.
struct AddressAndLen {
    uint32_t address;
    uint32_t len;
    friend auto operator<=>(const AddressAndLen&, const AddressAndLen&) = default;
};

template <class T>
T makePrefix(uint32_t network, uint32_t len) {
    if constexpr (std::is_same_v<T, Pavo::Prefix>) {
        return Pavo::Prefix(Pavo::IpAddr(network), len);
    } else {
        return {network, len};
    }
}

// The order of prefixes, the more specific one first, by numbers in host order.
struct PlainKey {
    uint32_t address;
    uint32_t len;

    uint64_t orderKey() const {
        return uint64_t{address | uint64_t{0xffffffff} >> len} << 32 | (32 - len);
    }
    friend bool operator<(const PlainKey& a, const PlainKey& b) {
        return a.orderKey() < b.orderKey();
    }
};

// As in a routing table: mostly /24, with networks that cover them.
template <class T>
std::vector<T> prefixes(uint32_t size = 100'000) {
    std::mt19937 random(4);
    std::vector<T> all;
    for (uint32_t i = 0; i < size; ++i) {
        const uint32_t len = i % 2 == 0 ? 24 : 8 + static_cast<uint32_t>(random() % 25);
        const auto network = static_cast<uint32_t>(random()) & ~uint32_t{0} << (32 - len);
        all.push_back(makePrefix<T>(network, len));
    }
    return all;
}

template <class T>
void sortCopies(benchmark::State& state, const std::vector<T>& values) {
    for (auto _ : state) {
        std::vector<T> copy = values;
        std::sort(copy.begin(), copy.end());
        benchmark::DoNotOptimize(copy.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(values.size()));
}

template <class T, class Hash>
void find(benchmark::State& state, const std::vector<T>& values) {
    const std::unordered_set<T, Hash> table(values.begin(), values.end());
    runOver(static_cast<uint32_t>(values.size()), state,
            [&](uint32_t i) { benchmark::DoNotOptimize(table.find(values[i])); });
}

// The hash that agents store and send.
struct MemberHash {
    std::size_t operator()(const Pavo::Prefix& prefix) const noexcept { return prefix.hash(); }
};

const bool registered = [] {
    using benchmark::RegisterBenchmark;
    const auto ip4 = ip4Addresses();
    const auto ip6 = ip6Addresses();
    const auto eth = ethAddresses();
    RegisterBenchmark("IpAddrParse/pavo", parsePavo<Pavo::IpAddr>, ip4);
    RegisterBenchmark("IpAddrParse/inet_pton", parseInet<Pavo::IpAddr>, ip4, AF_INET);
    RegisterBenchmark("IpAddrPrint/pavo", printPavo<Pavo::IpAddr>, ip4);
    RegisterBenchmark("IpAddrPrint/inet_ntop", printInet<Pavo::IpAddr>, ip4, AF_INET);
    RegisterBenchmark("Ip6AddrParse/pavo", parsePavo<Pavo::Ip6Addr>, ip6);
    RegisterBenchmark("Ip6AddrParse/inet_pton", parseInet<Pavo::Ip6Addr>, ip6, AF_INET6);
    RegisterBenchmark("Ip6AddrPrint/pavo", printPavo<Pavo::Ip6Addr>, ip6);
    RegisterBenchmark("Ip6AddrPrint/inet_ntop", printInet<Pavo::Ip6Addr>, ip6, AF_INET6);
    RegisterBenchmark("EthAddrParse/pavo", parsePavo<Pavo::EthAddr>, eth);
    RegisterBenchmark("EthAddrParse/ether_aton_r", parseEther, eth);
    RegisterBenchmark("EthAddrPrint/pavo", printPavo<Pavo::EthAddr>, eth);
    RegisterBenchmark("EthAddrPrint/snprintf", printSnprintf, eth);
    RegisterBenchmark("PrefixSort/pavo", sortCopies<Pavo::Prefix>, prefixes<Pavo::Prefix>());
    RegisterBenchmark("PrefixSort/struct", sortCopies<AddressAndLen>, prefixes<AddressAndLen>());
    RegisterBenchmark("PrefixSort1M/pavo", sortCopies<Pavo::Prefix>,
                      prefixes<Pavo::Prefix>(1'000'000));
    RegisterBenchmark("PrefixSort1M/plain_keys", sortCopies<PlainKey>,
                      prefixes<PlainKey>(1'000'000));
    RegisterBenchmark("PrefixFind/pavo", find<Pavo::Prefix, std::hash<Pavo::Prefix>>,
                      prefixes<Pavo::Prefix>());
    RegisterBenchmark("PrefixFind/member_hash", find<Pavo::Prefix, MemberHash>,
                      prefixes<Pavo::Prefix>());
    return true;
}();

}  // namespace
