// Articulated dynamics against independent routes and finite differences,
// and stepped physics against closed-form results.
#include <gtest/gtest.h>

#include <cmath>

#include "robot_compare.hpp"
#include "vorsim/World.hpp"

using namespace vorsim;
using namespace vorsim_test;

namespace {

using Vec = Eigen::VectorXd;
using Matrix = Eigen::MatrixXd;

VecDyn toVecDyn(const Vec& v) {
  VecDyn out(size_t(v.size()));
  out = v;
  return out;
}

// Inverse dynamics takes a spherical joint's acceleration in world
// coordinates; the generalized acceleration has it in the body frame.
VecDyn worldJointAcceleration(const ArticulatedSystem& s, const Vec& qdd) {
  Vec out = qdd;
  for (size_t b = 1; b < s.nbody; ++b)
    if (s.jointType[b] == Joint::SPHERICAL)
      out.segment<3>(Eigen::Index(s.gvIdx[b])) = s.rotW[b].e() * qdd.segment<3>(Eigen::Index(s.gvIdx[b]));
  return toVecDyn(out);
}

Vec inverseDynamics(ArticulatedSystem& s, const Mat<3, 1>& g, const Vec& qdd) {
  VecDyn tau(s.dof);
  s.recursiveNewtonEuler(g, false, false, worldJointAcceleration(s, qdd), tau);
  return tau.e();
}

VecDyn filled(size_t n, const std::function<double(size_t)>& f) {
  VecDyn v(n);
  for (size_t i = 0; i < n; ++i) v[i] = f(i);
  return v;
}

VecDyn one(double value) {
  return filled(1, [value](size_t) { return value; });
}

const Mat<3, 1> kNoGravity{0, 0, 0};
const Mat<3, 1> kGravity{0, 0, -9.81};

bool near(const Matrix& a, const Matrix& b, double rel) { return (a - b).norm() <= rel * std::max(1.0, b.norm()); }

// A fixed base with one revolute joint about `axis` at the origin, carrying
// one link with its centre of mass at `com`.
Child pendulum(double mass, Mat<3, 1> com, Mat<3, 1> axis, Mat<3, 1> inertiaDiagonal) {
  Child top = root("base", Joint::FIXED, 1.0);
  top.child.push_back(link("link", Joint::REVOLUTE, mass, com, inertiaDiagonal));
  top.child[0].axis = axis;
  return top;
}

}  // namespace

class DynamicsOnBothBases : public testing::TestWithParam<Joint::Type> {};
INSTANTIATE_TEST_SUITE_P(Bases, DynamicsOnBothBases, testing::Values(Joint::FIXED, Joint::FLOATING));

