#include "modmmeiod_snpeffects.hpp"

#include <gmock/gmock.h>

#include "modgeneral_test_model.hpp"

namespace zendar {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(ComputeSnpeffects, AreTheCentredGenotypesTimesTheInverseTimesTheSolutions) {
    matrix<double> rows(3, 2);  // SNPs x animals: Z' = (1 0; -1 2; 0 1)
    rows(0, 0) = 1.0, rows(1, 0) = -1.0, rows(1, 1) = 2.0, rows(2, 1) = 1.0;
    const covariable_type z({1, 2}, rows);
    matrix<double> ginverse(2, 2), u(2, 2), effects(3, 2, 99.0);
    ginverse(0, 0) = 2.0, ginverse(1, 0) = -1.0, ginverse(1, 1) = 3.0;  // the lower triangle is enough
    u(0, 0) = 1.0, u(1, 0) = 2.0;                                       // G^-1 u = (0, 5)
    u(0, 1) = -1.0;                                                     // G^-1 u = (-2, 1)
    test::captured_log log;

    compute_snpeffects(z, ginverse.view(), u.view(), 0.5, 4.0, effects.view(), log);

    EXPECT_THAT(std::vector<double>(effects.values().begin(), effects.values().end()),
                ElementsAre(0.0, 10.0 / 8, 5.0 / 8, -2.0 / 8, 4.0 / 8, 1.0 / 8));
    EXPECT_THAT(log.text(), HasSubstr("Elapsed time (s) to compute Z*G-1*GEBV    : "));
    EXPECT_THAT(log.text(), HasSubstr("Sum(2pq): 4.00000\n"));
    EXPECT_THAT(log.text(), HasSubstr("Elapsed time (s) to compute SNP effects   : "));
    EXPECT_THAT(log.text(), HasSubstr("Elapsed time (s) to back-solve SNP effects: "));
}

}  // namespace
}  // namespace zendar
