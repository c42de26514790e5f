// Sensors on robots: timing, depth images and lidar scans against analytic scenes, the inertial unit
// against known motions, records read back by an independent reader, look-ups and bad input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <set>
#include <tuple>

#include "test_helpers.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/object/Primitives.hpp"
#include "vorsim/sensors/DepthCamera.hpp"
#include "vorsim/sensors/InertialMeasurementUnit.hpp"
#include "vorsim/sensors/RGBSensor.hpp"
#include "vorsim/sensors/SpinningLidar.hpp"

using namespace vorsim;

namespace {

constexpr double kPi = 3.14159265358979323846;
const std::string kAtOrigin = "xyz=\"0 0 0\"";

Eigen::Vector3d E(const Mat<3, 1>& m) { return m.e(); }
Eigen::Matrix3d E(const Mat<3, 3>& m) { return m.e(); }

// A fixed-base robot whose base sits at `origin` (URDF origin attributes) and
// carries `content` (inertial, collisions, sensors) on its base link.
std::string fixedRobot(const std::string& origin, const std::string& content) {
  return R"(<?xml version="1.0"?><robot name="r"><link name="world"/>
<joint name="mount" type="fixed"><parent link="world"/><child link="base"/><origin )" +
         origin + R"(/></joint>
<link name="base"><inertial><mass value="1"/><inertia ixx="0.1" iyy="0.1" izz="0.1"/></inertial>)" +
         content + "</link></robot>";
}

std::string depthSensor(const std::string& name, const std::string& origin, int width, int height, double fov,
                        double far, double rate = 30) {
  return "<sensor type=\"depth\" name=\"" + name + "\" update_rate=\"" + std::to_string(rate) + "\"><origin " + origin +
         "/><data/><camera horizontal_fov=\"" + std::to_string(fov) + "\"><image width=\"" + std::to_string(width) +
         "\" height=\"" + std::to_string(height) + "\"/><clip near=\"0.05\" far=\"" + std::to_string(far) +
         "\"/><noise type=\"Gaussian\" mean=\"0.25\" stddev=\"0.125\"/></camera></sensor>";
}

std::string lidarSensor(const std::string& name, const std::string& origin, int yaw, int pitch, double pitchMin,
                        double pitchMax, double rangeMin, double rangeMax, double spin, const std::string& direction,
                        double rate) {
  return "<sensor type=\"spinning_lidar\" name=\"" + name + "\" update_rate=\"" + std::to_string(rate) + "\"><origin " +
         origin + "/><yaw samples=\"" + std::to_string(yaw) + "\"/><pitch samples=\"" + std::to_string(pitch) +
         "\" min_angle=\"" + std::to_string(pitchMin) + "\" max_angle=\"" + std::to_string(pitchMax) +
         "\"/><range min=\"" + std::to_string(rangeMin) + "\" max=\"" + std::to_string(rangeMax) +
         "\"/><spin direction=\"" + direction + "\" rate=\"" + std::to_string(spin) + "\"/></sensor>";
}

// Closest entry of a ray into an oriented box (slab method), or a negative
// value when the ray misses it within [0, reach]. A start inside gives the exit.
double rayBox(const Eigen::Vector3d& start, const Eigen::Vector3d& dir, const Eigen::Vector3d& center,
              const Eigen::Matrix3d& rot, const Eigen::Vector3d& half, double reach) {
  const Eigen::Vector3d s = rot.transpose() * (start - center), v = rot.transpose() * dir;
  double lo = -1e300, hi = 1e300;
  for (int k = 0; k < 3; ++k) {
    if (v[k] == 0.0) {
      if (std::abs(s[k]) > half[k]) return -1.0;
      continue;
    }
    double a = (-half[k] - s[k]) / v[k], b = (half[k] - s[k]) / v[k];
    if (a > b) std::swap(a, b);
    lo = std::max(lo, a);
    hi = std::min(hi, b);
  }
  if (lo > hi) return -1.0;
  const double t = lo >= 0.0 ? lo : hi;
  return (t >= 0.0 && t <= reach) ? t : -1.0;
}

// Reads packed little-endian records byte by byte, independently of the host.
class RecordReader {
 public:
  explicit RecordReader(const char* data) : p_(data) {}
  template <typename T>  // an unsigned integer of sizeof(T) bytes
  T unsignedInt() {
    T v = 0;
    for (size_t k = 0; k < sizeof(T); ++k) v |= T(uint8_t(p_[k])) << (8 * k);
    p_ += sizeof(T);
    return v;
  }
  uint32_t u32() { return unsignedInt<uint32_t>(); }
  double f64() { return bitsAs<double>(unsignedInt<uint64_t>()); }
  float f32() { return bitsAs<float>(unsignedInt<uint32_t>()); }
  std::string text() {
    const uint32_t n = u32();
    p_ += n;
    return std::string(p_ - n, n);
  }
  const char* position() const { return p_; }

