// libFuzzer target: arbitrary bytes as the contents of a media file after a stream header of the
// media format, through the reader and both its channels. Every payload delivered is read in full,
// so AddressSanitizer reports any frame that reaches outside the file's bytes.
//
// Checked for every input (a violation traps, which libFuzzer reports as a crash):
// - the media format gives two channels, side 0 and side 1;
// - the frames delivered, with their 12-byte headers, fit in the bytes after the 40-byte session
//   header, so no byte is delivered twice and nothing is made up;
// - an ended channel stays ended.
//
// The seeds in seeds/media_file are files the recorder wrote, without their first 8 bytes.

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "io/io_quillmar_session_stream.hpp"
#include "log/logger.hpp"

namespace {

void check(bool condition) {
    if (!condition) {
        __builtin_trap();
    }
}

// Reads every frame of the channel, touching each payload byte; returns the bytes the frames take.
std::uint64_t drain(qm::io::MediaChannel& channel) {
    std::uint64_t taken = 0;
    qm::io::MediaFrame frame;
    while (channel.read(frame) == 1) {
        std::uint64_t sum = 0;
        for (std::uint32_t i = 0; i < 2u * frame.num; ++i) {
            sum += frame.payload[i];
        }
        // Uses every byte read, so that the reads stay.
        check(sum <= 255u * 2u * frame.num);
        taken += qm::io::FRAME_HEADER_SIZE + 2u * frame.num;
    }
    check(channel.read(frame) == 0);
    return taken;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    const qm::io::QuillmarStreamHeader header{qm::io::QUILLMAR_MAGIC, qm::io::MEDIA_FORMAT};
    qm::io::QuillmarSessionStream stream(header, in);

    const auto channels = stream.streams();
    check(channels.size() == 2 && channels[0]->id() == 0 && channels[1]->id() == 1);
    const std::uint64_t taken = drain(*channels[0]) + drain(*channels[1]);
    const std::uint64_t frame_bytes =
        size > sizeof(qm::io::SessionHeader) ? size - sizeof(qm::io::SessionHeader) : 0;
    check(taken <= frame_bytes);
    return 0;
}
