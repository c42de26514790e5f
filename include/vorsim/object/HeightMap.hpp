// Static terrain over a regular grid of heights. The heights come from the
// fractal generator, a text file, a single-channel PNG image or the caller's
// vector. The collision library reads the grid in place as a heightfield, and
// getHeight / getNormal answer on exactly the triangulated surface that
// collision sees.
//
// Grid layout: heights_[y * xSamples + x], x and y indices increasing with the
// world's x and y. The grid spans [centerX - xSize/2, centerX + xSize/2] by
// [centerY - ySize/2, centerY + ySize/2], so sample (0, 0) lies at the corner of
// least x and y.
#ifndef VORSIM_OBJECT_HEIGHTMAP_HPP
#define VORSIM_OBJECT_HEIGHTMAP_HPP

#include <cstdint>
#include <string>
#include <vector>

#include "vorsim/Collision.hpp"
#include "vorsim/object/SingleBodyObject.hpp"
#include "vorsim/object/TerrainGenerator.hpp"

namespace vorsim {

// A colour per grid point, for a viewer only.
struct ColorRGB {
  uint8_t r = 255, g = 255, b = 255;
};

// Reads a PNG image of one channel, 8 or 16 bits per sample, into `heights`
// (emptied first): image rows in order, each row mirrored in x (last column
// first). A sample v becomes v * scale + offset; a 16-bit sample is
// first byte * 255 + second byte, so white is 65280. Anything else (missing
// file, not a PNG, colour or alpha channels, other bit depths, a damaged file)
// is a fatal message, and `heights` is left empty.
void read_png_file(const char* file, int& width, int& height, std::vector<double>& heights, double scale,
                   double offset);

class HeightMap : public SingleBodyObject {
 public:
  // Generated terrain centred at (centerX, centerY).
  HeightMap(double centerX, double centerY, const TerrainProperties& properties);
  // Text file: xSamples ySamples (unsigned), xSize ySize, then the heights row
  // after row, blank-separated, until the end of the file.
  HeightMap(double centerX, double centerY, const std::string& file);
  // PNG image through read_png_file; the file name must end in ".png".
  HeightMap(double centerX, double centerY, const std::string& pngFile, double xSize, double ySize, double heightScale,
            double heightOffset);
  // The caller's grid, heights[y * xSamples + x].
  HeightMap(size_t xSamples, size_t ySamples, double xSize, double ySize, double centerX, double centerY,
            const std::vector<double>& heights);
  ~HeightMap() override;

  // Height of the terrain at world (x, y); outside the grid the border
  // continues level. Both queries answer for the place where the map was built
  // (or last updated): setPosition and setOrientation move the geom only.
  double getHeight(double x, double y) const;
  // Unit upward normal of the terrain at world (x, y).
  void getNormal(double x, double y, Mat<3, 1>& normal) const;

  // The grid as built, heights_[y * xSamples + x]. Writing into it changes
  // neither collision nor the queries: use update.
  std::vector<double>& getHeightMap() { return heights_; }
  const std::vector<double>& getHeightMap() const { return heights_; }

  // New heights on the same grid (the sample counts must be those of the map;
  // anything else is a fatal message). The centre and sizes are stored for the
  // queries; the geom stays where it is and the collision grid keeps the
  // spacing it was built with, so a changed size gets a warning.
  void update(double centerX, double centerY, const TerrainProperties& properties);
  void update(double centerX, double centerY, double xSize, double ySize, const std::vector<double>& heights);

  // Places the geom at the centre of mass position with the map's rotation
  // (the heightfield's up axis is turned onto the world's z).
  void updateCollision() override;
  void destroyCollisionBodies(dxSpace* space) override;

  double getCenterX() const { return centerX_; }
  double getCenterY() const { return centerY_; }
  double getXSize() const { return xSize_; }
  double getYSize() const { return ySize_; }
  size_t getXSamples() const { return xSamples_; }
  size_t getYSamples() const { return ySamples_; }
  // Set by update, for a viewer to see that the heights changed; the viewer
  // clears it.
  bool isUpdated() const { return isUpdated_; }
  void setUpdated(bool updated) { isUpdated_ = updated; }
  std::vector<ColorRGB>& getColorMap() { return colorMap_; }
  const std::vector<ColorRGB>& getColorMap() const { return colorMap_; }
  dxHeightfieldData* getHeightFieldData() const { return heightFieldData_; }

  // A map with the same grid, centre, pose, appearance and colours as `other`
  // (its geom is not in any space yet). Used by World::addHeightMap.
  static HeightMap* copyOf(const HeightMap& other);

 protected:
  // Builds the collision grid from heights_ and places the geom.
  void init(size_t xSamples, size_t ySamples, double xSize, double ySize, double centerX, double centerY);

 private:
  void generateTerrain(const TerrainProperties& properties);
  void readTextFile(const std::string& file);
  // Shared tail of both updates, with heights_ already replaced.
  void applyUpdate(double centerX, double centerY, double xSize, double ySize);
  void resetBodyFrame();
  void setBoundsFromHeights();
  void fillFlippedRows();

  std::vector<double> heights_;
  // heights_ with the row order reversed: the buffer the collision library
  // reads in place. It keeps its size (and address) for the map's lifetime.
  std::vector<double> heightsFlipped_;
  std::vector<ColorRGB> colorMap_;
  bool isUpdated_ = false;
  dxHeightfieldData* heightFieldData_ = nullptr;
  double centerX_ = 0.0, centerY_ = 0.0;
  double xSize_ = 0.0, ySize_ = 0.0;
  size_t xSamples_ = 0, ySamples_ = 0;
  // Fixed rotation from the heightfield's axes (y up) to the world's (z up).
  Mat<3, 3> collisionRotation_ = Mat<3, 3>::getIdentity();
  // The collision grid as built: the queries read it as collision does.
  HeightfieldGrid grid_;
};

}  // namespace vorsim

#endif  // VORSIM_OBJECT_HEIGHTMAP_HPP
