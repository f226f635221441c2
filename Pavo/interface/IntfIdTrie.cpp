#include "Pavo/interface/IntfIdTrie.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <numeric>
#include <set>
#include <utility>

namespace Pavo {

namespace {

constexpr uint8_t noCode = 0xff;
// How many bytes of a prefix are copied at once.
constexpr uint32_t ahead = 16;
static_assert(ahead <= IntfIdTrie::maxPrefixBytes);

bool isPrefix(std::string_view text) {
    return !text.empty() && text.size() <= IntfIdTrie::maxPrefixBytes &&
           std::all_of(text.begin(), text.end(), [](char c) {
               return c > ' ' && c < 0x7f && c != '/' && !Mox::TextCursor::isDigit(c);
           });
}

void requireParts(std::span<const IntfIdPart> parts) {
    bool good = parts.size() <= IntfIdTrie::maxParts;
    uint64_t taken = GenericIntfId::typeBits;
    for (const IntfIdPart& part : parts) {
        const bool isFirst = &part == parts.data();
        good = good && part && (part.bits() & taken) == 0 && isFirst == (part.separator() == '\0');
        taken |= part.bits();
    }
    if (!good) {
        Mox::throwRangeException("Invalid interface parts");
    }
}

// What a number and the character in front of it are in a signature: a byte that is not 0.
constexpr uint8_t signatureOf(char separator) {
    return separator == '\0' ? 1 : static_cast<uint8_t>(separator);
}

struct NumberText {
    uint64_t value;   // At most `tooLarge`.
    uint32_t digits;  // 0 where no number stands.
};
constexpr uint64_t tooLarge = uint64_t{1} << 32;

NumberText readLongNumber(const char* text, uint32_t at, uint32_t length) {
    uint64_t value = 0;
    uint32_t end = at;
    for (; end < length && Mox::TextCursor::isDigit(text[end]); ++end) {
        value = value * 10 + static_cast<uint32_t>(text[end] - '0');
        value = value > UINT32_MAX ? tooLarge : value;
    }
    return {value, end - at};
}

// How many digits a number has is hard to predict, so those in `word` are read at once: what is no
// digit is found by a carry into the highest bit of its byte, then digits are joined to pairs,
// pairs to fours, and fours to the number. 8 digits stand for a number that may go on.
inline NumberText readShortNumber(uint64_t word) {
    word ^= 0x30303030'30303030;
    // The first such bit is right; those above may come from a carry out of its byte.
    const uint64_t others = ((word + 0x76767676'76767676) | word) & 0x80808080'80808080;
    const auto digits = static_cast<uint32_t>(std::countr_zero(others)) / 8;
    if (digits == 0 || digits == 8) {
        return {0, digits};
    }
    word <<= 64 - 8 * digits;
    word = (word * 10 + (word >> 8)) & 0x00ff00ff'00ff00ff;
    word = (word * 100 + (word >> 16)) & 0x0000ffff'0000ffff;
    word = (word * 10000 + (word >> 32)) & 0xffffffff;
    return {word, digits};
}

// Up to three numbers joined by "/", then at most one behind ".".
bool isPlain(std::span<const IntfIdPart> parts) {
    const bool hasSub = parts.size() > 1 && parts.back().separator() == '.';
    const auto numbers = parts.first(parts.size() - (hasSub ? 1 : 0));
    return numbers.size() <= 3 && std::all_of(numbers.begin(), numbers.end(), [](const auto& part) {
               return part.separator() == '/' || part.separator() == '\0';
           });
}

// The way back: eight digits at once, of which those in front are shifted out. Up to seven bytes
// behind the number are written too.
inline char* printNumber(char* at, uint32_t value) {
    if (std::endian::native != std::endian::little || value >= 100'000'000) {
        return Mox::TextWriter::decimalAt(at, value);
    }
    uint64_t word = value / 10'000 | uint64_t{value % 10'000} << 32;
    const uint64_t hundreds = (word * 10486 >> 20) & 0x0000007f'0000007f;
    word = hundreds | (word - hundreds * 100) << 16;
    const uint64_t tens = (word * 103 >> 10) & 0x000f000f'000f000f;
    word = tens | (word - tens * 10) << 8;
    const auto zeros = static_cast<uint32_t>(std::countr_zero(word | uint64_t{1} << 56)) / 8;
    word = (word | 0x30303030'30303030) >> (8 * zeros);
    std::memcpy(at, &word, sizeof(word));
    return at + 8 - zeros;
}

}  // namespace

const char* IntfIdPart::parse(Mox::TextCursor& in) {
    if (const char* error = parseRecord(in, this, description(), leftoverText)) {
        return error;
    }
    return errorOfParts();
}

void IntfIdPart::print(Mox::TextWriter& out) const {
    printRecord(out, *this, description());
}

IntfIdTrie::IntfIdTrie() {
    build();
}

void IntfIdTrie::setPrefix(std::string_view name, uint32_t typeAndSubType,
                           std::span<const IntfIdPart> parts) {
    if (typeAndSubType < 4 || typeAndSubType >= formCount) {
        Mox::throwRangeException("IntfIdTrie::typeAndSubType < 4 or > 511 not allowed");
    }
    requireParts(parts);
    GenericIntfId base;
    base.typeIdIs(typeAndSubType >> 2);
    base.subTypeIs(typeAndSubType & 3);
    Form form;
    form.base = base.intfId().value();
    form.bits = GenericIntfId::typeBits;
    for (const IntfIdPart& part : parts) {
        form.bits |= part.bits();
        form.signatureWithoutDot = part.separator() == '.' ? form.signature : ~uint64_t{0};
        form.signature |= uint64_t{signatureOf(part.separator())} << (8 * form.numParts);
        form.parts[form.numParts++] = {part.mask(), static_cast<uint8_t>(part.position()),
                                       part.separator()};
    }
    form.isPlain = isPlain(parts);
    addPrefix(form, false, name);
    form.prefixAt[1] = form.prefixAt[0];
    form.prefixBytes[1] = form.prefixBytes[0];
    uint16_t& index = formAt_[typeAndSubType];
    if (index != 0) {
        forms_[index - 1u] = form;
        return;
    }
    forms_.push_back(form);
    index = static_cast<uint16_t>(forms_.size());
}

void IntfIdTrie::setShortPrefix(std::string_view name, uint32_t typeAndSubType) {
    const uint32_t index = typeAndSubType < formCount ? formAt_[typeAndSubType] : 0;
    if (index == 0) {
        Mox::throwRangeException("Invalid interface prefix");
    }
    addPrefix(forms_[index - 1], true, name);
}

void IntfIdTrie::addPrefix(Form& form, bool isShort, std::string_view name) {
    if (!isPrefix(name)) {
        Mox::throwRangeException("Invalid interface prefix");
    }
    form.prefixAt[isShort] = static_cast<uint32_t>(texts_.size());
    form.prefixBytes[isShort] = static_cast<uint8_t>(name.size());
    texts_ += name;
    texts_.append(ahead, '\0');  // What is copied behind a short prefix.
}

void IntfIdTrie::build() {
    requireUniqueNames();
    std::array<uint32_t, 256> frequencies{};
    for (const char c : texts_) {
        frequencies[static_cast<unsigned char>(c)] += c == '\0' ? 0 : 1;
    }
    buildIntfTrie(frequencies);
}

// Two forms share a name exactly if they share the one in which all numbers are 1: every part can
// hold that, the digits end the prefix, and what stands between them are the separators. A form
// whose parts behind "." may be left out has a name for each choice.
void IntfIdTrie::requireUniqueNames() const {
    std::set<std::pair<bool, std::string>> names;
    const auto addNames = [&names](const Form& form, bool isShort, std::string_view prefix) {
        for (uint32_t shown = 0; shown < 1u << form.numParts; ++shown) {
            std::string name(prefix);
            bool isName = true;
            for (uint32_t k = 0; k < form.numParts; ++k) {
                const char separator = form.parts[k].separator;
                if ((shown >> k & 1) == 0) {
                    isName = isName && separator == '.';
                    continue;
                }
                name += separator == '\0' ? "" : std::string(1, separator);
                name += '1';
            }
            if (isName && !names.emplace(isShort, name).second) {
                Mox::throwRangeException("Two interfaces would have one name");
            }
        }
    };
    for (const Form& form : forms_) {
        addNames(form, false, prefix(form, false));
        addNames(form, true, prefix(form, true));
    }
}

void IntfIdTrie::buildIntfTrie(const std::array<uint32_t, 256>& frequencies) {
    std::array<uint8_t, 256> order;
    std::iota(order.begin(), order.end(), uint8_t{0});
    std::stable_sort(order.begin(), order.end(), [&frequencies](uint8_t a, uint8_t b) {
        return frequencies[a] > frequencies[b];
    });
    codes_.fill(noCode);
    for (uint8_t code = 0; code < noCode && frequencies[order[code]] != 0; ++code) {
        codes_[order[code]] = code;
    }
    nodes_.assign(1, Node());
    links_.clear();
    linkEndings();
    buildStarts();
}

// The node of a prefix, made with all that lead to it.
uint16_t IntfIdTrie::nodeOf(std::string_view prefix) {
    uint16_t at = 0;
    for (const char c : prefix) {
        const uint8_t code = codes_[static_cast<unsigned char>(c)];
        if (code >= nodes_[at].pageSize) {
            reallocPage(nodes_[at], static_cast<uint8_t>(code + 1));
        }
        uint16_t& link = links_[nodes_[at].page + code];
        if (link == 0) {
            // 508 forms of two prefixes of 64 characters need 65,024 nodes at most.
            link = static_cast<uint16_t>(nodes_.size());
            Node next;
            next.depth = static_cast<uint8_t>(nodes_[at].depth + 1);
            nodes_.push_back(next);
        }
        at = link;
    }
    return at;
}

// Grows the page of a node in place where it is the last one, else at the end.
void IntfIdTrie::reallocPage(Node& node, uint8_t size) {
    const auto end = static_cast<uint32_t>(links_.size());
    if (node.page + node.pageSize != end) {
        links_.resize(end + node.pageSize);
        std::copy_n(links_.begin() + node.page, node.pageSize, links_.begin() + end);
        node.page = end;
    }
    links_.resize(node.page + size);
    node.pageSize = size;
}

// Hangs each form under the nodes of its prefixes, in the order of types and sub-types.
void IntfIdTrie::linkEndings() {
    std::vector<std::pair<uint16_t, Ending>> all;
    for (const uint16_t number : formAt_) {
        if (number == 0) {
            continue;
        }
        const auto index = static_cast<uint16_t>(number - 1);
        const uint16_t longNode = nodeOf(prefix(forms_[index], false));
        const uint16_t shortNode = nodeOf(prefix(forms_[index], true));
        const Form& form = forms_[index];
        const auto add = [&all, &form, index](uint16_t node, int names) {
            all.push_back(
                {node,
                 {form.signature, form.signatureWithoutDot, index, static_cast<uint16_t>(names)}});
        };
        if (longNode == shortNode) {
            add(longNode, longNames | shortNames);
            continue;
        }
        add(longNode, longNames);
        add(shortNode, shortNames);
    }
    std::stable_sort(all.begin(), all.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    endings_.clear();
    for (const auto& [node, ending] : all) {
        Node& owner = nodes_[node];
        if (owner.endings++ == 0) {
            owner.firstEnding = static_cast<uint16_t>(endings_.size());
        }
        endings_.push_back(ending);
    }
    // Whoever leads to a node was made before it.
    for (std::size_t at = 0; at < nodes_.size(); ++at) {
        const Node& node = nodes_[at];
        for (uint32_t i = 0; i < node.pageSize; ++i) {
            if (const uint16_t next = links_[node.page + i]; next != 0) {
                nodes_[next].shorter = node.endings != 0 ? static_cast<uint16_t>(at) : node.shorter;
            }
        }
    }
}

// A text as words of eight bytes, the first one lowest, zero behind its end. No byte that is not
// part of the text is looked at.
struct IntfIdTrie::Words {
    Words(const char* of, uint32_t ofBytes) : text(of), length(ofBytes) {
        if (length >= 4 && length < 8 && std::endian::native == std::endian::little) {
            uint32_t halves[2];
            std::memcpy(&halves[0], text, 4);
            std::memcpy(&halves[1], text + length - 4, 4);  // What both have is the same.
            whole = halves[0] | uint64_t{halves[1]} << (8 * (length - 4));
            return;
        }
        for (uint32_t i = 0; length < 8 && i < length; ++i) {
            whole |= uint64_t{static_cast<unsigned char>(text[i])} << (8 * i);
        }
    }

    // The word at `i`, which is at most the length.
    uint64_t at(uint32_t i) const {
        const uint32_t first = length < 8 ? 0 : std::min(i, length - 8);
        uint64_t word = whole;
        if (length >= 8) {
            std::memcpy(&word, text + first, sizeof(word));
            word = std::endian::native == std::endian::little ? word : __builtin_bswap64(word);
        }
        return word >> (4 * (i - first)) >> (4 * (i - first));  // By up to 64.
    }

    const char* text;
    uint32_t length;
    uint64_t whole = 0;
};

// The characters in front of the first digit of a text, where those are fewer than 16, as two
// words; zero of other texts.
struct IntfIdTrie::StartOfText {
    explicit StartOfText(std::string_view text)
        : StartOfText(Words(text.data(), static_cast<uint32_t>(text.size()))) {}
    [[gnu::always_inline]] explicit StartOfText(const Words& words)
        : low(words.at(0)), high(words.at(std::min(words.length, 8u))) {
        const uint32_t lowBytes = bytesBeforeDigit(low);
        const uint32_t highBytes = bytesBeforeDigit(high);
        low &= lowBytes == 8 ? ~uint64_t{0} : (uint64_t{1} << (8 * lowBytes)) - 1;
        high &= (uint64_t{1} << (8 * (highBytes & 7))) - 1;
        high = lowBytes == 8 ? high : 0;
        low = lowBytes == 8 && highBytes == 8 ? 0 : low;
    }

    // A NUL ends a text as a digit does; no prefix has one.
    static uint32_t bytesBeforeDigit(uint64_t word) {
        constexpr uint64_t sevens = 0x7f7f7f7f'7f7f7f7f;
        const uint64_t number = word ^ 0x30303030'30303030;
        const uint64_t isOther = ((number & sevens) + 0x76767676'76767676) | number;
        const uint64_t isSign = ((word & sevens) + sevens) | word;
        const uint64_t ends = ~(isOther & isSign) & ~sevens;
        return static_cast<uint32_t>(std::countr_zero(ends)) / 8;
    }

    uint32_t hash() const {
        return static_cast<uint32_t>((low * 0x9e3779b97f4a7c15 ^ high * 0xc2b2ae3d27d4eb4f) >> 32);
    }

    uint64_t low;
    uint64_t high;
};

// Whole prefixes of fewer than 16 characters. Places are tried one after the other; half of them
// stay free.
void IntfIdTrie::buildStarts() {
    starts_.assign(std::bit_ceil(4 * forms_.size() + 1), Start());
    for (const Form& form : forms_) {
        for (const bool isShort : {false, true}) {
            const StartOfText text(prefix(form, isShort));
            uint32_t at = startAt(text);
            if (text.low != 0 && starts_[at].node == 0) {
                starts_[at] = {text.low, text.high, nodeOf(prefix(form, isShort))};
            }
        }
    }
}

// Where a prefix stands, or would stand.
inline uint32_t IntfIdTrie::startAt(const StartOfText& text) const {
    const auto mask = static_cast<uint32_t>(starts_.size() - 1);
    uint32_t at = text.hash() & mask;
    while (starts_[at].node != 0 &&
           (starts_[at].low != text.low || starts_[at].high != text.high)) {
        at = (at + 1) & mask;
    }
    return at;
}

// The node of the longest prefix of a text that the trie has, or of what leads there.
// Prefixes have no digits: where all in front of the first one is a prefix, there is no longer one.
uint16_t IntfIdTrie::lastNode(const Words& words) const {
    uint16_t at = starts_[startAt(StartOfText(words))].node;
    if (at != 0) {
        return at;
    }
    for (uint32_t i = 0; i < words.length; ++i) {
        const uint16_t next = nextNode(nodes_[at], words.text[i]);
        if (next == 0) {
            break;
        }
        at = next;
    }
    return at;
}

// The numbers behind a prefix, with the character in front of each.
struct IntfIdTrie::Numbers {
    [[gnu::always_inline]] Numbers(const Words& words, uint32_t prefixEnd) : end(prefixEnd) {
        for (; count < maxParts && end < words.length; ++count) {
            const uint64_t word = words.at(end);
            const char separator = count == 0 ? '\0' : static_cast<char>(word & 0xff);
            const uint32_t digit = end + (count != 0);
            NumberText number = readShortNumber(count == 0 ? word : word >> 8);
            if (digit + number.digits >= end + 8) {
                number = readLongNumber(words.text, digit, words.length);
            }
            if (number.digits == 0) {
                return;
            }
            end = digit + number.digits;
            signature |= uint64_t{signatureOf(separator)} << (8 * count);
            each[count] = {number.value, digit, end, separator};
        }
    }

    struct {
        uint64_t value;
        uint32_t at;
        uint32_t end;
        char separator;
    } each[maxParts];
    uint32_t count = 0;
    uint32_t end;  // Of the last of them, or of the prefix.
    uint64_t signature = 0;
};

// The id of a name, and where it ends: 0 when a number is missing, and then where the number stands
// that is too large, if that is why.
struct IntfIdTrie::NumberReading {
    NumberReading(const Form& form, const Numbers& numbers, uint32_t prefixEnd) : id(form.base) {
        uint32_t next = 0;
        for (uint32_t k = 0; k < form.numParts; ++k) {
            const Form::Part& part = form.parts[k];
            const auto& number = numbers.each[next];
            const bool mayBeLeftOut = part.separator == '.';
            const bool isHere = next < numbers.count && number.separator == part.separator;
            if (isHere && number.value > part.mask) {
                tooLargeAt = number.at;
                return;
            }
            if (isHere && !(mayBeLeftOut && number.value == 0)) {
                id |= number.value << part.position;
                ++next;
            } else if (!mayBeLeftOut) {
                return;
            }
        }
        end = next == 0 ? prefixEnd : numbers.each[next - 1].end;
    }

    uint64_t id;
    uint32_t end = 0;
    uint32_t tooLargeAt = 0;
};

// The same for a form whose separators are those of the numbers. False when one does not fit.
inline bool IntfIdTrie::readAlike(const Form& form, const Numbers& numbers, IntfId* id) {
    uint64_t value = form.base;
    bool fits = true;
    for (uint32_t k = 0; k < numbers.count; ++k) {
        const Form::Part& part = form.parts[k];
        const uint64_t number = numbers.each[k].value;
        fits = fits & (number <= part.mask) & (number != 0 || part.separator != '.');
        value |= number << part.position;
    }
    if (fits) {
        *id = IntfId(value);
    }
    return fits;
}

// Reads by all forms whose prefix ends at the node. True when that settles what the text is.
bool IntfIdTrie::readLongest(const Node& node, uint16_t wanted, const Words& words,
                             Reading* best) const {
    const Numbers numbers(words, node.depth);
    // Most names are read to the end by a form that looks just like them, and by no other.
    for (uint32_t i = 0; i < node.endings; ++i) {
        const Ending& ending = endings_[node.firstEnding + i];
        const bool isAlike = ending.signature == numbers.signature ||
                             ending.signatureWithoutDot == numbers.signature;
        if (isAlike && (ending.names & wanted) != 0 &&
            readAlike(forms_[ending.form], numbers, &best->id)) {
            best->length = numbers.end;
            return true;
        }
    }
    uint32_t tooLargeAt = 0;
    for (uint32_t i = 0; i < node.endings; ++i) {
        const Ending& ending = endings_[node.firstEnding + i];
        if ((ending.names & wanted) == 0) {
            continue;
        }
        const NumberReading read(forms_[ending.form], numbers, node.depth);
        tooLargeAt = std::max(tooLargeAt, read.tooLargeAt);
        if (read.end > best->length) {
            *best = {IntfId(read.id), read.end};
        }
    }
    if (tooLargeAt >= best->length) {
        *best = {};
        return tooLargeAt != 0;
    }
    return best->length != 0;
}

// In line: a call more is felt by those who read many names.
[[gnu::always_inline]] inline IntfIdTrie::Reading IntfIdTrie::read(const Words& words,
                                                                   uint16_t wanted) const {
    Reading best;
    for (uint16_t at = lastNode(words); at != 0; at = nodes_[at].shorter) {
        if (readLongest(nodes_[at], wanted, words, &best)) {
            break;
        }
    }
    return best;
}

IntfIdTrie::Reading IntfIdTrie::stringToIntfId(const char* text, uint32_t length,
                                               bool isShort) const {
    const Words words(text, length);
    Reading best = read(words, isShort ? shortNames : longNames);
    if (shortNameTrie_ && !isShort) [[unlikely]] {
        const Reading other = read(words, shortNames);
        best = other.length > best.length ? other : best;
    }
    return best;
}

const IntfIdTrie::Form* IntfIdTrie::formOf(uint64_t id) const {
    const GenericIntfId fields{IntfId(id)};
    const uint32_t index = formAt_[typeAndSubType(fields.typeId(), fields.subType())];
    if (index == 0 || (id & ~forms_[index - 1].bits) != 0) {
        return nullptr;
    }
    return &forms_[index - 1];
}

char* IntfIdTrie::intfIdToString(IntfId id, bool isShort, char* at) const {
    const Form* const form = formOf(id.value());
    if (form == nullptr) {
        return at;
    }
    const char* const prefixText = texts_.data() + form->prefixAt[isShort];
    const uint32_t prefixBytes = form->prefixBytes[isShort];
    std::memcpy(at, prefixText, ahead);  // Of a known length, which is most of the time here.
    if (prefixBytes > ahead) {
        std::memcpy(at + ahead, prefixText + ahead, prefixBytes - ahead);
    }
    at += prefixBytes;
    for (uint32_t k = 0; k < form->numParts; ++k) {
        const Form::Part& part = form->parts[k];
        const uint32_t number = static_cast<uint32_t>(id.value() >> part.position) & part.mask;
        if (number == 0 && part.separator == '.') {
            continue;
        }
        *at = part.separator;  // Where there is none, the number overwrites it.
        at = printNumber(at + (part.separator != '\0'), number);
    }
    return at;
}

void IntfIdTrie::intfIdToString(IntfId id, bool isShort, Mox::TextWriter& out) const {
    out.bounded<maxNameBytes>([&](char* at) { return intfIdToString(id, isShort, at); });
}

bool IntfIdTrie::groupsOf(IntfId id, Groups* groups) const {
    const Form* const form = formOf(id.value());
    if (form == nullptr || !form->isPlain) {
        return false;
    }
    Groups found;
    found.type = prefix(*form, false);
    found.count = 2;
    for (uint32_t k = 0; k < form->numParts; ++k) {
        const Form::Part& part = form->parts[k];
        const uint32_t number = static_cast<uint32_t>(id.value() >> part.position) & part.mask;
        if (part.separator != '.') {
            found.numbers[k] = number;
            ++found.count;
        } else if (number != 0) {
            found.numbers[3] = number;
            found.count = 6;
        }
    }
    *groups = found;
    return true;
}

uint32_t IntfIdTrie::numParts(IntfId id) const {
    const Form* const form = formOf(id.value());
    if (form == nullptr) {
        return 0;
    }
    uint32_t count = 0;
    for (uint32_t k = 0; k < form->numParts; ++k) {
        const Form::Part& part = form->parts[k];
        const bool isZero = (id.value() >> part.position & part.mask) == 0;
        count += isZero && part.separator == '.' ? 0 : 1;
    }
    return count;
}

const IntfIdTrie::Form& IntfIdTrie::formWithPart(IntfId id, uint32_t k) const {
    const Form* const form = formOf(id.value());
    if (form == nullptr || k >= form->numParts) {
        Mox::throwRangeException("GenericIntfId::part: index out of range");
    }
    return *form;
}

uint32_t IntfIdTrie::intfIdPart(IntfId id, uint32_t k) const {
    const Form::Part& part = formWithPart(id, k).parts[k];
    return static_cast<uint32_t>(id.value() >> part.position) & part.mask;
}

IntfId IntfIdTrie::intfIdWithPart(IntfId id, uint32_t k, uint32_t value) const {
    const Form::Part& part = formWithPart(id, k).parts[k];
    if (value > part.mask) {
        Mox::throwRangeException("GenericIntfId::part: value out of range");
    }
    return IntfId((id.value() & ~(uint64_t{part.mask} << part.position)) | uint64_t{value}
                                                                               << part.position);
}

}  // namespace Pavo
