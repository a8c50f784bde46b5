/* The public headers compile as C and describe the records the calling service
 * shares with the library, field for field, and the result names their tables give.
 * Built with -std=c11 -pedantic and run against the shipped shared library: a C
 * caller's view of the records must agree with the library's. (Each header also
 * compiles alone, in a unit of its own: see CMakeLists.txt.) */
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "calibration/calibration.h"
#include "common/common.h"
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

/* Every name with the value its header's table gives it. */
_Static_assert(KMXC_MS_COUNTS_PER_10_UT == 25 && KMXC_GS_COUNTS_PER_G == 4096, "units");
_Static_assert(KMXC_ROUGH_UNKNOWN == 255 && KMXC_OFFSET_UNKNOWN == INT32_MAX, "not-known markers");
_Static_assert(sizeof KMXC_CALIBRATION_FILE == sizeof "/misc/sensor/kmxc_orvane.cfg" &&
                   sizeof KMXC_CALIBRATION_BACKUP_FILE == sizeof "/misc/sensor/kmxc_orvane-backup.cfg",
               "calibration file paths");
_Static_assert(sizeof KMXC_CALIBRATION_DIRECTORY == sizeof "/misc/sensor" && KMXC_CALIBRATION_FILE_UID == 1008 &&
                   KMXC_CALIBRATION_FILE_GID == 1000 && KMXC_CALIBRATION_FILE_MODE == 0666,
               "calibration file folder and attributes");
_Static_assert(KMXC_CALIB_DEFAULT_RATIO_MIN == 64 && KMXC_CALIB_DEFAULT_RATIO_MID == 96 &&
                   KMXC_CALIB_DEFAULT_RESIDUAL == 0x200000,
               "calibration thresholds' defaults");
_Static_assert(KMXC_PLAT_OK == 0 && KMXC_PLAT_FAILED == -1 && KMXC_PLAT_REQUEST_FAILED == -2 &&
                   KMXC_PLAT_CHARGER_NO_LINE == -1 && KMXC_PLAT_CHARGER_NULL_FIRST == -2 &&
                   KMXC_PLAT_CHARGER_NULL_SECOND == -3 && KMXC_PLAT_CHARGER_NULL_THIRD == -4 &&
                   KMXC_PLAT_CHARGER_NULL_FOURTH == -5,
               "platform results");
_Static_assert(MSFLOAT_NEGSQRT == -1 && MSFLOAT_DIVZERO == -2 && MSFLOAT_UNDERFLOW == -126 && MSFLOAT_OVERFLOW == -127,
               "MSFLOAT statuses");
_Static_assert(MSFLOAT_SIGN_NEGATIVE == 0 && MSFLOAT_SIGN_ZERO == 1 && MSFLOAT_SIGN_POSITIVE == 2, "MSFLOAT_Sign");
_Static_assert(SMB380_ERR_NULL_DEV == 129 && SMB380_SLAVE_ADDRESS == 0x38, "SMB380 names");
_Static_assert(KMXC_DRV_OK == 0 && KMXC_DRV_INVALID == -1 && KMXC_DRV_NOT_READY == -3 && KMXC_DRV_BUSY == -4 &&
                   KMXC_DRV_BUS_FAILURE == -5 && KMXC_DRV_NO_ROUGH_OFFSET == -126,
               "driver results");
_Static_assert(KMXC_DRV_RANGE_CHANNEL0 == 1 && KMXC_DRV_RANGE_CHANNEL1 == 2 && KMXC_DRV_RANGE_CHANNEL2 == 4 &&
                   KMXC_DRV_RANGE_ANY == 7,
               "driver out-of-range warnings");
_Static_assert(KMXC_CALIB_SOLVE_FAILED == -1 && KMXC_CALIB_STATUS_MASK == 7 && KMXC_CALIB_THREE_D == 63 &&
                   KMXC_CALIB_PLANE_X == 48 && KMXC_CALIB_PLANE_Y == 40 && KMXC_CALIB_PLANE_Z == 24 &&
                   KMXC_CALIB_STATUS_CALIBRATED == 7 && KMXC_CALIB_STATUS_REFUSED == -1 &&
                   KMXC_CALIB_NO_RESIDUAL == INT32_MAX,
               "calibration results");
_Static_assert(KMXC_CALIB_EST_FIT_ACCEPTED == 0 && KMXC_CALIB_EST_BUFFERED == 1 && KMXC_CALIB_EST_REFUSED_SPREAD == 2 &&
                   KMXC_CALIB_EST_EIGEN_TOO_LARGE == 3 && KMXC_CALIB_EST_RESIDUAL_TOO_LARGE == 4 &&
                   KMXC_CALIB_EST_EIGEN_TOO_SMALL == 5 && KMXC_CALIB_EST_SKIPPED == 6 &&
                   KMXC_CALIB_EST_STATISTICS_FAILED == -1 && KMXC_CALIB_EST_SOLVE_FAILED == -2 &&
                   KMXC_CALIB_SPREAD_ACCEPTED == 0 && KMXC_CALIB_SPREAD_LINE == 2,
               "estimator and classifier results");
_Static_assert(KMXC_ORI_OK == 0 && KMXC_ORI_NO_ATTITUDE == 1 && KMXC_ORI_NO_HEADING == 1 && KMXC_ORI_INVALID == -1,
               "orientation results");

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
    expect(KmxAxesMsCalibUpdateDetail(&ms, &detail) == 0 && detail.ratioMin == 0 &&
               detail.residual == KMXC_CALIB_NO_RESIDUAL,
           "calibration detail record filled from C");
    /* The helper in C: 3-D and planar results bring an offset; a status, a failure
     * and a status with stray high bits do not. */
    expect(kmxc_calib_new_offset(KMXC_CALIB_THREE_D) && kmxc_calib_new_offset(KMXC_CALIB_PLANE_Y | 7) &&
               kmxc_calib_new_offset(KMXC_CALIB_PLANE_Z) && !kmxc_calib_new_offset(KMXC_CALIB_STATUS_CALIBRATED) &&
               !kmxc_calib_new_offset(0) && !kmxc_calib_new_offset(KMXC_CALIB_SOLVE_FAILED) &&
               !kmxc_calib_new_offset(0x40 | 7),
           "kmxc_calib_new_offset");
    expect(KmxAxesMsCalibSetStatus(8) == KMXC_CALIB_STATUS_REFUSED, "status above 7 refused by name");
    expect(KmxAxesLibGetRotationMatrix(NULL, NULL, NULL) == KMXC_ORI_INVALID, "orientation result by name");
    expect(msmachdep_I2CClose() == KMXC_PLAT_FAILED, "closing a closed device fails by name");
    expect(KmxAxesDrvMsTerm() == KMXC_DRV_NOT_READY, "driver result by name");

    expect(smb380_pause(10) == 129 || p_smb380 != NULL, "accelerometer driver without a record");
    return failures == 0 ? 0 : 1;
}
