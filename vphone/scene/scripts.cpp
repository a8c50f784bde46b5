// The scenarios' scripts: the table of shipped scenarios and the handling each plays.
// The browse and car scripts draw their details from the seed (script_rng_), so each
// seed is another handling of the same kind.
#include <algorithm>
#include <cmath>

#include "vphone/scene/scenario.h"
#include "vphone/scene/scene_math.h"

namespace vphone::scene {

const std::vector<Scenario::Entry> &Scenario::table() {
    static const std::vector<Entry> entries{
        {{"default", "on the table, picked up, a figure-eight, carried while walking, laid flat and turned, set down"},
         &Scenario::script_default},
        {{"planar", "only ever turned flat on the table"}, &Scenario::script_planar},
        {{"two-planes", "turned flat, then stood on its edge and turned"}, &Scenario::script_two_planes},
        {{"magnet", "calibrated, then a magnetic clip is attached and a second figure-eight follows"},
         &Scenario::script_magnet},
        {{"still", "lies on the table"}, &Scenario::script_still},
        {{"slow", "turned slowly by hand (10 to 20 degrees per second) through all orientations"},
         &Scenario::script_slow},
        {{"browse", "held to read a map for three minutes while walking: turned with the walker, put down, picked up"},
         &Scenario::script_browse},
        {{"car", "calibrated in the hand, then clipped into a car's dashboard mount for a 10-minute drive"},
         &Scenario::script_car},
        {{"car-fresh", "the same drive, in the mount from the start with no stored offset", true},
         &Scenario::script_car_fresh},
    };
    return entries;
}

namespace {
const Pose kFlat{40, 0, 0};  // lying face up, heading 40 degrees
}  // namespace

void Scenario::script_planar() {
    // Only ever turned on the table: samples lie in one plane.
    add(Segment::Hold, "on table", 3, kFlat);
    add(Segment::Spin, "turned flat", 40, kFlat, 120);
    add(Segment::Hold, "on table", 3, kFlat);
}

void Scenario::script_two_planes() {
    // Turned flat on the table, then stood on its bottom edge and turned again.
    add(Segment::Hold, "on table", 3, kFlat);
    add(Segment::Spin, "turned flat", 12, kFlat, 120);
    add(Segment::Move, "stood up", 2, Pose{40, -90, 0});
    add(Segment::Spin, "turned upright", 12, Pose{40, -90, 0}, 120);
    add(Segment::Move, "laid down", 2, kFlat);
    add(Segment::Hold, "on table", 3, kFlat);
}

void Scenario::script_magnet() {
    // Calibrated in a figure-eight; then a magnetic clip goes onto the phone on the
    // table (the magnetometer's channels leave their range, and the service moves
    // the rough offset), and a second figure-eight calibrates again.
    add(Segment::Hold, "on table", 3, kFlat);
    add(Segment::Move, "picked up", 1, Pose{40, -30, 0});
    add(Segment::FigureEight, "figure-eight", 12, Pose{40, -30, 0});
    add(Segment::Move, "laid down", 1, kFlat);
    add(Segment::Hold, "on table", 3, kFlat);
    magnet_from_s_ = duration_s_;
    add(Segment::Hold, "magnet clipped on", 4, kFlat);
    add(Segment::Move, "picked up", 1, Pose{40, -30, 0});
    add(Segment::FigureEight, "figure-eight", 12, Pose{40, -30, 0});
    add(Segment::Move, "laid down", 1, kFlat);
    add(Segment::Hold, "on table", 3, kFlat);
}

void Scenario::script_slow() {
    // Turned slowly by hand through all its orientations (10 to 20 degrees per
    // second): each batch of consecutive samples spans only a few degrees.
    add(Segment::Hold, "on table", 3, kFlat);
    add(Segment::Tumble, "turned slowly by hand", 60, kFlat);
    add(Segment::Move, "laid down", 2, kFlat);
    add(Segment::Hold, "on table", 3, kFlat);
}

void Scenario::script_still() { add(Segment::Hold, "on table", 20, kFlat); }

void Scenario::script_default() {
    add(Segment::Hold, "on table", 6, kFlat);
    add(Segment::Move, "picked up", 2, Pose{40, -30, 0});
    add(Segment::FigureEight, "figure-eight", 16, Pose{40, -30, 0});
    add(Segment::Move, "raised to read", 1, Pose{40, -35, 0});
    add(Segment::Walk, "walking", 30, Pose{130, -35, 0});
    add(Segment::Move, "laid flat", 2, Pose{130, 0, 0});
    add(Segment::Spin, "turned flat", 15, Pose{130, 0, 0}, 120);
    add(Segment::Hold, "set down", 6, kFlat);
}

namespace {

double uniform(std::mt19937 &rng, double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); }

}  // namespace

