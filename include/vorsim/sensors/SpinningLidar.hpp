// A spinning lidar: columns of rays that turn about the sensor's z axis.
//
// A column at yaw angle k * 2pi / yawSamples holds pitchSamples rays, at
// pitchMinAngle + j (pitchMaxAngle - pitchMinAngle) / (pitchSamples - 1); so at
// least two pitch samples are needed (one gives NaN directions and no hits).
// Each update turns the head by 2pi spinRate spinDirection times the time since
// the last update, casts the columns that the turn passed (both ends included
// when they fall on a column), and keeps in the scan the hit points of those
// rays only, in the sensor frame. A ray starts rangeMin along its direction and
// reaches rangeMax. A turn slower than one column per update may cast nothing.
// The rays leave out the robot's body 0, whatever body carries the lidar.
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

  // Head, then yawSamples, pitchSamples (uint32), pitchMinAngle,
  // pitchMaxAngle, rangeMin, rangeMax, spinRate (double).
  char* serializeProp(char* buffer) const override;
  // Advances the head and casts the columns it passed.
  void update(World& world) override;

  const SpinningLidarProperties& getProperties() const { return prop_; }
  // Hit points of the last update, in the sensor frame.
  const std::vector<Mat<3, 1>>& getScan() const { return scan; }
  // World time of the last update.
  double getScanTimeStamp() const { return scanTimeStamp; }
  // Where the head points now, in [0, 2pi).
  double getYawAngle() const { return yawAngle; }

 protected:
  SpinningLidarProperties prop_;
  double scanTimeStamp = 0.0;
  std::vector<Mat<3, 1>> scan;
  double yawAngle = 0.0;
};

}  // namespace vorsim

#endif  // VORSIM_SENSORS_SPINNINGLIDAR_HPP
