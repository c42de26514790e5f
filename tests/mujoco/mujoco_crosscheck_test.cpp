// The mass matrix and the bias forces of the robots in models/ against MuJoCo
// (Debian's libmujoco-dev), an engine we do not write, at random states, to
// 1e-9 relative. MuJoCo reads a copy of the same URDF without visual and
// collision elements (its importer cannot read some, and geometry plays no
// part), with fused static bodies off, inertia not taken from geometry, mass
// bounds of 1e-13 (it refuses massless moving bodies) and no <inertial> of
// zero mass (vorsim gives such a link no inertia). A "floating" or "fixed"
// joint from "world" gives both the same base. Joints are matched by name.
// MuJoCo's free joint takes the base's angular velocity in the body frame,
// vorsim's in the world frame: u_vorsim = T u_mujoco with T orthogonal, so
// M_vorsim = T M_mujoco T^T and b_vorsim = T b_mujoco (dT/dt R^T w = w x w = 0).
#include <gtest/gtest.h>
#include <mujoco/mujoco.h>

#include <cmath>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

using namespace vorsim;

namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// Removes every <tag ...>...</tag> and <tag .../> element.
std::string withoutElements(std::string text, const std::string& tag) {
  for (size_t at = text.find("<" + tag); at != std::string::npos; at = text.find("<" + tag, at)) {
    const char after = text[at + tag.size() + 1];
    if (after != ' ' && after != '>' && after != '/' && after != '\n' && after != '\t' && after != '\r') {
      ++at;  // a longer tag name
      continue;
    }
    const size_t close = text.find('>', at);
    size_t end = close + 1;
    if (text[close - 1] != '/') end = text.find("</" + tag + ">", at) + tag.size() + 3;
    text.erase(at, end - at);
  }
  return text;
}

// Removes the <inertial> elements whose mass is zero: vorsim's reader gives a
// link without mass no inertia, whatever its inertia element says, where
// MuJoCo would keep the rotational inertia.
std::string withoutMasslessInertials(std::string text) {
  for (size_t at = text.find("<inertial"); at != std::string::npos; at = text.find("<inertial", at + 1)) {
    const size_t end = text.find("</inertial>", at) + std::string("</inertial>").size();
    const size_t mass = text.find("<mass", at);
    if (mass == std::string::npos || mass > end) continue;
    const size_t quote = text.find('"', text.find("value", mass)) + 1;
    if (std::stod(text.substr(quote, text.find('"', quote) - quote)) != 0.0) continue;
    text.erase(at, end - at);
  }
  return text;
}

// Inserts text right after the <robot ...> tag.
std::string afterRobotTag(const std::string& urdf, const std::string& insert) {
  const size_t robot = urdf.find("<robot");
  const size_t end = urdf.find('>', robot) + 1;
  return urdf.substr(0, end) + insert + urdf.substr(end);
}

std::string baseJoint(const std::string& type, const std::string& rootLink) {
  return "<link name=\"world\"/><joint name=\"vorsim_base\" type=\"" + type +
         "\"><parent link=\"world\"/><child link=\"" + rootLink + "\"/></joint>";
}

struct Model {
  std::string folder, file;
  bool floating;
};

std::ostream& operator<<(std::ostream& os, const Model& m) {
  return os << m.file << (m.floating ? " floating" : " fixed");
}