void Scenario::script_browse() {
    // Picked up from a table and read while walking: straight on, turned now and then
    // with the walker (left and right, by 20 to 120 degrees), stood still; put down
    // once or twice and picked up again; put down at the end.
    std::mt19937 &rng = script_rng_;
    hand_ = HandWander(rng);
    double heading = uniform(rng, 0, 360), in_hand = 0;
    auto pick_up = [&] {
        add(Segment::Move, "picked up", 1.5, Pose{heading, hand_.reading_pitch_deg(), 0});
        in_hand = duration_s_;
    };
    add(Segment::Hold, "on table", 3, Pose{heading, 0, 0});
    pick_up();
    std::vector<double> put_downs{uniform(rng, 35, 70)};
    if (std::uniform_int_distribution<int>(0, 1)(rng) == 1) put_downs.push_back(uniform(rng, 100, 140));
    const double reading_ends = kBrowseS - 1.5 - 4;  // the last put-down and the phone at rest
    int lefts = 0, rights = 0;
    bool turned = false;  // the walker walks on (or stops) between turns
    while (duration_s_ < reading_ends - 0.5) {
        const double left_s = reading_ends - duration_s_;
        if (!put_downs.empty() && duration_s_ >= put_downs.front()) {
            put_downs.erase(put_downs.begin());
            add(Segment::Move, "put down", 1.5, Pose{heading, 0, 0});
            add(Segment::Hold, "on table", uniform(rng, 3, 8), Pose{heading, 0, 0});
            pick_up();
            continue;
        }
        // Both ways round before a minute is left.
        const bool must_turn = left_s < 60 && (lefts == 0 || rights == 0);
        const double pick = must_turn ? 0.0 : uniform(rng, turned ? 0.35 : 0.0, 1);
        turned = false;
        if (pick < 0.35) {
            const double side = must_turn ? (lefts == 0 ? -1 : 1) : (uniform(rng, 0, 1) < 0.5 ? -1 : 1);
            const double angle = side * uniform(rng, 20, 120), rate = uniform(rng, 8, kBrowseMaxTurnRateDeg);
            const double d = std::fabs(angle) / rate;
            if (d <= left_s) {
                add_browse(side < 0 ? "turning left while reading" : "turning right while reading", d, heading,
                           heading + angle, true, in_hand);
                heading += angle;
                (side < 0 ? lefts : rights)++;
                turned = true;
                continue;
            }
        }
        const bool walking = pick < 0.8;
        const double d = std::min(walking ? uniform(rng, 6, 18) : uniform(rng, 4, 10), left_s);
        add_browse(walking ? "reading while walking" : "reading while standing", d, heading, heading, walking, in_hand);
    }
    if (duration_s_ < reading_ends)
        add_browse("reading while standing", reading_ends - duration_s_, heading, heading, false, in_hand);
    add(Segment::Move, "put down", 1.5, Pose{heading, 0, 0});
    add(Segment::Hold, "on table", kBrowseS - duration_s_, Pose{heading, 0, 0});
}

void Scenario::script_car() {
    // A short figure-eight in the hand, then into the mount, where the car's field
    // joins the phone's own; the drive; parked.
    const double heading = uniform(script_rng_, 0, 360);
    drive_ = Drive(script_rng_, heading);
    const Pose in_hand{heading + uniform(script_rng_, -40, 40), -30, 0};
    draw_mount();
    add(Segment::Hold, "in hand", 2, in_hand);
    add(Segment::FigureEight, "figure-eight in hand", 12, in_hand);  // three loops, back level
    add(Segment::Move, "mounting", 3, mount_pose(drive_.at(0)));
    mounted_s_ = duration_s_;
    add(Segment::Hold, "mounted", 3, mount_pose(drive_.at(0)));
    add_drive();
}

void Scenario::script_car_fresh() {
    const double heading = uniform(script_rng_, 0, 360);
    drive_ = Drive(script_rng_, heading);
    draw_mount();
    mounted_s_ = 0;
    add(Segment::Hold, "mounted", 5, mount_pose(drive_.at(0)));
    add_drive();
}

void Scenario::draw_mount() {
    mount_tilt_deg_ = uniform(script_rng_, kMountTiltMinDeg, kMountTiltMaxDeg);
    mount_swivel_deg_ = uniform(script_rng_, -kMountSwivelMaxDeg, kMountSwivelMaxDeg);
}

void Scenario::add_drive() {
    drive_from_s_ = duration_s_;
    for (const DriveLeg &leg : drive_.legs()) {
        const Pose from = mount_pose(drive_.at(leg.start_s)), to = mount_pose(drive_.at(leg.start_s + leg.duration_s));
        script_.push_back(Segment{Segment::Driving, leg.phase, leg.duration_s, from, to});
        duration_s_ += leg.duration_s;
    }
    add(Segment::Hold, "parked", 5, mount_pose(drive_.at(drive_.duration_s())));
}

void Scenario::add_browse(const char *phase, double d, double heading_from, double heading_to, bool walking,
                          double in_hand_s) {
    const double p = hand_.reading_pitch_deg();
    Segment seg{Segment::Reading, phase, d, Pose{heading_from, p, 0}, Pose{heading_to, p, 0}};
    seg.walking = walking;
    seg.in_hand_s = in_hand_s;
    script_.push_back(seg);
    duration_s_ += d;
}

}  // namespace vphone::scene
