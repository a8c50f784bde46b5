#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>

#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"

namespace {

constexpr KmxAxesData kZero{0, 0, 0};
// Written whole, ms and norms included, when no attitude can be formed.
constexpr KmxAxesAttitude kDefault{{4096, 0, 0, 0, 4096, 0, 0, 0, 4096}, 0, 0, 4096, {0, 0, 0}, {0, 0, 0}};

TEST(Attitude, RowsNormsCosineLimitingAndDegenerateInputs) {
    const struct { const char *name; KmxAxesData msOffset, gsOffset, ms, gs; int8_t result; KmxAxesAttitude want; }
        cases[] = {
        // clang-format off
        {"level, facing north", kZero, kZero, {0, 200, -300}, {0, 0, -4096}, 0,
         {{4096, 0, 0, 0, 4096, 0, 0, 0, 4096}, 360, 4096, 3413, {0, 200, -300}, {0, 0, -4096}}},
        {"level, facing west", kZero, kZero, {200, 0, -300}, {0, 0, -4096}, 0,
         {{0, -4096, 0, 4096, 0, 0, 0, 0, 4096}, 360, 4096, 3413, {200, 0, -300}, {0, 0, -4096}}},
        {"level, facing south-east", kZero, kZero, {-100, -100, -300}, {0, 0, -4096}, 0,
         {{-2896, 2896, 0, -2896, -2896, 0, 0, 0, 4096}, 331, 4096, 3712, {-100, -100, -300}, {0, 0, -4096}}},
        {"upright, screen south: negative cosine", kZero, kZero, {0, 300, 200}, {0, -4096, 0}, 0,
         {{-4096, 0, 0, 0, 0, 4096, 0, 4096, 0}, 360, 4096, -3413, {0, 300, 200}, {0, -4096, 0}}},
        {"differences limited to 16384", kZero, kZero, {0, 20000, -30000}, {0, 0, -4096}, 0,
         {{4096, 0, 0, 0, 4096, 0, 0, 0, 4096}, 23170, 4096, 2896, {0, 16384, -16384}, {0, 0, -4096}}},
        {"32-bit extremes limited without overflow", {0, INT32_MIN, INT32_MAX}, {0, 0, INT32_MAX},
         {0, INT32_MAX, INT32_MIN}, {0, 0, INT32_MIN}, 0,
         {{4096, 0, 0, 0, 4096, 0, 0, 0, 4096}, 23170, 16384, 2896, {0, 16384, -16384}, {0, 0, -16384}}},
        {"field equals its offset", {7, -8, 9}, kZero, {7, -8, 9}, {0, 0, -4096}, 1, kDefault},
        {"zero gravity", kZero, {1, 2, 3}, {0, 200, -300}, {1, 2, 3}, 1, kDefault},
        {"field parallel to gravity", kZero, kZero, {0, 0, -4096}, {0, 0, -4096}, 1, kDefault},
        // clang-format on
    };
    for (const auto &c : cases) {
        KmxAxesLibSetMsOffset(&c.msOffset);
        KmxAxesLibSetGsOffset(&c.gsOffset);
        KmxAxesAttitude a;
        std::memset(&a, 0x5a, sizeof a);
        EXPECT_EQ(KmxAxesLibGetAttitude(&c.ms, &c.gs, &a), c.result) << c.name;
        EXPECT_EQ(std::memcmp(&a, &c.want, sizeof a), 0)
            << c.name << ": " << testing::PrintToString(a.matrix) << " norms " << a.msNorm << "," << a.gsNorm
            << " cos " << a.msGsCos;
    }
    KmxAxesLibInit();
}

TEST(IntSqrt, IsTheLargestRootNotAboveTheArgument) {
    // The ends of the domain, an exact square, then random arguments.
    const uint32_t fixed[] = {0, 3, 16777216, 46340u * 46340, 46341u * 46341 - 1};
    std::mt19937 rng(12);
    std::uniform_int_distribution<uint32_t> any(0, 46341u * 46341 - 1);
    for (int i = 0; i < 20005; ++i) {
        const uint64_t s = i < 5 ? fixed[i] : any(rng), r = KmxAxesLibIntSqrt(static_cast<uint32_t>(s));
        ASSERT_TRUE(r * r <= s && (r + 1) * (r + 1) > s) << s << " gave " << r;
    }
}

}  // namespace
