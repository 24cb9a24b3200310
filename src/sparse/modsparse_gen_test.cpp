#include "modsparse_gen.hpp"

#include <limits>

#include "modsparse.hpp"
#include "modsparse_test_support.hpp"
#include "temporary_directory.hpp"

namespace zendar::test {
namespace {

using ::testing::ElementsAre;

coosparse small_symmetric(logger* unlog) {
    coosparse coo(2, 2, 8, true, unlog);
    coo.setsymmetric();
    coo.add(1, 1, 2.0);
    coo.add(1, 2, 0.5);
    return coo;
}

TEST(Setsymmetric, RefusesAMatrixThatIsNotSquare) {
    unit u;
    coosparse coo(2, 3, 8, false, &u.log);

    expect_fatal([&] { coo.setsymmetric(); },
                 " ERROR: the sparse matrix is not square and cannot be set to symmetric!");
    expect_fatal([&] { coo.setsymmetric(true); },
                 " ERROR: the sparse matrix is not square and cannot be set to symmetric as requested!");
    EXPECT_EQ(u.text(),
              " ERROR: the sparse matrix is not square and cannot be set to symmetric!\n"
              " ERROR: the sparse matrix is not square and cannot be set to symmetric as\nrequested!\n");
    EXPECT_FALSE(coo.issymmetric());
    EXPECT_FALSE(coo.issquare());
    coo.setsymmetric(false);
}

TEST(Setsymmetric, SetsAndClearsTheFlag) {
    coosparse coo(3);

    coo.setsymmetric();
    EXPECT_TRUE(coo.issymmetric());
    coo.setsymmetric(false);
    EXPECT_FALSE(coo.issymmetric());
    coo.setsymmetric(true);
    EXPECT_TRUE(coo.issymmetric());
}

TEST(Setpermutation, ChecksTheSize) {
    coosparse coo(3);

    expect_fatal(
        [&] {
            coo.setpermutation32(std::vector<std::int32_t>{1, 2});
        },
        " ERROR: The permutation array has a wrong size.");
    expect_fatal(
        [&] {
            coo.setpermutation64(std::vector<std::int64_t>{1, 2, 3, 4});
        },
        " ERROR: The permutation array (int64) has a wrong size.");
}

TEST(Getpermutation, GivesWhatWasSetAndFailsBefore) {
    coosparse coo(3);
    expect_fatal([&] { (void)coo.getpermutation32(); }, " ERROR: The permutation array is not allocated.");
    expect_fatal([&] { (void)coo.getpermutation64(); },
                 " ERROR: The permutation array (int64) is not allocated.");
    EXPECT_FALSE(coo.haspermutation32());

    coo.setpermutation32(std::vector<std::int32_t>{3, 1, 2});
    coo.setpermutation64(std::vector<std::int64_t>{2, 3, 1});

    EXPECT_THAT(coo.getpermutation32(), ElementsAre(3, 1, 2));
    EXPECT_THAT(coo.getpermutation64(), ElementsAre(2, 3, 1));
    EXPECT_TRUE(coo.haspermutation64());
}

TEST(Print, WritesOneLinePerElement) {
    unit u;
    const crssparse crs = convertfromcootocrs(small_symmetric(&u.log));

    crs.print();

    EXPECT_EQ(u.text(), "1 1 2.0000000000000000\n1 2 0.50000000000000000\n2 2 0.0000000000000000\n");
}

TEST(PrintIdx, WritesTheNumberOfTheElement) {
    unit u;
    const crssparse crs = convertfromcootocrs(small_symmetric(&u.log));

    crs.print_idx();

    EXPECT_EQ(u.text(), "1 1 1\n1 2 2\n2 2 3\n");
}

TEST(Printsquare, AddsTheMirrorImages) {
    unit u;
    const crssparse crs = convertfromcootocrs(small_symmetric(&u.log));

    crs.printsquare();

    EXPECT_EQ(
        u.text(),
        "1 1 2.0000000000000000\n1 2 0.50000000000000000\n2 1 0.50000000000000000\n2 2 0.0000000000000000\n");
}

TEST(Printtofile, WritesTheSameLinesToAFile) {
    const temporary_directory directory;
    const crssparse crs = convertfromcootocrs(small_symmetric(nullptr));

    crs.printtofile(directory / "m.dat");
    crs.printsquaretofile(directory / "s.dat");

    EXPECT_EQ(directory.read("m.dat"),
              "1 1 2.0000000000000000\n1 2 0.50000000000000000\n2 2 0.0000000000000000\n");
    EXPECT_EQ(
        directory.read("s.dat"),
        "1 1 2.0000000000000000\n1 2 0.50000000000000000\n2 1 0.50000000000000000\n2 2 0.0000000000000000\n");
}

TEST(Printtofile, NamesAFileThatCannotBeWritten) {
    const temporary_directory directory;
    const coosparse coo = small_symmetric(nullptr);
    const auto path = directory / "missing" / "m.dat";

    expect_fatal([&] { coo.printtofile(path); },
                 " ERROR: the file " + path.string() + " cannot be written: No such file or directory");
}

TEST(PrintDim, NamesTheFormat) {
    unit u;
    small_symmetric(&u.log).print_dim();
    EXPECT_EQ(u.text(),
              " Type of the matrix          : COO\n Number of rows              : 2\n"
              " Number of columns           : 2\n Number of elements          : 2\n"
              " Sorted by column            : no\n Symmetric                   : yes\n"
              " Upper triangle only         : yes\n");

    unit v;
    coosparse none;
    none.setoutputunit(&v.log);
    none.print_dim();
    EXPECT_THAT(v.text(), ::testing::StartsWith(" Type of the matrix          : Undefined sparse matrix\n"));
    EXPECT_EQ(none.getoutputunit(), &v.log);
}

TEST(Init, RefusesANegativeDimension) {
    expect_fatal([] { coosparse coo(-1); }, " ERROR: a sparse matrix cannot have a negative dimension!");
    expect_fatal([] { llsparse ll(1, -2); }, " ERROR: a sparse matrix cannot have a negative dimension!");
    expect_fatal([] { crssparse crs(-3, 0); }, " ERROR: a sparse matrix cannot have a negative dimension!");
}

TEST(Destroy, LeavesAnEmptyRecordThatCanBeSetUpAgain) {
    coosparse coo = small_symmetric(nullptr);
    coo.setpermutation32(std::vector<std::int32_t>{2, 1});

    coo.destroy();

    EXPECT_EQ(coo.getdim(1), 0);
    EXPECT_EQ(coo.getdim(2), 0);
    EXPECT_EQ(coo.totalnumberofelements(), 0);
    EXPECT_EQ(coo.getmem(), 0.0);
    EXPECT_EQ(coo.namemat(), "");
    EXPECT_FALSE(coo.issymmetric());
    EXPECT_FALSE(coo.haspermutation32());
    coo.set(1, 1, 1.0);
    EXPECT_EQ(coo.get(1, 1), 0.0);
    coo.constructor_sub(2);
    coo.set(1, 1, 1.0);
    EXPECT_EQ(coo.get(1, 1), 1.0);
}

TEST(Move, LeavesAnEmptyRecordBehind) {
    coosparse coo = small_symmetric(nullptr);
    const coosparse moved = std::move(coo);

    EXPECT_EQ(moved.get(2, 1), 0.5);
    EXPECT_EQ(coo.getdim(1), 0);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(coo.get(1, 1), 0.0);
    EXPECT_EQ(coo.totalnumberofelements(), 0);
    coo.add(1, 1, 1.0);
    EXPECT_EQ(coo.totalnumberofelements(), 0);
}

TEST(Copy, IsIndependentOfItsSource) {
    coosparse coo = small_symmetric(nullptr);
    const coosparse other = coo.copy();
    coo.set(1, 1, 9.0);
    EXPECT_EQ(other.get(1, 1), 2.0);
    EXPECT_EQ(other.get(2, 1), 0.5);

    crssparse crs = convertfromcootocrs(coo);
    const crssparse crs2 = crs.copy();
    crs.scale(2.0);
    EXPECT_EQ(crs2.get(1, 1), 9.0);

    llsparse ll = convertfromcootoll(coo);
    const llsparse ll2 = ll.copy();
    ll.add(1, 1, 1.0);
    EXPECT_EQ(ll2.get(1, 1), 9.0);
}

/// Products of every combination of flags against a dense matrix.
TEST(Multgen, AgreesWithADenseMatrix) {
    random_elements random(11);
    for (const std::int32_t dim2 : {7, 5}) {
        for (const bool upper : {false, true}) {
            for (const bool symmetric : {false, true}) {
                if (symmetric && (!upper || dim2 != 7)) continue;
                SCOPED_TRACE(testing::Message() << dim2 << upper << symmetric);
                coosparse coo(7, dim2, 8, upper);
                matrix<double> a =
                    random.fill(7, dim2, upper, [&](auto i, auto j, double v) { coo.add(i, j, v); });
                if (symmetric) coo.setsymmetric(), a = mirrored(a);
                const crssparse crs = convertfromcootocrs(coo);
                for (const char trans : {'N', 'n', 'T', 't'}) {
                    const bool t = trans == 'T' || trans == 't';
                    matrix<double> x(t ? 7 : dim2, 3), y(t ? dim2 : 7, 3);
                    for (std::size_t k = 0; k < x.values().size(); ++k)
                        x.values()[k] = static_cast<double>(k) - 4.0;
                    for (std::size_t k = 0; k < y.values().size(); ++k)
                        y.values()[k] = 0.25 * static_cast<double>(k);
                    const matrix<double> expected = dense_product(a, t, 2.0, x, -0.5, y);
                    matrix<double> from_coo = y, from_crs = y, by_columns = y;

                    coo.multgenm(2.0, trans, x.view(), -0.5, from_coo.view());
                    crs.multgenm(2.0, trans, x.view(), -0.5, from_crs.view());
                    for (std::int64_t j = 0; j < 3; ++j)
                        crs.multgenv(2.0, trans, x.column(j), -0.5, by_columns.column(j));

                    expect_near(from_coo, expected, 1e-9);
                    expect_near(from_crs, expected, 1e-9);
                    expect_near(by_columns, expected, 1e-9);
                }
            }
        }
    }
}

TEST(Multgen, DoesNotReadYWhenBetaIsZero) {
    const coosparse coo = small_symmetric(nullptr);
    const crssparse crs = convertfromcootocrs(coo);
    const std::vector<double> x = {1.0, 2.0};
    const double nan = std::numeric_limits<double>::quiet_NaN();

    for (const gen_sparse* m : std::initializer_list<const gen_sparse*>{&coo, &crs}) {
        std::vector<double> y = {nan, nan};
        m->multgenv(1.0, 'N', x, 0.0, y);
        EXPECT_THAT(y, ElementsAre(3.0, 0.5));
    }
}

TEST(Multgen, RefusesWhatItCannotDo) {
    coosparse coo(2, 2, 8);
    coo.add(1, 1, 1.0);
    const coosparse wide(2, 3, 8);
    crssparse crs = convertfromcootocrs(coo);
    std::vector<double> x(2), y(2), z(3);
    matrix<double> x2(2, 2), y1(2, 1);

    for (const gen_sparse* m : std::initializer_list<const gen_sparse*>{&coo, &crs}) {
        expect_fatal([&] { m->multgenv(1.0, 'X', x, 0.0, y); }, "  ERROR (mult): wrong transposition");
        expect_fatal([&] { m->multgenv(1.0, 'N', z, 0.0, y); }, "  ERROR (mult): wrong dimensions");
        expect_fatal([&] { m->multgenv(1.0, 'N', x, 0.0, z); }, "  ERROR (mult): wrong dimensions");
        expect_fatal([&] { m->multgenm(1.0, 'N', x2.view(), 0.0, y1.view()); },
                     "  ERROR (mult): wrong dimensions");
    }
    expect_fatal([&] { wide.multgenv(1.0, 'T', z, 0.0, y); }, "  ERROR (mult): wrong dimensions");
    coo.setsymmetric();
    crs.setsymmetric();
    for (const gen_sparse* m : std::initializer_list<const gen_sparse*>{&coo, &crs}) {
        expect_fatal([&] { m->multgenv(1.0, 'N', x, 0.0, y); }, "  ERROR (multbyv): unsupported format");
        expect_fatal([&] { m->multgenm(1.0, 'N', x2.view(), 0.0, x2.view()); },
                     "  ERROR (mult): unsupported format");
    }
}

TEST(Cg, SolvesASmallSystem) {
    coosparse coo(20, 20, 8, true);
    coo.setsymmetric();
    for (std::int32_t i = 1; i <= 20; ++i) {
        coo.add(i, i, 4.0 + i);
        coo.add(i, i % 20 + 1, -1.0);
    }
    coo.add(1, 20, -1.0);
    const crssparse crs = convertfromcootocrs(coo);
    std::vector<double> truth(20), y(20), x(20, 0.0);
    for (std::size_t i = 0; i < 20; ++i) truth[i] = 0.1 * static_cast<double>(i) - 1.0;
    crs.multgenv(1.0, 'N', truth, 0.0, y);

    const std::int64_t iterations = crs.cg(x, y);

    EXPECT_LE(iterations, 40);
    for (std::size_t i = 0; i < 20; ++i) EXPECT_NEAR(x[i], truth[i], 1e-9);
    EXPECT_EQ(crs.cg(x, std::vector<double>(20, 0.0)) > 0, true);  // from a start that is not zero
}

TEST(Cg, IsDoneAtOnceWithAZeroRightHandSide) {
    coosparse coo(2);
    coo.add(1, 1, 1.0);
    coo.add(2, 2, 1.0);
    std::vector<double> x(2, 0.0);

    EXPECT_EQ(coo.cg(x, std::vector<double>(2, 0.0)), 0);
    EXPECT_THAT(x, ElementsAre(0.0, 0.0));
}

}  // namespace
}  // namespace zendar::test