 private:
  template <typename F, typename U>
  static F bitsAs(U bits) {
    F f;
    std::memcpy(&f, &bits, sizeof(F));
    return f;
  }
  const char* p_;
};

// Steps the world once and lets the robot update its sensors (a second call in a step finds nothing due).
void step(World& world, ArticulatedSystem* robot) {
  world.integrate();
  robot->updateSensorsIfNecessary(world);
}

}  // namespace

// ------------------------------------------------------------------ timing --

TEST(SensorTiming, RatesSourcesAndLongSteps) {
  World world;
  world.setTimeStep(0.001);
  const std::string sensors = lidarSensor("fast", kAtOrigin, 32, 2, -0.1, 0.1, 0, 10, 10, "counter", 100) +
                              lidarSensor("never", kAtOrigin, 32, 2, -0.1, 0.1, 0, 10, 10, "counter", 0) +
                              depthSensor("cam", kAtOrigin, 2, 2, 1.0, 5.0, 1000);
  ArticulatedSystem* robot = world.addArticulatedSystem(fixedRobot("xyz=\"0 0 1\"", sensors));
  auto fast = robot->getSensor<SpinningLidar>("base:fast");
  auto cam = robot->getSensor<DepthCamera>("base:cam");

  // A 100 Hz sensor at dt 1 ms: the first step (lastUpdateTime -1), then every 10th.
  std::vector<int> updatedAt;
  double last = fast->getLastUpdateTime();
  for (int s = 1; s <= 45; ++s) {
    step(world, robot);
    if (fast->getLastUpdateTime() == last) continue;
    updatedAt.push_back(s);
    last = fast->getLastUpdateTime();
    EXPECT_EQ(fast->getScanTimeStamp(), world.getWorldTime());
  }
  EXPECT_EQ(updatedAt, (std::vector<int>{1, 11, 21, 31, 41}));
  // Rate 0: never due. A camera keeps the VISUALIZER source it was built
  // with: the step leaves it alone, due or not.
  EXPECT_EQ(robot->getSensor("base:never")->getLastUpdateTime(), -1.0);
  EXPECT_EQ(cam->getMeasurementSource(), Sensor::VISUALIZER);
  EXPECT_EQ(cam->getLastUpdateTime(), -1.0);
  cam->setMeasurementSource(Sensor::SIMULATOR);
  step(world, robot);
  EXPECT_EQ(cam->getLastUpdateTime(), world.getWorldTime());
  EXPECT_TRUE(std::isnan(cam->getDepthArray()[0]));  // nothing in the world to see

  // A step five times the period yields one update per step, not five.
  world.setTimeStep(0.05);
  for (int s = 0; s < 3; ++s) {
    step(world, robot);
    EXPECT_EQ(fast->getLastUpdateTime(), world.getWorldTime());
  }

  // The due rule at its boundary: a period of 0.25 with a 1e-10 allowance;
  // in the first step a rate of 1 Hz or more is due.
  SpinningLidar lidar({}, nullptr, Mat<3, 1>{0, 0, 0}, Mat<3, 3>::getIdentity());
  lidar.setUpdateRate(4.0);
  lidar.setLastUpdateTime(1.0);
  EXPECT_FALSE(lidar.isDue(1.25 - 2e-10));
  EXPECT_TRUE(lidar.isDue(1.25 - 0.5e-10));
  lidar.setLastUpdateTime(-1.0);
  lidar.setUpdateRate(1.0);
  EXPECT_TRUE(lidar.isDue(1e-3));
  lidar.setUpdateRate(0.5);
  EXPECT_FALSE(lidar.isDue(1e-3));
}

// ------------------------------------------------------------- depth camera --

namespace {

struct DepthScene {
  World world;
  std::shared_ptr<DepthCamera> camera;
  Eigen::Vector3d wallCenter{4.0, 0.0, 0.5}, wallHalf{0.1, 5.0, 0.5};

  // The camera sits inside a collision sphere of its own base, which its rays leave out.
  DepthScene(int width, int height) {
    world.addGround(0.0);
    Box* wall = world.addBox(0.2, 10.0, 1.0, 1.0);
    wall->setBodyType(STATIC);
    wall->setPosition(wallCenter.x(), wallCenter.y(), wallCenter.z());
    ArticulatedSystem* robot = world.addArticulatedSystem(
        fixedRobot("xyz=\"0 0.3 1\" rpy=\"0 0.3 0.1\"",
                   depthSensor("cam", "xyz=\"0.1 0 0.2\" rpy=\"0.2 0 0\"", width, height, 1.2, 10.0) +
                       "<collision><geometry><sphere radius=\"0.5\"/></geometry></collision>"));
    camera = robot->getSensor<DepthCamera>("base:cam");
    camera->update(world);
  }

