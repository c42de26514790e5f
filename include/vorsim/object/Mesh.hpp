// A rigid body whose collision shape is a triangle mesh, read from an OBJ file
// or given as arrays. Mesh::loadObj also reads the mesh collision bodies of
// robots.
#ifndef VORSIM_OBJECT_MESH_HPP
#define VORSIM_OBJECT_MESH_HPP

#include <cstdint>
#include <string>
#include <vector>

#include "vorsim/object/SingleBodyObject.hpp"

namespace vorsim {

class Mesh : public SingleBodyObject {
 public:
  // Vertices scaled once by `scale`; inertia (about the centre of mass) and
  // centre of mass as given.
  Mesh(const std::string& fileName, dxSpace* space, double mass, const Mat<3, 3>& inertia, const Mat<3, 1>& com,
       double scale);
  // Vertices scaled by `scale` twice (once while reading, once more here). The
  // inertia is diagonal from the bounding box with the products of squares,
  // I_xx = m/12 dy^2 dz^2 (and so on), and the centre of mass is the box's
  // middle. The box starts from min = FLT_MAX and max = 0, so it always
  // reaches the origin. Kept as it is: models rely on these numbers.
  Mesh(const std::string& fileName, dxSpace* space, double mass, double scale);
  // Copies the arrays and scales every vertex value once.
  Mesh(const std::vector<float>& vertices, const std::vector<uint32_t>& indices, dxSpace* space, double mass,
       const Mat<3, 3>& inertia, const Mat<3, 1>& com, double scale);
  // The geom goes first (unless destroyCollisionBodies already took it), then
  // the triangle data it points into.
  ~Mesh() override;

  // Reads an OBJ file: "v x y z" vertices (scaled in double precision, stored
  // as float) and "f" faces of three or four vertices (a quad gives two
  // triangles unless its fourth vertex repeats the third; "i/j/k" counts by
  // i). Other lines are ignored. A missing file is the fatal message
  // "<file> is not found.", another extension than "obj" "Only obj files are
  // supported for mesh collision bodies"; text that is no number and faces
  // that refer to missing vertices are fatal messages with the file and line.
  static void loadObj(const std::string& fileName, std::vector<float>& vertices, std::vector<uint32_t>& indices,
                      double scale);

  // Mass properties of a closed triangle mesh filled with `mass` at uniform
  // density: the inertia about the centre of mass and the centre of mass.
  // Returns the enclosed volume (0 for a mesh that encloses none); the outputs
  // are meaningful only when it is not 0.
  static double massPropertiesOfClosedMesh(const std::vector<float>& vertices, const std::vector<uint32_t>& indices,
                                           double mass, Mat<3, 3>& inertia, Mat<3, 1>& com);

  const std::vector<uint32_t>& getMeshIndices() const { return meshIndices; }
  const std::vector<float>& getMeshVertices() const { return meshVertices; }
  const std::string& getMeshFileName() const { return meshFileName; }
  double getMeshScale() const { return meshScale; }
  // Records the file (read with `scale`) that a mesh built from arrays came
  // from, so that a writer can name it.
  void setMeshSource(const std::string& fileName, double scale) {
    meshFileName = fileName;
    meshScale = scale;
  }

 protected:
  // Pose at the origin, centre-of-mass offset `com` (the centre of mass itself
  // is not moved until the first position setter), mass, the triangle geom,
  // inertia and its inverse.
  void _init(dxSpace* space, double mass, const Mat<3, 3>& inertia, const Mat<3, 1>& com);

  std::vector<uint32_t> meshIndices;
  std::vector<float> meshVertices;
  dTriMeshDataID meshData = nullptr;
  std::string meshFileName;
  double meshScale = 1.0;
};

}  // namespace vorsim

#endif  // VORSIM_OBJECT_MESH_HPP
