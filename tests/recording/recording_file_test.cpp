#include "recording/recording_file.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "media/packet_encoder.hpp"
#include "recording_bytes.hpp"
#include "temp_directory.hpp"
#include "utils/str.hpp"

namespace qm::recording {
namespace {

using media::DataFields;
using media::Datagram;
using test::recording_bytes;
using test::text_of;

constexpr std::uint64_t SYNC_MT = 500;

DataFields frame(std::uint16_t side, std::uint32_t off, std::vector<std::uint16_t> samples) {
    DataFields fields;
    fields.header.flags = side;
    fields.off = off;
    fields.header.mt = SYNC_MT + 20;
    fields.payload = std::move(samples);
    return fields;
}

// The message of the RecordingError opening `path` throws; fails the test when none is thrown.
std::string opening_error(const std::string& path) {
    try {
        RecordingFile file(path);
    } catch (const RecordingError& error) {
        return error.what();
    }
    ADD_FAILURE() << path << " opened";
    return "";
}

std::size_t frames_of(io::MediaChannel& channel) {
    std::size_t count = 0;
    io::MediaFrame frame;
    while (channel.read(frame) == 1) {
        ++count;
    }
    return count;
}

TEST(RecordingFileTest, OpensARecordingWithItsHeaderAndFrames) {
    test::TempDirectory dir;
    const Datagram bytes =
        recording_bytes(SYNC_MT, {frame(0, 0, {1, 2}), frame(1, 0, {3}), frame(0, 2, {4})});
    const std::string path = dir.write_file("media.qm", text_of(bytes));

    RecordingFile file(path);

    EXPECT_EQ(file.path(), path);
    EXPECT_EQ(file.size(), 48u + (12 + 4) + (12 + 2) + (12 + 2));
    ASSERT_TRUE(file.session().has_value());
    EXPECT_EQ(file.session()->ts, 1633954638004211ULL);
    EXPECT_EQ(file.session()->sync_ts, 1633954638000000ULL);
    EXPECT_EQ(file.session()->sync_mt, SYNC_MT);
    EXPECT_EQ(utils::str::print_uuid(file.session()->uuid), "00112233-4455-6677-8899-aabbccddeeff");
    EXPECT_EQ(file.stream().format(), io::MEDIA_FORMAT);
    const std::vector<io::MediaChannel*> channels = file.stream().streams();
    ASSERT_EQ(channels.size(), 2u);
    EXPECT_EQ(frames_of(*channels[0]), 2u);
    EXPECT_EQ(frames_of(*channels[1]), 1u);
}

TEST(RecordingFileTest, FileCutInsideTheSessionHeaderHasNoSessionAndNoFrames) {
    test::TempDirectory dir;
    const std::string path = dir.write_file("media.qm", text_of(recording_bytes(SYNC_MT, {}), 20));

    RecordingFile file(path);

    EXPECT_EQ(file.size(), 20u);
    EXPECT_FALSE(file.session().has_value());
    const std::vector<io::MediaChannel*> channels = file.stream().streams();
    ASSERT_EQ(channels.size(), 2u);
    EXPECT_EQ(frames_of(*channels[0]), 0u);
    EXPECT_EQ(frames_of(*channels[1]), 0u);
}

// The magic is there, the format is cut: a recording cut in its header, not some other file.
TEST(RecordingFileTest, FileCutInsideTheFormatIsARecordingWithoutSession) {
    test::TempDirectory dir;
    for (const std::size_t size : {4u, 7u}) {
        const std::string path =
            dir.write_file("media.qm", text_of(recording_bytes(SYNC_MT, {}), size));

        RecordingFile file(path);

        EXPECT_EQ(file.size(), size);
        EXPECT_FALSE(file.session().has_value());
        EXPECT_EQ(file.stream().format(), io::MEDIA_FORMAT);
        ASSERT_EQ(file.stream().streams().size(), 2u);
        EXPECT_EQ(frames_of(*file.stream().streams()[0]), 0u);
    }
}

TEST(RecordingFileTest, FileWithoutTheMagicIsNotAMediaFile) {
    test::TempDirectory dir;
    const std::string text = dir.write_file("notes.txt", "hello, this is not a recording\n");
    const std::string cut_magic =
        dir.write_file("cut.qm", text_of(recording_bytes(SYNC_MT, {}), 3));
    const std::string empty = dir.write_file("empty.qm", "");

    EXPECT_EQ(opening_error(text), text + ": not a media file (no \"QM\\0F\" magic)");
    EXPECT_EQ(opening_error(cut_magic), cut_magic + ": not a media file (no \"QM\\0F\" magic)");
    EXPECT_EQ(opening_error(empty), empty + ": not a media file (no \"QM\\0F\" magic)");
}

TEST(RecordingFileTest, UnknownFormatIsRefused) {
    test::TempDirectory dir;
    Datagram bytes = recording_bytes(SYNC_MT, {frame(0, 0, {1})});
    bytes[4] = 3;
    const std::string path = dir.write_file("media.qm", text_of(bytes));

    EXPECT_EQ(opening_error(path), path + ": unknown format 3");
}

TEST(RecordingFileTest, MissingFileAndDirectoryAreRefused) {
    test::TempDirectory dir;
    const std::string missing = (dir.path() / "missing.qm").string();

    EXPECT_EQ(opening_error(missing), missing + ": cannot open: No such file or directory");
    EXPECT_EQ(opening_error(dir.path().string()), dir.path().string() + ": is a directory");
    // A device opens, but has no size to measure its frames against.
    EXPECT_EQ(opening_error("/dev/null"),
              "/dev/null: cannot tell its size: " +
                  std::make_error_code(std::errc::not_supported).message());
}

TEST(ParseUuidTest, ReadsThePrintedFormInEitherCase) {
    const io::Uuid expected = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                               0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};

