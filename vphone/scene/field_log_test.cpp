#include "vphone/scene/field_log.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

namespace vphone::scene {
namespace {

FieldLog random_log(uint32_t seed, int rows, FieldLogColumns columns) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> mag(-kFieldLogMaxMicrotesla, kFieldLogMaxMicrotesla),
        acc(-kFieldLogMaxMps2, kFieldLogMaxMps2), temp(kFieldLogMinC, kFieldLogMaxC);
    std::normal_distribution<double> gauss;
    FieldLog log;
    log.columns = columns;
    int64_t t = 1'700'000'000'000;  // a phone's clock since boot: the log's times need not start at 0
    for (int i = 0; i < rows; ++i) {
        FieldLogRow r;
        r.time_us = (t += 20000 + i % 3);
        for (double &m : r.mag_uT) m = mag(rng);
        // Every third acceleration anywhere in range; the others near gravity's length,
        // as a phone's are (a log's median shows its unit).
        for (double &a : r.accel_mps2) a = i % 3 == 0 ? acc(rng) : acc(rng) / 40;
        if (i % 3 != 0) r.accel_mps2[2] += kStandardGravity;
        if (columns.temperature) r.temperature_C = temp(rng);
        if (columns.reference) {
            double sum = 0;
            for (double &q : r.reference) {
                q = gauss(rng);
                sum += q * q;
            }
            for (double &q : r.reference) q /= std::sqrt(sum);
        }
        log.rows.push_back(r);
    }
    return log;
}

std::string text_of(const FieldLog &log) {
    std::ostringstream o;
    write_field_log_header(o, log.columns);
    for (const FieldLogRow &r : log.rows) write_field_log_row(o, r, log.columns);
    return o.str();
}

ParsedFieldLog parse(const std::string &text) {
    std::istringstream in(text);
    return parse_field_log(in);
}

// Every double comes back bit for bit, with either line end and every column set.
TEST(FieldLog, WrittenLogsParseBackExactly) {
    for (bool temperature : {false, true})
        for (bool reference : {false, true})
            for (bool crlf : {false, true}) {
                const FieldLog log = random_log(1 + 2 * temperature + reference, 300, {temperature, reference});
                std::string text = text_of(log);
                if (crlf)
                    for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 2))
                        text.insert(at, "\r");
                const ParsedFieldLog p = parse(text);
                ASSERT_TRUE(p.ok) << p.error;
                EXPECT_TRUE(p.log == log)
                    << "temperature " << temperature << ", reference " << reference << (crlf ? ", \\r\\n" : "");
            }
}

