// One rigid body with six degrees of freedom. The state (position, orientation,
// linear and angular velocity) is kept in world coordinates around the centre
// of mass. A step: Delassus blocks of the contacts (preContactSolverUpdate1),
// contact-free velocity and Jacobians (preContactSolverUpdate2), impulses from
// the solver (updateGenVelWithImpulse), and integrate: a fourth-order
// Runge-Kutta scheme for rotation and angular velocity, and a trapezoidal (free
// flight) or forward (in contact) rule for the position.
#ifndef VORSIM_OBJECT_SINGLEBODYOBJECT_HPP
#define VORSIM_OBJECT_SINGLEBODYOBJECT_HPP

#include <ode/ode.h>

#include <string>
#include <vector>

#include "vorsim/Object.hpp"
#include "vorsim/math.hpp"

namespace vorsim {

// How the gyroscopic term would be treated. Stored and reported only: every
// body follows the same integration, which treats the term explicitly.
enum GyroscopicMode {
  IMPLICIT_GYROSCOPIC_FORCE_BODY = 0,
  IMPLICIT_GYROSCOPIC_FORCE_WORLD = 1,
  EXPLICIT_GYROSCOPIC_FORCE = 2,
  NO_GYROSCOPIC_FORCE = 3
};

// Rotation by the world angular velocity w over dt, applied from the left:
// Rout = D(w dt) * R. Copies R when |w| dt < 1e-11.
void rotationIntegration(const Mat<3, 3>& R, Mat<3, 3>& Rout, double dt, const Mat<3, 1>& w);
// Residual of the implicit body-frame Euler equation and its Jacobian in w;
// exported for callers that want a Newton step (with solve33). No step uses them.
void evalEulerEqn(const Mat<3, 1>& w, const Mat<3, 1>& wOld, const Mat<3, 1>& torque, double dt,
                  const Mat<3, 3>& inertia, Mat<3, 1>& out);
void evalEulerEqnDeriv(const Mat<3, 1>& w, const Mat<3, 1>& wOld, double dt, const Mat<3, 3>& inertia, Mat<3, 3>& out);

class SingleBodyObject : public Object {
 public:
  explicit SingleBodyObject(ObjectType type);
  // Destroys the geom unless the world already did (destroyCollisionBodies).
  ~SingleBodyObject() override;