  // Distance along the unit ray to the nearest of ground and wall, or negative.
  double expectedHit(const Eigen::Vector3d& start, const Eigen::Vector3d& dir) const {
    const double ground = dir.z() < 0.0 ? -start.z() / dir.z() : -1.0;
    const double wall = rayBox(start, dir, wallCenter, Eigen::Matrix3d::Identity(), wallHalf, 10.0);
    if (ground < 0.0 || ground > 10.0) return wall;
    return wall >= 0.0 && wall < ground ? wall : ground;
  }
};

}  // namespace

TEST(DepthCamera, WallAndGroundPerPixelAndTheIndexStride) {
  // Pixel (r, c) lands at r * height + c, and the ray it casts is the stored
  // direction at that index. A wide image's rows overlap, and its last
  // (width - height)(height - 1) entries are never written.
  for (const auto& [width, height] : {std::pair<int, int>(16, 16), std::pair<int, int>(6, 4)}) {
    SCOPED_TRACE(std::to_string(width) + " x " + std::to_string(height));
    DepthScene scene(width, height);
    DepthCamera& cam = *scene.camera;
    const Eigen::Matrix3d R = E(cam.getOrientation());
    const Eigen::Vector3d p = E(cam.getPosition());
    // The camera's pose: the base's mount composed with the sensor's.
    const Eigen::Matrix3d baseRot =
        (Eigen::AngleAxisd(0.1, Eigen::Vector3d::UnitZ()) * Eigen::AngleAxisd(0.3, Eigen::Vector3d::UnitY()))
            .toRotationMatrix();
    EXPECT_LT((p - (Eigen::Vector3d(0, 0.3, 1) + baseRot * Eigen::Vector3d(0.1, 0, 0.2))).norm(), 1e-15);
    EXPECT_LT((R - baseRot * Eigen::AngleAxisd(0.2, Eigen::Vector3d::UnitX()).toRotationMatrix()).norm(), 1e-15);

    const double planeW = 2.0 * std::tan(0.6), planeH = planeW * height / width;
    const size_t pixels = size_t(width * height), written = size_t((height - 1) * height + width);
    int ground = 0, wall = 0, sky = 0;
    std::vector<Mat<3, 1>> cloud, local;
    cam.depthToPointCloud(cam.getDepthArray(), cloud, false);
    cam.depthToPointCloud(cam.getDepthArray(), local, true);
    ASSERT_EQ(cloud.size(), pixels);
    for (size_t i = 0; i < pixels; ++i) {
      SCOPED_TRACE("index " + std::to_string(i));
      // The stored directions are in plain row order; row 0 is the top of the
      // image, column 0 its left (+y).
      const double r = double(i / size_t(width)), c = double(i % size_t(width));
      const Eigen::Vector3d d(1.0, planeW * (0.5 - (c + 0.5) / width), planeH * (0.5 - (r + 0.5) / height));
      EXPECT_LT((E(cam.getRayDirections()[i]) - d).norm(), 1e-15);
      const float depth = cam.getDepthArray()[i];
      if (i >= written) {
        EXPECT_EQ(depth, 0.0f);
        continue;
      }
      const Eigen::Vector3d w = R * d.normalized();
      const double t = scene.expectedHit(p, w);
      const Eigen::Vector3d point = E(cam.get3DPoints()[i]);
      if (t < 0.0) {
        ++sky;
        EXPECT_TRUE(std::isnan(depth));
        EXPECT_TRUE(point.array().isNaN().all());
        continue;
      }
      (p + t * w).z() < 1e-9 ? ++ground : ++wall;
      EXPECT_LT((point - (p + t * w)).norm(), 1e-9);
      // Depth along the optical axis: the ray's length over |d|.
      EXPECT_NEAR(depth, float(t / d.norm()), 4 * std::numeric_limits<float>::epsilon() * depth);
      // The point cloud is the depth image back-projected, in the world and in
      // the camera frame, equal up to the depth's narrowing to float.
      EXPECT_LT((E(cloud[i]) - point).norm(), 1e-6 * t);
      EXPECT_LT((E(local[i]) - R.transpose() * (point - p)).norm(), 1e-6 * t);
    }
    // The scene is set up so that the square image holds all three.
    if (width == 16) {
      EXPECT_GT(std::min({ground, wall, sky}), 20);
    }
  }
  // A tall image: pixels whose index passes the end are left out.
  DepthScene tall(3, 5);
  EXPECT_EQ(tall.camera->getDepthArray().size(), 15u);
}

