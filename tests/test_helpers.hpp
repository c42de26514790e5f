// Small shared fixtures of the test suite.
#ifndef VORSIM_TESTS_TEST_HELPERS_HPP
#define VORSIM_TESTS_TEST_HELPERS_HPP

#include <gtest/gtest.h>

#include <Eigen/Dense>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "vorsim/VorSimMsg.hpp"
#include "vorsim/World.hpp"
#include "vorsim/contact/BisectionContactSolver.hpp"
#include "vorsim/contact/Single3DContactProblem.hpp"
#include "vorsim/object/SingleBodyObject.hpp"

namespace vorsim_test {

// A world that accepts any Object, for tests that drive custom objects.
class TestWorld : public vorsim::World {
 public:
  template <typename T>
  T* add(T* object) {
    return registerObject(object);
  }
  // Enters a geom of the object added last, as the add-functions do.
  void addGeom(dxGeom* geom, size_t localIdx, const std::string& material = "default") {
    addCollisionObject(geom, localIdx, material, 1, kAllBits);
  }
};

// What the library prints on stdout during the capture's lifetime.
class StdoutCapture {
 public:
  StdoutCapture() { testing::internal::CaptureStdout(); }
  ~StdoutCapture() {
    if (!taken_) testing::internal::GetCapturedStdout();
  }
  std::string text() {
    if (!taken_) {
      text_ = testing::internal::GetCapturedStdout();
      taken_ = true;
    }
    return text_;
  }

 private:
  bool taken_ = false;
  std::string text_;
};

struct FatalError : std::runtime_error {
  FatalError() : std::runtime_error("fatal") {}
};

// While alive, a fatal message throws FatalError instead of ending the process.
class ThrowOnFatal {
 public:
  ThrowOnFatal() {
    vorsim::VorSimMsg::setFatalCallback([] { throw FatalError(); });
  }
  ~ThrowOnFatal() { vorsim::VorSimMsg::resetFatalCallback(); }
};

// What f prints on stdout; f must end in a fatal message.
template <typename F>
std::string fatalOf(F f) {
  ThrowOnFatal guard;
  StdoutCapture out;
  try {
    f();
  } catch (const FatalError&) {
    return out.text();
  }
  ADD_FAILURE() << "no fatal message";
  return out.text();
}

// A body given by its contact Jacobians at unit inverse mass, for the contact
// solver: contact k has velocity jac[k] u, and an impulse p adds jac[k]^T p to
// u. A joint-limit problem on it records the impulse it is handed, when asked.
class JacobianBody : public vorsim::SingleBodyObject {
 public:
  using Mat3 = vorsim::Mat<3, 1>;
  JacobianBody(std::vector<Eigen::MatrixXd> J, Eigen::VectorXd vel)
      : SingleBodyObject(vorsim::UNRECOGNIZED), u(std::move(vel)), jac(std::move(J)) {}
  Eigen::Vector3d contactVel(size_t k) const { return jac[k] * u; }
  void getContactPointVel(size_t k, Mat3& v) const override { v = Mat3(contactVel(k)); }
  void addContactPointVel(size_t k, Mat3& v) override {
    ++reads;
    v += Mat3(contactVel(k));
  }
  void subContactPointVel(size_t k, Mat3& v) override {
    ++reads;
    v -= Mat3(contactVel(k));
  }
  void updateGenVelWithImpulse(size_t k, const Mat3& p) override { u += jac[k].transpose() * p.e(); }
  void applyJointLimitImpulse(vorsim::contact::Single3DContactProblem& problem) override {
    if (!takesLimitImpulses) return SingleBodyObject::applyJointLimitImpulse(problem);
    limitImpulses.push_back(problem.impulse.e());
    problem.impulse[1] = 0.0;  // the owner may change what it was handed
  }
  Eigen::VectorXd u;
  std::vector<Eigen::MatrixXd> jac;
  bool takesLimitImpulses = false;
  std::vector<Eigen::Vector3d> limitImpulses;
  int reads = 0;  // contact velocity reads
};

inline Eigen::MatrixXd randomMatrix(std::mt19937& rng, int rows, int cols) {
  std::uniform_real_distribution<double> d(-1.0, 1.0);
  return Eigen::MatrixXd::NullaryExpr(rows, cols, [&] { return d(rng); });
}

// Contact ia of A (against contact ib of B, if any) with friction mu and the
// Delassus block of the Jacobians at unit inverse mass.
inline vorsim::contact::Single3DContactProblem& addJacobianContact(
    vorsim::contact::BisectionContactSolver::ProblemList& list, double mu, JacobianBody* A, size_t ia = 0,
    JacobianBody* B = nullptr, size_t ib = 0, double depth = 0.0) {
  auto& P = list.emplace_back(vorsim::MaterialPairProperties{mu}, 0.0, 0.0, 0.0, depth);
  Eigen::MatrixXd G = A->jac[ia] * A->jac[ia].transpose();
  if (B) G += B->jac[ib] * B->jac[ib].transpose();
  P.delassus = Eigen::Matrix3d(G);
  P.objectA = A, P.objectB = B, P.localIndexA = ia, P.localIndexB = ib;
  return P;
}

}  // namespace vorsim_test

using vorsim_test::StdoutCapture;
using vorsim_test::TestWorld;
using vorsim_test::ThrowOnFatal;

#endif  // VORSIM_TESTS_TEST_HELPERS_HPP
