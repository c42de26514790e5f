// Kinematics: the pose and velocity of every body from gc and gv, in one pass
// from the root to the leaves, and the queries built on those tables (points,
// frames, sparse Jacobians and their time derivatives). Also the setters of the
// state, each of which ends in updateKinematics.
#include "vorsim/VorSimMsg.hpp"
#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

namespace vorsim {

namespace {

inline void normaliseQuaternion(double* q) {
  const double n = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
  for (size_t k = 0; k < 4; ++k) q[k] /= n;
}

inline Mat<3, 1> add(const Mat<3, 1>& a, const Mat<3, 1>& b) { return {a[0] + b[0], a[1] + b[1], a[2] + b[2]}; }
inline Mat<3, 1> sub(const Mat<3, 1>& a, const Mat<3, 1>& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
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
inline void setColumn(SparseJacobian& j, size_t k, const Mat<3, 1>& c) {
  for (size_t r = 0; r < 3; ++r) j.v(r, k) = c[r];
}

// The third column of a product of rotations from its first two, as rotmatmul
// forms it.
inline void completeRotation(Mat<3, 3>& R) {
  R(0, 2) = R(1, 0) * R(2, 1) - R(2, 0) * R(1, 1);
  R(1, 2) = R(2, 0) * R(0, 1) - R(0, 0) * R(2, 1);
  R(2, 2) = R(0, 0) * R(1, 1) - R(0, 1) * R(1, 0);
}

// The turn by an angle of sine s and cosine c about the unit coordinate axis
// k, with the entries Rodrigues' formula gives for that axis: the entry on
// the axis is (1 - c) + c, as the formula has it.
inline void coordinateTurn(int k, double s, double c, Mat<3, 3>& R) {
  const double e = (1.0 - c) + c;
  R.setZero();
  if (k == 0)
    R(0, 0) = e, R(1, 1) = c, R(2, 2) = c, R(2, 1) = s, R(1, 2) = -s;
  else if (k == 1)
    R(0, 0) = c, R(1, 1) = e, R(2, 2) = c, R(0, 2) = s, R(2, 0) = -s;
  else
    R(0, 0) = c, R(1, 1) = c, R(2, 2) = e, R(1, 0) = s, R(0, 1) = -s;
}

// One column of a 3x3 matrix in named scalars, which stay in registers.
struct Col3 {
  double x, y, z;
};
inline Col3 colOf(const Mat<3, 3>& R, size_t j) { return {R(0, j), R(1, j), R(2, j)}; }
inline Col3 axpy(const Col3& a, double s, const Col3& b, double t) {
  return {a.x * s + b.x * t, a.y * s + b.y * t, a.z * s + b.z * t};
}
inline Col3 scaledCol(const Col3& a, double s) { return {a.x * s, a.y * s, a.z * s}; }
// The third column from the first two, as rotmatmul and completeRotation
// form it.
inline Col3 thirdColumn(const Col3& a, const Col3& b) {
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - b.x * a.y};
}
inline void storeColumns(const Col3& c0, const Col3& c1, const Col3& c2, Mat<3, 3>& R) {
  R(0, 0) = c0.x, R(1, 0) = c0.y, R(2, 0) = c0.z;
  R(0, 1) = c1.x, R(1, 1) = c1.y, R(2, 1) = c1.z;
  R(0, 2) = c2.x, R(1, 2) = c2.y, R(2, 2) = c2.z;
}

}  // namespace

void ArticulatedSystem::updateKinematics() {
  for (size_t i = 1; i < nbody; ++i)
    if (jointType[i] == Joint::SPHERICAL) normaliseQuaternion(gc.v + gcIdx[i]);

  if (jointType[0] == Joint::FLOATING) {
    normaliseQuaternion(gc.v + 3);
    posW[0] = {gc[0], gc[1], gc[2]};
    quatToRotMat(gc.v + 3, rotW[0]);
    comRelW[0] = mul(rotW[0], comB[0]);
    comW[0] = add(posW[0], comRelW[0]);
    linVelW[0] = {gv[0], gv[1], gv[2]};
    angVelW[0] = {gv[3], gv[4], gv[5]};
  }
  // The turns of the revolute joints about coordinate axes first: they do not
  // depend on each other, only the chain of frames below does.
  for (size_t i = 1; i < nbody; ++i)
    if (jointType[i] == Joint::REVOLUTE && jointShape_[i].axisIndex >= 0) {
      double s, c;
      polySinCos(gc[gcIdx[i]], s, c);
      coordinateTurn(jointShape_[i].axisIndex, s, c, rotJ[i]);
    }
  // A parent always has a lower index than its children.
  for (size_t i = 1; i < nbody; ++i) updateBodyKinematics(i);
}

void ArticulatedSystem::updateBodyKinematics(size_t i) {
  // The rotations are formed in locals and stored at the end, so that nothing
  // is read back from a table just written.
  const size_t p = parent[i];
  const JointShape shape = jointShape_[i];
  const Mat<3, 3>& Rp = rotW[p];
  const Mat<3, 1> rel = mul(Rp, jointPosP[i]);
  Mat<3, 1> pos = add(posW[p], rel);
  Mat<3, 1> v = linVelW[p];
  Mat<3, 1> w = angVelW[p];
  // rotW[p] jointRotP, or rotW[p] itself (third column rebuilt, as rotmatmul
  // does) when the joint frame is the parent's.
  auto jointFrame = [&](Mat<3, 3>& out) {
    if (shape.identityFrame) {
      out = Rp;
      completeRotation(out);
    } else {
      rotmatmul(Rp, jointRotP[i], out);
    }
  };
  // R jointAxisB[i]; a coordinate axis picks a column.
  auto axisInWorld = [&](const Mat<3, 3>& R) {
    return shape.axisIndex >= 0 ? column(R, size_t(shape.axisIndex)) : mul(R, jointAxisB[i]);
  };

  Mat<3, 3> R;
  switch (jointType[i]) {
    case Joint::REVOLUTE: {
      Mat<3, 1> axis;
      if (shape.axisIndex >= 0) {
        // The joint frame P and R = P T column by column, T = rotJ[i] from
        // updateKinematics: the products rotmatmul forms, less the terms with
        // an exact zero factor.
        Col3 p0, p1;
        if (shape.identityFrame) {
          p0 = colOf(Rp, 0), p1 = colOf(Rp, 1);
        } else {
          const Mat<3, 3>& Q = jointRotP[i];
          p0 = {Rp(0, 0) * Q(0, 0) + Rp(0, 1) * Q(1, 0) + Rp(0, 2) * Q(2, 0),
                Rp(1, 0) * Q(0, 0) + Rp(1, 1) * Q(1, 0) + Rp(1, 2) * Q(2, 0),
                Rp(2, 0) * Q(0, 0) + Rp(2, 1) * Q(1, 0) + Rp(2, 2) * Q(2, 0)};
          p1 = {Rp(0, 0) * Q(0, 1) + Rp(0, 1) * Q(1, 1) + Rp(0, 2) * Q(2, 1),
                Rp(1, 0) * Q(0, 1) + Rp(1, 1) * Q(1, 1) + Rp(1, 2) * Q(2, 1),
                Rp(2, 0) * Q(0, 1) + Rp(2, 1) * Q(1, 1) + Rp(2, 2) * Q(2, 1)};
        }
        const Col3 p2 = thirdColumn(p0, p1);
        storeColumns(p0, p1, p2, preRotW[i]);
        const Mat<3, 3>& T = rotJ[i];
        Col3 r0, r1;
        if (shape.axisIndex == 0) {
          const double e = T(0, 0), c = T(1, 1), s = T(2, 1);
          r0 = scaledCol(p0, e), r1 = axpy(p1, c, p2, s);
        } else if (shape.axisIndex == 1) {
          const double c = T(0, 0), e = T(1, 1), s = T(0, 2);
          r0 = axpy(p0, c, p2, -s), r1 = scaledCol(p1, e);
        } else {
          const double c = T(0, 0), s = T(1, 0);
          r0 = axpy(p0, c, p1, s), r1 = axpy(p0, -s, p1, c);
        }
        const Col3 r2 = thirdColumn(r0, r1);
        storeColumns(r0, r1, r2, R);
        const Col3& a = shape.axisIndex == 0 ? r0 : shape.axisIndex == 1 ? r1 : r2;
        axis = {a.x, a.y, a.z};
      } else {
        Mat<3, 3> pre;
        jointFrame(pre);
        angleAxisToRotMat2(jointAxisB[i], gc[gcIdx[i]], rotJ[i]);
        rotmatmul(pre, rotJ[i], R);
        preRotW[i] = pre;
        axis = axisInWorld(R);
      }
      axisW[i] = axis;
      v += cross(angVelW[p], rel);
      const Mat<3, 1> jw = axis * gv[gvIdx[i]];
      jointAngVelW[i] = jw;
      w += jw;
      relPosW[i] = rel;
      break;
    }
    case Joint::PRISMATIC: {
      jointFrame(R);
      const Mat<3, 1> axis = axisInWorld(R);
      axisW[i] = axis;
      const Mat<3, 1> d = axis * gc[gcIdx[i]];
      pos += d;
      const Mat<3, 1> relMoved = add(rel, d);
      relPosW[i] = relMoved;
      v += cross(angVelW[p], relMoved);
      const Mat<3, 1> jv = axis * gv[gvIdx[i]];
      jointLinVelW[i] = jv;
      v += jv;
      break;
    }
    case Joint::SPHERICAL: {
      Mat<3, 3> pre;
      jointFrame(pre);
      quatToRotMat(gc.v + gcIdx[i], rotJ[i]);
      rotmatmul(pre, rotJ[i], R);
      preRotW[i] = pre;
      axisW[i] = axisInWorld(R);
      v += cross(angVelW[p], rel);
      const size_t g = gvIdx[i];
      const Mat<3, 1> jw = mul(R, Mat<3, 1>{gv[g], gv[g + 1], gv[g + 2]});
      jointAngVelW[i] = jw;
      w += jw;
      relPosW[i] = rel;
      break;
    }
    default:
      R = rotW[i];
      relPosW[i] = rel;
      break;
  }
  rotW[i] = R;
  posW[i] = pos;
  linVelW[i] = v;
  angVelW[i] = w;
  const Mat<3, 1> comRel = mul(R, comB[i]);
  comRelW[i] = comRel;
  comW[i] = add(pos, comRel);
}

// ------------------------------------------------------------ points, frames --

void ArticulatedSystem::getPosition(size_t body, Mat<3, 1>& pos) const { pos = posW[body]; }

void ArticulatedSystem::getPosition(size_t body, const Mat<3, 1>& posInBody, Mat<3, 1>& posInWorld) const {
  posInWorld = add(mul(rotW[body], posInBody), posW[body]);
}

void ArticulatedSystem::getOrientation(size_t body, Mat<3, 3>& rot) const { rot = rotW[body]; }

void ArticulatedSystem::getVelocity(size_t body, Mat<3, 1>& vel) const { vel = linVelW[body]; }

void ArticulatedSystem::getVelocity(size_t body, const Mat<3, 1>& posInBody, Mat<3, 1>& velInWorld) const {
  velInWorld = add(linVelW[body], cross(angVelW[body], mul(rotW[body], posInBody)));
}

void ArticulatedSystem::getVelocity(size_t body, Frame pointFrame, const Mat<3, 1>& p, Frame outFrame,
                                    Mat<3, 1>& out) const {
  const size_t a = parent[body];
  Mat<3, 1> q;
  switch (pointFrame) {
    case WORLD_FRAME:
      q = mulT(rotW[body], sub(p, posW[body]));
      break;
    case PARENT_FRAME:
      q = a == kNone ? mulT(rotW[body], sub(p, posW[body]))
                     : mulT(rotW[body], sub(add(mul(rotW[a], p), posW[a]), posW[body]));
      break;
    default:
      q = p;
      break;
  }
  const Mat<3, 1> v = add(linVelW[body], cross(angVelW[body], mul(rotW[body], q)));
  switch (outFrame) {
    case WORLD_FRAME:
      out = v;
      break;
    case PARENT_FRAME:
      out = a == kNone ? v : mulT(rotW[a], v);
      break;
    default:
      out = mulT(rotW[body], v);
      break;
  }
}

void ArticulatedSystem::getVelocity(const SparseJacobian& jacobian, Mat<3, 1>& out) const {
  out.setZero();
  for (size_t k = 0; k < jacobian.size; ++k)
    for (size_t r = 0; r < 3; ++r) out[r] += gv[jacobian.idx[k]] * jacobian.v(r, k);
}

void ArticulatedSystem::getPositionInBodyCoordinate(size_t body, const Mat<3, 1>& pW, Mat<3, 1>& out) const {
  out = mulT(rotW[body], sub(pW, posW[body]));
}

void ArticulatedSystem::getPositionInFrame(size_t frameIdx, const Mat<3, 1>& p, Mat<3, 1>& out) const {
  Mat<3, 3> R;
  getFrameOrientation(frames[frameIdx], R);
  Mat<3, 1> origin;
  getFramePosition(frames[frameIdx], origin);
  out = add(mul(R, p), origin);
}

void ArticulatedSystem::getPose(const VisObject& v, Mat<3, 3>& rot, Mat<3, 1>& pos) const {
  const size_t b = v.localIdx;
  pos = add(posW[b], mul(rotW[b], v.offset));
  rotmatmul(rotW[b], v.rot, rot);
}

void ArticulatedSystem::getFramePosition(const CoordinateFrame& f, Mat<3, 1>& out) const {
  getPosition(f.parentId, f.position, out);
}

void ArticulatedSystem::getFrameOrientation(const CoordinateFrame& f, Mat<3, 3>& out) const {
  rotmatmul(rotW[f.parentId], f.orientation, out);
}

void ArticulatedSystem::getFrameVelocity(const CoordinateFrame& f, Mat<3, 1>& out) const {
  if (f.isMovableJoint)
    out = linVelW[f.parentId];
  else
    getVelocity(f.parentId, f.position, out);
}

void ArticulatedSystem::getFrameAngularVelocity(const CoordinateFrame& f, Mat<3, 1>& out) const {
  out = angVelW[f.parentId];
}

void ArticulatedSystem::getFrameAcceleration(const CoordinateFrame& f, Mat<3, 1>& out) const {
  const size_t b = f.parentId;
  const Mat<3, 1> r = mul(rotW[b], f.position);
  const Mat<3, 1>& w = angVelW[b];
  out = add(add(linAccW[b], cross(w, cross(w, r))), cross(angAccW[b], r));
}

// ----------------------------------------------------------------- Jacobians --

void ArticulatedSystem::getSparseJacobian(size_t body, const Mat<3, 1>& pointW, SparseJacobian& j) const {
  const size_t n = gvChain[body];
  j.resize(n);
  if (jointType[0] == Joint::FLOATING) {
    const Mat<3, 1> r = sub(pointW, posW[0]);
    // Every entry of the base block is written, so a reused Jacobian keeps no
    // stale values.
    for (size_t k = 0; k < 3; ++k) {
      j.idx[k] = k;
      j.idx[k + 3] = k + 3;
      for (size_t row = 0; row < 3; ++row) j.v(row, k) = row == k ? 1.0 : 0.0;
    }
    setColumn(j, 3, {0.0, -r[2], r[1]});
    setColumn(j, 4, {r[2], 0.0, -r[0]});
    setColumn(j, 5, {-r[1], r[0], 0.0});
  }
  size_t k = n;
  for (size_t b = body; b != 0; b = parent[b]) {
    const Mat<3, 1> r = sub(pointW, posW[b]);
    switch (jointType[b]) {
      case Joint::REVOLUTE:
        --k;
        setColumn(j, k, cross(axisW[b], r));
        j.idx[k] = gvIdx[b];
        break;
      case Joint::PRISMATIC:
        --k;
        setColumn(j, k, axisW[b]);
        j.idx[k] = gvIdx[b];
        break;
      case Joint::SPHERICAL:
        k -= 3;
        for (size_t m = 0; m < 3; ++m) {
          setColumn(j, k + m, cross(column(rotW[b], m), r));
          j.idx[k + m] = gvIdx[b] + m;
        }
        break;
      default:
        break;
    }
  }
}

void ArticulatedSystem::getSparseJacobian(size_t body, Frame frame, const Mat<3, 1>& point, SparseJacobian& j) const {
  Mat<3, 1> pointW = point;
  if (frame == PARENT_FRAME && parent[body] != kNone) {
    const size_t a = parent[body];
    pointW = add(mul(rotW[a], point), posW[a]);
  } else if (frame == BODY_FRAME) {
    pointW = add(mul(rotW[body], point), posW[body]);
  }
  getSparseJacobian(body, pointW, j);
}

void ArticulatedSystem::getSparseJacobian_internal(size_t body, const Mat<3, 1>& pointW, SparseJacobian& j) const {
  const size_t n = gvChain[body];
  // The contact path sizes its Jacobians to dof once; growing here is only a
  // safety net that never runs in a steady step.
  if (j.capacity < n) j.resize(n);
  j.size = n;
  if (jointType[0] == Joint::FLOATING) {
    for (size_t k = 0; k < 6; ++k) j.idx[k] = k;
    setColumn(j, 3, sub(pointW, posW[0]));
  }
  size_t k = n;
  for (size_t b = body; b != 0; b = parent[b]) {
    const Mat<3, 1> r = sub(pointW, posW[b]);
    switch (jointType[b]) {
      case Joint::REVOLUTE:
        --k;
        setColumn(j, k, cross(axisW[b], r));
        j.idx[k] = gvIdx[b];
        break;
      case Joint::PRISMATIC:
        --k;
        setColumn(j, k, axisW[b]);
        j.idx[k] = gvIdx[b];
        break;
      case Joint::SPHERICAL:
        k -= 3;
        for (size_t m = 0; m < 3; ++m) {
          setColumn(j, k + m, cross(column(rotW[b], m), r));
          j.idx[k + m] = gvIdx[b] + m;
        }
        break;
      default:
        break;
    }
  }
}

namespace {
size_t rotationalColumns(Joint::Type type, bool withBase) {
  switch (type) {
    case Joint::REVOLUTE:
      return 1;
    case Joint::SPHERICAL:
      return 3;
    case Joint::FLOATING:
      return withBase ? 3 : 0;
    default:
      return 0;
  }
}
}  // namespace

void ArticulatedSystem::getSparseRotationalJacobian(size_t body, SparseJacobian& j) const {
  size_t n = 0;
  for (size_t b = body; b != kNone; b = parent[b]) n += rotationalColumns(jointType[b], true);
  j.resize(n);
  size_t k = n;
  for (size_t b = body; b != kNone; b = parent[b]) {
    switch (jointType[b]) {
      case Joint::REVOLUTE:
        --k;
        setColumn(j, k, axisW[b]);
        j.idx[k] = gvIdx[b];
        break;
      case Joint::SPHERICAL:
        k -= 3;
        for (size_t m = 0; m < 3; ++m) {
          setColumn(j, k + m, column(rotW[b], m));
          j.idx[k + m] = gvIdx[b] + m;
        }
        break;
      case Joint::FLOATING:
        k -= 3;
        for (size_t m = 0; m < 3; ++m) {
          setColumn(j, k + m, Mat<3, 1>{m == 0 ? 1.0 : 0.0, m == 1 ? 1.0 : 0.0, m == 2 ? 1.0 : 0.0});
          j.idx[k + m] = 3 + m;
        }
        break;
      default:
        break;
    }
  }
}

void ArticulatedSystem::getTimeDerivativeOfSparseJacobian(size_t body, Frame frame, const Mat<3, 1>& point,
                                                          SparseJacobian& j) const {
  Mat<3, 1> v;
  getVelocity(body, frame, point, WORLD_FRAME, v);
  Mat<3, 1> pW = point;
  if (frame == PARENT_FRAME && parent[body] != kNone) {
    const size_t a = parent[body];
    pW = add(mul(rotW[a], point), posW[a]);
  } else if (frame == BODY_FRAME) {
    pW = add(mul(rotW[body], point), posW[body]);
  }

  size_t n = gvChain[body];
  const bool floating = jointType[0] == Joint::FLOATING;
  // The linear base columns are constant and left out: the result starts at
  // gv index 3.
  if (floating) n -= 3;
  j.resize(n);
  if (floating) {
    const Mat<3, 1> d0 = sub(v, linVelW[0]);
    setColumn(j, 0, {0.0, -d0[2], d0[1]});
    setColumn(j, 1, {d0[2], 0.0, -d0[0]});
    setColumn(j, 2, {-d0[1], d0[0], 0.0});
    for (size_t k = 0; k < 3; ++k) j.idx[k] = 3 + k;
  }
  size_t k = n;
  for (size_t b = body; b != 0; b = parent[b]) {
    const Mat<3, 1>& w = angVelW[b];
    const Mat<3, 1>& a = axisW[b];
    const Mat<3, 1> d = sub(v, linVelW[b]);
    const Mat<3, 1> r = sub(pW, posW[b]);
    switch (jointType[b]) {
      case Joint::REVOLUTE:
        --k;
        setColumn(j, k, add(cross(cross(w, a), r), cross(a, d)));
        j.idx[k] = gvIdx[b];
        break;
      case Joint::PRISMATIC:
        --k;
        setColumn(j, k, cross(w, a));
        j.idx[k] = gvIdx[b];
        break;
      case Joint::SPHERICAL:
        // Column m is -(S(r) S(w) + S(d)) c_m = -(r x (w x c_m) + d x c_m).
        k -= 3;
        for (size_t m = 0; m < 3; ++m) {
          const Mat<3, 1> c = column(rotW[b], m);
          const Mat<3, 1> Dc = add(cross(r, cross(w, c)), cross(d, c));
          setColumn(j, k + m, Mat<3, 1>{-Dc[0], -Dc[1], -Dc[2]});
          j.idx[k + m] = gvIdx[b] + m;
        }
        break;
      default:
        break;
    }
  }
}

void ArticulatedSystem::getTimeDerivativeOfSparseRotationalJacobian(size_t body, SparseJacobian& j) const {
  size_t n = 0;
  for (size_t b = body; b != kNone; b = parent[b]) n += rotationalColumns(jointType[b], false);
  j.resize(n);
  size_t k = n;
  for (size_t b = body; b != kNone; b = parent[b]) {
    const Mat<3, 1>& w = angVelW[b];
    if (jointType[b] == Joint::REVOLUTE) {
      --k;
      setColumn(j, k, cross(w, axisW[b]));
      j.idx[k] = gvIdx[b];
    } else if (jointType[b] == Joint::SPHERICAL) {
      k -= 3;
      for (size_t m = 0; m < 3; ++m) {
        setColumn(j, k + m, cross(w, column(rotW[b], m)));
        j.idx[k + m] = gvIdx[b] + m;
      }
    }
  }
}

// --------------------------------------------------------------------- state --

void ArticulatedSystem::setGeneralizedCoordinate(const VecDyn& newGc) {
  // VecDyn copies by the destination's length: a short source would be read
  // past its end.
  if (newGc.n != gcDim) {
    MSG_FATAL("Wrong number of generalized coordinate elements");
    return;
  }
  gc = newGc;
  updateKinematics();
  cleanContacts();
}

void ArticulatedSystem::setGeneralizedCoordinate(std::initializer_list<double> newGc) {
  // After a returning fatal callback the numbers there are are copied, never
  // more than gcDim.
  if (newGc.size() != gcDim) MSG_FATAL("Wrong number of generalized coordinate elements");
  size_t k = 0;
  for (double x : newGc) {
    if (k == gcDim) break;
    gc[k++] = x;
  }
  updateKinematics();
  cleanContacts();
}

void ArticulatedSystem::setGeneralizedVelocity(const VecDyn& newGv) {
  if (newGv.n != dof) {
    MSG_FATAL("Wrong number of generalized velocity elements");
    return;
  }
  gv = newGv;
  updateKinematics();
}

void ArticulatedSystem::setGeneralizedVelocity(std::initializer_list<double> newGv) {
  if (newGv.size() != dof) MSG_FATAL("Wrong number of generalized velocity elements");
  size_t k = 0;
  for (double x : newGv) {
    if (k == dof) break;
    gv[k++] = x;
  }
  updateKinematics();
}

void ArticulatedSystem::getState(VecDyn& gcOut, VecDyn& gvOut) const {
  // Outputs of another length are resized rather than over- or under-read.
  if (gcOut.n != gcDim) gcOut.resize(gcDim);
  if (gvOut.n != dof) gvOut.resize(dof);
  gcOut = gc;
  gvOut = gv;
}

void ArticulatedSystem::setBasePos(const Mat<3, 1>& pos) {
  if (jointType[0] != Joint::FIXED)
    for (size_t k = 0; k < 3; ++k) gc[k] = pos[k];
  else
    posW[0] = pos;
  updateKinematics();
}

void ArticulatedSystem::setBaseOrientation(const Mat<3, 3>& rot) {
  if (jointType[0] != Joint::FIXED) {
    Mat<4, 1> q;
    rotMatToQuat(rot, q);
    for (size_t k = 0; k < 4; ++k) gc[3 + k] = q[k];
  } else {
    rotW[0] = rot;
  }
  updateKinematics();
}

void ArticulatedSystem::setBaseOrientation(const Mat<4, 1>& quat) {
  if (jointType[0] != Joint::FIXED)
    for (size_t k = 0; k < 4; ++k) gc[3 + k] = quat[k];
  else
    quatToRotMat(quat, rotW[0]);
  updateKinematics();
}

void ArticulatedSystem::setBaseVelocity(const Mat<3, 1>& vel) {
  if (jointType[0] == Joint::FIXED)
    MSG_FATAL("This articulated system has a fixed base. You cannot set base velocity");
  else
    for (size_t k = 0; k < 3; ++k) gv[k] = vel[k];
  updateKinematics();
}

void ArticulatedSystem::setBaseAngularVelocity(const Mat<3, 1>& angVel) {
  if (jointType[0] == Joint::FIXED)
    MSG_FATAL("This articulated system has a fixed base. You cannot set base velocity");
  else
    for (size_t k = 0; k < 3; ++k) gv[3 + k] = angVel[k];
  updateKinematics();
}

void ArticulatedSystem::getBaseOrientation(Mat<4, 1>& quat) const {
  if (jointType[0] != Joint::FLOATING) {
    MSG_FATAL("This method is only for floating base");
    return;
  }
  for (size_t k = 0; k < 4; ++k) quat[k] = gc[3 + k];
}

}  // namespace vorsim
