// Magnetometer start-up: mounting matrix from the profile, device open, the chip's
// start-up commands and calibration bytes, and the correction matrix.
#include "drivers/drivers.h"
#include "drivers/drivers_internal.h"
#include "platform/platform.h"
#include "platform/transformation_file.h"

using namespace kmxc;

namespace {

// Steps of the start-up that touch the bus; false at the first failure.
bool start_chip(KmxcDrvState &st) {
    if (msmachdep_I2CSetSlaveAddress(kBusAddress) < 0) return false;
    if (KmxcDrvWriteCommand(kCmdStartUp) < 0) return false;
    msmachdep_Sleep(kStartUpSettleMs);
    if (KmxcDrvWriteCommand(kCmdReadCalibration) < 0) return false;
    // The first reading after the command is discarded; the second is kept.
    if (msmachdep_I2CRead(sizeof st.calib, st.calib) < 0) return false;
    if (msmachdep_I2CRead(sizeof st.calib, st.calib) < 0) return false;
    return true;
}

}  // namespace

int8_t KmxAxesDrvMsInit(void) {
    int8_t transformation[9];
    if (msmachdep_LoadTransformation(KMXC_PROFILE_MS_FIRST_FIELD, transformation) != KMXC_PLAT_OK)
        return KMXC_DRV_NOT_READY;
    if (KmxAxesDrvCheckMatrix(transformation) != KMXC_DRV_OK) return KMXC_DRV_INVALID;

    KmxcDrvState &st = *KmxcDrvHandle();
    st.roughOffsetWritten = 0;
    if (st.initFlags == 0 && msmachdep_I2COpen() < 0) return KMXC_DRV_BUS_FAILURE;
    if (!start_chip(st)) {
        // Closed even when the accelerometer is using the device: a magnetometer
        // that fails its start-up leaves the bus in an unknown state.
        msmachdep_I2CClose();
        return KMXC_DRV_BUS_FAILURE;
    }

    int16_t sensitivity[9];
    KmxcDrvMakeSensitivityMatrix(st.calib, sensitivity);
    KmxcDrvMakeCorrectionMatrix(transformation, sensitivity, st.correction);
    for (int i = 0; i < 3; ++i) {
        st.tempCoef[i] = static_cast<int8_t>(static_cast<int>(st.calib[kTempCoefFirstByte + i]) - kTempCoefBias);
    }
    st.initFlags = static_cast<uint8_t>(st.initFlags | KMXC_DRV_INIT_MS);
    return KMXC_DRV_OK;
}
