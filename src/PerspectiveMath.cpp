#include "PerspectiveMath.h"

#include <sstream>

namespace Ombrel {

float Matrix3x3::determinant() const {
    const Matrix3x3& a = *this;
    return a(0, 0) * (a(1, 1) * a(2, 2) - a(2, 1) * a(1, 2)) -
           a(0, 1) * (a(1, 0) * a(2, 2) - a(2, 0) * a(1, 2)) +
           a(0, 2) * (a(1, 0) * a(2, 1) - a(2, 0) * a(1, 1));
}

Matrix3x3 Matrix3x3::inverse() const {
    const Matrix3x3& a = *this;
    const float d = determinant();
    Matrix3x3 r;
    // Each difference is divided by d on its own; a leading minus applies before the division.
    r(0, 0) = (a(1, 1) * a(2, 2) - a(2, 1) * a(1, 2)) / d;
    r(0, 1) = -(a(0, 1) * a(2, 2) - a(2, 1) * a(0, 2)) / d;
    r(0, 2) = (a(0, 1) * a(1, 2) - a(1, 1) * a(0, 2)) / d;
    r(1, 0) = -(a(1, 0) * a(2, 2) - a(2, 0) * a(1, 2)) / d;
    r(1, 1) = (a(0, 0) * a(2, 2) - a(2, 0) * a(0, 2)) / d;
    r(1, 2) = -(a(0, 0) * a(1, 2) - a(1, 0) * a(0, 2)) / d;
    r(2, 0) = (a(1, 0) * a(2, 1) - a(2, 0) * a(1, 1)) / d;
    r(2, 1) = -(a(0, 0) * a(2, 1) - a(2, 0) * a(0, 1)) / d;
    r(2, 2) = (a(0, 0) * a(1, 1) - a(1, 0) * a(0, 1)) / d;
    return r;
}

std::string Quad::toString() const {
    std::ostringstream out;
    out << "[( " << x0 << "," << y0 << " ),( " << x1 << "," << y1 << " ),( " << x2 << "," << y2
        << " ),( " << x3 << "," << y3 << " )]";
    return out.str();
}

Matrix3x3 Matrix3x3Multiply(const Matrix3x3& A, const Matrix3x3& B) {
    Matrix3x3 result;
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            float sum = 0.0f;
            for (int k = 0; k < 3; ++k) {
                sum += A(i, k) * B(k, j);
            }
            result(i, j) = sum;
        }
    }
    return result;
}

Vector3 Matrix3x3Vector3Multiply(const Matrix3x3& A, const Vector3& v) {
    Vector3 result;
    for (int i = 0; i < 3; ++i) {
        float sum = 0.0f;
        for (int j = 0; j < 3; ++j) {
            sum += A(i, j) * v(j);
        }
        result(i) = sum;
    }
    return result;
}

Matrix3x3 CreateBasisToQuadMatrix(const Quad& q) {
    Matrix3x3 A;
    A(0, 0) = q.x0;
    A(1, 0) = q.y0;
    A(2, 0) = 1.0f;
    A(0, 1) = q.x1;
    A(1, 1) = q.y1;
    A(2, 1) = 1.0f;
    A(0, 2) = q.x2;
    A(1, 2) = q.y2;
    A(2, 2) = 1.0f;
    const Vector3 s = Matrix3x3Vector3Multiply(A.inverse(), Vector3(q.x3, q.y3, 1.0f));
    for (int j = 0; j < 3; ++j) {
        for (int i = 0; i < 3; ++i) {
            A(i, j) *= s(j);
        }
    }
    return A;
}

Matrix3x3 CreatePerspectiveTransformMatrix(const Quad& source, const Quad& dest) {
    const Matrix3x3 A = CreateBasisToQuadMatrix(source);
    const Matrix3x3 B = CreateBasisToQuadMatrix(dest);
    return Matrix3x3Multiply(B, A.inverse());
}

Vector3 ApplyTransform(const Matrix3x3& T, float x, float y) {
    Vector3 p = Matrix3x3Vector3Multiply(T, Vector3(x, y, 1.0f));
    p(0) = p(0) / p(2);
    p(1) = p(1) / p(2);
    p(2) = 1.0f;
    return p;
}

} // namespace Ombrel
