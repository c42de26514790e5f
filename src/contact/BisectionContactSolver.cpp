#include "vorsim/contact/BisectionContactSolver.hpp"

#include <algorithm>
#include <cmath>

#include "vorsim/Object.hpp"
#include "vorsim/object/SingleBodyObject.hpp"

namespace vorsim {
namespace contact {

namespace {

constexpr double kPi = M_PI;
constexpr double kHalfPi = 0.5 * M_PI;

// Single bodies are called by their own functions, without dispatch.
inline SingleBodyObject* single(Object* object) { return static_cast<SingleBodyObject*>(object); }

// The contact velocity with the problem's constant part and both objects'
// contributions from the working velocity.
inline void contactVelocity(Single3DContactProblem& P, Mat<3, 1>& v) {
  v = P.tauStar;
  if (P.singleBodyA)
    single(P.objectA)->SingleBodyObject::addContactPointVel(P.localIndexA, v);
  else if (P.objectA)
    P.objectA->addContactPointVel(P.localIndexA, v);
  if (P.singleBodyB)
    single(P.objectB)->SingleBodyObject::subContactPointVel(P.localIndexB, v);
  else if (P.objectB)
    P.objectB->subContactPointVel(P.localIndexB, v);
}

inline void applyImpulseChange(Single3DContactProblem& P, const Mat<3, 1>& p0) {
  if (P.objectA) {
    const Mat<3, 1> d{P.impulse[0] - p0[0], P.impulse[1] - p0[1], P.impulse[2] - p0[2]};
    if (P.singleBodyA)
      single(P.objectA)->SingleBodyObject::updateGenVelWithImpulse(P.localIndexA, d);
    else
      P.objectA->updateGenVelWithImpulse(P.localIndexA, d);
  }
  if (P.objectB) {
    const Mat<3, 1> d{p0[0] - P.impulse[0], p0[1] - P.impulse[1], p0[2] - P.impulse[2]};
    if (P.singleBodyB)
      single(P.objectB)->SingleBodyObject::updateGenVelWithImpulse(P.localIndexB, d);
    else
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
    // The first two columns of G with the normal's share taken out along the
    // third (built here: most problems of a solve never slide).
    const Mat<3, 3>& G = P.delassus;
    const double fx = G(2, 0) / G(2, 2), fy = G(2, 1) / G(2, 2);
    for (size_t i = 0; i < 3; ++i) {
      columnX_[i] = G(i, 0) - fx * G(i, 2);
      columnY_[i] = G(i, 1) - fy * G(i, 2);
    }
  }

  // Normal-zeroing magnitude along the cone direction of cos/sin.
  double rho(double cs, double sn) const { return -vz_ / (g20_ * cs + P_.normalDelassusOverMu + g21_ * sn); }

  // f = w . e with w the velocity of tangential impulse (ix, iy) at zero normal
  // velocity and e the unit vector along c x dir.
  double f(double ix, double iy, const Mat<3, 1>& dir) const {
    const Mat<3, 1> e = cross(c_, dir);
    double s = 0.0;
    for (size_t i = 0; i < 3; ++i) s += (ix * columnX_[i] + iy * columnY_[i] + q_[i]) * e[i];
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
  Mat<3, 1> q_, columnX_, columnY_;
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

// The sliding problem with Coulomb's law itself: on the cone, with the normal
// velocity zero, the resulting tangential velocity w_t must be opposite to the
// tangential direction t = (cos a, sin a) of the impulse. With
// p = rho (t, 1/mu) and rho = -v.z / D(t), D(t) = G(2,0) cos + G(2,1) sin +
// G(2,2)/mu, the condition w_t x t = 0 times D is a trigonometric polynomial of
// degree two in a:
//   h(t) = D(t) (v_t x t) - v.z ((A t) x t + (g x t)/mu),
// with A the tangential 2x2 block of G and g = (G(0,2), G(1,2)). It has at most
// four roots on the circle. They are bracketed from sixteen directions (a pair
// of roots between two directions shows as an extremum of h that crosses zero)
// and refined by Newton's method on the circle, safeguarded by bisection. A
// root counts where D > 0 (the impulse pushes) and w_t . t <= 0 (slip against
// friction).
class CoulombSliding {
 public:
  CoulombSliding(const Single3DContactProblem& P, const Mat<3, 1>& v)
      : vx_(v[0]), vy_(v[1]), vz_(v[2]), mi_(P.muInverse) {
    const Mat<3, 3>& G = P.delassus;
    b0_ = G(2, 0), b1_ = G(2, 1), gm_ = P.normalDelassusOverMu;
    a00_ = G(0, 0), a01_ = G(0, 1), a10_ = G(1, 0), a11_ = G(1, 1);
    g0_ = G(0, 2), g1_ = G(1, 2);
    kcc_ = -b0_ * vy_ + vz_ * a10_;
    kss_ = b1_ * vx_ - vz_ * a01_;
    kcs_ = b0_ * vx_ - b1_ * vy_ - vz_ * (a00_ - a11_);
    kc_ = -gm_ * vy_ + vz_ * mi_ * g1_;
    ks_ = gm_ * vx_ - vz_ * mi_ * g0_;
  }

  // h and its first two derivatives with respect to the angle.
  double h(double c, double s) const { return c * (kcc_ * c + kcs_ * s + kc_) + s * (kss_ * s + ks_); }
  double dh(double c, double s) const {
    return 2.0 * (kss_ - kcc_) * c * s + kcs_ * (c * c - s * s) - kc_ * s + ks_ * c;
  }
  double ddh(double c, double s) const {
    return 2.0 * (kss_ - kcc_) * (c * c - s * s) - 4.0 * kcs_ * c * s - kc_ * c - ks_ * s;
  }
  double D(double c, double s) const { return b0_ * c + b1_ * s + gm_; }
  // w_t . t at the impulse of direction (c, s).
  double slipAlong(double c, double s) const {
    const double d = D(c, s);
    const double at = c * (a00_ * c + a01_ * s) + s * (a10_ * c + a11_ * s) + mi_ * (g0_ * c + g1_ * s);
    return (d * (vx_ * c + vy_ * s) - vz_ * at) / d;
  }
  double vz() const { return vz_; }
  double velocityScale() const { return std::abs(vx_) + std::abs(vy_) + std::abs(vz_); }

  // The root of h (or, with `extremum`, of dh) on the arc from (c0, s0)
  // counter-clockwise to (c1, s1), shorter than a half turn, where the
  // function changes sign; f0 is its value at the start.
  void refine(bool extremum, double c0, double s0, double f0, double c1, double s1, double& c, double& s) const {
    c = c0 + c1, s = s0 + s1;
    normalize(c, s);
    for (int iter = 0; iter < 60; ++iter) {
      const double f = extremum ? dh(c, s) : h(c, s);
      if (f == 0.0) return;
      if ((f < 0) == (f0 < 0)) {
        c0 = c, s0 = s, f0 = f;
      } else {
        c1 = c, s1 = s;
      }
      const double step = -f / (extremum ? ddh(c, s) : dh(c, s));
      double cn = c - step * s, sn = s + step * c;
      normalize(cn, sn);
      // Newton's step when it stays strictly inside the bracket, else bisection.
      if (!(cross(c0, s0, cn, sn) > 0.0 && cross(cn, sn, c1, s1) > 0.0)) {
        cn = c0 + c1, sn = s0 + s1;
        normalize(cn, sn);
      }
      const double moved = std::abs(cross(c, s, cn, sn));
      c = cn, s = sn;
      if (moved < 1e-15) return;
    }
  }

 private:
  static double cross(double c0, double s0, double c1, double s1) { return c0 * s1 - s0 * c1; }
  static void normalize(double& c, double& s) {
    const double n = std::sqrt(c * c + s * s);
    c /= n, s /= n;
  }

  double vx_, vy_, vz_, mi_;
  double b0_, b1_, gm_, a00_, a01_, a10_, a11_, g0_, g1_;
  double kcc_, kss_, kcs_, kc_, ks_;
};

// Directions k pi/8, k = 0..15.
constexpr double kRingCos[16] = {1.0,  0.92387953251128674,  0.70710678118654757,  0.38268343236508984,
                                 0.0,  -0.38268343236508984, -0.70710678118654757, -0.92387953251128674,
                                 -1.0, -0.92387953251128674, -0.70710678118654757, -0.38268343236508984,
                                 0.0,  0.38268343236508984,  0.70710678118654757,  0.92387953251128674};
constexpr double kRingSin(int k) { return kRingCos[(k + 12) % 16]; }

inline bool opposite(double a, double b) { return (a < 0.0 && b > 0.0) || (a > 0.0 && b < 0.0); }

// Returns false when no root qualifies; the caller then falls back on the
// energy-minimising direction. The root that Newton's method reaches from the
// free impulse's direction is taken; failing that, of all roots the one
// nearest to that direction.
bool solveSlidingCoulomb(Single3DContactProblem& P, const Mat<3, 1>& v) {
  const CoulombSliding sliding(P, v);
  if (sliding.vz() >= 0) {  // nothing to hold: the normal-zeroing impulse is not pushing
    P.impulse.setZero();
    return true;
  }
  const double fx = P.impulse[0], fy = P.impulse[1];  // the free solution's tangential direction
  const double slack = 1e-9 * sliding.velocityScale();

  // Mostly the root lies near the free impulse's direction (exactly there for
  // a block that does not couple the normal with the tangents and is
  // isotropic in them): Newton's method from there, a few steps at most.
  {
    const double n = std::sqrt(fx * fx + fy * fy);
    double c = fx / n, s = fy / n;
    for (int iter = 0; iter < 6 && n > 0.0; ++iter) {
      const double step = -sliding.h(c, s) / sliding.dh(c, s);
      if (!(std::abs(step) < 0.5)) break;
      double cn = c - step * s, sn = s + step * c;
      const double m = std::sqrt(cn * cn + sn * sn);
      c = cn / m, s = sn / m;
      if (std::abs(step) < 1e-13) {
        if (sliding.D(c, s) > 0.0 && sliding.slipAlong(c, s) <= slack) {
          const double rho = -sliding.vz() / sliding.D(c, s);
          P.impulse = {rho * c, rho * s, rho * P.muInverse};
          return true;
        }
        break;
      }
    }
  }

  // Otherwise every root on the circle.
  double hs[16], ds[16];
  for (int k = 0; k < 16; ++k) {
    hs[k] = sliding.h(kRingCos[k], kRingSin(k));
    ds[k] = sliding.dh(kRingCos[k], kRingSin(k));
  }

  bool found = false;
  double bestC = 0.0, bestS = 0.0, bestAlign = 0.0;
  auto consider = [&](double c, double s) {
    if (!(sliding.D(c, s) > 0.0) || !(sliding.slipAlong(c, s) <= slack)) return;
    const double align = c * fx + s * fy;
    if (!found || align > bestAlign) {
      found = true;
      bestC = c, bestS = s, bestAlign = align;
    }
  };
  for (int k = 0; k < 16; ++k) {
    const int n = (k + 1) % 16;
    const double c0 = kRingCos[k], s0 = kRingSin(k), c1 = kRingCos[n], s1 = kRingSin(n);
    double c, s;
    if (hs[k] == 0.0) {
      consider(c0, s0);
    } else if (opposite(hs[k], hs[n])) {
      sliding.refine(false, c0, s0, hs[k], c1, s1, c, s);
      consider(c, s);
    } else if (opposite(ds[k], ds[n]) && (hs[k] > 0.0) == (ds[k] < 0.0)) {
      // h turns back toward zero inside the arc: if its extremum crosses zero,
      // there is a root on each side of it.
      double ce, se;
      sliding.refine(true, c0, s0, ds[k], c1, s1, ce, se);
      const double he = sliding.h(ce, se);
      if (opposite(he, hs[k])) {
        sliding.refine(false, c0, s0, hs[k], ce, se, c, s);
        consider(c, s);
        sliding.refine(false, ce, se, he, c1, s1, c, s);
        consider(c, s);
      }
    }
  }
  if (!found) return false;
  const double rho = -sliding.vz() / sliding.D(bestC, bestS);
  P.impulse = {rho * bestC, rho * bestS, rho * P.muInverse};
  return true;
}

}  // namespace

void BisectionContactSolver::solve(ProblemList& problems) {
  loopCounter = 0;
  const size_t n = problems.size();

  // One pass over the records: rank, targets, inverses (each problem reads
  // only itself and the objects' free velocities, which nothing changes yet).
  for (auto& P : problems) {
    P.checkRank();
    P.inverseGzz = 1.0 / P.delassus(2, 2);
    if (P.rank == 5) continue;
    const Mat<3, 3>& G = P.delassus;
    P.normalDelassusOverMu = P.muInverse * G(2, 2);
    Mat<3, 1> v;
    contactVelocity(P, v);
    P.targetNormalVel = std::max(0.0, ((v[2] - 2.0 * P.impactVel) - P.restitutionThreshold) * (P.restitution + erp2));
    P.targetNormalVel -= P.depth * erp;
    if (P.rank == 3 || P.rank == 9) invert33(G, P.delassusInverse);
    if ((P.rank == 2 || P.rank == 3) && P.mu == 0.0) P.impulse[0] = P.impulse[1] = 0.0;
  }

  const double limit = double(n) * threshold;

  if (warmStart) {
    // Start from the impulses the problems hold: apply them all before the
    // first sweep, now that the targets are set from the free velocities.
    const Mat<3, 1> zero{};
    for (auto& P : problems) {
      if (P.rank == 0) {
        P.impulse.setZero();
      } else if (P.impulse[0] != 0.0 || P.impulse[1] != 0.0 || P.impulse[2] != 0.0) {
        if (P.rank == 5)
          P.objectA->applyJointLimitImpulse(P);
        else
          applyImpulseChange(P, zero);
      }
    }
  }

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
      if (mz * mz < x * x + y * y || z < 0) {
        if (!exactCoulomb || !solveSlidingCoulomb(P, v)) solveSliding(P, c, v);
      }
      applyImpulseChange(P, p0);
    }
    ++loopCounter;
  } while (loopCounter < maxIter && error > limit);
}

}  // namespace contact
}  // namespace vorsim
