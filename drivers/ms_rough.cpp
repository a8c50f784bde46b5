// Rough offset (the chip's coarse 5-bit offset per channel) and the coil sequence.
#include "drivers/drivers.h"
#include "drivers/drivers_internal.h"
#include "platform/platform.h"

using namespace kmxc;

namespace {

bool initialised() { return (KmxcDrvHandle()->initFlags & KMXC_DRV_INIT_MS) != 0; }

}  // namespace

int8_t KmxAxesDrvMsMeasureRoughOffset(uint8_t *out) {
    if (msmachdep_I2CSetSlaveAddress(kBusAddress) < 0) return KMXC_DRV_BUS_FAILURE;
    if (KmxcDrvWriteCommand(kCmdPrepare) < 0) return KMXC_DRV_BUS_FAILURE;
    if (KmxcDrvWriteCommand(kCmdRoughMeasure) < 0) return KMXC_DRV_BUS_FAILURE;
    msmachdep_Sleep(kRoughConversionMs);
    uint8_t block[kRoughBlockBytes];
    if (msmachdep_I2CRead(sizeof block, block) < 0) return KMXC_DRV_BUS_FAILURE;
    if ((block[0] & kBusy) != 0) return KMXC_DRV_BUSY;

    int8_t flags = KMXC_DRV_OK;
    for (int i = 0; i < 3; ++i) {
        const uint8_t reading = block[kRoughChannelAt[i]];
        // Usable: kRoughReadingMin..kRoughReadingMax, tested as reading - min wrapped to 8 bits.
        if (static_cast<uint8_t>(reading - kRoughReadingMin) > kRoughReadingMax - kRoughReadingMin) {
            flags = static_cast<int8_t>(flags | (KMXC_DRV_RANGE_CHANNEL0 << i));
        }
        out[i] = reading <= kRoughReadingBias ? 0 : static_cast<uint8_t>(reading - kRoughReadingBias);
    }
    return flags;
}

int8_t KmxAxesDrvMsSetRoughOffset(const uint8_t *values) {
    if (!initialised()) return KMXC_DRV_NOT_READY;
    if (msmachdep_I2CSetSlaveAddress(kBusAddress) < 0) return KMXC_DRV_BUS_FAILURE;
    KmxcDrvState &st = *KmxcDrvHandle();
    if (values == nullptr) {
        uint8_t measured[3];
        const int8_t result = KmxAxesDrvMsMeasureRoughOffset(measured);
        if (result != KMXC_DRV_OK) return result;
        for (int i = 0; i < 3; ++i) st.roughOffset[i] = measured[i];
    } else {
        if (values[0] > kRoughMax || values[1] > kRoughMax || values[2] > kRoughMax) return KMXC_DRV_INVALID;
        for (int i = 0; i < 3; ++i) st.roughOffset[i] = values[i];
    }
    for (int i = 0; i < 3; ++i) {
        const auto command = static_cast<uint8_t>(kCmdRoughChannel[i] | st.roughOffset[i]);
        if (KmxcDrvWriteCommand(command) < 0) return KMXC_DRV_BUS_FAILURE;
    }
    st.roughOffsetWritten = 1;
    return KMXC_DRV_OK;
}

int8_t KmxAxesDrvMsGetWrittenRoughOffset(uint8_t *out) {
    if (!initialised()) return KMXC_DRV_NOT_READY;
    const KmxcDrvState &st = *KmxcDrvHandle();
    if (st.roughOffsetWritten == 0) return KMXC_DRV_NO_ROUGH_OFFSET;
    for (int i = 0; i < 3; ++i) out[i] = st.roughOffset[i];
    return KMXC_DRV_OK;
}

int8_t KmxAxesDrvMsInitCoil(void) {
    if (!initialised()) return KMXC_DRV_NOT_READY;
    if (msmachdep_I2CSetSlaveAddress(kBusAddress) < 0) return KMXC_DRV_BUS_FAILURE;
    for (uint8_t command : kCoilSequence) {
        if (KmxcDrvWriteCommand(command) < 0) return KMXC_DRV_BUS_FAILURE;
    }
    return KMXC_DRV_OK;
}
