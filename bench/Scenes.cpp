// The five benchmark scenes and their error measures. Every measure reads body
// positions and velocities only, so it is computed the same way for every
// engine and does not depend on how an engine reports its contacts.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

#include "Scene.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/HeightMap.hpp"

namespace vorsim_bench {

namespace {

constexpr double kG = 9.81;

// A small deterministic generator, so that the jitter is the same in every
// run and on every machine.
class Lcg {
 public:
  explicit Lcg(uint64_t seed) : state_(seed) {}
  // Uniform in [-1, 1).
  double symmetric() {
    state_ = state_ * 6364136223846793005ULL + 1442695040888963407ULL;
    return double(state_ >> 11) * (2.0 / 9007199254740992.0) - 1.0;
  }

 private:
  uint64_t state_;
};

BodyDesc sphere(double r, double m, double x, double y, double z) {
  BodyDesc b;
  b.shape = ShapeKind::Sphere;
  b.radius = r;
  b.mass = m;
  b.pos[0] = x;
  b.pos[1] = y;
  b.pos[2] = z;
  return b;
}

BodyDesc box(double edge, double m, double x, double y, double z) {
  BodyDesc b;
  b.shape = ShapeKind::Box;
  b.dims[0] = b.dims[1] = b.dims[2] = edge;
  b.mass = m;
  b.pos[0] = x;
  b.pos[1] = y;
  b.pos[2] = z;
  return b;
}

WallDesc wall(double lx, double ly, double lz, double x, double y, double z) {
  WallDesc w;
  w.dims[0] = lx;
  w.dims[1] = ly;
  w.dims[2] = lz;
  w.pos[0] = x;
  w.pos[1] = y;
  w.pos[2] = z;
  return w;
}

double dist(const double* a, const double* b) {
  const double dx = a[0] - b[0], dy = a[1] - b[1], dz = a[2] - b[2];
  return std::sqrt(dx * dx + dy * dy + dz * dz);
}

// ---------------------------------------------------------------- scene a --

SceneDesc restingSphere() {
  SceneDesc s;
  s.key = "a";
  s.title = "one sphere resting on the ground";
  s.friction = 0.5;
  s.bodies.push_back(sphere(0.1, 1.0, 0, 0, 0.1));
  s.steps = 21000;
  s.windows = {{"resting, 1-21 s", 1000, 21000}};
  s.contactWindowBegin = 1000;
  return s;
}

// Largest ground penetration (radius minus centre height) from step `from` on.
class RestingMonitor : public Monitor {
 public:
  RestingMonitor(double radius, int from) : radius_(radius), from_(from) {}
  void observe(const Engine& e, int step) override {
    if (step < from_) return;
    double p[3];
    e.position(0, p);
    const double pen = radius_ - p[2];
    maxPen_ = std::max(maxPen_, pen);
    last_ = pen;
    double v[3];
    e.velocity(0, v);
    maxSpeed_ = std::max(maxSpeed_, std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]));
  }
  PhysicsResult result() const override {
    PhysicsResult r;
    r.figure = "max penetration [mm]";
    r.value = maxPen_ * 1e3;
    r.details = {{"final_penetration_mm", last_ * 1e3}, {"max_speed_m_per_s", maxSpeed_}};
    return r;
  }

 private:
  double radius_;
  int from_;
  double maxPen_ = -std::numeric_limits<double>::infinity();
  double last_ = 0.0;
  double maxSpeed_ = 0.0;
};

// ---------------------------------------------------------------- scene b --

constexpr double kBinHalf = 1.0;  // inner half-width of the bin
constexpr double kWallThick = 0.2;
constexpr double kWallHeight = 2.6;

