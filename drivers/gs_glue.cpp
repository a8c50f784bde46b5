// Accelerometer glue: the SMB380 driver's bus callbacks on the compass device, the
// chip's fixed settings, and the gravity vector in the phone's axes in 1/4096 g.
#include "drivers/drivers.h"
#include "drivers/drivers_internal.h"
#include "platform/platform.h"
#include "platform/transformation_file.h"
#include "smb380/smb380.h"
#include "smb380/smb380_protocol.h"

constinit smb380_dev g_Smb380Dev = {0, 0, 0, 0, 0, nullptr, nullptr, nullptr};
constinit int8_t g_GsMatrix[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};

namespace {

constexpr uint8_t kRangeCode = 0;  // +-2 g
constexpr uint8_t kBandwidthCode = 0;
constexpr int32_t kCountsToGravityUnit = KMXC_GS_COUNTS_PER_G / smb380_regs::counts_per_g(kRangeCode);
constexpr uint8_t kMaxRegistersPerWrite = 128;  // count taken modulo 128

uint8_t &init_flags() { return KmxcDrvHandle()->initFlags; }

}  // namespace

int8_t KmxcDrvGsBusWrite(uint8_t reg, const uint8_t *data, uint8_t count) {
    // The chip takes (register, value) pairs; one write carries them all.
    uint8_t pairs[256];
    const auto n = static_cast<uint8_t>(count % kMaxRegistersPerWrite);
    for (uint8_t i = 0; i < n; ++i) {
        pairs[2 * i] = static_cast<uint8_t>(reg + i);
        pairs[2 * i + 1] = data[i];
    }
    msmachdep_I2CSetSlaveAddress(SMB380_SLAVE_ADDRESS);
    msmachdep_I2CWrite(static_cast<uint8_t>(2 * n), pairs);
    return 0;  // bus failures are reported by the platform layer, not here
}

int8_t KmxcDrvGsBusRead(uint8_t reg, uint8_t *data, uint8_t count) {
    const auto address = static_cast<uint8_t>(reg & ~smb380_regs::kReadFlag);  // the driver's read flag
    msmachdep_I2CSetSlaveAddress(SMB380_SLAVE_ADDRESS);
    msmachdep_I2CWrite(1, &address);
    msmachdep_I2CRead(count, data);
    return 0;
}

int8_t KmxcDrvGsDelay(uint32_t ms) { return msmachdep_Sleep(ms & 0xFFFFu); }

uint32_t KmxcDrvGsInit(const int8_t *matrix) {
    g_Smb380Dev.write_fn = KmxcDrvGsBusWrite;
    g_Smb380Dev.read_fn = KmxcDrvGsBusRead;
    g_Smb380Dev.sleep_fn = KmxcDrvGsDelay;
    smb380_init(&g_Smb380Dev);
    smb380_set_range(kRangeCode);
    smb380_set_bandwidth(kBandwidthCode);
    for (int i = 0; i < 9; ++i) g_GsMatrix[i] = matrix[i];
    return 0;
}

int8_t KmxAxesDrvGsInit(void) {
    int8_t matrix[9];
    if (msmachdep_LoadTransformation(KMXC_PROFILE_GS_FIRST_FIELD, matrix) != KMXC_PLAT_OK) return KMXC_DRV_NOT_READY;
    if (KmxAxesDrvCheckMatrix(matrix) != KMXC_DRV_OK) return KMXC_DRV_INVALID;
    if (init_flags() == 0 && msmachdep_I2COpen() < 0) return KMXC_DRV_BUS_FAILURE;
    KmxcDrvGsInit(matrix);
    init_flags() = static_cast<uint8_t>(init_flags() | KMXC_DRV_INIT_GS);
    return KMXC_DRV_OK;
}

int8_t KmxcDrvGsMeasure(KmxAxesData *out, KmxcDrvRawData *raw) {
    if (init_flags() == 0) return KMXC_DRV_NOT_READY;
    // Zero start: a read that delivers nothing yields a zero vector, never stale stack.
    smb380_accel sample = {0, 0, 0};
    smb380_read_accel_xyz(&sample);
    if (raw != nullptr) {
        raw->gs[0] = sample.x;
        raw->gs[1] = sample.y;
        raw->gs[2] = sample.z;
    }
    // |counts| <= 512 and |entries| <= 128, so the sums stay far inside 32 bits.
    const int32_t v[3] = {sample.x, sample.y, sample.z};
    int32_t *o[3] = {&out->x, &out->y, &out->z};
    for (int i = 0; i < 3; ++i) {
        const int8_t *row = &g_GsMatrix[3 * i];
        *o[i] = kCountsToGravityUnit * (row[0] * v[0] + row[1] * v[1] + row[2] * v[2]);
    }
    return KMXC_DRV_OK;
}

int8_t KmxAxesDrvGsMeasure(KmxAxesData *out, KmxcDrvRawData *raw) {
    if ((init_flags() & KMXC_DRV_INIT_GS) == 0) return KMXC_DRV_NOT_READY;
    return KmxcDrvGsMeasure(out, raw);
}

uint32_t KmxcDrvGsTerm(void) { return 0; }

int8_t KmxAxesDrvGsTerm(void) {
    if ((init_flags() & KMXC_DRV_INIT_GS) == 0) return KMXC_DRV_NOT_READY;
    init_flags() = static_cast<uint8_t>(init_flags() & ~KMXC_DRV_INIT_GS);
    KmxcDrvGsTerm();
    // The last driver to stop closes the device.
    if (init_flags() == 0 && msmachdep_I2CClose() < 0) return KMXC_DRV_BUS_FAILURE;
    return KMXC_DRV_OK;
}
