// Sensor kinds as a robot description defines them: construction, mount pose
// and frame. The measurements of the depth camera and the lidar, and every
// property record, are the sensors stage's and stay placeholders here.
#include <algorithm>
#include <cmath>

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

void Sensor::updatePose() {
  owner->getFrameOrientation(frameIdx, rotW);
  owner->getFramePosition(frameIdx, posW);
}

NoiseType stringToNoiseType(const std::string& text) {
  if (text == "gaussian" || text == "Gaussian") return GAUSSIAN;
  if (text == "uniform" || text == "Uniform") return UNIFORM;
  return NO_NOISE;
}

DepthCamera::DepthCamera(const DepthCameraProperties& prop, ArticulatedSystem* owner_, const Mat<3, 1>& pos,
                         const Mat<3, 3>& rot)
    : Sensor(prop.name, DEPTH, owner_, pos, rot, VISUALIZER), prop_(prop) {
  updateRayDirections();
}

void DepthCamera::updateRayDirections() {
  const size_t pixels = size_t(std::max(prop_.width, 0)) * size_t(std::max(prop_.height, 0));
  depthArray.resize(pixels, 0.0f);
  threeDPoints.resize(pixels, Mat<3, 1>{0.0, 0.0, 0.0});
  rayDirections.reserve(rayDirections.size() + pixels);
  const double planeW = 2.0 * std::tan(prop_.hFOV * 0.5);
  const double planeH = prop_.height * planeW / prop_.width;
  for (int r = 0; r < prop_.height; ++r)
    for (int c = 0; c < prop_.width; ++c)
      rayDirections.push_back({1.0, planeW * 0.5 - (prop_.xOffset + c + 0.5) * planeW / prop_.width,
                               planeH * 0.5 - (prop_.yOffset + r + 0.5) * planeH / prop_.height});
}

// Placeholder: the property record is written by the sensors stage.
char* DepthCamera::serializeProp(char* buffer) const { return buffer; }
// Placeholder: depth measurement by ray casting is the sensors stage's.
void DepthCamera::update(World& /*world*/) {}

RGBCamera::RGBCamera(const RGBCameraProperties& prop, ArticulatedSystem* owner_, const Mat<3, 1>& pos,
                     const Mat<3, 3>& rot)
    : Sensor(prop.name, RGB, owner_, pos, rot, VISUALIZER), prop_(prop) {
  const size_t pixels = size_t(std::max(prop_.width, 0)) * size_t(std::max(prop_.height, 0));
  if (pixels != 0) rawImage.resize(pixels * 4);
}

// Placeholder: the property record is written by the sensors stage.
char* RGBCamera::serializeProp(char* buffer) const { return buffer; }
void RGBCamera::update(World& /*world*/) {
  MSG_FATAL("RGB sensors can only be updated by the visualizer. Use VorsimUnreal.");
}

SpinningLidar::SpinningLidar(const SpinningLidarProperties& prop, ArticulatedSystem* owner_, const Mat<3, 1>& pos,
                             const Mat<3, 3>& rot)
    : Sensor(prop.name, SPINNING_LIDAR, owner_, pos, rot, SIMULATOR), prop_(prop) {
  scan.reserve(size_t(std::max(prop_.yawSamples, 0)) * size_t(std::max(prop_.pitchSamples, 0)));
}

// Placeholder: the property record is written by the sensors stage.
char* SpinningLidar::serializeProp(char* buffer) const { return buffer; }
// Placeholder: the scan by ray casting is the sensors stage's.
void SpinningLidar::update(World& /*world*/) {}

InertialMeasurementUnit::InertialMeasurementUnit(const ImuProperties& prop, ArticulatedSystem* owner_,
                                                 const Mat<3, 1>& pos, const Mat<3, 3>& rot)
    : Sensor(prop.name, IMU, owner_, pos, rot, SIMULATOR), prop_(prop) {
  measurementSource = SIMULATOR;
}

// Placeholder: the property record is written by the sensors stage.
char* InertialMeasurementUnit::serializeProp(char* buffer) const { return buffer; }

void InertialMeasurementUnit::validateMeasurementSource() {
  if (measurementSource == VISUALIZER) MSG_FATAL("IMU cannot be updated by the visualizer");
}

}  // namespace vorsim
