// The phone's compass character device as its kernel driver serves it: the path and
// the plain request numbers (no direction or size bits). The one home of these facts:
// the platform layer and the virtual phone include this header. Not installed.
#ifndef KMXC_PLATFORM_COMPASS_DEVICE_H
#define KMXC_PLATFORM_COMPASS_DEVICE_H

namespace compass_device {

constexpr char kPath[] = "/dev/compass";

constexpr unsigned long kSelectSlave = 0x0706;  // argument: the 7-bit slave address
constexpr unsigned long kGetSensorControlInfo = 0x0707;
constexpr unsigned long kSetChargerState = 0x0708;
constexpr unsigned long kGetMagnetGuard = 0x0709;
constexpr unsigned long kSetMagnetGuard = 0x0710;

}  // namespace compass_device

#endif  // KMXC_PLATFORM_COMPASS_DEVICE_H