TEST_P(DynamicsOnBothBases, MassMatrixAbaAndSparseInverseAgreeWithInverseDynamics) {
  ArticulatedSystem s(makeTree(GetParam()), "r");
  {
    SCOPED_TRACE("M column k is inverse dynamics of unit acceleration k");
    randomState(s, 11);
    const VecDyn gv = s.gv, rotor = filled(s.dof, [](size_t i) { return 0.01 * double(i + 1); });
    s.setRotorInertia(rotor);
    const Matrix M = s.getMassMatrix().e();
    s.setGeneralizedVelocity(filled(s.dof, [](size_t) { return 0.0; }));
    Matrix fromRne(s.dof, s.dof);
    for (size_t k = 0; k < s.dof; ++k)
      fromRne.col(Eigen::Index(k)) = inverseDynamics(s, kNoGravity, Vec::Unit(Eigen::Index(s.dof), Eigen::Index(k)));
    fromRne.diagonal() += rotor.e();
    EXPECT_TRUE(near(M, fromRne, 1e-12)) << M << "\n\n" << fromRne;
    s.setGeneralizedVelocity(gv);
    double kinetic = 0.5 * gv.e().dot(rotor.e().cwiseProduct(gv.e()));
    for (size_t b = GetParam() == Joint::FIXED ? 1 : 0; b < s.nbody; ++b) {
      const Eigen::Vector3d w = s.angVelW[b].e(), v = s.linVelW[b].e() + w.cross(s.comRelW[b].e());
      kinetic += 0.5 * s.massOf[b] * v.squaredNorm() + 0.5 * w.dot(s.inertiaW[b].e() * w);
    }
    EXPECT_NEAR(s.getKineticEnergy(), kinetic, 1e-12 * kinetic);
  }
  {
    SCOPED_TRACE("the articulated-body algorithm inverts inverse dynamics");
    randomState(s, 5, 2.0);
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> d(-5.0, 5.0);
    const VecDyn rotor = filled(s.dof, [](size_t) { return 0.02; }),
                 tau = filled(s.dof, [&](size_t) { return d(rng); });
    s.setRotorInertia(rotor);
    s.setGeneralizedForce(tau);
    s.articulatedBodyAlgorithm(kGravity, 0.01);
    const Vec qdd = s.ga.e();
    const Vec back = inverseDynamics(s, kGravity, qdd) + rotor.e().cwiseProduct(qdd);
    EXPECT_TRUE(near(back, tau.e(), 1e-10)) << back.transpose() << "\n" << tau.e().transpose();
    EXPECT_TRUE(near(s.gvWork.e(), s.gv.e() + 0.01 * qdd, 1e-15));
    const Vec b = s.getNonlinearities(kGravity).e();
    EXPECT_TRUE(near(s.getMassMatrix().e().ldlt().solve(tau.e() - b), qdd, 1e-10));
  }
  {
    SCOPED_TRACE("M times the sparse inverse is the identity, with and without the implicit diagonal");
    randomState(s, 8);
    const Matrix M = s.getMassMatrix().e(), I = Matrix::Identity(Eigen::Index(s.dof), Eigen::Index(s.dof));
    EXPECT_TRUE(near(M * s.getInverseMassMatrix().e(), I, 1e-12));
    const VecDyn damping = filled(s.dof, [](size_t) { return 0.3; }), kd = filled(s.dof, [](size_t) { return 2.0; });
    const VecDyn kp = filled(s.dof, [](size_t i) { return 40.0 + double(i); });
    s.setJointDamping(damping);
    s.setControlMode(ArticulatedSystem::PD_PLUS_FEEDFORWARD_TORQUE);
    s.setPdGains(kp, kd);
    s.setGeneralizedForce(filled(s.dof, [](size_t i) { return std::sin(i); }));
    const double dt = 0.01;
    s.updateTimeStep(dt);
    for (size_t i = 0; i < s.dof; ++i)
      EXPECT_DOUBLE_EQ(s.dampedDiag[i], 0.5 * dt * (damping[i] + kd[i] + 0.5 * dt * kp[i]));
    MatDyn Minv(s.dof, s.dof);
    s.computeSparseInverse(s.getMassMatrix(), Minv);
    EXPECT_TRUE(near((M + Matrix(s.dampedDiag.e().asDiagonal())) * Minv.e(), I, 1e-12));
    s.articulatedBodyAlgorithm(kGravity, dt);
    EXPECT_TRUE(near(s.ga.e(), Minv.e() * (s.actuation.e() - s.getNonlinearities(kGravity).e()), 1e-10));
  }
}

