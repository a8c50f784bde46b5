// Rough offset (the chip's coarse 5-bit offset per channel) and the coil sequence.
#include "drivers/drivers.h"
#include "drivers/drivers_internal.h"
#include "platform/platform.h"

namespace {

constexpr uint8_t kCmdPrepare = 0xC0;
constexpr uint8_t kCmdRoughMeasure = 0x01;
constexpr uint32_t kRoughConversionMs = 2;
constexpr uint8_t kBusy = 0x80;
constexpr uint8_t kRoughMax = 31;
constexpr uint8_t kChannelCommand[3] = {0x20, 0x40, 0x60};
// Pairs 0x90 + n, 0x80 + ((n + 1) mod 8) for n = 0..7.
constexpr uint8_t kCoilSequence[16] = {0x90, 0x81, 0x91, 0x82, 0x92, 0x83, 0x93, 0x84,
                                       0x94, 0x85, 0x95, 0x86, 0x96, 0x87, 0x97, 0x80};

bool initialised() { return (KmxcDrvHandle()->initFlags & KMXC_DRV_INIT_MS) != 0; }

}  // namespace

int8_t KmxAxesDrvMsMeasureRoughOffset(uint8_t *out) {
    if (msmachdep_I2CSetSlaveAddress(KMXC_MS_SLAVE_ADDRESS) < 0) return -5;
    if (KmxcDrvWriteCommand(kCmdPrepare) < 0) return -5;
    if (KmxcDrvWriteCommand(kCmdRoughMeasure) < 0) return -5;
    msmachdep_Sleep(kRoughConversionMs);
    uint8_t block[6];
    if (msmachdep_I2CRead(sizeof block, block) < 0) return -5;
    if ((block[0] & kBusy) != 0) return -4;

    out[0] = block[5];
    out[1] = block[3];
    out[2] = block[1];
    int8_t flags = 0;
    for (int i = 0; i < 3; ++i) {
        // A usable reading is 1..32.
        if (static_cast<uint8_t>(out[i] - 1u) > 31u) flags = static_cast<int8_t>(flags | (1 << i));
        // The reading sits five above the setting it asks for.
        out[i] = out[i] <= 5 ? 0 : static_cast<uint8_t>(out[i] - 5u);
    }
    return flags;
}

int8_t KmxAxesDrvMsSetRoughOffset(const uint8_t *values) {
    if (!initialised()) return -3;
    if (msmachdep_I2CSetSlaveAddress(KMXC_MS_SLAVE_ADDRESS) < 0) return -5;
    KmxcDrvState &st = *KmxcDrvHandle();
    if (values == nullptr) {
        uint8_t measured[3];
        const int8_t result = KmxAxesDrvMsMeasureRoughOffset(measured);
        if (result != 0) return result;
        for (int i = 0; i < 3; ++i) st.roughOffset[i] = measured[i];
    } else {
        if (values[0] > kRoughMax || values[1] > kRoughMax || values[2] > kRoughMax) return -1;
        for (int i = 0; i < 3; ++i) st.roughOffset[i] = values[i];
    }
    for (int i = 0; i < 3; ++i) {
        if (KmxcDrvWriteCommand(static_cast<uint8_t>(kChannelCommand[i] | st.roughOffset[i])) < 0) return -5;
    }
    st.roughOffsetWritten = 1;
    return 0;
}

int8_t KmxAxesDrvMsGetWrittenRoughOffset(uint8_t *out) {
    if (!initialised()) return -3;
    const KmxcDrvState &st = *KmxcDrvHandle();
    if (st.roughOffsetWritten == 0) return -126;
    for (int i = 0; i < 3; ++i) out[i] = st.roughOffset[i];
    return 0;
}

int8_t KmxAxesDrvMsInitCoil(void) {
    if (!initialised()) return -3;
    if (msmachdep_I2CSetSlaveAddress(KMXC_MS_SLAVE_ADDRESS) < 0) return -5;
    for (uint8_t command : kCoilSequence) {
        if (KmxcDrvWriteCommand(command) < 0) return -5;
    }
    return 0;
}