  // ---- Object contract ----
  void updateCollision() override;
  void preContactSolverUpdate1(const Mat<3, 1>& gravity, double dt) override;
  void preContactSolverUpdate2(const Mat<3, 1>& gravity, double dt, ContactProblemList& problems) override;
  // The world integrates the bodies of the single-body types (isSingleBody)
  // through integrateBodies, not through this function: it does the same work
  // for several bodies at once, in packed lanes.
  void integrate(double dt, World& world) override;
  void setExternalForce(size_t localIdx, const Mat<3, 1>& pos, const Mat<3, 1>& force) override;
  void setExternalForce(size_t localIdx, const Mat<3, 1>& force) override;
  void setExternalTorque(size_t localIdx, const Mat<3, 1>& torque) override;
  void setConstraintForce(size_t localIdx, const Mat<3, 1>& pos, const Mat<3, 1>& force) override;
  double getMass(size_t /*localIdx*/) const override { return mass_; }
  ObjectType getObjectType() const override { return objectType_; }
  void getPosition(size_t localIdx, const Mat<3, 1>& posInBody, Mat<3, 1>& posInWorld) const override;
  void getPosition(size_t localIdx, Mat<3, 1>& pos) const override;
  void getVelocity(size_t localIdx, const Mat<3, 1>& posInBody, Mat<3, 1>& velInWorld) const override;
  void getVelocity(size_t localIdx, Mat<3, 1>& vel) const override;
  void getOrientation(size_t localIdx, Mat<3, 3>& rot) const override;
  void getContactPointVel(size_t contactIdx, Mat<3, 1>& vel) const override;
  void clearExternalForcesAndTorques() override;
  void destroyCollisionBodies(dxSpace* space) override;
  // The solver's per-contact reads and writes. Defined here so that the solver,
  // which knows when an object is a single body, can call them without dispatch.
  void addContactPointVel(size_t contactIdx, Mat<3, 1>& vel) override {
    Mat<3, 1> pv;
    contactPointVelocity(contactIdx, generalizedVelocity_.v, generalizedVelocity_.v + 3, pv);
    vel += pv;
  }
  void subContactPointVel(size_t contactIdx, Mat<3, 1>& vel) override {
    Mat<3, 1> pv;
    contactPointVelocity(contactIdx, generalizedVelocity_.v, generalizedVelocity_.v + 3, pv);
    vel -= pv;
  }
  void addContactPointVel2(size_t contactIdx, Mat<3, 1>& vel) override {
    Mat<3, 1> pv;
    contactPointVelocity(contactIdx, linearVelocity_.v, angularVelocity_.v, pv);
    vel += pv;
  }
  void subContactPointVel2(size_t contactIdx, Mat<3, 1>& vel) override {
    Mat<3, 1> pv;
    contactPointVelocity(contactIdx, linearVelocity_.v, angularVelocity_.v, pv);
    vel -= pv;
  }
  void updateTimeStep(double /*dt*/) override {}
  void updateTimeStepIfNecessary(double /*dt*/) override {}
  void updateGenVelWithImpulse(size_t contactIdx, const Mat<3, 1>& impulse) override {
    const ContactPoint& cp = contactPoints_[contactIdx];
    const Mat<3, 3>& f = cp.frame;
    const double* r = cp.arm.v;
    // The impulse in world coordinates, then its linear and angular effect.
    const double Fx = f(0, 0) * impulse[0] + f(1, 0) * impulse[1] + f(2, 0) * impulse[2];
    const double Fy = f(0, 1) * impulse[0] + f(1, 1) * impulse[1] + f(2, 1) * impulse[2];
    const double Fz = f(0, 2) * impulse[0] + f(1, 2) * impulse[1] + f(2, 2) * impulse[2];
    const double tx = Fy * r[2] - Fz * r[1];
    const double ty = Fz * r[0] - Fx * r[2];
    const double tz = Fx * r[1] - Fy * r[0];
    const Mat<3, 3>& I = worldInertiaInverse_;
    double* u = generalizedVelocity_.v;
    u[0] += inverseMass_ * Fx;
    u[1] += inverseMass_ * Fy;
    u[2] += inverseMass_ * Fz;
    u[3] += I(0, 0) * tx + I(0, 1) * ty + I(0, 2) * tz;
    u[4] += I(1, 0) * tx + I(1, 1) * ty + I(1, 2) * tz;
    u[5] += I(2, 0) * tx + I(2, 1) * ty + I(2, 2) * tz;
  }
  void setGeomObjectIndex(size_t index) override;

  // ---- pose and velocity (between steps) ----
  virtual void setPosition(const Mat<3, 1>& pos);
  virtual void setPosition(double x, double y, double z);
  virtual void setPosition(const Eigen::Vector3d& pos);
  // Stored as given, without normalisation.
  virtual void setOrientation(const Mat<4, 1>& quat);
  virtual void setOrientation(const Eigen::Matrix3d& rotation);
  virtual void setOrientation(double w, double x, double y, double z);
  virtual void setOrientation(const Eigen::Vector4d& quat);
  // Normalised before use.
  virtual void setOrientation(const Eigen::Quaterniond& quat);
  virtual void setPose(const Eigen::Vector3d& pos, const Eigen::Matrix3d& rotation);
  virtual void setPose(const Eigen::Vector3d& pos, const Eigen::Vector4d& quat);
  virtual void setPose(const Eigen::Vector3d& pos, const Eigen::Quaterniond& quat);
  // Writes the velocity of the start of the next step.
  virtual void setVelocity(double vx, double vy, double vz, double wx, double wy, double wz);
  virtual void setVelocity(const Eigen::Vector3d& linear, const Eigen::Vector3d& angular);
  // Stores the type only; mass, inertia and velocities stay.
  virtual void setBodyType(BodyType type) { bodyType_ = type; }

