/// @file
/// The conversion of interface names to numbers and back.
#pragma once

#include <algorithm>
#include <array>
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

/// Where one number of a name lies in an `IntfId`, and the separator before it in the name. The
/// default, of width 0, is no part. Text is that of the record.
class IntfIdPart : public Mox::ValueType<IntfIdPart> {
  public:
    constexpr IntfIdPart() = default;
    /// The number is `(id >> shift) & mask()`, or that of the high half of the id. `widthBits` is 1
    /// to 32, `shift` 0 to 31. `separator` is a printable ASCII character other than a digit, or
    /// NUL for none; a number after "." is left out while it is 0.
    /// @throws Mox::RangeException "IntfIdPart::widthBits < 1 or > 32 not allowed",
    /// "IntfIdPart::shift > 31 not allowed", "IntfIdPart: part passes bit 63", "Invalid
    /// IntfIdPart::separator"
    constexpr IntfIdPart(uint32_t widthBits, uint32_t shift, bool isInHighHalf, char separator)
        : widthBits_(static_cast<uint8_t>(std::min(widthBits, 255u))),
          shift_(static_cast<uint8_t>(std::min(shift, 255u))),
          isInHighHalf_(isInHighHalf),
          separator_(static_cast<uint8_t>(separator)) {
        if (const char* error = widthBits == 0 ? widthText : check()) {
            Mox::throwRangeException(error);
        }
    }
    /// @throws Mox::RangeException "Invalid IntfIdPart", or as above
    IntfIdPart(TextIt& it, const TextIt& end) { readText(it, end); }
    explicit IntfIdPart(std::string_view text) { readWhole(text); }
    /// @throws Mox::RangeException as above, also for a part without width that is not the default
    IntfIdPart(Mox::NboAttrLog::In* in, Mox::StreamBogon) { readLog(in); }

    /// 1 to 32; 0 for the default, which is no part.
    constexpr uint32_t widthBits() const { return widthBits_; }
    /// The lowest bit in its half of the id, 0 to 31.
    constexpr uint32_t shift() const { return shift_; }
    /// In bits 32 to 63 of the id.
    constexpr bool isInHighHalf() const { return isInHighHalf_; }
    /// The character before the number; NUL for none.
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

