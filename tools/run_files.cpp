#include "tools/run_files.h"

#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

#include "platform/platform.h"
#include "vphone/scene/rig.h"
#include "vphone/vphone.h"

namespace compass {
namespace {

namespace fs = std::filesystem;

// Whether path names something inside dir (symbolic links followed as far as they exist).
bool is_inside(const std::string &path, const std::string &dir) {
    std::error_code ec;
    const fs::path p = fs::weakly_canonical(fs::absolute(path, ec), ec);
    const fs::path d = fs::weakly_canonical(fs::absolute(dir, ec), ec);
    if (ec) return false;
    auto pi = p.begin(), di = d.begin();
    for (; di != d.end() && !di->empty(); ++pi, ++di)
        if (pi == p.end() || *pi != *di) return false;
    return pi != p.end();
}

}  // namespace

int fail(const std::string &message, int code) {
    std::cerr << "compass_service: " << message << '\n';
    return code;
}

int check_output_paths(const Options &opt) {
    const std::string &input = replay_input(opt);
    const std::vector<const std::string *> outputs{&opt.outputs_path, &opt.plot_path, &opt.summary_json_path,
                                                   &opt.record_path, &opt.field_record_path};
    // None of the outputs may be the file being replayed.
    for (const std::string *path : outputs) {
        std::error_code ec;
        if (!input.empty() && !path->empty() && fs::equivalent(*path, input, ec))
            return fail("'" + *path + "' is the replay file; name another file", 2);
    }
    // The sandbox is the phone's file system, emptied by --fresh and by every replay: a
    // file named on the command line may not live in it, or it would be lost (a record
    // written there would go to a file already deleted).
    std::vector<const std::string *> named = outputs;
    named.push_back(&input);
    for (const std::string *path : named)
        if (!path->empty() && is_inside(*path, opt.sandbox))
            return fail("'" + *path + "' is inside the sandbox '" + opt.sandbox +
                            "', which --fresh and replays empty; name a file outside it",
                        2);
    // Writable before the run starts, not found unwritable after it.
    for (const std::string *path : {&opt.outputs_path, &opt.plot_path, &opt.summary_json_path})
        if (!path->empty() && !std::ofstream(*path)) return fail("cannot write '" + *path + "'", 2);
    return 0;
}

bool stored_calibration_line(std::array<long long, 9> *out) {
    const auto text = vphone::read_file(vphone::scene::kCalibrationFile);
    std::array<long long, 9> v{255, 255, 255, 0, 0, 0, 2147483647, 2147483647, 2147483647};
    if (text) {
        std::istringstream in(*text);
        char comma = ',';
        for (size_t i = 0; i < v.size(); ++i)
            if (!(in >> v[i]) || (i + 1 < v.size() && !(in >> comma))) return false;
    }
    *out = v;
    return true;
}

std::string persisted_text(const std::string &sandbox) {
    uint8_t rough[3];
    int32_t ms[3], gs[3];
    std::ostringstream o;
    if (msmachdep_LoadRoughOffset(rough) != 0 || msmachdep_LoadMsOffset(ms) != 0 || msmachdep_LoadGsOffset(gs) != 0)
        return "nothing readable";
    o << sandbox << vphone::scene::kCalibrationFile << ": rough offset " << int(rough[0]) << ',' << int(rough[1]) << ','
      << int(rough[2]) << "; magnetic offset ";
    if (ms[0] == 2147483647)
        o << "not known";
    else
        o << ms[0] << ',' << ms[1] << ',' << ms[2] << " counts";
    o << "; gravity offset " << gs[0] << ',' << gs[1] << ',' << gs[2];
    return o.str();
}

}  // namespace compass
