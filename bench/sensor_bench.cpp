// Ray-casting sensors on a robot in a cluttered scene: how many rays per second
// one core casts for a 640 x 480 depth camera and a 16-channel lidar at 1024
// yaw samples, against primitive shapes on a ground plane and against a height
// map, and what a step costs while the sensors are not due.
//
//   vorsim_sensor_bench [--reps N] [--scenes ph]
//
// Every figure is the median of N timed repetitions (default 5) on one thread.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "vorsim/World.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/object/HeightMap.hpp"
#include "vorsim/object/Primitives.hpp"
#include "vorsim/object/TerrainGenerator.hpp"
#include "vorsim/sensors/DepthCamera.hpp"
#include "vorsim/sensors/SpinningLidar.hpp"

using namespace vorsim;
using Clock = std::chrono::steady_clock;

namespace {

// A fixed-base rover: a body with a box hull, a mast, and on the mast a depth
// camera (640 x 480, 90 degrees, 20 m) and a lidar (1024 x 16, -15 to +15
// degrees, 0.3 to 60 m, 10 turns per second). The cameras' rates are
// irrelevant here except for the not-due measurement: both are far slower than
// the step.
std::string roverUrdf(double baseHeight, bool withSensors) {
  const std::string sensors = withSensors ? R"(
    <sensor type="depth" name="depth" update_rate="15">
      <origin xyz="0.3 0 0.6" rpy="0 0.25 0"/><data/>
      <camera horizontal_fov="1.5707963267948966"><image width="640" height="480"/>
        <clip near="0.1" far="20"/><noise type="none" mean="0" stddev="0"/></camera>
    </sensor>
    <sensor type="spinning_lidar" name="lidar" update_rate="10">
      <origin xyz="0 0 0.8"/>
      <yaw samples="1024"/><pitch samples="16" min_angle="-0.2617993877991494" max_angle="0.2617993877991494"/>
      <range min="0.3" max="60"/><spin direction="counter" rate="10"/>
    </sensor>)"
                                          : "";
  return R"(<?xml version="1.0"?><robot name="rover"><link name="world"/>
<joint name="mount" type="fixed"><parent link="world"/><child link="base"/><origin xyz="0 0 )" +
         std::to_string(baseHeight) + R"("/></joint>
<link name="base"><inertial><mass value="20"/><inertia ixx="1" iyy="1" izz="1"/></inertial>
  <collision><geometry><box size="0.8 0.5 0.3"/></geometry></collision>
  <collision><origin xyz="0 0 0.45"/><geometry><cylinder radius="0.05" length="0.6"/></geometry></collision>)" +
         sensors + "</link></robot>";
}

struct Lcg {  // a fixed scene on every platform
  uint64_t s = 0x9E3779B97F4A7C15ull;
  double next() {
    s = s * 6364136223846793005ull + 1442695040888963407ull;
    return double(s >> 11) * (1.0 / 9007199254740992.0);
  }
  double in(double lo, double hi) { return lo + (hi - lo) * next(); }
};

// 200 static primitives (boxes, spheres, capsules, cylinders) scattered over a
// 40 m x 40 m square around the robot, none within 1.5 m of it.
void scatterPrimitives(World& world, double groundAt, int count) {
  Lcg rng;
  for (int n = 0; n < count; ++n) {
    double x, y;
    do {
      x = rng.in(-20, 20);
      y = rng.in(-20, 20);
    } while (x * x + y * y < 1.5 * 1.5);
    const double a = rng.in(0.2, 1.2), b = rng.in(0.2, 1.2), c = rng.in(0.2, 2.0);
    SingleBodyObject* body = nullptr;
    switch (n % 4) {
      case 0:
        body = world.addBox(a, b, c, 1.0);
        break;
      case 1:
        body = world.addSphere(0.5 * a, 1.0);
        break;
      case 2:
        body = world.addCapsule(0.3 * a, c, 1.0);
        break;
      default:
        body = world.addCylinder(0.5 * a, c, 1.0);
        break;
    }
    body->setBodyType(STATIC);
    const double yaw = rng.in(0, 2 * M_PI), tilt = rng.in(-0.4, 0.4);
    body->setOrientation(Eigen::Matrix3d(Eigen::AngleAxisd(yaw, Eigen::Vector3d::UnitZ()) *
                                         Eigen::AngleAxisd(tilt, Eigen::Vector3d::UnitX())));
    body->setPosition(x, y, groundAt + 0.5 * c);
  }
}

struct Scene {
  const char* name;
  const char* description;
  void (*build)(World& world);
  double baseHeight;
};

void buildPrimitives(World& world) {
  world.addGround(0.0);
  scatterPrimitives(world, 0.0, 200);
}