    EXPECT_EQ(parse_uuid("00112233-4455-6677-8899-aabbccddeeff"), expected);
    EXPECT_EQ(parse_uuid("00112233-4455-6677-8899-AABBCCDDEEFF"), expected);
    EXPECT_EQ(parse_uuid(utils::str::print_uuid(expected.data())), expected);
}

TEST(ParseUuidTest, RefusesAnythingElse) {
    for (const std::string text : {
             "",
             "00112233-4455-6677-8899-aabbccddeef",    // one digit short
             "00112233-4455-6677-8899-aabbccddeeff0",  // one digit over
             "001122334-455-6677-8899-aabbccddeeff",   // a dash moved
             "00112233-4455-6677-8899_aabbccddeeff",   // not a dash
             "00112233-4455-6677-8899-aabbccddeefg",   // not a digit
             "0011223344556677-8899aabbccddeeff---",   // dashes elsewhere
             "+0112233-4455-6677-8899-aabbccddeeff",   // a sign
             "00112233-4455-6677-8899-aabbccddee\xff"
             "f",
         }) {
        EXPECT_EQ(parse_uuid(text), std::nullopt) << text;
    }
}

// Bytes in memory that cannot be read past `readable`: a store that went away mid-read.
class FailingSource : public ByteSource {
public:
    FailingSource(std::string bytes, std::uint64_t readable)
        : m_bytes(std::move(bytes)), m_readable(readable) {}

    const std::string& name() const override { return m_name; }
    std::uint64_t size() const override { return m_bytes.size(); }
    std::size_t read(std::uint64_t offset, char* out, std::size_t count) override {
        ++reads;
        if (offset + count > m_readable) {
            throw std::runtime_error("the store went away");
        }
        const std::string part = m_bytes.substr(offset, count);
        std::memcpy(out, part.data(), part.size());
        return part.size();
    }

    int reads = 0;

private:
    std::string m_name = "s3://bucket/media.qm";
    std::string m_bytes;
    std::uint64_t m_readable;
};

TEST(RecordingFileTest, ASourceIsReadAsTheFileAndItsFailureAfterTheHeadersReachesTheCaller) {
    const std::string bytes =
        text_of(recording_bytes(SYNC_MT, {frame(0, 0, {1, 2}), frame(1, 0, {3})}));
    FailingSource whole(bytes, bytes.size());
    RecordingFile file(whole);
    EXPECT_EQ(file.path(), "s3://bucket/media.qm");
    EXPECT_EQ(file.size(), bytes.size());
    ASSERT_TRUE(file.session().has_value());
    EXPECT_EQ(frames_of(*file.stream().streams()[0]), 1u);
    EXPECT_EQ(frames_of(*file.stream().streams()[1]), 1u);
    // The stream header, the session header, then the frames in one block and the end.
    EXPECT_EQ(whole.reads, 3);

    // Not a recording that ends after its headers: the source's error.
    FailingSource failing(bytes, 48);
    EXPECT_THROW(
        {
            try {
                RecordingFile cut(failing);
            } catch (const std::runtime_error& error) {
                EXPECT_STREQ(error.what(), "the store went away");
                throw;
            }
        },
        std::runtime_error);
}

}  // namespace
}  // namespace qm::recording
