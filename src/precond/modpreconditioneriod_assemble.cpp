#include <algorithm>
#include <new>

#include "modgeneral.hpp"
#include "modheader.hpp"
#include "modmmeiod_huge.hpp"
#include "modpreconditioneriod_random.hpp"
#include "modsparse.hpp"
#include "modstats.hpp"

namespace zendar::modpreconditioneriod {

namespace {

constexpr std::string_view procedure = "create_mija_lhs";
/// Slots of a hash table for each equation, to begin with: the diagonal and one more. It grows as it fills.
constexpr std::int64_t entries_per_equation = 2;
constexpr std::int64_t most_entries = 2147483647;
constexpr double lift = 1e-4;

void check_order(std::int64_t order, std::int32_t code, logger& log) {
    if (order > max_precond_dense)
        fatal(log,
              "This type of preconditioner " + inttochar(code) + " is not implemented for a block >20000",
              module_tag, procedure);
}

void announce(std::int32_t e, std::int64_t elements, std::size_t bytes, logger& log) {
    log.message("Memory (MB) needed for the preconditioner of effect " + inttochar(e) + ": " +
                realtochar(mib(elements * static_cast<std::int64_t>(bytes)), "(f0.2)"));
}

void set_dimensions(mija& part, std::int64_t dim1, std::int64_t dim2, std::int64_t dim3) {
    part.dim1 = narrow<std::int32_t>(dim1);
    part.dim2 = narrow<std::int32_t>(dim2);
    part.dim3 = narrow<std::int32_t>(dim3);
}

/// The equations of a level of the correlated effects that effect e opens.
void set_stretches(const param_type& param, std::int32_t e, mija& part) {
    std::int64_t order = 0;
    for (std::int32_t k = e; k <= std::max(part.lasteffect, e); ++k) {
        if (is_absorbed(param, k)) continue;
        const std::int64_t length = equations_of_level(param, k);
        part.stretches.push_back({param.sumequation[k], length, length});
        order += length;
    }
    set_dimensions(part, order, order, levels_of(param, e));
}

void allocate(const param_type& param, std::int32_t e, std::span<mija> mija_global, coosparse& coo,
              logger& log) {
    mija& part = mija_global[e - 1];
    const std::int64_t n = std::int64_t{part.last} + 1 - part.first;
    switch (part.type) {
        case precond_diagonal:
            set_dimensions(part, n, 1, 1);
            announce(e, n, sizeof(float), log);
            part.mat.assign(static_cast<std::size_t>(n), 0.0f);
            break;
        case precond_block: {
            set_stretches(param, e, part);
            const std::int64_t elements = packed_size(part) * part.dim3;
            announce(e, elements, sizeof(float), log);
            part.block.assign(static_cast<std::size_t>(elements), 0.0f);
            break;
        }
        case precond_dense:
            check_order(n, part.type, log);
            set_dimensions(part, n, n, 1);
            announce(e, n * n, sizeof(double), log);
            part.dense = matrix<double>(n, n);
            break;
        case precond_whole:
            check_order(n, part.type, log);
            set_dimensions(part, n, n, 1);
            announce(e, packed(0, n), sizeof(double), log);
            part.w.assign(static_cast<std::size_t>(packed(0, n)), 0.0);
            break;
        case precond_sparse:
        case precond_auto:
        case precond_reorder: {
            set_dimensions(part, n, n, 1);
            // Here already, so that a group that cannot be ordered is refused before the records are read.
            if (part.type == precond_reorder) setordering(param, e, mija_global, log);
            const std::int64_t entries =
                std::min((n - 1) * entries_per_equation + entries_per_equation, most_entries);
            log.message("Number of entries: " + inttochar(entries));
            coo.constructor_sub(narrow<std::int32_t>(n), {}, entries, true, &log);
            coo.setsymmetric();
            break;
        }
        default:
            break;
    }
}

void allocate_all(const param_type& param, std::span<mija> mija_global, cootmp_type& cootmp, logger& log) {
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        if (mija_global[e - 1].type <= 0 || opener_of(mija_global, e) != e) continue;
        try {
            allocate(param, e, mija_global, cootmp[e - 1], log);
        } catch (const std::bad_alloc&) {
            fatal(log, "Not enough memory for the preconditioner of effect " + inttochar(e), module_tag,
                  procedure);
        }
    }
}

/// The dense matrix of a group as a sparse one, without its zeros.
coosparse transfer_dense(matrix<double>& dense, logger& log) {
    const std::int64_t n = dense.rows();
    std::int64_t elements = 0;
    for (std::int64_t j = 0; j < n; ++j)
        elements += std::ranges::count_if(dense.column(j), [](double value) { return value != 0.0; });
    // The table is not to grow: a fifth of its slots stays free.
    coosparse coo(narrow<std::int32_t>(n), {}, elements + elements / 4 + 1, true, &log);
    coo.setsymmetric();
    for (std::int64_t j = 0; j < n; ++j)
        for (std::int64_t i = j; i < n; ++i)
            if (dense(i, j) != 0.0)
                coo.set(static_cast<std::int32_t>(j + 1), static_cast<std::int32_t>(i + 1), dense(i, j));
    dense = {};
    return coo;
}

void convert(const param_type& param, std::span<mija> mija_global, cootmp_type& cootmp, logger& log) {
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        mija& part = mija_global[e - 1];
        coosparse& coo = cootmp[e - 1];
        if (part.type == precond_dense) {
            log.message("Transfer from full to sparse for effect " + inttochar(e));
            coo = transfer_dense(part.dense, log);
            part.type = precond_sparse;
            for (std::int32_t k = e + 1; k <= part.lasteffect; ++k)
                if (mija_global[k - 1].type == -precond_dense) mija_global[k - 1].type = -precond_sparse;
        }
        if (part.type == precond_sparse || part.type == precond_auto) {
            log.message("Transfer from COO to CRS for effect " + inttochar(e));
            ensure_pdmat(param, mija_global, coo, e);
            part.sparse = convertfromcootocrs(coo);
            coo.destroy();
            part.sparse.sort();
        } else if (part.type == precond_reorder) {
            log.message("Transfer from COO to dense matrix for effect " + inttochar(e));
            convert_coo_to_dense(coo, part, log);
            coo.destroy();
            part.perm = {};  // the stretches tell the same in less memory
        }
    }
}

