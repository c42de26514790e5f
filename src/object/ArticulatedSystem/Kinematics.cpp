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
  // A parent always has a lower index than its children.
  for (size_t i = 1; i < nbody; ++i) updateBodyKinematics(i);
}

void ArticulatedSystem::updateBodyKinematics(size_t i) {
  const size_t p = parent[i];
  relPosW[i] = mul(rotW[p], jointPosP[i]);
  posW[i] = add(posW[p], relPosW[i]);
  linVelW[i] = linVelW[p];
  angVelW[i] = angVelW[p];

  switch (jointType[i]) {
    case Joint::REVOLUTE: {
      rotmatmul(rotW[p], jointRotP[i], preRotW[i]);
      angleAxisToRotMat2(jointAxisB[i], gc[gcIdx[i]], rotJ[i]);
      rotmatmul(preRotW[i], rotJ[i], rotW[i]);
      axisW[i] = mul(rotW[i], jointAxisB[i]);
      linVelW[i] += cross(angVelW[p], relPosW[i]);
      jointAngVelW[i] = axisW[i] * gv[gvIdx[i]];
      angVelW[i] += jointAngVelW[i];
      break;
    }
    case Joint::PRISMATIC: {
      rotmatmul(rotW[p], jointRotP[i], rotW[i]);
      axisW[i] = mul(rotW[i], jointAxisB[i]);
      const Mat<3, 1> d = axisW[i] * gc[gcIdx[i]];
      posW[i] += d;
      relPosW[i] += d;
      linVelW[i] += cross(angVelW[p], relPosW[i]);
      jointLinVelW[i] = axisW[i] * gv[gvIdx[i]];
      linVelW[i] += jointLinVelW[i];
      break;
    }
    case Joint::SPHERICAL: {
      rotmatmul(rotW[p], jointRotP[i], preRotW[i]);
      quatToRotMat(gc.v + gcIdx[i], rotJ[i]);
      rotmatmul(preRotW[i], rotJ[i], rotW[i]);
      axisW[i] = mul(rotW[i], jointAxisB[i]);
      linVelW[i] += cross(angVelW[p], relPosW[i]);
      const size_t g = gvIdx[i];
      jointAngVelW[i] = mul(rotW[i], Mat<3, 1>{gv[g], gv[g + 1], gv[g + 2]});
      angVelW[i] += jointAngVelW[i];
      break;
    }
    default:
      break;
  }
  comRelW[i] = mul(rotW[i], comB[i]);
  comW[i] = add(posW[i], comRelW[i]);
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
