// Prints what must not depend on the word size, since processes of both kinds share keys and logs:
// text, strep, log, hash and order of values of every type, and the members of every enumeration.
// What packets hold, and names of interfaces, are stated by the tests, which run in both kinds of
// processes.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <type_traits>

#include "Mox/Enum.h"
#include "Mox/Exception.h"
#include "Mox/NboAttrLog.h"
#include "Mox/ValueType.h"

#include "fuzz/ValueTypes.h"

namespace {

void printHex(const Mox::Bytes& bytes) {
    for (const uint8_t byte : bytes) {
        std::printf("%02x", byte);
    }
}

constexpr int samplesPerType = 1000;
constexpr int attemptsPerSample = 20000;

template <class T>
Mox::Bytes logOf(const T& value) {
    Mox::NboAttrLog::Out log;
    log << value;
    return log.bytes;
}

// Draws logs of values, the same on every machine: few words of the log before are changed.
class Logs {
  public:
    // A value whose log is not in `seen` yet, or nothing when no more is found.
    template <class T>
    std::optional<T> next(const T& before, std::set<Mox::Bytes>* seen) {
        for (int attempt = 0; attempt < attemptsPerSample; ++attempt) {
            const Mox::Bytes log = changed(logOf(attempt % 8 == 0 ? T() : before));
            Mox::NboAttrLog::In in(log);
            try {
                const T value(&in, Mox::StreamBogon());
                if (seen->emplace(log.data(), log.bytes() - in.left()).second) {
                    return value;
                }
            } catch (const Mox::RangeException&) {  // The type has no such value.
            }
        }
        return std::nullopt;
    }

  private:
    static constexpr uint32_t wordsPerLog = 64;

    Mox::Bytes changed(const Mox::Bytes& before) {
        Mox::NboAttrLog::In in(before);
        uint32_t words[wordsPerLog] = {};
        uint32_t count = 0;
        while (in.left() >= 4 && count < wordsPerLog) {
            words[count++] = in.u32();
        }
        for (uint32_t changes = any() % 3 + 1; changes != 0; --changes) {
            uint32_t& each = words[any() % (count + 1) % wordsPerLog];
            each = any() % 4 == 0 ? each + 1 : word();
        }
        Mox::NboAttrLog::Out result;
        for (const uint32_t each : words) {
            result.u32(each);
        }
        return result.bytes;
    }

    uint32_t any() { return static_cast<uint32_t>(random_()); }

    uint32_t word() {
        const uint32_t words[] = {
            0,
            any() % 2 == 0 ? 0xffffffff : 0xffff,
            ~0u << (any() % 32),
            any() << (any() % 32),
            any() >> (any() % 32),
            any() % 4,
            any() % (any() % 2 == 0 ? 33 : 129),  // Lengths of prefixes.
            any() % 0x10000,
            any(),
        };
        return words[any() % std::size(words)];
    }

    std::mt19937 random_{20240501};
};

// Bytes that are not graphic as "\xHH", so that a line is a line.
void printEscaped(const char* what, const Mox::String& text) {
    std::printf(" %s=", what);
    for (const char c : text) {
        std::printf(c >= ' ' && c <= '~' ? "%c" : "\\x%02x", static_cast<unsigned char>(c));
    }
}

// '<', '=', '>', '~' for values side by side, '?' for a type without an order.
template <class T>
char relation(const T& a, const T& b) {
    if (a == b) {
        return '=';
    }
    if constexpr (requires { a < b; }) {
        return a < b ? '<' : b < a ? '>' : '~';
    } else {
        return '?';
    }
}

// A line for each sample, with its order to the sample before. A type with few values has fewer.
template <class T>
void printValues(Logs& logs) {
    const std::string typeName(T::description().typeName);
    std::printf("%s size=%u\n", typeName.c_str(),
                std::is_trivially_copyable_v<T> ? static_cast<unsigned>(sizeof(T)) : 0);
    T before{};
    std::set<Mox::Bytes> seen = {logOf(before)};
    for (std::optional<T> sample = before; sample && seen.size() <= samplesPerType;
         sample = logs.next(before, &seen)) {
        std::printf("%s", typeName.c_str());
        printEscaped("text", sample->stringValue());
        printEscaped("strep", valueToStrep(*sample));
        std::printf(" log=");
        printHex(logOf(*sample));
        std::printf(" hash=%08x", sample->hash());
        if constexpr (requires { sample->hash(7u); }) {
            std::printf(" seeded=%08x", sample->hash(0x9e3779b9u));
        }
        std::printf(" order=%c\n", relation(before, *sample));
        before = *sample;
    }
    if (seen.size() == 1) {
        std::fprintf(stderr, "parity: no value of %s but one\n", typeName.c_str());
        std::exit(1);
    }
}

}  // namespace

int main() {
    Logs logs;
    const auto print = [&logs]<class T>(std::type_identity<T>) { printValues<T>(logs); };
    fuzz::forEachType(fuzz::ValueTypes(), print);
    print(std::type_identity<Pavo::MplsLabelStack>());
    fuzz::forEachType(fuzz::EnumTypes(), []<class E>(std::type_identity<E>) {
        for (const auto& member : Mox::enumTable<E>.members) {
            std::printf("%s: %s=%u\n", Mox::enumTable<E>.invalidText,
                        Mox::stringValue(member.value).c_str(),
                        static_cast<unsigned>(member.value));
        }
    });
}
