/*
 * Sensor-service kit: the reference integration of libkmxc_orvane.so, as a C library.
 *
 * A phone's sensor service calls three functions: kmxc_service_start() once, then
 * kmxc_service_cycle() once per measurement, then kmxc_service_stop(). Each cycle
 * yields one event in the units and conventions an Android sensor HAL reports:
 * calibrated and uncalibrated magnetic field with its bias (uT), acceleration (m/s^2,
 * gravity included), orientation (azimuth, pitch, roll in degrees), the integer
 * heading, and one accuracy value 0..3 for all of them.
 *
 * What the kit does on the caller's behalf, in the library's required order:
 *   start  KmxAxesLibInit, KmxAxesMsCalibInit, both driver inits; the calibration file
 *          and the kit file read and checked (below, Persistence); the rough offset
 *          (stored one if valid, else measured); the stored magnetic and gravity
 *          offsets; the file saved when it does not hold the record in use. What start
 *          found and did is in the KmxcServiceStart record.
 *   cycle  both measurements; the sample-feed gate; KmxAxesMsCalibUpdateDetail with the raw
 *          (offset-free) magnetic vector; a new offset to the orientation library;
 *          the attitude both ways; accuracy and field-anomaly checks; a rough-offset
 *          change with the magnetic offset carried over when a channel leaves its
 *          range; saving a confirmed offset when the save spacing allows.
 *   stop   an offset newer than the file saved; both driver terms (the last closes
 *          /dev/compass).
 *
 * Rules (the constants are below, named once):
 *   Sample feed. The calibration fits batches of 16 samples and needs them spread
 *     over the sphere the field traces. A sample is fed only when it lies at least
 *     KMXC_SERVICE_FEED_MIN_CHANGE counts (12.8 uT, about 15 degrees of turning in a
 *     48 uT field) from each of the last KMXC_SERVICE_FEED_GATE_HISTORY samples fed,
 *     so a batch spans the same ground whatever the rate and however slowly the phone
 *     turns; a phone lying still feeds nothing. A sample with a channel out of range
 *     is never fed. A batch counts as three-dimensional from
 *     KMXC_SERVICE_RATIO_MIN_THRESHOLD (a little below the library's default: slow
 *     turns often fall just short of it, and the kit checks every fit itself).
 *   Accuracy. 0 (unreliable): no estimate worth using (none yet, only planar fits, an
 *     unconfirmed offset whose field lies outside the Earth's range, or an offset a new
 *     surrounding has demoted: see KMXC_SERVICE_ANOMALY_HYSTERESIS_DIVISOR). 1 (low): an
 *     estimate that is plausible but not confirmed: a stored offset the live field has
 *     not yet confirmed, or a store fit whose offset is determined only within
 *     KMXC_SERVICE_FIT_MEDIUM_PERMILLE of the strength; also any trusted offset during
 *     a dip anomaly, or while its strength is outside its band (below).
 *     2 (medium) and 3 (high): a trusted offset. A stored offset is confirmed by
 *     KMXC_SERVICE_CONFIRM_SAMPLES fed samples whose strengths agree within
 *     KMXC_SERVICE_AGREE_PERMILLE (in the Earth's range): 2. A 3-D fit of the library
 *     whose batch agrees that closely gives 3, within
 *     KMXC_SERVICE_FIT_MEDIUM_PERMILLE 2, worse 1 (and is not saved; once an offset is
 *     trusted such a fit is not used at all). Any fit, the library's or the kit's, is
 *     worth 1 at most (used, not saved) when the last fed samples' angles between field
 *     and gravity spread about it beyond KMXC_SERVICE_FIT_DIP_SD_CDEG and what the chip's
 *     noise explains (its field directions are off), or when their strength about it
 *     lies outside KMXC_SERVICE_TRUST_FIELD_MIN_UT..KMXC_SERVICE_TRUST_FIELD_MAX_UT (no
 *     Earth field's); so is a fit of the kit's store whose samples occupy fewer than
 *     KMXC_SERVICE_TRUST_MIN_CELLS of its cells (a small cap). A trusted offset is
 *     replaced by a new library fit (3-D or planar) only if the last fed samples agree
 *     with the fit at least as well as with the offset in use. Whatever the rules below
 *     allow, the level reported falls at once and rises only
 *     KMXC_SERVICE_ACCURACY_RISE_MS after it last fell, so that it does not flicker.
 *   Estimators. Besides the library's batches, the kit offers every measured in-range
 *     sample (anomalies out) to a store of 32 samples spread over the sphere (a new
 *     rough offset empties it, and so does an anomaly lasting
 *     KMXC_SERVICE_STORE_ANOMALY_PERSIST_MS, after which the new surrounding's samples
 *     join whatever the old offset makes of them; a store that agrees with itself but not
 *     with the last 16 fed samples, while the offset in use does and those samples were
 *     all fed after it came into use, is stale and emptied).
 *     Every KMXC_SERVICE_STORE_REFIT_JOINS new samples it is fitted with a sphere (the
 *     samples' spread at least 4/1024), judged like a library fit by its own 32
 *     samples' strengths (high, medium, or refused), and by its determinacy: its
 *     predicted offset error (from its residual, the chip's temperature wander and its
 *     samples' spread, without the prior the fit is steadied with) must be at most 25
 *     counts (10 uT) along every direction, and at each attitude it caps the accuracy
 *     through the heading's uncertainty (KMXC_SERVICE_HEADING_SIGMA_*). When the
 *     sphere's residual exceeds
 *     KMXC_SERVICE_ELLIPSOID_ATTEMPT_FACTOR times what noise explains, or the store
 *     covers more of its 24 cells than the correction in use was fitted to, an ellipsoid
 *     is fitted (an offset and a soft-iron correction W, det 1, axes 0.8..1.25), used
 *     only when its strengths' RMS residual is at most
 *     1/KMXC_SERVICE_ELLIPSOID_BEAT_FACTOR of the sphere's. A
 *     store estimate replaces a trusted offset only if the last fed samples agree with it
 *     and it predicts a smaller horizontal offset error at the phone's attitude than the
 *     offset in use (a new W: no larger; an offset the last fed samples no longer agree
 *     with predicts none), so the offset in use is the best determined one that fits the
 *     field now. With W in use the library sees (and is fed)
 *     m' = c + W (m - c), c the ellipsoid's centre, so its own fits stay consistent with
 *     the correction; the event's mag_counts and uncalibrated field are m', the bias the
 *     offset, the calibrated field m' - offset. event.estimator names the source of the
 *     offset in use, event.coverage_cells the store's cells at its last fit. The
 *     calibration's own status is left as the library keeps it (0 after a load, 7
 *     after a 3-D fit): the accuracy, not the status, says whether to trust the offset.
 *   Anomaly. With a reference (from the fit or the confirmation): strength outside
 *     KMXC_SERVICE_FIELD_MIN_UT..KMXC_SERVICE_FIELD_MAX_UT, or more than
 *     KMXC_SERVICE_STRENGTH_TOLERANCE_PERMILLE from the reference, gives 0 (a field off
 *     by a disturbance of at least that much, in a direction nothing tells); the angle
 *     between field and gravity (the dip) more than KMXC_SERVICE_DIP_TOLERANCE_CDEG
 *     from the reference's gives at most 1. The dip is judged only in steady tilt
 *     (KMXC_SERVICE_STEADY_TILT_CDEG) with the accelerometer reading 1 g within
 *     KMXC_SERVICE_STEADY_GRAVITY_PERMILLE (no hand acceleration). The level climbs back
 *     when no anomaly has been seen for KMXC_SERVICE_ANOMALY_CLEAR_MS, or at once when
 *     a new 3-D fit replaces the offset (and the references). Closer in, each trusted
 *     estimate has a band about its reference strength, KMXC_SERVICE_STRENGTH_BAND_FACTOR
 *     times the worst deviation of the batch it was trusted on: a strength outside it
 *     (KMXC_SERVICE_ANOMALY_OUTSIDE_BAND) holds the accuracy at 1 for
 *     KMXC_SERVICE_ANOMALY_CLEAR_MS, but is no anomaly episode (nothing persists, the
 *     sample still joins the store). A disturbance that keeps both the strength and the
 *     dip while it turns the field is not seen.
 *   Persistence. The kit owns its files; it never calls the library's file functions
 *     (nor writes the library's backup file name), and writes what the library would:
 *     KMXC_SERVICE_CALIBRATION_FILE, one line of nine integers "%d,...,%d" without a
 *     line end: rough offset (steps, 255 not known), gravity offset (1/4096 g),
 *     magnetic offset (counts, 2147483647 not known); owner 1008:1000, mode 0666.
 *     Beside it KMXC_SERVICE_KIT_FILE, one line of 19 integers: version
 *     (KMXC_SERVICE_KIT_FILE_VERSION), the rough and magnetic offset of the record it
 *     belongs to, a symmetric soft-iron correction xx,xy,xz,yy,yz,zz (Q14: identity is
 *     KMXC_SERVICE_SOFT_IRON_ONE,0,0,ONE,0,ONE; diagonal ONE/2..2*ONE, others within
 *     +-ONE/2), the field strength (counts, 10..100 uT) and dip (1/100 degree,
 *     -9000..9000) of the last trusted 3-D calibration, whether those two are known
 *     (0: both 0), the store's coverage (cells 0..255), whether the offset came from a
 *     planar fit (0/1), and the CRC-32 (as zlib's) of the text before its comma. Each
 *     save writes the correction in use (identity when none), the mean strength and dip
 *     below the horizontal of the batch of the last estimate trusted at medium or high
 *     with a dip measured in steady gravity (not known before one), the cells the store
 *     covered at its last fit (0 after a rough-offset change empties it), and planar 0.
 *     At start a kit file that belongs to the loaded record gives these back: the
 *     correction is applied about the record's offset from the first cycle (only when
 *     its axes are within the ellipsoid fit's plausible range; reported in
 *     KmxcServiceStart and every event), the coverage is reported until the store's
 *     next fit. A kit file that does not belong to the calibration file's record, or
 *     fails any check, is never used (defaults).
 *     Reading: each path is opened with O_NOFOLLOW|O_NONBLOCK and checked with fstat;
 *     anything but a regular file (a link, FIFO, directory, device) is refused, never
 *     waited on and never written through, with one line on stderr naming the path and
 *     what it is. The line is parsed strictly (anything but nine integers is garbled:
 *     reset to defaults) and every value range-checked: rough 0..31 (or all 255),
 *     magnetic within the library's valid range (or all not known; a magnetic offset of
 *     a rough offset not known is dropped), gravity within
 *     KMXC_SERVICE_GRAVITY_OFFSET_LIMIT; implausible values are reset and the record is
 *     saved again. A file that reads but cannot be written is used (start reports it
 *     read-only). A file that cannot be read is not used and not replaced until it
 *     reads again.
 *     Writing: one save writes one complete record, both files, each through a
 *     temporary file of a unique name created with O_CREAT|O_EXCL|O_NOFOLLOW in
 *     /misc/sensor, written, given owner and mode, fsynced, renamed over the file, then
 *     the directory fsynced; a crash or power cut at any step leaves the old record or
 *     the new one. The save holds the directory's advisory lock (flock, not waiting): a
 *     second service saving at the same moment finds it taken and its save fails with
 *     KMXC_SERVICE_SAVE_LOCKED (tried again later). A failed save prints its cause on
 *     stderr and keeps the previous file.
 *     What and when: the record in use is the rough offset, the gravity offset loaded,
 *     and the offset of the last 3-D fit whose batch agrees with it (accuracy 2 or 3);
 *     planar offsets and unconfirmed ones are never saved. A rough-offset change is saved
 *     at once, with the magnetic offset carried over to it (or not known). A new offset
 *     is saved when it moved more than KMXC_SERVICE_SAVE_MIN_MOVE_COUNTS from the stored
 *     one, or moved at all and the stored one has stood KMXC_SERVICE_SAVE_SETTLE_S; never
 *     within KMXC_SERVICE_SAVE_MIN_INTERVAL_S of the last attempt (failed ones
 *     included), and at stop when it differs at all (one save per session).
 *   Warm-up. The integer heading's smoother starts from 180 degrees when the library
 *     is loaded and keeps its history across restarts; for the first
 *     KMXC_SERVICE_WARMUP_CYCLES cycles with an attitude the event's heading is -1.
 *     (Restarted facing 170 degrees away, the smoothed heading is within 1 degree of
 *     the unsmoothed one after 5 cycles; 10 leaves room for noise.) While the phone
 *     turns the smoother lags (about 18 degrees at 120 degrees per second at 10 Hz); the
 *     double path's azimuth (the orientation) passes only the library's hold filter,
 *     which holds it while the recent headings stay within 5 degrees (at 100 Hz, a turn
 *     of 100 degrees a second lags by up to 5).
 *   Rate. The caller declares its rate at start, KMXC_SERVICE_RATE_MIN_HZ ..
 *     KMXC_SERVICE_RATE_MAX_HZ, and passes each cycle's timestamp; every window is in
 *     time, not cycles, except gravity's two means (the steady tilt's and a mount's),
 *     which take the declared rate's share per cycle. A magnetometer measurement waits
 *     13 ms, so one cycle lasts at least that: requested rates above 76 Hz run as fast
 *     as the chip allows, and those means then last up to a third longer.
 *   Cost. On the target (ARMv5TE, soft-float) a cycle averages 35,000 to 40,000
 *     instructions, three quarters of them the library's double-precision attitude and
 *     units behind the event's float fields (soft-float and libm routines); the kit's
 *     own share averages 3,000 to 6,000. At most one fit or judgement of the kit runs in
 *     a cycle, each within 40,000; the dearest cycles, a library fit with the kit's
 *     judgement of it, took up to 145,000 (bench/icount/cycles.sh: every cycle of the
 *     demo's still, default, browse and car scenarios at 10 Hz, the virtual phone's own
 *     code left out).
 *
 * Limits: one session at a time, static state, no heap, no threads of its own: the
 * session belongs to the thread that started it (other threads are refused), and no
 * other code in the process may use libkmxc_orvane.so alongside it. Integer
 * arithmetic except where float event fields are filled.
 */
