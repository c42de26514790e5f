// MuJoCo built from a scene description: the scene is written as an MJCF
// document in memory and compiled through a virtual file system. Every free
// body is a body with a free joint; walls and the ground plane are geoms of the
// world body. Friction is per geom (the pair takes the larger, all equal here);
// restitution has no parameter of its own and is set through the contact's
// damping ratio (see restitutionDampRatio).
#include "Engines.hpp"

#ifdef VORSIM_BENCH_HAVE_MUJOCO

#include <mujoco/mujoco.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vorsim_bench {

namespace {

const char* solverName(int s) { return s == 0 ? "PGS" : s == 1 ? "CG" : "Newton"; }
const char* coneName(int c) { return c == 0 ? "pyramidal" : "elliptic"; }
const char* integratorName(int i) { return i == 0 ? "Euler" : i == 1 ? "RK4" : "implicit"; }
const char* jacobianName(int j) { return j == 0 ? "dense" : j == 1 ? "sparse" : "auto"; }

// A contact with solref (timeconst, dampratio) behaves, at full impedance, as a
// spring-damper of damping ratio `dampratio`; a damped oscillator that leaves
// the contact after half a period has restitution exp(-pi z / sqrt(1 - z^2)).
double restitutionDampRatio(double e) {
  if (e <= 0) return 1.0;
  const double l = std::log(e);
  return -l / std::sqrt(M_PI * M_PI + l * l);
}

// MuJoCo's default error handler waits for a key press; a benchmark run
// without a terminal must end instead.
void onMujocoError(const char* message) {
  std::fprintf(stderr, "MuJoCo error: %s\n", message);
  std::fflush(stdout);
  std::_Exit(3);
}

class MujocoEngine : public Engine {
 public:
  explicit MujocoEngine(const MujocoSettings& s) : s_(s) { mju_user_error = onMujocoError; }
  ~MujocoEngine() override {
    if (data_) mj_deleteData(data_);
    if (model_) mj_deleteModel(model_);
  }

  std::string name() const override { return "MuJoCo"; }

  std::string settings() const override {
    char text[320];
    std::snprintf(text, sizeof text,
                  "%s solver, %s cone, max %d iterations, tolerance %g, %s integrator, %s Jacobian%s, "
                  "solref (0.02, %g), solimp default",
                  solverName(s_.solver), coneName(s_.cone), s_.iterations, s_.tolerance, integratorName(s_.integrator),
                  model_ ? (mj_isSparse(model_) ? "sparse" : "dense") : jacobianName(s_.jacobian),
                  s_.warmstart ? "" : ", no warm start", dampRatio_);
    return text;
  }

  void build(const SceneDesc& scene) override {
    n_ = scene.bodies.size();
    dampRatio_ = restitutionDampRatio(scene.restitution);
    const std::string xml = makeXml(scene);
    // For looking at the model in MuJoCo's own tools.
    if (const char* dump = std::getenv("VORSIM_BENCH_DUMP_MJCF")) {
      std::ofstream out(std::string(dump) + "_" + scene.key + ".xml");
      out << xml;
    }

    auto vfs = std::make_unique<mjVFS>();
    mj_defaultVFS(vfs.get());
    const char* file = "scene.xml";
    if (mj_makeEmptyFileVFS(vfs.get(), file, int(xml.size())) != 0) throw std::runtime_error("MuJoCo VFS full");
    const int idx = mj_findFileVFS(vfs.get(), file);
    std::memcpy(vfs->filedata[idx], xml.data(), xml.size());
    char error[1000] = "";
    model_ = mj_loadXML(file, vfs.get(), error, sizeof error);
    mj_deleteVFS(vfs.get());
    if (!model_) throw std::runtime_error(std::string("MuJoCo could not load the scene: ") + error);
    data_ = mj_makeData(model_);

    // qvel of a free joint: linear velocity in the world frame, angular
    // velocity in the body frame (the bodies start unrotated).
    for (size_t i = 0; i < n_; ++i) {
      const int j = model_->body_jntadr[i + 1];
      const int a = model_->jnt_dofadr[j];
      for (int k = 0; k < 3; ++k) {
        data_->qvel[a + k] = scene.bodies[i].linVel[k];
        data_->qvel[a + 3 + k] = scene.bodies[i].angVel[k];
      }
      qposAdr_.push_back(model_->jnt_qposadr[j]);
      dofAdr_.push_back(a);
    }
    mj_forward(model_, data_);
  }

  void step() override { mj_step(model_, data_); }

  void position(size_t i, double out[3]) const override {
    for (int k = 0; k < 3; ++k) out[k] = data_->qpos[qposAdr_[i] + k];
  }
  void velocity(size_t i, double out[3]) const override {
    for (int k = 0; k < 3; ++k) out[k] = data_->qvel[dofAdr_[i] + k];
  }
  int contactCount() const override { return data_->ncon; }
  int solverIterations() const override { return data_->solver_iter; }

  std::string warnings() const override {
    std::string w;
    static const char* const names[] = {"singular inertia",
                                        "contact buffer full",
                                        "constraint buffer full",
                                        "visual geom buffer full",
                                        "bad qpos",
                                        "bad qvel",
                                        "bad qacc",
                                        "bad ctrl"};
    constexpr int kNames = int(sizeof names / sizeof names[0]);
    for (int k = 0; k < mjNWARNING; ++k)
      if (data_ && data_->warning[k].number > 0)
        w += std::string(k < kNames ? names[k] : "warning") + " x" + std::to_string(data_->warning[k].number) + "; ";
    return w;
  }

