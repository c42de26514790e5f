// The closed-form views of a robot's dynamics: the joint-space mass matrix by
// the composite-rigid-body recursion, its tree-sparse factor and inverse, the
// implicit diagonal of damping and stiffness, inverse dynamics by the
// recursive Newton-Euler pass, energies and momentum.
//
// Everything is in world coordinates. Composites are kept as mass, centre of
// mass and inertia about that centre (never as 6x6 matrices); each body's
// reference point is its joint origin posW[b]. A normal step uses none of this
// except dampedDiag (and inverse dynamics when an inertial sensor is mounted).
#include <cstring>

#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

namespace vorsim {

namespace {

inline Mat<3, 1> add(const Mat<3, 1>& a, const Mat<3, 1>& b) { return {a[0] + b[0], a[1] + b[1], a[2] + b[2]}; }
inline Mat<3, 1> sub(const Mat<3, 1>& a, const Mat<3, 1>& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
inline Mat<3, 1> scaled(const Mat<3, 1>& a, double s) { return {a[0] * s, a[1] * s, a[2] * s}; }
inline Mat<3, 1> mul(const Mat<3, 3>& R, const Mat<3, 1>& x) {
  Mat<3, 1> y;
  matvecmul(R, x, y);
  return y;
}
inline Mat<3, 1> mulT(const Mat<3, 3>& R, const Mat<3, 1>& x) {
  return {R(0, 0) * x[0] + R(1, 0) * x[1] + R(2, 0) * x[2], R(0, 1) * x[0] + R(1, 1) * x[1] + R(2, 1) * x[2],
          R(0, 2) * x[0] + R(1, 2) * x[1] + R(2, 2) * x[2]};
}
inline Mat<3, 1> column(const Mat<3, 3>& R, size_t m) { return {R(0, m), R(1, m), R(2, m)}; }

// The momentum a unit rate of one joint column gives a composite body: force F
// at the composite's centre of mass and moment N about it.
struct UnitRateMomentum {
  Mat<3, 1> F, N;
};

// Writes value at (i, j) and at (j, i).
inline void setSymmetric(MatDyn& M, size_t i, size_t j, double value) {
  M(i, j) = value;
  M(j, i) = value;
}

}  // namespace

// ------------------------------------------------------------------- tables --

void ArticulatedSystem::sizeDynamicsTables() {
  const Mat<3, 1> zero3{0.0, 0.0, 0.0};
  Mat<3, 3> zero33;
  zero33.setZero();
  for (MatDyn* m : {&massMatrix, &massMatrixInverse, &factor}) {
    m->resize(dof, dof);
    m->setZero();
  }
  for (VecDyn* v : {&factorDiagInverse,
                    &nonlinearities,
                    &dampedDiag,
                    &dampedDiagRate,
                    &gvWork,
                    &gvFree,
                    &ga,
                    &realisedAcc,
                    &gvMean,
                    &inverseDynamicsTau,
                    &feedForward,
                    &actuation,
                    &tauStar,
                    &impulseBias,
                    &pGain,
                    &dGain,
                    &velTarget,
                    &posError,
                    &rkVel1,
                    &rkVel2,
                    &rkVel3,
                    &rkVel4,
                    &rkDelta1,
                    &rkDelta2,
                    &rkDelta3,
                    &rkDelta4,
                    &momentumScratch})
    v->setZero(dof);
  for (VecDyn* v : {&posTarget, &rkGc0, &rkGc1, &rkGc2, &rkGc3}) v->setZero(gcDim);
  // The PD target starts at the initial configuration: switching the PD law
  // on without a target holds the robot where it was built.
  posTarget = gc;
  baseInertiaInverse.setZero();

  for (auto* table : {&inertiaW, &inertiaJointW, &compositeInertiaW}) table->assign(nbody, zero33);
  for (auto* table : {&compositeMoment, &compositeComW, &jointForceW, &jointTorqueW, &rneForce, &rneMoment})
    table->assign(nbody, zero3);

  AbaData record;
  std::memset(static_cast<void*>(&record), 0, sizeof record);
  record.articulatedInertia.setIdentity();
  abaData.assign(nbody, record);
  AbaData3 record3;
  std::memset(static_cast<void*>(&record3), 0, sizeof record3);
  record3.D.setIdentity();
  record3.Dinv.setIdentity();
  abaData3.assign(nbody, record3);
  dampedMassValid = false;

  limitResponse.resize(nbody);
  for (VecDyn& r : limitResponse) r.setZero(dof);
  limitWarmStart.assign(nbody, 0.0);
  limitProblemLog.clear();
  limitProblemLog.reserve(nbody);
}

void ArticulatedSystem::updateWorldInertia() {
  // similarityTransform written out in named scalars, term for term: T = R S^T,
  // then the lower triangle of T R^T, mirrored.
  for (size_t b = 0; b < nbody; ++b) {
    const Mat<3, 3>& R = rotW[b];
    const Mat<3, 3>& S = inertiaB[b];
    auto t = [&](size_t i, size_t k) { return R(i, 0) * S(k, 0) + R(i, 1) * S(k, 1) + R(i, 2) * S(k, 2); };
    const double t00 = t(0, 0), t01 = t(0, 1), t02 = t(0, 2);
    const double t10 = t(1, 0), t11 = t(1, 1), t12 = t(1, 2);
    const double t20 = t(2, 0), t21 = t(2, 1), t22 = t(2, 2);
    auto o = [&](double ti0, double ti1, double ti2, size_t j) { return ti0 * R(j, 0) + ti1 * R(j, 1) + ti2 * R(j, 2); };
    Mat<3, 3>& out = inertiaW[b];
    const double o00 = o(t00, t01, t02, 0), o10 = o(t10, t11, t12, 0), o20 = o(t20, t21, t22, 0);
    const double o11 = o(t10, t11, t12, 1), o21 = o(t20, t21, t22, 1), o22 = o(t20, t21, t22, 2);
    out(0, 0) = o00, out(1, 0) = o10, out(2, 0) = o20;
    out(0, 1) = o10, out(1, 1) = o11, out(2, 1) = o21;
    out(0, 2) = o20, out(1, 2) = o21, out(2, 2) = o22;
  }
}

// ------------------------------------------------------------- mass matrix --

void ArticulatedSystem::computeMassMatrix(MatDyn& M) {
  updateWorldInertia();
  for (size_t b = 0; b < nbody; ++b) {
    compositeInertiaW[b] = inertiaW[b];
    compositeMoment[b] = scaled(comW[b], massOf[b]);
  }

  const bool floating = jointType[0] == Joint::FLOATING;
  UnitRateMomentum unit[3];

  // Children have higher indices than their parent: each composite is complete
  // when its body is reached.
  for (size_t b = nbody - 1; b >= 1 && b < nbody; --b) {
    for (size_t c : children[b]) compositeMoment[b] += compositeMoment[c];
    const double m = compositeMass[b];
    // A subtree without mass has no centre; any point serves, as every term
    // that uses it is multiplied by zero mass.
    compositeComW[b] = m != 0.0 ? scaled(compositeMoment[b], 1.0 / m) : posW[b];
    for (size_t c : children[b]) {
      Mat<3, 3> shifted;
      inertiaAtP(compositeMass[c], compositeInertiaW[c], sub(compositeComW[c], compositeComW[b]), shifted);
      compositeInertiaW[b] += shifted;
    }
    addInertia(massOf[b], sub(comW[b], compositeComW[b]), compositeInertiaW[b]);

    // Composite: mass m, centre C, inertia I about C.
    const Mat<3, 3>& I = compositeInertiaW[b];
    const Mat<3, 1>& C = compositeComW[b];
    const Mat<3, 1> r = sub(C, posW[b]);
    const size_t g = gvIdx[b];
    size_t columns = 0;
    switch (jointType[b]) {
      case Joint::REVOLUTE: {
        const Mat<3, 1>& a = axisW[b];
        const Mat<3, 1> t = cross(a, r);
        unit[0] = {scaled(t, m), mul(I, a)};
        M(g, g) = dot(a, unit[0].N) + m * dot(t, t);
        columns = 1;
        break;
      }
      case Joint::PRISMATIC:
        unit[0] = {scaled(axisW[b], m), Mat<3, 1>{0.0, 0.0, 0.0}};
        M(g, g) = m;
        columns = 1;
        break;
      case Joint::SPHERICAL: {
        Mat<3, 3> J;
        inertiaAtP(m, I, r, J);  // subtree inertia about the joint origin
        Mat<3, 3> block;
        similarityTransform2(rotW[b], J, block);
        for (size_t k = 0; k < 3; ++k) {
          for (size_t l = 0; l < 3; ++l) M(g + k, g + l) = block(k, l);
          const Mat<3, 1> e = column(rotW[b], k);
          unit[k] = {scaled(cross(e, r), m), mul(I, e)};
        }
        columns = 3;
        break;
      }
      default:
        break;
    }

    // Coupling with every ancestor joint: the moment about that joint's
    // origin, projected on its axes.
    for (size_t j = parent[b]; j != 0 && j != kNone; j = parent[j]) {
      const Mat<3, 1> rj = sub(C, posW[j]);
      const size_t gj = gvIdx[j];
      for (size_t k = 0; k < columns; ++k) {
        const Mat<3, 1> W = add(unit[k].N, cross(rj, unit[k].F));
        switch (jointType[j]) {
          case Joint::REVOLUTE:
            setSymmetric(M, gj, g + k, dot(axisW[j], W));
            break;
          case Joint::PRISMATIC:
            setSymmetric(M, gj, g + k, dot(axisW[j], unit[k].F));
            break;
          case Joint::SPHERICAL:
            for (size_t l = 0; l < 3; ++l) setSymmetric(M, gj + l, g + k, dot(column(rotW[j], l), W));
            break;
          default:
            break;
        }
      }
    }

    if (floating) {
      const Mat<3, 1> r0 = sub(C, posW[0]);
      for (size_t k = 0; k < columns; ++k) {
        const Mat<3, 1> N0 = add(unit[k].N, cross(r0, unit[k].F));
        for (size_t l = 0; l < 3; ++l) {
          setSymmetric(M, l, g + k, unit[k].F[l]);
          setSymmetric(M, 3 + l, g + k, N0[l]);
        }
      }
    }
  }

  if (floating) {
    // The base block, with the whole robot's inertia about the base origin.
    for (size_t c : children[0]) compositeMoment[0] += compositeMoment[c];
    const double m = compositeMass[0];
    compositeComW[0] = m != 0.0 ? scaled(compositeMoment[0], 1.0 / m) : posW[0];
    Mat<3, 3>& I0 = compositeInertiaW[0];
    addInertia(massOf[0], sub(comW[0], posW[0]), I0);
    for (size_t c : children[0]) {
      Mat<3, 3> shifted;
      inertiaAtP(compositeMass[c], compositeInertiaW[c], sub(compositeComW[c], posW[0]), shifted);
      I0 += shifted;
    }
    const Mat<3, 1> r = sub(compositeComW[0], posW[0]);
    const double skew[3][3] = {{0.0, -r[2], r[1]}, {r[2], 0.0, -r[0]}, {-r[1], r[0], 0.0}};
    for (size_t i = 0; i < 3; ++i)
      for (size_t j = 0; j < 3; ++j) {
        M(i, j) = i == j ? m : 0.0;
        M(3 + i, 3 + j) = I0(i, j);
        setSymmetric(M, 3 + i, j, m * skew[i][j]);
      }
  }

  for (size_t i = 0; i < dof; ++i) M(i, i) += rotorInertiaGv[i];
}

const MatDyn& ArticulatedSystem::getMassMatrix() {
  computeMassMatrix(massMatrix);
  return massMatrix;
}

const MatDyn& ArticulatedSystem::getInverseMassMatrix() {
  computeMassMatrix(massMatrix);
  invertTreeSparse(massMatrix, nullptr, massMatrixInverse);
  return massMatrixInverse;
}

void ArticulatedSystem::computeSparseInverse(const MatDyn& M, MatDyn& Minv) { invertTreeSparse(M, dampedDiag.v, Minv); }

void ArticulatedSystem::invertTreeSparse(const MatDyn& M, const double* extraDiagonal, MatDyn& Minv) {
  const size_t n = dof;
  MatDyn& H = factor;
  std::memcpy(H.v, M.v, n * n * sizeof(double));
  if (extraDiagonal != nullptr)
    for (size_t i = 0; i < n; ++i) H(i, i) += extraDiagonal[i];

  // H = L^T L, from the last dof up. Row k of L has entries only on the chain
  // of dof ancestors of k, so the factor makes no fill-in. A non-positive pivot
  // is not caught: it gives NaN or infinity, as it stands.
  for (size_t k = n; k-- > 0;) {
    H(k, k) = std::sqrt(H(k, k));
    factorDiagInverse[k] = 1.0 / H(k, k);
    for (size_t i = dofParent[k]; i != kNone; i = dofParent[i]) H(k, i) *= factorDiagInverse[k];
    for (size_t i = dofParent[k]; i != kNone; i = dofParent[i])
      for (size_t j = i; j != kNone; j = dofParent[j]) H(i, j) -= H(k, i) * H(k, j);
  }

  // X = L^-1 L^-T, column by column: L X is upper triangular with the
  // diagonal 1 / L(i,i). Only the chain entries of L are nonzero.
  const double* d = factorDiagInverse.v;
  for (size_t i = 0; i < n; ++i) {
    double s = d[i];
    for (size_t k = dofParent[i]; k != kNone; k = dofParent[k]) s -= H(i, k) * Minv(k, i);
    Minv(i, i) = d[i] * s;
    for (size_t j = i + 1; j < n; ++j) {
      double t = 0.0;
      for (size_t k = dofParent[j]; k != kNone; k = dofParent[k]) t += H(j, k) * Minv(k, i);
      Minv(j, i) = -d[j] * t;
      Minv(i, j) = Minv(j, i);
    }
  }
}

void ArticulatedSystem::computeDampedMass(double dt) {
  for (size_t i = 0; i < dof; ++i) dampedDiag[i] = jointDampingGv[i];
  for (const SpringElement& s : springs) {
    const size_t b = s.springBody, g = gvIdx[b];
    const double term = dt * s.springStiffness * 0.5;
    if (jointType[b] == Joint::REVOLUTE || jointType[b] == Joint::PRISMATIC) {
      dampedDiag[g] += term;
    } else if (jointType[b] == Joint::SPHERICAL) {
      for (size_t k = 0; k < 3; ++k) dampedDiag[g + k] += term;
    }
  }
  if (controlMode == PD_PLUS_FEEDFORWARD_TORQUE)
    for (size_t i = 0; i < dof; ++i) {
      dampedDiag[i] += 0.5 * dt * pGain[i];
      dampedDiag[i] += dGain[i];
    }
  for (size_t i = 0; i < dof; ++i) {
    dampedDiag[i] *= 0.5 * dt;
    dampedDiagRate[i] = dampedDiag[i] / dt;
  }
}

void ArticulatedSystem::updateMassInfo() {
  for (size_t b = 0; b < nbody; ++b) compositeMass[b] = massOf[b];
  for (size_t b = nbody; b-- > 0;)
    for (size_t c : children[b]) compositeMass[b] += compositeMass[c];
  // The moments accumulate on what they hold; computeMassMatrix reseeds them
  // on every call, so only the masses are a lasting result.
  for (size_t b = nbody - 1; b >= 1 && b < nbody; --b) {
    for (size_t c : children[b]) compositeMoment[b] += compositeMoment[c];
    compositeComW[b] = compositeMass[b] != 0.0 ? scaled(compositeMoment[b], 1.0 / compositeMass[b]) : posW[b];
  }
}

// --------------------------------------------------------- inverse dynamics --

void ArticulatedSystem::recursiveNewtonEuler(const Mat<3, 1>& gravity, bool includeLoads, bool storeJointForces,
                                             const VecDyn& acceleration, VecDyn& tau) {
  updateWorldInertia();

  // Gravity is a fictitious upward acceleration of the base.
  if (jointType[0] == Joint::FLOATING) {
    inertiaAtP(massOf[0], inertiaW[0], comRelW[0], inertiaJointW[0]);
    linAccW[0] = {acceleration[0], acceleration[1], acceleration[2]};
    angAccW[0] = {acceleration[3], acceleration[4], acceleration[5]};
  } else {
    linAccW[0].setZero();
  }
  linAccW[0] -= gravity;
  for (size_t b = 1; b < nbody; ++b) inertiaAtP(massOf[b], inertiaW[b], comRelW[b], inertiaJointW[b]);

  // Forward: accelerations of the body origins.
  for (size_t b = 1; b < nbody; ++b) {
    const size_t p = parent[b];
    const Mat<3, 1>& wp = angVelW[p];
    const Mat<3, 1>& alp = angAccW[p];
    const Mat<3, 1>& r = relPosW[b];
    angAccW[b] = alp;
    linAccW[b] = linAccW[p];
    const size_t g = gvIdx[b];
    switch (jointType[b]) {
      case Joint::REVOLUTE:
        angAccW[b] += add(cross(wp, jointAngVelW[b]), scaled(axisW[b], acceleration[g]));
        break;
      case Joint::PRISMATIC:
        linAccW[b] += add(scaled(cross(angVelW[b], jointLinVelW[b]), 2.0), scaled(axisW[b], acceleration[g]));
        break;
      case Joint::SPHERICAL:
        // The three entries are added as they stand: a world-frame angular
        // acceleration of the joint.
        angAccW[b] +=
            add(cross(wp, jointAngVelW[b]), Mat<3, 1>{acceleration[g], acceleration[g + 1], acceleration[g + 2]});
        break;
      default:
        break;
    }
    linAccW[b] += add(cross(wp, cross(wp, r)), cross(alp, r));
  }

  std::vector<Mat<3, 1>>& f = rneForce;
  std::vector<Mat<3, 1>>& n = rneMoment;
  for (size_t b = 0; b < nbody; ++b) {
    f[b].setZero();
    n[b].setZero();
  }

  // Loads enter as force that the joints need not supply.
  if (includeLoads) {
    const double toForce = 1.0 / timeStep;
    for (const Contact& c : contacts_) {
      if (c.skip || c.impulse == nullptr) continue;
      const double s = c.isObjectA ? -toForce : toForce;
      const Mat<3, 1> F = scaled(mulT(c.frame, *c.impulse), s);
      const size_t b = c.localBodyIndex;
      f[b] += F;
      n[b] += cross(sub(c.position, posW[b]), F);
      // A merged self-collision stands for both points: the twin's body gets
      // the opposite force.
      if (c.isSelfCollision && c.pairObjectIndex == indexInWorld_ && c.pairContactIndex < contacts_.size()) {
        const size_t t = contacts_[c.pairContactIndex].localBodyIndex;
        f[t] -= F;
        n[t] -= cross(sub(c.position, posW[t]), F);
      }
    }
    for (size_t i = 0; i < externalLoadValues_.size() && i < externalForceBodies.size(); ++i) {
      const size_t b = externalForceBodies[i];
      const Mat<3, 1>& F = externalLoadValues_[i];
      if (externalForceIsForce_[i]) {
        f[b] -= F;
        n[b] -= cross(sub(externalLoadPositions_[i], posW[b]), F);
      } else {
        n[b] -= F;
      }
    }
    for (size_t i = 0; i < constraintForces_.size(); ++i) {
      const size_t b = constraintBodyIndices_[i];
      const Mat<3, 1>& F = constraintForces_[i];
      f[b] -= F;
      n[b] -= cross(sub(constraintForcePositions_[i], posW[b]), F);
    }
  }

  // Backward: each body's own rate of momentum, about its origin.
  for (size_t b = nbody; b-- > 0;) {
    const Mat<3, 1>& w = angVelW[b];
    const Mat<3, 1>& al = angAccW[b];
    const Mat<3, 1>& a = linAccW[b];
    const Mat<3, 1>& c = comRelW[b];
    const double m = massOf[b];
    const Mat<3, 3>& J = inertiaJointW[b];
    f[b] += scaled(add(add(a, cross(al, c)), cross(w, cross(w, c))), m);
    n[b] += add(add(mul(J, al), scaled(cross(c, a), m)), cross(w, mul(J, w)));
  }
  for (size_t b = nbody - 1; b >= 1 && b < nbody; --b) {
    const size_t p = parent[b];
    f[p] += f[b];
    n[p] += add(n[b], cross(relPosW[b], f[b]));
  }

  if (jointType[0] == Joint::FLOATING)
    for (size_t k = 0; k < 3; ++k) {
      tau[k] = f[0][k];
      tau[3 + k] = n[0][k];
    }
  for (size_t b = 1; b < nbody; ++b) {
    const size_t g = gvIdx[b];
    switch (jointType[b]) {
      case Joint::REVOLUTE:
        tau[g] = dot(axisW[b], n[b]);
        break;
      case Joint::PRISMATIC:
        tau[g] = dot(axisW[b], f[b]);
        break;
      case Joint::SPHERICAL: {
        const Mat<3, 1> t = mulT(rotW[b], n[b]);
        for (size_t k = 0; k < 3; ++k) tau[g + k] = t[k];
        break;
      }
      default:
        break;
    }
  }

  if (storeJointForces) {
    jointForceW = f;
    jointTorqueW = n;
  }
}

const VecDyn& ArticulatedSystem::getNonlinearities(const Mat<3, 1>& gravity) {
  momentumScratch.setZero();
  recursiveNewtonEuler(gravity, false, false, momentumScratch, nonlinearities);
  return nonlinearities;
}

// ------------------------------------------------------- energy, momentum --

double ArticulatedSystem::getKineticEnergy() {
  computeMassMatrix(massMatrix);
  double e = 0.0;
  for (size_t j = 0; j < dof; ++j) {
    double mj = 0.0;
    for (size_t i = 0; i < dof; ++i) mj += massMatrix(i, j) * gv[i];
    e += gv[j] * mj;
  }
  return 0.5 * e;
}

double ArticulatedSystem::getPotentialEnergy(const Mat<3, 1>& gravity) const {
  double e = 0.0;
  for (size_t b = 0; b < nbody; ++b) e -= massOf[b] * dot(comW[b], gravity);
  return e;
}

double ArticulatedSystem::getEnergy(const Mat<3, 1>& gravity) {
  return getKineticEnergy() + getPotentialEnergy(gravity);
}

void ArticulatedSystem::getAngularMomentum(const Mat<3, 1>& reference, Mat<3, 1>& momentum) const {
  momentum.setZero();
  for (size_t b = 0; b < nbody; ++b) {
    const Mat<3, 1> V = add(linVelW[b], cross(angVelW[b], mul(rotW[b], comB[b])));
    momentum += add(mul(inertiaW[b], angVelW[b]), scaled(cross(sub(comW[b], reference), V), massOf[b]));
  }
}

}  // namespace vorsim
