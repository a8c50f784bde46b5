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

namespace {

// One step of the 32-bit root: root holds 2R, R the root's bits above n; bit n is set
// when v (what R^2 leaves) still holds (2R + 2^n) 2^n = (R + 2^n)^2 - R^2 (below 2^32 as
// R + 2^n <= 2^16). The test compares v 2^-n, truncated, with 2R + 2^n: the same, as
// (2R + 2^n) 2^n has no bits below n.
template <int n>
void root_step(uint32_t &v, uint32_t &root) {
    const uint32_t trial = root + (uint32_t{1} << n);
    if ((v >> n) >= trial) {
        v -= trial << n;
        root |= uint32_t{2} << n;
    }
}

}  // namespace

uint32_t isqrt32(uint32_t v) {
    // The digit-by-digit root unrolled (a few instructions per result bit on ARMv5TE, no
    // loop), entered at the step of v's highest power of four (CLZ): the steps above it
    // would set no bit.
    uint32_t root = 0;
    switch ((31 - std::countl_zero(v)) >> 1) {
    case 15: root_step<15>(v, root); [[fallthrough]];
    case 14: root_step<14>(v, root); [[fallthrough]];
    case 13: root_step<13>(v, root); [[fallthrough]];
    case 12: root_step<12>(v, root); [[fallthrough]];
    case 11: root_step<11>(v, root); [[fallthrough]];
    case 10: root_step<10>(v, root); [[fallthrough]];
    case 9: root_step<9>(v, root); [[fallthrough]];
    case 8: root_step<8>(v, root); [[fallthrough]];
    case 7: root_step<7>(v, root); [[fallthrough]];
    case 6: root_step<6>(v, root); [[fallthrough]];
    case 5: root_step<5>(v, root); [[fallthrough]];
    case 4: root_step<4>(v, root); [[fallthrough]];
    case 3: root_step<3>(v, root); [[fallthrough]];
    case 2: root_step<2>(v, root); [[fallthrough]];
    case 1: root_step<1>(v, root); [[fallthrough]];
    case 0: root_step<0>(v, root); break;
    default: break;  // v = 0 (no bit: -1)
    }
    return root >> 1;
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

int32_t length_q4(const Vec3 &v) {
    const uint64_t sq = static_cast<uint64_t>(dot(v, v));
    // 256 |v|^2 within 32 bits for |v| below 4096 counts: the 32-bit root.
    return static_cast<int32_t>(sq < (uint64_t{1} << 24) ? isqrt32(static_cast<uint32_t>(sq << 8)) : isqrt64(sq << 8));
}

int32_t dip_cos(const Vec3 &field, const Vec3 &gravity) { return dip_cos(field, length_q4(field), gravity); }

int32_t dip_cos(const Vec3 &field, int32_t field_length_q4, const Vec3 &gravity) {
    const int64_t lg = length(gravity);
    if (field_length_q4 == 0 || lg == 0) return 0;
    const int64_t num = dot(field, gravity) * 16000;
    uint64_t n = static_cast<uint64_t>(num < 0 ? -num : num), d = static_cast<uint64_t>(field_length_q4 * lg);
    // Both halved alike until the numerator fits 31 bits (a few times for an Earth field
    // and 1 g): the quotient by a 32-bit division, not a 64-bit one (a library call of
    // some 340 instructions on the target). |num| is at most about 1000 d, so d keeps
    // 21 bits and more.
    while (n > INT32_MAX || d > INT32_MAX) n >>= 1, d >>= 1;
    const int32_t q = static_cast<int32_t>(static_cast<uint32_t>(n) / static_cast<uint32_t>(d));
    return num < 0 ? -q : q;
}

}  // namespace kmxc_kit