void buildTerrain(World& world) {
  // 60 m x 60 m of fractal terrain on a 240 x 240 grid, heights within a
  // few metres, and 60 primitives on and in it; the robot's base stands 3.5 m
  // up at the centre.
  TerrainProperties terrain(0.08, 60.0, 60.0, 3.0, 240, 240, 5, 2.0, 0.5, 0.0, 0.0, 7);
  world.addHeightMap(0.0, 0.0, terrain);
  scatterPrimitives(world, 1.5, 60);
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

struct SensorFigures {
  double depthRaysPerSecond, depthBest, depthHitFraction;
  double lidarRaysPerSecond, lidarBest, lidarHitFraction;
  double stepNotDueUs, stepWithoutSensorsUs;
};

SensorFigures measure(const Scene& scene, int reps) {
  SensorFigures f{};
  World world;
  world.setTimeStep(0.001);
  scene.build(world);
  ArticulatedSystem* rover = world.addArticulatedSystem(roverUrdf(scene.baseHeight, true));
  auto depth = rover->getSensor<DepthCamera>("base:depth");
  auto lidar = rover->getSensor<SpinningLidar>("base:lidar");
  depth->setMeasurementSource(Sensor::SIMULATOR);
  world.integrate();  // geoms in place

  // Depth camera: one full image per repetition.
  std::vector<double> depthTimes;
  for (int r = 0; r < reps; ++r) {
    const auto t0 = Clock::now();
    depth->update(world);
    depthTimes.push_back(std::chrono::duration<double>(Clock::now() - t0).count());
  }
  const double depthRays = 640.0 * 480.0;
  f.depthRaysPerSecond = depthRays / median(depthTimes);
  f.depthBest = depthRays / *std::min_element(depthTimes.begin(), depthTimes.end());
  size_t hits = 0;
  for (float d : depth->getDepthArray()) hits += !std::isnan(d);
  f.depthHitFraction = double(hits) / depthRays;

  // Lidar: a full turn per repetition (0.1 s of spin at 10 turns per second),
  // split into ten updates as a 100 Hz sensor would cast it.
  std::vector<double> lidarTimes;
  size_t lidarHits = 0, lidarRays = 0;
  for (int r = 0; r < reps; ++r) {
    double seconds = 0.0;
    lidarHits = 0;
    lidarRays = 0;
    for (int u = 0; u < 10; ++u) {
      world.setWorldTime(world.getWorldTime() + 0.01);
      const double yawBefore = lidar->getYawAngle();
      const auto t0 = Clock::now();
      lidar->update(world);
      seconds += std::chrono::duration<double>(Clock::now() - t0).count();
      lidarHits += lidar->getScan().size();
      // Columns passed in this update, from the angles before and after.
      double yawAfter = lidar->getYawAngle();
      if (yawAfter < yawBefore) yawAfter += 2 * M_PI;
      const double step = 2 * M_PI / 1024;
      lidarRays += size_t(std::floor(yawAfter / step) - std::ceil(yawBefore / step) + 1) * 16;
    }
    lidarTimes.push_back(seconds);
  }
  f.lidarRaysPerSecond = double(lidarRays) / median(lidarTimes);
  f.lidarBest = double(lidarRays) / *std::min_element(lidarTimes.begin(), lidarTimes.end());
  f.lidarHitFraction = double(lidarHits) / double(lidarRays);

  // Steps while neither sensor is due, against the same world with a robot
  // without sensors.
  auto stepCost = [&](World& w, ArticulatedSystem* robot) {
    std::vector<double> times;
    for (int r = 0; r < reps; ++r) {
      const auto t0 = Clock::now();
      for (int s = 0; s < 50; ++s) {
        w.integrate();
        robot->updateSensorsIfNecessary(w);
      }
      times.push_back(std::chrono::duration<double>(Clock::now() - t0).count() / 50 * 1e6);
    }
    return median(times);
  };
  depth->setLastUpdateTime(1e9);  // not due for the rest of the run
  lidar->setLastUpdateTime(1e9);
  f.stepNotDueUs = stepCost(world, rover);
  World bare;
  bare.setTimeStep(0.001);
  scene.build(bare);
  ArticulatedSystem* plain = bare.addArticulatedSystem(roverUrdf(scene.baseHeight, false));
  f.stepWithoutSensorsUs = stepCost(bare, plain);
  return f;
}

}  // namespace

int main(int argc, char** argv) {
  int reps = 5;
  std::string scenes = "ph";
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--reps") && i + 1 < argc)
      reps = std::max(1, std::atoi(argv[++i]));
    else if (!std::strcmp(argv[i], "--scenes") && i + 1 < argc)
      scenes = argv[++i];
    else {
      std::fprintf(stderr, "usage: %s [--reps N] [--scenes ph]\n", argv[0]);
      return 2;
    }
  }
  const Scene all[] = {
      {"p", "200 primitives on a ground plane", buildPrimitives, 0.2},
      {"h", "60 x 60 m height map (240 x 240) with 60 primitives", buildTerrain, 3.5},
  };
  std::printf("| scene | sensor | rays/update | Mrays/s (1 core), median | best | hit fraction |\n");
  std::printf("|---|---|---|---|---|---|\n");
  std::vector<std::pair<const Scene*, SensorFigures>> results;
  for (const Scene& s : all) {
    if (scenes.find(s.name[0]) == std::string::npos) continue;
    const SensorFigures f = measure(s, reps);
    results.emplace_back(&s, f);
    std::printf("| %s: %s | depth 640x480 | 307200 | %.2f | %.2f | %.3f |\n", s.name, s.description,
                f.depthRaysPerSecond / 1e6, f.depthBest / 1e6, f.depthHitFraction);
    std::printf("| %s: %s | lidar 1024x16, one turn | 16384 | %.2f | %.2f | %.3f |\n", s.name, s.description,
                f.lidarRaysPerSecond / 1e6, f.lidarBest / 1e6, f.lidarHitFraction);
    std::fflush(stdout);
  }
  std::printf("\n| scene | step, sensors not due (us) | step, same robot without sensors (us) |\n|---|---|---|\n");
  for (const auto& [s, f] : results)
    std::printf("| %s | %.2f | %.2f |\n", s->name, f.stepNotDueUs, f.stepWithoutSensorsUs);
  return 0;
}
