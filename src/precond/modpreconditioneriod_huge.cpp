#include <algorithm>
#include <map>

#include "modgeneral_detail.hpp"
#include "modmmeiod_huge.hpp"
#include "modpreconditioneriod_random.hpp"
#include "modstats.hpp"
#include "modstructure_product.hpp"

/// The parts of huge effects. A level is a coefficient (a SNP), and its block has all effects of the group
/// and all traits.
namespace zendar::modpreconditioneriod {

namespace {

constexpr std::int64_t snps_of_batch = 64;

/// A group of huge effects.
struct huge_group {
    std::int32_t effect = 0, nmember = 1;  ///< the first one and their number
};

std::vector<huge_group> huge_groups(const param_type& param) {
    std::vector<huge_group> groups;
    for (std::int32_t e = param.neffect - param.nhuge + 1; e <= param.neffect; e += groups.back().nmember)
        groups.push_back({e, std::max(param.n_correlated[e - 1], 0) + 1});
    return groups;
}

/// Whether a record that has a level in a huge effect meets its equations.
bool meets_records(const param_type& param, std::int32_t e) {
    return param.type_random_eff[e - 1] != 30;
}

/// Sums of R^-1 over the records that meet a pair of rows of two effects of a group.
struct row_pairs {
    std::int32_t effect1 = 0, effect2 = 0;
    std::vector<std::int32_t> row1, row2;  ///< from 0
    std::vector<double> rinv;              ///< (trait 1, trait 2, pair); traits that the effects lack are 0
};

row_pairs find_row_pairs(const precond_input& in, std::int32_t e1, std::int32_t e2) {
    const param_type& param = in.param;
    const std::int64_t nt = param.ntrait;
    row_pairs pairs;
    pairs.effect1 = e1;
    pairs.effect2 = e2;
    std::map<std::pair<std::int32_t, std::int32_t>, std::size_t> place;
    const auto& effect = in.data.effect;
    for (std::int64_t rec = 0; rec < effect.cols(); ++rec) {
        const std::int32_t row1 = in.cov[e1 - 1].row_of(effect(e1 - 1, rec)),
                           row2 = in.cov[e2 - 1].row_of(effect(e2 - 1, rec));
        if (row1 < 1 || row2 < 1) continue;
        const auto [at, is_new] = place.try_emplace({row1 - 1, row2 - 1}, pairs.row1.size());
        if (is_new) {
            pairs.row1.push_back(row1 - 1);
            pairs.row2.push_back(row2 - 1);
            pairs.rinv.resize(pairs.rinv.size() + static_cast<std::size_t>(nt * nt), 0.0);
        }
        const double* const rinv =
            in.rinv.of(in.data.combitrait[static_cast<std::size_t>(rec)], effect(effect.rows() - 1, rec));
        const double* const w = param.nweight > 0 ? in.data.weight.data() + rec * nt : nullptr;
        double* const sum = pairs.rinv.data() + static_cast<std::int64_t>(at->second) * nt * nt;
        for (std::int32_t t2 = 0; t2 < nt; ++t2)
            for (std::int32_t t1 = 0; t1 < nt; ++t1)
                if (param.pos_effects(t1, e1 - 1) > 0 && param.pos_effects(t2, e2 - 1) > 0)
                    sum[t2 * nt + t1] += rinv[t2 * nt + t1] * (w == nullptr ? 1.0 : w[t1] * w[t2]);
    }
    return pairs;
}

/// What a SNP has of a group's block: (i, k), both (effect, trait), traits fastest.
using snp_block = matrix<double>;

/// Adds the blocks of a batch of SNPs to the diagonals or blocks of the group.
void add_snp_blocks(std::span<const snp_block> blocks, std::int64_t first, const huge_group& group,
                    std::int64_t ntrait, std::span<mija> mija_global) {
    mija& opener = mija_global[group.effect - 1];
    for (std::size_t b = 0; b < blocks.size(); ++b) {
        const std::int64_t level = first + static_cast<std::int64_t>(b);
        for (std::int64_t k = 0; k < blocks[b].cols(); ++k)
            if (opener.type == precond_diagonal) {
                float& sum = mija_global[group.effect - 1 + k / ntrait].mat[level * ntrait + k % ntrait];
                sum = static_cast<float>(static_cast<double>(sum) + blocks[b](k, k));
            } else {
                for (std::int64_t i = 0; i <= k; ++i) {
                    float& sum = opener.block[level * packed_size(opener) + packed(i, k)];
                    sum = static_cast<float>(static_cast<double>(sum) + blocks[b](i, k));
                }
            }
    }
}

/// Hands add(row, column, value), row <= column, to the target of a part whose elements stand in a matrix.
template <class Use>
void with_matrix_target(mija& part, coosparse& coo, std::string_view procedure, logger& log, Use&& use) {
    switch (part.type) {
        case precond_dense: {
            dense_target target(part.dense);
            use([&](std::int32_t row, std::int32_t col, double value) { target.add(row, col, value); });
            break;
        }
        case precond_sparse:
        case precond_auto:
        case precond_reorder:
            use([&](std::int32_t row, std::int32_t col, double value) { coo.add(row, col, value); });
            break;
        default:
            unknown_code(part.type, procedure, log);
    }
}

/// Whether the elements of a part stand in diagonals or blocks of levels.
bool is_level_part(const mija& part) {
    return part.type == precond_diagonal || part.type == precond_block;
}

/// Diagonals and blocks: the elements between different SNPs have no place.
void add_records_of_levels(const precond_input& in, const huge_group& group, std::span<mija> mija_global) {
    const std::int64_t nt = in.param.ntrait, order = group.nmember * nt,
                       nsnp = in.param.n_cov[group.effect - 1];
    std::vector<row_pairs> pairs;
    for (std::int32_t k = 0; k < group.nmember; ++k)
        for (std::int32_t l = 0; l <= k; ++l)
            pairs.push_back(find_row_pairs(in, group.effect + l, group.effect + k));
    for (std::int64_t first = 0; first < nsnp; first += snps_of_batch) {
        const std::int64_t n = std::min(snps_of_batch, nsnp - first);
        std::vector<snp_block> blocks(static_cast<std::size_t>(n), snp_block(order, order));
        std::vector<matrix<double>> columns;
        for (std::int32_t k = 0; k < group.nmember; ++k) {
            columns.emplace_back(coefficient_rows(in.cov[group.effect - 1 + k]), n);
            expand_coefficients(in.cov[group.effect - 1 + k], first, columns.back().view());
        }
        for (const row_pairs& p : pairs) {
            const std::int64_t l = p.effect1 - group.effect, k = p.effect2 - group.effect;
            const matrix<double>&z1 = columns[l], &z2 = columns[k];
#pragma omp parallel for schedule(static) default(none) shared(p, z1, z2, blocks, l, k, nt, n)
            for (std::int64_t j = 0; j < n; ++j)
                for (std::size_t r = 0; r < p.row1.size(); ++r) {
                    const double product = z1(p.row1[r], j) * z2(p.row2[r], j);
                    if (product == 0.0) continue;
                    const double* const rinv = p.rinv.data() + static_cast<std::int64_t>(r) * nt * nt;
                    for (std::int64_t t2 = 0; t2 < nt; ++t2)
                        for (std::int64_t t1 = 0; t1 < nt; ++t1)
                            blocks[j](l * nt + t1, k * nt + t2) += product * rinv[t2 * nt + t1];
                }
        }
        add_snp_blocks(blocks, first, group, nt, mija_global);
    }
}

/// The coefficients of one effect in a record.
struct record_item {
    std::int32_t effect;
    const double* x;  ///< one, or the row of a huge effect or covariable
    std::int64_t n;
    std::int64_t equation;  ///< of the first coefficient and trait, from 1 within the group
};

/// Groups whose matrix is kept: every pair of equations that a record meets, of which one at least is of a
/// huge effect. The coefficients are expanded for as long as it takes.
void add_records_of_matrix(const precond_input& in, std::int32_t opener, std::span<mija> mija_global,
                           cootmp_type& cootmp, logger& log) {
    const param_type& param = in.param;
    mija& part = mija_global[opener - 1];
    std::vector<std::int32_t> members;
    std::vector<matrix<double>> expanded(static_cast<std::size_t>(param.neffect));  // coefficients x rows
    for (std::int32_t e = opener; e <= std::max(part.lasteffect, opener); ++e) {
        if (owner_of(param, e) != e || opener_of(mija_global, e) != opener) continue;
        if (is_huge_effect(param.type_effect[e - 1])) {
            if (!meets_records(param, e)) continue;
            const std::int64_t rows = coefficient_rows(in.cov[e - 1]), n = coefficient_columns(in.cov[e - 1]);
            log.message("Temporary memory (MB) for the coefficients of effect " + inttochar(e) + ": " +
                        realtochar(mib(2 * rows * n * static_cast<std::int64_t>(sizeof(double))), "(f0.2)"));
            matrix<double> columns(rows, n);
            expand_coefficients(in.cov[e - 1], 0, columns.view());
            expanded[e - 1] = matrix<double>(n, rows);
            for (std::int64_t i = 0; i < rows; ++i)
                for (std::int64_t j = 0; j < n; ++j) expanded[e - 1](j, i) = columns(i, j);
        }
        members.push_back(e);
    }
    static constexpr double one = 1.0;
    const std::int64_t nt = param.ntrait;
    const auto& effect = in.data.effect;
    with_matrix_target(part, cootmp[opener - 1], "create_mija_lhs", log, [&](auto&& add) {
        std::vector<record_item> items;
        for (std::int64_t rec = 0; rec < effect.cols(); ++rec) {
            items.clear();
            bool huge = false;
            for (const std::int32_t e : members) {
                const std::int32_t level = effect(e - 1, rec);
                if (level < 1) continue;
                record_item item{e, &one, 1, param.sumequation[e] + 2 - part.first};
                if (is_huge_effect(param.type_effect[e - 1])) {
                    const std::int32_t row = in.cov[e - 1].row_of(level);
                    if (row < 1) continue;
                    huge = true;
                    item.x = expanded[e - 1].column(row - 1).data();
                    item.n = expanded[e - 1].rows();
                } else if (param.type_effect[e - 1] == teff_class) {
                    item.equation += (std::int64_t{level} - 1) * nt;
                } else {
                    const std::int32_t row = in.cov[e - 1].row_of(level);
                    if (row < 1) continue;
                    if (param.n_level_nested[e - 1] > 0) {
                        const std::int32_t nesting = effect(param.pos_nested2(0, e - 1) - 1, rec);
                        if (nesting < 1) continue;
                        item.equation += (std::int64_t{nesting} - 1) * nt * param.n_cov[e - 1];
                    }
                    item.x = in.cov[e - 1].values().column(row - 1).data();
                    item.n = param.n_cov[e - 1];
                }
                items.push_back(item);
            }
            if (!huge) continue;
            const double* const rinv =
                in.rinv.of(in.data.combitrait[static_cast<std::size_t>(rec)], effect(effect.rows() - 1, rec));
            const double* const w = param.nweight > 0 ? in.data.weight.data() + rec * nt : nullptr;
            const auto slot = [&](std::int32_t t, std::int32_t e) {
                return param.lcombieff ? param.combieff_trait(t, e - 1) - 1 : t;
            };
            for (const record_item& a : items)
                for (const record_item& b : items) {
                    if (!is_huge_effect(param.type_effect[a.effect - 1]) &&
                        !is_huge_effect(param.type_effect[b.effect - 1]))
                        continue;
                    for (std::int32_t ta = 0; ta < nt; ++ta)
                        for (std::int32_t tb = 0; tb < nt; ++tb) {
                            if (param.pos_effects(ta, a.effect - 1) <= 0 ||
                                param.pos_effects(tb, b.effect - 1) <= 0)
                                continue;
                            const double r = rinv[tb * nt + ta] * (w == nullptr ? 1.0 : w[ta] * w[tb]);
                            if (r == 0.0) continue;
                            for (std::int64_t i = 0; i < a.n; ++i) {
                                const std::int64_t row = a.equation + i * nt + slot(ta, a.effect);
                                for (std::int64_t k = 0; k < b.n; ++k) {
                                    const std::int64_t col = b.equation + k * nt + slot(tb, b.effect);
                                    const double value = a.x[i] * b.x[k] * r;
                                    if (row <= col && value != 0.0)
                                        add(narrow<std::int32_t>(row), narrow<std::int32_t>(col), value);
                                }
                            }
                        }
                }
        }
    });
}

/// The group as the sinks take it: a level for each SNP, and `ginv` between the effects and traits.
effect_group snp_group(const param_type& param, const huge_group& group, matrix<double> ginv) {
    effect_group as;
    as.effect = group.effect;
    as.nmember = group.nmember;
    as.nlevel = param.n_cov[group.effect - 1];
    as.ginv = std::move(ginv);
    for (std::int32_t k = 0; k < group.nmember; ++k)
        for (std::int64_t t = 0; t < param.ntrait; ++t) {
            as.equation.push_back(param.sumequation[group.effect + k] + t);
            as.stride.push_back(param.ntrait);
        }
    return as;
}

/// The inverse covariances of the group.
void addrandompart_eff_dia_huge_dia_to_preconditioner(const random_context& context, const huge_group& group,
                                                      const crssparse& ginv) {
    constexpr std::string_view procedure = "addrandompart_eff_dia_huge_dia_to_preconditioner";
    const param_type& param = context.in.param;
    const std::int64_t nt = param.ntrait, first = param.sumequation[group.effect];
    const crs_view<std::int32_t> g = ginv.view();
    const std::int32_t opener = opener_of(context.mija_global, group.effect);
    mija& part = context.mija_global[opener - 1];
    if (!is_level_part(part)) {
        with_matrix_target(part, context.cootmp[opener - 1], procedure, context.log, [&](auto&& add) {
            const auto before = static_cast<std::int32_t>(first + 1 - part.first);
            for (std::int32_t i = 1; i <= g.dim1; ++i)
                for (std::int32_t k = g.ia[i - 1] - 1; k < g.ia[i] - 1; ++k)
                    if (g.a[k] != 0.0) add(before + i, before + g.ja[k], g.a[k]);
        });
        return;
    }
    // An equation of the group as SNP and place in the block.
    struct place {
        std::int64_t snp, entry;
    };
    const auto place_of = [&](std::int64_t equation) -> place {
        std::int64_t k = 0, rest = equation - 1;
        for (; rest >= param.n_cov[group.effect - 1 + k] * nt; ++k)
            rest -= param.n_cov[group.effect - 1 + k] * nt;
        return {rest / nt, k * nt + rest % nt};
    };
    std::vector<snp_block> block(1, snp_block(group.nmember * nt, group.nmember * nt));
    for (std::int32_t i = 1; i <= g.dim1; ++i)
        for (std::int32_t k = g.ia[i - 1] - 1; k < g.ia[i] - 1; ++k) {
            const place a = place_of(i), b = place_of(g.ja[k]);
            if (a.snp != b.snp || g.a[k] == 0.0) continue;
            block[0](std::min(a.entry, b.entry), std::max(a.entry, b.entry)) = g.a[k];
            add_snp_blocks(block, a.snp, group, nt, context.mija_global);
            block[0](std::min(a.entry, b.entry), std::max(a.entry, b.entry)) = 0.0;
        }
}

/// `factor` times the sum of squares of the coefficients of each SNP: what is expected of the diagonal of Z B
/// Z' when the mean of the diagonal of B is `factor` and animals are unrelated in their genotypes.
std::vector<double> approximate_diagonal(const covariable_type& cov, double factor) {
    std::vector<double> diagonal;
    const std::int64_t nsnp = coefficient_columns(cov), nrow = coefficient_rows(cov);
    if (!cov.allelefreq.empty()) {
        for (const double p : cov.allelefreq)
            diagonal.push_back(factor * static_cast<double>(nrow) * 2.0 * p * (1.0 - p));
        return diagonal;
    }
    matrix<double> columns(nrow, std::min(snps_of_batch, nsnp));
    for (std::int64_t first = 0; first < nsnp; first += snps_of_batch) {
        const matrix_view<double> batch{columns.data(), nrow, std::min(snps_of_batch, nsnp - first), nrow};
        expand_coefficients(cov, first, batch);
        for (std::int64_t j = 0; j < batch.cols; ++j) {
            double sum = 0.0;
            for (const double z : batch.column(j)) sum += z * z;
            diagonal.push_back(factor * sum);
        }
    }
    return diagonal;
}

void add_diagonal_of_snps(const random_context& context, const huge_group& group,
                          const modmmeiod::single_step_block& block, std::span<const double> diagonal,
                          double factor, std::string_view procedure) {
    const effect_group as = snp_group(context.in.param, group, block.ginv_of_snps());
    add_to_preconditioner(context.in, as, context.mija_global, context.cootmp, procedure, context.log,
                          [&](const auto& sink) {
                              for (std::size_t j = 0; j < diagonal.size(); ++j)
                                  sink.add(static_cast<std::int64_t>(j), factor * diagonal[j]);
                          });
}

/// (tau / beta - omega) diag(A22^-1) for the animals with genotypes. @returns that diagonal
std::vector<double> add_a22(const random_context& context, modmmeiod::single_step_block& block, double omega,
                            std::string_view whose, std::string_view procedure) {
    context.log.message("Computation of diagonal elements of A22-1");
    std::vector<double> diagonal = computediaga22i(block.a22i(), context.log);
    const double weight = block.tau_by_beta() - omega;
    context.log.message("Addition of A22-1 to preconditioner");
    add_to_preconditioner(context.in, block.animals(), context.mija_global, context.cootmp, procedure,
                          context.log, [&](const auto& sink) {
                              for (std::size_t k = 0; k < diagonal.size(); ++k)
                                  sink.add(block.a22i().levels()[k] - 1, weight * diagonal[k]);
                          });
    context.log.message("    Number of elements for the " + std::string(whose) +
                        " animals added to the preconditioner: " + inttochar(block.a22i().size()));
    return diagonal;
}

void add_type_30(const random_context& context, const huge_group& group,
                 modmmeiod::single_step_block& block) {
    logger& log = context.log;
    const covariable_type& cov = context.in.cov[group.effect - 1];
    log.message(
        "Addition of the random contributions for the residual polygenic effect associated with SNP effect " +
        inttochar(group.effect));
    add_a22(context, block, context.in.param.omega, "core", "addrandompart_a22_huge_to_preconditioner");
    log.message("Addition of the random contributions for \"imputed genotypes\" of SNP effect " +
                inttochar(group.effect));
    if (context.in.param.precondzaaaz) {
        const wtime clock;
        const std::vector<double> diagonal = computema22mina21a11ia12m_all(cov, block, log);
        log.message("     Wall clock time (s) for computing za22iz  (" + inttochar(std::ssize(diagonal)) +
                    ") :" + realtochar(clock.seconds(), "(f0.3)"));
        log.message("Addition of the diagonal elements of (ZA22iZ)");
        add_diagonal_of_snps(context, group, block, diagonal, block.tau_by_beta(),
                             "addrandompart_eff_dia_huge_computed_za22iz_to_preconditioner");
    } else {
        log.message("Addition of the diagonal elements of (ZA22iZ) approximated as Var*p*q*");
        add_diagonal_of_snps(context, group, block, approximate_diagonal(cov, 1.0), block.tau_by_beta(),
                             "addrandompart_eff_dia_huge_za22iz_to_preconditioner");
    }
}

void add_type_22(const random_context& context, const huge_group& group,
                 modmmeiod::single_step_block& block) {
    const precond_input& in = context.in;
    const std::vector<double> a22i =
        add_a22(context, block, 1.0, "genotyped", "addrandompart_a22ped_huge_to_preconditioner");
    const auto place = static_cast<std::size_t>(group.effect - 1 - (in.param.neffect - in.param.nhuge));
    if (in.param.precondzaaaz && place < in.diagmaaam.size() && !in.diagmaaam[place].empty()) {
        context.log.message("Addition of the diagonal elements of (ZA21A11iA12Z)");
        add_diagonal_of_snps(context, group, block, in.diagmaaam[place], 1.0,
                             "addrandompart_eff_dia_huge_computed_zaaaz_to_preconditioner");
        return;
    }
    const std::vector<double> ainv = block.diagonal_of_ainv();
    double mean = 0.0;  // of the diagonal of A^22 - A22^-1, which is never negative
    for (std::size_t k = 0; k < ainv.size(); ++k)
        mean += (ainv[k] - a22i[k]) / static_cast<double>(ainv.size());
    context.log.message("Addition of the diagonal elements of (ZA21A11iA12Z) approximated as Var*p*q*");
    add_diagonal_of_snps(context, group, block,
                         approximate_diagonal(in.cov[group.effect - 1], std::max(mean, 0.0)), 1.0,
                         "addrandompart_eff_dia_huge_zaaaz_to_preconditioner");
}

}  // namespace

void addleastsquarepart_huge_to_preconditioner(const precond_input& in, std::span<mija> mija_global,
                                               cootmp_type& cootmp, logger& log) {
    std::vector<std::int32_t> matrices;  // openers of groups whose matrix is kept
    for (const huge_group& group : huge_groups(in.param)) {
        const std::int32_t opener = opener_of(mija_global, group.effect);
        const mija& part = mija_global[opener - 1];
        if (!meets_records(in.param, group.effect)) continue;
        if (is_level_part(part))
            add_records_of_levels(in, group, mija_global);
        else if (std::ranges::count(matrices, opener) == 0)
            matrices.push_back(opener);
    }
    for (const std::int32_t opener : matrices) add_records_of_matrix(in, opener, mija_global, cootmp, log);
}

void addrandompart_huge_to_preconditioner(const random_context& context) {
    const precond_input& in = context.in;
    logger& log = context.log;
    for (const huge_group& group : huge_groups(in.param)) {
        const std::int32_t e = group.effect, type = in.param.type_random[e - 1];
        if (type == 0) continue;
        const std::string_view procedure = "addrandompart_to_preconditioner";
        if (type != 20 && type != 22 && type != 23 && type != 30)
            fatal(log, " This type of effect " + inttochar(type) + " is not implemented", module_tag,
                  procedure);
        if (e > std::ssize(in.ghuge) || in.ghuge[e - 1] == nullptr)
            fatal(log, "ghuge is not allocated for effect " + inttochar(e), module_tag, procedure);
        if (type == 20 || type == 23)
            log.message("Addition of the random contributions for the huge (compressed) diagonal effect " +
                        inttochar(e));
        if (type == 30)
            log.message("Addition of the random contributions for the SNP effects " + inttochar(e));
        addrandompart_eff_dia_huge_dia_to_preconditioner(context, group, *in.ghuge[e - 1]);
        if (type == 20 || type == 23) continue;
        const auto block = std::ranges::find(in.single_step, e, [](const auto& b) { return b->effect(); });
        if (block == in.single_step.end())
            fatal(log, "asparsesub is not allocated for effect " + inttochar(e), module_tag, procedure);
        if (type == 22)
            add_type_22(context, group, **block);
        else
            add_type_30(context, group, **block);
    }
}

}  // namespace zendar::modpreconditioneriod