// ------------------------------------------------------------ spinning lidar --

TEST(SpinningLidar, PointsLieOnTheBoxFacesAndMissesGiveNothing) {
  World world;
  world.setTimeStep(0.01);
  const Eigen::Vector3d boxCenter(3.0, 1.0, 0.5), boxHalf(0.5, 1.0, 0.5);
  const Eigen::Matrix3d boxRot = Eigen::AngleAxisd(0.3, Eigen::Vector3d::UnitZ()).toRotationMatrix();
  Box* box = world.addBox(1.0, 2.0, 1.0, 1.0);
  box->setBodyType(STATIC);
  box->setOrientation(boxRot);
  box->setPosition(boxCenter.x(), boxCenter.y(), boxCenter.z());
  // The lidar sits inside a collision sphere of its own base, which its rays leave out.
  ArticulatedSystem* robot = world.addArticulatedSystem(fixedRobot(
      "xyz=\"0 0 0.6\" rpy=\"0 0 0.1\"",
      lidarSensor("lidar", "xyz=\"0 0 0.1\" rpy=\"0.05 0 0\"", 64, 8, -0.3, 0.2, 0.2, 20, 10, "counter", 100) +
          "<collision><geometry><sphere radius=\"0.5\"/></geometry></collision>"));
  auto lidar = robot->getSensor<SpinningLidar>("base:lidar");
  const auto& prop = lidar->getProperties();

  size_t total = 0;
  for (int s = 0; s < 9; ++s) {  // most of a turn, ending off a column
    const double yawBefore = lidar->getYawAngle();
    step(world, robot);
    const Eigen::Matrix3d R = E(lidar->getOrientation());
    const Eigen::Vector3d p = E(lidar->getPosition());
    // Every ray of the columns passed, cast independently.
    size_t expected = 0;
    const double yawStep = 2.0 * kPi / prop.yawSamples;
    for (long k = long(std::ceil(yawBefore / yawStep)); k * yawStep <= yawBefore + 0.2 * kPi + 1e-12; ++k)
      for (int j = 0; j < prop.pitchSamples; ++j) {
        const double yaw = k * yawStep, pitch = prop.pitchMinAngle + j * (0.5 / 7);
        const Eigen::Vector3d w =
            R * Eigen::Vector3d(std::cos(yaw) * std::cos(pitch), std::sin(yaw) * std::cos(pitch), std::sin(pitch));
        expected += rayBox(p + 0.2 * w, w, boxCenter, boxRot, boxHalf, 19.8) >= 0.0;
      }
    EXPECT_EQ(lidar->getScan().size(), expected) << "update " << s;
    for (const Mat<3, 1>& q : lidar->getScan()) {
      const Eigen::Vector3d outside = (boxRot.transpose() * (R * E(q) + p - boxCenter)).cwiseAbs() - boxHalf;
      EXPECT_LT(outside.maxCoeff(), 1e-9);   // not outside the box
      EXPECT_GT(outside.maxCoeff(), -1e-9);  // and on a face
      EXPECT_GE(E(q).norm(), 0.2 - 1e-12);
    }
    total += lidar->getScan().size();
  }
  EXPECT_GT(total, 20u);
  EXPECT_NEAR(lidar->getYawAngle(), 1.8 * kPi, 1e-9);
}

TEST(SpinningLidar, FullTurnsDirectionAndSlowSpin) {
  World world;
  world.addGround(0.0);
  world.setTimeStep(0.01);
  // Every ray points down at the ground, so every cast ray is seen in the scan.
  const std::string sensors = lidarSensor("ccw", kAtOrigin, 64, 3, -0.6, -0.2, 0, 50, 10, "counter", 100) +
                              lidarSensor("cw", kAtOrigin, 64, 3, -0.6, -0.2, 0, 50, 10, "clockwise", 100) +
                              lidarSensor("slow", kAtOrigin, 64, 3, -0.6, -0.2, 0, 50, 0.1, "counter", 100);
  ArticulatedSystem* robot = world.addArticulatedSystem(fixedRobot("xyz=\"0 0 1\"", sensors));
  const std::shared_ptr<SpinningLidar> lidars[2] = {robot->getSensor<SpinningLidar>("base:ccw"),
                                                    robot->getSensor<SpinningLidar>("base:cw")};
  auto slow = robot->getSensor<SpinningLidar>("base:slow");
  auto column = [](const Mat<3, 1>& q) { return (std::lround(std::atan2(q[1], q[0]) / (2.0 * kPi / 64)) + 64) % 64; };

  // A turn takes 10 updates, and in it every one of the 64 columns is cast.
  // Both ends of an update's range count, so a column exactly on the boundary
  // between two updates (0 at the end of the turn, 32 at its middle) may come twice.
  std::multiset<long> columns[2];
  int slowNonEmpty = 0;
  for (int s = 0; s < 100; ++s) {
    step(world, robot);
    slowNonEmpty += !slow->getScan().empty();
    for (int k = 0; k < 2 && s < 10; ++k) {
      const auto& scan = lidars[k]->getScan();
      ASSERT_EQ(scan.size() % 3, 0u);
      for (size_t n = 0; n < scan.size(); n += 3) {
        columns[k].insert(column(scan[n]));
        EXPECT_EQ(column(scan[n + 2]), column(scan[n]));  // one column's points share its azimuth
        // Counter-clockwise the walk goes up through the columns, clockwise down.
        if (n > 0) {
          EXPECT_EQ((column(scan[n - 3]) - column(scan[n]) + 64) % 64, k == 0 ? 63 : 1) << s;
        }
      }
    }
  }
  for (const auto& c : columns) {
    EXPECT_EQ(std::set<long>(c.begin(), c.end()).size(), 64u);
    EXPECT_LE(c.size(), 66u);
  }
  // The slow one turns 1/1000 turn per update: one column per 15.6 updates,
  // columns 0..6 in the first 0.1 turn.
  EXPECT_EQ(slowNonEmpty, 7);
}

