#include "vorsim/object/HeightMap.hpp"

#include <png.h>

#include <algorithm>
#include <cctype>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>

#include "vorsim/VorSimMsg.hpp"

namespace vorsim {

// --------------------------------------------------------------- PNG source --

namespace {

enum class PngStatus { OK, NO_READ_STRUCT, LIBPNG_ERROR, NOT_SINGLE_CHANNEL, BAD_BIT_DEPTH };

// Everything the reader holds, kept outside the frame that calls setjmp so that
// a jump back from libpng loses nothing and skips no destructor.
struct PngImage {
  FILE* file = nullptr;
  png_structp png = nullptr;
  png_infop info = nullptr;
  png_bytep* rows = nullptr;
  png_uint_32 width = 0, height = 0;
  int bitDepth = 0;
};

// libpng reports through these: errors jump back to the setjmp point, and
// warnings are dropped (our own message follows any failure).
void pngError(png_structp png, png_const_charp) { png_longjmp(png, 1); }
void pngWarning(png_structp, png_const_charp) {}

// Reads the image after its 8-byte signature. Returns at the first failure;
// whatever was allocated stays in `img` for releasePngImage.
PngStatus readPngImage(PngImage* img) {
  img->png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, pngError, pngWarning);
  if (img->png == nullptr) return PngStatus::NO_READ_STRUCT;
  img->info = png_create_info_struct(img->png);
  if (img->info == nullptr) return PngStatus::LIBPNG_ERROR;
  if (setjmp(png_jmpbuf(img->png))) return PngStatus::LIBPNG_ERROR;

  png_init_io(img->png, img->file);
  png_set_sig_bytes(img->png, 8);
  png_read_info(img->png, img->info);
  img->width = png_get_image_width(img->png, img->info);
  img->height = png_get_image_height(img->png, img->info);
  img->bitDepth = png_get_bit_depth(img->png, img->info);
  // Samples are read as one channel: colour, palette or alpha images would be
  // read as garbage heights.
  if (png_get_color_type(img->png, img->info) != PNG_COLOR_TYPE_GRAY) return PngStatus::NOT_SINGLE_CHANNEL;
  if (img->bitDepth != 8 && img->bitDepth != 16) return PngStatus::BAD_BIT_DEPTH;

  png_set_interlace_handling(img->png);
  png_read_update_info(img->png, img->info);
  const size_t rowBytes = png_get_rowbytes(img->png, img->info);
  img->rows = static_cast<png_bytep*>(std::calloc(img->height, sizeof(png_bytep)));
  if (img->rows == nullptr) return PngStatus::LIBPNG_ERROR;
  for (png_uint_32 r = 0; r < img->height; ++r) {
    img->rows[r] = static_cast<png_bytep>(std::malloc(rowBytes));
    if (img->rows[r] == nullptr) return PngStatus::LIBPNG_ERROR;
  }
  png_read_image(img->png, img->rows);
  return PngStatus::OK;
}

void releasePngImage(PngImage* img) {
  if (img->rows != nullptr) {
    for (png_uint_32 r = 0; r < img->height; ++r) std::free(img->rows[r]);
    std::free(img->rows);
  }
  if (img->png != nullptr) png_destroy_read_struct(&img->png, img->info ? &img->info : nullptr, nullptr);
  if (img->file != nullptr) std::fclose(img->file);
}

bool hasPngExtension(const std::string& file) {
  const size_t dot = file.rfind('.');
  if (dot == std::string::npos) return false;
  std::string extension = file.substr(dot + 1);
  for (char& c : extension) c = char(std::tolower(static_cast<unsigned char>(c)));
  return extension == "png";
}

}  // namespace

