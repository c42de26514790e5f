// Robot contact blocks against dense algebra; robots resting on the ground,
// pressing on a box and touching themselves.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

#include "robot_compare.hpp"
#include "vorsim/World.hpp"
#include "vorsim/contact/Single3DContactProblem.hpp"
#include "vorsim/object/HeightMap.hpp"
#include "vorsim/object/Primitives.hpp"
#include "vorsim/object/TerrainGenerator.hpp"

using namespace vorsim;
using vorsim_test::link;

namespace {

const std::string kModels = std::string(VORSIM_TEST_DATA_DIR) + "/../../models/";
const std::string kAnymal = kModels + "anymal_b/anymal.urdf";

// The arm's file with its root link fixed to the world.
std::string fixedPandaUrdf() {
  std::stringstream text;
  text << std::ifstream(kModels + "franka_panda/panda.urdf").rdbuf();
  std::string urdf = text.str();
  return urdf.insert(urdf.find('>', urdf.find("<robot")) + 1,
                     "<link name=\"world\"/><joint name=\"fix\" type=\"fixed\"><origin xyz=\"0 0 0\"/>"
                     "<parent link=\"world\"/><child link=\"panda_link0\"/></joint>");
}

using MatX = Eigen::MatrixXd;

// The dense 3 x dof point Jacobian of a world point on a body.
MatX denseJacobian(const ArticulatedSystem& s, size_t body, const Mat<3, 1>& point) {
  SparseJacobian J;
  s.getSparseJacobian(body, point, J);
  return vorsim_test::dense(J, s.dof);
}

Contact makeContact(const Mat<3, 1>& position, const Mat<3, 1>& normal, size_t body) {
  Contact c;
  c.position = position;
  c.normal = normal;
  Contact::computeFrame(normal, c.frame);
  c.localBodyIndex = body;
  c.isObjectA = true;
  c.pairObjectIndex = 1000;  // some other object
  c.pairObjectBodyType = STATIC;
  return c;
}

double relError(const MatX& a, const MatX& b) { return (a - b).norm() / std::max(1e-300, b.norm()); }

// A random state with rotor inertia and PD gains (the implicit diagonal
// counts), contacts on several bodies and one self-contact pair: every block,
// response, velocity read and impulse write against dense J M^-1 J^T.
void checkAgainstDenseAlgebra(World& world, ArticulatedSystem& s) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  VecDyn gc = s.gc, gv(s.dof), rotor(s.dof);
  const bool floating = s.getRootJointType() == Joint::FLOATING;
  if (floating) {
    for (size_t k = 4; k < 7; ++k) gc[k] = 0.3 * u(rng);
    gc[3] = 1.0;  // the setter normalises
  }
  for (size_t i = floating ? 7 : 0; i < s.gcDim; ++i) gc[i] += 0.4 * u(rng);
  for (size_t i = 0; i < s.dof; ++i) gv[i] = u(rng), rotor[i] = 0.01 * (1.0 + u(rng));
  s.setGeneralizedCoordinate(gc);
  s.setGeneralizedVelocity(gv);
  s.setRotorInertia(rotor);
  vorsim_test::setPd(s, 80.0, 3.0, s.gc);

  world.integrate1();  // no collisions: the robot's geoms are masked
  auto& contacts = s.getContacts();
  ASSERT_TRUE(contacts.empty());
  const size_t nb = s.nbody;
  for (size_t b : {floating ? size_t(0) : size_t(1), nb / 3, nb / 2, nb - 1, nb - 2}) {
    Mat<3, 1> p;
    s.getPosition(b, Mat<3, 1>{0.05 * u(rng), 0.05 * u(rng), 0.05 * u(rng)}, p);
    Mat<3, 1> n{u(rng), u(rng), u(rng)};
    n /= n.norm();
    contacts.push_back(makeContact(p, n, b));
  }
  // A pair of the robot's own points on two branches, at one world point.
  const size_t b1 = nb - 1, b2 = nb / 3, first = contacts.size();
  Mat<3, 1> pSelf;
  s.getPosition(b1, Mat<3, 1>{0.02, -0.03, 0.01}, pSelf);
  Contact a = makeContact(pSelf, Mat<3, 1>{0.0, 0.6, 0.8}, b1);
  a.pairObjectIndex = s.getIndexInWorld();
  a.pairObjectBodyType = DYNAMIC;
  a.pairContactIndex = first + 1;
  contacts.push_back(a);
  a.localBodyIndex = b2;
  a.isObjectA = false;
  a.pairContactIndex = first;
  contacts.push_back(a);

