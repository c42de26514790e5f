// Rigid-body motion without contacts: integration, loads, damping, body types,
// and the primitives' mass properties.
#include <gtest/gtest.h>

#include <cmath>

#include "test_helpers.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;

namespace {

Eigen::Matrix3d worldInertia(const SingleBodyObject& b) {
  const Eigen::Matrix3d R = b.getRotationMatrix().e();
  return R * b.getInertiaMatrix_B().e() * R.transpose();
}
Eigen::Vector3d angularMomentum(const SingleBodyObject& b) { return worldInertia(b) * b.getAngularVelocity().e(); }
double rotationalEnergy(const SingleBodyObject& b) {
  const Eigen::Vector3d w = b.getAngularVelocity().e();
  return 0.5 * w.dot(worldInertia(b) * w);
}

// Relative drift of angular momentum and rotational energy of a torque-free
// box with three different principal inertias over `seconds`.
std::pair<double, double> torqueFreeDrift(double dt, double seconds) {
  World world;
  world.setTimeStep(dt);
  world.setGravity(Mat<3, 1>{0, 0, 0});
  auto* box = world.addBox(1, 2, 3, 1);
  box->setOrientation(Eigen::Quaterniond(Eigen::AngleAxisd(0.3, Eigen::Vector3d(1, 2, 3).normalized())));
  box->setVelocity(0, 0, 0, 0.1, 3.0, 0.2);  // close to the unstable intermediate axis
  const Eigen::Vector3d L0 = angularMomentum(*box);
  const double E0 = rotationalEnergy(*box);
  const int n = int(std::lround(seconds / dt));
  double worstQuat = 0.0;
  for (int i = 0; i < n; ++i) {
    world.integrate();
    worstQuat = std::max(worstQuat, std::abs(box->getQuaternion().norm() - 1.0));
  }
  EXPECT_LT(worstQuat, 1e-14);
  return {(angularMomentum(*box) - L0).norm() / L0.norm(), std::abs(rotationalEnergy(*box) - E0) / E0};
}

}  // namespace

TEST(SingleBody, FreeFallIsExactWithTrapezoidalRule) {
  World world;
  world.setTimeStep(0.003);
  auto* s = world.addSphere(0.1, 2.0);
  s->setPosition(1.0, -2.0, 10.0);
  const int n = 200;
  for (int i = 0; i < n; ++i) world.integrate();
  const double t = n * 0.003;
  EXPECT_NEAR(s->getPosition()[2], 10.0 - 0.5 * 9.81 * t * t, 1e-12);
  EXPECT_NEAR(s->getLinearVelocity()[2], -9.81 * t, 1e-12);
  EXPECT_DOUBLE_EQ(s->getPosition()[0], 1.0);
  // Energy is conserved exactly up to rounding by this rule.
  EXPECT_NEAR(s->getEnergy(world.getGravity()), 2.0 * 9.81 * 10.0, 1e-9);
}

TEST(SingleBody, ContactOrWireForceSwitchesToForwardRule) {
  World world;
  world.setTimeStep(0.01);
  world.setDefaultMaterial(0.0, 0.0, 0.0);
  world.addGround();
  auto* s = world.addSphere(0.1, 1.0);
  s->setPosition(0, 0, 0.0999);  // touching: one contact in the first step
  world.integrate();
  ASSERT_EQ(s->getContacts().size(), 1u);
  const double vz = s->getLinearVelocity()[2];
  EXPECT_GT(vz, 0.0);  // pushed out of the ground
  EXPECT_NEAR(s->getPosition()[2], 0.0999 + 0.01 * vz, 1e-15);

  // A wire force in a step takes the forward rule in that step only.
  auto* f = world.addSphere(0.1, 1.0, "default", 2, 2);
  f->setPosition(5, 0, 5);
  f->setConstraintForce(0, Mat<3, 1>{0, 0, 0}, Mat<3, 1>{0, 0, 0});
  world.integrate();
  EXPECT_NEAR(f->getPosition()[2], 5.0 - 0.01 * 0.01 * 9.81, 1e-14);
  const double z1 = f->getPosition()[2], v1 = f->getLinearVelocity()[2];
  world.integrate();
  EXPECT_NEAR(f->getPosition()[2], z1 + 0.005 * (v1 + f->getLinearVelocity()[2]), 1e-14);
}

