/// @file
/// From names of interfaces to numbers and back.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "Mox/String.h"
#include "Mox/Text.h"
#include "Mox/ValueType.h"

#include "Pavo/base/Export.h"
#include "Pavo/base/ValueFunctions.h"
#include "Pavo/interface/IntfId.h"

namespace Pavo {

/// Where one number of a name lies in an `IntfId`, and what stands in front of it in the name. The
/// default, of width 0, is no part. Text is that of the record.
class IntfIdPart : public Mox::ValueType<IntfIdPart> {
  public:
    constexpr IntfIdPart() = default;
    /// The number is `(id >> shift) & mask()`, or that of the high half of the id. `widthBits` is 1
    /// to 32, `shift` 0 to 31. `separator` is a printable character of ASCII that is no digit, or
    /// NUL for none; a number behind "." is left out while it is 0.
    /// @throws Mox::RangeException "IntfIdPart::widthBits < 1 or > 32 not allowed",
    /// "IntfIdPart::shift > 31 not allowed", "IntfIdPart: part passes bit 63", "Invalid
    /// IntfIdPart::separator"
    constexpr IntfIdPart(uint32_t widthBits, uint32_t shift, bool isInHighHalf, char separator)
        : widthBits_(static_cast<uint8_t>(widthBits)),
          shift_(static_cast<uint8_t>(shift)),
          isInHighHalf_(isInHighHalf),
          separator_(static_cast<uint8_t>(separator)) {
        if (widthBits < 1 || widthBits > 32) {
            Mox::throwRangeException("IntfIdPart::widthBits < 1 or > 32 not allowed");
        }
        if (shift > 31) {
            Mox::throwRangeException("IntfIdPart::shift > 31 not allowed");
        }
        if (const char* error = errorOfParts()) {
            Mox::throwRangeException(error);
        }
    }
    /// @throws Mox::RangeException "Invalid IntfIdPart", or as above
    IntfIdPart(TextIt& it, const TextIt& end) { readText(it, end); }
    /// @throws Mox::RangeException as above, also for a part without width that is not the default
    IntfIdPart(Mox::NboAttrLog::In* in, Mox::StreamBogon) {
        readLog(in);
        if (const char* error = errorOfParts()) {
            Mox::throwRangeException(error);
        }
    }

    constexpr uint32_t widthBits() const { return widthBits_; }
    constexpr uint32_t shift() const { return shift_; }
    constexpr bool isInHighHalf() const { return isInHighHalf_; }
    constexpr char separator() const { return static_cast<char>(separator_); }

    /// The largest number, which has the width's bits set.
    constexpr uint32_t mask() const {
        return widthBits_ == 0 ? 0 : static_cast<uint32_t>(0xffffffffu >> (32 - widthBits_));
    }
    /// The lowest bit of the number in the id, 0 to 63.
    constexpr uint32_t position() const { return shift_ + (isInHighHalf_ ? 32u : 0u); }
    /// The bits of the id that hold the number.
    constexpr uint64_t bits() const { return uint64_t{mask()} << position(); }

    /// Not the default.
    constexpr explicit operator bool() const { return widthBits_ != 0; }

    friend constexpr bool operator==(const IntfIdPart&, const IntfIdPart&) = default;

    static constexpr const char* leftoverText = "Invalid IntfIdPart";
    static constexpr auto description() {
        return Mox::record("Pavo::IntfIdPart", Mox::field("widthBits", &IntfIdPart::widthBits_),
                           Mox::field("shift", &IntfIdPart::shift_),
                           Mox::field("isInHighHalf", &IntfIdPart::isInHighHalf_),
                           Mox::field("separator", &IntfIdPart::separator_));
    }
    PAVO_EXPORT const char* parse(Mox::TextCursor& in);
    PAVO_EXPORT void print(Mox::TextWriter& out) const;

  private:
    constexpr const char* errorOfParts() const {
        if (*this == IntfIdPart()) {
            return nullptr;
        }
        if (widthBits_ < 1 || widthBits_ > 32) {
            return "IntfIdPart::widthBits < 1 or > 32 not allowed";
        }
        if (shift_ > 31) {
            return "IntfIdPart::shift > 31 not allowed";
        }
        if (position() + widthBits_ > 64) {
            return "IntfIdPart: part passes bit 63";
        }
        const bool isSign = separator_ > ' ' && separator_ < 0x7f;
        if (separator_ != 0 && (!isSign || Mox::TextCursor::isDigit(separator()))) {
            return "Invalid IntfIdPart::separator";
        }
        return nullptr;
    }

