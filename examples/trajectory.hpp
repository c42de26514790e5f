// Trajectory files: the bodies of a scene and their poses over time, for a
// viewer to play back. The layout (all little-endian) is described in
// docs/trajectory-format.md:
//
//   header   "VORTRAJ1" (8 bytes), uint32 version (1), uint32 body count,
//            float64 frame interval in seconds
//   bodies   per body: int32 object type (0 sphere, 1 box, 2 cylinder,
//            4 capsule, 6 ground), int32 material id, float64 size[3]
//            (sphere: r,0,0; box: x,y,z edges; cylinder and capsule: r,h,0;
//            ground: 0,0,height)
//   frames   until the end of the file: float64 time, then per body
//            float32 position[3] and float32 quaternion[4] (w,x,y,z)
#ifndef VORSIM_EXAMPLES_TRAJECTORY_HPP
#define VORSIM_EXAMPLES_TRAJECTORY_HPP

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace trajectory {

struct BodyInfo {
  int32_t type = 0;
  int32_t material = 0;
  double size[3] = {0, 0, 0};
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
    const uint32_t version = 1, count = uint32_t(bodies.size());
    std::fwrite("VORTRAJ1", 1, 8, file_);
    std::fwrite(&version, sizeof(version), 1, file_);
    std::fwrite(&count, sizeof(count), 1, file_);
    std::fwrite(&frameInterval, sizeof(frameInterval), 1, file_);
    for (const BodyInfo& b : bodies) {
      std::fwrite(&b.type, sizeof(b.type), 1, file_);
      std::fwrite(&b.material, sizeof(b.material), 1, file_);
      std::fwrite(b.size, sizeof(double), 3, file_);
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
  bool good = get(magic, 1, 8) && std::memcmp(magic, "VORTRAJ1", 8) == 0 && get(&version, 4, 1) && version == 1 &&
              get(&count, 4, 1) && get(&out.frameInterval, 8, 1);
  out.bodies.assign(good ? count : 0, BodyInfo());
  for (BodyInfo& b : out.bodies) good = good && get(&b.type, 4, 1) && get(&b.material, 4, 1) && get(b.size, 8, 3);
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
