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
constexpr const char *kProfileNumberFile = "/sys/module/zorsensor/parameters/profile";

// The bus side of the transcript as text: "open", "select 2E", "write C0",
// "sleep 13000", "read 8", "close"; a failed call ends in " !".
Lines bus_log() {
    Lines lines;
    char buf[64];
    for (const auto &e : vphone::transcript()) {
        std::string s;
        switch (e.kind) {
        case Kind::Open: s = "open"; break;
        case Kind::Close: s = "close"; break;
        case Kind::SelectSlave: std::snprintf(buf, sizeof buf, "select %02lX", e.argument); s = buf; break;
        case Kind::Write:
            s = "write";
            for (uint8_t b : e.bytes) {
                std::snprintf(buf, sizeof buf, " %02X", b);
                s += buf;
            }
            break;
        case Kind::Read: s = "read " + std::to_string(e.argument); break;
        case Kind::Sleep: s = "sleep " + std::to_string(e.argument); break;
        case Kind::Control: s = "ioctl " + std::to_string(e.request); break;
        }
        if (e.result < 0) s += " !";
        lines.push_back(s);
    }
    return lines;
}

const Lines kStartUp = {"select 2E", "write 01", "sleep 2000", "write C8", "read 9", "read 9"};
const Lines kMeasurement = {"select 2E", "write C0", "write 02", "sleep 13000", "read 8"};

struct MsPhoneTest : vphone::PhoneTest {
    void SetUp() override {
        PhoneTest::SetUp();
        vphone::attach(KmxcModel::kAddress, &chip);
    }
    void TearDown() override {
        KmxcDrvState &st = *KmxcDrvHandle();
        st.initFlags = static_cast<uint8_t>(st.initFlags & KMXC_DRV_INIT_MS);  // only ours
        if (st.initFlags != 0) KmxAxesDrvMsTerm();
        msmachdep_I2CClose();
        PhoneTest::TearDown();
    }
    // Initialised, rough offset written, transcript cleared.
    void ready(const uint8_t *rough = kCentre) {
        ASSERT_EQ(KmxAxesDrvMsInit(), 0);
        ASSERT_EQ(KmxAxesDrvMsSetRoughOffset(rough), 0);
        vphone::clear_transcript();
    }
    static constexpr uint8_t kCentre[3] = {16, 16, 16};
    KmxcModel chip;
};

// ---- Start-up and the transformation profile ---------------------------------------------

TEST_F(MsPhoneTest, StartUpSequenceKeepsTheSecondCalibrationReading) {
    vphone::ScriptedDevice scripted;
    vphone::attach(KmxcModel::kAddress, &scripted);
    scripted.queue_read({0, 0, 0, 0, 0, 0, 0, 0, 0});
    scripted.queue_read({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x80, 0x00});
    EXPECT_EQ(KmxAxesDrvMsInit(), 0);
    Lines expected = {"open"};
    expected.insert(expected.end(), kStartUp.begin(), kStartUp.end());
    EXPECT_EQ(bus_log(), expected);
    const KmxcDrvState &st = *KmxcDrvHandle();
    // No profile file: the correction is the sensitivity matrix of the all-0xFF bytes.
    const int16_t s[9] = {100, 31, 7, 31, 101, 31, 31, 31, 193};
    for (int i = 0; i < 9; ++i) EXPECT_EQ(st.correction[i], s[i]) << "entry " << i;
    EXPECT_EQ(st.tempCoef[0], 127);
    EXPECT_EQ(st.tempCoef[1], 0);
    EXPECT_EQ(st.tempCoef[2], -128);
    EXPECT_EQ(st.initFlags, KMXC_DRV_INIT_MS);
    EXPECT_EQ(st.roughOffsetWritten, 0);

    vphone::clear_transcript();
    scripted.queue_read(std::vector<uint8_t>(9, 0));
    scripted.queue_read(std::vector<uint8_t>(9, 0));
    EXPECT_EQ(KmxAxesDrvMsInit(), 0);  // again, while initialised: no second open
    EXPECT_EQ(bus_log(), kStartUp);
    EXPECT_EQ(vphone::open_compass_descriptors(), 1);
}

