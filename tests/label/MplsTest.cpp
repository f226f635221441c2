#include "Pavo/Mpls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "Pavo/MplsLabelStack.h"
#include "support/ValueLaws.h"

namespace Pavo {
namespace {

using Bounded = BoundedMplsLabelStack;
using Dynamic = DynamicMplsLabelStack;
using Error = BoundedMplsLabelStackError;
using Result = BoundedMplsLabelStackResult;

constexpr uint32_t eli = 7, el = 0x100002, none = 0x100000;
constexpr int threw = -1;  // Instead of a result: a range error.
const std::string labelText =
    "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";
const std::string placeText = "MplsLabelOperation::labelStack: index out of range";

// The entries of a calculated stack from the top.
using List = std::vector<uint32_t>;

// "16*2 P" is two labels above a pair of an indicator and an entropy label.
List list(const std::string& text) {
    List entries;
    std::istringstream in(text);
    for (std::string token; in >> token;) {
        const List unit = token[0] == 'P' ? List{eli, el} : List{uint32_t(std::stoul(token))};
        const std::size_t star = token.find('*');
        for (int n = star == token.npos ? 1 : std::stoi(token.substr(star + 1)); n != 0; --n) {
            entries.insert(entries.end(), unit.begin(), unit.end());
        }
    }
    return entries;
}

List labelsOf(List entries) {
    std::erase_if(entries, [](uint32_t entry) { return entry == eli || entry == el; });
    return entries;
}

// The words that a dynamic stack is serialised to.
Mox::Bytes wordsOf(const List& entries) {
    const auto mapOf = [&entries](uint32_t marker) {
        uint32_t map = 0;
        for (std::size_t i = 0; i < entries.size(); ++i) {
            map |= entries[i] == marker ? uint32_t{1} << i : 0;
        }
        return map;
    };
    const List labels = labelsOf(entries);
    Mox::NboAttrLog::Out out;
    out.u32(static_cast<uint32_t>(labels.size()));
    out.u32(mapOf(el));
    out.u32(mapOf(eli));
    std::for_each(labels.begin(), labels.end(), [&out](uint32_t label) { out.u32(label); });
    return out.bytes;
}

template <class Stack>
Stack stackOf(const List& entries) {
    const Mox::Bytes words = wordsOf(entries);
    Dynamic stack;
    stack.deserialize(words.data(), words.bytes());
    return Stack(stack);
}

Bounded bounded(const char* text) {
    return stackOf<Bounded>(list(text));
}

// Does one change: a word, then labels, a position or an index with a label.
template <class Stack>
int changed(Stack& stack, const std::string& change) {
    const std::size_t end = std::min(change.find(' '), change.size());
    const List a = list(change.substr(end));
    const std::map<std::string, std::function<Result()>> changes = {
        {"append", [&] { return stack.append(a[0]); }},
        {"prepend", [&] { return stack.prepend(a[0]); }},
        {"extend", [&] { return stack.extend(stackOf<Stack>(a)); }},
        {"double", [&] { return stack.extend(stack); }},
        {"pair", [&] { return stack.entropyLabelAndIndicatorIs(a[0]); }},
        {"label", [&] { return stack.labelIs(a[0], a[1]), Result(); }},
        {"size", [&] { return stack.stackSizeIs(a[0]), Result(); }},
        {"clean", [&] { return stack.removeImplicitNulls(), Result(); }},
    };
    try {
        if constexpr (std::is_same_v<Stack, Bounded>) {
            if (change.starts_with("extendAllowing")) {
                return static_cast<int>(
                    stack.extendAllowingNonBosExplicitNulls(stackOf<Stack>(a)).error());
            }
        }
        return static_cast<int>(changes.at(change.substr(0, end))().error());
    } catch (const Mox::RangeException&) {
        return threw;
    }
}

// Each of `changes`, by itself, turns `before` into `after` ("=" for no change), with `result`.
struct Row {
    const char* before;
    const char* changes;
    const char* after;
    int result;
};

template <class Stack>
void expectRows(const std::vector<Row>& rows) {
    for (const auto& [before, changes, after, result] : rows) {
        std::istringstream in(changes);
        for (std::string change; std::getline(in >> std::ws, change, ';');) {
            SCOPED_TRACE(std::string(before) + " | " + change);
            auto stack = stackOf<Stack>(list(before));
            EXPECT_EQ(changed(stack, change), result);
            const List expected = list(*after == '=' ? before : after), labels = labelsOf(expected);
            EXPECT_EQ(stack, stackOf<Stack>(expected));
            EXPECT_EQ(stack.top(), MplsLabel(labels.empty() ? none : labels[0]));
        }
    }
}

// clang-format off
const std::vector<Row> rowsOfAllStacks = {
    {"16", "append 7; append 1048578", "=", 2}, {"", "prepend 7; prepend 1048578", "=", 2},
    // Without ordinary labels.
    {"", "append 1; prepend 1", "=", 2}, {"P", "append 1; prepend 1", "=", 2},
    {"P", "append 2", "P 2", 0}, {"", "append 3; prepend 3", "3", 0}, {"P", "prepend 0", "0 P", 0},
    {"P*15", "prepend 17", "17 P*15", 0}, {"P*16", "prepend 17", "=", 4},
    // An implicit null alone.
    {"3", "append 1; append 3; prepend 1; prepend 3", "=", 2}, {"3", "append 0", "0", 2},
    {"P 3 P", "append 17", "P*2 17", 2}, {"P*14 3 P", "append 17", "P*15 17", 2},
    {"3", "prepend 2", "2", 2}, {"P 3 P", "prepend 17", "17 P*2", 2},
    {"P*15 3", "prepend 17", "17 P*15", 2}, {"3 16", "append 17", "3 16 17", 0},
    {"3 16", "prepend 17", "17 3 16", 0},
    // With ordinary labels.
    {"16", "append 3; append 0; append 2; prepend 3; prepend 0; prepend 2", "=", 2},
    {"16", "append 1", "16 1", 0}, {"16", "prepend 1", "1 16", 0},
    {"16 P", "append 17", "16 P 17", 0}, {"16 P 17", "prepend 18", "18 16 P 17", 0},
    {"16", "extend P 17 P", "16 P 17 P", 0}, {"16", "extend 0 17 3", "16 17", 2},
    {"", "extend 1 17", "17", 2}, {"3", "extend P 17 18", "P 17 18", 2},
    {"16*2 P*14", "extend P", "16*2 P*15", 0}, {"16 P*15", "extend P 17", "16 P*15 17", 4},
    {"P 16", "double", "P 16 P 16", 0}, {"3 16", "double", "3 16 16", 2},
    // Pairs at a position.
    {"16 17", "pair 0", "P 16 17", 0}, {"16 17", "pair 2", "16 17 P", 0},
    {"16 17", "pair 3", "=", 6}, {"P 16", "pair 0; pair 2", "P*2 16", 0}, {"P 16", "pair 1", "=", 6},
    {"P*15", "pair 30", "P*16", 0}, {"16", "pair 30", "=", 6},
    {"16", "pair 31; pair 4294967295", "=", threw},
    // A label at an index, the number of labels, implicit nulls.
    {"16 P 17", "label 1 18", "16 P 18", 0},
    {"P 16", "label 1 17; label 0 7; label 0 1048578", "=", threw},
    {"P 16 17 P", "size 1", "P 16 P", 0}, {"P 16", "size 3", "P 16 1048576*2", 0},
    {"P 3 16 P 3 3 P 17", "clean", "P 16 P*2 17", 0}, {"0 16", "clean", "=", 0},
};
const std::vector<Row> rowsOfBoundedStacks = {
    {"16*7", "append 17; prepend 17; extendAllowing 0", "=", 5}, {"16*7 P", "append 0", "=", 2},
    {"16*6", "extend 3 17 18", "16*6 17", 5}, {"16*7", "extend 17 P", "16*7 P", 5},
    {"16*7 P*12", "extend 17 P", "=", 5}, {"P*16", "append 17", "=", 4},
    {"P*15 16*2", "append 17; prepend 17", "=", 4}, {"P*15 16", "pair 0; pair 1", "=", 4},
    {"P*13 16*5", "append 17; extend 17", "P*13 16*5 17", 0},
    {"P*13 16*5", "prepend 17", "17 P*13 16*5", 0},
    {"P*13 16*6", "append 17; prepend 17; extend P; pair 0", "=", 4},
    {"16", "size 8", "=", threw}, {"P*15 16*2", "size 3", "=", threw},
    {"16", "extendAllowing 0 17 2", "16 0 17 2", 0}, {"16", "extendAllowing 3 0", "16 0", 2},
};
const std::vector<Row> rowsOfDynamicStacks = {
    {"16*40", "append 17", "16*40 17", 0}, {"P*16", "append 17", "P*16 17", 0},
    {"P*16 3", "append 17", "P*16 17", 2}, {"P*16 3", "prepend 17", "=", 4},
    {"16*31", "extend P 17", "16*31 17", 4}, {"16*30 P 17", "prepend 17", "=", 4},
    {"16*29 P 17", "prepend 17", "17 16*29 P 17", 0}, {"16*40", "pair 30", "16*30 P 16*10", 0},
    {"16*29 P 16", "pair 0", "=", 4}, {"16*29 P 16", "pair 31", "=", threw},
};
// clang-format on

TEST(MplsLabelStacks, KeepTheRulesOfEachChange) {
    expectRows<Bounded>(rowsOfAllStacks);
    expectRows<Dynamic>(rowsOfAllStacks);
    expectRows<Bounded>(rowsOfBoundedStacks);
    expectRows<Dynamic>(rowsOfDynamicStacks);
}

TEST(MplsLabel, PrintsNames) {
    expectValueLaws<Bounded>({{}, bounded("P 16"), bounded("17 P"), bounded("16*7 P*12")});
    EXPECT_EQ(valueToStrep(MplsLabel(16)), "Value('Pavo::MplsLabel', ** {'value': 16})");
    MplsLabel label;
    for (const char* number : {"8388609", "4294967296"}) {
        const std::string record = std::string("Value('Pavo::MplsLabel', ** {'value': ") + number;
        EXPECT_EQ(textErrorOf(record + "})", &label), labelText);
    }
    EXPECT_EQ(valueToStrep(stackOf<Dynamic>(list("16 17 P"))),
              "DynamicMplsLabelStack(stackSize:2, labels:[16, 17], entropyLabelBitMap:8, "
              "entropyLabelIndicatorBitMap:4)");
    std::string pretty;
    for (const uint32_t value : {0u, 1u, 2u, 3u, 7u, 16u, none, 0x100001u, el, 0x800000u}) {
        pretty += MplsLabel(value).prettyString() + " ";
    }
    EXPECT_EQ(pretty,
              "exp-null-v4(0) router-alert(1) exp-null-v6(2) imp-null(3) entropy-indicator(7) 16 "
              "N/A (any) (entropy) (lu-withdraw) ");
    EXPECT_EQ(bounded("3 P 16").cliShowString(), "imp-null(3) ELI EL 16");
    EXPECT_EQ(bounded("3 P 16").cliString(), "3 ELI EL 16");
    EXPECT_EQ(bounded("3 P").stringValue() + Dynamic().stringValue(),
              "TOP ( 3 ELI EL ) BOTTOMTOP ( ) BOTTOM");
    for (uint32_t number = 0; number <= 7; ++number) {
        Result result(BoundedMplsLabelStackErrorInstance(number));
        EXPECT_EQ(result.success(), number < 3) << number;
        result.combine(Error::entropyLabelBitMapFull);
        EXPECT_EQ(static_cast<uint32_t>(result.error()), std::max(number, 4u));
    }
}

TEST(MplsLabelStacks, RefuseInvalidStacks) {
    const std::string mapText = "Entropy label bit map position index out of range";
    const std::string sizeText = "BoundedMplsLabelStack::stackSize < 0 or > 7 not allowed";
    const struct {
        uint32_t size;
        List labels;
        uint32_t elMap, eliMap;
        std::string error;  // Of a bounded stack, and of one without bound where the flag is set.
        bool isForBoth = true;
    } cases[] = {
        // clang-format off
        {7, List(7, 16), 0xaaaaaa, 0x555555, ""}, {1, {0x800000}, 0, 0, ""},
        // One without the other; both at one position.
        {2, {16, 17}, 0b10, 0, ""}, {0, {}, 0, 0b1, ""}, {0, {}, 0b10, 0, mapText},
        {2, {16, 17}, 0b110, 0b011, mapText},
        // Past the stack; 35 positions; labels that are none, and more or fewer than the size.
        {2, {16, 17}, 1u << 4, 1u << 3, mapText}, {1, {eli}, 0, 0, labelText},
        {7, List(7, 16), 0xaaaaaaa, 0x5555555, mapText, false}, {1, {el}, 0, 0, labelText},
        {1, {16, 17}, 0, 0, labelText, false}, {2, {16}, 0, 0, "", false},
        {8, List(7, 16), 0, 0, sizeText, false}, {263, List(7, 16), 0, 0, sizeText, false},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.labels) + std::to_string(c.elMap));
        for (const bool isBounded : {true, false}) {
            Mox::NboAttrLog::Out log;
            log.u32(c.size);
            for (uint32_t i = 0; i < (isBounded ? 7 : c.labels.size()); ++i) {
                log.u32(i < c.labels.size() ? c.labels[i] : none);
            }
            log.u32(c.elMap);
            log.u32(c.eliMap);
            Mox::NboAttrLog::In in(log.bytes);
            const std::string error = rangeErrorOf([&] {
                isBounded ? void(Bounded(&in, Mox::StreamBogon()))
                          : void(Dynamic(&in, Mox::StreamBogon()));
            });
            EXPECT_TRUE(error == c.error || !(isBounded || c.isForBoth)) << error;
        }
    }
    const std::string maps = "], entropyLabelBitMap:0, entropyLabelIndicatorBitMap:0)";
    for (const char* labels : {"1, labels:[16, 17", "2, labels:[16"}) {
        Dynamic read = stackOf<Dynamic>(list("18"));
        EXPECT_EQ(textErrorOf("DynamicMplsLabelStack(stackSize:" + (labels + maps), &read),
                  "Invalid DynamicMplsLabelStack");
    }
}

