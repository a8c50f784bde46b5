/* The public headers compile as C and describe the records the calling service
 * shares with the library, field for field. Built with -std=c11 -pedantic and run
 * against the shipped shared library: a C caller's view of the records must agree
 * with the library's. */
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "calibration/calibration.h"
#include "drivers/drivers.h"
#include "numerics/numerics.h"
#include "orientation/orientation.h"
#include "platform/platform.h"
#include "smb380/smb380.h"

_Static_assert(sizeof(KmxAxesData) == 12 && offsetof(KmxAxesData, z) == 8, "x, y, z int32");
_Static_assert(offsetof(KmxAxesLib, gsOffset) == 12, "msOffset then gsOffset");
_Static_assert(offsetof(KmxAxesAttitude, msNorm) == 18 && offsetof(KmxAxesAttitude, msGsCos) == 22 &&
                   offsetof(KmxAxesAttitude, ms) == 24 && offsetof(KmxAxesAttitude, gs) == 36,
               "matrix, msNorm, gsNorm, msGsCos, ms, gs");
_Static_assert(sizeof(MSFLOAT) == 4 && offsetof(MSFLOAT, exponent) == 1 && offsetof(MSFLOAT, mantissa) == 2,
               "sign, exponent, mantissa in four bytes");
_Static_assert(offsetof(MsEigenPair, vector) == 4 && sizeof(MsEigenPair) == 16, "value, then Q14 vector");
_Static_assert(sizeof(KmxAxesMsCalib02Result) == 16 * 4, "sixteen int32 slots");
_Static_assert(offsetof(KmxAxesMsCalib02Result, weights) == 8 && offsetof(KmxAxesMsCalib02Result, residual) == 60,
               "slot 2 weights, slot 15 residual");
_Static_assert(offsetof(KmxAxesMsCalibThreshold, residualThreshold) == 4, "two int16 then int32");
_Static_assert(offsetof(KmxAxesMsCalibDetail, residual) == 4, "two int16 then int32");
_Static_assert(offsetof(KmxcDrvState, roughOffset) == 9 && offsetof(KmxcDrvState, roughOffsetWritten) == 12 &&
                   offsetof(KmxcDrvState, correction) == 14 && offsetof(KmxcDrvState, tempCoef) == 32 &&
                   offsetof(KmxcDrvState, initFlags) == 35,
               "calib, roughOffset, roughOffsetWritten, correction, tempCoef, initFlags");
_Static_assert(offsetof(KmxcDrvRawData, gs) == 6 && offsetof(KmxcDrvRawData, temperature) == 12, "ms, gs, temperature");
_Static_assert(offsetof(smb380_dev, slave_address) == 4 && offsetof(smb380_dev, write_fn) == 8,
               "bytes, then callbacks");
_Static_assert(sizeof(smb380_accel) == 6, "three int16");

static int failures = 0;
static void expect(int ok, const char *what) {
    if (!ok) {
        printf("headers_c: %s\n", what);
        failures++;
    }
}

int main(void) {
    KmxAxesData offset = {5, -6, 7};
    KmxAxesData back = KmxAxesData_Constructor;
    KmxAxesLibSetMsOffset(&offset);
    KmxAxesLibGetMsOffset(&back);
    expect(back.x == 5 && back.y == -6 && back.z == 7 && g_AxesLib.msOffset.z == 7, "offset round trip");
    KmxAxesLibInit();

    KmxAxesData ms = {0, 200, -300}, gs = {0, 0, -4096};
    KmxAxesAttitude attitude;
    expect(KmxAxesLibGetAttitude(&ms, &gs, &attitude) == 0 && attitude.msNorm == 360 && attitude.msGsCos == 3413,
           "attitude record read back from C");

    MSFLOAT three, nine;
    int32_t nine_int = 0;
    MSFLOAT_I2F(&three, 3);
    nine = three;
    MSFLOAT_OpMultiEq(&nine, &three);
    MSFLOAT_F2I(&nine_int, &nine);
    expect(nine.exponent == 116 && nine.mantissa == 36864 && nine_int == 9, "MSFLOAT fields from C");

    KmxAxesMsCalibDetail detail = {1, 1, 0};
    KmxAxesMsCalibInit();
    expect(KmxAxesMsCalibUpdateDetail(&ms, &detail) == 0 && detail.ratioMin == 0 && detail.residual == 2147483647,
           "calibration detail record filled from C");

    expect(smb380_pause(10) == 129 || p_smb380 != NULL, "accelerometer driver without a record");
    return failures == 0 ? 0 : 1;
}
