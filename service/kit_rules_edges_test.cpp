// The kit's rules at their thresholds, on hand-placed samples (no phone): the feed gate,
// the Earth's-field range, the anomalies, a fit's accuracy and save, the anomaly's clear
// time, gravity's steady tilt, the dip's angle and the persistence of dip anomalies each
// decide exactly at their limit.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "calibration/calibration.h"
#include "service/event_fill.h"
#include "service/kit_internal.h"
#include "service/kit_uncertainty.h"

namespace kmxc_kit {
State g_state;  // the rules' state, here the test's own
}  // namespace kmxc_kit

namespace {

using namespace kmxc_kit;

// The anomaly's clear time, and when the samples below were judged.
constexpr int64_t kClearNs = int64_t{KMXC_SERVICE_ANOMALY_CLEAR_MS} * 1000000, kSeen = 5000000000;

void feed(std::initializer_list<Vec3> samples) {
    g_state = State{};
    for (const Vec3 &m : samples) remember_fed(m, Vec3{0, 0, -4096});
}

constexpr double kPi = 3.14159265358979323846;

// The kit trusting an offset whose reference angle between field and gravity is
// `cdeg` (3000: a 60-degree dip; 0: no reference), of `strength` counts, in steady tilt
// or not.
void trusted_at(int32_t cdeg, int32_t strength = 120, bool steady = true) {
    g_state = State{};
    g_state.rate_hz = 10;
    g_state.reference_known = true;
    g_state.reference_strength_counts = strength;
    g_state.reference_dip_cdeg = 9000 - cdeg;
    trust_planar(KMXC_SERVICE_MEDIUM);  // sets the angle's bounds from the 3-D reference
    g_state.reference = cdeg != 0;
    g_state.base_accuracy = KMXC_SERVICE_HIGH;
    g_state.tilt_steady = steady;
}

int32_t dip_permille(double deg) { return static_cast<int32_t>(1000 * std::cos(deg * kPi / 180)); }

TEST(KitRuleEdges, TheGateOpensAtExactlyItsDistanceFromEachOfTheLastFewFed) {
    const struct {
        const char *name;
        std::initializer_list<Vec3> fed;
        Vec3 candidate;
        bool passes;
    } cases[] = {
        {"nothing fed yet", {}, {0, 0, 0}, true},
        {"exactly 32 counts along an axis", {{100, 0, 0}}, {132, 0, 0}, true},
        {"31 counts", {{100, 0, 0}}, {131, 0, 0}, false},
        {"exactly 32 counts, negative axis", {{0, 0, 0}}, {0, 0, -32}, true},
        {"just over 32 on a diagonal (19, 19, 19)", {{0, 0, 0}}, {19, 19, 19}, true},
        {"just under 32 on a diagonal (18, 18, 18)", {{0, 0, 0}}, {18, 18, 18}, false},
        {"near the fourth-last fed", {{0, 0, 0}, {50, 0, 0}, {90, 0, 0}, {130, 0, 0}}, {10, 0, 0}, false},
        {"near the fifth-last alone", {{0, 0, 0}, {50, 0, 0}, {90, 0, 0}, {130, 0, 0}, {170, 0, 0}}, {10, 0, 0}, true},
    };
    for (const auto &c : cases) {
        feed(c.fed);
        EXPECT_EQ(passes_gate(c.candidate), c.passes) << c.name;
    }
}

// A fit's accuracy, save and strength band follow its batch's worst deviation from the
// mean strength (200 counts here: five thousandths per count either side): up to 40
// thousandths high, up to 80 medium, beyond that low and not saved; the band is thrice
// the deviation, never narrower than 60 thousandths nor wider than the anomaly's 150. A
// planar estimate's band is the anomaly's.
TEST(KitRuleEdges, AFitIsJudgedByItsBatchsWorstDeviationAndGivenThriceItAsItsBand) {
    const struct {
        int32_t deviation;  // counts either side of 200
        int8_t accuracy;
        int32_t band;
    } cases[] = {{0, KMXC_SERVICE_HIGH, 60},     {4, KMXC_SERVICE_HIGH, 60},     {5, KMXC_SERVICE_HIGH, 75},
                 {8, KMXC_SERVICE_HIGH, 120},    {9, KMXC_SERVICE_MEDIUM, 135},  {10, KMXC_SERVICE_MEDIUM, 150},
                 {11, KMXC_SERVICE_MEDIUM, 150}, {16, KMXC_SERVICE_MEDIUM, 150}, {17, KMXC_SERVICE_LOW, 150}};
    for (const auto &c : cases) {
        feed({{200 - c.deviation, 0, 0}, {0, 200 + c.deviation, 0}});
        on_fit(KmxAxesData{0, 0, 0});
        EXPECT_EQ(g_state.base_accuracy, c.accuracy) << c.deviation;
        EXPECT_EQ(g_state.save_pending, c.accuracy != KMXC_SERVICE_LOW) << c.deviation;
        EXPECT_EQ(g_state.strength_band_permille, c.band) << c.deviation;
    }
    g_state.strength_band_permille = 60;
    trust_planar(KMXC_SERVICE_MEDIUM);
    EXPECT_EQ(g_state.strength_band_permille, KMXC_SERVICE_STRENGTH_TOLERANCE_PERMILLE);
}

// 75 thousandths of 200 counts, 185..215 inside, both a fresh fit's band here and half
// the tolerance. Outside the band the sample is flagged and the accuracy held at low for
// the anomaly's clear time, but no episode starts: an hour outside it neither demotes the
// offset nor empties anything. An episode under way goes on (unflagged) while the
// strength stays past half the tolerance, holding the accuracy down for its whole clear
// time after the last sample that kept it going.
TEST(KitRuleEdges, PastTheBandOrAnEpisodesHalfToleranceTheAccuracyIsHeldLowForTheClearTime) {
    constexpr int64_t kNow = kSeen + 1000, kHour = 3600 * int64_t{1000000000};
    for (const bool episode : {false, true})
        for (const int32_t strength : {184, 185, 215, 216}) {
            SCOPED_TRACE(::testing::Message() << strength << (episode ? " in an episode" : " against a fit's band"));
            if (episode) {
                trusted_at(9000, 200);  // the band the tolerance, the samples' angle the reference's
                g_state.in_anomaly = true;
                g_state.anomaly_level_cap = KMXC_SERVICE_LOW;
                g_state.last_anomaly_ns = g_state.anomaly_since_ns = kSeen;  // a short episode: the trust stays
            } else {
                feed({{195, 0, 0}, {0, 205, 0}});
                on_fit(KmxAxesData{0, 0, 0});  // high, its band 75
            }
            const bool past = strength == 184 || strength == 216;
            const int8_t held = past || episode ? KMXC_SERVICE_LOW : KMXC_SERVICE_HIGH;
            // Past the fit's band, one sample every 100 ms for an hour.
            const int64_t end = !episode && strength == 216 ? kNow + kHour : kNow;
            KmxcServiceEvent e{};
            for (int64_t t = kNow; t <= end; t += 100000000) {
                e = KmxcServiceEvent{};
                judge_anomaly(Vec3{0, 0, -4096}, strength, 0, KmxAxesData{0, 0, 0}, t, &e);
                ASSERT_EQ(accuracy_now(t), held) << "at " << t;
            }
            EXPECT_EQ(e.anomaly, past && !episode ? KMXC_SERVICE_ANOMALY_OUTSIDE_BAND : 0);
            EXPECT_EQ(e.flags & KMXC_SERVICE_ANOMALY, 0);
            EXPECT_EQ(g_state.in_anomaly, episode);
            EXPECT_TRUE(g_state.offset_trusted);
            const int64_t last = past ? end : kSeen;
            if (episode) { EXPECT_EQ(g_state.last_anomaly_ns, last); }
            EXPECT_EQ(accuracy_now(last + kClearNs - 1), held);
            EXPECT_EQ(accuracy_now(last + kClearNs), KMXC_SERVICE_HIGH);
        }
}

// A stored offset is confirmed, and a demoted one restored, by
// KMXC_SERVICE_CONFIRM_SAMPLES fed samples, not one fewer, that agree with it (their
// worst deviation from their mean within KMXC_SERVICE_AGREE_PERMILLE: 8 of 200 counts is,
// 9 is not); the stored one counts those fed since the start. A demoted one is restored
// only when their mean strength (through the correction in use) is within the tolerance
// of the reference: 230 of 200 counts is, 231 is not.
TEST(KitRuleEdges, AnOffsetIsConfirmedOrRestoredByAgreeingSamplesNearItsReferenceStrength) {
    constexpr int kAll = KMXC_SERVICE_CONFIRM_SAMPLES;
    const struct {
        const char *name;
        bool demoted;    // else stored, its confirmation pending
        int32_t hi, lo;  // the samples' strengths, four each (in turn along x and y)
        int samples;     // fed since the start (stored), judged (demoted)
        int anomalous;   // the judged sample that is an anomaly (-1: none)
        bool trusted;
    } cases[] = {
        {"stored, 208 and 192: the agreement's limit", false, 208, 192, kAll, -1, true},
        {"stored, 209 and 191: past it", false, 209, 191, kAll, -1, false},
        {"stored, a sample short", false, 200, 200, kAll - 1, -1, false},
        {"demoted, 230 of 200: within the tolerance", true, 230, 230, kAll, -1, true},
        {"demoted, 231: beyond it", true, 231, 231, kAll, -1, false},
        {"demoted, 208 and 192: the agreement's limit", true, 208, 192, kAll, -1, true},
        {"demoted, 209 and 191: past it", true, 209, 191, kAll, -1, false},
        {"demoted, a sample short", true, 200, 200, kAll - 1, -1, false},
        {"demoted, an anomaly among them: the count starts again", true, 200, 200, kAll, 3, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        g_state = State{};
        for (int i = 0; i < 8; ++i) remember_fed(i % 2 ? Vec3{0, c.lo, 0} : Vec3{c.hi, 0, 0}, Vec3{0, 0, -4096});
        KmxcServiceEvent e{};
        if (c.demoted) {
            g_state.reference = g_state.demoted = g_state.provisional = true;
            g_state.ref_strength = 200;
            e.flags = KMXC_SERVICE_FED;
            // The samples' own strengths, as judged, within the tolerance: the ring decides.
            for (int i = 0; i < c.samples; ++i)
                judge_anomaly(Vec3{0, 0, -4096}, i == c.anomalous ? 400 : 200, 0, KmxAxesData{0, 0, 0}, 1, &e);
        } else {
            g_state.stored_pending = true;
            g_state.confirm_count = c.samples;
            try_confirm(KmxAxesData{0, 0, 0}, &e);
        }
        EXPECT_EQ(g_state.offset_trusted, c.trusted);
        EXPECT_EQ((e.flags & KMXC_SERVICE_CONFIRMED) != 0, c.trusted);
    }
}

// The reported accuracy falls with the rules at once and rises with them only once the
// rise time has passed since it last fell, counted from the latest fall.
TEST(KitRuleEdges, TheAccuracyFallsAtOnceAndRisesOnlyTheRiseTimeAfterItsLastFall) {
    constexpr int64_t kRiseMs = KMXC_SERVICE_ACCURACY_RISE_MS;
    const struct {
        const char *name;
        int64_t t_ms;
        int8_t allowed, reported;
    } steps[] = {
        {"rises at once while it has never fallen", 0, 2, 2},
        {"... and on, to high", 100, 3, 3},
        {"falls at once", 200, 1, 1},
        {"a rise within the rise time waits", 700, 3, 1},
        {"a fall during the wait restarts it", 800, 0, 0},
        {"... so the first rise time passes in vain", 200 + kRiseMs, 2, 0},
        {"a moment short of the rise time after the latest fall: still waits", 800 + kRiseMs - 1, 2, 0},
        {"at exactly the rise time: rises, to what the rules allow then", 800 + kRiseMs, 2, 2},
        {"holding its level is no fall", 900 + kRiseMs, 2, 2},
        {"... so it rises on at once", 1000 + kRiseMs, 3, 3},
    };
    g_state = State{};
    for (const auto &s : steps) {
        SCOPED_TRACE(s.name);
        EXPECT_EQ(settled_accuracy(s.allowed, kSeen + s.t_ms * 1000000), s.reported);
    }
}

// The integer heading's axis: the kit tells the library the threshold that leaves the
// axis in use and records the axis the library then took. At each threshold and one
// count past it, from either axis and either sign of the y entry, the recorded axis is
// the one whose heading the library gave (a threshold of 0 forces the z axis, 4096 the
// y axis; the rows set the two headings tens of degrees apart).
TEST(KitRuleEdges, TheHeadingsAxisChangesOnlyPastTheThresholdThatLeavesIt) {
    constexpr int16_t kEnter = KMXC_SERVICE_DIRECTION_ENTER_Z, kLeave = KMXC_SERVICE_DIRECTION_LEAVE_Z;
    const struct {
        const char *name;
        bool was_z;
        int16_t up_y;
        bool z;
    } cases[] = {
        {"on y: at the entry threshold", false, kEnter, false},
        {"on y: one count past it", false, kEnter + 1, true},
        {"on y: one count past it, y pointing down", false, -kEnter - 1, true},
        {"on y: just past the leaving threshold", false, kLeave + 1, false},
        {"on z: at the leaving threshold", true, kLeave, false},
        {"on z: one count past it", true, kLeave + 1, true},
        {"on z: one count past it, y pointing down", true, -kLeave - 1, true},
        {"on z: at the entry threshold", true, kEnter, true},
    };
    for (const auto &c : cases) {
        KmxAxesAttitude a{{3000, 1000, 2000, -500, 2500, -3000, 0, c.up_y, 1000}, 0, 0, 0, {}, {}};
        const int32_t threshold = heading_threshold(c.was_z);
        uint16_t heading = 0, of_axis = 0, of_other = 0;
        KmxAxesLibCalcDirectionWOF(&a, &heading, threshold);
        const bool z = heading_on_z(c.up_y, threshold);
        EXPECT_EQ(z, c.z) << c.name;
        KmxAxesLibCalcDirectionWOF(&a, &of_axis, z ? 0 : 4096);
        KmxAxesLibCalcDirectionWOF(&a, &of_other, z ? 4096 : 0);
        EXPECT_EQ(heading, of_axis) << c.name;
        EXPECT_NE(heading, of_other) << c.name;
    }
}

// Entering a vehicle demotes only an offset trusted before it that the mount did not
// give: the planar estimate is the mount's own, so is a sphere of a store that already
// draws the mount's circle, and an untrusted one has nothing to lose. Every entry is
// flagged.
TEST(KitRuleEdges, EnteringAVehicleDemotesOnlyAnOffsetTrustedBeforeIt) {
    const struct {
        const char *name;
        bool trusted;
        uint8_t estimator;
        bool mounted;  // the store's circle lies about the vertical
        bool demoted;
    } cases[] = {
        {"the hand's store sphere", true, KMXC_SERVICE_ESTIMATOR_STORE_SPHERE, false, true},
        {"a stored offset, confirmed", true, KMXC_SERVICE_ESTIMATOR_STORED, false, true},
        {"the planar estimate (its store since emptied)", true, KMXC_SERVICE_ESTIMATOR_PLANAR, false, false},
        {"a sphere of the mount's store", true, KMXC_SERVICE_ESTIMATOR_STORE_SPHERE, true, false},
        {"nothing trusted", false, KMXC_SERVICE_ESTIMATOR_LIBRARY, false, false},
    };
    for (const auto &c : cases) {
        g_state = State{};
        g_state.offset_trusted = c.trusted;
        g_state.base_accuracy = KMXC_SERVICE_HIGH;
        g_state.estimator = c.estimator;
        g_state.planar.mounted = c.mounted;
        g_state.fed_count = 5;
        field_store_offer(&g_state.est.store, Vec3{100, 0, 0}, Vec3{0, 0, -4096}, nullptr, false, true);
        KmxcServiceEvent e{};
        on_vehicle_entered(&e);
        EXPECT_EQ(e.anomaly, KMXC_SERVICE_ANOMALY_VEHICLE) << c.name;
        EXPECT_EQ(g_state.demoted, c.demoted) << c.name;
        EXPECT_EQ(g_state.offset_trusted, c.trusted && !c.demoted) << c.name;
        EXPECT_EQ(g_state.est.store.count, c.demoted ? 0 : 1) << c.name;
        EXPECT_EQ(g_state.fed_count, c.demoted ? 0 : 5) << c.name;
        EXPECT_EQ(accuracy_now(0), c.trusted && !c.demoted ? KMXC_SERVICE_HIGH : KMXC_SERVICE_UNRELIABLE) << c.name;
    }
}

// The attitude's gravity on a mount's circle (about z, radius 100 counts, centre 0), the
// mount's mean and recent gravity straight down: the recent gravity once an acceleration
// has shown a vehicle; before, the measured gravity, its tilt known no better than its
// angle from the recent gravity (at least the mount's allowance); off the circle, or with
// another estimate in use, the measured gravity and no tilt term.
TEST(KitRuleEdges, TheAttitudeTakesTheRecentGravityOnlyInAVehiclesMount) {
    const Vec3 down{0, 0, -4096}, eight{0, 570, -4056};  // eight: 8.0 degrees from down
    constexpr uint8_t kPlanar = KMXC_SERVICE_ESTIMATOR_PLANAR, kSphere = KMXC_SERVICE_ESTIMATOR_STORE_SPHERE;
    constexpr int32_t kAllowance = KMXC_SERVICE_MOUNT_GRAVITY_SD_CDEG;
    const struct {
        const char *name;
        uint8_t estimator;
        bool vehicle;
        Vec3 field, g;
        bool recent;
        int32_t tilt_sd_cdeg;
    } cases[] = {
        {"a vehicle's mount: the recent gravity", kPlanar, true, {100, 0, 0}, eight, true, kAllowance},
        {"no acceleration seen, g near it: the allowance", kPlanar, false, {100, 0, 0}, down, false, kAllowance},
        {"no acceleration seen, g 8 degrees off it: 8 degrees", kPlanar, false, {100, 0, 0}, eight, false, 800},
        {"off the circle's plane", kPlanar, true, {100, 0, 40}, eight, false, 0},
        {"a sphere's offset in use", kSphere, true, {100, 0, 0}, eight, false, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        g_state = State{};
        g_state.estimator = c.estimator;
        g_state.planar.circle = CircleFit{Vec3{0, 0, 16384}, Vec3{0, 0, 0}, 1600, 0};
        mount_gravity_reset(&g_state.mount_gravity);
        for (int i = 0; i < 10; ++i) mount_gravity_track(&g_state.mount_gravity, down, down, true, 10);
        g_state.mount_gravity.vehicle = c.vehicle;
        KmxcServiceEvent e{};
        int32_t tilt_sd = -1;
        const Vec3 got = attitude_gravity(c.field, c.g, &e, &tilt_sd);
        const Vec3 want = c.recent ? down : c.g;
        EXPECT_TRUE(got.x == want.x && got.y == want.y && got.z == want.z);
        EXPECT_EQ((e.flags & KMXC_SERVICE_MOUNT_GRAVITY) != 0, c.recent);
        EXPECT_NEAR(tilt_sd, c.tilt_sd_cdeg, 2);
    }
}

// ---- Gravity's steady tilt, the anomalies' limits, and their persistence -------------

// Gravity of `scale` g tilted by `deg` from straight down (about x).
Vec3 tilted(double deg, double scale = 1) {
    return Vec3{0, int32_t(std::lround(4096 * scale * std::sin(deg * kPi / 180))),
                int32_t(std::lround(-4096 * scale * std::cos(deg * kPi / 180)))};
}

TEST(KitTilt, GravityIsSteadyWithinItsAngleOfTheRunningMeanAndWithinTheLengthBand) {
    const struct {
        const char *name;
        double jump_deg;  // a sample this far from a long-held gravity
        double scale;     // and this long (1: 1 g)
        int held;         // then held for this many samples more
        bool steady;
    } cases[] = {
        {"unchanged", 0, 1, 0, true},
        {"2.9 degrees off", 2.9, 1, 0, true},
        {"3.1 degrees off", 3.1, 1, 0, false},
        {"unchanged but 7 % long", 0, 1.07, 0, false},
        {"unchanged, 5 % long", 0, 1.05, 0, true},
        {"10 degrees off, held: the mean after a few time constants", 10, 1, 30, true},
    };
    for (const auto &c : cases) {
        g_state = State{};
        g_state.rate_hz = 10;
        for (int i = 0; i < 50; ++i) track_tilt(tilted(0));
        for (int i = 0; i <= c.held; ++i) track_tilt(tilted(c.jump_deg, c.scale));
        EXPECT_EQ(g_state.tilt_steady, c.steady) << c.name;
    }
}

// 0.4 uT per count: 10 uT is 25 counts, 100 uT is 250; the strength anomaly is more
// than 150 thousandths from the reference (of 120 counts: 102..138 inside). The dip is
// judged as an angle, six degrees either way of the reference's: at a steep field (an
// 84-degree dip: 6 degrees from gravity) the cosine moves by 0.005 for 6 degrees, 0.12 of
// it would hide a whole 20. It is judged only in steady gravity: |g| within 60
// thousandths of 4096 counts, so 3851..4341, and its direction steady (an acceleration
// may have turned it).
// A ring of fed samples of 120 counts, each at angle_deg[i] from its gravity (1 g, or
// `g_len` counts: unsteady when far from it), turned about the z axis by the golden
// angle. Returns the angles the whole-count samples make, in double.
std::vector<double> feed_angles(const std::vector<double> &angle_deg, int32_t g_len = 4096, double strength = 120) {
    g_state = State{};
    std::vector<double> exact;
    for (size_t i = 0; i < angle_deg.size(); ++i) {
        const double a = angle_deg[i] * kPi / 180, turn = static_cast<double>(i) * 2.4;
        const Vec3 m{static_cast<int32_t>(std::lround(strength * std::sin(a) * std::cos(turn))),
                     static_cast<int32_t>(std::lround(strength * std::sin(a) * std::sin(turn))),
                     static_cast<int32_t>(std::lround(-strength * std::cos(a)))};
        remember_fed(m, Vec3{0, 0, -g_len});
        exact.push_back(std::acos(m.z / -std::sqrt(double(m.x) * m.x + double(m.y) * m.y + double(m.z) * m.z)) * 180 /
                        kPi);
    }
    return exact;
}

// The dips' spread is the RMS of the angles between field and gravity about their mean
// (against the double formula, within what the permille cosines leave), judged only from
// KMXC_SERVICE_FIT_DIP_MIN_SAMPLES samples in steady gravity and away from the pole; a
// fit's dips agree up to the limit and what three times the chip's noise explains,
// added as squares.
TEST(KitRuleEdges, TheDipsSpreadIsTheirAnglesRmsAndAgreesUpToItsLimitAndTheChipsNoise) {
    const struct {
        const char *name;
        std::vector<double> angles;
        int32_t g_len;
        double sd_deg;  // the RMS about the mean, or -1: not judged
    } cases[] = {
        {"all at 30 degrees", {30, 30, 30, 30, 30, 30, 30, 30}, 4096, 0},
        {"30 plus or minus 2", {28, 32, 28, 32, 28, 32, 28, 32}, 4096, 2},
        {"30 plus or minus 5, 16 samples", std::vector<double>(16, 0), 4096, 5},
        {"a spread at 70 degrees", {66, 74, 70, 70, 66, 74, 70, 70}, 4096, 2.83},
        {"one short of the samples judged", {25, 35, 25, 35, 25}, 4096, -1},
        {"unsteady gravity is not judged", {25, 35, 25, 35, 25, 35, 25, 35}, 4700, -1},
        {"within 5 degrees of the pole", {3, 4, 3, 4, 3, 4, 3, 4}, 4096, -1},
    };
    for (const auto &c : cases) {
        std::vector<double> angles = c.angles;
        if (angles[0] == 0)
            for (size_t i = 0; i < angles.size(); ++i) angles[i] = i % 2 ? 25 : 35;
        const std::vector<double> exact = feed_angles(angles, c.g_len);
        const Agreement a = agreement(KmxAxesData{0, 0, 0}, g_state.fed_count);
        if (c.sd_deg < 0) {
            EXPECT_EQ(a.dip_sd_cdeg, -1) << c.name;
            EXPECT_TRUE(dips_agree(a)) << c.name << ": unjudged agrees";
            continue;
        }
        // The double formula: the whole-count samples' angles' RMS about their mean.
        double mean = 0, sq = 0;
        for (double x : exact) mean += x / static_cast<double>(exact.size());
        for (double x : exact) sq += (x - mean) * (x - mean) / static_cast<double>(exact.size());
        ASSERT_NEAR(std::sqrt(sq), c.sd_deg, 0.3) << c.name;
        EXPECT_NEAR(a.dip_sd_cdeg, 100 * std::sqrt(sq), 6 + 2 * c.sd_deg) << c.name;
    }
    // The limit: 200 centidegrees and three times s / |B| (s the noise the meter reads,
    // here its floor, in a 120-count field), as squares.
    feed_angles({30, 30, 30, 30, 30, 30, 30, 30});
    const double noise = 3 * 5730 * std::sqrt(noise_variance_q8() / 256.0) / 120;
    const int32_t limit = static_cast<int32_t>(std::sqrt(200.0 * 200.0 + noise * noise));
    ASSERT_GT(limit, 210) << "the noise widens it";
    for (const int32_t sd : {limit - 1, limit, limit + 1}) {
        const Agreement a{120, 0, 0, true, 866, true, sd};
        EXPECT_EQ(dips_agree(a), sd <= limit) << sd << " against " << limit;
    }
    // In a field far stronger than the noise the limit is itself.
    for (const int32_t sd : {200, 201}) {
        const Agreement a{30000, 0, 0, true, 866, true, sd};
        EXPECT_EQ(dips_agree(a), sd == 200) << sd;
    }
    // A chip whose readings scatter by 3 counts widens it further.
    Vec3 still{40, -30, 100};
    for (int t = 0; t < 80; ++t)
        note_noise(Vec3{still.x + (t * 7 % 7) - 3, still.y + (t * 5 % 7) - 3, still.z + (t * 3 % 7) - 3}, true);
    const Agreement wide{120, 0, 0, true, 866, true, limit + 50};
    EXPECT_TRUE(dips_agree(wide)) << "a noisier chip explains more";
}

// A library fit whose batch's strengths agree closely but whose dips spread beyond
// their limit, or whose strength is no Earth field's (20 to 81 uT: 50 to 202 counts), is
// worth low, and is not saved.
TEST(KitRuleEdges, ALibraryFitWhoseDipsDisagreeOrWhoseStrengthIsNoEarthFieldsIsLowAndNotSaved) {
    const struct {
        double wobble_deg, strength;
        int8_t accuracy;
    } cases[] = {{0, 120, KMXC_SERVICE_HIGH}, {1.5, 120, KMXC_SERVICE_HIGH}, {3, 120, KMXC_SERVICE_LOW},
                 {0, 49.4, KMXC_SERVICE_LOW}, {0, 50.4, KMXC_SERVICE_HIGH},  {0, 202.4, KMXC_SERVICE_HIGH},
                 {0, 203.4, KMXC_SERVICE_LOW}};
    for (const auto &c : cases) {
        std::vector<double> angles;
        for (int i = 0; i < 12; ++i) angles.push_back(i % 2 ? 30 - c.wobble_deg : 30 + c.wobble_deg);
        feed_angles(angles, 4096, c.strength);
        on_fit(KmxAxesData{0, 0, 0});
        EXPECT_EQ(g_state.base_accuracy, c.accuracy) << c.wobble_deg << " degrees, " << c.strength << " counts";
        EXPECT_EQ(g_state.save_pending, c.accuracy != KMXC_SERVICE_LOW) << c.wobble_deg << ", " << c.strength;
    }
}

TEST(KitRuleEdges, AnomaliesStartJustPastTheirLimitsAndTheDipOnlyInSteadyGravity) {
    constexpr uint8_t kRange = KMXC_SERVICE_ANOMALY_RANGE, kStrength = KMXC_SERVICE_ANOMALY_STRENGTH,
                      kDip = KMXC_SERVICE_ANOMALY_DIP;
    const struct {
        int32_t reference_cdeg;  // the reference angle between field and gravity (0: no reference)
        int32_t strength;        // counts
        double angle_deg;        // between field and gravity
        int32_t gravity;         // |g|, counts
        bool tilt_steady;
        uint8_t causes;
    } cases[] = {
        {0, 25, 0, 4096, true, 0},         {0, 24, 0, 4096, true, kRange},
        {0, 250, 0, 4096, true, 0},        {0, 251, 0, 4096, true, kRange},
        {3000, 138, 30, 4096, true, 0},    {3000, 139, 30, 4096, true, kStrength},
        {3000, 102, 30, 4096, true, 0},    {3000, 101, 30, 4096, true, kStrength},
        {3000, 120, 24.2, 4096, true, 0},  {3000, 120, 23.7, 4096, true, kDip},
        {3000, 120, 35.8, 4096, true, 0},  {3000, 120, 36.3, 4096, true, kDip},
        {600, 120, 11, 4096, true, 0},     {600, 120, 13, 4096, true, kDip},
        {3000, 120, 40, 4341, true, kDip}, {3000, 120, 40, 4342, true, 0},
        {3000, 120, 40, 3851, true, kDip}, {3000, 120, 40, 3850, true, 0},
        {3000, 120, 40, 4096, false, 0},
    };
    for (const auto &c : cases) {
        trusted_at(c.reference_cdeg, 120, c.tilt_steady);
        EXPECT_EQ(anomaly_of(Vec3{0, 0, -c.gravity}, c.strength, dip_permille(c.angle_deg)), c.causes)
            << "reference " << c.reference_cdeg << " cdeg, strength " << c.strength << ", angle " << c.angle_deg
            << ", |g| " << c.gravity << (c.tilt_steady ? "" : ", unsteady");
    }
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
        trusted_at(3000, 120, c.tilt_steady);
        KmxcServiceEvent e{};
        int8_t acc = 0;
        for (int64_t t = 1000000000; t <= 1000000000 + static_cast<int64_t>(c.for_s * 1e9); t += 100000000) {  // 10 Hz
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

// ---- The event's float fields ----------------------------------------------------------

// The orientation and the rotation vector come from the attitude's gravity alone (a
// mount's mean may stand for the sample's), the acceleration from the sample's, however
// many axes the two share.
TEST(EventFill, TheOrientationFollowsTheAttitudesGravityAndTheAccelerationTheSamples) {
    const KmxAxesData ms{60, -20, -100}, gs{500, 300, -4000}, offset{0, 0, 0};
    const struct {
        const char *name;
        KmxAxesData attitude;
    } cases[] = {
        {"the sample's own", gs},
        {"another x", {900, 300, -4000}},
        {"another y", {500, -300, -4000}},
        {"another z", {500, 300, -3000}},
    };
    for (const auto &c : cases) {
        // Each from a fresh library: its azimuth hold filter keeps the last azimuth.
        KmxcServiceEvent both{}, attitude{}, sample{};
        KmxAxesLibInit();
        kmxc_service_fill_floats(&ms, &gs, &c.attitude, &offset, &both);
        KmxAxesLibInit();
        kmxc_service_fill_floats(&ms, &c.attitude, &c.attitude, &offset, &attitude);
        KmxAxesLibInit();
        kmxc_service_fill_floats(&ms, &gs, &gs, &offset, &sample);
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(both.orientation_deg[k], attitude.orientation_deg[k]) << c.name;
            EXPECT_EQ(both.acceleration_ms2[k], sample.acceleration_ms2[k]) << c.name;
        }
        bool turned = false;
        for (int k = 0; k < 4; ++k) {
            EXPECT_EQ(both.rotation_vector[k], attitude.rotation_vector[k]) << c.name;
            turned = turned || both.rotation_vector[k] != sample.rotation_vector[k];
        }
        EXPECT_EQ(turned, c.attitude.x != gs.x || c.attitude.y != gs.y || c.attitude.z != gs.z) << c.name;
    }
}

}  // namespace
