// Constraints inside a robot: joint position and velocity limits, cone limits
// of spherical joints, and pins that close loops the tree cannot express.
//
// A joint limit is a rank-5 problem that the solver hands back to its owner:
// enforceJointLimits removes the joint's speed into the limit (an inelastic
// stop, never a push) along the response of a unit impulse on that joint,
// which one sweep over the articulated-body factors gives. A pin is a
// bilateral point constraint that passes through the contact path as a pair
// of this robot's own points.
#include <algorithm>
#include <cmath>

#include "skewProducts.hpp"
#include "vorsim/VorSimMsg.hpp"
#include "vorsim/contact/Single3DContactProblem.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

namespace vorsim {

namespace {
using Vec3 = Eigen::Vector3d;
using Vec6 = Eigen::Matrix<double, 6, 1>;

// A one-dof joint's column S has one nonzero half: the angular one of a
// revolute joint.
inline int nonzeroHalf(Joint::Type type) { return type == Joint::REVOLUTE ? 3 : 0; }
}  // namespace

// ---------------------------------------------------------------- responses --

template <int W>
void ArticulatedSystem::sweepLimits(size_t first, size_t count, ContactProblemList& problems) {
  using Lanes = Eigen::Array<double, W, 1>;
  using LaneMap = Eigen::Map<Lanes, Eigen::Aligned16>;
  if (limitLaneVectors.size() < 6 * nbody * kMaxLimitLanes) limitLaneVectors.resize(6 * nbody * kMaxLimitLanes);
  if (limitLaneResponse.size() < dof * kMaxLimitLanes) limitLaneResponse.resize(dof * kMaxLimitLanes);
  if (limitLaneBelow.size() != nbody) limitLaneBelow.resize(nbody);
  // Entry k of body j, and the response at gv index i, W lanes each.
  double* const Vd = limitLaneVectors.data();
  double* const Ld = limitLaneResponse.data();
  auto V = [Vd](size_t e) { return LaneMap(Vd + e * W); };
  auto L = [Ld](size_t i) { return LaneMap(Ld + i * W); };
  std::fill(Vd, Vd + 6 * nbody * W, 0.0);
  std::fill(Ld, Ld + dof * W, 0.0);
  std::fill(limitLaneBelow.begin(), limitLaneBelow.end(), uint16_t(0));

  // Lane r: the low bits mark the joints above its body, the high ones its
  // own joint, where the unit impulse is applied.
  size_t bodyOf[W];
  for (size_t r = 0; r < count; ++r) {
    const size_t b = problems[limitProblemLog[first + r]].localIndexA;
    bodyOf[r] = b;
    limitLaneBelow[b] |= uint16_t(256u << r);
    for (size_t j = parent[b]; j != 0; j = parent[j]) limitLaneBelow[j] |= uint16_t(1u << r);
  }

  // Up the paths: a lane's own joint takes Dinv of the unit impulse (along n
  // for a spherical joint) and hands the rest of the articulated body's
  // reaction to its parent; each joint above takes its share and passes on
  // the rest. Joints on no lane's path see no force and are skipped; a lane
  // off a joint's path holds zeros there.
  const std::vector<size_t>& order = bodiesByDepth();
  for (auto it = order.rbegin(); it != order.rend(); ++it) {
    const size_t j = *it;
    const unsigned mask = limitLaneBelow[j];
    if (mask == 0) continue;
    const unsigned below = mask & 255u, seed = mask >> 8;
    auto f = [&V, j](int k) { return V(6 * j + size_t(k)); };
    const size_t gj = gvIdx[j];
    auto Lj = [&L, gj](int k) { return L(gj + size_t(k)); };
    if (jointType[j] == Joint::SPHERICAL) {
      const AbaData3& d3 = abaData3[j];
      for (size_t r = 0; r < count; ++r) {
        const Eigen::Index lane = Eigen::Index(r);
        Vec6 fr;
        if (seed >> r & 1u) {
          const Mat<3, 1>& n = problems[limitProblemLog[first + r]].basis[0];
          const Vec3 z = d3.Dinv * n.e();
          for (int k = 0; k < 3; ++k) Lj(k)(lane) = z(k);
          fr.noalias() = -(d3.U * z);
        } else if (below >> r & 1u) {
          for (int k = 0; k < 6; ++k) fr(k) = f(k)(lane);
          const Vec3 t = d3.Dinv * (d3.S.transpose() * fr);
          for (int k = 0; k < 3; ++k) Lj(k)(lane) = t(k);
          fr -= d3.U * t;
        } else {
          continue;
        }
        for (int k = 0; k < 6; ++k) f(k)(lane) = fr(k);
      }
    } else if (jointType[j] == Joint::REVOLUTE || jointType[j] == Joint::PRISMATIC) {
      const AbaData& d = abaData[j];
      const int h = nonzeroHalf(jointType[j]);
      const Lanes t = d.Dinv * (d.S(h) * f(h) + d.S(h + 1) * f(h + 1) + d.S(h + 2) * f(h + 2));
      for (int k = 0; k < 6; ++k) f(k) -= t * d.U(k);
      for (int r = 0; r < W; ++r) {
        if (seed >> r & 1u) {
          Lj(0)(r) = d.Dinv;
          for (int k = 0; k < 6; ++k) f(k)(r) = -d.UDinv(k);
        } else if (below >> r & 1u) {
          Lj(0)(r) = t(r);
        }
      }
    }
    internal::forceToParent(f, relPosW[j]);
    const size_t pj = parent[j];
    auto up = [&V, pj](int k) { return V(6 * pj + size_t(k)); };
    for (int r = 0; r < W; ++r)
      if ((below | seed) >> r & 1u)
        for (int k = 0; k < 6; ++k) up(k)(r) = f(k)(r);
  }

  if (jointType[0] == Joint::FLOATING) {
    for (size_t r = 0; r < count; ++r) {
      const Eigen::Index lane = Eigen::Index(r);
      Vec6 fr;
      for (int k = 0; k < 6; ++k) fr(k) = V(k)(lane);
      const Vec6 a = baseInertiaInverse.e() * fr;
      for (int k = 0; k < 6; ++k) V(k)(lane) = L(k)(lane) = a(k);
    }
  } else {
    for (int k = 0; k < 6; ++k) V(size_t(k)).setZero();
  }

  // Down every body: the joints' reaction to their parents' accelerations.
  for (const size_t i : order) {
    auto a = [&V, i](int k) { return V(6 * i + size_t(k)); };
    const size_t pi = parent[i];
    auto ap = [&V, pi](int k) { return V(6 * pi + size_t(k)); };
    internal::motionFromParent(a, ap, relPosW[i]);
    const size_t gi = gvIdx[i];
    auto Li = [&L, gi](int k) { return L(gi + size_t(k)); };
    if (jointType[i] == Joint::SPHERICAL) {
      const AbaData3& d3 = abaData3[i];
      for (size_t r = 0; r < count; ++r) {
        const Eigen::Index lane = Eigen::Index(r);
        Vec6 ar;
        for (int k = 0; k < 6; ++k) ar(k) = a(k)(lane);
        const Vec3 t = d3.UDinv.transpose() * ar;
        Vec3 q;
        for (int k = 0; k < 3; ++k) {
          Li(k)(lane) -= t(k);
          q(k) = Li(k)(lane);
        }
        ar += d3.S * q;
        for (int k = 0; k < 6; ++k) a(k)(lane) = ar(k);
      }
    } else if (jointType[i] == Joint::REVOLUTE || jointType[i] == Joint::PRISMATIC) {
      const AbaData& d = abaData[i];
      Lanes Va = d.UDinv(0) * a(0);
      for (int k = 1; k < 6; ++k) Va += d.UDinv(k) * a(k);
      const Lanes q = Li(0) - Va;
      Li(0) = q;
      const int h = nonzeroHalf(jointType[i]);
      for (int k = h; k < h + 3; ++k) a(k) += d.S(k) * q;
    }
  }

  for (size_t r = 0; r < count; ++r) {
    const Eigen::Index lane = Eigen::Index(r);
    const size_t b = bodyOf[r];
    VecDyn& out = limitResponse[b];
    for (size_t i = 0; i < dof; ++i) out[i] = L(i)(lane);
    contact::Single3DContactProblem& P = problems[limitProblemLog[first + r]];
    const size_t g = gvIdx[b];
    double response = out[g];
    if (jointType[b] == Joint::SPHERICAL) {
      const Mat<3, 1>& n = P.basis[0];
      response = n[0] * out[g] + n[1] * out[g + 1] + n[2] * out[g + 2];
    }
    P.rankOneDelassus = response;
    P.delassusInverse(0, 0) = 1.0 / response;
    // The solver reads the normal entry of every block; a limit's is its own.
    P.delassus(2, 2) = response;
  }
}

// ------------------------------------------------------------ joint limits --

void ArticulatedSystem::appendJointLimits(ContactProblemList& problems) {
  if (nbody < 2) return;
  const size_t first = limitProblemLog.size();
  for (size_t b = 1; b < nbody; ++b) {
    const size_t g = gvIdx[b];
    const double lo = jointLimits[g][0], hi = jointLimits[g][1];
    double depth = 0.0, mu = 0.0;
    Mat<3, 1> axis{0.0, 0.0, 0.0};

    if (jointType[b] == Joint::REVOLUTE || jointType[b] == Joint::PRISMATIC) {
      if (lo == hi) continue;  // no limit of any kind
      const double q = gc[gcIdx[b]];
      if (q < lo) {
        depth = lo - q;
        mu = 1.0;
      } else if (q > hi) {
        depth = q - hi;
        mu = -1.0;
      } else {
        const double v = gvWork[g], L = velocityLimitOf[b];
        if (!(v < -L || v > L)) continue;
      }
    } else if (jointType[b] == Joint::SPHERICAL) {
      const double limit = lo;
      if (!(limit > 0.0)) continue;
      const size_t c = gcIdx[b];
      const double w = std::max(-1.0, std::min(1.0, gc[c]));
      const double angle = 2.0 * std::acos(w);
      if (!(angle > limit)) continue;
      depth = limit - angle;
      const double x = gc[c + 1], y = gc[c + 2], z = gc[c + 3];
      const double norm = std::sqrt(x * x + y * y + z * z);
      // Past the limit the angle is above zero, so the vector part is not.
      const Mat<3, 1> v{x / norm, y / norm, z / norm};
      // The axis of a rotation is its own image under that rotation: this
      // only expresses it in the joint's velocity coordinates.
      for (size_t k = 0; k < 3; ++k) axis[k] = rotJ[b](0, k) * v[0] + rotJ[b](1, k) * v[1] + rotJ[b](2, k) * v[2];
    } else {
      continue;
    }

    contact::Single3DContactProblem& P = problems.emplace_back();
    P.rank = 5;
    P.objectA = this;
    P.localIndexA = b;
    P.position = posW[b];
    P.depth = depth;
    P.mu = mu;
    P.basis[0] = axis;
    P.warmStartKey = contact::WarmStartKey::owned(this, contact::WarmStartKey::JOINT_LIMIT, b);
    limitWarmStart[b] = 0.0;
    limitProblemLog.push_back(problems.size() - 1);
  }
  // As many lanes as there are problems, in pairs (a pair of lanes costs
  // about what one does).
  for (size_t k = first; k < limitProblemLog.size(); k += kMaxLimitLanes) {
    const size_t count = std::min(kMaxLimitLanes, limitProblemLog.size() - k);
    if (count <= 2)
      sweepLimits<2>(k, count, problems);
    else if (count <= 4)
      sweepLimits<4>(k, count, problems);
    else if (count <= 6)
      sweepLimits<6>(k, count, problems);
    else
      sweepLimits<8>(k, count, problems);
  }
}

double ArticulatedSystem::enforceJointLimits(contact::Single3DContactProblem& P) {
  const size_t b = P.localIndexA;
  const size_t g = gvIdx[b];
  const VecDyn& L = limitResponse[b];
  double& warm = limitWarmStart[b];
  double e = 0.0;

  if (jointType[b] == Joint::SPHERICAL) {
    const Mat<3, 1>& n = P.basis[0];
    const double d = n[0] * gvWork[g] + n[1] * gvWork[g + 1] + n[2] * gvWork[g + 2];
    double s;
    if (d < 0.0) {
      // Moving back into the cone: what a warm start added in excess is taken
      // back (it held the joint with a negative impulse along n).
      if (!(warm < 0.0)) return 0.0;
      e = -d;
      s = std::min(e * P.delassusInverse(0, 0), -warm);
      e = s * P.rankOneDelassus;
    } else {
      e = P.targetNormalVel - d;
      s = e * P.delassusInverse(0, 0);
    }
    warm = warm < 0.0 ? std::min(0.0, warm + s) : 0.0;
    const double total = n[0] * P.impulse[0] + n[1] * P.impulse[1] + n[2] * P.impulse[2] + s;
    P.impulse = {n[0] * total, n[1] * total, n[2] * total};
    for (size_t i = 0; i < dof; ++i) gvWork[i] += s * L[i];
    return e;
  }
  if (jointType[b] != Joint::REVOLUTE && jointType[b] != Joint::PRISMATIC) return 0.0;

  const double v = gvWork[g];
  double s;
  if (P.depth > 0.0) {
    if (v * P.mu > 0.0) {
      // Moving away from the limit: only a warm start's excess is taken back.
      if (!(warm * P.mu > 0.0)) return 0.0;
      e = -v;
      s = e * P.delassusInverse(0, 0);
      if (std::abs(s) > std::abs(warm)) s = -warm;
      e = s * P.rankOneDelassus;
    } else {
      e = -v;
      s = e * P.delassusInverse(0, 0);
    }
  } else {
    const double lim = velocityLimitOf[b];
    if (v < -lim) {
      e = -v - lim;
    } else if (v > lim) {
      e = lim - v;
    } else if (warm != 0.0) {
      // Within the limit: a warm start's excess moves the speed back to it.
      e = (warm < 0.0 ? lim : -lim) - v;
      s = e * P.delassusInverse(0, 0);
      if (std::abs(s) > std::abs(warm)) s = -warm;
      e = s * P.rankOneDelassus;
      warm += s;
      P.impulse[0] += s;
      for (size_t i = 0; i < dof; ++i) gvWork[i] += s * L[i];
      return e;
    } else {
      return 0.0;
    }
    s = e * P.delassusInverse(0, 0);
  }
  if (warm != 0.0) warm = (warm + s) * warm > 0.0 ? warm + s : 0.0;
  P.impulse[0] += s;
  for (size_t i = 0; i < dof; ++i) gvWork[i] += s * L[i];
  return e;
}

void ArticulatedSystem::applyJointLimitImpulse(contact::Single3DContactProblem& P) {
  const size_t b = P.localIndexA;
  const size_t g = gvIdx[b];
  const VecDyn& L = limitResponse[b];
  double s = 0.0;
  if (jointType[b] == Joint::SPHERICAL) {
    // Only the part along this step's axis that holds the joint in its cone.
    const Mat<3, 1>& n = P.basis[0];
    s = std::min(0.0, n[0] * P.impulse[0] + n[1] * P.impulse[1] + n[2] * P.impulse[2]);
    P.impulse = {n[0] * s, n[1] * s, n[2] * s};
  } else if (jointType[b] == Joint::REVOLUTE || jointType[b] == Joint::PRISMATIC) {
    s = P.impulse[0];
    if (P.depth > 0.0) {
      // A stop only pushes away from its limit.
      if (!(s * P.mu > 0.0)) s = 0.0;
    } else {
      // A speed limit only brakes the side it is exceeded on.
      const double v = gvWork[g], lim = velocityLimitOf[b];
      if (!((v > lim && s < 0.0) || (v < -lim && s > 0.0))) s = 0.0;
    }
    P.impulse = {s, 0.0, 0.0};
  } else {
    P.impulse.setZero();
  }
  limitWarmStart[b] = s;
  if (s != 0.0)
    for (size_t i = 0; i < dof; ++i) gvWork[i] += s * L[i];
}

// -------------------------------------------------------------------- pins --

void ArticulatedSystem::appendConstraints(ContactProblemList& problems) {
  const bool fixedRoot = jointType[0] == Joint::FIXED;
  for (size_t k = 0; k < pins.size(); ++k) {
    PinConstraint& pin = pins[k];
    getPosition(pin.pinBody1, pin.pinPos1, pin.pinPosW1);
    getPosition(pin.pinBody2, pin.pinPos2, pin.pinPosW2);
    Mat<3, 1> d{pin.pinPosW1[0] - pin.pinPosW2[0], pin.pinPosW1[1] - pin.pinPosW2[1],
                pin.pinPosW1[2] - pin.pinPosW2[2]};
    const double dist = d.norm();
    Mat<3, 1> normal{0.0, 0.0, 1.0};
    if (dist != 0.0) normal = {d[0] / dist, d[1] / dist, d[2] / dist};
    Mat<3, 3> frame;
    Contact::computeFrame(normal, frame);
    const double depth = -10.0 * dist;
    const bool sideA = !(pin.pinBody1 == 0 && fixedRoot);
    const bool sideB = !(pin.pinBody2 == 0 && fixedRoot);
    // A pin between two fixed points binds nothing.
    if (!sideA && !sideB) continue;

    auto record = [&](size_t body, bool isA, BodyType pairType, size_t pairIndex) {
      Contact& c = contacts_.emplace_back();
      c.frame = frame;
      c.position = pin.pinPosW1;
      c.normal = normal;
      c.delassus.setZero();
      c.impulse = nullptr;
      c.impactVel = 0.0;
      c.depth = depth;
      c.localContactIndex = contacts_.size() - 1;
      c.pairObjectIndex = indexInWorld_;
      c.pairContactIndex = pairIndex;
      c.contactProblemIndex = problems.size();
      c.localBodyIndex = body;
      c.isSelfCollision = false;
      c.skip = false;
      c.isObjectA = isA;
      c.pairObjectBodyType = pairType;
      c.colObjectA = c.colObjectB = nullptr;
    };
    if (sideA) record(pin.pinBody1, true, sideB ? DYNAMIC : STATIC, contacts_.size() + 1);
    // Side B alone (never made by initializeConstraints, which puts the moving
    // body first) owns the problem as an ordinary one-sided record.
    if (sideB) record(pin.pinBody2, !sideA, sideA ? DYNAMIC : STATIC, sideA ? contacts_.size() - 1 : contacts_.size());

    contact::Single3DContactProblem& P =
        problems.emplace_back(MaterialPairProperties(), pin.pinPosW1[0], pin.pinPosW1[1], pin.pinPosW1[2], depth);
    P.rank = 9;
    P.warmStartKey = contact::WarmStartKey::owned(this, contact::WarmStartKey::PIN, k);
  }
}

void ArticulatedSystem::addConstraints(const std::vector<PinConstraintDefinition>& definitions, const VecDyn& config) {
  pinDefinitions = definitions;
  pinConfiguration.resize(config.n);
  pinConfiguration = config;
}

void ArticulatedSystem::initializeConstraints() {
  if (pinDefinitions.empty()) return;
  // The pins are located at the configuration they were described in, and
  // the system stays there.
  if (pinConfiguration.n != gcDim) {
    MSG_FATAL("The configuration of the pin constraints has " << pinConfiguration.n << " entries, but the system has "
                                                              << gcDim << " generalized coordinates");
    pinDefinitions.clear();
    return;
  }
  gc = pinConfiguration;
  updateKinematics();
  cleanContacts();

  auto frameOf = [this](const std::string& name) {
    for (size_t i = 0; i < frames.size(); ++i)
      if (frames[i].bodyName == name) return i;
    MSG_FATAL("Equality constraints - unknown body name: " << name);
    return kNone;
  };

  for (const PinConstraintDefinition& d : pinDefinitions) {
    const size_t f1 = frameOf(d.body1);
    const size_t f2 = frameOf(d.body2);
    if (f1 == kNone || f2 == kNone) continue;
    size_t b1 = frames[f1].parentId, b2 = frames[f2].parentId;

    // World point of the anchor, given in the first frame.
    Mat<3, 1> anchorInBody;
    matvecmul(frames[f1].orientation, d.anchor, anchorInBody);
    for (size_t k = 0; k < 3; ++k) anchorInBody[k] += frames[f1].position[k];
    Mat<3, 1> pointW;
    getPosition(b1, anchorInBody, pointW);

    // Against a fixed base only the moving side has a contact record; that
    // side must be the first, so that it owns the problem.
    if (b1 == 0 && jointType[0] == Joint::FIXED) std::swap(b1, b2);
    Mat<3, 1> p1, p2;
    getPositionInBodyCoordinate(b1, pointW, p1);
    getPositionInBodyCoordinate(b2, pointW, p2);
    pins.emplace_back(b1, p1, b2, p2);
  }
  pinDefinitions.clear();
}

}  // namespace vorsim
