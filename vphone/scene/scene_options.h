// The options that describe the simulated world: which scenario, the Earth field,
// the phone's own magnetism, noise, temperature, mounting and seed. The demo's
// command line and the preloaded world's VPHONE_OPTIONS both read them here, with
// the same command-line reader.
#ifndef KMXC_VPHONE_SCENE_SCENE_OPTIONS_H
#define KMXC_VPHONE_SCENE_SCENE_OPTIONS_H

#include <functional>
#include <string>
#include <vector>

#include "vphone/scene/scenario.h"

namespace vphone::scene {

// ---- The world's options ----------------------------------------------------------

// Whether opt (e.g. "--field") is one of the world's options; each takes a value.
bool is_scene_option(const std::string &opt);
// Sets one world option from its value: "" when taken, else one line naming the problem.
std::string set_scene_option(const std::string &opt, const std::string &value, ScenarioSettings *settings);

struct ParsedScene {
    bool ok = false;
    std::string error;  // one line naming the problem when !ok
    ScenarioSettings settings;
};
// A list of world options and nothing else (the preloaded world's VPHONE_OPTIONS).
ParsedScene parse_scene_options(const std::vector<std::string> &args);

// Help: a line per world option, and a line per scenario with its description.
std::string scene_options_help();
std::string scenarios_help();

// ---- The command-line reader both parsers use ----------------------------------------

enum class OptionKind { Unknown, Flag, WithValue };
// Reads args (no program name): "--opt value" or "--opt=value" for an option with a
// value, "--opt" alone for a flag. kind_of classifies each option; take receives it
// with its value ("" for flags) and returns "" or the problem. Stops at the first
// problem and returns it on one line (control characters shown as '?'); "" when every
// argument was taken. An unknown option is refused naming the argument, with hint.
std::string read_command_line(const std::vector<std::string> &args,
                              const std::function<OptionKind(const std::string &opt)> &kind_of,
                              const std::function<std::string(const std::string &opt, const std::string &value)> &take,
                              const std::string &hint);

// Value readers, phrased as the world's options phrase their errors: "" when the
// whole text is a finite number (a whole number) within lo..hi, else the problem.
std::string read_number(const std::string &opt, const std::string &text, double lo, double hi, double *out);
std::string read_whole_number(const std::string &opt, const std::string &text, long long lo, long long hi,
                              long long *out);

}  // namespace vphone::scene

#endif
