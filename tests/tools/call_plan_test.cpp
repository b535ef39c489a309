#include "tools/call_plan.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sndfile.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "media/data_packet.hpp"
#include "media/packet_encoder.hpp"
#include "packet_bytes.hpp"
#include "temp_directory.hpp"
#include "tools/call_manifest.hpp"
#include "tools/payload_source.hpp"

namespace qm::tools {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr std::uint64_t TS = 1633954638004211ULL;

LegIdentity identity(std::uint8_t leg) {
    LegIdentity identity;
    for (std::size_t i = 0; i < identity.uuid.size(); ++i) {
        identity.uuid[i] = static_cast<std::uint8_t>(0x10 * leg + i);
    }
    identity.id = 0xA000 + leg;
    identity.ts = TS + leg;
    return identity;
}

std::vector<LegIdentity> identities(std::size_t count) {
    std::vector<LegIdentity> legs;
    for (std::size_t leg = 0; leg < count; ++leg) {
        legs.push_back(identity(static_cast<std::uint8_t>(leg)));
    }
    return legs;
}

CallPlan tone_plan(std::size_t legs, std::uint32_t frames, Impairments impairments = {},
                   std::uint32_t samples = 160) {
    return CallPlan(identities(legs), PayloadSource::tone(frames, samples), impairments);
}

std::vector<media::Datagram> wire(const CallPlan& plan, PlanCounts* counts = nullptr) {
    CallPlan::Cursor cursor(plan);
    std::vector<media::Datagram> datagrams;
    media::Datagram datagram;
    while (cursor.next(datagram)) {
        datagrams.push_back(datagram);
    }
    if (counts != nullptr) {
        *counts = cursor.counts();
    }
    return datagrams;
}

std::vector<std::uint16_t> samples_of(std::span<const std::uint16_t> frame) {
    return {frame.begin(), frame.end()};
}

std::uint16_t as_unit(int sample) {
    return static_cast<std::uint16_t>(static_cast<std::int16_t>(sample));
}

// The sequence numbers of one side of one leg's data packets, in wire order.
std::vector<std::uint32_t> wire_seqs(const CallPlan& plan, std::size_t leg, int side) {
    std::vector<std::uint32_t> seqs;
    for (const media::Datagram& datagram : wire(plan)) {
        test::PacketBytes bytes(datagram);
        const media::DataPacket& packet = bytes.as<media::DataPacket>();
        if (packet.header.type == static_cast<std::uint8_t>(media::PacketType::DATA) &&
            packet.header.id == plan.legs()[leg].id && packet.header.side() == side) {
            seqs.push_back(packet.seq);
        }
    }
    return seqs;
}

std::vector<Expectation> expectations(const CallManifest& manifest, std::size_t leg, int side) {
    return manifest.legs.at(leg).sides.at(side).expectations;
}

constexpr Expectation RECORDED = Expectation::RECORDED;
constexpr Expectation LOST = Expectation::LOST;
constexpr Expectation REORDERED = Expectation::REORDERED;

TEST(FramesForDurationTest, CoversTheDurationWithWholeFrames) {
    EXPECT_EQ(frames_for_duration(10.0, 160), 500u);
    EXPECT_EQ(frames_for_duration(0.02, 160), 1u);
    EXPECT_EQ(frames_for_duration(0.021, 160), 2u);
    EXPECT_EQ(frames_for_duration(0.1, 160), 5u);
    EXPECT_EQ(frames_for_duration(1.0, 7), 1143u);  // 8000 / 7 = 1142.86
    EXPECT_EQ(frames_for_duration(0.0, 160), 0u);
    EXPECT_EQ(frames_for_duration(-1.0, 160), 0u);
    EXPECT_EQ(frames_for_duration(1e300, 160), std::numeric_limits<std::uint64_t>::max());
}

TEST(PayloadSourceTest, ToneIsA1000HzSineInboundAnd400HzOutbound) {
    const PayloadSource tone = PayloadSource::tone(2, 160);
    ASSERT_EQ(tone.frame_count(), 2u);
    const std::vector<std::uint16_t> inbound = samples_of(tone.frame(0, 0));
    ASSERT_EQ(inbound.size(), 160u);
    // sin(2 pi 1000 n / 8000) x 8000: a period of 8 samples.
    EXPECT_THAT(
        std::vector<std::uint16_t>(inbound.begin(), inbound.begin() + 9),
        ElementsAre(0, 5657, 8000, 5657, 0, as_unit(-5657), as_unit(-8000), as_unit(-5657), 0));
    const std::vector<std::uint16_t> outbound = samples_of(tone.frame(1, 0));
    // 400 Hz: a period of 20 samples, its peaks at 5 and 15.
    EXPECT_EQ(outbound[0], 0);
    EXPECT_EQ(outbound[1], 2472);  // 8000 sin(pi / 10)
    EXPECT_EQ(outbound[5], 8000);
    EXPECT_EQ(outbound[10], 0);
    EXPECT_EQ(outbound[15], as_unit(-8000));
}

TEST(PayloadSourceTest, ToneRunsOnAcrossFrameBoundaries) {
    // 7 samples a frame: frame 1 starts at sample 7, frame 100 at sample 700.
    const PayloadSource tone = PayloadSource::tone(101, 7);
    EXPECT_EQ(tone.frame_count(), 101u);
    EXPECT_EQ(tone.frame(0, 1)[0], as_unit(-5657));  // 7 mod 8
    EXPECT_EQ(tone.frame(0, 100)[0], 0);             // 700 mod 8 = 4
    EXPECT_EQ(tone.frame(0, 100)[1], as_unit(-5657));
    EXPECT_EQ(tone.frame(1, 100)[0], 0);  // 700 mod 20 = 0
    EXPECT_EQ(tone.frame(1, 100)[1], 2472);
    EXPECT_EQ(tone.sample_count(), 707u);
}

TEST(PayloadSourceTest, FrameHashesAreThoseOfTheLittleEndianBytes) {
    const PayloadSource tone = PayloadSource::tone(45, 7);
    for (int side = 0; side < 2; ++side) {
        for (std::uint32_t frame = 0; frame < tone.frame_count(); ++frame) {
            std::vector<std::uint8_t> bytes;
            for (const std::uint16_t sample : tone.frame(side, frame)) {
                bytes.push_back(static_cast<std::uint8_t>(sample));
                bytes.push_back(static_cast<std::uint8_t>(sample >> 8));
            }
            EXPECT_EQ(tone.frame_hash(side, frame), payload_hash(bytes.data(), bytes.size()))
                << "side " << side << ", frame " << frame;
        }
    }
}

TEST(CallPlanTest, TwoLegsOfThreeFramesGoOutAsStartsRoundsAndTerminates) {
    const CallPlan plan = tone_plan(2, 3);
    std::vector<media::Datagram> expected;
    for (std::uint8_t leg = 0; leg < 2; ++leg) {
        media::StartFields start;
        start.header.id = 0xA000 + leg;
        start.header.uuid = identity(leg).uuid;
        start.header.mt = 1000000;
        start.ts = TS + leg;
        start.sync_ts = TS + leg;
        start.sync_mt = 1000000;
        start.call_id = "quillmar-send-" + std::to_string(leg);
        expected.push_back(media::encode_start(start));
    }
    for (std::uint32_t round = 0; round < 3; ++round) {
        for (std::uint8_t leg = 0; leg < 2; ++leg) {
            for (int side = 0; side < 2; ++side) {
                media::DataFields data;
                data.header.id = 0xA000 + leg;
                data.header.uuid = identity(leg).uuid;
                data.header.flags = static_cast<std::uint16_t>(side);
                data.header.mt = 1000000 + round * 160 * 125;
                data.seq = round + 1;
                data.off = round * 160;
                data.payload = samples_of(plan.payload().frame(side, round));
                expected.push_back(media::encode_data(data));
            }
        }
    }
    for (std::uint8_t leg = 0; leg < 2; ++leg) {
        media::TerminateFields terminate;
        terminate.header.id = 0xA000 + leg;
        terminate.header.uuid = identity(leg).uuid;
        terminate.header.mt = 1000000 + 3 * 160 * 125;
        expected.push_back(media::encode_terminate(terminate));
    }

    PlanCounts counts;
    const std::vector<media::Datagram> datagrams = wire(plan, &counts);
    ASSERT_EQ(datagrams.size(), 16u);
    for (std::size_t i = 0; i < datagrams.size(); ++i) {
        EXPECT_EQ(datagrams[i], expected[i]) << "datagram " << i;
    }
    EXPECT_EQ(datagrams[4].size(), 50u + 320u);
    EXPECT_EQ(counts.start, 2u);
    EXPECT_EQ(counts.data, 12u);
    EXPECT_EQ(counts.terminate, 2u);
    EXPECT_EQ(counts.datagrams(), 16u);
    EXPECT_EQ(counts.withheld + counts.reordered + counts.duplicated, 0u);
}

TEST(CallPlanTest, CursorEndsAndStaysEnded) {
    const CallPlan plan = tone_plan(1, 1);
    CallPlan::Cursor cursor(plan);
    media::Datagram datagram;
    int count = 0;
    while (cursor.next(datagram)) {
        ++count;
    }
    EXPECT_EQ(count, 4);  // start, one packet per side, terminate
    const media::Datagram last = datagram;
    EXPECT_FALSE(cursor.next(datagram));
    EXPECT_EQ(datagram, last);
}

TEST(CallPlanTest, SameSeedGivesTheSamePlanAndAnotherSeedAnother) {
    const Impairments one{0.2, 0.2, 0.2, 1};
    Impairments other = one;
    other.seed = 2;
    const std::vector<media::Datagram> first = wire(tone_plan(2, 40, one));
    EXPECT_EQ(wire(tone_plan(2, 40, one)), first);
    EXPECT_NE(wire(tone_plan(2, 40, other)), first);

    const CallManifest manifest = tone_plan(2, 40, one).manifest();
    const CallManifest again = tone_plan(2, 40, one).manifest();
    const CallManifest changed = tone_plan(2, 40, other).manifest();
    EXPECT_EQ(expectations(again, 1, 1), expectations(manifest, 1, 1));
    EXPECT_NE(expectations(changed, 1, 1), expectations(manifest, 1, 1));
}

TEST(CallPlanTest, SidesAndLegsDrawFromStreamsOfTheirOwn) {
    const CallPlan plan = tone_plan(2, 40, {0.5, 0.0, 0.0, 1});
    EXPECT_NE(plan.send_order(0, 0), plan.send_order(0, 1));
    EXPECT_NE(plan.send_order(0, 0), plan.send_order(1, 0));
}

TEST(CallPlanTest, LossOfOneWithholdsEveryPacketButTheFirstAndLast) {
    const CallPlan plan = tone_plan(2, 5, {1.0, 0.0, 0.0, 1});
    for (std::size_t leg = 0; leg < 2; ++leg) {
        for (int side = 0; side < 2; ++side) {
            EXPECT_THAT(plan.send_order(leg, side), ElementsAre(0, 4));
            EXPECT_THAT(wire_seqs(plan, leg, side), ElementsAre(1, 5));
        }
    }
    const CallManifest manifest = plan.manifest();
    EXPECT_THAT(expectations(manifest, 0, 0), ElementsAre(RECORDED, LOST, LOST, LOST, RECORDED));
    EXPECT_THAT(expectations(manifest, 1, 1), ElementsAre(RECORDED, LOST, LOST, LOST, RECORDED));
    // The manifest still lists the packets withheld.
    ASSERT_EQ(manifest.legs[0].sides[0].frames.size(), 5u);
    EXPECT_EQ(manifest.legs[0].sides[0].frames[2].seq, 3u);

    PlanCounts counts;
    EXPECT_EQ(wire(plan, &counts).size(), 2u + 8u + 2u);
    EXPECT_EQ(counts.withheld, 12u);
    EXPECT_EQ(counts.data, 8u);
}

TEST(CallPlanTest, ReorderOfOneSwapsPairsAndMarksTheLaterSentAsReordered) {
    const CallPlan even = tone_plan(1, 6, {0.0, 1.0, 0.0, 1});
    EXPECT_THAT(even.send_order(0, 0), ElementsAre(0, 2, 1, 4, 3, 5));
    EXPECT_THAT(wire_seqs(even, 0, 0), ElementsAre(1, 3, 2, 5, 4, 6));
    EXPECT_THAT(wire_seqs(even, 0, 1), ElementsAre(1, 3, 2, 5, 4, 6));
    EXPECT_THAT(expectations(even.manifest(), 0, 0),
                ElementsAre(RECORDED, REORDERED, RECORDED, REORDERED, RECORDED, RECORDED));

    // The last packet is never swapped in: frame 3 has no partner and goes in place.
    const CallPlan odd = tone_plan(1, 5, {0.0, 1.0, 0.0, 1});
    EXPECT_THAT(odd.send_order(0, 1), ElementsAre(0, 2, 1, 3, 4));
    EXPECT_THAT(expectations(odd.manifest(), 0, 1),
                ElementsAre(RECORDED, REORDERED, RECORDED, RECORDED, RECORDED));
    PlanCounts counts;
    wire(odd, &counts);
    EXPECT_EQ(counts.reordered, 2u);
    EXPECT_EQ(counts.data, 10u);
}

TEST(CallPlanTest, DuplicateOfOneSendsEveryMiddlePacketTwiceBackToBack) {
    const CallPlan plan = tone_plan(2, 5, {0.0, 0.0, 1.0, 1});
    EXPECT_THAT(plan.send_order(1, 0), ElementsAre(0, 1, 1, 2, 2, 3, 3, 4));
    EXPECT_THAT(wire_seqs(plan, 1, 0), ElementsAre(1, 2, 2, 3, 3, 4, 4, 5));
    EXPECT_THAT(expectations(plan.manifest(), 1, 0),
                ElementsAre(RECORDED, RECORDED, RECORDED, RECORDED, RECORDED));
    PlanCounts counts;
    EXPECT_EQ(wire(plan, &counts).size(), 2u + 32u + 2u);
    EXPECT_EQ(counts.duplicated, 12u);
}

TEST(CallPlanTest, FirstAndLastPacketsAreNeverImpaired) {
    const CallPlan reordered_twice = tone_plan(1, 4, {0.0, 1.0, 1.0, 1});
    EXPECT_THAT(reordered_twice.send_order(0, 0), ElementsAre(0, 2, 2, 1, 1, 3));
    const CallPlan everything = tone_plan(1, 4, {1.0, 1.0, 1.0, 1});
    EXPECT_THAT(everything.send_order(0, 0), ElementsAre(0, 3));
    const CallPlan two_frames = tone_plan(1, 2, {1.0, 1.0, 1.0, 1});
    EXPECT_THAT(two_frames.send_order(0, 1), ElementsAre(0, 1));
    const CallPlan one_frame = tone_plan(1, 1, {1.0, 1.0, 1.0, 1});
    EXPECT_THAT(one_frame.send_order(0, 0), ElementsAre(0));
}

TEST(CallPlanTest, RoundsTakeOnePacketPerSideUntilEverySideIsDone) {
    const CallPlan plan = tone_plan(2, 20, {0.3, 0.2, 0.3, 3});
    using Sent = std::tuple<std::uint64_t, int, std::uint32_t>;
    std::vector<std::vector<std::uint32_t>> orders;
    for (std::size_t leg = 0; leg < 2; ++leg) {
        for (int side = 0; side < 2; ++side) {
            orders.push_back(plan.send_order(leg, side));
        }
    }
    // The sides send different numbers of packets, so some rounds miss some sides.
    ASSERT_NE(orders[0].size(), orders[1].size());
    ASSERT_NE(orders[1].size(), orders[3].size());
    std::vector<Sent> expected;
    for (std::size_t round = 0; round < 40; ++round) {
        for (std::size_t at = 0; at < orders.size(); ++at) {
            if (round < orders[at].size()) {
                expected.emplace_back(0xA000 + at / 2, static_cast<int>(at % 2),
                                      orders[at][round] + 1);
            }
        }
    }
    std::vector<Sent> data;
    for (const media::Datagram& datagram : wire(plan)) {
        test::PacketBytes bytes(datagram);
        const media::DataPacket& packet = bytes.as<media::DataPacket>();
        if (packet.header.type == static_cast<std::uint8_t>(media::PacketType::DATA)) {
            data.emplace_back(packet.header.id, packet.header.side(), packet.seq);
        }
    }
    EXPECT_EQ(data, expected);
}

TEST(CallPlanTest, ManifestDescribesEveryDataPacketOnTheWire) {
    const CallPlan plan = tone_plan(3, 30, {0.1, 0.1, 0.1, 5}, 7);
    const CallManifest manifest = plan.manifest();
    ASSERT_EQ(manifest.legs.size(), 3u);
    for (std::size_t leg = 0; leg < 3; ++leg) {
        EXPECT_EQ(manifest.legs[leg].uuid, identity(static_cast<std::uint8_t>(leg)).uuid);
        EXPECT_EQ(manifest.legs[leg].id, 0xA000u + leg);
        EXPECT_EQ(manifest.legs[leg].ts, TS + leg);
    }
    std::size_t checked = 0;
    for (const media::Datagram& datagram : wire(plan)) {
        test::PacketBytes bytes(datagram);
        const media::DataPacket& packet = bytes.as<media::DataPacket>();
        if (packet.header.type != static_cast<std::uint8_t>(media::PacketType::DATA)) {
            continue;
        }
        const std::size_t leg = packet.header.id - 0xA000;
        const SentFrame& frame =
            manifest.legs.at(leg).sides.at(packet.header.side()).frames.at(packet.seq - 1);
        EXPECT_EQ(frame.seq, packet.seq);
        EXPECT_EQ(frame.off, packet.off);
        EXPECT_EQ(frame.num, packet.num);
        EXPECT_EQ(frame.off, (packet.seq - 1) * 7);
        EXPECT_EQ(frame.hash, payload_hash(datagram.data() + sizeof(media::DataPacket),
                                           datagram.size() - sizeof(media::DataPacket)));
        EXPECT_NE(manifest.legs[leg].sides[packet.header.side()].expectations[packet.seq - 1],
                  LOST);
        ++checked;
    }
    PlanCounts counts;
    wire(plan, &counts);
    EXPECT_EQ(checked, counts.data);
    std::size_t lost = 0;
    std::size_t reordered = 0;
    for (const SentLeg& leg : manifest.legs) {
        for (const SentSide& side : leg.sides) {
            ASSERT_EQ(side.frames.size(), 30u);
            for (const Expectation expectation : side.expectations) {
                lost += expectation == LOST;
                reordered += expectation == REORDERED;
            }
        }
    }
    EXPECT_EQ(lost, counts.withheld);
    EXPECT_EQ(reordered, counts.reordered);
    // Counted once more from each side's sequence numbers on the wire: a frame withheld never
    // appears, a duplicated one appears twice, a reordered one follows a later one.
    std::size_t absent = 0;
    std::size_t repeated = 0;
    std::size_t late = 0;
    for (std::size_t leg = 0; leg < 3; ++leg) {
        for (int side = 0; side < 2; ++side) {
            const std::vector<std::uint32_t> seqs = wire_seqs(plan, leg, side);
            const std::set<std::uint32_t> distinct(seqs.begin(), seqs.end());
            absent += 30 - distinct.size();
            repeated += seqs.size() - distinct.size();
            for (std::size_t i = 1; i < seqs.size(); ++i) {
                late += seqs[i] < seqs[i - 1] ? 1 : 0;
            }
        }
    }
    EXPECT_EQ(absent, lost);
    EXPECT_EQ(late, reordered);
    EXPECT_EQ(repeated, counts.duplicated);
    // What seed 7 gives.
    EXPECT_EQ(lost, 21u);
    EXPECT_EQ(reordered, 16u);
    EXPECT_EQ(counts.duplicated, 11u);
}

TEST(CallPlanTest, RandomIdentitiesAreDistinctVersion4AndStampedNow) {
    const auto micros = [] {
        return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                              std::chrono::system_clock::now().time_since_epoch())
                                              .count());
    };
    const std::uint64_t before = micros();
    const std::vector<LegIdentity> legs = random_leg_identities(200);
    const std::uint64_t after = micros();
    ASSERT_EQ(legs.size(), 200u);
    std::set<std::uint64_t> ids;
    std::set<media::Uuid> uuids;
    for (const LegIdentity& leg : legs) {
        EXPECT_NE(leg.id, 0u);
        ids.insert(leg.id);
        uuids.insert(leg.uuid);
        EXPECT_EQ(leg.uuid[6] >> 4, 4);
        EXPECT_EQ(leg.uuid[8] >> 6, 2);
        EXPECT_GE(leg.ts, before);
        EXPECT_LE(leg.ts, after);
    }
    EXPECT_EQ(ids.size(), 200u);
    EXPECT_EQ(uuids.size(), 200u);
}