  const Mat<3, 1> gravity = world.getGravity();
  const double dt = world.getTimeStep();
  s.preContactSolverUpdate1(gravity, dt);
  ContactProblemList problems;
  s.preContactSolverUpdate2(gravity, dt, problems);
  EXPECT_TRUE(contacts[first].isSelfCollision);
  EXPECT_TRUE(contacts[first + 1].skip);
  EXPECT_EQ(contacts[first + 1].impactVel, 0.0);

  // M with rotor inertia and the implicit diagonal of damping and gains.
  const MatX Minv = (s.getMassMatrix().e() + MatX(s.dampedDiag.e().asDiagonal())).inverse();
  const Eigen::VectorXd gvStart = s.gv.e(), gvWork = s.gvWork.e();
  for (size_t c = 0; c < contacts.size(); ++c) {
    if (contacts[c].skip) continue;
    SCOPED_TRACE("contact " + std::to_string(c) + " on body " + std::to_string(contacts[c].localBodyIndex));
    MatX J = denseJacobian(s, contacts[c].localBodyIndex, contacts[c].position);
    if (contacts[c].isSelfCollision) J -= denseJacobian(s, b2, contacts[c].position);
    const MatX Jc = contacts[c].frame.e() * J;
    const MatX G = Jc * Minv * Jc.transpose();
    EXPECT_LT(relError(contacts[c].delassus.e(), G), 1e-9) << contacts[c].delassus.e() << "\n\n" << G;
    EXPECT_LT(relError(s.contactResponse[c].e(), Jc * Minv), 1e-9);
    EXPECT_NEAR(contacts[c].impactVel, (Jc * gvStart)(2), 1e-9 * (1.0 + (Jc * gvStart).norm()));

    Mat<3, 1> v;
    s.getContactPointVel(c, v);
    EXPECT_LT((v.e() - Jc * gvWork).norm(), 1e-12 * (1.0 + v.norm()));
    Mat<3, 1> w{1.0, 2.0, 3.0};
    s.addContactPointVel2(c, w);
    EXPECT_LT((w.e() - Eigen::Vector3d(1, 2, 3) - Jc * gvStart).norm(), 1e-12 * (1.0 + w.norm()));
    s.subContactPointVel(c, w);
    s.addContactPointVel(c, w);
    s.subContactPointVel2(c, w);
    EXPECT_LT((w.e() - Eigen::Vector3d(1, 2, 3)).norm(), 1e-12);

    // An impulse changes the working velocity by M^-1 J^T impulse.
    const Mat<3, 1> impulse{0.3, -0.2, 0.7};
    const Eigen::VectorXd before = s.gvWork.e();
    s.updateGenVelWithImpulse(c, impulse);
    const Eigen::VectorXd change = s.gvWork.e() - before;
    EXPECT_LT((change - Minv * Jc.transpose() * impulse.e()).norm(), 1e-9 * change.norm());
    s.gvWork.e() = before;
  }
}

}  // namespace

TEST(RobotContacts, BlocksAndResponsesEqualDenseAlgebra) {
  // The quadruped, the fixed-base arm and the tree of every joint kind.
  for (int robot = 0; robot < 3; ++robot) {
    SCOPED_TRACE(robot);
    StdoutCapture quiet;  // the arm's mimic joint is reported
    World world;
    ArticulatedSystem* s = robot == 0 ? world.addArticulatedSystem(kAnymal, "", {}, 1, 0)
                           : robot == 1
                               ? world.addArticulatedSystem(fixedPandaUrdf(), kModels + "franka_panda", {}, 1, 0)
                               : world.addArticulatedSystem(vorsim_test::makeTree(Joint::FLOATING), "r");
    quiet.text();
    checkAgainstDenseAlgebra(world, *s);
  }
}

