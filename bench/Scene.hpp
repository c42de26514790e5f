// The engine-neutral description of a benchmark scene and the interface every
// engine adapter implements. A scene is a list of free bodies (spheres and
// boxes), optional static boxes (walls), an optional ground plane at z = 0 and
// one set of contact material numbers shared by every pair, so that each engine
// builds exactly the same geometry, masses and materials.
#ifndef VORSIM_BENCH_SCENE_HPP
#define VORSIM_BENCH_SCENE_HPP

#include <array>
#include <cmath>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vorsim_bench {

enum class ShapeKind { Sphere, Box };

struct BodyDesc {
  ShapeKind shape = ShapeKind::Sphere;
  double radius = 0.1;         // spheres
  double dims[3] = {0, 0, 0};  // boxes: full edge lengths
  double mass = 1.0;
  double pos[3] = {0, 0, 0};
  double linVel[3] = {0, 0, 0};
  double angVel[3] = {0, 0, 0};  // world frame
};

struct WallDesc {
  double dims[3] = {0, 0, 0};  // full edge lengths
  double pos[3] = {0, 0, 0};
};

// A stretch of steps [begin, end) whose stepping is timed on its own.
struct TimingWindow {
  std::string name;
  int begin = 0;
  int end = 0;
};

// A robot read from a file of models/ by every engine, with no ground and no
// contact: a free base in the air, its joints driven by PD control toward
// zero, or a fixed base under gravity alone. Joint j starts at
// +-jointStart, the sign alternating over the joint names in alphabetical
// order (the same in every engine, whatever order it keeps its joints in).
struct RobotDesc {
  RobotDesc() = default;
  RobotDesc(std::string file_, bool floating_, double baseHeight_, double kp_, double kd_, double jointStart_)
      : file(std::move(file_)),
        floating(floating_),
        baseHeight(baseHeight_),
        kp(kp_),
        kd(kd_),
        jointStart(jointStart_) {}

  std::string file;  // relative to models/
  bool floating = true;
  double baseHeight = 1.0;    // initial base height (free) or the base's height (fixed)
  double kp = 0.0, kd = 0.0;  // PD gains of every joint; 0 leaves the joints free
  double jointStart = 0.0;
  // Contact scenes: the robots touch the ground, the walls and each other but
  // not themselves; every joint starts at and is held toward `pose` (by
  // joint name), and one copy stands at each placement (x, y, base height,
  // yaw), at rest.
  bool contact = false;
  std::vector<std::pair<std::string, double>> pose;
  std::vector<std::array<double, 4>> placements;
};

// A height field in place of the ground plane: grid[r * nx + c] is the height
// at x = -sx/2 + c sx/(nx-1), y = -sy/2 + r sy/(ny-1), centred at the origin.
struct TerrainDesc {
  size_t nx = 0, ny = 0;
  double sx = 0, sy = 0;
  std::vector<double> grid;
  double x(size_t c) const { return -0.5 * sx + sx * double(c) / double(nx - 1); }
  double y(size_t r) const { return -0.5 * sy + sy * double(r) / double(ny - 1); }
};

struct SceneDesc {
  std::string key;    // "a" .. "e"
  std::string title;  // one line for the table
  double dt = 0.001;
  double gravity = -9.81;
  double friction = 0.5;
  double restitution = 0.0;
  double restitutionThreshold = 0.1;  // m/s, engines that have one
  bool ground = true;
  std::vector<BodyDesc> bodies;
  std::vector<WallDesc> walls;
  int steps = 1000;                   // steps of one run, all of them timed in some window
  std::vector<TimingWindow> windows;  // the first one is the headline number
  int contactWindowBegin = 0;         // contacts per step are averaged over [this, steps)
  TerrainDesc terrain;                // used when grid is not empty (and ground is false)
  bool hasRobot = false;              // the scene is the robot alone
  RobotDesc robot;
};

// One engine holding one built scene.
class Engine {
 public:
  virtual ~Engine() = default;
  virtual std::string name() const = 0;
  // The settings in force, in words, for the table and the JSON file.
  virtual std::string settings() const = 0;
  // Builds the scene from nothing; called once per engine object.
  virtual void build(const SceneDesc& scene) = 0;
  virtual void step() = 0;
  // State of free body i (the index in SceneDesc::bodies) after the last step.
  // In a contact-free robot scene, index 0 is the robot's centre of mass; in a
  // robot contact scene, index k is the base of the k-th robot.
  virtual void position(size_t i, double out[3]) const = 0;
  virtual void velocity(size_t i, double out[3]) const = 0;
  // The deepest penetration of the last step's contacts (m); NaN where the
  // engine does not tell.
  virtual double deepestPenetration() const { return NAN; }
  // Contact points the engine worked with in the last step, as it counts them.
  virtual int contactCount() const = 0;
  // Iterations (sweeps) the contact solver made in the last step, or a
  // negative number when the engine does not tell.
  virtual int solverIterations() const { return -1; }
  // Kinetic plus potential energy of a robot scene (gravity only), after the
  // last step; NaN where the engine does not tell.
  virtual double energy() const { return NAN; }
  // Anything that went wrong that the numbers would not show (overflowed
  // buffers and the like); empty when all is well.
  virtual std::string warnings() const { return {}; }
};

// The five contact scenes a to e, the robot contact scenes f to h, then the
// contact-free robot scenes j to m.
std::vector<SceneDesc> makeScenes();

// The physical error figure of a scene, computed from the bodies' states only,
// the same way for every engine.
struct PhysicsResult {
  std::string figure;  // what the value is, with its unit
  double value = 0.0;  // the headline figure (smaller is better)
  std::vector<std::pair<std::string, double>> details;
};

class Monitor {
 public:
  virtual ~Monitor() = default;
  // Called after every step of the measuring run; `step` counts from 0.
  virtual void observe(const Engine& engine, int step) = 0;
  virtual PhysicsResult result() const = 0;
};

std::unique_ptr<Monitor> makeMonitor(const SceneDesc& scene);

// The robot's file, in the repository's models/ folder.
std::string robotFile(const RobotDesc& robot);
// The text of a robot file with its root link fixed to a "world" link at
// height z (what both engines read for a fixed base).
std::string fixedBaseText(const std::string& urdf, const std::string& rootLink, double z);
// Initial coordinate (and PD target) of the joint called `name` among `names`
// (all movable joints of the robot).
double robotJointStart(const RobotDesc& robot, std::vector<std::string> names, const std::string& name, bool prismatic);

}  // namespace vorsim_bench

#endif  // VORSIM_BENCH_SCENE_HPP
