// One magnetometer measurement: preparation, start, 13 ms wait, the eight-byte data
// block, decoding and correction; termination and the general-purpose output.
#include "drivers/drivers.h"
#include "drivers/drivers_internal.h"
#include "platform/platform.h"

using namespace kmxc;

namespace {

// 11-bit value from a byte holding bits 10..8 in its low three bits and the next byte.
uint16_t decode11(const uint8_t *hi_lo) { return static_cast<uint16_t>(((hi_lo[0] & kHighBitsMask) << 8) | hi_lo[1]); }

// In range: kChannelInRangeMin..kChannelInRangeMax, tested as channel - min wrapped
// to 16 bits.
bool out_of_range(uint16_t channel) {
    return static_cast<uint16_t>(channel - kChannelInRangeMin) > kChannelInRangeMax - kChannelInRangeMin;
}

}  // namespace

int8_t KmxcDrvWriteCommand(uint8_t command) { return msmachdep_I2CWrite(1, &command); }

int8_t KmxcDrvMeasurePreparation(void) {
    if (msmachdep_I2CSetSlaveAddress(kBusAddress) < 0) return KMXC_DRV_BUS_FAILURE;
    if (KmxcDrvWriteCommand(kCmdPrepare) < 0) return KMXC_DRV_BUS_FAILURE;
    return KMXC_DRV_OK;
}

int8_t KmxcDrvSetGPO(int level) {
    if (msmachdep_I2CSetSlaveAddress(kBusAddress) < 0) return KMXC_DRV_BUS_FAILURE;
    if (KmxcDrvWriteCommand(level != 0 ? kCmdGpoHigh : kCmdGpoLow) < 0) return KMXC_DRV_BUS_FAILURE;
    return KMXC_DRV_OK;
}

int8_t KmxcDrvMsReadData(KmxAxesData *out, KmxcDrvRawData *raw) {
    if (KmxcDrvHandle()->roughOffsetWritten == 0) return KMXC_DRV_NO_ROUGH_OFFSET;
    if (KmxcDrvWriteCommand(kCmdMeasure) < 0) return KMXC_DRV_BUS_FAILURE;
    msmachdep_Sleep(kConversionMs);
    uint8_t block[kMeasureBlockBytes];
    if (msmachdep_I2CRead(sizeof block, block) < 0) return KMXC_DRV_BUS_FAILURE;
    if ((block[0] & kBusy) != 0) return KMXC_DRV_BUSY;

    uint16_t channel[3];
    for (int i = 0; i < 3; ++i) channel[i] = decode11(block + kMeasureChannelAt[i]);
    g_Temprature = decode11(block + kMeasureTemperatureAt);
    int8_t flags = KMXC_DRV_OK;
    for (int i = 0; i < 3; ++i) {
        if (out_of_range(channel[i])) flags = static_cast<int8_t>(flags | (KMXC_DRV_RANGE_CHANNEL0 << i));
    }
    KmxAxesDrvMsensCorrection(channel, g_Temprature, out);
    if (raw != nullptr) {
        for (int i = 0; i < 3; ++i) raw->ms[i] = channel[i];
        raw->temperature = g_Temprature;
    }
    return flags;
}

int8_t KmxcDrvMsMeasure(KmxAxesData *out, KmxcDrvRawData *raw) {
    if ((KmxcDrvHandle()->initFlags & KMXC_DRV_INIT_MS) == 0) return KMXC_DRV_NOT_READY;
    if (KmxcDrvMeasurePreparation() != KMXC_DRV_OK) return KMXC_DRV_BUS_FAILURE;
    return KmxcDrvMsReadData(out, raw);
}

int8_t KmxAxesDrvMsMeasure(KmxAxesData *out, KmxcDrvRawData *raw) { return KmxcDrvMsMeasure(out, raw); }

int8_t KmxAxesDrvMsTerm(void) {
    KmxcDrvState &st = *KmxcDrvHandle();
    if ((st.initFlags & KMXC_DRV_INIT_MS) == 0) return KMXC_DRV_NOT_READY;
    st.initFlags = static_cast<uint8_t>(st.initFlags & ~KMXC_DRV_INIT_MS);
    if (st.initFlags == 0 && msmachdep_I2CClose() < 0) return KMXC_DRV_BUS_FAILURE;
    return KMXC_DRV_OK;
}