    static constexpr auto description() {
        return Mox::record("Pavo::IntfIdPart", Mox::field("widthBits", &IntfIdPart::widthBits_),
                           Mox::field("shift", &IntfIdPart::shift_),
                           Mox::field("isInHighHalf", &IntfIdPart::isInHighHalf_),
                           Mox::field("separator", &IntfIdPart::separator_));
    }
    /// Null, or the text of the range error, as of the constructor, for a part that is neither good
    /// nor the default.
    constexpr const char* check() const {
        if (*this == IntfIdPart()) {
            return nullptr;
        }
        if (widthBits_ < 1 || widthBits_ > 32) {
            return widthText;
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

  private:
    static constexpr const char* widthText = "IntfIdPart::widthBits < 1 or > 32 not allowed";

    uint8_t widthBits_ = 0;
    uint8_t shift_ = 0;
    bool isInHighHalf_ = false;
    uint8_t separator_ = 0;
};
static_assert(std::is_trivially_copyable_v<IntfIdPart> && sizeof(IntfIdPart) == 4);

/// Converts names to ids and back, by prefixes and parts that are set first. Reading allocates
/// nothing, and any number of threads may convert while none builds.
class PAVO_EXPORT IntfIdTrie {
  public:
    /// The most numbers that a name has.
    static constexpr uint32_t maxParts = 8;
    /// The longest prefix.
    static constexpr uint32_t maxPrefixBytes = 64;
    /// Room for the longest name: a prefix, and eight numbers of ten digits with their separators.
    static constexpr uint32_t maxNameBytes = maxPrefixBytes + maxParts * 11;

    /// A type and its sub-type in one number, `typeId << 2 | subType`: 4 to 511.
    static constexpr uint32_t typeAndSubType(uint32_t typeId, uint32_t subType) {
        return typeId << 2 | subType;
    }

    // First set the prefixes, for each type and sub-type once; they take effect with `build`.

    /// Names of this type and sub-type consist of `name` and the parts. Their short prefix is the
    /// same until `setShortPrefix`. A prefix is 1 to 64 printable ASCII characters other than "/";
    /// it may hold digits ("Ip6Tunnel"), but does not end in one where a number follows without a
    /// separator, since the two would be read as one number.
    /// @throws Mox::RangeException "IntfIdTrie::typeAndSubType < 4 or > 511 not allowed", "Invalid
    /// interface prefix"; "Invalid interface parts" when there are more than eight, one has no
    /// width, bits are used twice or belong to type or sub-type, or a part other than the first has
    /// no separator
    void setPrefix(std::string_view name, uint32_t typeAndSubType,
                   std::span<const IntfIdPart> parts);
    /// @throws Mox::RangeException "Invalid interface prefix", also before `setPrefix`
    void setShortPrefix(std::string_view name, uint32_t typeAndSubType);
    /// Makes the tables of prefixes.
    /// @throws Mox::RangeException "Two interfaces would have one name" where two ids, of one type
    /// or of two, would print alike in either form, or alike but for leading zeros
    void build();

    /// Whether names with short prefixes are read where long names are asked for, unless the long
    /// one is as long; at first false.
    bool shortNameTrie() const { return shortNameTrie_; }
    void shortNameTrieIs(bool on) { shortNameTrie_ = on; }

    /// The id at the beginning of a text and the length of its name, or no interface and 0.
    struct Reading {
        /// No interface where nothing was read.
        IntfId id;
        /// In bytes.
        uint32_t length = 0;
    };
    /// Reads the longest name that `text` begins with. A number that is too large for its part
    /// makes the text no name, unless another type or sub-type reads past it.
    Reading stringToIntfId(std::string_view text, bool shortForm = false) const;

    /// Prints the name of `id`, nothing for an id that is not described or has bits set that no
    /// part holds.
    void intfIdToString(IntfId id, bool shortForm, Mox::TextWriter& out) const;

    /// How many numbers the name shows: a part after "." counts only when it is not 0.
    uint32_t numParts(IntfId id) const;
    /// Part `k` of the id.
    /// @throws Mox::RangeException "GenericIntfId::part: index out of range" for a part that the
    /// descriptor does not have, or without descriptor
    uint32_t intfIdPart(IntfId id, uint32_t k) const;
    /// The id with part `k` replaced.
    /// @throws Mox::RangeException as `intfIdPart`; "GenericIntfId::part: value out of range"
    IntfId intfIdWithPart(IntfId id, uint32_t k, uint32_t value) const;

  private:
    // The form of the names of one type and sub-type.
    struct Form {
        uint64_t base = 0;        // Type and sub-type.
        uint64_t bits = 0;        // The bits of these and of all parts.
        std::string prefixes[2];  // The long and the short one.
        std::vector<IntfIdPart> parts;
    };
    struct Prefix {
        std::string text;
        uint16_t form;
        int16_t shorter;  // The nearest prefix before this one that it begins with, or -1.
    };

    static constexpr uint32_t formCount = 512;

    void requireUniqueNames(bool isShort) const;
    void buildPrefixes(bool isShort);
    Reading read(std::string_view text, bool isShort) const;
    const Form* formOf(IntfId id) const;
    const IntfIdPart& partOf(IntfId id, uint32_t k) const;

    std::vector<Form> forms_;
    std::array<uint16_t, formCount> formAt_{};  // By type and sub-type; index + 1, 0 is none.
    std::vector<Prefix> prefixes_[2];           // The long and the short ones, sorted.
    bool shortNameTrie_ = false;
};

}  // namespace Pavo