// ------------------------------------------------------------ inertial unit --

namespace {

std::string spinner(const std::string& limit) {
  return R"(<?xml version="1.0"?><robot name="s"><link name="world"/>
<joint name="mount" type="fixed"><parent link="world"/><child link="base"/><origin xyz="0 0 0.5"/></joint>
<link name="base"><inertial><mass value="1"/><inertia ixx="0.1" iyy="0.1" izz="0.1"/></inertial></link>
<joint name="spin" type="continuous"><parent link="base"/><child link="rotor"/><axis xyz="0 0 1"/></joint>
<link name="rotor"><inertial><mass value="1"/><inertia ixx="0.1" iyy="0.1" izz="0.1"/></inertial>
  <sensor type="imu" name="imu" update_rate="1000"><origin xyz="0.3 0 0.1" rpy="0 0 1.5707963267948966"/>)" +
         limit + "</sensor></link></robot>";
}

// Puts the spinner at joint angle theta turning at rate omega with the accelerations of a steady spin
// under gravity g (every body origin accelerates up by g, no angular acceleration); measures at time t.
void steadySpin(World& world, ArticulatedSystem& robot, double theta, double omega, double g, double t) {
  robot.setGeneralizedCoordinate({theta});
  robot.setGeneralizedVelocity({omega});
  for (size_t b = 0; b < robot.nbody; ++b) {
    robot.linAccW[b] = {0.0, 0.0, g};
    robot.angAccW[b] = {0.0, 0.0, 0.0};
  }
  world.setWorldTime(t);
  robot.updateSensorsIfNecessary(world);
}

}  // namespace

