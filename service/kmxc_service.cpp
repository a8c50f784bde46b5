// The sensor-service kit: call order (start, cycle, stop). Its rules are in
// kit_rules.cpp, persistence in kit_file.cpp. Integer arithmetic only (built without
// floating-point registers); the float fields of the event are filled in event_fill.cpp.
#include "service/kmxc_service.h"

#include <stdio.h>

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

// 6. Stop: both driver terms; the last of them closes /dev/compass.
void stop_drivers() {
    KmxAxesDrvMsTerm();
    KmxAxesDrvGsTerm();
}

}  // namespace

extern "C" {

int32_t kmxc_service_start(uint32_t rate_hz, KmxcServiceStart *start) {
    if (rate_hz < KMXC_SERVICE_RATE_MIN_HZ || rate_hz > KMXC_SERVICE_RATE_MAX_HZ) return -1;
    if (g_state.started) return -5;
    g_state = State{};
    g_state.rate_hz = rate_hz;
    g_state.stored = kNoStoredOffset;

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

int32_t kmxc_service_cycle(uint64_t now, KmxcServiceEvent *e) {
    if (!g_state.started || e == nullptr) return -1;
    *e = KmxcServiceEvent{};
    e->time_us = now;
    e->heading_deg = -1;
    e->calib_residual = 2147483647;

    // 4. Both measurements.
    KmxAxesData ms = KmxAxesData_Constructor, gs = KmxAxesData_Constructor;
    KmxcDrvRawData raw{};
    e->ms_result = KmxAxesDrvMsMeasure(&ms, &raw);  // waits 13 ms for the conversion
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
        const Vec3 m{ms.x, ms.y, ms.z}, g{gs.x, gs.y, gs.z};
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
                    on_fit(offset);
                }
            }
        }

        KmxAxesData offset;
        KmxAxesLibGetMsOffset(&offset);
        if (g_state.stored_pending && (e->flags & KMXC_SERVICE_FED) != 0) try_confirm(offset, e);

        // Persistence: a confirmed offset that differs from the stored one.
        // One attempt per fit: a failing file system is not hammered every cycle.
        if (g_state.save_pending) {
            g_state.save_pending = false;
            KmxAxesData fit;
            KmxAxesMsCalibGetOffset(&fit);
            if (!same(fit, g_state.stored))
                e->flags |= save_offset(fit) ? KMXC_SERVICE_SAVED : KMXC_SERVICE_SAVE_FAILED;
        }

        // Field checks against the reference.
        const Vec3 v = minus(m, offset);
        const int32_t strength = length(v);
        const int32_t dip = dip_cos(v, g);
        e->strength_centi_uT = strength * (1000 / kCountsPer10uT);
        e->dip_cos_permille = dip;
        // A sample with channels out of range is a range anomaly: its field is far from
        // anything the Earth gives.
        if (g_state.offset_trusted) {
            e->anomaly = e->ms_result == 0 ? anomaly_of(g, strength, dip) : uint8_t{KMXC_SERVICE_ANOMALY_RANGE};
            if (e->anomaly != 0) {
                const uint8_t cap =
                    (e->anomaly & KMXC_SERVICE_ANOMALY_RANGE) != 0 ? KMXC_SERVICE_UNRELIABLE : KMXC_SERVICE_LOW;
                if (!g_state.in_anomaly || cap < g_state.anomaly_level_cap) g_state.anomaly_level_cap = cap;
                g_state.in_anomaly = true;
                g_state.last_anomaly_us = now;
                e->flags |= KMXC_SERVICE_ANOMALY;
            }
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

int32_t kmxc_service_stop(void) {
    if (!g_state.started) return -1;
    stop_drivers();
    g_state.started = false;
    return 0;
}

}  // extern "C"
