// Azimuth hold filter: freezes the heading while the recent headings agree with
// their smoothed value, and passes headings through once the smoothed value moves
// away from the frozen one. The smoothing is the heading smoother's step.
#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"

// Zero at load: unusable (no stage, no ring) until KmxAxesLibAzimuthFilterInit.
constinit struct KmxAxesLibAzimuthFilterState KmxAxesLibAzimuthFilterState = {};

namespace {

constexpr uint16_t kRingSize = 5;

// Distance in degrees of two headings, 0..180 for headings within one turn.
int32_t distance(int32_t a, int32_t b) {
    int32_t d = static_cast<int16_t>(a - b);
    if (d < 0) d = -d;
    if (d > 180) d = 360 - d;
    return d;
}

}  // namespace

void KmxAxesLibAzimuthFilterInit(void) {
    auto &f = KmxAxesLibAzimuthFilterState;
    f.stage = {0, 0, 0, 0};
    f.stageCount = 1;
    f.recentLength = 5;
    f.holdThreshold = 5;
    f.releaseThreshold = 5;
    f.heldAzimuth = 0;
    f.hold = 0;
    for (int16_t &r : f.recent) r = 0;
    f.recentIndex = 0;
    // chain is left as it is: every step writes it before reading it.
}

void KmxAxesLibAzimuthFilterStep(int16_t heading) {
    auto &f = KmxAxesLibAzimuthFilterState;
    // recentLength and stageCount never exceed the storage after initialisation;
    // the bounds below only keep a corrupted state from writing outside it.
    const int32_t length = f.recentLength < 0 ? 0 : (f.recentLength > kRingSize ? kRingSize : f.recentLength);
    if (f.recentIndex >= kRingSize) f.recentIndex = 0;
    f.recent[f.recentIndex] = heading;
    if (++f.recentIndex >= length) f.recentIndex = 0;

    int32_t wrapped = heading;
    while (wrapped < 0) wrapped += 360;
    while (wrapped > 359) wrapped -= 360;
    f.chain[0] = static_cast<uint16_t>(wrapped);
    for (uint8_t k = 0; k < f.stageCount && k < 1; ++k)
        KmxAxesLibSmoothDirection(&f.stage, f.chain[k], &f.chain[k + 1]);
    const int32_t smoothed = f.chain[1];

    if (f.hold == 0) {
        for (int32_t i = 0; i < length; ++i)
            if (distance(f.recent[i], smoothed) > f.holdThreshold) return;
        f.heldAzimuth = static_cast<uint16_t>(smoothed);
        f.hold = 1;
    } else if (distance(smoothed, f.heldAzimuth) > f.releaseThreshold) {
        f.hold = 0;
    }
}

int8_t KmxAxesLibGetAzimuthFiltered(double heading, double *out) {
    if (out == nullptr) return KMXC_ORI_INVALID;
    if (!(heading >= 0.0 && heading <= 360.0)) return KMXC_ORI_INVALID;  // NaN is refused as well
    const int16_t whole = static_cast<int16_t>(heading);                 // truncation, 0..360
    KmxAxesLibAzimuthFilterStep(whole);
    *out = KmxAxesLibAzimuthFilterState.hold != 0 ? static_cast<double>(KmxAxesLibAzimuthFilterState.heldAzimuth)
                                                  : static_cast<double>(whole);
    return KMXC_ORI_OK;
}
