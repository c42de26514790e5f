// The order in which a step drives objects, and the world's settings.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "test_helpers.hpp"
#include "vorsim/World.hpp"
#include "vorsim/contact/Single3DContactProblem.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"
#include "vorsim/object/Primitives.hpp"
#include "vorsim/object/SingleBodyObject.hpp"

using namespace vorsim;

namespace {

// An object that writes each call the world makes on it into a shared log.
class RecordingObject : public SingleBodyObject {
 public:
  RecordingObject(std::string tag, BodyType type, std::vector<std::string>& log)
      : SingleBodyObject(UNRECOGNIZED), tag_(std::move(tag)), log_(log) {
    bodyType_ = type;
  }
  bool appendPin = false;  // append one bilateral problem on itself
  Mat<3, 1> velocity{};    // a unit point mass, seen in the contact frame
  int stepSeenInIntegrate = -1;
  double timeSeenInIntegrate = -1.0;

  void updateCollision() override { rec("updateCollision"); }
  void preContactSolverUpdate1(const Mat<3, 1>&, double dt) override { rec("pre1", dt); }
  void preContactSolverUpdate2(const Mat<3, 1>&, double dt, ContactProblemList&) override { rec("pre2", dt); }
  void integrate(double dt, World& world) override {
    rec("integrate", dt);
    stepSeenInIntegrate = world.getWorldStep();
    timeSeenInIntegrate = world.getWorldTime();
  }
  void updateTimeStep(double dt) override { rec("updateTimeStep", dt); }
  void updateTimeStepIfNecessary(double dt) override { rec("updateTimeStepIfNecessary", dt); }
  void getContactPointVel(size_t, Mat<3, 1>& v) const override {
    log_.push_back(tag_ + ".getContactPointVel");
    v = velocity;
  }
  void updateGenVelWithImpulse(size_t, const Mat<3, 1>& impulse) override {
    rec("impulse");
    velocity += impulse;
  }
  void appendConstraints(ContactProblemList& problems) override {
    rec("appendConstraints");
    if (!appendPin) return;
    problems.emplace_back(MaterialPairProperties(), 0.0, 0.0, 0.0, 0.0);
    problems.back().rank = 9;
    problems.back().objectA = this;
    problems.back().delassus.setIdentity();
  }
  void addContactPointVel(size_t, Mat<3, 1>& v) override { v += velocity; }
  void subContactPointVel(size_t, Mat<3, 1>& v) override { v -= velocity; }

 private:
  void rec(const std::string& what, double dt = -1.0) {
    log_.push_back(tag_ + "." + what + (dt >= 0 ? "@" + std::to_string(dt) : std::string()));
  }
  std::string tag_;
  std::vector<std::string>& log_;
};

}  // namespace

TEST(WorldStep, DrivesObjectsInOrderSkipsByBodyTypeAndSolvesProblemsOncePresent) {
  std::vector<std::string> log;
  TestWorld world;
  world.setTimeStep(0.25);
  auto* d = world.add(new RecordingObject("D", DYNAMIC, log));
  world.add(new RecordingObject("S", STATIC, log));
  world.add(new RecordingObject("K", KINEMATIC, log));
  log.clear();
  world.integrate1();
  EXPECT_EQ(log, (std::vector<std::string>{"D.updateTimeStepIfNecessary@0.250000",    // dynamic objects only
                                           "D.updateCollision", "K.updateCollision",  // not static ones
                                           "D.appendConstraints", "S.appendConstraints",
                                           "K.appendConstraints",  // every object
                                           "D.pre1@0.250000", "K.pre1@0.250000"}));
  EXPECT_EQ(world.getWorldStep(), 0);
  log.clear();
  world.integrate2();
  EXPECT_EQ(log, (std::vector<std::string>{"D.pre2@0.250000", "K.pre2@0.250000", "D.integrate@0.250000",
                                           "K.integrate@0.250000"}));
  // Time and step count already hold their end-of-step values while objects integrate.
  EXPECT_EQ(d->stepSeenInIntegrate, 1);
  EXPECT_DOUBLE_EQ(d->timeSeenInIntegrate, 0.25);
  // With no problem, the solver is never called: no sweep, direction untouched.
  for (int i = 0; i < 3; ++i) world.integrate();
  EXPECT_EQ(world.getWorldStep(), 4);
  EXPECT_DOUBLE_EQ(world.getWorldTime(), 1.0);
  EXPECT_TRUE(world.getContactSolver().isForwardOrder());
  EXPECT_EQ(world.getContactSolver().getLoopCounter(), 0);

  // A pin (identity block, zero depth) is solved between pre2 and integrate, and stops the point.
  d->appendPin = true;
  d->velocity = {1.0, -2.0, 0.5};
  world.integrate1();
  ASSERT_EQ(world.getContactProblem().size(), 1u);
  log.clear();
  world.integrate2();
  EXPECT_NEAR(d->velocity.norm(), 0.0, 1e-12);
  EXPECT_GE(world.getContactSolver().getLoopCounter(), 1);
  EXPECT_FALSE(world.getContactSolver().isForwardOrder());
  ASSERT_GE(log.size(), 6u);
  EXPECT_EQ(std::vector<std::string>(log.begin(), log.begin() + 4),
            (std::vector<std::string>{"D.pre2@0.250000", "K.pre2@0.250000", "D.getContactPointVel", "D.impulse"}));
  EXPECT_EQ(log[log.size() - 2], "D.integrate@0.250000");
}