void read_png_file(const char* file, int& width, int& height, std::vector<double>& heights, double scale,
                   double offset) {
  heights.clear();
  width = height = 0;
  PngImage img;
  img.file = std::fopen(file, "rb");
  if (img.file == nullptr) {
    MSG_FATAL(file << " not found");
    return;
  }
  png_byte header[8];
  if (std::fread(header, 1, 8, img.file) != 8) {
    releasePngImage(&img);
    MSG_FATAL("Error reading header");
    return;
  }
  if (png_sig_cmp(header, 0, 8) != 0) {
    releasePngImage(&img);
    MSG_FATAL(file << " is not png");
    return;
  }

  const PngStatus status = readPngImage(&img);
  if (status == PngStatus::OK) {
    width = int(img.width);
    height = int(img.height);
    heights.reserve(size_t(img.width) * size_t(img.height));
    for (png_uint_32 r = 0; r < img.height; ++r) {
      const png_bytep row = img.rows[r];
      for (png_uint_32 c = img.width; c-- > 0;) {
        const double v = img.bitDepth == 8 ? double(row[c]) : double(row[2 * c]) * 255.0 + double(row[2 * c + 1]);
        heights.push_back(v * scale + offset);
      }
    }
  }
  releasePngImage(&img);

  switch (status) {
    case PngStatus::OK:
      break;
    case PngStatus::NO_READ_STRUCT:
      MSG_FATAL("libpng failed to read the file");
      break;
    case PngStatus::LIBPNG_ERROR:
      MSG_FATAL("libpng fialed to read the png info");
      break;
    case PngStatus::NOT_SINGLE_CHANNEL:
      MSG_FATAL(file << ": a PNG height map must have a single grey channel (no colour, palette or alpha)");
      break;
    case PngStatus::BAD_BIT_DEPTH:
      MSG_FATAL("PNG height map only support bit depth of 8 or 16");
      break;
  }
}

// ------------------------------------------------------------- construction --

HeightMap::HeightMap(double centerX, double centerY, const TerrainProperties& properties)
    : SingleBodyObject(HEIGHTMAP) {
  generateTerrain(properties);
  init(properties.xSamples, properties.ySamples, properties.xSize, properties.ySize, centerX, centerY);
}

HeightMap::HeightMap(double centerX, double centerY, const std::string& file) : SingleBodyObject(HEIGHTMAP) {
  readTextFile(file);
  init(xSamples_, ySamples_, xSize_, ySize_, centerX, centerY);
}

HeightMap::HeightMap(double centerX, double centerY, const std::string& pngFile, double xSize, double ySize,
                     double heightScale, double heightOffset)
    : SingleBodyObject(HEIGHTMAP) {
  int width = 0, height = 0;
  if (!hasPngExtension(pngFile))
    MSG_FATAL("This constructor is for png file");
  else
    read_png_file(pngFile.c_str(), width, height, heights_, heightScale, heightOffset);
  init(size_t(width), size_t(height), xSize, ySize, centerX, centerY);
}

HeightMap::HeightMap(size_t xSamples, size_t ySamples, double xSize, double ySize, double centerX, double centerY,
                     const std::vector<double>& heights)
    : SingleBodyObject(HEIGHTMAP), heights_(heights) {
  if (heights_.size() != xSamples * ySamples)
    MSG_FATAL("Height map of " << xSamples << " by " << ySamples << " samples needs " << xSamples * ySamples
                               << " heights, got " << heights_.size());
  init(xSamples, ySamples, xSize, ySize, centerX, centerY);
}

HeightMap::~HeightMap() {
  // The geom refers to the data: it goes first.
  destroyGeom(collisionObject_);
  collisionObject_ = nullptr;
  if (heightFieldData_ != nullptr) {
    unregisterHeightfieldGrid(heightFieldData_);
    dGeomHeightfieldDataDestroy(heightFieldData_);
  }
}

void HeightMap::generateTerrain(const TerrainProperties& properties) {
  TerrainGenerator generator(properties);
  heights_ = generator.generatePerlinFractalTerrain();
}

void HeightMap::readTextFile(const std::string& file) {
  std::ifstream in(file);
  if (!in) {
    MSG_FATAL("\n Error opening file.\n");
    return;
  }
  if (!(in >> xSamples_ >> ySamples_ >> xSize_ >> ySize_)) {
    MSG_FATAL("Height Map is in a wrong format");
    return;
  }
  double h;
  while (in >> h) heights_.push_back(h);
  if (heights_.size() != xSamples_ * ySamples_) MSG_FATAL("insufficient number of height values");
}