TEST(MplsLabelStacks, RefuseNumbersOutOfRange) {
    const char* const indexText =
        "MplsStackEntryIndex::value < MplsStackEntryIndex::min or > MplsStackEntryIndex::nullValue "
        "not allowed";
    Bounded stack = bounded("16 P");
    EXPECT_EQ(rangeErrorOf([&] { stack.labelIs(1, 17); }),
              "BoundedMplsLabelStack::labelIs: index out of range");
    EXPECT_EQ(rangeErrorOf([&] { (void)Dynamic(stack).label(0xffffffff); }),
              "DynamicMplsLabelStack::label: index out of range");
    EXPECT_EQ(rangeErrorOf([] { (void)Dynamic().calculatedTop(); }), placeText);
    EXPECT_EQ(rangeErrorOf([] { MplsLabel(0x800001); }), labelText);
    expectRefuses(MplsStackEntryIndex(1), {{indexText, {"8", "4294967296"}}});
    stack.deleteBitFromEntropyLabelAndIndicatorBitMaps(1);  // The indicator alone.
    EXPECT_EQ(stack.stringValue(), "TOP ( 16 EL ) BOTTOM");
    expectValueLaws<Bounded>({stack});
    EXPECT_EQ(Bounded(Dynamic(stack)), stack);
    EXPECT_DEATH(stack.deleteBitFromEntropyLabelAndIndicatorBitMaps(32),
                 "Deleting bits above the bit map size");
}

