// Rigid-body motion without contacts, the primitives' mass properties, and
// compounds: one rigid body of several primitive shapes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "test_helpers.hpp"
#include "vorsim/Collision.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/Compound.hpp"
#include "vorsim/object/Primitives.hpp"

using namespace vorsim;

namespace {
// Relative drift of angular momentum and rotational energy of a torque-free
// body with three different principal inertias, spun near its unstable axis for
// 10 s: a unit cube given the inertia of a 1 x 2 x 3 box of 1 kg, which must
// drive the whole rotation.
std::pair<double, double> torqueFreeDrift(double dt) {
  World world;
  world.setTimeStep(dt);
  world.setGravity(Mat<3, 1>{0, 0, 0});
  auto* box = world.addBox(1, 1, 1, 1);
  const Eigen::Matrix3d inertia = (Eigen::Vector3d(13.0, 10.0, 5.0) / 12.0).asDiagonal();
  box->setInertia(inertia);
  box->setOrientation(Eigen::Quaterniond(Eigen::AngleAxisd(0.3, Eigen::Vector3d(1, 2, 3).normalized())));
  box->setVelocity(0, 0, 0, 0.1, 3.0, 0.2);
  auto momentum = [&] {
    const Eigen::Matrix3d R = box->getRotationMatrix().e();
    return Eigen::Vector3d(R * inertia * R.transpose() * box->getAngularVelocity().e());
  };
  auto energy = [&] { return 0.5 * box->getAngularVelocity().e().dot(momentum()); };
  const Eigen::Vector3d L0 = momentum();
  const double E0 = energy();
  for (int i = 0; i < int(std::lround(10.0 / dt)); ++i) {
    world.integrate();
    EXPECT_LT(std::abs(box->getQuaternion().norm() - 1.0), 1e-14);
  }
  return {(momentum() - L0).norm() / L0.norm(), std::abs(energy() - E0) / E0};
}
}  // namespace

TEST(SingleBody, PositionRules) {
  World world;
  world.setTimeStep(0.003);
  world.setDefaultMaterial(0.0, 0.0, 0.0);
  world.addGround();
  // Free fall from rest: the trapezoidal rule is exact.
  auto* s = world.addSphere(0.1, 2.0);
  s->setPosition(1.0, -2.0, 10.0);
  for (int i = 0; i < 200; ++i) world.integrate();
  EXPECT_NEAR(s->getPosition()[2], 10.0 - 0.5 * 9.81 * 0.6 * 0.6, 1e-12);
  EXPECT_NEAR(s->getEnergy(world.getGravity()), 2.0 * 9.81 * 10.0, 1e-9);
  // A step with a contact, or with a wire force, moves by dt * v instead.
  auto* c = world.addSphere(0.1, 1.0);
  c->setPosition(5, 0, 0.0999);
  auto* w = world.addSphere(0.1, 1.0);
  w->setPosition(-5, 0, 5);
  w->setConstraintForce(0, Mat<3, 1>{0, 0, 0}, Mat<3, 1>{0, 0, 0});
  world.integrate();
  ASSERT_EQ(c->getContacts().size(), 1u);
  EXPECT_GT(c->getLinearVelocity()[2], 0.0);
  EXPECT_NEAR(c->getPosition()[2], 0.0999 + 0.003 * c->getLinearVelocity()[2], 1e-15);
  EXPECT_NEAR(w->getPosition()[2], 5.0 - 0.003 * 0.003 * 9.81, 1e-14);
  // The wire's flag falls back: the next step is trapezoidal again.
  const double z1 = w->getPosition()[2], v1 = w->getLinearVelocity()[2];
  world.integrate();
  EXPECT_NEAR(w->getPosition()[2], z1 + 0.0015 * (v1 + w->getLinearVelocity()[2]), 1e-14);
}

