// The magnetometer driver in the shipped library, on the virtual phone.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "drivers/drivers.h"
#include "orientation/orientation.h"
#include "platform/platform.h"
#include "vphone/kmxc_model.h"
#include "vphone/phone_fixture.h"

namespace {

using vphone::Call;
using vphone::Kind;
using vphone::KmxcModel;
using Lines = std::vector<std::string>;

constexpr const char *kProfileFile = "/etc/kmxc_transformation.cfg";

// The transcript as text: "open", "select 2E", "write C0", "sleep 13000", "read 8",
// "close"; a failed call ends in " !" (a failed write moved no bytes: "write !").
Lines bus_log() {
    Lines lines;
    char hex[8];
    for (const auto &e : vphone::transcript()) {
        std::string s = e.kind == Kind::Open ? "open" : e.kind == Kind::Close ? "close" : "";
        if (e.kind == Kind::SelectSlave)
            std::snprintf(hex, sizeof hex, "%02lX", e.argument), s = "select " + std::string(hex);
        if (e.kind == Kind::Read) s = "read " + std::to_string(e.argument);
        if (e.kind == Kind::Sleep) s = "sleep " + std::to_string(e.argument);
        if (e.kind == Kind::Write) s = "write";
        for (uint8_t b : e.kind == Kind::Write ? e.bytes : std::vector<uint8_t>{})
            std::snprintf(hex, sizeof hex, " %02X", b), s += hex;
        lines.push_back(e.result < 0 ? s + " !" : s);
    }
    return lines;
}

struct MsPhoneTest : vphone::PhoneTest {
    void SetUp() override {
        PhoneTest::SetUp();
        vphone::attach(KmxcModel::kAddress, &chip);
    }
    void TearDown() override {
        if (KmxcDrvHandle()->initFlags != 0) KmxAxesDrvMsTerm();
        msmachdep_I2CClose();
        PhoneTest::TearDown();
    }
    // Initialised with rough offset 16 (no shift) written; transcript cleared.
    void ready() {
        static const uint8_t centre[3] = {16, 16, 16};
        ASSERT_EQ(KmxAxesDrvMsInit(), 0);
        ASSERT_EQ(KmxAxesDrvMsSetRoughOffset(centre), 0);
        vphone::clear_transcript();
    }
    KmxcModel chip;
};

TEST_F(MsPhoneTest, TransformationProfileSelectsTheMountingMatrix) {
    const std::string ident = "1,0,0,0,1,0,0,0,1,1,0,0,0,1,0,0,0,1\n";
    // Fields 10..18 of the second line, converted like atoi and kept as their low
    // 8 bits, runs of commas one separator: (0, 1, 0, 1, 0, 0, 0, 0, -1).
    const std::string odd = "1,,0,0,0,1,0,0,0,1,,,0x5, +257,-0,-255 ,0,0,0,0,255\n";
    const struct {
        const char *name, *profile_number;
        std::string file;  // empty: no file
        Call fail;         // its ordinal: 0 for none
        int nth;
        int8_t result;
        const char *message;             // start of the error output
        std::array<int8_t, 9> mounting;  // correction / 100 when result is 0
    } cases[] = {
        {"profile file not writable", "2\n", ident + odd, Call::Access, 1, 0, "", {1, 0, 0, 0, 1, 0, 0, 0, 1}},
        {"profile 2, odd fields", "2 is ours\n", ident + odd, Call::Open, 0, 0, "", {0, 1, 0, 1, 0, 0, 0, 0, -1}},
        {"missing fields read 0", "1", "1,0,0,0,1,0,0,0,1,1,0,0,0,1\n", Call::Open, 0, -1, "", {}},
        {"profile 3 of two lines", "3", ident + odd, Call::Open, 0, -3, "fgets: ", {}},
        {"unreadable profile file", "1", ident, Call::Fopen, 2, -3, "fopen: ", {}},  // fopen 1: the number
    };
    for (const auto &c : cases) {
        TearDown();
        SetUp();
        if (!c.file.empty()) vphone::write_file(kProfileFile, c.file);
        vphone::write_file("/sys/module/zorsensor/parameters/profile", c.profile_number);
        if (c.nth > 0) vphone::fail_call(c.fail, c.nth, EACCES);
        vphone::StderrCapture err;
        EXPECT_EQ(KmxAxesDrvMsInit(), c.result) << c.name;
        const std::string text = err.text();
        EXPECT_TRUE(*c.message ? text.rfind(c.message, 0) == 0 : text.empty()) << c.name << ": " << text;
        EXPECT_EQ(vphone::calls(Call::Open), c.result == 0 ? 1 : 0) << c.name;  // failures change nothing
        for (int i = 0; i < 9 && c.result == 0; ++i)
            EXPECT_EQ(KmxcDrvHandle()->correction[i], 100 * c.mounting[i]) << c.name << " " << i;
    }
}

const uint8_t kGiven[3] = {31, 0, 17}, kAbove31[3] = {32, 0, 0};
KmxAxesData g_out;
uint8_t g_rough[3];
int8_t measure() { return KmxAxesDrvMsMeasure(&g_out, nullptr); }
int8_t rough_given() { return KmxAxesDrvMsSetRoughOffset(kGiven); }

TEST_F(MsPhoneTest, RefusalsAndTerminationInOrder) {
    ASSERT_EQ(KmxAxesDrvMsInit(), 0);
    vphone::clear_transcript();
    struct Case {
        const char *name;
        int8_t (*run)();
        int result;
        Lines bus;
    } cases[] = {
        {"measurement before a rough offset", measure, -126, {"select 2E", "write C0"}},
        {"written rough offset, none yet", [] { return KmxAxesDrvMsGetWrittenRoughOffset(g_rough); }, -126, {}},
        {"rough offset above 31", [] { return KmxAxesDrvMsSetRoughOffset(kAbove31); }, -1, {"select 2E"}},
        {"termination", KmxAxesDrvMsTerm, 0, {"close"}},
        {"coil, not initialised", KmxAxesDrvMsInitCoil, -3, {}},
        {"measurement, not initialised", measure, -3, {}},
        {"rough offset, not initialised", rough_given, -3, {}},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.run(), c.result) << c.name;
        EXPECT_EQ(bus_log(), c.bus) << c.name;
        vphone::clear_transcript();
    }
}

