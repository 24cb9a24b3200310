#include "modsparse_crs.hpp"

#include "modsparse.hpp"
#include "modsparse_test_support.hpp"

namespace zendar::test {
namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::SizeIs;

template <class Matrix>
class Crs : public ::testing::Test {};
using both_widths = ::testing::Types<crssparse, crssparse64>;
TYPED_TEST_SUITE(Crs, both_widths);

template <class Matrix>
Matrix small() {
    // 1 0 2
    // 0 0 0
    // 3 4 5
    using index = typename decltype(Matrix().get_rowptr())::value_type;
    Matrix m(3, 5);
    m.external(std::vector<index>{1, 3, 3, 6}, std::vector<index>{3, 1, 2, 1, 3},
               std::vector<double>{2.0, 1.0, 4.0, 3.0, 5.0});
    return m;
}

TYPED_TEST(Crs, StartsWithClearedArrays) {
    const TypeParam m(3, 4, 2, true);
    EXPECT_EQ(m.namemat(), sizeof(m.get_rowptr()[0]) == 4 ? "CRS" : "CRS64");
    EXPECT_THAT(m.get_rowptr(), AllOf(SizeIs(4), Each(0)));
    EXPECT_THAT(m.get_colval(), AllOf(SizeIs(4), Each(0)));
    EXPECT_THAT(m.get_nzval(), AllOf(SizeIs(4), Each(0.0)));
    EXPECT_EQ(m.getdim(2), 2);
    EXPECT_TRUE(m.isupperstorage());
    EXPECT_FALSE(m.issorted() || m.isdecomposed());
    EXPECT_EQ(m.totalnumberofelements(), 4);
    EXPECT_EQ(m.get(1, 1), 0.0);
    EXPECT_EQ(TypeParam(7, 0).getdim(2), 7);
}

TYPED_TEST(Crs, ServesWithoutElementsAndWithoutRows) {
    TypeParam none, empty(0, 0), cleared(2, 3);
    none.sort();
    empty.sort();
    cleared.sort();
    none.print();
    cleared.print();
    EXPECT_EQ(none.get(1, 1), 0.0);
    EXPECT_EQ(cleared.set(1, 1, 1.0), -1);
    EXPECT_THAT(empty.get_rowptr(), ElementsAre(0));
    EXPECT_EQ(none.getmem(), 0.0);
}

TYPED_TEST(Crs, GetReadsStoredElementsOnly) {
    const TypeParam m = small<TypeParam>();
    EXPECT_EQ(m.get(1, 1), 1.0);
    EXPECT_EQ(m.get(1, 3), 2.0);
    EXPECT_EQ(m.get(1, 2), 0.0);
    EXPECT_EQ(m.get(2, 2), 0.0);
    EXPECT_EQ(m.get(0, 1), 0.0);
    EXPECT_EQ(m.get(4, 1), 0.0);
    EXPECT_EQ(m.get(1, 4), 0.0);
    EXPECT_EQ(m.get(1, 0), 0.0);
}

TYPED_TEST(Crs, GetMirrorsOnlyWithBothFlags) {
    using index = typename decltype(TypeParam().get_rowptr())::value_type;
    TypeParam m(2, 2, 2, true);
    m.external(std::vector<index>{1, 3, 3}, std::vector<index>{1, 2}, std::vector<double>{1.0, 2.0});

    EXPECT_EQ(m.get(2, 1), 0.0);
    m.setsymmetric();
    EXPECT_EQ(m.get(2, 1), 2.0);
    EXPECT_EQ(m.set(2, 1, 7.0), -1);
}

TYPED_TEST(Crs, SetAndAddChangeStoredElementsAndReportTheStatus) {
    TypeParam m = small<TypeParam>();
    EXPECT_EQ(m.set(3, 2, 40.0), 0);
    EXPECT_EQ(m.add(3, 2, 2.0), 0);
    EXPECT_EQ(m.get(3, 2), 42.0);
    EXPECT_EQ(m.set(1, 2, 1.0), -1);
    EXPECT_EQ(m.add(2, 2, 1.0), -1);
    for (const auto& [i, j] : {std::pair{0, 1}, {1, 0}, {4, 1}, {1, 4}}) {
        EXPECT_EQ(m.set(i, j, 1.0), -10);
        EXPECT_EQ(m.add(i, j, 1.0), -10);
    }
    EXPECT_THAT(m.get_nzval(), ElementsAre(2.0, 1.0, 42.0, 3.0, 5.0));
}

TYPED_TEST(Crs, ExternalChecksTheSizes) {
    using index = typename decltype(TypeParam().get_rowptr())::value_type;
    TypeParam m(1, 1);
    const std::vector<index> one = {1}, two = {1, 2};
    const std::vector<double> value = {1.0}, values = {1.0, 2.0};

    expect_fatal([&] { m.external(one, one, value); },
                 " ERROR: The provided array ia is of a different size!");
    expect_fatal([&] { m.external(two, two, value); },
                 " ERROR: The provided array ja is of a different size!");
    expect_fatal([&] { m.external(two, one, values); },
                 " ERROR: The provided array a is of a different size!");
    m.external(two, one, value);
    EXPECT_EQ(m.get(1, 1), 1.0);
    EXPECT_TRUE(m.issorted());
}

TYPED_TEST(Crs, ExternalRefusesArraysThatAreNoRows) {
    using index = typename decltype(TypeParam().get_rowptr())::value_type;
    const std::string text = " ERROR: The provided arrays ia and ja do not form the rows of the matrix!";
    const std::vector<double> a = {1.0, 2.0};
    TypeParam m(2, 2, 2, true);
    const auto call = [&](std::vector<index> ia, std::vector<index> ja) {
        return [&m, ia, ja, &a] { m.external(ia, ja, a); };
    };

    expect_fatal(call({0, 2, 3}, {1, 2}), text);
    expect_fatal(call({1, 2, 4}, {1, 2}), text);
    expect_fatal(call({1, 4, 3}, {1, 2}), text);
    expect_fatal(call({1, 2, 3}, {1, 3}), text);
    expect_fatal(call({1, 2, 3}, {0, 2}), text);
    expect_fatal(call({1, 2, 3}, {1, 1}), text);  // below the diagonal of an upper-stored matrix
}

TYPED_TEST(Crs, SortOrdersEachRow) {
    TypeParam m = small<TypeParam>();
    EXPECT_FALSE(m.issorted());
    m.sort();
    EXPECT_TRUE(m.issorted());
    EXPECT_THAT(m.get_colval(), ElementsAre(1, 3, 1, 2, 3));
    EXPECT_THAT(m.get_nzval(), ElementsAre(1.0, 2.0, 3.0, 4.0, 5.0));
}

TYPED_TEST(Crs, SortOrdersLongRowsAndManyRows) {
    using index = typename decltype(TypeParam().get_rowptr())::value_type;
    constexpr std::int32_t n = 3001, m = 5000;
    std::vector<index> ia = {1}, ja;
    for (std::int32_t i = 0; i < n; ++i) {
        const std::int32_t length = i % 1000 == 0 ? m : i % 5;
        for (std::int32_t k = 0; k < length; ++k) ja.push_back(static_cast<index>((k * 1237 + i) % m + 1));
        ia.push_back(static_cast<index>(ja.size() + 1));
    }
    std::vector<double> a(ja.begin(), ja.end());
    TypeParam crs(n, std::ssize(ja), m);
    crs.external(ia, ja, a);

    crs.sort();

    EXPECT_TRUE(detail::is_sorted_by_column(crs.view()));
    EXPECT_EQ(crs.get_rowptr(), ia);
    for (std::size_t k = 0; k < ja.size(); ++k)
        ASSERT_EQ(crs.get_nzval().empty() ? 0.0 : crs.view().a[k], static_cast<double>(crs.view().ja[k]));
}

TYPED_TEST(Crs, ScaleMultipliesAllValues) {
    TypeParam m = small<TypeParam>();
    m.scale(2.0);
    EXPECT_THAT(m.get_nzval(), ElementsAre(4.0, 2.0, 8.0, 6.0, 10.0));
}

TYPED_TEST(Crs, GetmemCountsTheArrays) {
    const TypeParam m(3, 5);
    const double index = sizeof(m.get_rowptr()[0]);
    EXPECT_EQ(m.getmem(), 4 * index + 5 * (index + 8));
}

TYPED_TEST(Crs, RefusesANumberOfElementsItCannotCount) {
    const std::string text = " ERROR: the number of elements of a CRS matrix is out of range!";
    expect_fatal([] { TypeParam m(1, -1); }, text);
    if (sizeof(TypeParam().get_rowptr()[0]) == 4)
        expect_fatal([] { TypeParam m(1, 2147483647); }, text);
    else
        EXPECT_THROW(TypeParam(1, std::int64_t{1} << 61), std::bad_alloc);
}

TYPED_TEST(Crs, DecompositionIsAFlagUntilItIsReset) {
    TypeParam m = small<TypeParam>();
    m.setdecomposed(true);
    EXPECT_TRUE(m.isdecomposed());
    m.reset_pardiso_memory();
    EXPECT_FALSE(m.isdecomposed());
    m.setdecomposed(true);
    m.destroy();
    EXPECT_FALSE(m.isdecomposed());
    EXPECT_EQ(m.totalnumberofelements(), 0);
}

TYPED_TEST(Crs, MovesAndLeavesAnEmptyMatrix) {
    TypeParam m = small<TypeParam>();
    const TypeParam other = std::move(m);
    EXPECT_EQ(other.get(3, 2), 4.0);
    EXPECT_EQ(m.getdim(1), 0);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(m.get(3, 2), 0.0);
}

TEST(Crssparse64, RefusesProductsAndReturnsX) {
    unit u;
    crssparse64 m = small<crssparse64>();
    m.setoutputunit(&u.log);
    const std::vector<double> x = {7.0, 8.0, 9.0};
    std::vector<double> y(3, 1.0);
    matrix<double> x2(3, 2, 4.0), y2(3, 2);

    m.multgenv(2.0, 'N', x, 1.0, y);
    EXPECT_EQ(y, x);
    EXPECT_EQ(u.text(), " Warning: mult not supported by crssparse64! Array returned = x\n");
    m.multgenm(2.0, 'N', x2.view(), 1.0, y2.view());
    EXPECT_EQ(y2, x2);
}

template <class Matrix>
concept has_diagonal = requires(const Matrix& m) { m.diag_vect(); };
template <class Matrix>
concept has_submatrix = requires(const Matrix& m) { m.submatrix(1, 1, 1, 1); };
template <class Matrix>
concept has_factors = requires(Matrix& m) { m.getchol(); };

TEST(Crssparse64, OffersFewerOperations) {
    EXPECT_TRUE(has_diagonal<crssparse> && has_submatrix<crssparse> && has_factors<crssparse>);
    EXPECT_FALSE(has_diagonal<crssparse64>);
    EXPECT_FALSE(has_submatrix<crssparse64>);
    EXPECT_FALSE(has_factors<crssparse64>);
}

TEST(CrsDiagVect, GivesTheDiagonalAndWhereItIsStored) {
    const crssparse m = small<crssparse>();
    std::vector<std::uint8_t> stored(3, 7);

    EXPECT_THAT(m.diag_vect(stored), ElementsAre(1.0, 0.0, 5.0));
    EXPECT_THAT(stored, ElementsAre(1, 0, 1));
    stored.resize(1);
    expect_fatal([&] { (void)m.diag_vect(stored); },
                 " ERROR: the vector lidx is smaller than the smallest dimension of CRS");
}

TEST(CrsDiagMat, IsAMatrixOfTheSameShape) {
    const crssparse d = small<crssparse>().diag_mat();
    EXPECT_THAT(d.get_rowptr(), ElementsAre(1, 2, 3, 4));
    EXPECT_THAT(d.get_colval(), ElementsAre(1, 2, 3));
    EXPECT_THAT(d.get_nzval(), ElementsAre(1.0, 0.0, 5.0));

    coosparse coo(3, 2);
    coo.add(2, 2, 4.0);
    const crssparse tall = convertfromcootocrs(coo).diag_mat();
    EXPECT_THAT(tall.get_rowptr(), ElementsAre(1, 2, 3, 3));
    EXPECT_EQ(tall.get(2, 2), 4.0);
}

}  // namespace
}  // namespace zendar::test