TEST(SingleBody, TorqueFreeRotationConservesMomentumAndEnergy) {
  const auto coarse = torqueFreeDrift(0.002), fine = torqueFreeDrift(0.001);
  EXPECT_LT(fine.first, 1e-6);
  EXPECT_LT(fine.second, 1e-7);
  // Halving the step cuts the drift about four times: second order overall.
  EXPECT_GT(coarse.first / fine.first, 3.5);
  EXPECT_GT(coarse.second / fine.second, 2.5);
}

TEST(SingleBody, LoadsDampingAndKinematicBodies) {
  World world;
  world.setTimeStep(0.01);
  world.setGravity(Mat<3, 1>{0, 0, 0});
  // A force at a body-frame corner, from rest: up to the small gyroscopic terms.
  auto* box = world.addBox(0.4, 0.2, 0.1, 3.0);
  const Mat<3, 1> corner{0.2, 0.1, 0.05}, force{0.0, 0.0, 6.0};
  box->setExternalForce(0, corner, force);
  world.integrate();
  EXPECT_NEAR(box->getLinearVelocity()[2], 6.0 / 3.0 * 0.01, 1e-14);
  const Eigen::Vector3d expectedW = box->getInertiaMatrix_B().e().inverse() * corner.e().cross(force.e()) * 0.01;
  EXPECT_LT((box->getAngularVelocity().e() - expectedW).norm(), 1e-3 * expectedW.norm());
  world.integrate();  // the load was consumed
  EXPECT_NEAR(box->getLinearVelocity()[2], 0.02, 1e-15);

  // A torque changes no linear velocity; clearing the load lists leaves summed loads acting.
  auto* s = world.addSphere(0.1, 1.0, "default", 2, 2);
  s->setPosition(5, 5, 5);
  s->setExternalTorque(0, Mat<3, 1>{0, 0, 1});
  s->setExternalForce(0, Mat<3, 1>{1, 0, 0});
  s->clearExternalForcesAndTorques();
  world.integrate();
  EXPECT_NEAR(s->getLinearVelocity()[0], 0.01, 1e-15);
  EXPECT_EQ(s->getLinearVelocity()[2], 0.0);
  EXPECT_NEAR(s->getAngularVelocity()[2], 0.01 / 0.004, 1e-12);
  // Point velocity: the arm is measured from the body origin.
  Mat<3, 1> vel;
  s->getVelocity(0, Mat<3, 1>{1, 0, 0}, vel);
  EXPECT_NEAR(vel[1], 2.5 * s->getRotationMatrix()(0, 0), 1e-12);

  // Semi-implicit linear damping; angular damping along the body axes only.
  world.setTimeStep(0.001);
  auto* d = world.addBox(1, 1, 1, 6.0, "default", 4, 4);  // I = 1 about every axis
  d->setPosition(0, 20, 0);
  d->setLinearDamping(2.0);
  d->setAngularDamping(Mat<3, 1>{0.0, 0.0, 0.5});
  d->setVelocity(3.0, 0, 0, 2.0, 0, 0);
  for (int i = 0; i < 1000; ++i) world.integrate();
  const double k = 2.0 * 0.001 / (0.5 * 2.0 * 0.001 + 6.0);
  EXPECT_NEAR(d->getLinearVelocity()[0], 3.0 * std::pow(1.0 - k, 1000), 1e-12);
  EXPECT_NEAR(d->getAngularVelocity()[0], 2.0, 1e-9);
  // A cube turned 90 degrees about x spins about its body z axis, which is
  // world -y, and slows as exp(-0.5 t) under a damping of 0.5 about body z.
  auto* cube = world.addBox(1, 1, 1, 6.0, "default", 4, 4);
  cube->setPosition(10, 0, 0);
  cube->setOrientation(Eigen::Quaterniond(Eigen::AngleAxisd(M_PI / 2, Eigen::Vector3d::UnitX())));
  cube->setAngularDamping(Mat<3, 1>{0.0, 0.0, 0.5});
  cube->setVelocity(0, 0, 0, 0, -2.0, 0);
  for (int i = 0; i < 1000; ++i) world.integrate();
  EXPECT_LT((cube->getAngularVelocity().e() - Eigen::Vector3d(0, -2.0 * std::exp(-0.5), 0)).norm(), 1e-9);

  // A kinematic body ignores gravity and loads and moves with its velocity.
  world.setGravity(Mat<3, 1>{0, 0, -9.81});
  auto* kin = world.addBox(1, 1, 1, 1.0, "default", 8, 8);
  kin->setPosition(0, -20, 0);
  kin->setBodyType(KINEMATIC);
  kin->setVelocity(1.0, 0, 0, 0, 0, 0.5);
  kin->setExternalForce(0, Mat<3, 1>{0, 0, 100});
  for (int i = 0; i < 1000; ++i) world.integrate();
  EXPECT_NEAR(kin->getPosition()[0], 1.0, 1e-12);
  EXPECT_NEAR(std::atan2(kin->getRotationMatrix()(1, 0), kin->getRotationMatrix()(0, 0)), 0.5, 1e-9);
}