// Scripted readings: the calibration pair (only the second is kept), rough offsets
// (bytes 5, 3, 1; usable 1..32, five above the setting) and measurement blocks
// (channels last to first, then the temperature; bits 7..3 of high bytes are noise).
// Bit 15 of channel 2 sets the busy bit: the reading, taken after the full wait the
// sequences show, changes nothing.
TEST_F(MsPhoneTest, ReadingsAreDecodedAndRangeChecked) {
    vphone::ScriptedDevice scripted;
    vphone::attach(KmxcModel::kAddress, &scripted);
    scripted.queue_read(std::vector<uint8_t>(9, 0));
    scripted.queue_read({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x80, 0x00});
    ready();
    EXPECT_EQ(std::vector<int8_t>(KmxcDrvHandle()->tempCoef, KmxcDrvHandle()->tempCoef + 3),
              (std::vector<int8_t>{127, 0, -128}));
    const struct {
        const char *name;
        bool rough;
        std::array<uint16_t, 4> in;  // channels 0..2 (and temperature)
        int8_t result;
        std::array<uint16_t, 3> out;  // rough offsets or channels
    } cases[] = {
        {"rough: all usable", true, {6, 20, 32}, 0, {1, 15, 27}},
        {"rough: channel 2 above 32", true, {5, 1, 33}, 4, {0, 0, 28}},
        {"rough: all unusable", true, {255, 0, 200}, 7, {250, 0, 195}},
        {"rough: busy", true, {6, 20, 0x8000 | 32}, -4, {0, 0, 0}},
        {"all in range at the bounds", false, {2, 1023, 512, 300}, 0, {2, 1023, 512}},
        {"channel 0 at 1, channel 1 at 1024", false, {1, 1024, 512, 2047}, 3, {1, 1024, 512}},
        {"channel 2 at 0, 2047 elsewhere", false, {2047, 2047, 0, 1}, 7, {2047, 2047, 0}},
        {"busy", false, {512, 512, 0x8000 | 512, 4321}, -4, {0, 0, 0}},
    };
    for (const auto &c : cases) {
        std::vector<uint8_t> block;
        for (uint16_t w : {c.in[2], c.in[1], c.in[0], c.in[3]}) {
            const auto high = static_cast<uint8_t>((c.rough ? 0x7F : 0x78) | (w >> 8));
            block.insert(block.end(), {high, static_cast<uint8_t>(w)});
        }
        scripted.queue_read(block);
        g_Temprature = 1;
        KmxcDrvRawData raw{};
        std::array<uint8_t, 3> rough{};
        EXPECT_EQ(c.rough ? KmxAxesDrvMsMeasureRoughOffset(rough.data()) : KmxAxesDrvMsMeasure(&g_out, &raw), c.result)
            << c.name;
        const std::array<uint16_t, 3> out = c.rough ? std::array<uint16_t, 3>{rough[0], rough[1], rough[2]}
                                                    : std::array<uint16_t, 3>{raw.ms[0], raw.ms[1], raw.ms[2]};
        EXPECT_EQ(out, c.out) << c.name;
        if (c.rough) continue;
        EXPECT_EQ(raw.temperature, c.result < 0 ? 0 : c.in[3]) << c.name;
        EXPECT_EQ(g_Temprature, c.result < 0 ? 1 : c.in[3]) << c.name;
    }
}