TEST_F(MsPhoneTest, TransformationProfileSelectsTheMountingMatrix) {
    const std::string swap = "1,0,0,0,1,0,0,0,1,0,1,0,1,0,0,0,0,-1\n";
    const std::string ident = "1,0,0,0,1,0,0,0,1,1,0,0,0,1,0,0,0,1\n";
    struct Case {
        const char *name;
        const char *profile_number;  // null: no file
        std::string file;            // empty: no file
        bool access_fails;
        int8_t result;
        int8_t matrix[9];  // expected mounting (correction / 100) when result is 0
    } cases[] = {
        {"no profile file", "2\n", "", false, 0, {1, 0, 0, 0, 1, 0, 0, 0, 1}},
        {"profile file not writable", "1\n", swap, true, 0, {1, 0, 0, 0, 1, 0, 0, 0, 1}},
        {"line 1, fields 10..18", "1\n", swap, false, 0, {0, 1, 0, 1, 0, 0, 0, 0, -1}},
        {"no profile number: line 1", nullptr, swap + ident, false, 0, {0, 1, 0, 1, 0, 0, 0, 0, -1}},
        {"profile 2", "2 is ours\n", ident + swap, false, 0, {0, 1, 0, 1, 0, 0, 0, 0, -1}},
        {"commas in runs are one separator", "1", "1,,0,0,0,1,0,0,0,1,,,0,1,0,1,0,0,0,0,-1", false, 0,
         {0, 1, 0, 1, 0, 0, 0, 0, -1}},
        {"atoi fields, low 8 bits", "1", "0,0,0,0,0,0,0,0,0, +257,0x5,-0,0,-255 ,0,0,0,255\n", false, 0,
         {1, 0, 0, 0, 1, 0, 0, 0, -1}},
        {"255-character pieces count as lines", "2", std::string(255, ' ') + swap + ident, false, 0,
         {0, 1, 0, 1, 0, 0, 0, 0, -1}},
        {"missing fields read 0", "1", "1,0,0,0,1,0,0,0,1,1,0,0,0,1\n", false, -1, {}},
        {"two unit entries in a row", "1", "0,0,0,0,0,0,0,0,0,1,1,0,0,1,0,0,0,1\n", false, -1, {}},
        {"other values pass the check", "1", "0,0,0,0,0,0,0,0,0,1,5,0,0,1,0,0,0,1\n", false, 0,
         {1, 5, 0, 0, 1, 0, 0, 0, 1}},
        {"profile 0 reads no line", "0\n", swap, false, -1, {}},
        {"profile 3 of two lines", "3", swap + ident, false, -3, {}},
    };
    for (const auto &c : cases) {
        if (KmxcDrvHandle()->initFlags != 0) KmxAxesDrvMsTerm();
        vphone::reset();
        vphone::attach(KmxcModel::kAddress, &chip);
        vphone::remove_file(kProfileFile);
        vphone::remove_file(kProfileNumberFile);
        if (!c.file.empty()) vphone::write_file(kProfileFile, c.file);
        if (c.profile_number) vphone::write_file(kProfileNumberFile, c.profile_number);
        if (c.access_fails) vphone::fail_call(Call::Access, 1, EACCES);
        vphone::StderrCapture err;
        EXPECT_EQ(KmxAxesDrvMsInit(), c.result) << c.name;
        const std::string text = err.text();
        if (c.result == -3) {
            EXPECT_EQ(text.rfind("fgets: ", 0), 0u) << c.name << ": " << text;
        }
        if (c.result != 0) {
            EXPECT_EQ(vphone::calls(Call::Open), 0) << c.name;  // nothing changed
            continue;
        }
        for (int i = 0; i < 9; ++i) EXPECT_EQ(KmxcDrvHandle()->correction[i], 100 * c.matrix[i]) << c.name << " " << i;
    }
}

