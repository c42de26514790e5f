// Contact side of a robot: contact Jacobians in the contact frame, the
// response of the robot to a unit impulse at each contact and the 3x3 Delassus
// block, computed per contact by one sweep over the articulated-body factors
// of the step (no mass-matrix inverse), and the solver's velocity reads and
// impulse writes.
//
// A contact between two bodies of the same robot (a self-collision, or a pin)
// has two records. The owning one (isObjectA) is merged into a Jacobian of the
// relative motion of the two points; its twin is marked skip and serves as
// scratch for the cross terms of the block.
#include <algorithm>

#include "skewProducts.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

namespace vorsim {

namespace {

using internal::forceToParent;
using internal::motionFromParent;
using internal::timesSkew;

using Vec3 = Eigen::Vector3d;
using Mat3 = Eigen::Matrix3d;
using Rows36 = Eigen::Matrix<double, 3, 6, Eigen::RowMajor>;
using ResponseMap = Eigen::Map<Eigen::Matrix<double, 3, Eigen::Dynamic>>;

// Row k of A times x, the terms added in the order of the columns.
inline double rowTimes(const Rows36& A, int k, const double* x) {
  const double* row = A.data() + 6 * k;
  double s = row[0] * x[0];
  for (int i = 1; i < 6; ++i) s += row[i] * x[i];
  return s;
}

inline void addColumn(const SparseJacobian& J, const VecDyn& u, Mat<3, 1>& vel, double sign) {
  for (size_t k = 0; k < J.size; ++k) {
    const double s = sign * u[J.idx[k]];
    const double* col = J.v.v + 3 * k;
    vel[0] += s * col[0];
    vel[1] += s * col[1];
    vel[2] += s * col[2];
  }
}

}  // namespace

bool ArticulatedSystem::isMergedOwner(const Contact& c) const {
  return c.pairObjectIndex == indexInWorld_ && c.isObjectA && c.pairObjectBodyType == DYNAMIC &&
         c.pairContactIndex < contacts_.size();
}

// ---------------------------------------------------------------- Jacobians --

void ArticulatedSystem::preContactSolverUpdate1(const Mat<3, 1>& /*gravity*/, double /*dt*/) {
  // A PD-controlled robot that has had contacts steps with the trapezoid until
  // its coordinates are set anew.
  activeScheme =
      (contactJacobians.empty() || controlMode != PD_PLUS_FEEDFORWARD_TORQUE) ? integrationScheme : TRAPEZOID;
  contactCount = contacts_.size();

  // Storage for new contact entries: room for dof columns each, so that no
  // later step with as many contacts allocates.
  auto growJacobians = [this](std::vector<SparseJacobian>& list) {
    if (list.size() >= contactCount) return;
    const size_t old = list.size();
    list.resize(contactCount);
    for (size_t c = old; c < contactCount; ++c) list[c].resize(dof);
  };
  growJacobians(contactJacobians);
  growJacobians(contactJacobiansLocal);
  if (contactResponse.size() < contactCount) {
    const size_t old = contactResponse.size();
    contactResponse.resize(contactCount);
    for (size_t c = old; c < contactCount; ++c) {
      contactResponse[c].resize(3, dof);
      contactResponse[c].setZero();
    }
  }

  for (size_t c = 0; c < contactCount; ++c)
    getSparseJacobian_internal(contacts_[c].localBodyIndex, contacts_[c].position, contactJacobians[c]);

  // Pairs of this robot's own points become one Jacobian of their relative
  // motion; both ride the same base, so the base columns go.
  for (size_t c = 0; c < contactCount; ++c) {
    Contact& ct = contacts_[c];
    if (!isMergedOwner(ct)) continue;
    const size_t q = ct.pairContactIndex;
    jacoSub(contactJacobians[q], contactJacobians[c], jointType[0] == Joint::FLOATING);
    ct.isSelfCollision = true;
    contacts_[q].skip = true;
  }

  for (size_t c = 0; c < contactCount; ++c)
    if (!contacts_[c].skip) rotateContactJacobian(c);
}

void ArticulatedSystem::rotateContactJacobian(size_t c) {
  const Contact& ct = contacts_[c];
  const SparseJacobian& J = contactJacobians[c];
  SparseJacobian& L = contactJacobiansLocal[c];
  L.resize(J.size);
  const Mat<3, 3>& F = ct.frame;
  size_t start = 0;
  if (jointType[0] == Joint::FLOATING && !ct.isSelfCollision && J.size >= 6) {
    // The base's linear columns are the frame's columns; its angular ones
    // follow from r, the point relative to the base origin.
    const double* r = J.v.v + 9;
    for (size_t m = 0; m < 3; ++m) {
      for (size_t k = 0; k < 3; ++k) L.v(k, m) = F(k, m);
      L.idx[m] = m;
    }
    for (size_t k = 0; k < 3; ++k) {
      const double f0 = F(k, 0), f1 = F(k, 1), f2 = F(k, 2);
      L.v(k, 3) = r[1] * f2 - r[2] * f1;
      L.v(k, 4) = r[2] * f0 - r[0] * f2;
      L.v(k, 5) = r[0] * f1 - r[1] * f0;
    }
    for (size_t m = 3; m < 6; ++m) L.idx[m] = m;
    start = 6;
  }
  for (size_t m = start; m < J.size; ++m) {
    const double x = J.v(0, m), y = J.v(1, m), z = J.v(2, m);
    for (size_t k = 0; k < 3; ++k) L.v(k, m) = F(k, 0) * x + F(k, 1) * y + F(k, 2) * z;
    L.idx[m] = J.idx[m];
  }
}

void ArticulatedSystem::jacoSub(const SparseJacobian& b, SparseJacobian& a, bool skipBase) {
  if (b.size == 0) return;
  if (a.size == 0) {
    a.resize(b.size);
    for (size_t m = 0; m < b.size; ++m) {
      for (size_t k = 0; k < 3; ++k) a.v(k, m) = -b.v(k, m);
      a.idx[m] = b.idx[m];
    }
    return;
  }
  // Copy a into the scratch by hand: assignment would give up its capacity.
  SparseJacobian& t = jacobianScratch;
  t.resize(a.size);
  for (size_t m = 0; m < a.size; ++m) {
    for (size_t k = 0; k < 3; ++k) t.v(k, m) = a.v(k, m);
    t.idx[m] = a.idx[m];
  }
  if (a.capacity < a.size + b.size) {
    // Never in a steady step: contact Jacobians have room for dof columns and
    // the merge of two chains of one tree has at most dof.
    SparseJacobian grown;
    grown.resize(a.size + b.size);
    a = grown;
    a.capacity = grown.capacity;
  }
  const size_t none = size_t(-1);
  size_t i = skipBase ? 6 : 0, j = skipBase ? 6 : 0, out = 0;
  if (i > t.size) i = t.size;
  if (j > b.size) j = b.size;
  while (i < t.size || j < b.size) {
    const size_t ti = i < t.size ? t.idx[i] : none;
    const size_t bj = j < b.size ? b.idx[j] : none;
    if (ti < bj) {
      for (size_t k = 0; k < 3; ++k) a.v(k, out) = t.v(k, i);
      a.idx[out++] = ti;
      ++i;
    } else if (bj < ti) {
      for (size_t k = 0; k < 3; ++k) a.v(k, out) = -b.v(k, j);
      a.idx[out++] = bj;
      ++j;
    } else {
      const double d0 = t.v(0, i) - b.v(0, j), d1 = t.v(1, i) - b.v(1, j), d2 = t.v(2, i) - b.v(2, j);
      a.v(0, out) = d0;
      a.v(1, out) = d1;
      a.v(2, out) = d2;
      a.idx[out] = ti;
      // A column that cancels exactly is dropped (a NaN is kept).
      if (!(d0 == 0.0 && d1 == 0.0 && d2 == 0.0)) ++out;
      ++i;
      ++j;
    }
  }
  a.size = out;
}

// ------------------------------------------------------- responses and blocks --

void ArticulatedSystem::computeContactResponses() {
  const size_t n = std::min(contactCount, contacts_.size());
  if (n == 0 || contactResponse.size() < n) return;
  for (size_t c = 0; c < n; c += kContactsPerSweep) sweepContacts(c, std::min(kContactsPerSweep, n - c));

  // Self-collisions: the response of the relative motion, and the block
  // G = G_AA + G_BB - G_AB - G_BA with the cross term from the twin's response.
  for (size_t c = 0; c < n; ++c) {
    Contact& ct = contacts_[c];
    if (!isMergedOwner(ct) || ct.pairContactIndex >= n) continue;
    const size_t q = ct.pairContactIndex;
    Contact& twin = contacts_[q];
    ResponseMap Rc(contactResponse[c].v, 3, Eigen::Index(dof));
    ResponseMap Rq(contactResponse[q].v, 3, Eigen::Index(dof));
    Rc -= Rq;
    ct.delassus.e() += twin.delassus.e();

    Mat3 K = Mat3::Zero();
    const Vec3 x = twin.position.e();
    for (size_t j = ct.localBodyIndex; j != 0; j = parent[j]) {
      const size_t g = gvIdx[j];
      const Vec3 r = posW[j].e() - x;
      switch (jointType[j]) {
        case Joint::REVOLUTE:
          K.noalias() += r.cross(axisW[j].e()) * Rq.col(Eigen::Index(g)).transpose();
          break;
        case Joint::PRISMATIC:
          K.noalias() += axisW[j].e() * Rq.col(Eigen::Index(g)).transpose();
          break;
        case Joint::SPHERICAL: {
          const Mat3 R = rotW[j].e();
          for (int m = 0; m < 3; ++m) K.noalias() += r.cross(Vec3(R.col(m))) * Rq.col(Eigen::Index(g) + m).transpose();
          break;
        }
        default:
          break;
      }
    }
    if (jointType[0] == Joint::FLOATING) {
      const Vec3 r = posW[0].e() - x;
      for (int m = 0; m < 3; ++m) {
        K.noalias() += Vec3::Unit(m) * Rq.col(m).transpose();
        K.noalias() += r.cross(Vec3::Unit(m)) * Rq.col(3 + m).transpose();
      }
    }
    const Mat3 FK = ct.frame.e() * K;
    ct.delassus.e() -= FK + FK.transpose();
    twin.delassus.e() = K;
  }
  computeImpactVelocities();
}

const std::vector<size_t>& ArticulatedSystem::bodiesByDepth() {
  if (sweepOrder.size() + 1 != nbody) {
    sweepOrder.clear();
    for (size_t b = 1; b < nbody; ++b) sweepOrder.push_back(b);
    std::stable_sort(sweepOrder.begin(), sweepOrder.end(), [this](size_t a, size_t b) { return depth[a] < depth[b]; });
  }
  return sweepOrder;
}

void ArticulatedSystem::sweepContacts(size_t first, size_t count) {
  using Lanes = ContactLanes;
  if (contactLaneVectors.size() != 6 * nbody) contactLaneVectors.resize(6 * nbody);
  if (contactLaneResponse.size() != dof) contactLaneResponse.resize(dof);
  if (contactLanePath.size() != nbody) contactLanePath.resize(nbody);
  Lanes* V = contactLaneVectors.data();   // entry m of body j at V[6 j + m]
  Lanes* L = contactLaneResponse.data();  // gv index i at L[i]
  for (size_t i = 0; i < dof; ++i) L[i].setZero();
  std::fill(contactLanePath.begin(), contactLanePath.end(), uint8_t(0));
  // The pass up reads the bodies on the paths and the root, where every
  // lane that no contact reaches must hold zeros; the pass down writes all.
  for (size_t m = 0; m < 6; ++m) V[m].setZero();
  for (size_t q = 0; q < count; ++q)
    for (size_t j = contacts_[first + q].localBodyIndex; j != 0; j = parent[j])
      for (size_t m = 0; m < 6; ++m) V[6 * j + m].setZero();

  // Lane 3 q + k of contact q: the spatial force of a unit impulse along
  // contact axis k, about the body's origin, put at the contact's body.
  Rows36 F0[kContactsPerSweep];
  size_t bodyOf[kContactsPerSweep];
  for (size_t q = 0; q < count; ++q) {
    const Contact& ct = contacts_[first + q];
    const size_t b = ct.localBodyIndex;
    bodyOf[q] = b;
    const Mat3 F = ct.frame.e();
    F0[q].leftCols<3>() = F;
    F0[q].rightCols<3>() = timesSkew(F, posW[b].e() - ct.position.e());
    for (int m = 0; m < 6; ++m)
      for (int k = 0; k < 3; ++k) V[6 * b + size_t(m)](3 * Eigen::Index(q) + k) = F0[q](k, m);
    contactLanePath[b] |= uint8_t(16u << q);
    for (size_t j = b; j != 0; j = parent[j]) contactLanePath[j] |= uint8_t(1u << q);
  }

  // Gathers and scatters of one contact's three lanes, for the joints whose
  // terms are whole matrices (spherical).
  auto gather = [](const Lanes* x, size_t q, Rows36& A) {
    for (int m = 0; m < 6; ++m)
      for (int k = 0; k < 3; ++k) A(k, m) = x[m](3 * Eigen::Index(q) + k);
  };
  auto scatter = [](const Rows36& A, size_t q, Lanes* x) {
    for (int m = 0; m < 6; ++m)
      for (int k = 0; k < 3; ++k) x[m](3 * Eigen::Index(q) + k) = A(k, m);
  };

  // Up the paths: each joint takes its share of the impulse, and passes on
  // the rest. A lane off a joint's path holds zeros there.
  const std::vector<size_t>& order = bodiesByDepth();
  for (auto it = order.rbegin(); it != order.rend(); ++it) {
    const size_t j = *it;
    const unsigned path = contactLanePath[j] & 15u;
    if (path == 0) continue;
    Lanes* f = V + 6 * j;
    Lanes* Lj = L + gvIdx[j];
    if (jointType[j] == Joint::SPHERICAL) {
      const AbaData3& d3 = abaData3[j];
      for (size_t q = 0; q < count; ++q) {
        if (!(path >> q & 1u)) continue;
        Rows36 response, pass;
        gather(f, q, response);
        const Mat3 T = response * d3.S * d3.Dinv;
        for (int m = 0; m < 3; ++m)
          for (int k = 0; k < 3; ++k) Lj[m](3 * Eigen::Index(q) + k) = T(k, m);
        pass = response;
        pass.noalias() -= T * d3.U.transpose();
        scatter(pass, q, f);
      }
    } else if (jointType[j] == Joint::REVOLUTE || jointType[j] == Joint::PRISMATIC) {
      const AbaData& d = abaData[j];
      const int h = jointType[j] == Joint::REVOLUTE ? 3 : 0;
      const Lanes t = (f[h] * d.S(h) + f[h + 1] * d.S(h + 1) + f[h + 2] * d.S(h + 2)) * d.Dinv;
      for (size_t q = 0; q < count; ++q)
        if (path >> q & 1u) Lj[0].segment<3>(3 * Eigen::Index(q)) = t.segment<3>(3 * Eigen::Index(q));
      for (int m = 0; m < 6; ++m) f[m] -= t * d.U(m);
    }
    forceToParent([f](int k) -> Lanes& { return f[k]; }, relPosW[j]);
    Lanes* up = V + 6 * parent[j];
    for (size_t q = 0; q < count; ++q)
      if (path >> q & 1u)
        for (int m = 0; m < 6; ++m) up[m].segment<3>(3 * Eigen::Index(q)) = f[m].segment<3>(3 * Eigen::Index(q));
  }

  if (jointType[0] == Joint::FLOATING) {
    Lanes Y[6];
    for (int m = 0; m < 6; ++m) {
      const double* x = baseInertiaInverse.v + 6 * m;
      Y[m] = V[0] * x[0];
      for (int i = 1; i < 6; ++i) Y[m] += V[i] * x[i];
    }
    for (int m = 0; m < 6; ++m) V[m] = L[m] = Y[m];
  } else {
    for (int m = 0; m < 6; ++m) V[m].setZero();
  }

  // Down every body: accelerations per unit impulse. Each body's response
  // starts as its parent's, moved to its origin.
  for (const size_t i : order) {
    Lanes* a = V + 6 * i;
    const Lanes* ap = V + 6 * parent[i];
    motionFromParent([a](int k) -> Lanes& { return a[k]; }, [ap](int k) -> const Lanes& { return ap[k]; },
                     relPosW[i]);
    const size_t g = gvIdx[i];
    Lanes* Li = L + g;
    if (jointType[i] == Joint::SPHERICAL) {
      const AbaData3& d3 = abaData3[i];
      for (size_t q = 0; q < count; ++q) {
        // The response's three columns of this joint, in place in the
        // contact's own response.
        ResponseMap R(contactResponse[first + q].v, 3, Eigen::Index(dof));
        for (int m = 0; m < 3; ++m)
          for (int k = 0; k < 3; ++k) R(k, Eigen::Index(g) + m) = Li[m](3 * Eigen::Index(q) + k);
        Rows36 Y;
        gather(a, q, Y);
        R.middleCols<3>(Eigen::Index(g)) -= Y * d3.UDinv;
        Y += R.middleCols<3>(Eigen::Index(g)) * d3.S.transpose();
        scatter(Y, q, a);
        for (int m = 0; m < 3; ++m)
          for (int k = 0; k < 3; ++k) Li[m](3 * Eigen::Index(q) + k) = R(k, Eigen::Index(g) + m);
      }
    } else if (jointType[i] == Joint::REVOLUTE || jointType[i] == Joint::PRISMATIC) {
      const AbaData& d = abaData[i];
      Lanes Ya = a[0] * d.UDinv(0);
      for (int m = 1; m < 6; ++m) Ya += a[m] * d.UDinv(m);
      const Lanes t = Li[0] - Ya;
      Li[0] = t;
      const int h = jointType[i] == Joint::REVOLUTE ? 3 : 0;
      for (int m = h; m < h + 3; ++m) a[m] += t * d.S(m);
    }
  }

  for (size_t q = 0; q < count; ++q) {
    const Eigen::Index lane = 3 * Eigen::Index(q);
    Contact& ct = contacts_[first + q];
    double* out = contactResponse[first + q].v;
    for (size_t i = 0; i < dof; ++i)
      for (int k = 0; k < 3; ++k) out[3 * i + size_t(k)] = L[i](lane + k);
    Rows36 Yb;
    gather(V + 6 * bodyOf[q], q, Yb);
    for (int k = 0; k < 3; ++k)
      for (int s = 0; s < 3; ++s) ct.delassus(k, s) = rowTimes(Yb, k, F0[q].data() + 6 * s);
  }
}

void ArticulatedSystem::computeImpactVelocities() {
  const size_t n = std::min(contactCount, contacts_.size());
  for (size_t c = 0; c < n; ++c) {
    Contact& ct = contacts_[c];
    // A twin's local Jacobian is not built: its part is in the merged record.
    if (ct.skip) {
      ct.impactVel = 0.0;
      continue;
    }
    const SparseJacobian& J = contactJacobiansLocal[c];
    double v = 0.0;
    for (size_t k = 0; k < J.size; ++k) v += gv[J.idx[k]] * J.v(2, k);
    ct.impactVel = v;
  }
}

void ArticulatedSystem::getFullDelassusAndTauStar(double /*dt*/) {
  const size_t n = std::min(contactCount, contacts_.size());
  for (size_t c = 0; c < n; ++c) {
    Contact& ct = contacts_[c];
    if (ct.skip) continue;
    rotateContactJacobian(c);
    const SparseJacobian& J = contactJacobiansLocal[c];
    MatDyn& response = contactResponse[c];
    response.setZero();
    for (size_t k = 0; k < J.size; ++k) {
      const size_t g = J.idx[k];
      for (size_t i = 0; i < dof; ++i) {
        const double m = massMatrixInverse(i, g);
        for (size_t r = 0; r < 3; ++r) response(r, i) += m * J.v(r, k);
      }
    }
    ct.delassus.setZero();
    for (size_t k = 0; k < J.size; ++k) {
      const size_t g = J.idx[k];
      for (size_t r = 0; r < 3; ++r)
        for (size_t s = 0; s < 3; ++s) ct.delassus(r, s) += response(r, g) * J.v(s, k);
    }
  }
  computeImpactVelocities();
}

// --------------------------------------------------------- solver interface --

void ArticulatedSystem::getContactPointVel(size_t contactIdx, Mat<3, 1>& vel) const {
  vel.setZero();
  addColumn(contactJacobiansLocal[contactIdx], gvWork, vel, 1.0);
}

void ArticulatedSystem::addContactPointVel(size_t contactIdx, Mat<3, 1>& vel) {
  addColumn(contactJacobiansLocal[contactIdx], gvWork, vel, 1.0);
}

void ArticulatedSystem::subContactPointVel(size_t contactIdx, Mat<3, 1>& vel) {
  addColumn(contactJacobiansLocal[contactIdx], gvWork, vel, -1.0);
}

void ArticulatedSystem::addContactPointVel2(size_t contactIdx, Mat<3, 1>& vel) {
  addColumn(contactJacobiansLocal[contactIdx], gv, vel, 1.0);
}

void ArticulatedSystem::subContactPointVel2(size_t contactIdx, Mat<3, 1>& vel) {
  addColumn(contactJacobiansLocal[contactIdx], gv, vel, -1.0);
}

void ArticulatedSystem::updateGenVelWithImpulse(size_t contactIdx, const Mat<3, 1>& impulse) {
  const MatDyn& response = contactResponse[contactIdx];
  if (response.m == 0) return;
  const double* col = response.v;
  for (size_t i = 0; i < dof; ++i, col += 3)
    gvWork[i] += col[0] * impulse[0] + col[1] * impulse[1] + col[2] * impulse[2];
}

void ArticulatedSystem::cleanContacts() {
  contactJacobians.clear();
  contacts_.clear();
  contactCount = 0;
}

}  // namespace vorsim
