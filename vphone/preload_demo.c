/* A plain program against the shipped library, with no knowledge of the virtual
 * phone: run with LD_PRELOAD=libkmxc_vphone.so it creates the calibration file in
 * the sandbox and talks to an empty bus. */
#include <stdio.h>

#include "platform/platform.h"

int main(void) {
    uint8_t rough[3] = {0, 0, 0};
    int loaded = msmachdep_LoadRoughOffset(rough);
    int opened = msmachdep_I2COpen();
    int guard = msmachdep_GetMagnetGuard();
    msmachdep_Sleep(13);
    int closed = msmachdep_I2CClose();
    printf("load %d rough %u,%u,%u open %d guard %d close %d\n", loaded, rough[0], rough[1], rough[2], opened,
           guard, closed);
    return loaded == 0 && opened == 0 && closed == 0 ? 0 : 1;
}
