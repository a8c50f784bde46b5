#include "tools/options.h"

#include "service/kmxc_service.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>

namespace compass {
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

}  // namespace

std::string usage_text() {
    std::ostringstream u;
    u << "usage: compass_service [options]\n"
         "Runs the compass library on the virtual phone the way a sensor service does.\n"
         "  --scenario NAME        handling script: "
      << names_list()
      << " (default: default)\n"
         "  --field UT             Earth field strength, 25..65 uT (48)\n"
         "  --inclination DEG      field inclination, -90..90 (60)\n"
         "  --declination DEG      field declination, -180..180 (3)\n"
         "  --hard-iron X,Y,Z      field fixed to the phone, uT, each -200..200 (18,-12,9)\n"
         "  --noise UT             magnetometer noise per axis, 0..5 uT (0.15)\n"
         "  --temp-drift C_PER_MIN temperature change per minute, -20..20 (0.5)\n"
         "  --temperature C        temperature at the start, -20..60 (25)\n"
         "  --profile N            mounting profile, 1.."
      << mounting_profiles().size()
      << " (1)\n"
         "  --seed N               noise seed (1)\n"
         "  --rate HZ              measurement cycles per second, "
      << KMXC_SERVICE_RATE_MIN_HZ << ".." << KMXC_SERVICE_RATE_MAX_HZ
      << ", whole (10)\n"
         "  --sandbox DIR          the virtual phone's files; offsets persist here (out/sandbox;\n"
         "                         replays: out/replay-sandbox, emptied first)\n"
         "  --fresh                empty the sandbox first\n"
         "  --record FILE          record the raw chip data to FILE (CSV)\n"
         "  --replay FILE          replay raw chip data from FILE instead of a scenario\n"
         "  --outputs FILE         write every sample's library outputs to FILE (CSV)\n"
         "  --plot FILE            draw heading and offset error over time to FILE (PNG)\n"
         "  --summary-json FILE    write the summary to FILE (JSON)\n"
         "  --quiet                print the summary only\n"
         "  --fault PLAN           fail the virtual phone's calls: CALL:N[:ERRNO[:COUNT]],...\n"
         "                         e.g. rename:1:EROFS (vphone/README.md; VPHONE_FAULTS too)\n"
         "  --help                 this text\n"
         "  --version              the version of the tools and the library\n"
         "Scenarios:\n";
    for (const ScenarioInfo &i : scenarios())
        u << "  " << i.name << std::string(23 - std::strlen(i.name), ' ') << i.description << "\n";
    return u.str();
}

