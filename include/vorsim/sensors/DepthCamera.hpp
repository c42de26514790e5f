// A depth camera: one ray per pixel from the sensor frame, x forward.
#ifndef VORSIM_SENSORS_DEPTHCAMERA_HPP
#define VORSIM_SENSORS_DEPTHCAMERA_HPP

#include <vector>

#include "vorsim/sensors/Sensor.hpp"

namespace vorsim {

class DepthCamera : public Sensor {
 public:
  struct DepthCameraProperties {
    std::string name;
    int width = 0, height = 0;
    int xOffset = 0, yOffset = 0;  // first pixel of the window within the full image
    double clipNear = 0.0, clipFar = 0.0;
    double hFOV = 0.0;  // radians
    NoiseType noiseType = NO_NOISE;
    double mean = 0.0, std = 0.0;
    std::string format = "16";
  };

  DepthCamera(const DepthCameraProperties& prop, ArticulatedSystem* owner, const Mat<3, 1>& pos, const Mat<3, 3>& rot);

  // Pixel ray directions in the camera frame, x = 1, not normalised, row by
  // row. Appends to the list.
  void updateRayDirections();

  // Placeholder until the sensors stage: writes nothing.
  char* serializeProp(char* buffer) const override;
  // Placeholder until the sensors stage: takes no measurement.
  void update(World& world) override;

  const DepthCameraProperties& getProperties() const { return prop_; }
  const std::vector<float>& getDepthArray() const { return depthArray; }
  const std::vector<Mat<3, 1>>& get3DPoints() const { return threeDPoints; }
  const std::vector<Mat<3, 1>>& getRayDirections() const { return rayDirections; }

 protected:
  DepthCameraProperties prop_;
  std::vector<float> depthArray;
  std::vector<Mat<3, 1>> threeDPoints;
  std::vector<Mat<3, 1>> rayDirections;
};

}  // namespace vorsim

#endif  // VORSIM_SENSORS_DEPTHCAMERA_HPP
