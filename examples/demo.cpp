// The showcase: a walled bin on the ground, four quadrupeds standing in it
// under PD control, and some 600 spheres, boxes, capsules and cylinders of two
// materials poured over them, stepped for a few simulated seconds. It prints a
// progress bar and a summary, and writes the trajectory (see trajectory.hpp
// and docs/trajectory-format.md) for later playback.
//
//   vorsim_demo [--bodies N] [--robots N] [--seconds S] [--dt DT] [--out FILE]
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "trajectory.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/object/Primitives.hpp"

#ifndef VORSIM_MODELS_DIR
#define VORSIM_MODELS_DIR "models"
#endif

namespace {

struct Options {
  int bodies = 600;
  int robots = 4;
  double seconds = 4.0;
  double dt = 0.001;
  std::string out = "demo_trajectory.vtrj";
};

bool parse(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const bool hasValue = i + 1 < argc;
    if (a == "--bodies" && hasValue) {
      o.bodies = std::atoi(argv[++i]);
    } else if (a == "--robots" && hasValue) {
      o.robots = std::atoi(argv[++i]);
    } else if (a == "--seconds" && hasValue) {
      o.seconds = std::atof(argv[++i]);
    } else if (a == "--dt" && hasValue) {
      o.dt = std::atof(argv[++i]);
    } else if (a == "--out" && hasValue) {
      o.out = argv[++i];
    } else {
      std::fprintf(stderr, "usage: %s [--bodies N] [--robots N] [--seconds S] [--dt DT] [--out FILE]\n", argv[0]);
      return false;
    }
  }
  if (o.bodies < 0 || o.robots < 0 || o.robots > 4 || o.seconds <= 0 || o.dt <= 0) {
    std::fprintf(stderr, "bodies must not be negative, robots 0 to 4, seconds and dt positive\n");
    return false;
  }
  return true;
}

// A small deterministic generator, the same on every platform.
class Random {
 public:
  explicit Random(uint64_t seed) : s_(seed) {}
  double uniform(double lo, double hi) {
    s_ = s_ * 6364136223846793005ull + 1442695040888963407ull;
    return lo + (hi - lo) * double(s_ >> 11) * (1.0 / 9007199254740992.0);
  }

 private:
  uint64_t s_;
};

class ProgressBar {
 public:
  explicit ProgressBar(int total) : total_(total), tty_(isatty(STDOUT_FILENO)) {}
  void update(int done, double simTime) {
    const int percent = int(100.0 * done / total_);
    if (percent == last_ || (!tty_ && percent % 10 != 0)) return;
    last_ = percent;
    const int width = 40, filled = width * done / total_;
    std::printf("%s[%s%s] %3d%%  t = %.2f s%s", tty_ ? "\r" : "", std::string(size_t(filled), '#').c_str(),
                std::string(size_t(width - filled), '.').c_str(), percent, simTime, tty_ ? "" : "\n");
    std::fflush(stdout);
  }
  void finish() {
    if (tty_) std::printf("\n");
  }

 private:
  int total_;
  bool tty_;
  int last_ = -1;
};

}  // namespace