TEST_F(MsPhoneTest, UnreadableProfileFileIsMinusThree) {
    vphone::write_file(kProfileFile, "1,0,0,0,1,0,0,0,1,1,0,0,0,1,0,0,0,1\n");
    vphone::fail_call(Call::Fopen, 2, EACCES);  // the first fopen reads the profile number
    vphone::StderrCapture err;
    EXPECT_EQ(KmxAxesDrvMsInit(), -3);
    EXPECT_EQ(err.text().rfind("fopen: ", 0), 0u);
    EXPECT_EQ(KmxcDrvHandle()->initFlags, 0);
}

// ---- Sequences on the bus ------------------------------------------------------------------

TEST_F(MsPhoneTest, CommandSequencesGoOutByteForByte) {
    ASSERT_EQ(KmxAxesDrvMsInit(), 0);
    struct Case {
        const char *name;
        int (*run)();
        int result;
        Lines bus;
    } cases[] = {
        {"measurement before a rough offset", [] { return int{KmxAxesDrvMsMeasure(nullptr, nullptr)}; }, -126,
         {"select 2E", "write C0"}},
        {"written rough offset before any write", [] {
             uint8_t r[3];
             return int{KmxAxesDrvMsGetWrittenRoughOffset(r)};
         }, -126, {}},
        {"rough offset given", [] {
             const uint8_t r[3] = {31, 0, 17};
             return int{KmxAxesDrvMsSetRoughOffset(r)};
         }, 0, {"select 2E", "write 3F", "write 40", "write 71"}},
        {"rough offset above 31", [] {
             const uint8_t r[3] = {32, 0, 0};
             return int{KmxAxesDrvMsSetRoughOffset(r)};
         }, -1, {"select 2E"}},
        {"file marker 255", [] {
             const uint8_t r[3] = {255, 255, 255};
             return int{KmxAxesDrvMsSetRoughOffset(r)};
         }, -1, {"select 2E"}},
        {"rough offset measured", [] { return int{KmxAxesDrvMsSetRoughOffset(nullptr)}; }, 0,
         {"select 2E", "select 2E", "write C0", "write 01", "sleep 2000", "read 6", "write 30", "write 50",
          "write 70"}},
        {"measurement", [] {
             KmxAxesData v;
             return int{KmxAxesDrvMsMeasure(&v, nullptr)};
         }, 0, kMeasurement},
        {"coil", [] { return int{KmxAxesDrvMsInitCoil()}; }, 0,
         {"select 2E", "write 90", "write 81", "write 91", "write 82", "write 92", "write 83", "write 93",
          "write 84", "write 94", "write 85", "write 95", "write 86", "write 96", "write 87", "write 97",
          "write 80"}},
        {"output high", [] { return int{KmxcDrvSetGPO(7)}; }, 0, {"select 2E", "write F5"}},
        {"output low", [] { return int{KmxcDrvSetGPO(0)}; }, 0, {"select 2E", "write F4"}},
        {"termination", [] { return int{KmxAxesDrvMsTerm()}; }, 0, {"close"}},
        {"termination again", [] { return int{KmxAxesDrvMsTerm()}; }, -3, {}},
        {"coil when not initialised", [] { return int{KmxAxesDrvMsInitCoil()}; }, -3, {}},
        {"measurement when not initialised", [] { return int{KmxAxesDrvMsMeasure(nullptr, nullptr)}; }, -3, {}},
    };
    for (const auto &c : cases) {
        vphone::clear_transcript();
        EXPECT_EQ(c.run(), c.result) << c.name;
        EXPECT_EQ(bus_log(), c.bus) << c.name;
    }
    EXPECT_EQ(chip.gpo(), 0);
}

TEST_F(MsPhoneTest, RoughOffsetReadingsAreDecodedAndShifted) {
    vphone::ScriptedDevice scripted;
    vphone::attach(KmxcModel::kAddress, &scripted);
    struct Case {
        const char *name;
        uint8_t b5, b3, b1;  // readings of channels 0, 1, 2
        int8_t flags;
        uint8_t out[3];
    } cases[] = {
        {"all usable", 6, 20, 32, 0, {1, 15, 27}},
        {"channel 2 above 32", 5, 1, 33, 4, {0, 0, 28}},
        {"channel 0 zero", 0, 16, 16, 1, {0, 11, 11}},
        {"all unusable", 255, 0, 200, 7, {250, 0, 195}},
    };
    ASSERT_EQ(msmachdep_I2COpen(), 0);  // needs only the open device, not the driver
    for (const auto &c : cases) {
        scripted.queue_read({0x7F, c.b1, 0xFF, c.b3, 0xFF, c.b5});  // busy bit clear, others ignored
        uint8_t out[3] = {99, 99, 99};
        EXPECT_EQ(KmxAxesDrvMsMeasureRoughOffset(out), c.flags) << c.name;
        for (int i = 0; i < 3; ++i) EXPECT_EQ(out[i], c.out[i]) << c.name << " channel " << i;
    }
}

