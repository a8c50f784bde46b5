// The world's options and the command-line reader (scene_options.h).
#include "vphone/scene/scene_options.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <sstream>

namespace vphone::scene {
namespace {

// Whole text must be a finite number.
bool to_double(const std::string &text, double *out) {
    const char *b = text.data(), *e = text.data() + text.size();
    if (b != e && *b == '+') ++b;
    const auto r = std::from_chars(b, e, *out);
    return r.ec == std::errc() && r.ptr == e && std::isfinite(*out);
}

bool to_long(const std::string &text, long long *out) {
    const char *b = text.data(), *e = text.data() + text.size();
    if (b != e && *b == '+') ++b;
    const auto r = std::from_chars(b, e, *out);
    return r.ec == std::errc() && r.ptr == e;
}

std::string names_list() {
    std::string s;
    for (const auto &n : scenario_names()) s += (s.empty() ? "" : ", ") + n;
    return s;
}

// N numbers separated by commas (value_name says which: X,Y,Z say), each within lo..hi.
template <size_t N>
std::string read_numbers(const std::string &opt, const std::string &text, const char *value_name, double lo, double hi,
                         std::array<double, N> *out) {
    std::vector<std::string> parts{""};
    for (char c : text) {
        if (c == ',')
            parts.emplace_back();
        else
            parts.back() += c;
    }
    static const char *const kCount[] = {"", "one", "two", "three", "four", "five", "six"};
    if (parts.size() != N) return opt + ": '" + text + "' is not " + kCount[N] + " numbers " + value_name;
    std::array<double, N> v{};
    for (size_t k = 0; k < N; ++k)
        if (std::string e = read_number(opt, parts[k], lo, hi, &v[k]); !e.empty()) return e;
    *out = v;
    return "";
}

template <typename T>
std::string shown(const T &v) {
    std::ostringstream o;
    o << v;
    return o.str();
}
template <size_t N>
std::string shown(const std::array<double, N> &v) {
    std::string s;
    for (double x : v) s += (s.empty() ? "" : ",") + shown(x);
    return s;
}

using Setter = std::function<std::string(const std::string &opt, const std::string &text, ScenarioSettings &s)>;

// One world option: its name, the name of its value, its line of help (after the
// value's column) and how its value reaches the settings.
struct WorldOption {
    std::string name, value_name, help;
    Setter set;
};

// An option of numbers within lo..hi, into one field of the settings: a number or
// several (a vector, a matrix). Its help reads "<before><lo>..<hi><after> (<default>)".
template <typename T>
WorldOption ranged(const char *name, const char *value_name, const std::string &before, const char *after, double lo,
                   double hi, T ScenarioSettings::*field) {
    std::string help = before + shown(lo) + ".." + shown(hi) + after + " (" + shown(ScenarioSettings{}.*field) + ")";
    Setter set = [=](const std::string &opt, const std::string &text, ScenarioSettings &s) {
        if constexpr (std::is_same_v<T, double>)
            return read_number(opt, text, lo, hi, &(s.*field));
        else
            return read_numbers(opt, text, value_name, lo, hi, &(s.*field));
    };
    return {name, value_name, help, set};
}

// The soft iron's six numbers, then the matrix they make checked as a whole.
WorldOption soft_iron_option() {
    WorldOption o = ranged("--soft-iron", "XX,YY,ZZ,XY,XZ,YZ", "symmetric matrix on the Earth field, each ", "", -2, 2,
                           &ScenarioSettings::soft_iron);
    o.help += "; eigenvalues " + shown(kSoftIronMinEigenvalue) + ".." + shown(kSoftIronMaxEigenvalue);
    o.set = [ranged_set = o.set](const std::string &opt, const std::string &text, ScenarioSettings &s) {
        ScenarioSettings trial = s;
        if (std::string e = ranged_set(opt, text, trial); !e.empty()) return e;
        if (std::string e = soft_iron_problem(trial.soft_iron); !e.empty()) return opt + ": " + text + ": " + e;
        s.soft_iron = trial.soft_iron;
        return std::string();
    };
    return o;
}

std::string set_scenario(const std::string &opt, const std::string &text, ScenarioSettings &s) {
    if (!is_scenario_name(text)) return opt + ": unknown scenario '" + text + "' (choose " + names_list() + ")";
    s.name = text;
    return "";
}

std::string set_profile(const std::string &opt, const std::string &text, ScenarioSettings &s) {
    long long n = 0;
    const std::string e = read_whole_number(opt, text, 1, static_cast<long long>(mounting_profiles().size()), &n);
    if (e.empty()) s.profile = static_cast<int>(n);
    return e;
}

std::string set_seed(const std::string &opt, const std::string &text, ScenarioSettings &s) {
    long long n = 0;
    const std::string e = read_whole_number(opt, text, 0, 4294967295LL, &n);
    if (e.empty()) s.seed = static_cast<uint32_t>(n);
    return e;
}

// Every world option, in the order --help lists them.
const std::vector<WorldOption> &world_options() {
    static const ScenarioSettings d;
    static const std::vector<WorldOption> table{
        {"--scenario", "NAME", "handling script: " + names_list() + " (default: " + d.name + ")", set_scenario},
        ranged("--field", "UT", "Earth field strength, ", " uT", 25, 65, &ScenarioSettings::field_uT),
        ranged("--inclination", "DEG", "field inclination, ", "", -90, 90, &ScenarioSettings::inclination_deg),
        ranged("--declination", "DEG", "field declination, ", "", -180, 180, &ScenarioSettings::declination_deg),
        ranged("--hard-iron", "X,Y,Z", "field fixed to the phone, uT, each ", "", -200, 200,
               &ScenarioSettings::hard_iron_uT),
        soft_iron_option(),
        ranged("--car-field", "X,Y,Z", "car scenarios: the car's field once mounted, uT, each ", "", -200, 200,
               &ScenarioSettings::car_field_uT),
        ranged("--car-vibration", "TIMES", "car scenarios: the mount's vibration, times the car's, ", "", 0, 30,
               &ScenarioSettings::car_vibration),
        ranged("--noise", "UT", "magnetometer noise per axis, ", " uT", 0, 5, &ScenarioSettings::noise_uT),
        ranged("--accel-offset", "X,Y,Z", "accelerometer zero-g offset, mg, each ", "", -200, 200,
               &ScenarioSettings::accel_offset_mg),
        ranged("--temp-drift", "C_PER_MIN", "temperature change per minute, ", "", -20, 20,
               &ScenarioSettings::temp_drift_C_per_min),
        ranged("--temperature", "C", "temperature at the start, ", "", -20, 60, &ScenarioSettings::temperature_C),
        {"--profile", "N", "mounting profile, 1.." + shown(mounting_profiles().size()) + " (" + shown(d.profile) + ")",
         set_profile},
        {"--seed", "N", "seed of the noise and of the browse and car scripts (" + shown(d.seed) + ")", set_seed},
    };
    return table;
}

const WorldOption *find_option(const std::string &name) {
    for (const WorldOption &o : world_options())
        if (o.name == name) return &o;
    return nullptr;
}

}  // namespace

std::string read_number(const std::string &opt, const std::string &text, double lo, double hi, double *out) {
    double d = 0;
    if (!to_double(text, &d)) return opt + ": '" + text + "' is not a number";
    if (d < lo || d > hi) {
        std::ostringstream m;
        m << opt << ": " << text << " is outside " << lo << ".." << hi;
        return m.str();
    }
    *out = d;
    return "";
}

std::string read_whole_number(const std::string &opt, const std::string &text, long long lo, long long hi,
                              long long *out) {
    long long n = 0;
    if (!to_long(text, &n)) return opt + ": '" + text + "' is not a whole number";
    if (n < lo || n > hi) return opt + ": " + text + " is outside " + std::to_string(lo) + ".." + std::to_string(hi);
    *out = n;
    return "";
}

bool is_scene_option(const std::string &opt) { return find_option(opt) != nullptr; }

std::string set_scene_option(const std::string &opt, const std::string &value, ScenarioSettings *settings) {
    const WorldOption *o = find_option(opt);
    return o == nullptr ? "unknown option '" + opt + "'" : o->set(opt, value, *settings);
}

std::string read_command_line(const std::vector<std::string> &args,
                              const std::function<OptionKind(const std::string &opt)> &kind_of,
                              const std::function<std::string(const std::string &opt, const std::string &value)> &take,
                              const std::string &hint) {
    std::string err;
    for (size_t i = 0; i < args.size() && err.empty(); ++i) {
        std::string opt = args[i], value;
        const bool inline_value = opt.rfind("--", 0) == 0 && opt.find('=') != std::string::npos;
        if (inline_value) {
            value = opt.substr(opt.find('=') + 1);
            opt = opt.substr(0, opt.find('='));
        }
        switch (kind_of(opt)) {
        case OptionKind::Flag: err = inline_value ? opt + " takes no value" : take(opt, ""); break;
        case OptionKind::WithValue:
            if (!inline_value && i + 1 >= args.size()) {
                err = opt + " needs a value";
                break;
            }
            err = take(opt, inline_value ? value : args[++i]);
            break;
        case OptionKind::Unknown: err = "unknown option '" + args[i] + "' " + hint; break;
        }
    }
    // One line whatever the arguments held: control characters they echo show as '?'.
    for (char &c : err)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    return err;
}

ParsedScene parse_scene_options(const std::vector<std::string> &args) {
    std::string names;
    for (const WorldOption &o : world_options()) names += (names.empty() ? "" : ", ") + o.name;
    ParsedScene p;
    p.error = read_command_line(
        args, [](const std::string &opt) { return is_scene_option(opt) ? OptionKind::WithValue : OptionKind::Unknown; },
        [&p](const std::string &opt, const std::string &value) { return set_scene_option(opt, value, &p.settings); },
        "(the world's options: " + names + ")");
    p.ok = p.error.empty();
    return p;
}

std::string scene_options_help() {
    std::string u;
    for (const WorldOption &o : world_options()) {
        const std::string head = "  " + o.name + " " + o.value_name;
        // A long value name puts the help on a line of its own.
        u += head + (head.size() < 25 ? std::string(25 - head.size(), ' ') : "\n" + std::string(25, ' ')) + o.help +
             "\n";
    }
    return u;
}

std::string scenarios_help() {
    std::string s;
    for (const ScenarioInfo &i : scenarios())
        s += "  " + std::string(i.name) + std::string(23 - std::strlen(i.name), ' ') + i.description + "\n";
    return s;
}

}  // namespace vphone::scene
