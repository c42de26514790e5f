// The depth camera: one closest-hit ray per pixel, depth along the optical
// axis, NaN where nothing is hit.
#include "vorsim/sensors/DepthCamera.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "sensorRecords.hpp"
#include "vorsim/VorSimMsg.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

namespace vorsim {

namespace {
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

size_t pixelCount(int width, int height) { return size_t(std::max(width, 0)) * size_t(std::max(height, 0)); }
}  // namespace

DepthCamera::DepthCamera(const DepthCameraProperties& prop, ArticulatedSystem* owner_, const Mat<3, 1>& pos,
                         const Mat<3, 3>& rot)
    : Sensor(prop.name, DEPTH, owner_, pos, rot, VISUALIZER), prop_(prop) {
  updateRayDirections();
}

void DepthCamera::updateRayDirections() {
  const size_t pixels = pixelCount(prop_.width, prop_.height);
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

char* DepthCamera::serializeProp(char* buffer) const {
  return record::putCamera(record::putHead(buffer, DEPTH, prop_.name), prop_);
}

void DepthCamera::update(World& world) {
  if (!checkMount()) return;
  owner->getFrameOrientation(frameIdx, rotW);
  owner->getFramePosition(frameIdx, posW);
  const Mat<3, 3>& R = rotW;
  const Eigen::Vector3d start(posW[0], posW[1], posW[2]);
  const size_t objectIndex = owner->getIndexInWorld();
  const size_t carrier = owner->getFrames()[frameIdx].parentId;
  const size_t pixels = depthArray.size();
  const size_t height = size_t(std::max(prop_.height, 0));
  const size_t width = size_t(std::max(prop_.width, 0));
  const World::RayBatch batch(world);  // the scene holds still for the whole image

  for (size_t r = 0; r < height; ++r) {
    for (size_t c = 0; c < width; ++c) {
      const size_t i = r * height + c;
      if (i >= pixels) continue;  // a tall image's pixels past the arrays' end
      const Mat<3, 1>& d = rayDirections[i];
      const double inverseLength = 1.0 / std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
      const Mat<3, 1> unit{d[0] * inverseLength, d[1] * inverseLength, d[2] * inverseLength};
      Mat<3, 1> w;
      matvecmul(R, unit, w);
      const RayCollisionList& hits = world.rayTest(start, Eigen::Vector3d(w[0], w[1], w[2]), prop_.clipFar, true,
                                                   objectIndex, carrier, size_t(-1));
      if (hits.size == 0) {
        threeDPoints[i] = {kNaN, kNaN, kNaN};
        depthArray[i] = std::numeric_limits<float>::quiet_NaN();
        continue;
      }
      const Mat<3, 1>& p = hits[0].position;
      threeDPoints[i] = p;
      depthArray[i] = float(R(0, 0) * (p[0] - posW[0]) + R(1, 0) * (p[1] - posW[1]) + R(2, 0) * (p[2] - posW[2]));
    }
  }
}

void DepthCamera::depthToPointCloud(const std::vector<float>& depth, std::vector<Mat<3, 1>>& pointCloud,
                                    bool isInSensorFrame) const {
  const size_t pixels = pixelCount(prop_.width, prop_.height);
  if (depth.size() != pixels) {
    MSG_FATAL("The input depthArray should have a size of " << pixels << ". It's actual size is " << depth.size());
    return;
  }
  if (!checkMount()) return;
  pointCloud.resize(pixels, Mat<3, 1>{0.0, 0.0, 0.0});
  Mat<3, 3> R;
  Mat<3, 1> p;
  owner->getFrameOrientation(frameIdx, R);
  owner->getFramePosition(frameIdx, p);
  const size_t height = size_t(std::max(prop_.height, 0));
  const size_t width = size_t(std::max(prop_.width, 0));

  for (size_t r = 0; r < height; ++r) {
    for (size_t c = 0; c < width; ++c) {
      const size_t i = r * height + c;
      if (i >= pixels) continue;
      const double z = depth[i];
      const Mat<3, 1>& d = rayDirections[i];
      if (isInSensorFrame) {
        pointCloud[i] = {z * d[0], z * d[1], z * d[2]};
      } else {
        Mat<3, 1> w;
        matvecmul(R, d, w);
        pointCloud[i] = {z * w[0] + p[0], z * w[1] + p[1], z * w[2] + p[2]};
      }
    }
  }
}

}  // namespace vorsim
