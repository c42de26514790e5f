#include "vorsim/object/SingleBodyObject.hpp"

#include "vorsim/Collision.hpp"
#include "vorsim/World.hpp"

#include <cmath>

#include "lanes.hpp"

namespace vorsim {

namespace {
inline Mat<3, 1> add(const Mat<3, 1>& a, const Mat<3, 1>& b) { return {a[0] + b[0], a[1] + b[1], a[2] + b[2]}; }
inline Mat<3, 1> sub(const Mat<3, 1>& a, const Mat<3, 1>& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
inline Mat<3, 1> scale(const Mat<3, 1>& a, double s) { return {a[0] * s, a[1] * s, a[2] * s}; }
inline Mat<3, 1> mul(const Mat<3, 3>& R, const Mat<3, 1>& x) {
  Mat<3, 1> y;
  matvecmul(R, x, y);
  return y;
}
inline Mat<3, 1> mulT(const Mat<3, 3>& R, const Mat<3, 1>& x) {
  return {R(0, 0) * x[0] + R(1, 0) * x[1] + R(2, 0) * x[2], R(0, 1) * x[0] + R(1, 1) * x[1] + R(2, 1) * x[2],
          R(0, 2) * x[0] + R(1, 2) * x[1] + R(2, 2) * x[2]};
}
// A column of three: rows 0 and 1 as one two-lane vector, row 2 apart.
// Lane arithmetic is the scalar arithmetic of each element, two at once.
struct Col3 {
  Lanes2 xy;
  double z;
  double lane(int k) const { return xy[k]; }
};
// (a s0 + b s1) + c s2, element by element.
inline Col3 combine(const Col3& a, const Col3& b, const Col3& c, double s0, double s1, double s2) {
  const Lanes2 v0 = {s0, s0}, v1 = {s1, s1}, v2 = {s2, s2};
  return {a.xy * v0 + b.xy * v1 + c.xy * v2, a.z * s0 + b.z * s1 + c.z * s2};
}
// similarityTransform(r, s1, out1) and similarityTransform(r, s2, out2) at
// once, the first in lane 0 and the second in lane 1: every element is the
// same sum of the same products in the same order. The outputs may alias s1
// or s2, not r.
inline void similarityTransformPair(const Mat<3, 3>& r, const Mat<3, 3>& s1, const Mat<3, 3>& s2, Mat<3, 3>& out1,
                                    Mat<3, 3>& out2) {
  Lanes2 s[9], rb[9];
  for (size_t m = 0; m < 9; ++m) {
    s[m] = Lanes2{s1.v[m], s2.v[m]};
    rb[m] = Lanes2{r.v[m], r.v[m]};
  }
  // t = r * s^T: t(i, k) = r(i, 0) s(k, 0) + r(i, 1) s(k, 1) + r(i, 2) s(k, 2).
  Lanes2 t[9];
  for (size_t i = 0; i < 3; ++i)
    for (size_t k = 0; k < 3; ++k) t[i + 3 * k] = rb[i] * s[k] + rb[i + 3] * s[k + 3] + rb[i + 6] * s[k + 6];
  // Lower part of t * r^T: o(i, j) = t(i, 0) r(j, 0) + t(i, 1) r(j, 1) + t(i, 2) r(j, 2).
  Lanes2 o[6];
  size_t idx = 0;
  for (size_t j = 0; j < 3; ++j)
    for (size_t i = j; i < 3; ++i) o[idx++] = t[i] * rb[j] + t[i + 3] * rb[j + 3] + t[i + 6] * rb[j + 6];
  const size_t row[6] = {0, 1, 2, 1, 2, 2}, col[6] = {0, 0, 0, 1, 1, 2};
  for (size_t q = 0; q < 6; ++q) {
    out1(row[q], col[q]) = out1(col[q], row[q]) = o[q][0];
    out2(row[q], col[q]) = out2(col[q], row[q]) = o[q][1];
  }
}
// The Delassus blocks of `count` contact records of one body, W records at a
// time in lanes of type L, lane k for record i + k (lanes past the last record
// repeat it): D = F S I^-1 S^T F^T + I/m per record, with S the skew matrix of
// the arm r = com - position and F the frame: M = I^-1 S^T, the lower part of
// S M (the upper mirrors it), T = F (S M)^T, and the lower part of T F^T.
// Every element is a sum over k = 0, 1, 2 in that order, the products with
// the zeros of S included (they decide the sign of zeros). Each record's frame
// and arm go to points[i]. A macro, so that the AVX copy is compiled for AVX
// as a whole.
#define VORSIM_CONTACT_BLOCKS(L, W, GATHER)                                                                      \
  {                                                                                                              \
    L Ib[3][3], zero, im, cm[3];                                                                                 \
    for (size_t k = 0; k < W; ++k) {                                                                             \
      for (size_t row = 0; row < 3; ++row)                                                                       \
        for (size_t col = 0; col < 3; ++col) Ib[row][col][k] = I(row, col);                                      \
      for (size_t e = 0; e < 3; ++e) cm[e][k] = com[e];                                                          \
      zero[k] = 0.0;                                                                                             \
      im[k] = inverseMass;                                                                                       \
    }                                                                                                            \
    for (size_t i = 0; i < count; i += W) {                                                                      \
      const double *fp[W], *pp[W];                                                                               \
      for (size_t k = 0; k < W; ++k) {                                                                           \
        const Contact& c = contacts[i + k < count ? i + k : count - 1];                                          \
        fp[k] = c.frame.v;                                                                                       \
        pp[k] = c.position.v;                                                                                    \
      }                                                                                                          \
      L r[3], F[3][3];                                                                                           \
      for (size_t e = 0; e < 3; ++e) r[e] = cm[e] - GATHER(pp, e);                                               \
      for (size_t row = 0; row < 3; ++row)                                                                       \
        for (size_t col = 0; col < 3; ++col) F[row][col] = GATHER(fp, row + 3 * col);                            \
      const L S[3][3] = {{zero, -r[2], r[1]}, {r[2], zero, -r[0]}, {-r[1], r[0], zero}};                         \
      /* M(row, b) = I(row, 0) S(b, 0) + I(row, 1) S(b, 1) + I(row, 2) S(b, 2) */                                \
      L M[3][3];                                                                                                 \
      for (size_t row = 0; row < 3; ++row)                                                                       \
        for (size_t b = 0; b < 3; ++b) M[row][b] = Ib[row][0] * S[b][0] + Ib[row][1] * S[b][1] + Ib[row][2] * S[b][2]; \
      /* L(row, j) = S(row, 0) M(0, j) + S(row, 1) M(1, j) + S(row, 2) M(2, j), lower part */                     \
      L Ds[3][3];                                                                                                \
      for (size_t j = 0; j < 3; ++j)                                                                             \
        for (size_t row = j; row < 3; ++row)                                                                     \
          Ds[row][j] = Ds[j][row] = S[row][0] * M[0][j] + S[row][1] * M[1][j] + S[row][2] * M[2][j];             \
      /* T(row, k) = F(row, 0) Ds(k, 0) + F(row, 1) Ds(k, 1) + F(row, 2) Ds(k, 2) */                             \
      L T[3][3];                                                                                                 \
      for (size_t row = 0; row < 3; ++row)                                                                       \
        for (size_t k = 0; k < 3; ++k) T[row][k] = F[row][0] * Ds[k][0] + F[row][1] * Ds[k][1] + F[row][2] * Ds[k][2]; \
      /* (T F^T)(row, j) = T(row, 0) F(j, 0) + T(row, 1) F(j, 1) + T(row, 2) F(j, 2), lower part */               \
      L D[3][3];                                                                                                 \
      for (size_t j = 0; j < 3; ++j)                                                                             \
        for (size_t row = j; row < 3; ++row) D[row][j] = T[row][0] * F[j][0] + T[row][1] * F[j][1] + T[row][2] * F[j][2]; \
      for (size_t k = 0; k < 3; ++k) D[k][k] = D[k][k] + im;                                                     \
      for (size_t k = 0; k < W && i + k < count; ++k) {                                                          \
        Contact& c = contacts[i + k];                                                                            \
        SingleBodyObject::ContactPoint& cp = points[i + k];                                                      \
        cp.frame = c.frame;                                                                                      \
        cp.arm = {r[0][k], r[1][k], r[2][k]};                                                                    \
        Mat<3, 3>& Dc = c.delassus;                                                                              \
        for (size_t j = 0; j < 3; ++j)                                                                           \
          for (size_t row = j; row < 3; ++row) Dc(row, j) = Dc(j, row) = D[row][j][k];                           \
      }                                                                                                          \
    }                                                                                                            \
  }

void contactBlocks2(const Mat<3, 3>& I, const Mat<3, 1>& com, double inverseMass, Contact* contacts, size_t count,
                    SingleBodyObject::ContactPoint* points) VORSIM_CONTACT_BLOCKS(Lanes2, 2, gatherLanes2)

#if VORSIM_HAVE_AVX_LANES
// Four lanes where the processor has AVX.
__attribute__((target("avx"))) void contactBlocks4(const Mat<3, 3>& I, const Mat<3, 1>& com, double inverseMass,
                                                   Contact* contacts, size_t count,
                                                   SingleBodyObject::ContactPoint* points)
    VORSIM_CONTACT_BLOCKS(Lanes4, 4, gatherLanes4)
#endif
#undef VORSIM_CONTACT_BLOCKS

inline Mat<3, 3> inverse33(const Mat<3, 3>& m) {
  Mat<3, 3> out;
  invert33(m, out);
  return out;
}
}  // namespace

void rotationIntegration(const Mat<3, 3>& R, Mat<3, 3>& Rout, double dt, const Mat<3, 1>& w) {
  const double s = w.norm();
  const double theta = s * dt;
  if (theta < 1e-11) {
    Rout = R;
    return;
  }
  const Lanes2 axy = Lanes2{w[0], w[1]} / Lanes2{s, s};
  const double ax = axy[0], ay = axy[1], az = w[2] / s;
  const double sn = std::sin(theta), c1 = 1.0 - std::cos(theta);
  // The columns of D, rows 0 and 1 in lanes.
  const Col3 D0{Lanes2{1.0 - c1 * (ay * ay + az * az), sn * az + c1 * ax * ay}, -sn * ay + c1 * ax * az};
  const Col3 D1{Lanes2{-sn * az + c1 * ax * ay, 1.0 - c1 * (ax * ax + az * az)}, sn * ax + c1 * ay * az};
  const Col3 D2{Lanes2{sn * ay + c1 * ax * az, -sn * ax + c1 * ay * az}, 1.0 - c1 * (ax * ax + ay * ay)};
  // Rout = D R, column by column (as matmul: D(i, 0) R(0, j) + D(i, 1) R(1, j)
  // + D(i, 2) R(2, j)); every column is formed before Rout is written.
  const Col3 c0 = combine(D0, D1, D2, R(0, 0), R(1, 0), R(2, 0));
  const Col3 c1R = combine(D0, D1, D2, R(0, 1), R(1, 1), R(2, 1));
  const Col3 c2 = combine(D0, D1, D2, R(0, 2), R(1, 2), R(2, 2));
  Rout(0, 0) = c0.lane(0), Rout(1, 0) = c0.lane(1), Rout(2, 0) = c0.z;
  Rout(0, 1) = c1R.lane(0), Rout(1, 1) = c1R.lane(1), Rout(2, 1) = c1R.z;
  Rout(0, 2) = c2.lane(0), Rout(1, 2) = c2.lane(1), Rout(2, 2) = c2.z;
}

void evalEulerEqn(const Mat<3, 1>& w, const Mat<3, 1>& wOld, const Mat<3, 1>& torque, double dt,
                  const Mat<3, 3>& inertia, Mat<3, 1>& out) {
  const Mat<3, 1> Iw = mul(inertia, w);
  const Mat<3, 1> IwOld = mul(inertia, wOld);
  const Mat<3, 1> gyro = cross(w, Iw);
  for (size_t i = 0; i < 3; ++i) out[i] = Iw[i] + dt * gyro[i] - (IwOld[i] + dt * torque[i]);
}

void evalEulerEqnDeriv(const Mat<3, 1>& w, const Mat<3, 1>& /*wOld*/, double dt, const Mat<3, 3>& inertia,
                       Mat<3, 3>& out) {
  const Mat<3, 1> Iw = mul(inertia, w);
  const Eigen::Matrix3d d = inertia.e() + dt * (skewMatEigen(w.e()) * inertia.e() - skewMatEigen(Iw.e()));
  out = d;
}

// ------------------------------------------------------- bodies in lanes --
//
// The rotation and angular velocity part of SingleBodyObject::integrate for W
// bodies at once, lane k for body k, in lanes of type L. Every lane does the
// scalar path's operations in its order (sums left to right, the same
// products, no fused steps); sine and cosine stay scalar library calls per
// lane, and the copy of R below |w| dt < 1e-11 is a per-lane select. Macros,
// so that the AVX copy is compiled for AVX as a whole.

// dst[m] = lanes of field.v[off + m], m < n, from bodies b[0 .. W).
#define VORSIM_LANES_LOAD(W, GATHER, dst, field, off, n) \
  for (size_t m = 0; m < n; ++m) {                       \
    const double* q[W];                                  \
    for (size_t k = 0; k < W; ++k) q[k] = b[k]->field.v + off + m; \
    dst[m] = GATHER(q, 0);                               \
  }

// y = a x, a column-major 3x3 (as matvecmul).
#define VORSIM_LANES_MATVEC(L, a, x, y)                            \
  {                                                                \
    const L y0_ = a[0] * x[0] + a[3] * x[1] + a[6] * x[2];          \
    const L y1_ = a[1] * x[0] + a[4] * x[1] + a[7] * x[2];          \
    const L y2_ = a[2] * x[0] + a[5] * x[1] + a[8] * x[2];          \
    y[0] = y0_, y[1] = y1_, y[2] = y2_;                            \
  }

// o = r s r^T (as similarityTransformPair, per lane).
#define VORSIM_LANES_SIMILARITY(L, r, s, o)                                                        \
  {                                                                                                \
    L t_[9];                                                                                       \
    for (size_t i = 0; i < 3; ++i)                                                                 \
      for (size_t k = 0; k < 3; ++k) t_[i + 3 * k] = r[i] * s[k] + r[i + 3] * s[k + 3] + r[i + 6] * s[k + 6]; \
    for (size_t j = 0; j < 3; ++j)                                                                 \
      for (size_t i = j; i < 3; ++i) o[i + 3 * j] = o[j + 3 * i] = t_[i] * r[j] + t_[i + 3] * r[j + 3] + t_[i + 6] * r[j + 6]; \
  }

// Rout = D(w h) R (as rotationIntegration); Rout must not alias R.
#define VORSIM_LANES_ROTATION(L, W, GATHER, SQRT, R, Rout, h, w)                                   \
  {                                                                                                \
    const L s_ = SQRT(((zero + w[0] * w[0]) + w[1] * w[1]) + w[2] * w[2]);                         \
    const L theta_ = s_ * (h);                                                                     \
    const L ax = w[0] / s_, ay = w[1] / s_, az = w[2] / s_;                                        \
    double snv_[W], c1v_[W];                                                                       \
    const double *snp_[W], *c1p_[W];                                                               \
    for (size_t k = 0; k < W; ++k) {                                                               \
      snv_[k] = 0.0, c1v_[k] = 0.0;                                                                \
      if (!(theta_[k] < 1e-11)) snv_[k] = std::sin(theta_[k]), c1v_[k] = 1.0 - std::cos(theta_[k]); \
      snp_[k] = &snv_[k], c1p_[k] = &c1v_[k];                                                      \
    }                                                                                              \
    const L sn = GATHER(snp_, 0), c1 = GATHER(c1p_, 0);                                            \
    const L D00 = 1.0 - c1 * (ay * ay + az * az), D10 = sn * az + c1 * ax * ay, D20 = -sn * ay + c1 * ax * az; \
    const L D01 = -sn * az + c1 * ax * ay, D11 = 1.0 - c1 * (ax * ax + az * az), D21 = sn * ax + c1 * ay * az; \
    const L D02 = sn * ay + c1 * ax * az, D12 = -sn * ax + c1 * ay * az, D22 = 1.0 - c1 * (ax * ax + ay * ay); \
    const auto small_ = theta_ < 1e-11;                                                            \
    for (size_t j = 0; j < 3; ++j) {                                                               \
      const L r0 = R[3 * j], r1 = R[3 * j + 1], r2 = R[3 * j + 2];                                 \
      Rout[3 * j] = small_ ? r0 : D00 * r0 + D01 * r1 + D02 * r2;                                  \
      Rout[3 * j + 1] = small_ ? r1 : D10 * r0 + D11 * r1 + D12 * r2;                              \
      Rout[3 * j + 2] = small_ ? r2 : D20 * r0 + D21 * r1 + D22 * r2;                              \
    }                                                                                              \
  }

// out = the angular increment over dt at orientation Rr and velocity w (as
// eulerIntegrate).
#define VORSIM_LANES_EULER(L, Rr, w, out)                                                          \
  {                                                                                                \
    L Iw_[9], IwI_[9], mb_[3], tt_[3], acc_[3], d_[3], y_[3], dt_[3];                              \
    VORSIM_LANES_SIMILARITY(L, Rr, Ib, Iw_)                                                        \
    VORSIM_LANES_SIMILARITY(L, Rr, Ii, IwI_)                                                       \
    VORSIM_LANES_MATVEC(L, Iw_, w, mb_)                                                            \
    tt_[0] = tq[0] - (w[1] * mb_[2] - w[2] * mb_[1]);                                              \
    tt_[1] = tq[1] - (w[2] * mb_[0] - w[0] * mb_[2]);                                              \
    tt_[2] = tq[2] - (w[0] * mb_[1] - w[1] * mb_[0]);                                              \
    VORSIM_LANES_MATVEC(L, IwI_, tt_, acc_)                                                        \
    d_[0] = Rr[0] * w[0] + Rr[1] * w[1] + Rr[2] * w[2];                                            \
    d_[1] = Rr[3] * w[0] + Rr[4] * w[1] + Rr[5] * w[2];                                            \
    d_[2] = Rr[6] * w[0] + Rr[7] * w[1] + Rr[8] * w[2];                                            \
    for (size_t i = 0; i < 3; ++i) d_[i] = dt * ad[i] * d_[i];                                     \
    VORSIM_LANES_MATVEC(L, Ii, d_, y_)                                                             \
    VORSIM_LANES_MATVEC(L, Rr, y_, dt_)                                                            \
    for (size_t i = 0; i < 3; ++i) out[i] = dt * acc_[i] - dt_[i];                                 \
  }

#define VORSIM_BODY_LANES(L, W, GATHER, SQRT)                                                     \
  {                                                                                                \
    SingleBodyObject* b[W];                                                                        \
    for (size_t k = 0; k < W; ++k) b[k] = bodies[k < count ? k : count - 1];                       \
    L zero;                                                                                        \
    for (size_t k = 0; k < W; ++k) zero[k] = 0.0;                                                  \
    L ua[3], fw[3], av[3], R[9], Ib[9], Ii[9], tq[3], ad[3];                                       \
    VORSIM_LANES_LOAD(W, GATHER, ua, generalizedVelocity_, 3, 3)                                   \
    VORSIM_LANES_LOAD(W, GATHER, fw, freeAngularVelocity_, 0, 3)                                   \
    VORSIM_LANES_LOAD(W, GATHER, av, angularVelocity_, 0, 3)                                       \
    VORSIM_LANES_LOAD(W, GATHER, R, rotationMatrix_, 0, 9)                                         \
    VORSIM_LANES_LOAD(W, GATHER, Ib, bodyInertia_, 0, 9)                                           \
    VORSIM_LANES_LOAD(W, GATHER, Ii, bodyInertiaInverse_, 0, 9)                                    \
    VORSIM_LANES_LOAD(W, GATHER, tq, externalTorque_, 0, 3)                                        \
    VORSIM_LANES_LOAD(W, GATHER, ad, angularDamping_, 0, 3)                                        \
    L w0[3], k1[3], W1[3], W2[3], W3[3], Wm[3], k2[3], k3[3], k4[3], x[3], Rk[9], Rn[9];           \
    for (size_t i = 0; i < 3; ++i) w0[i] = av[i] + (ua[i] - fw[i]);                               \
    for (size_t i = 0; i < 3; ++i) k1[i] = ua[i] - w0[i];                                          \
    const double hdt = 0.5 * dt;                                                                   \
    VORSIM_LANES_ROTATION(L, W, GATHER, SQRT, R, Rk, hdt, w0)                                      \
    for (size_t i = 0; i < 3; ++i) W1[i] = (w0[i] + ua[i]) * 0.5;                                  \
    VORSIM_LANES_EULER(L, Rk, W1, k2)                                                              \
    for (size_t i = 0; i < 3; ++i) x[i] = w0[i] + k2[i];                                           \
    VORSIM_LANES_ROTATION(L, W, GATHER, SQRT, R, Rk, hdt, x)                                       \
    for (size_t i = 0; i < 3; ++i) W2[i] = w0[i] + k2[i] * 0.5;                                    \
    VORSIM_LANES_EULER(L, Rk, W2, k3)                                                              \
    for (size_t i = 0; i < 3; ++i) x[i] = w0[i] + k3[i];                                           \
    VORSIM_LANES_ROTATION(L, W, GATHER, SQRT, R, Rk, dt, x)                                        \
    for (size_t i = 0; i < 3; ++i) W3[i] = w0[i] + k3[i];                                          \
    VORSIM_LANES_EULER(L, Rk, W3, k4)                                                              \
    for (size_t i = 0; i < 3; ++i) av[i] = w0[i] + k1[i] / 6.0 + k2[i] / 3.0 + k3[i] / 3.0 + k4[i] / 6.0; \
    for (size_t i = 0; i < 3; ++i) Wm[i] = w0[i] / 6.0 + W1[i] / 3.0 + W2[i] / 3.0 + W3[i] / 6.0;  \
    VORSIM_LANES_ROTATION(L, W, GATHER, SQRT, R, Rn, dt, Wm)                                       \
    /* The quaternion of Rn where every lane takes rotMatToQuat's first case */                    \
    /* (trace above zero), normalised, and its rotation matrix. */                                 \
    const L tr = Rn[0] + Rn[4] + Rn[8];                                                            \
    bool allPositive = true;                                                                       \
    for (size_t k = 0; k < W; ++k) allPositive = allPositive && tr[k] > 0;                         \
    if (allPositive) {                                                                             \
      const L S = 2.0 * SQRT(tr + 1.0);                                                            \
      const L q0 = 0.25 * S, q1 = (Rn[5] - Rn[7]) / S, q2 = (Rn[6] - Rn[2]) / S, q3 = (Rn[1] - Rn[3]) / S; \
      const L qn = SQRT((((zero + q0 * q0) + q1 * q1) + q2 * q2) + q3 * q3);                       \
      const L w = q0 / qn, xq = q1 / qn, y = q2 / qn, z = q3 / qn;                                 \
      L Rq[9];                                                                                     \
      Rq[0] = w * w + xq * xq - y * y - z * z;                                                     \
      Rq[1] = 2 * w * z + 2 * xq * y;                                                              \
      Rq[2] = 2 * xq * z - 2 * w * y;                                                              \
      Rq[3] = 2 * xq * y - 2 * w * z;                                                              \
      Rq[4] = w * w - xq * xq + y * y - z * z;                                                     \
      Rq[5] = 2 * y * z + 2 * w * xq;                                                              \
      Rq[6] = 2 * xq * z + 2 * w * y;                                                              \
      Rq[7] = 2 * y * z - 2 * w * xq;                                                              \
      Rq[8] = w * w - xq * xq - y * y + z * z;                                                     \
      for (size_t k = 0; k < W && k < count; ++k) {                                                \
        SingleBodyObject& body = *b[k];                                                            \
        for (size_t i = 0; i < 3; ++i) body.angularVelocity_[i] = av[i][k];                        \
        body.orientationQuat_ = {w[k], xq[k], y[k], z[k]};                                         \
        for (size_t m = 0; m < 9; ++m) body.rotationMatrix_.v[m] = Rq[m][k];                       \
        body.finishIntegrate(dt, false);                                                           \
      }                                                                                            \
    } else {                                                                                       \
      for (size_t k = 0; k < W && k < count; ++k) {                                                \
        SingleBodyObject& body = *b[k];                                                            \
        for (size_t i = 0; i < 3; ++i) body.angularVelocity_[i] = av[i][k];                        \
        for (size_t m = 0; m < 9; ++m) body.rotationMatrix_.v[m] = Rn[m][k];                       \
        body.finishIntegrate(dt, true);                                                            \
      }                                                                                            \
    }                                                                                              \
  }

struct BodyLanes {
  static void integrate2(SingleBodyObject* const* bodies, size_t count, double dt)
      VORSIM_BODY_LANES(Lanes2, 2, gatherLanes2, sqrtLanes2)
#if VORSIM_HAVE_AVX_LANES
  __attribute__((target("avx"))) static void integrate4(SingleBodyObject* const* bodies, size_t count, double dt)
      VORSIM_BODY_LANES(Lanes4, 4, gatherLanes4, _mm256_sqrt_pd)
#endif
};

#undef VORSIM_BODY_LANES
#undef VORSIM_LANES_EULER
#undef VORSIM_LANES_ROTATION
#undef VORSIM_LANES_SIMILARITY
#undef VORSIM_LANES_MATVEC
#undef VORSIM_LANES_LOAD

SingleBodyObject::SingleBodyObject(ObjectType type) : objectType_(type) {}

SingleBodyObject::~SingleBodyObject() { destroyGeom(collisionObject_); }

// ---------------------------------------------------------------- collision --

void SingleBodyObject::updateCollision() {
  collisionCenter_ = position_;
  setGeomPose(collisionObject_, collisionCenter_, rotationMatrix_);
}

void SingleBodyObject::destroyCollisionBodies(dxSpace* space) {
  if (collisionObject_ == nullptr) return;
  if (space) dSpaceRemove(space, collisionObject_);
  destroyGeom(collisionObject_);
  collisionObject_ = nullptr;
}

void SingleBodyObject::setGeomObjectIndex(size_t index) {
  if (collisionObject_) geomData(collisionObject_).objectIndex = index;
}

uint32_t SingleBodyObject::getCollisionGroup() const { return getCategoryBits(collisionObject_); }
uint32_t SingleBodyObject::getCollisionMask() const { return getCollideBits(collisionObject_); }

// ------------------------------------------------------------- pose, state --

void SingleBodyObject::setPosition(const Mat<3, 1>& pos) {
  position_ = pos;
  comPosition_ = add(position_, mul(rotationMatrix_, comOffset_));
  updateCollision();
}
void SingleBodyObject::setPosition(double x, double y, double z) { setPosition(Mat<3, 1>{x, y, z}); }
void SingleBodyObject::setPosition(const Eigen::Vector3d& pos) { setPosition(Mat<3, 1>{pos(0), pos(1), pos(2)}); }

void SingleBodyObject::setOrientation(const Mat<4, 1>& quat) {
  orientationQuat_ = quat;
  updateOrientation();
}
void SingleBodyObject::setOrientation(double w, double x, double y, double z) { setOrientation(Mat<4, 1>{w, x, y, z}); }
void SingleBodyObject::setOrientation(const Eigen::Vector4d& quat) {
  setOrientation(Mat<4, 1>{quat(0), quat(1), quat(2), quat(3)});
}
void SingleBodyObject::setOrientation(const Eigen::Quaterniond& quat) {
  const double n = quat.norm();
  orientationQuat_ = {quat.w() / n, quat.x() / n, quat.y() / n, quat.z() / n};
  updateOrientation();
}
void SingleBodyObject::setOrientation(const Eigen::Matrix3d& rotation) { setOrientation(Eigen::Quaterniond(rotation)); }

void SingleBodyObject::setPose(const Eigen::Vector3d& pos, const Eigen::Matrix3d& rotation) {
  setPosition(pos);
  setOrientation(rotation);
}
void SingleBodyObject::setPose(const Eigen::Vector3d& pos, const Eigen::Vector4d& quat) {
  setPosition(pos);
  setOrientation(quat);
}
void SingleBodyObject::setPose(const Eigen::Vector3d& pos, const Eigen::Quaterniond& quat) {
  setPosition(pos);
  setOrientation(quat);
}

void SingleBodyObject::setVelocity(double vx, double vy, double vz, double wx, double wy, double wz) {
  linearVelocity_ = {vx, vy, vz};
  angularVelocity_ = {wx, wy, wz};
}
void SingleBodyObject::setVelocity(const Eigen::Vector3d& linear, const Eigen::Vector3d& angular) {
  setVelocity(linear(0), linear(1), linear(2), angular(0), angular(1), angular(2));
}

void SingleBodyObject::updateOrientation() {
  quatToRotMat(orientationQuat_, rotationMatrix_);
  if (bodyType_ == DYNAMIC) updateWorldInertia();
  updateCollision();
}

void SingleBodyObject::updateWorldInertia() {
  if (bodyType_ != DYNAMIC) return;
  similarityTransformPair(rotationMatrix_, bodyInertia_, bodyInertiaInverse_, worldInertia_, worldInertiaInverse_);
}

void SingleBodyObject::initPrimitive(dxGeom* geom, double mass, const Mat<3, 3>& inertia) {
  position_.setZero();
  rotationMatrix_.setIdentity();
  comPosition_ = add(position_, mul(rotationMatrix_, comOffset_));
  collisionObject_ = attachGeomData(geom);
  setMass(mass);
  bodyInertia_ = inertia;
  worldInertia_ = bodyInertia_;
  bodyInertiaInverse_ = inverse33(bodyInertia_);
  worldInertiaInverse_ = bodyInertiaInverse_;
}

void SingleBodyObject::setInertia(const Mat<3, 3>& inertia) {
  bodyInertia_ = inertia;
  bodyInertiaInverse_ = inverse33(inertia);
  updateWorldInertia();
}
void SingleBodyObject::setInertia(const Eigen::Matrix3d& inertia) {
  Mat<3, 3> m;
  m = inertia;
  setInertia(m);
}

void SingleBodyObject::getPosition(size_t, const Mat<3, 1>& posInBody, Mat<3, 1>& posInWorld) const {
  posInWorld = add(position_, mul(rotationMatrix_, posInBody));
}
void SingleBodyObject::getPosition(size_t, Mat<3, 1>& pos) const { pos = position_; }
void SingleBodyObject::getVelocity(size_t, const Mat<3, 1>& posInBody, Mat<3, 1>& velInWorld) const {
  velInWorld = add(linearVelocity_, cross(angularVelocity_, mul(rotationMatrix_, posInBody)));
}
void SingleBodyObject::getVelocity(size_t, Mat<3, 1>& vel) const { vel = linearVelocity_; }
void SingleBodyObject::getOrientation(size_t, Mat<3, 3>& rot) const { rot = rotationMatrix_; }

double SingleBodyObject::getKineticEnergy() const {
  const Mat<3, 1> Iw = mul(worldInertia_, angularVelocity_);
  return 0.5 * (mass_ * linearVelocity_.squaredNorm() + dot(angularVelocity_, Iw));
}

double SingleBodyObject::getPotentialEnergy(const Mat<3, 1>& gravity) const {
  return -mass_ * dot(comPosition_, gravity);
}

Eigen::Vector3d SingleBodyObject::getAngularMomentum() const { return mul(worldInertia_, angularVelocity_).e(); }

// -------------------------------------------------------------------- loads --

void SingleBodyObject::setExternalForce(size_t, const Mat<3, 1>& pos, const Mat<3, 1>& force) {
  const Mat<3, 1> r = mul(rotationMatrix_, sub(pos, comOffset_));
  externalForce_ += force;
  externalTorque_ += cross(r, force);
  externalLoadValues_.push_back(force);
  externalLoadPositions_.push_back(add(position_, r));
  externalForceIsForce_.push_back(true);
}

void SingleBodyObject::setExternalForce(size_t, const Mat<3, 1>& force) {
  externalForce_ += force;
  externalLoadValues_.push_back(force);
  externalLoadPositions_.push_back(comPosition_);
  externalForceIsForce_.push_back(true);
}

void SingleBodyObject::setExternalTorque(size_t, const Mat<3, 1>& torque) {
  externalTorque_ += torque;
  externalLoadValues_.push_back(torque);
  externalLoadPositions_.push_back(comPosition_);
  externalForceIsForce_.push_back(false);
}

void SingleBodyObject::setConstraintForce(size_t, const Mat<3, 1>& pos, const Mat<3, 1>& force) {
  const Mat<3, 1> r = mul(rotationMatrix_, sub(pos, comOffset_));
  externalForce_ += force;
  externalTorque_ += cross(r, force);
  hasConstraintForce_ = true;
}

void SingleBodyObject::clearExternalForcesAndTorques() {
  externalForceIsForce_.clear();
  externalLoadValues_.clear();
  externalLoadPositions_.clear();
  externalForceViz_.clear();
  externalForceVizPos_.clear();
  externalTorqueViz_.clear();
  externalTorqueVizPos_.clear();
}

// -------------------------------------------------------------- contact side --

void SingleBodyObject::getContactPointVel(size_t c, Mat<3, 1>& vel) const {
  contactPointVelocity(c, generalizedVelocity_.v, generalizedVelocity_.v + 3, vel);
}

// --------------------------------------------------------------------- step --

void SingleBodyObject::preContactSolverUpdate1(const Mat<3, 1>&, double) {
  if (bodyType_ == DYNAMIC) {
    similarityTransformPair(rotationMatrix_, bodyInertia_, bodyInertiaInverse_, worldInertia_, worldInertiaInverse_);
  }
  const size_t n = contacts_.size();
  contactPoints_.resize(n);
  contactBlocks(worldInertiaInverse_, comPosition_, inverseMass_, contacts_.data(), n, contactPoints_.data(), 4);
}

void SingleBodyObject::contactBlocks(const Mat<3, 3>& inertiaInverse, const Mat<3, 1>& com, double inverseMass,
                                     Contact* contacts, size_t count, ContactPoint* points, int lanes) {
#if VORSIM_HAVE_AVX_LANES
  if (lanes == 4 && count > 2 && processorHasAvx()) {
    contactBlocks4(inertiaInverse, com, inverseMass, contacts, count, points);
    return;
  }
#endif
  contactBlocks2(inertiaInverse, com, inverseMass, contacts, count, points);
}

void SingleBodyObject::preContactSolverUpdate2(const Mat<3, 1>& gravity, double dt, ContactProblemList&) {
  const Mat<3, 1> v = linearVelocity_;
  const Mat<3, 1> w = angularVelocity_;
  previousLinearVelocity_ = v;

  if (bodyType_ == DYNAMIC) {
    const double d = linearDamping_;
    const Mat<3, 1> a = add(scale(externalForce_, inverseMass_), gravity);
    const double k = d * dt / (0.5 * d * dt + mass_);
    for (size_t i = 0; i < 3; ++i) freeLinearVelocity_[i] = v[i] + a[i] * dt - v[i] * k;

    Mat<3, 1> t;
    VecXMatVec(w, worldInertia_, w, t);
    t = sub(externalTorque_, t);
    const Mat<3, 1> alpha = mul(worldInertiaInverse_, t);
    const Mat<3, 1> wNew = add(w, scale(alpha, dt));
    angularScratch_ = mulT(rotationMatrix_, w);
    for (size_t i = 0; i < 3; ++i) angularScratch_[i] = angularScratch_[i] * angularDamping_[i] * dt;
    freeAngularVelocity_ = sub(wNew, mul(rotationMatrix_, mul(bodyInertiaInverse_, angularScratch_)));
  } else {
    freeLinearVelocity_ = v;
    freeAngularVelocity_ = w;
  }

  for (size_t i = 0; i < 3; ++i) {
    generalizedVelocity_[i] = freeLinearVelocity_[i];
    generalizedVelocity_[i + 3] = freeAngularVelocity_[i];
  }

  for (size_t i = 0; i < contacts_.size(); ++i) {
    Contact& c = contacts_[i];
    const Mat<3, 1> pv = add(v, cross(contactPoints_[i].arm, w));
    c.impactVel = c.frame(2, 0) * pv[0] + c.frame(2, 1) * pv[1] + c.frame(2, 2) * pv[2];
  }

  if (!externalLoadValues_.empty()) {
    externalForceViz_.clear();
    externalForceVizPos_.clear();
    externalTorqueViz_.clear();
    externalTorqueVizPos_.clear();
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
  }
}

void SingleBodyObject::eulerIntegrate(double dt, const Mat<3, 3>& R, const Mat<3, 1>& w, Mat<3, 1>& out) const {
  Mat<3, 3> Iw, IwInv;
  similarityTransformPair(R, bodyInertia_, bodyInertiaInverse_, Iw, IwInv);
  Mat<3, 1> gyro;
  VecXMatVec(w, Iw, w, gyro);
  const Mat<3, 1> acc = mul(IwInv, sub(externalTorque_, gyro));
  Mat<3, 1> damp = mulT(R, w);
  for (size_t i = 0; i < 3; ++i) damp[i] = dt * angularDamping_[i] * damp[i];
  const Mat<3, 1> dampTerm = mul(R, mul(bodyInertiaInverse_, damp));
  for (size_t i = 0; i < 3; ++i) out[i] = dt * acc[i] - dampTerm[i];
}

void SingleBodyObject::integrate(double dt, World&) { integrateAlone(dt); }

void SingleBodyObject::integrateAlone(double dt) {
  const Mat<3, 1> ua{generalizedVelocity_[3], generalizedVelocity_[4], generalizedVelocity_[5]};
  const Mat<3, 3> R = rotationMatrix_;

  // Velocity change by the impulses alone, then the four Runge-Kutta stages; the
  // first stage reuses the free-motion increment of preContactSolverUpdate2.
  const Mat<3, 1> w0 = add(angularVelocity_, sub(ua, freeAngularVelocity_));
  angularVelocity_ = w0;
  const Mat<3, 1> k1 = sub(ua, w0);
  Mat<3, 3> R1, R2, R3;
  Mat<3, 1> k2, k3, k4;

  const Mat<3, 1> W0 = w0;
  rotationIntegration(R, R1, 0.5 * dt, w0);
  const Mat<3, 1> W1 = scale(add(w0, ua), 0.5);
  eulerIntegrate(dt, R1, W1, k2);

  rotationIntegration(R, R2, 0.5 * dt, add(w0, k2));
  const Mat<3, 1> W2 = add(w0, scale(k2, 0.5));
  eulerIntegrate(dt, R2, W2, k3);

  rotationIntegration(R, R3, dt, add(w0, k3));
  const Mat<3, 1> W3 = add(w0, k3);
  eulerIntegrate(dt, R3, W3, k4);

  for (size_t i = 0; i < 3; ++i) angularVelocity_[i] = w0[i] + k1[i] / 6.0 + k2[i] / 3.0 + k3[i] / 3.0 + k4[i] / 6.0;

  Mat<3, 1> Wm;
  for (size_t i = 0; i < 3; ++i) Wm[i] = W0[i] / 6.0 + W1[i] / 3.0 + W2[i] / 3.0 + W3[i] / 6.0;
  rotationIntegration(R, rotationMatrix_, dt, Wm);
  finishIntegrate(dt, true);
}

void SingleBodyObject::finishIntegrate(double dt, bool orientationFromMatrix) {
  if (bodyType_ == DYNAMIC)
    linearVelocity_ = {generalizedVelocity_[0], generalizedVelocity_[1], generalizedVelocity_[2]};

  if (contacts_.empty() && !hasConstraintForce_) {
    for (size_t i = 0; i < 3; ++i) comPosition_[i] += 0.5 * dt * (linearVelocity_[i] + previousLinearVelocity_[i]);
  } else {
    for (size_t i = 0; i < 3; ++i) comPosition_[i] += dt * linearVelocity_[i];
    hasConstraintForce_ = false;
  }

  if (orientationFromMatrix) {
    rotMatToQuat(rotationMatrix_, orientationQuat_);
    orientationQuat_ /= orientationQuat_.norm();
    quatToRotMat(orientationQuat_, rotationMatrix_);
  }

  position_ = sub(comPosition_, mul(rotationMatrix_, comOffset_));
  externalForce_.setZero();
  externalTorque_.setZero();
}

void SingleBodyObject::integrateBodies(SingleBodyObject* const* bodies, size_t count, double dt, int lanes) {
  size_t i = 0;
#if VORSIM_HAVE_AVX_LANES
  if (lanes == 4 && processorHasAvx()) {
    for (; i + 1 < count; i += 4) BodyLanes::integrate4(bodies + i, count - i < 4 ? count - i : 4, dt);
  }
#endif
  for (; i + 1 < count; i += 2) BodyLanes::integrate2(bodies + i, 2, dt);
  if (i < count) bodies[i]->integrateAlone(dt);
}

}  // namespace vorsim