SceneDesc sphereBin() {
  SceneDesc s;
  s.key = "b";
  s.title = "666 spheres poured into a 2 m x 2 m bin";
  s.friction = 0.5;
  // Four walls around the inner square [-1, 1]^2, overlapping at the corners.
  const double c = kBinHalf + 0.5 * kWallThick, len = 2 * kBinHalf + 2 * kWallThick, h = 0.5 * kWallHeight;
  s.walls.push_back(wall(kWallThick, len, kWallHeight, c, 0, h));
  s.walls.push_back(wall(kWallThick, len, kWallHeight, -c, 0, h));
  s.walls.push_back(wall(len, kWallThick, kWallHeight, 0, c, h));
  s.walls.push_back(wall(len, kWallThick, kWallHeight, 0, -c, h));

  // A 9 x 9 grid per layer with 0.22 m pitch and +-8 mm of horizontal jitter
  // (no two spheres overlap), layers 0.22 m apart from z = 0.3 up.
  Lcg rng(12345);
  const int n = 666, perRow = 9;
  const double pitch = 0.22, layerPitch = 0.22, jitter = 0.008;
  for (int k = 0; k < n; ++k) {
    const int layer = k / (perRow * perRow), inLayer = k % (perRow * perRow);
    const int ix = inLayer % perRow, iy = inLayer / perRow;
    const double x = (ix - 0.5 * (perRow - 1)) * pitch + jitter * rng.symmetric();
    const double y = (iy - 0.5 * (perRow - 1)) * pitch + jitter * rng.symmetric();
    const double z = 0.3 + layer * layerPitch;
    s.bodies.push_back(sphere(0.1, 1.0, x, y, z));
  }
  s.steps = 3000;
  s.windows = {{"whole run, 0-3 s", 0, 3000}, {"settled, 2-3 s", 2000, 3000}};
  s.contactWindowBegin = 2000;
  return s;
}

// Largest sphere-ground, sphere-sphere and sphere-wall penetrations, over the
// settled part [from, end) and over the whole run.
class BinMonitor : public Monitor {
 public:
  BinMonitor(size_t n, double radius, int from, int last)
      : n_(n), r_(radius), from_(from), last_(last), pos_(3 * n), order_(n) {}

