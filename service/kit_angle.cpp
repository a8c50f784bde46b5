// Integer angles (kit_angle.h).
#include "service/kit_angle.h"

#include <bit>

#include "numerics/msfloat_ops.h"

namespace kmxc_kit {

namespace {

// atan(i / 64) for i = 0..64, in 1/8 centidegree, rounded: round(800 * degrees(atan(i / 64))).
// Linear interpolation between entries is within 0.11 centidegree of the arctangent.
constexpr uint16_t kAtanEighthCdeg[65] = {0,     716,   1432,  2147,  2861,  3574,  4285,  4994,  5700,  6404,  7105,
                                          7802,  8496,  9186,  9871,  10552, 11229, 11901, 12567, 13228, 13883, 14533,
                                          15176, 15814, 16445, 17069, 17688, 18299, 18904, 19501, 20092, 20676, 21252,
                                          21821, 22384, 22939, 23486, 24027, 24560, 25086, 25604, 26116, 26620, 27117,
                                          27607, 28090, 28565, 29034, 29496, 29951, 30399, 30840, 31275, 31703, 32125,
                                          32540, 32949, 33351, 33748, 34138, 34522, 34900, 35272, 35639, 36000};
constexpr int32_t kEighthsPerCdeg = 8;
constexpr int kRatioBits = 16;     // the ratio of the smaller to the larger magnitude, Q16
constexpr int kAtanStepBits = 10;  // Q16 ratio to table index: 64 intervals

uint64_t magnitude(int64_t v) { return v < 0 ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v); }

// Shifts both magnitudes right, rounding, until the larger is below 2^bits.
void scale_to_bits(uint64_t *a, uint64_t *b, int bits) {
    const uint64_t big = *a > *b ? *a : *b;
    const int shift = 64 - std::countl_zero(big) - bits;
    if (shift <= 0) return;
    const uint64_t half = uint64_t{1} << (shift - 1);
    *a = (*a >> shift) + ((*a & (2 * half - 1)) >= half);
    *b = (*b >> shift) + ((*b & (2 * half - 1)) >= half);
    if ((*a | *b) >> bits) {  // rounded up to 2^bits: one more bit, truncated
        *a >>= 1;
        *b >>= 1;
    }
}

}  // namespace

int32_t atan2_cdeg(int64_t y, int64_t x) {
    if (x == 0 && y == 0) return 0;
    uint64_t ax = magnitude(x), ay = magnitude(y);
    scale_to_bits(&ax, &ay, kRatioBits);
    const bool steep = ay > ax;
    const uint32_t num = static_cast<uint32_t>(steep ? ax : ay), den = static_cast<uint32_t>(steep ? ay : ax);
    // num <= den < 2^16, so num << 16 fits and the ratio is 0..65536 (truncated). Both
    // taken up until den has 16 bits (the same quotient): the library's mantissa
    // quotient, a table reciprocal where the target has no divide instruction.
    static_assert(kRatioBits == 16, "the mantissa quotient's scale");
    const int up = std::countl_zero(den) - kRatioBits;
    const uint32_t t = msf::MantissaQuotient(num << up, den << up);
    const uint32_t i = t >> kAtanStepBits, f = t & ((1u << kAtanStepBits) - 1);
    int32_t a = kAtanEighthCdeg[i];
    if (f != 0) {
        a += ((static_cast<int32_t>(kAtanEighthCdeg[i + 1] - kAtanEighthCdeg[i])) * static_cast<int32_t>(f) +
              (1 << (kAtanStepBits - 1))) >>
             kAtanStepBits;
    }
    if (steep) a = kCdegQuarterTurn * kEighthsPerCdeg - a;
    if (x < 0) a = kCdegHalfTurn * kEighthsPerCdeg - a;
    const int32_t cdeg = (a + kEighthsPerCdeg / 2) / kEighthsPerCdeg;  // a >= 0: rounded half up
    return y < 0 ? -cdeg : cdeg;
}

int32_t angle_between_cdeg(const Vec3 &a, const Vec3 &b) {
    // Within +-2^24 per component: each product below 2^48, each sum below 2^50.
    int64_t c[3] = {int64_t{a.y} * b.z - int64_t{a.z} * b.y, int64_t{a.z} * b.x - int64_t{a.x} * b.z,
                    int64_t{a.x} * b.y - int64_t{a.y} * b.x};
    int64_t d = dot(a, b);
    // All four to 15 bits, so that |c|^2 < 3 * 2^30 is a 32-bit root.
    uint64_t big = magnitude(d);
    for (const int64_t v : c) big = magnitude(v) > big ? magnitude(v) : big;
    if (big == 0) return 0;
    const int shift = 64 - std::countl_zero(big) - 15;
    if (shift > 0) {
        const int64_t half = int64_t{1} << (shift - 1);
        for (int64_t &v : c) v = (v + half) >> shift;  // rounded half up
        d = (d + half) >> shift;
    }
    // Rounding half up may reach 2^15: still |c|^2 <= 3 * 2^30.
    const uint32_t cross = isqrt32(static_cast<uint32_t>(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]));
    return atan2_cdeg(cross, d);
}

int32_t angle_step_cdeg(const Vec3 &n, const Vec3 &a, const Vec3 &b) {
    // With |a|, |b| below 2^15.8 and n a Q14 unit vector: n.(a x b) < 2^46.6, a.b |n|^2
    // and (a.n)(b.n) below 2^59.6. Sine and cosine both scaled by |n|^2 (Q28):
    //   sin: n.(a x b) |n|, with |n| taken as 2^14;  cos: a.b |n|^2 - (a.n)(b.n).
    const int64_t cx = int64_t{a.y} * b.z - int64_t{a.z} * b.y, cy = int64_t{a.z} * b.x - int64_t{a.x} * b.z,
                  cz = int64_t{a.x} * b.y - int64_t{a.y} * b.x;
    const int64_t sine = (n.x * cx + n.y * cy + n.z * cz) * (int64_t{1} << 14);
    const int64_t cosine = dot(a, b) * dot(n, n) - dot(a, n) * dot(b, n);
    return atan2_cdeg(sine, cosine);
}

}  // namespace kmxc_kit