template <class Real>
void scale(std::vector<Real>& values, double factor) {
    for (Real& value : values) value = static_cast<Real>(static_cast<double>(value) * factor);
}

void scaleinvprec(const param_type& param, std::span<mija> mija_global, logger& log) {
    for (std::size_t i = 0; i < param.solver.scaleinvprec.size() && i < mija_global.size(); ++i) {
        const double given = param.solver.scaleinvprec[i];
        if (given == 1.0) continue;
        mija& part = mija_global[i];
        const auto e = static_cast<std::int32_t>(i) + 1;
        if (part.type <= 0 || opener_of(mija_global, e) != e) {
            log.warning("The scaling of the inverse of the preconditioner for the effect " + inttochar(e) +
                        " is not used: its part belongs to another effect");
            continue;
        }
        const double factor = 1.0 / given;
        scale(part.mat, factor);
        scale(part.block, factor);
        scale(part.w, factor);
        if (part.type == precond_sparse || part.type == precond_auto) part.sparse.scale(factor);
    }
}

}  // namespace

void ensure_pdmat(const param_type& param, std::span<const mija> mija_global, coosparse& cootmp,
                  std::int32_t e) {
    const mija& part = mija_global[e - 1];
    for (std::int32_t k = e; k <= part.lasteffect; ++k) {
        if (is_absorbed(param, k)) continue;
        if (param.n_correlated[k - 1] > 0) {
            k += param.n_correlated[k - 1];
            continue;
        }
        if (param.type_random_eff[k - 1] != 0) continue;
        const std::int64_t first = param.sumequation[k] + 2 - part.first;
        for (std::int64_t i = first; i < first + equations_of(param, k); ++i) {
            const auto equation = static_cast<std::int32_t>(i);
            const double value = cootmp.get(equation, equation);
            if (value != 0.0) cootmp.set(equation, equation, value + value * lift);
        }
    }
}

