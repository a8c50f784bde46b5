// The cases bench/icount/count.sh counts instructions of, each in a function of its
// own between two calls of icount_mark(): the calibration's fitting call, one cycle
// that does not fit, the double-precision attitude functions, and for comparison a
// plain algebraic (Kasa) sphere fit in double and in float on the same 16 samples,
// compiled with the same flags; then the kit's estimator units on a full store of 32
// samples, and the kit's own share of a cycle: the path every non-fitting cycle adds
// (the soft-iron correction and the store's offer, its worst refusal), and each of its
// fitting steps. An emulator's time means nothing, so the script counts instructions:
// callgrind on x86-64, a one-instruction-per-block qemu trace on armel. Each case
// checks its result, so a count is never of a call that did nothing.
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "bench/icount/kasa_fit.h"
#include "calibration/calibration_internal.h"
#include "drivers/drivers.h"
#include "drivers/typical_chip.h"
#include "orientation/orientation.h"
#include "service/circle_fit.h"
#include "service/ellipsoid_fit.h"
#include "service/field_store.h"
#include "service/kit_angle.h"
#include "service/kit_internal.h"
#include "service/kit_uncertainty.h"
#include "service/sphere_fit.h"

namespace kmxc_kit {
State g_state;  // the kit's state, here the cases' own
}  // namespace kmxc_kit

namespace {

// 16 well-spread points of a sphere of radius 130 counts round (100, -50, 200), with
// ±1 count of noise; written out so that every target feeds the same integers.
const KmxAxesData kBatch[16] = {{63, -76, 321},  {175, -64, 307}, {43, 24, 290},    {92, -157, 274},
                                {185, 30, 256},  {-22, -52, 242}, {196, -135, 225}, {87, 80, 208},
                                {23, -153, 191}, {225, -26, 175}, {-5, 17, 158},    {131, -162, 142},
                                {149, 45, 126},  {13, -84, 112},  {169, -78, 94},   {81, -10, 77}};
const KmxAxesData kField{-100, 120, -300}, kGravity{300, -200, -4050};

int8_t g_code;
uint16_t g_heading;
double g_angles[3];
float g_centre_f[3];
double g_centre_d[3];

// The estimators' cases: a full store of a soft-iron ellipsoid (radius about 120 counts
// about (100, -50, 200)), a full store of a car mount's circle, and their results.
using namespace kmxc_kit;
FieldStore g_store, g_ring;
SphereFit g_sphere;
EllipsoidFit g_ellipsoid;
CircleFit g_circle;
StoreAgreement g_agreement;
Spread g_spread;
FitResult g_fit_results[3];
Offer g_offers[3];
int g_coverage;
const Vec3 kCentre{100, -50, 200}, kDown{0, 0, 4096};

KmxcServiceEvent g_event;
uint8_t g_estimator_seen[7];
bool g_library_preferred;
int32_t g_shown_seen = -1;  // what the showing fit found (-1: it did not run)
bool g_share_seen[3];       // the sphere's share's two steps done, the ellipsoid's share

// The kit trusting an offset at kCentre, with a soft-iron correction in use, its store
// full, its ring of fed samples full, and `joined` samples joined since its last fit.
void set_kit(int joined, bool ellipsoid_due, bool ellipsoid_pending) {
    g_state = State{};
    g_state.offset_trusted = true;
    g_state.base_accuracy = KMXC_SERVICE_HIGH;
    g_state.estimator = KMXC_SERVICE_ESTIMATOR_LIBRARY;
    g_state.soft_iron = SoftIron{true, kCentre, {}};
    for (int k = 0; k < 9; ++k) g_state.soft_iron.w_q14[k] = g_ellipsoid.w_q14[k];
    g_state.est.store = g_store;
    g_state.est.sphere = g_sphere;
    g_state.est.ellipsoid = g_ellipsoid;
    g_state.est.joined = static_cast<uint8_t>(joined);
    g_state.est.ellipsoid_due = ellipsoid_due;
    g_state.est.ellipsoid_pending = ellipsoid_pending;
    for (int i = 0; i < KMXC_SERVICE_FEED_HISTORY; ++i) remember_fed(stored_field(g_store, 2 * i), kDown);
    const KmxAxesData centre{kCentre.x + 3, kCentre.y, kCentre.z};  // a little off: the fits move it
    KmxAxesLibSetMsOffset(&centre);
    g_event = KmxcServiceEvent{};
}

void fill_stores() {
    field_store_clear(&g_store);
    field_store_clear(&g_ring);
    for (int k = 0; k < 400; ++k) {
        const int i = k * 97 % 400;  // the golden-angle spiral's points in a scrambled order
        const double z = 1 - 2 * (i + 0.5) / 400, r = std::sqrt(1 - z * z), a = i * 2.399963;
        const Vec3 m{kCentre.x + static_cast<int32_t>(std::lround(130 * r * std::cos(a))),
                     kCentre.y + static_cast<int32_t>(std::lround(115 * r * std::sin(a))),
                     kCentre.z + static_cast<int32_t>(std::lround(110 * z))};
        field_store_offer(&g_store, m, kDown, nullptr, false, true);
    }
    for (int i = 0; i < 400 && g_ring.count < kStoreCapacity; ++i) {
        const double a = i * 2.399963;
        const Vec3 m{kCentre.x + static_cast<int32_t>(std::lround(90 * std::cos(a))),
                     kCentre.y + static_cast<int32_t>(std::lround(90 * std::sin(a))), kCentre.z + 60 + (i % 3) - 1};
        field_store_offer(&g_ring, m, kDown, nullptr, false, true);
    }
}

}  // namespace

