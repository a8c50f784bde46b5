// The diversity store: each admission rule at its threshold, the closest pair's older
// sample replaced, coverage cells at their borders, the invariants over a long stream
// from a randomly turned phone, and its statistics against double precision.
#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "service/field_store.h"

namespace {

using namespace kmxc_kit;

const Vec3 kDown{0, 0, -4096};

FieldStore store_of(const std::vector<Vec3> &fields) {
    FieldStore s;
    field_store_clear(&s);
    for (const Vec3 &m : fields) EXPECT_EQ(field_store_offer(&s, m, kDown, nullptr, false, true), Offer::kJoined);
    return s;
}

Vec3 rounded(const Eigen::Vector3d &v) {
    return Vec3{static_cast<int32_t>(std::lround(v.x())), static_cast<int32_t>(std::lround(v.y())),
                static_cast<int32_t>(std::lround(v.z()))};
}

int64_t dist_sq(const StoredSample &a, const StoredSample &b) {
    int64_t sum = 0;
    for (int k = 0; k < 3; ++k) sum += int64_t{a.m[k] - b.m[k]} * (a.m[k] - b.m[k]);
    return sum;
}

// A sample joins at exactly the least distance from every kept one, when its field and
// gravity are int16 values, the kit does not flag it, its strength lies within the band
// about the median and, once the store is full, it lies farther from every kept sample
// than the closest pair.
TEST(FieldStore, ASampleJoinsOnlyWithinEachAdmissionRuleAtItsThreshold) {
    // Five samples 200 counts from c (the median 200): strengths 140..260 join.
    const Vec3 c{10, -20, 30};
    const auto around = [&](int x, int y, int z) { return Vec3{c.x + x, c.y + y, c.z + z}; };
    const std::vector<Vec3> five = {around(200, 0, 0), around(-200, 0, 0), around(0, 200, 0), around(0, -200, 0),
                                    around(0, 0, 200)};
    // 31 samples on a 40-count grid and one 17 counts from the sixth: that pair is the only
    // one closer than 40. (Which of a pair a replacement drops: the long stream below.)
    std::vector<Vec3> full;
    for (int i = 0; i < 31; ++i) full.push_back(Vec3{40 * (i % 4), 40 * (i / 4 % 4), 40 * (i / 16)});
    full.push_back(Vec3{full[5].x + 17, full[5].y, full[5].z});
    const struct {
        const char *name;
        std::vector<Vec3> kept;
        Vec3 candidate;
        Offer result;
        const Vec3 *centre = nullptr;
        Vec3 g = kDown;
        bool anomaly = false;
    } cases[] = {
        {"exactly 8 along an axis", {{100, 0, 0}}, {108, 0, 0}, Offer::kJoined},
        {"7 along an axis", {{100, 0, 0}}, {107, 0, 0}, Offer::kTooNear},
        {"exactly 8, negative axis", {{0, 0, 0}}, {0, 0, -8}, Offer::kJoined},
        {"every axis nearer than 8, the distance not (7, 7, 0)", {{0, 0, 0}}, {7, 7, 0}, Offer::kJoined},
        {"just over 8 on a diagonal (5, 5, 4)", {{0, 0, 0}}, {5, 5, 4}, Offer::kJoined},
        {"just under 8 on a diagonal (5, 4, 4)", {{0, 0, 0}}, {5, -4, 4}, Offer::kTooNear},
        {"near an earlier sample, far from the last", five, around(205, 0, 0), Offer::kTooNear},
        {"the largest int16 field", {}, {32767, 0, 0}, Offer::kJoined},
        {"one past it", {}, {32768, 0, 0}, Offer::kOutOfRange},
        {"the least int16 field", {}, {0, -32768, 0}, Offer::kJoined},
        {"one below it", {}, {0, -32769, 0}, Offer::kOutOfRange},
        {"the largest int16 gravity", {}, {0, 0, 99}, Offer::kJoined, nullptr, {0, 0, 32767}},
        {"gravity one below the least", {}, {0, 0, 99}, Offer::kOutOfRange, nullptr, {0, 0, -32769}},
        {"gravity one past the largest", {}, {0, 0, 99}, Offer::kOutOfRange, nullptr, {32768, 0, 0}},
        {"flagged by the kit", {}, {0, 0, 99}, Offer::kAnomaly, nullptr, kDown, true},
        {"1.3 times the median", five, around(0, 0, -260), Offer::kJoined, &c},
        {"just beyond", five, around(0, 0, -261), Offer::kStrengthFar, &c},
        {"0.7 times the median", five, around(0, 0, -140), Offer::kJoined, &c},
        {"just below", five, around(0, 0, -139), Offer::kStrengthFar, &c},
        {"four kept: no median yet", {five.begin(), five.begin() + 4}, around(0, 0, -500), Offer::kJoined, &c},
        {"far off without a centre", five, around(0, 0, -500), Offer::kJoined},
        {"full: exactly the closest pair's distance from a kept one", full, {0, 0, -17}, Offer::kNotWider},
        {"full: farther from all kept than the closest pair", full, {-17, -1, 0}, Offer::kJoinedReplacing},
    };
    for (const auto &k : cases) {
        SCOPED_TRACE(k.name);
        FieldStore s = store_of(k.kept);
        EXPECT_EQ(field_store_offer(&s, k.candidate, k.g, k.centre, k.anomaly, true), k.result);
        const bool joined = k.result == Offer::kJoined;
        ASSERT_EQ(s.count, k.kept.size() + (joined ? 1 : 0));
        if (joined) {
            EXPECT_EQ(stored_field(s, s.count - 1).x, k.candidate.x);
            EXPECT_EQ(stored_gravity(s, s.count - 1).z, k.g.z);
        }
    }
    // The median follows the centre it is asked about: 60 counts from c along any axis the
    // five lie 140 to 260 counts away (the median 209), where 143 is too near, though not
    // for c's median (200), asked about first so that a median kept from it would show.
    for (int k = 0; k < 3; ++k) {
        FieldStore s = store_of(five);
        EXPECT_EQ(field_store_offer(&s, around(0, 0, -261), kDown, &c, false, true), Offer::kStrengthFar);
        const Vec3 moved = around(k == 0 ? 60 : 0, k == 1 ? 60 : 0, k == 2 ? 60 : 0);
        const Vec3 near{moved.x, moved.y, moved.z - 143};
        EXPECT_EQ(field_store_offer(&s, near, kDown, &moved, false, true), Offer::kStrengthFar) << "axis " << k;
    }
}

// A phone turned at random through every attitude, with noise, for 3000 samples: after
// every offer the kept samples are at least the least distance apart, each caches its
// true nearest distance, ages are a permutation with the sample that joined the newest
// and its gravity flag kept, a full store's spacing never shrinks, and a replacement
// dropped the older sample of a closest pair.
TEST(FieldStore, InvariantsHoldOverALongStreamFromARandomlyTurnedPhone) {
    std::mt19937_64 rng(17);
    std::normal_distribution<double> gauss;
    FieldStore s = store_of({});
    const Vec3 offset{-300, 120, 450};
    Eigen::Vector3d f(110, 0, 40);
    int replaced = 0;
    for (int i = 0; i < 3000; ++i) {
        f = Eigen::AngleAxisd(0.15, Eigen::Vector3d(gauss(rng), gauss(rng), gauss(rng)).normalized()) * f;
        const Vec3 m = rounded(Eigen::Vector3d(offset.x, offset.y, offset.z) + f +
                               Eigen::Vector3d(gauss(rng), gauss(rng), gauss(rng)));
        const FieldStore before = s;
        const bool steady = i % 3 != 0;
        const Offer result = field_store_offer(&s, m, kDown, &offset, false, steady);
        ASSERT_NE(result, Offer::kStrengthFar) << "a steady field stays in the band";
        // The verdict against every kept sample: a store with room refuses a sample
        // nearer than the least distance to one, a full store one no farther from one
        // than its closest pair.
        const bool full = before.count == kStoreCapacity;
        bool near_one = false;
        for (int b = 0; b < before.count; ++b) {
            const int64_t d = dist_sq(
                before.sample[b],
                StoredSample{{static_cast<int16_t>(m.x), static_cast<int16_t>(m.y), static_cast<int16_t>(m.z)}, {}});
            near_one = near_one || (full ? d <= before.spacing_sq : d < kStoreMinDistance * kStoreMinDistance);
        }
        ASSERT_EQ(result == Offer::kTooNear || result == Offer::kNotWider, near_one) << "offer " << i;
        if (result == Offer::kJoined || result == Offer::kJoinedReplacing) {
            ASSERT_EQ(s.age[s.last], 0) << "the newest";
            ASSERT_EQ(s.steady >> s.last & 1u, steady ? 1u : 0u) << "its gravity's flag";
        }
        if (before.count == kStoreCapacity) {
            ASSERT_GE(s.spacing_sq, before.spacing_sq) << "a full store only spreads";
        }
        const int n = s.count;
        for (int a = 0; a < n; ++a) {
            int64_t nearest = UINT32_MAX;
            for (int b = 0; b < n; ++b) {
                if (a == b) continue;
                ASSERT_GE(dist_sq(s.sample[a], s.sample[b]), kStoreMinDistance * kStoreMinDistance);
                nearest = std::min(nearest, dist_sq(s.sample[a], s.sample[b]));
            }
            ASSERT_EQ(s.nearest_sq[a], nearest) << "sample " << a << " after offer " << i;
        }
        std::vector<int> ages(s.age, s.age + n);
        std::sort(ages.begin(), ages.end());
        for (int a = 0; a < n; ++a) ASSERT_EQ(ages[a], a);
        if (result != Offer::kJoinedReplacing) continue;
        ++replaced;
        const int slot = s.last;
        const int64_t least = *std::min_element(before.nearest_sq, before.nearest_sq + n);
        ASSERT_EQ(before.nearest_sq[slot], least) << "the dropped sample belonged to a closest pair";
        bool newer_partner = false;
        for (int b = 0; b < n; ++b) {
            if (b != slot && dist_sq(before.sample[slot], before.sample[b]) == least &&
                before.age[b] < before.age[slot])
                newer_partner = true;
        }
        ASSERT_TRUE(newer_partner) << "and was its older member";
    }
    EXPECT_GT(replaced, 100);
    // Every attitude was seen; 32 samples spread apart fill most of the 24 cells.
    EXPECT_GE(field_store_coverage(s, offset), 20);
}

TEST(FieldStore, CoverageCellsSplitAtTheirBordersByTheStatedTies) {
    const struct {
        Vec3 v;
        int cell;
    } cases[] = {
        {{1, 0, 0}, 0},    {{-1, 0, 0}, 4},  {{7, 7, 0}, 0},  {{7, 7, 7}, 0},   {{0, 7, 7}, 8},
        {{0, -7, 7}, 12},  {{0, 0, -1}, 20}, {{5, -5, 0}, 2}, {{-3, 2, -3}, 5}, {{2, -3, -3}, 13},
        {{1, -2, -3}, 21}, {{-1, 2, 3}, 18}, {{0, 0, 0}, -1},
    };
    for (const auto &c : cases) EXPECT_EQ(coverage_cell(c.v), c.cell) << c.v.x << " " << c.v.y << " " << c.v.z;
    // One sample at the middle of each cell (a cube corner direction tilted to its face).
    std::vector<Vec3> all;
    for (int face = 0; face < 3; ++face)
        for (int cell = 0; cell < 8; ++cell) {
            const int f = cell & 4 ? -100 : 100, a = cell & 2 ? -40 : 40, b = cell & 1 ? -40 : 40;
            all.push_back(face == 0 ? Vec3{f, a, b} : face == 1 ? Vec3{a, f, b} : Vec3{a, b, f});
        }
    const FieldStore s = store_of(all);
    for (int i = 0; i < kCoverageCells; ++i) EXPECT_EQ(coverage_cell(stored_field(s, i)), i);
    EXPECT_EQ(field_store_coverage(s, Vec3{0, 0, 0}), 24);
    EXPECT_EQ(field_store_coverage(s, Vec3{0, 0, -1000}), 4) << "seen from far below: the +z face only";
}

// Random stores, round to flat, under a random offset and correction: the mean,
// strengths, dip and spread against the same quantities in double precision; and the
// Earth's range at its ends (10 uT is 25 counts, 100 uT 250). The fits centre their sums
// on the mean and keep its fraction in their first moments: each axis truncated toward
// zero (not floored), every kept sample counted, a full store of int16 extremes summed
// without wrapping.
TEST(FieldStore, StatisticsAgreeWithDoublePrecisionAndTheRangeHoldsAtItsEnds) {
    std::mt19937_64 rng(23);
    std::uniform_real_distribution<double> uni(-1, 1);
    for (int trial = 0; trial < 300; ++trial) {
        const Vec3 offset = rounded(300 * Eigen::Vector3d(uni(rng), uni(rng), uni(rng)));
        const Eigen::Vector3d od(offset.x, offset.y, offset.z);
        const bool identity = trial % 4 == 0;
        int16_t w[9];
        Eigen::Matrix3d wd = Eigen::Matrix3d::Identity();
        for (int r = 0; r < 3; ++r)
            for (int c = r; c < 3; ++c) {
                w[3 * r + c] = w[3 * c + r] = static_cast<int16_t>(std::lround((r == c ? 16384 : 0) + 2500 * uni(rng)));
                if (!identity) wd(r, c) = wd(c, r) = w[3 * r + c] / 16384.0;
            }
        const double flat = std::ldexp(1.0, -(trial % 8));  // field directions flattened along z
        FieldStore s = store_of({});
        for (int i = 0; i < 300 && s.count < kStoreCapacity; ++i) {
            Eigen::Vector3d f = Eigen::Vector3d::Random().normalized();
            f.z() *= flat;
            f *= (90 + 30 * uni(rng)) / f.norm();
            const Vec3 g = rounded(Eigen::Vector3d(4096 * uni(rng), 4096 * uni(rng), -4096));
            field_store_offer(&s, rounded(od + f), g, nullptr, false, i % 3 != 0);
        }
        StoreAgreement got;
        field_store_agreement(s, offset, identity ? nullptr : w, &got);
        Eigen::MatrixXd m(s.count, 3);
        Eigen::ArrayXd strength(s.count);
        double dip = 0;
        int steady = 0;
        for (int i = 0; i < s.count; ++i) {
            m.row(i) << s.sample[i].m[0], s.sample[i].m[1], s.sample[i].m[2];
            const Eigen::Vector3d g(s.sample[i].g[0], s.sample[i].g[1], s.sample[i].g[2]);
            const Eigen::Vector3d v = wd * (m.row(i).transpose() - od);
            strength(i) = v.norm();
            if (s.steady >> i & 1)
                dip += std::atan2(v.cross(g).norm(), v.dot(g)) * 18000 / 3.14159265358979323846, ++steady;
        }
        const Vec3 centre = store_mean(s);
        const int32_t got_centre[3] = {centre.x, centre.y, centre.z};
        for (int k = 0; k < 3; ++k) EXPECT_EQ(got_centre[k], std::trunc(m.col(k).mean())) << trial << " axis " << k;
        const double mean = strength.mean(), worst = (strength - mean).abs().maxCoeff();
        const double spread = (strength - mean).square().sum();
        // Each strength truncated to 1/16 count after W's rounding, the mean truncated again.
        EXPECT_NEAR(got.strength.mean_q4 / 16.0, mean, 2 / 16.0 + 0.01) << trial;
        EXPECT_NEAR(got.strength.worst_permille, 1000 * worst / mean, 2.0) << trial;
        EXPECT_NEAR(got.strength.spread_q8 / 256.0, spread, 0.02 * spread + 1) << trial;
        EXPECT_NEAR(got.strength.rms_q4 / 16.0, std::sqrt(spread / s.count), 0.1) << trial;
        ASSERT_TRUE(got.dip_valid);
        EXPECT_NEAR(got.dip_cdeg, dip / steady, 3) << trial;
        // Spread: truncated, from eigenvalues within 3e-4 of theirs, so within 1.5.
        const Eigen::MatrixXd centred = m.rowwise() - m.colwise().mean();
        const Eigen::Vector3d ev =
            Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d>(centred.transpose() * centred).eigenvalues();
        const Spread sp = field_store_spread(s);
        EXPECT_NEAR(sp.ratio_min, 1024 * ev(0) / ev(2), 1.5) << trial;
        EXPECT_NEAR(sp.ratio_mid, 1024 * ev(1) / ev(2), 1.5) << trial;
    }
    EXPECT_EQ(field_store_spread(store_of({{0, 0, 0}, {100, 0, 0}})).ratio_mid, 0) << "fewer than three";
    std::vector<Vec3> extremes;
    for (int i = 0; i < kStoreCapacity; ++i) extremes.push_back(Vec3{-32768, -32768 + 16 * i, 32767});
    const Vec3 centre = store_mean(store_of(extremes));
    EXPECT_TRUE(centre.x == -32768 && centre.y == -32768 + 8 * (kStoreCapacity - 1) && centre.z == 32767);
    for (const int32_t strength : {24, 25, 250, 251}) {
        const FieldStore s = store_of({{strength, 0, 0}, {0, -strength, 0}});
        StrengthStats st;
        field_store_strengths(s, Vec3{0, 0, 0}, nullptr, &st);
        EXPECT_EQ(st.in_range, strength == 25 || strength == 250) << strength;
        EXPECT_EQ(st.mean_q4, 16 * strength);
    }
}

}  // namespace
