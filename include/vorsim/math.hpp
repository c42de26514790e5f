// Small fixed-size matrices with an expression layer, heap vectors and matrices,
// the sparse 3-row Jacobian, an aligned allocator, and the rotation / inertia
// helpers used by the inner loops. Everything is double and column-major.
#ifndef VORSIM_MATH_HPP
#define VORSIM_MATH_HPP

#include <Eigen/Core>
#include <Eigen/Geometry>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <new>
#include <type_traits>
#include <vector>

namespace vorsim {

class VecDyn;

// ---------------------------------------------------------------------------
// Expression layer. Expressions hold const references to their operands and
// compute an element only when a Mat is assigned from them, so no temporary
// Mat is created. The target must not alias an operand.
// ---------------------------------------------------------------------------

template <size_t n, size_t m>
class Mat;

template <typename T>
struct IsMatExpr : std::false_type {};

template <typename L, typename R>
struct Prod_op {
  static constexpr size_t rows = L::rows;
  static constexpr size_t cols = R::cols;
  static_assert(L::cols == R::rows, "inner dimensions of a product must agree");
  L const& l;
  R const& r;
  double operator()(size_t i, size_t j) const {
    double s = l(i, 0) * r(0, j);
    for (size_t k = 1; k < L::cols; ++k) s += l(i, k) * r(k, j);
    return s;
  }
};

template <typename L, typename R>
struct Sum_op {
  static constexpr size_t rows = L::rows;
  static constexpr size_t cols = L::cols;
  static_assert(L::rows == R::rows && L::cols == R::cols, "sizes of a sum must agree");
  L const& l;
  R const& r;
  double operator()(size_t i, size_t j) const { return l(i, j) + r(i, j); }
};

template <typename L, typename R>
struct Sub_op {
  static constexpr size_t rows = L::rows;
  static constexpr size_t cols = L::cols;
  static_assert(L::rows == R::rows && L::cols == R::cols, "sizes of a difference must agree");
  L const& l;
  R const& r;
  double operator()(size_t i, size_t j) const { return l(i, j) - r(i, j); }
};

template <typename M>
struct Transpose {
  static constexpr size_t rows = M::cols;
  static constexpr size_t cols = M::rows;
  M const& m;
  double operator()(size_t i, size_t j) const { return m(j, i); }
};

template <typename M>
struct Prod_S_op {
  static constexpr size_t rows = M::rows;
  static constexpr size_t cols = M::cols;
  M const& m;
  double s;
  double operator()(size_t i, size_t j) const { return m(i, j) * s; }
};

template <typename M>
struct Div_S_op {
  static constexpr size_t rows = M::rows;
  static constexpr size_t cols = M::cols;
  M const& m;
  double s;
  double operator()(size_t i, size_t j) const { return m(i, j) / s; }
};

template <size_t n, size_t m>
struct IsMatExpr<Mat<n, m>> : std::true_type {};
template <typename L, typename R>
struct IsMatExpr<Prod_op<L, R>> : std::true_type {};
template <typename L, typename R>
struct IsMatExpr<Sum_op<L, R>> : std::true_type {};
template <typename L, typename R>
struct IsMatExpr<Sub_op<L, R>> : std::true_type {};
template <typename M>
struct IsMatExpr<Transpose<M>> : std::true_type {};
template <typename M>
struct IsMatExpr<Prod_S_op<M>> : std::true_type {};
template <typename M>
struct IsMatExpr<Div_S_op<M>> : std::true_type {};

template <typename T>
constexpr bool isMatExpr = IsMatExpr<std::decay_t<T>>::value;

template <typename L, typename R, typename = std::enable_if_t<isMatExpr<L> && isMatExpr<R>>>
inline Prod_op<L, R> operator*(L const& l, R const& r) {
  return {l, r};
}
template <typename L, typename R, typename = std::enable_if_t<isMatExpr<L> && isMatExpr<R>>>
inline Sum_op<L, R> operator+(L const& l, R const& r) {
  return {l, r};
}
template <typename L, typename R, typename = std::enable_if_t<isMatExpr<L> && isMatExpr<R>>>
inline Sub_op<L, R> operator-(L const& l, R const& r) {
  return {l, r};
}
template <typename M, typename = std::enable_if_t<isMatExpr<M>>>
inline Prod_S_op<M> operator*(M const& m, double s) {
  return {m, s};
}
template <typename M, typename = std::enable_if_t<isMatExpr<M>>>
inline Prod_S_op<M> operator*(double s, M const& m) {
  return {m, s};
}
template <typename M, typename = std::enable_if_t<isMatExpr<M>>>
inline Div_S_op<M> operator/(M const& m, double s) {
  return {m, s};
}
template <typename M, typename = std::enable_if_t<isMatExpr<M>>>
inline Transpose<M> transpose(M const& m) {
  return {m};
}

// ---------------------------------------------------------------------------
// Mat<n,m>: exactly n*m doubles, column-major, element (i,j) at v[i + j*n].
// Default construction leaves the elements undefined; `Mat<3,1> a{}` zeroes.
// ---------------------------------------------------------------------------
template <size_t n, size_t m>
class Mat {
 public:
  static constexpr size_t rows = n;
  static constexpr size_t cols = m;
  using EigenType = Eigen::Matrix<double, int(n), int(m)>;