  void observe(const Engine& e, int step) override {
    for (size_t i = 0; i < n_; ++i) e.position(i, &pos_[3 * i]);
    double ground = -1e9, pair = -1e9, wallPen = -1e9;
    for (size_t i = 0; i < n_; ++i) {
      const double* p = &pos_[3 * i];
      ground = std::max(ground, r_ - p[2]);
      // Inner faces of the walls at x, y = +-kBinHalf.
      const double gap = kBinHalf - std::max(std::abs(p[0]), std::abs(p[1]));
      if (p[2] < kWallHeight) wallPen = std::max(wallPen, r_ - gap);
    }
    // Sweep along x: only pairs closer than a diameter in x can overlap.
    std::iota(order_.begin(), order_.end(), size_t(0));
    std::sort(order_.begin(), order_.end(), [&](size_t a, size_t b) { return pos_[3 * a] < pos_[3 * b]; });
    for (size_t a = 0; a < n_; ++a) {
      const double* pa = &pos_[3 * order_[a]];
      for (size_t b = a + 1; b < n_; ++b) {
        const double* pb = &pos_[3 * order_[b]];
        if (pb[0] - pa[0] > 2 * r_) break;
        pair = std::max(pair, 2 * r_ - dist(pa, pb));
      }
    }
    whole_.update(ground, pair, wallPen);
    if (step >= from_) settled_.update(ground, pair, wallPen);
    if (step == last_) {
      double ke = 0.0;
      escaped_ = 0;
      for (size_t i = 0; i < n_; ++i) {
        double v[3];
        e.velocity(i, v);
        ke += 0.5 * (v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        const double* p = &pos_[3 * i];
        if (std::abs(p[0]) > kBinHalf || std::abs(p[1]) > kBinHalf || p[2] < 0) ++escaped_;
        maxHeight_ = std::max(maxHeight_, p[2]);
      }
      finalKinetic_ = ke;
    }
  }

  PhysicsResult result() const override {
    PhysicsResult r;
    r.figure = "max penetration, settled [mm]";
    r.value = std::max(settled_.ground, settled_.pair) * 1e3;
    r.details = {{"settled_ground_mm", settled_.ground * 1e3},  {"settled_sphere_sphere_mm", settled_.pair * 1e3},
                 {"settled_wall_mm", settled_.wall * 1e3},      {"whole_ground_mm", whole_.ground * 1e3},
                 {"whole_sphere_sphere_mm", whole_.pair * 1e3}, {"whole_wall_mm", whole_.wall * 1e3},
                 {"final_kinetic_energy_J", finalKinetic_},     {"final_top_centre_height_m", maxHeight_},
                 {"escaped_spheres", double(escaped_)}};
    return r;
  }

 private:
  struct Maxima {
    double ground = -1e9, pair = -1e9, wall = -1e9;
    void update(double g, double p, double w) {
      ground = std::max(ground, g);
      pair = std::max(pair, p);
      wall = std::max(wall, w);
    }
  };
  size_t n_;
  double r_;
  int from_, last_;
  std::vector<double> pos_;
  std::vector<size_t> order_;
  Maxima whole_, settled_;
  double finalKinetic_ = 0.0, maxHeight_ = 0.0;
  int escaped_ = 0;
};

// ---------------------------------------------------------------- scene c --

constexpr int kPyramidRows = 10;

SceneDesc boxPyramid() {
  SceneDesc s;
  s.key = "c";
  s.title = "pyramid of 55 boxes (10 rows), 5 s";
  s.friction = 0.6;
  // 0.2 m cubes of 1 kg, 2 cm apart in a row, every row resting on the two
  // boxes below it; the faces touch at t = 0.
  const double edge = 0.2, pitch = 0.22;
  for (int row = 0; row < kPyramidRows; ++row) {
    const int count = kPyramidRows - row;
    for (int k = 0; k < count; ++k) {
      const double x = (k - 0.5 * (count - 1)) * pitch;
      s.bodies.push_back(box(edge, 1.0, x, 0, 0.5 * edge + row * edge));
    }
  }
  s.steps = 5000;
  s.windows = {{"5 s", 0, 5000}};
  s.contactWindowBegin = 0;
  return s;
}

// Largest displacement of any box between t = 0 and the end, and also from
// t = 1 s (after the first settling) to the end.
class DriftMonitor : public Monitor {
 public:
  DriftMonitor(const SceneDesc& s, int settledStep, int last)
      : n_(s.bodies.size()), settledStep_(settledStep), last_(last), start_(3 * n_), settled_(3 * n_) {
    for (size_t i = 0; i < n_; ++i)
      for (int k = 0; k < 3; ++k) start_[3 * i + k] = s.bodies[i].pos[k];
  }
  void observe(const Engine& e, int step) override {
    if (step == settledStep_)
      for (size_t i = 0; i < n_; ++i) e.position(i, &settled_[3 * i]);
    if (step != last_) return;
    for (size_t i = 0; i < n_; ++i) {
      double p[3];
      e.position(i, p);
      const double d0 = dist(p, &start_[3 * i]);
      if (d0 > maxFromStart_) {
        maxFromStart_ = d0;
        worst_ = i;
      }
      maxFromSettled_ = std::max(maxFromSettled_, dist(p, &settled_[3 * i]));
      if (i + 1 == n_) topDrop_ = start_[3 * i + 2] - p[2];
    }
  }
  PhysicsResult result() const override {
    PhysicsResult r;
    r.figure = "max box drift after 5 s [mm]";
    r.value = maxFromStart_ * 1e3;
    r.details = {{"max_drift_from_t1s_mm", maxFromSettled_ * 1e3},
                 {"worst_box_index", double(worst_)},
                 {"top_box_sink_mm", topDrop_ * 1e3}};
    return r;
  }

