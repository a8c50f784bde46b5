// Raw chip data records: what the two chips delivered in every measurement cycle,
// with the virtual time, plus the few facts of the phone needed to replay them.
// The format is documented in docs/record-format.md.
#ifndef KMXC_VPHONE_SCENE_RECORD_H
#define KMXC_VPHONE_SCENE_RECORD_H

#include <array>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace vphone::scene {

struct RecordHeader {
    int profile = 1;                       // hardware profile number
    std::array<int, 18> transformation{};  // the profile's line: accelerometer, magnetometer matrix
    std::array<int, 9> calib{};            // magnetometer calibration bytes as the driver read them
    std::array<int, 3> rough{};            // rough offset written to the magnetometer
    bool has_stored = false;               // calibration file line at the start of the run
    std::array<long long, 9> stored{};
    bool operator==(const RecordHeader &) const = default;
};

struct RecordRow {
    int64_t time_us = 0;      // virtual time of the cycle's start
    std::array<int, 3> ms{};  // magnetometer channels 0, 1, 2 (11-bit raw)
    int temperature = 0;      // magnetometer chip temperature (11-bit raw)
    std::array<int, 3> gs{};  // accelerometer counts x, y, z (chip axes)
    bool operator==(const RecordRow &) const = default;
};

struct Record {
    RecordHeader header;
    std::vector<RecordRow> rows;
    // Readings of every rough-offset measurement, in order: what the chip reported
    // for channels 0, 1, 2 (the driver makes reading - 5 of each the rough offset).
    std::vector<std::array<int, 3>> rough_readings;
    bool operator==(const Record &) const = default;
};

void write_record_header(std::ostream &out, const RecordHeader &h);
void write_record_row(std::ostream &out, const RecordRow &r);
void write_rough_reading(std::ostream &out, const std::array<int, 3> &reading);

struct ParsedRecord {
    bool ok = false;
    std::string error;  // "line N: ..." when !ok
    Record record;
};
ParsedRecord parse_record(std::istream &in);

// The rate its rows show: median_rate_hz (csv_log.h) of their times.
double record_rate_hz(const Record &r);

}  // namespace vphone::scene

#endif
