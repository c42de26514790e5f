#include "vorsim/contact/BisectionContactSolver.hpp"

#include <algorithm>
#include <cmath>

#include "vorsim/Object.hpp"

namespace vorsim {
namespace contact {

namespace {

constexpr double kPi = M_PI;
constexpr double kHalfPi = 0.5 * M_PI;

// The contact velocity with the problem's constant part and both objects'
// contributions from the working velocity.
inline void contactVelocity(Single3DContactProblem& P, Mat<3, 1>& v) {
  v = P.tauStar;
  if (P.objectA) P.objectA->addContactPointVel(P.localIndexA, v);
  if (P.objectB) P.objectB->subContactPointVel(P.localIndexB, v);
}

inline void applyImpulseChange(Single3DContactProblem& P, const Mat<3, 1>& p0) {
  if (P.objectA) {
    const Mat<3, 1> d{P.impulse[0] - p0[0], P.impulse[1] - p0[1], P.impulse[2] - p0[2]};
    P.objectA->updateGenVelWithImpulse(P.localIndexA, d);
  }
  if (P.objectB) {
    const Mat<3, 1> d{p0[0] - P.impulse[0], p0[1] - P.impulse[1], p0[2] - P.impulse[2]};
    P.objectB->updateGenVelWithImpulse(P.localIndexB, d);
  }
}

// The solution in the two-dimensional subspace b0, b1.
inline void solveReduced(Single3DContactProblem& P, const Mat<3, 1>& v) {
  const Mat<3, 1>& b0 = P.basis[0];
  const Mat<3, 1>& b1 = P.basis[1];
  const double w0 = dot(b0, v), w1 = dot(b1, v);
  const Mat<2, 2>& Ri = P.reducedDelassusInverse;
  const double r0 = -(Ri(0, 0) * w0 + Ri(0, 1) * w1);
  const double r1 = -(Ri(1, 0) * w0 + Ri(1, 1) * w1);
  for (size_t i = 0; i < 3; ++i) P.impulse[i] = r0 * b0[i] + r1 * b1[i];
}

// The solution along the third column of G.
inline void solveAlongColumn(Single3DContactProblem& P, const Mat<3, 1>& c, const Mat<3, 1>& v) {
  const double f = -dot(c, v) / P.rankOneDelassus;
  for (size_t i = 0; i < 3; ++i) P.impulse[i] = f * c[i];
}

// The sliding problem of one contact: the impulse lies on the cone and the
// normal velocity vanishes; the tangential direction is the root of f(angle).
class SlidingSearch {
 public:
  SlidingSearch(const Single3DContactProblem& P, const Mat<3, 1>& c, const Mat<3, 1>& v)
      : P_(P), c_(c), vz_(v[2]), g20_(P.delassus(2, 0)), g21_(P.delassus(2, 1)) {
    for (size_t i = 0; i < 3; ++i) q_[i] = v[i] - (v[2] * P.inverseGzz) * c[i];
  }

  // Normal-zeroing magnitude along the cone direction of cos/sin.
  double rho(double cs, double sn) const { return -vz_ / (g20_ * cs + P_.normalDelassusOverMu + g21_ * sn); }

  // f = w . e with w the velocity of tangential impulse (ix, iy) at zero normal
  // velocity and e the unit vector along c x dir.
  double f(double ix, double iy, const Mat<3, 1>& dir) const {
    const Mat<3, 1> e = cross(c_, dir);
    double s = 0.0;
    for (size_t i = 0; i < 3; ++i) s += (ix * P_.reducedColumnX[i] + iy * P_.reducedColumnY[i] + q_[i]) * e[i];
    return s / e.norm();
  }

  double fAtAngle(double angle) const {
    double sn, cs;
    polySinCos(angle, sn, cs);
    const double r = rho(cs, sn);
    const double ix = r * cs, iy = r * sn;
    return f(ix, iy, Mat<3, 1>{ix, iy, -P_.mu * r});
  }

