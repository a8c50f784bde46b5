// A phone's two sensor streams made into a field log. A phone logs its magnetometer and
// its accelerometer as two streams, each sample at its own time and rate; a field log
// pairs them row by row (field_log.h). Pairing each sample with the other stream's last
// one leaves the two up to a period apart, and a turning phone's heading off by what it
// turned meanwhile, so a row is made at each magnetometer sample's time, with the
// acceleration interpolated there. The stream format and what pairing the other way
// costs (measured) are in docs/field-log-format.md.
#ifndef KMXC_VPHONE_SCENE_SENSOR_STREAMS_H
#define KMXC_VPHONE_SCENE_SENSOR_STREAMS_H

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "vphone/scene/field_log.h"

namespace vphone::scene {

struct StreamSample {
    int64_t time_ns = 0;  // strictly increasing
    Vec3 value{};         // x, y, z
    double w = 0;         // a reference stream's quaternion's w; 0 in a sensor's
    bool operator==(const StreamSample &) const = default;
};

// A header line naming the columns (time_ns or time_us, and x, y, z; any others are
// ignored), then a sample per line. Values within +-limit; '#' lines and empty lines
// are comments.
struct ParsedStream {
    bool ok = false;
    std::string error;  // "line N: ..." when !ok
    std::vector<StreamSample> samples;
};
ParsedStream parse_stream(std::istream &in, double limit);
// A reference attitude's stream: columns x, y, z, w, each sample a unit quaternion as a
// field log's reference (its length within kFieldLogReferenceNormTolerance of 1).
ParsedStream parse_reference_stream(std::istream &in);

// Samples of another stream further apart than this leave the magnetometer samples
// between them unpaired: over a longer gap a straight line is no longer the motion.
constexpr int64_t kMaxPairGapNs = 100'000'000;

struct PairCounts {
    int paired = 0;
    int outside = 0;  // magnetometer samples before another stream's first sample or after its last
    int gap = 0;      // between samples of another stream more than kMaxPairGapNs apart
    int same_us = 0;  // a magnetometer sample in the microsecond of the one before it
};

// A row per magnetometer sample (its time in whole microseconds, truncated), the
// acceleration interpolated linearly between the samples around it, and with a reference
// stream (may be null) the attitude interpolated along the shorter rotation between its
// samples (either taken as logged at an equal time). No temperature column.
FieldLog pair_streams(const std::vector<StreamSample> &mag, const std::vector<StreamSample> &accel,
                      const std::vector<StreamSample> *reference, PairCounts *counts);

}  // namespace vphone::scene

#endif
