// Integer attitude: the Q12 east/north/up rows from one magnetic and one gravity
// sample. 32-bit integer arithmetic only; divisions truncate toward zero.
//
// Magnitudes (why nothing overflows): limited components are within 2^14, so the
// sums of squares stay below 3 * 2^28. A unit component is at most 4096 in
// magnitude (the truncated length is never below any one component), so cross
// products stay within 2^25 and the unnormalised east within 8192.
#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"

constinit const KmxAxesAttitude KmxAxesLibDefaultAttitude = {
    {4096, 0, 0, 0, 4096, 0, 0, 0, 4096}, 0, 0, 4096, {0, 0, 0}, {0, 0, 0}};

uint32_t KmxAxesLibIntSqrt(uint32_t s) {
    uint32_t lo = 0;
    uint32_t hi = 46341;
    uint32_t mid = 23170;
    for (int round = 0; round < 16; ++round) {
        if (mid * mid > s) {
            hi = mid;
        } else {
            lo = mid;
        }
        mid = (lo + hi) / 2;
    }
    return mid;
}

namespace {

constexpr int32_t kOne = 4096;  // Q12

KmxAxesData limited(const KmxAxesData &sample, const KmxAxesData &offset) {
    return {KmxAxesLibLimitedDifference(sample.x, offset.x), KmxAxesLibLimitedDifference(sample.y, offset.y),
            KmxAxesLibLimitedDifference(sample.z, offset.z)};
}

uint32_t sum_of_squares(const KmxAxesData &v) {
    return static_cast<uint32_t>(v.x * v.x) + static_cast<uint32_t>(v.y * v.y) + static_cast<uint32_t>(v.z * v.z);
}

KmxAxesData scaled_by_norm(const KmxAxesData &v, int32_t norm) {
    return {v.x * kOne / norm, v.y * kOne / norm, v.z * kOne / norm};
}

// a x b with each component divided by 4096.
KmxAxesData cross_q12(const KmxAxesData &a, const KmxAxesData &b) {
    return {(a.y * b.z - a.z * b.y) / kOne, (a.z * b.x - a.x * b.z) / kOne, (a.x * b.y - a.y * b.x) / kOne};
}

// Field by field: a whole-record copy costs more on ARMv5TE.
void store(KmxAxesData *to, const KmxAxesData &v) {
    to->x = v.x;
    to->y = v.y;
    to->z = v.z;
}

void store_row(int16_t *row, const KmxAxesData &v) {
    row[0] = static_cast<int16_t>(v.x);
    row[1] = static_cast<int16_t>(v.y);
    row[2] = static_cast<int16_t>(v.z);
}

int8_t no_attitude(KmxAxesAttitude *out) {
    *out = KmxAxesLibDefaultAttitude;
    return KMXC_ORI_NO_ATTITUDE;
}

}  // namespace

int8_t KmxAxesLibGetAttitude(const KmxAxesData *ms, const KmxAxesData *gs, KmxAxesAttitude *out) {
    const KmxAxesData m = limited(*ms, g_AxesLib.msOffset);
    const KmxAxesData g = limited(*gs, g_AxesLib.gsOffset);
    store(&out->ms, m);
    store(&out->gs, g);
    const uint32_t ms_norm = KmxAxesLibIntSqrt(sum_of_squares(m));
    const uint32_t gs_norm = KmxAxesLibIntSqrt(sum_of_squares(g));
    out->msNorm = static_cast<uint16_t>(ms_norm);
    out->gsNorm = static_cast<uint16_t>(gs_norm);
    if (gs_norm == 0 || ms_norm == 0) return no_attitude(out);

    const KmxAxesData mu = scaled_by_norm(m, static_cast<int32_t>(ms_norm));
    const KmxAxesData gu = scaled_by_norm(g, static_cast<int32_t>(gs_norm));
    KmxAxesData east = cross_q12(gu, mu);
    const uint32_t east_norm = KmxAxesLibIntSqrt(sum_of_squares(east));
    if (east_norm == 0) return no_attitude(out);  // field parallel to gravity
    east = scaled_by_norm(east, static_cast<int32_t>(east_norm));

    int32_t cosine = (gu.x * mu.x + gu.y * mu.y + gu.z * mu.z) / kOne;
    if (cosine > kOne) cosine = kOne;
    if (cosine < -kOne) cosine = -kOne;
    out->msGsCos = static_cast<int16_t>(cosine);

    store_row(&out->matrix[0], east);
    store_row(&out->matrix[3], cross_q12(east, gu));  // north, not normalised again
    store_row(&out->matrix[6], KmxAxesData{-gu.x, -gu.y, -gu.z});
    return KMXC_ORI_OK;
}
