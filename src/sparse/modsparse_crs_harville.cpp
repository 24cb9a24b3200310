#include <cmath>
#include <string>

#include "modbasic.hpp"
#include "modrandom.hpp"
#include "modsparse_crs.hpp"
#include "modsparse_pages.hpp"

namespace zendar {

namespace {

/// Both triangles by rows, without the diagonal: a sweep needs each row as a whole. Pointers and columns
/// count from 0.
struct full_rows {
    page_array<std::int64_t> begin;  ///< n + 1
    page_array<std::int32_t> column;
    page_array<double> value;

    static std::int64_t bytes(std::int32_t n, std::int64_t elements) {
        return (std::int64_t{n} + 1) * static_cast<std::int64_t>(sizeof(std::int64_t)) +
               elements * static_cast<std::int64_t>(sizeof(std::int32_t) + sizeof(double));
    }
};

/// Calls f(i, j, value), from 0, for the stored elements above the diagonal.
template <class F>
void for_each_off_diagonal(crs_view<std::int32_t> m, const F& f) {
    for (std::int32_t i = 0; i < m.dim1; ++i)
        for (std::int32_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
            if (m.ja[k] - 1 > i && m.a[k] != 0.0) f(i, m.ja[k] - 1, m.a[k]);
}

full_rows make_full_rows(crs_view<std::int32_t> m, std::int64_t elements) {
    full_rows rows{page_array<std::int64_t>(std::int64_t{m.dim1} + 1), page_array<std::int32_t>(elements),
                   page_array<double>(elements)};
    std::int64_t* const begin = rows.begin.data();
    for_each_off_diagonal(m, [begin](std::int32_t i, std::int32_t j, double) {
        ++begin[i + 1];
        ++begin[j + 1];
    });
    for (std::int32_t i = 0; i < m.dim1; ++i) begin[i + 1] += begin[i];
    page_array<std::int64_t> next = rows.begin.copy();
    const auto put = [&rows, &next](std::int32_t i, std::int32_t j, double value) {
        const std::int64_t at = next.data()[i]++;
        rows.column.data()[at] = j;
        rows.value.data()[at] = value;
    };
    for_each_off_diagonal(m, [&put](std::int32_t i, std::int32_t j, double value) {
        put(i, j, value);
        put(j, i, value);
    });
    return rows;
}

}  // namespace

template <std::signed_integral Index>
std::vector<double> crs_matrix<Index>::harville(std::int64_t nrounds, std::int64_t nburnin,
                                                std::uint32_t seed) const
    requires(std::same_as<Index, std::int32_t>)
{
    if (!issquare() || !lupperstorage_)
        fail(" ERROR: the CRS matrix must be square and upper triangular stored");
    if (nrounds < 1 || nburnin < 0) fail(" ERROR: harville needs at least one round");
    const crs_view<std::int32_t> m = view();
    for (const double value : m.a)
        if (!std::isfinite(value)) fail(" ERROR: an element of the CRS matrix is not a finite number");
    const std::vector<double> diagonal = diag_vect();
    std::int64_t elements = 0;
    for_each_off_diagonal(m, [&](std::int32_t i, std::int32_t j, double) {
        elements += 2;
        for (const std::int32_t k : {i, j})
            if (diagonal[k] == 0.0)
                fail(" ERROR: the diagonal element of equation " + inttochar(k + 1) +
                     " is 0: the matrix is not positive definite");
    });
    for (std::int32_t i = 0; i < dim1_; ++i)
        if (diagonal[i] < 0.0)
            fail(" ERROR: the diagonal element of equation " + inttochar(i + 1) +
                 " is negative: the matrix is not positive definite");
    const std::int64_t bytes = full_rows::bytes(dim1_, elements) +
                               std::int64_t{dim1_} * 4 * static_cast<std::int64_t>(sizeof(double));
    message(" Memory (MB) needed for the sampling = " + realtochar(mib(bytes), "(f0.2)"));
    message(" Number of rounds                    = " + inttochar(nrounds) + " after " + inttochar(nburnin));

    const full_rows rows = make_full_rows(m, elements);
    const std::int64_t* const begin = rows.begin.data();
    const std::int32_t* const column = rows.column.data();
    const double* const value = rows.value.data();
    const auto n = static_cast<std::size_t>(dim1_);
    std::vector<double> inverse(n, 0.0), deviation(n, 0.0), x(n, 0.0), square(n, 0.0);
    for (std::size_t i = 0; i < n; ++i) {
        if (diagonal[i] == 0.0) continue;  // an empty equation keeps 0
        inverse[i] = 1.0 / diagonal[i];
        deviation[i] = std::sqrt(inverse[i]);
    }
    normal_stream random(seed);
    // One thread: the deviates, and with them the result, have one order.
    for (std::int64_t round = -nburnin; round < nrounds; ++round) {
        for (std::size_t i = 0; i < n; ++i) {
            if (inverse[i] == 0.0) continue;
            double sum = 0.0;
            for (std::int64_t k = begin[i]; k < begin[i + 1]; ++k) sum += value[k] * x[column[k]];
            const double mean = -sum * inverse[i];
            x[i] = mean + random.rand_stdnormal() * deviation[i];
            if (round >= 0) square[i] += mean * mean;
        }
    }
    std::vector<double> estimate(n, 0.0);
    for (std::size_t i = 0; i < n; ++i)
        if (inverse[i] != 0.0) estimate[i] = inverse[i] + square[i] / static_cast<double>(nrounds);
    return estimate;
}

template std::vector<double> crs_matrix<std::int32_t>::harville(std::int64_t, std::int64_t,
                                                                std::uint32_t) const;

}  // namespace zendar
