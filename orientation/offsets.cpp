// The library's offsets: the only writers of g_AxesLib besides KmxAxesLibInit.
#include "drivers/kmxc_protocol.h"
#include "orientation/orientation.h"

constinit KmxAxesLib g_AxesLib = {{0, 0, 0}, {0, 0, 0}};

namespace {

constexpr int32_t kMsOffsetLimit = 16384;
constexpr uint8_t kRoughOffsetMax = kmxc::kRoughMax;  // the chip's largest rough setting

// Field by field; returns KMXC_ORI_OK, the result of every offset accessor.
int8_t copy(KmxAxesData *to, const KmxAxesData *from) {
    to->x = from->x;
    to->y = from->y;
    to->z = from->z;
    return KMXC_ORI_OK;
}

bool within_limit(int32_t v) { return v >= -kMsOffsetLimit && v <= kMsOffsetLimit; }

}  // namespace

int8_t KmxAxesLibGetMsOffset(KmxAxesData *out) { return copy(out, &g_AxesLib.msOffset); }
int8_t KmxAxesLibSetMsOffset(const KmxAxesData *in) { return copy(&g_AxesLib.msOffset, in); }
int8_t KmxAxesLibGetGsOffset(KmxAxesData *out) { return copy(out, &g_AxesLib.gsOffset); }
int8_t KmxAxesLibSetGsOffset(const KmxAxesData *in) { return copy(&g_AxesLib.gsOffset, in); }

int8_t KmxAxesLibIsValidMsOffset(const KmxAxesData *offset) {
    if (offset == nullptr) return 0;
    return (within_limit(offset->x) && within_limit(offset->y) && within_limit(offset->z)) ? 1 : 0;
}

int8_t KmxAxesLibIsValidRoughOffset(const uint8_t *rough) {
    if (rough == nullptr) return 0;
    for (int i = 0; i < 3; ++i) {
        if (rough[i] > kRoughOffsetMax) return 0;
    }
    return 1;
}

int8_t KmxAxesGsCalibGetGsOffset(const KmxAxesData *resting, KmxAxesData *out) {
    // A resting device ideally reads (0, 0, -4096); the offset is the difference.
    // The sum is formed in 64 bits and wrapped explicitly so a z near INT32_MAX
    // wraps as the 32-bit design does instead of overflowing.
    out->x = resting->x;
    out->y = resting->y;
    out->z = static_cast<int32_t>(static_cast<uint32_t>(resting->z) + KMXC_GS_COUNTS_PER_G);
    return KMXC_ORI_OK;
}