// ---- Every sequence on the bus, clean and failed at each step ----------------------------------

TEST_F(MsPhoneTest, SequencesGoOutByteForByteAndStopAtAnyBusFailureWithMinusFive) {
    const struct {
        const char *name;
        int8_t (*run)();
        Lines bus;
    } sequences[] = {
        {"start-up", KmxAxesDrvMsInit, {"open", "select 2E", "write 01", "sleep 2000", "write C8", "read 9", "read 9"}},
        {"measurement", measure, {"select 2E", "write C0", "write 02", "sleep 13000", "read 8"}},
        {"rough offset measured",
         [] { return KmxAxesDrvMsSetRoughOffset(nullptr); },
         {"select 2E", "select 2E", "write C0", "write 01", "sleep 2000", "read 6", "write 30", "write 50",
          "write 70"}},
        {"rough offset given", rough_given, {"select 2E", "write 3F", "write 40", "write 71"}},
        {"coil",
         KmxAxesDrvMsInitCoil,
         {"select 2E", "write 90", "write 81", "write 91", "write 82", "write 92", "write 83", "write 93", "write 84",
          "write 94", "write 85", "write 95", "write 86", "write 96", "write 87", "write 97", "write 80"}},
        {"output high", [] { return KmxcDrvSetGPO(7); }, {"select 2E", "write F5"}},
        {"output low", [] { return KmxcDrvSetGPO(0); }, {"select 2E", "write F4"}},
    };
    const std::map<Kind, Call> failable = {{Kind::Open, Call::Open},
                                           {Kind::SelectSlave, Call::Ioctl},
                                           {Kind::Write, Call::Write},
                                           {Kind::Read, Call::Read}};
    for (const auto &seq : sequences) {
        // All but the start-up run initialised with a rough offset written; its failure closes.
        const bool closes = seq.run == KmxAxesDrvMsInit;
        if (!closes) ready();
        ASSERT_EQ(seq.run(), 0) << seq.name;
        ASSERT_EQ(bus_log(), seq.bus) << seq.name;
        const auto events = vphone::transcript();
        std::map<Call, int> ordinal;
        for (size_t step = 0; step < events.size(); ++step) {
            if (!failable.count(events[step].kind)) continue;
            const Call call = failable.at(events[step].kind);
            const int nth = ++ordinal[call];
            const std::string where = std::string(seq.name) + ", step " + seq.bus[step];
            TearDown();
            SetUp();
            if (!closes) ready();
            const KmxcDrvState before = *KmxcDrvHandle();
            vphone::fail_call(call, nth, EIO);
            vphone::StderrCapture err;
            EXPECT_EQ(seq.run(), -5) << where;
            Lines expected(seq.bus.begin(), seq.bus.begin() + static_cast<long>(step));
            if (call != Call::Open) expected.push_back(call == Call::Write ? "write !" : seq.bus[step] + " !");
            if (closes && call != Call::Open) expected.push_back("close");
            EXPECT_EQ(bus_log(), expected) << where;
            EXPECT_EQ(vphone::open_compass_descriptors(), closes ? 0 : 1) << where;
            EXPECT_EQ(KmxcDrvHandle()->initFlags, before.initFlags) << where;
            EXPECT_EQ(KmxcDrvHandle()->roughOffsetWritten, closes ? 0 : before.roughOffsetWritten) << where;
        }
        TearDown();
        SetUp();
    }
}

// ---- Physics: the model's field comes back through the library --------------------------------

vphone::Vec3 random_vector(std::mt19937 &rng, double lo, double hi) {
    std::normal_distribution<double> g(0, 1);
    const vphone::Vec3 v{g(rng), g(rng), g(rng)};
    const double s = std::uniform_real_distribution<double>(lo, hi)(rng) / std::hypot(v[0], v[1], v[2]);
    return {v[0] * s, v[1] * s, v[2] * s};
}