// Writes `frames` frames of `channels` interleaved samples as a 16-bit WAV file.
std::string write_wav(const test::TempDirectory& directory, const std::string& name, int channels,
                      const std::vector<std::int16_t>& interleaved, int rate = 8000) {
    const std::string path = (directory.path() / name).string();
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    EXPECT_NE(file, nullptr) << sf_strerror(nullptr);
    EXPECT_EQ(sf_writef_short(file, interleaved.data(),
                              static_cast<sf_count_t>(interleaved.size() / channels)),
              static_cast<sf_count_t>(interleaved.size() / channels));
    sf_close(file);
    return path;
}

std::vector<std::int16_t> ramp(int count, int first, int step) {
    std::vector<std::int16_t> samples;
    for (int i = 0; i < count; ++i) {
        samples.push_back(static_cast<std::int16_t>(first + i * step));
    }
    return samples;
}

std::vector<std::uint16_t> units(const std::vector<std::int16_t>& samples, std::size_t begin,
                                 std::size_t end) {
    std::vector<std::uint16_t> out;
    for (std::size_t i = begin; i < end; ++i) {
        out.push_back(static_cast<std::uint16_t>(samples[i]));
    }
    return out;
}

TEST(PayloadSourceTest, MonoAudioGoesToBothSidesAndItsLastFrameIsShort) {
    test::TempDirectory directory;
    const std::vector<std::int16_t> samples = ramp(400, -600, 3);
    const PayloadSource audio =
        PayloadSource::audio(write_wav(directory, "mono.wav", 1, samples), 160);
    ASSERT_EQ(audio.frame_count(), 3u);
    EXPECT_EQ(audio.sample_count(), 400u);
    for (int side = 0; side < 2; ++side) {
        EXPECT_EQ(samples_of(audio.frame(side, 0)), units(samples, 0, 160));
        EXPECT_EQ(samples_of(audio.frame(side, 1)), units(samples, 160, 320));
        EXPECT_EQ(samples_of(audio.frame(side, 2)), units(samples, 320, 400));
    }

    // The leg lasts as long as the file: the last packet carries 80 samples, and the terminate
    // packet closes the leg at 400 samples.
    const CallPlan plan(identities(1), audio, {});
    const CallManifest manifest = plan.manifest();
    ASSERT_EQ(manifest.legs[0].sides[1].frames.size(), 3u);
    EXPECT_EQ(manifest.legs[0].sides[1].frames[2].num, 80u);
    EXPECT_EQ(manifest.legs[0].sides[1].frames[2].off, 320u);
    const std::vector<media::Datagram> datagrams = wire(plan);
    ASSERT_EQ(datagrams.size(), 8u);
    EXPECT_EQ(datagrams[5].size(), 50u + 160u);
    test::PacketBytes terminate(datagrams.back());
    EXPECT_EQ(terminate.as<media::PacketHeader>().mt, 1000000u + 400u * 125u);
}

