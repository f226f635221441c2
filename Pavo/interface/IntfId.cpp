#include "Pavo/interface/IntfId.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "Mox/Assert.h"
#include "Mox/Trace.h"

#include "Pavo/interface/IntfIdDesc.h"

namespace Pavo {

namespace {

Mox::TraceFacility trace("Pavo::IntfId");

struct NamePrefixes {
    std::string_view from;
    std::string_view to;
    char restAfter = '\0';  // The rest begins after the first of these, not after `from`.
};

// The first row whose `from` a name begins with decides.
constexpr NamePrefixes kernelPrefixes[] = {
    {"et", "Ethernet"},       {"vlan", "Vlan"},     {"vxlan", "Vxlan"},   {"lo", "Loopback"},
    {"internal", "Internal"}, {"fabric", "Fabric"}, {"ma", "Management"}, {"po", "Port-Channel"},
    {"tap", "Test", '-'},     {"tu", "Tunnel"},
};
constexpr NamePrefixes veyPrefixes[] = {
    {"ethernet", "et"},       {"vlan", "vlan"},     {"vxlan", "vxlan"},   {"loopback", "lo"},
    {"internal", "internal"}, {"fabric", "fabric"}, {"management", "ma"}, {"port-channel", "po"},
    {"test", "tap-"},         {"tunnel", "tu"},
};

std::string lowered(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) {
        c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    }
    return lower;
}

// The other prefix and the rest of `rests`, a name whose form in lower case is `lower`, with `to`
// in place of each `from`.
template <class Table>
Mox::String withOtherPrefix(const Table& table, std::string_view lower, std::string_view rests,
                            char from, char to, const char* error) {
    for (const NamePrefixes& row : table) {
        if (lower.substr(0, row.from.size()) != row.from) {
            continue;
        }
        std::size_t rest = row.from.size();
        if (row.restAfter != '\0') {
            rest = rests.find(row.restAfter) + 1;  // 0 where there is none.
        }
        if (rest == 0) {
            break;
        }
        std::string name(row.to);
        name += rests.substr(rest);
        std::replace(name.begin(), name.end(), from, to);
        return name;
    }
    Mox::throwRangeException(error);
}

// "Type", "Type1/2/3" and "Type1/2/3.4", taken apart by a regular expression.
class NamePattern {
  public:
    static const NamePattern& instance() {
        static const NamePattern pattern;
        return pattern;
    }

    // The number of the last group that matched, plus 1; negative without a match.
    int match(const char* name, uint32_t length, pcre2_match_data* groups) const {
        const auto subject = reinterpret_cast<PCRE2_SPTR>(name);
        return hasJit_ ? pcre2_jit_match(code_, subject, length, 0, 0, groups, nullptr)
                       : pcre2_match(code_, subject, length, 0, 0, groups, nullptr);
    }
    pcre2_match_data* newGroups() const {
        return pcre2_match_data_create_from_pattern(code_, nullptr);
    }

  private:
    static constexpr const char* text =
        "([^0-9\\/]+)(?:(\\d+)\\/?)?(?:(\\d+)\\/?)?(?:(\\d+))?(?:\\.(\\d+))?$";

    NamePattern() {
        int error = 0;
        PCRE2_SIZE offset = 0;
        code_ = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(text), PCRE2_ZERO_TERMINATED,
                              PCRE2_EXTENDED, &error, &offset, nullptr);
        if (code_ == nullptr) {
            MOX_TRACE(trace, 0, "pcre_compile failed ( offset: ", offset, ", error: ", error, " )");
        }
        Mox::require(code_ != nullptr, "re");
        hasJit_ = pcre2_jit_compile(code_, PCRE2_JIT_COMPLETE) == 0;
    }

    pcre2_code* code_ = nullptr;
    bool hasJit_ = false;
};

// The groups of the last match of a thread.
class GroupMemory {
  public:
    GroupMemory() { Mox::require(groups_ != nullptr, "groups"); }
    ~GroupMemory() { pcre2_match_data_free(groups_); }
    GroupMemory(const GroupMemory&) = delete;
    GroupMemory& operator=(const GroupMemory&) = delete;

    pcre2_match_data* groups() const { return groups_; }
    std::string_view group(const char* name, uint32_t i) const {
        const PCRE2_SIZE* const offsets = pcre2_get_ovector_pointer(groups_) + 2 * i;
        return offsets[0] == PCRE2_UNSET
                   ? std::string_view()
                   : std::string_view(name + offsets[0], offsets[1] - offsets[0]);
    }

