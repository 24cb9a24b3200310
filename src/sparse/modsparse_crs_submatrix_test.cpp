#include <array>

#include "modsparse.hpp"
#include "modsparse_test_support.hpp"

namespace zendar::test {
namespace {

matrix<double> block(const matrix<double>& a, std::int32_t r1, std::int32_t r2, std::int32_t c1,
                     std::int32_t c2) {
    matrix<double> out(r2 - r1 + 1, c2 - c1 + 1);
    for (std::int32_t i = r1; i <= r2; ++i)
        for (std::int32_t j = c1; j <= c2; ++j) out(i - r1, j - c1) = a(i - 1, j - 1);
    return out;
}

/// @param expandable  whether the matrix can be written out with both triangles.
void check_block(const crssparse& crs, const std::array<std::int32_t, 4>& b, bool expandable) {
    const matrix<double> expected = block(dense(crs), b[0], b[1], b[2], b[3]);
    EXPECT_EQ(dense(crs.submatrix(b[0], b[1], b[2], b[3])), expected);
    EXPECT_EQ(crs.submatrix_dense(b[0], b[1], b[2], b[3]), expected);
    if (!expandable) return;
    EXPECT_EQ(dense(crs.submatrix(b[0], b[1], b[2], b[3], false)), expected);
}

void check_all_blocks(const crssparse& crs, bool expandable) {
    const std::int32_t n = crs.getdim(1);
    for (std::int32_t r1 = 1; r1 <= n; ++r1)
        for (std::int32_t r2 = r1; r2 <= n; ++r2)
            for (std::int32_t c1 = 1; c1 <= n; ++c1)
                for (std::int32_t c2 = c1; c2 <= n; ++c2) check_block(crs, {r1, r2, c1, c2}, expandable);
}

/// All blocks of small matrices of every kind, against the same block of the dense matrix.
TEST(CrsSubmatrix, AgreesWithADenseMatrix) {
    random_elements random(21);
    constexpr std::int32_t n = 5;
    for (const bool upper : {false, true}) {
        for (const bool symmetric : {false, true}) {
            if (symmetric && !upper) continue;
            coosparse coo(n, n, 8, upper);
            random.fill(n, n, upper, [&](auto i, auto j, double v) { coo.add(i, j, v); });
            if (symmetric) coo.setsymmetric();
            const crssparse crs = convertfromcootocrs(coo);
            check_all_blocks(crs, !upper || symmetric);
        }
    }
}

TEST(CrsSubmatrix, KeepsUpperStorageOnTheDiagonalOnly) {
    coosparse coo(3, 3, 8, true);
    coo.setsymmetric();
    coo.add(1, 2, 1.0);
    coo.add(2, 3, 2.0);
    const crssparse crs = convertfromcootocrs(coo);

    const crssparse on = crs.submatrix(2, 3, 2, 3), off = crs.submatrix(2, 3, 1, 2);

    EXPECT_TRUE(on.isupperstorage() && on.issymmetric() && on.issorted());
    EXPECT_EQ(on.totalnumberofelements(), 3);
    EXPECT_FALSE(off.isupperstorage() || off.issymmetric());
    EXPECT_EQ(off.get(1, 1), 1.0);
    EXPECT_EQ(off.get(2, 2), 2.0);
    const crssparse full = crs.submatrix(2, 3, 2, 3, false);
    EXPECT_EQ(full.totalnumberofelements(), 4);
    EXPECT_FALSE(full.isupperstorage());
}

TEST(CrsSubmatrix, RefusesCornersOutsideTheMatrix) {
    const crssparse crs = convertfromcootocrs(coosparse(3, 4));
    const auto text = [](const std::string& rows, const std::string& cols) {
        return " ERROR: rows " + rows + " and columns " + cols + " of the submatrix are not in the matrix";
    };
    expect_fatal([&] { (void)crs.submatrix(0, 1, 1, 1); }, text("0 to 1", "1 to 1"));
    expect_fatal([&] { (void)crs.submatrix(2, 1, 1, 1); }, text("2 to 1", "1 to 1"));
    expect_fatal([&] { (void)crs.submatrix(1, 4, 1, 1); }, text("1 to 4", "1 to 1"));
    expect_fatal([&] { (void)crs.submatrix(1, 1, 0, 1); }, text("1 to 1", "0 to 1"));
    expect_fatal([&] { (void)crs.submatrix_dense(1, 1, 3, 2); }, text("1 to 1", "3 to 2"));
    expect_fatal([&] { (void)crs.submatrix_dense(1, 1, 1, 5); }, text("1 to 1", "1 to 5"));
}

TEST(CrsSubmatrixDense, TakesListsInAnyOrderAndWithRepeats) {
    random_elements random(22);
    for (const bool symmetric : {false, true}) {
        coosparse coo(9, 9, 8, symmetric);
        random.fill(9, 9, symmetric, [&](auto i, auto j, double v) { coo.add(i, j, v); });
        if (symmetric) coo.setsymmetric();
        const crssparse crs = convertfromcootocrs(coo);
        const std::vector<std::int32_t> rows = {9, 1, 4, 4}, cols = {4, 8, 1, 9, 8};

        const matrix<double> sub = crs.submatrix_dense(rows, cols);

        for (std::size_t i = 0; i < rows.size(); ++i)
            for (std::size_t j = 0; j < cols.size(); ++j)
                EXPECT_EQ(sub(static_cast<std::int64_t>(i), static_cast<std::int64_t>(j)),
                          crs.get(rows[i], cols[j]));
    }
}

TEST(CrsSubmatrixDense, RefusesIndicesOutsideTheMatrix) {
    const crssparse crs = convertfromcootocrs(coosparse(3, 4));
    const std::vector<std::int32_t> good = {1}, four = {4}, zero = {0};

    EXPECT_THROW((void)crs.submatrix_dense(four, good), fatal_error);
    EXPECT_THROW((void)crs.submatrix_dense(good, zero), fatal_error);
    EXPECT_EQ(crs.submatrix_dense(good, four).rows(), 1);
    EXPECT_EQ(crs.submatrix_dense({}, {}).rows(), 0);
}

}  // namespace
}  // namespace zendar::test
