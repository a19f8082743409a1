#include "PerspectiveMath.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace Ombrel;

namespace {

Matrix3x3 matrixOf(std::initializer_list<float> rowByRow) {
    Matrix3x3 m;
    int index = 0;
    for (float value : rowByRow) {
        m(index / 3, index % 3) = value;
        ++index;
    }
    return m;
}

} // namespace

TEST(PerspectiveMath, MatrixAlgebraFollowsTheWrittenGroupings) {
    const Matrix3x3 zero;
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(zero(i / 3, i % 3), 0.0f);
    }
    EXPECT_EQ(zero.determinant(), 0.0f);
    const Vector3 origin;
    EXPECT_EQ(origin(0) + origin(1) + origin(2), 0.0f);

    const Matrix3x3 identity = matrixOf({1, 0, 0, 0, 1, 0, 0, 0, 1});
    EXPECT_EQ(identity.determinant(), 1.0f);
    const Matrix3x3 identityInverse = identity.inverse();
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(identityInverse(i / 3, i % 3), identity(i / 3, i % 3));
    }

    // Row-major storage and an exact inverse where every step is exact in floats.
    const Matrix3x3 m = matrixOf({2, 0, 0, 0, 4, 0, 1, 0, 1});
    EXPECT_EQ(m.determinant(), 8.0f);
    const Matrix3x3 inverse = m.inverse();
    EXPECT_EQ(inverse(0, 0), 0.5f);
    EXPECT_EQ(inverse(1, 1), 0.25f);
    EXPECT_EQ(inverse(2, 0), -0.5f);
    EXPECT_EQ(inverse(2, 2), 1.0f);
    const Matrix3x3 product = Matrix3x3Multiply(m, inverse);
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(product(i / 3, i % 3), i % 4 == 0 ? 1.0f : 0.0f) << i;
    }
    const Vector3 v = Matrix3x3Vector3Multiply(m, Vector3(1, 2, 3));
    EXPECT_EQ(v(0), 2.0f);
    EXPECT_EQ(v(1), 8.0f);
    EXPECT_EQ(v(2), 4.0f);

    // Each element is divided by the determinant on its own, never multiplied by its reciprocal:
    // here 3 / 15 and 3 * (1 / 15) differ in the last bit.
    const Matrix3x3 fifteen = matrixOf({1, 0, 0, 0, 5, 0, 0, 0, 3});
    EXPECT_EQ(fifteen.inverse()(1, 1), 0.200000003f);
    EXPECT_NE(fifteen.inverse()(1, 1), 0.200000018f);

    // A singular matrix says nothing and gives what the arithmetic gives.
    const Matrix3x3 singular = matrixOf({1, 2, 3, 2, 4, 6, 0, 0, 1});
    const Matrix3x3 bad = singular.inverse();
    EXPECT_TRUE(!std::isfinite(bad(0, 0)) || std::isnan(bad(0, 0)));
}

TEST(PerspectiveMath, QuadMapsOntoQuadAndTheThirdElementIsAlwaysOne) {
    const Quad floor(120.5f, 400.0f, 80.0f, 620.0f, 700.0f, 610.0f, 560.0f, 395.0f);
    const float w = 300.0f, h = 500.0f;
    const Quad rectangle(0, 0, 0, h, w, h, w, 0);
    const Matrix3x3 T = CreatePerspectiveTransformMatrix(floor, rectangle);
    const float sx[] = {floor.x0, floor.x1, floor.x2, floor.x3};
    const float sy[] = {floor.y0, floor.y1, floor.y2, floor.y3};
    const float dx[] = {0, 0, w, w};
    const float dy[] = {0, h, h, 0};
    for (int corner = 0; corner < 4; ++corner) {
        const Vector3 p = ApplyTransform(T, sx[corner], sy[corner]);
        EXPECT_NEAR(p(0), dx[corner], 1e-3f * w) << corner;
        EXPECT_NEAR(p(1), dy[corner], 1e-3f * h) << corner;
        EXPECT_EQ(p(2), 1.0f);
    }
    // Onto itself: every corner stays put, and the matrix is only defined up to a factor.
    const Matrix3x3 same = CreatePerspectiveTransformMatrix(floor, floor);
    for (int corner = 0; corner < 4; ++corner) {
        const Vector3 p = ApplyTransform(same, sx[corner], sy[corner]);
        EXPECT_NEAR(p(0), sx[corner], 1e-2f);
        EXPECT_NEAR(p(1), sy[corner], 1e-2f);
    }
    EXPECT_NE(CreateBasisToQuadMatrix(floor)(2, 2), 1.0f);

    // The basis map sends the unit corners (1,0,0), (0,1,0), (0,0,1) and (1,1,1) to the corners.
    const Matrix3x3 basis = CreateBasisToQuadMatrix(floor);
    const Vector3 fourth = Matrix3x3Vector3Multiply(basis, Vector3(1, 1, 1));
    EXPECT_NEAR(fourth(0) / fourth(2), floor.x3, 1e-2f);
    EXPECT_NEAR(fourth(1) / fourth(2), floor.y3, 1e-2f);

    // Three corners on one line: the arithmetic's infinities or not-a-numbers, and still a 1.
    const Quad flat(0, 0, 1, 1, 2, 2, 5, 0);
    const Vector3 lost = ApplyTransform(CreatePerspectiveTransformMatrix(flat, rectangle), 1, 0);
    EXPECT_FALSE(std::isfinite(lost(0)) && std::isfinite(lost(1)));
    EXPECT_EQ(lost(2), 1.0f);
}

TEST(PerspectiveMath, QuadTextUsesTheDefaultFloatFormat) {
    EXPECT_EQ(Quad(0, 0.5f, 1e7f, -2, 3.25f, 4, 1.0f / 3.0f, 6).toString(),
              "[( 0,0.5 ),( 1e+07,-2 ),( 3.25,4 ),( 0.333333,6 )]");
}