TEST_P(DynamicsOnBothBases, FrameAccelerationsAreDerivativesOfFrameVelocities) {
  ArticulatedSystem s(makeTree(GetParam()), "r");
  randomState(s, 21);
  s.setGeneralizedForce(filled(s.dof, [](size_t i) { return std::cos(3.0 * double(i)); }));
  s.articulatedBodyAlgorithm(kGravity, 0.001);
  const Vec qdd = s.ga.e(), u = s.gv.e();
  const VecDyn gc0 = s.gc;
  // Inverse dynamics without gravity fills the plain body accelerations.
  VecDyn tauBack(s.dof);
  s.recursiveNewtonEuler(kNoGravity, false, false, worldJointAcceleration(s, qdd), tauBack);
  const std::vector<CoordinateFrame>& frames = s.getFrames();
  std::vector<Eigen::Vector3d> acc, angAcc;
  for (const CoordinateFrame& f : frames) {
    Mat<3, 1> a;
    s.getFrameAcceleration(f, a);
    acc.push_back(a.e());
    angAcc.push_back(s.angAccW[f.parentId].e());
  }
  // Along q(t), u + t qdd; moving q by u t is enough for a central difference.
  const double h = 1e-6;
  auto velocitiesAt = [&](double t, size_t f, bool angular) {
    s.setGeneralizedCoordinate(moved(s, gc0, u, t));
    s.setGeneralizedVelocity(toVecDyn(u + t * qdd));
    Mat<3, 1> x;
    angular ? s.getFrameAngularVelocity(frames[f], x) : s.getFrameVelocity(frames[f], x);
    return Eigen::Vector3d(x.e());
  };
  for (size_t f = 0; f < acc.size(); ++f) {
    const Eigen::Vector3d fd = (velocitiesAt(h, f, false) - velocitiesAt(-h, f, false)) / (2 * h);
    const Eigen::Vector3d fdw = (velocitiesAt(h, f, true) - velocitiesAt(-h, f, true)) / (2 * h);
    EXPECT_LT((fd - acc[f]).norm(), 1e-6 * std::max(1.0, acc[f].norm())) << frames[f].name;
    EXPECT_LT((fdw - angAcc[f]).norm(), 1e-6 * std::max(1.0, angAcc[f].norm())) << frames[f].name;
  }
}

// ------------------------------------------------------------- stepping --

namespace {

// Mean period of the upward zero crossings of x(t) sampled every dt.
double measuredPeriod(const std::vector<double>& x, double dt) {
  std::vector<double> crossings;
  for (size_t i = 1; i < x.size(); ++i)
    if (x[i - 1] < 0.0 && x[i] >= 0.0) crossings.push_back(dt * (double(i - 1) + x[i - 1] / (x[i - 1] - x[i])));
  if (crossings.size() < 2) return 0.0;
  return (crossings.back() - crossings.front()) / double(crossings.size() - 1);
}

}  // namespace

TEST(Stepping, FreeFallPendulumPeriodAndSpringFrequency) {
  {
    World world;
    world.setTimeStep(0.01);
    Child rigid = root("free", Joint::FLOATING, 2.0, {0.1, 0.0, 0.0});
    ArticulatedSystem* s = world.addArticulatedSystem(rigid, "r");
    s->setGeneralizedVelocity({0.5, 0, 1.0, 0, 0, 0});
    world.integrate();
    EXPECT_NEAR(s->gv[2], 1.0 - 9.81 * 0.01, 1e-14);
    EXPECT_NEAR(s->gc[2], 1.0 * 0.01 - 0.5 * 9.81 * 1e-4, 1e-14);
    EXPECT_EQ(s->gc[3], 1.0);
  }
  // A physical pendulum: T = 2 pi sqrt((Ic + m L^2) / (m g L)). A joint
  // spring without gravity: omega = sqrt(k / I_axis), about its rest angle 0.2.
  Child spring = pendulum(0.8, {0.3, 0, 0}, {0, 0, 1}, {0.01, 0.01, 0.04});
  spring.child[0].stiffness = 12.0;
  spring.child[0].springMount = {0.2, 0, 0, 0};
  const struct {
    Child tree;
    double g, start, rest;
    int steps;
    double period;
  } cases[] = {{pendulum(1.5, {0, 0, -0.6}, {1, 0, 0}, {0.02, 0.02, 0.02}), 9.81, 0.01, 0.0, 10000,
                2.0 * M_PI * std::sqrt((0.02 + 1.5 * 0.36) / (1.5 * 9.81 * 0.6))},
               {spring, 0.0, 0.35, 0.2, 8000, 2.0 * M_PI / std::sqrt(12.0 / (0.04 + 0.8 * 0.09))}};
  for (const auto& c : cases) {
    World world;
    world.setTimeStep(0.001);
    world.setGravity(Eigen::Vector3d(0, 0, -c.g));
    ArticulatedSystem* s = world.addArticulatedSystem(c.tree, "r");
    s->setGeneralizedCoordinate({c.start});
    std::vector<double> x;
    for (int i = 0; i < c.steps; ++i) {
      world.integrate();
      x.push_back(s->gc[0] - c.rest);
    }
    EXPECT_NEAR(measuredPeriod(x, 0.001) / c.period, 1.0, 1e-3) << c.g;
  }
}