 private:
  size_t n_;
  int settledStep_, last_;
  std::vector<double> start_, settled_;
  double maxFromStart_ = 0.0, maxFromSettled_ = 0.0, topDrop_ = 0.0;
  size_t worst_ = 0;
};

// ---------------------------------------------------------------- scene d --

constexpr double kSlideV0 = 3.0;
constexpr double kSlideMu = 0.5;

SceneDesc slidingBox() {
  SceneDesc s;
  s.key = "d";
  s.title = "box sliding, mu 0.5, v0 3 m/s";
  s.friction = kSlideMu;
  BodyDesc b = box(0.2, 1.0, 0, 0, 0.1);
  b.linVel[0] = kSlideV0;
  s.bodies.push_back(b);
  s.steps = 1500;
  s.windows = {{"1.5 s", 0, 1500}};
  s.contactWindowBegin = 0;
  return s;
}

// Sliding distance against v0^2 / (2 mu g).
class SlideMonitor : public Monitor {
 public:
  SlideMonitor(double dt, int last) : dt_(dt), last_(last) {}
  void observe(const Engine& e, int step) override {
    double v[3];
    e.velocity(0, v);
    const double speed = std::sqrt(v[0] * v[0] + v[1] * v[1]);
    if (stopTime_ < 0 && speed < 1e-2) stopTime_ = (step + 1) * dt_;
    if (step != last_) return;
    double p[3];
    e.position(0, p);
    distance_ = p[0];
    lateral_ = p[1];
    finalSpeed_ = speed;
  }
  PhysicsResult result() const override {
    const double exact = kSlideV0 * kSlideV0 / (2 * kSlideMu * kG);
    PhysicsResult r;
    r.figure = "stopping distance error [%]";
    r.value = std::abs(distance_ - exact) / exact * 100;
    r.details = {{"distance_m", distance_},
                 {"exact_distance_m", exact},
                 {"signed_error_percent", (distance_ - exact) / exact * 100},
                 {"stop_time_s", stopTime_},
                 {"exact_stop_time_s", kSlideV0 / (kSlideMu * kG)},
                 {"final_speed_m_per_s", finalSpeed_},
                 {"lateral_offset_m", lateral_}};
    return r;
  }

 private:
  double dt_;
  int last_;
  double distance_ = 0, lateral_ = 0, finalSpeed_ = 0, stopTime_ = -1;
};

// ---------------------------------------------------------------- scene e --

constexpr double kDropHeight = 1.0;
constexpr double kBounceE = 0.8;

SceneDesc bouncingSphere() {
  SceneDesc s;
  s.key = "e";
  s.title = "sphere bouncing, e 0.8, dropped from 1 m";
  s.friction = 0.5;
  s.restitution = kBounceE;
  s.bodies.push_back(sphere(0.1, 1.0, 0, 0, 0.1 + kDropHeight));
  s.steps = 1600;
  s.windows = {{"1.6 s", 0, 1600}};
  s.contactWindowBegin = 0;
  return s;
}

// Height of the lowest point of the sphere at the top of the first rebound,
// against e^2 h.
class BounceMonitor : public Monitor {
 public:
  explicit BounceMonitor(double radius) : r_(radius) {}
  void observe(const Engine& e, int) override {
    double p[3], v[3];
    e.position(0, p);
    e.velocity(0, v);
    if (phase_ == 0) {
      impactSpeed_ = std::max(impactSpeed_, -v[2]);
      if (v[2] > 0) phase_ = 1;
    }
    if (phase_ == 1) {
      apex_ = std::max(apex_, p[2] - r_);
      if (v[2] < 0) phase_ = 2;
    }
  }
  PhysicsResult result() const override {
    const double exact = kBounceE * kBounceE * kDropHeight;
    PhysicsResult r;
    r.figure = "rebound height error [%]";
    r.value = std::abs(apex_ - exact) / exact * 100;
    r.details = {{"rebound_height_m", apex_},
                 {"exact_rebound_height_m", exact},
                 {"signed_error_percent", (apex_ - exact) / exact * 100},
                 {"impact_speed_m_per_s", impactSpeed_},
                 {"rebound_complete", phase_ == 2 ? 1.0 : 0.0}};
    return r;
  }

