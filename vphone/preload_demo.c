/* A plain program against the shipped library, with no knowledge of the virtual
 * phone: run with LD_PRELOAD=libkmxc_vphone.so it creates the calibration file in
 * the sandbox and talks to the bus (with the chip models VPHONE_CHIPS names). */
#include <stdio.h>

#include "platform/platform.h"
#include "smb380/smb380.h"

int main(void) {
    uint8_t rough[3] = {0, 0, 0};
    int loaded = msmachdep_LoadRoughOffset(rough);
    int opened = msmachdep_I2COpen();
    int guard = msmachdep_GetMagnetGuard();
    msmachdep_Sleep(13);
    /* One register read from the accelerometer: register 0, one byte. */
    uint8_t reg = 0, value = 0;
    int bus = msmachdep_I2CSetSlaveAddress(SMB380_SLAVE_ADDRESS);
    if (bus == 0) bus = msmachdep_I2CWrite(1, &reg);
    if (bus == 0) bus = msmachdep_I2CRead(1, &value);
    int closed = msmachdep_I2CClose();
    printf("load %d rough %u,%u,%u open %d guard %d bus %d close %d\n", loaded, rough[0], rough[1], rough[2], opened,
           guard, bus, closed);
    return loaded == 0 && opened == 0 && closed == 0 ? 0 : 1;
}
