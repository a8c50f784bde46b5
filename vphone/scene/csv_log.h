// What the scene's two kinds of log share (raw records, record.h; field logs,
// field_log.h): comma-separated lines under a first line that names the format, and the
// rate their rows' times show.
#ifndef KMXC_VPHONE_SCENE_CSV_LOG_H
#define KMXC_VPHONE_SCENE_CSV_LOG_H

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace vphone::scene {

// A line's fields: split at commas, blanks and carriage returns dropped.
std::vector<std::string> csv_fields(const std::string &line);

// Reads in line by line (\n or \r\n ends). The first line must be magic, else "not a
// <what>: ..." (an empty magic: no such line). After it, empty lines and lines starting
// with '#' are comments; every other line goes to take (its fields and its text), which
// returns "" or its problem.
// Reading stops at the first problem; at the end, finish names what the whole log lacks,
// or "". Returns "", "empty file", or "line N: <problem>" (N the line read last).
using CsvLineTaker = std::function<std::string(const std::vector<std::string> &fields, const std::string &line)>;
std::string read_csv_log(std::istream &in, const std::string &magic, const std::string &what, const CsvLineTaker &take,
                         const std::function<std::string()> &finish);

// A value of a data line: a decimal or a whole number within lo..hi (a leading '+'
// allowed; nan and inf are refused), or a whole time in 0..kCsvMaxTime without a sign.
// False when f is not one.
constexpr int64_t kCsvMaxTime = int64_t{1} << 53;  // a double holds every whole number up to it
bool csv_number(const std::string &f, double lo, double hi, double *out);
bool csv_number(const std::string &f, long long lo, long long hi, long long *out);
bool csv_time(const std::string &f, int64_t *out);
// The shortest digits that read back to v.
std::string shortest_text(double v);

// The measurement rate a log's times show, Hz: a million over the median interval
// between successive times, so a late cycle, a dropped one or a pause in the log does not
// move it (a log from a phone's service has no other record of its rate). 0 with fewer
// than two times.
double median_rate_hz(std::vector<int64_t> times_us);

}  // namespace vphone::scene

#endif
