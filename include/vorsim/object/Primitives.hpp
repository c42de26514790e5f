// The primitive bodies: thin subclasses of SingleBodyObject that store their
// dimensions, create their geom and fill in mass and inertia. Ground is the one
// static primitive, a plane.
#ifndef VORSIM_OBJECT_PRIMITIVES_HPP
#define VORSIM_OBJECT_PRIMITIVES_HPP

#include "vorsim/object/Shape.hpp"
#include "vorsim/object/SingleBodyObject.hpp"

namespace vorsim {

class Sphere : public SingleBodyObject {
 public:
  Sphere(double radius, double mass);
  double getRadius() const { return radius_; }

 private:
  double radius_;
};

class Box : public SingleBodyObject {
 public:
  // Full edge lengths.
  Box(double xDim, double yDim, double zDim, double mass);
  Mat<3, 1> getDim() const { return {xDim_, yDim_, zDim_}; }

 private:
  double xDim_, yDim_, zDim_;
};

class Cylinder : public SingleBodyObject {
 public:
  Cylinder(double radius, double height, double mass);
  double getRadius() const { return radius_; }
  double getHeight() const { return height_; }

 private:
  double radius_, height_;
};

class Capsule : public SingleBodyObject {
 public:
  // `height` is the length of the cylindrical part.
  Capsule(double radius, double height, double mass);
  double getRadius() const { return radius_; }
  double getHeight() const { return height_; }

 private:
  double radius_, height_;
};

// The collision backend has no cone: constructing one is a fatal message. Under
// a fatal callback that returns, the object is built without a geom and must
// not reach any collision operation.
class Cone : public SingleBodyObject {
 public:
  Cone(double radius, double height, double mass);
  double getRadius() const { return radius_; }
  double getHeight() const { return height_; }
  void setOrientation(const Eigen::Quaterniond& quat) override;
  void setOrientation(double w, double x, double y, double z) override;
  using SingleBodyObject::setOrientation;
  void updateCollision() override;

 private:
  void applyOrientation();
  double radius_, height_;
};

class Ground : public SingleBodyObject {
 public:
  explicit Ground(double height);
  double getHeight() const { return height_; }
  // A plane is placed by its equation, not by a pose.
  void updateCollision() override {}

 private:
  double height_;
};

// Mass and inertia (about the centre of mass, rotated by `rotation`) of a shape
// of uniform density. Note that the Capsule row takes a capsule's mass with a
// solid cylinder's inertia formula, and the Cylinder row a cylinder's mass with
// the end-cap terms added: model files loaded with a density get these numbers.
// Any other shape gives zero mass and inertia.
void getInertialAssumingUniformDensity(Shape::Type type, const Mat<4, 1>& params, const Mat<3, 3>& rotation,
                                       double density, double& mass, Mat<3, 3>& inertia);

}  // namespace vorsim

#endif  // VORSIM_OBJECT_PRIMITIVES_HPP
