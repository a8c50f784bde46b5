// The library's file readers on arbitrary file contents, inside a virtual phone's
// sandbox: the calibration file (rough, magnetic and gravity offsets), the charger
// offsets and the transformation profile with its profile number. The input is split
// at its first two NUL bytes into the three files.
#include <stdint.h>

#include <cstdlib>

#include <string>
#include <string_view>

#include "drivers/drivers.h"
#include "platform/platform.h"
#include "vphone/vphone.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const bool sandbox = [] {  // one for the whole run, removed at its end
        vphone::make_sandbox();
        std::atexit([] { vphone::remove_sandbox(); });
        return true;
    }();
    (void)sandbox;
    vphone::reset();
    std::string_view all(reinterpret_cast<const char *>(data), size);
    std::string_view part[3];
    for (int k = 0; k < 2; ++k) {
        const size_t cut = all.find('\0');
        part[k] = all.substr(0, cut);
        all = cut == std::string_view::npos ? std::string_view() : all.substr(cut + 1);
    }
    part[2] = all;
    vphone::write_file("/misc/sensor/kmxc_orvane.cfg", part[0]);
    vphone::write_file("/etc/kmxc_charger_offset.cfg", part[1]);
    vphone::write_file("/etc/kmxc_transformation.cfg", part[2]);
    vphone::write_file("/sys/module/zorsensor/parameters/profile",
                       size > 0 ? std::string(1, char('0' + data[0] % 4)) : "");

    uint8_t rough[3];
    int32_t offset[3];
    msmachdep_LoadRoughOffset(rough);
    msmachdep_LoadMsOffset(offset);
    msmachdep_LoadGsOffset(offset);
    double first[6], second[6];
    int32_t third[3], fourth[3];
    msmachdep_LoadChargerOffset(first, second, third, fourth);
    KmxAxesDrvGsInit();  // reads the accelerometer's mounting matrix of the profile
    KmxAxesDrvGsTerm();
    return 0;
}