TEST(Stepping, PdControlSettlesAtTheGravityOffset) {
  World world;
  world.setTimeStep(0.002);
  ArticulatedSystem* s = world.addArticulatedSystem(pendulum(2.0, {0.5, 0, 0}, {0, 1, 0}, {0.01, 0.01, 0.01}), "r");
  const double kp = 400.0;
  setPd(*s, kp, 30.0, one(0.0));
  for (int i = 0; i < 5000; ++i) world.integrate();
  // Equilibrium: kp (0 - theta) + m g L cos(theta) = 0, by Newton's method.
  double theta = 0.0;
  for (int k = 0; k < 50; ++k) theta -= (kp * theta - 9.81 * std::cos(theta)) / (kp + 9.81 * std::sin(theta));
  EXPECT_NEAR(s->gc[0], theta, 1e-9);
  EXPECT_NEAR(s->gv[0], 0.0, 1e-9);
  EXPECT_GT(theta, 0.02);  // the offset is large enough to mean something
}

TEST(Stepping, StiffDampingAndGainsStayStableAtALargeStep) {
  for (int variant = 0; variant < 2; ++variant) {
    World world;
    world.setTimeStep(0.02);
    Child tree = pendulum(0.1, {0.2, 0, 0}, {0, 1, 0}, {1e-4, 1e-4, 1e-4});
    if (variant == 0) tree.child[0].damping = 1e5;
    ArticulatedSystem* s = world.addArticulatedSystem(tree, "r");
    // The implicit term damps the stiff limit as long as kd >= dt kp / 2.
    if (variant == 1) setPd(*s, 1e6, 3e4, one(0.5));
    s->setGeneralizedVelocity({3.0});
    double largest = 0.0;
    for (int i = 0; i < 500; ++i) {
      world.integrate();
      largest = std::max(largest, std::abs(s->gc[0]));
      ASSERT_TRUE(std::isfinite(s->gc[0]) && std::isfinite(s->gv[0])) << variant << " step " << i;
    }
    EXPECT_LT(largest, 1.0) << variant;
    if (variant == 1) {
      EXPECT_NEAR(s->gc[0], 0.5, 1e-6);  // gravity over kp is 2e-7
    }
  }
}

namespace {

// |E(T) - E(0)| / E(0) of three tilted links released from a bent pose.
double energyDrift(int32_t scheme, double dt) {
  Child base = root("base", Joint::FIXED, 1.0);
  Child a = body("a", Joint::REVOLUTE, {0, 0, 0}, Mat<3, 3>::getIdentity(), unit({1, 0.2, 0}), 1.0, {0, 0.1, -0.3});
  Child b = body("b", Joint::REVOLUTE, {0, 0.1, -0.5}, rotation(0.3, {0, 0, 1}), unit({1, 0, 0.3}), 0.7, {0, 0, -0.25});
  b.child.push_back(
      body("c", Joint::REVOLUTE, {0, 0, -0.45}, Mat<3, 3>::getIdentity(), unit({0.2, 1, 0}), 0.5, {0.05, 0, -0.2}));
  a.child.push_back(b);
  base.child.push_back(a);
  World world;
  world.setTimeStep(dt);
  ArticulatedSystem* s = world.addArticulatedSystem(base, "r");
  s->setIntegrationScheme(scheme);
  s->setGeneralizedCoordinate({1.0, -0.8, 0.6});
  const double e0 = s->getEnergy(world.getGravity());
  for (int i = 0; i < int(std::lround(1.0 / dt)); ++i) world.integrate();
  return std::abs((s->getEnergy(world.getGravity()) - e0) / e0);
}

}  // namespace