    uint8_t widthBits_ = 0;
    uint8_t shift_ = 0;
    bool isInHighHalf_ = false;
    uint8_t separator_ = 0;
};
static_assert(std::is_trivially_copyable_v<IntfIdPart> && sizeof(IntfIdPart) == 4);

/// Converts names to ids and back, by what it was told of prefixes and parts. Converting allocates
/// nothing, and any number of threads may do it while none builds.
///
/// The prefixes are a trie of pages. A page is a row of links to further nodes, one for each code
/// of a character; the characters that most prefixes have carry the low codes, so that rows are
/// short. Beside it, a table leads from a whole prefix to its node, since most texts have one in
/// front of their first digit; the trie is walked for all others. No name is kept beside the
/// prefixes themselves.
class PAVO_EXPORT IntfIdTrie {
  public:
    static constexpr uint32_t maxParts = 8;
    static constexpr uint32_t maxPrefixBytes = 64;
    /// Room for the longest name: a prefix, eight numbers of ten digits with their separators, and
    /// what is written ahead.
    static constexpr uint32_t maxNameBytes = maxPrefixBytes + maxParts * 11 + 8;

    /// A type and its sub-type in one number, `typeId << 2 | subType`: 4 to 511.
    static constexpr uint32_t typeAndSubType(uint32_t typeId, uint32_t subType) {
        return typeId << 2 | subType;
    }

    IntfIdTrie();

    // First the prefixes are set, each type and sub-type once, then `build` makes them known.

    /// Names of this type and sub-type consist of `name` and the parts. Their short prefix is the
    /// same until `setShortPrefix`.
    /// @throws Mox::RangeException "IntfIdTrie::typeAndSubType < 4 or > 511 not allowed", "Invalid
    /// interface prefix" for one that is empty, longer than 64 bytes, or has a digit, a "/" or what
    /// is no printable character of ASCII; "Invalid interface parts" when there are more than
    /// eight, one has no width, bits are used twice or belong to type or sub-type, the first part
    /// has a separator or another one has none
    void setPrefix(std::string_view name, uint32_t typeAndSubType,
                   std::span<const IntfIdPart> parts);
    /// @throws Mox::RangeException "Invalid interface prefix", also before `setPrefix`
    void setShortPrefix(std::string_view name, uint32_t typeAndSubType);
    /// Makes the trie.
    /// @throws Mox::RangeException "Two interfaces would have one name" where two ids, of one type
    /// or of two, would print alike in either form. This is checked in full: prefixes have no
    /// digits, so names are alike only if prefix and separators are.
    void build();

    /// Whether names with short prefixes are read where long names are asked for, unless the long
    /// one is as long; at first false.
    bool shortNameTrie() const { return shortNameTrie_; }
    void shortNameTrieIs(bool on) { shortNameTrie_ = on; }

    /// What was read of a text: an id and the length of its name, or no interface and 0.
    struct Reading {
        IntfId id;
        uint32_t length = 0;
    };
    /// Reads the name that `text` begins with. Of the prefixes in it the longest that leads to a
    /// name counts; where several sub-types share it, the one that reads most, and of those the
    /// lowest. A number that is too large for its part spoils the text, unless another sub-type
    /// has read past it.
    Reading stringToIntfId(const char* text, uint32_t length, bool shortForm = false) const;

    /// Prints the name of `id`, nothing for an id that is not described or has bits set that no
    /// part holds.
    void intfIdToString(IntfId id, bool shortForm, Mox::TextWriter& out) const;
    /// The same at `at`, which has room for `maxNameBytes`; returns the end, behind which bytes may
    /// have been overwritten. No NUL is written.
    char* intfIdToString(IntfId id, bool shortForm, char* at) const;

    /// What `compareIntfName` compares of a name.
    struct Groups {
        std::string_view type;
        /// Up to three numbers joined by "/", then the one behind "."; 0 where there is none.
        uint64_t numbers[4] = {};
        /// 2, plus the numbers, or 6 with one behind ".".
        int count = 0;
    };
    /// Takes apart the long name of `id`; false, and nothing is changed, where the name is empty
    /// or has other numbers or separators. The type is valid while the trie is not built.
    bool groupsOf(IntfId id, Groups* groups) const;

