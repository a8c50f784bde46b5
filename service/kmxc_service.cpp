// The sensor-service kit: the library's call order, as start, cycle and stop. The
// numbered steps are those of the README's call sequence. Its rules are in
// kit_rules.cpp, the integer heading in kit_heading.cpp, its persistence in kit_file.cpp
// (through durable_file.cpp and kit_store.cpp). Integer arithmetic only (built without
// floating-point registers); the float fields of the event are filled in event_fill.cpp.
#include "service/kmxc_service.h"

#include <unistd.h>

#include <atomic>

#include "calibration/calibration.h"
#include "drivers/drivers.h"
#include "orientation/orientation.h"
#include "service/event_fill.h"
#include "service/kit_internal.h"
#include "service/kit_uncertainty.h"

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

// 2. Rough offset: the stored one when valid, else measured. A magnetic offset stored
// with another rough offset is not used (it belongs to that one).
int32_t write_rough_offset(bool *use_stored) {
    const uint8_t *stored = g_state.files.wanted.rough;
    *use_stored = KmxAxesLibIsValidRoughOffset(stored) != 0;
    if (KmxAxesDrvMsSetRoughOffset(*use_stored ? stored : nullptr) != 0) return KMXC_SERVICE_ROUGH_OFFSET_FAILED;
    KmxAxesDrvMsGetWrittenRoughOffset(g_state.rough);
    use_rough_offset(g_state.rough);
    return KMXC_SERVICE_OK;
}

// 3. Stored offsets, range-checked when read. The magnetic one is used at once but
// trusted only once the live field confirms it (or a fit replaces it): until then it is
// worth low accuracy. Returns whether it loaded.
bool load_stored_offsets() {
    const CalibRecord &r = g_state.files.wanted;
    KmxAxesLibSetGsOffset(&r.gravity);
    if (!magnetic_known(r.magnetic)) return false;
    KmxAxesLibSetMsOffset(&r.magnetic);
    KmxAxesMsCalibSetOffset(&r.magnetic);
    g_state.stored_pending = true;
    g_state.provisional = true;
    g_state.estimator = KMXC_SERVICE_ESTIMATOR_STORED;
    return true;
}