extern "C" {
__attribute__((noinline)) void icount_mark(void) { asm volatile("" ::: "memory"); }
__attribute__((noinline)) void icount_case_empty(void) { asm volatile("" ::: "memory"); }
__attribute__((noinline)) void icount_case_fit(void) { g_code = KmxAxesMsCalibUpdate(&kBatch[15]); }
__attribute__((noinline)) void icount_case_cycle(void) {
    static const uint16_t raw[3] = {600, 512, 400};
    KmxAxesData field;
    KmxAxesDrvMsensCorrection(raw, 300, &field);
    g_code = KmxAxesMsCalibUpdate(&field);
    KmxAxesAttitude attitude;
    KmxAxesLibGetAttitude(&kField, &kGravity, &attitude);
    KmxAxesLibCalcDirection(&attitude, &g_heading, 3000);
}
__attribute__((noinline)) void icount_case_double(void) {
    double gravity[3], field[3], matrix[9];
    KmxAxesLibGetGravityEarth(&kGravity, gravity);
    KmxAxesLibGetMagneticT(&kField, field);
    KmxAxesLibGetRotationMatrix(gravity, field, matrix);
    KmxAxesLibGetEuler(matrix, g_angles);
}
__attribute__((noinline)) void icount_case_kasa_double(void) { kasa_fit<double>(kBatch, 16, g_centre_d); }
__attribute__((noinline)) void icount_case_kasa_float(void) { kasa_fit<float>(kBatch, 16, g_centre_f); }
// A still phone's sample: near the sample that joined last (the first one tried).
__attribute__((noinline)) void icount_case_offer_still(void) {
    const StoredSample &p = g_store.sample[g_store.last];
    g_offers[0] = field_store_offer(&g_store, Vec3{p.m[0] + 2, p.m[1] - 1, p.m[2]}, kDown, &kCentre, false, true);
}
// The longest refusal: near only the sample in the last slot, every other one tried.
__attribute__((noinline)) void icount_case_offer_refused(void) {
    const StoredSample &p = g_store.sample[kStoreCapacity - 1];
    g_offers[1] = field_store_offer(&g_store, Vec3{p.m[0] + 3, p.m[1], p.m[2] - 2}, kDown, &kCentre, false, true);
}
// A sample that widens the full store: it replaces the older of the closest pair.
__attribute__((noinline)) void icount_case_offer_joins(void) {
    g_offers[2] = field_store_offer(&g_store, Vec3{kCentre.x - 800, kCentre.y, kCentre.z}, kDown, nullptr, false, true);
}
__attribute__((noinline)) void icount_case_coverage(void) { g_coverage = field_store_coverage(g_store, kCentre); }
__attribute__((noinline)) void icount_case_spread(void) { g_spread = field_store_spread(g_store); }
__attribute__((noinline)) void icount_case_sphere(void) { g_fit_results[0] = sphere_fit(g_store, &g_sphere); }
__attribute__((noinline)) void icount_case_ellipsoid(void) {
    g_fit_results[1] = ellipsoid_fit(g_store, g_sphere, kEllipsoidRidgeBits, &g_ellipsoid);
}
__attribute__((noinline)) void icount_case_circle(void) { g_fit_results[2] = circle_fit(g_ring, kDown, &g_circle); }
__attribute__((noinline)) void icount_case_agreement(void) {
    field_store_agreement(g_store, g_ellipsoid.offset, g_ellipsoid.w_q14, &g_agreement);
}
// What the kit adds to a cycle that fits nothing: the field through the correction, the
// sample offered to the full store with the gravity verdict (refused by the kept sample
// that refused the sample before, as a turning phone's mostly are), and the estimator
// and correction copied into the event.
__attribute__((noinline)) void icount_case_kit_cycle(void) {
    const StoredSample &p = g_store.sample[kStoreCapacity - 1];
    const Vec3 m = corrected(g_state.soft_iron, Vec3{p.m[0] + 3, p.m[1], p.m[2] - 2});
    g_event.mag_counts[0] = m.x, g_event.mag_counts[1] = m.y, g_event.mag_counts[2] = m.z;
    note_noise(Vec3{p.m[0] + 3, p.m[1], p.m[2] - 2}, true);
    store_cycle(Vec3{p.m[0] + 3, p.m[1], p.m[2] - 2}, kDown, true, 1, &g_event);
    report_estimators(&g_event);
}
// The kit's fitting steps, each a whole cycle's work: the sphere fit of the corrected
// store, its soft-iron share's two steps (the ellipsoid's cost the same), its judgement;
// the ellipsoid fit and its judgement.
__attribute__((noinline)) void icount_case_kit_sphere(void) {
    store_cycle(Vec3{kCentre.x, kCentre.y, kCentre.z + 115}, kDown, true, 1, &g_event);
    g_estimator_seen[0] = g_state.est.sphere_pending;
}
__attribute__((noinline)) void icount_case_kit_shown(void) {
    store_cycle(Vec3{kCentre.x, kCentre.y, kCentre.z + 115}, kDown, true, 1, &g_event);
    g_shown_seen = g_state.est.probe_due ? -1 : g_state.est.shown_permille;
}
__attribute__((noinline)) void icount_case_kit_share_columns(void) {
    store_cycle(Vec3{kCentre.x, kCentre.y, kCentre.z + 115}, kDown, true, 1, &g_event);
    g_share_seen[0] = g_state.est.share_steps == 1 && g_state.est.share_valid;
}
__attribute__((noinline)) void icount_case_kit_share(void) {
    store_cycle(Vec3{kCentre.x, kCentre.y, kCentre.z + 115}, kDown, true, 1, &g_event);
    g_share_seen[1] = g_state.est.share_steps == 2 && g_state.est.share_valid;
}
__attribute__((noinline)) void icount_case_kit_sphere_judge(void) {
    store_cycle(Vec3{kCentre.x, kCentre.y, kCentre.z + 115}, kDown, true, 1, &g_event);
    g_estimator_seen[3] = g_state.estimator;
}
__attribute__((noinline)) void icount_case_kit_ellipsoid(void) {
    store_cycle(Vec3{kCentre.x, kCentre.y, kCentre.z + 115}, kDown, true, 1, &g_event);
    g_estimator_seen[1] = g_state.est.ellipsoid_pending;
}
// A library fit judged against a trusted offset: the recent samples' covariance (with
// its soft-iron share) and agreement, in the cycle of the library's fitting call.
__attribute__((noinline)) void icount_case_kit_library_fit(void) {
    g_library_preferred = library_fit_preferred(KmxAxesData{kCentre.x + 1, kCentre.y, kCentre.z}, kDown);
}
__attribute__((noinline)) void icount_case_kit_judge(void) {
    store_cycle(Vec3{kCentre.x, kCentre.y, kCentre.z + 115}, kDown, true, 1, &g_event);
    g_estimator_seen[2] = g_state.estimator;
}
// The vehicle rules every cycle adds: the steady tilt's running mean and verdict, the
// anomaly rules on a sample that agrees with the reference, and the accuracy settled.
__attribute__((noinline)) void icount_case_kit_rules(void) {
    const Vec3 g{40, -20, 4090}, v{90, 0, 60};
    track_tilt(g);
    judge_anomaly(g, length(v), dip_cos(v, g), KmxAxesData{kCentre.x, kCentre.y, kCentre.z}, 1, &g_event);
    g_event.accuracy = settled_accuracy(KMXC_SERVICE_HIGH, 1);
}
// The planar estimator's three steps on a full store of a mount's circle: the circle
// fit, its judgement (arc, the reference circle's and the sphere's refinements,
// strengths), then the estimate's adoption (against the offset in use).
__attribute__((noinline)) void icount_case_kit_planar_fit(void) {
    store_cycle(Vec3{kCentre.x, kCentre.y, kCentre.z + 60}, kDown, true, 1, &g_event);
    g_estimator_seen[4] = g_state.planar.pending;
}
__attribute__((noinline)) void icount_case_kit_planar_judge(void) {
    store_cycle(Vec3{kCentre.x, kCentre.y, kCentre.z + 60}, kDown, true, 1, &g_event);
    g_estimator_seen[4] = static_cast<uint8_t>(g_estimator_seen[4] * g_state.planar.judged);
}
__attribute__((noinline)) void icount_case_kit_planar_adopt(void) {
    store_cycle(Vec3{kCentre.x, kCentre.y, kCentre.z + 60}, kDown, true, 1, &g_event);
    g_estimator_seen[4] = static_cast<uint8_t>(g_estimator_seen[4] + 2 * g_state.estimator);
}
// What a mounted phone adds to every cycle: gravity into the mount's mean (a full
// window), and the attitude's checks (a sample of the circle on its plane, the gravity
// near the mean, and within the road's slopes of it: at most all three).
__attribute__((noinline)) void icount_case_kit_mount(void) {
    const Vec3 g{40, -20, 4090};
    mount_gravity_track(&g_state.mount_gravity, g, g, true, 10);
    const Vec3 m = stored_field(g_ring, 0);
    g_estimator_seen[5] = static_cast<uint8_t>(on_mount_circle(g_state.planar.circle, m) +
                                               2 * mount_gravity_near(g_state.mount_gravity, g) +
                                               4 * mount_tilt_within(g_state.mount_gravity, g));
}
// The vehicle watch of every cycle, at its dearest: the field still, gravity a braking's
// 17 degrees away across the plane of field and gravity (their angle unchanged: the turn
// about the field it implies judged) and held for half the hold (no entry yet); the
// smoothing's weight taken from the rate and the noise meter as the cycle takes it.
__attribute__((noinline)) void icount_case_kit_motion(void) {
    const Vec3 m{120, -40, -180}, g{617, 1035, -3915};
    g_estimator_seen[6] = static_cast<uint8_t>(
        vehicle_entered(&g_state.vehicle, m, g, true, 500000000, vehicle_smoothing_shift(10, noise_variance_q8())) +
        2 * g_state.vehicle.accelerating);
}
}

