// A spinning lidar: columns of rays that turn about the sensor's z axis.
#ifndef VORSIM_SENSORS_SPINNINGLIDAR_HPP
#define VORSIM_SENSORS_SPINNINGLIDAR_HPP

#include <vector>

#include "vorsim/sensors/Sensor.hpp"

namespace vorsim {

class SpinningLidar : public Sensor {
 public:
  struct SpinningLidarProperties {
    std::string name;
    int yawSamples = 1;    // rays per full turn
    int pitchSamples = 1;  // rays per column
    double pitchMinAngle = 0.0, pitchMaxAngle = 0.0;
    double rangeMin = 0.0, rangeMax = 100.0;
    double spinRate = 10.0;  // turns per second
    int spinDirection = 1;   // 1, or -1 for "clockwise"
  };

  SpinningLidar(const SpinningLidarProperties& prop, ArticulatedSystem* owner, const Mat<3, 1>& pos,
                const Mat<3, 3>& rot);

  // Placeholder until the sensors stage: writes nothing.
  char* serializeProp(char* buffer) const override;
  // Placeholder until the sensors stage: takes no measurement.
  void update(World& world) override;

  const SpinningLidarProperties& getProperties() const { return prop_; }
  const std::vector<Mat<3, 1>>& getScan() const { return scan; }
  double getScanTimeStamp() const { return scanTimeStamp; }

 protected:
  SpinningLidarProperties prop_;
  double scanTimeStamp = 0.0;
  std::vector<Mat<3, 1>> scan;
  double yawAngle = 0.0;
};

}  // namespace vorsim

#endif  // VORSIM_SENSORS_SPINNINGLIDAR_HPP