TEST(MplsLabelOperation, FoldsOneIntoAnother) {
    using Action = MplsLabelAction;
    // clang-format off
    const struct {
        Action action, otherAction; uint8_t otherFlags;
        const char* stack; uint32_t error; bool success; const char* after;
    } cases[] = {
        {Action::push, Action::push, 0, "16", 0, true, "16 17 P"},
        {Action::push, Action::push, 1, "16", 1, false, "16 17 P"},
        {Action::push, Action::push, 2, "16", 4, false, "16 17 P"},
        {Action::swap, Action::push, 0, "16", 2, true, "16 17 P"},
        {Action::push, Action::pop, 0, "3", 2, true, "17 P"},
        {Action::swap, Action::swap, 3, "16", 7, false, "16 17 P"},
        {Action::push, Action::push, 0, "16*7", 0, false, "16*7 P"},
    };
    // clang-format on
    for (const auto& c : cases) {
        MplsLabelOperation into(c.action, bounded(c.stack), 3);  // Its own flags are ignored.
        const auto result =
            into.smush(MplsLabelOperation(c.otherAction, bounded("17 P"), c.otherFlags));
        EXPECT_EQ(result.smushError(), SmushResult::SmushError(c.error));
        EXPECT_EQ(result.success(), c.success);
        EXPECT_EQ(into, MplsLabelOperation(c.action, bounded(c.after), 3));
    }
}

