// Dynamics of articulated systems against independent routes: the mass matrix
// against inverse dynamics of unit accelerations and against analytic values,
// the articulated-body algorithm against inverse dynamics and against the
// sparse inverse, frame accelerations against finite differences of frame
// velocities; and stepped physics against closed-form results (periods,
// settling offsets, conserved energy and momentum).
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "test_helpers.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

using namespace vorsim;

namespace {

using Vec = Eigen::VectorXd;
using Matrix = Eigen::MatrixXd;

Mat<3, 3> rotation(double angle, Eigen::Vector3d axis) {
  Mat<3, 3> m;
  m = Eigen::AngleAxisd(angle, axis.normalized()).toRotationMatrix();
  return m;
}

Mat<3, 1> unit(Mat<3, 1> v) {
  v /= v.norm();
  return v;
}

Child body(const std::string& name, Joint::Type type, Mat<3, 1> pos, Mat<3, 3> rot, Mat<3, 1> axis, double mass,
           Mat<3, 1> com) {
  Child c;
  c.bodyName = name;
  c.name = name + "_joint";
  c.type = type;
  c.pos = pos;
  c.rot = rot;
  c.axis = axis;
  c.mass = mass;
  c.com = com;
  // A full, non-diagonal inertia, so that no off-diagonal term hides.
  c.setInertiaMjcfOrder({0.02 * mass, 0.03 * mass, 0.025 * mass, 0.004 * mass, -0.003 * mass, 0.002 * mass});
  c.velocityLimit = 1e6;
  return c;
}

// base -> hinge (revolute) -> ball (spherical) -> slider (prismatic) -> wrist
// (revolute); base -> side (revolute) -> tip (spherical). Every joint axis and
// frame tilted.
Child makeTree(Joint::Type rootType) {
  Child root = body("base", rootType, {0, 0, 0}, Mat<3, 3>::getIdentity(), {0, 0, 1}, 3.0, {0.02, -0.01, 0.05});
  root.name.clear();
  Child hinge = body("hinge", Joint::REVOLUTE, {0.3, 0.1, 0.2}, rotation(0.4, {1, 0, 1}), unit({1, 2, -0.5}), 1.2,
                     {0.05, -0.02, 0.1});
  Child ball =
      body("ball", Joint::SPHERICAL, {0, 0.4, 0.1}, rotation(-0.7, {0, 1, 1}), {0, 0, 1}, 0.8, {-0.03, 0.06, 0.02});
  Child slider = body("slider", Joint::PRISMATIC, {0.2, 0, 0.3}, rotation(0.2, {1, 1, 0}), unit({0, 0.6, 0.8}), 0.5,
                      {0.01, 0.02, -0.04});
  Child wrist =
      body("wrist", Joint::REVOLUTE, {0.1, -0.1, 0.2}, rotation(1.0, {0, 0, 1}), {1, 0, 0}, 0.3, {0.0, 0.05, 0.01});
  Child side = body("side", Joint::REVOLUTE, {-0.3, 0, 0}, rotation(0.5, {0, 1, 0}), {0, 1, 0}, 0.9, {-0.1, 0.0, 0.03});
  Child tip =
      body("tip", Joint::SPHERICAL, {-0.2, 0.1, 0}, rotation(0.3, {1, 0, 0}), {0, 0, 1}, 0.4, {0.02, 0.02, -0.05});
  slider.child.push_back(wrist);
  ball.child.push_back(slider);
  hinge.child.push_back(ball);
  side.child.push_back(tip);
  root.child = {hinge, side};
  return root;
}

void randomState(ArticulatedSystem& s, unsigned seed, double speed = 1.0) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> d(-1.0, 1.0);
  VecDyn gc(s.gcDim), gv(s.dof);
  for (size_t i = 0; i < s.gcDim; ++i) gc[i] = d(rng);
  for (size_t i = 0; i < s.dof; ++i) gv[i] = speed * d(rng);
  s.setGeneralizedCoordinate(gc);  // quaternions are normalised in gc
  s.setGeneralizedVelocity(gv);
}

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

const Mat<3, 1> kNoGravity{0, 0, 0};
const Mat<3, 1> kGravity{0, 0, -9.81};

bool near(const Matrix& a, const Matrix& b, double rel) { return (a - b).norm() <= rel * std::max(1.0, b.norm()); }

}  // namespace

// ------------------------------------------------------------ consistency --

class DynamicsOnBothBases : public testing::TestWithParam<Joint::Type> {};