#ifndef KMXC_SERVICE_H
#define KMXC_SERVICE_H

#include <stdint.h>

#include "common/common.h"

#ifndef KMXC_SERVICE_API
#define KMXC_SERVICE_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Constants -------------------------------------------------------------------- */

/* Rates the kit serves, cycles per second. */
#define KMXC_SERVICE_RATE_MIN_HZ 1
#define KMXC_SERVICE_RATE_MAX_HZ 100
/* The integer heading is the heading of the phone's y axis, or of its -z axis (+z when
 * the y axis points down) once the y axis stands too steep to give one. It changes axis
 * with a margin of 5 degrees either side of 60 degrees: to the z axis when the up-row y
 * component (Q12, its magnitude) exceeds sin(65 degrees), back to the y axis when it no
 * longer exceeds sin(55 degrees). Between the two the axis stays, so a phone held or
 * mounted near 60 degrees (a dashboard mount's tilt, give or take a road's slopes) does
 * not jump between two headings that its roll sets tens of degrees apart.
 * KMXC_SERVICE_HEADING_Z_AXIS says which axis an event's heading belongs to. */
#define KMXC_SERVICE_DIRECTION_ENTER_Z 3712
#define KMXC_SERVICE_DIRECTION_LEAVE_Z 3355
/* Cycles with an attitude before the integer heading is reported. */
#define KMXC_SERVICE_WARMUP_CYCLES 10
/* Sample-feed gate: least distance (corrected counts, 0.4 uT each) of a fed sample
 * from each of the last KMXC_SERVICE_FEED_GATE_HISTORY fed samples. */
