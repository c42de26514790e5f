// A colour camera. It holds properties only: its image can come from a viewer
// alone.
#ifndef VORSIM_SENSORS_RGBSENSOR_HPP
#define VORSIM_SENSORS_RGBSENSOR_HPP

#include <cstdint>
#include <vector>

#include "vorsim/sensors/Sensor.hpp"

namespace vorsim {

class RGBCamera : public Sensor {
 public:
  struct RGBCameraProperties {
    std::string name;
    int width = 0, height = 0;
    int xOffset = 0, yOffset = 0;
    double clipNear = 0.0, clipFar = 0.0;
    double hFOV = 0.0;
    NoiseType noiseType = NO_NOISE;
    double mean = 0.0, std = 0.0;
    std::string format = "R8G8B8A8";
  };

  RGBCamera(const RGBCameraProperties& prop, ArticulatedSystem* owner, const Mat<3, 1>& pos, const Mat<3, 3>& rot);

  // Head, then the camera record of DepthCamera::serializeProp.
  char* serializeProp(char* buffer) const override;
  // Always the fatal message "RGB sensors can only be updated by the
  // visualizer. Use VorsimUnreal.".
  void update(World& world) override;

  const RGBCameraProperties& getProperties() const { return prop_; }
  // width * height * 4 bytes (empty for an empty image), filled by a viewer.
  std::vector<uint8_t>& getImageBuffer() { return rawImage; }
  const std::vector<uint8_t>& getImageBuffer() const { return rawImage; }

 protected:
  RGBCameraProperties prop_;
  std::vector<uint8_t> rawImage;  // width * height * 4 bytes
};

}  // namespace vorsim

#endif  // VORSIM_SENSORS_RGBSENSOR_HPP