ParsedOptions parse_options(const std::vector<std::string> &args) {
    ParsedOptions r;
    Options &o = r.options;
    ScenarioSettings &s = o.scenario;
    std::string err;

    auto number = [&](const std::string &opt, const std::string &v, double lo, double hi, double *out) {
        double d = 0;
        if (!to_double(v, &d))
            err = opt + ": '" + v + "' is not a number";
        else if (d < lo || d > hi) {
            std::ostringstream m;
            m << opt << ": " << v << " is outside " << lo << ".." << hi;
            err = m.str();
        } else
            *out = d;
    };
    auto integer = [&](const std::string &opt, const std::string &v, long long lo, long long hi, long long *out) {
        long long n = 0;
        if (!to_long(v, &n))
            err = opt + ": '" + v + "' is not a whole number";
        else if (n < lo || n > hi)
            err = opt + ": " + v + " is outside " + std::to_string(lo) + ".." + std::to_string(hi);
        else
            *out = n;
    };
    auto path = [&](const std::string &opt, const std::string &v, std::string *out) {
        if (v.empty())
            err = opt + ": empty file name";
        else
            *out = v;
    };

    using Handler = std::function<void(const std::string &opt, const std::string &value)>;
    const std::map<std::string, Handler> with_value{
        {"--scenario",
         [&](auto &opt, auto &v) {
             if (!is_scenario_name(v))
                 err = opt + ": unknown scenario '" + v + "' (choose " + names_list() + ")";
             else
                 s.name = v;
         }},
        {"--field", [&](auto &opt, auto &v) { number(opt, v, 25, 65, &s.field_uT); }},
        {"--inclination", [&](auto &opt, auto &v) { number(opt, v, -90, 90, &s.inclination_deg); }},
        {"--declination", [&](auto &opt, auto &v) { number(opt, v, -180, 180, &s.declination_deg); }},
        {"--hard-iron",
         [&](auto &opt, auto &v) {
             std::vector<std::string> parts{""};
             for (char c : v) {
                 if (c == ',')
                     parts.emplace_back();
                 else
                     parts.back() += c;
             }
             if (parts.size() != 3) {
                 err = opt + ": '" + v + "' is not three numbers X,Y,Z";
                 return;
             }
             Vec3 h{};
             for (int k = 0; k < 3 && err.empty(); ++k) number(opt, parts[k], -200, 200, &h[k]);
             if (err.empty()) s.hard_iron_uT = h;
         }},
        {"--noise", [&](auto &opt, auto &v) { number(opt, v, 0, 5, &s.noise_uT); }},
        {"--temp-drift", [&](auto &opt, auto &v) { number(opt, v, -20, 20, &s.temp_drift_C_per_min); }},
        {"--temperature", [&](auto &opt, auto &v) { number(opt, v, -20, 60, &s.temperature_C); }},
        {"--profile",
         [&](auto &opt, auto &v) {
             long long n = 0;
             integer(opt, v, 1, static_cast<long long>(mounting_profiles().size()), &n);
             s.profile = static_cast<int>(n);
         }},
        {"--seed",
         [&](auto &opt, auto &v) {
             long long n = 0;
             integer(opt, v, 0, 4294967295LL, &n);
             s.seed = static_cast<uint32_t>(n);
         }},
        {"--rate",
         [&](auto &opt, auto &v) {
             long long n = 0;
             integer(opt, v, KMXC_SERVICE_RATE_MIN_HZ, KMXC_SERVICE_RATE_MAX_HZ, &n);
             o.rate_hz = static_cast<double>(n);
         }},
        {"--sandbox", [&](auto &opt, auto &v) { path(opt, v, &o.sandbox); }},
        {"--record", [&](auto &opt, auto &v) { path(opt, v, &o.record_path); }},
        {"--replay", [&](auto &opt, auto &v) { path(opt, v, &o.replay_path); }},
        {"--outputs", [&](auto &opt, auto &v) { path(opt, v, &o.outputs_path); }},
        {"--plot", [&](auto &opt, auto &v) { path(opt, v, &o.plot_path); }},
        {"--summary-json", [&](auto &opt, auto &v) { path(opt, v, &o.summary_json_path); }},
        {"--fault",
         [&](auto &opt, auto &v) {
             if (v.empty()) err = opt + ": empty fault plan";
             o.fault_plan += (o.fault_plan.empty() ? "" : ",") + v;
         }},
    };
    const std::map<std::string, bool *> flags{
        {"--fresh", &o.fresh}, {"--quiet", &o.quiet}, {"--help", &o.help}, {"--version", &o.version}};

    // Options that describe the scripted phone; a replay's phone is its record.
    const std::vector<std::string> scenario_options{"--scenario",  "--field", "--inclination", "--declination",
                                                    "--hard-iron", "--noise", "--temp-drift",  "--temperature",
                                                    "--profile",   "--seed",  "--rate",        "--fresh"};
    std::string scenario_option_given;
    for (size_t i = 0; i < args.size() && err.empty(); ++i) {
        std::string opt = args[i], value;
        const bool inline_value = opt.rfind("--", 0) == 0 && opt.find('=') != std::string::npos;
        if (inline_value) {
            value = opt.substr(opt.find('=') + 1);
            opt = opt.substr(0, opt.find('='));
        }
        for (const auto &so : scenario_options)
            if (opt == so && scenario_option_given.empty()) scenario_option_given = so;
        if (auto f = flags.find(opt); f != flags.end()) {
            if (inline_value)
                err = opt + " takes no value";
            else
                *f->second = true;
        } else if (auto h = with_value.find(opt); h != with_value.end()) {
            if (!inline_value) {
                if (i + 1 >= args.size()) {
                    err = opt + " needs a value";
                    break;
                }
                value = args[++i];
            }
            h->second(opt, value);
        } else {
            err = "unknown option '" + args[i] + "' (try --help)";
        }
    }
    if (o.sandbox.empty()) o.sandbox = o.replay_path.empty() ? "out/sandbox" : "out/replay-sandbox";
    if (err.empty() && !o.record_path.empty() && !o.replay_path.empty())
        err = "--record and --replay cannot be combined: a replay's raw data is its input file";
    if (err.empty() && !o.replay_path.empty() && !scenario_option_given.empty())
        err = scenario_option_given +
              " and --replay cannot be combined: a replay's phone, rate and handling are "
              "those of its record";
    r.ok = err.empty();
    // One line whatever the arguments held: control characters they echo show as '?'.
    for (char &c : err)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    r.error = err;
    return r;
}

}  // namespace compass