#define KMXC_SERVICE_FEED_MIN_CHANGE 32
#define KMXC_SERVICE_FEED_GATE_HISTORY 4
/* The calibration's three-dimensional threshold as the kit sets it: the smallest
 * scatter eigenvalue above this many 1024ths of the largest (library default 64). */
#define KMXC_SERVICE_RATIO_MIN_THRESHOLD 48
/* Fed samples kept for judging fits and stored offsets: one calibration batch. */
#define KMXC_SERVICE_FEED_HISTORY 16
/* Earth's field plausibility, uT (a field outside is an anomaly). */
#define KMXC_SERVICE_FIELD_MIN_UT 10
#define KMXC_SERVICE_FIELD_MAX_UT 100
/* The strength a trusted fit may give, uT: the Earth's 25..65 from the magnetic equator
 * to the poles, widened by the soft iron the ellipsoid fit accepts (axes 0.8..1.25). */
#define KMXC_SERVICE_TRUST_FIELD_MIN_UT 20
#define KMXC_SERVICE_TRUST_FIELD_MAX_UT 81
/* Agreement of a batch's field strengths with their mean (largest deviation, in
 * thousandths of the mean) for a high-accuracy fit or a confirmed stored offset. */
#define KMXC_SERVICE_AGREE_PERMILLE 40
/* ... and for a medium-accuracy fit (worse: low, not saved). A store fit's agreement is
 * judged by the same two limits. */
#define KMXC_SERVICE_FIT_MEDIUM_PERMILLE 80
/* ... and their angles between field and gravity (the fed samples in steady gravity,
 * at least KMXC_SERVICE_FIT_DIP_MIN_SAMPLES of them): for a fit above low, an RMS about
 * their mean within this (centidegrees) and KMXC_SERVICE_FIT_DIP_NOISE_FACTOR times
 * what the chip's noise s explains, s / |B| (the two added as squares). The strengths
 * alone do not see every wrong offset: a cap of an ellipsoid (a phone's soft iron turned
 * over part of the sphere) is as round as a sphere about a centre some uT off, and
 * every field direction about that centre is then off by degrees, which the dips show.
 * On the virtual phone (default, slow, browse, car in the hand, two-planes; soft iron
 * none and A to D; 10 and 50 Hz) fits within 1.2 uT of the true offset left at most 2.0
 * degrees (99 % below 1.1); fits 6 uT off or more left more than 2.0 on three in four.
 * Not judged within 5 degrees of a pole, where the cosine no longer tells the angle. */
#define KMXC_SERVICE_FIT_DIP_SD_CDEG 200
#define KMXC_SERVICE_FIT_DIP_NOISE_FACTOR 3
#define KMXC_SERVICE_FIT_DIP_MIN_SAMPLES 6
/* A store fit (sphere or ellipsoid) whose samples occupy fewer of the store's 24 cells
 * about its centre than this (a cap under a sixth of the sphere) is worth low at most:
 * on a small cap the centre along the cap's axis trades against the radius along a
 * curved valley the fit's linearised covariance does not see, and neither strengths nor
 * dips (often unjudged while walking) show it. On the virtual phone (default, slow,
 * browse, two-planes; 5, 10 and 50 Hz; seeds 1-5) two of the five spheres that reached
 * medium on two or three cells were 10.8 and 14.1 uT off (headings up to 13 degrees
 * off at medium); of those on four cells or more none was 5 uT off (4.3 degrees). */
#define KMXC_SERVICE_TRUST_MIN_CELLS 4
/* Fed samples that must agree before a stored offset counts as confirmed. */
#define KMXC_SERVICE_CONFIRM_SAMPLES 8
/* Anomaly: strength this far from the reference (thousandths of it). Above what a
 * phone's own soft iron spreads it by before the ellipsoid corrects it (axes 0.9..1.1
 * seen through a sphere's offset: up to 10 %) plus noise (0.5 uT in 25 uT: 20) and a
 * sphere's offset error on a partial store: at 100 a soft-iron phone turned slowly kept
 * tripping it, each persisting episode emptying the store, and its fits on the
 * remnants were trusted 10 uT off. A vehicle's field is caught by the dip's angle as
 * well (14 uT at a 48 uT field moves the strength by -10 .. +19 % with the heading). */
