// The sensor-service kit: call order, sample-feed gate, accuracy, anomalies and
// persistence. Integer arithmetic only (this unit is built without floating-point
// registers); the float fields of the event are filled in event_fill.cpp.
#include "service/kmxc_service.h"

#include <errno.h>
#include <stdio.h>

#include "calibration/calibration.h"
#include "calibration/calibration_results.h"
#include "drivers/drivers.h"
#include "orientation/orientation.h"
#include "platform/platform.h"
#include "service/event_fill.h"

namespace {

// The library's calibration file, read here only to check that it is well formed.
constexpr const char *kCalibrationFile = "/misc/sensor/kmxc_orvane.cfg";
constexpr int32_t kUnknownOffset = 2147483647; // the file's "not known" magnetic offset
// Corrected magnetometer counts per microtesla: 0.4 uT per count.
constexpr int32_t kCountsPer10uT = 25;
constexpr int32_t kGravityCounts = 4096; // 1 g
// The calibration's other two thresholds stay at the library's defaults.
constexpr int16_t kRatioMidThreshold = 96;
constexpr int32_t kResidualThreshold = 0x200000;

struct Vec {
    int32_t x, y, z;
};

struct State {
    bool started;
    uint32_t rate_hz;
    uint8_t rough[3];
    KmxAxesData stored;        // the magnetic offset the file holds (kUnknownOffset: none)
    bool offset_trusted;       // a 3-D fit of this run, or a confirmed stored offset
    bool stored_pending;       // a stored offset waits for confirmation
    int8_t base_accuracy;      // accuracy without anomaly
    bool reference;            // ref_strength and ref_dip hold values
    int32_t ref_strength;      // |field| counts, reference
    int32_t ref_dip;           // 1000 cos(field, gravity), reference
    bool ref_dip_valid;
    bool in_anomaly;
    uint8_t anomaly_level_cap; // accuracy limit while in anomaly
    uint64_t last_anomaly_us;
    bool rough_changed_once;
    uint64_t last_rough_change_us;
    Vec fed[KMXC_SERVICE_FEED_HISTORY];  // the last fed samples (raw field), ring
    Vec fed_g[KMXC_SERVICE_FEED_HISTORY]; // the gravity of each
    int fed_count, fed_next;
    int confirm_count;         // fed samples since start (for the stored offset's check)
    uint32_t warm_cycles;
    uint32_t saves, save_failures;
    bool save_pending;         // a confirmed offset waits to be saved (after a failure)
    bool file_damaged;         // the start could not reset a damaged calibration file
    bool file_unchecked;       // the start could not read the calibration file
};

State g_state;

// 6. Stop: both driver terms; the last of them closes /dev/compass.
void stop_drivers()
{
    KmxAxesDrvMsTerm();
    KmxAxesDrvGsTerm();
}

// ---- Integer helpers --------------------------------------------------------------

uint32_t isqrt64(uint64_t v)
{
    uint64_t r = 0, bit = uint64_t{1} << 62;
    while (bit > v) bit >>= 2;
    while (bit != 0) {
        if (v >= r + bit) {
            v -= r + bit;
            r = (r >> 1) + bit;
        } else {
            r >>= 1;
        }
        bit >>= 2;
    }
    return static_cast<uint32_t>(r);
}

int64_t dot(const Vec &a, const Vec &b)
{
    return int64_t{a.x} * b.x + int64_t{a.y} * b.y + int64_t{a.z} * b.z;
}

Vec minus(const Vec &a, const KmxAxesData &o) { return Vec{a.x - o.x, a.y - o.y, a.z - o.z}; }

int32_t length(const Vec &v) { return static_cast<int32_t>(isqrt64(static_cast<uint64_t>(dot(v, v)))); }

// 1000 cos of the angle between field and gravity; 0 when either has no length.
int32_t dip_cos(const Vec &field, const Vec &gravity)
{
    const int64_t lf = length(field), lg = length(gravity);
    if (lf == 0 || lg == 0) return 0;
    return static_cast<int32_t>(dot(field, gravity) * 1000 / (lf * lg));
}

int32_t abs32(int32_t v) { return v < 0 ? -v : v; }

bool strength_in_earth_range(int32_t counts)
{
    return counts * 10 >= KMXC_SERVICE_FIELD_MIN_UT * kCountsPer10uT &&
           counts * 10 <= KMXC_SERVICE_FIELD_MAX_UT * kCountsPer10uT;
}

bool gravity_steady(const Vec &g)
{
    return abs32(length(g) - kGravityCounts) * 1000 <= KMXC_SERVICE_STEADY_GRAVITY_PERMILLE * kGravityCounts;
}

// Field strengths of the last n fed samples with offset o removed: mean, and whether
// every one lies within permille of the mean and in the Earth's range. Also the mean
// dip over the samples taken in steady gravity.
struct Agreement {
    int32_t mean;
    int32_t worst_permille;
    int64_t spread; // sum of squared deviations from the mean
    bool in_range;
    int32_t dip;
    bool dip_valid;
};

Agreement agreement(const KmxAxesData &o, int n)
{
    Agreement a{0, 0, 0, true, 0, false};
    int64_t sum = 0, dip_sum = 0;
    int dips = 0;
    int32_t s[KMXC_SERVICE_FEED_HISTORY];
    for (int i = 0; i < n; ++i) {
        const int slot = (g_state.fed_next - 1 - i + 2 * KMXC_SERVICE_FEED_HISTORY) % KMXC_SERVICE_FEED_HISTORY;
        const Vec v = minus(g_state.fed[slot], o);
        s[i] = length(v);
        sum += s[i];
        if (!strength_in_earth_range(s[i])) a.in_range = false;
        if (gravity_steady(g_state.fed_g[slot])) {
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

void set_reference(const Agreement &a)
{
    g_state.reference = true;
    g_state.ref_strength = a.mean;
    g_state.ref_dip = a.dip;
    g_state.ref_dip_valid = a.dip_valid;
    g_state.in_anomaly = false;
}

// ---- Sample-feed gate ---------------------------------------------------------------

// Far enough from each of the last few fed samples. (Against the last one only, a
// phone rocked to and fro across the gate would feed the same two places; against the
// whole batch, a figure-eight's return to its centre would wait for a new place.)
bool passes_gate(const Vec &m)
{
    const int64_t min_sq = int64_t{KMXC_SERVICE_FEED_MIN_CHANGE} * KMXC_SERVICE_FEED_MIN_CHANGE;
    for (int j = 0; j < g_state.fed_count && j < KMXC_SERVICE_FEED_GATE_HISTORY; ++j) {
        const int i = (g_state.fed_next - 1 - j + 2 * KMXC_SERVICE_FEED_HISTORY) % KMXC_SERVICE_FEED_HISTORY;
        const Vec d{m.x - g_state.fed[i].x, m.y - g_state.fed[i].y, m.z - g_state.fed[i].z};
        if (dot(d, d) < min_sq) return false;
    }
    return true;
}

void remember_fed(const Vec &m, const Vec &g)
{
    g_state.fed[g_state.fed_next] = m;
    g_state.fed_g[g_state.fed_next] = g;
    g_state.fed_next = (g_state.fed_next + 1) % KMXC_SERVICE_FEED_HISTORY;
    if (g_state.fed_count < KMXC_SERVICE_FEED_HISTORY) ++g_state.fed_count;
}

// ---- Calibration file ---------------------------------------------------------------

// The calibration file as the kit finds it: one line of nine comma-separated decimal
// integers, as the library writes it; missing (the library creates it with defaults);
// damaged (anything else); or unreadable just now (it may be fine).
enum class FileState { kWellFormed, kMissing, kDamaged, kUnreadable };

FileState file_state()
{
    FILE *f = fopen(kCalibrationFile, "r");
    if (f == nullptr) return errno == ENOENT ? FileState::kMissing : FileState::kUnreadable;
    char line[256];
    const bool got = fgets(line, sizeof line, f) != nullptr;
    const bool read_error = !got && ferror(f) != 0;
    fclose(f);
    if (read_error) return FileState::kUnreadable;
    if (!got) return FileState::kDamaged;
    int fields = 0;
    const char *p = line;
    for (;;) {
        if (*p == '-') ++p;
        if (*p < '0' || *p > '9') return FileState::kDamaged;
        int digits = 0;
        while (*p >= '0' && *p <= '9') {
            ++p;
            if (++digits > 10) return FileState::kDamaged;
        }
        ++fields;
        if (*p == ',') {
            ++p;
            continue;
        }
        break;
    }
    return fields == 9 && (*p == '\0' || (*p == '\n' && p[1] == '\0')) ? FileState::kWellFormed
                                                                       : FileState::kDamaged;
}

bool file_well_formed() { return file_state() == FileState::kWellFormed; }

bool same(const KmxAxesData &a, const KmxAxesData &b) { return a.x == b.x && a.y == b.y && a.z == b.z; }

// A reset (the library's, which returns nothing) took when the file is then whole and
// loads.
bool reset_file()
{
    msmachdep_ResetOffsetData();
    uint8_t rough[3];
    return file_well_formed() && msmachdep_LoadRoughOffset(rough) == 0;
}

// A file the start could not read is checked, and a damaged one the start could not
// reset is reset, before anything is saved into it (with the rough offset in use), so
// no value read from damage ever persists. A failure counts as a failed save.
bool repair_damaged_file()
{
    if (g_state.file_unchecked) {
        const FileState state = file_state();
        if (state == FileState::kUnreadable) {
            ++g_state.save_failures;
            return false;
        }
        g_state.file_unchecked = false;
        g_state.file_damaged = state == FileState::kDamaged;
    }
    if (!g_state.file_damaged) return true;
    uint8_t back[3];
    if (reset_file() && msmachdep_SaveRoughOffset(g_state.rough) == 0 && msmachdep_LoadRoughOffset(back) == 0 &&
        back[0] == g_state.rough[0] && back[1] == g_state.rough[1] && back[2] == g_state.rough[2]) {
        g_state.file_damaged = false;
        return true;
    }
    ++g_state.save_failures;
    return false;
}

// Saves offset as the stored magnetic offset and reads it back.
bool save_offset(const KmxAxesData &offset)
{
    if (!repair_damaged_file()) return false;
    const int32_t v[3] = {offset.x, offset.y, offset.z};
    int32_t back[3];
    if (msmachdep_SaveMsOffset(v) == 0 && msmachdep_LoadMsOffset(back) == 0 && back[0] == v[0] && back[1] == v[1] &&
        back[2] == v[2]) {
        g_state.stored = offset;
        ++g_state.saves;
        return true;
    }
    ++g_state.save_failures;
    // A file that no longer loads is reset, so later loads and saves work again (or,
    // when that fails too, before the next save).
    uint8_t rough[3];
    if (msmachdep_LoadRoughOffset(rough) != 0 || !file_well_formed()) {
        g_state.file_damaged = !reset_file() || msmachdep_SaveRoughOffset(g_state.rough) != 0;
        g_state.stored = KmxAxesData{kUnknownOffset, kUnknownOffset, kUnknownOffset};
    }
    return false;
}

bool save_rough(const uint8_t rough[3])
{
    if (!repair_damaged_file()) return false;
    uint8_t back[3];
    if (msmachdep_SaveRoughOffset(rough) == 0 && msmachdep_LoadRoughOffset(back) == 0 && back[0] == rough[0] &&
        back[1] == rough[1] && back[2] == rough[2]) {
        ++g_state.saves;
        return true;
    }
    ++g_state.save_failures;
    return false;
}

// ---- Rough-offset change --------------------------------------------------------------

// Measure a new rough offset; carry the library's offset, the calibration's and the
// stored one over to it.
bool change_rough_offset(KmxcServiceEvent *e)
{
    uint8_t fresh[3];
    if (KmxAxesDrvMsSetRoughOffset(nullptr) != 0) return false;
    KmxAxesDrvMsGetWrittenRoughOffset(fresh);
    KmxAxesData offset, carried;
    KmxAxesLibGetMsOffset(&offset);
    KmxAxesLibRecalcMsOffset(&offset, &carried, g_state.rough, fresh);
    if (KmxAxesLibIsValidMsOffset(&carried)) {
        KmxAxesLibSetMsOffset(&carried);
        KmxAxesMsCalibSetOffset(&carried);
    }
    bool saved = true;
    if (KmxAxesLibIsValidMsOffset(&g_state.stored)) {
        KmxAxesData stored;
        KmxAxesLibRecalcMsOffset(&g_state.stored, &stored, g_state.rough, fresh);
        saved = save_offset(KmxAxesLibIsValidMsOffset(&stored)
                                ? stored
                                : KmxAxesData{kUnknownOffset, kUnknownOffset, kUnknownOffset});
    }
    saved = save_rough(fresh) && saved;
    e->flags |= saved ? KMXC_SERVICE_SAVED : KMXC_SERVICE_SAVE_FAILED;
    for (int k = 0; k < 3; ++k) g_state.rough[k] = fresh[k];
    // The fed samples were measured with the old rough offset.
    g_state.fed_count = g_state.fed_next = 0;
    return true;
}

// ---- Accuracy -------------------------------------------------------------------------

// A 3-D fit published offset o: judge it by its batch (the last fed samples).
void on_fit(const KmxAxesData &o, KmxcServiceEvent *e)
{
    const Agreement a = agreement(o, g_state.fed_count);
    const bool agrees = a.in_range && a.worst_permille <= KMXC_SERVICE_FIT_MEDIUM_PERMILLE;
    g_state.base_accuracy = !agrees ? KMXC_SERVICE_LOW
                            : a.worst_permille <= KMXC_SERVICE_AGREE_PERMILLE ? KMXC_SERVICE_HIGH
                                                                            : KMXC_SERVICE_MEDIUM;
    g_state.offset_trusted = true;
    g_state.stored_pending = false;
    set_reference(a);
    if (agrees) g_state.save_pending = true; // saved in the cycle when it differs from the stored one
    (void)e;
}

// A stored offset waits for confirmation: enough fed samples that agree with it.
void try_confirm(const KmxAxesData &o, KmxcServiceEvent *e)
{
    if (g_state.confirm_count < KMXC_SERVICE_CONFIRM_SAMPLES) return;
    const int n = g_state.fed_count < KMXC_SERVICE_CONFIRM_SAMPLES ? g_state.fed_count : KMXC_SERVICE_CONFIRM_SAMPLES;
    const Agreement a = agreement(o, n);
    if (!a.in_range || a.worst_permille > KMXC_SERVICE_AGREE_PERMILLE) return;
    g_state.stored_pending = false;
    g_state.offset_trusted = true;
    g_state.base_accuracy = KMXC_SERVICE_MEDIUM;
    set_reference(a);
    e->flags |= KMXC_SERVICE_CONFIRMED;
}

// Anomaly causes of this sample against the reference.
uint8_t anomaly_of(const Vec &g, int32_t strength, int32_t dip)
{
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

int8_t accuracy_now(uint64_t now)
{
    if (!g_state.offset_trusted) return KMXC_SERVICE_UNRELIABLE;
    if (g_state.in_anomaly) {
        if (now - g_state.last_anomaly_us < uint64_t{KMXC_SERVICE_ANOMALY_CLEAR_MS} * 1000) {
            return g_state.base_accuracy < g_state.anomaly_level_cap ? g_state.base_accuracy
                                                                     : static_cast<int8_t>(g_state.anomaly_level_cap);
        }
        g_state.in_anomaly = false;
    }
    return g_state.base_accuracy;
}

} // namespace

extern "C" {

int32_t kmxc_service_start(uint32_t rate_hz, KmxcServiceStart *start)
{
    if (rate_hz < KMXC_SERVICE_RATE_MIN_HZ || rate_hz > KMXC_SERVICE_RATE_MAX_HZ) return -1;
    if (g_state.started) return -5;
    g_state = State{};
    g_state.rate_hz = rate_hz;
    g_state.stored = KmxAxesData{kUnknownOffset, kUnknownOffset, kUnknownOffset};

    // 1. Library state, then both drivers.
    KmxAxesLibInit();
    KmxAxesMsCalibInit();
    // A batch of a slow turn often spreads just short of the library's default for
    // a three-dimensional fit; the kit accepts a little less, because it judges
    // every fit by its batch's strengths before trusting or saving it.
    KmxAxesMsCalibThreshold threshold{KMXC_SERVICE_RATIO_MIN_THRESHOLD, kRatioMidThreshold, kResidualThreshold};
    KmxAxesMsCalibSetThreshold(&threshold);
    if (KmxAxesDrvMsInit() != 0) return -2;
    if (KmxAxesDrvGsInit() != 0) {
        KmxAxesDrvMsTerm();
        return -3;
    }

    // The calibration file: an empty or garbled one is reset, never read as offsets.
    // A reset that does not take is a failed save; then nothing in the file is used and
    // the reset is tried again before the first save. A file that cannot be read just
    // now is not used either, and checked again before the first save.
    uint8_t stored_rough[3] = {255, 255, 255};
    bool repaired = false;
    const FileState state = file_state();
    if (state == FileState::kUnreadable) {
        g_state.file_unchecked = true;
    } else if (state == FileState::kDamaged || msmachdep_LoadRoughOffset(stored_rough) != 0) {
        stored_rough[0] = stored_rough[1] = stored_rough[2] = 255;
        if (reset_file()) {
            repaired = true;
            if (msmachdep_LoadRoughOffset(stored_rough) != 0) stored_rough[0] = 255;
        } else {
            g_state.file_damaged = true;
            ++g_state.save_failures;
        }
    }

    // 2. Rough offset: the stored one when valid, else measured; what was written is stored.
    const bool use_stored = KmxAxesLibIsValidRoughOffset(stored_rough) != 0;
    if (KmxAxesDrvMsSetRoughOffset(use_stored ? stored_rough : nullptr) != 0) {
        stop_drivers();
        return -4;
    }
    KmxAxesDrvMsGetWrittenRoughOffset(g_state.rough);
    if (!use_stored) save_rough(g_state.rough);

    // 3. Stored offsets. The magnetic one is used at once but trusted only once the
    // live field confirms it (or a fit replaces it); it belongs to the stored rough
    // offset, so it is ignored when a new rough offset had to be measured.
    int32_t ms[3];
    bool loaded = false;
    if (msmachdep_LoadMsOffset(ms) == 0) {
        const KmxAxesData offset{ms[0], ms[1], ms[2]};
        if (KmxAxesLibIsValidMsOffset(&offset) && use_stored) {
            KmxAxesLibSetMsOffset(&offset);
            KmxAxesMsCalibSetOffset(&offset);
            g_state.stored = offset;
            g_state.stored_pending = true;
            loaded = true;
        }
    }
    int32_t gs[3];
    if (!g_state.file_damaged && !g_state.file_unchecked && msmachdep_LoadGsOffset(gs) == 0) {
        const KmxAxesData offset{gs[0], gs[1], gs[2]};
        KmxAxesLibSetGsOffset(&offset);
    }

    g_state.started = true;
    if (start != nullptr) {
        for (int k = 0; k < 3; ++k) start->rough[k] = g_state.rough[k];
        start->rough_measured = use_stored ? 0 : 1;
        start->offset_loaded = loaded ? 1 : 0;
        start->file_repaired = repaired ? 1 : 0;
        KmxAxesData o;
        KmxAxesLibGetMsOffset(&o);
        start->offset[0] = o.x;
        start->offset[1] = o.y;
        start->offset[2] = o.z;
    }
    return 0;
}

int32_t kmxc_service_cycle(uint64_t now, KmxcServiceEvent *e)
{
    if (!g_state.started || e == nullptr) return -1;
    *e = KmxcServiceEvent{};
    e->time_us = now;
    e->heading_deg = -1;
    e->calib_residual = 2147483647;

    // 4. Both measurements.
    KmxAxesData ms = KmxAxesData_Constructor, gs = KmxAxesData_Constructor;
    KmxcDrvRawData raw{};
    e->ms_result = KmxAxesDrvMsMeasure(&ms, &raw); // waits 13 ms for the conversion
    e->gs_result = KmxAxesDrvGsMeasure(&gs, &raw);
    for (int k = 0; k < 3; ++k) {
        e->raw_ms[k] = static_cast<int16_t>(raw.ms[k]);
        e->raw_gs[k] = raw.gs[k];
        e->rough[k] = g_state.rough[k];
    }
    e->raw_temperature = static_cast<int16_t>(raw.temperature);
    e->calib_status = KmxAxesMsCalibGetStatus();

    if (e->ms_result >= 0 && e->gs_result >= 0) {
        e->flags |= KMXC_SERVICE_MEASURED;
        const Vec m{ms.x, ms.y, ms.z}, g{gs.x, gs.y, gs.z};
        e->ms[0] = ms.x, e->ms[1] = ms.y, e->ms[2] = ms.z;
        e->gs[0] = gs.x, e->gs[1] = gs.y, e->gs[2] = gs.z;

        // The calibration gets the raw vector, only when it lies apart from the recent ones.
        // A sample with a channel out of range is not fed: its field is wrong.
        if (e->ms_result == 0 && passes_gate(m)) {
            remember_fed(m, g);
            ++g_state.confirm_count;
            e->flags |= KMXC_SERVICE_FED;
            KmxAxesMsCalibDetail detail;
            e->calib_result = KmxAxesMsCalibUpdateDetail(&ms, &detail);
            e->calib_ratio_min = detail.ratioMin;
            e->calib_ratio_mid = detail.ratioMid;
            e->calib_residual = detail.residual;
            e->calib_status = KmxAxesMsCalibGetStatus();
            const bool three_d = e->calib_result == KMXC_CALIB_THREE_D;
            if (kmxc_calib_new_offset(e->calib_result)) {
                KmxAxesData offset;
                KmxAxesMsCalibGetOffset(&offset);
                // A new fit replaces a trusted offset only when the batch it came from
                // agrees with it at least as well as with the offset in use: each fit
                // carries its batch's noise, and a worse one must not undo a better.
                KmxAxesData in_use;
                KmxAxesLibGetMsOffset(&in_use);
                if (three_d && g_state.offset_trusted &&
                    agreement(in_use, g_state.fed_count).spread < agreement(offset, g_state.fed_count).spread) {
                    KmxAxesMsCalibSetOffset(&in_use);
                    offset = in_use;
                }
                KmxAxesLibSetMsOffset(&offset);
                e->flags |= KMXC_SERVICE_NEW_OFFSET;
                if (three_d) {
                    e->flags |= KMXC_SERVICE_FIT_3D;
                    on_fit(offset, e);
                }
            }
        }

        KmxAxesData offset;
        KmxAxesLibGetMsOffset(&offset);
        if (g_state.stored_pending && (e->flags & KMXC_SERVICE_FED) != 0) try_confirm(offset, e);

        // Persistence: a confirmed offset that differs from the stored one.
        if (g_state.save_pending) {
            KmxAxesData fit;
            KmxAxesMsCalibGetOffset(&fit);
            if (same(fit, g_state.stored)) {
                g_state.save_pending = false;
            } else {
                // One attempt per fit: a failing file system is not hammered every cycle.
                g_state.save_pending = false;
                e->flags |= save_offset(fit) ? KMXC_SERVICE_SAVED : KMXC_SERVICE_SAVE_FAILED;
            }
        }

        // Field checks against the reference.
        const Vec v = minus(m, offset);
        const int32_t strength = length(v);
        const int32_t dip = dip_cos(v, g);
        e->strength_centi_uT = strength * 40;
        e->dip_cos_permille = dip;
        if (e->ms_result == 0 && g_state.offset_trusted) {
            e->anomaly = anomaly_of(g, strength, dip);
            if (e->anomaly != 0) {
                const uint8_t cap = (e->anomaly & KMXC_SERVICE_ANOMALY_RANGE) != 0 ? KMXC_SERVICE_UNRELIABLE
                                                                                  : KMXC_SERVICE_LOW;
                if (!g_state.in_anomaly || cap < g_state.anomaly_level_cap) g_state.anomaly_level_cap = cap;
                g_state.in_anomaly = true;
                g_state.last_anomaly_us = now;
                e->flags |= KMXC_SERVICE_ANOMALY;
            }
        } else if (e->ms_result > 0 && g_state.offset_trusted) {
            // Channels out of range: the field is far from anything the Earth gives.
            e->anomaly = KMXC_SERVICE_ANOMALY_RANGE;
            g_state.in_anomaly = true;
            g_state.anomaly_level_cap = KMXC_SERVICE_UNRELIABLE;
            g_state.last_anomaly_us = now;
            e->flags |= KMXC_SERVICE_ANOMALY;
        }

        // Attitude, integer path: heading after the smoother's warm-up.
        KmxAxesAttitude attitude;
        if (KmxAxesLibGetAttitude(&ms, &gs, &attitude) == 0) {
            uint16_t heading = 0;
            KmxAxesLibCalcDirection(&attitude, &heading, KMXC_SERVICE_DIRECTION_THRESHOLD);
            if (g_state.warm_cycles >= KMXC_SERVICE_WARMUP_CYCLES) {
                e->heading_deg = static_cast<int16_t>(heading);
                e->flags |= KMXC_SERVICE_HEADING_VALID;
            } else {
                ++g_state.warm_cycles;
            }
        }
        e->offset[0] = offset.x, e->offset[1] = offset.y, e->offset[2] = offset.z;
        kmxc_service_fill_floats(&ms, &gs, &offset, e);
    }
    e->accuracy = accuracy_now(now);

    // 5. Channels out of range: move the rough offset (at most once per interval).
    if (e->ms_result > 0 &&
        (!g_state.rough_changed_once ||
         now - g_state.last_rough_change_us >= uint64_t{KMXC_SERVICE_ROUGH_CHANGE_INTERVAL_MS} * 1000)) {
        g_state.rough_changed_once = true;
        g_state.last_rough_change_us = now;
        if (change_rough_offset(e)) e->flags |= KMXC_SERVICE_ROUGH_CHANGED;
    }
    e->saves = g_state.saves;
    e->save_failures = g_state.save_failures;
    return 0;
}

int32_t kmxc_service_stop(void)
{
    if (!g_state.started) return -1;
    stop_drivers();
    g_state.started = false;
    return 0;
}

} // extern "C"

