// The sensor-service kit: the library's call order, as start, cycle and stop. The
// numbered steps are those of the README's call sequence. Its rules are in
// kit_rules.cpp, its persistence in kit_file.cpp. Integer arithmetic only (built without
// floating-point registers); the float fields of the event are filled in event_fill.cpp.
#include "service/kmxc_service.h"

#include <unistd.h>

#include <atomic>

#include "calibration/calibration.h"
#include "drivers/drivers.h"
#include "orientation/orientation.h"
#include "platform/platform.h"
#include "service/event_fill.h"
#include "service/kit_internal.h"

namespace kmxc_kit {
State g_state;
}  // namespace kmxc_kit

using namespace kmxc_kit;

namespace {

// ---- Session ownership ----------------------------------------------------------------

// Set while a call runs: a call that finds it set (another thread inside the kit) is
// refused before it reads any state. Constant-initialised: no static initialiser.
std::atomic<int> g_in_call{0};

// Holds the in-call flag for the life of one call, when it could take it.
class CallGuard {
public:
    CallGuard() : entered_(g_in_call.exchange(1, std::memory_order_acquire) == 0) {}
    ~CallGuard() {
        if (entered_) g_in_call.store(0, std::memory_order_release);
    }
    CallGuard(const CallGuard &) = delete;
    CallGuard &operator=(const CallGuard &) = delete;
    bool entered() const { return entered_; }

private:
    bool entered_;
};

// Whether a cycle or stop may run on the open session from this thread.
int32_t session_check() {
    if (!g_state.started) return KMXC_SERVICE_NOT_STARTED;
    if (gettid() != g_state.owner) return KMXC_SERVICE_WRONG_THREAD;
    return KMXC_SERVICE_OK;
}

// ---- Start ------------------------------------------------------------------------------

// 1. Library state, then both drivers (the first opens /dev/compass).
int32_t start_library_and_drivers() {
    KmxAxesLibInit();
    KmxAxesMsCalibInit();
    // A batch of a slow turn often spreads just short of the library's default for a
    // three-dimensional fit; the kit accepts a little less, because it judges every
    // fit by its batch's strengths before trusting or saving it.
    KmxAxesMsCalibThreshold threshold{KMXC_SERVICE_RATIO_MIN_THRESHOLD, kRatioMidThreshold, kResidualThreshold};
    KmxAxesMsCalibSetThreshold(&threshold);
    if (KmxAxesDrvMsInit() != 0) return KMXC_SERVICE_MAG_START_FAILED;
    if (KmxAxesDrvGsInit() != 0) {
        KmxAxesDrvMsTerm();
        return KMXC_SERVICE_ACCEL_START_FAILED;
    }
    return KMXC_SERVICE_OK;
}

// 6. Stop: both driver terms; the last of them closes /dev/compass.
void stop_drivers() {
    KmxAxesDrvMsTerm();
    KmxAxesDrvGsTerm();
}

// The rough offset the calibration file holds (255s when none). An empty or garbled
// file is reset, never read as offsets; a reset that does not take is a failed save,
// and then nothing in the file is used and the reset is tried again before the first
// save. A file that cannot be read just now is not used either, and checked again
// before the first save.
void read_stored_rough(uint8_t rough[3], bool *repaired) {
    rough[0] = rough[1] = rough[2] = kUnknownRough;
    const FileState state = file_state();
    if (state == FileState::kUnreadable) {
        g_state.file_unchecked = true;
        return;
    }
    if (state != FileState::kDamaged && msmachdep_LoadRoughOffset(rough) == 0) return;
    rough[0] = rough[1] = rough[2] = kUnknownRough;
    if (reset_file()) {
        *repaired = true;
        if (msmachdep_LoadRoughOffset(rough) != 0) rough[0] = kUnknownRough;
    } else {
        g_state.file_damaged = true;
        ++g_state.save_failures;
    }
}

// 2. Rough offset: the stored one when valid, else measured; what was written is stored.
int32_t write_rough_offset(const uint8_t stored[3], bool *use_stored) {
    *use_stored = KmxAxesLibIsValidRoughOffset(stored) != 0;
    if (KmxAxesDrvMsSetRoughOffset(*use_stored ? stored : nullptr) != 0) return KMXC_SERVICE_ROUGH_OFFSET_FAILED;
    KmxAxesDrvMsGetWrittenRoughOffset(g_state.rough);
    if (!*use_stored) save_rough(g_state.rough);
    return KMXC_SERVICE_OK;
}

// 3. Stored offsets. The magnetic one is used at once but trusted only once the live
// field confirms it (or a fit replaces it); it belongs to the stored rough offset, so
// it is ignored when a new rough offset had to be measured. Returns whether it loaded.
bool load_stored_offsets(bool rough_was_stored) {
    int32_t v[3];
    bool loaded = false;
    if (msmachdep_LoadMsOffset(v) == 0) {
        const KmxAxesData offset{v[0], v[1], v[2]};
        if (KmxAxesLibIsValidMsOffset(&offset) && rough_was_stored) {
            KmxAxesLibSetMsOffset(&offset);
            KmxAxesMsCalibSetOffset(&offset);
            g_state.stored = offset;
            g_state.stored_pending = true;
            g_state.provisional = true;  // low until the live field confirms it
            g_state.estimator = KMXC_SERVICE_ESTIMATOR_STORED;
            loaded = true;
        }
    }
    if (!g_state.file_damaged && !g_state.file_unchecked && msmachdep_LoadGsOffset(v) == 0) {
        const KmxAxesData offset{v[0], v[1], v[2]};
        KmxAxesLibSetGsOffset(&offset);
    }
    return loaded;
}

void fill_start_record(bool rough_was_stored, bool loaded, bool repaired, KmxcServiceStart *start) {
    for (int k = 0; k < 3; ++k) start->rough[k] = g_state.rough[k];
    start->rough_measured = rough_was_stored ? 0 : 1;
    start->offset_loaded = loaded ? 1 : 0;
    start->file_repaired = repaired ? 1 : 0;
    KmxAxesData o;
    KmxAxesLibGetMsOffset(&o);
    start->offset[0] = o.x;
    start->offset[1] = o.y;
    start->offset[2] = o.z;
    for (int k = 0; k < 9; ++k) start->soft_iron_q14[k] = kIdentityQ14[k];
}

// ---- Cycle ----------------------------------------------------------------------------------

// 4a. Both measurements, with the raw values; whether both succeeded.
bool measure(KmxAxesData *mag, KmxAxesData *gravity, KmxcServiceEvent *e) {
    KmxcDrvRawData raw{};
    e->mag_result = KmxAxesDrvMsMeasure(mag, &raw);  // waits 13 ms for the conversion
    e->accel_result = KmxAxesDrvGsMeasure(gravity, &raw);
    for (int k = 0; k < 3; ++k) {
        e->raw_mag[k] = static_cast<int16_t>(raw.ms[k]);
        e->raw_accel[k] = raw.gs[k];
        e->rough[k] = g_state.rough[k];
    }
    e->raw_temperature = static_cast<int16_t>(raw.temperature);
    e->calib_status = KmxAxesMsCalibGetStatus();
    if (e->mag_result < 0 || e->accel_result < 0) return false;
    e->flags |= KMXC_SERVICE_MEASURED;
    e->mag_counts[0] = mag->x, e->mag_counts[1] = mag->y, e->mag_counts[2] = mag->z;
    e->gravity_counts[0] = gravity->x, e->gravity_counts[1] = gravity->y, e->gravity_counts[2] = gravity->z;
    return true;
}

// 4c. The calibration published an offset: hand it to the orientation library. Once an
// offset is trusted, a new fit replaces it only when its batch agrees with it (a
// disagreeing fit is never used) and at least as well as with the offset in use: each
// fit carries its batch's noise, and a worse one must not undo a better. Planar fits
// are held to the same once an offset is trusted.
void adopt_new_offset(bool three_d, KmxcServiceEvent *e) {
    KmxAxesData offset, in_use;
    KmxAxesMsCalibGetOffset(&offset);
    KmxAxesLibGetMsOffset(&in_use);
    if (g_state.offset_trusted) {
        const Agreement fresh = agreement(offset, g_state.fed_count);
        const bool fresh_agrees = fresh.in_range && fresh.worst_permille <= KMXC_SERVICE_FIT_MEDIUM_PERMILLE;
        if (!fresh_agrees || agreement(in_use, g_state.fed_count).spread < fresh.spread) {
            KmxAxesMsCalibSetOffset(&in_use);
            offset = in_use;
        }
    }
    KmxAxesLibSetMsOffset(&offset);
    e->flags |= KMXC_SERVICE_NEW_OFFSET;
    if (!same(offset, in_use)) g_state.estimator = KMXC_SERVICE_ESTIMATOR_LIBRARY;
    if (three_d) {
        e->flags |= KMXC_SERVICE_FIT_3D;
        on_fit(offset);
    }
}

// 4b. The calibration gets the offset-free vector (after the soft-iron correction in use,
// so its fits are of the field the orientation library sees), only when it lies apart
// from the recent ones; a sample with a channel out of range is never fed: its field is
// wrong. The kit keeps the raw field (m) of each fed sample.
void feed_calibration(KmxAxesData *mag, const Vec3 &m, const Vec3 &g, KmxcServiceEvent *e) {
    if (e->mag_result != 0 || !passes_gate(m)) return;
    remember_fed(m, g);
    ++g_state.confirm_count;
    e->flags |= KMXC_SERVICE_FED;
    KmxAxesMsCalibDetail detail;
    e->calib_result = KmxAxesMsCalibUpdateDetail(mag, &detail);
    e->calib_ratio_min = detail.ratioMin;
    e->calib_ratio_mid = detail.ratioMid;
    e->calib_residual = detail.residual;
    e->calib_status = KmxAxesMsCalibGetStatus();
    if (kmxc_calib_new_offset(e->calib_result)) adopt_new_offset(e->calib_result == KMXC_CALIB_THREE_D, e);
}

// Persistence: a confirmed offset that differs from the stored one. One attempt per
// fit: a failing file system is not hammered every cycle.
void save_confirmed_offset(KmxcServiceEvent *e) {
    if (!g_state.save_pending) return;
    g_state.save_pending = false;
    KmxAxesData fit;
    KmxAxesMsCalibGetOffset(&fit);
    if (!same(fit, g_state.stored)) e->flags |= save_offset(fit) ? KMXC_SERVICE_SAVED : KMXC_SERVICE_SAVE_FAILED;
}

// The field against the reference: strength, dip and the anomaly they show. A sample
// with channels out of range is a range anomaly: its field is far from anything the
// Earth gives.
void judge_field(const Vec3 &m, const Vec3 &g, const KmxAxesData &offset, int64_t now, KmxcServiceEvent *e) {
    const Vec3 v = minus(m, offset);
    const int32_t strength = length(v);
    const int32_t dip = dip_cos(v, g);
    e->strength_centi_uT = strength_centi_uT(v);
    e->dip_cos_permille = dip;
    judge_anomaly(g, strength, dip, offset, now, e);
}

// 4d. Attitude, integer path: the heading after the smoother's warm-up. (The double
// path's attitude comes with the float fields.)
void integer_heading(const KmxAxesData &mag, const KmxAxesData &gravity, KmxcServiceEvent *e) {
    KmxAxesAttitude attitude;
    if (KmxAxesLibGetAttitude(&mag, &gravity, &attitude) != 0) return;
    uint16_t heading = 0;
    KmxAxesLibCalcDirection(&attitude, &heading, KMXC_SERVICE_DIRECTION_THRESHOLD);
    if (g_state.warm_cycles < KMXC_SERVICE_WARMUP_CYCLES) {
        ++g_state.warm_cycles;
        return;
    }
    e->heading_deg = static_cast<int16_t>(heading);
    e->flags |= KMXC_SERVICE_HEADING_VALID;
}

// 5. Channels out of range: move the rough offset, at most once per interval.
void move_rough_offset_if_clipped(int64_t now, KmxcServiceEvent *e) {
    if (e->mag_result <= 0) return;
    if (g_state.rough_changed_once &&
        now - g_state.last_rough_change_ns < int64_t{KMXC_SERVICE_ROUGH_CHANGE_INTERVAL_MS} * kNsPerMs)
        return;
    g_state.rough_changed_once = true;
    g_state.last_rough_change_ns = now;
    KmxAxesData before, after;
    KmxAxesLibGetMsOffset(&before);
    if (!change_rough_offset(e)) return;
    e->flags |= KMXC_SERVICE_ROUGH_CHANGED;
    // The stored samples were measured with the old rough offset; the correction's
    // centre moves with the field by the step the offset was carried over.
    store_clear();
    KmxAxesLibGetMsOffset(&after);
    SoftIron &soft = g_state.soft_iron;
    soft.centre = Vec3{soft.centre.x + after.x - before.x, soft.centre.y + after.y - before.y,
                       soft.centre.z + after.z - before.z};
}

// What the event tells of the kit's estimators.
void report_estimators(KmxcServiceEvent *e) {
    e->estimator = g_state.estimator;
    e->coverage_cells = g_state.est.coverage;
    const SoftIron &soft = g_state.soft_iron;
    for (int k = 0; k < 9; ++k) e->soft_iron_q14[k] = soft.in_use ? soft.w_q14[k] : kIdentityQ14[k];
}

}  // namespace