 private:
  double r_;
  int phase_ = 0;
  double apex_ = 0.0, impactSpeed_ = 0.0;
};

// ---------------------------------------------------------- robot scenes --

SceneDesc robotScene(const std::string& key, const std::string& title, const RobotDesc& robot) {
  SceneDesc s;
  s.key = key;
  s.title = title;
  s.ground = false;
  s.hasRobot = true;
  s.robot = robot;
  s.steps = 2000;
  s.windows = {{robot.floating ? "in flight, 0-2 s" : "swinging, 0-2 s", 0, 2000}};
  return s;
}

// ANYmal B's standing pose, PD holding it; the same gains as the tests.
RobotDesc standingQuadruped() {
  RobotDesc r{"anymal_b/anymal.urdf", true, 0.5, 200.0, 10.0, 0.0};
  r.contact = true;
  const char* legs[4] = {"LF", "RF", "LH", "RH"};
  for (int l = 0; l < 4; ++l) {
    const double front = l < 2 ? 1.0 : -1.0, left = l % 2 == 0 ? 1.0 : -1.0;
    r.pose.push_back({std::string(legs[l]) + "_HAA", 0.03 * left});
    r.pose.push_back({std::string(legs[l]) + "_HFE", 0.4 * front});
    r.pose.push_back({std::string(legs[l]) + "_KFE", -0.8 * front});
  }
  return r;
}

SceneDesc quadrupedScene(const std::string& key, const std::string& title, double dropHeight, int steps,
                         int settledFrom) {
  SceneDesc s;
  s.key = key;
  s.title = title;
  s.friction = 0.8;
  s.hasRobot = true;
  s.robot = standingQuadruped();
  s.robot.placements = {{0.0, 0.0, 0.5 + dropHeight, 0.0}};
  s.steps = steps;
  s.windows = {{"whole run", 0, steps}, {"settled", settledFrom, steps}};
  s.contactWindowBegin = settledFrom;
  return s;
}

// Eight quadrupeds dropped in two layers into a 3 m x 2.4 m bin.
SceneDesc quadrupedBin() {
  SceneDesc s = quadrupedScene("h", "8 quadrupeds (ANYmal B) piled into a bin, PD control", 0.0, 4000, 2000);
  s.robot.placements.clear();
  for (int k = 0; k < 8; ++k) {
    const int layer = k / 4, c = k % 4;
    const double x = (c % 2 ? 0.55 : -0.55) + (layer ? 0.3 : 0.0), y = (c / 2 ? 0.5 : -0.5) + (layer ? 0.2 : 0.0);
    s.robot.placements.push_back({x, y, 0.55 + 0.8 * layer, layer ? 0.3 : 0.0});
  }
  const double lx = 3.0, ly = 2.4, h = 0.5, w = 0.1;
  s.walls = {{{w, ly + 2 * w, h}, {-(lx + w) / 2, 0, h / 2}},
             {{w, ly + 2 * w, h}, {(lx + w) / 2, 0, h / 2}},
             {{lx, w, h}, {0, -(ly + w) / 2, h / 2}},
             {{lx, w, h}, {0, (ly + w) / 2, h / 2}}};
  return s;
}

// The quadruped standing on generated rough terrain: 8 m x 8 m, 161 x 161
// samples (5 cm), bumps of some 10 cm. The heights are the library's terrain
// generator's, read back through the height map's own query at the sample
// points, so that both engines get the same numbers.
SceneDesc quadrupedOnTerrain() {
  SceneDesc s =
      quadrupedScene("i", "quadruped (ANYmal B) standing on generated rough terrain, PD control", 0.0, 5000, 1000);
  s.ground = false;
  vorsim::TerrainProperties p;
  p.frequency = 0.4;
  p.xSize = p.ySize = 8.0;
  p.zScale = 0.15;
  p.xSamples = p.ySamples = 161;
  p.fractalOctaves = 3;
  p.seed = 7;
  TerrainDesc& t = s.terrain;
  t.nx = p.xSamples;
  t.ny = p.ySamples;
  t.sx = p.xSize;
  t.sy = p.ySize;
  vorsim::World world;
  const vorsim::HeightMap* map = world.addHeightMap(0.0, 0.0, p);
  for (size_t r = 0; r < t.ny; ++r)
    for (size_t c = 0; c < t.nx; ++c) t.grid.push_back(map->getHeight(t.x(c), t.y(r)));
  // Standing height above the highest point under the robot: no foot starts
  // inside the terrain.
  double top = -INFINITY;
  for (size_t r = 0; r < t.ny; ++r)
    for (size_t c = 0; c < t.nx; ++c)
      if (std::abs(t.x(c)) < 0.6 && std::abs(t.y(r)) < 0.5) top = std::max(top, t.grid[r * t.nx + c]);
  s.robot.placements[0][2] = top + 0.5;
  return s;
}

std::vector<SceneDesc> robotScenes() {
  return {quadrupedScene("f", "quadruped (ANYmal B) standing on the ground, PD control", 0.0, 5000, 1000),
          quadrupedScene("g", "quadruped (ANYmal B) dropped from 0.5 m, settling, PD control", 0.5, 3000, 2000),
          quadrupedBin(),
          quadrupedOnTerrain(),
          robotScene("j", "floating quadruped (ANYmal B) in the air, PD control",
                     {"anymal_b/anymal.urdf", true, 1.0, 50.0, 1.0, 0.4}),
          robotScene("k", "fixed-base arm (Panda) swinging under gravity",
                     {"franka_panda/panda.urdf", false, 0.0, 0.0, 0.0, 0.5}),
          robotScene("l", "floating quadruped (Minitaur) in the air, PD control",
                     {"minitaur/minitaur.urdf", true, 1.0, 5.0, 0.1, 0.4}),
          robotScene("m", "floating humanoid in the air, PD control",
                     {"humanoid_mjcf_port/humanoid.urdf", true, 1.5, 100.0, 2.0, 0.3})};
}

// A free robot's centre of mass follows the ballistic path whatever its
// joints do: the largest distance from it, starting at rest.
class BallisticMonitor : public Monitor {
 public:
  BallisticMonitor(double dt, double g) : dt_(dt), g_(g) {}
  void observe(const Engine& e, int step) override {
    double c[3];
    e.position(0, c);
    if (step == 0) {
      // The first observation is one step after the start, from rest.
      for (int k = 0; k < 3; ++k) start_[k] = c[k];
      start_[2] -= 0.5 * g_ * dt_ * dt_;
    }
    const double t = dt_ * (step + 1);
    const double expected[3] = {start_[0], start_[1], start_[2] + 0.5 * g_ * t * t};
    worst_ = std::max(worst_, dist(c, expected));
  }
  PhysicsResult result() const override { return {"centre of mass off the ballistic path, largest (m)", worst_, {}}; }

