#include "vorsim/object/Primitives.hpp"

#include "vorsim/Collision.hpp"
#include "vorsim/VorSimMsg.hpp"

namespace vorsim {

namespace {
Mat<3, 3> diag(double a, double b, double c) {
  Mat<3, 3> m;
  m.setZero();
  m(0, 0) = a;
  m(1, 1) = b;
  m(2, 2) = c;
  return m;
}
}  // namespace

Sphere::Sphere(double radius, double mass) : SingleBodyObject(SPHERE), radius_(radius) {
  const double I = 0.4 * mass * radius * radius;
  initPrimitive(dCreateSphere(nullptr, radius), mass, diag(I, I, I));
  gyroscopicMode_ = EXPLICIT_GYROSCOPIC_FORCE;
  updateCollision();
}

Box::Box(double xDim, double yDim, double zDim, double mass)
    : SingleBodyObject(BOX), xDim_(xDim), yDim_(yDim), zDim_(zDim) {
  const double k = mass / 12.0;
  initPrimitive(
      dCreateBox(nullptr, xDim, yDim, zDim), mass,
      diag(k * (yDim * yDim + zDim * zDim), k * (xDim * xDim + zDim * zDim), k * (xDim * xDim + yDim * yDim)));
  updateCollision();
}

Cylinder::Cylinder(double radius, double height, double mass)
    : SingleBodyObject(CYLINDER), radius_(radius), height_(height) {
  const double It = mass / 12.0 * height * height + mass / 4.0 * radius * radius;
  initPrimitive(dCreateCylinder(nullptr, radius, height), mass, diag(It, It, mass / 2.0 * radius * radius));
  updateCollision();
}

Capsule::Capsule(double radius, double height, double mass)
    : SingleBodyObject(CAPSULE), radius_(radius), height_(height) {
  // Mass split over the cylinder and the two hemispheres by volume (pi cancels).
  const double r = radius, h = height;
  const double V = 4.0 / 3.0 * r * r * r + r * r * h;
  const double mc = r * r * h * mass / V;
  const double ms = 2.0 / 3.0 * r * r * r * mass / V;
  const double It = 2.0 * ms * (h * h / 2.0 + 0.4 * r * r + 0.375 * h * r) + mc * (h * h / 12.0 + r * r / 4.0);
  const double Ia = mc / 2.0 * r * r + 0.8 * ms * r * r;
  initPrimitive(dCreateCapsule(nullptr, radius, height), mass, diag(It, It, Ia));
  updateCollision();
}

Ground::Ground(double height) : SingleBodyObject(GROUND), height_(height) {
  bodyType_ = STATIC;
  position_ = {0.0, 0.0, height};
  collisionObject_ = attachGeomData(dCreatePlane(nullptr, 0.0, 0.0, 1.0, height));
  rotationMatrix_.setIdentity();
}

void getInertialAssumingUniformDensity(Shape::Type type, const Mat<4, 1>& params, const Mat<3, 3>& rotation,
                                       double density, double& mass, Mat<3, 3>& inertia) {
  const double r = params[0];
  Mat<3, 3> D;
  D.setZero();
  switch (type) {
    case Shape::Sphere:
      mass = 4.0 / 3.0 * M_PI * r * r * r * density;
      D(0, 0) = D(1, 1) = D(2, 2) = 0.4 * mass * r * r;
      break;
    case Shape::Box: {
      const double x = params[0], y = params[1], z = params[2];
      mass = x * y * z * density;
      D(0, 0) = mass / 12.0 * (y * y + z * z);
      D(1, 1) = mass / 12.0 * (x * x + z * z);
      D(2, 2) = mass / 12.0 * (x * x + y * y);
      break;
    }
    case Shape::Capsule: {
      const double l = params[1];
      mass = (M_PI * r * r * l + 4.0 / 3.0 * M_PI * r * r * r) * density;
      D(0, 0) = D(1, 1) = mass / 12.0 * (3.0 * r * r + l * l);
      D(2, 2) = mass / 2.0 * r * r;
      break;
    }
    case Shape::Cylinder: {
      const double l = params[1];
      mass = M_PI * r * r * l * density;
      D(0, 0) = D(1, 1) = mass / 12.0 * (3.0 * r * r + l * l) + 0.4 * mass * r * r +
                          4.0 / 3.0 * M_PI * r * r * r * density * l * l / 4.0;
      D(2, 2) = mass / 2.0 * r * r + 0.4 * mass * r * r;
      break;
    }
    default:
      mass = 0.0;
      break;
  }
  similarityTransform(rotation, D, inertia);
}

}  // namespace vorsim
