// The recording readers over archive::S3ObjectSource against a real store: a recording read from
// the store gives the inspect report, the export and the peaks of the same file read from disk,
// in bounded ranged GETs, and the store's refusals reach the caller as its errors.

#include "archive/s3_object_source.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "recording/audio_export.hpp"
#include "recording/recording_inspector.hpp"
#include "recording_bytes.hpp"
#include "s3_server.hpp"
#include "temp_directory.hpp"

namespace qm::archive {
namespace {

using media::DataFields;
using test::recording_bytes;
using test::text_of;

constexpr const char* BUCKET = "qm-archive";
constexpr const char* KEY = "calls/2026-11-24/19/05/0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0/media.qm";
constexpr std::uint64_t SYNC_MT = 500;
constexpr const char* SIGNATURE_MESSAGE =
    "The request signature we calculated does not match the signature you provided. Check your "
    "key and signing method.";
// The block RecordingFile asks of a source at a time.
constexpr std::uint64_t READ_BLOCK = 1024 * 1024;
// Frames of 160 samples (332 bytes), both sides, one missing: a recording of a little over one
// block, so that its frames come in two GETs.
constexpr std::uint32_t FRAMES = 3300;

DataFields frame(std::uint16_t side, std::uint32_t off, std::vector<std::uint16_t> samples) {
    DataFields fields;
    fields.header.flags = side;
    fields.off = off;
    fields.header.mt = static_cast<std::uint32_t>(SYNC_MT + 20 + off / 8);
    fields.payload = std::move(samples);
    return fields;
}

media::Datagram long_recording() {
    std::vector<DataFields> frames;
    for (std::uint32_t i = 0; i < FRAMES; ++i) {
        if (i == 1000) {
            continue;  // a gap on side 0
        }
        std::vector<std::uint16_t> samples;
        for (std::uint32_t s = 0; s < 160; ++s) {
            samples.push_back(static_cast<std::uint16_t>((i * 31 + s * 7) & 0xFFFF));
        }
        frames.push_back(frame(static_cast<std::uint16_t>(i % 2), (i / 2) * 160, samples));
    }
    return recording_bytes(SYNC_MT, frames);
}

class S3ObjectSourceTest : public ::testing::Test {
protected:
    S3ObjectSourceTest() : m_server(m_directory.path(), BUCKET) {}

    std::unique_ptr<S3Client> client(
        const std::string& secret = test::S3Server::secret_access_key()) const {
        return std::make_unique<S3Client>(
            S3Endpoint(m_server.endpoint(), BUCKET, "us-east-1", S3Addressing::path_style),
            S3Credentials{test::S3Server::access_key_id(), secret, ""});
    }

    // The file, written locally and uploaded as KEY.
    std::string upload(const std::string& bytes) {
        const std::string file = m_directory.write_file("media.qm", bytes);
        client()->put_object(KEY, file);
        return file;
    }

    std::string ranged_gets() const {
        return std::to_string(
            m_server.count_requests(std::string("GET /") + BUCKET + "/" + KEY + " 206"));
    }

