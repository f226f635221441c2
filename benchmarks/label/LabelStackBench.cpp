// Changing and reading label stacks, beside a plain list of what goes on the wire, which keeps the
// same rules.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "Pavo/BoundedMplsLabelStack.h"
#include "RunOver.h"

namespace {

using Pavo::MplsLabel;
using Error = Pavo::BoundedMplsLabelStackError;

// Enough of them that no branch is learnt by heart.
constexpr uint32_t count = 1024;

// Entries of a stack from the top: 1 to 7 labels, and up to three indicators, which stand for
// pairs.
using Entries = std::vector<uint32_t>;

// What else could be done: the calculated stack as a list, with room for all that it may hold, and
// the number of its ordinary labels.
class VectorStack {
  public:
    VectorStack() { entries_.reserve(32); }
    VectorStack(const VectorStack& other) : VectorStack() { *this = other; }
    VectorStack& operator=(const VectorStack&) = default;

    void clear() {
        entries_.clear();
        labels_ = 0;
    }

    Error append(uint32_t label) {
        return isMarker(label) ? Error::labelIgnored : appendEntry(label);
    }

    Error prepend(uint32_t label) {
        if (isMarker(label)) {
            return Error::labelIgnored;
        }
        const Error error = labelError(label);
        if (error == Error::success) {
            entries_.insert(entries_.begin(), label);
            ++labels_;
        }
        return error;
    }

    Error extend(const VectorStack& other) {
        Error worst = Error::success;
        for (const uint32_t entry : other.entries_) {
            if (entry != MplsLabel::entropyLabelIndicatorValue) {
                worst = std::max(worst, appendEntry(entry));
            }
        }
        return worst;
    }

    Error entropyLabelAndIndicatorIs(uint32_t position) {
        if (entries_.size() > 30) {
            return Error::entropyLabelBitMapFull;
        }
        if (position > entries_.size() ||
            (position < entries_.size() && entries_[position] == MplsLabel::entropyLabelValue)) {
            return Error::invalidEntropyLabelPosition;
        }
        const uint32_t pair[] = {MplsLabel::entropyLabelIndicatorValue,
                                 MplsLabel::entropyLabelValue};
        entries_.insert(entries_.begin() + position, std::begin(pair), std::end(pair));
        return Error::success;
    }

    uint32_t calculatedStackSize() const { return static_cast<uint32_t>(entries_.size()); }
    MplsLabel calculatedLabel(uint32_t position) const { return entries_.at(position); }

  private:
    static bool isMarker(uint32_t label) {
        return label == MplsLabel::entropyLabelIndicatorValue ||
               label == MplsLabel::entropyLabelValue;
    }

    Error appendEntry(uint32_t label) {
        if (label == MplsLabel::entropyLabelValue) {
            return entropyLabelAndIndicatorIs(calculatedStackSize());
        }
        const Error error = labelError(label);
        if (error == Error::success) {
            entries_.push_back(label);
            ++labels_;
        }
        return error;
    }

    Error labelError(uint32_t label) {
        if (labels_ == 0) {
            return label == MplsLabel::routerAlertValue ? Error::labelIgnored : Error::success;
        }
        // The samples hold no implicit null that another label would replace.
        if (label == MplsLabel::implicitNullValue || label == MplsLabel::explicitNullIpv4Value ||
            label == MplsLabel::explicitNullIpv6Value) {
            return Error::labelIgnored;
        }
        if (labels_ == 7) {
            return Error::stackFull;
        }
        return entries_.size() >= 32 ? Error::entropyLabelBitMapFull : Error::success;
    }

    std::vector<uint32_t> entries_;
    uint32_t labels_ = 0;
};

void clear(VectorStack& stack) {
    stack.clear();
}
void clear(Pavo::BoundedMplsLabelStack& stack) {
    stack = {};
}

std::vector<Entries> samples(bool withPairs, uint32_t mostLabels) {
    std::mt19937 random(7);
    std::vector<Entries> all(count);
    for (Entries& each : all) {
        for (uint32_t labels = 1 + static_cast<uint32_t>(random()) % mostLabels; labels != 0;) {
            each.push_back(16 + static_cast<uint32_t>(random()) % 1000000);
            --labels;
        }
        for (uint32_t pairs = withPairs ? 1 + static_cast<uint32_t>(random() % 3) : 0; pairs != 0;
             --pairs) {
            const auto at = static_cast<std::ptrdiff_t>(1 + random() % each.size());
            each.insert(each.begin() + at, MplsLabel::entropyLabelIndicatorValue);
        }
    }
    return all;
}

template <class Stack>
void appendAll(Stack& stack, const Entries& entries) {
    for (const uint32_t each : entries) {
        if (each == MplsLabel::entropyLabelIndicatorValue) {
            (void)stack.entropyLabelAndIndicatorIs(stack.calculatedStackSize());
        } else {
            (void)stack.append(each);
        }
    }
}

template <class Stack>
void prependAll(Stack& stack, const Entries& entries) {
    for (auto each = entries.rbegin(); each != entries.rend(); ++each) {
        if (*each == MplsLabel::entropyLabelIndicatorValue) {
            (void)stack.entropyLabelAndIndicatorIs(0);
        } else {
            (void)stack.prepend(*each);
        }
    }
}

template <class Stack>
std::vector<Stack> stacksOf(const std::vector<Entries>& all) {
    std::vector<Stack> stacks;
    for (const Entries& each : all) {
        stacks.emplace_back();
        appendAll(stacks.back(), each);
    }
    return stacks;
}

// Fills an empty stack by `fill`.
template <class Stack, void (*fill)(Stack&, const Entries&)>
void fillEmpty(benchmark::State& state, bool withPairs) {
    const auto all = samples(withPairs, 7);
    Stack stack;
    runOver(count, state, [&](uint32_t i) {
        clear(stack);
        fill(stack, all[i]);
        benchmark::DoNotOptimize(stack);
    });
}

template <class Stack>
void extend(benchmark::State& state, bool withPairs) {
    const auto all = stacksOf<Stack>(samples(withPairs, 4));
    Stack stack;
    runOver(count, state, [&](uint32_t i) {
        stack = all[i];
        benchmark::DoNotOptimize(stack.extend(all[(i + 1) % count]));
        benchmark::DoNotOptimize(stack);
    });
}

template <class Stack>
void calculatedLabel(benchmark::State& state, bool withPairs) {
    const auto all = stacksOf<Stack>(samples(withPairs, 7));
    runOver(count, state, [&](uint32_t i) {
        const Stack& stack = all[i];
        uint32_t sum = 0;
        for (uint32_t at = 0, size = stack.calculatedStackSize(); at < size; ++at) {
            sum += stack.calculatedLabel(at).value();
        }
        benchmark::DoNotOptimize(sum);
    });
}

template <class Stack>
void registerAll(const std::string& who) {
    for (const bool withPairs : {false, true}) {
        const std::string kind = withPairs ? "WithPairs/" : "/";
        const auto add = [&](const std::string& line, void (*work)(benchmark::State&, bool)) {
            benchmark::RegisterBenchmark(("Labels" + line + kind + who).c_str(), work, withPairs);
        };
        add("Append", fillEmpty<Stack, appendAll<Stack>>);
        add("Prepend", fillEmpty<Stack, prependAll<Stack>>);
        add("Extend", extend<Stack>);
        add("Read", calculatedLabel<Stack>);
    }
}

const bool registered = [] {
    registerAll<Pavo::BoundedMplsLabelStack>("pavo");
    registerAll<VectorStack>("vector");
    return true;
}();

}  // namespace
