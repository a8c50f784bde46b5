/* The smallest sensor service: start both sensors, set a rough offset, run a few
 * measurement cycles through the calibration and the heading, save the rough offset,
 * stop. Built against an installed tree (pkg-config or find_package) to prove that
 * tree is complete; prints one line the install test reads. */
#include <stdio.h>

#include "calibration/calibration.h"
#include "common/common.h"
#include "drivers/drivers.h"
#include "orientation/orientation.h"
#include "platform/platform.h"

int main(void) {
    KmxAxesLibInit();
    KmxAxesMsCalibInit();
    int rc = KmxAxesDrvMsInit();
    if (rc == KMXC_DRV_OK) rc = KmxAxesDrvGsInit();
    if (rc == KMXC_DRV_OK) rc = KmxAxesDrvMsSetRoughOffset(NULL); /* measure one */
    uint8_t rough[3] = {KMXC_ROUGH_UNKNOWN, KMXC_ROUGH_UNKNOWN, KMXC_ROUGH_UNKNOWN};
    if (rc == KMXC_DRV_OK) rc = KmxAxesDrvMsGetWrittenRoughOffset(rough);
    if (rc == KMXC_DRV_OK && msmachdep_SaveRoughOffset(rough) != KMXC_PLAT_OK) rc = KMXC_PLAT_FAILED;

    int cycles = 0;
    uint16_t heading = 0;
    for (int i = 0; rc == KMXC_DRV_OK && i < 5; ++i) {
        KmxAxesData ms = KmxAxesData_Constructor, gs = KmxAxesData_Constructor;
        KmxcDrvRawData raw;
        /* Negative is a failure; 1..7 only warns of a channel out of range. */
        if (KmxAxesDrvMsMeasure(&ms, &raw) < 0 || KmxAxesDrvGsMeasure(&gs, &raw) < 0) continue;
        if (kmxc_calib_new_offset(KmxAxesMsCalibUpdate(&ms))) {
            KmxAxesData offset;
            KmxAxesMsCalibGetOffset(&offset);
            KmxAxesLibSetMsOffset(&offset);
        }
        KmxAxesAttitude attitude;
        KmxAxesLibGetAttitude(&ms, &gs, &attitude);
        KmxAxesLibCalcDirection(&attitude, &heading, 3547 /* sin 60 degrees, Q12 */);
        ++cycles;
    }
    KmxAxesDrvMsTerm();
    KmxAxesDrvGsTerm();

    uint8_t stored[3] = {0, 0, 0};
    int loaded = msmachdep_LoadRoughOffset(stored);
    printf("start %d cycles %d heading %u stored %d rough %u,%u,%u\n", rc, cycles, heading, loaded, stored[0],
           stored[1], stored[2]);
    return rc == KMXC_DRV_OK && cycles == 5 && loaded == KMXC_PLAT_OK ? 0 : 1;
}
