// The recording path. On the session thread: one data packet of 160 samples through the writing
// manager (session lookup, sequence check, frame appended to the session's buffer, a full buffer
// handed to the media writer now and then), with the writer running and `write_media` off so that
// buffers come straight back. On the writer thread: appending one 64000-byte buffer to a file in
// a temporary directory, with the open and close that every buffer gets.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "media/data_packet.hpp"
#include "media/start_packet.hpp"
#include "packet_bytes.hpp"
#include "temp_directory.hpp"
#include "writer/media_buffer_pool.hpp"
#include "writer/media_writer.hpp"
#include "writer/writing_manager.hpp"
#include "writer/writing_session.hpp"

namespace qm::bench {
namespace {

using writer::RecordingSettings;

void BM_OnSessionMedia(benchmark::State& state) {
    test::TempDirectory directory;
    RecordingSettings settings;
    settings.storage = directory.path().string();
    settings.write_media = false;
    writer::WritingManagerStatistic statistic;
    writer::MediaBufferPoolStatistic pool_statistic;
    writer::MediaWriterStatistic writer_statistic;
    writer::WritingManager manager(settings, statistic, pool_statistic, writer_statistic);
    if (manager.start() != 0) {
        state.SkipWithError("the media writer did not start");
        return;
    }
    test::PacketBytes start(media::encode_start());
    manager.on_packet(start.as<media::StartPacket>());
    media::DataFields fields;
    fields.payload.assign(160, 0x1234);
    test::PacketBytes data(media::encode_data(fields));
    auto& packet = data.as<media::DataPacket>();

    for (auto _ : state) {
        ++packet.seq;
        packet.header.mt += 20;
        manager.on_packet(packet);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["dropped_bytes"] =
        static_cast<double>(statistic.session_media_dropped_bytes.load());
    static_cast<void>(manager.stop());
}

void BM_MediaWriterAppend(benchmark::State& state) {
    constexpr std::uint64_t BUFFER_BYTES = 64000;
    constexpr std::int64_t APPENDS_PER_FILE = 1000;  // 64 MB, then the file starts anew
    test::TempDirectory directory;
    RecordingSettings settings;
    writer::MediaBufferPoolStatistic pool_statistic;
    writer::MediaBufferPool pool(1, BUFFER_BYTES, pool_statistic);
    writer::MediaWriterStatistic statistic;
    writer::MediaWriter media_writer(settings, pool, statistic);
    test::PacketBytes start(media::encode_start());
    const std::string path = (directory.path() / "leg" / "media.qm").string();
    const rc_ptr<writer::WritingSession> session =
        new writer::WritingSession(start.as<media::StartPacket>(), 0, path);
    writer::MediaBuffer* buffer = pool.acquire();
    std::memset(buffer->data, 0x5A, BUFFER_BYTES);
    buffer->size = BUFFER_BYTES;
    buffer->session = session.get();

    std::int64_t appended = 0;
    for (auto _ : state) {
        media_writer.handle_buffer(buffer);
        if (++appended % APPENDS_PER_FILE == 0) {
            state.PauseTiming();
            std::filesystem::remove(path);
            state.ResumeTiming();
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(BUFFER_BYTES));
    // The benchmark thread stands in for the writer thread, so it gives the buffer back itself.
    buffer->session = nullptr;
    static_cast<void>(pool.release(buffer));
}

BENCHMARK(BM_OnSessionMedia);
BENCHMARK(BM_MediaWriterAppend)->UseRealTime();

}  // namespace
}  // namespace qm::bench