TEST(RobotContacts, QuadrupedComesToRestWithoutJitter) {
  struct Scene {
    const char* name;
    bool rough, back, warm;
    int settle, watch;
    double penetration, height;  // the deepest allowed; the base's least height above the ground
  };
  const Scene scenes[] = {{"on its feet", false, false, false, 1000, 10000, 1e-3, 0.4},
                          {"on its feet, warm start", false, false, true, 1000, 10000, 1e-3, 0.4},
                          {"on rough terrain", true, false, false, 1000, 10000, 2e-3, 0.35},
                          {"on its back", false, true, false, 2000, 3000, 1e-3, 0.05}};
  for (const Scene& c : scenes) {
    SCOPED_TRACE(c.name);
    World world;
    world.setTimeStep(0.001);
    world.setWarmStart(c.warm);
    TerrainProperties terrain;
    terrain.frequency = 0.8;
    terrain.xSize = terrain.ySize = 4.0;
    terrain.zScale = 0.3;
    terrain.xSamples = terrain.ySamples = 80;
    terrain.fractalOctaves = 3;
    terrain.seed = 3;
    HeightMap* map = c.rough ? world.addHeightMap(0.0, 0.0, terrain) : nullptr;
    if (!c.rough) world.addGround();
    auto ground = [map](double x, double y) { return map ? map->getHeight(x, y) : 0.0; };
    // Thighs overlap the base near the hips: group 2 does not meet itself.
    ArticulatedSystem* s = world.addArticulatedSystem(kAnymal, "", {}, 2, World::kAllBits & ~size_t(2));
    s->setGeneralizedCoordinate({0, 0, ground(0, 0) + (c.back ? 0.3 : 0.55), c.back ? 0.0 : 1.0, c.back ? 1.0 : 0.0, 0,
                                 0, 0.03, 0.4, -0.8, -0.03, 0.4, -0.8, 0.03, -0.4, 0.8, -0.03, -0.4, 0.8});
    vorsim_test::setPd(*s, 200.0, 10.0, s->gc);
    for (int i = 0; i < c.settle; ++i) world.integrate();
    const double x0 = s->gc[0], y0 = s->gc[1], z0 = s->gc[2];
    double deepest = 0.0, fastest = 0.0;
    for (int i = 0; i < c.watch; ++i) {
      world.integrate();
      fastest = std::max(fastest, s->gv.e().cwiseAbs().maxCoeff());
      for (const Contact& contact : s->getContacts()) deepest = std::max(deepest, -contact.depth);
    }
    EXPECT_LT(deepest, c.penetration);
    EXPECT_LT(c.back ? fastest : s->gv.e().cwiseAbs().maxCoeff(), 1e-3);  // on its back, at every step
    EXPECT_LT(std::hypot(s->gc[0] - x0, s->gc[1] - y0), 1e-3);
    EXPECT_LT(std::abs(s->gc[2] - z0), 1e-3);
    EXPECT_GT(s->gc[2] - ground(s->gc[0], s->gc[1]), c.height);
    // Standing, the four feet touch and nothing else; on its back, the base.
    std::set<std::string> touching;
    for (const Contact& contact : s->getContacts()) touching.insert(s->getBodyNames()[contact.localBodyIndex]);
    if (c.back) {
      EXPECT_EQ(touching.count("base"), 1u);
    } else {
      EXPECT_EQ(touching, (std::set<std::string>{"LF_SHANK", "RF_SHANK", "LH_SHANK", "RH_SHANK"}));
    }
  }
}