  double v[n * m];

  Mat() = default;

  // Column-major list of the elements; fewer values than n*m leave the rest 0.
  Mat(std::initializer_list<double> values) {
    size_t k = 0;
    for (double x : values) {
      if (k == n * m) break;
      v[k++] = x;
    }
    for (; k < n * m; ++k) v[k] = 0.0;
  }

  template <typename E, typename = std::enable_if_t<isMatExpr<E> && !std::is_same_v<E, Mat>>>
  Mat(E const& e) {  // NOLINT(google-explicit-constructor): expressions convert implicitly
    assign(e);
  }

  template <typename Derived>
  explicit Mat(Eigen::MatrixBase<Derived> const& e) {
    *this = e;
  }

  template <typename E, typename = std::enable_if_t<isMatExpr<E> && !std::is_same_v<E, Mat>>>
  Mat& operator=(E const& e) {
    assign(e);
    return *this;
  }

  template <typename Derived>
  Mat& operator=(Eigen::MatrixBase<Derived> const& e) {
    static_assert(Derived::RowsAtCompileTime == int(n) && Derived::ColsAtCompileTime == int(m),
                  "Eigen expression has the wrong size");
    for (size_t j = 0; j < m; ++j)
      for (size_t i = 0; i < n; ++i) v[i + j * n] = e(Eigen::Index(i), Eigen::Index(j));
    return *this;
  }

  // Copies the first n elements of a VecDyn without looking at its size.
  Mat& operator=(VecDyn const& vec);

  double& operator[](size_t i) { return v[i]; }
  double operator[](size_t i) const { return v[i]; }
  double& operator()(size_t i, size_t j) { return v[i + j * n]; }
  double operator()(size_t i, size_t j) const { return v[i + j * n]; }

  Eigen::Map<EigenType> e() { return Eigen::Map<EigenType>(v); }
  Eigen::Map<const EigenType> e() const { return Eigen::Map<const EigenType>(v); }

  double* ptr() { return v; }
  const double* ptr() const { return v; }

  void setZero() {
    for (size_t i = 0; i < n * m; ++i) v[i] = 0.0;
  }
  void setIdentity() {
    static_assert(n == m, "identity of a non-square matrix");
    setZero();
    for (size_t i = 0; i < n; ++i) v[i + i * n] = 1.0;
  }
  static Mat getIdentity() {
    Mat r;
    r.setIdentity();
    return r;
  }

  double squaredNorm() const {
    double s = 0.0;
    for (size_t i = 0; i < n * m; ++i) s += v[i] * v[i];
    return s;
  }
  double norm() const { return std::sqrt(squaredNorm()); }

  // The right-hand side is a copy, so `a += a` is safe.
  void operator+=(Mat other) {
    for (size_t i = 0; i < n * m; ++i) v[i] += other.v[i];
  }
  void operator-=(Mat other) {
    for (size_t i = 0; i < n * m; ++i) v[i] -= other.v[i];
  }
  void operator*=(double s) {
    for (size_t i = 0; i < n * m; ++i) v[i] *= s;
  }
  void operator/=(double s) {
    for (size_t i = 0; i < n * m; ++i) v[i] /= s;
  }

  Transpose<Mat> transpose() const { return {*this}; }

 private:
  template <typename E>
  void assign(E const& e) {
    static_assert(E::rows == n && E::cols == m, "expression has the wrong size");
    for (size_t j = 0; j < m; ++j)
      for (size_t i = 0; i < n; ++i) v[i + j * n] = e(i, j);
  }
};

static_assert(sizeof(Mat<3, 3>) == 72, "Mat must hold its elements only");
static_assert(std::is_trivially_copyable_v<Mat<3, 6>>, "Mat must be trivially copyable");


// ---------------------------------------------------------------------------
// Heap vectors and matrices with 16-byte aligned data.
// ---------------------------------------------------------------------------

// Owns a malloc'ed block whose start is moved up to a 16-byte boundary; the raw
// address sits in the 8 bytes just before `v`.
class DynamicArray {
 public:
  double* v = nullptr;

 protected:
  DynamicArray() = default;
  ~DynamicArray() { release(); }
  DynamicArray(DynamicArray const&) = delete;
  DynamicArray& operator=(DynamicArray const&) = delete;

