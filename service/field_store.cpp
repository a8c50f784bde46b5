// Diversity store (field_store.h).
#include "service/field_store.h"

#include <algorithm>

#include "service/kit_angle.h"

namespace kmxc_kit {

namespace {

constexpr int32_t kInt16Min = -32768, kInt16Max = 32767;
constexpr int64_t kMinDistanceSq = int64_t{kStoreMinDistance} * kStoreMinDistance;
constexpr int64_t kPermille = 1000;
constexpr uint32_t kNoNeighbour = UINT32_MAX;

bool fits16(const Vec3 &v) {
    return v.x >= kInt16Min && v.x <= kInt16Max && v.y >= kInt16Min && v.y <= kInt16Max && v.z >= kInt16Min &&
           v.z <= kInt16Max;
}

// Whether kept sample p lies nearer than reach_sq to m, where reach = ceil(sqrt(reach_sq)).
// The L-infinity test first: an axis at least `reach` apart settles it without a
// multiplication (|d| < r is d + r - 1 in 0..2r - 2, unsigned). Differences of int16
// values: squares below 2^32.
inline bool within_reach(const StoredSample &p, const Vec3 &m, int32_t reach, int64_t reach_sq) {
    const int32_t dx = m.x - p.m[0], dy = m.y - p.m[1], dz = m.z - p.m[2];
    const uint32_t span = 2 * static_cast<uint32_t>(reach - 1);
    if (static_cast<uint32_t>(dx + (reach - 1)) > span || static_cast<uint32_t>(dy + (reach - 1)) > span ||
        static_cast<uint32_t>(dz + (reach - 1)) > span)
        return false;
    return int64_t{dx} * dx + int64_t{dy} * dy + int64_t{dz} * dz < reach_sq;
}

// The first of the samples [first, last) within reach of m (above), or last when none.
const StoredSample *first_nearer(const StoredSample *first, const StoredSample *last, const Vec3 &m, int32_t reach,
                                 int64_t reach_sq) {
    for (const StoredSample *p = first; p != last; ++p) {
        if (within_reach(*p, m, reach, reach_sq)) return p;
    }
    return last;
}

// Squared distance between two kept samples, saturated (int16 differences: up to 3 * 2^32).
uint32_t distance_sq(const StoredSample &a, const StoredSample &b) {
    uint64_t sum = 0;
    for (int k = 0; k < 3; ++k) {
        const int64_t d = int32_t{a.m[k]} - b.m[k];
        sum += static_cast<uint64_t>(d * d);
    }
    return sum > kNoNeighbour ? kNoNeighbour : static_cast<uint32_t>(sum);
}

uint32_t nearest_excluding(const FieldStore &s, int k, int excluded) {
    uint32_t best = kNoNeighbour;
    for (int j = 0; j < s.count; ++j) {
        if (j == k || j == excluded) continue;
        const uint32_t d = distance_sq(s.sample[k], s.sample[j]);
        if (d < best) best = d;
    }
    return best;
}

uint64_t strength_sq(const Vec3 &m, const Vec3 &centre) {
    const Vec3 v = minus(m, centre);  // within int16 + 16384 per axis
    return static_cast<uint64_t>(dot(v, v));
}

// The lower median of the kept samples' squared strengths about centre (the square of
// the median strength: squaring keeps the order).
void take_median(FieldStore *s, const Vec3 &centre) {
    uint64_t sq[kStoreCapacity];
    for (int i = 0; i < s->count; ++i) sq[i] = strength_sq(stored_field(*s, i), centre);
    const int mid = (s->count - 1) / 2;
    std::nth_element(sq, sq + mid, sq + s->count);
    s->median_sq = sq[mid];
    s->median_centre = centre;
    s->median_valid = true;
}

// |m - centre| within the band about the median strength, exactly: the squares compared
// scaled by 1000^2 (below 2^34 times below 2^21).
bool within_band(FieldStore *s, const Vec3 &centre, const Vec3 &m) {
    const Vec3 &c = s->median_centre;
    if (!s->median_valid || c.x != centre.x || c.y != centre.y || c.z != centre.z) take_median(s, centre);
    const uint64_t sq = strength_sq(m, centre) * (kPermille * kPermille);
    constexpr uint64_t kLow =
        (kPermille - kStoreStrengthTolerancePermille) * (kPermille - kStoreStrengthTolerancePermille);
    constexpr uint64_t kHigh =
        (kPermille + kStoreStrengthTolerancePermille) * (kPermille + kStoreStrengthTolerancePermille);
    return sq >= s->median_sq * kLow && sq <= s->median_sq * kHigh;
}

// A full store: the slot of the older sample of the closest pair (the first sample with
// the least nearest distance, and the first partner at that distance).
int slot_to_replace(const FieldStore &s) {
    int i = 0;
    for (int k = 1; k < s.count; ++k) {
        if (s.nearest_sq[k] < s.nearest_sq[i]) i = k;
    }
    int j = i == 0 ? 1 : 0;
    for (int k = 0; k < s.count; ++k) {
        if (k != i && distance_sq(s.sample[i], s.sample[k]) == s.nearest_sq[i]) {
            j = k;
            break;
        }
    }
    return s.age[i] > s.age[j] ? i : j;
}

}  // namespace

void field_store_clear(FieldStore *store) { *store = FieldStore{}; }

Offer field_store_offer(FieldStore *s, const Vec3 &m, const Vec3 &g, const Vec3 *centre, bool anomaly, bool steady) {
    if (anomaly) return Offer::kAnomaly;
    if (!fits16(m) || !fits16(g)) return Offer::kOutOfRange;
    const int n = s->count;
    const bool full = n == kStoreCapacity;
    const int32_t reach = full ? s->spacing_reach : kStoreMinDistance;
    const int64_t reach_sq = full ? int64_t{s->spacing_sq} + 1 : kMinDistanceSq;
    const Offer refused = full ? Offer::kNotWider : Offer::kTooNear;
    // A turning phone's sample is mostly refused by the sample that joined last or by the
    // one that refused the sample before; those two first, then the whole store.
    if (n > 0 && (within_reach(s->sample[s->last], m, reach, reach_sq) ||
                  within_reach(s->sample[s->refused_by], m, reach, reach_sq)))
        return refused;
    const StoredSample *end = s->sample + n, *hit = first_nearer(s->sample, end, m, reach, reach_sq);
    if (hit != end) {
        s->refused_by = static_cast<uint8_t>(hit - s->sample);
        return refused;
    }
    if (centre != nullptr && n >= kStoreMedianMinSamples && !within_band(s, *centre, m)) return Offer::kStrengthFar;

    int slot;
    Offer result;
    if (!full) {
        slot = n;
        s->count = static_cast<uint8_t>(n + 1);
        for (int k = 0; k < n; ++k) ++s->age[k];
        result = Offer::kJoined;
    } else {
        slot = slot_to_replace(*s);
        for (int k = 0; k < n; ++k) {
            if (s->age[k] < s->age[slot]) ++s->age[k];
        }
        // Samples whose nearest neighbour leaves look again among the others.
        for (int k = 0; k < n; ++k) {
            if (k != slot && distance_sq(s->sample[k], s->sample[slot]) == s->nearest_sq[k])
                s->nearest_sq[k] = nearest_excluding(*s, k, slot);
        }
        result = Offer::kJoinedReplacing;
    }
    StoredSample &p = s->sample[slot];
    p = StoredSample{{static_cast<int16_t>(m.x), static_cast<int16_t>(m.y), static_cast<int16_t>(m.z)},
                     {static_cast<int16_t>(g.x), static_cast<int16_t>(g.y), static_cast<int16_t>(g.z)}};
    s->age[slot] = 0;
    s->steady = steady ? s->steady | (uint32_t{1} << slot) : s->steady & ~(uint32_t{1} << slot);
    s->nearest_sq[slot] = kNoNeighbour;
    for (int k = 0; k < s->count; ++k) {
        if (k == slot) continue;
        const uint32_t d = distance_sq(s->sample[k], p);
        if (d < s->nearest_sq[k]) s->nearest_sq[k] = d;
        if (d < s->nearest_sq[slot]) s->nearest_sq[slot] = d;
    }
    s->spacing_sq = kNoNeighbour;
    for (int k = 0; k < s->count; ++k) {
        if (s->nearest_sq[k] < s->spacing_sq) s->spacing_sq = s->nearest_sq[k];
    }
    s->spacing_reach = static_cast<int32_t>(isqrt32(s->spacing_sq)) + 1;
    s->last = static_cast<uint8_t>(slot);
    s->median_valid = false;
    return result;
}

Vec3 store_mean(const FieldStore &store) {
    const int n = store.count;
    int32_t sum[3] = {0, 0, 0};  // below 32 * 2^15
    for (int i = 0; i < n; ++i) {
        for (int k = 0; k < 3; ++k) sum[k] += store.sample[i].m[k];
    }
    return Vec3{sum[0] / n, sum[1] / n, sum[2] / n};
}

int coverage_cell(const Vec3 &v) {
    const int64_t ax = v.x < 0 ? -int64_t{v.x} : v.x, ay = v.y < 0 ? -int64_t{v.y} : v.y,
                  az = v.z < 0 ? -int64_t{v.z} : v.z;
    if (ax == 0 && ay == 0 && az == 0) return -1;
    int face;
    int32_t f, a, b;  // the face's component, then the other two in axis order
    if (ax >= ay && ax >= az) {
        face = 0, f = v.x, a = v.y, b = v.z;
    } else if (ay >= az) {
        face = 1, f = v.y, a = v.x, b = v.z;
    } else {
        face = 2, f = v.z, a = v.x, b = v.y;
    }
    return face * 8 + (f < 0 ? 4 : 0) + (a < 0 ? 2 : 0) + (b < 0 ? 1 : 0);
}

uint32_t field_store_cells(const FieldStore &store, const Vec3 &centre) {
    uint32_t cells = 0;
    for (int i = 0; i < store.count; ++i) {
        const int cell = coverage_cell(minus(stored_field(store, i), centre));
        if (cell >= 0) cells |= uint32_t{1} << cell;
    }
    return cells;
}

int field_store_coverage(const FieldStore &store, const Vec3 &centre) {
    // Bits set, by halves (std::popcount would be a libgcc_s call on x86-64 without POPCNT).
    uint32_t v = field_store_cells(store, centre);
    v = v - ((v >> 1) & 0x55555555u);
    v = (v & 0x33333333u) + ((v >> 2) & 0x33333333u);
    v = (v + (v >> 4)) & 0x0F0F0F0Fu;
    return static_cast<int>((v * 0x01010101u) >> 24);
}

Spread field_store_spread(const FieldStore &store) {
    const int n = store.count;
    if (n < 3) return Spread{0, 0};
    // n^2 times the covariance, about the first sample (any origin gives the same):
    // n sum(u u^T) - s s^T, with |u| < 2^16: each sum below 2^37, times n below 2^42.
    const Vec3 origin = stored_field(store, 0);
    int64_t s[3] = {0, 0, 0}, uu[6] = {0, 0, 0, 0, 0, 0};
    for (int i = 0; i < n; ++i) {
        const Vec3 u = minus(stored_field(store, i), origin);
        const int64_t c[3] = {u.x, u.y, u.z};
        for (int k = 0; k < 3; ++k) s[k] += c[k];
        uu[0] += c[0] * c[0], uu[1] += c[0] * c[1], uu[2] += c[0] * c[2];
        uu[3] += c[1] * c[1], uu[4] += c[1] * c[2], uu[5] += c[2] * c[2];
    }
    constexpr int kRow[6] = {0, 0, 0, 1, 1, 2}, kCol[6] = {0, 1, 2, 1, 2, 2};
    int64_t cov[6];
    for (int k = 0; k < 6; ++k) cov[k] = n * uu[k] - s[kRow[k]] * s[kCol[k]];
    return spread_ratios(cov);
}

Spread spread_ratios(const int64_t cov[6]) {
    Spread out{0, 0};
    int64_t lambda[3];
    sym3_eigenvalues(cov, lambda);
    if (lambda[0] <= 0) return out;
    // Below 2^62 / 1024 the ratio is exact in 64 bits; beyond, both are scaled down first.
    const int down = significant_bits(lambda[0]) > 52 ? significant_bits(lambda[0]) - 52 : 0;
    constexpr int64_t kRatioOne = 1024;
    const int64_t largest = lambda[0] >> down;
    out.ratio_min = lambda[2] <= 0 ? 0 : static_cast<int32_t>((lambda[2] >> down) * kRatioOne / largest);
    out.ratio_mid = lambda[1] <= 0 ? 0 : static_cast<int32_t>((lambda[1] >> down) * kRatioOne / largest);
    return out;
}

namespace {

// The corrected field of sample i, 1/16 count.
Vec3 corrected_q4(const FieldStore &store, int i, const Vec3 &offset, const int16_t *w) {
    const Vec3 v = minus(stored_field(store, i), offset);  // within +-2^16 for |offset| <= 2^15
    return w != nullptr ? apply_q14(w, v, 4) : Vec3{v.x * 16, v.y * 16, v.z * 16};
}

int32_t strength_q4(const Vec3 &v) {
    const uint64_t sq = static_cast<uint64_t>(dot(v, v));
    return static_cast<int32_t>(sq <= UINT32_MAX ? isqrt32(static_cast<uint32_t>(sq)) : isqrt64(sq));
}

}  // namespace

void field_store_strengths(const FieldStore &store, const Vec3 &offset, const int16_t *w, StrengthStats *out) {
    *out = StrengthStats{0, 0, 0, 0, true};
    const int n = store.count;
    if (n == 0) return;
    int32_t s[kStoreCapacity];
    int64_t sum = 0;
    for (int i = 0; i < n; ++i) {
        s[i] = strength_q4(corrected_q4(store, i, offset, w));
        sum += s[i];
        if (!in_earth_range(s[i] >> 4)) out->in_range = false;
    }
    out->mean_q4 = static_cast<int32_t>(sum) / n;  // below 2^26: a 32-bit division
    int64_t worst = 0;
    for (int i = 0; i < n; ++i) {
        const int64_t dev = s[i] - out->mean_q4;
        out->spread_q8 += dev * dev;
        if ((dev < 0 ? -dev : dev) > worst) worst = dev < 0 ? -dev : dev;
    }
    // The largest deviation gives the largest truncated ratio: one division.
    out->worst_permille = out->mean_q4 > 0 ? static_cast<int32_t>(worst * kPermille / out->mean_q4) : 1000;
    out->rms_q4 = static_cast<int32_t>(isqrt64(static_cast<uint64_t>(out->spread_q8 / n)));
}

void field_store_agreement(const FieldStore &store, const Vec3 &offset, const int16_t *w, StoreAgreement *out) {
    field_store_strengths(store, offset, w, &out->strength);
    int64_t sum = 0;
    int steady = 0;
    for (int i = 0; i < store.count; ++i) {
        if (!(store.steady >> i & 1u)) continue;
        sum += angle_between_cdeg(corrected_q4(store, i, offset, w), stored_gravity(store, i));
        ++steady;
    }
    out->dip_valid = steady > 0;
    out->dip_cdeg = steady > 0 ? static_cast<int32_t>(sum) / steady : 0;
}

}  // namespace kmxc_kit