TEST_F(MsPhoneTest, MeasurementBlockIsDecodedAndRangeChecked) {
    vphone::ScriptedDevice scripted;
    vphone::attach(KmxcModel::kAddress, &scripted);
    scripted.queue_read(std::vector<uint8_t>(9, 0x80));
    scripted.queue_read(std::vector<uint8_t>(9, 0x80));
    ready();
    struct Case {
        const char *name;
        uint16_t ch0, ch1, ch2, temperature;
        int8_t flags;
    } cases[] = {
        {"all in range at the bounds", 2, 1023, 512, 300, 0},
        {"channel 0 at 1", 1, 512, 512, 2047, 1},
        {"channel 1 at 1024", 512, 1024, 512, 0, 2},
        {"channel 2 at 0, 2047 elsewhere", 2047, 2047, 0, 1, 7},
    };
    for (const auto &c : cases) {
        // Channels last to first; bits 7..3 of the high bytes are noise.
        scripted.queue_read({static_cast<uint8_t>(0x78 | (c.ch2 >> 8)), static_cast<uint8_t>(c.ch2),
                             static_cast<uint8_t>(0xF8 | (c.ch1 >> 8)), static_cast<uint8_t>(c.ch1),
                             static_cast<uint8_t>(0xF8 | (c.ch0 >> 8)), static_cast<uint8_t>(c.ch0),
                             static_cast<uint8_t>(0xF8 | (c.temperature >> 8)), static_cast<uint8_t>(c.temperature)});
        KmxAxesData out{};
        KmxcDrvRawData raw{{0, 0, 0}, {-1, -2, -3}, 0};
        EXPECT_EQ(KmxAxesDrvMsMeasure(&out, &raw), c.flags) << c.name;
        EXPECT_EQ(raw.ms[0], c.ch0) << c.name;
        EXPECT_EQ(raw.ms[1], c.ch1) << c.name;
        EXPECT_EQ(raw.ms[2], c.ch2) << c.name;
        EXPECT_EQ(raw.temperature, c.temperature) << c.name;
        EXPECT_EQ(g_Temprature, c.temperature) << c.name;
        EXPECT_EQ(raw.gs[2], -3) << c.name;  // the accelerometer's fields are left alone
        KmxAxesData direct{};
        KmxAxesDrvMsensCorrection(raw.ms, raw.temperature, &direct);
        EXPECT_EQ(out.x, direct.x) << c.name;
        EXPECT_EQ(out.z, direct.z) << c.name;
    }
}

TEST_F(MsPhoneTest, BusyChipFailsAfterTheFullWaitAndChangesNothing) {
    ready();
    chip.setConversionTime(13001, 2001);  // one microsecond slower than the driver waits
    g_Temprature = 4321;
    KmxAxesData out{1, 2, 3};
    KmxcDrvRawData raw{{7, 7, 7}, {0, 0, 0}, 7};
    EXPECT_EQ(KmxAxesDrvMsMeasure(&out, &raw), -4);
    EXPECT_EQ(bus_log(), kMeasurement);
    EXPECT_EQ(out.x, 1);
    EXPECT_EQ(raw.ms[0], 7);
    EXPECT_EQ(raw.temperature, 7);
    EXPECT_EQ(g_Temprature, 4321);

    const uint8_t given[3] = {1, 2, 3};
    ASSERT_EQ(KmxAxesDrvMsSetRoughOffset(given), 0);
    EXPECT_EQ(KmxAxesDrvMsSetRoughOffset(nullptr), -4);  // measured: busy, nothing written
    uint8_t written[3];
    ASSERT_EQ(KmxAxesDrvMsGetWrittenRoughOffset(written), 0);
    EXPECT_EQ(written[2], 3);
    EXPECT_EQ(chip.roughOffset()[2], 3);
}