  void allocate(size_t count) {
    release();
    void* raw = std::malloc(count * sizeof(double) + 16);
    if (raw == nullptr) return;
    auto aligned = (reinterpret_cast<std::uintptr_t>(raw) & ~std::uintptr_t(15)) + 16;
    v = reinterpret_cast<double*>(aligned);
    std::memcpy(v - 1, &raw, sizeof(void*));
  }
  void release() {
    if (v == nullptr) return;
    void* raw;
    std::memcpy(&raw, v - 1, sizeof(void*));
    std::free(raw);
    v = nullptr;
  }
  void steal(DynamicArray& other) {
    release();
    v = other.v;
    other.v = nullptr;
  }
};

class VecDyn : public DynamicArray {
 public:
  size_t n = 0;

  VecDyn() = default;
  explicit VecDyn(size_t size) : n(size) { allocate(size); }
  VecDyn(VecDyn const& other) : n(other.n) {
    allocate(n);
    if (v && n) std::memcpy(v, other.v, n * sizeof(double));
  }
  VecDyn(VecDyn&& other) noexcept : n(other.n) {
    steal(other);
    other.n = 0;
  }
  // Copies this->n elements; the destination is never resized. Callers size the
  // target first.
  VecDyn& operator=(VecDyn const& other) {
    if (this != &other && n) std::memcpy(v, other.v, n * sizeof(double));
    return *this;
  }
  template <typename Derived>
  VecDyn& operator=(Eigen::MatrixBase<Derived> const& e) {
    for (size_t i = 0; i < n; ++i) v[i] = e(Eigen::Index(i));
    return *this;
  }

  // Frees and reallocates in every case; contents are lost.
  void resize(size_t size) {
    n = size;
    allocate(size);
  }
  void setZero() {
    for (size_t i = 0; i < n; ++i) v[i] = 0.0;
  }
  void setZero(size_t size) {
    resize(size);
    setZero();
  }
  size_t size() const { return n; }

  double& operator[](size_t i) { return v[i]; }
  double operator[](size_t i) const { return v[i]; }
  double& operator()(size_t i) { return v[i]; }
  double operator()(size_t i) const { return v[i]; }

  Eigen::Map<Eigen::VectorXd> e() { return Eigen::Map<Eigen::VectorXd>(v, Eigen::Index(n)); }
  Eigen::Map<const Eigen::VectorXd> e() const { return Eigen::Map<const Eigen::VectorXd>(v, Eigen::Index(n)); }
};

class MatDyn : public DynamicArray {
 public:
  size_t n = 0;  // rows
  size_t m = 0;  // columns

  MatDyn() = default;
  MatDyn(size_t rows, size_t cols) : n(rows), m(cols) { allocate(rows * cols); }
  MatDyn(MatDyn const& other) : n(other.n), m(other.m) {
    allocate(n * m);
    if (v && n * m != 0) std::memcpy(v, other.v, n * m * sizeof(double));
  }
  MatDyn(MatDyn&& other) noexcept : n(other.n), m(other.m) {
    steal(other);
    other.n = other.m = 0;
  }
  // Takes the source's size (reallocating only when it differs) and its elements.
  MatDyn& operator=(MatDyn const& other) {
    if (this == &other) return *this;
    if (n != other.n || m != other.m || v == nullptr) resize(other.n, other.m);
    if (n * m != 0) std::memcpy(v, other.v, n * m * sizeof(double));
    return *this;
  }

  // Frees and reallocates in every case; contents are lost.
  void resize(size_t rows, size_t cols) {
    n = rows;
    m = cols;
    allocate(rows * cols);
  }
  void setZero() {
    for (size_t i = 0; i < n * m; ++i) v[i] = 0.0;
  }

  double& operator()(size_t i, size_t j) { return v[j * n + i]; }
  double operator()(size_t i, size_t j) const { return v[j * n + i]; }
  double& operator[](size_t i) { return v[i]; }
  double operator[](size_t i) const { return v[i]; }

  template <size_t r, size_t c>
  void fillSub(size_t row, size_t col, Mat<r, c> const& block) {
    for (size_t j = 0; j < c; ++j)
      for (size_t i = 0; i < r; ++i) v[(col + j) * n + row + i] = block.v[i + j * r];
  }

  Eigen::Map<Eigen::MatrixXd> e() { return Eigen::Map<Eigen::MatrixXd>(v, Eigen::Index(n), Eigen::Index(m)); }
  Eigen::Map<const Eigen::MatrixXd> e() const {
    return Eigen::Map<const Eigen::MatrixXd>(v, Eigen::Index(n), Eigen::Index(m));
  }
};

template <size_t n, size_t m>
inline Mat<n, m>& Mat<n, m>::operator=(VecDyn const& vec) {
  static_assert(m == 1, "only a column vector takes a VecDyn");
  for (size_t i = 0; i < n; ++i) v[i] = vec.v[i];
  return *this;
}

// The Jacobian of a 3-vector with respect to the generalised velocity, keeping
// only the live columns; idx[k] is the generalised-velocity index of column k.
class SparseJacobian {
 public:
  size_t size = 0;
  size_t capacity = 0;
  MatDyn v;
  std::vector<size_t> idx;

