// The files around a run of the compass service demo: the command line's output files
// checked before anything is touched, and the calibration file read for the record
// and the summary.
#ifndef KMXC_TOOLS_RUN_FILES_H
#define KMXC_TOOLS_RUN_FILES_H

#include <array>
#include <string>

#include "tools/options.h"

namespace compass {

// Prints "compass_service: message" to standard error; returns code.
int fail(const std::string &message, int code);

// 0 when every file the options name may be written and none is the replay file or
// lies in the sandbox (which --fresh and replays empty); else the message is printed
// and the exit status returned.
int check_output_paths(const Options &opt);

// The calibration file's nine fields as the run starts (the defaults when there is
// none yet), for the record's header; false when the file does not hold nine.
bool stored_calibration_line(std::array<long long, 9> *out);

// What the calibration file holds at the end, for the summary.
std::string persisted_text(const std::string &sandbox);

}  // namespace compass

#endif
