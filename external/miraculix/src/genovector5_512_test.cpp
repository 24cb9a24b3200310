#include <gtest/gtest.h>

#include "genovector5_kernel.hpp"
#include "product_check.hpp"

// The kernels for eight columns are called where the processor has vectors of 512 bits. Here they are
// compiled for any processor, so that their text is tested everywhere.

namespace {

using namespace miraculix;
using miraculix::test::expect_product;
using miraculix::test::genotype_sample;

const genovector5_member<double> eight_double = {"eight columns, double",
                                                 32,
                                                 {genovector5<double, 1, 12>, genovector5<double, 2, 6>,
                                                  genovector5<double, 4, 4>, genovector5<double, 8, 2>}};
const genovector5_member<double> eight_float = {"eight columns, floatD",
                                                32,
                                                {genovector5<float, 1, 12>, genovector5<float, 2, 8>,
                                                 genovector5<float, 4, 4>, genovector5<float, 8, 4>}};

TEST(GenoVector5OfEightColumns, AgreesWithTheDenseProduct) {
    for (const genovector5_member<double>* member : {&eight_double, &eight_float})
        for (std::int64_t n = 1; n <= 40; ++n) {
            const genotype_sample g(20 + n, 75 - n, static_cast<std::uint64_t>(n));
            ASSERT_NO_FATAL_FAILURE(expect_product(g, member->name, std::cref(*member), n, n % 2, 2));
        }
}

}  // namespace
