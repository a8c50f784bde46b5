#include "vphone/scene/csv_log.h"

#include <algorithm>
#include <charconv>
#include <istream>

namespace vphone::scene {

std::vector<std::string> csv_fields(const std::string &line) {
    std::vector<std::string> f{""};
    for (char c : line) {
        if (c == ',')
            f.emplace_back();
        else if (c != '\r' && c != ' ' && c != '\t')
            f.back() += c;
    }
    return f;
}

std::string read_csv_log(std::istream &in, const std::string &magic, const std::string &what, const CsvLineTaker &take,
                         const std::function<std::string()> &finish) {
    std::string line, problem;
    int n = 0;
    while (problem.empty() && std::getline(in, line)) {
        ++n;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (n == 1 && !magic.empty()) {
            if (line != magic) problem = "not a " + what + ": the first line must be '" + magic + "'";
            continue;
        }
        if (line.empty() || line[0] == '#') continue;
        problem = take(csv_fields(line), line);
    }
    if (n == 0) return "empty file";
    if (problem.empty()) problem = finish();
    return problem.empty() ? "" : "line " + std::to_string(n) + ": " + problem;
}

namespace {

template <typename T>
bool number_in(const std::string &f, T lo, T hi, T *out) {
    const char *b = f.data(), *e = f.data() + f.size();
    if (b != e && *b == '+') ++b;
    const auto r = std::from_chars(b, e, *out);
    // nan and inf fail the range.
    return r.ec == std::errc() && r.ptr == e && b != e && *out >= lo && *out <= hi;
}

}  // namespace

bool csv_number(const std::string &f, double lo, double hi, double *out) { return number_in(f, lo, hi, out); }
bool csv_number(const std::string &f, long long lo, long long hi, long long *out) { return number_in(f, lo, hi, out); }

bool csv_time(const std::string &f, int64_t *out) {
    return (f.empty() || f[0] != '+') && number_in<int64_t>(f, 0, kCsvMaxTime, out);
}

std::string shortest_text(double v) {
    char b[32];
    const auto r = std::to_chars(b, b + sizeof b, v);
    return std::string(b, r.ptr);
}

double median_rate_hz(std::vector<int64_t> times_us) {
    if (times_us.size() < 2) return 0;
    std::vector<int64_t> step;
    for (size_t i = 1; i < times_us.size(); ++i) step.push_back(times_us[i] - times_us[i - 1]);
    const auto mid = step.begin() + static_cast<std::ptrdiff_t>(step.size() / 2);
    std::nth_element(step.begin(), mid, step.end());
    return 1e6 / static_cast<double>(*mid);
}

}  // namespace vphone::scene