    /// How many numbers the name shows: a part behind "." counts only when it is not 0.
    uint32_t numParts(IntfId id) const;
    /// Part `k` of the id.
    /// @throws Mox::RangeException "GenericIntfId::part: index out of range" for a part that the
    /// descriptor does not have, or without descriptor
    uint32_t intfIdPart(IntfId id, uint32_t k) const;
    /// The id with part `k` replaced.
    /// @throws Mox::RangeException as `intfIdPart`; "GenericIntfId::part: value out of range"
    IntfId intfIdWithPart(IntfId id, uint32_t k, uint32_t value) const;

  private:
    // What names of one type and sub-type look like. Prefixes are slices of `texts_`.
    struct Form {
        uint64_t base = 0;       // Type and sub-type in their place.
        uint64_t bits = 0;       // Those, and all that parts hold.
        uint64_t signature = 0;  // The separators of all parts, a byte each; 1 for none.
        uint64_t signatureWithoutDot = ~uint64_t{0};  // Without a last part that is left out.
        uint32_t prefixAt[2] = {};
        uint8_t prefixBytes[2] = {};
        uint8_t numParts = 0;
        bool isPlain = false;  // Names are what `groupsOf` takes apart.
        struct Part {
            uint32_t mask;
            uint8_t position;
            char separator;
        } parts[maxParts] = {};
    };
    // A form whose long or short prefix ends at a node.
    struct Ending {
        uint64_t signature;
        uint64_t signatureWithoutDot;
        uint16_t form;
        uint16_t names;  // `longNames`, `shortNames`, or both.
    };
    struct Node {
        uint32_t page = 0;         // Its links, from here on in `links_`.
        uint16_t firstEnding = 0;  // Its endings, from here on in `endings_`.
        uint16_t endings = 0;
        uint16_t shorter = 0;  // The next node upward with endings; 0 is none.
        uint8_t pageSize = 0;
        uint8_t depth = 0;
    };
    // A prefix as two words, first character lowest, and where it ends.
    struct Start {
        uint64_t low = 0;
        uint64_t high = 0;
        uint16_t node = 0;
    };
    struct Words;
    struct StartOfText;
    struct Numbers;
    struct NumberReading;

    static constexpr uint16_t longNames = 1;
    static constexpr uint16_t shortNames = 2;
    static constexpr uint32_t formCount = 512;

    std::string_view prefix(const Form& form, bool isShort) const {
        return std::string_view(texts_).substr(form.prefixAt[isShort], form.prefixBytes[isShort]);
    }
    void addPrefix(Form& form, bool isShort, std::string_view name);
    void requireUniqueNames() const;
    void buildIntfTrie(const std::array<uint32_t, 256>& frequencies);
    uint16_t nodeOf(std::string_view prefix);
    void reallocPage(Node& node, uint8_t size);
    void linkEndings();
    void buildStarts();

    uint16_t nextNode(const Node& node, char c) const {
        const uint32_t code = codes_[static_cast<unsigned char>(c)];
        return code < node.pageSize ? links_[node.page + code] : uint16_t{0};
    }
    const Form* formOf(uint64_t id) const;
    const Form& formWithPart(IntfId id, uint32_t k) const;
    uint32_t startAt(const StartOfText& text) const;
    uint16_t lastNode(const Words& words) const;
    static bool readAlike(const Form& form, const Numbers& numbers, IntfId* id);
    Reading read(const Words& words, uint16_t wanted) const;
    bool readLongest(const Node& node, uint16_t wanted, const Words& words, Reading* best) const;

    std::string texts_;
    std::vector<Form> forms_;
    std::array<uint16_t, formCount> formAt_{};  // By type and sub-type; index + 1, 0 is none.
    std::array<uint8_t, 256> codes_{};          // 0xff for a character of no prefix.
    std::vector<Node> nodes_;
    std::vector<uint16_t> links_;  // 0 leads nowhere.
    std::vector<Ending> endings_;
    std::vector<Start> starts_;  // By hash, a power of two of them.
    bool shortNameTrie_ = false;
};

}  // namespace Pavo
