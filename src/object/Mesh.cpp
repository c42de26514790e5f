#include "vorsim/object/Mesh.hpp"

#include <cfloat>
#include <fstream>

#include "vorsim/Collision.hpp"
#include "vorsim/VorSimMsg.hpp"

namespace vorsim {

namespace {

// Blank-separated tokens of a line; runs of blanks count as one separator.
void splitBlanks(const std::string& line, std::vector<std::string>& tokens) {
  tokens.clear();
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && line[i] == ' ') ++i;
    if (i == line.size()) break;
    const size_t end = line.find(' ', i);
    tokens.push_back(line.substr(i, end == std::string::npos ? std::string::npos : end - i));
    i = end == std::string::npos ? line.size() : end;
  }
}

std::string extensionOf(const std::string& fileName) {
  const size_t dot = fileName.rfind('.');
  return dot == std::string::npos ? std::string() : fileName.substr(dot + 1);
}

}  // namespace

void Mesh::loadObj(const std::string& fileName, std::vector<float>& vertices, std::vector<uint32_t>& indices,
                   double scale) {
  std::ifstream file(fileName);
  if (!file.is_open()) {
    MSG_FATAL(fileName << " is not found.");
    return;
  }
  if (extensionOf(fileName) != "obj") {
    MSG_FATAL("Only obj files are supported for mesh collision bodies");
    return;
  }

  std::string line;
  std::vector<std::string> tokens;
  size_t lineNumber = 0;
  const size_t firstIndex = indices.size();
  const size_t firstVertex = vertices.size();
  while (std::getline(file, line)) {
    ++lineNumber;
    if (line.find(' ') == std::string::npos) continue;
    splitBlanks(line, tokens);
    if (tokens.empty()) continue;
    const std::string& kind = tokens[0];
    if (kind != "v" && kind != "f") continue;
    size_t current = 0;
    try {
      if (kind == "v") {
        if (tokens.size() < 4) {
          MSG_FATAL(fileName << ": line " << lineNumber << ": a vertex needs three coordinates");
          return;
        }
        for (size_t k = 1; k <= 3; ++k) {
          current = k;
          vertices.push_back(static_cast<float>(std::stod(tokens[k]) * scale));
        }
      } else {
        if (tokens.size() < 4) {
          MSG_FATAL(fileName << ": line " << lineNumber << ": a face needs three vertices");
          return;
        }
        uint32_t v[4];
        const size_t count = tokens.size() >= 5 ? 4 : 3;
        for (size_t k = 0; k < count; ++k) {
          current = k + 1;
          const std::string& t = tokens[k + 1];
          v[k] = static_cast<uint32_t>(std::stoi(t.substr(0, t.find('/'))) - 1);
        }
        indices.insert(indices.end(), {v[0], v[1], v[2]});
        if (count == 4 && v[3] != v[2]) indices.insert(indices.end(), {v[2], v[3], v[0]});
      }
    } catch (const std::exception&) {
      MSG_FATAL(fileName << ": line " << lineNumber << ": '" << tokens[current] << "' is not a number");
      return;
    }
  }

  // Negative (relative) and zero indices wrap to huge values and fail here too.
  const size_t vertexCount = (vertices.size() - firstVertex) / 3;
  for (size_t i = firstIndex; i < indices.size(); ++i) {
    if (indices[i] >= vertexCount) {
      MSG_FATAL(fileName << ": a face refers to vertex " << int64_t(int32_t(indices[i])) + 1
                         << ", but the file defines " << vertexCount << " vertices");
      return;
    }
  }
}