TEST(Stepping, EnergyDriftShrinksWithTheOrderOfTheScheme) {
  // The trapezoid is first order in energy, the Runge-Kutta scheme fourth.
  const double trapezoid1 = energyDrift(ArticulatedSystem::TRAPEZOID, 0.001);
  const double trapezoid2 = energyDrift(ArticulatedSystem::TRAPEZOID, 0.0005);
  const double rk1 = energyDrift(ArticulatedSystem::RUNGE_KUTTA_4, 0.001);
  const double rk2 = energyDrift(ArticulatedSystem::RUNGE_KUTTA_4, 0.0005);
  EXPECT_NEAR(trapezoid1 / trapezoid2, 2.0, 0.3);
  EXPECT_NEAR(rk1 / rk2, 16.0, 4.0);
  EXPECT_LT(rk1, 1e-9);
  EXPECT_GT(rk2, 1e-13);  // well above rounding, so the ratio means something
}

TEST(Stepping, AFreeRobotWithoutGravityKeepsItsMomentum) {
  for (int32_t scheme : {ArticulatedSystem::TRAPEZOID, ArticulatedSystem::RUNGE_KUTTA_4}) {
    World world;
    world.setTimeStep(0.001);
    world.setGravity(Eigen::Vector3d(0, 0, 0));
    ArticulatedSystem* s = world.addArticulatedSystem(makeTree(Joint::FLOATING), "r");
    s->setIntegrationScheme(scheme);
    randomState(*s, 17, 1.5);
    auto momentum = [&](Eigen::Vector3d& linear, Eigen::Vector3d& angular) {
      s->getKineticEnergy();  // refreshes the world inertias
      linear.setZero();
      for (size_t b = 0; b < s->nbody; ++b)
        linear += s->massOf[b] * (s->linVelW[b].e() + s->angVelW[b].e().cross(s->comRelW[b].e()));
      Mat<3, 1> L;
      s->getAngularMomentum({0.5, -0.2, 0.1}, L);
      angular = L.e();
    };
    Eigen::Vector3d p0, l0, p, l;
    momentum(p0, l0);
    for (int i = 0; i < 1000; ++i) world.integrate();
    momentum(p, l);
    // The trapezoid is first order; the Runge-Kutta scheme second order here.
    const double tolerance = scheme == ArticulatedSystem::RUNGE_KUTTA_4 ? 1e-6 : 2e-3;
    EXPECT_LT((p - p0).norm(), tolerance * p0.norm()) << scheme;
    EXPECT_LT((l - l0).norm(), tolerance * l0.norm()) << scheme;
    EXPECT_GT(p0.norm(), 0.5);
  }
}

// ---------------------------------------------------------------- loads --