// Largest per-axis difference, in corrected counts, from a vector in uT.
double error_counts(const KmxAxesData &v, const vphone::Vec3 &ut) {
    const double k = 1.0 / KmxcModel::kMicroteslaPerCount;
    return std::max({std::fabs(v.x - ut[0] * k), std::fabs(v.y - ut[1] * k), std::fabs(v.z - ut[2] * k)});
}

// Half a raw count on each channel through the largest sensitivity row
// ((32 + 2 * 193) * 16 * 0.5 / 1600 = 2.09) plus the final truncation (1) and the
// drift's rounding: at most 3.1 counts (1.25 uT).
constexpr double kQuantisationCounts = 3.5;

// Random chips: mounting (a signed permutation, written to the profile too),
// calibration bytes, temperature 256 +- 100 and hard iron up to 150 uT. Each reads
// the hard iron alone, then fields of 20..65 uT: first against field plus hard iron,
// then, after a random rough-offset change, against the field once the carried-over
// hard iron is taken off (two quantisations: the offset's reading and the new one).
// The temperature is kept near 256: from raw 0, t1 + t2 = -16384 - drift, and a drift
// sum beyond 16384 (coefficients near 127 at 135 counts from 256) wraps it.
TEST_F(MsPhoneTest, FieldComesBackInPhoneAxesAndAfterARoughOffsetChange) {
    std::mt19937 rng(4201);
    for (int n = 0; n < 200; ++n) {
        int perm[3] = {0, 1, 2};
        std::shuffle(perm, perm + 3, rng);
        std::array<int8_t, 9> m{};
        std::array<uint8_t, 9> calib;
        std::string line = "1,0,0,0,1,0,0,0,1";
        for (int i = 0; i < 3; ++i) m[3 * i + perm[i]] = (rng() & 1) ? 1 : -1;
        for (int8_t v : m) line += "," + std::to_string(v);
        for (auto &b : calib) b = static_cast<uint8_t>(rng());
        vphone::write_file(kProfileFile, line + "\n");
        ASSERT_TRUE(chip.set_mounting(m));
        chip.set_calibration(calib);
        chip.set_temperature_c(KmxcModel::celsius(static_cast<int>(156 + rng() % 201)));
        const vphone::Vec3 iron = random_vector(rng, 0, 150);
        chip.set_hard_iron_ut(iron[0], iron[1], iron[2]);
        chip.set_field_ut(0, 0, 0);
        ASSERT_EQ(KmxAxesDrvMsInit(), 0) << "scenario " << n;
        ASSERT_EQ(KmxAxesDrvMsSetRoughOffset(nullptr), 0) << "scenario " << n;
        uint8_t from[3], to[3];
        ASSERT_EQ(KmxAxesDrvMsGetWrittenRoughOffset(from), 0);
        ASSERT_TRUE(std::equal(from, from + 3, chip.rough_offset().begin())) << "scenario " << n;
        KmxAxesData offset{};
        for (int f = 0; f < 9; ++f) {
            const bool after = f > 4;
            if (f == 5) {
                for (int i = 0; i < 3; ++i)
                    to[i] = static_cast<uint8_t>(std::clamp<int>(from[i] + int(rng() % 5) - 2, 0, 31));
                ASSERT_EQ(KmxAxesDrvMsSetRoughOffset(to), 0);
                ASSERT_EQ(KmxAxesLibRecalcMsOffset(&offset, &offset, from, to), 0);
            }
            const vphone::Vec3 field = f == 0 ? vphone::Vec3{0, 0, 0} : random_vector(rng, 20, 65);
            chip.set_field_ut(field[0], field[1], field[2]);
            const auto raw = chip.raw_channels();
            int flags = 0;
            for (int i = 0; i < 3; ++i) flags |= (raw[i] < 2 || raw[i] > 1023) ? 1 << i : 0;
            KmxAxesData v{};
            ASSERT_EQ(KmxAxesDrvMsMeasure(&v, nullptr), flags) << "scenario " << n << " field " << f;
            if (f == 0) offset = v;
            if (flags != 0 && after) continue;  // a channel pushed out of range by the change
            const double e = after ? error_counts({v.x - offset.x, v.y - offset.y, v.z - offset.z}, field)
                                   : error_counts(v, chip.expected_microtesla());
            ASSERT_LE(e, after ? 2 * kQuantisationCounts : kQuantisationCounts) << "scenario " << n << " field " << f;
        }
    }
}

}  // namespace