 private:
  double dt_, g_;
  double start_[3] = {0, 0, 0};
  double worst_ = 0.0;
};

// Robots standing in contact: how far each base moves once settled, and how
// deep the contacts go. The figure is the largest base drift in the settled
// window (mm); penetration and the final base heights are details.
class StandingMonitor : public Monitor {
 public:
  StandingMonitor(size_t robots, int settledFrom) : from_(settledFrom), start_(robots), last_(robots) {}
  void observe(const Engine& e, int step) override {
    for (size_t k = 0; k < start_.size(); ++k) {
      e.position(k, last_[k].data());
      if (step == from_) start_[k] = last_[k];
      if (step >= from_) drift_ = std::max(drift_, dist(last_[k].data(), start_[k].data()));
    }
    const double p = e.deepestPenetration();
    if (step >= from_ && std::isfinite(p)) settledPenetration_ = std::max(settledPenetration_, p);
    if (std::isfinite(p)) penetration_ = std::max(penetration_, p);
    if (!std::isfinite(last_[0][2])) drift_ = NAN;
  }
  PhysicsResult result() const override {
    PhysicsResult r{"largest base drift once settled (mm)", 1e3 * drift_, {}};
    r.details = {{"settled_penetration_mm", 1e3 * settledPenetration_}, {"penetration_mm", 1e3 * penetration_}};
    double lowest = INFINITY;
    for (const auto& p : last_) lowest = std::min(lowest, p[2]);
    r.details.push_back({"lowest_final_base_height_m", lowest});
    return r;
  }

