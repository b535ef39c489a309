// One producer and one consumer thread hand 64-bit values over: the recorder's lock-free ring
// against a mutex-guarded std::deque. Reported per element handed over.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>

#include "channel.hpp"

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

}  // namespace
}  // namespace qm::bench
