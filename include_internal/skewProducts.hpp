// Products of a 3x3 matrix with the cross-product matrix skew(r) of a vector,
// written out so that no skew matrix is formed: the articulated-body passes
// and the contact sweeps shift inertias and responses between body origins.
#ifndef VORSIM_SKEW_PRODUCTS_HPP
#define VORSIM_SKEW_PRODUCTS_HPP

#include <Eigen/Core>

namespace vorsim {
namespace internal {

// M skew(r), column by column.
inline Eigen::Matrix3d timesSkew(const Eigen::Matrix3d& M, const Eigen::Vector3d& r) {
  Eigen::Matrix3d out;
  out.col(0) = r(2) * M.col(1) - r(1) * M.col(2);
  out.col(1) = r(0) * M.col(2) - r(2) * M.col(0);
  out.col(2) = r(1) * M.col(0) - r(0) * M.col(1);
  return out;
}

// skew(r) M, row by row.
inline Eigen::Matrix3d skewTimes(const Eigen::Vector3d& r, const Eigen::Matrix3d& M) {
  Eigen::Matrix3d out;
  out.row(0) = r(1) * M.row(2) - r(2) * M.row(1);
  out.row(1) = r(2) * M.row(0) - r(0) * M.row(2);
  out.row(2) = r(0) * M.row(1) - r(1) * M.row(0);
  return out;
}

// Spatial vectors (linear part first) reached entry by entry through at(k),
// so that the same shift serves one vector or lanes of several problems at
// once; r runs from the parent's origin to the child's.

// A force's moment moved to the parent's origin, in place: m += r x f.
template <class At, class R>
inline void forceToParent(At f, const R& r) {
  f(3) += r[1] * f(2) - r[2] * f(1);
  f(4) += r[2] * f(0) - r[0] * f(2);
  f(5) += r[0] * f(1) - r[1] * f(0);
}

// The parent's acceleration ap at the child's origin, the point rigidly
// attached to the parent, into a: a = ap, v += w x r.
template <class At, class AtParent, class R>
inline void motionFromParent(At a, AtParent ap, const R& r) {
  a(0) = ap(0) + (ap(4) * r[2] - ap(5) * r[1]);
  a(1) = ap(1) + (ap(5) * r[0] - ap(3) * r[2]);
  a(2) = ap(2) + (ap(3) * r[1] - ap(4) * r[0]);
  a(3) = ap(3);
  a(4) = ap(4);
  a(5) = ap(5);
}

}  // namespace internal
}  // namespace vorsim

#endif  // VORSIM_SKEW_PRODUCTS_HPP
