// The sphere, ellipsoid and circle fits on synthetic physics (random hard and soft
// iron, field strength, dip, noise and handling), each against an independent
// double-precision fit of the same model (Eigen); their accuracy against the truth;
// their refusals at their limits (too few samples, too little spread, a circle or a
// sphere flattened past what determines it), the ellipsoid's plausible axes, the
// circle's offsets from a reference, and the correction's rounding.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <random>
#include <utility>
#include <vector>

#include "service/circle_fit.h"
#include "service/ellipsoid_fit.h"
#include "service/kit_geometry.h"
#include "service/sphere_fit.h"

namespace {

using namespace kmxc_kit;
using Eigen::Matrix3d;
using Eigen::Vector3d;

constexpr double kPi = 3.14159265358979323846;
constexpr double kCountsPerUt = 2.5;

// ---- Synthetic physics ------------------------------------------------------------------

enum class Handling {
    kEverywhere,  // turned through every attitude
    kTilted90,    // any heading, pitch and roll within +-90 degrees: most of the sphere
    kHeldLevel,   // any heading, pitch and roll within +-30 degrees: a cap
    kCarMount,    // any heading, one fixed tilt: a circle
};

struct Phone {
    Vector3d offset;  // hard iron, counts
    Matrix3d soft;    // m = offset + soft * field
    Vector3d field;   // Earth frame (x north, y east, z down), counts
    double noise;     // counts, standard deviation per axis
    Matrix3d mount;   // a car mount's fixed tilt
    std::mt19937_64 rng;
};

Phone random_phone(uint64_t seed, bool soft_iron, double noise_ut) {
    Phone p{{}, Matrix3d::Identity(), {}, noise_ut * kCountsPerUt, Matrix3d::Identity(), std::mt19937_64(seed)};
    std::uniform_real_distribution<double> uni(0, 1);
    const double max_offset = 300 * kCountsPerUt;
    p.offset = Vector3d(uni(p.rng) * 2 - 1, uni(p.rng) * 2 - 1, uni(p.rng) * 2 - 1) * max_offset;
    const double strength = (25 + 40 * uni(p.rng)) * kCountsPerUt, dip = (10 + 70 * uni(p.rng)) * kPi / 180;
    p.field = strength * Vector3d(std::cos(dip), 0, std::sin(dip));
    if (soft_iron) {
        const Matrix3d q = Eigen::Quaterniond::UnitRandom().toRotationMatrix();
        const Vector3d axes(0.8 + 0.45 * uni(p.rng), 0.8 + 0.45 * uni(p.rng), 0.8 + 0.45 * uni(p.rng));
        p.soft = q * axes.asDiagonal() * q.transpose();
    }
    p.mount = (Eigen::AngleAxisd(0.6 * (uni(p.rng) - 0.5), Vector3d::UnitX()) *
               Eigen::AngleAxisd(0.6 * (uni(p.rng) - 0.5), Vector3d::UnitY()))
                  .toRotationMatrix();
    return p;
}

// Earth-to-phone rotation of one random attitude of the handling.
Matrix3d attitude(Phone &p, Handling h) {
    std::uniform_real_distribution<double> uni(-1, 1);
    if (h == Handling::kEverywhere) return Eigen::Quaterniond::UnitRandom().toRotationMatrix().transpose();
    const double limit = h == Handling::kTilted90 ? kPi / 2 : h == Handling::kHeldLevel ? kPi / 6 : 0;
    const Matrix3d r = (Eigen::AngleAxisd(kPi * uni(p.rng), Vector3d::UnitZ()) *
                        Eigen::AngleAxisd(limit * uni(p.rng), Vector3d::UnitY()) *
                        Eigen::AngleAxisd(limit * uni(p.rng), Vector3d::UnitX()))
                           .toRotationMatrix();
    return (h == Handling::kCarMount ? r * p.mount : r).transpose();
}

Vec3 rounded(const Vector3d &v) {
    return Vec3{static_cast<int32_t>(std::lround(v.x())), static_cast<int32_t>(std::lround(v.y())),
                static_cast<int32_t>(std::lround(v.z()))};
}
Vector3d as_double(const Vec3 &v) { return Vector3d(v.x, v.y, v.z); }

// The store after a stream of samples from the handling; mean gravity returned.
FieldStore handled(Phone &p, Handling h, int samples, Vector3d *mean_gravity = nullptr) {
    std::normal_distribution<double> gauss;
    FieldStore s;
    field_store_clear(&s);
    Vector3d gsum = Vector3d::Zero();
    for (int i = 0; i < samples; ++i) {
        const Matrix3d r = attitude(p, h);
        const Vector3d m =
            p.offset + p.soft * (r * p.field) + p.noise * Vector3d(gauss(p.rng), gauss(p.rng), gauss(p.rng));
        const Vector3d g = r * Vector3d(0, 0, 4096);
        gsum += g;
        field_store_offer(&s, rounded(m), rounded(g), nullptr, false, true);
    }
    if (mean_gravity != nullptr) *mean_gravity = gsum / samples;
    return s;
}

Eigen::MatrixXd fields_of(const FieldStore &s) {  // a sample a row
    Eigen::MatrixXd m(s.count, 3);
    for (int i = 0; i < s.count; ++i) m.row(i) = as_double(stored_field(s, i));
    return m;
}

// ---- Double-precision fits of the same models ---------------------------------------------

// The algebraic sphere (a circle in two dimensions) of the rows p of m: the centre and
// radius r minimising the sum of (|p - c|^2 - r^2)^2.
std::pair<Eigen::VectorXd, double> sphere_reference(const Eigen::MatrixXd &m) {
    const Eigen::RowVectorXd mean = m.colwise().mean();
    const Eigen::MatrixXd u = m.rowwise() - mean;
    const Eigen::VectorXd sq = u.rowwise().squaredNorm();
    const Eigen::VectorXd c = (u.transpose() * u).ldlt().solve(u.transpose() * sq / 2);
    return {mean.transpose() + c, std::sqrt(sq.mean() + c.squaredNorm())};
}

struct EllipsoidRef {
    Vector3d centre;
    Matrix3d w;
    Vector3d axes;  // descending
    double radius;
};
EllipsoidRef ellipsoid_reference(const Eigen::MatrixXd &m, const SphereFit &sphere, int ridge_bits) {
    const Vector3d c0 = as_double(sphere.offset);
    Eigen::Matrix<double, 9, 9> a = Eigen::Matrix<double, 9, 9>::Zero();
    Eigen::Matrix<double, 9, 1> r = Eigen::Matrix<double, 9, 1>::Zero();
    for (int i = 0; i < m.rows(); ++i) {
        const Vector3d u = m.row(i).transpose() - c0;
        Eigen::Matrix<double, 9, 1> f;
        f << u.x() * u.x() - u.z() * u.z(), u.y() * u.y() - u.z() * u.z(), 2 * u.x() * u.y(), 2 * u.x() * u.z(),
            2 * u.y() * u.z(), -2 * u.x(), -2 * u.y(), -2 * u.z(), 1;
        a += f * f.transpose(), r -= f * u.squaredNorm();
    }
    // The ridge, from the same whole numbers as the fit's.
    const int64_t r2 = int64_t{sphere.radius_q4} * sphere.radius_q4;
    const double lambda = double((int64_t(m.rows()) * ((r2 * r2) >> 16)) >> ridge_bits);
    a(0, 0) += 2 * lambda, a(1, 1) += 2 * lambda, a(0, 1) += lambda, a(1, 0) += lambda;
    for (int j = 2; j < 5; ++j) a(j, j) += 2 * lambda;
    const Eigen::Matrix<double, 9, 1> x = a.ldlt().solve(r);
    Matrix3d am;
    am << 1 + x(0), x(2), x(3), x(2), 1 + x(1), x(4), x(3), x(4), 1 - x(0) - x(1);
    const Vector3d b(x(5), x(6), x(7)), c = am.ldlt().solve(b);
    const Eigen::SelfAdjointEigenSolver<Matrix3d> es(am);
    const double g = std::cbrt(std::sqrt(am.determinant()));
    return {c0 + c, es.operatorSqrt() / g, es.eigenvalues().cwiseSqrt().reverse() / g, std::sqrt(b.dot(c) - x(8)) / g};
}

struct CircleRef {
    Vector3d normal, centre;
    double radius, out_of_plane;
};
CircleRef circle_reference(const Eigen::MatrixXd &m, const Vector3d &gravity) {
    const Vector3d mean = m.colwise().mean();
    const Eigen::MatrixXd u = m.rowwise() - mean.transpose();
    const Eigen::SelfAdjointEigenSolver<Matrix3d> es(u.transpose() * u);
    Vector3d n = es.eigenvectors().col(0);
    if (n.dot(gravity) < 0) n = -n;
    Eigen::Matrix<double, 3, 2> plane;  // two directions across the normal
    plane << n.unitOrthogonal(), n.cross(n.unitOrthogonal());
    const auto [c, radius] = sphere_reference(u * plane);
    return {n, mean + plane * c, radius, std::sqrt(es.eigenvalues()(0) / m.rows())};
}

// The fit's whole-count offset is the reference's rounded, except within a hundredth of
// a count of a tie.
void expect_rounded(const Vec3 &got, const Vector3d &want, const char *what) {
    const int32_t g[3] = {got.x, got.y, got.z};
    for (int k = 0; k < 3; ++k) {
        const double frac = want(k) - std::floor(want(k));
        if (std::fabs(frac - 0.5) < 0.01) {
            EXPECT_NEAR(g[k], want(k), 0.51) << what << " axis " << k;
        } else {
            EXPECT_EQ(g[k], std::lround(want(k))) << what << " axis " << k << " reference " << want(k);
        }
    }
}

// ---- The fits against their double-precision references -----------------------------------

// The same stores through both fits: each agrees with its double fit (offsets rounded,
// W and its axes within 2e-4, radii within a sixteenth); against the truth, the sphere
// fit finds a hard-iron offset and the ellipsoid fit, at either ridge (the estimate's
// and the showing fit's), a soft-iron one and its W.
TEST(SphereAndEllipsoidFits, AreTheirDoubleFitsRoundedAndRecoverHardAndSoftIron) {
    const struct {
        const char *name;
        Handling handling;
        bool soft_iron;
    } cases[] = {{"everywhere, hard iron", Handling::kEverywhere, false},
                 {"everywhere, soft iron", Handling::kEverywhere, true},
                 {"tilted 90, soft iron", Handling::kTilted90, true},
                 {"held level (a cap), hard iron", Handling::kHeldLevel, false}};
    const int ridges[2] = {kEllipsoidRidgeBits, kShownRidgeBits};
    double worst_w = 0, worst_axis = 0;
    for (const auto &c : cases) {
        double sphere_truth = 0, ellipsoid_truth[2] = {0, 0}, w_truth[2] = {0, 0};
        int fitted = 0;
        for (int trial = 0; trial < 100; ++trial) {
            Phone p = random_phone(1000 + trial, c.soft_iron, 0.5 * (trial % 5) / 4);
            const FieldStore s = handled(p, c.handling, 600);
            SphereFit sphere;
            const FitResult result = sphere_fit(s, &sphere);
            if (c.handling == Handling::kHeldLevel && result == FitResult::kIllConditioned) continue;
            ASSERT_EQ(result, FitResult::kOk) << c.name << " " << trial;
            const auto [centre, radius] = sphere_reference(fields_of(s));
            expect_rounded(sphere.offset, centre, c.name);
            EXPECT_NEAR(sphere.radius_q4 / 16.0, radius, 1 / 16.0 + 0.01) << c.name;
            sphere_truth = std::max(sphere_truth, (as_double(sphere.offset) - p.offset).norm());
            ++fitted;
            for (int k = 0; k < 2; ++k) {
                EllipsoidFit fit;
                const FitResult eresult = ellipsoid_fit(s, sphere, ridges[k], &fit);
                ASSERT_TRUE(eresult == FitResult::kOk || eresult == FitResult::kImplausible)
                    << c.name << " " << trial << " ridge " << ridges[k];
                const EllipsoidRef ref = ellipsoid_reference(fields_of(s), sphere, ridges[k]);
                expect_rounded(fit.offset, ref.centre, c.name);
                Matrix3d w;
                for (int i = 0; i < 9; ++i) w(i / 3, i % 3) = fit.w_q14[i] / 16384.0;
                worst_w = std::max(worst_w, (w - ref.w).cwiseAbs().maxCoeff());
                for (int a = 0; a < 3; ++a)
                    worst_axis = std::max(worst_axis, std::fabs(fit.axes_q14[a] / 16384.0 - ref.axes(a)));
                EXPECT_NEAR(fit.radius_q4 / 16.0, ref.radius, 1 / 16.0 + 0.01) << c.name;
                if (std::fabs(ref.axes(0) - 1.25) > 1e-3 && std::fabs(ref.axes(2) - 0.8) > 1e-3) {
                    EXPECT_EQ(eresult == FitResult::kOk, ref.axes(0) <= 1.25 && ref.axes(2) >= 0.8) << c.name;
                }
                // The truth: W is the soft iron's inverse, scaled to determinant 1.
                const Matrix3d inverse = p.soft.inverse(), truth = inverse / std::cbrt(inverse.determinant());
                ellipsoid_truth[k] = std::max(ellipsoid_truth[k], (as_double(fit.offset) - p.offset).norm());
                w_truth[k] = std::max(w_truth[k], (w - truth).cwiseAbs().maxCoeff());
            }
        }
        EXPECT_GT(fitted, 90) << c.name;
        if (c.handling != Handling::kEverywhere) continue;
        for (int k = 0; k < 2; ++k) {
            EXPECT_LT(c.soft_iron ? ellipsoid_truth[k] : sphere_truth, 3.0) << c.name;
            EXPECT_LT(w_truth[k], 0.05) << c.name;
        }
    }
    EXPECT_LT(worst_w, 2e-4);
    EXPECT_LT(worst_axis, 2e-4);
}

TEST(CircleFit, AgreesWithTheDoubleFitAndGivesTheOffsetFromAReferenceOrAPrior) {
    double worst_normal = 0;
    for (int trial = 0; trial < 200; ++trial) {
        Phone p = random_phone(3000 + trial, false, 0.5 * (trial % 5) / 4);
        Vector3d gravity;
        const FieldStore s = handled(p, Handling::kCarMount, 400, &gravity);
        CircleFit fit;
        ASSERT_EQ(circle_fit(s, rounded(gravity), &fit), FitResult::kOk) << trial;
        const CircleRef ref = circle_reference(fields_of(s), gravity);
        const Vector3d n = as_double(fit.normal_q14) / 16384;
        worst_normal = std::max(worst_normal, std::acos(std::min(1.0, n.normalized().dot(ref.normal))));
        EXPECT_NEAR(n.norm(), 1, 1e-4);
        EXPECT_LT((as_double(fit.centre_q4) / 16 - ref.centre).norm(), 0.1) << trial;
        EXPECT_NEAR(fit.radius_q4 / 16.0, ref.radius, 0.1) << trial;
        EXPECT_NEAR(fit.out_of_plane_q4 / 16.0, ref.out_of_plane, 0.1) << trial;

        // The reference field: strength, and angle to gravity (90 degrees minus the dip).
        const int32_t strength = static_cast<int32_t>(std::lround(p.field.norm()));
        const int32_t angle =
            static_cast<int32_t>(std::lround(9000 - std::asin(p.field.z() / p.field.norm()) * 18000 / kPi));
        Vec3 offset;
        int32_t mismatch;
        EXPECT_FALSE(circle_offset_from_reference(fit, strength, 0, &offset, &mismatch)) << "a field along the axis";
        ASSERT_TRUE(circle_offset_from_reference(fit, strength, angle, &offset, &mismatch));
        // Against the truth: the centre's noise, and the normal's tilt (its error grows as
        // the circle shrinks) times the axial component F cos(theta).
        const Vector3d axis = p.mount.transpose().col(2);  // the car's vertical in the phone
        const double tilt = std::acos(std::min(1.0, std::fabs(n.normalized().dot(axis))));
        EXPECT_LT((as_double(offset) - p.offset).norm(), 2.5 + 1.2 * p.field.z() * tilt) << trial;
        // The radius: noise (with the samples' rounding) over the circle's samples.
        const double sigma = std::sqrt(p.noise * p.noise + 1.0 / 12), radius = fit.radius_q4 / 16.0;
        EXPECT_LT(std::abs(mismatch), 5 + 4000 * sigma / std::sqrt(double(s.count)) / radius) << trial;
        // A prior off the truth along the axis and across it: the centre with the prior's
        // axial part, rounded.
        const Vec3 prior = rounded(p.offset + n.unitOrthogonal() * 40 + n * 25);
        const Vector3d centre = as_double(fit.centre_q4) / 16, nn = n.normalized();
        const Vector3d kept = centre + (as_double(prior) - centre).dot(nn) * nn;
        const Vec3 got = circle_offset_from_prior(fit, prior);
        EXPECT_LT((as_double(got) - kept).cwiseAbs().maxCoeff(), 0.51) << trial;
    }
    EXPECT_LT(worst_normal, 2e-4);
}

// ---- Refusals at their limits -------------------------------------------------------------

FieldStore store_with(const std::vector<Vec3> &fields) {
    FieldStore s;
    field_store_clear(&s);
    for (const Vec3 &m : fields) {
        s.sample[s.count] = StoredSample{
            {static_cast<int16_t>(m.x), static_cast<int16_t>(m.y), static_cast<int16_t>(m.z)}, {0, 0, 4096}};
        ++s.count;
    }
    return s;
}

// n samples 100 counts from c: spread over the sphere by the golden angle and flattened
// along z by flat, or with flat 0 evenly round the circle in the plane z = c.z; with far,
// the first moved to far counts from c along x.
std::vector<Vec3> points(int n, const Vec3 &c, double flat = 1, int far = 0) {
    std::vector<Vec3> v;
    for (int i = 0; i < n; ++i) {
        const double z = flat == 0 ? 0 : 1 - 2 * (i + 0.5) / n, r = std::sqrt(1 - z * z);
        const double a = flat == 0 ? 2 * kPi * i / n : i * 2.399963;
        v.push_back(rounded(as_double(c) + 100 * Vector3d(r * std::cos(a), r * std::sin(a), z * flat)));
    }
    if (far != 0) v[0] = Vec3{c.x + far, c.y, c.z};
    return v;
}

TEST(Fits, RefuseWhatTheSamplesDoNotDetermineEachAtItsLimit) {
    const Vec3 c{300, -200, 100};
    const auto at = [&](int x, int y, int z) { return Vec3{c.x + x, c.y + y, c.z + z}; };
    // Spread (z variance over x variance): samples +-64 on x and y, +-z1 and +-z2 on z give
    // 1024 * 2 (z1^2 + z2^2) / (2 * 64^2 * 2).
    const auto axes = [&](int z1, int z2) {
        return std::vector<Vec3>{at(64, 0, 0), at(-64, 0, 0), at(0, 64, 0), at(0, -64, 0),
                                 at(0, 0, z1), at(0, 0, -z1), at(0, 0, z2), at(0, 0, -z2)};
    };
    std::vector<Vec3> line;
    for (int i = 0; i < 8; ++i) line.push_back(at(10 * i, 20 * i, -30 * i));
    SphereFit sphere;
    ASSERT_EQ(sphere_fit(store_with(points(32, c)), &sphere), FitResult::kOk);
    enum Fit { kSphere, kEllipsoid, kCircle };
    const struct {
        const char *name;
        Fit fit;
        std::vector<Vec3> samples;
        FitResult result;
    } cases[] = {
        {"sphere: seven samples", kSphere, points(7, c), FitResult::kTooFew},
        {"sphere: eight samples", kSphere, points(8, c), FitResult::kOk},
        {"sphere: spread exactly 4/1024", kSphere, axes(4, 0), FitResult::kOk},
        {"sphere: spread 3/1024", kSphere, axes(3, 2), FitResult::kIllConditioned},
        {"sphere: a flat ring", kSphere, points(32, c, 0), FitResult::kIllConditioned},
        {"sphere: a sample beyond the span", kSphere, points(8, c, 1, 2600), FitResult::kOverflowRisk},
        {"ellipsoid: seventeen samples", kEllipsoid, points(17, c), FitResult::kTooFew},
        {"ellipsoid: eighteen samples", kEllipsoid, points(18, c), FitResult::kOk},
        {"ellipsoid: a sample beyond the span", kEllipsoid, points(32, c, 1, 1025), FitResult::kOverflowRisk},
        {"ellipsoid: a flat ring", kEllipsoid, points(32, c, 0), FitResult::kIllConditioned},
        {"ellipsoid: flattened to 0.7", kEllipsoid, points(32, c, 0.7), FitResult::kImplausible},
        {"circle: five samples", kCircle, points(5, c, 0), FitResult::kTooFew},
        {"circle: six samples", kCircle, points(6, c, 0), FitResult::kOk},
        {"circle: a line", kCircle, line, FitResult::kIllConditioned},
        {"circle: a sample beyond the span", kCircle, points(8, c, 0, 2600), FitResult::kOverflowRisk},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.name);
        const FieldStore s = store_with(k.samples);
        SphereFit sf{};
        EllipsoidFit ef{};
        CircleFit cf{};
        EXPECT_EQ(k.fit == kSphere      ? sphere_fit(s, &sf)
                  : k.fit == kEllipsoid ? ellipsoid_fit(s, sphere, kEllipsoidRidgeBits, &ef)
                                        : circle_fit(s, Vec3{0, 0, 4096}, &cf),
                  k.result);
        if (k.result == FitResult::kImplausible) { EXPECT_GT(ef.axes_q14[0], kAxisMaxQ14) << "filled"; }
    }
}