#define KMXC_SERVICE_STRENGTH_TOLERANCE_PERMILLE 150
/* The band a trusted estimate's strength keeps to before its accuracy is held at low:
 * this many times the worst deviation from the mean of the batch it was trusted on
 * (about 6 sigma of a batch's noise), within KMXC_SERVICE_STRENGTH_BAND_MIN_PERMILLE ..
 * KMXC_SERVICE_STRENGTH_TOLERANCE_PERMILLE; a planar estimate's is the tolerance. A
 * field fixed to the phone that appears (a car mount's 10 uT moved a 48 uT field's
 * strength by 1 to 11 % in the mounts tried, the heading by 5 to 25 degrees) is seen
 * where it moves the strength past the band: the tolerance alone kept the hand's offset
 * trusted 18 degrees off at 8 %. At 2 times, noisy chips lost a tenth of their trusted
 * samples, none of them wrong. */
#define KMXC_SERVICE_STRENGTH_BAND_FACTOR 3
/* The narrowest band (thousandths): what a medium estimate's offset error (3 uT in
 * 48 uT) moves the strength by as the phone turns; at 40 a phone read level at a 65 uT
 * field, its heading within a degree, lost medium for a minute. */
#define KMXC_SERVICE_STRENGTH_BAND_MIN_PERMILLE 60
/* The dip is judged only while |gravity| is 1 g within this (thousandths). */
#define KMXC_SERVICE_STEADY_GRAVITY_PERMILLE 60
/* An anomaly clears after this long without one. */
#define KMXC_SERVICE_ANOMALY_CLEAR_MS 1000
/* ---- Mounted phone (vehicle) rules ---- */
/* Anomaly: the angle between field and gravity this far from the reference,
 * centidegrees. Judged as an angle: its cosine loses its sensitivity at steep dips. The
 * sum of what moves it on a calibrated phone at rest: noise (0.5 uT in 25 uT: 1.2
 * degrees), a tilt just inside KMXC_SERVICE_STEADY_TILT_CDEG (3), the reference's own
 * error (1) and a medium fit's residual offset (1 uT in 48 uT: 1.2). A vehicle's 14 uT
 * turns a 48 uT field by up to 17 degrees. */
#define KMXC_SERVICE_DIP_TOLERANCE_CDEG 600
/* Steady tilt: the dip is judged (and a sample's gravity taken as the vertical) only
 * while gravity's direction lies within this of its running mean (time constant
 * KMXC_SERVICE_STEADY_TILT_MS), as well as |g| within KMXC_SERVICE_STEADY_GRAVITY_PERMILLE.
 * The length alone misses horizontal accelerations: braking or cornering at 0.3 g
 * changes |g| by 4 % but tilts it by 17 degrees. 3 degrees: above the jitter of a
 * vehicle's vibration (0.03 g: 1.7 degrees) and sensor noise (0.003 g: 0.2). */
#define KMXC_SERVICE_STEADY_TILT_CDEG 300
/* ... the running mean's time constant: half a second, shorter than the rise of a
 * braking or a turn (1 to 4 s), so their tilt shows against it, and long enough to
 * average a vehicle's vibration (11 Hz and up) over several cycles at 10 Hz. */
#define KMXC_SERVICE_STEADY_TILT_MS 500
/* An anomaly episode ends only when no sample has come within half a tolerance of it
 * for KMXC_SERVICE_ANOMALY_CLEAR_MS: a field that hovers at a limit (a vehicle's field
 * at a heading where it barely shows) keeps the episode going instead of restoring the
 * accuracy between flickers. An episode that lasts KMXC_SERVICE_STORE_ANOMALY_PERSIST_MS
 * demotes the offset in use to unreliable (it is off by the new surrounding's field,
 * which nothing has measured: a car's 20 uT turns the heading by up to 40 degrees) until
 * a new estimate is trusted or KMXC_SERVICE_CONFIRM_SAMPLES fed samples after it agree
 * with the offset and the references as a stored offset's confirmation does. */
#define KMXC_SERVICE_ANOMALY_HYSTERESIS_DIVISOR 2
/* An episode of dip anomalies alone counts toward that persistence only after this long:
 * a vehicle's acceleration tilts gravity for as long as it lasts (pulling away to 17 m/s
 * at 0.15 g: 9 s; a right-angle turn at 8 m/s and 0.2 g: 13 s; a roundabout's three
 * turns in a row: up to 30 s), and a hand's while it moves; meanwhile the accuracy is
 * held down (a tilted gravity turns the heading too), but the store and the offset's
 * trust are kept. */
#define KMXC_SERVICE_DIP_PERSIST_MS 30000
/* In a mount (the store's samples on a circle about the vertical, the sample on its
 * plane) an attitude whose measured gravity lies farther than this from the mount's
 * 40-second mean holds at most low accuracy, whichever estimate gives the offset
 * (KMXC_SERVICE_MOUNT_TILT); the planar estimate's attitude takes the mount's recent
 * gravity instead (KMXC_SERVICE_MOUNT_GRAVITY). A road's slopes (up to 5 degrees either
 * way) stay inside; a vehicle's braking or cornering beyond 0.18 g does not, nor a hand
 * that tilts the phone. A sphere fitted in a mount at a shallow dip determines the
 * heading, but 0.3 g of cornering tilts the attitude by 17 degrees. Beyond it, a
 * gravity of its own length (not lengthened as an acceleration lengthens it) is a tilt:
 * the planar attitude is flagged too while the mean still has it, and a tilt held
 * steady starts the mean afresh (the phone put down, a mount knocked to a new angle;
 * service/kit_mount.h). */
#define KMXC_SERVICE_MOUNT_TILT_CDEG 1000
/* The mount's recent gravity takes in a traffic's gentle accelerations and lags the
 * road's slopes (one standard deviation per horizontal axis, centidegrees): the planar
 * attitude's tilt error, which turns the heading by tan(dip) times itself, joins the
 * offset's in the heading's uncertainty (KMXC_SERVICE_HEADING_SIGMA_*). Before a held
 * acceleration shows the mount a vehicle's, the planar attitude takes the measured
 * gravity, its tilt error at least this and at least its angle from the recent gravity
 * (a hand's tilt, or a vehicle's acceleration the recent gravity leaves out). 2 degrees: on
 * the virtual drives the reported pitch (whole degrees) was 1.6-2.2 degrees RMS off the
 * car's, the roll 0.6-1.1. At a 60-degree dip that alone is 3.5 degrees of heading
 * (medium at most); at 75, 7.5 (low). */
