// Integer heading: table arctangent in eighths of a degree, the heading of one
// attitude, and the second-order smoother shared with the azimuth hold filter.
#include "orientation/orientation.h"
#include "orientation/orientation_internal.h"

constinit const uint8_t KmxAxesLibAtanTable[33] = {0,  1,  3,  5,  6,   8,   11,  13,  15,  18,  21,
                                                   24, 27, 31, 34, 39,  43,  48,  53,  58,  63,  69,
                                                   75, 82, 89, 96, 103, 110, 118, 126, 134, 143, 152};

constinit KmxAxesLibSmootherHistory KmxAxesLibDirectionState = {0, 0, 0, 0};

namespace {

constexpr int32_t kQuarterTurn8 = 720;  // eighths of a degree
constexpr int32_t kHalfTurn4 = 720;     // quarter-degrees
constexpr int32_t kFullTurn4 = 1440;    // quarter-degrees

// |v| as unsigned; defined for INT32_MIN as well.
uint32_t magnitude(int32_t v) { return v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v); }

// arctan(i/32) in eighths of a degree.
int32_t table_angle(uint32_t i) { return static_cast<int32_t>(16 * i) - KmxAxesLibAtanTable[i]; }

// s moved by whole turns until x - s lies in -720..719.
int32_t next_to(int32_t x, int32_t s) {
    while (x - s > kHalfTurn4 - 1) s += kFullTurn4;
    while (x - s < -kHalfTurn4) s -= kFullTurn4;
    return s;
}

}  // namespace

int16_t KmxAxesLibAtan(int32_t a, int32_t b) {
    const bool negative = (a < 0) != (b < 0);
    uint32_t ua = magnitude(a);
    uint32_t ub = magnitude(b);
    while (ub > 1023) {
        ua >>= 1;
        ub >>= 1;
    }
    if (ub == 0) return 0;  // b == 0: outside the contract, no division by zero
    uint32_t q = (ua * 2048u) / ub;
    if (q > 2048) q = 2048;  // |a| > |b|: outside the contract, stay inside the table
    const uint32_t i = q / 64;
    const uint32_t f = q % 64;
    int32_t r = table_angle(i);
    if (i <= 31) r += static_cast<int32_t>(f) * (table_angle(i + 1) - r) / 64;
    return static_cast<int16_t>(negative ? -r : r);
}

int16_t KmxAxesLibAtan2(int32_t x, int32_t y) {
    if (magnitude(y) > magnitude(x)) {
        const int32_t t = KmxAxesLibAtan(x, y);
        return static_cast<int16_t>((y > 0 ? kQuarterTurn8 : 3 * kQuarterTurn8) - t);
    }
    const int32_t t = KmxAxesLibAtan(y, x);
    if (x <= 0) return static_cast<int16_t>(t + 2 * kQuarterTurn8);
    if (t < 0) return static_cast<int16_t>(t + 4 * kQuarterTurn8);
    return static_cast<int16_t>(t);
}

int8_t KmxAxesLibCalcDirectionWOF(const KmxAxesAttitude *attitude, uint16_t *heading, int32_t threshold) {
    const int16_t *m = attitude->matrix;
    const int32_t up_y = m[7];
    int32_t x;
    int32_t y;
    if ((up_y < 0 ? -up_y : up_y) > threshold) {
        // The y axis stands steep: head along -z, or +z when y points down.
        y = m[2];
        x = m[5];
        if (up_y >= 0) {
            y = -y;
            x = -x;
        }
    } else {
        y = m[1];
        x = m[4];
    }
    if (x == 0 && y == 0) {
        *heading = 0;
        return KMXC_ORI_NO_HEADING;
    }
    *heading = static_cast<uint16_t>(KmxAxesLibAtan2(x, y) / 8);
    return KMXC_ORI_OK;
}

void KmxAxesLibSmoothDirection(KmxAxesLibSmootherHistory *history, uint16_t heading, uint16_t *smoothed) {
    const int32_t x = 4 * static_cast<int32_t>(heading) - kHalfTurn4;
    const int32_t in1 = next_to(x, history->prevInput);
    const int32_t in2 = next_to(x, history->olderInput);
    const int32_t out1 = next_to(x, history->prevOutput);
    const int32_t out2 = next_to(x, history->olderOutput);

    // Every term lies within one turn of x, so the sum fits 16 bits.
    const int16_t s = static_cast<int16_t>(2 * x + in1 + in2 + 5 * out1 - out2);
    const int32_t s_magnitude = s < 0 ? -s : s;
    const bool round_up = ((s_magnitude >> 2) & 1) != 0;  // bit 2 of |S|, not the fraction
    int32_t y = s / 8;
    while (y > kHalfTurn4 - 1) y -= kFullTurn4;
    while (y < -kHalfTurn4) y += kFullTurn4;

    uint32_t degrees = static_cast<uint32_t>(y + kHalfTurn4) / 4;
    if (round_up && ++degrees == 360) degrees = 0;
    *smoothed = static_cast<uint16_t>(degrees);

    history->prevInput = static_cast<int16_t>(x);
    history->olderInput = static_cast<int16_t>(in1);
    history->prevOutput = static_cast<int16_t>(y);
    history->olderOutput = static_cast<int16_t>(out1);
}

int8_t KmxAxesLibCalcDirection(const KmxAxesAttitude *attitude, uint16_t *heading, int32_t threshold) {
    uint16_t raw = 0;
    // A heading that could not be formed is 0 and is smoothed like any other.
    (void)KmxAxesLibCalcDirectionWOF(attitude, &raw, threshold);
    KmxAxesLibSmoothDirection(&KmxAxesLibDirectionState, raw, heading);
    return KMXC_ORI_OK;
}