TEST_P(DynamicsOnBothBases, MassMatrixColumnsAreInverseDynamicsOfUnitAccelerations) {
  ArticulatedSystem s(makeTree(GetParam()), "r");
  randomState(s, 11);
  const VecDyn gv = s.gv;
  VecDyn rotor(s.dof);
  for (size_t i = 0; i < s.dof; ++i) rotor[i] = 0.01 * double(i + 1);
  s.setRotorInertia(rotor);
  const Matrix M = s.getMassMatrix().e();
  EXPECT_TRUE(M.isApprox(M.transpose(), 1e-15));

  // Inverse dynamics of a unit acceleration at zero velocity and gravity.
  VecDyn zero(s.dof);
  zero.setZero();
  s.setGeneralizedVelocity(zero);
  Matrix fromRne(s.dof, s.dof);
  for (size_t k = 0; k < s.dof; ++k)
    fromRne.col(Eigen::Index(k)) = inverseDynamics(s, kNoGravity, Vec::Unit(Eigen::Index(s.dof), Eigen::Index(k)));
  fromRne.diagonal() += rotor.e();
  EXPECT_TRUE(near(M, fromRne, 1e-12)) << M << "\n\n" << fromRne;

  // The positive-definite matrix has a kinetic energy that the bodies'
  // velocities give independently.
  s.setGeneralizedVelocity(gv);
  double kinetic = 0.0;
  for (size_t b = 0; b < s.nbody; ++b) {
    if (b == 0 && GetParam() == Joint::FIXED) continue;
    const Eigen::Vector3d w = s.angVelW[b].e();
    const Eigen::Vector3d v = s.linVelW[b].e() + w.cross(s.comRelW[b].e());
    kinetic += 0.5 * s.massOf[b] * v.squaredNorm() + 0.5 * w.dot(s.inertiaW[b].e() * w);
  }
  kinetic += 0.5 * gv.e().dot(rotor.e().cwiseProduct(gv.e()));
  EXPECT_NEAR(s.getKineticEnergy(), kinetic, 1e-12 * kinetic);
}

TEST_P(DynamicsOnBothBases, ArticulatedBodyAlgorithmInvertsInverseDynamics) {
  ArticulatedSystem s(makeTree(GetParam()), "r");
  randomState(s, 5, 2.0);
  VecDyn rotor(s.dof), tau(s.dof);
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> d(-5.0, 5.0);
  for (size_t i = 0; i < s.dof; ++i) rotor[i] = 0.02, tau[i] = d(rng);
  s.setRotorInertia(rotor);
  s.setGeneralizedForce(tau);

  s.articulatedBodyAlgorithm(kGravity, 0.01);
  const Vec qdd = s.ga.e();
  // Back through inverse dynamics, with gravity and velocity terms.
  const Vec back = inverseDynamics(s, kGravity, qdd) + rotor.e().cwiseProduct(qdd);
  EXPECT_TRUE(near(back, tau.e(), 1e-10)) << back.transpose() << "\n" << tau.e().transpose();
  // The free velocity is one explicit step of that acceleration.
  EXPECT_TRUE(near(s.gvWork.e(), s.gv.e() + 0.01 * qdd, 1e-15));

  // The same through the mass matrix and the bias forces.
  const Matrix M = s.getMassMatrix().e();
  const Vec b = s.getNonlinearities(kGravity).e();
  EXPECT_TRUE(near(M.ldlt().solve(tau.e() - b), qdd, 1e-10));
}

TEST_P(DynamicsOnBothBases, SparseInverseWithAndWithoutTheImplicitDiagonal) {
  ArticulatedSystem s(makeTree(GetParam()), "r");
  randomState(s, 8);
  const Matrix M = s.getMassMatrix().e();
  const Matrix I = Matrix::Identity(Eigen::Index(s.dof), Eigen::Index(s.dof));
  EXPECT_TRUE(near(M * s.getInverseMassMatrix().e(), I, 1e-12));

  // With damping, stiffness and gains the inverse is that of the implicit
  // matrix, and the articulated-body algorithm solves with the same matrix.
  VecDyn damping(s.dof), kp(s.dof), kd(s.dof), tau(s.dof);
  for (size_t i = 0; i < s.dof; ++i) damping[i] = 0.3, kp[i] = 40.0 + double(i), kd[i] = 2.0, tau[i] = std::sin(i);
  s.setJointDamping(damping);
  s.setControlMode(ArticulatedSystem::PD_PLUS_FEEDFORWARD_TORQUE);
  s.setPdGains(kp, kd);
  s.setGeneralizedForce(tau);
  const double dt = 0.01;
  s.updateTimeStep(dt);
  for (size_t i = 0; i < s.dof; ++i)
    EXPECT_DOUBLE_EQ(s.dampedDiag[i], 0.5 * dt * (damping[i] + kd[i] + 0.5 * dt * kp[i]));
  MatDyn Minv(s.dof, s.dof);
  s.computeSparseInverse(s.getMassMatrix(), Minv);
  const Matrix implicit = M + Matrix(s.dampedDiag.e().asDiagonal());
  EXPECT_TRUE(near(implicit * Minv.e(), I, 1e-12));

  s.articulatedBodyAlgorithm(kGravity, dt);
  const Vec b = s.getNonlinearities(kGravity).e();
  EXPECT_TRUE(near(s.ga.e(), Minv.e() * (s.actuation.e() - b), 1e-10));
}

INSTANTIATE_TEST_SUITE_P(Bases, DynamicsOnBothBases, testing::Values(Joint::FIXED, Joint::FLOATING));
