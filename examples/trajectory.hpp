// Trajectory files: the bodies of a scene and their poses over time, for a
// viewer to play back. The layout (all little-endian) is described in
// docs/trajectory-format.md:
//
//   header   "VORTRAJ1" (8 bytes), uint32 version (2), uint32 body count,
//            float64 frame interval in seconds
//   bodies   per body: int32 object type (0 sphere, 1 box, 2 cylinder,
//            4 capsule, 5 mesh, 6 ground), int32 material id, float64 size[3]
//            (sphere: r,0,0; box: x,y,z edges; cylinder and capsule: r,h,0;
//            mesh: scale; ground: 0,0,height), int32 owner (-1 for a body of
//            its own, k for a collision shape of the k-th robot)
//   frames   until the end of the file: float64 time, then per body
//            float32 position[3] and float32 quaternion[4] (w,x,y,z)
//
// Version 1 files (no owner field) are still read; their owners are -1.
#ifndef VORSIM_EXAMPLES_TRAJECTORY_HPP
#define VORSIM_EXAMPLES_TRAJECTORY_HPP

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "vorsim/object/ArticulatedSystem/ArticulatedSystem.hpp"

namespace trajectory {

struct BodyInfo {
  int32_t type = 0;
  int32_t material = 0;
  double size[3] = {0, 0, 0};
  int32_t owner = -1;
};

struct Pose {
  float position[3];
  float quaternion[4];
};

class Writer {
 public:
  // Opens the file and writes the header and the body table. ok() tells whether
  // the file could be opened.
  Writer(const std::string& path, const std::vector<BodyInfo>& bodies, double frameInterval)
      : file_(std::fopen(path.c_str(), "wb")), bodyCount_(bodies.size()) {
    if (!file_) return;
    const uint32_t version = 2, count = uint32_t(bodies.size());
    std::fwrite("VORTRAJ1", 1, 8, file_);
    std::fwrite(&version, sizeof(version), 1, file_);
    std::fwrite(&count, sizeof(count), 1, file_);
    std::fwrite(&frameInterval, sizeof(frameInterval), 1, file_);
    for (const BodyInfo& b : bodies) {
      std::fwrite(&b.type, sizeof(b.type), 1, file_);
      std::fwrite(&b.material, sizeof(b.material), 1, file_);
      std::fwrite(b.size, sizeof(double), 3, file_);
      std::fwrite(&b.owner, sizeof(b.owner), 1, file_);
    }
  }
  ~Writer() {
    if (file_) std::fclose(file_);
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  bool ok() const { return file_ != nullptr; }

  // One frame: the time and one pose per body, in the order of the body table.
  void frame(double time, const std::vector<Pose>& poses) {
    if (!file_ || poses.size() != bodyCount_) return;
    std::fwrite(&time, sizeof(time), 1, file_);
    std::fwrite(poses.data(), sizeof(Pose), poses.size(), file_);
  }

 private:
  std::FILE* file_;
  size_t bodyCount_;
};

static_assert(sizeof(Pose) == 28, "a pose is seven packed floats");

inline Pose makePose(const vorsim::Mat<3, 1>& p, const vorsim::Mat<4, 1>& q) {
  return {{float(p[0]), float(p[1]), float(p[2])}, {float(q[0]), float(q[1]), float(q[2]), float(q[3])}};
}

// A robot enters the body table as its collision shapes, each recorded with
// its own pose: a viewer needs no robot model to draw it.
inline void appendRobot(const vorsim::ArticulatedSystem& robot, int32_t owner, int32_t material,
                        std::vector<BodyInfo>& table) {
  for (const vorsim::VisObject& v : robot.getVisColOb()) {
    BodyInfo b;
    b.material = material;
    b.owner = owner;
    switch (v.shape) {
      case vorsim::Shape::Box:
        b.type = vorsim::BOX;
        for (int i = 0; i < 3; ++i) b.size[i] = v.shapeParam[size_t(i)];
        break;
      case vorsim::Shape::Sphere:
        b.type = vorsim::SPHERE;
        b.size[0] = v.shapeParam[0];
        break;
      case vorsim::Shape::Cylinder:
      case vorsim::Shape::Capsule:
        b.type = v.shape == vorsim::Shape::Cylinder ? vorsim::CYLINDER : vorsim::CAPSULE;
        b.size[0] = v.shapeParam[0];
        b.size[1] = v.shapeParam[1];
        break;
      default:
        b.type = vorsim::MESH;
        for (int i = 0; i < 3; ++i) b.size[i] = v.scale[size_t(i)];
        break;
    }
    table.push_back(b);
  }
}

// The poses of the shapes appendRobot listed, in the same order, written
// from `first` on.
inline void robotPoses(const vorsim::ArticulatedSystem& robot, std::vector<Pose>& poses, size_t first) {
  vorsim::Mat<3, 3> rot;
  vorsim::Mat<3, 1> pos;
  vorsim::Mat<4, 1> quat;
  for (const vorsim::VisObject& v : robot.getVisColOb()) {
    robot.getPose(v, rot, pos);
    vorsim::rotMatToQuat(rot, quat);
    poses[first++] = makePose(pos, quat);
  }
}

struct Recording {
  double frameInterval = 0;
  std::vector<BodyInfo> bodies;
  std::vector<double> times;
  std::vector<std::vector<Pose>> frames;
};

// Reads a whole file; returns false on a malformed or truncated one.
inline bool read(const std::string& path, Recording& out) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  auto get = [f](void* p, size_t size, size_t n) { return std::fread(p, size, n, f) == n; };
  char magic[8];
  uint32_t version = 0, count = 0;
  bool good = get(magic, 1, 8) && std::memcmp(magic, "VORTRAJ1", 8) == 0 && get(&version, 4, 1) &&
              (version == 1 || version == 2) && get(&count, 4, 1) && get(&out.frameInterval, 8, 1);
  out.bodies.assign(good ? count : 0, BodyInfo());
  for (BodyInfo& b : out.bodies) {
    good = good && get(&b.type, 4, 1) && get(&b.material, 4, 1) && get(b.size, 8, 3);
    if (version == 2) good = good && get(&b.owner, 4, 1);
  }
  while (good) {
    double t;
    if (!get(&t, 8, 1)) break;  // a clean end of file
    std::vector<Pose> poses(count);
    if (count && !get(poses.data(), sizeof(Pose), count)) {
      good = false;
      break;
    }
    out.times.push_back(t);
    out.frames.push_back(std::move(poses));
  }
  std::fclose(f);
  return good;
}

}  // namespace trajectory

#endif  // VORSIM_EXAMPLES_TRAJECTORY_HPP