TEST(PayloadSourceTest, StereoAudioGivesLeftInboundAndRightOutbound) {
    test::TempDirectory directory;
    const std::vector<std::int16_t> left = ramp(170, 0, 1);
    const std::vector<std::int16_t> right = ramp(170, -1, -2);
    std::vector<std::int16_t> interleaved;
    for (std::size_t i = 0; i < 170; ++i) {
        interleaved.push_back(left[i]);
        interleaved.push_back(right[i]);
    }
    const PayloadSource audio =
        PayloadSource::audio(write_wav(directory, "stereo.wav", 2, interleaved), 160);
    ASSERT_EQ(audio.frame_count(), 2u);
    EXPECT_EQ(audio.sample_count(), 170u);
    EXPECT_EQ(samples_of(audio.frame(0, 0)), units(left, 0, 160));
    EXPECT_EQ(samples_of(audio.frame(0, 1)), units(left, 160, 170));
    EXPECT_EQ(samples_of(audio.frame(1, 0)), units(right, 0, 160));
    EXPECT_EQ(samples_of(audio.frame(1, 1)), units(right, 160, 170));
}

TEST(PayloadSourceTest, AudioWithAFrameCountIsLoopedOrCutToFullFrames) {
    test::TempDirectory directory;
    const std::vector<std::int16_t> samples = ramp(100, 1, 1);
    const std::string path = write_wav(directory, "short.wav", 1, samples);
    const PayloadSource looped = PayloadSource::audio(path, 160, 2);
    ASSERT_EQ(looped.frame_count(), 2u);
    EXPECT_EQ(looped.sample_count(), 320u);
    std::vector<std::uint16_t> expected;
    for (int n = 160; n < 320; ++n) {
        expected.push_back(static_cast<std::uint16_t>(samples[n % 100]));
    }
    EXPECT_EQ(samples_of(looped.frame(1, 1)), expected);

    const PayloadSource cut = PayloadSource::audio(path, 40, 1);
    ASSERT_EQ(cut.frame_count(), 1u);
    EXPECT_EQ(samples_of(cut.frame(0, 0)), units(samples, 0, 40));
}