void HeightMap::init(size_t xSamples, size_t ySamples, double xSize, double ySize, double centerX, double centerY) {
  // A grid the collision library can hold: at least two samples each way (one
  // cell), a height per sample, positive finite sizes. A caller's fatal callback
  // that returns gets a defined map: missing heights are 0, extra ones dropped,
  // and a grid too small or too large becomes a level 2 by 2 grid.
  const size_t maxSamples = size_t(std::numeric_limits<int>::max());
  const bool countsUsable = xSamples >= 2 && ySamples >= 2 && xSamples <= maxSamples && ySamples <= maxSamples;
  if (!countsUsable)
    MSG_FATAL("Height map needs at least 2 samples in each direction, got " << xSamples << " by " << ySamples);
  if (!(xSize > 0.0 && ySize > 0.0 && std::isfinite(xSize) && std::isfinite(ySize)))
    MSG_FATAL("Height map needs positive finite sizes, got " << xSize << " by " << ySize);
  if (!countsUsable) {
    xSamples = ySamples = 2;
    heights_.assign(4, 0.0);
  }
  heights_.resize(xSamples * ySamples, 0.0);
  if (!(xSize > 0.0 && std::isfinite(xSize))) xSize = 1.0;
  if (!(ySize > 0.0 && std::isfinite(ySize))) ySize = 1.0;

  xSamples_ = xSamples;
  ySamples_ = ySamples;
  xSize_ = xSize;
  ySize_ = ySize;
  centerX_ = centerX;
  centerY_ = centerY;
  bodyType_ = STATIC;
  resetBodyFrame();

  heightsFlipped_.resize(heights_.size());
  fillFlippedRows();
  grid_ = {heightsFlipped_.data(), xSamples_, ySamples_, xSize_, ySize_};

  heightFieldData_ = dGeomHeightfieldDataCreate();
  dGeomHeightfieldDataBuildDouble(heightFieldData_, heightsFlipped_.data(), 0, xSize_, ySize_, int(xSamples_),
                                  int(ySamples_), 1.0, 0.0, 100.0, 0);
  registerHeightfieldGrid(heightFieldData_, grid_);
  collisionObject_ = attachGeomData(dCreateHeightfield(nullptr, heightFieldData_, 1));
  setBoundsFromHeights();

  // The heightfield's up axis is its y: a quarter turn about x makes it z.
  dMatrix3 R;
  dRSetIdentity(R);
  dRFromAxisAndAngle(R, 1.0, 0.0, 0.0, M_PI / 2.0);
  dGeomSetRotation(collisionObject_, R);
  dGeomSetPosition(collisionObject_, centerX_, centerY_, 0.0);
  angleAxisToRotMat(Mat<3, 1>{1.0, 0.0, 0.0}, M_PI / 2.0, collisionRotation_);
}

HeightMap* HeightMap::copyOf(const HeightMap& other) {
  auto* copy = new HeightMap(other.xSamples_, other.ySamples_, other.xSize_, other.ySize_, other.centerX_,
                             other.centerY_, other.heights_);
  copy->position_ = other.position_;
  copy->comPosition_ = other.comPosition_;
  copy->collisionCenter_ = other.collisionCenter_;
  copy->orientationQuat_ = other.orientationQuat_;
  copy->rotationMatrix_ = other.rotationMatrix_;
  const dReal* p = dGeomGetPosition(other.collisionObject_);
  dGeomSetPosition(copy->collisionObject_, p[0], p[1], p[2]);
  dGeomSetRotation(copy->collisionObject_, dGeomGetRotation(other.collisionObject_));
  copy->appearance_ = other.appearance_;
  copy->colorMap_ = other.colorMap_;
  return copy;
}

// --------------------------------------------------------------------- state --

void HeightMap::resetBodyFrame() {
  comPosition_.setZero();
  comOffset_.setZero();
  rotationMatrix_.setIdentity();
}