    test::TempDirectory m_directory;
    test::S3Server m_server;
};

// The report of the object, but for the name it is known by, is the file's.
void expect_same_report(recording::RecordingReport from_store,
                        const recording::RecordingReport& from_file) {
    EXPECT_EQ(from_store.path, std::string("s3://") + BUCKET + "/" + KEY);
    from_store.path = from_file.path;
    EXPECT_EQ(recording::report_json(from_store), recording::report_json(from_file));
}

TEST_F(S3ObjectSourceTest, ReadsARecordingAsTheLocalFileInBlocksOfRangedGets) {
    const media::Datagram bytes = long_recording();
    ASSERT_GT(bytes.size(), READ_BLOCK + 8);
    ASSERT_LT(bytes.size(), 2 * READ_BLOCK + 8);
    const std::string file = upload(text_of(bytes));

    S3ObjectSource source(client(), KEY);
    EXPECT_EQ(source.name(), std::string("s3://") + BUCKET + "/" + KEY);
    EXPECT_EQ(source.size(), bytes.size());
    const recording::RecordingReport report = recording::inspect_recording(source);
    EXPECT_EQ(report.state, recording::RecordingState::SOUND);
    EXPECT_EQ(report.sides[0].gaps, 1u);
    expect_same_report(report, recording::inspect_recording(file));
    // One HEAD; a GET each for the stream header and the session header, then the frames in
    // blocks of at most READ_BLOCK bytes: two of them.
    EXPECT_EQ(m_server.count_requests(std::string("HEAD /") + BUCKET + "/" + KEY + " 200"), 1u);
    EXPECT_EQ(ranged_gets(), "4");

    recording::ExportOptions options;
    options.output = "leg.wav";
    options.input = file;
    const std::string local_wav = recording::export_audio_bytes(options);
    EXPECT_EQ(recording::export_audio_bytes(options, source), local_wav);
    EXPECT_EQ(recording::leg_peaks(source, 50).columns, recording::leg_peaks(file, 50).columns);
    EXPECT_EQ(recording::leg_peaks(source, 50).gaps, recording::leg_peaks(file, 50).gaps);
}

TEST_F(S3ObjectSourceTest, ACutRecordingIsReportedAsTheCutFile) {
    const media::Datagram bytes =
        recording_bytes(SYNC_MT, {frame(0, 0, {1, 2, 3}), frame(1, 0, {4})});
    for (const std::size_t cut :
         {std::size_t{5}, std::size_t{30}, bytes.size() - 1, bytes.size() - 9}) {
        const std::string file = upload(text_of(bytes, cut));
        S3ObjectSource source(client(), KEY);
        const recording::RecordingReport report = recording::inspect_recording(source);
        EXPECT_NE(report.state, recording::RecordingState::SOUND) << cut;
        expect_same_report(report, recording::inspect_recording(file));
    }
}

// A store that went away after the HEAD is the reader's error, not an unreadable recording (the
// same for a failure after the headers: see RecordingFileTest).
TEST_F(S3ObjectSourceTest, AStoreThatGoesAwayAfterTheObjectIsOpenedIsAnError) {
    upload(text_of(long_recording()));
    S3ObjectSource source(client(), KEY);
    m_server.stop();
    try {
        static_cast<void>(recording::inspect_recording(source));
        FAIL() << "read";
    } catch (const S3Error& error) {
        const std::string start = std::string("GET s3://") + BUCKET + "/" + KEY +
                                  ": cannot reach " + m_server.endpoint() + ": ";
        EXPECT_EQ(std::string(error.what()).substr(0, start.size()), start);
        EXPECT_EQ(error.http_status(), 0);
        EXPECT_TRUE(error.retryable());
    }
}

TEST_F(S3ObjectSourceTest, AMissingObjectIsNoSuchKey) {
    try {
        S3ObjectSource source(client(), KEY);
        FAIL() << "opened";
    } catch (const S3Error& error) {
        EXPECT_EQ(std::string(error.what()),
                  std::string("HEAD s3://") + BUCKET + "/" + KEY +
                      ": HTTP 404 NoSuchKey: no such object in the store");
        EXPECT_EQ(error.code(), "NoSuchKey");
        EXPECT_FALSE(error.retryable());
    }
}

TEST_F(S3ObjectSourceTest, AWrongSecretIsTheStoresRefusal) {
    upload(text_of(long_recording()));
    try {
        S3ObjectSource source(client("not-the-secret"), KEY);
        FAIL() << "opened";
    } catch (const S3Error& error) {
        // The HEAD's refusal has no body; the GET that follows it carries the store's words.
        EXPECT_EQ(std::string(error.what()),
                  std::string("GET s3://") + BUCKET + "/" + KEY +
                      ": HTTP 403 SignatureDoesNotMatch: " + SIGNATURE_MESSAGE);
        EXPECT_EQ(error.http_status(), 403);
        EXPECT_EQ(error.code(), "SignatureDoesNotMatch");
        EXPECT_EQ(m_server.count_requests(std::string("HEAD /") + BUCKET + "/" + KEY + " 403"), 1u);
        EXPECT_EQ(m_server.count_requests(std::string("GET /") + BUCKET + "/" + KEY + " 403"), 1u);
    }
}

}  // namespace
}  // namespace qm::archive
