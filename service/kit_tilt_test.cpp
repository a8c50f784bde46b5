// The kit's rules that judge gravity: its steady tilt, the dip's angle and the
// persistence of dip anomalies, each at its threshold.
#include <gtest/gtest.h>

#include <cmath>

#include "calibration/calibration.h"
#include "service/kit_internal.h"

namespace {

using namespace kmxc_kit;

constexpr double kPi = 3.14159265358979323846;

void start_kit(uint32_t rate_hz) {
    g_state = State{};
    g_state.rate_hz = rate_hz;
}

// Gravity of 1 g tilted by `deg` from straight down (about x).
Vec3 tilted(double deg) {
    return Vec3{0, int32_t(std::lround(4096 * std::sin(deg * kPi / 180))),
                int32_t(std::lround(-4096 * std::cos(deg * kPi / 180)))};
}

TEST(KitTilt, GravityIsSteadyWithinItsAngleOfTheRunningMeanAndWithinTheLengthBand) {
    const struct {
        const char *name;
        double jump_deg;  // a sample this far from a long-held gravity
        double scale;     // and this long (1: 1 g)
        bool steady;
    } cases[] = {
        {"unchanged", 0, 1, true},
        {"2.9 degrees off", 2.9, 1, true},
        {"3.1 degrees off", 3.1, 1, false},
        {"unchanged but 7 % long", 0, 1.07, false},
        {"unchanged, 5 % long", 0, 1.05, true},
    };
    for (const auto &c : cases) {
        start_kit(10);
        for (int i = 0; i < 50; ++i) track_tilt(tilted(0));
        Vec3 g = tilted(c.jump_deg);
        g = Vec3{int32_t(std::lround(g.x * c.scale)), int32_t(std::lround(g.y * c.scale)),
                 int32_t(std::lround(g.z * c.scale))};
        track_tilt(g);
        EXPECT_EQ(g_state.tilt_steady, c.steady) << c.name;
    }
    // A tilt held steady becomes the mean: steady again after a few time constants.
    start_kit(10);
    for (int i = 0; i < 50; ++i) track_tilt(tilted(0));
    track_tilt(tilted(10));
    EXPECT_FALSE(g_state.tilt_steady);
    for (int i = 0; i < 30; ++i) track_tilt(tilted(10));
    EXPECT_TRUE(g_state.tilt_steady);
}

// The kit trusting an offset whose reference angle between field and gravity is
// `cdeg` (3000: a 60-degree dip), strength 120 counts.
void trusted_at(int32_t cdeg) {
    start_kit(10);
    g_state.offset_trusted = true;
    g_state.base_accuracy = KMXC_SERVICE_HIGH;
    g_state.reference = true;
    g_state.ref_strength = 120;
    g_state.ref_dip_valid = true;
    g_state.reference_known = true;
    g_state.reference_strength_counts = 120;
    g_state.reference_dip_cdeg = 9000 - cdeg;
    trust_planar(KMXC_SERVICE_MEDIUM);  // sets the angle's bounds from the 3-D reference
    g_state.base_accuracy = KMXC_SERVICE_HIGH;
    g_state.tilt_steady = true;
}

int32_t dip_permille(double deg) { return static_cast<int32_t>(1000 * std::cos(deg * kPi / 180)); }

TEST(KitDip, TheDipIsJudgedAsAnAngleSixDegreesEitherWayAtAnyDip) {
    static_assert(KMXC_SERVICE_DIP_TOLERANCE_CDEG == 600);
    const struct {
        const char *name;
        double angle_deg;
        bool anomaly;
    } cases[] = {
        {"5.8 degrees steeper", 24.2, false},
        {"6.3 degrees steeper", 23.7, true},
        {"5.8 degrees flatter", 35.8, false},
        {"6.3 degrees flatter", 36.3, true},
    };
    for (const auto &c : cases) {
        trusted_at(3000);
        const uint8_t causes = anomaly_of(Vec3{0, 0, -4096}, 120, dip_permille(c.angle_deg));
        EXPECT_EQ((causes & KMXC_SERVICE_ANOMALY_DIP) != 0, c.anomaly) << c.name;
    }
    // At a steep field (an 84-degree dip: 6 degrees from gravity) the cosine moves by 0.005
    // for 6 degrees, 0.12 of it would hide a whole 20: the angle still tells.
    trusted_at(600);
    EXPECT_EQ(anomaly_of(Vec3{0, 0, -4096}, 120, dip_permille(11)) & KMXC_SERVICE_ANOMALY_DIP, 0);
    EXPECT_NE(anomaly_of(Vec3{0, 0, -4096}, 120, dip_permille(13)) & KMXC_SERVICE_ANOMALY_DIP, 0);
}

TEST(KitDip, AnAnomalyHoldsTheAccuracyDownAndOnlyAPersistingOneInRangeDemotes) {
    const struct {
        const char *name;
        bool tilt_steady;
        uint8_t causes;
        double for_s;
        bool demoted;
        uint8_t first = 0;  // the episode's first sample's causes, when not `causes`
    } cases[] = {
        {"strength off for 5 s: a new surrounding", true, KMXC_SERVICE_ANOMALY_STRENGTH, 5.05, true},
        {"out of the Earth's range for 6 s: the rough offset's business", true, KMXC_SERVICE_ANOMALY_RANGE, 6, false},
        {"out of range once, then strength off for 6 s: still the rough offset's", true, KMXC_SERVICE_ANOMALY_STRENGTH,
         6, false, KMXC_SERVICE_ANOMALY_RANGE},
        {"strength off for 4.9 s: kept", true, KMXC_SERVICE_ANOMALY_STRENGTH, 4.9, false},
        {"dip off in steady tilt for 29.9 s: kept", true, KMXC_SERVICE_ANOMALY_DIP, 29.9, false},
        {"dip off in steady tilt for 30 s: a new surrounding", true, KMXC_SERVICE_ANOMALY_DIP, 30.05, true},
        {"dip off while accelerating for 60 s: kept", false, KMXC_SERVICE_ANOMALY_DIP, 60, false},
    };
    for (const auto &c : cases) {
        trusted_at(3000);
        g_state.tilt_steady = c.tilt_steady;
        KmxcServiceEvent e{};
        const int64_t step = 100000000;  // 10 Hz
        int64_t t = 1000000000;
        int8_t acc = 0;
        for (; t <= 1000000000 + static_cast<int64_t>(c.for_s * 1e9); t += step) {
            note_anomaly(t == 1000000000 && c.first != 0 ? c.first : c.causes, t, &e);
            acc = accuracy_now(t);
        }
        EXPECT_EQ(g_state.demoted, c.demoted) << c.name;
        // Out of range, a strength off the reference, or a demoted offset: unreliable; a
        // dip alone: low.
        EXPECT_EQ(acc, c.demoted || c.causes != KMXC_SERVICE_ANOMALY_DIP ? KMXC_SERVICE_UNRELIABLE : KMXC_SERVICE_LOW)
            << c.name;
    }
}

}  // namespace