// What a phone's logger may write beyond ours: blanks, comments, a plus sign, exponents,
// a temperature column, a reference; accelerations whose median length is just within
// what a log in m/s^2 shows, and a field weak enough to note that it may be in gauss.
// What is not a log is refused with the line and the problem.
TEST(FieldLog, LogsAreReadAsAPhonesLoggerWritesThemOrRefusedWithTheLineAndTheProblem) {
    const std::string columns = "# kmxc field log 1\ntime_us,mag_x,mag_y,mag_z,accel_x,accel_y,accel_z",
                      ref = ",ref_x,ref_y,ref_z,ref_w", head = columns + "\n",
                      temperature_head = columns + ",temperature\n", ref_head = columns + ref + "\n";
    const std::string row = "0,10,20,-30,0,0,9.8\n";
    // error_part "": read, its last row `last` (the default temperature where none is
    // logged), with a warning naming warning_part if any.
    const struct {
        const char *name;
        std::string text;
        const char *error_part;
        FieldLogRow last{};
        const char *warning_part = "";
    } cases[] = {
        {"blanks, comments and empty lines",
         "# kmxc field log 1\n# from a phone\n\ntime_us,mag_x,mag_y,mag_z,accel_x,accel_y,accel_z\n"
         " 7 , 21.5 ,\t-20,+30 , 0.25,-0.5,9.75\n",
         "",
         {7, {21.5, -20, 30}, {0.25, -0.5, 9.75}}},
        {"exponents and the limits",
         head + "0,20,0,0,0,0,9.8\n1,20,0,0,0,0,9.8\n9007199254740992,2e3,-2000,1e-3,78.4532,-78.4532,0\n",
         "",
         {int64_t{1} << 53, {2000, -2000, 0.001}, {78.4532, -78.4532, 0}}},
        {"a median acceleration of half g", head + "0,0,0,10,0,0,4.9034\n", "", {0, {0, 0, 10}, {0, 0, 4.9034}}},
        {"a median acceleration of twice g, a field in gauss",
         head + "0,0.2,0.1,-0.4,0,-19.6132,0\n",
         "",
         {0, {0.2, 0.1, -0.4}, {0, -19.6132, 0}},
         "the field's median strength is 0.46 uT, where the Earth's is 25 to 65: is the log in gauss"},
        {"a field just above the floor for a note", head + "0,6,8,0.01,0,0,9.8\n", "", {0, {6, 8, 0.01}, {0, 0, 9.8}}},
        {"a temperature column", temperature_head + "0,10,20,30,4,5,6,-40\n", "", {0, {10, 20, 30}, {4, 5, 6}, -40}},
        {"a reference a float's digits short of unit length, kept as logged",
         ref_head + "0,10,20,30,4,5,6,0,0,0.7071068,0.7071068\n",
         "",
         {0, {10, 20, 30}, {4, 5, 6}, kFieldLogTemperatureC, {0, 0, 0.7071068, 0.7071068}}},
        {"both columns, the reference at the tolerance",
         columns + ",temperature" + ref + "\n0,10,20,30,4,5,6,30,0,0,-1.009,0\n",
         "",
         {0, {10, 20, 30}, {4, 5, 6}, 30, {0, 0, -1.009, 0}}},
        {"empty", "", "empty file"},
        {"a raw record", "# kmxc raw record 1\n", "line 1: not a field log"},
        {"other columns", "# kmxc field log 1\ntime_us,mag_x,mag_y,mag_z\n", "line 2: the column line must be"},
        {"no column line", "# kmxc field log 1\n# only a comment\n", "no column line"},
        {"no samples", head, "no samples"},
        {"too few values", head + "0,1,2,3,4,5\n", "line 3: expected 7 values, found 6"},
        {"a temperature the columns do not name", head + "0,1,2,3,4,5,6,25\n", "expected 7 values, found 8"},
        {"a time with a fraction", head + "0.5,1,2,3,4,5,6\n", "time_us '0.5'"},
        {"a negative time", head + "-1,1,2,3,4,5,6\n", "time_us '-1'"},
        {"time standing still", head + row + row, "line 4: time_us 0 does not increase"},
        {"time running back", head + "5,1,2,3,4,5,6\n4,1,2,3,4,5,6\n", "line 4: time_us 4 does not increase"},
        {"a field beyond the limit", head + "0,2000.001,2,3,4,5,6\n",
         "mag_x '2000.001' is not a number in -2000..2000"},
        {"an acceleration beyond 8 g", head + "0,1,2,3,4,5,-78.46\n", "accel_z '-78.46'"},
        {"not a number", head + "0,1,nan,3,4,5,6\n", "mag_y 'nan'"},
        {"infinite", head + "0,1,2,3,inf,5,6\n", "accel_x 'inf'"},
        {"an empty value", head + "0,1,2,,4,5,6\n", "mag_z ''"},
        {"trailing text", head + "0,1,2,3,4,5,6x\n", "accel_z '6x'"},
        {"a comment after the values", head + "0,1,2,3,4,5,6 # note\n", "accel_z '6#note'"},
        {"a temperature beyond 85 C", temperature_head + "0,1,2,3,4,5,6,85.5\n",
         "temperature '85.5' is not a number in -40..85"},
        {"accelerations in g", head + "0,1,2,3,0,0,1\n1,1,2,3,0,0.1,0.99\n2,1,2,3,0,0,1.01\n",
         "line 5: the accelerations' median length is 1.00 m/s^2, where a phone reads gravity's 9.81 most of the "
         "time: is the log in g (times 9.80665 is m/s^2)?"},
        {"accelerations just under half g's length", head + "0,1,2,3,0,4.9032,0\n", "median length is 4.90 m/s^2"},
        {"accelerations just over twice g's length", head + "0,1,2,3,-19.6134,0,0\n", "median length is 19.61 m/s^2"},
        {"the reference before the temperature", columns + ref + ",temperature\n", "line 2: the column line must be"},
        {"a reference of three values", ref_head + "0,1,2,3,4,5,6,0,0,1\n", "line 3: expected 11 values, found 10"},
        {"a reference longer than the tolerance", ref_head + "0,1,2,3,4,5,6,0.6,0,0,0.8131\n",
         "ref_x..ref_w is not a unit quaternion: its length is 1.0105"},
        {"a reference shorter than the tolerance", ref_head + "0,1,2,3,4,5,6,0,0.5,0.5,0.6921\n",
         "its length is 0.9894"},
        {"a reference component beyond the tolerance", ref_head + "0,1,2,3,4,5,6,0,0,0,1.0101\n",
         "ref_w '1.0101' is not a number in -1.01..1.01"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const ParsedFieldLog p = parse(c.text);
        EXPECT_EQ(p.ok, *c.error_part == '\0') << p.error;
        EXPECT_NE(p.error.find(c.error_part), std::string::npos) << "got '" << p.error << "'";
        if (!p.ok) continue;
        EXPECT_EQ(p.log.rows.back(), c.last);
        EXPECT_EQ(p.warning.empty(), *c.warning_part == '\0') << p.warning;
        EXPECT_NE(p.warning.find(c.warning_part), std::string::npos) << "got '" << p.warning << "'";
    }
}

// The scene's conventions, checked on poses whose readings are known without its code:
// a phone's accelerometer reads the push that holds it up, the scene's gravity sample
// the pull.
TEST(FieldLog, AnInstantIsSensedAsThePhoneReportedIt) {
    const struct {
        const char *name;
        Vec3 accel_mps2, gravity_g;
    } cases[] = {
        {"lying face up", {0, 0, kStandardGravity}, {0, 0, -1}},
        {"standing upright", {0, kStandardGravity, 0}, {0, -1, 0}},
        {"on its left edge, pushed forward at 0.5 g", {kStandardGravity, 0, -kStandardGravity / 2}, {-1, 0, 0.5}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const FieldLogRow r{1234567, {10, -20, 30.5}, c.accel_mps2, 31.5};
        const Truth t = truth_of(r);
        // And back: the field sensed, hard iron included, and the reading.
        Truth scene = t;
        scene.hard_iron_uT = {5, 6, 7};
        scene.field_uT = {5, -26, 23.5};
        const FieldLogRow back = row_of(r.time_us, scene);
        for (size_t k = 0; k < 3; ++k) {
            EXPECT_DOUBLE_EQ(t.gravity_g[k], c.gravity_g[k]) << "axis " << k;
            EXPECT_EQ(t.field_uT[k], r.mag_uT[k]);
            EXPECT_EQ(t.hard_iron_uT[k], 0.0);
            EXPECT_EQ(back.mag_uT[k], r.mag_uT[k]);
            EXPECT_DOUBLE_EQ(back.accel_mps2[k], r.accel_mps2[k]);
        }
        EXPECT_EQ(t.temperature_C, 31.5);
        EXPECT_EQ(back.time_us, r.time_us);
    }
}

// A reference quaternion turns phone axes into the world's (x east, y north, z up): each
// pose's angles follow from where it sends the phone's axes, worked out by hand. (The
// heading of an axis standing vertical is not defined: NaN.)
TEST(FieldLog, AReferenceIsThePhonesAttitude) {
    const double h = std::sqrt(0.5), none = std::nan("");
    const struct {
        const char *name;
        std::array<double, 4> q;  // x, y, z, w
        double top_heading, back_heading, pitch, roll;
    } cases[] = {
        {"face up, top edge north", {0, 0, 0, 1}, 0, none, 0, 0},
        {"face up, turned a quarter left: top edge west", {0, 0, h, h}, 270, none, 0, 0},
        {"face up, turned half round", {0, 0, 1, 0}, 180, none, 0, 0},
        {"stood upright about the east axis: top up, back north", {h, 0, 0, h}, none, 0, -90, 0},
        {"rolled 60 degrees about north: right edge down, back west", {0, 0.5, 0, std::sqrt(0.75)}, 0, 270, 0, 60},
    };
    // A logger's rounding leaves a quaternion's length off 1; its rotation is the same.
    for (const auto &c : cases)
        for (const double length : {1.0, 1.009}) {
            FieldLogRow r;
            for (size_t k = 0; k < 4; ++k) r.reference[k] = c.q[k] * length;
            const TrueAngles t = true_angles(attitude_of(r.reference), HeadingAxis::kY);
            if (!std::isnan(c.top_heading)) {
                EXPECT_NEAR(heading_difference(t.y_heading, c.top_heading), 0, 1e-9) << c.name;
            }
            if (!std::isnan(c.back_heading)) {
                EXPECT_NEAR(heading_difference(t.z_heading, c.back_heading), 0, 1e-9) << c.name;
            }
            EXPECT_NEAR(t.pitch, c.pitch, 1e-6) << c.name;
            EXPECT_NEAR(t.roll, c.roll, 1e-6) << c.name;
        }
    // Written from a scene's attitude and read back, the attitude is the scene's.
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> angle(-180, 180);
    for (int i = 0; i < 200; ++i) {
        Truth scene;
        scene.attitude = attitude_matrix({angle(rng), angle(rng) / 2, angle(rng)});
        const Mat3 back = attitude_of(row_of(0, scene).reference);
        for (size_t j = 0; j < 3; ++j)
            for (size_t k = 0; k < 3; ++k) ASSERT_NEAR(back[j][k], scene.attitude[j][k], 1e-12) << "pose " << i;
    }
}

}  // namespace
}  // namespace vphone::scene
