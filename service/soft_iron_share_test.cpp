// The share of unmodelled soft iron in a fit's offset covariance: the integer unit
// against the same linearised posterior in double precision (Eigen) on random stores,
// and what the share must do physically: vanish over the whole sphere, grow on a cap,
// never exceed the prior's, shrink where the samples tell D.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <cmath>
#include <random>
#include <vector>

#include "service/soft_iron_share.h"

namespace {

using namespace kmxc_kit;
using Mat36 = Eigen::Matrix<double, 3, 6>;
using Mat6 = Eigen::Matrix<double, 6, 6>;

constexpr double kPi = 3.14159265358979323846;

struct Store {
    std::vector<Vec3> u;
    Vec3 centre;
    int32_t radius;
};

// n samples of a sphere of radius r about a random centre, their directions within
// cap_deg of a random axis, rounded to counts, with noise of sd counts.
Store random_store(std::mt19937_64 &rng, int n, double r, double cap_deg, double sd) {
    std::uniform_real_distribution<double> uni(0, 1);
    std::normal_distribution<double> gauss(0, 1);
    const Eigen::Vector3d axis = Eigen::Vector3d(gauss(rng), gauss(rng), gauss(rng)).normalized();
    const Eigen::Matrix3d frame = Eigen::Quaterniond::FromTwoVectors(Eigen::Vector3d::UnitZ(), axis).toRotationMatrix();
    Store s{{},
            Vec3{static_cast<int32_t>(uni(rng) * 600 - 300), static_cast<int32_t>(uni(rng) * 600 - 300),
                 static_cast<int32_t>(uni(rng) * 600 - 300)},
            static_cast<int32_t>(std::lround(r))};
    const double zmin = std::cos(cap_deg * kPi / 180);
    for (int i = 0; i < n; ++i) {
        const double z = 1 - (1 - zmin) * uni(rng), a = 2 * kPi * uni(rng), q = std::sqrt(1 - z * z);
        const Eigen::Vector3d d = frame * Eigen::Vector3d(q * std::cos(a), q * std::sin(a), z);
        s.u.push_back(Vec3{s.centre.x + static_cast<int32_t>(std::lround(r * d.x() + sd * gauss(rng))),
                           s.centre.y + static_cast<int32_t>(std::lround(r * d.y() + sd * gauss(rng))),
                           s.centre.z + static_cast<int32_t>(std::lround(r * d.z() + sd * gauss(rng)))});
    }
    return s;
}

// n S, exactly (whole numbers far below 2^53): n sum u u^T - sum u sum u^T.
void scatter(const Store &s, int64_t a[9]) {
    Eigen::MatrixX3d u(s.u.size(), 3);
    for (size_t i = 0; i < s.u.size(); ++i) u.row(i) << s.u[i].x, s.u[i].y, s.u[i].z;
    const Eigen::Vector3d su = u.colwise().sum();
    const Eigen::Matrix3d m = double(u.rows()) * u.transpose() * u - su * su.transpose();
    for (int i = 0; i < 9; ++i) a[i] = static_cast<int64_t>(m(i / 3, i % 3));
}

// The posterior share in double: X C X^T (and the prior's sd^2 X X^T), counts^2.
struct Shares {
    Eigen::Matrix3d posterior, prior;
};
Shares double_share(const Store &s, double sd, double noise) {
    const int n = static_cast<int>(s.u.size());
    Eigen::MatrixXd v(n, 3), w(n, 6);  // each sample's offset from the centre, and its features
    for (int i = 0; i < n; ++i) {
        const Eigen::Vector3d d(s.u[i].x - s.centre.x, s.u[i].y - s.centre.y, s.u[i].z - s.centre.z);
        v.row(i) = d;
        w.row(i) << d.x() * d.x(), d.y() * d.y(), d.z() * d.z(), 2 * d.x() * d.y(), 2 * d.x() * d.z(),
            2 * d.y() * d.z();
    }
    v.rowwise() -= v.colwise().mean();
    w.rowwise() -= w.colwise().mean();
    const Mat36 G = v.transpose() * w, X = (v.transpose() * v).ldlt().solve(G);
    const double k = 4.0 * s.radius * s.radius * noise;
    const Mat6 info = Mat6::Identity() / (sd * sd) + (w.transpose() * w - G.transpose() * X) / k;
    return {X * info.ldlt().solve(X.transpose()), sd * sd * X * X.transpose()};
}

Eigen::Matrix3d unpack(const int64_t p[6]) {
    Eigen::Matrix3d m;
    m << p[0], p[1], p[2], p[1], p[3], p[4], p[2], p[4], p[5];
    return m / 256.0;
}

double largest(const Eigen::Matrix3d &m) { return Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d>(m).eigenvalues()(2); }

// Random stores from a 30-degree cap to the whole sphere, 12 to 32 samples, priors of 1
// to 10 %: every entry within 1 % of the double share's largest eigenvalue plus 1/32
// count^2; the share never above the prior's alone; the two-step form the same to the bit.
TEST(SoftIronShare, MatchesTheDoublePrecisionPosteriorOnRandomStores) {
    std::mt19937_64 rng(77);
    std::uniform_real_distribution<double> uni(0, 1);
    int compared = 0;
    for (int trial = 0; trial < 400; ++trial) {
        const int n = 12 + static_cast<int>(uni(rng) * 21);
        const Store s = random_store(rng, n, 60 + 160 * uni(rng), 30 + 150 * uni(rng), 0.5);
        const int32_t sd = 10 + static_cast<int32_t>(uni(rng) * 90);
        const int64_t noise_q8 = 64 + static_cast<int64_t>(uni(rng) * 512);
        int64_t a[9], share[6];
        scatter(s, a);
        const FitResult r = soft_iron_share(s.u.data(), n, s.centre, s.radius, {sd, noise_q8}, a, share);
        // The same in two steps (two cycles), to the bit.
        int32_t x[kShareColumns];
        int64_t stepped[6];
        FitResult r2 = soft_iron_share_columns(s.u.data(), n, s.centre, a, x);
        if (r2 == FitResult::kOk)
            r2 = soft_iron_share_from_columns(s.u.data(), n, s.centre, s.radius, {sd, noise_q8}, x, stepped);
        ASSERT_EQ(r2, r) << "trial " << trial;
        if (r == FitResult::kIllConditioned || r == FitResult::kOverflowRisk) continue;  // a cap too thin to solve
        ASSERT_EQ(r, FitResult::kOk) << "trial " << trial;
        for (int e = 0; e < 6; ++e) EXPECT_EQ(stepped[e], share[e]) << "trial " << trial;
        ++compared;
        const Shares want = double_share(s, sd / 1000.0, noise_q8 / 256.0);
        const Eigen::Matrix3d got = unpack(share);
        const double tol = 0.01 * largest(want.posterior) + 1.0 / 32;
        EXPECT_LE((got - want.posterior).cwiseAbs().maxCoeff(), tol) << "trial " << trial;
        EXPECT_LE(largest(got), largest(want.prior) + tol) << "trial " << trial;
    }
    EXPECT_GT(compared, 300);
}

// What the share does with the coverage: small over the whole sphere, growing as the
// store shrinks to a cap; nothing without a prior; too many samples, or one out of
// span, refused.
TEST(SoftIronShare, GrowsAsTheStoreShrinksToACapAndVanishesWithoutAPrior) {
    const struct {
        const char *name;
        double cap_deg;
        double min_sd_counts, max_sd_counts;  // the share's largest direction, counts
    } cases[] = {
        {"the whole sphere: D is told, it cannot move the centre", 180, 0, 0.3},
        {"a hemisphere: part of D turns into offset", 90, 0.5, 6},
        {"a 45-degree cap: most of D's share stays", 45, 2, 30},
    };
    double previous = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::mt19937_64 rng(5);
        Store s = random_store(rng, 32, 120, c.cap_deg, 0.3);
        int64_t a[9], share[6];
        scatter(s, a);
        ASSERT_EQ(soft_iron_share(s.u.data(), 32, s.centre, s.radius, {20, 40}, a, share), FitResult::kOk);
        const double sd = std::sqrt(largest(unpack(share)));
        EXPECT_GE(sd, c.min_sd_counts);
        EXPECT_LE(sd, c.max_sd_counts);
        EXPECT_GT(sd, previous) << "more than the wider store's";
        previous = sd;
        EXPECT_EQ(soft_iron_share(s.u.data(), 32, s.centre, s.radius, {0, 40}, a, share), FitResult::kTooFew);
        for (int64_t e : share) EXPECT_EQ(e, 0) << "no prior: no share";
        int32_t x[kShareColumns];
        s.u.push_back(s.u[0]);
        EXPECT_EQ(soft_iron_share_columns(s.u.data(), kShareMaxSamples + 1, s.centre, a, x), FitResult::kTooFew)
            << "more samples than the sums are bounded for";
        s.u[3].x = s.centre.x + kShareSpanLimit;
        EXPECT_EQ(soft_iron_share(s.u.data(), 32, s.centre, s.radius, {20, 40}, a, share), FitResult::kOverflowRisk);
    }
}

}  // namespace