TEST(SingleBody, TorqueFreeRotationConservesMomentumAndEnergy) {
  const auto coarse = torqueFreeDrift(0.002, 10.0);
  const auto fine = torqueFreeDrift(0.001, 10.0);
  EXPECT_LT(fine.first, 1e-6);
  EXPECT_LT(fine.second, 1e-7);
  // Halving the step cuts the momentum drift about four times: a second-order
  // scheme overall (the first stage and the rotation average set the order).
  EXPECT_GT(coarse.first / fine.first, 3.5);
  EXPECT_GT(coarse.second / fine.second, 2.5);
}

TEST(SingleBody, LoadsAtAPointAndAtTheCentre) {
  World world;
  world.setTimeStep(0.01);
  world.setGravity(Mat<3, 1>{0, 0, 0});
  auto* box = world.addBox(0.4, 0.2, 0.1, 3.0);
  box->setPosition(1, 1, 1);
  // A force at a corner, given in the body frame: linear and angular response.
  const Mat<3, 1> corner{0.2, 0.1, 0.05}, force{0.0, 0.0, 6.0};
  box->setExternalForce(0, corner, force);
  world.integrate();
  EXPECT_NEAR(box->getLinearVelocity()[2], 6.0 / 3.0 * 0.01, 1e-14);
  const Eigen::Vector3d torque = corner.e().cross(force.e());
  const Eigen::Vector3d expectedW = box->getInertiaMatrix_B().e().inverse() * torque * 0.01;
  // Starting from rest, the first step is the plain angular impulse, up to the
  // small gyroscopic terms of the later stages.
  EXPECT_LT((box->getAngularVelocity().e() - expectedW).norm(), 1e-3 * expectedW.norm());
  // The load was consumed by the step: no further linear change, and the angular
  // momentum stays while the box tumbles on.
  const double v1 = box->getLinearVelocity()[2];
  const Eigen::Vector3d L1 = angularMomentum(*box);
  for (int i = 0; i < 10; ++i) world.integrate();
  EXPECT_DOUBLE_EQ(box->getLinearVelocity()[2], v1);
  EXPECT_LT((angularMomentum(*box) - L1).norm(), 1e-6 * L1.norm());

  // A torque changes no linear velocity; a force at the centre no rotation.
  auto* s = world.addSphere(0.1, 1.0, "default", 2, 2);
  s->setPosition(5, 5, 5);
  s->setExternalTorque(0, Mat<3, 1>{0, 0, 1});
  s->setExternalForce(0, Mat<3, 1>{1, 0, 0});
  world.integrate();
  EXPECT_NEAR(s->getLinearVelocity()[0], 0.01, 1e-15);
  EXPECT_DOUBLE_EQ(s->getLinearVelocity()[2], 0.0);
  EXPECT_NEAR(s->getAngularVelocity()[2], 0.01 / (0.4 * 1.0 * 0.01), 1e-12);
  EXPECT_DOUBLE_EQ(s->getAngularVelocity()[0], 0.0);
  // The loads of the last step that had any are kept for a viewer.
  ASSERT_EQ(s->getExternalForce().size(), 1u);
  ASSERT_EQ(s->getExternalTorque().size(), 1u);
  EXPECT_DOUBLE_EQ(s->getExternalTorque()[0][2], 1.0);

  // Clearing the load lists leaves the summed force acting in this step.
  s->setExternalForce(0, Mat<3, 1>{1, 0, 0});
  s->clearExternalForcesAndTorques();
  world.integrate();
  EXPECT_NEAR(s->getLinearVelocity()[0], 0.02, 1e-15);
}

TEST(SingleBody, DampingDecaysVelocities) {
  World world;
  const double dt = 0.001, d = 2.0, m = 4.0;
  world.setTimeStep(dt);
  world.setGravity(Mat<3, 1>{0, 0, 0});
  auto* s = world.addSphere(0.5, m);
  s->setLinearDamping(d);
  s->setVelocity(3.0, 0, 0, 0, 0, 0);
  for (int i = 0; i < 1000; ++i) world.integrate();
  // Semi-implicit damping: v *= 1 - d dt / (d dt / 2 + m) per step, close to exp(-d t / m).
  const double k = d * dt / (0.5 * d * dt + m);
  EXPECT_NEAR(s->getLinearVelocity()[0], 3.0 * std::pow(1.0 - k, 1000), 1e-12);
  EXPECT_NEAR(s->getLinearVelocity()[0], 3.0 * std::exp(-d * 1.0 / m), 1e-6);

  // Angular damping acts per body axis: a spin about z with damping on z alone decays.
  auto* b = world.addBox(1, 1, 1, 6.0, "default", 2, 2);  // I = 1 about every axis
  b->setAngularDamping(Mat<3, 1>{0.0, 0.0, 0.5});
  b->setVelocity(0, 0, 0, 0, 0, 2.0);
  for (int i = 0; i < 1000; ++i) world.integrate();
  EXPECT_NEAR(b->getAngularVelocity()[2], 2.0 * std::exp(-0.5), 1e-9);
  b->setVelocity(0, 0, 0, 2.0, 0, 0);
  for (int i = 0; i < 1000; ++i) world.integrate();
  EXPECT_NEAR(b->getAngularVelocity()[0], 2.0, 1e-9);
}

