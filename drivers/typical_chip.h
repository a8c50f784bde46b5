// A typical chip's correction matrix and temperature coefficients, loaded straight into
// the driver's state, for the benchmarks and instruction counts that time a correction
// without going through the chip's start-up.
#ifndef KMXC_DRIVERS_TYPICAL_CHIP_H
#define KMXC_DRIVERS_TYPICAL_CHIP_H

#include "drivers/drivers.h"

inline void load_typical_chip_coefficients() {
    KmxcDrvState &st = *KmxcDrvHandle();
    const int16_t correction[9] = {100, -32, -8, -32, 38, -32, -32, -32, 66};
    for (int i = 0; i < 9; ++i) st.correction[i] = correction[i];
    st.tempCoef[0] = 10;
    st.tempCoef[1] = -10;
    st.tempCoef[2] = 3;
}

#endif  // KMXC_DRIVERS_TYPICAL_CHIP_H