 private:
  int from_;
  std::vector<std::array<double, 3>> start_, last_;
  double drift_ = 0.0, penetration_ = 0.0, settledPenetration_ = 0.0;
};

// An undamped arm without control keeps its energy: the largest change.
class EnergyMonitor : public Monitor {
 public:
  void observe(const Engine& e, int step) override {
    const double energy = e.energy();
    if (step == 0) first_ = energy;
    worst_ = std::max(worst_, std::abs(energy - first_));
    if (!std::isfinite(energy)) worst_ = NAN;
  }
  PhysicsResult result() const override { return {"energy drift from step 1, largest (J)", worst_, {}}; }

 private:
  double first_ = 0.0, worst_ = 0.0;
};

}  // namespace

std::string robotFile(const RobotDesc& robot) { return std::string(VORSIM_BENCH_MODELS_DIR) + "/" + robot.file; }

std::string fixedBaseText(const std::string& urdf, const std::string& rootLink, double z) {
  const size_t end = urdf.find('>', urdf.find("<robot")) + 1;
  return urdf.substr(0, end) + "<link name=\"world\"/><joint name=\"bench_base\" type=\"fixed\"><origin xyz=\"0 0 " +
         std::to_string(z) + "\"/><parent link=\"world\"/><child link=\"" + rootLink + "\"/></joint>" +
         urdf.substr(end);
}

double robotJointStart(const RobotDesc& robot, std::vector<std::string> names, const std::string& name,
                       bool prismatic) {
  for (const auto& [joint, value] : robot.pose)
    if (joint == name) return value;
  if (robot.contact) return 0.0;
  std::sort(names.begin(), names.end());
  const size_t rank = size_t(std::find(names.begin(), names.end(), name) - names.begin());
  const double sign = rank % 2 == 0 ? 1.0 : -1.0;
  return sign * (prismatic ? 0.01 : robot.jointStart);
}

std::vector<SceneDesc> makeScenes() {
  std::vector<SceneDesc> scenes{restingSphere(), sphereBin(), boxPyramid(), slidingBox(), bouncingSphere()};
  for (SceneDesc& s : robotScenes()) scenes.push_back(s);
  return scenes;
}

std::unique_ptr<Monitor> makeMonitor(const SceneDesc& s) {
  const int last = s.steps - 1;
  if (s.hasRobot && s.robot.contact)
    return std::make_unique<StandingMonitor>(s.robot.placements.size(), s.windows.back().begin);
  if (s.hasRobot && s.robot.floating) return std::make_unique<BallisticMonitor>(s.dt, s.gravity);
  if (s.hasRobot) return std::make_unique<EnergyMonitor>();
  if (s.key == "a") return std::make_unique<RestingMonitor>(s.bodies[0].radius, s.windows[0].begin);
  if (s.key == "b") return std::make_unique<BinMonitor>(s.bodies.size(), s.bodies[0].radius, 2000, last);
  if (s.key == "c") return std::make_unique<DriftMonitor>(s, int(std::lround(1.0 / s.dt)) - 1, last);
  if (s.key == "d") return std::make_unique<SlideMonitor>(s.dt, last);
  return std::make_unique<BounceMonitor>(s.bodies[0].radius);
}

}  // namespace vorsim_bench
