#include "vorsim/contact/Single3DContactProblem.hpp"

#include <algorithm>

namespace vorsim {
namespace contact {

namespace {
// The full classification of a block that the quick test in checkRank could
// not clear; kept out of line so that the common case stays small.
__attribute__((noinline)) void classifyFully(Single3DContactProblem& p) {
  const Mat<3, 3>& G = p.delassus;
  const double Gzz = G(2, 2);
  const Mat<3, 1> g0{G(0, 0), G(1, 0), G(2, 0)};
  const Mat<3, 1> g1{G(0, 1), G(1, 1), G(2, 1)};
  const Mat<3, 1> g2{G(0, 2), G(1, 2), G(2, 2)};
  const double n0 = g0.norm(), n1 = g1.norm(), n2 = g2.norm();
  const double nmax = std::max(n0, std::max(n1, n2));
  const Mat<3, 1> u0{g0[0] / n0, g0[1] / n0, g0[2] / n0};
  const Mat<3, 1> u1{g1[0] / n1, g1[1] / n1, g1[2] / n1};
  const Mat<3, 1> u2{g2[0] / n2, g2[1] / n2, g2[2] / n2};
  const double d12 = dot(u1, u2), d02 = dot(u0, u2);
  const bool dependent0 = n0 < nmax * 1e-5 || d02 * d02 > 0.999999999;
  const bool dependent1 = n1 < nmax * 1e-5 || d12 * d12 > 0.999999999;

  if (n2 < 1e-12 || Gzz * Gzz < 1e-15) {
    p.rank = 0;
    return;
  }
  if (dependent0 && dependent1) {
    p.rank -= 2;
    Mat<3, 1> Gg2;
    matvecmul(G, g2, Gg2);
    p.rankOneDelassus = dot(g2, Gg2);
    return;
  }

  Mat<3, 1>& b0 = p.basis[0];
  Mat<3, 1>& b1 = p.basis[1];
  if (dependent0) {
    for (size_t i = 0; i < 3; ++i) b0[i] = u1[i] - d12 * u2[i];
  } else if (dependent1) {
    for (size_t i = 0; i < 3; ++i) b0[i] = u0[i] - d02 * u2[i];
  } else {
    for (size_t i = 0; i < 3; ++i) {
      b0[i] = u0[i] - d02 * u2[i];
      b1[i] = u1[i] - d12 * u2[i];
    }
    b0 /= b0.norm();
    b1 /= b1.norm();
    // Full rank unless the two reduced columns are parallel. Written as a
    // negated comparison so that a non-finite block keeps its rank.
    const double c = dot(b0, b1);
    if (!(c * c > 0.999999999)) return;
  }

  p.rank -= 1;
  b0 /= b0.norm();
  b1 = u2;
  Mat<3, 1> Gb0, Gb1;
  matvecmul(G, b0, Gb0);
  matvecmul(G, b1, Gb1);
  Mat<2, 2>& R = p.reducedDelassus;
  R(0, 0) = dot(b0, Gb0);
  R(0, 1) = dot(b0, Gb1);
  R(1, 0) = dot(b1, Gb0);
  R(1, 1) = dot(b1, Gb1);
  const double invDet = 1.0 / (R(1, 1) * R(0, 0) - R(1, 0) * R(0, 1));
  Mat<2, 2>& Ri = p.reducedDelassusInverse;
  Ri(0, 0) = R(1, 1) * invDet;
  Ri(1, 1) = R(0, 0) * invDet;
  Ri(0, 1) = -R(0, 1) * invDet;
  Ri(1, 0) = -R(1, 0) * invDet;
}

}  // namespace

void Single3DContactProblem::checkRank() {
  if (rank == 5) return;
  const Mat<3, 3>& G = delassus;
  const double Gzz = G(2, 2);
  if (rank == 4) {
    rankOneDelassus = 1.0 / Gzz;
    return;
  }
  if (rank != 3 && rank != 9) return;

  // Most blocks are far from singular. With h = |det G| / (|g0| |g1| |g2|),
  // every pair of columns, and the two columns reduced against g2, make an
  // angle whose sine is at least h; h > 0.01 and columns within a factor 1e4
  // of each other's length keep every test below far from its threshold, so
  // the block keeps its rank without the normalised columns being formed.
  // (The margins dwarf the rounding of det and of the tests.) Anything else,
  // NaN included, takes the full classification.
  {
    const double s0 = G(0, 0) * G(0, 0) + G(1, 0) * G(1, 0) + G(2, 0) * G(2, 0);
    const double s1 = G(0, 1) * G(0, 1) + G(1, 1) * G(1, 1) + G(2, 1) * G(2, 1);
    const double s2 = G(0, 2) * G(0, 2) + G(1, 2) * G(1, 2) + G(2, 2) * G(2, 2);
    const double det = G(0, 0) * (G(1, 1) * G(2, 2) - G(1, 2) * G(2, 1)) +
                       G(0, 1) * (G(1, 2) * G(2, 0) - G(1, 0) * G(2, 2)) +
                       G(0, 2) * (G(1, 0) * G(2, 1) - G(1, 1) * G(2, 0));
    const double smax = std::max(s0, std::max(s1, s2));
    if (s2 > 1e-20 && Gzz * Gzz >= 1e-15 && std::min(s0, s1) > 1e-8 * smax && det * det > 1e-4 * (s0 * s1 * s2)) return;
  }
  classifyFully(*this);
}

}  // namespace contact
}  // namespace vorsim