 private:
  std::string makeXml(const SceneDesc& scene) const {
    std::ostringstream x;
    x.precision(17);
    // Room for the contacts of the densest scene (the bin makes about 2.5 per
    // sphere; a box on boxes up to 8 per box) and for the four pyramidal rows
    // of each. The data holds a dense njmax x njmax matrix, so njmax cannot be
    // generous.
    const size_t conmax = std::min<size_t>(10 * n_ + 100, 2200);
    const size_t jmax = 4 * conmax;
    // The stack holds dense matrices: nv x nv ones for the Newton solver, and
    // nefc x nefc ones for PGS (about 2.8 nefc^2 entries measured on the bin).
    const size_t nv = 6 * n_;
    const size_t stack = std::min<size_t>(std::max(5000000 + 3 * nv * nv, 3 * jmax * jmax), 2000000000);
    x << "<mujoco model=\"bench\">\n";
    x << "  <compiler angle=\"radian\"/>\n";
    x << "  <size nconmax=\"" << conmax << "\" njmax=\"" << jmax << "\" nstack=\"" << stack << "\"/>\n";
    x << "  <option timestep=\"" << scene.dt << "\" gravity=\"0 0 " << scene.gravity << "\" integrator=\""
      << integratorName(s_.integrator) << "\" solver=\"" << solverName(s_.solver) << "\" cone=\"" << coneName(s_.cone)
      << "\" jacobian=\"" << jacobianName(s_.jacobian) << "\" iterations=\"" << s_.iterations << "\" tolerance=\""
      << s_.tolerance << "\">\n";
    if (!s_.warmstart) x << "    <flag warmstart=\"disable\"/>\n";
    x << "  </option>\n";
    x << "  <default><geom friction=\"" << scene.friction << " 0.005 0.0001\" solref=\"0.02 " << dampRatio_
      << "\" condim=\"3\"/></default>\n";
    x << "  <worldbody>\n";
    if (scene.ground) x << "    <geom name=\"ground\" type=\"plane\" size=\"0 0 1\"/>\n";
    for (const WallDesc& w : scene.walls)
      x << "    <geom type=\"box\" pos=\"" << w.pos[0] << ' ' << w.pos[1] << ' ' << w.pos[2] << "\" size=\""
        << 0.5 * w.dims[0] << ' ' << 0.5 * w.dims[1] << ' ' << 0.5 * w.dims[2] << "\"/>\n";
    for (const BodyDesc& b : scene.bodies) {
      x << "    <body pos=\"" << b.pos[0] << ' ' << b.pos[1] << ' ' << b.pos[2] << "\"><freejoint/>";
      if (b.shape == ShapeKind::Sphere)
        x << "<geom type=\"sphere\" size=\"" << b.radius << "\" mass=\"" << b.mass << "\"/>";
      else
        x << "<geom type=\"box\" size=\"" << 0.5 * b.dims[0] << ' ' << 0.5 * b.dims[1] << ' ' << 0.5 * b.dims[2]
          << "\" mass=\"" << b.mass << "\"/>";
      x << "</body>\n";
    }
    x << "  </worldbody>\n</mujoco>\n";
    return x.str();
  }

  MujocoSettings s_;
  mjModel* model_ = nullptr;
  mjData* data_ = nullptr;
  size_t n_ = 0;
  double dampRatio_ = 1.0;
  std::vector<int> qposAdr_, dofAdr_;
};

}  // namespace

bool haveMujoco() { return true; }
std::string mujocoVersion() { return mj_versionString(); }

std::vector<MujocoSettings> mujocoCandidates() {
  std::vector<MujocoSettings> c;
  for (int solver = 0; solver < 3; ++solver)
    for (int cone = 0; cone < 2; ++cone) {
      MujocoSettings s;
      s.solver = solver;
      s.cone = cone;
      s.label = std::string(solverName(solver)) + "/" + coneName(cone);
      c.push_back(s);
    }
  // Fewer iterations and a looser tolerance for the fast candidates.
  for (int solver : {0, 1, 2}) {
    MujocoSettings s;
    s.solver = solver;
    s.iterations = solver == 2 ? 10 : 20;
    s.tolerance = 1e-6;
    s.label = std::string(solverName(solver)) + "/pyramidal/" + std::to_string(s.iterations) + "it/tol1e-6";
    c.push_back(s);
  }
  return c;
}

// Picked from a sweep over mujocoCandidates() (see bench/README.md): the
// fastest candidate whose error stays within twice the best MuJoCo error on the
// scene. The bin has 4000 degrees of freedom, where Newton's dense Hessian is
// out of reach and CG with 20 iterations lets the spheres sink 2.7 times
// deeper than the best setting; everywhere else CG is the fastest.
MujocoSettings mujocoChosen(const std::string& sceneKey) {
  MujocoSettings s;
  s.solver = sceneKey == "b" ? 0 : 1;
  s.cone = 0;
  s.iterations = 20;
  s.tolerance = 1e-6;
  s.label = std::string(solverName(s.solver)) + "/pyramidal/20it/tol1e-6";
  return s;
}

std::unique_ptr<Engine> makeMujocoEngine(const MujocoSettings& settings) {
  return std::make_unique<MujocoEngine>(settings);
}

}  // namespace vorsim_bench

#else  // no MuJoCo

namespace vorsim_bench {
bool haveMujoco() { return false; }
std::string mujocoVersion() { return {}; }
std::vector<MujocoSettings> mujocoCandidates() { return {}; }
MujocoSettings mujocoChosen(const std::string&) { return {}; }
std::unique_ptr<Engine> makeMujocoEngine(const MujocoSettings&) { return nullptr; }
}  // namespace vorsim_bench

#endif