  private:
    pcre2_match_data* const groups_ = NamePattern::instance().newGroups();
};

// At most 2^64 - 1; 0 without digits.
uint64_t saturated(std::string_view digits) {
    uint64_t number = 0;
    for (const char c : digits) {
        if (__builtin_mul_overflow(number, uint64_t{10}, &number) ||
            __builtin_add_overflow(number, static_cast<uint64_t>(c - '0'), &number)) {
            return UINT64_MAX;
        }
    }
    return number;
}

// The long name of an id, taken apart.
class NameGroups {
  public:
    explicit NameGroups(IntfId id) {
        thread_local const GroupMemory memory;
        Mox::TextWriter out(name_, sizeof(name_));
        globalIntfIdMgr()->trie().intfIdToString(id, /*shortForm=*/false, out);
        count_ = NamePattern::instance().match(name_, out.finish(), memory.groups());
        for (int i = 1; i < count_; ++i) {
            groups_[i - 1] = memory.group(name_, static_cast<uint32_t>(i));
        }
    }
    NameGroups(const NameGroups&) = delete;
    NameGroups& operator=(const NameGroups&) = delete;

    // 1 more than the groups that count; at most 1 where the pattern does not match.
    int count() const { return count_; }
    std::string_view type() const { return groups_[0]; }
    uint64_t number(int i) const { return saturated(groups_[i - 1]); }

  private:
    char name_[IntfIdTrie::maxNameBytes + 1];
    std::string_view groups_[5];
    int count_ = 0;
};

}  // namespace

IntfId IntfId::fromShortName(const Mox::String& name) {
    return globalIntfIdMgr()->shortStringToIntfId(name);
}

Mox::String IntfId::shortName() const {
    return globalIntfIdMgr()->intfIdToString(*this, /*shortForm=*/true);
}

const char* IntfId::parse(Mox::TextCursor& in) {
    const auto read = globalIntfIdMgr()->trie().stringToIntfId(in.rest());
    if (read.length == 0) {
        return invalidText;
    }
    *this = read.id;
    in.atIs(in.at() + read.length);
    return nullptr;
}

void IntfId::print(Mox::TextWriter& out) const {
    globalIntfIdMgr()->trie().intfIdToString(*this, /*shortForm=*/false, out);
}

uint32_t GenericIntfId::part(const GenericIntfId& id, uint32_t k) {
    return globalIntfIdMgr()->trie().intfIdPart(id, k);
}

void GenericIntfId::partIs(GenericIntfId& id, uint32_t k, uint32_t value) {
    id = globalIntfIdMgr()->trie().intfIdWithPart(id, k, value);
}

uint32_t GenericIntfId::parts(const GenericIntfId& id) {
    return globalIntfIdMgr()->trie().numParts(id);
}

Mox::String kernelIntfToVeyIntf(const Mox::String& kernelName) {
    return withOtherPrefix(kernelPrefixes, lowered(kernelName), kernelName, '_', '/',
                           "Cannot convert kernel interface name");
}

Mox::String veyIntfToKernelIntf(const Mox::String& name) {
    const std::string lower = lowered(name);
    return withOtherPrefix(veyPrefixes, lower, lower, '/', '_',
                           "Cannot convert interface name to kernel interface name");
}

Mox::String kernelIntfToShortVeyIntf(const Mox::String& kernelName) {
    return Mox::fromText<IntfId>(kernelIntfToVeyIntf(kernelName)).shortName();
}

Mox::String shortIntfToVeyIntf(const Mox::String& shortName) {
    return IntfId::fromShortName(shortName).stringValue();
}

Mox::String stringToVeyIntf(const Mox::String& text) {
    const auto id = Mox::tryParse<IntfId>(text.view());
    return id ? id->stringValue() : shortIntfToVeyIntf(text);
}

int compareIntfName(IntfId a, IntfId b) {
    const NameGroups groupsA(a);
    Mox::require(groupsA.count() > 1, "aret > 1");
    const NameGroups groupsB(b);
    Mox::require(groupsB.count() > 1, "bret > 1");

    if (const int byType = groupsA.type().compare(groupsB.type()); byType != 0) {
        return byType;
    }
    for (int i = 2; i < std::min(groupsA.count(), groupsB.count()); ++i) {
        if (groupsA.number(i) != groupsB.number(i)) {
            return groupsA.number(i) < groupsB.number(i) ? -1 : 1;
        }
    }
    return (groupsA.count() > groupsB.count()) - (groupsA.count() < groupsB.count());
}

}  // namespace Pavo
