// One producer and one consumer thread hand 64-bit values over: the recorder's lock-free ring
// against a mutex-guarded std::deque. Reported per element handed over. Also a timed wait on an
// empty queue, reported per wait.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>

#include "channel.hpp"
#include "core/queue.hpp"

namespace qm::bench {
namespace {

// Thread 0 sends, thread 1 receives; both run the same number of iterations, so the channel is
// empty again when the run ends and the next run can reuse it.
template <typename Channel>
void BM_HandOver(benchmark::State& state) {
    static Channel channel;
    std::uint64_t value = 0;
    if (state.thread_index() == 0) {
        for (auto _ : state) {
            channel.send(++value);
        }
    } else {
        for (auto _ : state) {
            benchmark::DoNotOptimize(value += channel.receive());
        }
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_HandOver<RingChannel<std::uint64_t>>)->Threads(2)->UseRealTime();
BENCHMARK(BM_HandOver<LockedDequeChannel<std::uint64_t>>)->Threads(2)->UseRealTime();

// A reader's timed wait on an empty queue, its period given in microseconds: the time per wait
// beyond the period is how late the system wakes a reader for its tick.
void BM_TimedWaitOnEmptyQueue(benchmark::State& state) {
    Queue<std::uint64_t, 16, true> queue;
    const auto period_ns = static_cast<std::uint64_t>(state.range(0)) * 1000;
    for (auto _ : state) {
        benchmark::DoNotOptimize(queue.wait(period_ns, [] { return false; }));
    }
}

BENCHMARK(BM_TimedWaitOnEmptyQueue)
    ->ArgName("period_us")
    ->Arg(1000)
    ->Arg(20000)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace qm::bench
