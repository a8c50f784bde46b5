// The kit's own estimators on its store of samples: every measured sample is offered
// to the diversity store; when enough have joined, the store is fitted (a sphere, and
// an ellipsoid once it covers nearly every side) and each fit is judged the way the kit
// judges the library's: by its own samples' strength agreement for its accuracy, by the
// recent fed samples against the offset in use for whether it replaces that offset.
// Integer arithmetic only. One fitting step per cycle at most (a sphere fit with its
// judgement, an ellipsoid fit, or an ellipsoid's judgement), each within the cost the
// kit allows a cycle.
#include "calibration/calibration.h"
#include "orientation/orientation.h"
#include "service/kit_internal.h"

namespace kmxc_kit {

namespace {

constexpr int64_t kPermille = 1000;
constexpr int kQ4 = 4;  // the store's statistics are in 1/16 count

Estimators &est() { return g_state.est; }

int8_t level_of(const StrengthStats &s) {
    if (!s.in_range || s.worst_permille > KMXC_SERVICE_FIT_MEDIUM_PERMILLE) return KMXC_SERVICE_UNRELIABLE;
    return s.worst_permille <= KMXC_SERVICE_AGREE_PERMILLE ? KMXC_SERVICE_HIGH : KMXC_SERVICE_MEDIUM;
}

bool agrees(const Agreement &a) { return a.in_range && a.worst_permille <= KMXC_SERVICE_FIT_MEDIUM_PERMILLE; }

KmxAxesData axes(const Vec3 &v) { return KmxAxesData{v.x, v.y, v.z}; }

int32_t abs32(int32_t v) { return v < 0 ? -v : v; }

// The store's samples as the library sees them through the correction in use.
void corrected_store(const FieldStore &in, const SoftIron &soft, FieldStore *out) {
    out->count = in.count;
    for (int i = 0; i < in.count; ++i) {
        const Vec3 m = corrected(soft, stored_field(in, i));
        // Within int16: the correction's axes stay within 0.8..1.25 about a centre the
        // store's span allows (the fits refuse anything farther).
        out->sample[i].m[0] = static_cast<int16_t>(m.x);
        out->sample[i].m[1] = static_cast<int16_t>(m.y);
        out->sample[i].m[2] = static_cast<int16_t>(m.z);
    }
}

// How well a sphere fit's offset is determined: the predicted variance of the offset
// along the samples' weakest direction, R^2 rms^2 / (n lambda_min) for the algebraic fit
// (lambda_min the smallest eigenvalue of the samples' covariance), in thousandths of R,
// squared. R cancels: rms^2 n 1000^2 / lambda_min(n^2 Cov). INT64_MAX when the samples
// span no volume.
int64_t predicted_error_sq_permille(const FieldStore &store, const StrengthStats &residual) {
    const int n = store.count;
    const Vec3 origin = stored_field(store, 0);
    int64_t s[3] = {0, 0, 0}, uu[6] = {0, 0, 0, 0, 0, 0};
    for (int i = 0; i < n; ++i) {
        const Vec3 u = minus(stored_field(store, i), origin);  // int16 differences
        const int64_t c[3] = {u.x, u.y, u.z};
        for (int k = 0; k < 3; ++k) s[k] += c[k];
        uu[0] += c[0] * c[0], uu[1] += c[0] * c[1], uu[2] += c[0] * c[2];
        uu[3] += c[1] * c[1], uu[4] += c[1] * c[2], uu[5] += c[2] * c[2];
    }
    constexpr int kRow[6] = {0, 0, 0, 1, 1, 2}, kCol[6] = {0, 1, 2, 1, 2, 2};
    int64_t cov[6];
    for (int k = 0; k < 6; ++k) cov[k] = n * uu[k] - s[kRow[k]] * s[kCol[k]];
    int64_t lambda[3];
    sym3_eigenvalues(cov, lambda);
    if (lambda[2] <= 0) return INT64_MAX;
    // rms_q4 below 2^16 for any sample the fit accepts: the numerator below 2^57.
    const int64_t rms = residual.rms_q4;
    return rms * rms * n * (kPermille * kPermille) / (lambda[2] << (2 * kQ4));
}

bool within(int64_t error_sq_permille, int64_t limit_permille) {
    return error_sq_permille <= limit_permille * limit_permille;
}

// The offset in use, and whether a candidate moves it enough to publish.
KmxAxesData offset_in_use() {
    KmxAxesData o;
    KmxAxesLibGetMsOffset(&o);
    return o;
}

bool moves(const Vec3 &candidate, const KmxAxesData &in_use) {
    return abs32(candidate.x - in_use.x) >= KMXC_SERVICE_REPUBLISH_MIN_CHANGE ||
           abs32(candidate.y - in_use.y) >= KMXC_SERVICE_REPUBLISH_MIN_CHANGE ||
           abs32(candidate.z - in_use.z) >= KMXC_SERVICE_REPUBLISH_MIN_CHANGE;
}

// Publishes an offset to the library (its calibration restarts its batch from it).
void publish(const Vec3 &offset, uint8_t estimator, KmxcServiceEvent *e) {
    const KmxAxesData o = axes(offset);
    KmxAxesLibSetMsOffset(&o);
    KmxAxesMsCalibSetOffset(&o);
    g_state.estimator = estimator;
    e->flags |= KMXC_SERVICE_NEW_OFFSET | KMXC_SERVICE_FIT_3D | KMXC_SERVICE_KIT_ESTIMATE;
}

// The reference for anomalies: the candidate's recent-sample agreement (strength and
// dip), with the store's mean strength when too few samples have been fed since start
// or since a rough-offset change.
Agreement reference_of(const SoftIron &soft, const Vec3 &offset, const StrengthStats &store) {
    Agreement a = agreement(soft, axes(offset), g_state.fed_count, true);
    if (g_state.fed_count < KMXC_SERVICE_CONFIRM_SAMPLES) a.mean = store.mean_q4 >> kQ4;
    return a;
}

// The recent fed samples' agreement with a candidate, strengths only.
Agreement ring_of(const SoftIron &soft, const KmxAxesData &offset) {
    return agreement(soft, offset, g_state.fed_count, false);
}

// A candidate (offset, seen through soft) of accuracy `level` replaces the offset in use
// when nothing is trusted yet, or when the recent fed samples agree with it at least as
// well as with the offset in use and it moves that offset enough to be worth publishing.
// A new soft-iron correction is worth publishing however little it moves the offset.
bool prefer(bool new_correction, const Vec3 &offset, const Agreement &ring) {
    if (!g_state.offset_trusted) return true;
    const KmxAxesData in_use = offset_in_use();
    if (!new_correction && !moves(offset, in_use)) return false;
    return agrees(ring) && ring.spread <= ring_of(g_state.soft_iron, in_use).spread;
}

// ---- The fitting steps ------------------------------------------------------------------

void sphere_step(KmxcServiceEvent *e) {
    Estimators &s = est();
    s.joined = 0;
    const SoftIron &soft = g_state.soft_iron;
    FieldStore corrected_copy;
    const FieldStore *store = &s.store;
    if (soft.in_use) {
        corrected_store(s.store, soft, &corrected_copy);
        store = &corrected_copy;
    }
    SphereFit fit;
    if (sphere_fit(*store, &fit) != FitResult::kOk) return;
    s.sphere = fit;
    const KmxAxesData in_use = offset_in_use();
    s.coverage = static_cast<uint8_t>(field_store_coverage(*store, fit.offset));
    s.ellipsoid_due = s.coverage >= KMXC_SERVICE_ELLIPSOID_MIN_CELLS && s.store.count >= kEllipsoidMinSamples;
    int8_t level = level_of(fit.residual);
    if (level == KMXC_SERVICE_UNRELIABLE) return;  // refused: its own samples disagree
    const Agreement ring = ring_of(soft, axes(fit.offset));
    // Drift: a store that agrees with itself but not with a full ring of recent samples,
    // while the offset in use does, describes a field that has gone.
    if (g_state.offset_trusted && !g_state.in_anomaly && g_state.fed_count == KMXC_SERVICE_FEED_HISTORY &&
        !agrees(ring) && agrees(ring_of(soft, in_use))) {
        store_clear();
        return;
    }
    const int64_t error_sq = predicted_error_sq_permille(*store, fit.residual);
    if (!within(error_sq, KMXC_SERVICE_STORE_UNCERTAINTY_PERMILLE)) {
        // Plausible at best: its offset within the medium agreement limit's share of the
        // strength, else refused.
        if (!within(error_sq, KMXC_SERVICE_FIT_MEDIUM_PERMILLE)) return;
        level = KMXC_SERVICE_LOW;
    }
    if (level == KMXC_SERVICE_LOW) {
        // Plausible, not confirmed: used (at low accuracy) only while nothing is trusted.
        if (g_state.offset_trusted || g_state.stored_pending) return;
        if (!g_state.provisional || moves(fit.offset, in_use)) {
            publish(fit.offset, KMXC_SERVICE_ESTIMATOR_STORE_SPHERE, e);
            e->flags &= static_cast<uint16_t>(~KMXC_SERVICE_FIT_3D);  // not confirmed
        }
        g_state.provisional = true;
        return;
    }
    if (!prefer(false, fit.offset, ring)) return;
    publish(fit.offset, KMXC_SERVICE_ESTIMATOR_STORE_SPHERE, e);
    trust_estimate(level, reference_of(soft, fit.offset, fit.residual));
}

void ellipsoid_step() {
    Estimators &s = est();
    s.ellipsoid_due = false;
    if (ellipsoid_fit(s.store, s.sphere, &s.ellipsoid) == FitResult::kOk) s.ellipsoid_pending = true;
}

void judge_ellipsoid(KmxcServiceEvent *e) {
    Estimators &s = est();
    s.ellipsoid_pending = false;
    const EllipsoidFit &fit = s.ellipsoid;
    const int8_t level = level_of(fit.residual);
    if (level == KMXC_SERVICE_UNRELIABLE) return;
    if (int64_t{fit.residual.rms_q4} * KMXC_SERVICE_ELLIPSOID_BEAT_FACTOR > s.sphere.residual.rms_q4) return;
    SoftIron soft{true, fit.offset, {}};
    for (int k = 0; k < 9; ++k) soft.w_q14[k] = fit.w_q14[k];
    if (!prefer(true, fit.offset, ring_of(soft, axes(fit.offset)))) return;
    g_state.soft_iron = soft;
    publish(fit.offset, KMXC_SERVICE_ESTIMATOR_ELLIPSOID, e);
    trust_estimate(level, reference_of(soft, fit.offset, fit.residual));
}

}  // namespace

void store_clear() {
    field_store_clear(&g_state.est.store);
    Estimators &s = est();
    s.joined = 0;
    s.coverage = 0;
    s.ellipsoid_due = s.ellipsoid_pending = false;
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
        // After a persisting anomaly the reference is the old surrounding's: only a field
        // outside the Earth's range keeps a sample out until a new estimate is trusted.
        const uint8_t causes = s.reference_stale ? (e->anomaly & KMXC_SERVICE_ANOMALY_RANGE) : e->anomaly;
        const KmxAxesData o = offset_in_use();
        const Vec3 centre{o.x, o.y, o.z};
        const bool judged = g_state.offset_trusted && !s.reference_stale;
        const Offer r = field_store_offer(&s.store, m, g, judged ? &centre : nullptr, causes != 0, gravity_steady(g));
        if ((r == Offer::kJoined || r == Offer::kJoinedReplacing) && s.joined < UINT8_MAX) ++s.joined;
    }
    if (planar_cycle(fit_allowed, e)) return;  // the mounted phone's estimator (kit_planar.cpp) took the fit
    if (!fit_allowed) return;
    if (s.ellipsoid_pending) {
        judge_ellipsoid(e);
    } else if (s.joined >= KMXC_SERVICE_STORE_REFIT_JOINS && s.store.count >= kSphereMinSamples) {
        sphere_step(e);
    } else if (s.ellipsoid_due) {
        ellipsoid_step();
    }
}

}  // namespace kmxc_kit