class MujocoCrossCheck : public testing::TestWithParam<Model> {
 protected:
  void SetUp() override {
    const Model& model = GetParam();
    const std::string path = std::string(VORSIM_MODELS_DIR) + "/" + model.folder + "/" + model.file;
    const std::string urdf = readFile(path);
    ASSERT_FALSE(urdf.empty()) << path;

    // vorsim floats a root without a joint; a fixed base comes from a fixed
    // joint to "world".
    if (model.floating) {
      system_ = std::make_unique<ArticulatedSystem>(path);
    } else {
      const std::string rootName = ArticulatedSystem(path).bodyNames[0];
      system_ = std::make_unique<ArticulatedSystem>(afterRobotTag(urdf, baseJoint("fixed", rootName)),
                                                    std::string(VORSIM_MODELS_DIR) + "/" + model.folder);
    }
    ArticulatedSystem& s = *system_;
    ASSERT_EQ(s.getRootJointType(), model.floating ? Joint::FLOATING : Joint::FIXED);

    std::string text = withoutMasslessInertials(withoutElements(withoutElements(urdf, "visual"), "collision"));
    text = afterRobotTag(text,
                         "<mujoco><compiler fusestatic=\"false\" inertiafromgeom=\"false\" discardvisual=\"true\" "
                         "boundmass=\"1e-13\" boundinertia=\"1e-13\"/></mujoco>" +
                             baseJoint(model.floating ? "floating" : "fixed", s.bodyNames[0]));
    const std::string copy = testing::TempDir() + "vorsim_mujoco_" + model.file;
    std::ofstream(copy) << text;
    char error[1000] = "";
    m_ = mj_loadXML(copy.c_str(), nullptr, error, sizeof error);
    ASSERT_NE(m_, nullptr) << error;
    d_ = mj_makeData(m_);
    ASSERT_EQ(size_t(m_->nv), s.dof);

    // Joint by joint: vorsim's gc and gv index to MuJoCo's qpos and dof.
    mjIndexOfGv_.assign(s.dof, 0);
    for (size_t b = 1; b < s.nbody; ++b) {
      const std::string& name = s.movableJointNames[model.floating ? b : b - 1];
      const int j = mj_name2id(m_, mjOBJ_JOINT, name.c_str());
      ASSERT_GE(j, 0) << name;
      const int expectedType = s.jointType[b] == Joint::SPHERICAL   ? mjJNT_BALL
                               : s.jointType[b] == Joint::PRISMATIC ? mjJNT_SLIDE
                                                                    : mjJNT_HINGE;
      ASSERT_EQ(m_->jnt_type[j], expectedType) << name;
      joints_.push_back({b, size_t(m_->jnt_qposadr[j]), size_t(m_->jnt_dofadr[j])});
      for (size_t k = 0; k < s.gvDimOf[b]; ++k) mjIndexOfGv_[s.gvIdx[b] + k] = size_t(m_->jnt_dofadr[j]) + k;
    }
    if (model.floating) {
      const int j = mj_name2id(m_, mjOBJ_JOINT, "vorsim_base");
      ASSERT_EQ(m_->jnt_type[j], mjJNT_FREE);
      baseQpos_ = size_t(m_->jnt_qposadr[j]);
      for (size_t k = 0; k < 6; ++k) mjIndexOfGv_[k] = size_t(m_->jnt_dofadr[j]) + k;
    }

    double mujocoMass = 0.0;
    for (int b = 1; b < m_->nbody; ++b) mujocoMass += m_->body_mass[b];
    EXPECT_NEAR(mujocoMass, s.getTotalMass(), 1e-9 * s.getTotalMass() + 1e-11);
  }

  void TearDown() override {
    if (d_) mj_deleteData(d_);
    if (m_) mj_deleteModel(m_);
  }

  // A random state, written to both engines.
  void randomState(std::mt19937& rng) {
    ArticulatedSystem& s = *system_;
    std::uniform_real_distribution<double> angle(-M_PI, M_PI), unit(-1.0, 1.0), speed(-3.0, 3.0);
    VecDyn gc(s.gcDim), gv(s.dof);
    if (s.getRootJointType() == Joint::FLOATING) {
      for (size_t k = 0; k < 7; ++k) gc[k] = unit(rng);
    }
    for (const JointMap& j : joints_) {
      const size_t c = s.gcIdx[j.body];
      if (s.jointType[j.body] == Joint::SPHERICAL)
        for (size_t k = 0; k < 4; ++k) gc[c + k] = unit(rng);
      else
        gc[c] = s.jointType[j.body] == Joint::PRISMATIC ? 0.05 * unit(rng) : angle(rng);
    }
    for (size_t i = 0; i < s.dof; ++i) gv[i] = speed(rng);
    s.setGeneralizedCoordinate(gc);  // normalises the quaternions in gc
    s.setGeneralizedVelocity(gv);

    if (s.getRootJointType() == Joint::FLOATING) {
      for (size_t k = 0; k < 7; ++k) d_->qpos[baseQpos_ + k] = s.gc[k];
      const Eigen::Vector3d wBody = s.rotW[0].e().transpose() * Eigen::Vector3d(s.gv[3], s.gv[4], s.gv[5]);
      for (size_t k = 0; k < 3; ++k) {
        d_->qvel[mjIndexOfGv_[k]] = s.gv[k];
        d_->qvel[mjIndexOfGv_[3 + k]] = wBody[Eigen::Index(k)];
      }
    }
    for (const JointMap& j : joints_) {
      for (size_t k = 0; k < s.gcDimOf[j.body]; ++k) d_->qpos[j.qpos + k] = s.gc[s.gcIdx[j.body] + k];
      for (size_t k = 0; k < s.gvDimOf[j.body]; ++k) d_->qvel[j.dof + k] = s.gv[s.gvIdx[j.body] + k];
    }
    mj_forward(m_, d_);
  }

