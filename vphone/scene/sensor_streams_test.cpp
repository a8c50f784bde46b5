#include "vphone/scene/sensor_streams.h"

#include <gtest/gtest.h>

#include <sstream>

#include "vphone/scene/csv_log.h"

namespace vphone::scene {
namespace {

ParsedStream parse(const std::string &text, double limit = 100) {
    std::istringstream in(text);
    return parse_stream(in, limit);
}

ParsedStream parse_reference(const std::string &text) {
    std::istringstream in(text);
    return parse_reference_stream(in);
}

// What phones' loggers write: either time unit, the columns in any order among others,
// comments before the header, \r\n line ends. What is not a stream is refused with the
// line and the problem; a reference stream's quaternions are checked as a field log's.
TEST(SensorStreams, ThePhonesLogIsReadByItsNamedColumnsOrRefusedWithTheLineAndTheProblem) {
    const std::string head = "time_ns,x,y,z\n";
    const struct {
        const char *name;
        std::string text;
        const char *error_part;  // "": read, its first sample `first`
        bool reference = false;  // a reference stream's
        StreamSample first{};
    } cases[] = {
        {"nanoseconds", "time_ns,x,y,z\n1700000000123,1.5,-2,3e1\n", "", false, {1700000000123, {1.5, -2, 30}}},
        {"microseconds, columns shuffled among others, comments first",
         "# a logger's note\n\nz,accuracy,time_us,bias_x,x,y\r\n3,2,7,0.5,1,+2\r\n",
         "",
         false,
         {7000, {1, 2, 3}}},
        {"the limit itself", "time_us,x,y,z\n0,100,-100,0\n", "", false, {0, {100, -100, 0}}},
        {"empty", "", "empty file"},
        {"only comments", "# nothing\n", "no header line"},
        {"no samples", head, "no samples"},
        {"no time column", "t,x,y,z\n", "line 1: the header names no time column (time_ns or time_us)"},
        {"two time columns", "time_ns,x,y,z,time_us\n", "line 1: the columns name a time twice"},
        {"no z", "time_ns,x,y\n", "line 1: the header names no z column"},
        {"y twice", "time_ns,x,y,y,z\n", "line 1: the columns name y twice"},
        {"a value short", head + "0,1,2\n", "line 2: expected 4 values, found 3"},
        {"a negative time", head + "-5,1,2,3\n", "line 2: time '-5' is not a whole number"},
        {"time standing still", head + "5,1,2,3\n5,1,2,3\n", "line 3: the time does not increase"},
        {"a value past the limit", head + "0,1,100.5,3\n", "line 2: y '100.5' is not a number in -100..100"},
        {"not a number", head + "0,nan,2,3\n", "line 2: x 'nan'"},
        {"microseconds beyond what nanoseconds hold", "time_us,x,y,z\n9007199254740993,1,2,3\n", "time '9007"},
        {"a reference without w", "time_us,x,y,z\n0,0,0,0\n", "line 1: the header names no w column", true},
        {"a reference too short", "time_us,x,y,z,w\n0,0,0,0.5,0.5\n", "line 2: x..w is not a unit quaternion", true},
        {"a reference's w past the tolerance", "time_us,x,y,z,w\n0,0,0,0,1.0101\n", "w '1.0101' is not a number", true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const ParsedStream p = c.reference ? parse_reference(c.text) : parse(c.text);
        EXPECT_EQ(p.ok, *c.error_part == '\0');
        EXPECT_NE(p.error.find(c.error_part), std::string::npos) << "got '" << p.error << "'";
        EXPECT_EQ(p.samples.empty(), !p.ok);
        if (p.ok) { EXPECT_EQ(p.samples.at(0), c.first); }
    }
}

// A row per magnetometer sample, at its time; the acceleration on the straight line
// between the samples around it. Accelerations that move linearly in time make the
// expected value known without the interpolation: a + rate * t.
TEST(SensorStreams, EachMagnetometerSampleGetsTheAccelerationAtItsTime) {
    auto ramp = [](int64_t t_ns) -> Vec3 {
        const double s = static_cast<double>(t_ns) / 1e9;
        return {1 + 2 * s, -3 * s, 9.5};
    };
    std::vector<StreamSample> accel;
    for (int64_t t = 1'000'000'000; t <= 2'000'000'000; t += 20'000'000) accel.push_back({t, ramp(t)});
    // Before the first acceleration, on one, between two, on the last, after it.
    const std::vector<StreamSample> mag = {{999'999'999, {1, 0, 0}},   {1'000'000'000, {2, 0, 0}},
                                           {1'013'333'333, {3, 0, 0}}, {1'999'999'999, {4, 0, 0}},
                                           {2'000'000'000, {5, 0, 0}}, {2'000'000'001, {6, 0, 0}}};
    PairCounts counts;
    const FieldLog log = pair_streams(mag, accel, nullptr, &counts);
    ASSERT_EQ(log.rows.size(), 4u);
    EXPECT_EQ(counts.paired, 4);
    EXPECT_EQ(counts.outside, 2);
    for (size_t i = 0; i < 4; ++i) {
        const FieldLogRow &r = log.rows[i];
        const StreamSample &m = mag[i + 1];
        EXPECT_EQ(r.time_us, m.time_ns / 1000) << i;  // truncated: 1013333 and 1999999
        EXPECT_EQ(r.mag_uT, m.value) << i;
        for (size_t k = 0; k < 3; ++k) EXPECT_NEAR(r.accel_mps2[k], ramp(m.time_ns)[k], 1e-12) << i << " axis " << k;
    }
    EXPECT_EQ(log.rows[0].accel_mps2, accel.front().value) << "an acceleration at the very time is taken as logged";
    EXPECT_FALSE(log.columns.temperature || log.columns.reference);
}

TEST(SensorStreams, AGapInTheAccelerationsAndASharedMicrosecondLeaveSamplesOut) {
    const Vec3 g{0, 0, 9.8};
    const struct {
        const char *name;
        int64_t accel_gap_ns;
        std::vector<int64_t> mag_ns;
        int paired, gap, same_us;
    } cases[] = {
        {"a gap of exactly the limit is bridged", kMaxPairGapNs, {50'000'000}, 1, 0, 0},
        {"a nanosecond more is not", kMaxPairGapNs + 1, {50'000'000}, 0, 1, 0},
        {"samples on the gap's ends are paired", kMaxPairGapNs + 1, {0, kMaxPairGapNs + 1}, 2, 0, 0},
        {"two samples in one microsecond: the first kept", 10'000'000, {1'000'100, 1'000'900, 1'001'000}, 2, 0, 1},
    };
    for (const auto &c : cases) {
        const std::vector<StreamSample> accel = {{0, g}, {c.accel_gap_ns, g}};
        std::vector<StreamSample> mag;
        for (int64_t t : c.mag_ns) mag.push_back({t, {static_cast<double>(t), 0, 0}});
        PairCounts counts;
        const FieldLog log = pair_streams(mag, accel, nullptr, &counts);
        EXPECT_EQ(counts.paired, c.paired) << c.name;
        EXPECT_EQ(counts.gap, c.gap) << c.name;
        EXPECT_EQ(counts.same_us, c.same_us) << c.name;
        ASSERT_EQ(log.rows.size(), static_cast<size_t>(c.paired)) << c.name;
        if (c.same_us > 0) { EXPECT_EQ(log.rows[0].mag_uT[0], 1'000'100) << c.name; }
    }
}

// The streams a field log's phone would have logged, each at the rows' times, pair
// back into that log.
TEST(SensorStreams, StreamsSplitFromAFieldLogPairBackIntoIt) {
    FieldLog log;
    for (int i = 0; i < 500; ++i)
        log.rows.push_back({1000 + 19'997 * i, {40.0 + i, -3.5 * i, 0.25 * i}, {0.01 * i, 9.8 - 0.002 * i, 0.5}});
    std::ostringstream mag_text, accel_text;
    mag_text << "time_us,x,y,z\n";
    accel_text << "time_ns,x,y,z\n";
    for (const FieldLogRow &r : log.rows) {
        mag_text << r.time_us << ',' << shortest_text(r.mag_uT[0]) << ',' << shortest_text(r.mag_uT[1]) << ','
                 << shortest_text(r.mag_uT[2]) << '\n';
        accel_text << r.time_us * 1000 << ',' << shortest_text(r.accel_mps2[0]) << ',' << shortest_text(r.accel_mps2[1])
                   << ',' << shortest_text(r.accel_mps2[2]) << '\n';
    }
    const ParsedStream mag = parse(mag_text.str(), kFieldLogMaxMicrotesla),
                       accel = parse(accel_text.str(), kFieldLogMaxMps2);
    ASSERT_TRUE(mag.ok && accel.ok) << mag.error << accel.error;
    PairCounts counts;
    EXPECT_TRUE(pair_streams(mag.samples, accel.samples, nullptr, &counts) == log);
    EXPECT_EQ(counts.paired, 500);
}

// A reference stream is interpolated along the shortest rotation: halfway from facing
// north to a quarter turn left (a quaternion logged with its sign turned, the same
// rotation) faces north-west.
TEST(SensorStreams, AReferenceStreamIsInterpolatedAlongTheShortestRotation) {
    const double h = std::sqrt(0.5);
    const ParsedStream reference =
        parse_reference("time_us,w,x,y,z\n0,1,0,0,0\n100000,-0.7071067811865476,0,0,-0.7071067811865476\n");
    ASSERT_TRUE(reference.ok) << reference.error;
    const Vec3 g{0, 0, 9.8};
    const std::vector<StreamSample> accel = {{0, g}, {100'000'000, g}};
    const struct {
        int64_t t_ns;
        double heading;
    } at[] = {{0, 0}, {50'000'000, 315}, {100'000'000, 270}};
    std::vector<StreamSample> mag;
    for (const auto &a : at) mag.push_back({a.t_ns, {0, 40, -20}});
    PairCounts counts;
    const FieldLog log = pair_streams(mag, accel, &reference.samples, &counts);
    ASSERT_EQ(log.rows.size(), 3u);
    EXPECT_TRUE(log.columns.reference);
    for (size_t i = 0; i < 3; ++i) {
        const TrueAngles t = true_angles(attitude_of(log.rows[i].reference), HeadingAxis::kY);
        EXPECT_NEAR(heading_difference(t.y_heading, at[i].heading), 0, 1e-9) << i;
        EXPECT_NEAR(t.pitch, 0, 1e-9) << i;
    }
    EXPECT_EQ(log.rows[2].reference, (std::array<double, 4>{0, 0, -h, -h})) << "taken as logged at its time";
    // Field samples outside the reference's span, or across a gap in it, are left out.
    const std::vector<StreamSample> late_reference = {{50'000'000, {0, 0, 0}, 1}, {100'000'001 + kMaxPairGapNs, {}, 1}};
    const std::vector<StreamSample> long_accel = {{0, g}, {300'000'000, g}};
    pair_streams({{0, {}}, {100'000'000, {}}}, long_accel, &late_reference, &counts);
    EXPECT_EQ(counts.outside, 1);
    EXPECT_EQ(counts.gap, 1);
    EXPECT_EQ(counts.paired, 0);
}

}  // namespace
}  // namespace vphone::scene
