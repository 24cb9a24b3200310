#include <algorithm>
#include <numeric>

#include "modbasic.hpp"
#include "modmme_detail.hpp"
#include "modmmeiod_huge.hpp"
#include "modstats.hpp"
#include "modstructure_product.hpp"

namespace zendar::modmme {

namespace {

/// SNPs at a time.
constexpr std::int64_t block_size = 64;

/// add_zaaaz_hash and its kin: what stands among the equations of huge effects, by products with unit
/// vectors.
void add_among_huge(const assembly& a) {
    const std::int64_t first = a.on_data.first_structured(), n = a.param.neq - first;
    matrix<double> unit(n, block_size), product(n, block_size);
    for (std::int64_t done = 0; done < n; done += block_size) {
        const std::int64_t m = std::min(block_size, n - done);
        for (std::int64_t c = 0; c < m; ++c) unit(done + c, c) = 1.0;
        a.on_data.atimesx_onlyhuge({unit.data(), n, m, n}, {product.data(), n, m, n});
        for (std::int64_t c = 0; c < m; ++c) {
            for (std::int64_t i = 0; i <= done + c; ++i)
                a.store.add(first + i, first + done + c, product(i, c));
            unit(done + c, c) = 0.0;
        }
    }
}

/// add_dmat_hash: Z' R^-1 Z between an equation outside and SNPs. `columns` are the coefficients of the SNPs
/// first_snp, ... of a huge effect; its rows of genotypes are the columns of `cross` behind `before`.
void add_records_by_snps(const crssparse& cross, std::int64_t before, const modmmeiod::huge_effect& huge,
                         std::int64_t first_snp, matrix_view<const double> columns, std::int64_t nt,
                         element_store& store) {
    const crs_view<std::int32_t> m = cross.view();
    const std::int64_t nsnp = columns.cols;
    std::vector<double> sums(static_cast<std::size_t>(nt * nsnp));
    for (std::int32_t eq = 0; eq < m.dim1; ++eq) {
        bool any = false;
        for (std::int32_t at = m.ia[eq] - 1; at < m.ia[eq + 1] - 1; ++at) {
            const std::int64_t place = m.ja[at] - 1 - before;
            if (place < 0 || place >= huge.nrow * nt || m.a[at] == 0.0) continue;
            if (!any) std::ranges::fill(sums, 0.0);
            any = true;
            const double* const z = columns.data + place / nt;
            double* const to = sums.data() + place % nt * nsnp;
            for (std::int64_t j = 0; j < nsnp; ++j) to[j] += m.a[at] * z[j * columns.ld];
        }
        if (!any) continue;
        for (std::int64_t j = 0; j < nsnp; ++j)
            for (std::int64_t t = 0; t < nt; ++t)
                store.add(eq, huge.first + (first_snp + j) * nt + t, sums[t * nsnp + j]);
    }
}

/// add_za21a11ia12z and add_dmat_a_hash: between animals and SNPs of a single-step model.
void add_animals_by_snps(modmmeiod::single_step_block& block, std::int32_t e, std::int64_t first_snp,
                         std::int64_t first_equation, matrix_view<const double> columns, std::int64_t nt,
                         element_store& store) {
    const effect_group& animals = block.animals();
    const std::span<const std::int32_t> levels = block.coupled_animals();
    matrix<double> product(std::ssize(levels), columns.cols);
    block.animals_times_snps(columns, product.view());
    for (std::int64_t t = 0; t < nt; ++t) {
        const std::int64_t entry = block.entry(e, t);
        for (std::int64_t i = 0; i < animals.order(); ++i) {
            const double g = animals.ginv(i, entry);
            if (g == 0.0) continue;
            for (std::int64_t j = 0; j < columns.cols; ++j)
                for (std::int64_t k = 0; k < std::ssize(levels); ++k)
                    store.add_any(animals.at(i, levels[k] - 1), first_equation + (first_snp + j) * nt + t,
                                  g * product(k, j));
        }
    }
}

modmmeiod::single_step_block* block_of(const assembly& a, std::int32_t e) {
    for (const auto& block : a.on_data.state().single_step)
        if (e >= block->effect() &&
            e <= block->effect() + std::max(a.param.n_correlated[block->effect() - 1], 0))
            return block.get();
    return nullptr;
}

}  // namespace

void addhugepart(const assembly& a, const crssparse& cross) {
    const wtime clock;
    const std::int64_t nt = a.param.ntrait;
    std::int64_t before = 0;
    for (const modmmeiod::huge_effect& huge : a.on_data.state().huge) {
        const bool records = !huge.res_edhc.empty();
        modmmeiod::single_step_block* const block = block_of(a, huge.effect);
        if (block != nullptr) a.log.message("Start the computation of A21*[(A11-1)*A12]");
        matrix<double> columns(huge.nrow, block_size);
        for (std::int64_t done = 0; done < huge.ncov; done += block_size) {
            const std::int64_t m = std::min(block_size, huge.ncov - done);
            const matrix_view<double> z{columns.data(), huge.nrow, m, huge.nrow};
            expand_coefficients(a.cov[huge.effect - 1], done, z);
            if (records) add_records_by_snps(cross, before, huge, done, z, nt, a.store);
            if (block != nullptr) add_animals_by_snps(*block, huge.effect, done, huge.first, z, nt, a.store);
        }
        if (records) before += huge.nrow * nt;
    }
    for (const auto& block : a.on_data.state().single_step)
        addrandompart_a22(block->animals(), block->a22i(), block->animal_weight(), a);
    if (!a.on_data.state().single_step.empty()) {
        a.log.message("Start the computation of [Z*[A21*[(A11-1)*[A12*Z]]]]");
        a.log.message("Add [Z*[A21*[(A11-1)*[A12*Z]]]] to hash matrix");
    }
    add_among_huge(a);
    clock.end(a.log, "Addition of the huge effects");
}

std::int64_t count_hugepart(const assembly& a, std::vector<bool>& beside_huge) {
    for (const auto& block : a.on_data.state().single_step) {
        const effect_group& animals = block->animals();
        for (const std::int32_t level : block->coupled_animals())
            for (std::int64_t i = 0; i < animals.order(); ++i)
                beside_huge[static_cast<std::size_t>(animals.at(i, level - 1))] = true;
        addrandompart_a22(animals, block->a22i(), block->animal_weight(), a);
    }
    const std::int64_t n = a.param.neq - a.on_data.first_structured();
    return n * (n + 1) / 2 + n * std::ranges::count(beside_huge, true);
}

std::int64_t expected_elements(const param_type& param, mme_iod& on_data,
                               std::span<const covariable_type> cov) {
    logger silent;
    distinct_count seen;
    element_store store(seen, silent);
    const assembly a{param, on_data, cov, store, silent};
    std::vector<bool> beside_huge(static_cast<std::size_t>(param.neq));
    count_leastsquarepart(a, beside_huge);
    addrandompart(a);
    const std::int64_t with_huge = param.nhuge > 0 ? count_hugepart(a, beside_huge) : 0;
    return with_huge + static_cast<std::int64_t>(seen.estimate());
}

}  // namespace zendar::modmme