TEST(SingleBody, ContactBlocksAreTheSameBitsInEveryLaneCount) {
  // The Delassus blocks F S I^-1 S^T F^T + I/m of 1 to 9 records against a
  // scalar form of the same sums in the same order, for two and four lanes.
  // Arms and frames with exact zeros take the signs of zeros through.
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  Mat<3, 3> I;
  for (size_t j = 0; j < 3; ++j)
    for (size_t i = j; i < 3; ++i) I(i, j) = I(j, i) = i == j ? 2.0 + u(rng) : 0.3 * u(rng);
  I(2, 0) = I(0, 2) = 0.0;
  const Mat<3, 1> com{0.25, -0.5, 1.0};
  for (size_t count = 1; count <= 9; ++count) {
    std::vector<Contact> records[2];
    for (size_t c = 0; c < count; ++c) {
      Contact rec;
      for (size_t k = 0; k < 3; ++k) rec.position[k] = (c + k) % 4 == 0 ? com[k] : u(rng);
      for (size_t k = 0; k < 9; ++k) rec.frame.v[k] = (c + k) % 5 == 0 ? 0.0 : u(rng);
      records[0].push_back(rec);
      records[1].push_back(rec);
    }
    std::vector<SingleBodyObject::ContactPoint> points[2];
    for (int l = 0; l < 2; ++l) {
      points[l].resize(count);
      SingleBodyObject::contactBlocks(I, com, 0.5, records[l].data(), count, points[l].data(), l == 0 ? 2 : 4);
    }
    for (size_t c = 0; c < count; ++c) {
      const Contact& rec = records[0][c];
      const Mat<3, 1> r{com[0] - rec.position[0], com[1] - rec.position[1], com[2] - rec.position[2]};
      const double S[3][3] = {{0.0, -r[2], r[1]}, {r[2], 0.0, -r[0]}, {-r[1], r[0], 0.0}};
      double M[3][3], Ds[3][3], T[3][3];
      for (size_t i = 0; i < 3; ++i)
        for (size_t b = 0; b < 3; ++b) M[i][b] = I(i, 0) * S[b][0] + I(i, 1) * S[b][1] + I(i, 2) * S[b][2];
      for (size_t j = 0; j < 3; ++j)
        for (size_t i = j; i < 3; ++i) Ds[i][j] = Ds[j][i] = S[i][0] * M[0][j] + S[i][1] * M[1][j] + S[i][2] * M[2][j];
      const Mat<3, 3>& F = rec.frame;
      for (size_t i = 0; i < 3; ++i)
        for (size_t k = 0; k < 3; ++k) T[i][k] = F(i, 0) * Ds[k][0] + F(i, 1) * Ds[k][1] + F(i, 2) * Ds[k][2];
      Mat<3, 3> D;
      for (size_t j = 0; j < 3; ++j)
        for (size_t i = j; i < 3; ++i)
          D(i, j) = D(j, i) = T[i][0] * F(j, 0) + T[i][1] * F(j, 1) + T[i][2] * F(j, 2);
      for (size_t k = 0; k < 3; ++k) D(k, k) = D(k, k) + 0.5;
      for (int l = 0; l < 2; ++l) {
        EXPECT_EQ(std::memcmp(records[l][c].delassus.v, D.v, sizeof(D.v)), 0) << count << " " << c << " " << l;
        EXPECT_EQ(std::memcmp(points[l][c].arm.v, r.v, sizeof(r.v)), 0) << count << " " << c << " " << l;
        EXPECT_EQ(std::memcmp(points[l][c].frame.v, F.v, sizeof(F.v)), 0) << count << " " << c << " " << l;
      }
    }
  }
}

