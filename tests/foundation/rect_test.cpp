// Rectangle algebra.
#include <gtest/gtest.h>

#include <vector>

#include <pxf/rct.h>

// Found by argument-dependent lookup, so in the rectangle's own (global) namespace.
bool operator==(const RCT_RECT &a, const RCT_RECT &b) { return RCT_same(&a, &b); }

std::ostream &operator<<(std::ostream &os, const RCT_RECT &r) {
    return os << "(" << r.xmin << "," << r.ymin << "," << r.xmax << "," << r.ymax << ")";
}

namespace {

RCT_RECT R(int x0, int y0, int x1, int y1) { return RCT_RECT{x0, y0, x1, y1}; }

std::vector<RCT_RECT> list(const RCT_RECT *out, int n) { return {out, out + n}; }

TEST(Rect, BasicsAndTheOppositeInset) {
    RCT_RECT *r = RCT_create();
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(*r, R(0, 0, 0, 0));
    EXPECT_TRUE(RCT_valid(r));  // one pixel
    RCT_set(r, 0, 0, 10, 10);
    RCT_inset(r, 2, 2);
    EXPECT_EQ(*r, R(2, -2, 8, 12));
    RCT_inset(r, 5, -10);  // both axes cross over and are swapped back
    EXPECT_EQ(*r, R(3, 2, 7, 8));
    RCT_position(r, 100, 200);
    EXPECT_EQ(*r, R(100, 200, 104, 206));
    RCT_offset(r, -100, -200);
    EXPECT_TRUE(RCT_point_inside(r, 4, 6));
    EXPECT_FALSE(RCT_point_inside(r, 5, 0));
    RCT_set(r, 5, 0, 4, 0);
    EXPECT_FALSE(RCT_valid(r));
    RCT_delete(r);
    RCT_delete(nullptr);

    RCT_RECT a = R(0, 0, 4, 4), b = R(10, 10, 14, 14);
    EXPECT_TRUE(RCT_equal(&a, &b));
    EXPECT_FALSE(RCT_same(&a, &b));
    RCT_RECT inner = R(1, 1, 4, 3);
    EXPECT_TRUE(RCT_rect_inside(&a, &inner));
    EXPECT_FALSE(RCT_rect_inside(&inner, &a));
}

TEST(Rect, IntersectTouchingCornersAndDisjoint) {
    RCT_RECT a = R(0, 0, 9, 9), b = R(9, 9, 20, 20), c = R(10, 0, 12, 3), out = R(7, 7, 7, 7);
    EXPECT_EQ(RCT_intersect(&a, &b, &out), 1);
    EXPECT_EQ(out, R(9, 9, 9, 9));
    out = R(7, 7, 7, 7);
    EXPECT_EQ(RCT_intersect(&a, &c, &out), 0);
    EXPECT_EQ(out, R(7, 7, 7, 7));
}

TEST(Rect, DivideEmitsLeftRightLowerUpper) {
    RCT_RECT outer = R(0, 0, 9, 9), inner = R(3, 3, 5, 5), out[4];
    int n = -1;
    EXPECT_EQ(RCT_divide(&outer, &inner, &n, out), 1);
    EXPECT_EQ(list(out, n), (std::vector<RCT_RECT>{R(0, 0, 2, 9), R(6, 0, 9, 9), R(3, 0, 5, 2), R(3, 6, 5, 9)}));
    RCT_RECT corner = R(0, 0, 4, 9);
    EXPECT_EQ(RCT_divide(&outer, &corner, &n, out), 1);
    EXPECT_EQ(list(out, n), (std::vector<RCT_RECT>{R(5, 0, 9, 9)}));
    EXPECT_EQ(RCT_divide(&outer, &outer, &n, out), 0);
    EXPECT_EQ(n, 0);
    RCT_RECT outside = R(8, 8, 12, 12);
    EXPECT_EQ(RCT_divide(&outer, &outside, &n, out), 0);
}

TEST(Rect, UnionMergesTouchingAndSplitsOverlaps) {
    RCT_RECT out[5];
    int n = 0;
    RCT_RECT a = R(0, 0, 9, 4), b = R(0, 5, 9, 9), c = R(0, 6, 9, 9);
    EXPECT_EQ(RCT_union(&a, &b, &n, out), 1);
    EXPECT_EQ(list(out, n), (std::vector<RCT_RECT>{R(0, 0, 9, 9)}));
    EXPECT_EQ(RCT_union(&b, &a, &n, out), 1);
    EXPECT_EQ(list(out, n), (std::vector<RCT_RECT>{R(0, 0, 9, 9)}));
    EXPECT_EQ(RCT_union(&a, &c, &n, out), 1);
    EXPECT_EQ(list(out, n), (std::vector<RCT_RECT>{a, c}));
    RCT_RECT left = R(0, 0, 3, 9), right = R(4, 0, 8, 9);
    EXPECT_EQ(RCT_union(&right, &left, &n, out), 1);
    EXPECT_EQ(list(out, n), (std::vector<RCT_RECT>{R(0, 0, 8, 9)}));

    RCT_RECT big = R(0, 0, 9, 9), small = R(2, 2, 3, 3);
    for (auto [x, y] : {std::pair{&small, &big}, std::pair{&big, &small}}) {  // either order: the container
        EXPECT_EQ(RCT_union(x, y, &n, out), 1);
        EXPECT_EQ(list(out, n), (std::vector<RCT_RECT>{big}));
    }

    RCT_RECT p = R(0, 0, 5, 5), q = R(3, 3, 8, 8);
    EXPECT_EQ(RCT_union(&p, &q, &n, out), 1);
    EXPECT_EQ(list(out, n), (std::vector<RCT_RECT>{p, R(6, 3, 8, 8), R(3, 6, 5, 8)}));
}

TEST(Rect, DifferenceIsSymmetric) {
    RCT_RECT out[8];
    int n = -1;
    RCT_RECT a = R(0, 0, 9, 9), b = R(3, 3, 5, 5);
    EXPECT_EQ(RCT_difference(&a, &b, &n, out), 1);
    EXPECT_EQ(list(out, n), (std::vector<RCT_RECT>{R(0, 0, 2, 9), R(6, 0, 9, 9), R(3, 0, 5, 2), R(3, 6, 5, 9)}));
    EXPECT_EQ(RCT_difference(&b, &a, &n, out), 1);
    EXPECT_EQ(n, 4);
    EXPECT_EQ(RCT_difference(&a, &a, &n, out), 0);
    EXPECT_EQ(n, 0);
    RCT_RECT far = R(20, 20, 21, 21);
    EXPECT_EQ(RCT_difference(&a, &far, &n, out), 1);
    EXPECT_EQ(list(out, n), (std::vector<RCT_RECT>{a, far}));
    RCT_RECT p = R(0, 0, 5, 5), q = R(3, 3, 8, 8);
    EXPECT_EQ(RCT_difference(&p, &q, &n, out), 1);
    EXPECT_EQ(list(out, n), (std::vector<RCT_RECT>{R(0, 0, 2, 5), R(3, 0, 5, 2), R(6, 3, 8, 8), R(3, 6, 5, 8)}));
}

}  // namespace