void fill_start_record(bool rough_was_stored, bool loaded, const StartFiles &found, KmxcServiceStart *start) {
    *start = KmxcServiceStart{};
    for (int k = 0; k < 3; ++k) start->rough[k] = g_state.rough[k];
    start->rough_measured = rough_was_stored ? 0 : 1;
    start->offset_loaded = loaded ? 1 : 0;
    start->file_repaired = (found.file & KMXC_SERVICE_FILE_GARBLED) != 0 ? 1 : 0;
    KmxAxesData o;
    KmxAxesLibGetMsOffset(&o);
    start->offset[0] = o.x;
    start->offset[1] = o.y;
    start->offset[2] = o.z;
    start->file = found.file;
    start->kit_file = found.kit_file;
    start->save_attempts = found.save_attempts;
    start->save_failures = found.save_failures;
    start->file_error = found.error;
    const SoftIron &soft = g_state.soft_iron;
    for (int k = 0; k < 9; ++k) start->soft_iron_q14[k] = soft.in_use ? soft.w_q14[k] : kIdentityQ14[k];
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
    // 4c. (kit_estimate.cpp)
    if (kmxc_calib_new_offset(e->calib_result)) adopt_new_offset(e->calib_result == KMXC_CALIB_THREE_D, g, e);
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
    // The stored samples were measured with the old rough offset: the store goes before
    // the change's save, so the kit file it writes says nothing is covered.
    store_clear();
    break_noise_run();
    if (!change_rough_offset(now, e)) return;
    e->flags |= KMXC_SERVICE_ROUGH_CHANGED;
    // The correction's centre moves with the field by the step the offset was carried.
    KmxAxesLibGetMsOffset(&after);
    SoftIron &soft = g_state.soft_iron;
    soft.centre = Vec3{soft.centre.x + after.x - before.x, soft.centre.y + after.y - before.y,
                       soft.centre.z + after.z - before.z};
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
        KMXC_NAME_OF(KMXC_SERVICE_STOP_NOT_SAVED);
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
    if (const int32_t rc = start_library_and_drivers(); rc != KMXC_SERVICE_OK) return rc;
    StartFiles found{};
    read_stored_record(&found);
    bool rough_was_stored = false;
    if (const int32_t rc = write_rough_offset(&rough_was_stored); rc != KMXC_SERVICE_OK) {
        stop_drivers();
        return rc;
    }
    const bool loaded = load_stored_offsets();
    // The kit file of the loaded record: its correction, references and coverage.
    if (loaded && found.kit_read && kit_belongs_to(g_state.files.kit, g_state.files.wanted))
        apply_kit_record(g_state.files.kit);
    save_at_start(&found);
    g_state.started = true;
    if (start != nullptr) fill_start_record(rough_was_stored, loaded, found, start);
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
    e->calib_residual = KMXC_CALIB_NO_RESIDUAL;

    KmxAxesData mag = KmxAxesData_Constructor, gravity = KmxAxesData_Constructor;
    Vec3 attitude_g{};             // the gravity the attitude takes
    int32_t attitude_tilt_sd = 0;  // ... and its tilt's uncertainty (attitude_gravity)
    if (measure(&mag, &gravity, e)) {
        const Vec3 m{mag.x, mag.y, mag.z}, g{gravity.x, gravity.y, gravity.z};
        const Vec3 c = corrected(g_state.soft_iron, m);  // what the library sees
        mag = KmxAxesData{c.x, c.y, c.z};
        e->mag_counts[0] = c.x, e->mag_counts[1] = c.y, e->mag_counts[2] = c.z;
        track_tilt(g);
        const Vec3 &q4 = g_state.gravity_mean_q4;
        mount_gravity_track(&g_state.mount_gravity, g, Vec3{q4.x >> 4, q4.y >> 4, q4.z >> 4}, g_state.tilt_steady,
                            g_state.rate_hz);
        feed_calibration(&mag, m, g, e);
        KmxAxesData offset;
        KmxAxesLibGetMsOffset(&offset);
        if (g_state.stored_pending && (e->flags & KMXC_SERVICE_FED) != 0) {
            try_confirm(offset, e);
            // A confirmed stored offset is known as well as the samples that confirmed it
            // determine it (its own fit's samples are gone).
            if ((e->flags & KMXC_SERVICE_CONFIRMED) != 0) use_ring_covariance(offset, KMXC_SERVICE_CONFIRM_SAMPLES, 1);
        }
        judge_field(c, g, offset, now, e);
        if (vehicle_entered(&g_state.vehicle, minus(c, offset), g, g_state.offset_trusted, now,
                            vehicle_smoothing_shift(g_state.rate_hz, noise_variance_q8())))
            on_vehicle_entered(e);
        if (e->mag_result == 0) {
            note_noise(m, g_state.tilt_steady);
        } else {
            break_noise_run();
        }
        store_cycle(m, g, (e->flags & KMXC_SERVICE_FED) == 0, now, e);
        save_when_due(now, e);
        KmxAxesLibGetMsOffset(&offset);
        attitude_g = attitude_gravity(c, g, e, &attitude_tilt_sd);  // 4d. (kit_heading.cpp)
        const KmxAxesData attitude{attitude_g.x, attitude_g.y, attitude_g.z};
        integer_heading(mag, attitude, e);  // 4e. (kit_heading.cpp)
        e->offset[0] = offset.x, e->offset[1] = offset.y, e->offset[2] = offset.z;
        kmxc_service_fill_floats(&mag, &gravity, &attitude, &offset, e);
    } else {
        break_noise_run();
    }
    e->accuracy = accuracy_now(now);
    // The heading's uncertainty at this attitude caps whatever the other rules allow.
    if ((e->flags & KMXC_SERVICE_MEASURED) != 0 && e->accuracy > KMXC_SERVICE_UNRELIABLE) {
        const Vec3 v{e->mag_counts[0] - e->offset[0], e->mag_counts[1] - e->offset[1], e->mag_counts[2] - e->offset[2]};
        const int8_t cap = heading_accuracy_cap(v, attitude_g, attitude_tilt_sd);
        if (cap < e->accuracy) e->accuracy = cap;
    }
    // A mounted phone's attitude tilted by an acceleration: its heading is no better than low.
    if ((e->flags & KMXC_SERVICE_MOUNT_TILT) != 0 && e->accuracy > KMXC_SERVICE_LOW) e->accuracy = KMXC_SERVICE_LOW;
    // An unconfirmed offset is worth low accuracy only while the field it gives is one
    // the Earth could make.
    if (e->accuracy == KMXC_SERVICE_LOW && !g_state.offset_trusted &&
        (e->mag_result != 0 || !in_earth_range(e->strength_centi_uT / (1000 / kCountsPer10uT))))
        e->accuracy = KMXC_SERVICE_UNRELIABLE;
    e->accuracy = settled_accuracy(e->accuracy, now);
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
    const bool saved = save_at_stop();
    stop_drivers();
    g_state.started = false;
    return saved ? KMXC_SERVICE_OK : KMXC_SERVICE_STOP_NOT_SAVED;
}

int32_t kmxc_service_saves(uint32_t *done, uint32_t *failed) {
    const CallGuard guard;
    if (!guard.entered()) return KMXC_SERVICE_BUSY;
    if (done != nullptr) *done = g_state.saves;
    if (failed != nullptr) *failed = g_state.save_failures;
    return KMXC_SERVICE_OK;
}

}  // extern "C"