  SparseJacobian() = default;
  SparseJacobian(SparseJacobian const& other)
      : size(other.size), capacity(other.capacity), v(other.v), idx(other.idx) {}
  SparseJacobian& operator=(SparseJacobian const& other) {
    if (this == &other) return *this;
    size = other.size;
    v.resize(3, size);
    if (size) std::memcpy(v.v, other.v.v, 3 * size * sizeof(double));
    capacity = other.size;
    idx.resize(size);
    for (size_t k = 0; k < size; ++k) idx[k] = other.idx[k];
    return *this;
  }

  // Within capacity only `size` changes and all data is kept. Beyond it the
  // storage is reallocated and zeroed, losing the old columns.
  void resize(size_t cols) {
    size = cols;
    if (capacity >= cols) return;
    v.resize(3, cols);
    v.setZero();
    idx.resize(cols);
    capacity = cols;
  }
};

// ---------------------------------------------------------------------------
// Aligned allocator for the arrays the hot loops walk.
// ---------------------------------------------------------------------------
template <typename T, size_t Alignment>
class AlignedAllocator {
 public:
  static_assert(Alignment >= alignof(void*) && (Alignment & (Alignment - 1)) == 0, "alignment must be a power of two");
  using value_type = T;
  using size_type = size_t;
  using difference_type = std::ptrdiff_t;
  using propagate_on_container_move_assignment = std::true_type;
  using is_always_equal = std::true_type;
  template <typename U>
  struct rebind {
    using other = AlignedAllocator<U, Alignment>;
  };

  AlignedAllocator() noexcept = default;
  template <typename U>
  AlignedAllocator(AlignedAllocator<U, Alignment> const&) noexcept {}  // NOLINT

  T* allocate(size_t count) {
    if (count > std::numeric_limits<size_t>::max() / sizeof(T)) throw std::bad_alloc();
    size_t bytes = count * sizeof(T);
    if (bytes == 0) bytes = Alignment;
    void* p = nullptr;
    if (posix_memalign(&p, Alignment, bytes) != 0 || p == nullptr) throw std::bad_alloc();
    return static_cast<T*>(p);
  }
  void deallocate(T* p, size_t) noexcept { std::free(p); }

