// Forward dynamics and time stepping of a robot: the generalized forces of
// actuators, springs, dampers and loads; the articulated-body algorithm that
// turns them into the free velocity of the end of the step; the integration of
// the velocity the solver leaves; the older mass-matrix route; and the public
// setters of loads and actuation.
//
// The articulated-body algorithm works in world coordinates with spatial
// vectors referred to each body's origin posW[b], linear part first, and with
// classical accelerations (those of the body origin). It runs in a freely
// falling frame: the root of a fixed base accelerates at -gravity, and a
// floating base gets gravity back only in its final acceleration.
#include "vorsim/VorSimMsg.hpp"
#include "vorsim/World.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

namespace vorsim {

namespace {

using Vec3 = Eigen::Vector3d;
using Vec6 = Eigen::Matrix<double, 6, 1>;
using Mat3 = Eigen::Matrix3d;
using Mat6 = Eigen::Matrix<double, 6, 6>;

inline Mat3 skew(const Vec3& v) {
  Mat3 s;
  s << 0.0, -v(2), v(1), v(2), 0.0, -v(0), -v(1), v(0), 0.0;
  return s;
}

// The lower triangle of the rigid spatial inertia of one body about its
// origin: m 1, m skew(c) below it and J, with c the centre of mass relative to
// the origin and J the inertia about the origin (lower triangle).
inline void rigidInertiaLower(double m, const Mat<3, 1>& c, const double J[3][3], Mat6& M) {
  for (int j = 0; j < 3; ++j)
    for (int i = j; i < 3; ++i) {
      M(i, j) = i == j ? m : 0.0;
      M(i + 3, j + 3) = J[i][j];
    }
  M(3, 0) = 0.0;
  M(4, 0) = m * c[2];
  M(5, 0) = -m * c[1];
  M(3, 1) = -m * c[2];
  M(4, 1) = 0.0;
  M(5, 1) = m * c[0];
  M(3, 2) = m * c[1];
  M(4, 2) = -m * c[0];
  M(5, 2) = 0.0;
}

// Copies the lower triangle of a symmetric matrix into its upper one.
inline void mirrorLower(Mat6& M) {
  for (int j = 1; j < 6; ++j)
    for (int i = 0; i < j; ++i) M(i, j) = M(j, i);
}

// Entry (i, k) of a symmetric matrix held in its lower triangle.
inline double lowerAt(const Mat6& M, int i, int k) { return i >= k ? M(i, k) : M(k, i); }

// The joint terms of a one-dof joint at its body's origin, from the body's
// articulated inertia and bias in d: S and its rate, U = M_A S, D^-1, the
// velocity-product acceleration c and the scaled force. S has its axis in
// one half, H: the angular one (3) of a revolute joint, the linear one (0) of
// a prismatic joint; the sums run in scalars over that half. carried is what
// the origin gains from the parent's turn, diagonal the joint's damping and
// rotor terms. The articulated inertia is read from its lower triangle.
template <int H>
inline void oneDofJointTerms(const Mat<3, 1>& axis, const Mat<3, 1>& w, const double carried[3], double qd,
                             double diagonal, double tau, ArticulatedSystem::AbaData& d) {
  // Named scalars rather than small arrays: the products stay in registers.
  const Mat6& M = d.articulatedInertia;
  const double a0 = axis[0], a1 = axis[1], a2 = axis[2];
  Mat<3, 1> wa;
  cross(w, axis, wa);
  // c = Sdot qd, plus carried on the linear half.
  const double c0 = H == 0 ? wa[0] * qd + carried[0] : carried[0];
  const double c1 = H == 0 ? wa[1] * qd + carried[1] : carried[1];
  const double c2 = H == 0 ? wa[2] * qd + carried[2] : carried[2];
  const double c3 = H == 3 ? wa[0] * qd : 0.0;
  const double c4 = H == 3 ? wa[1] * qd : 0.0;
  const double c5 = H == 3 ? wa[2] * qd : 0.0;
  auto row = [&](int i) { return lowerAt(M, i, H) * a0 + lowerAt(M, i, H + 1) * a1 + lowerAt(M, i, H + 2) * a2; };
  const double u0 = row(0), u1 = row(1), u2 = row(2), u3 = row(3), u4 = row(4), u5 = row(5);
  const double StU = H == 3 ? a0 * u3 + a1 * u4 + a2 * u5 : a0 * u0 + a1 * u1 + a2 * u2;
  const double Stp = a0 * d.biasForce(H) + a1 * d.biasForce(H + 1) + a2 * d.biasForce(H + 2);
  const double Uc = u0 * c0 + u1 * c1 + u2 * c2 + u3 * c3 + u4 * c4 + u5 * c5;
  const double Dinv = 1.0 / (StU + diagonal);
  for (int k = 0; k < 3; ++k) {
    d.S(k) = d.S(3 + k) = d.Sdot(k) = d.Sdot(3 + k) = 0.0;
    d.S(H + k) = axis[size_t(k)];
    d.Sdot(H + k) = wa[size_t(k)];
  }
  d.U << u0, u1, u2, u3, u4, u5;
  d.UDinv << u0 * Dinv, u1 * Dinv, u2 * Dinv, u3 * Dinv, u4 * Dinv, u5 * Dinv;
  d.c << c0, c1, c2, c3, c4, c5;
  d.Dinv = Dinv;
  d.scaledForce = Dinv * (tau - Stp - Uc);
}

// The inverse of a symmetric positive definite 6x6 matrix by its Cholesky
// factor L L^T: L^-T L^-1. No pivoting and no checks.
inline void choleskyInverse(const Mat6& A, Mat6& inverse) {
  double L[6][6] = {};
  for (int j = 0; j < 6; ++j) {
    double d = A(j, j);
    for (int k = 0; k < j; ++k) d -= L[j][k] * L[j][k];
    L[j][j] = std::sqrt(d);
    const double invDiag = 1.0 / L[j][j];
    for (int i = j + 1; i < 6; ++i) {
      double s = A(i, j);
      for (int k = 0; k < j; ++k) s -= L[i][k] * L[j][k];
      L[i][j] = s * invDiag;
    }
  }
  // Li = L^-1, lower triangular.
  double Li[6][6] = {};
  for (int j = 0; j < 6; ++j) {
    Li[j][j] = 1.0 / L[j][j];
    for (int i = j + 1; i < 6; ++i) {
      double s = 0.0;
      for (int k = j; k < i; ++k) s -= L[i][k] * Li[k][j];
      Li[i][j] = s / L[i][i];
    }
  }
  for (int i = 0; i < 6; ++i)
    for (int j = 0; j <= i; ++j) {
      double s = 0.0;
      for (int k = i; k < 6; ++k) s += Li[k][i] * Li[k][j];
      inverse(i, j) = s;
      inverse(j, i) = s;
    }
}

}  // namespace

// ------------------------------------------------------------ spatial shifts --

void ArticulatedSystem::addInertiaToParent(size_t b, const Mat6& I, Mat6& sum) const {
  // X^T I X with X = [1, -S; 0, 1], S = skew(relPosW[b]), on the lower
  // blocks A (top left), C (bottom left) and D (bottom right) of I:
  // A stays, C becomes C' = C + S A and D becomes D - C S + S C'^T. Entry
  // (i, j) of -C S is (r x c_i)_j and that of S C'^T is (r x c'_j)_i, c_i
  // and c'_j rows of C and C'. All in scalars.
  const Mat<3, 1>& r = relPosW[b];
  const double A[3][3] = {{I(0, 0), I(1, 0), I(2, 0)}, {I(1, 0), I(1, 1), I(2, 1)}, {I(2, 0), I(2, 1), I(2, 2)}};
  double C[3][3], Cn[3][3];
  for (int j = 0; j < 3; ++j) {
    for (int i = 0; i < 3; ++i) C[i][j] = I(3 + i, j);
    Cn[0][j] = C[0][j] + (r[1] * A[2][j] - r[2] * A[1][j]);
    Cn[1][j] = C[1][j] + (r[2] * A[0][j] - r[0] * A[2][j]);
    Cn[2][j] = C[2][j] + (r[0] * A[1][j] - r[1] * A[0][j]);
  }
  auto crossEntry = [&r](const double* v, int k) {
    return k == 0 ? r[1] * v[2] - r[2] * v[1] : k == 1 ? r[2] * v[0] - r[0] * v[2] : r[0] * v[1] - r[1] * v[0];
  };
  for (int j = 0; j < 3; ++j) {
    for (int i = j; i < 3; ++i) {
      sum(i, j) += I(i, j);
      sum(3 + i, 3 + j) += I(3 + i, 3 + j) + crossEntry(C[i], j) + crossEntry(Cn[j], i);
    }
    for (int i = 0; i < 3; ++i) sum(3 + i, j) += Cn[i][j];
  }
}

// ---------------------------------------------------- articulated-body algorithm --

void ArticulatedSystem::articulatedBodyAlgorithm(const Mat<3, 1>& gravity, double dt) {
  computeGeneralizedForces();
  updateWorldInertia();
  for (size_t b = nbody - 1; b >= 1 && b < nbody; --b) abaBackwardBody(b);
  abaRoot(gravity);
  for (size_t b = 1; b < nbody; ++b) abaForwardBody(b);
  for (size_t i = 0; i < dof; ++i) gvWork[i] = gv[i] + dt * ga[i];
  // The contacts' responses reuse the joint factors just computed.
  computeContactResponses();
}

void ArticulatedSystem::computeGeneralizedForces() {
  actuation = feedForward;
  if (controlMode == PD_PLUS_FEEDFORWARD_TORQUE) {
    computePositionError();
    for (size_t i = 0; i < dof; ++i) {
      actuation[i] += posError[i] * pGain[i];
      actuation[i] -= gv[i] * dGain[i];
      actuation[i] += velTarget[i] * dGain[i];
    }
  }
  for (size_t i = 0; i < dof; ++i) actuation[i] -= jointDampingGv[i] * gv[i];
  // Effort limits bound feed-forward, PD and damping together; springs and
  // loads come after the clip.
  for (size_t i = 0; i < dof; ++i) actuation[i] = std::max(std::min(actuation[i], tauUpper[i]), tauLower[i]);
  addSpringForces(actuation);
  addLoadForces(actuation);
}

void ArticulatedSystem::computePositionError() {
  for (size_t b = 1; b < nbody; ++b) {
    const size_t g = gvIdx[b], c = gcIdx[b];
    if (jointType[b] == Joint::REVOLUTE || jointType[b] == Joint::PRISMATIC) {
      posError[g] = posTarget[c] - gc[c];
    } else if (jointType[b] == Joint::SPHERICAL) {
      // The rotation from the current orientation to the target, in the
      // body frame, as a rotation vector.
      double e[4];
      quatInvQuatMul(gc.v + c, posTarget.v + c, e);
      quatToEulerVec(e, posError.v + g);
    }
  }
}

void ArticulatedSystem::addSpringForces(VecDyn& tau) const {
  for (const SpringElement& s : springs) {
    const size_t b = s.springBody, g = gvIdx[b], c = gcIdx[b];
    if (jointType[b] == Joint::REVOLUTE || jointType[b] == Joint::PRISMATIC) {
      tau[g] += (s.springRest[0] - gc[c]) * s.springStiffness;
    } else if (jointType[b] == Joint::SPHERICAL) {
      double e[4], rotation[3];
      quatInvQuatMul(gc.v + c, s.springRest.v, e);
      quatToEulerVec(e, rotation);
      for (size_t k = 0; k < 3; ++k) tau[g + k] += s.springStiffness * rotation[k];
    }
  }
}

void ArticulatedSystem::addLoadForces(VecDyn& tau) const {
  auto project = [&tau](const SparseJacobian& J, const Mat<3, 1>& f) {
    for (size_t k = 0; k < J.size; ++k) tau[J.idx[k]] += J.v(0, k) * f[0] + J.v(1, k) * f[1] + J.v(2, k) * f[2];
  };
  for (size_t i = 0; i < externalLoadValues_.size(); ++i) project(externalForceJacobians[i], externalLoadValues_[i]);
  for (size_t i = 0; i < constraintForces_.size(); ++i) project(constraintJacobians_[i], constraintForces_[i]);
}

void ArticulatedSystem::abaBackwardBody(size_t b) {
  AbaData& d = abaData[b];
  const double m = massOf[b];
  const Mat<3, 1>& c = comRelW[b];
  const Mat<3, 1>& w = angVelW[b];
  // The inertia about the origin (inertiaAtP), on the lower triangle: both
  // terms are exactly symmetric.
  const Mat<3, 3>& Ic = inertiaW[b];
  const double rr = dot(c, c);
  double J[3][3];
  for (size_t j = 0; j < 3; ++j)
    for (size_t i = j; i < 3; ++i) J[i][j] = J[j][i] = Ic(i, j) + m * ((i == j ? rr : 0.0) - c[i] * c[j]);
  Mat6& M = d.articulatedInertia;
  rigidInertiaLower(m, c, J, M);
  // The bias of the body alone: m w x (w x c) and w x (J w), in scalars.
  Mat<3, 1> wc, wwc, Jw, wJw;
  cross(w, c, wc);
  cross(w, wc, wwc);
  for (size_t i = 0; i < 3; ++i) Jw[i] = J[i][0] * w[0] + J[i][1] * w[1] + J[i][2] * w[2];
  cross(w, Jw, wJw);
  for (int k = 0; k < 3; ++k) {
    d.biasForce(k) = m * wwc[size_t(k)];
    d.biasForce(3 + k) = wJw[size_t(k)];
  }

  // Each child hands over its inertia with its joint removed and its bias,
  // both moved to this origin. With U = M_A S of the child's joint and its
  // scaled force, the bias is p_A + M_A c + U scaledForce: the removed part
  // U D^-1 U^T c is in the scaled force.
  for (size_t ch : children[b]) {
    const AbaData& dc = abaData[ch];
    const Mat6& Mc = dc.articulatedInertia;
    Mat6 Ia;  // lower triangle only
    // Row i of M_A c from the lower triangle, in named scalars.
    const double* cc = dc.c.data();
    auto row = [&](int i) {
      return lowerAt(Mc, i, 0) * cc[0] + lowerAt(Mc, i, 1) * cc[1] + lowerAt(Mc, i, 2) * cc[2] +
             lowerAt(Mc, i, 3) * cc[3] + lowerAt(Mc, i, 4) * cc[4] + lowerAt(Mc, i, 5) * cc[5];
    };
    double p[6] = {dc.biasForce(0) + row(0), dc.biasForce(1) + row(1), dc.biasForce(2) + row(2),
                   dc.biasForce(3) + row(3), dc.biasForce(4) + row(4), dc.biasForce(5) + row(5)};
    if (jointType[ch] == Joint::SPHERICAL) {
      const AbaData3& d3 = abaData3[ch];
      Ia.noalias() = Mc - d3.UDinv * d3.U.transpose();
      const Vec6 Uf = d3.U * d3.scaledForce;
      for (int i = 0; i < 6; ++i) p[i] += Uf(i);
    } else {
      const double* U = dc.U.data();
      const double* V = dc.UDinv.data();
      for (int j = 0; j < 6; ++j)
        for (int i = j; i < 6; ++i) Ia(i, j) = Mc(i, j) - V[i] * U[j];
      for (int i = 0; i < 6; ++i) p[i] += U[i] * dc.scaledForce;
    }
    addInertiaToParent(ch, Ia, M);
    // The moment about the parent's origin: m += r x f, in scalars.
    const Vec3 r = relPosW[ch].e();
    p[3] += r(1) * p[2] - r(2) * p[1];
    p[4] += r(2) * p[0] - r(0) * p[2];
    p[5] += r(0) * p[1] - r(1) * p[0];
    for (int i = 0; i < 6; ++i) d.biasForce(i) += p[i];
  }
  // M stays in its lower triangle (all a one-dof joint, the parent and the
  // root read); the three-dof joint's products below mirror it.

  if (b == 0) return;  // the root's coordinates are taken by abaRoot

  // Joint terms at this origin. c is the velocity-product acceleration: what
  // the body's origin and rotation gain from the velocities alone.
  const size_t p = parent[b], g = gvIdx[b];
  switch (jointType[b]) {
    case Joint::REVOLUTE:
    case Joint::PRISMATIC: {
      // What the origin gains from the parent's turn.
      const Mat<3, 1>& wp = angVelW[p];
      const double dv0 = linVelW[b][0] - linVelW[p][0], dv1 = linVelW[b][1] - linVelW[p][1],
                   dv2 = linVelW[b][2] - linVelW[p][2];
      const double carried[3] = {wp[1] * dv2 - wp[2] * dv1, wp[2] * dv0 - wp[0] * dv2, wp[0] * dv1 - wp[1] * dv0};
      const double diagonal = dampedDiag[g] + rotorInertiaGv[g];
      if (jointType[b] == Joint::REVOLUTE)
        oneDofJointTerms<3>(axisW[b], w, carried, gv[g], diagonal, actuation[g], d);
      else
        oneDofJointTerms<0>(axisW[b], w, carried, gv[g], diagonal, actuation[g], d);
      break;
    }
    case Joint::SPHERICAL: {
      AbaData3& d3 = abaData3[b];
      mirrorLower(M);
      const Vec3 carried = angVelW[p].e().cross(linVelW[b].e() - linVelW[p].e());
      const Mat3 R = rotW[b].e();
      d3.S.topRows<3>().setZero();
      d3.S.bottomRows<3>() = R;
      d3.Sdot.topRows<3>().setZero();
      d3.Sdot.bottomRows<3>().noalias() = skew(w.e()) * R;
      d3.U.noalias() = d.articulatedInertia * d3.S;
      d3.D.noalias() = d3.S.transpose() * d3.U;
      for (size_t k = 0; k < 3; ++k) d3.D(k, k) += dampedDiag[g + k] + rotorInertiaGv[g + k];
      d3.Dinv = d3.D.llt().solve(Mat3::Identity());
      d3.UDinv.noalias() = d3.U * d3.Dinv;
      const Vec3 u(gv[g], gv[g + 1], gv[g + 2]);
      d.c.noalias() = d3.Sdot * u;
      d.c.head<3>() += carried;
      const Vec3 tau(actuation[g], actuation[g + 1], actuation[g + 2]);
      d3.scaledForce.noalias() = d3.Dinv * (tau - d3.S.transpose() * d.biasForce - d3.U.transpose() * d.c);
      break;
    }
    default:
      break;
  }
}

void ArticulatedSystem::abaRoot(const Mat<3, 1>& gravity) {
  AbaData& d = abaData[0];
  if (jointType[0] != Joint::FLOATING) {
    // A fixed base seen from a freely falling frame.
    d.a << -gravity[0], -gravity[1], -gravity[2], 0.0, 0.0, 0.0;
    return;
  }
  // The base is built like any body; its six coordinates then take the
  // inverse of its articulated inertia directly. Rotor inertia and the
  // implicit terms a caller may have put on the base's entries act here as
  // they do on the mass matrix's diagonal: on the true acceleration, which is
  // the falling frame's plus gravity.
  abaBackwardBody(0);
  Mat6 base = d.articulatedInertia;
  Vec6 tau;
  for (size_t i = 0; i < 6; ++i) {
    const double diagonal = rotorInertiaGv[i] + dampedDiag[i];
    base(Eigen::Index(i), Eigen::Index(i)) += diagonal;
    tau(Eigen::Index(i)) = actuation[i] - (i < 3 ? diagonal * gravity[i] : 0.0);
  }
  Mat6 inverse;
  choleskyInverse(base, inverse);
  baseInertiaInverse = inverse;
  d.a.noalias() = inverse * (tau - d.biasForce);
  for (size_t i = 0; i < 6; ++i) ga[i] = d.a(Eigen::Index(i));
  for (size_t k = 0; k < 3; ++k) ga[k] += gravity[k];
}

void ArticulatedSystem::abaForwardBody(size_t b) {
  AbaData& d = abaData[b];
  // The parent's acceleration at this origin, the point rigidly attached to
  // the parent: a += w' x r, in scalars.
  const Vec6& A = abaData[parent[b]].a;
  const Mat<3, 1>& r = relPosW[b];
  const double ap0 = A(0) + (A(4) * r[2] - A(5) * r[1]);
  const double ap1 = A(1) + (A(5) * r[0] - A(3) * r[2]);
  const double ap2 = A(2) + (A(3) * r[1] - A(4) * r[0]);
  const double ap3 = A(3), ap4 = A(4), ap5 = A(5);
  const size_t g = gvIdx[b];
  if (jointType[b] == Joint::SPHERICAL) {
    const AbaData3& d3 = abaData3[b];
    Vec6 ap;
    ap << ap0, ap1, ap2, ap3, ap4, ap5;
    const Vec3 qdd = d3.scaledForce - d3.UDinv.transpose() * ap;
    for (size_t k = 0; k < 3; ++k) ga[g + k] = qdd(Eigen::Index(k));
    d.a.noalias() = ap + d.c + d3.S * qdd;
  } else if (jointType[b] == Joint::REVOLUTE || jointType[b] == Joint::PRISMATIC) {
    const double* V = d.UDinv.data();
    const double Va = V[0] * ap0 + V[1] * ap1 + V[2] * ap2 + V[3] * ap3 + V[4] * ap4 + V[5] * ap5;
    const double qdd = d.scaledForce - Va;
    ga[g] = qdd;
    const double* c = d.c.data();
    const double* S = d.S.data();
    d.a << ap0 + c[0] + S[0] * qdd, ap1 + c[1] + S[1] * qdd, ap2 + c[2] + S[2] * qdd, ap3 + c[3] + S[3] * qdd,
        ap4 + c[4] + S[4] * qdd, ap5 + c[5] + S[5] * qdd;
  } else {
    d.a << ap0, ap1, ap2, ap3, ap4, ap5;
  }
}

// ---------------------------------------------------------------- the step --

void ArticulatedSystem::preContactSolverUpdate2(const Mat<3, 1>& gravity, double dt, ContactProblemList& problems) {
  articulatedBodyAlgorithm(gravity, dt);
  appendJointLimits(problems);
  gvFree = gvWork;
}

void ArticulatedSystem::integrate(double dt, World& world) {
  for (size_t i = 0; i < dof; ++i) realisedAcc[i] = (gvWork[i] - gv[i]) * (1.0 / dt);
  const Mat<3, 1> gravity = world.getGravity();
  if (imuPresent) {
    // Before gv changes, so that the body accelerations are those of the step
    // just solved.
    recursiveNewtonEuler(gravity, true, true, realisedAcc, inverseDynamicsTau);
    updateSensorsIfNecessary(world);
  }

  switch (activeScheme) {
    case TRAPEZOID:
      for (size_t i = 0; i < dof; ++i) gvMean[i] = (gv[i] + gvWork[i]) * 0.5;
      gv = gvWork;
      break;
    case SEMI_IMPLICIT_EULER:
      gv = gvWork;
      gvMean = gv;
      break;
    case EXPLICIT_EULER:
      gvMean = gv;
      gv = gvWork;
      break;
    case RUNGE_KUTTA_4:
      runRungeKutta(gravity, dt);
      break;
    default:
      break;
  }

  externalForceViz_.clear();
  externalForceVizPos_.clear();
  externalTorqueViz_.clear();
  externalTorqueVizPos_.clear();
  if (!externalLoadValues_.empty()) clearExternalForces();
  // The Jacobians stay as storage for the next step's wire forces.
  constraintForces_.clear();
  constraintBodyIndices_.clear();
  constraintForcePositions_.clear();

  integratePosition(gc, gvMean, dt);
}

void ArticulatedSystem::rkIntegrate(const Mat<3, 1>& gravity, double dt) {
  updateKinematics();
  articulatedBodyAlgorithm(gravity, dt);
  for (size_t i = 0; i < dof; ++i) gvWork[i] -= gv[i];
}

void ArticulatedSystem::runRungeKutta(const Mat<3, 1>& gravity, double dt) {
  // Contact impulses act as a jump at the start of the step; each stage reruns
  // the whole algorithm at its own state.
  const double h = 0.5 * dt;
  const size_t n = dof;
  for (size_t i = 0; i < n; ++i) rkVel1[i] = gv[i] + (gvWork[i] - gvFree[i]);
  rkGc0 = gc;
  gv = rkVel1;

  rkIntegrate(gravity, dt);
  rkDelta1 = gvWork;
  for (size_t i = 0; i < n; ++i) rkVel2[i] = rkVel1[i] + 0.5 * rkDelta1[i];
  rkGc1 = rkGc0;
  integratePosition(rkGc1, rkVel1, h);
  gc = rkGc1;
  gv = rkVel2;

  rkIntegrate(gravity, h);
  for (size_t i = 0; i < n; ++i) rkDelta2[i] = 2.0 * gvWork[i];
  for (size_t i = 0; i < n; ++i) rkVel3[i] = rkVel1[i] + 0.5 * rkDelta2[i];
  rkGc2 = rkGc0;
  integratePosition(rkGc2, rkVel2, h);
  gc = rkGc2;
  gv = rkVel3;

  rkIntegrate(gravity, h);
  for (size_t i = 0; i < n; ++i) rkDelta3[i] = 2.0 * gvWork[i];
  for (size_t i = 0; i < n; ++i) rkVel4[i] = rkVel1[i] + rkDelta3[i];
  rkGc3 = rkGc0;
  integratePosition(rkGc3, rkVel3, dt);
  gc = rkGc3;
  gv = rkVel4;

  rkIntegrate(gravity, dt);
  rkDelta4 = gvWork;

  for (size_t i = 0; i < n; ++i) {
    gv[i] = rkVel1[i] + rkDelta1[i] / 6.0 + rkDelta2[i] / 3.0 + rkDelta3[i] / 3.0 + rkDelta4[i] / 6.0;
    gvMean[i] = rkVel1[i] / 6.0 + rkVel2[i] / 3.0 + rkVel3[i] / 3.0 + rkVel4[i] / 6.0;
  }
  gc = rkGc0;
}

void ArticulatedSystem::integratePosition(VecDyn& q, const VecDyn& velocity, double dt) {
  if (jointType[0] == Joint::FLOATING) {
    for (size_t k = 0; k < 3; ++k) q[k] += dt * velocity[k];
    // The world angular velocity, taken into the base frame, turns the base
    // by q (x) dq.
    quatToRotMat(q.v + 3, rotW[0]);
    const Mat<3, 1> w{velocity[3], velocity[4], velocity[5]};
    const Mat<3, 1> wb = transpose(rotW[0]) * w;
    Mat<4, 1> dq;
    eulerVecToQuat(wb * dt, dq);
    quatMul(q.v + 3, dq.v, q.v + 3);
  }
  for (size_t b = 1; b < nbody; ++b) {
    const size_t g = gvIdx[b], c = gcIdx[b];
    switch (jointType[b]) {
      case Joint::REVOLUTE:
      case Joint::PRISMATIC:
        q[c] += dt * velocity[g];
        break;
      case Joint::SPHERICAL: {
        // The rate is in the body's own frame: q (x) dq.
        const Mat<3, 1> v{dt * velocity[g], dt * velocity[g + 1], dt * velocity[g + 2]};
        const double angle = v.norm();
        double dq[4] = {1.0, 0.0, 0.0, 0.0};
        if (angle >= 1e-12) {
          const double s = std::sin(0.5 * angle) / angle;
          dq[0] = std::cos(0.5 * angle);
          for (size_t k = 0; k < 3; ++k) dq[k + 1] = s * v[k];
        }
        quatMul(q.v + c, dq, q.v + c);
        break;
      }
      default:
        break;
    }
  }
  // Normalises the quaternions of the member gc.
  updateKinematics();
}

void ArticulatedSystem::integrateWithoutContact(const Mat<3, 1>& /*gravity*/, double dt) {
  for (size_t i = 0; i < dof; ++i) tauStar[i] = -inverseDynamicsTau[i];
  actuation = feedForward;
  if (controlMode == PD_PLUS_FEEDFORWARD_TORQUE) {
    computePositionError();
    for (size_t i = 0; i < dof; ++i) {
      actuation[i] += posError[i] * pGain[i];
      if (activeScheme >= RUNGE_KUTTA_4) actuation[i] -= gv[i] * dGain[i];
      actuation[i] += velTarget[i] * dGain[i];
    }
  }
  // Below the Runge-Kutta scheme the implicit rate stands for damping and
  // derivative gain together.
  for (size_t i = 0; i < dof; ++i)
    actuation[i] -= gv[i] * (activeScheme < RUNGE_KUTTA_4 ? dampedDiagRate[i] : jointDampingGv[i]);
  for (size_t i = 0; i < dof; ++i) actuation[i] = std::max(std::min(actuation[i], tauUpper[i]), tauLower[i]);
  addSpringForces(tauStar);
  for (size_t i = 0; i < dof; ++i) tauStar[i] += actuation[i];
  addLoadForces(tauStar);
  for (size_t i = 0; i < dof; ++i) tauStar[i] = tauStar[i] * dt + impulseBias[i];
  for (size_t i = 0; i < dof; ++i) {
    double s = 0.0;
    for (size_t j = 0; j < dof; ++j) s += massMatrixInverse(i, j) * tauStar[j];
    gvWork[i] = s;
  }
}

void ArticulatedSystem::updateTimeStep(double dt) {
  timeStep = dt;
  computeDampedMass(dt);
  dampedMassValid = true;
}

void ArticulatedSystem::updateTimeStepIfNecessary(double dt) {
  if (dampedMassValid) return;
  computeDampedMass(dt);
  dampedMassValid = true;
}

// -------------------------------------------------------------------- loads --

void ArticulatedSystem::setExternalForce(size_t localIdx, const Mat<3, 1>& pos, const Mat<3, 1>& force) {
  setExternalForce(localIdx, WORLD_FRAME, force, BODY_FRAME, pos);
}

void ArticulatedSystem::setExternalForce(size_t localIdx, const Mat<3, 1>& force) {
  const size_t k = externalLoadValues_.size();
  if (externalForceJacobians.size() <= k) externalForceJacobians.emplace_back();
  getSparseJacobian(localIdx, comW[localIdx], externalForceJacobians[k]);
  externalLoadValues_.push_back(force);
  externalForceBodies.push_back(localIdx);
  externalLoadPositions_.push_back(comW[localIdx]);
  externalForceIsForce_.push_back(true);
}

void ArticulatedSystem::setExternalTorque(size_t localIdx, const Mat<3, 1>& torque) {
  const size_t k = externalLoadValues_.size();
  if (externalForceJacobians.size() <= k) externalForceJacobians.emplace_back();
  getSparseRotationalJacobian(localIdx, externalForceJacobians[k]);
  externalLoadValues_.push_back(torque);
  externalForceBodies.push_back(localIdx);
  externalLoadPositions_.push_back(comW[localIdx]);
  externalForceIsForce_.push_back(false);
}

void ArticulatedSystem::setExternalForce(size_t localIdx, Frame forceFrame, const Mat<3, 1>& force, Frame posFrame,
                                         const Mat<3, 1>& pos) {
  const size_t p = parent[localIdx];
  Mat<3, 1> forceW{0.0, 0.0, 0.0};
  switch (forceFrame) {
    case WORLD_FRAME:
      forceW = force;
      break;
    case PARENT_FRAME:
      forceW = p == kNone ? force : Mat<3, 1>(rotW[p] * force);
      break;
    case BODY_FRAME:
      forceW = rotW[localIdx] * force;
      break;
  }
  // An unknown frame leaves the force zero, applied at the body's origin.
  Mat<3, 1> posW_ = posW[localIdx];
  switch (posFrame) {
    case WORLD_FRAME:
      posW_ = pos;
      break;
    case PARENT_FRAME:
      if (p == kNone)
        posW_ = pos;
      else
        getPosition(p, pos, posW_);
      break;
    case BODY_FRAME:
      getPosition(localIdx, pos, posW_);
      break;
  }
  const size_t k = externalLoadValues_.size();
  if (externalForceJacobians.size() <= k) externalForceJacobians.emplace_back();
  getSparseJacobian(localIdx, posW_, externalForceJacobians[k]);
  externalLoadValues_.push_back(forceW);
  externalForceBodies.push_back(localIdx);
  externalLoadPositions_.push_back(posW_);
  externalForceIsForce_.push_back(true);
}

void ArticulatedSystem::setConstraintForce(size_t localIdx, const Mat<3, 1>& pos, const Mat<3, 1>& force) {
  Mat<3, 1> pointW;
  getPosition(localIdx, pos, pointW);
  const size_t k = constraintForces_.size();
  if (constraintJacobians_.size() <= k) constraintJacobians_.emplace_back();
  getSparseJacobian(localIdx, pointW, constraintJacobians_[k]);
  constraintForces_.push_back(force);
  constraintBodyIndices_.push_back(localIdx);
  constraintForcePositions_.push_back(pointW);
}

void ArticulatedSystem::clearExternalForcesAndTorques() {
  // externalForceBodies is left as it is: loads applied after this pair with
  // the bodies listed before in inverse dynamics.
  externalForceIsForce_.clear();
  externalLoadValues_.clear();
  externalLoadPositions_.clear();
  externalForceViz_.clear();
  externalForceVizPos_.clear();
  externalTorqueViz_.clear();
  externalTorqueVizPos_.clear();
}

void ArticulatedSystem::clearExternalForces() {
  for (size_t i = 0; i < externalLoadValues_.size(); ++i) {
    if (externalForceIsForce_[i]) {
      externalForceViz_.push_back(externalLoadValues_[i]);
      externalForceVizPos_.push_back(externalLoadPositions_[i]);
    } else {
      externalTorqueViz_.push_back(externalLoadValues_[i]);
      externalTorqueVizPos_.push_back(externalLoadPositions_[i]);
    }
  }
  externalLoadValues_.clear();
  externalLoadPositions_.clear();
  externalForceIsForce_.clear();
  externalForceBodies.clear();
}

// ---------------------------------------------------------------- actuation --

void ArticulatedSystem::setGeneralizedForce(std::initializer_list<double> tau) {
  if (tau.size() != dof) MSG_FATAL("Wrong number of generalized force elements");
  size_t k = 0;
  for (double x : tau) {
    if (k == dof) break;
    feedForward[k++] = x;
  }
}

void ArticulatedSystem::setGeneralizedForce(const VecDyn& tau) {
  if (tau.n != dof) {
    MSG_FATAL("Wrong number of generalized force elements");
    return;
  }
  feedForward = tau;
}

void ArticulatedSystem::setControlMode(int32_t mode) {
  controlMode = mode;
  dampedMassValid = false;
}

void ArticulatedSystem::setPdGains(const VecDyn& p, const VecDyn& d) {
  if (p.n != dof || d.n != dof) {
    MSG_FATAL("Wrong number of PD gain elements: both need " << dof);
    return;
  }
  pGain = p;
  dGain = d;
  dampedMassValid = false;
}

void ArticulatedSystem::setPdTarget(const VecDyn& position, const VecDyn& velocity) {
  if (position.n != gcDim || velocity.n != dof) {
    MSG_FATAL("Wrong number of PD target elements: the position target needs " << gcDim << " and the velocity target "
                                                                               << dof);
    return;
  }
  posTarget = position;
  velTarget = velocity;
}

void ArticulatedSystem::setJointDamping(const VecDyn& damping) {
  if (damping.n != dof) {
    MSG_FATAL("Wrong number of joint damping elements: it needs " << dof);
    return;
  }
  jointDampingGv = damping;
  dampedMassValid = false;
}

void ArticulatedSystem::setRotorInertia(const VecDyn& inertia) {
  if (inertia.n != dof) {
    MSG_FATAL("Wrong number of rotor inertia elements: it needs " << dof);
    return;
  }
  rotorInertiaGv = inertia;
}

void ArticulatedSystem::setEffortLimits(const VecDyn& limit) {
  if (limit.n != dof) {
    MSG_FATAL("Wrong number of effort limit elements: it needs " << dof);
    return;
  }
  for (size_t i = 0; i < dof; ++i) {
    tauUpper[i] = limit[i];
    tauLower[i] = -limit[i];
  }
}

}  // namespace vorsim