TEST(InertialUnit, SteadySpinReadsRateCentripetalAndGravityWithinItsLimits) {
  World world;
  ArticulatedSystem* robot = world.addArticulatedSystem(spinner(""));
  EXPECT_TRUE(robot->hasImu());
  auto imu = robot->getSensor<InertialMeasurementUnit>("rotor:imu");
  EXPECT_EQ(imu->getMeasurementSource(), Sensor::SIMULATOR);
  const double theta = 0.7, omega = 3.0, g = 9.81;
  steadySpin(world, *robot, theta, omega, g, 0.5);
  EXPECT_EQ(imu->getLastUpdateTime(), 0.5);

  // The sensor's x axis points along the joint's direction of travel, its y
  // axis toward the joint axis: centripetal w^2 r along +y, gravity along +z.
  EXPECT_LT((E(imu->getLinearAcceleration()) - Eigen::Vector3d(0, omega * omega * 0.3, g)).norm(), 1e-12);
  EXPECT_LT((E(imu->getAngularVelocity()) - Eigen::Vector3d(0, 0, omega)).norm(), 1e-12);
  const Mat<4, 1>& q = imu->getQuaternion();
  const double half = 0.5 * (theta + kPi / 2);
  EXPECT_NEAR(std::abs(q[0] * std::cos(half) + q[3] * std::sin(half)), 1.0, 1e-12);
  EXPECT_LT(std::abs(q[1]) + std::abs(q[2]), 1e-15);
  EXPECT_LT((E(imu->getPosition()) - Eigen::Vector3d(0.3 * std::cos(theta), 0.3 * std::sin(theta), 0.6)).norm(), 1e-15);

  // The measurement record: six floats, acceleration then angular velocity.
  char buffer[64];
  std::memset(buffer, 0x5A, sizeof(buffer));
  char* end = imu->serializeMeasurements(buffer);
  EXPECT_EQ(size_t(end - buffer), 24u);
  EXPECT_EQ(imu->measurementRecordSize(), 24u);
  EXPECT_EQ(buffer[24], 0x5A);
  RecordReader in(buffer);
  for (size_t k = 0; k < 3; ++k) EXPECT_EQ(in.f32(), float(imu->getLinearAcceleration()[k]));
  for (size_t k = 0; k < 3; ++k) EXPECT_EQ(in.f32(), float(imu->getAngularVelocity()[k]));

  // Not due again within its 1 ms period.
  steadySpin(world, *robot, theta, 2 * omega, g, 0.5005);
  EXPECT_NEAR(imu->getAngularVelocity()[2], omega, 1e-12);
  steadySpin(world, *robot, theta, 2 * omega, g, 0.501);
  EXPECT_NEAR(imu->getAngularVelocity()[2], 2 * omega, 1e-12);
  // The default limits never clip, not even a huge reading.
  steadySpin(world, *robot, 0.0, 1e150, 1e200, 3.0);
  EXPECT_EQ(imu->getAngularVelocity()[2], 1e150);
  EXPECT_EQ(imu->getLinearAcceleration()[2], 1e200);

  // Limits scale the norm and keep the direction.
  ArticulatedSystem* limited = world.addArticulatedSystem(spinner("<limit acc_limit=\"5\" ang_vel_limit=\"2\"/>"));
  auto clipped = limited->getSensor<InertialMeasurementUnit>("rotor:imu");
  steadySpin(world, *limited, 0.0, 3.0, 9.81, 1.0);
  const Eigen::Vector3d unclipped(0, 9 * 0.3, 9.81);
  EXPECT_LT((E(clipped->getLinearAcceleration()) - 5.0 * unclipped.normalized()).norm(), 1e-14);
  EXPECT_NEAR(clipped->getAngularVelocity()[2], 2.0, 1e-15);
  // A norm exactly at the limit is not touched: (0, 3, 4) has norm 5.
  limited->setGeneralizedVelocity({0.0});
  for (size_t b = 0; b < limited->nbody; ++b) limited->linAccW[b] = {-3.0, 0.0, 4.0};
  world.setWorldTime(2.0);
  limited->updateSensorsIfNecessary(world);
  EXPECT_EQ(clipped->getLinearAcceleration()[1], 3.0);
  EXPECT_EQ(clipped->getLinearAcceleration()[2], 4.0);
}

// These run the robot's own step: integrate computes the accelerations of the
// step and updates the sensors that are due.
TEST(InertialUnitInMotion, FreeFallReadsNoAcceleration) {
  // A floating body thrown sideways and spinning: its inertia is a multiple of
  // the identity, so the spin stays constant in the world.
  World world;
  world.setTimeStep(0.001);
  ArticulatedSystem* robot = world.addArticulatedSystem(R"(<?xml version="1.0"?><robot name="f">
<link name="base"><inertial><mass value="2"/><inertia ixx="0.3" iyy="0.3" izz="0.3"/></inertial>
  <sensor type="imu" name="imu" update_rate="1000"><origin rpy="0.3 -0.2 0.9"/></sensor></link></robot>)");
  auto imu = robot->getSensor<InertialMeasurementUnit>("base:imu");
  const Eigen::Vector3d spin(0.4, -1.1, 2.0);
  robot->setGeneralizedCoordinate({0, 0, 5, 1, 0, 0, 0});
  robot->setGeneralizedVelocity({1.5, 0, 2.0, spin.x(), spin.y(), spin.z()});
  for (int s = 0; s < 300; ++s) {
    world.integrate();
    ASSERT_EQ(imu->getLastUpdateTime(), world.getWorldTime());
    EXPECT_LT(E(imu->getLinearAcceleration()).norm(), 1e-9) << "step " << s;
    // The rate, in the sensor's frame, is the body's spin turned into it.
    const Mat<4, 1>& q = imu->getQuaternion();
    const Eigen::Matrix3d R = Eigen::Quaterniond(q[0], q[1], q[2], q[3]).toRotationMatrix();
    EXPECT_LT((E(imu->getAngularVelocity()) - R.transpose() * spin).norm(), 1e-9) << "step " << s;
    EXPECT_LT((R - E(imu->getOrientation())).norm(), 1e-12);
  }
  EXPECT_NEAR(robot->getGeneralizedCoordinate()[2], 5.0 + 2.0 * 0.3 - 0.5 * 9.81 * 0.09, 2e-3);
}

// ------------------------------------------------------ look-ups and records --

