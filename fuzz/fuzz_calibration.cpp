// The calibration fed any stream of magnetic samples (three 16-bit values each, sign
// extended; the first byte picks a threshold set), with the offset read back whenever
// the result code says there is one.
#include <stdint.h>

#include "calibration/calibration.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    KmxAxesMsCalibInit();
    if (size > 0 && (data[0] & 1)) {
        const KmxAxesMsCalibThreshold t{static_cast<int16_t>(data[0] >> 1), static_cast<int16_t>(data[0]),
                                        static_cast<int32_t>(data[0]) << 14};
        KmxAxesMsCalibSetThreshold(&t);
    }
    auto s16 = [&](size_t at) {
        return static_cast<int32_t>(static_cast<int16_t>(static_cast<uint16_t>(data[at] | (data[at + 1] << 8))));
    };
    for (size_t i = 1; i + 6 <= size; i += 6) {
        const KmxAxesData sample{s16(i), s16(i + 2), s16(i + 4)};
        const int8_t rc = KmxAxesMsCalibUpdate(&sample);
        if (rc == 63 || (rc > 7 && rc < 63)) {
            KmxAxesData offset;
            KmxAxesMsCalibGetOffset(&offset);
        }
    }
    return 0;
}