TEST(SingleBody, KinematicBodyIgnoresGravityAndLoads) {
  World world;
  world.setTimeStep(0.01);
  auto* k = world.addBox(1, 1, 1, 1.0);
  k->setBodyType(KINEMATIC);
  k->setVelocity(1.0, 0, 0, 0, 0, 0.5);
  k->setExternalForce(0, Mat<3, 1>{0, 0, 100});
  for (int i = 0; i < 100; ++i) world.integrate();
  EXPECT_DOUBLE_EQ(k->getLinearVelocity()[0], 1.0);
  EXPECT_DOUBLE_EQ(k->getLinearVelocity()[2], 0.0);
  EXPECT_NEAR(k->getPosition()[0], 1.0, 1e-12);
  EXPECT_NEAR(k->getPosition()[2], 0.0, 1e-15);
  // It turns with its angular velocity: 0.5 rad about z after 1 s.
  const Mat<3, 3>& R = k->getRotationMatrix();
  EXPECT_NEAR(std::atan2(R(1, 0), R(0, 0)), 0.5, 1e-9);
}

TEST(SingleBody, PoseSettersKeepTheCentreOfMassInvariant) {
  World world;
  auto* b = world.addBox(1, 2, 3, 1.0);
  b->setPose(Eigen::Vector3d(1, 2, 3), Eigen::Quaterniond(0, 0, 0, 2));  // normalised: a half turn about z
  EXPECT_NEAR(b->getQuaternion()[3], 1.0, 1e-15);
  EXPECT_NEAR(b->getRotationMatrix()(0, 0), -1.0, 1e-15);
  EXPECT_DOUBLE_EQ(b->getComPosition()[1], 2.0);
  // Point velocity: the arm is measured from the body origin.
  b->setVelocity(1, 0, 0, 0, 0, 1);
  Mat<3, 1> vel;
  b->getVelocity(0, Mat<3, 1>{1, 0, 0}, vel);  // body x is world -x now
  EXPECT_NEAR(vel[0], 1.0, 1e-15);
  EXPECT_NEAR(vel[1], -1.0, 1e-15);
  Mat<3, 1> p;
  b->getPosition(0, Mat<3, 1>{1, 0, 0}, p);
  EXPECT_NEAR(p[0], 0.0, 1e-15);
  // A quaternion given as a vector is stored as it is.
  b->setOrientation(Mat<4, 1>{2, 0, 0, 0});
  EXPECT_DOUBLE_EQ(b->getQuaternion()[0], 2.0);
}

TEST(Primitives, MassPropertiesAndKinds) {
  Box box(1, 2, 3, 12);
  EXPECT_DOUBLE_EQ(box.getInertiaMatrix_B()(0, 0), 13.0);
  EXPECT_DOUBLE_EQ(box.getInertiaMatrix_B()(1, 1), 10.0);
  EXPECT_DOUBLE_EQ(box.getInertiaMatrix_B()(2, 2), 5.0);
  EXPECT_EQ(box.getGyroscopicMode(), 0);
  Sphere sphere(0.5, 2.0);
  EXPECT_DOUBLE_EQ(sphere.getInertiaMatrix_B()(1, 1), 0.2);
  EXPECT_EQ(sphere.getGyroscopicMode(), 2);
  Cylinder cyl(0.5, 2.0, 3.0);
  EXPECT_NEAR(cyl.getInertiaMatrix_B()(0, 0), 3.0 * (4.0 / 12 + 0.25 / 4), 1e-15);
  EXPECT_NEAR(cyl.getInertiaMatrix_B()(2, 2), 3.0 * 0.25 / 2, 1e-15);

  // The capsule's inertia against a numerical integration over its volume.
  const double r = 0.3, h = 0.8, m = 5.0;
  Capsule capsule(r, h, m);
  double vol = 0, ixx = 0, izz = 0;
  const int n = 120;
  const double step = 2 * r / n, stepZ = (h + 2 * r) / n;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      for (int k = 0; k < n; ++k) {
        const double x = -r + (i + 0.5) * step, y = -r + (j + 0.5) * step, z = -(h / 2 + r) + (k + 0.5) * stepZ;
        const double dz = std::max(0.0, std::abs(z) - h / 2);
        if (x * x + y * y + dz * dz > r * r) continue;
        vol += 1;
        ixx += y * y + z * z;
        izz += x * x + y * y;
      }
  // The transverse term carries h^2/2 where a solid capsule has h^2/4 in each
  // hemisphere's shift: it exceeds the true value by ms*h^2/2, as defined.
  const double ms = 2.0 / 3.0 * r * r * r * m / (4.0 / 3.0 * r * r * r + r * r * h);
  EXPECT_NEAR(capsule.getInertiaMatrix_B()(0, 0), m * ixx / vol + ms * h * h / 2, 2e-3 * m * ixx / vol);
  EXPECT_NEAR(capsule.getInertiaMatrix_B()(2, 2), m * izz / vol, 2e-3 * m * izz / vol);

  Ground ground(0.5);
  EXPECT_EQ(ground.getBodyType(), STATIC);
  EXPECT_DOUBLE_EQ(ground.getPosition()[2], 0.5);
  EXPECT_EQ(ground.getObjectType(), GROUND);
}

