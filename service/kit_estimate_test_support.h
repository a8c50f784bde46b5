// What the kit's estimator-rule tests share: synthetic fields about a known offset (a
// sphere, a cap, soft iron, noise), the kit set to a known state, and a fit step.
#ifndef KMXC_SERVICE_KIT_ESTIMATE_TEST_SUPPORT_H
#define KMXC_SERVICE_KIT_ESTIMATE_TEST_SUPPORT_H

#include <array>
#include <cmath>
#include <vector>

#include "calibration/calibration.h"
#include "service/kit_internal.h"

namespace kit_estimate_test {

using namespace kmxc_kit;

constexpr Vec3 kDown{0, 0, -4096};
constexpr Vec3 kOffset{100, -50, 200};
constexpr double kRadius = 120;  // 48 uT

// A deterministic noise of about sd counts (sum of three uniform draws).
struct Noise {
    uint32_t state = 12345;
    double next(double sd) {
        double s = 0;
        for (int k = 0; k < 3; ++k) {
            state = state * 1664525u + 1013904223u;
            s += (state >> 8) / double(1 << 24) - 0.5;
        }
        return s * 2 * sd;
    }
};

// Field directions: the golden-angle spiral over the sphere, or the part of it within
// `cap_deg` of +z (a cap), in a scrambled order.
inline std::vector<std::array<double, 3>> directions(int n, double cap_deg = 180) {
    std::vector<std::array<double, 3>> v;
    const double zmin = std::cos(cap_deg * M_PI / 180);
    for (int k = 0; k < n; ++k) {
        const int i = k * 97 % n;
        const double z = 1 - (1 - zmin) * (i + 0.5) / n, r = std::sqrt(1 - z * z), a = i * 2.399963;
        v.push_back({r * std::cos(a), r * std::sin(a), z});
    }
    return v;
}

// A sample of the field along d, stretched by soft iron s (diagonal and an x-y skew),
// about offset o, with noise.
inline Vec3 sample(const std::array<double, 3> &d, const Vec3 &o, const double s[4], Noise &noise, double sd) {
    const double x = s[0] * d[0] + s[3] * d[1], y = s[3] * d[0] + s[1] * d[1], z = s[2] * d[2];
    return Vec3{o.x + static_cast<int32_t>(std::lround(kRadius * x + noise.next(sd))),
                o.y + static_cast<int32_t>(std::lround(kRadius * y + noise.next(sd))),
                o.z + static_cast<int32_t>(std::lround(kRadius * z + noise.next(sd)))};
}

constexpr double kNoSoftIron[4] = {1, 1, 1, 0};
constexpr double kSoftIron[4] = {1.10, 0.92, 1.0, 0.05};

// The kit with nothing trusted, the library's offset at `in_use`.
inline void set_kit(const Vec3 &in_use) {
    g_state = State{};
    const KmxAxesData o{in_use.x, in_use.y, in_use.z};
    KmxAxesLibSetMsOffset(&o);
    KmxAxesMsCalibSetOffset(&o);
}

// The angle between the Earth's field and gravity (pulling down) at a 60-degree dip.
constexpr double kFieldToGravityDeg = 30;

// The gravity (1 g) of a phone whose Earth field points along d: kFieldToGravityDeg from
// d, turned about d by a fixed rule (any attitude will do), that angle plus or minus
// `wobble_deg` by the parity of i (a dip that disagrees by wobble_deg RMS).
inline Vec3 gravity_for(const std::array<double, 3> &d, int i = 0, double wobble_deg = 0) {
    // A unit vector across d: d x z, or d x x near the z axis.
    const bool near_z = std::fabs(d[2]) > 0.9;
    std::array<double, 3> p = near_z ? std::array<double, 3>{0, d[2], -d[1]} : std::array<double, 3>{d[1], -d[0], 0};
    const double pl = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
    const double a = (kFieldToGravityDeg + (i % 2 == 0 ? wobble_deg : -wobble_deg)) * M_PI / 180;
    Vec3 g;
    int32_t *out[3] = {&g.x, &g.y, &g.z};
    for (int k = 0; k < 3; ++k)
        *out[k] = static_cast<int32_t>(std::lround(4096 * (std::cos(a) * d[k] + std::sin(a) * p[k] / pl)));
    return g;
}

// The kit set as set_kit(in_use) with the store and the ring of fed samples filled from
// `dirs` about offset o, each with the gravity of its field's direction (gravity_for,
// the ring's dips wobbling by dip_wobble_deg).
inline void fill(const Vec3 &in_use, const std::vector<std::array<double, 3>> &dirs, const Vec3 &o, const double s[4],
                 double sd, double dip_wobble_deg = 0) {
    set_kit(in_use);
    Noise noise;
    for (const auto &d : dirs) {
        const Vec3 m = sample(d, o, s, noise, sd);
        field_store_offer(&g_state.est.store, m, gravity_for(d), nullptr, false, true);
    }
    for (size_t i = 0; i < dirs.size() && i < 2 * KMXC_SERVICE_FEED_HISTORY; i += 2)
        remember_fed(sample(dirs[i], o, s, noise, sd), gravity_for(dirs[i], static_cast<int>(i / 2), dip_wobble_deg));
}

// A sphere fit due now: the fit in one cycle, the soft iron the store shows in the next,
// its soft-iron share in the two after, its judgement in the fifth (the event of the
// judgement's cycle returned).
inline KmxcServiceEvent step() {
    KmxcServiceEvent e{};
    e.mag_result = 1;  // a clipped sample: offered nothing
    g_state.est.joined = KMXC_SERVICE_STORE_REFIT_JOINS;
    for (int cycle = 0; cycle < 5; ++cycle) {
        e = KmxcServiceEvent{};
        e.mag_result = 1;
        store_cycle(Vec3{0, 0, 0}, kDown, true, 1, &e);
    }
    return e;
}

inline Vec3 offset_in_use() {
    KmxAxesData o;
    KmxAxesLibGetMsOffset(&o);
    return Vec3{o.x, o.y, o.z};
}

}  // namespace kit_estimate_test

#endif