void HeightMap::setBoundsFromHeights() {
  double lowest = std::numeric_limits<double>::max();
  double highest = std::numeric_limits<double>::lowest();
  for (double h : heights_) {
    if (h < lowest) lowest = h;
    if (h > highest) highest = h;
  }
  dGeomHeightfieldDataSetBounds(heightFieldData_, lowest, highest);
}

void HeightMap::fillFlippedRows() {
  for (size_t r = 0; r < ySamples_; ++r)
    std::copy_n(heights_.begin() + std::ptrdiff_t(r * xSamples_), xSamples_,
                heightsFlipped_.begin() + std::ptrdiff_t((ySamples_ - 1 - r) * xSamples_));
}

double HeightMap::getHeight(double x, double y) const {
  return heightfieldHeight(grid_, x - centerX_ + xSize_ / 2.0, centerY_ - y + ySize_ / 2.0);
}

void HeightMap::getNormal(double x, double y, Mat<3, 1>& normal) const {
  heightfieldNormal(grid_, x - centerX_ + xSize_ / 2.0, centerY_ - y + ySize_ / 2.0, normal);
  // The grid's rows run against the world's y.
  normal[1] = -normal[1];
}

void HeightMap::update(double centerX, double centerY, const TerrainProperties& properties) {
  if (properties.xSamples != xSamples_ || properties.ySamples != ySamples_) {
    MSG_FATAL("Height map update needs the map's " << xSamples_ << " by " << ySamples_ << " samples, got "
                                                   << properties.xSamples << " by " << properties.ySamples);
    return;
  }
  isUpdated_ = true;
  generateTerrain(properties);
  applyUpdate(centerX, centerY, properties.xSize, properties.ySize);
}

void HeightMap::update(double centerX, double centerY, double xSize, double ySize, const std::vector<double>& heights) {
  if (heights.size() != xSamples_ * ySamples_) {
    MSG_FATAL("Height map update needs " << xSamples_ * ySamples_ << " heights (" << xSamples_ << " by " << ySamples_
                                         << "), got " << heights.size());
    return;
  }
  isUpdated_ = true;
  heights_ = heights;
  applyUpdate(centerX, centerY, xSize, ySize);
}

void HeightMap::applyUpdate(double centerX, double centerY, double xSize, double ySize) {
  if (xSize != grid_.xSize || ySize != grid_.zSize)
    MSG_WARN("Height map update to a size of " << xSize << " by " << ySize << ": collision keeps the grid of "
                                               << grid_.xSize << " by " << grid_.zSize);
  centerX_ = centerX;
  centerY_ = centerY;
  xSize_ = xSize;
  ySize_ = ySize;
  resetBodyFrame();
  setBoundsFromHeights();
  fillFlippedRows();
  registerHeightfieldGrid(heightFieldData_, grid_);  // the ray index follows the new heights
  // The geom caches its bounding box; setting its pose again, unchanged, makes
  // the collision library recompute it from the new bounds.
  const dReal* p = dGeomGetPosition(collisionObject_);
  const dReal x = p[0], y = p[1], z = p[2];
  dGeomSetPosition(collisionObject_, x, y, z);
}

// ----------------------------------------------------------------- collision --

void HeightMap::updateCollision() {
  collisionCenter_ = comPosition_;
  dGeomSetPosition(collisionObject_, collisionCenter_[0], collisionCenter_[1], collisionCenter_[2]);
  Mat<3, 3> R;
  matmul(rotationMatrix_, collisionRotation_, R);
  dMatrix3 rot = {R(0, 0), R(0, 1), R(0, 2), 0.0, R(1, 0), R(1, 1), R(1, 2), 0.0, R(2, 0), R(2, 1), R(2, 2), 0.0};
  dGeomSetRotation(collisionObject_, rot);
}

void HeightMap::destroyCollisionBodies(dxSpace* space) {
  SingleBodyObject::destroyCollisionBodies(space);
  if (heightFieldData_ != nullptr) {
    unregisterHeightfieldGrid(heightFieldData_);
    dGeomHeightfieldDataDestroy(heightFieldData_);
    heightFieldData_ = nullptr;
  }
}

}  // namespace vorsim