TEST(Loads, ForcesTorquesAndContactImpulsesAreGeneralizedForces) {
  World world;
  world.setTimeStep(0.001);
  ArticulatedSystem* s = world.addArticulatedSystem(makeTree(Joint::FLOATING), "r");
  randomState(*s, 31);
  const size_t wrist = 4;
  const Mat<3, 1> fBody{1.0, -2.0, 0.5}, pBody{0.1, 0.05, -0.2}, torque{0.3, 0.1, -0.2};
  const Eigen::Vector3d fW = s->rotW[wrist].e() * fBody.e();
  const Eigen::Vector3d pW = s->rotW[wrist].e() * pBody.e() + s->posW[wrist].e();
  SparseJacobian Jr;
  s->getSparseRotationalJacobian(wrist, Jr);
  const Vec expected =
      generalizedForce(*s, wrist, Mat<3, 1>(pW), 2.0 * fW) + dense(Jr, s->dof).transpose() * torque.e();

  s->articulatedBodyAlgorithm(kGravity, 0.001);
  const Vec free = s->ga.e();
  // The same force twice, given in the body frame and in the world frame.
  s->setExternalForce(wrist, ArticulatedSystem::BODY_FRAME, fBody, ArticulatedSystem::BODY_FRAME, pBody);
  s->setExternalForce(wrist, Mat<3, 1>(pBody), Mat<3, 1>(fW));
  s->setExternalTorque(wrist, torque);
  s->articulatedBodyAlgorithm(kGravity, 0.001);
  EXPECT_TRUE(near(s->actuation.e(), expected, 1e-13)) << s->actuation.e().transpose() << "\n" << expected.transpose();
  const Vec loaded = s->ga.e();
  EXPECT_TRUE(near(s->getMassMatrix().e() * (loaded - free), expected, 1e-10));
  // Inverse dynamics counts the same loads as force the joints need not give.
  VecDyn tauWith(s->dof), tauWithout(s->dof);
  const VecDyn acc = worldJointAcceleration(*s, loaded);
  s->recursiveNewtonEuler(kGravity, true, false, acc, tauWith);
  s->recursiveNewtonEuler(kGravity, false, false, acc, tauWithout);
  EXPECT_TRUE(near(tauWithout.e() - tauWith.e(), expected, 1e-10));

  // A parent-frame force on body 0 is taken in the world frame.
  s->clearExternalForcesAndTorques();
  s->setExternalForce(0, ArticulatedSystem::PARENT_FRAME, fBody, ArticulatedSystem::PARENT_FRAME, pBody);
  s->articulatedBodyAlgorithm(kGravity, 0.001);
  EXPECT_NEAR(s->actuation[0], fBody[0], 1e-15);
  EXPECT_NEAR(s->actuation[5], (pBody.e() - s->posW[0].e()).cross(fBody.e())[2], 1e-14);
  // A world-frame point, and a wire's force at a body point: J^T f each.
  s->clearExternalForcesAndTorques();
  s->setExternalForce(wrist, ArticulatedSystem::WORLD_FRAME, fBody, ArticulatedSystem::WORLD_FRAME, Mat<3, 1>(pW));
  s->setConstraintForce(2, pBody, torque);
  s->articulatedBodyAlgorithm(kGravity, 0.001);
  Mat<3, 1> wireW;
  s->getPosition(2, pBody, wireW);
  const Vec both = generalizedForce(*s, wrist, Mat<3, 1>(pW), fBody.e()) + generalizedForce(*s, 2, wireW, torque.e());
  EXPECT_TRUE(near(s->actuation.e(), both, 1e-13));

  // A step consumes the loads; the display lists keep the last step's.
  world.integrate();
  EXPECT_EQ(s->getExternalForce().size(), 1u);
  EXPECT_TRUE(s->getExternalTorque().empty());
  s->articulatedBodyAlgorithm(kGravity, 0.001);
  EXPECT_EQ(s->actuation.e().norm(), 0.0);  // the wire's force is gone too
  world.integrate();
  EXPECT_TRUE(s->getExternalForce().empty());

  // A contact impulse is a force the joints need not give: side A receives
  // frame^T impulse / dt, side B the opposite.
  s->updateTimeStep(0.002);
  const size_t tip = 6;
  const Mat<3, 1> position{0.3, 0.2, 0.4}, impulse{0.01, -0.02, 0.05};
  Contact c;
  Contact::computeFrame(unit({0.2, -0.3, 0.9}), c.frame);
  c.position = position;
  c.localBodyIndex = wrist;
  c.isObjectA = true;
  c.pairObjectIndex = 99;
  c.impulse = const_cast<Mat<3, 1>*>(&impulse);
  const Eigen::Vector3d onA = c.frame.e().transpose() * impulse.e() / 0.002;
  auto generalized = [&](size_t body) { return generalizedForce(*s, body, position, onA); };
  s->recursiveNewtonEuler(kGravity, false, false, acc, tauWithout);
  s->getContacts().push_back(c);
  s->recursiveNewtonEuler(kGravity, true, false, acc, tauWith);
  EXPECT_TRUE(near(tauWithout.e() - tauWith.e(), generalized(wrist), 1e-12));
  s->getContacts()[0].isObjectA = false;
  s->recursiveNewtonEuler(kGravity, true, false, acc, tauWith);
  EXPECT_TRUE(near(tauWithout.e() - tauWith.e(), -generalized(wrist), 1e-12));
  // A merged self-collision acts on both bodies, oppositely; its skipped twin
  // counts no more.
  Contact twin = c;
  twin.localBodyIndex = tip;
  twin.isObjectA = false;
  twin.skip = true;
  c.isSelfCollision = true;
  c.pairObjectIndex = twin.pairObjectIndex = s->getIndexInWorld();
  c.pairContactIndex = 1;
  s->getContacts() = {c, twin};
  s->recursiveNewtonEuler(kGravity, true, true, acc, tauWith);
  EXPECT_TRUE(near(tauWithout.e() - tauWith.e(), generalized(wrist) - generalized(tip), 1e-12));
  // The root's stored joint reaction is the base's generalized force.
  EXPECT_TRUE(near(s->jointForceW[0].e(), tauWith.e().head<3>(), 1e-13));
  s->getContacts().clear();
}