int main(int argc, char** argv) {
  Options opt;
  if (!parse(argc, argv, opt)) return 2;

  vorsim::World world;
  world.setTimeStep(opt.dt);
  // A mean squared velocity error of 1e-6 (m/s)^2 per contact ends the solver's
  // sweeps: a pile this size needs some 130 sweeps a step for the default 1e-8,
  // and 15-20 for this, with the same penetration.
  world.setContactSolverParam(1.0, 1.0, 1.0, 150, 1e-6);
  // Penetration is undone at erp times its depth per second: the default rate
  // of 0.3/s leaves a settled pile of this size some 15 mm deep, 10/s some 2 mm.
  world.setERP(10.0, 0.002);
  // Two materials on a common floor: grippy, bouncy rubber and slick steel.
  world.setMaterialPairProp("floor", "rubber", 0.9, 0.5, 0.3);
  world.setMaterialPairProp("floor", "steel", 0.4, 0.2, 0.3);
  world.setMaterialPairProp("rubber", "rubber", 1.0, 0.4, 0.3);
  world.setMaterialPairProp("steel", "steel", 0.3, 0.1, 0.3);
  world.setMaterialPairProp("rubber", "steel", 0.6, 0.3, 0.3);
  // The robots' shapes carry the material "default" of their description:
  // their feet grip the floor, the loose bodies slide off their backs.
  world.setMaterialPairProp("floor", "default", 0.8, 0.0, 0.3);
  world.setMaterialPairProp("rubber", "default", 0.6, 0.2, 0.3);
  world.setMaterialPairProp("steel", "default", 0.3, 0.1, 0.3);

  std::vector<trajectory::BodyInfo> table;
  std::vector<vorsim::SingleBodyObject*> bodies;  // what the trajectory records
  std::vector<size_t> bodyEntry;                  // each one's entry in the table
  world.addGround(0.0, "floor");
  table.push_back({vorsim::GROUND, 0, {0, 0, 0}});
  bodies.push_back(static_cast<vorsim::SingleBodyObject*>(world.getObjList().back()));
  bodyEntry.push_back(table.size() - 1);

  // The bin: 3 m x 3 m inside, walls 0.1 m thick and 0.6 m high.
  const double inner = 3.0, wall = 0.1, wallHeight = 0.6;
  for (int side = 0; side < 4; ++side) {
    const bool alongY = side < 2;
    const double sign = side % 2 ? 1.0 : -1.0, offset = sign * (inner + wall) / 2;
    const double lx = alongY ? wall : inner + 2 * wall, ly = alongY ? inner + 2 * wall : wall;
    auto* w = world.addBox(lx, ly, wallHeight, 100.0, "floor");
    w->setPosition(alongY ? offset : 0.0, alongY ? 0.0 : offset, wallHeight / 2);
    w->setBodyType(vorsim::STATIC);
    table.push_back({vorsim::BOX, 0, {lx, ly, wallHeight}});
    bodies.push_back(w);
    bodyEntry.push_back(table.size() - 1);
  }

  // The quadrupeds, one per quarter of the bin, a few centimetres above the
  // floor in their standing pose, PD holding it. Each robot has a collision
  // group of its own whose mask leaves that group out: its links, which
  // overlap at the hips, do not collide with each other, but with the other
  // robots and everything else they do.
  const std::string robotFile = std::string(VORSIM_MODELS_DIR) + "/anymal_b/anymal.urdf";
  const double standing[12] = {0.03, 0.4, -0.8, -0.03, 0.4, -0.8, 0.03, -0.4, 0.8, -0.03, -0.4, 0.8};
  std::vector<vorsim::ArticulatedSystem*> robots;
  std::vector<size_t> robotFirstEntry;
  for (int r = 0; r < opt.robots; ++r) {
    const size_t group = size_t(1) << (r + 1);
    auto* robot = world.addArticulatedSystem(robotFile, "", {}, group, vorsim::World::kAllBits & ~group);
    const double yaw = r % 2 ? M_PI / 2 : 0.0;
    vorsim::VecDyn gc(robot->gcDim), gv(robot->dof), kp(robot->dof), kd(robot->dof);
    gc.setZero();
    gv.setZero();
    gc[0] = r % 2 ? 0.75 : -0.75;
    gc[1] = r / 2 ? 0.75 : -0.75;
    gc[2] = 0.6;
    gc[3] = std::cos(yaw / 2);
    gc[6] = std::sin(yaw / 2);
    for (int j = 0; j < 12; ++j) gc[size_t(7 + j)] = standing[j];
    for (size_t j = 0; j < robot->dof; ++j) kp[j] = j < 6 ? 0.0 : 300.0, kd[j] = j < 6 ? 0.0 : 10.0;
    robot->setGeneralizedCoordinate(gc);
    robot->setGeneralizedVelocity(gv);
    robot->setControlMode(vorsim::ArticulatedSystem::PD_PLUS_FEEDFORWARD_TORQUE);
    robot->setPdGains(kp, kd);
    robot->setPdTarget(gc, gv);
    robots.push_back(robot);
    robotFirstEntry.push_back(table.size());
    trajectory::appendRobot(*robot, r, 3, table);
  }

  // The pour: a jittered column of mixed shapes above the bin and the robots.
  Random rng(20261121);
  const int perLayer = 100;
  for (int i = 0; i < opt.bodies; ++i) {
    const int layer = i / perLayer, k = i % perLayer;
    const bool rubber = i % 2 == 0;
    const char* material = rubber ? "rubber" : "steel";
    const double mass = rubber ? 0.4 : 1.2;
    vorsim::SingleBodyObject* b = nullptr;
    trajectory::BodyInfo info;
    info.material = rubber ? 1 : 2;
    switch (i % 4) {
      case 0:
        b = world.addSphere(0.07, mass, material);
        info = {vorsim::SPHERE, info.material, {0.07, 0, 0}};
        break;
      case 1:
        b = world.addBox(0.12, 0.1, 0.08, mass, material);
        info = {vorsim::BOX, info.material, {0.12, 0.1, 0.08}};
        break;
      case 2:
        b = world.addCapsule(0.045, 0.1, mass, material);
        info = {vorsim::CAPSULE, info.material, {0.045, 0.1, 0}};
        break;
      default:
        b = world.addCylinder(0.06, 0.1, mass, material);
        info = {vorsim::CYLINDER, info.material, {0.06, 0.1, 0}};
        break;
    }
    const double x = -1.26 + 0.28 * (k % 10) + rng.uniform(-0.03, 0.03);
    const double y = -1.26 + 0.28 * (k / 10) + rng.uniform(-0.03, 0.03);
    b->setPosition(x, y, 1.0 + 0.2 * layer + rng.uniform(0.0, 0.03));
    const Eigen::Vector3d axis(rng.uniform(-1, 1), rng.uniform(-1, 1), rng.uniform(-1, 1));
    b->setOrientation(Eigen::Quaterniond(Eigen::AngleAxisd(rng.uniform(0, M_PI), axis.normalized())));
    b->setVelocity(rng.uniform(-0.3, 0.3), rng.uniform(-0.3, 0.3), -1.0, 0, 0, 0);
    table.push_back(info);
    bodies.push_back(b);
    bodyEntry.push_back(table.size() - 1);
  }

  const double frameInterval = 1.0 / 60.0;
  trajectory::Writer writer(opt.out, table, frameInterval);
  if (!writer.ok()) {
    std::fprintf(stderr, "cannot write %s\n", opt.out.c_str());
    return 1;
  }
  std::vector<trajectory::Pose> poses(table.size());
  auto record = [&]() {
    for (size_t i = 0; i < bodies.size(); ++i)
      poses[bodyEntry[i]] = trajectory::makePose(bodies[i]->getPosition(), bodies[i]->getQuaternion());
    for (size_t r = 0; r < robots.size(); ++r) trajectory::robotPoses(*robots[r], poses, robotFirstEntry[r]);
    writer.frame(world.getWorldTime(), poses);
  };
  auto energy = [&]() {
    double e = 0.0;
    for (auto* b : bodies)
      if (b->getBodyType() == vorsim::DYNAMIC) e += b->getEnergy(world.getGravity());
    return e;
  };

  const int steps = int(std::lround(opt.seconds / opt.dt));
  const int frameEvery = std::max(1, int(std::lround(frameInterval / opt.dt)));
  std::printf("vorsim demo: %d quadrupeds (%s) and %d bodies in a bin, %.2f s at dt = %g s (%d steps)\n", opt.robots,
              robotFile.c_str(), opt.bodies, opt.seconds, opt.dt, steps);
  const double energyStart = energy();
  record();

  ProgressBar bar(steps);
  double contactSum = 0, sweepSum = 0, penetration = 0, robotPenetration = 0, settledPenetration = 0,
         noCylinderPenetration = 0;
  size_t contactMax = 0;
  int sweepMax = 0;
  double stepSeconds = 0;
  for (int s = 1; s <= steps; ++s) {
    const auto t0 = std::chrono::steady_clock::now();
    world.integrate();
    stepSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();

    const auto& problems = world.getContactProblem();
    contactSum += double(problems.size());
    contactMax = std::max(contactMax, problems.size());
    sweepSum += world.getContactSolver().getLoopCounter();
    sweepMax = std::max(sweepMax, world.getContactSolver().getLoopCounter());
    // Penetration by contact record, so that the shapes of both sides are known.
    double deepest = 0;
    const auto& objects = world.getObjList();
    for (const vorsim::Object* o : objects) {
      for (const vorsim::Contact& c : o->getContacts()) {
        deepest = std::max(deepest, -c.depth);
        if (o->getObjectType() == vorsim::ARTICULATED_SYSTEM && world.getWorldTime() > opt.seconds - 1.0)
          robotPenetration = std::max(robotPenetration, -c.depth);
        if (o->getObjectType() != vorsim::CYLINDER && objects[c.pairObjectIndex]->getObjectType() != vorsim::CYLINDER)
          noCylinderPenetration = std::max(noCylinderPenetration, -c.depth);
      }
    }
    penetration = std::max(penetration, deepest);
    if (world.getWorldTime() > opt.seconds - 1.0) settledPenetration = std::max(settledPenetration, deepest);
    if (s % frameEvery == 0) record();
    bar.update(s, world.getWorldTime());
  }
  bar.finish();

  const double energyEnd = energy();
  std::printf("\nSummary\n");
  std::printf("  steps per second       %.0f  (%.3f ms per step, %.1fx real time)\n", steps / stepSeconds,
              1e3 * stepSeconds / steps, opt.seconds / stepSeconds);
  std::printf("  contacts per step      %.1f on average, %zu at most\n", contactSum / steps, contactMax);
  std::printf("  solver sweeps per step %.1f on average, %d at most\n", sweepSum / steps, sweepMax);
  std::printf("  loose bodies' energy   %.2f J at the start, %.2f J at the end\n", energyStart, energyEnd);
  std::printf("  largest penetration    %.2f mm over the run, %.2f mm in the last second;\n", 1e3 * penetration,
              1e3 * settledPenetration);
  std::printf("                         %.2f mm over the run in contacts without a cylinder\n",
              1e3 * noCylinderPenetration);
  if (!robots.empty())
    std::printf("                         %.2f mm in the last second in the robots' contacts\n",
                1e3 * robotPenetration);
  for (size_t r = 0; r < robots.size(); ++r) {
    const auto& gc = robots[r]->getGeneralizedCoordinate();
    std::printf("  robot %zu base            at (%.3f, %.3f), %.3f m high (stood at 0.6 m), %zu contacts\n", r, gc[0],
                gc[1], gc[2], robots[r]->getContacts().size());
  }
  std::printf("  trajectory             %s (%zu shapes, %d frames)\n", opt.out.c_str(), table.size(),
              steps / frameEvery + 1);
  return 0;
}