TEST(SingleBody, BodiesInLanesIntegrateToTheSameBits) {
  // Seven bodies (three passes of two or two of four, the last one short)
  // stepped one by one and in two and four lanes must agree bit for bit:
  // random poses, velocities, inertias, damping and torques; one body at rest
  // (the copy of R below |w| dt < 1e-11), one kinematic, and one whose
  // rotation has a negative trace (the quaternion by its other cases).
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  World worlds[3];
  std::vector<SingleBodyObject*> bodies[3];
  for (size_t b = 0; b < 7; ++b) {
    Eigen::Matrix3d I = Eigen::Vector3d(1.0 + u(rng) * 0.5, 1.2, 0.9).asDiagonal();
    I(0, 1) = I(1, 0) = 0.1 * u(rng);
    // Body 4 turned by more than 2 pi / 3: a rotation of trace below zero.
    const double angle = b == 4 ? 2.8 : 1.5 * u(rng);
    const Eigen::Quaterniond q(Eigen::AngleAxisd(angle, Eigen::Vector3d(u(rng), u(rng), 1.0).normalized()));
    const Eigen::Vector3d v(u(rng), u(rng), u(rng));
    const Eigen::Vector3d w = b == 2 ? Eigen::Vector3d::Zero() : Eigen::Vector3d(5.0 * u(rng), u(rng), 3.0 * u(rng));
    const Mat<3, 1> damping{0.1 * b, 0.05, 0.0};
    for (int k = 0; k < 3; ++k) {
      SingleBodyObject* body = b % 2 ? static_cast<SingleBodyObject*>(worlds[k].addBox(1, 2, 3, 1.5))
                                     : worlds[k].addSphere(0.5, 2.0);
      body->setInertia(I);
      body->setPose(Eigen::Vector3d(2.0 * b, 0, 0), q);
      body->setVelocity(v, w);
      body->setAngularDamping(damping);
      if (b == 5) body->setBodyType(KINEMATIC);
      bodies[k].push_back(body);
    }
  }
  ContactProblemList problems;
  const Mat<3, 1> gravity{0, 0, -9.81};
  for (int step = 0; step < 20; ++step) {
    for (int k = 0; k < 3; ++k) {
      for (size_t b = 0; b < 7; ++b) {
        if (b != 2) bodies[k][b]->setExternalTorque(0, Mat<3, 1>{0.5 * b, -0.25, 1.0});
        bodies[k][b]->preContactSolverUpdate2(gravity, 0.01, problems);
      }
      if (k == 0)
        for (SingleBodyObject* body : bodies[0]) body->integrate(0.01, worlds[0]);
      else
        SingleBodyObject::integrateBodies(bodies[k].data(), 7, 0.01, 2 * k);
    }
  }
  for (size_t b = 0; b < 7; ++b) {
    for (int k = 1; k < 3; ++k) {
      const SingleBodyObject &x = *bodies[0][b], &y = *bodies[k][b];
      EXPECT_EQ(std::memcmp(x.getRotationMatrix().v, y.getRotationMatrix().v, 9 * sizeof(double)), 0) << b << " " << k;
      EXPECT_EQ(std::memcmp(x.getQuaternion().v, y.getQuaternion().v, 4 * sizeof(double)), 0) << b << " " << k;
      EXPECT_EQ(std::memcmp(x.getAngularVelocity().v, y.getAngularVelocity().v, 3 * sizeof(double)), 0) << b << " " << k;
      EXPECT_EQ(std::memcmp(x.getPosition().v, y.getPosition().v, 3 * sizeof(double)), 0) << b << " " << k;
    }
    if (b != 2) {
      EXPECT_GT(std::abs(bodies[0][b]->getQuaternion()[0] - 1.0), 1e-6) << b;
    }
  }
  EXPECT_EQ(bodies[0][2]->getAngularVelocity().norm(), 0.0);
}