#define KMXC_SERVICE_MOUNT_GRAVITY_SD_CDEG 200
/* Entering a vehicle (a car, a bike, a train): gravity held away, for
 * KMXC_SERVICE_VEHICLE_HOLD_MS, from where it was when the field (offset removed,
 * smoothed over about 0.1 s, longer on a noisy chip) last moved by more than
 * KMXC_SERVICE_VEHICLE_STILL_COUNTS on an axis, as no turn of the phone that keeps the
 * field still can move it: an acceleration of
 * the phone without a turn (a vehicle pulling away or braking, 0.1 g and more). Only a
 * turn about the field's own direction keeps the field still; it keeps gravity's angle
 * to the field, and it moves gravity across their plane by the turn times the sine of
 * that angle. So either the angle changed by KMXC_SERVICE_VEHICLE_ANGLE_CDEG or more, or
 * gravity moved by that much and the turn about the field it implies is
 * KMXC_SERVICE_VEHICLE_TURN_CDEG or more: at a 70-degree dip a braking of 0.15 g across
 * the plane implies 25 degrees, which a hand would have to turn the phone about an axis
 * within 4 degrees of the field's direction (at a shallow dip the turn equals gravity's
 * move: a hand rolling the phone about a level field is no vehicle). A walker's steps
 * move gravity by 2 degrees, to and fro twice a second. The vehicle's steel may have
 * changed the field fixed to the phone, by less than the anomaly rules can see at every
 * heading: an offset trusted before the vehicle loses its trust (unreliable; the store
 * starts afresh, as after a persisting anomaly; KMXC_SERVICE_ANOMALY_VEHICLE) unless it
 * was found in the mount (the planar estimate, or a store whose samples draw the mount's
 * circle). Only a trusted offset's field is judged. Once in a vehicle, until
 * KMXC_SERVICE_VEHICLE_QUIET_S of a trusted offset pass without such an acceleration,
 * the estimates found there keep theirs. */
#define KMXC_SERVICE_VEHICLE_ANGLE_CDEG 400
#define KMXC_SERVICE_VEHICLE_STILL_COUNTS 4
#define KMXC_SERVICE_VEHICLE_TURN_CDEG 2500
#define KMXC_SERVICE_VEHICLE_HOLD_MS 1000
#define KMXC_SERVICE_VEHICLE_QUIET_S 300
/* Planar estimator (a phone turned about one axis: a vehicle mount). The store's samples
 * count as a circle when their RMS distance from the fitted plane is at most
 * 1/KMXC_SERVICE_PLANAR_FLATNESS of its radius: a rotation axis that wobbles by up to 7
 * degrees (road slopes up to 5, a body's roll in a turn, noise) about its mean. Without
 * a reference (no trusted 3-D calibration yet) nothing checks the circle's radius, and
 * its axis must also lie within KMXC_SERVICE_MOUNT_TILT_CDEG of the phone's mean gravity:
 * a hand turning the phone about an axis near the field's traces a circle too. */
#define KMXC_SERVICE_PLANAR_FLATNESS 8
/* Least arc of the circle its samples cover (centidegrees, 360 less the widest gap
 * between neighbours about the fitted centre) for a planar offset: over a quarter turn
 * the reference's radius pins the centre (its error moves the centre by about the
 * radius' error), and without a reference the free circle's own curvature places it
 * within a few counts on a mount's wobble, what a low accuracy allows (a drive's turns
 * to and fro may cover little more for minutes); below, the centre slides along the arc. */
#define KMXC_SERVICE_PLANAR_MIN_ARC_CDEG 9000
/* Least arc for a confirmed (medium) planar estimate: from half a turn the samples
 * determine the circle's radius themselves, so it can be checked against the references. */
#define KMXC_SERVICE_PLANAR_CONFIRM_ARC_CDEG 18000
/* The circle's own radius must match the reference circle's, strength x sin(angle
 * between field and gravity), within this change of the angle (centidegrees): the
 * reference's dip error (1 degree), the radius' error from half a turn of samples whose
 * axis wobbles with the road's slope (1.5) and noise. */
#define KMXC_SERVICE_PLANAR_DIP_TOLERANCE_CDEG 300
/* Least time between two rough-offset changes. */
#define KMXC_SERVICE_ROUGH_CHANGE_INTERVAL_MS 1000
/* The kit's store of samples is refitted once this many samples have joined it since
 * its last fit: an eighth of its 32, enough to move a fit, few enough that a turning
 * phone is refitted about once a second at 10 Hz. */
#define KMXC_SERVICE_STORE_REFIT_JOINS 4
/* An anomaly that lasts this long without a break of KMXC_SERVICE_ANOMALY_CLEAR_MS
 * empties the store: a new steady surrounding (a magnetic clip, a car mount). A magnet
 * passed at walking pace (a door, a speaker) disturbs the field for a second or two and
 * leaves the store as it was. */
#define KMXC_SERVICE_STORE_ANOMALY_PERSIST_MS 5000
/* Heading uncertainty (one standard deviation, centidegrees) that caps the accuracy: the
 * offset's predicted error along magnetic east at this attitude (east = field x gravity)
 * over the horizontal field. An error along gravity or along the horizontal field does
 * not turn the heading, so a phone turned about the vertical is trusted as soon as its
 * turns fix the horizontal offset, and loses the trust when a tilt brings the direction
 * its samples never determined into the horizontal.
 *   HIGH 2 degrees: 95 % of headings within 4 degrees, finer than a user lines up a map
 *     by eye (and the 2-degree RMS of a well-calibrated phone).
 *   MEDIUM 5 degrees: a heading 15 degrees off (3 sigma: a wrong street at a junction)
 *     in fewer than 3 samples in 1000.
 *   LOW 15 degrees: the heading points into the right quarter 9 times in 10 (the
 *     quarter's half-width 45 degrees is 3 sigma). Beyond: unreliable.
 * They are the calibration's share of the error, which the orientation's azimuth
 * carries; heading_deg adds its smoother's lag while the phone turns (Warm-up above:
 * about 18 degrees at 120 degrees per second at 10 Hz, more at lower rates). */
#define KMXC_SERVICE_HEADING_SIGMA_HIGH_CDEG 200
#define KMXC_SERVICE_HEADING_SIGMA_MEDIUM_CDEG 500
#define KMXC_SERVICE_HEADING_SIGMA_LOW_CDEG 1500
/* The reported accuracy falls at once and rises only once this long has passed since it
 * last fell: a heading whose uncertainty sits near a limit (the cap follows the
 * attitude) or a strength at the edge of its band would otherwise switch the level
 * several times a second. Never reports more than the rules above allow at the cycle. */
#define KMXC_SERVICE_ACCURACY_RISE_MS 1000
/* The magnetometer's noise per axis assumed by the estimators, 1/100 uT: its part in a
 * fit's expected residual (with the 0.4 uT count's rounding, 0.12 uT). Twice what the
 * virtual phone draws. It is a floor: the kit measures the noise the fields show while
 * the tilt is steady (third differences of consecutive fields) and takes that when it is
 * more, for the residuals a fit is judged by and, with a margin of twice, for the
 * scatter a thin band of samples owes to noise alone (a noisier chip's flat turns then
 * determine no third direction). */
