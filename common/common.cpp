// The one definition the shared record needs: its all-zero value.
#include "common/common.h"

constinit const KmxAxesData KmxAxesData_Constructor = {0, 0, 0};
