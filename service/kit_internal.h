// The sensor-service kit's own state and the rules its units share (C++ only, hidden
// in libkmxc_service.so). Integer arithmetic only: these units are built without
// floating-point registers.
#ifndef KMXC_SERVICE_KIT_INTERNAL_H
#define KMXC_SERVICE_KIT_INTERNAL_H

#include <stdint.h>
#include <sys/types.h>

#include "calibration/calibration.h"
#include "orientation/orientation.h"
#include "service/circle_fit.h"
#include "service/ellipsoid_fit.h"
#include "service/field_store.h"
#include "service/kit_geometry.h"
#include "service/kit_motion.h"
#include "service/kit_mount.h"
#include "service/kit_store.h"
#include "service/kmxc_service.h"
#include "service/soft_iron_share.h"
#include "service/sphere_fit.h"

namespace kmxc_kit {

constexpr int32_t kCountsPer10uT = KMXC_MS_COUNTS_PER_10_UT;  // corrected counts
constexpr int32_t kGravityCounts = KMXC_GS_COUNTS_PER_G;      // 1 g
constexpr int16_t kIdentityQ14[9] = {16384, 0, 0, 0, 16384, 0, 0, 0, 16384};
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

// The soft-iron correction in use: the library sees m' = centre + W (m - centre), so its
// own offset subtraction still works (identity while not in use).
struct SoftIron {
    bool in_use;
    Vec3 centre;       // counts, raw field frame
    int16_t w_q14[9];  // W, Q14, row-major, symmetric, det 1
};
// m' for a raw field m (m itself while no correction is in use).
Vec3 corrected(const SoftIron &s, const Vec3 &m);
// The correction an ellipsoid fit proposes (in use, about its centre).
inline SoftIron proposed_correction(const EllipsoidFit &fit) {
    SoftIron soft{true, fit.offset, {}};
    for (int k = 0; k < 9; ++k) soft.w_q14[k] = fit.w_q14[k];
    return soft;
}

// An estimate's predicted offset covariance, in the frame the library sees (after the
// correction in use): counts^2 in 1/256, packed symmetric (kit_linalg.h's order). Bounded
// by the prior the estimates carry (kit_estimate.cpp): every entry below 2^20.
struct OffsetCovariance {
    int32_t p_q8[6];
    bool valid;  // false: nothing predicts the error (no estimate, or an unconfirmed stored offset)
    // The soft-iron share included in p_q8 and the prior (sd per entry of D, 1/1000) it
    // was worked out with: a store that later shows more soft iron scales it up.
    int32_t share_q8[6];
    int32_t prior_permille;
};

// The magnetometer's noise as the fields show it (kit_uncertainty.cpp): third
// differences m_t - 3 m_t-1 + 3 m_t-2 - m_t-3 (no steady turn nor a steadily changing
// one shows in them) over windows of kNoiseWindow cycles in steady tilt, each window's
// variance kept for the last kNoiseWindows.
constexpr int kNoiseWindow = 16;
constexpr int kNoiseWindows = 4;
struct NoiseMeter {
    int16_t last[3][3];                // the three fields before, of an unbroken run, in a ring
    uint8_t newest;                    // last[newest] the newest, the slot before it the one before
    uint8_t run;                       // how many of last[] belong to the run (0..3)
    uint8_t in_window;                 // differences summed into window_sq (a break leaves them)
    uint8_t windows;                   // windows closed, up to kNoiseWindows
    uint8_t next;                      // slot of the next window to close
    uint32_t window_sq;                // the open window's squared differences, counts^2 (saturated)
    int32_t window_q8[kNoiseWindows];  // each closed window's noise variance per axis, 1/256 count^2
};

// The kit's own estimators (kit_estimate.cpp): the diversity store of raw samples, the
// last sphere fit of it (waiting for its judgement, then the ellipsoid's starting
// point), an ellipsoid fit waiting for its judgement, the covariance of the estimate in
// use, what the store's schedule needs, and the chip's noise as measured.
struct Estimators {
    FieldStore store;
    SphereFit sphere;         // the last sphere fit, of the store as the library sees it
    EllipsoidFit ellipsoid;   // fitted in one cycle, judged in the next
    OffsetCovariance cov;     // the estimate in use (any source)
    bool sphere_pending;      // `sphere` waits for its judgement
    bool ellipsoid_due;       // the sphere's residual asks for an ellipsoid fit in a coming cycle
    bool ellipsoid_pending;   // `ellipsoid` waits for its judgement
    bool probe_due;           // the pending sphere waits for an ellipsoid fit's shown soft iron
    uint8_t joined;           // samples joined since the last sphere fit
    uint8_t coverage;         // cells of the store about the offset in use, at the last fit
    uint8_t ellipsoid_cells;  // the store's cells when the correction in use was fitted
    // The pending fit's share of unmodelled soft iron (kit_uncertainty.h), worked out in
    // two cycles of their own between the fit and its judgement: share_steps 1 once X
    // (share_x_q8) is known, 2 once the share is; share_valid while both determined
    // something.
    uint8_t share_steps;
    bool share_valid;
    int32_t share_prior_permille;
    int32_t share_x_q8[kShareColumns];
    int32_t share_q8[6];
    bool reference_stale;  // a persisting anomaly cleared the store: the old reference's verdicts keep nothing out
    bool anomaly_cleared;  // ... and this anomaly episode has done so
    // The chip's raw temperatures of the samples joined since the store was last emptied
    // (bounds of the kept ones'), valid when temp_known.
    bool temp_known;
    int16_t temp_low, temp_high;
    // The soft iron the store's last ellipsoid fit showed: the RMS of its correction's
    // entries about I, 1/1000 (0 until one is fitted, and again once the store is emptied).
    int32_t shown_permille;
    NoiseMeter noise;
};

// The planar estimator's state (kit_planar.cpp): a circle fit of the store waiting for
// its judgement, and what tells it that the store has changed.
struct Planar {
    CircleFit circle;          // fitted in one cycle, judged in the next, adopted in the third
    bool pending;              // `circle` waits for its judgement or its estimate for adoption
    bool judged;               // ... `estimate` holds the judgement (not refused)
    bool estimate_referenced;  // judged against the references (its axial part theirs)
    int8_t estimate_level;     // its level (KMXC_SERVICE_LOW or _MEDIUM)
    int16_t estimate[3];       // the judged offset, counts (within the library's offset bound)
    bool mounted;              // the store's last circle fit found one about the vertical (a
                               // mount; `circle` is it), whichever estimate is in use
    uint8_t joins;             // samples that joined the store since the last circle fit
    uint8_t seen_count, seen_last;
    int16_t seen_m[3];  // the store's count, last slot and its field at the last cycle
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
    Persistence files;
    bool offset_trusted;   // a 3-D fit of this run, or a confirmed stored offset
    bool stored_pending;   // a stored offset waits for confirmation
    int8_t base_accuracy;  // accuracy without anomaly
    bool reference;        // ref_strength and ref_dip hold values
    int32_t ref_strength;  // |field| counts, reference
    int32_t ref_dip;       // 1000 cos(field, gravity), reference
    bool ref_dip_valid;
    int32_t strength_band_permille;  // the band about ref_strength of the trusted estimate ...
    int64_t outside_band_until_ns;   // ... a strength outside which holds it at low until then
    bool in_anomaly;
    uint8_t anomaly_level_cap;  // accuracy limit while in anomaly
    bool anomaly_in_range;      // no sample of the episode left the Earth's range
    int64_t last_anomaly_ns;
    bool rough_changed_once;
    int64_t last_rough_change_ns;
    Vec3 fed[KMXC_SERVICE_FEED_HISTORY];    // the last fed samples (raw field), ring
    Vec3 fed_g[KMXC_SERVICE_FEED_HISTORY];  // the gravity of each
    int fed_count, fed_next;
    // The offset in use when the last sample was fed, and for how many fed samples in a
    // row (up to KMXC_SERVICE_FEED_HISTORY): the ring speaks for an offset only once its
    // samples came after it (a fit agrees with its own batch by construction).
    KmxAxesData fed_offset;
    int fed_since_offset;
    int confirm_count;  // fed samples since start (for the stored offset's check)
    uint32_t warm_cycles;
    uint32_t saves, save_failures;
    bool save_pending;  // a fit's offset, agreeing with its batch, is to be kept
    // The kit's estimators.
    uint8_t estimator;         // KMXC_SERVICE_ESTIMATOR_* of the offset in use
    bool provisional;          // an untrusted offset worth a low accuracy is in use
    int64_t anomaly_since_ns;  // start of the anomaly episode in progress
    SoftIron soft_iron;
    Estimators est;
    // The references of the last trusted 3-D calibration (for the planar estimator): its
    // batch's mean strength (counts, as the library sees the field) and mean dip (1/100
    // degree below the horizontal, -9000..9000). Set when an estimate is trusted at
    // medium or high with a dip measured in steady gravity; saved in and loaded from the
    // kit file.
    bool reference_known;
    int32_t reference_strength_counts;
    int32_t reference_dip_cdeg;
    // ---- Mounted phone (vehicle): anomaly angle, steady tilt, demotion (kit_rules.cpp) ----
    int32_t ref_dip_cdeg;      // the anomaly reference's angle (ref_dip_valid), centidegrees
    int32_t dip_cos_bound[4];  // 1000 cos of ref_dip_cdeg + tolerance, - tolerance, + half, - half
    Vec3 gravity_mean_q4;      // running mean of gravity, 1/16 count
    bool gravity_mean_valid;
    bool tilt_steady;          // this cycle's gravity is steady in length and direction
    uint16_t fed_tilt_steady;  // bit per fed-ring slot: that sample's tilt was steady
    bool demoted;              // a persisting anomaly took the trust from the offset in use
    int restore_count;         // fed samples since the demotion's last anomaly
    Planar planar;
    MountGravity mount_gravity;  // the mounted phone's gravity (kit_mount.h)
    bool heading_z;              // the integer heading follows the z axis (kit_heading.cpp)
    VehicleWatch vehicle;        // acceleration without a turn (kit_motion.h)
    // The accuracy reported last, and when it last fell (fell: it has fallen this session).
    int8_t reported_accuracy;
    bool accuracy_fell;
    int64_t accuracy_fell_ns;
};

extern State g_state;

// ---- Rules (kit_rules.cpp) ----------------------------------------------------------

// Field strengths of the last n fed samples, seen through the correction in use, with offset o removed: mean, and
// whether every one lies within permille of the mean and in the Earth's range. Also the mean dip over the samples taken
// in steady gravity, and how far their angles between field and gravity spread about it.
struct Agreement {
    int32_t mean;
    int32_t worst_permille;
    int64_t spread;  // sum of squared deviations from the mean
    bool in_range;
    int32_t dip;
    bool dip_valid;
    // RMS of the angles about their mean, centidegrees (from the cosines' spread over the
    // mean angle's sine); -1 when not judged: no dips asked for, fewer than
    // KMXC_SERVICE_FIT_DIP_MIN_SAMPLES, or field and gravity within kDipSpreadMinSine of
    // parallel (near a magnetic pole the cosine no longer tells the angle).
    int32_t dip_sd_cdeg = -1;
};
// The field directions agree with gravity: the dips' spread within
// KMXC_SERVICE_FIT_DIP_SD_CDEG, or not judged.
bool dips_agree(const Agreement &a);
// ... and their mean strength one a trusted fit may give
// (KMXC_SERVICE_TRUST_FIELD_MIN_UT..KMXC_SERVICE_TRUST_FIELD_MAX_UT): the recent samples
// confirm a fit above low.
bool confirms(const Agreement &a);
Agreement agreement(const KmxAxesData &o, int n);
// The same for the fed samples as the library would see them through the correction s;
// the dip only when asked for (it costs a root and a division per sample).
Agreement agreement(const SoftIron &s, const KmxAxesData &o, int n, bool with_dip);
// The last n fed samples (n up to KMXC_SERVICE_FEED_HISTORY) through the correction s,
// newest first: a judgement that looks at them several times corrects them once.
void fed_corrected(const SoftIron &s, int n, Vec3 *u);
// agreement() of the fed samples already corrected (u from fed_corrected, n the same).
Agreement agreement_of(const Vec3 *u, const KmxAxesData &o, int n, bool with_dip);
// |g| is 1 g within KMXC_SERVICE_STEADY_GRAVITY_PERMILLE: no hand acceleration.
bool gravity_steady(const Vec3 &g);

// Far enough from each of the last few fed samples to be fed.
bool passes_gate(const Vec3 &m);
void remember_fed(const Vec3 &m, const Vec3 &g);
// Every sample of a full ring was fed while o was the offset in use.
bool ring_fed_under(const KmxAxesData &o);

// A 3-D fit published offset o: judge it by its batch (the last fed samples).
void on_fit(const KmxAxesData &o);
// A stored offset waits for confirmation: enough fed samples that agree with it.
void try_confirm(const KmxAxesData &o, KmxcServiceEvent *e);
// The band a trusted estimate's strength keeps to (KMXC_SERVICE_STRENGTH_BAND_FACTOR),
// permille of the reference, from the worst deviation of the batch it was trusted on.
int32_t strength_band_permille(int32_t worst_permille);
// Anomaly causes of this sample against the reference.
uint8_t anomaly_of(const Vec3 &g, int32_t strength, int32_t dip);
// |v| in 1/100 uT, rounded down: the length of v scaled before the root, so the
// hundredths are real (|v| alone moves in 0.4 uT steps).
int32_t strength_centi_uT(const Vec3 &v);
// An anomaly with these causes was seen now: hold the accuracy down (flagged in e).
void note_anomaly(uint8_t causes, int64_t now, KmxcServiceEvent *e);
int8_t accuracy_now(int64_t now);
// The accuracy to report for the level the rules allow at this cycle: that level when it
// is no higher than the last reported, or once KMXC_SERVICE_ACCURACY_RISE_MS have passed
// since the reported accuracy last fell; else the last reported.
int8_t settled_accuracy(int8_t level, int64_t now);
// The offset in use no longer describes the field (a persisting anomaly, a vehicle): its
// trust goes (low, restored only by fed samples that fit it again), the fed samples and
// the library's batch start afresh.
void demote_offset();
// Adopts an agreeing estimate: accuracy, trust, reference, and a save from medium up (a
// low one is used, not kept). fed: the fed samples through the correction now in use
// (fed_corrected of all g_state.fed_count).
void trust_estimate(int8_t level, const Agreement &a, const Vec3 *fed);
// The running mean of gravity and this cycle's steady-tilt verdict (g_state.tilt_steady).
void track_tilt(const Vec3 &g);
// The anomaly rules on this sample (field v about the offset in use, its strength and
// 1000 cos of its angle to gravity): flags, the episode, its hysteresis, and the
// restore of a demoted offset by fed samples that agree with it.
void judge_anomaly(const Vec3 &g, int32_t strength, int32_t dip, const KmxAxesData &offset, int64_t now,
                   KmxcServiceEvent *e);
// The mean angle between field (through the correction in use, offset o removed) and
// gravity over the last n fed samples in steady tilt, centidegrees; false when none.
// fed: those samples already corrected (fed_corrected).
bool ring_dip_cdeg(const Vec3 *fed, const KmxAxesData &o, int n, int32_t *cdeg);
// Adopts a planar estimate of accuracy `level` whose offset the library now uses: the
// references stay (they are what it was checked against).
void trust_planar(int8_t level);
// The last trusted 3-D calibration's angle between field and gravity, centidegrees
// (0..18000), from its dip below the horizontal (reference_dip_cdeg, -9000..9000).
inline int32_t reference_angle_cdeg() { return 9000 - g_state.reference_dip_cdeg; }

// ---- The heading's gravity and the integer heading (kit_heading.cpp) -------------------

// The gravity the attitude takes for the field c (counts, as the library sees it) and
// the measured gravity g: in a vehicle's mount the mount's recent gravity (flagged
// KMXC_SERVICE_MOUNT_GRAVITY), else g (flagged KMXC_SERVICE_MOUNT_TILT when in a mount
// beyond the road's slopes of its mean). *tilt_sd: the attitude's tilt uncertainty for
// heading_accuracy_cap, centidegrees (0 off a mount's circle).
Vec3 attitude_gravity(const Vec3 &c, const Vec3 &g, KmxcServiceEvent *e, int32_t *tilt_sd);

// The threshold the library's heading is given while the heading follows the z axis (z)
// or the y axis: the one that leaves that axis (KMXC_SERVICE_DIRECTION_ENTER_Z, _LEAVE_Z).
int32_t heading_threshold(bool z);
// Whether the library, given threshold, took the z axis for an attitude whose up row's
// y entry (Q12) is up_y.
bool heading_on_z(int16_t up_y, int32_t threshold);
// The heading of field mag at gravity (the library's attitude and smoother): after
// KMXC_SERVICE_WARMUP_CYCLES attitudes, into e with its axis (g_state.heading_z).
void integer_heading(const KmxAxesData &mag, const KmxAxesData &gravity, KmxcServiceEvent *e);

// ---- The kit's estimators (kit_estimate.cpp) -----------------------------------------

// The noise meter (kit_uncertainty.cpp) takes each measured field (counts, as the store
// is offered it) and whether the tilt was steady (a window needs a steady phone
// throughout: a hand's or a car's motion would count as noise), or a break in their run:
// a channel out of range, a failed measurement, a new rough offset.
void note_noise(const Vec3 &m, bool steady);
void break_noise_run();

// Empties the store (the fed samples no longer describe the field).
void store_clear();
// The phone entered a vehicle (kit_motion.h): flagged in e; an offset trusted before it
// (not the planar estimate, nor one whose store draws the mount's circle) is demoted and
// the store emptied.
void on_vehicle_entered(KmxcServiceEvent *e);
// An ellipsoid's centre lies within 1/kEllipsoidShiftDivisor of the radius of the store
// sphere's centre: the sphere of an ellipsoid whose axes lie within 0.8..1.25 (what the
// fit accepts), on a store of any coverage, misses the centre by less. Farther, the fit
// has traded the offset along an axis the store hardly spans (a phone turned flat on a
// table) for W's scale there.
constexpr int64_t kEllipsoidShiftDivisor = 4;
bool ellipsoid_centre_plausible(const EllipsoidFit &fit, const SphereFit &sphere);
// One cycle's share: the persisting-anomaly clear, the sample offered to the store (raw
// field m, gravity g), and at most one fitting step when one is due. fit_allowed: no
// other fit ran in this cycle.
void store_cycle(const Vec3 &m, const Vec3 &g, bool fit_allowed, int64_t now, KmxcServiceEvent *e);
// The store as the library sees it: `in` itself when no correction is in use, else
// `copy` filled with the corrected fields and the same gravities.
const FieldStore &library_view(const FieldStore &in, const SoftIron &soft, FieldStore *copy);
// What the event tells of the estimators: the one in use, the store's coverage, the
// soft-iron correction (identity when none is in use).
void report_estimators(KmxcServiceEvent *e);
// A library fit (offset o) arrived while an offset is trusted: whether it replaces the
// offset in use (its batch, the last fed samples, agrees with it, and its predicted
// horizontal error at gravity g is no larger than the estimate in use's); in that case
// its covariance becomes the one in use.
bool library_fit_preferred(const KmxAxesData &o, const Vec3 &g);
// The estimate in use now rests on the last n fed samples (a library fit of them, dof 4
// unknowns; a stored offset they confirmed, 1): its covariance from them.
void use_ring_covariance(const KmxAxesData &o, int n, int unknowns);
// The calibration published an offset (three_d: of a 3-D fit): it goes to the
// orientation library. Once an offset is trusted, a new fit replaces it only when its
// batch agrees with it (a disagreeing fit is never used) and its predicted horizontal
// error is no larger than the estimate in use's (each fit carries its batch's noise, and
// a worse one must not undo a better); planar fits are held to the same. Before, the fit
// is used and what predicted the error of the offset in use is dropped, unless the fit
// is that same offset again.
void adopt_new_offset(bool three_d, const Vec3 &g, KmxcServiceEvent *e);
// The highest accuracy the heading allows at this attitude: the offset's predicted
// error along magnetic east (v x g) over the horizontal field, with the tilt error g
// may carry (tilt_sd_cdeg per horizontal axis, 0: none) times tan(dip), against the
// heading limits. v: the calibrated field (counts), g: gravity. Without a covariance
// (the other rules judge the offset) the tilt's part alone: KMXC_SERVICE_HIGH for none.
int8_t heading_accuracy_cap(const Vec3 &v, const Vec3 &g, int32_t tilt_sd_cdeg);

// After an estimate was trusted (base accuracy and references set): its strength and
// dip become the references when it is trusted at medium or high with a dip.
void note_trusted_reference();
// The kit file's record for a calibration record about to be saved: the correction in
// use, the references and the store's coverage.
KitRecord kit_record_for(const CalibRecord &record);
// Start: a kit file that belongs to the loaded record gives back its correction (about
// the record's offset, the ellipsoid's centre when it was saved), references and
// coverage.
void apply_kit_record(const KitRecord &kit);

// ---- The planar estimator (kit_planar.cpp) ------------------------------------------

// One cycle's share: notes joins to the store, and when fit_allowed and none of the
// store's other fitting steps is due, runs at most one planar step (a circle fit, its
// judgement, or the judged estimate's adoption). True when it ran one (the cycle's fit
// is spent).
bool planar_cycle(bool fit_allowed, KmxcServiceEvent *e);

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