TEST(EllipsoidFit, AxesArePlausibleFromExactly08To125) {
    const struct {
        int32_t axes[3];
        bool plausible;
    } cases[] = {{{kAxisMaxQ14, 16384, kAxisMinQ14}, true},
                 {{kAxisMaxQ14 + 1, 16384, kAxisMinQ14}, false},
                 {{kAxisMaxQ14, 16384, kAxisMinQ14 - 1}, false},
                 {{16384, kAxisMinQ14 - 1, 13200}, false}};
    for (const auto &c : cases) EXPECT_EQ(axes_plausible(c.axes), c.plausible) << c.axes[0] << " " << c.axes[2];
}

// The kit corrects every sample with W: each component within half a count of W v.
TEST(EllipsoidFit, TheCorrectionAppliesAsItsMatrixRounded) {
    std::mt19937_64 rng(29);
    std::uniform_int_distribution<int32_t> comp(-65536, 65536), entry(-4000, 4000);
    for (int k = 0; k < 10000; ++k) {
        int16_t w[9];
        for (int i = 0; i < 9; ++i) w[i] = static_cast<int16_t>((i % 4 == 0 ? 16384 : 0) + entry(rng));
        const Vec3 v{comp(rng), comp(rng), comp(rng)};
        const Vector3d want =
            Eigen::Map<const Eigen::Matrix<int16_t, 3, 3, Eigen::RowMajor>>(w).cast<double>() * as_double(v) / 16384;
        ASSERT_LE((as_double(apply_q14(w, v, 0)) - want).cwiseAbs().maxCoeff(), 0.5);
        ASSERT_LE((as_double(apply_q14(w, v, 4)) / 16 - want).cwiseAbs().maxCoeff(), 1 / 32.0);
    }
}

}  // namespace