TEST(SensorRecords, PropertyRecordsReadBack) {
  World world;
  const std::string sensors =
      depthSensor("depth", kAtOrigin, 7, 5, 1.1, 12.5) +
      R"(<sensor type="rgb" name="eye" update_rate="15"><camera horizontal_fov="0.9"><image width="320" height="240"/>
  <clip near="0.02" far="40"/><noise type="uniform" mean="0.5" stddev="2"/></camera></sensor>
<sensor type="imu" name="imu" update_rate="200"><limit acc_limit="150" ang_vel_limit="35"/></sensor>)" +
      lidarSensor("lidar", kAtOrigin, 1024, 16, -0.26, 0.27, 0.3, 80, 12, "counter", 10);
  ArticulatedSystem* robot = world.addArticulatedSystem(fixedRobot("xyz=\"0 0 1\"", sensors));

  // type, name, width, height, clip near and far, field of view, noise type,
  // mean and deviation, format. (A braced list reads its fields in order.)
  using Camera = std::tuple<uint32_t, std::string, uint32_t, uint32_t, double, double, double, uint32_t, double, double,
                            std::string>;
  using Imu = std::tuple<uint32_t, std::string, double, double>;
  using Lidar = std::tuple<uint32_t, std::string, uint32_t, uint32_t, double, double, double, double, double>;
  std::vector<char> buffer(512);
  for (const char* name : {"base:depth", "base:eye", "base:imu", "base:lidar"}) {
    SCOPED_TRACE(name);
    const Sensor& s = *robot->getSensor(name);
    std::fill(buffer.begin(), buffer.end(), char(0x77));
    char* end = s.serializeProp(buffer.data());
    EXPECT_EQ(size_t(end - buffer.data()), s.propertyRecordSize());
    EXPECT_EQ(*end, char(0x77));
    // No measurement record for these kinds.
    if (s.getType() != Sensor::IMU) {
      EXPECT_EQ(s.serializeMeasurements(buffer.data() + 400), buffer.data() + 400);
    }
    RecordReader in(buffer.data());
    if (s.getType() == Sensor::DEPTH) {
      EXPECT_EQ((Camera{in.u32(), in.text(), in.u32(), in.u32(), in.f64(), in.f64(), in.f64(), in.u32(), in.f64(),
                        in.f64(), in.text()}),
                Camera(2, "base:depth", 7, 5, 0.05, 12.5, 1.1, 0, 0.25, 0.125, "16"));
    } else if (s.getType() == Sensor::RGB) {
      EXPECT_EQ((Camera{in.u32(), in.text(), in.u32(), in.u32(), in.f64(), in.f64(), in.f64(), in.u32(), in.f64(),
                        in.f64(), in.text()}),
                Camera(1, "base:eye", 320, 240, 0.02, 40.0, 0.9, 1, 0.5, 2.0, "R8G8B8A8"));
      EXPECT_EQ(robot->getSensor<RGBCamera>(name)->getImageBuffer().size(), 320u * 240u * 4u);
    } else if (s.getType() == Sensor::IMU) {
      EXPECT_EQ((Imu{in.u32(), in.text(), in.f64(), in.f64()}), Imu(3, "base:imu", 150.0, 35.0));
    } else {
      EXPECT_EQ((Lidar{in.u32(), in.text(), in.u32(), in.u32(), in.f64(), in.f64(), in.f64(), in.f64(), in.f64()}),
                Lidar(4, "base:lidar", 1024, 16, -0.26, 0.27, 0.3, 80.0, 12.0));
    }
    EXPECT_EQ(in.position(), end);
  }
}