TEST(WorldStep, SettersObjectTypesAndFrames) {
  std::vector<std::string> log;
  TestWorld world;
  world.add(new RecordingObject("D", DYNAMIC, log));
  world.add(new RecordingObject("S", STATIC, log));
  log.clear();
  world.setTimeStep(0.002);
  // Every object hears of a new time step, whatever its type, and so does the solver.
  EXPECT_EQ(log, (std::vector<std::string>{"D.updateTimeStep@0.002000", "S.updateTimeStep@0.002000"}));
  EXPECT_EQ(world.getContactSolver().timeStep, 0.002);
  for (double erp : {0.0, -1.0}) {
    StdoutCapture out;
    world.setERP(erp, 0.1);
    EXPECT_EQ(out.text().find("\x1b[33mERP should be positive\x1b[0m") != std::string::npos, erp < 0.0) << erp;
  }
  EXPECT_EQ(world.getContactSolver().erp, -1.0);
  EXPECT_EQ(world.getContactSolver().erp2, 0.1);

  EXPECT_EQ(stringToObjectType("articulatedSystem"), ARTICULATED_SYSTEM);
  EXPECT_EQ(stringToObjectType("Sphere"), UNRECOGNIZED);
  for (int t = 0; t <= 10; ++t) EXPECT_EQ(stringToObjectType(objectTypeToString(ObjectType(t))), ObjectType(t));
  EXPECT_EQ(objectTypeToString(ObjectType(42)), "");
  // A cone can be neither moved nor collided.
  EXPECT_FALSE(isMovableBody(CONE) || isSingleBody(CONE));
  EXPECT_TRUE(isMovableBody(ARTICULATED_SYSTEM) && !isMovableSingleBody(ARTICULATED_SYSTEM));

  Mat<3, 3> f;
  Contact::computeFrame(Mat<3, 1>{0, 0, -1}, f);
  EXPECT_EQ(f.e(), Eigen::Vector3d(1, -1, -1).asDiagonal().toDenseMatrix());
  // A general normal gives an orthonormal, right-handed frame whose last row is the normal.
  const Mat<3, 1> n{0.3, -0.4, 0.866};
  Contact::computeFrame(n, f);
  const Eigen::Matrix3d F = f.e();
  EXPECT_LT((F * F.transpose() - Eigen::Matrix3d::Identity()).norm(), 1e-12);
  EXPECT_NEAR(F.determinant(), 1.0, 1e-12);
  EXPECT_LT((Eigen::Vector3d(F.row(2).transpose()) - n.e().normalized()).norm(), 1e-15);

  // The batch form gives the bits of n = g / |g| and computeFrame(n), signed
  // zeros included, for every point of a strided array of any length.
  const double raw[][4] = {{0, 0, -2, 9}, {-0.0, 0, 1, 9}, {0, -0.0, -1, 9}, {0.3, -0.4, 0.866, 9},
                           {-1e-300, 2e-300, 1, 9}, {5, 0, 0, 9}, {-0.2, 0.0, -3, 9}};
  for (size_t count = 1; count <= 7; ++count) {
    std::vector<Mat<3, 1>> normals(count);
    std::vector<Mat<3, 3>> frames(count);
    Contact::unitNormalsAndFrames(raw[0], sizeof(raw[0]), count, normals.data(), frames.data());
    for (size_t i = 0; i < count; ++i) {
      Mat<3, 1> u{raw[i][0], raw[i][1], raw[i][2]};
      u /= u.norm();
      Contact::computeFrame(u, f);
      EXPECT_EQ(std::memcmp(normals[i].v, u.v, sizeof(u.v)), 0) << count << " " << i;
      EXPECT_EQ(std::memcmp(frames[i].v, f.v, sizeof(f.v)), 0) << count << " " << i;
    }
  }
}

