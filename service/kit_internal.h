// The sensor-service kit's own state and the rules its units share (C++ only, hidden
// in libkmxc_service.so). Integer arithmetic only: these units are built without
// floating-point registers.
#ifndef KMXC_SERVICE_KIT_INTERNAL_H
#define KMXC_SERVICE_KIT_INTERNAL_H

#include <stdint.h>
#include <sys/types.h>

#include "calibration/calibration.h"
#include "orientation/orientation.h"
#include "service/kit_geometry.h"
#include "service/kit_store.h"
#include "service/kmxc_service.h"

namespace kmxc_kit {

constexpr int32_t kCountsPer10uT = KMXC_MS_COUNTS_PER_10_UT;  // corrected counts
constexpr int64_t kNsPerMs = 1000000;
constexpr int32_t kGravityCounts = KMXC_GS_COUNTS_PER_G;  // 1 g
// The calibration's other two thresholds stay at the library's defaults.
constexpr int16_t kRatioMidThreshold = KMXC_CALIB_DEFAULT_RATIO_MID;
constexpr int32_t kResidualThreshold = KMXC_CALIB_DEFAULT_RESIDUAL;

// The kit's files as it knows them (kit_file.cpp).
struct Persistence {
    CalibRecord wanted;  // the record in use: what the calibration file should hold
    CalibRecord stored;  // what it holds, when stored_valid
    bool stored_valid;   // (not: absent, garbled, refused, or values reset since)
    bool unread;         // start could not read it: not replaced until it reads again
    KitRecord kit;       // the kit file's record, for wanted
    SaveClock clock;
    bool clock_started;
};

struct State {
    bool started;
    pid_t owner;  // the thread that started the session
    bool cycled;  // a cycle has run: last_cycle_ns holds its timestamp
    int64_t last_cycle_ns;
    uint32_t rate_hz;
    uint8_t rough[3];
    Persistence files;
    bool offset_trusted;   // a 3-D fit of this run, or a confirmed stored offset
    bool stored_pending;   // a stored offset waits for confirmation
    int8_t base_accuracy;  // accuracy without anomaly
    bool reference;        // ref_strength and ref_dip hold values
    int32_t ref_strength;  // |field| counts, reference
    int32_t ref_dip;       // 1000 cos(field, gravity), reference
    bool ref_dip_valid;
    bool in_anomaly;
    uint8_t anomaly_level_cap;  // accuracy limit while in anomaly
    int64_t last_anomaly_ns;
    bool rough_changed_once;
    int64_t last_rough_change_ns;
    Vec3 fed[KMXC_SERVICE_FEED_HISTORY];    // the last fed samples (raw field), ring
    Vec3 fed_g[KMXC_SERVICE_FEED_HISTORY];  // the gravity of each
    int fed_count, fed_next;
    int confirm_count;  // fed samples since start (for the stored offset's check)
    uint32_t warm_cycles;
    uint32_t saves, save_failures;
    bool save_pending;  // a fit's offset, agreeing with its batch, is to be kept
};

extern State g_state;

// ---- Rules (kit_rules.cpp) ----------------------------------------------------------

// Field strengths of the last n fed samples with offset o removed: mean, and whether
// every one lies within permille of the mean and in the Earth's range. Also the mean
// dip over the samples taken in steady gravity.
struct Agreement {
    int32_t mean;
    int32_t worst_permille;
    int64_t spread;  // sum of squared deviations from the mean
    bool in_range;
    int32_t dip;
    bool dip_valid;
};
Agreement agreement(const KmxAxesData &o, int n);

// Far enough from each of the last few fed samples to be fed.
bool passes_gate(const Vec3 &m);
void remember_fed(const Vec3 &m, const Vec3 &g);

// A 3-D fit published offset o: judge it by its batch (the last fed samples).
void on_fit(const KmxAxesData &o);
// A stored offset waits for confirmation: enough fed samples that agree with it.
void try_confirm(const KmxAxesData &o, KmxcServiceEvent *e);
// Anomaly causes of this sample against the reference.
uint8_t anomaly_of(const Vec3 &g, int32_t strength, int32_t dip);
// |v| in 1/100 uT, rounded down: the length of v scaled before the root, so the
// hundredths are real (|v| alone moves in 0.4 uT steps).
int32_t strength_centi_uT(const Vec3 &v);
// An anomaly with these causes was seen now: hold the accuracy down (flagged in e).
void note_anomaly(uint8_t causes, int64_t now, KmxcServiceEvent *e);
int8_t accuracy_now(int64_t now);

// ---- Persistence (kit_file.cpp) -----------------------------------------------------

// The owner and mode the library gives the calibration file; the kit's files get them too.
constexpr uint32_t kFileUid = KMXC_CALIBRATION_FILE_UID;
constexpr uint32_t kFileGid = KMXC_CALIBRATION_FILE_GID;
constexpr uint32_t kFileMode = KMXC_CALIBRATION_FILE_MODE;

// What start found and did, for its record.
struct StartFiles {
    uint16_t file;     // KMXC_SERVICE_FILE_*
    uint8_t kit_file;  // KMXC_SERVICE_KIT_FILE_*
    bool kit_read;     // the kit file held a kit record (it may belong to another record)
    uint8_t save_attempts, save_failures;
    int32_t error;
};
// Reads the calibration file and the kit file: g_state.files.wanted is the record to
// start from (implausible values reset), found says what was there.
void read_stored_record(StartFiles *found);
// The rough offset start wrote: a stored magnetic offset of another rough offset goes.
void use_rough_offset(const uint8_t rough[3]);
// Start's save when the file does not hold the record in use; the kit file's outcome.
void save_at_start(StartFiles *found);
// Cycle: a fit's offset to keep (g_state.save_pending), then a save when due.
void save_when_due(int64_t now, KmxcServiceEvent *e);
// Measure a new rough offset; carry the library's offset, the calibration's and the
// record's over to it and save the record at once.
bool change_rough_offset(int64_t now, KmxcServiceEvent *e);
// Stop: saves what is newer than the file; false when that failed.
bool save_at_stop();

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_KIT_INTERNAL_H
