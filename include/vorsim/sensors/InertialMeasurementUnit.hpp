// An inertial unit: acceleration, angular velocity and orientation at its
// frame. The robot computes it (ArticulatedSystem::updateSensorsIfNecessary,
// from the accelerations of the step that its inverse dynamics leaves); its own
// update does nothing.
//
// The acceleration is the frame's proper acceleration in the sensor's axes:
// gravity enters as an upward acceleration of the base, so a unit at rest on
// level ground reads (0, 0, +g) and one in free fall reads zero. The angular
// velocity is the carrying body's, in the sensor's axes. Each of the two is
// scaled down to its limit when its norm exceeds it; the direction is kept.
#ifndef VORSIM_SENSORS_INERTIALMEASUREMENTUNIT_HPP
#define VORSIM_SENSORS_INERTIALMEASUREMENTUNIT_HPP

#include <limits>

#include "vorsim/sensors/Sensor.hpp"

namespace vorsim {

class InertialMeasurementUnit : public Sensor {
 public:
  struct ImuProperties {
    std::string name;
    double maxAcc = std::numeric_limits<double>::max();        // limit of |acceleration|
    double maxAngVel = std::numeric_limits<double>::max();     // limit of |angular velocity|
    double reserved0 = 0.0, reserved1 = 0.0, reserved2 = 0.0;  // stored and copied only
  };

  InertialMeasurementUnit(const ImuProperties& prop, ArticulatedSystem* owner, const Mat<3, 1>& pos,
                          const Mat<3, 3>& rot);

  // Head, then maxAcc and maxAngVel (double).
  char* serializeProp(char* buffer) const override;
  // Six floats: the acceleration x, y, z, then the angular velocity x, y, z.
  // The quaternion is not written.
  char* serializeMeasurements(char* buffer) const override;
  // The robot computes the measurement; nothing to do here.
  void update(World& /*world*/) override {}

  const ImuProperties& getProperties() const { return prop_; }
  const Mat<3, 1>& getLinearAcceleration() const { return linearAcceleration; }
  const Mat<3, 1>& getAngularVelocity() const { return angularVelocity; }
  // Orientation of the sensor frame in the world, (w, x, y, z), as the
  // rotation-matrix conversion gives it (unit, sign not forced).
  const Mat<4, 1>& getQuaternion() const { return quaternion; }

 protected:
  friend class ArticulatedSystem;  // takes the measurement

  // "IMU cannot be updated by the visualizer" for the VISUALIZER source.
  void validateMeasurementSource() override;

  ImuProperties prop_;
  Mat<3, 1> linearAcceleration{0.0, 0.0, 0.0};
  Mat<3, 1> spare{0.0, 0.0, 0.0};
  Mat<3, 1> angularVelocity{0.0, 0.0, 0.0};
  Mat<4, 1> quaternion{0.0, 0.0, 0.0, 0.0};
};

}  // namespace vorsim

#endif  // VORSIM_SENSORS_INERTIALMEASUREMENTUNIT_HPP
