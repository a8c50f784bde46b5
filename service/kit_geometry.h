// Integer vector geometry shared by the kit's units: field and gravity vectors in
// counts, their lengths and angles. Integer arithmetic only.
#ifndef KMXC_SERVICE_KIT_GEOMETRY_H
#define KMXC_SERVICE_KIT_GEOMETRY_H

#include <stdint.h>

#include "orientation/orientation.h"

namespace kmxc_kit {

// A field or gravity vector, counts.
struct Vec3 {
    int32_t x, y, z;
};

// Floor of the square root.
uint32_t isqrt64(uint64_t v);
inline int64_t dot(const Vec3 &a, const Vec3 &b) {
    return int64_t{a.x} * b.x + int64_t{a.y} * b.y + int64_t{a.z} * b.z;
}
inline Vec3 minus(const Vec3 &a, const KmxAxesData &o) { return Vec3{a.x - o.x, a.y - o.y, a.z - o.z}; }
// Truncated length.
int32_t length(const Vec3 &v);
// 1000 cos of the angle between field and gravity, truncated; 0 when either has no length.
int32_t dip_cos(const Vec3 &field, const Vec3 &gravity);

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_KIT_GEOMETRY_H
