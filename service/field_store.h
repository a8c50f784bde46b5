// Diversity store: the magnetic samples the kit's estimators fit, kept spread over the
// sphere (or circle) the field traces as the phone turns, each with the gravity vector
// of its cycle. Integer arithmetic only.
//
// Admission (field_store_offer, the every-cycle path: a rejection costs a few hundred
// instructions, see below). A sample joins when, in this order:
//   - the caller does not flag it as an anomaly (the caller judges anomalies, and clears
//     the store when the field around the phone has changed);
//   - its field and gravity fit int16 (the storage);
//   - it lies at least kStoreMinDistance counts from every kept sample, and once the
//     store is full, farther from every kept sample than the store's closest pair lie
//     from each other (it then widens the spread; a sample among the kept ones would
//     only churn it). An L-infinity test comes first, the squared distance only when all
//     three axes are nearer than the limit; the sample that joined last is tried first
//     (a phone held still is near it), then the one that refused the sample before (a
//     turning phone's samples mostly meet the same kept sample), then the others;
//   - with a centre given (the offset in use) and at least kStoreMedianMinSamples kept,
//     its strength |m - centre| lies within kStoreStrengthTolerancePermille of the
//     median strength of the kept samples about that centre.
// A full store makes room by dropping the older sample of its closest pair: the two
// stand for nearly the same direction, so either costs the same coverage, and the older
// one is the staler measurement (temperature, a changed surrounding). Each sample caches
// the squared distance to its nearest neighbour, so the closest pair is one pass, not a
// search over all pairs. A full store thus only spreads further; the caller clears it
// when its samples no longer describe the field (an anomaly, a new rough offset).
//
// Limits and units: fields in corrected counts (0.4 uT), gravity in 1/4096 g, both
// int16 per axis; centres and offsets in counts (int32, within +-16384 as the library
// allows). Every function takes the store by pointer or reference; no global state.
//
// RAM: sizeof(FieldStore) is 584 bytes (kStoreCapacity 32); with one result record of
// each fit the kit keeps (SphereFit 48, EllipsoidFit 72, CircleFit 32) the estimators'
// state is 736 bytes, below the 1 KiB the kit allows them (the tests assert it).
#ifndef KMXC_SERVICE_FIELD_STORE_H
#define KMXC_SERVICE_FIELD_STORE_H

#include <stdint.h>

#include "service/kit_geometry.h"
#include "service/kit_linalg.h"

