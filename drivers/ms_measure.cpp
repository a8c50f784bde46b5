// One magnetometer measurement: preparation, start, 13 ms wait, the eight-byte data
// block, decoding and correction; termination and the general-purpose output.
#include "drivers/drivers.h"
#include "drivers/drivers_internal.h"
#include "platform/platform.h"

namespace {

constexpr uint8_t kCmdPrepare = 0xC0;
constexpr uint8_t kCmdMeasure = 0x02;
constexpr uint8_t kCmdGpoHigh = 0xF5;
constexpr uint8_t kCmdGpoLow = 0xF4;
constexpr uint32_t kConversionMs = 13;
constexpr uint8_t kBusy = 0x80;

// 11-bit value from a byte holding bits 10..8 in its low three bits and the next byte.
uint16_t decode11(const uint8_t *hi_lo) {
    return static_cast<uint16_t>(((hi_lo[0] & 0x07u) << 8) | hi_lo[1]);
}

// In range: 2..1023, tested as channel - 2 wrapped to 16 bits.
bool out_of_range(uint16_t channel) { return static_cast<uint16_t>(channel - 2u) > 1021u; }

}  // namespace

int8_t KmxcDrvWriteCommand(uint8_t command) { return msmachdep_I2CWrite(1, &command); }

int8_t KmxcDrvMeasurePreparation(void) {
    if (msmachdep_I2CSetSlaveAddress(KMXC_MS_SLAVE_ADDRESS) < 0) return -5;
    if (KmxcDrvWriteCommand(kCmdPrepare) < 0) return -5;
    return 0;
}

int8_t KmxcDrvSetGPO(int level) {
    if (msmachdep_I2CSetSlaveAddress(KMXC_MS_SLAVE_ADDRESS) < 0) return -5;
    if (KmxcDrvWriteCommand(level != 0 ? kCmdGpoHigh : kCmdGpoLow) < 0) return -5;
    return 0;
}

int8_t KmxcDrvMsReadData(KmxAxesData *out, KmxcDrvRawData *raw) {
    if (KmxcDrvHandle()->roughOffsetWritten == 0) return -126;
    if (KmxcDrvWriteCommand(kCmdMeasure) < 0) return -5;
    msmachdep_Sleep(kConversionMs);
    uint8_t block[8];
    if (msmachdep_I2CRead(sizeof block, block) < 0) return -5;
    if ((block[0] & kBusy) != 0) return -4;

    // The block lists the channels last to first, then the temperature.
    const uint16_t channel[3] = {decode11(block + 4), decode11(block + 2), decode11(block + 0)};
    g_Temprature = decode11(block + 6);
    int8_t flags = 0;
    for (int i = 0; i < 3; ++i) {
        if (out_of_range(channel[i])) flags = static_cast<int8_t>(flags | (1 << i));
    }
    KmxAxesDrvMsensCorrection(channel, g_Temprature, out);
    if (raw != nullptr) {
        for (int i = 0; i < 3; ++i) raw->ms[i] = channel[i];
        raw->temperature = g_Temprature;
    }
    return flags;
}

int8_t KmxcDrvMsMeasure(KmxAxesData *out, KmxcDrvRawData *raw) {
    if ((KmxcDrvHandle()->initFlags & KMXC_DRV_INIT_MS) == 0) return -3;
    if (KmxcDrvMeasurePreparation() != 0) return -5;
    return KmxcDrvMsReadData(out, raw);
}

int8_t KmxAxesDrvMsMeasure(KmxAxesData *out, KmxcDrvRawData *raw) { return KmxcDrvMsMeasure(out, raw); }

int8_t KmxAxesDrvMsTerm(void) {
    KmxcDrvState &st = *KmxcDrvHandle();
    if ((st.initFlags & KMXC_DRV_INIT_MS) == 0) return -3;
    st.initFlags = static_cast<uint8_t>(st.initFlags & ~KMXC_DRV_INIT_MS);
    if (st.initFlags == 0 && msmachdep_I2CClose() < 0) return -5;
    return 0;
}
