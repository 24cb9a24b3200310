#include "modbasic.hpp"
#include "modmmeiod_a22i.hpp"
#include "modmmeiod_huge.hpp"
#include "modrandom.hpp"
#include "modstats.hpp"
#include "modstructure_product.hpp"

namespace zendar {

std::vector<double> computediaga22i(a22_inverse& a22i, logger& log) {
    constexpr std::int64_t iterations = 200, columns = 5;
    constexpr std::uint32_t seed = 1;
    const std::int64_t n = a22i.size();
    log.message("Start the Gibbs sampler for estimating diag(A22-1)...");
    log.message("Number of iterations: " + inttochar(iterations));
    log.message("Number of RHS       : " + inttochar(columns));
    const wtime clock;
    bernoulli_stream stream(seed);
    std::vector<double> diagonal(static_cast<std::size_t>(n), 0.0);
    std::vector<double> work(static_cast<std::size_t>(a22i.work_size(columns)));
    matrix<double> z(n, columns), v(n, columns);
    for (std::int64_t iteration = 0; iteration < iterations; ++iteration) {
        for (double& value : z.values()) value = 2.0 * stream.next(0.5) - 1.0;
        a22i.computea22i_timesx(z.view(), v.view(), work);
        for (std::int64_t c = 0; c < columns; ++c)
            for (std::int64_t i = 0; i < n; ++i) diagonal[static_cast<std::size_t>(i)] += z(i, c) * v(i, c);
    }
    for (double& value : diagonal) value /= static_cast<double>(iterations * columns);
    log.message("End of Gibbs sampler - wall clock time (s): " + realtochar(clock.seconds(), "(f0.3)"));
    return diagonal;
}

namespace {

/// use(first, columns of M', B times these) for the symmetric B of a block, by groups of SNPs.
template <class Use>
void for_snps(const covariable_type& cov, modmmeiod::single_step_block& block, Use&& use) {
    constexpr std::int64_t most = 32;  // columns that are solved for together
    const std::int64_t nrow = coefficient_rows(cov), nsnp = coefficient_columns(cov);
    matrix<double> m(nrow, std::min(most, nsnp)), v(nrow, m.cols());
    for (std::int64_t first = 0; first < nsnp; first += most) {
        const std::int64_t n = std::min(most, nsnp - first);
        const matrix_view<double> columns{m.data(), nrow, n, nrow}, products{v.data(), nrow, n, nrow};
        expand_coefficients(cov, first, columns);
        block.between_genotypes(columns, products);
        use(first, columns, products);
    }
}

/// The diagonal of M B M'.
std::vector<double> diagonal_between(const covariable_type& cov, modmmeiod::single_step_block& block) {
    std::vector<double> diagonal;
    for_snps(cov, block,
             [&](std::int64_t, matrix_view<const double> columns, matrix_view<const double> products) {
                 for (std::int64_t j = 0; j < columns.cols; ++j) {
                     double sum = 0.0;
                     for (std::int64_t i = 0; i < columns.rows; ++i) sum += columns(i, j) * products(i, j);
                     diagonal.push_back(sum);
                 }
             });
    return diagonal;
}

/// M B M' itself.
matrix<double> matrix_between(const covariable_type& cov, modmmeiod::single_step_block& block, logger& log) {
    const std::int64_t n = coefficient_columns(cov);
    matrix<double> whole(n, n);
    for_snps(
        cov, block, [&](std::int64_t first, matrix_view<const double>, matrix_view<const double> products) {
            multiply_coefficients(cov, 't', products, {whole.data() + first * n, n, products.cols, n}, log);
        });
    return whole;
}

}  // namespace

std::vector<double> computema22mina21a11ia12m_all(const covariable_type& cov,
                                                  modmmeiod::single_step_block& block, logger& log) {
    log.message("Start the computation of diag(M*(A^22-A^21*inv(A^11)*A^12)*M) for " +
                inttochar(coefficient_columns(cov)) + " SNPs");
    return diagonal_between(cov, block);
}

std::vector<double> computema22pa21a11ia12m_all(const covariable_type& cov,
                                                modmmeiod::single_step_block& block, logger& log) {
    log.message("Start the computation of diag(M*(A^diff+A^21*inv(A^11)*A^12)*M) for " +
                inttochar(coefficient_columns(cov)) + " SNPs");
    return diagonal_between(cov, block);
}

matrix<double> computema22mina21a11ia12m_all_mat(const covariable_type& cov,
                                                 modmmeiod::single_step_block& block, logger& log) {
    log.message("Start the computation of M*(A^22-A^21*inv(A^11)*A^12)*M for " +
                inttochar(coefficient_columns(cov)) + " SNPs");
    return matrix_between(cov, block, log);
}

matrix<double> computema22pa21a11ia12m_all_mat(const covariable_type& cov,
                                               modmmeiod::single_step_block& block, logger& log) {
    log.message("Start the computation of M*(A^diff+A^21*inv(A^11)*A^12)*M for " +
                inttochar(coefficient_columns(cov)) + " SNPs");
    return matrix_between(cov, block, log);
}

}  // namespace zendar