namespace kmxc_kit {

// Samples kept: enough for the ellipsoid's nine unknowns twice over and one in each of
// the 24 coverage cells; a full store is fitted within the cost the kit allows.
constexpr int kStoreCapacity = 32;
// Least distance between kept samples, counts (3.2 uT): 2.6 times the RMS distance
// noise puts between two readings of a still field (0.5 uT per axis: 3.1 counts; about
// one pair in 8000 is that far apart), and a car mount's circle in a weak steep field
// (25 uT at 80 degrees dip: radius 11 counts) still holds eight samples.
constexpr int32_t kStoreMinDistance = 8;
// Strength band about the median, thousandths: wider than the soft iron the ellipsoid
// fit accepts (axes 0.8..1.25 about a median near 1) plus noise, narrow enough to keep a
// magnet's doubled field out.
constexpr int32_t kStoreStrengthTolerancePermille = 300;
// The median is judged only from this many kept samples (fewer can be one bad sample).
constexpr int kStoreMedianMinSamples = 5;
// Coverage cells: the six cube faces, each split into quadrants (equal areas by the
// cube's symmetry).
constexpr int kCoverageCells = 24;

// One kept sample.
struct StoredSample {
    int16_t m[3];  // field x, y, z, corrected counts
    int16_t g[3];  // gravity x, y, z of the same cycle, 1/4096 g
};

struct FieldStore {
    StoredSample sample[kStoreCapacity];  // slots 0..count-1 in use
    uint32_t nearest_sq[kStoreCapacity];  // squared distance to the nearest other kept sample
                                          // (saturated at UINT32_MAX; UINT32_MAX when alone)
    uint8_t age[kStoreCapacity];          // 0 the newest .. count-1 the oldest
    uint32_t steady;                      // bit i: sample i's gravity was steady (caller's rule)
    uint32_t spacing_sq;                  // squared distance of the closest pair (saturated)
    int32_t spacing_reach;                // isqrt(spacing_sq) + 1: an axis this far apart
                                          // settles a full store's admission test
    uint8_t count;                        // samples kept
    uint8_t last;                         // slot of the sample that joined last
    uint8_t refused_by;                   // slot of the sample that last refused one (the
                                          // admission test's first guess; any slot below count)
    bool median_valid;                    // the median below belongs to median_centre
    Vec3 median_centre;                   // centre the median strength was taken about
    uint64_t median_sq;                   // median of |m - median_centre|^2 over the kept samples
};

// What field_store_offer did.
enum class Offer : int8_t {
    kJoined = 0,           // kept in a free slot
    kJoinedReplacing = 1,  // kept in place of the older sample of the closest pair
    kAnomaly = -1,         // flagged by the caller: never kept
    kOutOfRange = -2,      // a component of field or gravity outside int16
    kTooNear = -3,         // nearer than kStoreMinDistance to a kept sample
    kNotWider = -5,        // store full, and no farther from a kept sample than its closest pair
    kStrengthFar = -4,     // strength outside the band about the median
};

// Empties the store.
void field_store_clear(FieldStore *store);

// Offers a sample (field m, counts; gravity g, 1/4096 g). centre: the offset in use, or
// null when none is known (then strengths are not judged). anomaly: the caller's verdict
// on this sample. steady: the caller's verdict that gravity was steady (no hand
// acceleration), recorded for the dip.
Offer field_store_offer(FieldStore *store, const Vec3 &m, const Vec3 &g, const Vec3 *centre, bool anomaly, bool steady);

// The mean of the kept samples' fields, each component truncated toward zero (the fits
// centre their sums on it and keep its fraction in their first moments). count > 0.
Vec3 store_mean(const FieldStore &store);

// The coverage cell of a direction, 0..23: the face of the largest |component| (ties
// go to x before y before z; the face of a zero component is the positive one), then the
// quadrant by the signs of the other two (zero counts as positive). -1 for the zero vector.
int coverage_cell(const Vec3 &v);
// The cells occupied by the kept samples seen from centre (bit i: cell i), and their count.
uint32_t field_store_cells(const FieldStore &store, const Vec3 &centre);
int field_store_coverage(const FieldStore &store, const Vec3 &centre);

// Spread of the kept samples: the eigenvalues of their covariance, 1024 * smallest /
// largest and 1024 * middle / largest, truncated (as the library's classifier takes
// them). Both 0 with fewer than 3 samples or no spread at all.
struct Spread {
    int32_t ratio_min;  // 0..1024
    int32_t ratio_mid;  // 0..1024
};
Spread field_store_spread(const FieldStore &store);
// The same ratios from a packed covariance (any positive scale).
Spread spread_ratios(const int64_t cov[6]);

// Strength agreement of the kept samples under a candidate calibration: strength
// s_i = |W (m_i - offset)| (W Q14, or the identity for a null w).
struct StrengthStats {
    int32_t mean_q4;         // mean strength, 1/16 count (truncated)
    int32_t worst_permille;  // largest |s_i - mean| in thousandths of the mean (1000 if the mean is 0)
    int64_t spread_q8;       // sum of (s_i - mean)^2, 1/256 count^2
    int32_t rms_q4;          // sqrt(spread / count), 1/16 count: the fit's residual
    bool in_range;           // every whole-count strength within the Earth's range
};
// The same plus the mean angle between corrected field and gravity over the samples
// whose gravity was steady (the dip as the kit judges it: 90 degrees minus the dip
// below the horizon).
struct StoreAgreement {
    StrengthStats strength;
    int32_t dip_cdeg;  // mean field-gravity angle, centidegrees (truncated)
    bool dip_valid;    // at least one sample in steady gravity
};
// w_q14: row-major 3x3, or null. Empty store: all zero, in_range true, dip invalid.
void field_store_strengths(const FieldStore &store, const Vec3 &offset, const int16_t *w_q14, StrengthStats *out);
void field_store_agreement(const FieldStore &store, const Vec3 &offset, const int16_t *w_q14, StoreAgreement *out);

// A kept sample's field and gravity as vectors.
inline Vec3 stored_field(const FieldStore &s, int i) {
    return Vec3{s.sample[i].m[0], s.sample[i].m[1], s.sample[i].m[2]};
}
inline Vec3 stored_gravity(const FieldStore &s, int i) {
    return Vec3{s.sample[i].g[0], s.sample[i].g[1], s.sample[i].g[2]};
}

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_FIELD_STORE_H