namespace {
void measure(void (*fn)(void)) {
    icount_mark();
    fn();
    icount_mark();
}
bool near(double got, double want) { return got > want - 3 && got < want + 3; }

// The vehicle watch anchored face up with the field of the motion case, accelerating.
VehicleWatch braking_watch() {
    const Vec3 still{120, -40, -180};
    const Vec3 q4{still.x * 16, still.y * 16, still.z * 16};
    return VehicleWatch{true, q4,    q4, Vec3{0, 0, -4096}, angle_between_cdeg(still, Vec3{0, 0, -4096}), true,
                        0,    false, 0};
}

// What the checks below read of the measuring: results the cases leave beside the globals.
struct Seen {
    int8_t fit, cycle;     // the library's fitting call and plain cycle
    bool full, kit_cycle;  // the stores filled; the kit's cycle fitted nothing
    bool rules_quiet;      // the vehicle rules raised no anomaly
};

// The kit's cases on a mounted phone: the rules of every cycle, the planar estimator,
// the mount's gravity and the vehicle watch.
void measure_mount(Seen *seen) {
    // A mount: the offset in use 20 counts off after a vehicle's field, the reference of
    // the hand's calibration (108 counts at 56.3 degrees from gravity), the store the circle.
    set_kit(0, false, false);
    g_state.soft_iron.in_use = false;
    g_state.rate_hz = 10;
    g_state.reference = g_state.ref_dip_valid = true;
    g_state.ref_strength = 108;
    g_state.reference_known = true;
    g_state.reference_strength_counts = 108;
    g_state.reference_dip_cdeg = 9000 - 5631;
    trust_planar(KMXC_SERVICE_MEDIUM);  // the anomaly bounds from the reference
    g_state.estimator = KMXC_SERVICE_ESTIMATOR_LIBRARY;
    measure(icount_case_kit_rules);
    seen->rules_quiet = g_event.anomaly == 0;
    g_state.est.store = g_ring;
    g_state.planar.joins = KMXC_SERVICE_STORE_REFIT_JOINS;
    g_state.planar.seen_count = g_ring.count;
    g_state.planar.seen_last = g_ring.last;
    for (int k = 0; k < 3; ++k) g_state.planar.seen_m[k] = g_ring.sample[g_ring.last].m[k];
    const KmxAxesData off{kCentre.x + 20, kCentre.y - 10, kCentre.z};
    KmxAxesLibSetMsOffset(&off);
    measure(icount_case_kit_planar_fit);
    measure(icount_case_kit_planar_judge);
    measure(icount_case_kit_planar_adopt);
    for (int i = 0; i < 400; ++i)
        mount_gravity_track(&g_state.mount_gravity, Vec3{40, -20, 4090}, Vec3{40, -20, 4090}, true, 10);
    measure(icount_case_kit_mount);
    g_state.vehicle = braking_watch();
    measure(icount_case_kit_motion);
}

// Every case, in the order of its marks (count.sh relies on it).
Seen measure_all() {
    Seen seen{};
    KmxAxesLibInit();
    KmxAxesMsCalibInit();
    measure(icount_case_empty);

    // The sixteenth sample of a batch whose first fifteen are in the buffer: one fit.
    for (const KmxAxesData &s : kBatch) KmxAxesMsCalibUpdate(&s);
    KmxAxesMsCalibSetOffset(&KmxAxesData_Constructor);
    g_MsCalibEstimator.count = g_MsCalibEstimator.writeIndex = 15;
    g_MsCalibPlanarValid = 0;
    measure(icount_case_fit);
    seen.fit = g_code;

    // A cycle: correction, a calibration sample that only fills the batch, heading.
    load_typical_chip_coefficients();
    g_MsCalibEstimator.count = g_MsCalibEstimator.writeIndex = 3;
    measure(icount_case_cycle);
    seen.cycle = g_code;

    measure(icount_case_double);
    measure(icount_case_kasa_double);
    measure(icount_case_kasa_float);

    fill_stores();
    seen.full = g_store.count == kStoreCapacity && g_ring.count == kStoreCapacity;
    measure(icount_case_offer_still);
    g_store.refused_by = 0;  // the sample before refused elsewhere: every slot tried
    measure(icount_case_offer_refused);
    measure(icount_case_coverage);
    measure(icount_case_spread);
    measure(icount_case_sphere);
    measure(icount_case_ellipsoid);
    measure(icount_case_circle);
    measure(icount_case_agreement);
    measure(icount_case_offer_joins);

    fill_stores();
    sphere_fit(g_store, &g_sphere);
    ellipsoid_fit(g_store, g_sphere, kEllipsoidRidgeBits, &g_ellipsoid);
    set_kit(0, false, false);
    // The noise meter's dearest cycle: a difference that closes a window.
    g_state.est.noise.run = 3;
    g_state.est.noise.in_window = kNoiseWindow - 1;
    g_state.est.noise.windows = kNoiseWindows;
    g_state.est.store.refused_by = kStoreCapacity - 1;
    measure(icount_case_kit_cycle);
    seen.kit_cycle = g_state.est.store.count == kStoreCapacity && g_state.est.joined == 0;
    set_kit(KMXC_SERVICE_STORE_REFIT_JOINS, false, false);
    measure(icount_case_kit_sphere);
    // The store's soft iron shown by its own ellipsoid fit, before the sphere's share.
    measure(icount_case_kit_shown);
    measure(icount_case_kit_share_columns);
    measure(icount_case_kit_share);
    measure(icount_case_kit_sphere_judge);
    set_kit(0, true, false);
    measure(icount_case_kit_ellipsoid);
    set_kit(0, false, true);
    g_state.soft_iron.in_use = false;     // the judged ellipsoid is new
    for (int step = 0; step < 2; ++step)  // its share, as the sphere's
        store_cycle(Vec3{kCentre.x, kCentre.y, kCentre.z + 115}, kDown, true, 1, &g_event);
    g_share_seen[2] = g_state.est.share_steps == 2 && g_state.est.share_valid;
    measure(icount_case_kit_judge);
    set_kit(0, false, false);
    measure(icount_case_kit_library_fit);

    measure_mount(&seen);
    return seen;
}

}  // namespace

