#include "vorsim/VorSimMsg.hpp"
#include "vorsim/object/Primitives.hpp"

namespace vorsim {

Cone::Cone(double radius, double height, double mass) : SingleBodyObject(CONE), radius_(radius), height_(height) {
  position_.setZero();
  rotationMatrix_.setIdentity();
  comOffset_ = {0.0, 0.0, 0.25 * height};
  comPosition_ = comOffset_;
  MSG_FATAL("CONE IS NOT SUPPORTED WITH ODE BACKEND");
  // Only a fatal callback that returns gets here.
  setMass(mass);
  Mat<3, 3> I;
  I.setZero();
  I(0, 0) = 0.1 * mass * height * height;
  I(1, 1) = 0.15 * mass * radius * radius + 0.1 * mass * height * height;
  I(2, 2) = 0.3 * mass * radius * radius;
  bodyInertia_ = I;
  worldInertia_ = I;
  invert33(I, bodyInertiaInverse_);
  worldInertiaInverse_ = bodyInertiaInverse_;
  updateCollision();
}

void Cone::applyOrientation() {
  quatToRotMat(orientationQuat_, rotationMatrix_);
  similarityTransform(rotationMatrix_, bodyInertia_, worldInertia_);
  similarityTransform(rotationMatrix_, bodyInertiaInverse_, worldInertiaInverse_);
  Mat<3, 1> offset;
  matvecmul(rotationMatrix_, comOffset_, offset);
  for (size_t i = 0; i < 3; ++i) comPosition_[i] = position_[i] + offset[i];
  updateCollision();
}

void Cone::setOrientation(const Eigen::Quaterniond& quat) {
  orientationQuat_ = {quat.w(), quat.x(), quat.y(), quat.z()};
  applyOrientation();
}

void Cone::setOrientation(double w, double x, double y, double z) {
  orientationQuat_ = {w, x, y, z};
  applyOrientation();
}

// No geom exists for a cone; the collision library never sees it.
void Cone::updateCollision() { collisionCenter_ = position_; }

}  // namespace vorsim
