// Names of interfaces beside tables of whole names, and their order beside the bare pattern.

#include <benchmark/benchmark.h>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "Mox/Assert.h"

#include "Pavo/IntfId.h"
#include "RunOver.h"

namespace {

constexpr uint32_t count = 10000;

// Names as a large chassis has them, in no order, and their ids.
struct Interfaces {
    std::vector<std::string> names;
    std::vector<Pavo::IntfId> ids;
};

Interfaces interfaces() {
    std::mt19937 random(1);
    const auto number = [&random](uint32_t most) { return std::to_string(1 + random() % most); };
    std::unordered_map<std::string, uint64_t> known;
    Interfaces all;
    while (all.names.size() < count) {
        std::string name;
        switch (random() % 6) {
            case 0:
                name = "Vlan" + number(4094);
                break;
            case 1:
                name = "Port-Channel" + number(2000) + "." + number(4094);
                break;
            case 2:
                name = "Ethernet" + number(64) + "/" + number(4) + "." + number(4094);
                break;
            case 3:
                name = "Ethernet" + number(18) + "/" + number(36) + "/" + number(8);
                break;
            case 4:
                name = "Ethernet" + number(18) + "/" + number(64);
                break;
            default:
                name = "Tunnel" + number(10000);
                break;
        }
        if (known.emplace(name, 0).second) {
            all.ids.push_back(Mox::fromText<Pavo::IntfId>(name));
            all.names.push_back(name);
        }
    }
    return all;
}

const Interfaces& all() {
    static const Interfaces made = interfaces();
    return made;
}

void parsePavo(benchmark::State& state) {
    const std::vector<Mox::String> names(all().names.begin(), all().names.end());
    runOver(count, state, [&names](uint32_t i) {
        Pavo::IntfId id;
        auto it = names[i].begin();
        sequenceToValue(it, names[i].end(), &id);
        benchmark::DoNotOptimize(id);
    });
}

void parseTable(benchmark::State& state) {
    std::unordered_map<std::string, uint64_t> ids;
    for (uint32_t i = 0; i < count; ++i) {
        ids[all().names[i]] = all().ids[i].value();
    }
    runOver(count, state,
            [&ids](uint32_t i) { benchmark::DoNotOptimize(ids.find(all().names[i])->second); });
}

void printPavo(benchmark::State& state) {
    runOver(count, state, [](uint32_t i) {
        const Mox::String name = all().ids[i].stringValue();
        benchmark::DoNotOptimize(name.data());
    });
}

// It hands out a copy as well.
void printTable(benchmark::State& state) {
    std::unordered_map<uint64_t, std::string> names;
    for (uint32_t i = 0; i < count; ++i) {
        names[all().ids[i].value()] = all().names[i];
    }
    runOver(count, state, [&names](uint32_t i) {
        const std::string name = names.find(all().ids[i].value())->second;
        benchmark::DoNotOptimize(name.data());
    });
}

// The names at i and after it.
uint32_t after(uint32_t i) {
    return i + 1 == count ? 0 : i + 1;
}

void comparePavo(benchmark::State& state) {
    runOver(count, state, [](uint32_t i) {
        benchmark::DoNotOptimize(Pavo::compareIntfName(all().ids[i], all().ids[after(i)]));
    });
}

// What is left of comparing when the names are there already and their groups are not looked at.
void matchBare(benchmark::State& state) {
    static const char pattern[] =
        "([^0-9\\/]+)(?:(\\d+)\\/?)?(?:(\\d+)\\/?)?(?:(\\d+))?(?:\\.(\\d+))?$";
    int error = 0;
    PCRE2_SIZE offset = 0;
    pcre2_code* const code =
        pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern), PCRE2_ZERO_TERMINATED, PCRE2_EXTENDED,
                      &error, &offset, nullptr);
    Mox::require(code != nullptr && pcre2_jit_compile(code, PCRE2_JIT_COMPLETE) == 0, "JIT");
    pcre2_match_data* const groups = pcre2_match_data_create_from_pattern(code, nullptr);
    const auto match = [&](const std::string& name) {
        return pcre2_jit_match(code, reinterpret_cast<PCRE2_SPTR>(name.data()), name.size(), 0, 0,
                               groups, nullptr);
    };
    runOver(count, state, [&](uint32_t i) {
        benchmark::DoNotOptimize(match(all().names[i]));
        benchmark::DoNotOptimize(match(all().names[after(i)]));
    });
    pcre2_match_data_free(groups);
    pcre2_code_free(code);
}

const bool registered = [] {
    using benchmark::RegisterBenchmark;
    RegisterBenchmark("IntfIdParse/pavo", parsePavo);
    RegisterBenchmark("IntfIdParse/unordered_map", parseTable);
    RegisterBenchmark("IntfIdPrint/pavo", printPavo);
    RegisterBenchmark("IntfIdPrint/unordered_map", printTable);
    RegisterBenchmark("CompareIntfName/pavo", comparePavo);
    RegisterBenchmark("CompareIntfName/pcre2_jit_match", matchBare);
    return true;
}();

}  // namespace