TEST(Primitives, UniformDensityInertiaKeepsItsDefinedRows) {
  double mass;
  Mat<3, 3> I;
  const Mat<3, 3> eye = Mat<3, 3>::getIdentity();
  getInertialAssumingUniformDensity(Shape::Box, Mat<4, 1>{1, 2, 3, 0}, eye, 2.0, mass, I);
  EXPECT_DOUBLE_EQ(mass, 12.0);
  EXPECT_DOUBLE_EQ(I(0, 0), 13.0);
  // Capsule: a capsule's mass with a solid cylinder's inertia formula.
  const double r = 0.2, l = 1.0;
  getInertialAssumingUniformDensity(Shape::Capsule, Mat<4, 1>{r, l, 0, 0}, eye, 1000.0, mass, I);
  const double mc = (M_PI * r * r * l + 4.0 / 3.0 * M_PI * r * r * r) * 1000.0;
  EXPECT_DOUBLE_EQ(mass, mc);
  EXPECT_NEAR(I(0, 0), mc / 12.0 * (3 * r * r + l * l), 1e-12);
  // Cylinder: a cylinder's mass with the end-cap terms added.
  getInertialAssumingUniformDensity(Shape::Cylinder, Mat<4, 1>{r, l, 0, 0}, eye, 1000.0, mass, I);
  const double my = M_PI * r * r * l * 1000.0;
  EXPECT_DOUBLE_EQ(mass, my);
  EXPECT_NEAR(I(2, 2), my / 2 * r * r + 0.4 * my * r * r, 1e-12);
  // The rotation turns the diagonal into the given frame.
  Mat<3, 3> R;
  angleAxisToRotMat(Mat<3, 1>{0, 0, 1}, M_PI / 2, R);
  getInertialAssumingUniformDensity(Shape::Box, Mat<4, 1>{1, 2, 3, 0}, R, 2.0, mass, I);
  EXPECT_NEAR(I(0, 0), 10.0, 1e-12);
  EXPECT_NEAR(I(1, 1), 13.0, 1e-12);
  getInertialAssumingUniformDensity(Shape::Mesh, Mat<4, 1>{1, 1, 1, 0}, eye, 2.0, mass, I);
  EXPECT_EQ(mass, 0.0);
  EXPECT_EQ(I.squaredNorm(), 0.0);
}

TEST(Primitives, ConeIsAFatalMessage) {
  ThrowOnFatal guard;
  {
    StdoutCapture out;
    EXPECT_THROW(Cone(0.5, 1.0, 1.0), vorsim_test::FatalError);
    EXPECT_NE(out.text().find("\x1b[1;31mCONE IS NOT SUPPORTED WITH ODE BACKEND\x1b[0m"), std::string::npos);
  }
  // Under a callback that returns, the cone is built without a geom.
  vorsim::VorSimMsg::setFatalCallback([] {});
  StdoutCapture out;
  Cone cone(0.5, 2.0, 1.0);
  EXPECT_EQ(cone.getCollisionObject(), nullptr);
  EXPECT_DOUBLE_EQ(cone.getComPosition()[2], 0.5);
  cone.setOrientation(Eigen::Quaterniond(Eigen::AngleAxisd(M_PI / 2, Eigen::Vector3d::UnitX())));
  EXPECT_NEAR(cone.getComPosition()[1], -0.5, 1e-15);
  EXPECT_NEAR(cone.getComPosition()[2], 0.0, 1e-15);
  EXPECT_NE(cone.getInertiaMatrix_B()(0, 0), cone.getInertiaMatrix_B()(1, 1));
}
