/* The public headers compile as C and describe the records the calling service
 * shares with the library, field for field. Built with -std=c11 -pedantic and run
 * against the shipped shared library. */
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "orientation/orientation.h"

_Static_assert(sizeof(KmxAxesData) == 12, "KmxAxesData is three int32");
_Static_assert(offsetof(KmxAxesData, z) == 8, "x, y, z in order");
_Static_assert(offsetof(KmxAxesLib, gsOffset) == 12, "msOffset then gsOffset");

int main(void) {
    KmxAxesData offset = {5, -6, 7};
    KmxAxesData back = KmxAxesData_Constructor;
    KmxAxesLibSetMsOffset(&offset);
    KmxAxesLibGetMsOffset(&back);
    if (back.x != 5 || back.y != -6 || back.z != 7 || g_AxesLib.msOffset.z != 7) {
        puts("headers_c: record round trip through the library failed");
        return 1;
    }
    return 0;
}