extern "C" {

const char *kmxc_service_result_name(int32_t result) {
#define KMXC_NAME_OF(name) \
    case name: return #name
    switch (result) {
        KMXC_NAME_OF(KMXC_SERVICE_OK);
        KMXC_NAME_OF(KMXC_SERVICE_BAD_RATE);
        KMXC_NAME_OF(KMXC_SERVICE_MAG_START_FAILED);
        KMXC_NAME_OF(KMXC_SERVICE_ACCEL_START_FAILED);
        KMXC_NAME_OF(KMXC_SERVICE_ROUGH_OFFSET_FAILED);
        KMXC_NAME_OF(KMXC_SERVICE_ALREADY_STARTED);
        KMXC_NAME_OF(KMXC_SERVICE_NOT_STARTED);
        KMXC_NAME_OF(KMXC_SERVICE_NULL_EVENT);
        KMXC_NAME_OF(KMXC_SERVICE_BAD_TIMESTAMP);
        KMXC_NAME_OF(KMXC_SERVICE_WRONG_THREAD);
        KMXC_NAME_OF(KMXC_SERVICE_BUSY);
    default: return "unknown result";
    }
#undef KMXC_NAME_OF
}

int32_t kmxc_service_start(uint32_t rate_hz, KmxcServiceStart *start) {
    const CallGuard guard;
    if (!guard.entered()) return KMXC_SERVICE_BUSY;
    if (rate_hz < KMXC_SERVICE_RATE_MIN_HZ || rate_hz > KMXC_SERVICE_RATE_MAX_HZ) return KMXC_SERVICE_BAD_RATE;
    if (g_state.started) return KMXC_SERVICE_ALREADY_STARTED;
    g_state = State{};
    g_state.rate_hz = rate_hz;
    g_state.owner = gettid();
    g_state.stored = kNoStoredOffset;
    if (const int32_t rc = start_library_and_drivers(); rc != KMXC_SERVICE_OK) return rc;
    uint8_t stored_rough[3];
    bool repaired = false, rough_was_stored = false;
    read_stored_rough(stored_rough, &repaired);
    if (const int32_t rc = write_rough_offset(stored_rough, &rough_was_stored); rc != KMXC_SERVICE_OK) {
        stop_drivers();
        return rc;
    }
    const bool loaded = load_stored_offsets(rough_was_stored);
    g_state.started = true;
    if (start != nullptr) fill_start_record(rough_was_stored, loaded, repaired, start);
    return KMXC_SERVICE_OK;
}

int32_t kmxc_service_cycle(int64_t now, KmxcServiceEvent *e) {
    const CallGuard guard;
    if (!guard.entered()) return KMXC_SERVICE_BUSY;
    if (const int32_t rc = session_check(); rc != KMXC_SERVICE_OK) return rc;
    if (e == nullptr) return KMXC_SERVICE_NULL_EVENT;
    if (g_state.cycled && now <= g_state.last_cycle_ns) return KMXC_SERVICE_BAD_TIMESTAMP;
    g_state.cycled = true;
    g_state.last_cycle_ns = now;
    *e = KmxcServiceEvent{};
    e->timestamp_ns = now;
    e->heading_deg = -1;
    e->calib_residual = kNoResidual;

    KmxAxesData mag = KmxAxesData_Constructor, gravity = KmxAxesData_Constructor;
    if (measure(&mag, &gravity, e)) {
        const Vec3 m{mag.x, mag.y, mag.z}, g{gravity.x, gravity.y, gravity.z};
        const Vec3 c = corrected(g_state.soft_iron, m);  // what the library sees
        mag = KmxAxesData{c.x, c.y, c.z};
        e->mag_counts[0] = c.x, e->mag_counts[1] = c.y, e->mag_counts[2] = c.z;
        track_tilt(g);
        feed_calibration(&mag, m, g, e);
        KmxAxesData offset;
        KmxAxesLibGetMsOffset(&offset);
        if (g_state.stored_pending && (e->flags & KMXC_SERVICE_FED) != 0) try_confirm(offset, e);
        judge_field(c, g, offset, now, e);
        store_cycle(m, g, (e->flags & KMXC_SERVICE_FED) == 0, now, e);
        save_confirmed_offset(e);
        KmxAxesLibGetMsOffset(&offset);
        integer_heading(mag, gravity, e);
        e->offset[0] = offset.x, e->offset[1] = offset.y, e->offset[2] = offset.z;
        kmxc_service_fill_floats(&mag, &gravity, &offset, e);
    }
    e->accuracy = accuracy_now(now);
    // An unconfirmed offset is worth low accuracy only while the field it gives is one
    // the Earth could make.
    if (e->accuracy == KMXC_SERVICE_LOW && !g_state.offset_trusted &&
        (e->mag_result != 0 || !in_earth_range(e->strength_centi_uT / (1000 / kCountsPer10uT))))
        e->accuracy = KMXC_SERVICE_UNRELIABLE;
    report_estimators(e);
    move_rough_offset_if_clipped(now, e);
    e->saves = g_state.saves;
    e->save_failures = g_state.save_failures;
    return KMXC_SERVICE_OK;
}

int32_t kmxc_service_stop(void) {
    const CallGuard guard;
    if (!guard.entered()) return KMXC_SERVICE_BUSY;
    if (const int32_t rc = session_check(); rc != KMXC_SERVICE_OK) return rc;
    stop_drivers();
    g_state.started = false;
    return KMXC_SERVICE_OK;
}

}  // extern "C"