TEST(Primitives, MassProperties) {
  Box box(1, 2, 3, 12);
  EXPECT_EQ(box.getInertiaMatrix_B().e().diagonal(), Eigen::Vector3d(13, 10, 5));

  // The capsule against a numerical integration over its volume. The transverse
  // term carries h^2/2 where a solid capsule has h^2/4 in each hemisphere's
  // shift, so it exceeds the true value by ms*h^2/2, as defined.
  const double r = 0.3, h = 0.8, m = 5.0;
  Capsule capsule(r, h, m);
  double vol = 0, ixx = 0, izz = 0;
  const int n = 120;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      for (int k = 0; k < n; ++k) {
        const double x = -r + (i + 0.5) * 2 * r / n, y = -r + (j + 0.5) * 2 * r / n;
        const double z = -(h / 2 + r) + (k + 0.5) * (h + 2 * r) / n, dz = std::max(0.0, std::abs(z) - h / 2);
        if (x * x + y * y + dz * dz > r * r) continue;
        vol += 1;
        ixx += y * y + z * z;
        izz += x * x + y * y;
      }
  const double ms = 2.0 / 3.0 * r * r * r * m / (4.0 / 3.0 * r * r * r + r * r * h);
  EXPECT_NEAR(capsule.getInertiaMatrix_B()(0, 0), m * ixx / vol + ms * h * h / 2, 2e-3 * m * ixx / vol);
  EXPECT_NEAR(capsule.getInertiaMatrix_B()(2, 2), m * izz / vol, 2e-3 * m * izz / vol);

  // Uniform density: a capsule's mass with a solid cylinder's formula, a
  // cylinder's mass with end-cap terms, the diagonal turned into the frame given.
  double mass;
  Mat<3, 3> I, R;
  const double rr = 0.2, l = 1.0;
  getInertialAssumingUniformDensity(Shape::Capsule, Mat<4, 1>{rr, l, 0, 0}, Mat<3, 3>::getIdentity(), 1000, mass, I);
  EXPECT_DOUBLE_EQ(mass, (M_PI * rr * rr * l + 4.0 / 3.0 * M_PI * rr * rr * rr) * 1000);
  EXPECT_NEAR(I(0, 0), mass / 12.0 * (3 * rr * rr + l * l), 1e-12);
  getInertialAssumingUniformDensity(Shape::Cylinder, Mat<4, 1>{rr, l, 0, 0}, Mat<3, 3>::getIdentity(), 1000, mass, I);
  EXPECT_DOUBLE_EQ(mass, M_PI * rr * rr * l * 1000);
  EXPECT_NEAR(I(2, 2), mass / 2 * rr * rr + 0.4 * mass * rr * rr, 1e-12);
  angleAxisToRotMat(Mat<3, 1>{0, 0, 1}, M_PI / 2, R);
  getInertialAssumingUniformDensity(Shape::Box, Mat<4, 1>{1, 2, 3, 0}, R, 2.0, mass, I);
  EXPECT_DOUBLE_EQ(mass, 12.0);
  EXPECT_NEAR(I(0, 0), 10.0, 1e-12);
  getInertialAssumingUniformDensity(Shape::Sphere, Mat<4, 1>{0.5, 0, 0, 0}, R, 3.0, mass, I);
  EXPECT_DOUBLE_EQ(mass, M_PI / 2.0);
  EXPECT_LT((I.e() - 0.1 * mass * Eigen::Matrix3d::Identity()).norm(), 1e-15);
  getInertialAssumingUniformDensity(Shape::Mesh, Mat<4, 1>{1, 1, 1, 0}, R, 2.0, mass, I);
  EXPECT_EQ(mass + I.squaredNorm(), 0.0);
}

