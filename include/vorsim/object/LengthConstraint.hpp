// Wires: a point on one object tied to a point on another. A stiff wire is a
// one-sided constraint for the contact solver, a compliant wire a spring, and a
// custom wire applies whatever tension the caller sets.
#ifndef VORSIM_OBJECT_LENGTHCONSTRAINT_HPP
#define VORSIM_OBJECT_LENGTHCONSTRAINT_HPP

#include <mutex>
#include <string>

#include "vorsim/Object.hpp"
#include "vorsim/math.hpp"

namespace vorsim {

class Constraints {
 public:
  virtual ~Constraints() = default;
  const std::string& getName() const { return name_; }
  void setName(const std::string& name) { name_ = name; }
  // Never locked by the library.
  std::mutex& getMutex() { return mutex_; }

 protected:
  std::string name_;
  double colorR_ = 1.0, colorG_ = 1.0, colorB_ = 1.0, colorA_ = 1.0;
  bool visible_ = false;
  std::mutex mutex_;
};

class LengthConstraint : public Constraints {
 public:
  // 0: acts when stretched; 1: acts when compressed; 2: always.
  enum StretchType { STRETCH_ONLY = 0, COMPRESSION_ONLY = 1, BOTH = 2 };
  enum WireType { STIFF = 0, COMPLIANT = 1, CUSTOM = 2 };

  LengthConstraint(Object* ob1, size_t localIdx1, Mat<3, 1> pos1, Object* ob2, size_t localIdx2, Mat<3, 1> pos2,
                   double length);
  ~LengthConstraint() override = default;

  // Refreshes the mount points, distance, stretch and activity, then applies
  // the tension. Called by the world once a step, inside integrate1.
  void update(ContactProblemList& problems);
  virtual void applyTension(ContactProblemList& problems) = 0;

  const Mat<3, 1>& getOb1MountPos() const { return ob1MountPos; }
  const Mat<3, 1>& getOb2MountPos() const { return ob2MountPos; }
  Object* getBody1() const { return ob1; }
  Object* getBody2() const { return ob2; }
  const Mat<3, 1>& getP1() const { return p1; }
  const Mat<3, 1>& getP2() const { return p2; }
  size_t getLocalIdx1() const { return localIdx1; }
  size_t getLocalIdx2() const { return localIdx2; }
  const Mat<3, 1>& getNorm() const { return norm; }
  double getLength() const { return length; }
  double getDistance() const { return distance; }
  double getStretch() const { return stretch; }
  int getWireType() const { return wireType; }
  int getStretchType() const { return stretchType; }
  void setStretchType(int type) { stretchType = type; }
  bool isActive() const { return isActive_; }

 protected:
  Mat<3, 1> ob1MountPos;
  Object* ob1;
  Mat<3, 1> ob2MountPos;
  Object* ob2;
  Mat<3, 1> p1{};
  size_t localIdx1;
  Mat<3, 1> p2{};
  size_t localIdx2;
  Mat<3, 1> norm{};
  double length;
  double distance = 0.0;
  double stretch = 0.0;
  double width = 0.02;
  int wireType = STIFF;
  int stretchType = COMPRESSION_ONLY;
  bool isActive_ = false;
};

// Enforced by the contact solver as a one-sided constraint along the wire.
class StiffLengthConstraint : public LengthConstraint {
 public:
  StiffLengthConstraint(Object* ob1, size_t localIdx1, Mat<3, 1> pos1, Object* ob2, size_t localIdx2, Mat<3, 1> pos2,
                        double length);
  void applyTension(ContactProblemList& problems) override;
};

// A spring: tension = stiffness * stretch while active.
class CompliantLengthConstraint : public LengthConstraint {
 public:
  CompliantLengthConstraint(Object* ob1, int localIdx1, Mat<3, 1> pos1, Object* ob2, int localIdx2, Mat<3, 1> pos2,
                            double length, double stiffness);
  void applyTension(ContactProblemList& problems) override;
  double getStiffness() const { return stiffness; }

 private:
  double stiffness;
  Mat<3, 1> force1{}, force2{};
};

// Applies the tension set by the caller in every step, active or not.
class CustomLengthConstraint : public LengthConstraint {
 public:
  CustomLengthConstraint(Object* ob1, size_t localIdx1, Mat<3, 1> pos1, Object* ob2, size_t localIdx2, Mat<3, 1> pos2,
                         double length);
  void applyTension(ContactProblemList& problems) override;
  void setTension(double t) { tension = t; }
  double getTension() const { return tension; }

 private:
  Mat<3, 1> force1{}, force2{};
  double tension = 0.0;
};

}  // namespace vorsim

#endif  // VORSIM_OBJECT_LENGTHCONSTRAINT_HPP