// ---- Bus failures, at every step of every sequence ------------------------------------------

struct Sequence {
    const char *name;
    bool needs_ready;  // initialised and rough offset written first
    int (*run)();
    bool closes;       // a failure closes the device
};

const Sequence kSequences[] = {
    {"start-up", false, [] { return int{KmxAxesDrvMsInit()}; }, true},
    {"measurement", true, [] {
         KmxAxesData v;
         return int{KmxAxesDrvMsMeasure(&v, nullptr)};
     }, false},
    {"rough offset measured", true, [] { return int{KmxAxesDrvMsSetRoughOffset(nullptr)}; }, false},
    {"rough offset given", true, [] {
         const uint8_t r[3] = {1, 2, 3};
         return int{KmxAxesDrvMsSetRoughOffset(r)};
     }, false},
    {"coil", true, [] { return int{KmxAxesDrvMsInitCoil()}; }, false},
    {"output", true, [] { return int{KmxcDrvSetGPO(1)}; }, false},
};

TEST_F(MsPhoneTest, EveryBusFailureIsMinusFiveAndStopsTheSequence) {
    for (const auto &seq : kSequences) {
        // A clean run gives the steps; then each step is failed in turn.
        if (seq.needs_ready) ready();
        vphone::clear_transcript();
        ASSERT_EQ(seq.run(), 0) << seq.name;
        const Lines clean = bus_log();
        const auto events = vphone::transcript();
        std::map<Call, int> ordinal;
        for (size_t step = 0; step < events.size(); ++step) {
            Call call;
            switch (events[step].kind) {
            case Kind::Open: call = Call::Open; break;
            case Kind::SelectSlave: call = Call::Ioctl; break;
            case Kind::Write: call = Call::Write; break;
            case Kind::Read: call = Call::Read; break;
            default: continue;
            }
            const int nth = ++ordinal[call];
            const std::string where = std::string(seq.name) + ", step " + clean[step];
            TearDown();
            SetUp();
            if (seq.needs_ready) ready();
            vphone::clear_transcript();
            const int rough_before = KmxcDrvHandle()->roughOffsetWritten;
            const uint8_t flags_before = KmxcDrvHandle()->initFlags;
            vphone::fail_call(call, nth, EIO);
            vphone::StderrCapture err;
            EXPECT_EQ(seq.run(), -5) << where;
            err.text();
            // A failed write moves no bytes; a failed open is not a bus event.
            Lines expected(clean.begin(), clean.begin() + static_cast<long>(step) + 1);
            expected.back() = call == Call::Write ? "write !" : expected.back() + " !";
            if (call == Call::Open) expected.pop_back();
            if (seq.closes && call != Call::Open) expected.push_back("close");
            EXPECT_EQ(bus_log(), expected) << where;
            EXPECT_EQ(vphone::open_compass_descriptors(), seq.closes ? 0 : 1) << where;
            EXPECT_EQ(KmxcDrvHandle()->initFlags, flags_before) << where;
            if (!seq.closes) {
                EXPECT_EQ(int{KmxcDrvHandle()->roughOffsetWritten}, rough_before) << where;
            }
        }
        TearDown();
        SetUp();
    }
}

TEST_F(MsPhoneTest, TerminationAfterAFailedRestartReportsTheClosedDevice) {
    ready();
    vphone::fail_call(Call::Read, 1, EIO);
    vphone::StderrCapture err;
    EXPECT_EQ(KmxAxesDrvMsInit(), -5);  // closes, keeps the initialised bit
    EXPECT_EQ(KmxAxesDrvMsTerm(), -5);
    EXPECT_EQ(KmxcDrvHandle()->initFlags, 0);
}

