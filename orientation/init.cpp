// Library start state: zero offsets and a fresh azimuth filter. The heading
// smoother's history is deliberately kept across re-initialisation.
#include "orientation/orientation.h"

int8_t KmxAxesLibInit(void) {
    KmxAxesLibSetMsOffset(&KmxAxesData_Constructor);
    KmxAxesLibSetGsOffset(&KmxAxesData_Constructor);
    KmxAxesLibAzimuthFilterInit();
    return KMXC_ORI_OK;
}