TEST(Primitives, ConeIsAFatalMessage) {
  EXPECT_NE(
      vorsim_test::fatalOf([] { Cone(0.5, 1.0, 1.0); }).find("\x1b[1;31mCONE IS NOT SUPPORTED WITH ODE BACKEND\x1b[0m"),
      std::string::npos);
  // Under a callback that returns, the cone is built without a geom, and its
  // orientation setters carry the offset centre of mass along.
  vorsim::VorSimMsg::setFatalCallback([] {});
  StdoutCapture out;
  Cone cone(0.5, 2.0, 1.0);
  vorsim::VorSimMsg::resetFatalCallback();
  EXPECT_EQ(cone.getCollisionObject(), nullptr);
  EXPECT_EQ(cone.getComPosition()[2], 0.5);
  cone.setOrientation(Eigen::Quaterniond(Eigen::AngleAxisd(M_PI / 2, Eigen::Vector3d::UnitX())));
  EXPECT_NEAR(cone.getComPosition()[1], -0.5, 1e-15);
}

// --------------------------------------------------------------- compound --

using Piece = Compound::CompoundObjectChild;

namespace {

Piece box(double x, double y, double z, const Mat<3, 1>& pos, const std::string& material = "wood") {
  Piece c;
  c.objectType = BOX;
  c.objectParam = {x, y, z, 0.0};
  c.position = pos;
  c.material = material;
  return c;
}

// A table: a top (child 0) on four legs (children 1-4) that reach into it, so
// that children overlap. The body origin is at the feet.
struct Table {
  std::vector<Piece> children;
  double mass = 10.0;  // a top of 6 kg, legs of 1 kg
  Mat<3, 1> com{0, 0, (6 * 0.72 + 4 * 0.36) / 10.0};
  Mat<3, 3> inertia{0.915, 0, 0, 0, 1.795, 0, 0, 0, 1.741};  // of the parts, about the centre of mass
  Table() {
    children.push_back(box(1.0, 0.6, 0.04, {0, 0, 0.72}, "top"));
    for (int k = 0; k < 4; ++k)
      children.push_back(box(0.04, 0.04, 0.72, {k & 1 ? 0.45 : -0.45, k & 2 ? 0.25 : -0.25, 0.36}));
  }
};

}  // namespace

TEST(Compound, BadChildrenAreFatal) {
  Piece s;
  s.objectParam = {0.1, 0, 0, 0};
  EXPECT_NE(vorsim_test::fatalOf([&] {
              Compound({s}, 1.0, Mat<3, 1>{}, Mat<3, 3>::getIdentity());
            }).find("\x1b[1;31mProvided less than 2 children. Compound needs at least 2.\x1b[0m"),
            std::string::npos);
  for (ObjectType bad : {MESH, CONE, GROUND, HEIGHTMAP, COMPOUND}) {
    Piece other = s;
    other.objectType = bad;
    World world;
    EXPECT_NE(vorsim_test::fatalOf([&] {
                world.addCompound({s, other}, 1.0, Mat<3, 1>{}, Mat<3, 3>::getIdentity());
              })
                  .find("Unsupported shape: " + objectTypeToString(bad) + " (" + std::to_string(int(bad)) +
                        ") for a compound object"),
              std::string::npos);
    EXPECT_EQ(world.getObjList().size(), 0u);
    EXPECT_EQ(world.getConfigurationNumber(), 1);
  }
}