TEST_F(MsPhoneTest, TerminationLeavesTheDeviceToARunningAccelerometer) {
    ready();
    KmxcDrvHandle()->initFlags |= KMXC_DRV_INIT_GS;
    EXPECT_EQ(KmxAxesDrvMsTerm(), 0);
    EXPECT_EQ(bus_log(), Lines{});
    EXPECT_EQ(KmxcDrvHandle()->initFlags, KMXC_DRV_INIT_GS);
    EXPECT_EQ(vphone::open_compass_descriptors(), 1);
}

// ---- Physics: the model's field comes back through the library --------------------------------

struct Scenario {
    std::array<int8_t, 9> mounting;
    std::array<uint8_t, 9> calib;
    uint16_t temperature;
    KmxcModel::Vec3 hard_iron;
};

std::array<int8_t, 9> random_signed_permutation(std::mt19937 &rng) {
    int perm[3] = {0, 1, 2};
    std::shuffle(perm, perm + 3, rng);
    std::array<int8_t, 9> m{};
    for (int i = 0; i < 3; ++i) m[3 * i + perm[i]] = (rng() & 1) ? 1 : -1;
    return m;
}

KmxcModel::Vec3 random_field(std::mt19937 &rng, double lo, double hi) {
    std::uniform_real_distribution<double> u(-1, 1), mag(lo, hi);
    KmxcModel::Vec3 v{u(rng), u(rng), u(rng)};
    const double s = mag(rng) / std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z + 1e-12);
    return {v.x * s, v.y * s, v.z * s};
}

Scenario random_scenario(std::mt19937 &rng) {
    Scenario s;
    s.mounting = random_signed_permutation(rng);
    for (auto &b : s.calib) b = static_cast<uint8_t>(rng());
    s.temperature = static_cast<uint16_t>(56 + rng() % 401);  // 256 +- 200
    s.hard_iron = random_field(rng, 0, 150);
    return s;
}

void install(KmxcModel &chip, const Scenario &s) {
    std::string line = "1,0,0,0,1,0,0,0,1";
    for (int8_t v : s.mounting) line += "," + std::to_string(v);
    vphone::write_file(kProfileFile, line + "\n");
    chip.setMounting(s.mounting);
    chip.setCalibration(s.calib);
    chip.setTemperature(s.temperature);
    chip.setHardIron(s.hard_iron);
}

// Largest per-axis difference, in corrected counts, between the library's vector and
// the model's prediction.
double error_counts(const KmxAxesData &v, const KmxcModel::Vec3 &expected_ut) {
    const double k = 1.0 / KmxcModel::kMicroteslaPerCount;
    return std::max({std::fabs(v.x - expected_ut.x * k), std::fabs(v.y - expected_ut.y * k),
                     std::fabs(v.z - expected_ut.z * k)});
}

// Measured over 300 scenarios x 8 fields: the largest error is below 3.2 counts.
constexpr double kQuantisationCounts = 3.5;

// Range flags the library should raise for the channels the model produces now.
int expected_flags(const KmxcModel &chip) {
    const auto raw = chip.rawChannels();
    int flags = 0;
    for (int i = 0; i < 3; ++i) flags |= (raw[i] < 2 || raw[i] > 1023) ? 1 << i : 0;
    return flags;
}

TEST_F(MsPhoneTest, RoundTripReturnsFieldPlusOffsetInPhoneAxes) {
    std::mt19937 rng(4201);
    double worst = 0;
    int compared = 0, flagged = 0;
    for (int n = 0; n < 300; ++n) {
        install(chip, random_scenario(rng));
        chip.setField(random_field(rng, 20, 65));
        ASSERT_EQ(KmxAxesDrvMsInit(), 0) << "scenario " << n;
        ASSERT_EQ(KmxAxesDrvMsSetRoughOffset(nullptr), 0) << "scenario " << n;
        uint8_t written[3];
        ASSERT_EQ(KmxAxesDrvMsGetWrittenRoughOffset(written), 0);
        for (int i = 0; i < 3; ++i) ASSERT_EQ(written[i], chip.roughOffset()[i]);
        for (int f = 0; f < 8; ++f) {
            if (f > 0) chip.setField(random_field(rng, 20, 65));
            KmxAxesData v{};
            const int flags = KmxAxesDrvMsMeasure(&v, nullptr);
            ASSERT_EQ(flags, expected_flags(chip)) << "scenario " << n << " field " << f;
            if (flags != 0) {
                ++flagged;
                continue;
            }
            const double e = error_counts(v, chip.expectedMicrotesla());
            worst = std::max(worst, e);
            ++compared;
            ASSERT_LE(e, kQuantisationCounts) << "scenario " << n << " field " << f;
        }
    }
    EXPECT_GT(compared, 2000);
    std::printf("round trip: %d compared, %d flagged, largest error %.2f counts\n", compared, flagged, worst);
}