  void setInertia(const Mat<3, 3>& inertia);
  void setInertia(const Eigen::Matrix3d& inertia);
  void setMass(double mass) {
    mass_ = mass;
    inverseMass_ = 1.0 / mass;
  }
  void setLinearDamping(double damping) { linearDamping_ = damping; }
  void setAngularDamping(const Mat<3, 1>& damping) { angularDamping_ = damping; }
  void setAngularDamping(const Eigen::Vector3d& damping) { angularDamping_ = damping; }
  GyroscopicMode getGyroscopicMode() const { return gyroscopicMode_; }
  void setGyroscopicMode(GyroscopicMode mode) { gyroscopicMode_ = mode; }
  const std::string& getAppearance() const { return appearance_; }
  void setAppearance(const std::string& appearance) { appearance_ = appearance; }

  // ---- state ----
  const Mat<3, 1>& getPosition() const { return position_; }
  Eigen::Vector3d getPositionEigen() const { return position_.e(); }
  const Mat<3, 1>& getComPosition() const { return comPosition_; }
  const Mat<3, 1>& getBodyComOffset() const { return comOffset_; }
  const Mat<4, 1>& getQuaternion() const { return orientationQuat_; }
  const Mat<3, 3>& getRotationMatrix() const { return rotationMatrix_; }
  const Mat<3, 1>& getLinearVelocity() const { return linearVelocity_; }
  const Mat<3, 1>& getAngularVelocity() const { return angularVelocity_; }
  Eigen::Vector3d getLinearVelocityEigen() const { return linearVelocity_.e(); }
  Eigen::Vector3d getAngularVelocityEigen() const { return angularVelocity_.e(); }
  const Mat<6, 1>& getGeneralizedVelocity() const { return generalizedVelocity_; }
  const Mat<3, 3>& getInertiaMatrix_B() const { return bodyInertia_; }
  const Mat<3, 3>& getInertiaMatrix_W() const { return worldInertia_; }
  double getMass() const { return mass_; }
  double getLinearDamping() const { return linearDamping_; }
  const Mat<3, 1>& getAngularDamping() const { return angularDamping_; }
  dxGeom* getCollisionObject() const { return collisionObject_; }
  uint32_t getCollisionGroup() const;
  uint32_t getCollisionMask() const;

  double getKineticEnergy() const;
  double getPotentialEnergy(const Mat<3, 1>& gravity) const;
  double getEnergy(const Mat<3, 1>& gravity) const { return getKineticEnergy() + getPotentialEnergy(gravity); }
  Eigen::Vector3d getLinearMomentum() const { return linearVelocity_.e() * mass_; }
  // Angular momentum about the centre of mass, world frame.
  Eigen::Vector3d getAngularMomentum() const;

  // Per contact: the contact frame and the arm from the contact point to the
  // centre of mass. They are all the solver's reads and writes need: the point
  // velocity frame*(v + arm x w), and for an impulse p the world impulse
  // F = frame^T p, with u += (F/m, I^-1 (F x arm)). Kept dense, one record per
  // contact, because the solver visits them in its inner loop.
  struct ContactPoint {
    Mat<3, 3> frame;
    Mat<3, 1> arm;
  };
  // The Delassus block (into each record) and the frame and arm (into
  // points[i]) of `count` contact records of a body with the given inverse
  // world inertia, centre of mass and inverse mass; two records at a time in
  // packed lanes, or four where `lanes` is 4 and the processor has AVX. Every
  // lane count gives the same bits.
  // integrate(dt) of `count` bodies, their rotation and angular velocity part
  // two at a time in packed lanes, or four where `lanes` is 4 and the
  // processor has AVX; the same bits as one by one.
  static void integrateBodies(SingleBodyObject* const* bodies, size_t count, double dt, int lanes);
  static void contactBlocks(const Mat<3, 3>& inertiaInverse, const Mat<3, 1>& com, double inverseMass,
                            Contact* contacts, size_t count, ContactPoint* points, int lanes);