TEST(SensorLookup, ByNameAndKind) {
  World world;
  const std::string sensors = depthSensor("b", kAtOrigin, 2, 2, 1.0, 5.0) +
                              depthSensor("a", kAtOrigin, 2, 2, 1.0, 5.0) +
                              lidarSensor("l", kAtOrigin, 8, 2, 0, 0.1, 0, 5, 1, "counter", 1);
  ArticulatedSystem* robot = world.addArticulatedSystem(fixedRobot("xyz=\"0 0 1\"", sensors));
  EXPECT_TRUE(robot->hasSensor("base:l"));
  EXPECT_FALSE(robot->hasSensor("l"));
  EXPECT_EQ(robot->getSensor("base:l")->getType(), Sensor::SPINNING_LIDAR);
  const auto cameras = robot->getSensorsOfType(Sensor::DEPTH);
  ASSERT_EQ(cameras.size(), 2u);
  EXPECT_EQ(cameras[0]->getName(), "base:a");
  EXPECT_EQ(cameras[1]->getName(), "base:b");
  EXPECT_TRUE(robot->getSensorsOfType(Sensor::IMU).empty());

  // Misuse of a sensor at run time.
  SpinningLidar::SpinningLidarProperties prop;
  prop.name = "loose";  // carried by no robot: it has no pose to read
  SpinningLidar loose(prop, nullptr, Mat<3, 1>{0, 0, 0}, Mat<3, 3>::getIdentity());
  ArticulatedSystem* spinning = world.addArticulatedSystem(spinner(""));
  auto camera = robot->getSensor<DepthCamera>("base:a");
  std::vector<Mat<3, 1>> cloud;
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { robot->getSensor("base:nothing"); }, "There is no sensor named \"base:nothing\""},
      {[&] { robot->getSensor<DepthCamera>("base:l"); },
       "The sensor \"base:l\" is a spinning lidar, not the kind that was asked for"},
      {[&] { loose.update(world); }, "Sensor \"loose\" is not mounted on an articulated system"},
      {[&] { camera->depthToPointCloud(std::vector<float>(3, 1.0f), cloud, true); },
       "The input depthArray should have a size of 4. It's actual size is 3"},
      {[&] { spinning->getSensor("rotor:imu")->setMeasurementSource(Sensor::VISUALIZER); },
       "IMU cannot be updated by the visualizer"},
  };
  for (const auto& [call, message] : cases) {
    const std::string text = vorsim_test::fatalOf(call);
    EXPECT_NE(text.find(message), std::string::npos) << "expected: " << message << "\ngot: " << text;
  }
}

// ---------------------------------------------------------------- bad input --

TEST(SensorBadInput, LocatedMessagesForEachKindOfMistake) {
  // The generic messages of the XML reader (missing attributes and children)
  // are checked with the robot loader; these are the sensors' own.
  const std::string clip = "<clip near=\"0.1\" far=\"5\"/><noise type=\"none\" mean=\"0\" stddev=\"0\"/></camera>";
  const std::string pitch = "<pitch samples=\"2\" min_angle=\"0\" max_angle=\"0.1\"/><range min=\"0\" max=\"5\"/>";
  auto sensor = [](const std::string& attributes, const std::string& children = "") {
    return fixedRobot(kAtOrigin, "<sensor " + attributes + " name=\"s\">" + children + "</sensor>");
  };
  const std::string rgb = "type=\"rgb\" update_rate=\"1\"", lidar = "type=\"spinning_lidar\" update_rate=\"1\"";
  const std::pair<std::string, std::string> cases[] = {
      {sensor("type=\"radar\" update_rate=\"1\""),
       "Sensor type 'radar' is not supported. Only 'imu', 'rgb', 'spinning_lidar' and 'depth' are supported."},
      {sensor("type=\"imu\""), "the node 'sensor' does not contain an attribute called 'update_rate'"},
      {sensor(lidar, "<yaw samples=\"8.5\"/>" + pitch + "<spin direction=\"x\" rate=\"1\"/>"),
       "the attribute 'samples' is not an integer"},
      // Values no sensor can work with.
      {sensor("type=\"imu\" update_rate=\"-5\""),
       "the node 'sensor': the update_rate of sensor \"s\" must not be negative"},
      {sensor(lidar, "<yaw samples=\"0\"/>" + pitch + "<spin direction=\"x\" rate=\"1\"/>"),
       "the lidar \"s\" needs at least one yaw and one pitch sample"},
      {sensor(rgb, "<camera horizontal_fov=\"1\"><image width=\"-4\" height=\"4\"/>" + clip),
       "the node 'image': the image of sensor \"s\" must not have a negative size"},
      {sensor("type=\"depth\" update_rate=\"1\"",
              "<data/><camera horizontal_fov=\"3.2\"><image width=\"4\" height=\"4\"/>" + clip),
       "the node 'camera': the horizontal_fov of sensor \"s\" must lie between 0 and pi radians"},
      // Sensor set files.
      {"<robot name=\"r\"><link name=\"a\" sensor=\"absent.xml\"/></robot>", "Could not find file: absent.xml"},
      {"<robot name=\"r\"><link name=\"a\" sensor=\"wrong_root.xml\"/></robot>",
       "wrong_root.xml file does not contain node 'sensor_set'"},
      {"<robot name=\"r\"><link name=\"a\" sensor=\"camera.xml\"><inertial><mass "
       "value=\"1\"/></inertial></link></robot>",
       "Sensor link parameters should be defined in the sensor XML file"},
  };
  const std::string dir = std::string(VORSIM_TEST_DATA_DIR) + "/urdf";
  for (const auto& [urdf, message] : cases) {
    const std::string text = vorsim_test::fatalOf([&] { ArticulatedSystem s(urdf, dir); });
    EXPECT_NE(text.find(message), std::string::npos) << "expected: " << message << "\ngot: " << text;
  }
}
