#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <string>

#include "captured_log.hpp"
#include "data_sets.hpp"
#include "modenum.hpp"
#include "modpedigree_ploidy.hpp"

/// Polyploid pedigrees that others published, with coefficients and inverses that others computed.
namespace zendar::test {
namespace {

struct ploidy_set {
    const char* name;
    const char* folder;
    std::int32_t nlevel;
};

void PrintTo(const ploidy_set& set, std::ostream* os) {
    *os << set.name;
}

class PloidySets : public ::testing::TestWithParam<ploidy_set> {};

TEST_P(PloidySets, HaveThePublishedCoefficientsAndInverses) {
    const std::filesystem::path folder = external(GetParam().folder);
    if (!std::filesystem::exists(folder)) GTEST_SKIP() << "the set " << GetParam().folder << " is not here";
    constexpr double tolerance = 1e-8;
    captured_log log;
    pedigree_ploidy_type ped;
    ped.readpedigree_ploidy((folder / "ped.txt").string(), GetParam().nlevel, 0, log);
    ped.filename.reset();  // no cache
    ped.computefounderploidy(log);
    ped.computeinbreeding_ped({}, log);

    int id = 0, other = 0, count = 0;
    double value = 0.0;
    for (std::ifstream in(folder / "expected_inbreeding.txt"); in >> id >> value; ++count)
        EXPECT_NEAR(ped.f.at(static_cast<std::size_t>(id - 1)), value, tolerance) << id;
    for (std::ifstream in(folder / "expected_coancestry.txt"); in >> id >> value; ++count)
        EXPECT_NEAR(0.5 * ped.kdiag.at(static_cast<std::size_t>(id - 1)), value, tolerance) << id;
    EXPECT_EQ(count, 2 * GetParam().nlevel);

    crssparse ainv = ped.computeasparse_ped(trandom_ani_ploidy, 0.0, 1, log);
    double squares = 0.0, rest = 0.0;  // of all elements, less those of the answer
    for (std::int32_t i = 1; i <= ped.nlength(); ++i)
        for (std::int32_t j = i; j <= ped.nlength(); ++j) squares += std::pow(ainv.get(i, j), 2);
    rest = squares;
    for (std::ifstream in(folder / "expected_ainv.txt"); in >> id >> other >> value;) {
        const double ours = ainv.get(std::min(id, other), std::max(id, other));
        EXPECT_NEAR(ours, value, tolerance * std::max(1.0, std::abs(value))) << id << " " << other;
        rest -= ours * ours;
    }
    EXPECT_GT(squares, 0.0);
    EXPECT_NEAR(rest, 0.0, 1e-9 * squares);
}

INSTANTIATE_TEST_SUITE_P(Cases, PloidySets,
                         ::testing::Values(ploidy_set{"FourCopies", "poly_kerr2012", 10},
                                           ploidy_set{"TwoAndFourCopies", "poly_hamkerr_tab1", 8},
                                           ploidy_set{"TwoAndThreeCopies", "poly_hamkerr_or41", 8},
                                           ploidy_set{"Potatoes", "poly_potato", 1138}),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace zendar::test