TEST_F(MsPhoneTest, ChipAxesComeOutRotatedByTheProfileMatrix) {
    // The chip reports in its own axes (model mounted as identity); the profile says
    // phone axis x is chip y, y is chip x, z is -chip z.
    vphone::write_file(kProfileFile, "1,0,0,0,1,0,0,0,1,0,1,0,1,0,0,0,0,-1\n");
    ready();
    chip.setField({40, -20, 30});
    KmxAxesData v{};
    ASSERT_EQ(KmxAxesDrvMsMeasure(&v, nullptr), 0);
    EXPECT_LE(error_counts(v, {-20, 40, -30}), kQuantisationCounts) << v.x << " " << v.y << " " << v.z;
}

TEST_F(MsPhoneTest, CarriedOverOffsetPredictsMeasurementsAfterARoughChange) {
    std::mt19937 rng(4202);
    double worst = 0;
    for (int n = 0; n < 100; ++n) {
        install(chip, random_scenario(rng));
        chip.setField({0, 0, 0});
        ASSERT_EQ(KmxAxesDrvMsInit(), 0);
        ASSERT_EQ(KmxAxesDrvMsSetRoughOffset(nullptr), 0);
        uint8_t from[3], to[3];
        KmxAxesDrvMsGetWrittenRoughOffset(from);
        // Offset under the first setting: what the chip reads with no ambient field.
        KmxAxesData offset{};
        KmxAxesDrvMsMeasure(&offset, nullptr);
        for (int i = 0; i < 3; ++i) to[i] = static_cast<uint8_t>(std::clamp<int>(from[i] + int(rng() % 5) - 2, 0, 31));
        ASSERT_EQ(KmxAxesDrvMsSetRoughOffset(to), 0);
        ASSERT_EQ(KmxAxesLibRecalcMsOffset(&offset, &offset, from, to), 0);
        for (int f = 0; f < 4; ++f) {
            const KmxcModel::Vec3 field = random_field(rng, 20, 65);
            chip.setField(field);
            KmxAxesData v{};
            if (KmxAxesDrvMsMeasure(&v, nullptr) != 0) continue;  // a channel pushed out of range
            const KmxAxesData residual{v.x - offset.x, v.y - offset.y, v.z - offset.z};
            const double e = error_counts(residual, field);
            worst = std::max(worst, e);
            ASSERT_LE(e, 2 * kQuantisationCounts) << "scenario " << n << " field " << f;
        }
    }
    std::printf("rough change: largest error %.2f counts\n", worst);
}

TEST_F(MsPhoneTest, ChannelsPushedPastTheirRangeAreFlaggedUntilTheRoughOffsetCompensates) {
    ready();  // rough offset 16 everywhere: no compensation
    chip.setHardIron({300, 0, 0});  // channel 0 is the chip's -x: 750 counts below 512
    KmxAxesData v{};
    EXPECT_EQ(KmxAxesDrvMsMeasure(&v, nullptr), 1);
    EXPECT_EQ(v.x, 512);  // still produced, from the channel saturated at 0
    ASSERT_EQ(KmxAxesDrvMsSetRoughOffset(nullptr), 0);
    EXPECT_EQ(chip.roughOffset()[0], 13);  // three steps of 226 bring it back
    EXPECT_EQ(chip.roughOffset()[1], 16);
    EXPECT_EQ(KmxAxesDrvMsMeasure(&v, nullptr), 0);
    EXPECT_LE(error_counts(v, chip.expectedMicrotesla()), kQuantisationCounts);
}

}  // namespace
