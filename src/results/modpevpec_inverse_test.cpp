#include <gmock/gmock.h>

#include "modgeneral_test_model.hpp"
#include "modpevpec.hpp"
#include "modpevpec_test_support.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_text;
using testing::ElementsAre;
using testing::HasSubstr;

TEST(PecMethod, IsGivenByTheWordBehindRelAndByHarville) {
    const auto method = [](const char* word, bool harville) {
        param_type param;
        if (word != nullptr) param.relparam = word;
        param.solver.harville = harville;
        return pec_method(param);
    };
    EXPECT_EQ(method(nullptr, false), "SPAINV");
    EXPECT_EQ(method("1", false), "SPAINV");
    EXPECT_EQ(method("SPAINV", false), "SPAINV");
    EXPECT_EQ(method("Harville", false), "Harville");
    EXPECT_EQ(method("harville", false), "harville");
    EXPECT_EQ(method("2", false), "2");
    for (const char* word : {static_cast<const char*>(nullptr), "1", "SPAINV", "dense"})
        EXPECT_EQ(method(word, true), "Harville");
}

TEST(GetPecInverse, BySpainvIsTheDiagonalOfTheInverse) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        const auto n = static_cast<std::int32_t>(3 + 4 * seed);
        crssparse lhs = test::random_lhs(n, seed, {2, n});
        const matrix<double> exact = test::dense_inverse_of(lhs);
        std::vector<double> pev{1.0, 2.0};
        captured_log log;

        get_pec_inverse("SPAINV", lhs, pev, log);

        ASSERT_EQ(std::ssize(pev), n);
        for (std::int32_t i = 0; i < n; ++i) {
            EXPECT_NEAR(pev[i], exact(i, i), 1e-12 * exact(i, i)) << i;
            EXPECT_EQ(lhs.get(i + 1, i + 1), pev[i]);
        }
        EXPECT_EQ(pev[1], 0.0);
        EXPECT_THAT(log.text(), HasSubstr("INVERSION CRS MATRIX"));
        EXPECT_THAT(log.text(), HasSubstr("Number of dropped pivots: 2"));
        EXPECT_THAT(log.text(), HasSubstr(" Number of rows              : " + std::to_string(n)));
    }
}

TEST(GetPecInverse, ByHarvilleIsAnEstimateThatRepeats) {
    const crssparse lhs = test::random_lhs(12, 5, {4});
    const matrix<double> exact = test::dense_inverse_of(lhs);
    crssparse one = lhs.copy(), two = lhs.copy();
    std::vector<double> pev, again;
    captured_log log;

    get_pec_inverse("Harville", one, pev, log);
    get_pec_inverse("Harville", two, again, log);

    ASSERT_EQ(pev.size(), 12U);
    EXPECT_EQ(pev, again);
    for (std::int32_t i = 0; i < 12; ++i) EXPECT_NEAR(pev[i], exact(i, i), 0.1 * exact(i, i)) << i;
    EXPECT_EQ(one.get_nzval(), lhs.get_nzval());
    EXPECT_THAT(log.text(), HasSubstr("Number of rounds                    = 10000 after 1000"));
}

TEST(GetPecInverse, ByHarvilleSortsTheMatrix) {
    crssparse lhs(2, 3, 2, true);
    lhs.external(std::vector<std::int32_t>{1, 3, 4}, std::vector<std::int32_t>{2, 1, 2},
                 std::vector<double>{0.5, 2.0, 3.0});
    std::vector<double> pev;
    captured_log log;

    get_pec_inverse("Harville", lhs, pev, log);

    EXPECT_THAT(lhs.get_colval(), ElementsAre(1, 2, 2));
    EXPECT_THAT(log.text(), HasSubstr(" Sorted by column            : yes"));
}

TEST(GetPecInverse, RefusesOtherWordsAndIndefiniteMatrices) {
    crssparse lhs = test::random_lhs(3, 1);
    std::vector<double> pev;
    captured_log log;
    for (const char* word : {"dense", "harville", ""}) {
        EXPECT_EQ(fatal_text([&] { get_pec_inverse(word, lhs, pev, log); }),
                  "Inversion of the LHS as a dense matrix is not implemented");
    }
    EXPECT_THAT(log.text(), HasSubstr("modpevpec % get_pec_inverse ("));
    lhs.set(2, 2, -5.0);
    EXPECT_THAT(fatal_text([&] { get_pec_inverse("SPAINV", lhs, pev, log); }),
                HasSubstr("is not positive semidefinite"));
}

TEST(ExtractpecCrssparse, GivesTheElementsOfEitherTriangle) {
    coosparse coo(3, 3, 8, true);
    coo.setsymmetric();
    coo.set(1, 1, 1.0);
    coo.set(1, 2, 12.0);
    coo.set(1, 3, 13.0);
    coo.set(2, 2, 2.0);
    coo.set(3, 3, 3.0);
    const crssparse m = convertfromcootocrs(coo);
    const std::vector<std::int32_t> rows = {2, 1, 2}, cols = {1, 2}, three = {3};
    captured_log log;

    const matrix<double> pec = extractpec_crssparse(m, rows, cols, log);

    EXPECT_THAT(std::vector<double>(pec.values().begin(), pec.values().end()),
                ElementsAre(12, 1, 12, 2, 12, 2));
    EXPECT_EQ(extractpec_crssparse(m, {}, cols, log).rows(), 0);
    EXPECT_EQ(fatal_text([&] { static_cast<void>(extractpec_crssparse(m, three, cols, log)); }),
              "Internal error: the element (3, 2) of the inverse is not stored");
}

}  // namespace
}  // namespace zendar