  template <typename U>
  bool operator==(AlignedAllocator<U, Alignment> const&) const noexcept {
    return true;
  }
  template <typename U>
  bool operator!=(AlignedAllocator<U, Alignment> const&) const noexcept {
    return false;
  }
};

// ---------------------------------------------------------------------------
// Small vector helpers.
// ---------------------------------------------------------------------------
inline double dot(Mat<3, 1> const& a, Mat<3, 1> const& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

inline void cross(Mat<3, 1> const& a, Mat<3, 1> const& b, Mat<3, 1>& out) {
  const double x = a[1] * b[2] - a[2] * b[1];
  const double y = a[2] * b[0] - a[0] * b[2];
  const double z = a[0] * b[1] - a[1] * b[0];
  out[0] = x;
  out[1] = y;
  out[2] = z;
}

inline Mat<3, 1> cross(Mat<3, 1> const& a, Mat<3, 1> const& b) {
  Mat<3, 1> out;
  cross(a, b, out);
  return out;
}

// ---------------------------------------------------------------------------
// Free functions on 3x3 blocks. Outputs go through references; R maps body
// coordinates to world coordinates.
// ---------------------------------------------------------------------------

// c = a*b for any 3x3 matrices; c may alias a or b.
inline void matmul(Mat<3, 3> const& a, Mat<3, 3> const& b, Mat<3, 3>& c) {
  double t[9];
  for (size_t j = 0; j < 3; ++j)
    for (size_t i = 0; i < 3; ++i)
      t[i + 3 * j] = a.v[i] * b.v[3 * j] + a.v[i + 3] * b.v[3 * j + 1] + a.v[i + 6] * b.v[3 * j + 2];
  std::memcpy(c.v, t, sizeof(t));
}

// c = a*b for rotations: the third column is the cross product of the first two,
// which keeps the result right-handed. c must not alias a or b.
inline void rotmatmul(Mat<3, 3> const& a, Mat<3, 3> const& b, Mat<3, 3>& c) {
  for (size_t j = 0; j < 2; ++j)
    for (size_t i = 0; i < 3; ++i)
      c.v[i + 3 * j] = a.v[i] * b.v[3 * j] + a.v[i + 3] * b.v[3 * j + 1] + a.v[i + 6] * b.v[3 * j + 2];
  c(0, 2) = c(1, 0) * c(2, 1) - c(2, 0) * c(1, 1);
  c(1, 2) = c(2, 0) * c(0, 1) - c(0, 0) * c(2, 1);
  c(2, 2) = c(0, 0) * c(1, 1) - c(0, 1) * c(1, 0);
}

// y = a*x; y may alias x.
inline void matvecmul(Mat<3, 3> const& a, Mat<3, 1> const& x, Mat<3, 1>& y) {
  const double y0 = a.v[0] * x.v[0] + a.v[3] * x.v[1] + a.v[6] * x.v[2];
  const double y1 = a.v[1] * x.v[0] + a.v[4] * x.v[1] + a.v[7] * x.v[2];
  const double y2 = a.v[2] * x.v[0] + a.v[5] * x.v[1] + a.v[8] * x.v[2];
  y.v[0] = y0;
  y.v[1] = y1;
  y.v[2] = y2;
}

// y += a*x, term by term in column order.
template <size_t n, size_t m>
inline void matvecmulThenAdd(Mat<n, m> const& a, Mat<m, 1> const& x, Mat<n, 1>& y) {
  for (size_t j = 0; j < m; ++j)
    for (size_t i = 0; i < n; ++i) y.v[i] += a.v[i + j * n] * x.v[j];
}

// y -= a*x, term by term in column order.
template <size_t n, size_t m>
inline void matvecmulThenSub(Mat<n, m> const& a, Mat<m, 1> const& x, Mat<n, 1>& y) {
  for (size_t j = 0; j < m; ++j)
    for (size_t i = 0; i < n; ++i) y.v[i] -= a.v[i + j * n] * x.v[j];
}

// b += a
template <size_t n, size_t m>
inline void matadd(Mat<n, m> const& a, Mat<n, m>& b) {
  for (size_t i = 0; i < n * m; ++i) b.v[i] += a.v[i];
}

// out = r*s*r^T for symmetric s (computed with s^T, so a non-symmetric s gives
// the result for s^T). out may alias s, not r; out is exactly symmetric.
inline void similarityTransform(Mat<3, 3> const& r, Mat<3, 3> const& s, Mat<3, 3>& out) {
  double t[9];  // t = r * s^T
  for (size_t i = 0; i < 3; ++i)
    for (size_t k = 0; k < 3; ++k) t[i + 3 * k] = r(i, 0) * s(k, 0) + r(i, 1) * s(k, 1) + r(i, 2) * s(k, 2);
  double o[6];
  size_t idx = 0;
  for (size_t j = 0; j < 3; ++j)
    for (size_t i = j; i < 3; ++i) o[idx++] = t[i] * r(j, 0) + t[i + 3] * r(j, 1) + t[i + 6] * r(j, 2);
  out(0, 0) = o[0];
  out(1, 0) = o[1];
  out(2, 0) = o[2];
  out(1, 1) = o[3];
  out(2, 1) = o[4];
  out(2, 2) = o[5];
  out(0, 1) = o[1];
  out(0, 2) = o[2];
  out(1, 2) = o[4];
}

// out = r^T*s*r for symmetric s (computed with s^T). out may alias s, not r.
inline void similarityTransform2(Mat<3, 3> const& r, Mat<3, 3> const& s, Mat<3, 3>& out) {
  double t[9];  // t = r^T * s^T
  for (size_t i = 0; i < 3; ++i)
    for (size_t k = 0; k < 3; ++k) t[i + 3 * k] = r(0, i) * s(k, 0) + r(1, i) * s(k, 1) + r(2, i) * s(k, 2);
  double o[6];
  size_t idx = 0;
  for (size_t j = 0; j < 3; ++j)
    for (size_t i = j; i < 3; ++i) o[idx++] = t[i] * r(0, j) + t[i + 3] * r(1, j) + t[i + 6] * r(2, j);
  out(0, 0) = o[0];
  out(1, 0) = o[1];
  out(2, 0) = o[2];
  out(1, 1) = o[3];
  out(2, 1) = o[4];
  out(2, 2) = o[5];
  out(0, 1) = o[1];
  out(0, 2) = o[2];
  out(1, 2) = o[4];
}

// out = a x (m*b); out may alias a or b.
inline void VecXMatVec(Mat<3, 1> const& a, Mat<3, 3> const& m, Mat<3, 1> const& b, Mat<3, 1>& out) {
  Mat<3, 1> mb;
  matvecmul(m, b, mb);
  cross(a, mb, out);
}

// The skew matrix of a: skew(a)*b = a x b.
inline Eigen::Matrix3d skewMatEigen(Eigen::Matrix<double, 3, 1> const& a) {
  Eigen::Matrix3d s;
  s << 0.0, -a(2), a(1), a(2), 0.0, -a(0), -a(1), a(0), 0.0;
  return s;
}

// Parallel-axis shift: out = inertia + mass*(r.r*1 - r*r^T).
inline void inertiaAtP(double mass, Mat<3, 3> const& inertia, Mat<3, 1> const& r, Mat<3, 3>& out) {
  const double rr = dot(r, r);
  for (size_t j = 0; j < 3; ++j)
    for (size_t i = 0; i < 3; ++i) out(i, j) = inertia(i, j) + mass * ((i == j ? rr : 0.0) - r[i] * r[j]);
}

// inertia += mass*(r.r*1 - r*r^T)
inline void addInertia(double mass, Mat<3, 1> const& r, Mat<3, 3>& inertia) {
  const double rr = dot(r, r);
  for (size_t j = 0; j < 3; ++j)
    for (size_t i = 0; i < 3; ++i) inertia(i, j) += mass * ((i == j ? rr : 0.0) - r[i] * r[j]);
}

// ---------------------------------------------------------------------------
// Quaternions (w, x, y, z) and rotations.
// ---------------------------------------------------------------------------

// Hamilton product c = a (x) b; c may alias a or b.
inline void quatMul(double const* a, double const* b, double* c) {
  const double c0 = a[0] * b[0] - a[1] * b[1] - a[2] * b[2] - a[3] * b[3];
  const double c1 = a[0] * b[1] + a[1] * b[0] + a[2] * b[3] - a[3] * b[2];
  const double c2 = a[0] * b[2] - a[1] * b[3] + a[2] * b[0] + a[3] * b[1];
  const double c3 = a[0] * b[3] + a[1] * b[2] - a[2] * b[1] + a[3] * b[0];
  c[0] = c0;
  c[1] = c1;
  c[2] = c2;
  c[3] = c3;
}

// c = conj(a) (x) b; a is conjugated, not normalised.
inline void quatInvQuatMul(double const* a, double const* b, double* c) {
  const double ac[4] = {a[0], -a[1], -a[2], -a[3]};
  quatMul(ac, b, c);
}

// The quaternion is used as it is, without normalisation.
inline void quatToRotMat(double const* q, Mat<3, 3>& R) {
  const double w = q[0], x = q[1], y = q[2], z = q[3];
  R(0, 0) = w * w + x * x - y * y - z * z;
  R(1, 0) = 2 * w * z + 2 * x * y;
  R(2, 0) = 2 * x * z - 2 * w * y;
  R(0, 1) = 2 * x * y - 2 * w * z;
  R(1, 1) = w * w - x * x + y * y - z * z;
  R(2, 1) = 2 * y * z + 2 * w * x;
  R(0, 2) = 2 * x * z + 2 * w * y;
  R(1, 2) = 2 * y * z - 2 * w * x;
  R(2, 2) = w * w - x * x - y * y + z * z;
}
inline void quatToRotMat(Mat<4, 1> const& q, Mat<3, 3>& R) { quatToRotMat(q.v, R); }

// Branches by strict comparisons; the result is neither normalised nor has a
// forced sign of w.
inline void rotMatToQuat(Mat<3, 3> const& R, Mat<4, 1>& q) {
  const double t = R(0, 0) + R(1, 1) + R(2, 2);
  if (t > 0) {
    const double S = 2.0 * std::sqrt(t + 1.0);
    q[0] = 0.25 * S;
    q[1] = (R(2, 1) - R(1, 2)) / S;
    q[2] = (R(0, 2) - R(2, 0)) / S;
    q[3] = (R(1, 0) - R(0, 1)) / S;
  } else if (R(0, 0) > R(1, 1) && R(0, 0) > R(2, 2)) {
    const double S = 2.0 * std::sqrt(1.0 + R(0, 0) - R(1, 1) - R(2, 2));
    q[0] = (R(2, 1) - R(1, 2)) / S;
    q[1] = 0.25 * S;
    q[2] = (R(0, 1) + R(1, 0)) / S;
    q[3] = (R(0, 2) + R(2, 0)) / S;
  } else if (R(1, 1) > R(2, 2)) {
    const double S = 2.0 * std::sqrt(1.0 + R(1, 1) - R(0, 0) - R(2, 2));
    q[0] = (R(0, 2) - R(2, 0)) / S;
    q[1] = (R(0, 1) + R(1, 0)) / S;
    q[2] = 0.25 * S;
    q[3] = (R(1, 2) + R(2, 1)) / S;
  } else {
    const double S = 2.0 * std::sqrt(1.0 + R(2, 2) - R(0, 0) - R(1, 1));
    q[0] = (R(1, 0) - R(0, 1)) / S;
    q[1] = (R(0, 2) + R(2, 0)) / S;
    q[2] = (R(1, 2) + R(2, 1)) / S;
    q[3] = 0.25 * S;
  }
}

// Quaternion to rotation vector (axis times angle). No folding into (-pi, pi].
void quatToEulerVec(double const* q, double* ev);
// Rotation vector to quaternion.
void eulerVecToQuat(Mat<3, 1> const& ev, Mat<4, 1>& q);
// Rodrigues' formula with the library sine and cosine; `axis` must be unit.
void angleAxisToRotMat(Mat<3, 1> const& axis, double angle, Mat<3, 3>& R);
// Sine and cosine without a library call: the angle is wrapped into [-pi, pi],
// folded into [-pi/2, pi/2], and the Taylor series of ten terms each are summed
// (through degree 19 for the sine, 18 for the cosine). The contact solver calls
// it per contact, so it stays inline.
inline void polySinCos(double angle, double& sine, double& cosine) {
  constexpr double pi = 3.141592653589793;
  constexpr double twoPi = 2.0 * pi;
  constexpr double halfPi = 0.5 * pi;
  const double t = angle / twoPi;
  const auto k = static_cast<int32_t>(t);
  const double r = (t - k) * twoPi;
  const double a = r < -pi ? r + twoPi : (r > pi ? r - twoPi : r);
  const double b = a > halfPi ? pi - a : (a < -halfPi ? -pi - a : a);
  const double g = (-halfPi < a && a < halfPi) ? 1.0 : -1.0;

  // Reciprocal factorials with alternating signs; the powers of u are built by
  // multiplication.
  static constexpr double sinC[10] = {1.0,
                                      -1.0 / 6.0,
                                      1.0 / 120.0,
                                      -1.0 / 5040.0,
                                      1.0 / 362880.0,
                                      -1.0 / 39916800.0,
                                      1.0 / 6227020800.0,
                                      -1.0 / 1307674368000.0,
                                      1.0 / 355687428096000.0,
                                      -1.0 / 121645100408832000.0};
  static constexpr double cosC[10] = {1.0,
                                      -1.0 / 2.0,
                                      1.0 / 24.0,
                                      -1.0 / 720.0,
                                      1.0 / 40320.0,
                                      -1.0 / 3628800.0,
                                      1.0 / 479001600.0,
                                      -1.0 / 87178291200.0,
                                      1.0 / 20922789888000.0,
                                      -1.0 / 6402373705728000.0};
  const double u = b * b;
  double p = 1.0, sinSum = 0.0, cosSum = 0.0;
  for (int i = 0; i < 10; ++i) {
    sinSum += sinC[i] * p;
    cosSum += cosC[i] * p;
    p *= u;
  }
  sine = b * sinSum;
  cosine = g * cosSum;
}
// Rodrigues' formula with polySinCos.
void angleAxisToRotMat2(Mat<3, 1> const& axis, double angle, Mat<3, 3>& R);
// A rotation that takes the world z axis to the unit vector z.
void zaxisToRotMat(Mat<3, 1> const& z, Mat<3, 3>& R);

// Cramer's rule without pivoting. A singular matrix is not reported: with
// |det| <= eps the factor is det itself, so the result is close to zero.
inline void solve33(Mat<3, 3> const& a, Mat<3, 1> const& b, Mat<3, 1>& x) {
  const Mat<3, 1> c0{a(0, 0), a(1, 0), a(2, 0)};
  const Mat<3, 1> c1{a(0, 1), a(1, 1), a(2, 1)};
  const Mat<3, 1> c2{a(0, 2), a(1, 2), a(2, 2)};
  const Mat<3, 1> c12 = cross(c1, c2);
  const double det = dot(c12, c0);
  const double f = std::abs(det) > 2.220446049250313e-16 ? 1.0 / det : det;
  const double x0 = dot(c12, b) * f;
  const double x1 = dot(cross(b, c2), c0) * f;
  const double x2 = dot(cross(c1, b), c0) * f;
  x[0] = x0;
  x[1] = x1;
  x[2] = x2;
}

// General 3x3 inverse by the adjugate; out may alias a. A singular matrix gives
// non-finite values.
inline void invert33(Mat<3, 3> const& a, Mat<3, 3>& out) {
  const double c00 = a(1, 1) * a(2, 2) - a(1, 2) * a(2, 1);
  const double c01 = a(1, 2) * a(2, 0) - a(1, 0) * a(2, 2);
  const double c02 = a(1, 0) * a(2, 1) - a(1, 1) * a(2, 0);
  const double det = a(0, 0) * c00 + a(0, 1) * c01 + a(0, 2) * c02;
  const double f = 1.0 / det;
  double r[9];
  r[0] = c00 * f;
  r[1] = c01 * f;
  r[2] = c02 * f;
  r[3] = (a(0, 2) * a(2, 1) - a(0, 1) * a(2, 2)) * f;
  r[4] = (a(0, 0) * a(2, 2) - a(0, 2) * a(2, 0)) * f;
  r[5] = (a(0, 1) * a(2, 0) - a(0, 0) * a(2, 1)) * f;
  r[6] = (a(0, 1) * a(1, 2) - a(0, 2) * a(1, 1)) * f;
  r[7] = (a(0, 2) * a(1, 0) - a(0, 0) * a(1, 2)) * f;
  r[8] = (a(0, 0) * a(1, 1) - a(0, 1) * a(1, 0)) * f;
  std::memcpy(out.v, r, sizeof(r));
}

// Polynomial arctangent for the contact solver, with no range reduction: three
// truncated Taylor series (about 0, 1/2 and 1) chosen by |x|, and x = 0 gives
// -0.0. Within about 2e-16 away from the seams at 0.325 and 0.68 and up to a
// little above |x| = 1; the truncation leaves up to about 2e-13 next to the
// seams. Off by about 7e-5 at |x| = 2, divergent beyond.
inline double fastAtanVor(double x) {
  const double a = std::abs(x);
  const double sign = x > 0 ? 1.0 : -1.0;
  double r;
  if (a < 0.325) {
    const double a2 = a * a;
    r = a *
        (1.0 + a2 * (-0.3333333333333333 +
                     a2 * (0.2 + a2 * (-0.142857142857143 +
                                       a2 * (0.11111111111111 +
                                             a2 * (-0.09090909090909091 +
                                                   a2 * (0.07692307692307693 +
                                                         a2 * (-0.06666666666666667 +
                                                               a2 * (0.058823529411764705 +
                                                                     a2 * (-0.05263157894736842 +
                                                                           a2 * (0.047619047619047616 +
                                                                                 a2 * -0.043478260869565216)))))))))));
  } else if (a > 0.68) {
    const double d = a - 1.0;
    static constexpr double c[18] = {0.7853981633974483,
                                     0.5,
                                     -0.25,
                                     0.083333333333333,
                                     0.0,
                                     -0.025,
                                     0.020833333333333,
                                     -0.008928571428571,
                                     0.0,
                                     0.003472222222222,
                                     -0.003125,
                                     0.0014204545454545455,
                                     0.0,
                                     -0.0006009615384615385,
                                     0.0005580357142857143,
                                     -0.00026041666666666666,
                                     0.0,
                                     0.00011488970588235294};
    r = c[17];
    for (int k = 16; k >= 0; --k) r = r * d + c[k];
  } else {
    const double u = 2.0 * a - 1.0;
    static constexpr double c[14] = {0.4636476090008061,
                                     0.4,
                                     -0.08,
                                     -0.005333333333333333,
                                     0.0096,
                                     -0.002432,
                                     -0.0004693333333333333,
                                     0.0005083428571428572,
                                     -0.00010752,
                                     -4.084622222222222e-5,
                                     3.190784e-5,
                                     -4.91892363636363e-6,
                                     -3.514368e-6,
                                     2.13004603076923e-6};
    r = c[13];
    for (int k = 12; k >= 0; --k) r = r * u + c[k];
  }
  return r * sign;
}

// Contact Jacobian of a single body and its inverse-mass product. Row i of
// `frame` is contact axis f_i in world coordinates (row 2 the normal), `r` goes
// from the contact point to the centre of mass. J = [frame | T^T] with column i
// of T = f_i x r; MinvJT = [invMass*frame^T ; invInertia*T].
inline void computeJandMinvJT(double invMass, Mat<3, 3> const& frame, Mat<3, 3> const& invInertia, Mat<3, 1> const& r,
                              Mat<6, 3>& MinvJT, Mat<3, 6>& J) {
  Mat<3, 3> T;  // column i = f_i x r
  for (size_t i = 0; i < 3; ++i) {
    const double fx = frame(i, 0), fy = frame(i, 1), fz = frame(i, 2);
    T(0, i) = fy * r[2] - fz * r[1];
    T(1, i) = fz * r[0] - fx * r[2];
    T(2, i) = fx * r[1] - fy * r[0];
  }
  for (size_t i = 0; i < 3; ++i) {
    for (size_t j = 0; j < 3; ++j) {
      J(i, j) = frame(i, j);
      J(i, j + 3) = T(j, i);
      MinvJT(j, i) = invMass * frame(i, j);
    }
  }
  for (size_t c = 0; c < 3; ++c)
    for (size_t i = 0; i < 3; ++i)
      MinvJT(i + 3, c) = invInertia(i, 0) * T(0, c) + invInertia(i, 1) * T(1, c) + invInertia(i, 2) * T(2, c);
}

namespace mjcf {
using ::vorsim::addInertia;
}

}  // namespace vorsim

// These three are reachable at global scope as well, as model loaders call them
// unqualified.
using vorsim::addInertia;
using vorsim::angleAxisToRotMat2;
using vorsim::computeJandMinvJT;

#endif  // VORSIM_MATH_HPP
