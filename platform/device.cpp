// The compass device: open/close, slave selection, transfer loops, sleeping, the
// kernel driver's control requests and the diagnostic log entry.
#include <android/log.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/compass_device.h"
#include "platform/platform_internal.h"

using namespace compass_device;

namespace {

// Moves exactly length bytes with read or write, stopping at the first error. The
// remaining count stays 8-bit like the length. A result of 0 bytes makes no
// progress: after MSMACHDEP_ZERO_TRANSFER_LIMIT of them in a row the transfer
// fails as an I/O error instead of spinning.
template <class Buffer, class Call>
int8_t transfer(uint8_t length, Buffer *buffer, const char *name, Call call) {
    uint8_t remaining = length;
    Buffer *position = buffer;
    int zero_results = 0;
    while (remaining != 0) {
        const ssize_t moved = call(g_CompassFd, position, remaining);
        if (moved < 0) {
            std::perror(name);
            return KMXC_PLAT_FAILED;
        }
        if (moved == 0) {
            if (++zero_results >= MSMACHDEP_ZERO_TRANSFER_LIMIT) {
                errno = EIO;
                std::perror(name);
                return KMXC_PLAT_FAILED;
            }
            continue;
        }
        zero_results = 0;
        position += moved;
        remaining = static_cast<uint8_t>((static_cast<uint32_t>(remaining) - static_cast<uint32_t>(moved)) & 0xFFu);
    }
    return KMXC_PLAT_OK;
}

// One control request on the open device: `closed` when it is not open, `failed`
// after perror(word) when the request fails, else the request's result.
int control(unsigned long request, int argument, const char *word, int closed, int failed) {
    if (g_CompassFd == -1) return closed;
    const int result = ioctl(g_CompassFd, request, argument);
    if (result < 0) {
        std::perror(word);
        return failed;
    }
    return result;
}

}  // namespace

extern "C" {

constinit int32_t g_CompassFd = -1;

int8_t msmachdep_I2COpen(void) {
    g_CompassFd = open(kPath, O_RDWR);
    if (g_CompassFd == -1) {
        std::perror("open");
        return KMXC_PLAT_FAILED;
    }
    return KMXC_PLAT_OK;
}

int8_t msmachdep_I2CClose(void) {
    if (g_CompassFd == -1) return KMXC_PLAT_FAILED;
    close(g_CompassFd);
    g_CompassFd = -1;
    return KMXC_PLAT_OK;
}

int8_t msmachdep_I2CSetSlaveAddress(int address) {
    return control(kSelectSlave, address, "ioctl", KMXC_PLAT_FAILED, KMXC_PLAT_FAILED) < 0 ? KMXC_PLAT_FAILED
                                                                                           : KMXC_PLAT_OK;
}

int8_t msmachdep_I2CRead(uint8_t length, uint8_t *buffer) {
    return transfer(length, buffer, "read", [](int fd, uint8_t *at, uint8_t n) { return read(fd, at, n); });
}

int8_t msmachdep_I2CWrite(uint8_t length, const uint8_t *buffer) {
    return transfer(length, buffer, "write", [](int fd, const uint8_t *at, uint8_t n) { return write(fd, at, n); });
}

int8_t msmachdep_Sleep(uint32_t milliseconds) {
    // Unsigned arithmetic: a count beyond 4294967 ms wraps rather than overflows.
    usleep(static_cast<useconds_t>(milliseconds * 1000u));
    return KMXC_PLAT_OK;
}

int msmachdep_SetMagnetGuard(void) {
    const int result =
        control(kSetMagnetGuard, 0, "msmachdep_SetMagnetGuard", KMXC_PLAT_FAILED, KMXC_PLAT_REQUEST_FAILED);
    return result < 0 ? result : KMXC_PLAT_OK;
}

int msmachdep_GetMagnetGuard(void) {
    return control(kGetMagnetGuard, 0, "msmachdep_GetMagnetGuard", KMXC_PLAT_FAILED, KMXC_PLAT_REQUEST_FAILED);
}

int msmachdep_GetSensorControlInfo(void) {
    // No information is 0, whether the device is closed or the request fails.
    return control(kGetSensorControlInfo, 0, "msmachdep_GetSensorControlInfo", 0, 0);
}

int msmachdep_SetChargerState(int state) {
    const int result =
        control(kSetChargerState, state, "msmachdep_SetChargerState", KMXC_PLAT_FAILED, KMXC_PLAT_FAILED);
    return result < 0 ? KMXC_PLAT_FAILED : KMXC_PLAT_OK;
}

int MsLogSave(int value, long detail) {
    return __android_log_print(ANDROID_LOG_WARN, "MsLogSave", "MsLogSave() [%d, %ld]\r\n", value, detail);
}

}  // extern "C"
