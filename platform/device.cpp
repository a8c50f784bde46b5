// The compass device: open/close, slave selection, transfer loops, sleeping, the
// kernel driver's control requests and the diagnostic log entry.
#include <android/log.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/platform_internal.h"

namespace {

constexpr char kCompassPath[] = "/dev/compass";

// Plain request numbers of the compass driver (no direction or size bits).
constexpr unsigned long kSelectSlave = 0x0706;
constexpr unsigned long kGetSensorControlInfo = 0x0707;
constexpr unsigned long kSetChargerState = 0x0708;
constexpr unsigned long kGetMagnetGuard = 0x0709;
constexpr unsigned long kSetMagnetGuard = 0x0710;

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
            return -1;
        }
        if (moved == 0) {
            if (++zero_results >= MSMACHDEP_ZERO_TRANSFER_LIMIT) {
                errno = EIO;
                std::perror(name);
                return -1;
            }
            continue;
        }
        zero_results = 0;
        position += moved;
        remaining = static_cast<uint8_t>((static_cast<uint32_t>(remaining) - static_cast<uint32_t>(moved)) & 0xFFu);
    }
    return 0;
}

}  // namespace

extern "C" {

constinit int32_t g_CompassFd = -1;

int8_t msmachdep_I2COpen(void) {
    g_CompassFd = open(kCompassPath, O_RDWR);
    if (g_CompassFd == -1) {
        std::perror("open");
        return -1;
    }
    return 0;
}

int8_t msmachdep_I2CClose(void) {
    if (g_CompassFd == -1) return -1;
    close(g_CompassFd);
    g_CompassFd = -1;
    return 0;
}

int8_t msmachdep_I2CSetSlaveAddress(int address) {
    if (g_CompassFd == -1) return -1;
    if (ioctl(g_CompassFd, kSelectSlave, address) < 0) {
        std::perror("ioctl");
        return -1;
    }
    return 0;
}

int8_t msmachdep_I2CRead(uint8_t length, uint8_t *buffer) {
    return transfer(length, buffer, "read",
                    [](int fd, uint8_t *at, uint8_t n) { return read(fd, at, n); });
}

int8_t msmachdep_I2CWrite(uint8_t length, const uint8_t *buffer) {
    return transfer(length, buffer, "write",
                    [](int fd, const uint8_t *at, uint8_t n) { return write(fd, at, n); });
}

int8_t msmachdep_Sleep(uint32_t milliseconds) {
    // Unsigned arithmetic: a count beyond 4294967 ms wraps rather than overflows.
    usleep(static_cast<useconds_t>(milliseconds * 1000u));
    return 0;
}

int msmachdep_SetMagnetGuard(void) {
    if (g_CompassFd == -1) return -1;
    if (ioctl(g_CompassFd, kSetMagnetGuard, 0) < 0) {
        std::perror("msmachdep_SetMagnetGuard");
        return -2;
    }
    return 0;
}

int msmachdep_GetMagnetGuard(void) {
    if (g_CompassFd == -1) return -1;
    const int result = ioctl(g_CompassFd, kGetMagnetGuard, 0);
    if (result < 0) {
        std::perror("msmachdep_GetMagnetGuard");
        return -2;
    }
    return result;
}

int msmachdep_GetSensorControlInfo(void) {
    if (g_CompassFd == -1) return 0;
    const int result = ioctl(g_CompassFd, kGetSensorControlInfo, 0);
    if (result < 0) {
        std::perror("msmachdep_GetSensorControlInfo");
        return 0;
    }
    return result;
}

int msmachdep_SetChargerState(int state) {
    if (g_CompassFd == -1) return -1;
    if (ioctl(g_CompassFd, kSetChargerState, state) < 0) {
        std::perror("msmachdep_SetChargerState");
        return -1;
    }
    return 0;
}

int MsLogSave(int value, long detail) {
    return __android_log_print(ANDROID_LOG_WARN, "MsLogSave", "MsLogSave() [%d, %ld]\r\n", value, detail);
}

}  // extern "C"
