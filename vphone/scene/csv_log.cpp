#include "vphone/scene/csv_log.h"

#include <algorithm>
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
        if (n == 1) {
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

double median_rate_hz(std::vector<int64_t> times_us) {
    if (times_us.size() < 2) return 0;
    std::vector<int64_t> step;
    for (size_t i = 1; i < times_us.size(); ++i) step.push_back(times_us[i] - times_us[i - 1]);
    const auto mid = step.begin() + static_cast<std::ptrdiff_t>(step.size() / 2);
    std::nth_element(step.begin(), mid, step.end());
    return 1e6 / static_cast<double>(*mid);
}

}  // namespace vphone::scene
