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

}  // namespace internal
}  // namespace vorsim

#endif  // VORSIM_SKEW_PRODUCTS_HPP
