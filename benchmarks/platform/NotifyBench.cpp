// An attribute set with observers, beside plain virtual calls, std::function and Boost.Signals2.

#include <benchmark/benchmark.h>

#include <boost/signals2.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Mox/Entity.h"

namespace {

class Counter : public Mox::EntityOf<Counter> {
  public:
    static constexpr Mox::Attribute<Counter> valueAttr{0, "value"};
    static constexpr auto description() {
        return Mox::classRecord("Counter", Mox::attribute(valueAttr, &Counter::value));
    }

    uint32_t value() const { return value_; }
    void valueIs(uint32_t value) { attributeIs(value_, value, valueAttr); }

  private:
    uint32_t value_ = 0;
};

class Reactor : public Mox::Notifiee {
  public:
    explicit Reactor(const Mox::Ptr<Counter>& counter) : Notifiee(counter, Counter::valueAttr) {}
    void handleChange(const Mox::Change&) override { benchmark::DoNotOptimize(++calls_); }

  private:
    uint32_t calls_ = 0;
};

// Two classes, so that the compiler cannot know which one is called and leave the call out.
class Callee {
  public:
    virtual ~Callee() = default;
    virtual void handleChange() = 0;
};

class CountingCallee : public Callee {
  public:
    void handleChange() override { benchmark::DoNotOptimize(++calls_); }

  private:
    uint32_t calls_ = 0;
};

class DoublingCallee : public Callee {
  public:
    void handleChange() override { benchmark::DoNotOptimize(calls_ += 2); }

  private:
    uint32_t calls_ = 0;
};

std::unique_ptr<Callee> newCallee(int64_t i) {
    if (i % 2 == 0) {
        return std::make_unique<CountingCallee>();
    }
    return std::make_unique<DoublingCallee>();
}

void notifyPavo(benchmark::State& state) {
    const Mox::Ptr<Counter> counter = Mox::make<Counter>();
    std::vector<Mox::Ptr<Reactor>> reactors;
    for (int64_t i = 0; i < state.range(0); ++i) {
        reactors.push_back(Mox::make<Reactor>(counter));
    }
    uint32_t value = 0;
    for (auto _ : state) {
        counter->valueIs(++value);
    }
    for (const auto& each : reactors) {
        each->notifierIs(nullptr);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void notifyVirtual(benchmark::State& state) {
    std::vector<std::unique_ptr<Callee>> callees;
    for (int64_t i = 0; i < state.range(0); ++i) {
        callees.push_back(newCallee(i));
    }
    uint32_t value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(++value);
        for (const auto& each : callees) {
            Callee* callee = each.get();
            benchmark::DoNotOptimize(callee);
            callee->handleChange();
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void notifyFunctions(benchmark::State& state) {
    std::vector<std::function<void()>> functions;
    for (int64_t i = 0; i < state.range(0); ++i) {
        if (i % 2 == 0) {
            functions.emplace_back([calls = 0u]() mutable { benchmark::DoNotOptimize(++calls); });
        } else {
            functions.emplace_back(
                [calls = 0u]() mutable { benchmark::DoNotOptimize(calls += 2); });
        }
    }
    uint32_t value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(++value);
        for (const auto& each : functions) {
            each();
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void notifySignals2(benchmark::State& state) {
    std::vector<std::unique_ptr<Callee>> callees;
    boost::signals2::signal<void()> changed;
    for (int64_t i = 0; i < state.range(0); ++i) {
        callees.push_back(newCallee(i));
        changed.connect([callee = callees.back().get()] { callee->handleChange(); });
    }
    uint32_t value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(++value);
        changed();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

const bool registered = [] {
    for (const int observers : {1, 8}) {
        const auto line = "Notify" + std::to_string(observers);
        benchmark::RegisterBenchmark((line + "/pavo").c_str(), notifyPavo)->Arg(observers);
        benchmark::RegisterBenchmark((line + "/virtual_calls").c_str(), notifyVirtual)
            ->Arg(observers);
        benchmark::RegisterBenchmark((line + "/functions").c_str(), notifyFunctions)
            ->Arg(observers);
        benchmark::RegisterBenchmark((line + "/signals2").c_str(), notifySignals2)->Arg(observers);
    }
    return true;
}();

}  // namespace
