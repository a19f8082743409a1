// Perspective mathematics: a three-vector, a three-by-three matrix, a four-cornered shape, and the
// projective map that carries one such shape onto another (image points to floor points).
//
// Every value is a single-precision float, in every step, with the operations grouped exactly as
// written in the implementation, so that results match across machines in that precision. Nothing
// here allocates, holds state or reports: a degenerate shape or a point on the line at infinity
// yields the infinities and not-a-numbers the arithmetic gives, and guarding is the caller's.
// All types are plain values; share them freely between threads.
#pragma once

#include <string>

namespace Ombrel {

class Vector3 {
public:
    Vector3() = default; // (0, 0, 0)
    Vector3(float x, float y, float z) : p{x, y, z} {}

    // Element i (0 to 2), unchecked.
    float operator()(int i) const { return p[i]; }
    float& operator()(int i) { return p[i]; }

private:
    float p[3] = {0.0f, 0.0f, 0.0f};
};

// Stored row by row: element (i, j) is p[3 * i + j]. A new matrix is the zero matrix.
class Matrix3x3 {
public:
    Matrix3x3() = default;

    // Element in row i, column j (0 to 2), unchecked.
    float operator()(int i, int j) const { return p[3 * i + j]; }
    float& operator()(int i, int j) { return p[3 * i + j]; }

    // Expansion along the first row.
    float determinant() const;
    // The adjugate, each element divided by the determinant on its own. Does not look at the
    // determinant first: a singular matrix gives infinities and not-a-numbers.
    Matrix3x3 inverse() const;

private:
    float p[9] = {0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
};

// Four corners in order around a shape.
struct Quad {
    float x0 = 0.0f, y0 = 0.0f, x1 = 0.0f, y1 = 0.0f, x2 = 0.0f, y2 = 0.0f, x3 = 0.0f, y3 = 0.0f;

    Quad() = default;
    Quad(float x0_, float y0_, float x1_, float y1_, float x2_, float y2_, float x3_, float y3_)
        : x0(x0_), y0(y0_), x1(x1_), y1(y1_), x2(x2_), y2(y2_), x3(x3_), y3(y3_) {}

    // "[( x0,y0 ),( x1,y1 ),( x2,y2 ),( x3,y3 )]" in the stream's default float format.
    std::string toString() const;
};

// A times B, each element summed over k = 0, 1, 2 in that order from 0.
Matrix3x3 Matrix3x3Multiply(const Matrix3x3& A, const Matrix3x3& B);
// A times v, each element summed over j = 0, 1, 2 in that order from 0.
Vector3 Matrix3x3Vector3Multiply(const Matrix3x3& A, const Vector3& v);
// The projective map from the unit basis onto the quad's corners.
Matrix3x3 CreateBasisToQuadMatrix(const Quad& q);
// The map from source coordinates to dest coordinates: basis(dest) times inverse(basis(source)).
// Defined up to a common factor; its (2, 2) element is not normalised.
Matrix3x3 CreatePerspectiveTransformMatrix(const Quad& source, const Quad& dest);
// T times (x, y, 1), divided through by its third element, which is then set to exactly 1.
Vector3 ApplyTransform(const Matrix3x3& T, float x, float y);

} // namespace Ombrel
