/*
 * Orientation library internals: not exported from the shared library, declared
 * here so the library's units and the unit tests share one definition.
 *
 * Angle units inside the heading code: eighths of a degree (2880 per turn) for the
 * arctangent, centred quarter-degrees (1440 per turn, 0 = 180 degrees, -720 = 0
 * degrees) for the smoother.
 */
#ifndef KMXC_ORIENTATION_INTERNAL_H
#define KMXC_ORIENTATION_INTERNAL_H

#include <stdint.h>

#include "orientation/orientation.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Copied out whole by KmxAxesLibGetAttitude when no attitude can be formed. */
extern const KmxAxesAttitude KmxAxesLibDefaultAttitude;

/* Largest r with r*r <= s, by sixteen rounds of bisection over 0..46341; exact for
 * every s below 46341*46341 (all sums the attitude forms stay below it). */
uint32_t KmxAxesLibIntSqrt(uint32_t s);

/* Entry i = 16*i - atan(i/32) in eighths of a degree rounded up (fits a byte). */
extern const uint8_t KmxAxesLibAtanTable[33];

/* atan(a/b) in eighths of a degree, -360..360; requires |a| <= |b|, b != 0
 * (outside that it returns 0 for b == 0 and saturates at +-360 for |a| > |b|). */
int16_t KmxAxesLibAtan(int32_t a, int32_t b);
/* Angle of (x, y) from the x axis toward the y axis in eighths, 0..2879; not both 0. */
int16_t KmxAxesLibAtan2(int32_t x, int32_t y);

/* History of one smoothing stage, centred quarter-degrees. */
typedef struct KmxAxesLibSmootherHistory {
    int16_t prevInput;   /* previous input */
    int16_t olderInput;  /* the input before it */
    int16_t prevOutput;  /* previous output */
    int16_t olderOutput; /* the output before it */
} KmxAxesLibSmootherHistory;

/* One step of the second-order heading smoother (input weights 2, 1, 1; output
 * weights 5, -1; divisor 8), taking the short way round the circle. heading and
 * *smoothed are whole degrees 0..359. */
void KmxAxesLibSmoothDirection(KmxAxesLibSmootherHistory *history, uint16_t heading, uint16_t *smoothed);

/* The smoother history of KmxAxesLibCalcDirection: zero at load, never reset. */
extern KmxAxesLibSmootherHistory KmxAxesLibDirectionState;

/* The azimuth hold filter; the record and its one instance share the name. */
struct KmxAxesLibAzimuthFilterState {
    KmxAxesLibSmootherHistory stage; /* history of the one smoothing stage */
    uint8_t stageCount;              /* smoothing stages in the chain; always 1 */
    uint16_t chain[2];               /* [0] heading in 0..359, [1] smoothed heading */
    int8_t recentLength;             /* recent headings compared; 5 */
    int8_t holdThreshold;            /* degrees; hold when all recent are this close */
    int8_t releaseThreshold;         /* degrees; release when smoothed moves this far */
    uint16_t heldAzimuth;            /* the frozen heading, 0..359 */
    int8_t hold;                     /* 1 while holding */
    int16_t recent[5];               /* ring of recent headings as passed in */
    uint16_t recentIndex;            /* next slot of recent */
};
extern struct KmxAxesLibAzimuthFilterState KmxAxesLibAzimuthFilterState;

/* One filter step with a heading in whole degrees (0..360). */
void KmxAxesLibAzimuthFilterStep(int16_t heading);

/* sample - offset, limited to -16384..16384. Formed in 64 bits: the 32-bit
 * difference of extreme samples and offsets would overflow. */
static inline int32_t KmxAxesLibLimitedDifference(int32_t sample, int32_t offset) {
    const int64_t d = (int64_t)sample - (int64_t)offset;
    if (d < -16384) return -16384;
    if (d > 16384) return 16384;
    return (int32_t)d;
}

#ifdef __cplusplus
}
#endif

#endif /* KMXC_ORIENTATION_INTERNAL_H */