 protected:
  // Recomputes the rotation (and, for a dynamic body, the world inertia) from
  // the quaternion and moves the geom. The centre of mass is not moved.
  void updateOrientation();
  void updateWorldInertia();
  // Shared part of the primitives' constructors: pose at the origin, the geom
  // (given its record here), mass, inertia and their inverses.
  void initPrimitive(dxGeom* geom, double mass, const Mat<3, 3>& inertia);
  friend struct BodyLanes;
  // integrate without the world, which it does not use; finishIntegrate is its
  // last part, after the rotation and the angular velocity are new: the
  // quaternion of the rotation, normalised, and the rotation back from it
  // (unless the caller did that already), then the position.
  void integrateAlone(double dt);
  void finishIntegrate(double dt, bool orientationFromMatrix);
  // Angular increment over dt at orientation R and angular velocity w.
  void eulerIntegrate(double dt, const Mat<3, 3>& R, const Mat<3, 1>& w, Mat<3, 1>& out) const;
  // The velocity of contact c from linear velocity v and angular velocity w, in
  // the contact frame.
  void contactPointVelocity(size_t c, const double* v, const double* w, Mat<3, 1>& out) const {
    const ContactPoint& cp = contactPoints_[c];
    const double* r = cp.arm.v;
    const double px = v[0] + (r[1] * w[2] - r[2] * w[1]);
    const double py = v[1] + (r[2] * w[0] - r[0] * w[2]);
    const double pz = v[2] + (r[0] * w[1] - r[1] * w[0]);
    const Mat<3, 3>& f = cp.frame;
    out[0] = f(0, 0) * px + f(0, 1) * py + f(0, 2) * pz;
    out[1] = f(1, 0) * px + f(1, 1) * py + f(1, 2) * pz;
    out[2] = f(2, 0) * px + f(2, 1) * py + f(2, 2) * pz;
  }

  dxGeom* collisionObject_ = nullptr;
  ObjectType objectType_;
  Mat<4, 1> orientationQuat_{1.0, 0.0, 0.0, 0.0};
  Mat<3, 3> rotationMatrix_ = Mat<3, 3>::getIdentity();
  Mat<3, 1> position_{};
  Mat<3, 1> comPosition_{};
  Mat<3, 1> comOffset_{};
  Mat<3, 1> collisionCenter_{};
  Mat<3, 1> linearVelocity_{};
  Mat<3, 1> previousLinearVelocity_{};
  Mat<3, 1> angularVelocity_{};
  Mat<6, 1> generalizedVelocity_{};
  Mat<3, 3> bodyInertia_ = Mat<3, 3>::getIdentity();
  Mat<3, 3> worldInertia_ = Mat<3, 3>::getIdentity();
  Mat<3, 3> bodyInertiaInverse_ = Mat<3, 3>::getIdentity();
  Mat<3, 3> worldInertiaInverse_ = Mat<3, 3>::getIdentity();
  GyroscopicMode gyroscopicMode_ = IMPLICIT_GYROSCOPIC_FORCE_BODY;
  Mat<3, 1> angularScratch_{};
  Mat<3, 1> freeLinearVelocity_{};
  Mat<3, 1> freeAngularVelocity_{};
  Mat<3, 1> externalForce_{};
  Mat<3, 1> externalTorque_{};
  std::vector<ContactPoint> contactPoints_;
  double mass_ = 1.0;
  double inverseMass_ = 1.0;
  double linearDamping_ = 0.0;
  Mat<3, 1> angularDamping_{};
  bool hasConstraintForce_ = false;
  std::string appearance_;
};

}  // namespace vorsim

#endif  // VORSIM_OBJECT_SINGLEBODYOBJECT_HPP
