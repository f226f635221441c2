#include "Pavo/interface/IntfIdTrie.h"

#include <algorithm>
#include <map>
#include <utility>

namespace Pavo {

namespace {

using Mox::TextCursor;

bool isPrefix(std::string_view text) {
    return !text.empty() && text.size() <= IntfIdTrie::maxPrefixBytes &&
           std::all_of(text.begin(), text.end(),
                       [](char c) { return c > ' ' && c < 0x7f && c != '/'; });
}

void requirePrefix(std::string_view text, const std::vector<IntfIdPart>& parts) {
    const bool joinsNumber = !parts.empty() && parts[0].separator() == '\0';
    if (!isPrefix(text) || (joinsNumber && TextCursor::isDigit(text.back()))) {
        Mox::throwRangeException("Invalid interface prefix");
    }
}

void requireParts(std::span<const IntfIdPart> parts) {
    bool good = parts.size() <= IntfIdTrie::maxParts;
    uint64_t taken = GenericIntfId::typeBits;
    for (const IntfIdPart& part : parts) {
        const bool isFirst = &part == parts.data();
        good = good && part && (part.bits() & taken) == 0 && (isFirst || part.separator() != '\0');
        taken |= part.bits();
    }
    if (!good) {
        Mox::throwRangeException("Invalid interface parts");
    }
}

// The end of the digits from `at` on. `value` is their number, at most 2^32.
uint32_t readDigits(std::string_view text, uint32_t at, uint64_t* value) {
    for (*value = 0; at < text.size() && TextCursor::isDigit(text[at]); ++at) {
        *value = std::min(*value * 10 + static_cast<uint32_t>(text[at] - '0'), uint64_t{1} << 32);
    }
    return at;
}

bool isLeftOut(const IntfIdPart& part, uint64_t number) {
    return part.separator() == '.' && number == 0;
}

uint32_t numberOf(IntfId id, const IntfIdPart& part) {
    return static_cast<uint32_t>(id.value() >> part.position()) & part.mask();
}

// The names of a form with the same parts left out: a text with "0" in place of each number, and
// the smallest and the largest number there, which are equal for a number of the prefix.
struct NameShape {
    void addText(std::string_view more) {
        for (uint32_t at = 0; at < more.size();) {
            uint64_t number = 0;
            const uint32_t end = readDigits(more, at, &number);
            if (end == at) {
                text += more[at++];
            } else {
                addNumber(number, number);
                at = end;
            }
        }
    }
    void addNumber(uint64_t lowest, uint64_t highest) {
        text += '0';
        numbers.emplace_back(lowest, highest);
    }
    bool mayEqual(const NameShape& other) const {
        return text == other.text &&
               std::equal(numbers.begin(), numbers.end(), other.numbers.begin(),
                          [](const auto& a, const auto& b) {
                              return a.first <= b.second && b.first <= a.second;
                          });
    }

