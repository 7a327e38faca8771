#include <vector>

#include <benchmark/benchmark.h>

#include "core/EventHandlerList.h"

namespace {

class IObserver {
public:
    virtual ~IObserver() = default;
    virtual void OnValue(int value) = 0;
};

class Observer : public IObserver {
public:
    void OnValue(int value) override { benchmark::DoNotOptimize(sum += value); }
    long sum = 0;
};

void BM_PerformAll(benchmark::State& state) {
    std::vector<Observer> observers(static_cast<size_t>(state.range(0)));
    Vexlor::Core::EventHandlerList<IObserver> list;
    for (Observer& observer : observers) {
        list.RegisterEventHandler(&observer);
    }
    int value = 0;
    for (auto _ : state) {
        list.PerformAll(&IObserver::OnValue, ++value);
    }
    state.counters["observers"] = static_cast<double>(observers.size());
}

// Baseline: the same virtual calls made directly over a vector of observer pointers.
void BM_DirectVirtualCalls(benchmark::State& state) {
    std::vector<Observer> observers(static_cast<size_t>(state.range(0)));
    std::vector<IObserver*> pointers;
    for (Observer& observer : observers) {
        pointers.push_back(&observer);
    }
    benchmark::DoNotOptimize(pointers.data());
    int value = 0;
    for (auto _ : state) {
        ++value;
        for (IObserver* observer : pointers) {
            observer->OnValue(value);
        }
        benchmark::ClobberMemory();
    }
}

BENCHMARK(BM_PerformAll)->Arg(1)->Arg(10)->Arg(100);
BENCHMARK(BM_DirectVirtualCalls)->Arg(1)->Arg(10)->Arg(100);

}  // namespace
