// Integer vector geometry of the kit (kit_geometry.h).
#include "service/kit_geometry.h"

#include <bit>

namespace kmxc_kit {

namespace {

// Digit-by-digit square root from bit, the highest power of four not above v (or 0 for v = 0).
template <class U>
U isqrt_from(U v, U bit) {
    U r = 0;
    while (bit != 0) {
        if (v >= r + bit) {
            v -= r + bit;
            r = (r >> 1) + bit;
        } else {
            r >>= 1;
        }
        bit >>= 2;
    }
    return r;
}

}  // namespace

uint32_t isqrt64(uint64_t v) {
    if (v == 0) return 0;
    return static_cast<uint32_t>(isqrt_from<uint64_t>(v, uint64_t{1} << ((63 - std::countl_zero(v)) & ~1)));
}

uint32_t isqrt32(uint32_t v) {
    if (v == 0) return 0;
    // Start at the highest power of four not above v (CLZ on ARMv5TE).
    return isqrt_from<uint32_t>(v, uint32_t{1} << ((31 - std::countl_zero(v)) & ~1));
}

int32_t length(const Vec3 &v) {
    // An Earth field or gravity vector's square fits 32 bits: half the root's steps.
    const uint64_t sq = static_cast<uint64_t>(dot(v, v));
    return static_cast<int32_t>(sq <= UINT32_MAX ? isqrt32(static_cast<uint32_t>(sq)) : isqrt64(sq));
}

Vec3 apply_q14(const int16_t w[9], const Vec3 &v, int frac) {
    // Each product below 2^31, each row below 2^33: 64-bit sums.
    const int shift = 14 - frac;
    const int64_t half = int64_t{1} << (shift - 1);
    int32_t out[3];
    for (int r = 0; r < 3; ++r) {
        const int64_t row = int64_t{w[3 * r]} * v.x + int64_t{w[3 * r + 1]} * v.y + int64_t{w[3 * r + 2]} * v.z;
        out[r] = static_cast<int32_t>((row + half) >> shift);
    }
    return Vec3{out[0], out[1], out[2]};
}

int32_t dip_cos(const Vec3 &field, const Vec3 &gravity) { return dip_cos(field, length(field), gravity); }

int32_t dip_cos(const Vec3 &field, int32_t field_length, const Vec3 &gravity) {
    const int64_t lf = field_length, lg = length(gravity);
    if (lf == 0 || lg == 0) return 0;
    return static_cast<int32_t>(dot(field, gravity) * 1000 / (lf * lg));
}

}  // namespace kmxc_kit