// A leg far longer than its file keeps only one cycle of file and frames (100 and 160 samples
// line up every 800): four billion frames cost five frames of samples, and the last is right.
TEST(PayloadSourceTest, LongLoopedAudioKeepsOneCycle) {
    test::TempDirectory directory;
    const std::vector<std::int16_t> samples = ramp(100, 1, 1);
    const PayloadSource looped =
        PayloadSource::audio(write_wav(directory, "short.wav", 1, samples), 160, 4000000000u);

    ASSERT_EQ(looped.frame_count(), 4000000000u);
    const std::uint64_t last = 3999999999u;
    std::vector<std::uint16_t> expected;
    for (std::uint64_t n = last * 160; n < (last + 1) * 160; ++n) {
        expected.push_back(static_cast<std::uint16_t>(samples[n % 100]));
    }
    EXPECT_EQ(samples_of(looped.frame(1, static_cast<std::uint32_t>(last))), expected);
    EXPECT_EQ(looped.frame_hash(0, 5), looped.frame_hash(0, 0));
    EXPECT_NE(looped.frame_hash(0, 1), looped.frame_hash(0, 0));
}

TEST(PayloadSourceTest, AudioOfMoreThanTwoChannelsIsRefused) {
    test::TempDirectory directory;
    const std::string path = write_wav(directory, "three.wav", 3, ramp(30, 0, 1));
    try {
        PayloadSource::audio(path, 160);
        FAIL() << "three channels were taken";
    } catch (const AudioError& error) {
        EXPECT_EQ(std::string(error.what()),
                  path +
                      ": 3 channels; only mono (both sides) or stereo (left inbound, right "
                      "outbound) can be sent");
    }
}

TEST(PayloadSourceTest, AudioThatCannotBeSentIsRefusedWithItsName) {
    test::TempDirectory directory;
    const std::string missing = (directory.path() / "missing.wav").string();
    EXPECT_THROW(
        {
            try {
                PayloadSource::audio(missing, 160);
            } catch (const AudioError& error) {
                EXPECT_THAT(error.what(), HasSubstr(missing + ": cannot read audio: "));
                throw;
            }
        },
        AudioError);
    const std::string text = directory.write_file("text.wav", "not audio at all");
    EXPECT_THROW(PayloadSource::audio(text, 160), AudioError);
    const std::string fast = write_wav(directory, "fast.wav", 1, ramp(30, 0, 1), 44100);
    try {
        PayloadSource::audio(fast, 160);
        FAIL() << "44100 Hz was taken";
    } catch (const AudioError& error) {
        EXPECT_EQ(std::string(error.what()),
                  fast + ": 44100 Hz; legs are sent at 8000 Hz, resample the file first");
    }
    const std::string empty = write_wav(directory, "empty.wav", 1, {});
    EXPECT_THROW(PayloadSource::audio(empty, 160), AudioError);
}

}  // namespace
}  // namespace qm::tools