void convert_coo_to_dense(const coosparse& cootmp, mija& group, logger& log) {
    const std::int64_t n = std::ssize(group.perm), order = group.dim1, size = packed_size(group);
    std::vector<std::int32_t> place(static_cast<std::size_t>(n));  // the inverse of `perm`
    for (std::int64_t i = 0; i < n; ++i) place[group.perm[i] - 1] = static_cast<std::int32_t>(i);
    group.block.assign(static_cast<std::size_t>(size * group.dim3), 0.0f);
    for (const coo_slot& slot : cootmp.slots()) {
        if (slot.row == 0 || slot.col == 0) continue;
        if (slot.row < 1 || slot.col < 1 || slot.row > n || slot.col > n)
            fatal(log, "Internal error: an element stands outside the group of effects", "modpreconditioner",
                  "convert_coo_to_dense");
        const std::int64_t a = place[slot.row - 1], b = place[slot.col - 1], level = a / order;
        if (b / order != level) continue;  // between levels
        const std::int64_t i = a % order, k = b % order;
        group.block[level * size + packed(std::min(i, k), std::max(i, k))] = static_cast<float>(slot.value);
    }
}

std::vector<mija> assemble_mija_lhs(const precond_input& in, logger& log) {
    const param_type& param = in.param;
    const wtime clock;
    std::vector<mija> mija_global = setstructure_to_preconditioner(param, log);
    for (std::int32_t e = 1; e <= param.neffect - param.nhuge;
         ++e)  // before the pass over the records, not after it
        static_cast<void>(find_random_addition(param.type_random[e - 1], log));
    check_levels(param, in.data.effect.view(), log);

    cootmp_type cootmp(mija_global.size());
    allocate_all(param, mija_global, cootmp, log);
    log.message("Addition of the least square part to the preconditioner");
    addleastsquarepart_to_preconditioner(in, mija_global, cootmp, log);
    addleastsquarepart_huge_to_preconditioner(in, mija_global, cootmp, log);
    addrandompart_to_preconditioner(in, mija_global, cootmp, log);
    log.message("All contributions for effects are added to the preconditioner");
    log.message("    Wall clock time (s): " + realtochar(clock.seconds(), "(g0.5)"));
    convert(param, mija_global, cootmp, log);
    return mija_global;
}

preconditioner create_mija_lhs(const precond_input& in, logger& log) {
    const param_type& param = in.param;
    log.message("Start the setup of the preconditioner (compiled on " + this_build().date + ")");
    std::vector<mija> mija_global = assemble_mija_lhs(in, log);
    scaleinvprec(param, mija_global, log);
    if (param.printprecond) printprecondiag(param, mija_global, "diagprec.dat", log);
    invertpreconditioner(param, mija_global, log);
    if (param.printprecond) printprecondiag(param, mija_global, "invdiagprec.dat", log);
    stats_mija_lhs(param, mija_global, log);
    return {std::move(mija_global), log};
}

preconditioner create_mija_lhs(const mme_iod& mme, logger& log,
                               std::span<const std::vector<double>> diagmaaam) {
    const modmmeiod::operator_state& state = mme.state();
    return create_mija_lhs(precond_input{mme.param(), mme.data(), mme.cov(), state.rinv, state.groups,
                                         state.asparse, state.pedigree, state.asparsesub, state.a22i_weight,
                                         mme.ghuge(), state.single_step, diagmaaam, state.external.get()},
                           log);
}

}  // namespace zendar::modpreconditioneriod