TEST(WorldStep, GeomsThatCanTouchNothingStillShowTheirPoses) {
  // World 0 holds only a robot whose geoms can pair with nothing (mask 0), so
  // its step does not place them; in world 1 a far sphere takes the robot's
  // group, so they are placed in every step. Poses, rays and motion must agree
  // bit for bit, before and after a ground arrives and after it goes.
  const std::string urdf = R"(<?xml version="1.0"?><robot name="r">
<link name="base"><inertial><mass value="2"/><inertia ixx="0.1" iyy="0.1" izz="0.1"/></inertial>
<collision><geometry><box size="0.4 0.3 0.2"/></geometry></collision></link>
<joint name="j" type="revolute"><parent link="base"/><child link="arm"/><origin xyz="0.2 0 0"/><axis xyz="0 1 0"/>
<limit lower="-3" upper="3" effort="100" velocity="100"/></joint>
<link name="arm"><inertial><mass value="1"/><inertia ixx="0.01" iyy="0.01" izz="0.01"/></inertial>
<collision><origin xyz="0.3 0 0"/><geometry><sphere radius="0.1"/></geometry></collision></link></robot>)";
  World worlds[2];
  ArticulatedSystem* robots[2];
  for (int k = 0; k < 2; ++k) {
    worlds[k].setTimeStep(0.002);
    robots[k] = worlds[k].addArticulatedSystem(urdf, "", {}, 1, 0);
    robots[k]->setGeneralizedCoordinate({0, 0, 0.6, 1, 0, 0, 0, 0.3});
    robots[k]->setGeneralizedVelocity({0.5, 0, 0, 0, 0, 2, 1});
  }
  worlds[1].addSphere(0.1, 1.0)->setPosition(50, 0, 5);
  auto rays = [&] {
    const RayCollisionList& h0 = worlds[0].rayTest({0.7, 0, 3}, {-0.3, 0, -1}, 10.0);
    const RayCollisionList& h1 = worlds[1].rayTest({0.7, 0, 3}, {-0.3, 0, -1}, 10.0);
    ASSERT_EQ(h0.getNumOfHits(), 1u);
    ASSERT_EQ(h1.getNumOfHits(), 1u);
    EXPECT_EQ(h0[0].getObject(), robots[0]);
    for (int c = 0; c < 3; ++c) EXPECT_EQ(h0[0].getPosition()[c], h1[0].getPosition()[c]);
  };
  auto poses = [&] {
    for (size_t g = 0; g < robots[0]->getCollisionBodies().size(); ++g) {
      dGeomID a = robots[0]->getCollisionBodies()[g].colObj, b = robots[1]->getCollisionBodies()[g].colObj;
      for (int c = 0; c < 3; ++c) EXPECT_EQ(dGeomGetPosition(a)[c], dGeomGetPosition(b)[c]) << "geom " << g;
      for (int c = 0; c < 12; ++c) EXPECT_EQ(dGeomGetRotation(a)[c], dGeomGetRotation(b)[c]) << "geom " << g;
    }
  };
  // Either reader may come first and must find the geoms placed.
  auto stepAndCompare = [&](int steps, bool rayFirst) {
    for (int s = 0; s < steps; ++s)
      for (World& w : worlds) w.integrate();
    for (size_t i = 0; i < robots[0]->gc.size(); ++i) ASSERT_EQ(robots[0]->gc[i], robots[1]->gc[i]);
    if (rayFirst) rays();
    poses();
    if (!rayFirst) rays();
  };
  stepAndCompare(20, true);
  stepAndCompare(5, false);
  // A ground brings contacts back at once.
  for (World& w : worlds) w.addGround(0.45);
  stepAndCompare(1, true);
  EXPECT_GT(worlds[0].getContactProblem().size(), 0u);
  stepAndCompare(30, false);
  for (World& w : worlds) w.removeObject(w.getObjList().back());
  stepAndCompare(10, true);
}
