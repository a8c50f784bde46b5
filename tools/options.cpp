#include "tools/options.h"

#include <functional>
#include <map>

#include "service/kmxc_service.h"
#include "vphone/scene/scene_options.h"

namespace compass {
namespace {

using vphone::scene::OptionKind;
using Taker = std::function<std::string(const std::string &opt, const std::string &value)>;

std::string file_name(const std::string &opt, const std::string &value, std::string *out) {
    if (value.empty()) return opt + ": empty file name";
    *out = value;
    return "";
}

// The tool's options that take a value, each writing into o.
std::map<std::string, Taker> valued_options(Options &o) {
    auto path = [](std::string *out) {
        return [out](const std::string &opt, const std::string &v) { return file_name(opt, v, out); };
    };
    return {
        {"--rate",
         [&o](const std::string &opt, const std::string &v) {
             long long n = 0;
             std::string e =
                 vphone::scene::read_whole_number(opt, v, KMXC_SERVICE_RATE_MIN_HZ, KMXC_SERVICE_RATE_MAX_HZ, &n);
             if (e.empty()) o.rate_hz = static_cast<double>(n);
             o.rate_given = true;
             return e;
         }},
        {"--sandbox", path(&o.sandbox)},
        {"--record", path(&o.record_path)},
        {"--replay", path(&o.replay_path)},
        {"--replay-field", path(&o.field_log_path)},
        {"--record-field", path(&o.field_record_path)},
        {"--outputs", path(&o.outputs_path)},
        {"--plot", path(&o.plot_path)},
        {"--summary-json", path(&o.summary_json_path)},
        {"--fault",
         [&o](const std::string &opt, const std::string &v) {
             o.fault_plan += (o.fault_plan.empty() ? "" : ",") + v;
             return v.empty() ? opt + ": empty fault plan" : "";
         }},
    };
}

// Options that describe the scripted phone and its run; a replay's phone, rate and
// handling are those of its record.
bool describes_the_run(const std::string &opt) {
    return vphone::scene::is_scene_option(opt) || opt == "--rate" || opt == "--fresh";
}

// Of those, what a field log leaves to the command line: the chips' mounting, and the
// rate the service samples the logged world at.
bool applies_to_a_field_log(const std::string &opt) { return opt == "--profile" || opt == "--rate"; }

// The combinations the options may not make, or "".
std::string conflicts(const Options &o, const std::vector<std::string> &run_options) {
    if (!o.replay_path.empty() && !o.field_log_path.empty())
        return "--replay and --replay-field cannot be combined: a run replays one file";
    if (!o.record_path.empty() && !o.replay_path.empty())
        return "--record and --replay cannot be combined: a replay's raw data is its input file";
    if (!o.field_record_path.empty() && !replay_input(o).empty())
        return "--record-field and " + std::string(o.replay_path.empty() ? "--replay-field" : "--replay") +
               " cannot be combined: only a scenario's physics is known to log";
    if (!o.replay_path.empty() && !run_options.empty())
        return run_options[0] +
               " and --replay cannot be combined: a replay's phone, rate and handling are those of its record";
    if (!o.field_log_path.empty())
        for (const std::string &opt : run_options)
            if (!applies_to_a_field_log(opt))
                return opt + " and --replay-field cannot be combined: a field log's world is the one it logged" +
                       (opt == "--fresh" ? " (its sandbox is emptied first)" : "");
    return "";
}

}  // namespace

std::string usage_text() {
    return "usage: compass_service [options]\n"
           "Runs the compass library on the virtual phone the way a sensor service does.\n" +
           vphone::scene::scene_options_help() + "  --rate HZ              measurement cycles per second, " +
           std::to_string(KMXC_SERVICE_RATE_MIN_HZ) + ".." + std::to_string(KMXC_SERVICE_RATE_MAX_HZ) +
           ", whole (10)\n"
           "  --sandbox DIR          the virtual phone's files; offsets persist here (out/sandbox;\n"
           "                         replays: out/replay-sandbox, emptied first)\n"
           "  --fresh                empty the sandbox first\n"
           "  --record FILE          record the raw chip data to FILE (CSV)\n"
           "  --replay FILE          replay raw chip data from FILE instead of a scenario, at the rate\n"
           "                         its rows show\n"
           "  --replay-field FILE    replay a field log (any phone's uT and m/s^2, docs/field-log-format.md)\n"
           "                         through this phone's chips, at the rate its rows show or --rate's;\n"
           "                         scored against its reference attitude when it has one\n"
           "  --record-field FILE    log what the chips sensed to FILE, as a field log, with the true\n"
           "                         attitude as its reference\n"
           "  --outputs FILE         write every sample's library outputs to FILE (CSV)\n"
           "  --plot FILE            draw heading and offset error over time to FILE (PNG)\n"
           "  --summary-json FILE    write the summary to FILE (JSON)\n"
           "  --quiet                print the summary only\n"
           "  --fault PLAN           fail the virtual phone's calls: CALL:N[:ERRNO[:COUNT]],...\n"
           "                         e.g. rename:1:EROFS (the virtual phone's fault plan; VPHONE_FAULTS too)\n"
           "  --help                 this text\n"
           "  --version              the version of the tools and the library\n"
           "Scenarios:\n" +
           vphone::scene::scenarios_help();
}

ParsedOptions parse_options(const std::vector<std::string> &args) {
    ParsedOptions r;
    Options &o = r.options;
    const std::map<std::string, bool *> flags{
        {"--fresh", &o.fresh}, {"--quiet", &o.quiet}, {"--help", &o.help}, {"--version", &o.version}};
    const std::map<std::string, Taker> valued = valued_options(o);
    std::vector<std::string> run_options;  // given, in order

    auto kind_of = [&](const std::string &opt) {
        if (flags.count(opt)) return OptionKind::Flag;
        return valued.count(opt) || vphone::scene::is_scene_option(opt) ? OptionKind::WithValue : OptionKind::Unknown;
    };
    auto take = [&](const std::string &opt, const std::string &value) -> std::string {
        if (describes_the_run(opt)) run_options.push_back(opt);
        if (const auto f = flags.find(opt); f != flags.end()) {
            *f->second = true;
            return "";
        }
        if (const auto v = valued.find(opt); v != valued.end()) return v->second(opt, value);
        return vphone::scene::set_scene_option(opt, value, &o.scenario);
    };
    r.error = vphone::scene::read_command_line(args, kind_of, take, "(try --help)");
    if (o.sandbox.empty()) o.sandbox = replay_input(o).empty() ? "out/sandbox" : "out/replay-sandbox";
    if (r.error.empty()) r.error = conflicts(o, run_options);
    r.ok = r.error.empty();
    return r;
}

}  // namespace compass