#define KMXC_SERVICE_MAG_NOISE_CENTI_UT 30
/* Soft iron a fit does not model, per entry of the correction W = I + D (one standard
 * deviation, 1/1000). A sphere fitted to part of the sphere turns D into offset (a cap
 * of an ellipsoid is as round as a shifted sphere); the estimators' predicted errors
 * carry that share, which vanishes as the samples go round the sphere and tell D
 * apart. 2 %: a phone's metal bends its axes by a few percent (at 1.5 %, a fifth to a
 * third of the trusted headings of a phone with 10 % turned slowly were more than 15
 * degrees off). LEFT: what may remain once an ellipsoid's correction is applied. Where
 * the store's own ellipsoid fit shows more (the RMS of its correction's entries about
 * I), that is the prior of every estimate's share, the one in use included: a phone
 * whose metal is seen to bend its axes by 5 % is not assumed to bend them by 2 % where
 * the samples cannot yet tell (a fit of 10 % soft iron turned slowly: 10 % of its
 * trusted headings more than 15 degrees off with 2 %, 4 % with the store's own). */
#define KMXC_SERVICE_SOFT_IRON_PRIOR_PERMILLE 20
#define KMXC_SERVICE_SOFT_IRON_LEFT_PERMILLE 15
/* The ellipsoid is attempted (whatever the store's coverage) when the sphere estimate's
 * strength residual exceeds this many times what noise and rounding explain: a field
 * that is no sphere within the noise. Twice: a sphere's residual over 32 samples
 * scatters by about an eighth, so noise alone never reaches it. */
#define KMXC_SERVICE_ELLIPSOID_ATTEMPT_FACTOR 2
/* A first soft-iron correction is used only when its strengths' RMS residual is at most
 * this fraction (1/n) of the sphere fit's on the same store: soft iron that the strengths
 * cannot tell from noise is not worth a correction that may also bend the heading. A new
 * correction replaces one in use when its residual is no larger than that of the sphere
 * fitted through the correction in use (the store as the library sees it). */
#define KMXC_SERVICE_ELLIPSOID_BEAT_FACTOR 2
/* A planar estimate replaces a planar offset in use only when it moves it by at least
 * this many counts along some axis (0.8 uT, under a degree of heading in a 24 uT
 * horizontal field) or raises its accuracy: publishing restarts the library's batch, so
 * a refit that only moves the offset by its noise is not published. */
#define KMXC_SERVICE_REPUBLISH_MIN_CHANGE 2

/* Persistence (see the paragraph above). The library's calibration file, and the kit's. */
#define KMXC_SERVICE_CALIBRATION_FILE KMXC_CALIBRATION_FILE
#define KMXC_SERVICE_KIT_FILE KMXC_CALIBRATION_DIRECTORY "/kmxc_orvane-kit.cfg"
/* Largest stored gravity offset used, per axis, 1/4096 g: a quarter of g. A MEMS
 * accelerometer's zero-g offset, soldering stress and temperature included, stays within
 * about a tenth of g; a larger value is damage, and would tilt the attitude by up to
 * 14 degrees. */
#define KMXC_SERVICE_GRAVITY_OFFSET_LIMIT 1024
/* Save spacing, for the flash. A new offset is saved at once when it moved more than
 * this many counts (1.2 uT: about the spread of one fit's offset, and under 3 degrees
 * of heading in a 24 uT horizontal field) from the stored one ... */
#define KMXC_SERVICE_SAVE_MIN_MOVE_COUNTS 3
/* ... and when it moved at all and the stored one is this old (it stays close to the
 * truth; a save every ten minutes of handling costs the flash nothing) ... */
#define KMXC_SERVICE_SAVE_SETTLE_S 600
/* ... but never within this long of the last save attempt: at most 60 saves an hour
 * however often the calibration fits (it can fit every few seconds while the phone is
 * handled). */
#define KMXC_SERVICE_SAVE_MIN_INTERVAL_S 60
/* The kit file's format version, and 1.0 in its soft-iron correction (Q14). */
#define KMXC_SERVICE_KIT_FILE_VERSION 1
#define KMXC_SERVICE_SOFT_IRON_ONE 16384

/* Accuracy values (Android's SENSOR_STATUS_*). */
#define KMXC_SERVICE_UNRELIABLE 0
#define KMXC_SERVICE_LOW 1
#define KMXC_SERVICE_MEDIUM 2
#define KMXC_SERVICE_HIGH 3

/* Event flags: what happened in this cycle. */
#define KMXC_SERVICE_MEASURED 0x0001          /* both measurements succeeded; fields valid */
#define KMXC_SERVICE_FED 0x0002               /* the sample passed the gate to the calibration */
#define KMXC_SERVICE_NEW_OFFSET 0x0004        /* the calibration published an offset */
#define KMXC_SERVICE_FIT_3D 0x0008            /* ... from a three-dimensional fit */
#define KMXC_SERVICE_ANOMALY 0x0010           /* a field anomaly was seen in this sample */
#define KMXC_SERVICE_ROUGH_CHANGED 0x0020     /* the rough offset was changed, offset carried */
#define KMXC_SERVICE_SAVED 0x0040             /* the record was saved: both files, durably */
#define KMXC_SERVICE_SAVE_FAILED 0x0080       /* a save failed; the previous record is kept */
#define KMXC_SERVICE_CONFIRMED 0x0100         /* the stored offset was confirmed by the field */
#define KMXC_SERVICE_HEADING_VALID 0x0200     /* heading_deg holds a heading (after warm-up) */
#define KMXC_SERVICE_ORIENTATION_VALID 0x0400 /* orientation_deg and rotation_vector hold values */
#define KMXC_SERVICE_SAVE_LOCKED 0x0800       /* the save found another service saving (with SAVE_FAILED) */
#define KMXC_SERVICE_KIT_ESTIMATE 0x1000      /* the new offset (and soft iron) is the kit's own */
#define KMXC_SERVICE_MOUNT_GRAVITY                                \
    0x2000 /* the attitude took the mount's recent gravity, not   \
              this sample's (a vehicle's accelerations left out); \
              acceleration_ms2 and gravity_counts stay measured */
#define KMXC_SERVICE_MOUNT_TILT                                    \
    0x4000 /* in a mount, the measured gravity beyond              \
              KMXC_SERVICE_MOUNT_TILT_CDEG of the mount's mean: an \
              acceleration (or a hand) tilts the attitude, or a    \
              tilt not yet held leaves the mean wrong; at most low */
#define KMXC_SERVICE_HEADING_Z_AXIS                                \
    0x8000 /* heading_deg is the heading of the -z axis (the back; \
              +z when the y axis points down), not of the y axis   \
              (KMXC_SERVICE_DIRECTION_ENTER_Z) */

