// Integer vector geometry shared by the kit's units: field and gravity vectors in
// counts, their lengths and angles; and the unit of the caller's timestamps. Integer
// arithmetic only.
#ifndef KMXC_SERVICE_KIT_GEOMETRY_H
#define KMXC_SERVICE_KIT_GEOMETRY_H

#include <stdint.h>

#include "common/common.h"
#include "orientation/orientation.h"
#include "service/kmxc_service.h"

namespace kmxc_kit {

// The caller's timestamps are nanoseconds (kmxc_service_cycle); the kit's windows are ms.
constexpr int64_t kNsPerMs = 1000000;

// A field or gravity vector, counts.
struct Vec3 {
    int32_t x, y, z;
};

// Floor of the square root.
uint32_t isqrt64(uint64_t v);
// Floor of the square root of a 32-bit value (half the steps of isqrt64 and 32-bit
// arithmetic: the estimators take one per sample).
uint32_t isqrt32(uint32_t v);
inline int64_t dot(const Vec3 &a, const Vec3 &b) {
    return int64_t{a.x} * b.x + int64_t{a.y} * b.y + int64_t{a.z} * b.z;
}
inline Vec3 minus(const Vec3 &a, const KmxAxesData &o) { return Vec3{a.x - o.x, a.y - o.y, a.z - o.z}; }
inline Vec3 minus(const Vec3 &a, const Vec3 &b) { return Vec3{a.x - b.x, a.y - b.y, a.z - b.z}; }
// Truncated length (the floor of the root of its square).
int32_t length(const Vec3 &v);
// The same in 1/16 count (the floor of 16 times the root): length(v) is it >> 4.
int32_t length_q4(const Vec3 &v);
// 1000 cos of the angle between field and gravity, truncated toward zero, from the
// field's length in 1/16 count (a whole count's floor would lift the cosine of a 120-count
// field by up to 7/1000); 0 when either has no length.
int32_t dip_cos(const Vec3 &field, const Vec3 &gravity);
// The same with the field's length_q4(field) already at hand.
int32_t dip_cos(const Vec3 &field, int32_t field_length_q4, const Vec3 &gravity);
// W v for a 3x3 correction W in Q14 (16384 = 1; row-major), to `frac` fraction bits
// (0: counts, 4: 1/16 count; at most 13), each component rounded to nearest (ties up).
// Components of v within +-2^16.
Vec3 apply_q14(const int16_t w[9], const Vec3 &v, int frac);
// A field strength (corrected counts) within min_uT..max_uT inclusive.
inline bool strength_within(int32_t counts, int32_t min_uT, int32_t max_uT) {
    const int64_t tenths = int64_t{counts} * 10;
    return tenths >= int64_t{min_uT} * KMXC_MS_COUNTS_PER_10_UT && tenths <= int64_t{max_uT} * KMXC_MS_COUNTS_PER_10_UT;
}
// ... within the Earth's range, KMXC_SERVICE_FIELD_MIN_UT..KMXC_SERVICE_FIELD_MAX_UT.
inline bool in_earth_range(int32_t counts) {
    return strength_within(counts, KMXC_SERVICE_FIELD_MIN_UT, KMXC_SERVICE_FIELD_MAX_UT);
}

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_KIT_GEOMETRY_H
