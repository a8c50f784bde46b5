// Command line of the compass service demo: the tool's own options, and the world's
// options read by the scene's parser (vphone/scene/scene_options.h).
#ifndef KMXC_TOOLS_OPTIONS_H
#define KMXC_TOOLS_OPTIONS_H

#include <string>
#include <vector>

#include "vphone/scene/scenario.h"

namespace compass {

struct Options {
    vphone::scene::ScenarioSettings scenario;
    std::string sandbox;            // the virtual phone's file system (default by mode)
    bool fresh = false;             // empty the sandbox first
    std::string record_path;        // write the raw chip data here
    std::string replay_path;        // read raw chip data from here instead of a scenario
    std::string field_log_path;     // read a field log from here instead of a scenario
    std::string field_record_path;  // write what the chips sensed here, as a field log
    std::string outputs_path;       // per-sample library outputs, CSV
    std::string plot_path;          // PNG of heading and offset error over time
    std::string summary_json_path;  // the summary as JSON
    std::string fault_plan;         // faults for the virtual phone (vphone/fault_plan.h)
    double rate_hz = 10.0;          // measurement cycles per second
    bool rate_given = false;        // --rate named (a field log then runs at it, not at its own)
    bool quiet = false;             // no per-second lines
    bool help = false;
    bool version = false;  // print the version and stop
};

// The file a replay reads (raw record or field log), or "".
inline const std::string &replay_input(const Options &o) {
    return o.replay_path.empty() ? o.field_log_path : o.replay_path;
}

struct ParsedOptions {
    bool ok = false;
    std::string error;  // one line naming the problem when !ok
    Options options;
};

// args excludes the program name.
ParsedOptions parse_options(const std::vector<std::string> &args);
std::string usage_text();

}  // namespace compass

#endif
