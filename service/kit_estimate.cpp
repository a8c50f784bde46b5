// The kit's own estimators on its store of samples: every measured sample is offered
// to the diversity store; when enough have joined, the store is fitted with a sphere
// (and, where the sphere's residual shows more than noise, an ellipsoid) and each fit is
// judged the way the kit judges the library's: by its own samples' strength agreement
// for its accuracy, by the recent fed samples for whether it still describes the field.
// Every estimate in use carries its offset's predicted covariance (kit_uncertainty.h),
// which decides which estimate is used and caps the accuracy at each attitude by the
// heading's uncertainty. Integer arithmetic only. One fitting step per cycle at most (a
// sphere fit, the ellipsoid fit that shows the store's soft iron before the sphere is
// judged, a step of a share, a judgement, an ellipsoid fit), each within the cost the
// kit allows a cycle.
#include "calibration/calibration.h"
#include "orientation/orientation.h"
#include "service/kit_angle.h"
#include "service/kit_internal.h"
#include "service/kit_uncertainty.h"

namespace kmxc_kit {

namespace {

Estimators &est() { return g_state.est; }

int8_t level_of(const StrengthStats &s) {
    if (!s.in_range || s.worst_permille > KMXC_SERVICE_FIT_MEDIUM_PERMILLE) return KMXC_SERVICE_UNRELIABLE;
    return s.worst_permille <= KMXC_SERVICE_AGREE_PERMILLE ? KMXC_SERVICE_HIGH : KMXC_SERVICE_MEDIUM;
}

bool agrees(const Agreement &a) { return a.in_range && a.worst_permille <= KMXC_SERVICE_FIT_MEDIUM_PERMILLE; }

// A store fit's level (above unreliable) by its own samples' strengths, at most low when
// they lie on a small cap (fewer than KMXC_SERVICE_TRUST_MIN_CELLS of the store's cells
// about its last sphere's centre) or the recent samples do not confirm it (their dips
// about it disagree, or their strength is no Earth field's).
int8_t store_fit_level(int8_t level, const Agreement &ring) {
    return est().coverage >= KMXC_SERVICE_TRUST_MIN_CELLS && confirms(ring) ? level : KMXC_SERVICE_LOW;
}

KmxAxesData axes(const Vec3 &v) { return KmxAxesData{v.x, v.y, v.z}; }
Vec3 vec(const KmxAxesData &o) { return Vec3{o.x, o.y, o.z}; }

int32_t abs32(int32_t v) { return v < 0 ? -v : v; }

// The store's samples as the library sees them through the correction in use.
void corrected_samples(const FieldStore &in, const SoftIron &soft, Vec3 *out) {
    for (int i = 0; i < in.count; ++i) out[i] = corrected(soft, stored_field(in, i));
}

// ---- Publishing ------------------------------------------------------------------------------

KmxAxesData offset_in_use() {
    KmxAxesData o;
    KmxAxesLibGetMsOffset(&o);
    return o;
}

// Publishes an offset to the library (its calibration restarts its batch from it).
void publish(const Vec3 &offset, uint8_t estimator, KmxcServiceEvent *e) {
    const KmxAxesData o = axes(offset);
    KmxAxesLibSetMsOffset(&o);
    KmxAxesMsCalibSetOffset(&o);
    g_state.estimator = estimator;
    e->flags |= KMXC_SERVICE_NEW_OFFSET | KMXC_SERVICE_FIT_3D | KMXC_SERVICE_KIT_ESTIMATE;
}

// The reference for anomalies: the candidate's recent-sample agreement (ring: strength
// and dip, through the candidate's correction), with the store's mean strength when too
// few samples have been fed since start or since a rough-offset change.
Agreement reference_of(const Agreement &ring, const StrengthStats &store) {
    Agreement a = ring;
    if (g_state.fed_count < KMXC_SERVICE_CONFIRM_SAMPLES) a.mean = store.mean_q4 >> kQ4;
    return a;
}

// The recent fed samples' agreement with a candidate, strengths only.
Agreement ring_of(const SoftIron &soft, const KmxAxesData &offset) {
    return agreement(soft, offset, g_state.fed_count, false);
}

// The estimate in use's predicted horizontal error variance at gravity g; INT64_MAX when
// it has none or the recent fed samples no longer agree with it (its prediction is of a
// field that has gone: any agreeing candidate is better). fed: the fed samples through
// the correction in use, or null.
int64_t in_use_variance(const KmxAxesData &o, const Vec3 &g, const Vec3 *fed) {
    const OffsetCovariance &in_use = est().cov;
    if (!in_use.valid) return INT64_MAX;
    if (!agrees(fed != nullptr ? agreement_of(fed, o, g_state.fed_count, false) : ring_of(g_state.soft_iron, o)))
        return INT64_MAX;
    return horizontal_variance(in_use, g);
}

// What a candidate does to the offset in use.
enum class Take { kNo, kCovariance, kPublish };

// A candidate (offset, its covariance p) against the estimate in use at gravity g: taken
// when nothing is trusted yet; else only when the recent fed samples agree with it (it
// describes the field now) and it predicts a smaller horizontal error than the estimate
// in use (a new correction: no larger), so the offset in use is always the best
// determined one that fits the field now. A candidate at the offset in use gives it its
// covariance (and its worth when that is more: judge_sphere). fed: the fed samples
// through the correction in use, or null.
Take take(bool new_correction, const Vec3 &offset, const Agreement &ring, const OffsetCovariance &p, const Vec3 &g,
          const Vec3 *fed) {
    if (!g_state.offset_trusted) return Take::kPublish;
    if (!agrees(ring)) return Take::kNo;
    const int64_t mine = horizontal_variance(p, g);
    const KmxAxesData o = offset_in_use();
    const int64_t theirs = in_use_variance(o, g, fed);
    if (new_correction ? mine > theirs : mine >= theirs) return Take::kNo;
    return !new_correction && same(axes(offset), o) ? Take::kCovariance : Take::kPublish;
}

// ---- The fitting steps ------------------------------------------------------------------

// The prior a sphere fit of the store carries: the offset in use, each axis known to the
// prior's 50 counts, weighted as n R^2 s^2 / s0^2 with s the residual noise explains and
// R^2 the samples' mean squared distance from that centre. None (false) when that
// distance is no Earth field: the offset belongs to a surrounding that has gone (a clip
// on the phone), and a prior there would pull the new surrounding's centre toward it.
bool sphere_prior(const FieldStore &view, SpherePrior *prior) {
    const Vec3 c = vec(offset_in_use());
    int64_t r2 = 0;
    for (int i = 0; i < view.count; ++i) {
        const Vec3 d = minus(stored_field(view, i), c);
        r2 += dot(d, d);
    }
    if (view.count == 0 || !in_earth_range(static_cast<int32_t>(isqrt64(static_cast<uint64_t>(r2 / view.count)))))
        return false;
    // r2 below 2^37 (32 samples within 2^15 per axis), times s^2 (below 2^20 in 1/256).
    const int64_t noise = noise_variance_q8();
    const int64_t w = r2 * noise / (kPriorVarianceCounts2 << kQ8);
    *prior = SpherePrior{c, w > 0 ? w : 1, noise};
    return true;
}

// The sphere's residual with the samples that joined while it waited for its judgement
// (up to four cycles) taken into its worst deviation and its range: its covariance comes
// from them too. A fit of a few samples along an arc can put its centre tens of uT off
// with a residual no larger than the noise's; the figure-eight's first samples, joined
// since, draw that covariance tight, and only their own strengths show the fit wrong.
// Their strengths alone (at most one joins a cycle), not the store's again.
StrengthStats with_late_samples(const SphereFit &fit, const SoftIron &soft) {
    const Estimators &s = est();
    StrengthStats r = fit.residual;
    int32_t worst = 0;
    for (int i = 0; i < s.store.count; ++i) {
        if (s.store.age[i] >= s.joined) continue;
        const Vec3 v = minus(corrected(soft, stored_field(s.store, i)), fit.offset);
        const int32_t q4 = length(Vec3{v.x * 16, v.y * 16, v.z * 16});
        if (!in_earth_range(q4 >> 4)) r.in_range = false;
        const int32_t dev = abs32(q4 - r.mean_q4);
        if (dev > worst) worst = dev;
    }
    // Deviations below 2^16 (strengths within the store's span): the permille in 32 bits.
    const int32_t late = r.mean_q4 > 0 ? static_cast<int32_t>(int64_t{worst} * 1000 / r.mean_q4) : 1000;
    if (late > r.worst_permille) r.worst_permille = late;
    return r;
}

// The store (as the library sees it) fitted with a sphere; judged in a later cycle.
void sphere_step() {
    Estimators &s = est();
    s.joined = 0;
    FieldStore copy;
    const FieldStore &view = library_view(s.store, g_state.soft_iron, &copy);
    SphereFit fit;
    SpherePrior prior;
    if (sphere_fit(view, &fit, sphere_prior(view, &prior) ? &prior : nullptr) != FitResult::kOk) return;
    s.sphere = fit;
    s.sphere_pending = true;
    s.probe_due = s.store.count >= kEllipsoidMinSamples;
    s.share_steps = 0;
    s.coverage = static_cast<uint8_t>(field_store_coverage(view, fit.offset));
}

void judge_sphere(const Vec3 &g, KmxcServiceEvent *e) {
    Estimators &s = est();
    s.sphere_pending = false;
    const SphereFit &fit = s.sphere;
    const SoftIron &soft = g_state.soft_iron;
    const int n = s.store.count;
    // A residual beyond what noise explains: the field is no sphere (soft iron). Or a
    // correction in use fitted to fewer directions than the store now covers: its W is
    // as good as the store it came from, and a wider one tells the axes better.
    s.ellipsoid_due =
        n >= kEllipsoidMinSamples &&
        (int64_t{fit.residual.rms_q4} * fit.residual.rms_q4 >
             KMXC_SERVICE_ELLIPSOID_ATTEMPT_FACTOR * KMXC_SERVICE_ELLIPSOID_ATTEMPT_FACTOR * noise_variance_q8() ||
         (soft.in_use && s.coverage > s.ellipsoid_cells));
    const int8_t level = level_of(with_late_samples(fit, soft));
    if (level == KMXC_SERVICE_UNRELIABLE) return;  // refused: its own samples disagree
    const KmxAxesData in_use = offset_in_use();
    // The fed samples through the correction in use, corrected once for every look below.
    Vec3 fed[KMXC_SERVICE_FEED_HISTORY];
    fed_corrected(soft, g_state.fed_count, fed);
    const Agreement ring = agreement_of(fed, axes(fit.offset), g_state.fed_count, true);
    // Drift: a store that agrees with itself but not with a full ring of recent samples,
    // while the offset in use does, describes a field that has gone. The ring speaks for
    // the offset in use only when it was fed after it: the library's fit of that very
    // batch agrees with it whatever the field (under soft iron, the store's sphere then
    // fails the batch and a store half-way to its ellipsoid would go).
    if (g_state.offset_trusted && !g_state.in_anomaly && g_state.fed_count == KMXC_SERVICE_FEED_HISTORY &&
        ring_fed_under(in_use) && !agrees(ring) && agrees(agreement_of(fed, in_use, g_state.fed_count, false))) {
        store_clear();
        return;
    }
    Vec3 u[kStoreCapacity];
    corrected_samples(s.store, soft, u);
    const int32_t radius = fit.radius_q4 >> kQ4;
    OffsetCovariance p;
    if (!s.share_valid ||
        !covariance_of(u, n, radius, residual_variance_q8(fit.residual.spread_q8, n, 4, store_wander_sq_q8()),
                       s.share_q8, s.share_prior_permille, &p))
        return;
    if (!every_direction_determined(p)) return;
    const Take t = take(false, fit.offset, ring, p, g, fed);
    if (t == Take::kNo) return;
    s.cov = p;
    const int8_t worth = store_fit_level(level, ring);
    if (t == Take::kCovariance) {
        g_state.estimator = KMXC_SERVICE_ESTIMATOR_STORE_SPHERE;
        // A fit at the offset in use worth more than it was (a store grown past a small
        // cap, dips that now agree) raises its worth; it never lowers it.
        if (worth <= g_state.base_accuracy) return;
    } else {
        publish(fit.offset, KMXC_SERVICE_ESTIMATOR_STORE_SPHERE, e);
    }
    trust_estimate(worth, reference_of(ring, fit.residual), fed);
    note_trusted_reference();
}

// The raw store fitted with an ellipsoid (ridge_bits: ellipsoid_fit.h). The sphere
// (fitted through any correction in use) gives the fit its starting centre and the ridge
// its radius, the same within the correction's percents.
bool fit_ellipsoid(int ridge_bits) {
    Estimators &s = est();
    return ellipsoid_fit(s.store, s.sphere, ridge_bits, &s.ellipsoid) == FitResult::kOk;
}

void ellipsoid_step() {
    Estimators &s = est();
    s.ellipsoid_due = false;
    if (fit_ellipsoid(kEllipsoidRidgeBits)) {
        s.ellipsoid_pending = true;
        s.share_steps = 0;
    }
}

// Before a sphere is judged, what soft iron the store shows: an ellipsoid fit of it at
// the showing ridge, not itself judged. The estimate in use's share follows it.
void probe_step() {
    Estimators &s = est();
    s.probe_due = false;
    if (!fit_ellipsoid(kShownRidgeBits)) return;
    s.shown_permille = soft_iron_shown_permille(s.ellipsoid);
    rescale_share(&s.cov);
}

void judge_ellipsoid(const Vec3 &g, KmxcServiceEvent *e) {
    Estimators &s = est();
    s.ellipsoid_pending = false;
    const EllipsoidFit &fit = s.ellipsoid;
    const int8_t level = level_of(fit.residual);
    if (level == KMXC_SERVICE_UNRELIABLE) return;
    // A first correction must beat the raw store's sphere by the factor; a new one must
    // do no worse than the sphere fitted through the correction in use.
    const int64_t beat = g_state.soft_iron.in_use ? 1 : KMXC_SERVICE_ELLIPSOID_BEAT_FACTOR;
    if (int64_t{fit.residual.rms_q4} * beat > s.sphere.residual.rms_q4) return;
    const SoftIron soft = proposed_correction(fit);
    Vec3 u[kStoreCapacity];
    corrected_samples(s.store, soft, u);
    const int n = s.store.count;
    OffsetCovariance p;
    // Nine unknowns: the offset, W's five and the strength. What W may still miss is the
    // soft-iron share's.
    if (!s.share_valid || !covariance_of(u, n, fit.radius_q4 >> kQ4,
                                         residual_variance_q8(fit.residual.spread_q8, n, 9, store_wander_sq_q8()),
                                         s.share_q8, s.share_prior_permille, &p))
        return;
    // As for the sphere: a store turned mostly flat leaves its axis to the ridge.
    if (!every_direction_determined(p)) return;
    if (!ellipsoid_centre_plausible(fit, s.sphere)) return;
    // The fed samples through the new correction (the one in use once it is taken).
    Vec3 fed[KMXC_SERVICE_FEED_HISTORY];
    fed_corrected(soft, g_state.fed_count, fed);
    const Agreement ring = agreement_of(fed, axes(fit.offset), g_state.fed_count, true);
    if (take(true, fit.offset, ring, p, g, nullptr) == Take::kNo) return;
    s.cov = p;
    s.ellipsoid_cells = s.coverage;
    g_state.soft_iron = soft;
    publish(fit.offset, KMXC_SERVICE_ESTIMATOR_ELLIPSOID, e);
    trust_estimate(store_fit_level(level, ring), reference_of(ring, fit.residual), fed);
    note_trusted_reference();
}

}  // namespace

const FieldStore &library_view(const FieldStore &in, const SoftIron &soft, FieldStore *copy) {
    if (!soft.in_use) return in;
    copy->count = in.count;
    for (int i = 0; i < in.count; ++i) {
        const Vec3 m = corrected(soft, stored_field(in, i));
        // Within int16: the correction's axes stay within 0.8..1.25 about a centre the
        // store's span allows (the fits refuse anything farther).
        copy->sample[i].m[0] = static_cast<int16_t>(m.x);
        copy->sample[i].m[1] = static_cast<int16_t>(m.y);
        copy->sample[i].m[2] = static_cast<int16_t>(m.z);
        for (int k = 0; k < 3; ++k) copy->sample[i].g[k] = in.sample[i].g[k];
    }
    return *copy;
}

bool ellipsoid_centre_plausible(const EllipsoidFit &fit, const SphereFit &sphere) {
    const Vec3 shift = minus(fit.offset, sphere.offset);
    const int64_t radius = sphere.radius_q4 >> kQ4;
    return dot(shift, shift) * kEllipsoidShiftDivisor * kEllipsoidShiftDivisor <= radius * radius;
}

void store_clear() {
    field_store_clear(&g_state.est.store);
    Estimators &s = est();
    s.joined = 0;
    s.coverage = 0;
    s.sphere_pending = s.ellipsoid_due = s.ellipsoid_pending = s.probe_due = false;
    s.temp_known = false;
    s.shown_permille = 0;
}

void on_vehicle_entered(KmxcServiceEvent *e) {
    e->anomaly |= KMXC_SERVICE_ANOMALY_VEHICLE;
    // The planar estimate, and any estimate whose store already draws the mount's circle,
    // were found in the vehicle.
    if (!g_state.offset_trusted || g_state.estimator == KMXC_SERVICE_ESTIMATOR_PLANAR || g_state.planar.mounted) return;
    demote_offset();
    store_clear();
}

bool library_fit_preferred(const KmxAxesData &o, const Vec3 &g) {
    // The recent fed samples, corrected and agreed with the fit once for both questions.
    Vec3 fed[KMXC_SERVICE_FEED_HISTORY];
    fed_corrected(g_state.soft_iron, g_state.fed_count, fed);
    const Agreement a = agreement_of(fed, o, g_state.fed_count, false);
    OffsetCovariance p;
    if (!ring_covariance_of(fed, g_state.fed_count, a, o, 4, &p) || !agrees(a)) return false;
    const int64_t theirs = in_use_variance(offset_in_use(), g, fed);
    if (theirs != INT64_MAX && horizontal_variance(p, g) > theirs) return false;
    est().cov = p;
    return true;
}

void use_ring_covariance(const KmxAxesData &o, int n, int unknowns) {
    if (!ring_covariance(o, n, unknowns, &est().cov)) est().cov.valid = false;
}

void adopt_new_offset(bool three_d, const Vec3 &g, KmxcServiceEvent *e) {
    KmxAxesData offset, in_use;
    KmxAxesMsCalibGetOffset(&offset);
    KmxAxesLibGetMsOffset(&in_use);
    if (g_state.offset_trusted) {
        if (!library_fit_preferred(offset, g)) {
            KmxAxesMsCalibSetOffset(&in_use);
            offset = in_use;
        }
    } else if (!same(offset, in_use)) {
        // Untrusted: the fit is used; its batch's covariance once a 3-D fit is trusted.
        // (The same offset again keeps the estimate in use, and what predicts its error.)
        g_state.est.cov.valid = false;
    }
    KmxAxesLibSetMsOffset(&offset);
    e->flags |= KMXC_SERVICE_NEW_OFFSET;
    if (!same(offset, in_use)) g_state.estimator = KMXC_SERVICE_ESTIMATOR_LIBRARY;
    if (three_d) {
        e->flags |= KMXC_SERVICE_FIT_3D;
        const bool trusted = g_state.offset_trusted;
        on_fit(offset);
        note_trusted_reference();
        if (!trusted && g_state.offset_trusted) use_ring_covariance(offset, KMXC_SERVICE_FEED_HISTORY, 4);
    }
}

void report_estimators(KmxcServiceEvent *e) {
    e->estimator = g_state.estimator;
    e->coverage_cells = g_state.est.coverage;
    const SoftIron &soft = g_state.soft_iron;
    const int16_t *w = soft.in_use ? soft.w_q14 : kIdentityQ14;
    for (int k = 0; k < 9; ++k) e->soft_iron_q14[k] = w[k];
}

void store_cycle(const Vec3 &m, const Vec3 &g, bool fit_allowed, int64_t now, KmxcServiceEvent *e) {
    Estimators &s = est();
    if (g_state.in_anomaly && !s.anomaly_cleared &&
        now - g_state.anomaly_since_ns >= int64_t{KMXC_SERVICE_STORE_ANOMALY_PERSIST_MS} * kNsPerMs) {
        store_clear();
        s.anomaly_cleared = true;
        s.reference_stale = true;
    }
    if (e->mag_result == 0) {
        // After a persisting anomaly the reference and the offset in use are the old
        // surrounding's: what they say of a sample keeps nothing out until a new estimate
        // is trusted (a clip's field puts every sample outside the Earth's range about the
        // old offset; the new surrounding's own fit must come from those samples). A
        // strength outside the estimate's band never does.
        const int kept_out = s.reference_stale ? 0 : ~KMXC_SERVICE_ANOMALY_OUTSIDE_BAND;
        const bool anomalous = (e->anomaly & kept_out) != 0;
        const KmxAxesData o = offset_in_use();
        const Vec3 centre = vec(o);
        const bool judged = g_state.offset_trusted && !s.reference_stale;
        const Offer r = field_store_offer(&s.store, m, g, judged ? &centre : nullptr, anomalous, gravity_steady(g));
        if (r == Offer::kJoined || r == Offer::kJoinedReplacing) {
            if (s.joined < UINT8_MAX) ++s.joined;
            note_temperature(e->raw_temperature);
        }
    }
    if (planar_cycle(fit_allowed, e)) return;  // the mounted phone's estimator (kit_planar.cpp) took the fit
    if (!fit_allowed) return;
    if (s.sphere_pending && s.probe_due) {
        probe_step();
    } else if ((s.ellipsoid_pending || s.sphere_pending) && s.share_steps < 2) {
        share_step();
    } else if (s.ellipsoid_pending) {
        judge_ellipsoid(g, e);
    } else if (s.sphere_pending) {
        judge_sphere(g, e);
    } else if (s.ellipsoid_due) {
        // Before the next sphere: while a turning phone's samples join, a sphere is due
        // every few cycles, and the soft iron its residual showed would wait for a still
        // spell.
        ellipsoid_step();
    } else if (s.joined >= KMXC_SERVICE_STORE_REFIT_JOINS && s.store.count >= kSphereMinSamples) {
        sphere_step();
    }
}

// ---- References and the kit file ---------------------------------------------------------------

void note_trusted_reference() {
    if (!g_state.reference || !g_state.ref_dip_valid || g_state.base_accuracy < KMXC_SERVICE_MEDIUM) return;
    // The dip below the horizontal from 1000 cos(field, gravity): gravity as the kit
    // keeps it points down, so sin(dip) = cos and cos(dip) = sin >= 0.
    const int32_t c = g_state.ref_dip < -1000 ? -1000 : g_state.ref_dip > 1000 ? 1000 : g_state.ref_dip;
    const int32_t s = static_cast<int32_t>(isqrt32(static_cast<uint32_t>(1000000 - c * c)));
    g_state.reference_known = true;
    g_state.reference_strength_counts = g_state.ref_strength;
    g_state.reference_dip_cdeg = atan2_cdeg(c, s);
}

// W's symmetric entries in the kit file's order: xx, xy, xz, yy, yz, zz.
constexpr int kKitSoftIronEntry[6] = {0, 1, 2, 4, 5, 8};

KitRecord kit_record_for(const CalibRecord &record) {
    KitRecord k = default_kit(record);
    const SoftIron &soft = g_state.soft_iron;
    if (soft.in_use)
        for (int i = 0; i < 6; ++i) k.soft_iron[i] = soft.w_q14[kKitSoftIronEntry[i]];
    if (g_state.reference_known) {
        k.reference = 1;
        k.strength = g_state.reference_strength_counts;
        k.dip_centideg = g_state.reference_dip_cdeg;
    }
    k.coverage = est().coverage;
    // A planar estimate is saved only when checked against the references (trust_planar).
    k.planar = g_state.estimator == KMXC_SERVICE_ESTIMATOR_PLANAR ? 1 : 0;
    return k;
}

void apply_kit_record(const KitRecord &kit) {
    // Used only when its axes are ones the ellipsoid fit itself accepts (the file's wider
    // range would let a diagonal of 2, beyond Q14 in 16 bits, through).
    const int64_t packed[6] = {kit.soft_iron[0], kit.soft_iron[1], kit.soft_iron[2],
                               kit.soft_iron[3], kit.soft_iron[4], kit.soft_iron[5]};
    int64_t lambda[3];
    sym3_eigenvalues(packed, lambda);
    const int32_t axes_q14[3] = {static_cast<int32_t>(lambda[0]), static_cast<int32_t>(lambda[1]),
                                 static_cast<int32_t>(lambda[2])};
    bool identity = true;
    for (int i = 0; i < 6; ++i) identity = identity && kit.soft_iron[i] == kIdentityQ14[kKitSoftIronEntry[i]];
    if (!identity && axes_plausible(axes_q14)) {
        SoftIron soft{true, vec(kit.magnetic), {}};
        constexpr int kPackedOf[9] = {0, 1, 2, 1, 3, 4, 2, 4, 5};  // row-major W from xx, xy, xz, yy, yz, zz
        for (int i = 0; i < 9; ++i) soft.w_q14[i] = static_cast<int16_t>(kit.soft_iron[kPackedOf[i]]);
        g_state.soft_iron = soft;
    }
    if (kit.reference != 0) {
        g_state.reference_known = true;
        g_state.reference_strength_counts = kit.strength;
        g_state.reference_dip_cdeg = kit.dip_centideg;
    }
    est().coverage = kit.coverage;
}

}  // namespace kmxc_kit