  // T: vorsim's velocity from MuJoCo's.
  Eigen::MatrixXd velocityMap() const {
    const ArticulatedSystem& s = *system_;
    Eigen::MatrixXd T = Eigen::MatrixXd::Zero(Eigen::Index(s.dof), Eigen::Index(s.dof));
    for (size_t i = 0; i < s.dof; ++i) T(Eigen::Index(i), Eigen::Index(mjIndexOfGv_[i])) = 1.0;
    if (s.getRootJointType() == Joint::FLOATING)
      for (size_t r = 0; r < 3; ++r)
        for (size_t c = 0; c < 3; ++c) T(Eigen::Index(3 + r), Eigen::Index(mjIndexOfGv_[3 + c])) = s.rotW[0](r, c);
    return T;
  }

  struct JointMap {
    size_t body, qpos, dof;
  };
  std::unique_ptr<ArticulatedSystem> system_;
  mjModel* m_ = nullptr;
  mjData* d_ = nullptr;
  std::vector<JointMap> joints_;
  std::vector<size_t> mjIndexOfGv_;
  size_t baseQpos_ = 0;
};

TEST_P(MujocoCrossCheck, MassMatrixAndBiasForcesAgree) {
  ArticulatedSystem& s = *system_;
  const Eigen::Index n = Eigen::Index(s.dof);
  std::mt19937 rng(2024);
  double worstM = 0.0, worstBias = 0.0;
  for (int trial = 0; trial < 25; ++trial) {
    randomState(rng);
    Eigen::MatrixXd Mmj(n, n);
    Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor> full(n, n);
    mj_fullM(m_, full.data(), d_->qM);
    Mmj = full;
    const Eigen::VectorXd biasMj = Eigen::Map<const Eigen::VectorXd>(d_->qfrc_bias, n);

    const Eigen::MatrixXd T = velocityMap();
    const Eigen::MatrixXd expectedM = T * Mmj * T.transpose();
    const Eigen::VectorXd expectedBias = T * biasMj;
    const Eigen::MatrixXd M = s.getMassMatrix().e();
    const Eigen::VectorXd bias = s.getNonlinearities(Mat<3, 1>{0.0, 0.0, -9.81}).e();

    const double errM = (M - expectedM).cwiseAbs().maxCoeff() / expectedM.cwiseAbs().maxCoeff();
    const double errBias = (bias - expectedBias).cwiseAbs().maxCoeff() / expectedBias.cwiseAbs().maxCoeff();
    worstM = std::max(worstM, errM);
    worstBias = std::max(worstBias, errBias);
    ASSERT_LT(errM, 1e-9) << "trial " << trial << "\nvorsim\n" << M << "\nMuJoCo\n" << expectedM;
    ASSERT_LT(errBias, 1e-9) << "trial " << trial << "\nvorsim " << bias.transpose() << "\nMuJoCo "
                             << expectedBias.transpose();
  }
  std::cout << GetParam() << ": worst relative difference, mass matrix " << worstM << ", bias forces " << worstBias
            << "\n";
}

INSTANTIATE_TEST_SUITE_P(Robots, MujocoCrossCheck,
                         testing::Values(Model{"anymal_b", "anymal.urdf", true},
                                         Model{"franka_panda", "panda.urdf", true},
                                         Model{"franka_panda", "panda.urdf", false},
                                         Model{"humanoid_mjcf_port", "humanoid.urdf", true},
                                         Model{"minitaur", "minitaur.urdf", true}),
                         [](const testing::TestParamInfo<Model>& info) {
                           std::string name = info.param.folder + (info.param.floating ? "_floating" : "_fixed");
                           for (char& c : name)
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           return name;
                         });

}  // namespace