// The cases measured, then what they computed checked: each must have done the work
// it stands for, or its count means nothing.
int main() {
    const Seen seen = measure_all();
    std::printf("fit rc %d, cycle rc %d heading %u, azimuth %.0f, Kasa centre %.1f,%.1f,%.1f (float %.1f,%.1f,%.1f)\n",
                seen.fit, seen.cycle, unsigned(g_heading), g_angles[0], g_centre_d[0], g_centre_d[1], g_centre_d[2],
                double(g_centre_f[0]), double(g_centre_f[1]), double(g_centre_f[2]));
    std::printf(
        "store: offers %d %d %d, coverage %d, spread %d; sphere %d at %d,%d,%d; ellipsoid %d axes %d %d %d; "
        "circle %d radius %d; agreement within %d permille\n",
        int(g_offers[0]), int(g_offers[1]), int(g_offers[2]), g_coverage, g_spread.ratio_min, int(g_fit_results[0]),
        g_sphere.offset.x, g_sphere.offset.y, g_sphere.offset.z, int(g_fit_results[1]), g_ellipsoid.axes_q14[0],
        g_ellipsoid.axes_q14[1], g_ellipsoid.axes_q14[2], int(g_fit_results[2]), g_circle.radius_q4,
        g_agreement.strength.worst_permille);
    // 63: a new offset on all three axes; 7: no new offset, the status of a 3-D calibration.
    const bool ok = seen.fit == KMXC_CALIB_THREE_D && seen.cycle == 7 && near(g_centre_d[0], 100) &&
                    near(g_centre_d[1], -50) && near(g_centre_d[2], 200) && near(g_centre_f[0], 100) &&
                    near(g_centre_f[2], 200);
    // The estimators: refusals near kept samples, a replacing join, three fits that
    // found the centre, and a corrected store that agrees within 1 percent.
    const bool estimators = seen.full && g_offers[0] == Offer::kNotWider && g_offers[1] == Offer::kNotWider &&
                            g_offers[2] == Offer::kJoinedReplacing && g_fit_results[0] == FitResult::kOk &&
                            g_fit_results[1] == FitResult::kOk && g_fit_results[2] == FitResult::kOk &&
                            near(g_ellipsoid.offset.x, 100) && near(g_ellipsoid.offset.y, -50) &&
                            near(g_ellipsoid.offset.z, 200) && g_agreement.strength.worst_permille < 10;
    // The kit's steps: nothing fitted in the plain cycle; the sphere step refitted, the
    // store's soft iron shown, the sphere's share worked out in two steps, then judged and
    // published (the offset in use was 3 counts off); the ellipsoid fitted, its share
    // worked out, then adopted; a library fit a count from the offset in use preferred.
    std::printf(
        "kit: cycle %d, sphere pending %d, shown %d, share %d%d, judged estimator %d, ellipsoid pending %d, share %d, "
        "judged estimator %d, library fit preferred %d\n",
        int(seen.kit_cycle), g_estimator_seen[0], int(g_shown_seen), int(g_share_seen[0]), int(g_share_seen[1]),
        g_estimator_seen[3], g_estimator_seen[1], int(g_share_seen[2]), g_estimator_seen[2], int(g_library_preferred));
    const bool kit = seen.kit_cycle && g_estimator_seen[0] == 1 && g_shown_seen > 0 && g_share_seen[0] &&
                     g_share_seen[1] && g_share_seen[2] && g_library_preferred &&
                     g_estimator_seen[3] == KMXC_SERVICE_ESTIMATOR_STORE_SPHERE && g_estimator_seen[1] == 1 &&
                     g_estimator_seen[2] == KMXC_SERVICE_ESTIMATOR_ELLIPSOID;
    // The vehicle: the rules quiet on an agreeing sample; the circle fitted, then judged
    // and published as the planar estimate (pending 1 plus twice the estimator 5).
    std::printf("vehicle: rules quiet %d, planar steps %d, offset %d,%d,%d\n", int(seen.rules_quiet),
                g_estimator_seen[4], g_event.offset[0], g_event.offset[1], g_event.offset[2]);
    // The mount: the circle's own sample on its plane, the gravity at the mean and so
    // within the slopes' tilt of it (1 + 2 + 4). The watch: accelerating, not yet entered (2).
    const bool vehicle = seen.rules_quiet && g_estimator_seen[4] == 1 + 2 * KMXC_SERVICE_ESTIMATOR_PLANAR &&
                         g_estimator_seen[5] == 7 && g_estimator_seen[6] == 2;
    return ok && estimators && kit && vehicle ? 0 : 1;
}
