// The spinning lidar: the head turns with time, and each update casts the
// columns of rays that the turn passed.
#include "vorsim/sensors/SpinningLidar.hpp"

#include <algorithm>
#include <cmath>

#include "sensorRecords.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

namespace vorsim {

SpinningLidar::SpinningLidar(const SpinningLidarProperties& prop, ArticulatedSystem* owner_, const Mat<3, 1>& pos,
                             const Mat<3, 3>& rot)
    : Sensor(prop.name, SPINNING_LIDAR, owner_, pos, rot, SIMULATOR), prop_(prop) {
  scan.reserve(size_t(std::max(prop_.yawSamples, 0)) * size_t(std::max(prop_.pitchSamples, 0)));
}

char* SpinningLidar::serializeProp(char* buffer) const {
  char* out = record::putHead(buffer, SPINNING_LIDAR, prop_.name);
  out = record::putU32(out, uint32_t(prop_.yawSamples));
  out = record::putU32(out, uint32_t(prop_.pitchSamples));
  out = record::putDouble(out, prop_.pitchMinAngle);
  out = record::putDouble(out, prop_.pitchMaxAngle);
  out = record::putDouble(out, prop_.rangeMin);
  out = record::putDouble(out, prop_.rangeMax);
  return record::putDouble(out, prop_.spinRate);
}

void SpinningLidar::update(World& world) {
  if (!checkMount()) return;
  owner->getFrameOrientation(frameIdx, rotW);
  owner->getFramePosition(frameIdx, posW);
  const Mat<3, 3>& R = rotW;
  const double t = world.getWorldTime();
  constexpr double twoPi = 2.0 * M_PI;

  // How far the head turned since the last update, and which columns it
  // passed: the columns from the old angle to the new one, both ends included,
  // rounding inward (forward: up from the old angle, down from the new one;
  // backward the other way). A column exactly on a boundary is cast at the
  // end of one update and again at the start of the next.
  const double elapsed = t - std::max(lastUpdateTime, 0.0);
  const int direction = prop_.spinDirection;
  const double advance = elapsed * twoPi * prop_.spinRate * direction;
  const double newYaw = advance + yawAngle;
  const double yawStep = twoPi / prop_.yawSamples;
  const double pitchStep = (prop_.pitchMaxAngle - prop_.pitchMinAngle) / (prop_.pitchSamples - 1);
  double first, last;
  if (direction < 1) {
    first = std::floor(yawAngle / yawStep);
    last = std::ceil(newYaw / yawStep);
  } else {
    first = std::ceil(yawAngle / yawStep);
    last = std::floor(newYaw / yawStep);
  }

  scan.clear();
  scanTimeStamp = t;

  // Column numbers are whole doubles, so no count overflows an integer. The
  // walk stops at the far end; a direction of 0 does not walk.
  const size_t objectIndex = owner->getIndexInWorld();
  const size_t excludedBody = owner->getFrames()[frameIdx].spareBodyId;
  const double reach = prop_.rangeMax - prop_.rangeMin;
  const World::RayBatch batch(world);  // the scene holds still for the whole sweep
  for (double k = first; direction != 0 && (direction > 0 ? k <= last : k >= last); k += direction) {
    const double yaw = k * yawStep;
    const double cosYaw = std::cos(yaw), sinYaw = std::sin(yaw);
    for (int j = 0; j < prop_.pitchSamples; ++j) {
      const double pitch = j * pitchStep + prop_.pitchMinAngle;
      const double cosPitch = std::cos(pitch);
      const Mat<3, 1> local{cosYaw * cosPitch, sinYaw * cosPitch, std::sin(pitch)};
      Mat<3, 1> w;
      matvecmul(R, local, w);
      const Eigen::Vector3d start(posW[0] + prop_.rangeMin * w[0], posW[1] + prop_.rangeMin * w[1],
                                  posW[2] + prop_.rangeMin * w[2]);
      const RayCollisionList& hits =
          world.rayTest(start, Eigen::Vector3d(w[0], w[1], w[2]), reach, true, objectIndex, excludedBody, size_t(-1));
      if (hits.size == 0) continue;
      const Mat<3, 1>& p = hits[0].position;
      const double dx = p[0] - posW[0], dy = p[1] - posW[1], dz = p[2] - posW[2];  // R^T (p - posW)
      scan.push_back({R(0, 0) * dx + R(1, 0) * dy + R(2, 0) * dz, R(0, 1) * dx + R(1, 1) * dy + R(2, 1) * dz,
                      R(0, 2) * dx + R(1, 2) * dy + R(2, 2) * dz});
    }
  }

  yawAngle = std::fmod(newYaw, twoPi);
  if (yawAngle < 0.0) yawAngle += twoPi;
  lastUpdateTime = t;
}

}  // namespace vorsim
