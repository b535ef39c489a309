// Taking and dropping a packet buffer: the static pool behind PacketBuffer against new/delete of
// an object of the same size and shape on the general heap. Both hand out zeroed 1376-byte
// buffers held by rc_ptr.
#include <benchmark/benchmark.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "channel.hpp"
#include "core/buffer.hpp"
#include "core/rc_ptr.hpp"
#include "core/reference_countable.hpp"
#include "media/packet_buffer.hpp"

namespace qm::bench {
namespace {

using media::PacketBuffer;

// PacketBuffer's twin on the heap.
class HeapPacketBuffer final : public mem::Buffer<1376>, public ReferenceCountable {};
static_assert(sizeof(HeapPacketBuffer) == sizeof(PacketBuffer));

// Value-initialised, so the heap buffer is zeroed as the pool's is.
template <typename Packet>
rc_ptr<Packet> make_packet() {
    return rc_ptr<Packet>(new Packet());
}

// One thread keeps a window of 1024 live buffers and replaces the oldest on every iteration, as
// the receive path does when buffers come back roughly in the order they were taken.
template <typename Packet>
void BM_TakeAndDrop(benchmark::State& state) {
    constexpr std::size_t WINDOW = 1024;
    std::array<rc_ptr<Packet>, WINDOW> live;
    std::size_t next = 0;
    for (auto _ : state) {
        live[next] = make_packet<Packet>();
        next = next + 1 == WINDOW ? 0 : next + 1;
    }
    state.SetItemsProcessed(state.iterations());
}

// Taken on one thread, dropped on another after a trip through the ring: the recorder's pattern
// (receive thread allocates, packet reader thread releases).
template <typename Packet>
void BM_TakeHereDropThere(benchmark::State& state) {
    static RingChannel<rc_ptr<Packet>> channel;
    if (state.thread_index() == 0) {
        for (auto _ : state) {
            channel.send(make_packet<Packet>());
        }
    } else {
        for (auto _ : state) {
            channel.receive();
        }
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(BM_TakeAndDrop<PacketBuffer>);
BENCHMARK(BM_TakeAndDrop<HeapPacketBuffer>);
BENCHMARK(BM_TakeHereDropThere<PacketBuffer>)->Threads(2)->UseRealTime();
BENCHMARK(BM_TakeHereDropThere<HeapPacketBuffer>)->Threads(2)->UseRealTime();

}  // namespace
}  // namespace qm::bench
