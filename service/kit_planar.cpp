// The planar estimator (kit_planar.h) and its share of the kit's cycle: a circle fit of
// the store in one cycle, its judgement in the next, its adoption in the third. Integer
// arithmetic only.
#include "service/kit_planar.h"

#include "calibration/calibration.h"
#include "orientation/orientation.h"
#include "service/kit_angle.h"
#include "service/kit_internal.h"
#include "service/kit_uncertainty.h"

namespace kmxc_kit {

namespace {

constexpr int kQ14 = 14;

int64_t round_shift(int64_t v, int s) { return (v + (int64_t{1} << (s - 1))) >> s; }

// Two unit vectors (Q14) spanning the plane normal to n (Q14): e1 = n x (the coordinate
// axis least along n), normalised; e2 = n x e1.
void plane_axes(const Vec3 &n, int32_t e1[3], int32_t e2[3]) {
    const int32_t nv[3] = {n.x, n.y, n.z};
    int least = 0;
    for (int k = 1; k < 3; ++k) {
        const int32_t ak = nv[k] < 0 ? -nv[k] : nv[k], al = nv[least] < 0 ? -nv[least] : nv[least];
        if (ak < al) least = k;
    }
    const int a = (least + 1) % 3, b = (least + 2) % 3;
    // |(n_a, n_b)| is at least sqrt(2/3) of |n|: no division by a small length.
    const int32_t norm =
        static_cast<int32_t>(isqrt64(static_cast<uint64_t>(int64_t{nv[a]} * nv[a] + int64_t{nv[b]} * nv[b])));
    e1[least] = 0;
    e1[a] = static_cast<int32_t>((int64_t{nv[b]} << kQ14) / norm);
    e1[b] = static_cast<int32_t>((-int64_t{nv[a]} << kQ14) / norm);
    e2[0] = static_cast<int32_t>((int64_t{nv[1]} * e1[2] - int64_t{nv[2]} * e1[1]) >> kQ14);
    e2[1] = static_cast<int32_t>((int64_t{nv[2]} * e1[0] - int64_t{nv[0]} * e1[2]) >> kQ14);
    e2[2] = static_cast<int32_t>((int64_t{nv[0]} * e1[1] - int64_t{nv[1]} * e1[0]) >> kQ14);
}

// A sample about the circle's centre in the plane's frame, 1/256 count: p, q in the plane,
// z along the normal. (16 m - c) is in 1/16 count (below 2^17 for any int16 field and a
// centre within the span); times a Q14 vector, shifted by 10.
struct InPlane {
    int64_t p, q, z;
};
InPlane in_plane(const FieldStore &store, int i, const CircleFit &fit, const int32_t e1[3], const int32_t e2[3]) {
    const Vec3 m = stored_field(store, i);
    const int64_t d[3] = {int64_t{m.x} * 16 - fit.centre_q4.x, int64_t{m.y} * 16 - fit.centre_q4.y,
                          int64_t{m.z} * 16 - fit.centre_q4.z};
    const int32_t n[3] = {fit.normal_q14.x, fit.normal_q14.y, fit.normal_q14.z};
    int64_t p = 0, q = 0, z = 0;
    for (int k = 0; k < 3; ++k) p += d[k] * e1[k], q += d[k] * e2[k], z += d[k] * n[k];
    return InPlane{round_shift(p, kQ14 - 4), round_shift(q, kQ14 - 4), round_shift(z, kQ14 - 4)};
}

// One Gauss-Newton step's sums about (dx, dy) (planar_offset_from_reference): saa, sab,
// sbb, sar, sbr. T holds a = p - dx, b = q - dy and r 2^-8: int64_t always; int32_t when
// the caller has bounded them (|a|, |b| < 2^19 and 0 < target < 2^39 put r within
// +-2^39, r 2^-8 within int32), where every product is one 32 x 32 multiply on the
// target instead of a 64-bit one. The sums are the same either way.
template <class T>
void step_sums(const InPlane *s, const int64_t *target, int n, int64_t dx, int64_t dy, int64_t sums[5]) {
    int64_t saa = 0, sab = 0, sbb = 0, sar = 0, sbr = 0;
    for (int i = 0; i < n; ++i) {
        const T a = static_cast<T>(s[i].p - dx), b = static_cast<T>(s[i].q - dy);
        const int64_t r = int64_t{a} * a + int64_t{b} * b - target[i];
        const T r8 = static_cast<T>(r >> 8);  // r to 2^-8 count^2: the products below 2^50
        saa += int64_t{a} * a, sab += int64_t{a} * b, sbb += int64_t{b} * b;
        sar += int64_t{a} * r8, sbr += int64_t{b} * r8;
    }
    sums[0] = saa, sums[1] = sab, sums[2] = sbb, sums[3] = sar, sums[4] = sbr;
}

// One Gauss-Newton step's sums of the sphere of radius F about (dx, dy, dz) (1/256
// count): a = (p - dx, q - dy, z - dz), r = |a|^2 - F^2 (f2: F^2, 2^-16 count^2);
// m = the upper triangle of sum(a a^T) (xx, xy, xz, yy, yz, zz), rhs = sum(a r 2^-8).
// T as in step_sums, int32_t when |p|, |q|, |z|, |dx|, |dy|, |dz| are
// below 2^kSphereFastBits and F^2 below 2^38: |r| below 2^38, r 2^-8 within int32.
template <class T>
void sphere_step_sums(const InPlane *s, int n, int64_t dx, int64_t dy, int64_t dz, int64_t f2, int64_t m[6],
                      int64_t rhs[3]) {
    int64_t xx = 0, xy = 0, xz = 0, yy = 0, yz = 0, zz = 0, xr = 0, yr = 0, zr = 0;
    for (int i = 0; i < n; ++i) {
        const T a = static_cast<T>(s[i].p - dx), b = static_cast<T>(s[i].q - dy), c = static_cast<T>(s[i].z - dz);
        const int64_t r = int64_t{a} * a + int64_t{b} * b + int64_t{c} * c - f2;
        const T r8 = static_cast<T>(r >> 8);
        xx += int64_t{a} * a, xy += int64_t{a} * b, xz += int64_t{a} * c;
        yy += int64_t{b} * b, yz += int64_t{b} * c, zz += int64_t{c} * c;
        xr += int64_t{a} * r8, yr += int64_t{b} * r8, zr += int64_t{c} * r8;
    }
    m[0] = xx, m[1] = xy, m[2] = xz, m[3] = yy, m[4] = yz, m[5] = zz;
    rhs[0] = xr, rhs[1] = yr, rhs[2] = zr;
}

constexpr int kSphereFastBits = 17;
bool within(int64_t v, int bits) { return v < (int64_t{1} << bits) && v > -(int64_t{1} << bits); }

// The bound under which step_sums may take 32-bit factors: |a|, |b| below 2^19.
constexpr int kFastBits = 18;  // |p|, |q| and |dx|, |dy| each below 2^18
constexpr int64_t kFastTarget = int64_t{1} << 39;

// Largest and smallest of sin over [a, b] (centidegrees, 0 <= a <= b <= 18000), Q14.
void sin_range(int32_t a, int32_t b, int32_t *lo, int32_t *hi) {
    const int32_t sa = sin_q14(a), sb = sin_q14(b);
    *lo = sa < sb ? sa : sb;
    *hi = (a <= kCdegQuarterTurn && b >= kCdegQuarterTurn) ? 16384 : (sa > sb ? sa : sb);
}

}  // namespace

namespace {

// The arc of n samples about (cx, cy) in the plane (all 1/256 count).
int32_t arc_about(const InPlane *s, int n, int64_t cx, int64_t cy) {
    if (n < 2) return 0;
    int32_t angle[kStoreCapacity] = {};
    for (int i = 0; i < n; ++i) {
        // Insertion into the sorted prefix: at most 32 samples.
        const int32_t a = atan2_cdeg(s[i].q - cy, s[i].p - cx);
        int j = i;
        for (; j > 0 && angle[j - 1] > a; --j) angle[j] = angle[j - 1];
        angle[j] = a;
    }
    int32_t widest = angle[0] + kCdegPerTurn - angle[n - 1];  // across -180/180
    for (int i = 1; i < n; ++i) {
        if (angle[i] - angle[i - 1] > widest) widest = angle[i] - angle[i - 1];
    }
    return kCdegPerTurn - widest;
}

}  // namespace

bool planar_circle(const FieldStore &store, const CircleFit &fit) {
    // A circle: the samples within 1/KMXC_SERVICE_PLANAR_FLATNESS of its radius of the plane.
    if (int64_t{fit.out_of_plane_q4} * KMXC_SERVICE_PLANAR_FLATNESS > fit.radius_q4) return false;
    // Turned about the vertical: every sample's gravity within kPlanarAxisGravityCdeg of
    // the axis. A hand turning the phone about any other axis also traces circles (short
    // arcs look flat), but its gravity turns with the phone.
    for (int i = 0; i < store.count; ++i) {
        if (angle_between_cdeg(stored_gravity(store, i), fit.normal_q14) > kPlanarAxisGravityCdeg) return false;
    }
    return true;
}

int32_t planar_arc_cdeg(const FieldStore &store, const CircleFit &fit) {
    int32_t e1[3], e2[3];
    plane_axes(fit.normal_q14, e1, e2);
    InPlane s[kStoreCapacity];
    for (int i = 0; i < store.count; ++i) s[i] = in_plane(store, i, fit, e1, e2);
    return arc_about(s, store.count, 0, 0);
}

bool planar_axis_vertical(const CircleFit &fit, const Vec3 &vertical) {
    if (vertical.x == 0 && vertical.y == 0 && vertical.z == 0) return false;
    return angle_between_cdeg(vertical, fit.normal_q14) <= kPlanarAxisMeanGravityCdeg;
}

bool planar_offset_from_reference(const FieldStore &store, const CircleFit &fit, const PlanarReference &ref,
                                  Vec3 *offset, int32_t *arc_cdeg) {
    const int n = store.count;
    int32_t e1[3], e2[3];
    plane_axes(fit.normal_q14, e1, e2);
    // F and F cos(theta) in 1/256 count (F below 2^15: below 2^23).
    const int64_t f_q8 = int64_t{ref.strength} << 8;
    const int64_t axial_q8 = round_shift(int64_t{ref.strength} * cos_q14(ref.angle_cdeg), kQ14 - 8);
    InPlane s[kStoreCapacity];
    int64_t target[kStoreCapacity];  // F^2 - (z + F cos theta)^2: the squared radius at the sample's height, 2^-16
    bool small = true;               // every |p|, |q| below 2^kFastBits and target below kFastTarget
    bool sphere_small = f_q8 < (int64_t{1} << 19);  // ... below 2^kSphereFastBits, and F^2 below 2^38
    for (int i = 0; i < n; ++i) {
        s[i] = in_plane(store, i, fit, e1, e2);
        const int64_t h = s[i].z + axial_q8;
        target[i] = f_q8 * f_q8 - h * h;
        if (target[i] <= 0) return false;
        sphere_small = sphere_small && within(s[i].p, kSphereFastBits) && within(s[i].q, kSphereFastBits) &&
                       within(s[i].z, kSphereFastBits);
        small = small && within(s[i].p, kFastBits) && within(s[i].q, kFastBits) && target[i] < kFastTarget;
    }
    // Gauss-Newton on d (1/256 count) for r_i = |(p, q) - d|^2 - target_i: the normal
    // equations sum(a a^T) delta = sum(a r) / 2 with a = (p, q) - d. |a| below 2^17
    // (twice a radius of 2^9 counts), r below 2^35: the sums below 2^44 and 2^58.
    int64_t dx = 0, dy = 0;
    for (int step = 0; step < kPlanarRefineSteps; ++step) {
        int64_t sums[5];
        if (small && within(dx, kFastBits) && within(dy, kFastBits))
            step_sums<int32_t>(s, target, n, dx, dy, sums);
        else
            step_sums<int64_t>(s, target, n, dx, dy, sums);
        const int64_t m2[4] = {sums[0], sums[1], sums[1], sums[2]};
        const int64_t rhs[2] = {sums[3], sums[4]};
        // The solution is 2 delta in 1/256 count times 2^-8 (r's shift): 7 fraction bits
        // give delta itself.
        constexpr int8_t kFrac[2] = {7, 7};
        int64_t delta[2];
        if (solve_spd(2, m2, rhs, kFrac, delta) != FitResult::kOk) return false;
        dx += delta[0], dy += delta[1];
    }
    // The arc about the reference circle's centre, in the plane its angles are taken in.
    if (arc_cdeg != nullptr) *arc_cdeg = arc_about(s, n, dx, dy);
    // Then the centre in three dimensions, on the sphere of radius F alone: the dip placed
    // it along the fitted plane's normal, which a short arc tilts by degrees (a quarter
    // turn of a drive tilted it by 6, the centre 14 counts off), while the sphere needs no
    // axis: a road's slopes lift the samples off the plane, and on a flat road the arc's
    // curvature against F places it as well as the plane's tilt did. A step whose solve
    // refuses ends the refinement where it stands.
    int64_t dz = -axial_q8;
    for (int step = 0; step < kPlanarSphereSteps; ++step) {
        int64_t m[6], rhs[3];
        if (sphere_small && within(dx, kSphereFastBits) && within(dy, kSphereFastBits) && within(dz, kSphereFastBits))
            sphere_step_sums<int32_t>(s, n, dx, dy, dz, f_q8 * f_q8, m, rhs);
        else
            sphere_step_sums<int64_t>(s, n, dx, dy, dz, f_q8 * f_q8, m, rhs);
        const int64_t m3[9] = {m[0], m[1], m[2], m[1], m[3], m[4], m[2], m[4], m[5]};
        constexpr int8_t kFrac[3] = {7, 7, 7};
        int64_t delta[3];
        if (solve_spd(3, m3, rhs, kFrac, delta) != FitResult::kOk) break;
        dx += delta[0], dy += delta[1], dz += delta[2];
    }
    // o = c + dx e1 + dy e2 + dz n, in 2^-22 count (the centre's 1/16 shifted by 18, the
    // products of 2^-8 and Q14), rounded to counts.
    const int32_t c[3] = {fit.centre_q4.x, fit.centre_q4.y, fit.centre_q4.z};
    const int32_t nv[3] = {fit.normal_q14.x, fit.normal_q14.y, fit.normal_q14.z};
    int32_t o[3];
    for (int k = 0; k < 3; ++k) {
        o[k] = static_cast<int32_t>(round_shift((int64_t{c[k]} << 18) + dx * e1[k] + dy * e2[k] + dz * nv[k], 22));
    }
    *offset = Vec3{o[0], o[1], o[2]};
    return true;
}

void planar_estimate(const FieldStore &store, const CircleFit &fit, const PlanarReference *ref, const Vec3 &prior,
                     PlanarEstimate *out) {
    *out = PlanarEstimate{};
    out->level = KMXC_SERVICE_UNRELIABLE;
    // The arc about the centre the offset is taken from: the free circle's without a
    // reference, the reference circle's with one (a poorly fitted free circle on a short
    // arc can wrap its few samples half way round itself).
    if (ref == nullptr) {
        out->arc_cdeg = planar_arc_cdeg(store, fit);
        if (out->arc_cdeg < KMXC_SERVICE_PLANAR_MIN_ARC_CDEG) return;
        out->offset = circle_offset_from_prior(fit, prior);
    } else if (!planar_offset_from_reference(store, fit, *ref, &out->offset, &out->arc_cdeg) ||
               out->arc_cdeg < KMXC_SERVICE_PLANAR_MIN_ARC_CDEG) {
        return;
    }
    const bool confirmable = out->arc_cdeg >= KMXC_SERVICE_PLANAR_CONFIRM_ARC_CDEG;
    field_store_strengths(store, out->offset, nullptr, &out->strengths);
    const StrengthStats &st = out->strengths;
    if (!st.in_range || st.worst_permille > KMXC_SERVICE_FIT_MEDIUM_PERMILLE) return;
    out->level = KMXC_SERVICE_LOW;
    if (ref == nullptr) return;
    // The circle's own radius against the reference circle's, F sin(theta) with theta
    // within the tolerance (0..180 degrees).
    int32_t lo_angle = ref->angle_cdeg - KMXC_SERVICE_PLANAR_DIP_TOLERANCE_CDEG;
    int32_t hi_angle = ref->angle_cdeg + KMXC_SERVICE_PLANAR_DIP_TOLERANCE_CDEG;
    if (lo_angle < 0) lo_angle = 0;
    if (hi_angle > kCdegHalfTurn) hi_angle = kCdegHalfTurn;
    int32_t sin_lo, sin_hi;
    sin_range(lo_angle, hi_angle, &sin_lo, &sin_hi);
    out->radius_low_q4 = static_cast<int32_t>((int64_t{ref->strength} * sin_lo) >> (kQ14 - 4));
    out->radius_high_q4 = static_cast<int32_t>(round_shift(int64_t{ref->strength} * sin_hi, kQ14 - 4));
    if (confirmable && fit.radius_q4 >= out->radius_low_q4 && fit.radius_q4 <= out->radius_high_q4)
        out->level = KMXC_SERVICE_MEDIUM;
}

// ---- The kit's cycle ----------------------------------------------------------------------

namespace {

Planar &planar() { return g_state.planar; }

// Notes a join to the store since the last cycle (its count, last slot or that slot's
// field changed: a joining sample lies at least kStoreMinDistance from every kept one).
void note_joins() {
    Planar &p = planar();
    const FieldStore &s = g_state.est.store;
    if (s.count == 0) {
        p.joins = 0;
        p.pending = p.judged = false;
        p.mounted = false;  // emptied: a new surrounding, mount or not
    }
    const StoredSample &last = s.sample[s.last];
    const bool changed =
        s.count != p.seen_count || (s.count > 0 && (s.last != p.seen_last || last.m[0] != p.seen_m[0] ||
                                                    last.m[1] != p.seen_m[1] || last.m[2] != p.seen_m[2]));
    if (!changed) return;
    if (s.count > 0) {
        if (p.joins < UINT8_MAX) ++p.joins;
        // A circle waiting for its judgement would be judged on other samples; a judged
        // estimate is still adopted (its adoption weighs it on the store as it is then).
        if (!p.judged) p.pending = false;
    }
    p.seen_count = s.count;
    p.seen_last = s.last;
    for (int k = 0; k < 3; ++k) p.seen_m[k] = s.count > 0 ? last.m[k] : 0;
}

// The store's other fitting steps (kit_estimate.cpp) come first.
bool other_step_due() {
    const Estimators &s = g_state.est;
    return s.ellipsoid_pending || s.sphere_pending || s.ellipsoid_due ||
           (s.joined >= KMXC_SERVICE_STORE_REFIT_JOINS && s.store.count >= kSphereMinSamples);
}

void fit_step() {
    Planar &p = planar();
    p.joins = 0;
    FieldStore scratch;
    const FieldStore &store = library_view(g_state.est.store, g_state.soft_iron, &scratch);
    Vec3 down{0, 0, 0};  // the store's gravity, summed: it signs the normal
    for (int i = 0; i < store.count; ++i) {
        const Vec3 g = stored_gravity(store, i);
        down = Vec3{down.x + g.x, down.y + g.y, down.z + g.z};
    }
    CircleFit fit;
    p.mounted = circle_fit(store, down, &fit) == FitResult::kOk && planar_circle(store, fit);
    if (!p.mounted) return;
    p.circle = fit;
    p.pending = true;
}

bool moves(const Vec3 &a, const KmxAxesData &b) {
    const int32_t d[3] = {a.x - b.x, a.y - b.y, a.z - b.z};
    for (const int32_t v : d) {
        if (v >= KMXC_SERVICE_REPUBLISH_MIN_CHANGE || v <= -KMXC_SERVICE_REPUBLISH_MIN_CHANGE) return true;
    }
    return false;
}

// The circle's estimate (planar_estimate), kept for the next cycle's adoption unless
// refused.
void judge_step() {
    Planar &p = planar();
    FieldStore scratch;
    const FieldStore &store = library_view(g_state.est.store, g_state.soft_iron, &scratch);
    KmxAxesData in_use;
    KmxAxesLibGetMsOffset(&in_use);
    const PlanarReference ref{g_state.reference_strength_counts, reference_angle_cdeg()};
    const bool with_ref = g_state.reference_known;
    PlanarEstimate est;
    planar_estimate(store, p.circle, with_ref ? &ref : nullptr, Vec3{in_use.x, in_use.y, in_use.z}, &est);
    // An offset the library would refuse is none (which also keeps it within int16).
    // Without a reference nothing checks the circle's radius: its axis must be the
    // vertical, the mount's mean gravity (the store's samples joined in turns, each
    // tilted by the turn's acceleration).
    const KmxAxesData o{est.offset.x, est.offset.y, est.offset.z};
    if (est.level == KMXC_SERVICE_UNRELIABLE || !KmxAxesLibIsValidMsOffset(&o) ||
        (!with_ref && !planar_axis_vertical(p.circle, mount_gravity_mean(g_state.mount_gravity)))) {
        p.pending = false;
        return;
    }
    p.judged = true;
    p.estimate_referenced = with_ref;
    p.estimate_level = est.level;
    const int32_t v[3] = {o.x, o.y, o.z};
    for (int k = 0; k < 3; ++k) p.estimate[k] = static_cast<int16_t>(v[k]);
}

// The judged estimate against the offset in use.
void adopt_step(KmxcServiceEvent *e) {
    Planar &p = planar();
    p.pending = p.judged = false;
    FieldStore scratch;
    const FieldStore &store = library_view(g_state.est.store, g_state.soft_iron, &scratch);
    KmxAxesData in_use;
    KmxAxesLibGetMsOffset(&in_use);
    const Vec3 estimate{p.estimate[0], p.estimate[1], p.estimate[2]};
    StrengthStats own;
    field_store_strengths(store, estimate, nullptr, &own);
    // The offset in use against the same samples: one that still describes them stays,
    // unless nothing trusts it and the estimate can (a medium one: the hand's offset,
    // demoted on entering a vehicle whose own field is too weak to move it).
    StrengthStats current;
    field_store_strengths(store, Vec3{in_use.x, in_use.y, in_use.z}, nullptr, &current);
    const bool in_use_fits = current.in_range && current.worst_permille <= KMXC_SERVICE_FIT_MEDIUM_PERMILLE &&
                             current.spread_q8 <= own.spread_q8;
    const bool planar_in_use = g_state.estimator == KMXC_SERVICE_ESTIMATOR_PLANAR;
    // A planar estimate in use is replaced when the new one moves it, or confirms it.
    const bool upgrade = planar_in_use && p.estimate_level > g_state.base_accuracy && !g_state.offset_trusted;
    if (planar_in_use ? !moves(estimate, in_use) && !upgrade
                      : in_use_fits && (g_state.offset_trusted || p.estimate_level < KMXC_SERVICE_MEDIUM))
        return;
    // A low estimate is used only while nothing is trusted; a medium one replaces a
    // trusted offset that no longer describes the store (or refreshes its own).
    if (p.estimate_level == KMXC_SERVICE_LOW && g_state.offset_trusted) return;
    const KmxAxesData o{estimate.x, estimate.y, estimate.z};
    KmxAxesLibSetMsOffset(&o);
    KmxAxesMsCalibSetOffset(&o);
    g_state.estimator = KMXC_SERVICE_ESTIMATOR_PLANAR;
    // With the references the offset along the axis is theirs, known as well as they
    // are: the level alone caps it. Without, that component is the old offset's, which
    // nothing here determines: it is left to the prior, which caps the heading as a tilt
    // turns the axis into the horizontal (a phone taken from the mount or stood on its
    // edge).
    if (p.estimate_referenced) {
        g_state.est.cov.valid = false;
    } else {
        undetermined_along(p.circle.normal_q14, &g_state.est.cov);
    }
    e->flags |= KMXC_SERVICE_NEW_OFFSET | KMXC_SERVICE_KIT_ESTIMATE;
    trust_planar(p.estimate_level);
}

}  // namespace

bool planar_cycle(bool fit_allowed, KmxcServiceEvent *e) {
    note_joins();
    if (!fit_allowed || other_step_due()) return false;
    Planar &p = planar();
    if (p.pending) {
        p.judged ? adopt_step(e) : judge_step();
        return true;
    }
    if (p.joins >= KMXC_SERVICE_STORE_REFIT_JOINS && g_state.est.store.count >= kPlanarMinSamples) {
        fit_step();
        return true;
    }
    return false;
}

}  // namespace kmxc_kit