/* Estimators (event.estimator): where the offset in use comes from. */
#define KMXC_SERVICE_ESTIMATOR_NONE 0         /* no offset yet (or only a planar one moved it) */
#define KMXC_SERVICE_ESTIMATOR_STORED 1       /* the calibration file's offset */
#define KMXC_SERVICE_ESTIMATOR_LIBRARY 2      /* the library's fit of its batch */
#define KMXC_SERVICE_ESTIMATOR_STORE_SPHERE 3 /* the kit's sphere fit of its store */
#define KMXC_SERVICE_ESTIMATOR_ELLIPSOID 4    /* the kit's ellipsoid fit: offset and soft iron */
#define KMXC_SERVICE_ESTIMATOR_PLANAR 5       /* the kit's circle fit of a phone turned about one axis */

/* Anomaly causes (event.anomaly), bits. */
#define KMXC_SERVICE_ANOMALY_RANGE 1    /* strength outside the Earth's range */
#define KMXC_SERVICE_ANOMALY_STRENGTH 2 /* strength far from the reference */
#define KMXC_SERVICE_ANOMALY_DIP 4      /* field-gravity angle far from the reference */
#define KMXC_SERVICE_ANOMALY_VEHICLE 8  /* the phone entered a vehicle (KMXC_SERVICE_VEHICLE_ANGLE_CDEG) */
#define KMXC_SERVICE_ANOMALY_OUTSIDE_BAND \
    16 /* strength outside the trusted estimate's band (KMXC_SERVICE_STRENGTH_BAND_FACTOR) */

/* What start found at KMXC_SERVICE_CALIBRATION_FILE and did (KmxcServiceStart.file,
 * bits). An integrator acts on: ABSENT (first start, or the file was lost),
 * UNREADABLE, NOT_REGULAR, READ_ONLY (no calibration will be kept), GARBLED and
 * IMPLAUSIBLE (the file was damaged), LOCKED (two services share the files).
 *   LOADED       a complete record was read; its values were used (IMPLAUSIBLE: some reset)
 *   ABSENT       no file: defaults, the file made by start's save
 *   UNREADABLE   it exists but could not be read (file_error): defaults; not replaced
 *                until it reads again
 *   NOT_REGULAR  a symbolic link, FIFO, directory or device: refused, never written
 *   READ_ONLY    with LOADED: the file or /misc/sensor cannot be written (file_error):
 *                the record is used, nothing can be saved
 *   GARBLED      not a record of nine integers: reset to defaults and saved again
 *   IMPLAUSIBLE  with LOADED: a value out of its range (rough, magnetic, gravity; see
 *                Persistence) was reset and the record saved again
 *   LOCKED       start's save found another service saving: not saved now */
#define KMXC_SERVICE_FILE_LOADED 0x0001
#define KMXC_SERVICE_FILE_ABSENT 0x0002
#define KMXC_SERVICE_FILE_UNREADABLE 0x0004
#define KMXC_SERVICE_FILE_NOT_REGULAR 0x0008
#define KMXC_SERVICE_FILE_READ_ONLY 0x0010
#define KMXC_SERVICE_FILE_GARBLED 0x0020
#define KMXC_SERVICE_FILE_IMPLAUSIBLE 0x0040
#define KMXC_SERVICE_FILE_LOCKED 0x0080

/* What start found at KMXC_SERVICE_KIT_FILE (KmxcServiceStart.kit_file). Every code but
 * LOADED means its values are the defaults, written with the next save. */
#define KMXC_SERVICE_KIT_FILE_LOADED 0 /* belongs to the calibration record in use */
#define KMXC_SERVICE_KIT_FILE_ABSENT 1 /* none yet */
#define KMXC_SERVICE_KIT_FILE_MISMATCH                                                       \
    2                                   /* made for another rough or magnetic offset (a save \
                                           cut short, a rough-offset change, the library's own save) */
#define KMXC_SERVICE_KIT_FILE_GARBLED 3 /* not a kit record of this version: format, range, checksum */
#define KMXC_SERVICE_KIT_FILE_REFUSED 4 /* not a regular file, or unreadable: never written while so */

/* ---- Records ---------------------------------------------------------------------- */

/* What start found (filled by kmxc_service_start when it returns KMXC_SERVICE_OK). */
typedef struct KmxcServiceStart {
    uint8_t rough[3];         /* rough offset written to the chip, channels 0..2 */
    uint8_t rough_measured;   /* 1 measured now, 0 taken from the file */
    uint8_t offset_loaded;    /* 1 a valid stored magnetic offset was loaded (unconfirmed) */
    uint8_t file_repaired;    /* 1 when file has KMXC_SERVICE_FILE_GARBLED (as before file existed) */
    int32_t offset[3];        /* the magnetic offset in use, counts */
    uint16_t file;            /* KMXC_SERVICE_FILE_* bits */
    uint8_t kit_file;         /* KMXC_SERVICE_KIT_FILE_* */
    uint8_t save_attempts;    /* saves start tried: 0 or 1 (one save writes both files) */
    uint8_t save_failures;    /* of these, failed (counted in the events' save_failures too) */
    uint8_t reserved[3];      /* 0 */
    int32_t file_error;       /* errno behind UNREADABLE, READ_ONLY or start's failed save; else 0 */
    int16_t soft_iron_q14[9]; /* the soft-iron correction W in use, Q14 (16384 = 1), row-major;
                                 the identity when none */
} KmxcServiceStart;