TEST(Loads, EffortLimitsClipTheActuatorsButNotTheSprings) {
  Child tree = pendulum(1.0, {0.2, 0, 0}, {0, 0, 1}, {0.01, 0.01, 0.01});
  tree.child[0].stiffness = 100.0;
  tree.child[0].effort = 5.0;
  tree.child[0].damping = 2.0;
  ArticulatedSystem s(tree, "r");
  s.setGeneralizedCoordinate({-1.0});  // the spring pushes with 100
  s.setGeneralizedVelocity({-1.0});    // damping adds 2
  for (double tau : {20.0, -20.0}) {
    s.setGeneralizedForce({tau});
    s.articulatedBodyAlgorithm(kNoGravity, 0.001);
    EXPECT_DOUBLE_EQ(s.actuation[0], std::copysign(5.0, tau) + 100.0);
  }
  // A spherical spring pulls toward its rest orientation by the rotation
  // vector between them, in the joint's own frame.
  Child base = root("base", Joint::FIXED, 1.0);
  Child ball = body("ball", Joint::SPHERICAL, {0, 0, 0}, Mat<3, 3>::getIdentity(), {0, 0, 1}, 1.0, {0, 0, -0.3});
  ball.stiffness = 10.0;
  ball.springMount = {std::cos(0.2), 0.0, std::sin(0.2), 0.0};  // 0.4 rad about y
  base.child.push_back(ball);
  ArticulatedSystem sphere(base, "r");
  sphere.setGeneralizedCoordinate({std::cos(0.1), std::sin(0.1), 0.0, 0.0});  // 0.2 rad about x
  sphere.articulatedBodyAlgorithm(kNoGravity, 0.001);
  const Eigen::Quaterniond q(std::cos(0.1), std::sin(0.1), 0, 0), rest(std::cos(0.2), 0, std::sin(0.2), 0);
  const Eigen::AngleAxisd e(q.conjugate() * rest);
  for (Eigen::Index k = 0; k < 3; ++k) EXPECT_NEAR(sphere.actuation[size_t(k)], 10.0 * e.angle() * e.axis()[k], 1e-12);
}

TEST(DynamicsInput, WrongLengthsAndBaseSettersEndInFatalMessages) {
  ArticulatedSystem fixed(makeTree(Joint::FIXED), "r");
  Mat<4, 1> q;
  Mat<3, 1> v;
  VecDyn two(2);
  const std::string fixedBase = "This articulated system has a fixed base. You cannot set base velocity";
  const std::vector<std::pair<std::function<void()>, std::string>> cases = {
      {[&] { fixed.setGeneralizedCoordinate(two); }, "Wrong number of generalized coordinate elements"},
      {[&] { fixed.setGeneralizedVelocity(two); }, "Wrong number of generalized velocity elements"},
      {[&] { fixed.setGeneralizedForce(two); }, "Wrong number of generalized force elements"},
      {[&] { fixed.setBaseVelocity(v); }, fixedBase},
      {[&] { fixed.setBaseAngularVelocity(v); }, fixedBase},
      {[&] { fixed.getBaseOrientation(q); }, "This method is only for floating base"},
      {[&] { fixed.setPdGains(two, two); }, "Wrong number of PD gain elements"},
      {[&] { fixed.setPdTarget(fixed.gc, two); }, "Wrong number of PD target elements"},
  };
  for (const auto& [call, message] : cases) {
    const std::string text = fatalOf(call);
    EXPECT_NE(text.find(message), std::string::npos) << "expected: " << message << "\ngot: " << text;
  }
}