double Mesh::massPropertiesOfClosedMesh(const std::vector<float>& vertices, const std::vector<uint32_t>& indices,
                                        double mass, Mat<3, 3>& inertia, Mat<3, 1>& com) {
  // Each triangle spans a tetrahedron with the origin; signed volumes make the
  // sum exact for any closed surface. For a tetrahedron (0, a, b, c) of volume
  // v, the integral of x x^T is v/20 (a a^T + b b^T + c c^T + s s^T), s = a+b+c.
  double volume = 0.0;
  Mat<3, 1> first{0.0, 0.0, 0.0};
  Mat<3, 3> second;
  second.setZero();
  for (size_t t = 0; t + 2 < indices.size(); t += 3) {
    Mat<3, 1> p[3];
    for (size_t k = 0; k < 3; ++k)
      for (size_t d = 0; d < 3; ++d) p[k][d] = vertices[3 * indices[t + k] + d];
    const double v = dot(p[0], cross(p[1], p[2])) / 6.0;
    const Mat<3, 1> s{p[0][0] + p[1][0] + p[2][0], p[0][1] + p[1][1] + p[2][1], p[0][2] + p[1][2] + p[2][2]};
    volume += v;
    for (size_t d = 0; d < 3; ++d) first[d] += v * s[d] / 4.0;
    for (size_t i = 0; i < 3; ++i)
      for (size_t j = 0; j < 3; ++j)
        second(i, j) += v / 20.0 * (p[0][i] * p[0][j] + p[1][i] * p[1][j] + p[2][i] * p[2][j] + s[i] * s[j]);
  }
  if (std::abs(volume) < 1e-15) return 0.0;

  const double density = mass / volume;
  for (size_t d = 0; d < 3; ++d) com[d] = first[d] / volume;
  // Second moment about the centre of mass, then I = tr(C) 1 - C.
  Mat<3, 3> C;
  for (size_t i = 0; i < 3; ++i)
    for (size_t j = 0; j < 3; ++j) C(i, j) = density * second(i, j) - mass * com[i] * com[j];
  const double trace = C(0, 0) + C(1, 1) + C(2, 2);
  for (size_t i = 0; i < 3; ++i)
    for (size_t j = 0; j < 3; ++j) inertia(i, j) = (i == j ? trace : 0.0) - C(i, j);
  return std::abs(volume);
}

Mesh::Mesh(const std::string& fileName, dxSpace* space, double mass, const Mat<3, 3>& inertia, const Mat<3, 1>& com,
           double scale)
    : SingleBodyObject(MESH), meshFileName(fileName), meshScale(scale) {
  loadObj(fileName, meshVertices, meshIndices, scale);
  _init(space, mass, inertia, com);
}

Mesh::Mesh(const std::string& fileName, dxSpace* space, double mass, double scale)
    : SingleBodyObject(MESH), meshFileName(fileName), meshScale(scale) {
  loadObj(fileName, meshVertices, meshIndices, scale);
  for (float& x : meshVertices) x = static_cast<float>(x * scale);

  float lo[3] = {FLT_MAX, FLT_MAX, FLT_MAX};
  float hi[3] = {0.0f, 0.0f, 0.0f};
  for (size_t i = 0; i + 2 < meshVertices.size(); i += 3) {
    for (size_t d = 0; d < 3; ++d) {
      lo[d] = std::min(lo[d], meshVertices[i + d]);
      hi[d] = std::max(hi[d], meshVertices[i + d]);
    }
  }
  const double dx = double(hi[0]) - lo[0], dy = double(hi[1]) - lo[1], dz = double(hi[2]) - lo[2];
  Mat<3, 3> inertia;
  inertia.setZero();
  inertia(0, 0) = (mass / 12.0) * dy * dy * dz * dz;
  inertia(1, 1) = (mass / 12.0) * dx * dx * dz * dz;
  inertia(2, 2) = (mass / 12.0) * dx * dx * dy * dy;
  const Mat<3, 1> com{(double(lo[0]) + hi[0]) * 0.5, (double(lo[1]) + hi[1]) * 0.5, (double(lo[2]) + hi[2]) * 0.5};
  _init(space, mass, inertia, com);
}

Mesh::Mesh(const std::vector<float>& vertices, const std::vector<uint32_t>& indices, dxSpace* space, double mass,
           const Mat<3, 3>& inertia, const Mat<3, 1>& com, double scale)
    : SingleBodyObject(MESH), meshIndices(indices), meshVertices(vertices), meshScale(scale) {
  for (float& x : meshVertices) x = static_cast<float>(x * scale);
  _init(space, mass, inertia, com);
}

Mesh::~Mesh() {
  destroyGeom(collisionObject_);
  collisionObject_ = nullptr;
  if (meshData) dGeomTriMeshDataDestroy(meshData);
}

void Mesh::_init(dxSpace* space, double mass, const Mat<3, 3>& inertia, const Mat<3, 1>& com) {
  position_.setZero();
  rotationMatrix_.setIdentity();
  comOffset_ = com;
  comPosition_ = position_;
  setMass(mass);
  collisionObject_ = createTriMeshGeom(space, meshVertices, meshIndices, meshData);
  bodyInertia_ = inertia;
  worldInertia_ = inertia;
  invert33(bodyInertia_, bodyInertiaInverse_);
  worldInertiaInverse_ = bodyInertiaInverse_;
  gyroscopicMode_ = EXPLICIT_GYROSCOPIC_FORCE;
  updateCollision();
}

}  // namespace vorsim
