// A depth camera: one ray per pixel from the sensor frame, x forward, y to the
// left of the image and z up. Depth is measured along the optical axis (the
// frame's x), not along the ray; a pixel whose ray hits nothing within clipFar
// reads NaN, and so does its point. clipNear and the noise settings are stored
// and written to the property record; no step applies them.
//
// Pixel (row r, column c) is stored at index r * height + c in the depth array,
// the points and the ray directions. For a square image that is the usual
// row-major order. For a wider one the rows overlap: pixel (r, c) and pixel
// (r + 1, c - height) share an index, and so a ray, and the last
// (width - height)(height - 1) entries are never written. For a taller one the
// pixels whose index reaches width * height are left out. Every pixel casts the
// stored direction at its index; readers of the arrays use the same index.
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

  // Sizes the depth array and the points to width * height (new entries zero)
  // and appends one ray direction per pixel in the camera frame, row by row:
  // (1, planeW/2 - (xOffset + c + 0.5) planeW/width,
  //     planeH/2 - (yOffset + r + 0.5) planeH/height), planeW = 2 tan(hFOV/2),
  // planeH = height planeW / width. Not normalised. The constructor calls it;
  // a second call appends a second set behind the first.
  void updateRayDirections();

  // Head, then the camera record: width, height (uint32), clipNear, clipFar,
  // hFOV (double), noise type (uint32), mean, std (double), format (uint32
  // length and bytes).
  char* serializeProp(char* buffer) const override;
  // One closest-hit ray per pixel from the frame's pose; fills the depth array
  // and the world points.
  void update(World& world) override;

  // Back-projects a depth image: point = depth * direction in the camera frame,
  // or depth * (R direction) + p in the world with the frame's pose read now.
  // A depth array of another size than width * height is a fatal message.
  void depthToPointCloud(const std::vector<float>& depthArray, std::vector<Mat<3, 1>>& pointCloud,
                         bool isInSensorFrame) const;

  const DepthCameraProperties& getProperties() const { return prop_; }
  const std::vector<float>& getDepthArray() const { return depthArray; }
  // For a viewer that fills the image itself (VISUALIZER source).
  std::vector<float>& getDepthArray() { return depthArray; }
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
