// Integer vector geometry of the kit (kit_geometry.h).
#include "service/kit_geometry.h"

namespace kmxc_kit {

uint32_t isqrt64(uint64_t v) {
    uint64_t r = 0, bit = uint64_t{1} << 62;
    while (bit > v) bit >>= 2;
    while (bit != 0) {
        if (v >= r + bit) {
            v -= r + bit;
            r = (r >> 1) + bit;
        } else {
            r >>= 1;
        }
        bit >>= 2;
    }
    return static_cast<uint32_t>(r);
}

int32_t length(const Vec3 &v) { return static_cast<int32_t>(isqrt64(static_cast<uint64_t>(dot(v, v)))); }

int32_t dip_cos(const Vec3 &field, const Vec3 &gravity) {
    const int64_t lf = length(field), lg = length(gravity);
    if (lf == 0 || lg == 0) return 0;
    return static_cast<int32_t>(dot(field, gravity) * 1000 / (lf * lg));
}

}  // namespace kmxc_kit