    std::string text;
    std::vector<std::pair<uint64_t, uint64_t>> numbers;
};

// Adds a shape for each choice of the parts after "." that are left out.
void addShapes(const NameShape& start, std::span<const IntfIdPart> parts,
               std::vector<NameShape>* shapes) {
    if (parts.empty()) {
        shapes->push_back(start);
        return;
    }
    const bool mayBeLeftOut = isLeftOut(parts[0], 0);
    if (mayBeLeftOut) {
        addShapes(start, parts.subspan(1), shapes);
    }
    NameShape longer = start;
    if (parts[0].separator() != '\0') {
        longer.text += parts[0].separator();
    }
    longer.addNumber(mayBeLeftOut ? 1 : 0, parts[0].mask());
    addShapes(longer, parts.subspan(1), shapes);
}

}  // namespace

void IntfIdTrie::setPrefix(std::string_view name, uint32_t typeAndSubType,
                           std::span<const IntfIdPart> parts) {
    if (typeAndSubType < 4 || typeAndSubType >= formCount) {
        Mox::throwRangeException("IntfIdTrie::typeAndSubType < 4 or > 511 not allowed");
    }
    requireParts(parts);
    GenericIntfId base;
    base.typeIdIs(typeAndSubType >> 2);
    base.subTypeIs(typeAndSubType & 3);
    Form form{base.intfId().value(),
              GenericIntfId::typeBits,
              {std::string(name), std::string(name)},
              {parts.begin(), parts.end()}};
    requirePrefix(name, form.parts);
    for (const IntfIdPart& part : parts) {
        form.bits |= part.bits();
    }
    uint16_t& number = formAt_[typeAndSubType];
    if (number != 0) {
        forms_[number - 1u] = std::move(form);
        return;
    }
    forms_.push_back(std::move(form));
    number = static_cast<uint16_t>(forms_.size());
}

void IntfIdTrie::setShortPrefix(std::string_view name, uint32_t typeAndSubType) {
    const uint32_t number = typeAndSubType < formCount ? formAt_[typeAndSubType] : 0;
    if (number == 0) {
        Mox::throwRangeException("Invalid interface prefix");
    }
    Form& form = forms_[number - 1];
    requirePrefix(name, form.parts);
    form.prefixes[1] = name;
}

void IntfIdTrie::build() {
    for (const bool isShort : {false, true}) {
        requireUniqueNames(isShort);
        buildPrefixes(isShort);
    }
}

void IntfIdTrie::requireUniqueNames(bool isShort) const {
    std::multimap<std::string, NameShape> known;
    for (const Form& form : forms_) {
        NameShape prefix;
        prefix.addText(form.prefixes[isShort]);
        std::vector<NameShape> shapes;
        addShapes(prefix, form.parts, &shapes);
        for (const NameShape& shape : shapes) {
            const auto [first, last] = known.equal_range(shape.text);
            if (std::any_of(first, last,
                            [&](const auto& each) { return each.second.mayEqual(shape); })) {
                Mox::throwRangeException("Two interfaces would have one name");
            }
            known.emplace(shape.text, shape);
        }
    }
}

void IntfIdTrie::buildPrefixes(bool isShort) {
    std::vector<Prefix>& prefixes = prefixes_[isShort];
    prefixes.clear();
    for (std::size_t form = 0; form < forms_.size(); ++form) {
        prefixes.push_back({forms_[form].prefixes[isShort], static_cast<uint16_t>(form), -1});
    }
    std::sort(prefixes.begin(), prefixes.end(),
              [](const Prefix& a, const Prefix& b) { return a.text < b.text; });
    for (std::size_t i = 1; i < prefixes.size(); ++i) {
        // All prefixes of `text` sort before it, and are in the chain of its neighbour.
        auto at = static_cast<int16_t>(i - 1);
        while (at >= 0 && !prefixes[i].text.starts_with(prefixes[static_cast<uint16_t>(at)].text)) {
            at = prefixes[static_cast<uint16_t>(at)].shorter;
        }
        prefixes[i].shorter = at;
    }
}

IntfIdTrie::Reading IntfIdTrie::stringToIntfId(std::string_view text, bool isShort) const {
    Reading best = read(text, isShort);
    if (shortNameTrie_ && !isShort) {
        const Reading other = read(text, true);
        best = other.length > best.length ? other : best;
    }
    return best;
}

namespace {

// The end of the numbers of a name whose prefix ends at `at`; 0 where one is missing or too large.
// `tooLargeAt` is raised to the begin of one that is too large. Adds the numbers to `id`.
uint32_t readParts(std::span<const IntfIdPart> parts, std::string_view text, uint32_t at,
                   uint64_t* id, uint32_t* tooLargeAt) {
    for (const IntfIdPart& part : parts) {
        const bool hasSeparator = part.separator() != '\0';
        const bool isSeparated =
            !hasSeparator || (at < text.size() && text[at] == part.separator());
        const uint32_t begin = at + (hasSeparator ? 1 : 0);
        uint64_t number = 0;
        const uint32_t end = isSeparated ? readDigits(text, begin, &number) : begin;
        if (number > part.mask()) {
            *tooLargeAt = std::max(*tooLargeAt, begin);
            return 0;
        }
        if (end > begin && !isLeftOut(part, number)) {
            *id |= number << part.position();
            at = end;
        } else if (!isLeftOut(part, 0)) {
            return 0;
        }
    }
    return at;
}

}  // namespace

IntfIdTrie::Reading IntfIdTrie::read(std::string_view text, bool isShort) const {
    const std::vector<Prefix>& prefixes = prefixes_[isShort];
    const auto after =
        std::upper_bound(prefixes.begin(), prefixes.end(), text,
                         [](std::string_view a, const Prefix& b) { return a < b.text; });
    Reading best;
    uint32_t tooLargeAt = 0;
    for (auto at = after - prefixes.begin() - 1; at >= 0;) {
        const Prefix& prefix = prefixes[static_cast<std::size_t>(at)];
        if (text.starts_with(prefix.text)) {
            const Form& form = forms_[prefix.form];
            uint64_t id = form.base;
            const auto prefixEnd = static_cast<uint32_t>(prefix.text.size());
            const uint32_t end = readParts(form.parts, text, prefixEnd, &id, &tooLargeAt);
            best = end > best.length ? Reading{IntfId(id), end} : best;
        }
        at = prefix.shorter;
    }
    return tooLargeAt != 0 && tooLargeAt >= best.length ? Reading() : best;
}

const IntfIdTrie::Form* IntfIdTrie::formOf(IntfId id) const {
    const GenericIntfId fields(id);
    const uint32_t number = formAt_[typeAndSubType(fields.typeId(), fields.subType())];
    if (number == 0 || (id.value() & ~forms_[number - 1].bits) != 0) {
        return nullptr;
    }
    return &forms_[number - 1];
}

void IntfIdTrie::intfIdToString(IntfId id, bool isShort, Mox::TextWriter& out) const {
    const Form* const form = formOf(id);
    if (form == nullptr) {
        return;
    }
    out.text(form->prefixes[isShort]);
    for (const IntfIdPart& part : form->parts) {
        const uint32_t number = numberOf(id, part);
        if (isLeftOut(part, number)) {
            continue;
        }
        if (part.separator() != '\0') {
            out.put(part.separator());
        }
        out.decimal(number);
    }
}

uint32_t IntfIdTrie::numParts(IntfId id) const {
    const Form* const form = formOf(id);
    if (form == nullptr) {
        return 0;
    }
    return static_cast<uint32_t>(std::count_if(
        form->parts.begin(), form->parts.end(),
        [id](const IntfIdPart& part) { return !isLeftOut(part, numberOf(id, part)); }));
}

const IntfIdPart& IntfIdTrie::partOf(IntfId id, uint32_t k) const {
    const Form* const form = formOf(id);
    if (form == nullptr || k >= form->parts.size()) {
        Mox::throwRangeException("GenericIntfId::part: index out of range");
    }
    return form->parts[k];
}

uint32_t IntfIdTrie::intfIdPart(IntfId id, uint32_t k) const {
    return numberOf(id, partOf(id, k));
}

IntfId IntfIdTrie::intfIdWithPart(IntfId id, uint32_t k, uint32_t value) const {
    const IntfIdPart& part = partOf(id, k);
    if (value > part.mask()) {
        Mox::throwRangeException("GenericIntfId::part: value out of range");
    }
    return IntfId((id.value() & ~part.bits()) | uint64_t{value} << part.position());
}

}  // namespace Pavo