TEST(RobotContacts, ArmPressingOnABoxBalancesItsTorques) {
  // A ball for the hand, enclosing the fingers: a mesh hand would meet the
  // face at a hundred points and pinch the light fingers.
  std::string urdf = fixedPandaUrdf();
  const auto replaceAll = [&urdf](const std::string& from, const std::string& to) {
    for (size_t at = urdf.find(from); at != std::string::npos; at = urdf.find(from, at + to.size()))
      urdf.replace(at, from.size(), to);
  };
  replaceAll("<mesh filename=\"package://meshes/collision/hand.obj\"/>", "<sphere radius=\"0.13\"/>");
  replaceAll("<mesh filename=\"package://meshes/collision/finger.obj\"/>", "<sphere radius=\"0.005\"/>");
  StdoutCapture quiet;
  World world;
  world.setTimeStep(0.001);
  // Links overlap at the joints: group 2 does not meet itself.
  ArticulatedSystem* arm =
      world.addArticulatedSystem(urdf, kModels + "franka_panda", {}, 2, World::kAllBits & ~size_t(2));
  quiet.text();
  // The hand over a fixed box; the PD target is lower than the box allows.
  arm->setGeneralizedCoordinate({0.0, 0.3, 0.0, -2.0, 0.0, 2.3, 0.8, 0.02, 0.02});
  VecDyn target = arm->gc;
  target[1] += 0.2;
  vorsim_test::setPd(*arm, 300.0, 20.0, target);
  Mat<3, 1> hand;
  arm->getFramePosition(arm->getFrameIdxByName("panda_hand_joint"), hand);
  auto* box = world.addBox(0.3, 0.3, 0.2, 1.0);
  box->setBodyType(STATIC);
  box->setPosition(hand[0], hand[1], hand[2] - 0.225);
  for (int i = 0; i < 3000; ++i) world.integrate();
  ASSERT_GE(arm->getContacts().size(), 1u);
  for (const Contact& c : arm->getContacts()) EXPECT_EQ(arm->getBodyNames()[c.localBodyIndex], "panda_link7");
  // Quasi-static: what is left is the slow push out of the penetration.
  EXPECT_LT(arm->gv.e().cwiseAbs().maxCoeff(), 3e-3);

  // At rest: M 0 + h = tau + J^T f.
  const double dt = world.getTimeStep();
  Eigen::VectorXd JTf = Eigen::VectorXd::Zero(Eigen::Index(arm->dof));
  for (const Contact& c : arm->getContacts()) {
    const Eigen::Vector3d f = (c.isObjectA ? 1.0 : -1.0) * c.frame.e().transpose() * c.impulse->e() / dt;
    JTf += denseJacobian(*arm, c.localBodyIndex, c.position).transpose() * f;
  }
  const Eigen::VectorXd needed = arm->getNonlinearities(world.getGravity()).e() - arm->getActuation().e();
  EXPECT_GT(JTf.norm(), 1.0);  // the box carries a real load
  EXPECT_LT((JTf - needed).norm(), 0.01 * needed.norm()) << JTf.transpose() << "\n" << needed.transpose();
}

TEST(RobotContacts, SelfCollisionAndIgnoringTheParent) {
  // Base - upper - lower without gravity: each sphere overlaps its parent's,
  // and the lower one the base's too.
  auto ball = [](const std::string& name, Joint::Type type, const Mat<3, 1>& pos, const Mat<3, 1>& at) {
    Child c = link(name, type, 1.0);
    c.axis = {1, 0, 0};
    c.pos = pos;
    c.collisionBodies.emplace_back(Shape::Sphere, Mat<4, 1>{0.1, 0, 0, 0}, at, Mat<3, 3>::getIdentity(),
                                   Mat<3, 1>{1, 1, 1}, name + "/0", "", "", "");
    return c;
  };
  Child base = ball("base", Joint::FLOATING, {0, 0, 1}, {0, 0, 0});
  base.child.push_back(ball("upper", Joint::REVOLUTE, {0, 0, 0.15}, {0, 0, 0}));
  base.child[0].child.push_back(ball("lower", Joint::REVOLUTE, {0, 0, -0.05}, {0, 0.03, -0.12}));

  for (bool ignore : {false, true}) {
    SCOPED_TRACE(ignore ? "parent ignored" : "all pairs");
    World world;
    world.setGravity(Mat<3, 1>{0, 0, 0});
    ArticulatedSystemOption option;
    option.ignoreParentCollision = ignore;
    ArticulatedSystem* s = world.addArticulatedSystem(base, "", 1, World::kAllBits, option);
    world.integrate1();
    std::set<std::pair<size_t, size_t>> pairs;
    for (const Contact& c : s->getContacts()) {
      if (!c.isObjectA) continue;
      EXPECT_EQ(c.pairObjectIndex, s->getIndexInWorld());
      EXPECT_TRUE(c.isSelfCollision);
      EXPECT_TRUE(s->getContacts()[c.pairContactIndex].skip);
      const size_t other = s->getContacts()[c.pairContactIndex].localBodyIndex;
      pairs.insert({std::min(c.localBodyIndex, other), std::max(c.localBodyIndex, other)});
    }
    std::set<std::pair<size_t, size_t>> expected = {{0, 2}};
    if (!ignore) expected.insert({{0, 1}, {1, 2}});
    EXPECT_EQ(pairs, expected);
    world.integrate2();
    // The overlap pushes the links apart: the lower link turns away.
    for (int i = 0; i < 300; ++i) world.integrate();
    EXPECT_GT(std::abs(s->gc[8]), 0.05);  // false for a NaN too
  }
}
