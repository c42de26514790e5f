// The robot's side of its sensors: the timing rule run once per step, the
// inertial unit's measurement, and look-ups of sensors by name and kind.
#include <algorithm>
#include <cmath>

#include "vorsim/VorSimMsg.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/sensors/InertialMeasurementUnit.hpp"

namespace vorsim {

namespace {

// Scales v down to norm `limit` when its norm is above it; keeps it otherwise.
// With the default limit (the largest double) the square is infinite, and no
// finite vector is scaled.
void clipNorm(Mat<3, 1>& v, double limit) {
  const double squared = v[0] * v[0] + v[1] * v[1] + v[2] * v[2];
  if (squared > limit * limit) v *= limit / std::sqrt(squared);
}

// R^T v.
Mat<3, 1> inFrame(const Mat<3, 3>& R, const Mat<3, 1>& v) {
  return {R(0, 0) * v[0] + R(1, 0) * v[1] + R(2, 0) * v[2], R(0, 1) * v[0] + R(1, 1) * v[1] + R(2, 1) * v[2],
          R(0, 2) * v[0] + R(1, 2) * v[1] + R(2, 2) * v[2]};
}

const char* kindName(Sensor::Type type) {
  switch (type) {
    case Sensor::RGB:
      return "an RGB camera";
    case Sensor::DEPTH:
      return "a depth camera";
    case Sensor::IMU:
      return "an inertial measurement unit";
    case Sensor::SPINNING_LIDAR:
      return "a spinning lidar";
  }
  return "a sensor of unknown kind";
}

}  // namespace

void ArticulatedSystem::updateSensorsIfNecessary(World& world) {
  const double t = world.getWorldTime();
  // Sensors due in the same step share one snapshot of the scene for their
  // rays; it is taken only when a ray is cast.
  const World::RayBatch batch(world);
  for (auto& entry : sensorMap) {
    Sensor& sensor = *entry.second;
    if (sensor.getMeasurementSource() != Sensor::SIMULATOR) continue;
    if (!sensor.isDue(t)) continue;
    if (sensor.getType() == Sensor::IMU)
      measureInertialUnit(static_cast<InertialMeasurementUnit&>(sensor));
    else
      sensor.update(world);
    sensor.setLastUpdateTime(t);
  }
}

void ArticulatedSystem::measureInertialUnit(InertialMeasurementUnit& imu) {
  imu.updatePose();
  if (imu.getFrameIdx() >= frames.size()) return;  // reported by updatePose
  const CoordinateFrame& f = frames[imu.getFrameIdx()];
  Mat<3, 1> a;
  getFrameAcceleration(f, a);  // gravity is in it, as an upward acceleration of the base
  const size_t b = f.parentId;
  const Mat<3, 1>& omega = angVelW[b];
  Mat<3, 3> R;
  rotmatmul(rotW[b], f.orientation, R);
  Mat<4, 1> q;
  rotMatToQuat(R, q);

  Mat<3, 1> acc = inFrame(R, a);
  clipNorm(acc, imu.prop_.maxAcc);
  Mat<3, 1> gyro = inFrame(R, omega);
  clipNorm(gyro, imu.prop_.maxAngVel);

  imu.linearAcceleration = acc;
  imu.angularVelocity = gyro;
  imu.quaternion = q;
}

std::shared_ptr<Sensor> ArticulatedSystem::getSensor(const std::string& name) const {
  auto it = sensorMap.find(name);
  if (it == sensorMap.end()) {
    MSG_FATAL("There is no sensor named \"" << name << "\" on this system (sensor names are \"link:sensor\")");
    return nullptr;
  }
  return it->second;
}

void ArticulatedSystem::reportWrongSensorKind(const Sensor& sensor) const {
  MSG_FATAL("The sensor \"" << sensor.getName() << "\" is " << kindName(sensor.getType())
                            << ", not the kind that was asked for");
}

std::vector<std::shared_ptr<Sensor>> ArticulatedSystem::getSensorsOfType(Sensor::Type type) const {
  std::vector<std::shared_ptr<Sensor>> found;
  for (const auto& entry : sensorMap)
    if (entry.second->getType() == type) found.push_back(entry.second);
  std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a->getName() < b->getName(); });
  return found;
}

}  // namespace vorsim
