// The sensor base (pose, timing, the record head, record sizes), the noise
// names, and the two kinds without a ray-cast measurement: the RGB camera and
// the inertial unit. The inertial unit's measurement is taken by its robot
// (src/object/ArticulatedSystem/SensorUpdates.cpp).
#include <algorithm>

#include "sensorRecords.hpp"
#include "vorsim/VorSimMsg.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/sensors/DepthCamera.hpp"
#include "vorsim/sensors/InertialMeasurementUnit.hpp"
#include "vorsim/sensors/RGBSensor.hpp"
#include "vorsim/sensors/SpinningLidar.hpp"

namespace vorsim {

Sensor::Sensor(std::string name_, Type type_, ArticulatedSystem* owner_, const Mat<3, 1>& pos, const Mat<3, 3>& rot,
               MeasurementSource source)
    : type(type_),
      posB(pos),
      describedPos(pos),
      rotB(rot),
      describedRot(rot),
      owner(owner_),
      measurementSource(source),
      name(std::move(name_)) {}

bool Sensor::checkMount() const {
  if (owner == nullptr) {
    MSG_FATAL("Sensor \"" << name << "\" is not mounted on an articulated system");
    return false;
  }
  if (frameIdx >= owner->getFrames().size()) {
    MSG_FATAL("Sensor \"" << name << "\" has no frame on its articulated system");
    return false;
  }
  return true;
}

void Sensor::updatePose() {
  if (!checkMount()) return;
  owner->getFrameOrientation(frameIdx, rotW);
  owner->getFramePosition(frameIdx, posW);
}

bool Sensor::isDue(double t) const {
  const double next = 1.0 / updateRate + lastUpdateTime;
  return t + 1e-10 > next;
}

size_t Sensor::propertyRecordSize() const {
  switch (type) {
    case RGB: {
      const auto& p = static_cast<const RGBCamera*>(this)->getProperties();
      return record::headSize(p.name) + record::cameraSize(p);
    }
    case DEPTH: {
      const auto& p = static_cast<const DepthCamera*>(this)->getProperties();
      return record::headSize(p.name) + record::cameraSize(p);
    }
    case IMU:
      return record::headSize(static_cast<const InertialMeasurementUnit*>(this)->getProperties().name) + 2 * 8;
    case SPINNING_LIDAR:
      return record::headSize(static_cast<const SpinningLidar*>(this)->getProperties().name) + 2 * 4 + 5 * 8;
  }
  return 0;
}

size_t Sensor::measurementRecordSize() const { return type == IMU ? 6 * 4 : 0; }

NoiseType stringToNoiseType(const std::string& text) {
  if (text == "gaussian" || text == "Gaussian") return GAUSSIAN;
  if (text == "uniform" || text == "Uniform") return UNIFORM;
  return NO_NOISE;
}

// -------------------------------------------------------------- RGB camera --

RGBCamera::RGBCamera(const RGBCameraProperties& prop, ArticulatedSystem* owner_, const Mat<3, 1>& pos,
                     const Mat<3, 3>& rot)
    : Sensor(prop.name, RGB, owner_, pos, rot, VISUALIZER), prop_(prop) {
  const size_t pixels = size_t(std::max(prop_.width, 0)) * size_t(std::max(prop_.height, 0));
  if (pixels != 0) rawImage.resize(pixels * 4);
}

char* RGBCamera::serializeProp(char* buffer) const {
  return record::putCamera(record::putHead(buffer, RGB, prop_.name), prop_);
}

void RGBCamera::update(World& /*world*/) {
  MSG_FATAL("RGB sensors can only be updated by the visualizer. Use VorsimUnreal.");
}

// ------------------------------------------------------------ inertial unit --

InertialMeasurementUnit::InertialMeasurementUnit(const ImuProperties& prop, ArticulatedSystem* owner_,
                                                 const Mat<3, 1>& pos, const Mat<3, 3>& rot)
    : Sensor(prop.name, IMU, owner_, pos, rot, SIMULATOR), prop_(prop) {
  measurementSource = SIMULATOR;
}

char* InertialMeasurementUnit::serializeProp(char* buffer) const {
  char* out = record::putHead(buffer, IMU, prop_.name);
  out = record::putDouble(out, prop_.maxAcc);
  return record::putDouble(out, prop_.maxAngVel);
}

char* InertialMeasurementUnit::serializeMeasurements(char* buffer) const {
  char* out = buffer;
  for (size_t k = 0; k < 3; ++k) out = record::putFloat(out, float(linearAcceleration[k]));
  for (size_t k = 0; k < 3; ++k) out = record::putFloat(out, float(angularVelocity[k]));
  return out;
}

void InertialMeasurementUnit::validateMeasurementSource() {
  if (measurementSource == VISUALIZER) MSG_FATAL("IMU cannot be updated by the visualizer");
}

}  // namespace vorsim