/* One cycle's event. Float fields are valid when their flag says so. */
typedef struct KmxcServiceEvent {
    int64_t timestamp_ns;      /* the caller's timestamp of the cycle, as Android's event's */
    float magnetic_uT[3];      /* calibrated field, device axes (x right, y up, z out) */
    float uncalibrated_uT[3];  /* field before the offset is removed */
    float bias_uT[3];          /* the offset; magnetic = uncalibrated - bias */
    float acceleration_ms2[3]; /* gravity included; +9.8 on z lying face up */
    float orientation_deg[3];  /* azimuth 0..359 (magnetic), pitch -180..179, roll -90..90:
                                  whole degrees (the library's Euler angles are whole by
                                  contract), never -0 */
    float rotation_vector[4];  /* geomagnetic rotation vector: the unit quaternion x, y, z, w
                                  (w >= 0) of the rotation from device axes to east, north,
                                  up, as Android's; from the same rotation matrix as the
                                  orientation, at full precision */
    int16_t heading_deg;       /* integer path 0..359, of the axis KMXC_SERVICE_HEADING_Z_AXIS
                                  names; -1 during warm-up or failure */
    int8_t accuracy;           /* KMXC_SERVICE_UNRELIABLE .. KMXC_SERVICE_HIGH */
    uint8_t anomaly;           /* KMXC_SERVICE_ANOMALY_* causes seen in this sample */
    uint16_t flags;            /* KMXC_SERVICE_* event flags */
    int8_t mag_result;         /* KmxAxesDrvMsMeasure: 0, 1..7 out of range, < 0 failed */
    int8_t accel_result;       /* KmxAxesDrvGsMeasure */
    int8_t calib_result;       /* KmxAxesMsCalibUpdate, 0 when the sample was not fed */
    int8_t calib_status;       /* KmxAxesMsCalibGetStatus */
    int16_t calib_ratio_min;   /* batch ratios and fit residual of a fed sample: the */
    int16_t calib_ratio_mid;   /*   KmxAxesMsCalibDetail record (0, 0, 2147483647 */
    int32_t calib_residual;    /*   while the batch fills) */
    int16_t raw_mag[3];        /* the magnetometer's raw channels (11 bit) */
    int16_t raw_temperature;   /* the magnetometer's raw temperature */
    int16_t raw_accel[3];      /* the accelerometer's counts */
    uint8_t rough[3];          /* the rough offset in use */
    int32_t mag_counts[3];     /* corrected magnetic vector, counts (0.4 uT) */
    int32_t gravity_counts[3]; /* gravity vector, 1/4096 g */
    int32_t offset[3];         /* the magnetic offset in use, counts */
    int32_t strength_centi_uT; /* |mag_counts - offset| in 1/100 uT, rounded down */
    int32_t dip_cos_permille;  /* 1000 cos(angle between field and gravity) */
    uint32_t saves;            /* successful saves so far (start's included) */
    uint32_t save_failures;    /* failed saves so far (start's included) */
    uint8_t estimator;         /* KMXC_SERVICE_ESTIMATOR_* of the offset in use */
    uint8_t coverage_cells;    /* cells (of 24) the kit's store of samples covers, last fit */
    int16_t soft_iron_q14[9];  /* the soft-iron correction W in use, Q14 (16384 = 1), row-major;
                                  the identity when none. mag_counts and uncalibrated_uT are
                                  the field after it: m' = c + W (m - c), c the centre of the
                                  ellipsoid W came from */
} KmxcServiceEvent;

/* ---- Results ----------------------------------------------------------------------
 * Every function returns one of these; each value has one meaning, and
 * kmxc_service_result_name() gives its name as text.
 *
 *   name                              value  from         meaning
 *   KMXC_SERVICE_OK                      0   all          done (a cycle: the event is
 *                                                         filled; check its flags, a failed
 *                                                         measurement is reported there)
 *   KMXC_SERVICE_BAD_RATE               -1   start        rate outside KMXC_SERVICE_RATE_MIN_HZ..
 *                                                         KMXC_SERVICE_RATE_MAX_HZ; nothing done
 *   KMXC_SERVICE_MAG_START_FAILED       -2   start        the magnetometer did not start
 *   KMXC_SERVICE_ACCEL_START_FAILED     -3   start        the accelerometer did not start (the
 *                                                         magnetometer is stopped again)
 *   KMXC_SERVICE_ROUGH_OFFSET_FAILED    -4   start        the rough offset could not be written
 *                                                         (both drivers are stopped again)
 *   KMXC_SERVICE_ALREADY_STARTED        -5   start        a session is open; stop it first
 *   KMXC_SERVICE_NOT_STARTED            -6   cycle, stop  no session is open
 *   KMXC_SERVICE_NULL_EVENT             -7   cycle        event is null; nothing done
 *   KMXC_SERVICE_BAD_TIMESTAMP          -8   cycle        the timestamp is not later than the
 *                                                         last cycle's; nothing done
 *   KMXC_SERVICE_WRONG_THREAD           -9   all but      called from a thread other than the
 *                                             start       one that started the session
 *   KMXC_SERVICE_BUSY                  -10   all          another call of the kit is running
 *                                                         (on another thread); nothing done
 *   KMXC_SERVICE_STOP_NOT_SAVED        -11   stop         stopped, but an offset newer than the
 *                                                         file could not be saved (the file keeps
 *                                                         the previous record; cause on stderr)
 */
enum KmxcServiceResult {
    KMXC_SERVICE_OK = 0,
    KMXC_SERVICE_BAD_RATE = -1,
    KMXC_SERVICE_MAG_START_FAILED = -2,
    KMXC_SERVICE_ACCEL_START_FAILED = -3,
    KMXC_SERVICE_ROUGH_OFFSET_FAILED = -4,
    KMXC_SERVICE_ALREADY_STARTED = -5,
    KMXC_SERVICE_NOT_STARTED = -6,
    KMXC_SERVICE_NULL_EVENT = -7,
    KMXC_SERVICE_BAD_TIMESTAMP = -8,
    KMXC_SERVICE_WRONG_THREAD = -9,
    KMXC_SERVICE_BUSY = -10,
    KMXC_SERVICE_STOP_NOT_SAVED = -11
};

/* ---- Functions -------------------------------------------------------------------
 * kmxc_service_start(rate_hz, start)   start may be null; the library's call order's
 *                                      steps 1-3 (README)
 *                                      One session at a time in a process: while one is
 *                                      open, start from any thread gets
 *                                      KMXC_SERVICE_ALREADY_STARTED.
 * kmxc_service_cycle(timestamp_ns, event)  one measurement, steps 4-5; timestamp_ns is
 *                                      the monotonic clock (CLOCK_MONOTONIC or
 *                                      CLOCK_BOOTTIME, as Android's sensor events) and
 *                                      must increase from cycle to cycle
 * kmxc_service_stop()                  step 6, after saving an offset newer than the file
 * kmxc_service_saves(done, failed)     saves and failed saves of the session so far, start's
 *                                      and stop's included (valid after stop, until the next
 *                                      start); either pointer may be null; KMXC_SERVICE_OK
 * Cycle and stop must come from the thread that started the session; the kit detects
 * another thread (KMXC_SERVICE_WRONG_THREAD) and a call while another is running
 * (KMXC_SERVICE_BUSY) and refuses them without touching the session.
 * kmxc_service_result_name(result)     "KMXC_SERVICE_BAD_RATE" ...; "unknown result" for a
 *                                      value not in the table. Static text, never null.
 */
KMXC_SERVICE_API int32_t kmxc_service_start(uint32_t rate_hz, KmxcServiceStart *start);
KMXC_SERVICE_API int32_t kmxc_service_cycle(int64_t timestamp_ns, KmxcServiceEvent *event);
KMXC_SERVICE_API int32_t kmxc_service_stop(void);
KMXC_SERVICE_API int32_t kmxc_service_saves(uint32_t *done, uint32_t *failed);
KMXC_SERVICE_API const char *kmxc_service_result_name(int32_t result);

#ifdef __cplusplus
}
#endif

#endif /* KMXC_SERVICE_H */
