#include <algorithm>

#include "genovector5.hpp"
#include "tables.hpp"

namespace miraculix {

namespace {

/// One column of b. Rows come in groups of four, each row with its table.
template <class Real, class Accumulator>
void reference(const genovector5_block<Accumulator>& block) {
    constexpr std::int64_t group = 4;
    Real table[group][five_code_values];
    for (std::int64_t first = 0; first < block.nrow; first += group) {
        const std::int64_t rows = std::min(group, block.nrow - first);
        for (std::int64_t r = 0; r < group; ++r) {
            for (std::int64_t code = 0; code < five_code_values; ++code) {
                Real sum = 0;
                for (std::int64_t digit = 0; digit < genotypes_per_byte; ++digit) {
                    const std::int64_t i = genotypes_per_byte * (first + r) + digit;
                    if (i < block.nb)
                        sum +=
                            static_cast<Real>(CODING_TABLE5()[code][digit]) * static_cast<Real>(block.b[i]);
                }
                table[r][code] = sum;
            }
        }
        for (std::int64_t j = 0; j < block.ncol; ++j) {
            Accumulator found[group] = {};
            for (std::int64_t r = 0; r < rows; ++r)
                found[r] = table[r][block.codes[(first + r) * block.lda + j]];
            block.acc[j] += (found[0] + found[1]) + (found[2] + found[3]);
        }
    }
}

}  // namespace

const genovector5_member<double> genoVector5v32_double = {
    "genoVector5v32_double", 32, {reference<double, double>, nullptr, nullptr, nullptr}};

const genovector5_member<double> genoVector5v32_floatD = {
    "genoVector5v32_floatD", 32, {reference<float, double>, nullptr, nullptr, nullptr}};

const genovector5_member<long double> genoVector5v32_longD = {
    "genoVector5v32_longD", 32, {reference<long double, long double>, nullptr, nullptr, nullptr}};

}  // namespace miraculix
