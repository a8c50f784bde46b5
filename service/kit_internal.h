// The sensor-service kit's own state and the rules its units share (C++ only, hidden
// in libkmxc_service.so). Integer arithmetic only: these units are built without
// floating-point registers.
#ifndef KMXC_SERVICE_KIT_INTERNAL_H
#define KMXC_SERVICE_KIT_INTERNAL_H

#include <stdint.h>
#include <sys/types.h>

#include "drivers/kmxc_protocol.h"
#include "orientation/orientation.h"
#include "service/circle_fit.h"
#include "service/ellipsoid_fit.h"
#include "service/field_store.h"
#include "service/kit_geometry.h"
#include "service/kmxc_service.h"
#include "service/sphere_fit.h"

namespace kmxc_kit {

// The library's calibration file, read here only to check that it is well formed.
constexpr const char *kCalibrationFile = "/misc/sensor/kmxc_orvane.cfg";
constexpr int32_t kUnknownOffset = 2147483647;  // the file's "not known" magnetic offset
constexpr KmxAxesData kNoStoredOffset{kUnknownOffset, kUnknownOffset, kUnknownOffset};
constexpr uint8_t kUnknownRough = 255;                            // a rough-offset step not known
constexpr int32_t kNoResidual = 2147483647;                       // the calibration's residual while a batch fills
constexpr int32_t kCountsPer10uT = kmxc::kCountsPer10Microtesla;  // corrected counts
constexpr int64_t kNsPerMs = 1000000;
constexpr int32_t kGravityCounts = 4096;  // 1 g
constexpr int16_t kIdentityQ14[9] = {16384, 0, 0, 0, 16384, 0, 0, 0, 16384};
// The calibration's other two thresholds stay at the library's defaults.
constexpr int16_t kRatioMidThreshold = 96;
constexpr int32_t kResidualThreshold = 0x200000;

// The soft-iron correction in use: the library sees m' = centre + W (m - centre), so its
// own offset subtraction still works (identity while not in use).
struct SoftIron {
    bool in_use;
    Vec3 centre;       // counts, raw field frame
    int16_t w_q14[9];  // W, Q14, row-major, symmetric, det 1
};
// m' for a raw field m (m itself while no correction is in use).
Vec3 corrected(const SoftIron &s, const Vec3 &m);

// The kit's own estimators (kit_estimate.cpp): the diversity store of raw samples, the
// last sphere fit of it, an ellipsoid fit waiting for its judgement, and what the
// store's schedule needs.
struct Estimators {
    FieldStore store;
    SphereFit sphere;        // the last sphere fit (the ellipsoid's starting point)
    EllipsoidFit ellipsoid;  // fitted in one cycle, judged in the next
    bool ellipsoid_due;      // coverage allows an ellipsoid fit in a coming cycle
    bool ellipsoid_pending;  // `ellipsoid` waits for its judgement
    uint8_t joined;          // samples joined since the last sphere fit
    uint8_t coverage;        // cells of the store about the offset in use, at the last fit
    bool reference_stale;    // a persisting anomaly cleared the store: only range verdicts count
    bool anomaly_cleared;    // ... and this anomaly episode has done so
};

// The planar estimator's state (kit_planar.cpp): a circle fit of the store waiting for
// its judgement, and what tells it that the store has changed.
struct Planar {
    CircleFit circle;  // fitted in one cycle, judged in the next
    bool pending;      // `circle` waits for its judgement
    bool in_use;       // the offset in use is a planar estimate
    uint8_t joins;     // samples that joined the store since the last circle fit
    uint8_t seen_count, seen_last;
    int16_t seen_m[3];  // the store's count, last slot and its field at the last cycle
    int32_t arc_cdeg;   // the arc the last judged circle covered
};

// The store and the estimators' state stay within 1 KiB of static RAM.
static_assert(sizeof(Estimators) + sizeof(SoftIron) + sizeof(Planar) <= 1024, "the kit's estimators fit 1 KiB");

struct State {
    bool started;
    pid_t owner;  // the thread that started the session
    bool cycled;  // a cycle has run: last_cycle_ns holds its timestamp
    int64_t last_cycle_ns;
    uint32_t rate_hz;
    uint8_t rough[3];
    KmxAxesData stored;    // the magnetic offset the file holds (kUnknownOffset: none)
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
    bool save_pending;    // a confirmed offset waits to be saved (after a failure)
    bool file_damaged;    // the start could not reset a damaged calibration file
    bool file_unchecked;  // the start could not read the calibration file
    // The kit's estimators.
    uint8_t estimator;         // KMXC_SERVICE_ESTIMATOR_* of the offset in use
    bool provisional;          // an untrusted offset worth a low accuracy is in use
    int64_t anomaly_since_ns;  // start of the anomaly episode in progress
    SoftIron soft_iron;
    Estimators est;
    // ---- Mounted phone (vehicle): references, steady tilt, demotion (kit_rules.cpp) ----
    bool ref3d_valid;          // the last trusted 3-D fit's strength below holds a value
    bool ref3d_dip_valid;      // ... and its angle between field and gravity
    int32_t ref3d_strength;    // counts: the mean strength of its batch
    int32_t ref3d_dip_cdeg;    // centidegrees, 0..18000: the mean angle of its batch's samples in steady tilt
    int32_t ref_dip_cdeg;      // the anomaly reference's angle (ref_dip_valid), centidegrees
    int32_t dip_cos_bound[4];  // 1000 cos of ref_dip_cdeg + tolerance, - tolerance, + half, - half
    Vec3 gravity_mean_q4;      // running mean of gravity, 1/16 count
    bool gravity_mean_valid;
    bool tilt_steady;          // this cycle's gravity is steady in length and direction
    uint16_t fed_tilt_steady;  // bit per fed-ring slot: that sample's tilt was steady
    bool demoted;              // a persisting anomaly took the trust from the offset in use
    int restore_count;         // fed samples since the demotion's last anomaly
    Planar planar;
};

extern State g_state;

// ---- Rules (kit_rules.cpp) ----------------------------------------------------------

// Field strengths of the last n fed samples, seen through the correction in use, with offset o removed: mean, and
// whether every one lies within permille of the mean and in the Earth's range. Also the mean dip over the samples taken
// in steady gravity.
struct Agreement {
    int32_t mean;
    int32_t worst_permille;
    int64_t spread;  // sum of squared deviations from the mean
    bool in_range;
    int32_t dip;
    bool dip_valid;
};
Agreement agreement(const KmxAxesData &o, int n);
// The same for the fed samples as the library would see them through the correction s;
// the dip only when asked for (it costs two roots and a division per sample).
Agreement agreement(const SoftIron &s, const KmxAxesData &o, int n, bool with_dip);
// |g| is 1 g within KMXC_SERVICE_STEADY_GRAVITY_PERMILLE: no hand acceleration.
bool gravity_steady(const Vec3 &g);

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
// Adopts an agreeing estimate: accuracy, trust, reference, save.
void trust_estimate(int8_t level, const Agreement &a);
// The running mean of gravity and this cycle's steady-tilt verdict (g_state.tilt_steady).
void track_tilt(const Vec3 &g);
// The anomaly rules on this sample (field v about the offset in use, its strength and
// 1000 cos of its angle to gravity): flags, the episode, its hysteresis, and the
// restore of a demoted offset by fed samples that agree with it.
void judge_anomaly(const Vec3 &g, int32_t strength, int32_t dip, const KmxAxesData &offset, int64_t now,
                   KmxcServiceEvent *e);
// The mean angle between field (through the correction in use, offset o removed) and
// gravity over the last n fed samples in steady tilt, centidegrees; false when none.
bool ring_dip_cdeg(const KmxAxesData &o, int n, int32_t *cdeg);
// Adopts a planar estimate of accuracy `level` whose offset the library now uses: the
// references stay (they are what it was checked against).
void trust_planar(int8_t level);

// ---- The kit's estimators (kit_estimate.cpp) -----------------------------------------

// Empties the store (the fed samples no longer describe the field).
void store_clear();
// One cycle's share: the persisting-anomaly clear, the sample offered to the store (raw
// field m, gravity g), and at most one fitting step when one is due. fit_allowed: no
// other fit ran in this cycle.
void store_cycle(const Vec3 &m, const Vec3 &g, bool fit_allowed, int64_t now, KmxcServiceEvent *e);

// ---- The planar estimator (kit_planar.cpp) ------------------------------------------

// One cycle's share: notes joins to the store, and when fit_allowed and none of the
// store's other fitting steps is due, runs at most one planar step (a circle fit, or its
// judgement). True when it ran one (the cycle's fit is spent).
bool planar_cycle(bool fit_allowed, KmxcServiceEvent *e);

// ---- Persistence (kit_file.cpp) -----------------------------------------------------

// The calibration file as the kit finds it: one line of nine comma-separated decimal
// integers, as the library writes it; missing (the library creates it with defaults);
// damaged (anything else); or unreadable just now (it may be fine).
enum class FileState { kWellFormed, kMissing, kDamaged, kUnreadable };
FileState file_state();
bool same(const KmxAxesData &a, const KmxAxesData &b);
// A reset (the library's, which returns nothing) took when the file is then whole and
// loads.
bool reset_file();
// Saves offset as the stored magnetic offset and reads it back.
bool save_offset(const KmxAxesData &offset);
bool save_rough(const uint8_t rough[3]);
// Measure a new rough offset; carry the library's offset, the calibration's and the
// stored one over to it.
bool change_rough_offset(KmxcServiceEvent *e);

}  // namespace kmxc_kit

#endif  // KMXC_SERVICE_KIT_INTERNAL_H
