// The fixed-point solver and 3x3 eigen-routines against Eigen in double precision on
// random normal matrices of every scale the fits produce, the solver's pivot rule at
// its limit, the 96-bit product and the reciprocal against independent forms, the
// integer square roots by their defining property; and integer angles against double
// precision: every centidegree of the sine, arctangents over the whole 64-bit range,
// angles between vectors and steps about a normal from random geometry, each within
// the header's stated bound.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <random>
#include <vector>

#include "service/kit_angle.h"
#include "service/kit_geometry.h"
#include "service/kit_linalg.h"

namespace {

using namespace kmxc_kit;

// floor(a * b / 2^s) on magnitudes in unsigned 32-bit limbs, the floor of a negative
// product taken from the dropped bits: an independent form of the signed 96-bit product.
int64_t mul_shift_reference(int64_t a, int64_t b, int s) {
    const uint64_t ua = a < 0 ? 0 - static_cast<uint64_t>(a) : a, ub = b < 0 ? 0 - static_cast<uint64_t>(b) : b;
    const uint64_t lo = (ua & 0xFFFFFFFF) * ub, mid = (ua >> 32) * ub + (lo >> 32);  // |a b| = mid 2^32 + low
    const uint64_t low = lo & 0xFFFFFFFF;
    const uint64_t q = s >= 32 ? mid >> (s - 32) : (mid << (32 - s)) | (low >> s);
    const bool dropped =
        s >= 32 ? (low != 0 || (mid & ((uint64_t{1} << (s - 32)) - 1)) != 0) : (low & ((uint64_t{1} << s) - 1)) != 0;
    return (a < 0) != (b < 0) ? -static_cast<int64_t>(q) - (dropped ? 1 : 0) : static_cast<int64_t>(q);
}

TEST(KitLinalg, MulShiftIsTheExactFlooredProduct) {
    std::mt19937_64 rng(3);
    for (int i = 0; i < 200000; ++i) {
        const int s = static_cast<int>(rng() % 64);
        int64_t b = static_cast<int64_t>(rng() >> (33 + rng() % 31));  // up to 2^31
        if (rng() & 1) b = -b;
        // a such that the result fits: |a| below 2^(63 + s - 31).
        const int abits = std::min(63, 32 + s);
        int64_t a = static_cast<int64_t>(rng() >> (64 - abits + static_cast<int>(rng() % 8)));
        if (rng() & 1) a = -a;
        ASSERT_EQ(mul_shift(a, b, s), mul_shift_reference(a, b, s)) << a << " * " << b << " >> " << s;
    }
    EXPECT_EQ(mul_shift(-(int64_t{1} << 40), int64_t{1} << 31, 63), -(int64_t{1} << 8)) << "b of exactly 2^31";
}

TEST(KitLinalg, ReciprocalDivisionIsWithinItsRelativePrecisionBelowTheQuotient) {
    std::mt19937_64 rng(5);
    for (int i = 0; i < 100000; ++i) {
        const int64_t d = static_cast<int64_t>(rng() >> (2 + rng() % 61)) | 1;
        const int64_t x = static_cast<int64_t>(rng() >> (34 + rng() % 30));
        const int up = static_cast<int>(rng() % 31);
        const int64_t got = divide(x, reciprocal(d), up), want = (x << up) / d;
        ASSERT_TRUE(got <= want && got >= want - 1 - (want >> 30)) << x << " * 2^" << up << " / " << d << ": " << got;
    }
    EXPECT_EQ(divide(12345, reciprocal(int64_t{1} << 20), 20), 12345) << "powers of two exactly";
}

// Normal matrices of random features (the fits' kind), n = 1..9, scales from 1 to 2^23
// per feature and columns correlated toward the pivot limit: refused exactly when a
// pivot (unpivoted, equilibrated, as the solver takes them) is below 2^-12, else within
// 1e-6 of the solution's equilibrated size times the condition of Eigen's solution.
TEST(KitLinalg, SolveAgreesWithDoublePrecisionOnRandomNormalEquations) {
    std::mt19937_64 rng(9);
    std::normal_distribution<double> gauss;
    int solved = 0;
    for (int trial = 0; trial < 3000; ++trial) {
        const int n = 1 + trial % kSolveMaxUnknowns, rows = n + 1 + static_cast<int>(rng() % 30);
        Eigen::MatrixXd f(rows, n);
        for (int j = 0; j < n; ++j) {
            const double scale = std::ldexp(1.0, static_cast<int>(rng() % 24));
            for (int i = 0; i < rows; ++i) f(i, j) = std::round(gauss(rng) * scale);
        }
        if (n > 1 && trial % 3 == 0)
            f.col(n - 1) = f.col(0) + (f.col(n - 1) / (1 << (rng() % 6))).array().round().matrix();
        Eigen::VectorXd t(rows);
        for (int i = 0; i < rows; ++i) t(i) = std::round(gauss(rng) * std::ldexp(1.0, static_cast<int>(rng() % 20)));
        const Eigen::MatrixXd ad = f.transpose() * f;
        const Eigen::VectorXd bd = f.transpose() * t, xd = ad.ldlt().solve(bd);
        int64_t a[81], b[9], x[9];
        int8_t frac[9];
        for (int i = 0; i < n; ++i) {
            b[i] = static_cast<int64_t>(bd(i));
            for (int j = 0; j < n; ++j) a[i * n + j] = static_cast<int64_t>(ad(i, j));
            frac[i] = static_cast<int8_t>(std::clamp(40 - std::ilogb(std::fabs(xd(i)) + 1e-30), 0, 60));
        }
        const FitResult result = solve_spd(n, a, b, frac, x);
        const Eigen::VectorXd s = ad.diagonal().cwiseSqrt().cwiseInverse();
        const Eigen::MatrixXd eq = s.asDiagonal() * ad * s.asDiagonal();
        // The pivots in order: the squares of the unpivoted Cholesky factor's diagonal (none
        // when a feature rounded to nothing or the elimination fails).
        const Eigen::LLT<Eigen::MatrixXd> llt(eq);
        const double min_pivot = ad.diagonal().minCoeff() == 0 || llt.info() != Eigen::Success
                                     ? 0
                                     : llt.matrixLLT().diagonal().array().square().minCoeff();
        const double limit = std::ldexp(1.0, -kSolvePivotBits);
        if (min_pivot < 0.99 * limit) {
            EXPECT_EQ(result, FitResult::kIllConditioned) << "pivot " << min_pivot;
            continue;
        }
        if (min_pivot < 1.01 * limit) continue;  // too near the limit to call
        ASSERT_EQ(result, FitResult::kOk) << "n " << n << " pivot " << min_pivot;
        ++solved;
        const double cond = 1.0 / Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd>(eq).eigenvalues().minCoeff();
        const double size = xd.cwiseQuotient(s).norm();
        for (int i = 0; i < n; ++i)
            EXPECT_NEAR(std::ldexp(double(x[i]), -frac[i]), xd(i),
                        1e-6 * cond * size * s(i) + std::ldexp(1.0, -frac[i]))
                << "n " << n << " unknown " << i;
    }
    EXPECT_GT(solved, 2000);
}

// The pivot rule at its limit: [[4096, 64 * 4095], [64 * 4095, 4096 * 4095]] has its
// second pivot exactly 2^-12 of its diagonal; one unit less on that diagonal is below.
TEST(KitLinalg, SolveRefusesAPivotJustBelowItsLimitAndWhatIsNotPositiveDefinite) {
    const int8_t frac[3] = {20, 20, 20};
    int64_t x[3];
    const struct {
        const char *name;
        int n;
        int64_t a[9], b[3];
        FitResult result;
    } cases[] = {
        {"pivot exactly 2^-12", 2, {4096, 262080, 262080, 16773120}, {1, 1}, FitResult::kOk},
        {"pivot just below 2^-12", 2, {4096, 262080, 262080, 16773119}, {1, 1}, FitResult::kIllConditioned},
        {"zero diagonal", 2, {0, 0, 0, 5}, {1, 1}, FitResult::kIllConditioned},
        {"negative diagonal", 1, {-3}, {1}, FitResult::kIllConditioned},
        {"not positive definite", 2, {4, 5, 5, 4}, {1, 1}, FitResult::kIllConditioned},
        {"solution beyond its format", 1, {1}, {int64_t{1} << 50}, FitResult::kOverflowRisk},
        {"zero right-hand side", 3, {2, 1, 0, 1, 2, 1, 0, 1, 2}, {0, 0, 0}, FitResult::kOk},
    };
    for (const auto &c : cases) EXPECT_EQ(solve_spd(c.n, c.a, c.b, frac, x), c.result) << c.name;
    EXPECT_EQ(x[0] | x[1] | x[2], 0) << "zero right-hand side";
    const int64_t a1[1] = {3}, b1[1] = {-7};
    const int8_t f0[1] = {0};
    ASSERT_EQ(solve_spd(1, a1, b1, f0, x), FitResult::kOk);
    EXPECT_EQ(x[0], -2) << "-7/3 rounded to nearest";
}

// Random covariances from full to flat and thin, scales 2^10..2^60: eigenvalues within
// the stated bound, the smallest eigenvector within 2^-20 of Eigen's direction (gaps
// of a hundredth of the largest eigenvalue and more).
TEST(KitLinalg, EigenvaluesAndSmallestVectorAgreeWithDoublePrecision) {
    std::mt19937_64 rng(13);
    std::normal_distribution<double> gauss;
    double worst_vector = 0;
    for (int trial = 0; trial < 20000; ++trial) {
        const Eigen::Matrix3d q = Eigen::Quaterniond::UnitRandom().toRotationMatrix();
        Eigen::Vector3d ev(1, std::ldexp(1.0, -static_cast<int>(rng() % 8)),
                           std::ldexp(1.0, -static_cast<int>(rng() % 24)));
        if (trial % 5 == 0) ev(1) = ev(0);  // a double eigenvalue
        const double scale = std::ldexp(1.0, 10 + static_cast<int>(rng() % 50));
        const Eigen::Matrix3d m = q * (ev * scale).asDiagonal() * q.transpose();
        const Eigen::Matrix3d r = ((m + m.transpose()) / 2).array().round();  // whole and symmetric
        int64_t s[6] = {int64_t(r(0, 0)), int64_t(r(0, 1)), int64_t(r(0, 2)),
                        int64_t(r(1, 1)), int64_t(r(1, 2)), int64_t(r(2, 2))};
        const Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> es(r);
        int64_t lambda[3];
        sym3_eigenvalues(s, lambda);
        const Eigen::Vector3d want = es.eigenvalues().reverse();
        const double spread = (want.array() - want.mean()).abs().maxCoeff();
        for (int k = 0; k < 3; ++k) {
            const double err = std::fabs(double(lambda[k]) - want(k)), truncation = std::ldexp(want(0), -25) + 1;
            ASSERT_LE(err, 3e-4 * spread + truncation) << trial;
        }
        int64_t v[3];
        ASSERT_TRUE(sym3_smallest_vector(s, v));
        if (want(1) - want(2) > 1e-2 * want(0)) {
            const Eigen::Vector3d got{static_cast<double>(v[0]), static_cast<double>(v[1]), static_cast<double>(v[2])};
            worst_vector = std::max(worst_vector, 1 - std::fabs(got.normalized().dot(es.eigenvectors().col(0))));
            EXPECT_NEAR(got.norm(), 1073741824.0, 4);
        }
    }
    EXPECT_LT(worst_vector, 1e-12);
    const int64_t diagonal[6] = {5, 0, 0, 9, 0, -2}, line[6] = {1, 1, 1, 1, 1, 1}, disc[6] = {5, 0, 0, 2, 0, 2};
    int64_t lambda[3], v[3];
    sym3_eigenvalues(diagonal, lambda);
    EXPECT_TRUE(lambda[0] == 9 && lambda[1] == 5 && lambda[2] == -2) << "a diagonal matrix exactly";
    EXPECT_FALSE(sym3_smallest_vector(line, v)) << "rank one: no plane";
    ASSERT_TRUE(sym3_smallest_vector(disc, v)) << "a double smallest eigenvalue: any vector of its plane";
    EXPECT_TRUE(v[0] == 0 && std::llabs(v[1]) + std::llabs(v[2]) >= 1073741822);
}

// r = floor(sqrt(v)) exactly when r^2 <= v < (r + 1)^2: checked at 0, at every power of
// two and each square's neighbours across the full width, and on random values.
TEST(KitGeometry, IntegerRootsAreFloorsOverEveryWidth) {
    const auto floor_root64 = [](uint64_t v, uint64_t r) {
        // r below 2^32: r^2 fits, and v < (r + 1)^2 is v - r^2 <= 2r without the overflow.
        if (r > UINT32_MAX) return false;
        const uint64_t sq = r * r;
        return sq <= v && v - sq <= 2 * r;
    };
    std::vector<uint64_t> values{0, 1, 2, 3, 4, 5, UINT32_MAX, UINT64_MAX, UINT64_MAX - 1};
    for (int b = 0; b < 64; ++b) values.push_back(uint64_t{1} << b);
    for (uint64_t r :
         {uint64_t{2}, uint64_t{3}, uint64_t{65535}, uint64_t{65536}, uint64_t{3037000499}, uint64_t{4294967295}})
        for (uint64_t d : {uint64_t{0}, uint64_t{1}}) values.push_back(r * r - d);
    std::mt19937_64 rng(11);
    for (int i = 0; i < 20000; ++i) values.push_back(rng() >> (rng() % 64));
    for (const uint64_t v : values) {
        ASSERT_TRUE(floor_root64(v, isqrt64(v))) << v;
        if (v <= UINT32_MAX) { ASSERT_EQ(isqrt32(static_cast<uint32_t>(v)), isqrt64(v)) << v; }
    }
}

// length_q4 is floor(16 |v|) and length its whole counts, and dip_cos the true cosine
// within 1/1000 (its field length in 1/16 count, its quotient truncated), for fields
// from a count to 2^14 counts per axis and gravity from a tenth of a g to 4 g: the
// 32-bit root and division cover an Earth field, the wider ones the rest.
TEST(KitGeometry, LengthsInSixteenthsAndDipCosinesAgreeWithDoublePrecision) {
    std::mt19937 rng(23);
    std::uniform_real_distribution<double> unit(-1, 1);
    for (int i = 0; i < 20000; ++i) {
        const double fscale = std::pow(2.0, (i % 15)), gscale = 400 + (rng() % 16000);
        const Vec3 f{static_cast<int32_t>(unit(rng) * fscale), static_cast<int32_t>(unit(rng) * fscale),
                     static_cast<int32_t>(unit(rng) * fscale)};
        const Vec3 g{static_cast<int32_t>(unit(rng) * gscale), static_cast<int32_t>(unit(rng) * gscale),
                     static_cast<int32_t>(unit(rng) * gscale)};
        const double lf = std::sqrt(double(f.x) * f.x + double(f.y) * f.y + double(f.z) * f.z);
        const double lg = std::sqrt(double(g.x) * g.x + double(g.y) * g.y + double(g.z) * g.z);
        ASSERT_EQ(length_q4(f), static_cast<int32_t>(std::floor(16 * lf + 1e-9))) << f.x << " " << f.y << " " << f.z;
        ASSERT_EQ(length_q4(f) >> 4, length(f));
        if (lf < 1 || lg < 1) continue;
        const double cosine = (double(f.x) * g.x + double(f.y) * g.y + double(f.z) * g.z) / (lf * lg);
        // The sixteenth's floor lifts it by up to 1/(16 |f|) of itself, the truncation
        // takes up to 1/1000 off it.
        const double lift = std::fabs(cosine) / (16 * lf - 1) + std::fabs(cosine) / (lg - 1);
        ASSERT_NEAR(dip_cos(f, g), 1000 * cosine, 1 + 1000 * lift) << f.x << " " << f.y << " " << f.z << " / " << g.x;
    }
}

// ---- Angles ------------------------------------------------------------------------------

constexpr double kPi = 3.14159265358979323846;
double cdeg_of(double rad) { return rad * 18000.0 / kPi; }
// Difference of two angles in centidegrees, folded into -18000..18000.
double angle_diff(double a, double b) { return std::remainder(a - b, 36000.0); }

TEST(KitAngle, SineAndCosineOfEveryCentidegreeWithinOneQ14Unit) {
    for (int32_t c = -2 * kCdegPerTurn; c <= 2 * kCdegPerTurn; ++c) {
        const double rad = c * kPi / 18000.0;
        ASSERT_LE(std::fabs(sin_q14(c) - 16384.0 * std::sin(rad)), 1.0) << c;
        ASSERT_LE(std::fabs(cos_q14(c) - 16384.0 * std::cos(rad)), 1.0) << c;
    }
}

// Magnitudes from 1 to 2^62 on both axes and every octant; the worst error is the
// stated bound.
TEST(KitAngle, Atan2WithinItsBoundOverEveryMagnitudeAndOctant) {
    std::mt19937_64 rng(7);
    double worst = 0;
    for (int i = 0; i < 200000; ++i) {
        const int by = 1 + static_cast<int>(rng() % 62), bx = 1 + static_cast<int>(rng() % 62);
        int64_t y = static_cast<int64_t>(rng() >> (64 - by)), x = static_cast<int64_t>(rng() >> (64 - bx));
        if (rng() & 1) y = -y;
        if (rng() & 1) x = -x;
        if (x == 0 && y == 0) continue;
        const double want = cdeg_of(std::atan2(static_cast<double>(y), static_cast<double>(x)));
        const int32_t got = atan2_cdeg(y, x);
        ASSERT_GE(got, -18000);
        ASSERT_LE(got, 18000);
        worst = std::max(worst, std::fabs(angle_diff(got, want)));
    }
    EXPECT_LE(worst, kAtan2MaxErrorCdeg);
    constexpr int64_t kMax = INT64_MAX;
    const struct {
        int64_t y, x;
        int32_t cdeg;
    } axes[] = {{0, 0, 0},    {0, 5, 0},        {5, 0, 9000},       {0, -5, 18000},     {-5, 0, -9000},
                {7, 7, 4500}, {-7, -7, -13500}, {kMax, kMax, 4500}, {-1, -kMax, -18000}};
    for (const auto &a : axes) EXPECT_EQ(atan2_cdeg(a.y, a.x), a.cdeg) << a.y << ", " << a.x;
}

// Random vectors (components up to the input limit, and of Earth-field size) and random
// Q14 normals: both functions within their bound of the double formulas, the step
// right-handed about the normal.
TEST(KitAngle, AnglesBetweenVectorsAndStepsAboutANormalWithinTheirBound) {
    std::mt19937_64 rng(11);
    std::uniform_int_distribution<int32_t> field(-32767, 32767);
    const auto vec = [](const Vec3 &v) { return Eigen::Vector3d(v.x, v.y, v.z); };
    double worst_between = 0, worst_step = 0;
    for (int i = 0; i < 100000; ++i) {
        std::uniform_int_distribution<int32_t> comp(-(i % 2 ? kAngleInputLimit : 300), i % 2 ? kAngleInputLimit : 300);
        const Vec3 a{comp(rng), comp(rng), comp(rng)}, b{comp(rng), comp(rng), comp(rng)};
        const double between = cdeg_of(std::atan2(vec(a).cross(vec(b)).norm(), vec(a).dot(vec(b))));
        worst_between = std::max(worst_between, std::fabs(angle_between_cdeg(a, b) - between));
        const Eigen::Vector3d nd = Eigen::Vector3d::Random().normalized() * 16384;
        const Vec3 n{static_cast<int32_t>(std::lround(nd.x())), static_cast<int32_t>(std::lround(nd.y())),
                     static_cast<int32_t>(std::lround(nd.z()))};
        const Vec3 p{field(rng), field(rng), field(rng)}, q{field(rng), field(rng), field(rng)};
        const Eigen::Vector3d u = vec(n).normalized(), pp = vec(p) - vec(p).dot(u) * u, qp = vec(q) - vec(q).dot(u) * u;
        const double step = cdeg_of(std::atan2(u.dot(pp.cross(qp)), pp.dot(qp)));
        worst_step = std::max(worst_step, std::fabs(angle_diff(angle_step_cdeg(n, p, q), step)));
    }
    EXPECT_LE(worst_between, kAngleMaxErrorCdeg);
    EXPECT_LE(worst_step, kAngleMaxErrorCdeg);
    const Vec3 z{0, 0, 16384};
    EXPECT_EQ(angle_step_cdeg(z, Vec3{100, 0, 0}, Vec3{0, 100, 0}), 9000) << "counter-clockwise seen from the tip";
    EXPECT_EQ(angle_step_cdeg(z, Vec3{0, 0, 100}, Vec3{100, 0, 0}), 0) << "along the normal: no angle";
    EXPECT_EQ(angle_between_cdeg(Vec3{0, 0, 0}, Vec3{1, 2, 3}), 0);
    EXPECT_EQ(angle_between_cdeg(Vec3{3, -4, 5}, Vec3{-6, 8, -10}), 18000);
}

}  // namespace