// --------------------------------------------------------------- routes --

TEST(Routes, TheMassMatrixRouteAndTheArticulatedBodyRouteAgree) {
  ArticulatedSystem s(makeTree(Joint::FIXED), "r");
  VecDyn target = s.gc;
  for (size_t b = 1; b < s.nbody; ++b)
    if (s.jointType[b] != Joint::SPHERICAL) target[s.gcIdx[b]] += 0.2;
  s.setGeneralizedForce(filled(s.dof, [](size_t i) { return std::cos(double(i)); }));
  s.setJointDamping(filled(s.dof, [](size_t) { return 0.7; }));
  const double dt = 0.004;
  // Under the trapezoid the mass-matrix route damps by the implicit rate
  // dampedDiag / dt in place of damping and kd; at rest the rate terms vanish.
  for (int32_t scheme : {ArticulatedSystem::TRAPEZOID, ArticulatedSystem::RUNGE_KUTTA_4}) {
    for (bool atRest : {true, false}) {
      SCOPED_TRACE(std::to_string(scheme) + (atRest ? " at rest" : " moving"));
      randomState(s, atRest ? 12 : 13, atRest ? 0.0 : 1.0);
      setPd(s, 30.0, 3.0, target);
      s.setIntegrationScheme(scheme);
      s.updateTimeStep(dt);
      s.preContactSolverUpdate1(kGravity, dt);  // chooses the scheme of the step
      s.articulatedBodyAlgorithm(kGravity, dt);
      const Matrix implicit = s.getMassMatrix().e() + Matrix(s.dampedDiag.e().asDiagonal());
      Vec expected = s.gvWork.e();
      if (scheme == ArticulatedSystem::TRAPEZOID)
        expected += implicit.inverse() * ((dt * (0.7 + 3.0) - s.dampedDiag.e().array()) * s.gv.e().array()).matrix();
      s.computeSparseInverse(s.getMassMatrix(), s.massMatrixInverse);
      s.inverseDynamicsTau = s.getNonlinearities(kGravity);
      s.impulseBias = toVecDyn(implicit * s.gv.e());  // the momentum (M + dampedDiag) gv
      s.integrateWithoutContact(kGravity, dt);
      EXPECT_TRUE(near(s.gvWork.e(), expected, 1e-12)) << s.gvWork.e().transpose() << "\n" << expected.transpose();
      EXPECT_GT(expected.norm(), 1e-3);
    }
  }
}

TEST(Routes, TheRungeKuttaStepStartsFromTheSolversVelocityJumpAndRealisesItsAcceleration) {
  // A solver's velocity change is a jump at the start of the step.
  auto stepped = [](bool jump) {
    World world;
    world.setTimeStep(0.01);
    ArticulatedSystem* s = world.addArticulatedSystem(makeTree(Joint::FLOATING), "r");
    s->setIntegrationScheme(ArticulatedSystem::RUNGE_KUTTA_4);
    randomState(*s, 3);
    VecDyn gv = s->gv;
    if (!jump) gv[7] += 0.5, s->setGeneralizedVelocity(gv);
    ContactProblemList problems;
    s->updateTimeStepIfNecessary(0.01);
    s->preContactSolverUpdate1(world.getGravity(), 0.01);
    s->preContactSolverUpdate2(world.getGravity(), 0.01, problems);
    if (jump) s->gvWork[7] += 0.5;
    s->integrate(0.01, world);
    Vec state(Eigen::Index(s->gcDim + s->dof));
    state << s->gc.e(), s->gv.e();
    return state;
  };
  EXPECT_TRUE(near(stepped(true), stepped(false), 1e-13));

  World world;
  world.setTimeStep(0.002);
  ArticulatedSystem* s = world.addArticulatedSystem(makeTree(Joint::FLOATING), "r");
  randomState(*s, 14);
  const VecDyn before = s->gv;
  world.integrate();
  EXPECT_TRUE(near(s->realisedAcc.e(), (s->gv.e() - before.e()) / 0.002, 1e-9));
  EXPECT_TRUE(near(s->realisedAcc.e(), s->ga.e(), 1e-9));
}