 private:
  const Single3DContactProblem& P_;
  const Mat<3, 1>& c_;
  Mat<3, 1> q_;
  double vz_, g20_, g21_;
};

void solveSliding(Single3DContactProblem& P, const Mat<3, 1>& c, const Mat<3, 1>& v) {
  const Mat<3, 1> free = P.impulse;
  const double x = free[0], y = free[1];
  const double t2 = x * x + y * y;
  const double mu = P.mu;

  double a;
  if (x * x <= y * y) {
    const double t = fastAtanVor(x / y);
    a = y > 0 ? kHalfPi - t : -t - kHalfPi;
  } else {
    const double t = fastAtanVor(y / x);
    a = x > 0 ? t : (y < 0 ? t - kPi : t + kPi);
  }

  const SlidingSearch search(P, c, v);
  const double r = std::sqrt(t2);
  const double cs = x / r, sn = y / r;
  const double rho0 = search.rho(cs, sn);
  if (rho0 <= 0) {
    P.impulse.setZero();
    return;
  }

  const double f0 = search.f(rho0 * cs, rho0 * sn, Mat<3, 1>{cs, sn, -mu});
  if (f0 * f0 < 1e-24) {
    P.impulse = {rho0 * cs, rho0 * sn, rho0 * P.muInverse};
    return;
  }

  // Bracket the root, stepping the angle by a step that widens by 1.05 per round
  // while candidates are accepted and shrinks by 0.3 per rejected try.
  double step = f0 < 0 ? 0.06 : -0.06;
  int count = 0;
  double ac = a, fc = f0, ap, fp, an = a;
  do {
    ++count;
    ap = ac;
    fp = fc;
    double ix = 0, iy = 0, iz = 0, next = step;
    for (int attempt = 0; attempt < 6; ++attempt) {
      an = ap + step;
      double s, co;
      polySinCos(an, s, co);
      next = step * 0.3;
      const double rh = search.rho(co, s);
      ix = rh * co;
      iy = rh * s;
      iz = -mu * rh;
      step = next;
      if (rh >= 0 && (ix - free[0]) * ix + (iy - free[1]) * iy + (rh * P.muInverse - free[2]) * iz <= 0) break;
    }
    step = next * 3.5;
    fc = search.f(ix, iy, Mat<3, 1>{ix, iy, iz});
    ac = an;
  } while (fp * fc > 0 && count < 10);

  double aout;
  if (fp * fc >= 0 || fp * fp <= 1e-13 || fc * fc <= 1e-13) {
    aout = fc * fc < fp * fp ? an : ap;
  } else {
    // Secant step, then up to two Muller refinements.
    double as = an - fc * (ap - an) / (fp - fc);
    int k = 0;
    aout = as;
    if (std::abs(as - ap) > 1e-5) {
      while (true) {
        if (std::abs(as - an) <= 1e-5 || k >= 2) {
          aout = as;
          break;
        }
        ++k;
        const double fs = search.fAtAngle(as);
        const double h = 1.0 / (an - ap);
        const double d1 = (fc - fs) / (an - as);
        const double d0 = (fs - fp) / (as - ap);
        const double A = (d1 - d0) * h;
        const double B = ((an - as) * d0 + (as - ap) * d1) * h;
        const double anew = as - ((B - std::sqrt(B * B - 4.0 * A * fs)) / 2.0) / A;
        if (fs * fp < 0) {
          an = as;
          fc = fs;
        } else {
          ap = as;
          fp = fs;
        }
        as = anew;
        if (std::abs(as - ap) <= 1e-5) {
          aout = as;
          break;
        }
      }
    }
  }

  double s, co;
  polySinCos(aout, s, co);
  const double rh = search.rho(co, s);
  P.impulse = {rh * co, rh * s, rh * P.muInverse};
}

}  // namespace

void BisectionContactSolver::solve(ProblemList& problems) {
  loopCounter = 0;
  const size_t n = problems.size();

  for (auto& P : problems) P.checkRank();

  for (auto& P : problems) {
    if (P.rank == 5) continue;
    const Mat<3, 3>& G = P.delassus;
    P.normalDelassusOverMu = P.muInverse * G(2, 2);
    Mat<3, 1> v;
    contactVelocity(P, v);
    P.targetNormalVel = std::max(0.0, ((v[2] - 2.0 * P.impactVel) - P.restitutionThreshold) * (P.restitution + erp2));
    P.targetNormalVel -= P.depth * erp;
    if (P.rank == 3 || P.rank == 9) invert33(G, P.delassusInverse);
    if (P.rank == 2 || P.rank == 3) {
      const double fx = G(2, 0) / G(2, 2), fy = G(2, 1) / G(2, 2);
      for (size_t i = 0; i < 3; ++i) {
        P.reducedColumnX[i] = G(i, 0) - fx * G(i, 2);
        P.reducedColumnY[i] = G(i, 1) - fy * G(i, 2);
      }
      if (P.mu == 0.0) P.impulse[0] = P.impulse[1] = 0.0;
    }
  }

  const double limit = double(n) * threshold;
  for (auto& P : problems) P.inverseGzz = 1.0 / P.delassus(2, 2);

  const bool forward = forwardOrder;
  forwardOrder = !forwardOrder;

  double error;
  do {
    error = 0.0;
    for (size_t idx = 0; idx < n; ++idx) {
      Single3DContactProblem& P = problems[forward ? idx : n - 1 - idx];
      if (P.rank == 0) continue;
      if (P.rank == 5) {
        const double e = P.objectA->enforceJointLimits(P);
        error += e * e;
        continue;
      }

      const Mat<3, 3>& G = P.delassus;
      const Mat<3, 1> c{G(0, 2), G(1, 2), G(2, 2)};
      const Mat<3, 1> p0 = P.impulse;
      Mat<3, 1> v;
      contactVelocity(P, v);
      for (size_t i = 0; i < 3; ++i) v[i] -= G(i, 0) * p0[0] + G(i, 1) * p0[1] + G(i, 2) * p0[2];
      const double s = dot(p0, c);

      if (P.rank >= 7) {
        // Bilateral: the full velocity of objectA alone, then its own impulse out.
        P.objectA->getContactPointVel(P.localIndexA, v);
        error += v.squaredNorm();
        v[2] -= P.depth * erp;
        for (size_t i = 0; i < 3; ++i) v[i] -= G(i, 0) * p0[0] + G(i, 1) * p0[1] + G(i, 2) * p0[2];
        if (P.rank == 9) {
          Mat<3, 1> imp;
          matvecmul(P.delassusInverse, v, imp);
          P.impulse = {-imp[0], -imp[1], -imp[2]};
        } else if (P.rank == 8) {
          solveReduced(P, v);
        } else {
          solveAlongColumn(P, c, v);
        }
        applyImpulseChange(P, p0);
        continue;
      }

      if (v[2] > 0) {  // the contact opens
        P.impulse.setZero();
        error += s * s;
        applyImpulseChange(P, p0);
        continue;
      }

      v[2] -= P.targetNormalVel;
      if (P.rank == 2) {
        const double w0 = dot(P.basis[0], v), w1 = dot(P.basis[1], v);
        for (size_t i = 0; i < 3; ++i) v[i] = w0 * P.basis[0][i] + w1 * P.basis[1][i];
      }
      error += (s + v[2]) * (s + v[2]);

      if (P.mu < 0.0001) {
        // Frictionless: the normal impulse alone; the diagonal entry of G^-1
        // exists for rank 3 only, the other ranks take 1/G(2,2).
        const double gInvZZ = P.rank == 3 ? P.delassusInverse(2, 2) : P.inverseGzz;
        P.impulse[2] = -gInvZZ * v[2];
        applyImpulseChange(P, p0);
        continue;
      }

      if (P.rank == 3) {
        Mat<3, 1> imp;
        matvecmul(P.delassusInverse, v, imp);
        P.impulse = {-imp[0], -imp[1], -imp[2]};
      } else if (P.rank == 2) {
        solveReduced(P, v);
      } else if (P.rank == 1) {
        solveAlongColumn(P, c, v);
        applyImpulseChange(P, p0);
        continue;
      } else if (P.rank == 4) {
        P.impulse[2] = -v[2] * P.rankOneDelassus;
        applyImpulseChange(P, p0);
        continue;
      }

      const double x = P.impulse[0], y = P.impulse[1], z = P.impulse[2];
      const double mz = P.mu * z;
      if (mz * mz < x * x + y * y || z < 0) solveSliding(P, c, v);
      applyImpulseChange(P, p0);
    }
    ++loopCounter;
  } while (loopCounter < maxIter && error > limit);
}

}  // namespace contact
}  // namespace vorsim
