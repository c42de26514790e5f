#include "vorsim/math.hpp"

#include <algorithm>

namespace vorsim {

void quatToEulerVec(double const* q, double* ev) {
  const double s = std::sqrt(q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
  if (std::abs(s) < 1e-12) {
    ev[0] = ev[1] = ev[2] = 0.0;
    return;
  }
  const double c = std::min(q[0], 1.0);
  const double f = 2.0 * std::acos(c) / s;
  ev[0] = q[1] * f;
  ev[1] = q[2] * f;
  ev[2] = q[3] * f;
}

void eulerVecToQuat(Mat<3, 1> const& ev, Mat<4, 1>& q) {
  const double theta = ev.norm();
  if (theta < 1e-12) {
    q = {1.0, 0.0, 0.0, 0.0};
    return;
  }
  const double inv = 1.0 / theta;
  const double s = std::sin(0.5 * theta);
  q[0] = std::cos(0.5 * theta);
  q[1] = ev[0] * inv * s;
  q[2] = ev[1] * inv * s;
  q[3] = ev[2] * inv * s;
}

namespace {
void rodrigues(Mat<3, 1> const& axis, double s, double c, Mat<3, 3>& R) {
  const double x = axis[0], y = axis[1], z = axis[2];
  const double d = 1.0 - c;
  R(0, 0) = x * x * d + c;
  R(1, 1) = y * y * d + c;
  R(2, 2) = z * z * d + c;
  R(1, 0) = x * y * d + z * s;
  R(0, 1) = x * y * d - z * s;
  R(2, 0) = x * z * d - y * s;
  R(0, 2) = x * z * d + y * s;
  R(2, 1) = y * z * d + x * s;
  R(1, 2) = y * z * d - x * s;
}
}  // namespace

void angleAxisToRotMat(Mat<3, 1> const& axis, double angle, Mat<3, 3>& R) {
  rodrigues(axis, std::sin(angle), std::cos(angle), R);
}

void angleAxisToRotMat2(Mat<3, 1> const& axis, double angle, Mat<3, 3>& R) {
  double s, c;
  polySinCos(angle, s, c);
  rodrigues(axis, s, c, R);
}

void zaxisToRotMat(Mat<3, 1> const& z, Mat<3, 3>& R) {
  const Mat<3, 1> d{-z[0], -z[1], 1.0 - z[2]};
  if (d.squaredNorm() < 1e-18) {
    R.setIdentity();
    return;
  }
  const Mat<3, 1> e{z[0], z[1], z[2] + 1.0};
  if (e.norm() < 1e-8) {
    angleAxisToRotMat(Mat<3, 1>{1.0, 0.0, 0.0}, M_PI, R);
    return;
  }
  Mat<3, 1> axis{-z[1], z[0], 0.0};
  axis /= axis.norm();
  angleAxisToRotMat(axis, std::acos(z[2]), R);
}

}  // namespace vorsim