TEST(Compound, TableStandsOnItsLegsAndSlidesAsOneBody) {
  World world;
  world.setTimeStep(0.001);
  world.setMaterialPairProp("floor", "wood", 0.5, 0.0, 0.01);
  world.addGround(0.0, "floor");
  Table t;
  auto* table = world.addCompound(t.children, t.mass, t.com, t.inertia);
  table->setPosition(0.0, 0.0, 0.002);
  auto legsInContact = [&] {
    int seen = 0;
    for (const Contact& c : table->getContacts()) {
      EXPECT_NE(c.getLocalBodyIndex(), 0u);                         // the top never touches the floor
      EXPECT_NE(c.getPairObjectIndex(), table->getIndexInWorld());  // nor a leg the top
      seen |= 1 << c.getLocalBodyIndex();
    }
    return seen;
  };
  for (int i = 0; i < 1000; ++i) world.integrate();
  EXPECT_EQ(legsInContact(), 0x1E);
  EXPECT_NEAR(table->getPosition()[2], 0.0, 2e-3);
  EXPECT_LT(table->getLinearVelocity().norm(), 1e-3);

  // Pushed, it slides on all four legs and slows at mu g, staying level.
  table->setVelocity(2.0, 0.0, 0.0, 0.0, 0.0, 0.0);
  for (int i = 0; i < 200; ++i) {
    world.integrate();
    EXPECT_EQ(legsInContact(), 0x1E) << i;
  }
  EXPECT_NEAR((2.0 - table->getLinearVelocity()[0]) / 0.2, 0.5 * 9.81, 0.05 * 0.5 * 9.81);
  EXPECT_NEAR(table->getRotationMatrix()(2, 2), 1.0, 1e-6);
  EXPECT_NEAR(table->getPosition()[2], 0.0, 2e-3);

  // Upside down it lies on its top alone.
  World flipped;
  flipped.addGround();
  auto* upside = flipped.addCompound(t.children, t.mass, t.com, t.inertia);
  upside->setPose(Eigen::Vector3d(0, 0, 0.739), Eigen::Quaterniond(Eigen::AngleAxisd(M_PI, Eigen::Vector3d::UnitX())));
  flipped.integrate();
  ASSERT_GT(upside->getContacts().size(), 0u);
  for (const Contact& c : upside->getContacts()) EXPECT_EQ(c.getLocalBodyIndex(), 0u);
}

TEST(Compound, RemovingAnEarlierObjectRestampsEveryChildGeom) {
  World world;
  auto* first = world.addSphere(0.1, 1.0);
  world.addGround();
  Table t;
  auto* table = world.addCompound(t.children, t.mass, t.com, t.inertia, 0x6, 0x3);
  table->setPosition(0.0, 0.0, -0.001);
  world.removeObject(first);
  ASSERT_EQ(world.getObjList()[0], table);
  EXPECT_EQ(table->getIndexInWorld(), 0u);
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(geomData(table->geoms[i]).objectIndex, 0u);
    EXPECT_EQ(geomData(table->geoms[i]).localIndex, i);
    EXPECT_EQ(geomData(table->geoms[i]).material, i == 0 ? "top" : "wood");
    EXPECT_EQ(getCategoryBits(table->geoms[i]), 0x6u);
    EXPECT_EQ(getCollideBits(table->geoms[i]), 0x3u);
  }
  world.integrate();
  EXPECT_GE(table->getContacts().size(), 4u);
  const auto& hits = world.rayTest({0.3, 0.1, 2}, {0, 0, -1}, 5.0, true);
  ASSERT_EQ(hits.size, 1u);
  EXPECT_EQ(hits[0].object, table);
  world.removeObject(table);
  EXPECT_EQ(dSpaceGetNumGeoms(world.getCollisionSpace()), 1);
}
