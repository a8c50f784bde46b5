// The cases bench/icount/count.sh counts instructions of, each in a function of its
// own between two calls of icount_mark(): the calibration's fitting call, one cycle
// that does not fit, the double-precision attitude functions, and for comparison a
// plain algebraic (Kasa) sphere fit in double and in float on the same 16 samples,
// compiled with the same flags. An emulator's time means nothing, so the script
// counts instructions: callgrind on x86-64, a one-instruction-per-block qemu trace on
// armel. Each case checks its result, so a count is never of a call that did nothing.
#include <cstdint>
#include <cstdio>

#include "calibration/calibration_internal.h"
#include "drivers/drivers.h"
#include "drivers/typical_chip.h"
#include "orientation/orientation.h"

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

// x^2 + y^2 + z^2 = 2ax + 2by + 2cz + d in least squares, as a user would write it:
// the sums of the 4x4 normal equations in one pass, then Gaussian elimination. The
// centre is (a, b, c).
template <typename T>
void kasa_fit(const KmxAxesData *p, int n, T centre[3]) {
    T sx = 0, sy = 0, sz = 0, sxx = 0, syy = 0, szz = 0, sxy = 0, sxz = 0, syz = 0;
    T sw = 0, sxw = 0, syw = 0, szw = 0;
    for (int i = 0; i < n; ++i) {
        const T x = T(p[i].x), y = T(p[i].y), z = T(p[i].z), w = x * x + y * y + z * z;
        sx += x, sy += y, sz += z;
        sxx += x * x, syy += y * y, szz += z * z, sxy += x * y, sxz += x * z, syz += y * z;
        sw += w, sxw += x * w, syw += y * w, szw += z * w;
    }
    // Unknowns (2a, 2b, 2c, d); rows are the normal equations of x, y, z and 1.
    T m[4][5] = {{sxx, sxy, sxz, sx, sxw}, {sxy, syy, syz, sy, syw}, {sxz, syz, szz, sz, szw}, {sx, sy, sz, T(n), sw}};
    for (int k = 0; k < 4; ++k)
        for (int r = k + 1; r < 4; ++r) {
            const T f = m[r][k] / m[k][k];
            for (int c = k; c < 5; ++c) m[r][c] -= f * m[k][c];
        }
    T u[4];
    for (int r = 3; r >= 0; --r) {
        T s = m[r][4];
        for (int c = r + 1; c < 4; ++c) s -= m[r][c] * u[c];
        u[r] = s / m[r][r];
    }
    for (int i = 0; i < 3; ++i) centre[i] = u[i] / T(2);
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
}

namespace {
void measure(void (*fn)(void)) {
    icount_mark();
    fn();
    icount_mark();
}
bool near(double got, double want) { return got > want - 3 && got < want + 3; }
}  // namespace

// The order of the cases is the order of the marks; count.sh relies on it.
int main() {
    KmxAxesLibInit();
    KmxAxesMsCalibInit();
    measure(icount_case_empty);

    // The sixteenth sample of a batch whose first fifteen are in the buffer: one fit.
    for (const KmxAxesData &s : kBatch) KmxAxesMsCalibUpdate(&s);
    KmxAxesMsCalibSetOffset(&KmxAxesData_Constructor);
    g_MsCalibEstimator.count = g_MsCalibEstimator.writeIndex = 15;
    g_MsCalibPlanarValid = 0;
    measure(icount_case_fit);
    const int8_t fit = g_code;

    // A cycle: correction, a calibration sample that only fills the batch, heading.
    load_typical_chip_coefficients();
    g_MsCalibEstimator.count = g_MsCalibEstimator.writeIndex = 3;
    measure(icount_case_cycle);
    const int8_t cycle = g_code;

    measure(icount_case_double);
    measure(icount_case_kasa_double);
    measure(icount_case_kasa_float);

    std::printf("fit rc %d, cycle rc %d heading %u, azimuth %.0f, Kasa centre %.1f,%.1f,%.1f (float %.1f,%.1f,%.1f)\n",
                fit, cycle, unsigned(g_heading), g_angles[0], g_centre_d[0], g_centre_d[1], g_centre_d[2],
                double(g_centre_f[0]), double(g_centre_f[1]), double(g_centre_f[2]));
    // 63: a new offset on all three axes; 7: no new offset, the status of a 3-D calibration.
    const bool ok = fit == KMXC_CALIB_THREE_D && cycle == 7 && near(g_centre_d[0], 100) && near(g_centre_d[1], -50) &&
                    near(g_centre_d[2], 200) && near(g_centre_f[0], 100) && near(g_centre_f[2], 200);
    return ok ? 0 : 1;
}