TEST(MplsLabelOperation, IsARecordAndConvertsToUnbounded) {
    MplsLabelOperation operation(MplsLabelAction::pop, bounded("3 P 16 3"), 1);
    EXPECT_EQ(valueToStrep(operation),
              "Value('Pavo::MplsLabelOperation', ** {'operation': pop, 'rawValue': 1, "
              "'boundedLabelStack': " +
                  valueToStrep(operation.boundedLabelStack()) + "})");
    const UnboundedMplsLabelOperation unbounded = boundedOpToUnboundedOp(operation);
    EXPECT_EQ(Mox::fromText<UnboundedMplsLabelOperation>(valueToStrep(unbounded)), unbounded);
    EXPECT_EQ(unboundedOpToBoundedOp(unbounded), operation);
    EXPECT_EQ(stackOf<Bounded>(list("P 16*8 P")), bounded("P 16*7"));
    EXPECT_EQ(stackOf<Bounded>(list("P*13 16*7")), bounded("P*13 16*6"));
    EXPECT_EQ(testing::PrintToString(operation),
              "Operation: pop Stack Size: 3 MPLS Label Stack: TOP ( 3 ELI EL 16 3 ) BOTTOM");
    for (const auto action : {MplsLabelAction::push, MplsLabelAction::swap, MplsLabelAction::pop}) {
        MplsLabelOperation each(action, bounded("3 P 16 3"));
        each.removeImplicitNullForPushOrSwap();
        EXPECT_EQ(each.boundedLabelStack() != bounded("P 16"), action == MplsLabelAction::pop);
    }
    EXPECT_EQ(operation.label3(), MplsLabel::null);
    EXPECT_EQ(rangeErrorOf([&] { operation.label3Is(16); }), placeText);
    EXPECT_EQ(rangeErrorOf([] { (void)MplsLabelOperation().topLabel(); }),
              "MplsLabelOperation::topLabel: label stack size 0");
    UnboundedMplsLabelOperation large;
    large.stackSizeIs(255);
    EXPECT_EQ(rangeErrorOf([&] { large.stackSizeIs(256); }),
              "UnboundedMplsLabelOperation::stackSize < 0 or > 255 not allowed");
    EXPECT_EQ(large.stackSize(), 255u);
    for (uint32_t number = 5; number <= 16; ++number) {
        const auto action = static_cast<MplsLabelAction>(number);
        const char* const error = number == 15 ? "" : "Invalid MplsLabelAction";
        EXPECT_EQ(rangeErrorOf([&] { large.operationIs(action); }), error) << number;
    }
}

