// The planar estimator against an independent double-precision solution (Eigen) on
// random circles, axes, strengths, dips, arcs and noise, and its rules at their
// thresholds: the arc, the radius' agreement with the references, and the mount it tells
// the kit of; the reference circle's refinement against the same Gauss-Newton steps in
// double on each side of the bound where its sums change from 32-bit to 64-bit factors.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "calibration/calibration.h"
#include "service/kit_angle.h"
#include "service/kit_internal.h"
#include "service/kit_planar.h"
#include "service/kit_uncertainty.h"

namespace kmxc_kit {
State g_state;  // the rules' state, here the test's own
}  // namespace kmxc_kit

namespace {

using namespace kmxc_kit;
using Eigen::Vector3d;

constexpr double kPi = 3.14159265358979323846;

// A phone turned about the unit axis `down` (the way gravity pulls) in a field of strength
// F (counts) at angle theta from gravity: samples at angles spread over `arc_deg`, each
// axis tilted by up to `wobble_deg` at random (the body's roll, bumps) and by the road's
// slope, which changes along the drive as the heading turns (up to `slope_deg`, twice
// over per turn, from `hill_deg`): a constant slope only lifts or tilts the whole circle,
// but one that changes lifts some samples off the plane and sinks others, so each
// sample's own height matters; with noise.
struct Circle {
    Vector3d offset, down;
    double strength, theta_deg, arc_deg, wobble_deg, noise;
    int n;
    double slope_deg, hill_deg;  // the slope, and the hill's direction from the circle's start
};

Vec3 rounded(const Vector3d &v) {
    return Vec3{int32_t(std::lround(v.x())), int32_t(std::lround(v.y())), int32_t(std::lround(v.z()))};
}

FieldStore store_of(const Circle &c, std::mt19937 &rng) {
    std::normal_distribution<double> noise(0, c.noise);
    std::uniform_real_distribution<double> wob(-c.wobble_deg, c.wobble_deg);
    const Vector3d e1 = c.down.unitOrthogonal(), e2 = c.down.cross(e1);
    FieldStore s;
    field_store_clear(&s);
    const double th = c.theta_deg * kPi / 180;
    for (int i = 0; i < c.n; ++i) {
        const double phi = c.arc_deg * kPi / 180 * i / (c.n - 1);
        Vector3d f = c.strength * (std::cos(th) * c.down + std::sin(th) * (std::cos(phi) * e1 + std::sin(phi) * e2));
        // The axis tilts with the road about a horizontal direction (the body's roll),
        // and the vehicle pitches with the slope of the moment about its lateral axis
        // (fixed in the phone, taken as e2).
        f = Eigen::AngleAxisd(wob(rng) * kPi / 180, e1) * f;
        const double slope = c.slope_deg * std::sin(2 * phi + c.hill_deg * kPi / 180);
        f = Eigen::AngleAxisd(slope * kPi / 180, e2) * f;
        field_store_offer(&s, rounded(c.offset + f + Vector3d(noise(rng), noise(rng), noise(rng))),
                          rounded(4096 * c.down), nullptr, false, true);
    }
    return s;
}

// Gauss-Newton steps in double on |m - o|^2 = F^2 over the samples m, o moving along
// the columns of b: within a plane, or free (b the identity).
Vector3d gauss_newton(const std::vector<Vector3d> &m, Vector3d o, const Eigen::MatrixXd &b, double f, int steps) {
    for (int step = 0; step < steps; ++step) {
        Eigen::MatrixXd jtj = Eigen::MatrixXd::Zero(b.cols(), b.cols());
        Eigen::VectorXd jtr = Eigen::VectorXd::Zero(b.cols());
        for (const Vector3d &v : m) {
            const Eigen::VectorXd a = b.transpose() * (v - o);
            jtj += a * a.transpose();
            jtr += a * ((v - o).squaredNorm() - f * f) / 2;
        }
        o += b * jtj.ldlt().solve(jtr);
    }
    return o;
}

std::vector<Vector3d> fields_of(const FieldStore &s) {
    std::vector<Vector3d> m;
    for (int i = 0; i < s.count; ++i) m.emplace_back(s.sample[i].m[0], s.sample[i].m[1], s.sample[i].m[2]);
    return m;
}

// The independent solution: the plane's normal by Eigen's eigen-decomposition of the
// samples' covariance (signed by gravity); the offset held on the line F cos(theta)
// below the samples' mean along it, o = mean - F cos(theta) n + u e1 + v e2, with (u, v)
// by Gauss-Newton from the samples' mean; then o free on that sphere, to convergence.
// Also the arc the samples cover about the reference circle's centre (360 less the
// widest gap, degrees).
struct DoubleSolution {
    Vector3d offset;
    double arc_deg;
};

DoubleSolution double_solution(const FieldStore &s, const Vector3d &down, double F, double theta_deg) {
    const std::vector<Vector3d> m = fields_of(s);
    Vector3d mean = Vector3d::Zero();
    for (const Vector3d &v : m) mean += v / double(m.size());
    Eigen::Matrix3d cov = Eigen::Matrix3d::Zero();
    for (const Vector3d &v : m) cov += (v - mean) * (v - mean).transpose();
    Vector3d normal = Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d>(cov).eigenvectors().col(0);
    if (normal.dot(down) < 0) normal = -normal;
    Eigen::Matrix<double, 3, 2> plane;
    plane << normal.unitOrthogonal(), normal.cross(normal.unitOrthogonal());
    const Vector3d circle_centre = gauss_newton(m, mean - F * std::cos(theta_deg * kPi / 180) * normal, plane, F, 50);
    std::vector<double> angle;
    for (const Vector3d &v : m) {
        const Eigen::Vector2d a = plane.transpose() * (v - circle_centre);
        angle.push_back(std::atan2(a.y(), a.x()) * 180 / kPi);
    }
    std::sort(angle.begin(), angle.end());
    double widest = angle.front() + 360 - angle.back();
    for (size_t i = 1; i < angle.size(); ++i) widest = std::max(widest, angle[i] - angle[i - 1]);
    return DoubleSolution{gauss_newton(m, circle_centre, Eigen::Matrix3d::Identity(), F, 50), 360 - widest};
}

TEST(PlanarProperty, AgreesWithAnIndependentDoubleSolutionOnRandomCirclesAxesStrengthsAndDips) {
    std::mt19937 rng(2024);
    std::uniform_real_distribution<double> u(0, 1);
    int medium = 0;
    for (int trial = 0; trial < 300; ++trial) {
        Circle c;
        c.offset = Vector3d(u(rng) * 600 - 300, u(rng) * 600 - 300, u(rng) * 600 - 300);
        c.down = Vector3d(u(rng) - 0.5, u(rng) - 0.5, u(rng) - 0.5).normalized();
        c.strength = 62.5 + u(rng) * 100;                   // 25..65 uT
        c.theta_deg = 20 + u(rng) * 55;                     // dips 15..70 degrees
        if (u(rng) < 0.3) c.theta_deg = 180 - c.theta_deg;  // southern hemisphere
        c.arc_deg = 100 + u(rng) * 260;
        c.wobble_deg = u(rng) * 3;
        c.slope_deg = u(rng) * 5;  // roads up to 9 %
        c.hill_deg = u(rng) * 360;
        if (trial % 5 == 0) c.wobble_deg = c.slope_deg = 0;  // a flat road: the heights say little
        c.noise = 0.375 + u(rng) * 0.875;                    // 0.15..0.5 uT
        c.n = 20 + static_cast<int>(u(rng) * 13);
        const FieldStore s = store_of(c, rng);
        CircleFit fit;
        ASSERT_EQ(circle_fit(s, rounded(4096 * c.down), &fit), FitResult::kOk) << trial;
        const PlanarReference ref{static_cast<int32_t>(std::lround(c.strength)),
                                  static_cast<int32_t>(std::lround(c.theta_deg * 100))};
        PlanarEstimate est;
        planar_estimate(s, fit, &ref, Vec3{0, 0, 0}, &est);
        SCOPED_TRACE(::testing::Message() << "trial " << trial << " arc " << c.arc_deg << " theta " << c.theta_deg);
        ASSERT_NE(est.level, KMXC_SERVICE_UNRELIABLE);
        const DoubleSolution ds = double_solution(s, c.down, ref.strength, ref.angle_cdeg / 100.0);
        // The arc about the same centre: within what the offset's rounding (0.9 count)
        // turns a sample's angle at the circle's radius, and the atan2's resolution.
        const double radius = ref.strength * std::sin(ref.angle_cdeg * kPi / 18000);
        EXPECT_NEAR(est.arc_cdeg / 100.0, ds.arc_deg, 2 * 0.9 / radius * 180 / kPi + 0.1);
        const Vector3d o(est.offset.x, est.offset.y, est.offset.z);
        // Rounding to counts and the Q14 normal: within 1.2 counts of the double solution.
        EXPECT_LT((o - ds.offset).norm(), 1.2);
        // Across the axis (what turns the heading), within what noise and the axis'
        // wobble leave of the truth: the reference's rounding; the noise over the
        // samples, along the short arc's bisector where only its curvature places the
        // centre on the sphere (the strengths vary as 1 - cos over the arc's half angle
        // a, by a^2 / 6.7 RMS, on a circle sin(theta) of the sphere's radius); the
        // wobble's and the hill's lift of the vertical field into the plane (F cos(theta)
        // times the tilt), once directly and once through the heights the reference's
        // sphere turns into the centre's place (cot(theta) per unit height), the centre's
        // errors growing as the arc shortens below half a turn.
        const Vector3d err = o - c.offset, across = err - err.dot(c.down) * c.down;
        const double axial = c.strength * std::fabs(std::cos(c.theta_deg * kPi / 180));
        const double half = c.arc_deg * kPi / 360, sin_theta = std::sin(c.theta_deg * kPi / 180);
        const double bound = 1.5 +
                             4 * c.noise / std::sqrt(c.n) * std::max(360 / c.arc_deg, 6.7 / (half * half * sin_theta)) +
                             2 * axial * (c.wobble_deg + c.slope_deg) * kPi / 180 * std::max(1.0, 180 / c.arc_deg);
        EXPECT_LT(across.norm(), bound);
        medium += est.level == KMXC_SERVICE_MEDIUM;
        if (c.arc_deg < KMXC_SERVICE_PLANAR_CONFIRM_ARC_CDEG / 100.0 - 360.0 / (c.n - 1) - 2) {
            EXPECT_EQ(est.level, KMXC_SERVICE_LOW) << "a short arc cannot confirm the radius";
        }
    }
    EXPECT_GT(medium, 100);
}

// The rule tests' circle axis (the way gravity pulls) and a direction across it.
const Vector3d kAxis = Vector3d(0.2, -0.9, 0.3).normalized(), kSide = kAxis.unitOrthogonal();

// Gravity (counts, `scale` times 1 g) leaning lean_deg from the axis.
Vec3 leaning(double lean_deg, double scale = 1) {
    return rounded(4096.0 * scale * (Eigen::AngleAxisd(lean_deg * kPi / 180, kSide) * kAxis));
}

// The kit at 10 Hz with `store`, its circle fit due; the references those of the clean
// circles below (120 counts, a 60-degree dip), or none and a mean gravity of one sample
// along their axis instead; the library's offset at `in_use`, trusted (high) or not (low).
void kit_with(const FieldStore &store, const Vec3 &in_use, bool trusted, bool referenced = true) {
    g_state = State{};
    g_state.rate_hz = 10;
    g_state.est.store = store;
    g_state.planar.joins = KMXC_SERVICE_STORE_REFIT_JOINS;
    g_state.reference_known = referenced;
    if (!referenced) mount_gravity_track(&g_state.mount_gravity, leaning(0), leaning(0), true, 10);
    g_state.reference_strength_counts = 120;
    g_state.reference_dip_cdeg = 9000 - 3000;
    g_state.offset_trusted = trusted;
    g_state.base_accuracy = trusted ? KMXC_SERVICE_HIGH : KMXC_SERVICE_LOW;
    g_state.estimator = KMXC_SERVICE_ESTIMATOR_LIBRARY;
    const KmxAxesData o{in_use.x, in_use.y, in_use.z};
    KmxAxesLibSetMsOffset(&o);
}

// A clean circle (F 120 counts at theta 30 degrees: radius 60) over `arc`, its samples
// 9 degrees (9.4 counts) or more apart so that the store keeps every one (it refuses
// samples nearer than kStoreMinDistance) and the arc is the one drawn.
FieldStore clean(double arc_deg) {
    std::mt19937 rng(7);
    const int n = std::min(kStoreCapacity, 1 + static_cast<int>(arc_deg / 9));
    const FieldStore s = store_of(Circle{Vector3d(40, -30, 20), kAxis, 120, 30, arc_deg, 0, 0, n, 0, 0}, rng);
    EXPECT_EQ(s.count, n) << "the store keeps every sample of the arc";
    return s;
}

TEST(PlanarRules, TheArcAndTheRadiusDecideEachAtItsLimit) {
    const Vec3 down = leaning(0);
    const struct {
        const char *name;
        double arc_deg;          // the samples', at theta 30 degrees
        int32_t ref_theta_cdeg;  // the reference's (0: none)
        int8_t level;
    } cases[] = {
        {"a quarter turn and a little: low on the reference", 92, 3000, KMXC_SERVICE_LOW},
        {"just under a quarter turn: refused", 86, 3000, KMXC_SERVICE_UNRELIABLE},
        {"half a turn and a little: the radius confirms, medium", 184, 3000, KMXC_SERVICE_MEDIUM},
        {"just under half a turn: low", 176, 3000, KMXC_SERVICE_LOW},
        {"a full turn, the reference's dip 2.8 degrees off: medium", 350, 3280, KMXC_SERVICE_MEDIUM},
        {"a full turn, the reference's dip 3.4 degrees off: low", 350, 3340, KMXC_SERVICE_LOW},
        {"the other way, 3.4 degrees: low", 350, 2660, KMXC_SERVICE_LOW},
        {"no reference, a quarter turn and a little: low", 92, 0, KMXC_SERVICE_LOW},
        {"no reference, just under a quarter turn: refused", 86, 0, KMXC_SERVICE_UNRELIABLE},
        {"no reference, half a turn and a little: still low", 184, 0, KMXC_SERVICE_LOW},
    };
    for (const auto &c : cases) {
        const FieldStore s = clean(c.arc_deg);
        CircleFit fit;
        ASSERT_EQ(circle_fit(s, down, &fit), FitResult::kOk) << c.name;
        const PlanarReference ref{120, c.ref_theta_cdeg};
        PlanarEstimate est;
        planar_estimate(s, fit, c.ref_theta_cdeg != 0 ? &ref : nullptr, Vec3{40, -30, 20}, &est);
        EXPECT_EQ(est.level, c.level) << c.name << " (arc " << est.arc_cdeg << ", radius " << fit.radius_q4 << " in "
                                      << est.radius_low_q4 << ".." << est.radius_high_q4 << ")";
    }
}
// A circle is fitted once KMXC_SERVICE_STORE_REFIT_JOINS samples have joined since the
// last one and the store holds kPlanarMinSamples, not a join or a sample sooner. The fit
// tells the kit it is in a mount (kit_internal.h: Planar::mounted), whichever estimate is
// in use, until a fit finds none or the store is emptied; a cycle without a fit keeps
// it. A circle is a mount's when every sample's gravity lies within the limit of its axis
// (a phone turned about the vertical); one sample whose gravity leans beyond refuses it
// (a hand turning the phone about another axis).
TEST(PlanarRules, ACircleIsFittedWhenDueAndTellsOfAMountUntilTheStoreLeavesIt) {
    constexpr int kJoins = KMXC_SERVICE_STORE_REFIT_JOINS;
    const double limit = kPlanarAxisGravityCdeg / 100.0;
    const struct {
        const char *name;
        double arc_deg;  // clean(): a sample every 9 degrees
        int joins;
        bool allowed;     // no other fit ran in the cycle
        double lean_deg;  // one sample's gravity from the circle's axis
        bool emptied;     // the store emptied after the cycle
        bool fitted, mounted;
    } cases[] = {
        {"the refit's joins, the least samples: fitted", 9 * (kPlanarMinSamples - 1), kJoins, true, 0, false, true,
         true},
        {"a join short", 90, kJoins - 1, true, 0, false, false, true},
        {"a sample short", 9 * (kPlanarMinSamples - 2), kJoins, true, 0, false, false, true},
        {"due, but another fit ran in the cycle", 90, kJoins, false, 0, false, false, true},
        {"one sample's gravity just inside the limit: a mount", 200, kJoins, true, limit - 0.5, false, true, true},
        {"one sample's gravity just beyond it: a hand, no mount", 200, kJoins, true, limit + 0.5, false, true, false},
        {"a mount, then the store emptied: none", 200, kJoins, true, 0, true, true, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const FieldStore s = clean(c.arc_deg);
        kit_with(s, Vec3{40, -30, 20}, false);
        // The store as the last cycle saw it: no join now but those counted.
        Planar &p = g_state.planar;
        p.joins = static_cast<uint8_t>(c.joins);
        p.seen_count = s.count, p.seen_last = s.last;
        for (int k = 0; k < 3; ++k) p.seen_m[k] = s.sample[s.last].m[k];
        p.mounted = c.fitted != c.mounted;   // the opposite of what a fit finds; what no fit keeps
        const Vec3 g = leaning(c.lean_deg);  // one sample's
        const int32_t v[3] = {g.x, g.y, g.z};
        for (int k = 0; k < 3; ++k) g_state.est.store.sample[3].g[k] = static_cast<int16_t>(v[k]);
        KmxcServiceEvent e{};
        EXPECT_EQ(planar_cycle(c.allowed, &e), c.fitted);
        if (c.emptied) {
            EXPECT_TRUE(p.mounted);
            field_store_clear(&g_state.est.store);
            planar_cycle(true, &e);
        }
        EXPECT_EQ(p.mounted, c.mounted);
    }
}

// What a judged circle does with the offset in use (the store: a full turn about the
// vertical, 40,-30,20 its centre; the references those of its strength and dip). An
// offset that describes the circle as well is kept, unless nothing trusts it and the
// estimate can: then the estimate, medium, takes over (a car whose own field is too
// weak to move the hand's offset, demoted on entering it). One that does not describe
// it gives way. A planar offset in use gives way to an estimate of the same level that
// moves it by KMXC_SERVICE_REPUBLISH_MIN_CHANGE along any axis, not to one that moves it
// less. A sample that joins the store after a circle's fit leaves that circle unjudged
// (it would be judged on other samples); one that joins after the judgement leaves the
// estimate to its adoption, which weighs it on the store as it then is. In a vehicle's
// turns samples join every few cycles: dropping judged estimates starved the adoption.
// Without the references (its axis then the mean gravity's) an estimate is low and known
// across its axis only: along it the offset is the old one's, as uncertain as the prior.
TEST(PlanarRules, TheOffsetInUseGivesWayToACircleThatItDoesNotFitOrThatTrustsMore) {
    constexpr int kMove = KMXC_SERVICE_REPUBLISH_MIN_CHANGE;
    const struct {
        const char *name;
        Vec3 in_use;
        bool planar, trusted;  // the offset in use a planar estimate's; trusted
        double arc_deg;
        bool replaced;
        int8_t accuracy;         // base accuracy after the judgement
        int join_after = 0;      // a sample joins after the fit (1) or the judgement (2)
        bool referenced = true;  // the strength and dip of a 3-D calibration are known
    } cases[] = {
        {"right, untrusted, a medium estimate: replaced", {40, -30, 20}, false, false, 350, true, KMXC_SERVICE_MEDIUM},
        {"right, untrusted, a low estimate: kept", {40, -30, 20}, false, false, 120, false, KMXC_SERVICE_LOW},
        {"right, trusted, a medium estimate: kept", {40, -30, 20}, false, true, 350, false, KMXC_SERVICE_HIGH},
        {"10 counts off, untrusted, low: replaced", {50, -30, 20}, false, false, 120, true, KMXC_SERVICE_LOW},
        {"planar, the distance along y: replaced", {40, -30 + kMove, 20}, true, false, 120, true, KMXC_SERVICE_LOW},
        {"planar, a count short of it on every axis: kept", {41, -31, 21}, true, false, 120, false, KMXC_SERVICE_LOW},
        {"off, a join after the fit: dropped unjudged", {90, -80, 70}, false, false, 200, false, KMXC_SERVICE_LOW, 1},
        {"off, a join after the judgement: replaced", {90, -80, 70}, false, false, 200, true, KMXC_SERVICE_MEDIUM, 2},
        {"no reference: low, axial part unknown", {90, -80, 70}, false, false, 350, true, KMXC_SERVICE_LOW, 0, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        kit_with(clean(c.arc_deg), c.in_use, c.trusted, c.referenced);
        if (c.planar) g_state.estimator = KMXC_SERVICE_ESTIMATOR_PLANAR;
        KmxcServiceEvent e{};
        for (int cycle = 0; cycle < 3; ++cycle) {  // the circle fitted, judged, adopted or not
            if (cycle == c.join_after && cycle > 0) {
                // A sample on the circle beyond the arc's end (250 degrees) joins.
                const FieldStore beyond = clean(250);
                const int count = g_state.est.store.count;
                field_store_offer(&g_state.est.store, stored_field(beyond, beyond.last),
                                  stored_gravity(beyond, beyond.last), nullptr, false, true);
                ASSERT_EQ(g_state.est.store.count, count + 1);
            }
            ASSERT_EQ(planar_cycle(true, &e), c.join_after != 1 || cycle == 0) << "cycle " << cycle;
        }
        EXPECT_FALSE(g_state.planar.pending || g_state.planar.judged) << "nothing waits";
        EXPECT_EQ((e.flags & KMXC_SERVICE_NEW_OFFSET) != 0, c.replaced);
        EXPECT_EQ(g_state.estimator == KMXC_SERVICE_ESTIMATOR_PLANAR, c.replaced || c.planar);
        EXPECT_EQ(g_state.base_accuracy, c.accuracy);
        if (!c.replaced) continue;
        // With the references the level alone caps it; without, the offset along the axis
        // is the old one's, as uncertain as the prior (a tilt turning it into the
        // horizontal caps the heading), and across it the circle's.
        const OffsetCovariance &p = g_state.est.cov;
        EXPECT_EQ(p.valid, !c.referenced);
        if (c.referenced) continue;
        constexpr double kPrior = kPriorVarianceCounts2 << kQ8;
        constexpr int kRow[6] = {0, 0, 0, 1, 1, 2}, kCol[6] = {0, 1, 2, 1, 2, 2};
        for (int k = 0; k < 6; ++k)
            EXPECT_NEAR(p.p_q8[k], kPrior * kAxis[kRow[k]] * kAxis[kCol[k]], 0.02 * kPrior) << k;
    }
}

// A circle counts only when it is flat: RMS off its plane within 1/FLATNESS of its
// radius; and only when its samples can lie on the reference's sphere. Without a
// reference its axis must be the vertical: the phone's mean gravity (any scale) within
// the mount's allowance of it; no mean, no vertical.
TEST(PlanarRules, ACircleIsFlatOnTheReferencesSphereAndWithoutOneAboutTheMeanGravity) {
    const FieldStore s = clean(200);
    CircleFit fit;
    ASSERT_EQ(circle_fit(s, Vec3{0, -4096, 0}, &fit), FitResult::kOk);
    const double limit = kPlanarAxisMeanGravityCdeg / 100.0;
    const struct {
        const char *name;
        double lean_deg;  // the mean gravity from the axis
        double scale;     // its length, g
        bool vertical;
    } cases[] = {
        {"along the axis", 0, 1, true},
        {"just inside the allowance", limit - 0.2, 1, true},
        {"just beyond it", limit + 0.2, 1, false},
        {"just inside, a mean of 40 samples' sum", limit - 0.2, 40, true},
        {"upside down", 180, 1, false},
        {"no mean", 0, 0, false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(planar_axis_vertical(fit, leaning(c.lean_deg, c.scale)), c.vertical) << c.name;
    Vec3 o{1, 2, 3};
    int32_t arc = -1;
    // A reference field along gravity: its circle is a point, and the samples (60 counts
    // from their axis, about half of them a little above their plane) have no place on its
    // sphere. Refused, offset and arc untouched.
    EXPECT_FALSE(planar_offset_from_reference(s, fit, PlanarReference{120, 0}, &o, &arc));
    EXPECT_EQ(o.x, 1);
    EXPECT_EQ(arc, -1);
    EXPECT_TRUE(planar_offset_from_reference(s, fit, PlanarReference{120, 3000}, &o, &arc)) << "its own reference";
    fit.radius_q4 -= fit.radius_q4 % KMXC_SERVICE_PLANAR_FLATNESS;  // the limit exactly
    fit.out_of_plane_q4 = fit.radius_q4 / KMXC_SERVICE_PLANAR_FLATNESS;
    EXPECT_TRUE(planar_circle(s, fit)) << "at the flatness limit";
    ++fit.out_of_plane_q4;
    EXPECT_FALSE(planar_circle(s, fit)) << "a sixteenth of a count beyond it";
}

// A flat arc of 240 degrees about a known centre (gravity along z), against the same
// Gauss-Newton steps in double, on each side of the bounds where each stage's sums change
// from 32-bit to 64-bit factors. The reference circle's: a reference of half the field's
// strength leaves every sample a residual of 3/4 of its squared radius, beyond 32 bits at
// 3500 counts. The sphere's (its factors within 2^17 / 256 = 512 counts): a circle of 300
// counts is within, one of 1000 beyond; at 3500 the sphere's residual, too, is beyond
// 32 bits.
TEST(PlanarSums, TheRefinementMatchesDoubleOnEachSideOfThe32BitBounds) {
    struct Case {
        double radius, reference_share;
    };
    for (const Case k : {Case{300, 1}, Case{1000, 1}, Case{1000, 0.5}, Case{3500, 0.5}}) {
        SCOPED_TRACE(::testing::Message() << "radius " << k.radius << " reference " << k.reference_share);
        const double strength = k.radius / std::sin(60 * kPi / 180);
        std::mt19937 rng(7);
        const Vector3d offset(40, -30, 20), down = Vector3d::UnitZ();
        const FieldStore s = store_of(Circle{offset, down, strength, 60, 240, 0, 0, kStoreCapacity, 0, 0}, rng);
        ASSERT_EQ(s.count, kStoreCapacity);
        // The circle as drawn (the circle fit refuses one this far beyond the Earth's).
        const CircleFit fit{Vec3{0, 0, 16384}, rounded(16 * (offset + strength / 2 * down)),
                            static_cast<int32_t>(std::lround(16 * k.radius)), 0};
        const PlanarReference ref{static_cast<int32_t>(std::lround(strength * k.reference_share)), 6000};
        Vec3 o{0, 0, 0};
        int32_t arc = 0;
        ASSERT_TRUE(planar_offset_from_reference(s, fit, ref, &o, &arc));
        // The same steps in double: the centre moves within the plane from F cos(60) below
        // the circle's to where |m - o| meets F, then freely.
        const double f = ref.strength;
        const Vector3d c(fit.centre_q4.x / 16.0, fit.centre_q4.y / 16.0, fit.centre_q4.z / 16.0);
        const std::vector<Vector3d> m = fields_of(s);
        const Vector3d on_circle = gauss_newton(m, c - f * std::cos(60 * kPi / 180) * down,
                                                Eigen::MatrixXd::Identity(3, 2), f, kPlanarRefineSteps);
        const Vector3d want = gauss_newton(m, on_circle, Eigen::Matrix3d::Identity(), f, kPlanarSphereSteps);
        EXPECT_LE((Vector3d(o.x, o.y, o.z) - want).cwiseAbs().maxCoeff(), 1);
    }
}

}  // namespace
