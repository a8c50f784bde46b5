// Chip models for programs run with LD_PRELOAD, which cannot attach any themselves:
// VPHONE_CHIPS="kmxc,smb380" (either or both) attaches the default models at their
// bus addresses when /dev/compass is first opened.
#include <cstdlib>
#include <cstring>

#include "vphone/kmxc_model.h"
#include "vphone/smb380_model.h"
#include "vphone/vphone.h"

namespace vphone {

void attach_chips_from_environment() {
    const char *list = std::getenv("VPHONE_CHIPS");
    if (list == nullptr) return;
    // Never destroyed: the program may still be talking to them during exit.
    if (std::strstr(list, "kmxc") != nullptr) attach(KmxcModel::kAddress, new KmxcModel);
    if (std::strstr(list, "smb380") != nullptr) attach(Smb380Model::kAddress, new Smb380Model);
}

}  // namespace vphone