TEST(MplsLabelAndAction, PacksALabelAboveAnAction) {
    MplsLabelAndAction packed(0xf0);
    packed.labelIs(0xfffff);
    packed.actionIs(MplsLabelAction::lookup);
    EXPECT_TRUE(packed.value() == 0x0ffffff4u && packed.isValid());
    packed.actionIs(static_cast<MplsLabelAction>(0x1f));
    EXPECT_FALSE(packed.isValid());
    EXPECT_FALSE(MplsLabelAndAction(0x10000000).isValid());
    EXPECT_EQ(MplsLabelAndAction(0x800000ff).label(), MplsLabel(0x800000));
    EXPECT_EQ(rangeErrorOf([] { (void)MplsLabelAndAction(0x80000100).label(); }), labelText);
}

TEST(MplsLabelStack, IsValidWithOneBottomAtTheBottom) {
    const MplsLabelEntry above(0x00010040), bottom(17, 0, true, 64);
    EXPECT_EQ(bottom.value(), 0x00011140u);
    EXPECT_EQ(MplsLabelEntry(MplsLabel::max, 5, false, 254).value(), 0xfffffafeu);
    EXPECT_EQ(rangeErrorOf([] { MplsLabelEntry(MplsLabel::null, 0, false, 0); }),
              "MplsLabelEntry::label > 1048575 not allowed");
    EXPECT_EQ(rangeErrorOf([] { MplsLabelEntry(0, 8, false, 0); }),
              "MplsLabelEntry::cos > 7 not allowed");
    MplsLabelStack stack;
    EXPECT_FALSE(stack.valid());
    for (const auto& [index, entry, isValid] :
         {std::tuple(0u, above, false), {1u, bottom, true}, {0u, bottom, false}}) {
        stack.labelEntryIs(index, entry);
        EXPECT_EQ(stack.valid(), isValid);
    }
    EXPECT_EQ(rangeErrorOf([&] { stack.labelEntryIs(3, above); }),
              "MplsLabelStack::labelEntryIs: index out of range");
    stack.labelEntryDel(0);
    EXPECT_TRUE(stack.valid() && stack.size() == 1);
    EXPECT_EQ(valueToStrep(bottom),
              "Value('Pavo::MplsLabelEntry', ** {'v0': 0, 'v1': 1, 'v2': 17, 'v3': 64})");
    EXPECT_DEATH(stack.stringValueIs("x"),
                 "No String constructor for MplsLabelStack - has collection");
}

}  // namespace
}  // namespace Pavo
