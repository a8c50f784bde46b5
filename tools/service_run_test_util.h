// Running the compass service demo as a user runs it, for the end-to-end tests: the
// program against the shipped library on the virtual phone (through the emulator in a
// cross build), its outputs read back as the tests recompute what they assert.
#ifndef KMXC_TOOLS_SERVICE_RUN_TEST_UTIL_H
#define KMXC_TOOLS_SERVICE_RUN_TEST_UTIL_H

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "tools/report.h"
#include "vphone/scene/frames.h"

namespace service_run {

namespace fs = std::filesystem;

struct Result {
    int exit_code = -1;
    bool crashed = false;
    std::string out, err;
};

inline std::string dir_for(const std::string &name) {
    const fs::path d = fs::path(COMPASS_TEST_DIR) / name;
    fs::remove_all(d);
    fs::create_directories(d);
    return d.string();
}

inline std::string slurp(const std::string &path) {
    std::stringstream s;
    s << std::ifstream(path).rdbuf();
    return s.str();
}

// Runs program with args, its standard output and error kept in dir.
inline Result run_program(const std::string &program, const std::string &dir, const std::vector<std::string> &args) {
    // Through the emulator in a cross build, as CTest runs this test itself.
    // Every word single-quoted for the shell, a quote inside written as '\''.
    auto quote = [](const std::string &word) {
        std::string q = "'";
        for (char c : word) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return q + "'";
    };
    std::string cmd = std::string(KMXC_EMULATOR) + " " + quote(program);
    for (const auto &a : args) cmd += " " + quote(a);
    cmd += " >" + quote(dir + "/stdout") + " 2>" + quote(dir + "/stderr");
    const int status = std::system(cmd.c_str());
    Result r;
    r.crashed = WIFSIGNALED(status) || (WIFEXITED(status) && WEXITSTATUS(status) >= 126);
    r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = slurp(dir + "/stdout");
    r.err = slurp(dir + "/stderr");
    return r;
}

inline Result run(const std::string &dir, const std::vector<std::string> &args) {
    return run_program(COMPASS_SERVICE, dir, args);
}

// The --outputs CSV: one map of column to text per sample.
inline std::vector<std::map<std::string, std::string>> outputs(const std::string &path) {
    std::ifstream in(path);
    std::string line, field;
    std::vector<std::string> names;
    std::vector<std::map<std::string, std::string>> rows;
    for (bool header = true; std::getline(in, line); header = false) {
        std::istringstream fields(line + ",");
        std::map<std::string, std::string> row;
        for (size_t i = 0; std::getline(fields, field, ','); ++i)
            if (header)
                names.push_back(field);
            else if (i < names.size())
                row[names[i]] = field;
        if (!header) rows.push_back(row);
    }
    return rows;
}

inline double num(const std::map<std::string, std::string> &row, const std::string &col) {
    return std::stod(row.at(col));
}

// Library outputs (not the truth) must agree sample for sample.
inline const char *const kLibraryColumns[] = {"time_us",     "ms_rc",       "gs_rc",       "calib_rc", "calib_status",
                                              "attitude_rc", "heading_int", "rotation_rc", "azimuth",  "pitch",
                                              "roll",        "offset_x",    "offset_y",    "offset_z"};

// Whether the true attitude stayed within 8 degrees over the 2 s (20 samples)
// before sample i: the phone is held steady and the heading smoother has settled.
inline bool held_steady(const std::vector<std::map<std::string, std::string>> &rows, size_t i) {
    if (i < 20) return false;
    for (size_t j = i - 20; j < i; ++j)
        for (const char *col : {"true_heading_int", "true_pitch", "true_roll"})
            if (std::fabs(vphone::scene::heading_difference(num(rows[j], col), num(rows[i], col))) > 8) return false;
    return true;
}

}  // namespace service_run

#endif  // KMXC_TOOLS_SERVICE_RUN_TEST_UTIL_H
