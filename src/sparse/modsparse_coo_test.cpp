#include "modsparse_coo.hpp"

#include <cmath>

#include "modsparse_test_support.hpp"

namespace zendar::test {
namespace {

using ::testing::ElementsAre;

bool same_slots(const coosparse& a, const coosparse& b) {
    if (a.nel() != b.nel() || a.filled() != b.filled()) return false;
    for (std::int64_t s = 0; s < a.nel(); ++s) {
        const coo_slot &x = a.slots()[s], &y = b.slots()[s];
        if (x.row != y.row || x.col != y.col || x.value != y.value) return false;
    }
    return true;
}

TEST(Coosparse, StartsEmptyWithAPowerOfTwoOfSlots) {
    const coosparse coo(3, 4);
    EXPECT_EQ(coo.nel(), 128);
    EXPECT_EQ(coo.filled(), 0);
    EXPECT_EQ(coo.getdim(1), 3);
    EXPECT_EQ(coo.getdim(2), 4);
    EXPECT_EQ(coo.namemat(), "COO");
    EXPECT_EQ(coo.getmem(), 128 * 16.0);
    EXPECT_FALSE(coo.issorted() || coo.issymmetric() || coo.isupperstorage());

    EXPECT_EQ(coosparse(5).getdim(2), 5);
    EXPECT_EQ(coosparse(5, 5, 1000).nel(), 1024);
    EXPECT_EQ(coosparse(5, 5, 0).nel(), 1);
    EXPECT_EQ(coosparse(5, 5, -3).nel(), 1);
}

TEST(Coosparse, RefusesASizeThatNoMemoryHolds) {
    EXPECT_THROW(coosparse(5, 5, std::int64_t{1} << 61), std::bad_alloc);
    EXPECT_THROW(coosparse(5, 5, std::int64_t{1} << 58), std::bad_alloc);
}

TEST(Coosparse, StoresAPairInTheFirstSlotOfItsProbes) {
    coosparse coo(200);
    coo.set(1, 1, 5.0);
    coo.add(1, 2, 6.0);

    EXPECT_EQ(coo.slots()[82 - 1].row, 1);
    EXPECT_EQ(coo.slots()[82 - 1].col, 1);
    EXPECT_EQ(coo.slots()[82 - 1].value, 5.0);
    EXPECT_EQ(coo.slots()[35 - 1].col, 2);
}

TEST(Set, OverwritesAndAddSums) {
    coosparse coo(3);
    coo.add(2, 3, 1.5);
    coo.add(2, 3, 2.0);
    EXPECT_EQ(coo.get(2, 3), 3.5);
    coo.set(2, 3, 7.0);
    EXPECT_EQ(coo.get(2, 3), 7.0);
    EXPECT_EQ(coo.totalnumberofelements(), 1);
    EXPECT_EQ(coo.get(3, 2), 0.0);
}

TEST(Set, DropsWhatLiesOutsideWithoutAMessage) {
    unit u;
    coosparse coo(2, 3, 8, false, &u.log);
    for (const auto& [i, j] : {std::pair{0, 1}, {1, 0}, {3, 1}, {1, 4}, {-1, 1}, {1, -7}, {2147483647, 1}}) {
        coo.set(i, j, 1.0);
        coo.add(i, j, 1.0);
        EXPECT_EQ(coo.get(i, j), 0.0);
    }
    EXPECT_EQ(coo.totalnumberofelements(), 0);
    EXPECT_EQ(u.text(), "");
}

TEST(Set, DropsALowerPairOnAnUpperStoredMatrix) {
    coosparse coo(3, 3, 8, true);
    coo.set(2, 1, 4.0);
    EXPECT_EQ(coo.totalnumberofelements(), 0);
    coo.set(1, 2, 5.0);
    EXPECT_EQ(coo.get(2, 1), 0.0);
    coo.setsymmetric();
    EXPECT_EQ(coo.get(2, 1), 5.0);
    EXPECT_EQ(coo.get(1, 2), 5.0);
    coo.add(2, 1, 1.0);
    EXPECT_EQ(coo.get(1, 2), 5.0);
}

TEST(Get, DoesNotMirrorASymmetricMatrixWithBothTriangles) {
    coosparse coo(2);
    coo.setsymmetric();
    coo.set(1, 2, 5.0);
    EXPECT_EQ(coo.get(2, 1), 0.0);
}

TEST(Add, DropsValuesBelowTheMachineEpsilonAndSetDoesNot) {
    coosparse coo(3);
    coo.add(1, 1, 1e-17);
    coo.add(1, 1, -2.220446049250312e-16);
    EXPECT_EQ(coo.totalnumberofelements(), 0);
    coo.add(1, 1, -2.220446049250313e-16);
    EXPECT_EQ(coo.totalnumberofelements(), 1);
    coo.set(1, 2, 1e-17);
    EXPECT_EQ(coo.get(1, 2), 1e-17);
    coo.add(1, 2, 1e-17);
    EXPECT_EQ(coo.get(1, 2), 1e-17);
    coo.add(1, 3, std::nan(""));
    EXPECT_TRUE(std::isnan(coo.get(1, 3)));
}

TEST(Grow, HappensWithThe103rdOf128Slots) {
    unit u;
    coosparse coo(200, 200, 128, false, &u.log);
    for (std::int32_t i = 1; i <= 102; ++i) coo.add(i, i, i);
    coo.add(5, 5, 1.0);
    EXPECT_EQ(coo.nel(), 128);
    EXPECT_EQ(u.text(), "");

    coo.add(103, 103, 103.0);

    EXPECT_EQ(coo.nel(), 256);
    EXPECT_EQ(u.text(), "  Current | New size COO: 128 | 256\n");
    EXPECT_EQ(coo.totalnumberofelements(), 103);
    for (std::int32_t i = 1; i <= 103; ++i) EXPECT_EQ(coo.get(i, i), i == 5 ? 6.0 : i);
}

TEST(Grow, HappensInSetAsWell) {
    coosparse coo(200, 200, 128);
    for (std::int32_t i = 1; i <= 103; ++i) coo.set(i, 1, i);
    EXPECT_EQ(coo.nel(), 256);
    EXPECT_EQ(coo.get(103, 1), 103.0);
}

TEST(Grow, ReEntersInSlotOrder) {
    coosparse coo(400, 400, 128);
    for (std::int32_t i = 1; i <= 102; ++i) coo.add(i, 2 * i, i);
    coosparse expected(400, 400, 256);
    for (const coo_slot& slot : coo.slots()) expected.add(slot.row, slot.col, slot.value);
    // The pair that makes the table grow is in its slot with value 0 then, and so enters last.
    expected.add(103, 206, 103.0);

    coo.add(103, 206, 103.0);

    EXPECT_TRUE(same_slots(coo, expected));
}

TEST(Grow, LosesAValueBelowEpsilon) {
    coosparse coo(200, 200, 128);
    coo.set(200, 200, 1e-17);
    coo.set(199, 199, 0.0);
    for (std::int32_t i = 1; i <= 101; ++i) coo.add(i, i, 1.0);
    EXPECT_EQ(coo.nel(), 256);
    EXPECT_EQ(coo.get(200, 200), 0.0);
    EXPECT_EQ(coo.totalnumberofelements(), 101);
}

TEST(Grow, KeepsFlagsAndPermutation) {
    coosparse coo(200, 200, 8, true);
    coo.setsymmetric();
    coo.setpermutation32(std::vector<std::int32_t>(200, 1));
    for (std::int32_t i = 1; i <= 200; ++i) coo.add(i, 200, i);
    EXPECT_TRUE(coo.isupperstorage() && coo.issymmetric() && coo.haspermutation32());
    EXPECT_EQ(coo.get(200, 7), 7.0);
}

TEST(Grow, WorksFromASingleSlot) {
    for (const std::int64_t nel : {1, 2, 4}) {
        coosparse coo(50, 50, nel);
        for (std::int32_t i = 1; i <= 50; ++i) coo.add(i, i, i);
        EXPECT_EQ(coo.totalnumberofelements(), 50);
        for (std::int32_t i = 1; i <= 50; ++i) EXPECT_EQ(coo.get(i, i), i);
    }
}

TEST(AddMany, GivesTheSlotsOfSingleAdditions) {
    for (const std::int64_t nel : {1, 128, 4096, 1 << 16}) {
        for (const bool upper : {false, true}) {
            unit u, v;
            std::vector<std::int32_t> rows, cols;
            std::vector<double> values;
            std::mt19937 generator(5);
            std::uniform_int_distribution<std::int32_t> index(-2, 303);
            for (int k = 0; k < 20000; ++k) {
                rows.push_back(index(generator));
                cols.push_back(index(generator));
                values.push_back(k % 17 == 0 ? 1e-17 : 0.5 * k);
            }
            coosparse one(300, 290, nel, upper, &u.log), many(300, 290, nel, upper, &v.log);

            for (std::size_t k = 0; k < rows.size(); ++k) one.add(rows[k], cols[k], values[k]);
            many.add(rows, cols, values);

            EXPECT_TRUE(same_slots(one, many)) << nel << upper;
            EXPECT_EQ(u.text(), v.text());
        }
    }
}

TEST(Add, IsSeenByWhateverIsAskedOfALargeTable) {
    // Additions wait there until some hundred are together, or something is asked.
    constexpr std::int64_t nel = 1 << 16;
    const auto added = [&] {
        coosparse coo(500, 500, nel);
        coo.add(3, 4, 1.0);
        coo.add(7, 7, 2.0);
        coo.add(3, 4, 0.5);
        return coo;
    };
    EXPECT_EQ(added().get(3, 4), 1.5);
    EXPECT_EQ(added().filled(), 2);
    EXPECT_EQ(added().totalnumberofelements(), 2);
    EXPECT_EQ(added().diag_vect()[6], 2.0);
    EXPECT_EQ(added().diag_mat().get(7, 7), 2.0);
    EXPECT_EQ(added().submatrix(std::vector<std::int32_t>{4, 3}).get(2, 1), 1.5);
    EXPECT_EQ(added().copy().get(3, 4), 1.5);
    EXPECT_EQ(std::ranges::count_if(added().slots(), [](const coo_slot& s) { return s.row != 0; }), 2);
    const coosparse changed = [&] {
        coosparse coo = added();
        coo.scale(2.0);
        coo.add(3, 4, 1.0);
        coo.set(7, 7, -1.0);
        coo.add(7, 7, 0.25);
        coosparse moved;
        moved = std::move(coo);
        moved.add(std::vector<std::int32_t>{3, 9}, std::vector<std::int32_t>{4, 9},
                  std::vector<double>{1.0, 5.0});
        return moved;
    }();
    EXPECT_EQ(changed.get(3, 4), 5.0);
    EXPECT_EQ(changed.get(7, 7), -0.75);
    EXPECT_EQ(changed.get(9, 9), 5.0);
    EXPECT_EQ(changed.filled(), 3);
    const std::vector<double> ones(500, 1.0);
    std::vector<double> sums(500, 0.0);
    added().multgenv(1.0, 'n', ones, 0.0, sums);
    EXPECT_EQ(sums[2], 1.5);
    coosparse full(500, 500, nel);
    for (std::int32_t i = 1; i <= 500; ++i)
        for (std::int32_t j = 1; j <= 100; ++j) full.add(i, j, 1.0);
    EXPECT_TRUE(full.may_grow(nel * 4 / 5 - 50000 + 1));
    EXPECT_FALSE(full.may_grow(nel * 4 / 5 - 50000));
    coosparse again = added();
    again.constructor_sub(500, 500, nel);
    EXPECT_EQ(again.filled(), 0);
}

/// As `GivesTheSlotsOfSingleAdditions`, for lists that are made to be entered in another order.
void expect_same_slots(std::int64_t nel, const std::vector<std::int32_t>& rows,
                       const std::vector<std::int32_t>& cols) {
    std::vector<double> values;
    for (std::size_t k = 0; k < rows.size(); ++k) values.push_back(1.0 / static_cast<double>(k + 1));
    coosparse one(100000, 100000, nel), many(100000, 100000, nel);
    for (std::size_t k = 0; k < rows.size(); ++k) one.add(rows[k], cols[k], values[k]);

    many.add(rows, cols, values);

    EXPECT_TRUE(same_slots(one, many));
}

std::int32_t probes_until_free(const coosparse& coo, std::int32_t row, std::int32_t col) {
    hash_words h = hash_start(row, col);
    std::int32_t probes = 1;
    while (coo.slots()[next_probe(h, coo.nel())].row != 0) ++probes;
    return probes;
}

TEST(AddMany, KeepsTheOrderWhenAnElementTakesManyProbes) {
    // Almost full; the elements with the longest ways lead, and whole rows of elements with short ways follow
    // them: repeated ones, and new ones that are after the same slots.
    std::vector<std::int32_t> rows, cols;
    coosparse full(100000, 100000, 1024);
    for (std::int32_t i = 1; i <= 780; ++i) {
        rows.push_back(i);
        cols.push_back(i);
        full.add(i, i, 1.0);
    }
    ASSERT_EQ(full.nel(), 1024);
    std::vector<std::int32_t> slow;
    for (std::int32_t i = 1001; i <= 100000; ++i)
        if (probes_until_free(full, i, 7) > 35) slow.push_back(i);
    ASSERT_GE(std::ssize(slow), 5);
    slow.resize(5);
    for (const std::int32_t i : slow) {
        rows.push_back(i);
        cols.push_back(7);
        for (std::int32_t k = 0; k < 3000; ++k) {
            rows.push_back(k % 5 == 0 ? i : 1 + k % 700);
            cols.push_back(k % 5 == 0 ? 7 : 1 + k % 700);
        }
    }
    expect_same_slots(1024, rows, cols);
    // With more and more new elements before them, until the table grows on the way.
    for (std::int32_t i = 1; i <= 60; ++i) {
        rows.insert(rows.begin() + 785, 2000 + i);
        cols.insert(cols.begin() + 785, 3);
        expect_same_slots(1024, rows, cols);
    }
}

TEST(AddMany, SumsRepeatsInTheirOrder) {
    for (const std::size_t length : {1, 23, 24, 25, 47, 48, 49, 511, 512, 513, 1025}) {
        for (const std::int32_t distinct : {1, 2, 30}) {
            std::vector<std::int32_t> rows, cols;
            for (std::size_t k = 0; k < length; ++k) {
                rows.push_back(static_cast<std::int32_t>(k) % distinct + 1);
                cols.push_back(static_cast<std::int32_t>(k) % 2 + 1);
            }
            expect_same_slots(1, rows, cols);
            expect_same_slots(4096, rows, cols);
        }
    }
}

TEST(AddMany, TakesNoElementsAndFewElements) {
    coosparse coo(9);
    coo.add(std::span<const std::int32_t>(), {}, {});
    EXPECT_EQ(coo.totalnumberofelements(), 0);
    coo.add(std::vector<std::int32_t>{1, 1, 1}, std::vector<std::int32_t>{2, 2, 3},
            std::vector<double>{1.0, 2.0, 4.0});
    EXPECT_EQ(coo.get(1, 2), 3.0);
    EXPECT_EQ(coo.get(1, 3), 4.0);
}

TEST(Coosparse, AgreesWithADenseMatrix) {
    random_elements random(3);
    for (const auto& [n, m] : {std::pair{1, 1}, {40, 40}, {40, 13}, {13, 40}, {0, 5}, {5, 0}, {0, 0}}) {
        for (const bool upper : {false, true}) {
            coosparse coo(n, m, 8, upper);
            const matrix<double> expected =
                random.fill(n, m, upper, [&](auto i, auto j, double v) { coo.add(i, j, v); });
            EXPECT_EQ(dense(coo), expected);
        }
    }
}

TEST(Scale, MultipliesAllValues) {
    coosparse coo(3);
    coo.add(1, 2, 1.5);
    coo.scale(-2.0);
    EXPECT_EQ(coo.get(1, 2), -3.0);
}

TEST(DiagVect, GivesTheDiagonalAndWhereItIsStored) {
    coosparse coo(3, 4, 8);
    coo.set(1, 1, 2.0);
    coo.set(3, 3, 0.0);
    coo.set(1, 2, 9.0);
    std::vector<std::uint8_t> stored(3, 7);

    EXPECT_THAT(coo.diag_vect(stored), ElementsAre(2.0, 0.0, 0.0));
    EXPECT_THAT(stored, ElementsAre(1, 0, 1));
    EXPECT_THAT(coo.diag_vect(), ElementsAre(2.0, 0.0, 0.0));
    stored.resize(2);
    expect_fatal([&] { (void)coo.diag_vect(stored); },
                 " ERROR: the vector lidx is smaller than the smallest dimension of COO");
}

TEST(DiagMat, HoldsTheStoredDiagonalOnly) {
    coosparse coo(3, 3, 8, true);
    coo.setsymmetric();
    coo.set(1, 1, 2.0);
    coo.set(1, 2, 9.0);

    const coosparse d = coo.diag_mat();

    EXPECT_EQ(d.totalnumberofelements(), 1);
    EXPECT_EQ(d.get(1, 1), 2.0);
    EXPECT_TRUE(d.issymmetric() && d.isupperstorage());
}

TEST(Submatrix, RenumbersTheListedRowsAndColumns) {
    coosparse coo(4);
    for (std::int32_t i = 1; i <= 4; ++i)
        for (std::int32_t j = 1; j <= 4; ++j) coo.set(i, j, 10 * i + j);

    const coosparse sub = coo.submatrix(std::vector<std::int32_t>{4, 2});

    EXPECT_EQ(sub.getdim(1), 2);
    EXPECT_EQ(sub.totalnumberofelements(), 4);
    EXPECT_EQ(sub.get(1, 1), 44.0);
    EXPECT_EQ(sub.get(1, 2), 42.0);
    EXPECT_EQ(sub.get(2, 1), 24.0);
    EXPECT_EQ(sub.get(2, 2), 22.0);
}

TEST(Submatrix, MirrorsWhatChangesSidesOnASymmetricMatrix) {
    coosparse coo(4, 4, 8, true);
    coo.setsymmetric();
    coo.set(2, 4, 24.0);
    coo.set(2, 2, 22.0);
    coo.set(1, 4, 14.0);

    const coosparse sub = coo.submatrix(std::vector<std::int32_t>{4, 2});

    EXPECT_TRUE(sub.issymmetric() && sub.isupperstorage());
    EXPECT_EQ(sub.get(1, 2), 24.0);
    EXPECT_EQ(sub.get(2, 1), 24.0);
    EXPECT_EQ(sub.get(2, 2), 22.0);
    EXPECT_EQ(sub.totalnumberofelements(), 2);
}

TEST(SubmatrixIndex, KeepsTheNumbers) {
    coosparse coo(4);
    for (std::int32_t i = 1; i <= 4; ++i)
        for (std::int32_t j = 1; j <= 4; ++j) coo.set(i, j, 10 * i + j);

    const coosparse sub = coo.submatrix_index(std::vector<std::int32_t>{4, 2});

    EXPECT_EQ(sub.getdim(1), 4);
    EXPECT_EQ(sub.totalnumberofelements(), 4);
    EXPECT_EQ(sub.get(4, 2), 42.0);
    EXPECT_EQ(sub.get(2, 4), 24.0);
    EXPECT_EQ(sub.get(1, 1), 0.0);
}

TEST(Submatrix, WarnsOnAMatrixThatIsNotSquare) {
    unit u;
    coosparse coo(2, 3, 8, false, &u.log);
    coo.set(1, 3, 13.0);
    coo.set(2, 1, 21.0);

    const coosparse sub = coo.submatrix(std::vector<std::int32_t>{1, 3});

    EXPECT_EQ(u.text(), " Warning: the sparse matrix is not squared!\n");
    EXPECT_EQ(sub.get(1, 2), 13.0);
    EXPECT_EQ(sub.totalnumberofelements(), 1);
}

TEST(Submatrix, RefusesABadList) {
    const coosparse coo(4);
    EXPECT_EQ(coo.submatrix({}).getdim(1), 0);
    expect_fatal(
        [&] {
            (void)coo.submatrix(std::vector<std::int32_t>{1, 5});
        },
        " ERROR: index 5 of the submatrix is outside the matrix");
    expect_fatal([&] { (void)coo.submatrix_index(std::vector<std::int32_t>{0}); },
                 " ERROR: index 0 of the submatrix is outside the matrix");
    expect_fatal(
        [&] {
            (void)coo.submatrix(std::vector<std::int32_t>{3, 3});
        },
        " ERROR: index 3 of the submatrix is listed twice");
}

}  // namespace
}  // namespace zendar::test
