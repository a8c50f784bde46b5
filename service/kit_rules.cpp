// The kit's rules: integer geometry of the fed samples, the sample-feed gate, and the
// accuracy and anomaly judgements.
#include "service/kit_internal.h"

namespace kmxc_kit {

static int32_t abs32(int32_t v) { return v < 0 ? -v : v; }

int32_t strength_centi_uT(const Vec3 &v) {
    constexpr int64_t kCentiPerCount = 1000 / kCountsPer10uT;  // 40: 0.4 uT
    static_assert(kCentiPerCount * kCountsPer10uT == 1000, "a count is a whole number of hundredths");
    // The driver's corrected vector and a valid offset stay well within +-2^20 counts,
    // so dot(v, v) * 1600 < 2^52.
    return static_cast<int32_t>(isqrt64(static_cast<uint64_t>(dot(v, v)) * (kCentiPerCount * kCentiPerCount)));
}

static bool strength_in_earth_range(int32_t counts) {
    return counts * 10 >= KMXC_SERVICE_FIELD_MIN_UT * kCountsPer10uT &&
           counts * 10 <= KMXC_SERVICE_FIELD_MAX_UT * kCountsPer10uT;
}

// |g| (the truncated length) within KMXC_SERVICE_STEADY_GRAVITY_PERMILLE of 1 g: the
// whole lengths from kSteadyLow to kSteadyHigh, compared as squares (no root per cycle).
constexpr int64_t kSteadyLow =
    kGravityCounts - int64_t{KMXC_SERVICE_STEADY_GRAVITY_PERMILLE} * kGravityCounts / 1000;  // rounds the limit in
constexpr int64_t kSteadyHigh = kGravityCounts + int64_t{KMXC_SERVICE_STEADY_GRAVITY_PERMILLE} * kGravityCounts / 1000;
static_assert((kGravityCounts - kSteadyLow) * 1000 <= KMXC_SERVICE_STEADY_GRAVITY_PERMILLE * kGravityCounts &&
                  (kGravityCounts - kSteadyLow + 1) * 1000 > KMXC_SERVICE_STEADY_GRAVITY_PERMILLE * kGravityCounts,
              "kSteadyLow is the least whole length within the limit");
bool gravity_steady(const Vec3 &g) {
    const int64_t sq = dot(g, g);
    return sq >= kSteadyLow * kSteadyLow && sq < (kSteadyHigh + 1) * (kSteadyHigh + 1);
}

// The ring slot of the fed sample `age` feeds back (0: the last one).
static int fed_slot(int age) {
    return (g_state.fed_next - 1 - age + 2 * KMXC_SERVICE_FEED_HISTORY) % KMXC_SERVICE_FEED_HISTORY;
}

Vec3 corrected(const SoftIron &s, const Vec3 &m) {
    if (!s.in_use) return m;
    const Vec3 w = apply_q14(s.w_q14, minus(m, s.centre), 0);
    return Vec3{s.centre.x + w.x, s.centre.y + w.y, s.centre.z + w.z};
}

Agreement agreement(const KmxAxesData &o, int n) { return agreement(g_state.soft_iron, o, n, true); }

Agreement agreement(const SoftIron &soft, const KmxAxesData &o, int n, bool with_dip) {
    Agreement a{0, 0, 0, true, 0, false};
    int64_t sum = 0, dip_sum = 0;
    int dips = 0;
    int32_t s[KMXC_SERVICE_FEED_HISTORY];
    for (int i = 0; i < n; ++i) {
        const int slot = fed_slot(i);
        const Vec3 v = minus(corrected(soft, g_state.fed[slot]), o);
        s[i] = length(v);
        sum += s[i];
        if (!strength_in_earth_range(s[i])) a.in_range = false;
        if (with_dip && gravity_steady(g_state.fed_g[slot])) {
            dip_sum += dip_cos(v, g_state.fed_g[slot]);
            ++dips;
        }
    }
    if (n == 0) return a;
    a.mean = static_cast<int32_t>(sum / n);
    for (int i = 0; i < n; ++i) {
        const int32_t dev = a.mean > 0 ? static_cast<int32_t>(int64_t{abs32(s[i] - a.mean)} * 1000 / a.mean) : 1000;
        if (dev > a.worst_permille) a.worst_permille = dev;
        a.spread += int64_t{s[i] - a.mean} * (s[i] - a.mean);
    }
    if (dips > 0) {
        a.dip = static_cast<int32_t>(dip_sum / dips);
        a.dip_valid = true;
    }
    return a;
}

static void set_reference(const Agreement &a) {
    g_state.reference = true;
    g_state.ref_strength = a.mean;
    g_state.ref_dip = a.dip;
    g_state.ref_dip_valid = a.dip_valid;
    g_state.in_anomaly = false;
    g_state.est.reference_stale = false;
}

// ---- Sample-feed gate ---------------------------------------------------------------

// Far enough from each of the last few fed samples. (Against the last one only, a
// phone rocked to and fro across the gate would feed the same two places; against the
// whole batch, a figure-eight's return to its centre would wait for a new place.)
bool passes_gate(const Vec3 &m) {
    const int64_t min_sq = int64_t{KMXC_SERVICE_FEED_MIN_CHANGE} * KMXC_SERVICE_FEED_MIN_CHANGE;
    for (int j = 0; j < g_state.fed_count && j < KMXC_SERVICE_FEED_GATE_HISTORY; ++j) {
        const Vec3 &f = g_state.fed[fed_slot(j)];
        const Vec3 d{m.x - f.x, m.y - f.y, m.z - f.z};
        if (dot(d, d) < min_sq) return false;
    }
    return true;
}

void remember_fed(const Vec3 &m, const Vec3 &g) {
    g_state.fed[g_state.fed_next] = m;
    g_state.fed_g[g_state.fed_next] = g;
    g_state.fed_next = (g_state.fed_next + 1) % KMXC_SERVICE_FEED_HISTORY;
    if (g_state.fed_count < KMXC_SERVICE_FEED_HISTORY) ++g_state.fed_count;
}

// ---- Accuracy -------------------------------------------------------------------------

void on_fit(const KmxAxesData &o) {
    const Agreement a = agreement(o, g_state.fed_count);
    const bool agrees = a.in_range && a.worst_permille <= KMXC_SERVICE_FIT_MEDIUM_PERMILLE;
    g_state.base_accuracy = !agrees                                           ? KMXC_SERVICE_LOW
                            : a.worst_permille <= KMXC_SERVICE_AGREE_PERMILLE ? KMXC_SERVICE_HIGH
                                                                              : KMXC_SERVICE_MEDIUM;
    g_state.offset_trusted = true;
    g_state.stored_pending = false;
    g_state.provisional = false;
    set_reference(a);
    if (agrees) g_state.save_pending = true;  // saved in the cycle when it differs from the stored one
}

void trust_estimate(int8_t level, const Agreement &a) {
    g_state.base_accuracy = level;
    g_state.offset_trusted = true;
    g_state.stored_pending = false;
    g_state.provisional = false;
    set_reference(a);
    g_state.save_pending = true;
}

void try_confirm(const KmxAxesData &o, KmxcServiceEvent *e) {
    if (g_state.confirm_count < KMXC_SERVICE_CONFIRM_SAMPLES) return;
    const int n = g_state.fed_count < KMXC_SERVICE_CONFIRM_SAMPLES ? g_state.fed_count : KMXC_SERVICE_CONFIRM_SAMPLES;
    const Agreement a = agreement(o, n);
    if (!a.in_range || a.worst_permille > KMXC_SERVICE_AGREE_PERMILLE) return;
    g_state.stored_pending = false;
    g_state.offset_trusted = true;
    g_state.provisional = false;
    g_state.base_accuracy = KMXC_SERVICE_MEDIUM;
    set_reference(a);
    e->flags |= KMXC_SERVICE_CONFIRMED;
}

uint8_t anomaly_of(const Vec3 &g, int32_t strength, int32_t dip) {
    uint8_t causes = 0;
    if (!strength_in_earth_range(strength)) causes |= KMXC_SERVICE_ANOMALY_RANGE;
    if (g_state.reference) {
        if (int64_t{abs32(strength - g_state.ref_strength)} * 1000 >
            int64_t{KMXC_SERVICE_STRENGTH_TOLERANCE_PERMILLE} * g_state.ref_strength)
            causes |= KMXC_SERVICE_ANOMALY_STRENGTH;
        if (g_state.ref_dip_valid && gravity_steady(g) &&
            abs32(dip - g_state.ref_dip) > KMXC_SERVICE_DIP_COS_TOLERANCE_PERMILLE)
            causes |= KMXC_SERVICE_ANOMALY_DIP;
    }
    return causes;
}

void note_anomaly(uint8_t causes, int64_t now, KmxcServiceEvent *e) {
    const uint8_t cap = (causes & KMXC_SERVICE_ANOMALY_RANGE) != 0 ? KMXC_SERVICE_UNRELIABLE : KMXC_SERVICE_LOW;
    if (!g_state.in_anomaly || cap < g_state.anomaly_level_cap) g_state.anomaly_level_cap = cap;
    if (!g_state.in_anomaly) {
        g_state.anomaly_since_ns = now;
        g_state.est.anomaly_cleared = false;
    }
    g_state.in_anomaly = true;
    g_state.last_anomaly_ns = now;
    e->flags |= KMXC_SERVICE_ANOMALY;
}

int8_t accuracy_now(int64_t now) {
    if (!g_state.offset_trusted) return g_state.provisional ? KMXC_SERVICE_LOW : KMXC_SERVICE_UNRELIABLE;
    if (g_state.in_anomaly) {
        if (now - g_state.last_anomaly_ns < int64_t{KMXC_SERVICE_ANOMALY_CLEAR_MS} * kNsPerMs) {
            return g_state.base_accuracy < g_state.anomaly_level_cap ? g_state.base_accuracy
                                                                     : static_cast<int8_t>(g_state.anomaly_level_cap);
        }
        g_state.in_anomaly = false;
    }
    return g_state.base_accuracy;
}

}  // namespace kmxc_kit
