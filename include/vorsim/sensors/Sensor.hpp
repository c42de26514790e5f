// A sensor mounted on a link of an ArticulatedSystem. It sits on a frame of the
// robot (ArticulatedSystem::frames) and reads its pose from there; the robot
// keeps its sensors in a map by name.
//
// Timing: the owning robot calls ArticulatedSystem::updateSensorsIfNecessary
// once per step. A sensor whose source is SIMULATOR is due when the world time
// t satisfies t + 1e-10 > lastUpdateTime + 1/updateRate; it is then measured
// once (a step longer than its period still gives one measurement) and
// lastUpdateTime becomes t. An update rate of 0 never comes due.
//
// Records: serializeProp and serializeMeasurements write little-endian, packed
// fields at a caller's buffer and return the pointer past what they wrote.
// Every property record starts with the same head: uint32 type, uint32 name
// length, then the name's bytes without a terminator. propertyRecordSize and
// measurementRecordSize give the byte counts, so a caller can size the buffer.
#ifndef VORSIM_SENSORS_SENSOR_HPP
#define VORSIM_SENSORS_SENSOR_HPP

#include <cstdint>
#include <mutex>
#include <string>

#include "vorsim/math.hpp"

namespace vorsim {

class ArticulatedSystem;
class World;

class Sensor {
 public:
  enum Type : uint32_t { RGB = 1, DEPTH = 2, IMU = 3, SPINNING_LIDAR = 4 };
  // SIMULATOR: the library computes the measurement. VISUALIZER: an outside
  // viewer fills it and the library leaves it alone.
  enum MeasurementSource : uint32_t { SIMULATOR = 0, VISUALIZER = 1 };

  Sensor(std::string name, Type type, ArticulatedSystem* owner, const Mat<3, 1>& pos, const Mat<3, 3>& rot,
         MeasurementSource source);
  virtual ~Sensor() = default;
  Sensor(const Sensor&) = delete;
  Sensor& operator=(const Sensor&) = delete;

  // Writes the property record into buffer and returns the pointer past it.
  virtual char* serializeProp(char* buffer) const = 0;
  // Writes the measurement record; the default writes nothing.
  virtual char* serializeMeasurements(char* buffer) const { return buffer; }
  // Takes a measurement now, whatever the timing says.
  virtual void update(World& world) = 0;

  // Reads the world pose of the sensor's frame from its owner into
  // getPosition / getOrientation. A sensor without an owner or a frame is a
  // fatal message.
  void updatePose();

  // Bytes that serializeProp / serializeMeasurements write.
  size_t propertyRecordSize() const;
  size_t measurementRecordSize() const;
  // Whether the step would update the sensor at world time t.
  bool isDue(double t) const;

  Type getType() const { return type; }
  const std::string& getName() const { return name; }
  // World pose as of the last updatePose.
  const Mat<3, 1>& getPosition() const { return posW; }
  const Mat<3, 3>& getOrientation() const { return rotW; }
  // Mount pose in the body that carries the sensor (after fixed links were
  // merged, in the movable body's frame).
  const Mat<3, 1>& getPositionInBody() const { return posB; }
  const Mat<3, 3>& getOrientationInBody() const { return rotB; }
  // The pose as the description gave it, in its own link's frame.
  const Mat<3, 1>& getDescribedPosition() const { return describedPos; }
  const Mat<3, 3>& getDescribedOrientation() const { return describedRot; }
  void setPoseInBody(const Mat<3, 1>& pos, const Mat<3, 3>& rot) {
    posB = pos;
    rotB = rot;
  }
  // -1 (all bits) until the owning system gives the sensor a frame.
  size_t getFrameIdx() const { return frameIdx; }
  void setFrameIdx(size_t idx) { frameIdx = idx; }
  ArticulatedSystem* getOwner() const { return owner; }
  void setOwner(ArticulatedSystem* system) { owner = system; }
  MeasurementSource getMeasurementSource() const { return measurementSource; }
  // Kinds that cannot work with the source refuse it with a fatal message
  // (an IMU is never filled by a viewer).
  void setMeasurementSource(MeasurementSource source) {
    measurementSource = source;
    validateMeasurementSource();
  }
  double getUpdateRate() const { return updateRate; }
  void setUpdateRate(double rate) { updateRate = rate; }
  double getLastUpdateTime() const { return lastUpdateTime; }
  void setLastUpdateTime(double time) { lastUpdateTime = time; }
  // Never locked by the library; for a client's threads.
  std::mutex& getMutex() { return sensorMutex; }

 protected:
  // Refuses a measurement source the kind cannot work with; empty by default.
  virtual void validateMeasurementSource() {}
  // updatePose's check: a fatal message unless the sensor has an owner and its
  // frame exists there. Returns whether the pose can be read.
  bool checkMount() const;

  Type type;
  Mat<3, 1> posW{0.0, 0.0, 0.0};
  Mat<3, 1> posB;
  Mat<3, 1> describedPos;
  Mat<3, 3> rotW = Mat<3, 3>::getIdentity();
  Mat<3, 3> rotB;
  Mat<3, 3> describedRot;
  size_t frameIdx = size_t(-1);
  ArticulatedSystem* owner;
  MeasurementSource measurementSource;
  std::string name;
  std::mutex sensorMutex;
  double updateRate = 1.0;  // Hz
  double lastUpdateTime = -1.0;
};

// Noise models of the cameras: stored and serialised, never applied.
enum NoiseType : int32_t { GAUSSIAN = 0, UNIFORM = 1, NO_NOISE = 2 };
// "gaussian"/"Gaussian" 0, "uniform"/"Uniform" 1, anything else 2.
NoiseType stringToNoiseType(const std::string& text);

}  // namespace vorsim

#endif  // VORSIM_SENSORS_SENSOR_HPP
