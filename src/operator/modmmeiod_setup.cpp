#include <omp.h>

#include <algorithm>
#include <cmath>
#include <new>
#include <tuple>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modfile.hpp"
#include "modmmeiod_a22i.hpp"
#include "modmmeiod_detail.hpp"
#include "modmmeiod_external.hpp"
#include "modmmeiod_huge.hpp"
#include "modmmeiod_ls.hpp"
#include "modmmeiod_random.hpp"
#include "modparameters_utils.hpp"
#include "modpedigree_ploidy.hpp"
#include "modstats.hpp"

namespace zendar {

namespace modmmeiod {

operator_state::operator_state() = default;
operator_state::~operator_state() = default;
operator_state::operator_state(operator_state&&) noexcept = default;
operator_state& operator_state::operator=(operator_state&&) noexcept = default;

namespace {

residual_table make_residual_table(const param_type& param) {
    residual_table table;
    table.ntrait = param.ntrait;
    table.nclass = param.n_residual_cov;
    for (const rinv_type& combination : param.rinv_vect)
        for (const matrix<double>& rinv : combination.rinv)
            table.values.insert(table.values.end(), rinv.values().begin(), rinv.values().end());
    return table;
}

}  // namespace
}  // namespace modmmeiod

mme_iod::mme_iod(param_type& param, const phenotype_data& data, std::span<const covariable_type> cov,
                 logger& log, std::span<const std::unique_ptr<pedigree_type>> ped,
                 std::span<const std::unique_ptr<crssparse>> ghuge)
    : param_(param), data_(data), cov_(cov), ped_(ped), ghuge_(ghuge), log_(log) {}

mme_iod::~mme_iod() = default;

std::int64_t mme_iod::size() const {
    return param_.neq;
}

std::int64_t mme_iod::work_size() const {
    return state_.tmpvector.size() + std::ssize(state_.tmpvector1) + std::ssize(state_.tmpvector2);
}

void mme_iod::clean_lhs_iod() {
    state_ = {};
    deallocrinv_vect(param_);
}

void mme_iod::setup_matrices() {
    state_ = {};
    for (std::int32_t e = 1; e <= param_.neffect; ++e)
        state_.nrhscontributions.push_back(computenrhscontributions(param_, e));
    modmmeiod::external_matrices matrices = modmmeiod::read_external_matrices(param_, log_);

    log_.message("Inversion of the residual matrix(ces) for the different trait combinations");
    initresidualmatrix(param_, log_);
    state_.rinv = modmmeiod::make_residual_table(param_);
    const std::int64_t bytes = std::ssize(state_.rinv.values) * static_cast<std::int64_t>(sizeof(double));
    log_.message("Memory (MB) needed for the residual matrix(ces): " + realtochar(mib(bytes), "(f0.2)"));

    state_.external = std::make_unique<modmmeiod::external_terms>(
        modmmeiod::make_external_terms(std::move(matrices), param_, ped_, log_));
    setup_random_effects();
    setup_huge_effects();
    state_.terms = modmmeiod::make_record_terms(param_, cov_, state_.huge);
}

void mme_iod::setup_lhsrhs_iod(std::int32_t loptimem) {
    setup_matrices();
    state_.loptimem = loptimem;
    assign_computeleastsquare();
    check_type_23();

    log_.message("Initialize the temporary array...");
    const wtime clock;
    setleastsquarepart_full();
    clock.end(log_, "Initialization done ");

    const bool uses_omega =
        std::ranges::any_of(state_.asparsesub, [](const auto& a22i) { return a22i != nullptr; }) ||
        std::ranges::count(param_.type_random, 30) > 0 ||
        std::ranges::any_of(state_.external->terms, [](const auto& own) { return own.term->takes_omega(); });
    if (param_.omega != 1.0 && !uses_omega) {
        log_.warning(
            "Omega different than 1 is not supported with the requested options! Omega will be set to 1.");
        param_.omega = 1.0;
    }
}

void mme_iod::setup_for_lhs() {
    setup_matrices();
    // The kernels of the least memory: they run once, for the right-hand side.
    state_.loptimem = std::ranges::count(param_.type_random, 22) > 0 ? 0 : 1;
    state_.blocks = modmmeiod::make_blocks(records(), 1);
}

void mme_iod::setup_random_effects() {
    state_.asparse.resize(static_cast<std::size_t>(param_.neffect));
    state_.pedigree.assign(static_cast<std::size_t>(param_.neffect), nullptr);
    state_.weightupg = param_.weightupg;
    state_.asparsesub.resize(static_cast<std::size_t>(param_.neffect));
    state_.a22i_weight = param_.tau / param_.beta - param_.omega;
    for (std::int32_t e = 1; e <= param_.neffect - param_.nhuge; ++e) {
        const std::int32_t type = param_.type_random[e - 1];
        log_.message("Setting-up of matrices for effect " + inttochar(e));
        const modmmeiod::random_product* product = modmmeiod::find_random_product(type, param_.useasparse);
        if (product == nullptr)
            fatal(log_, " This type of effect " + inttochar(type) + " is not implemented", "modmmeiod",
                  param_.useasparse ? "computerandompartsparse_timesx" : "computerandompart_timesx");
        if (product->timesx == nullptr) continue;
        const effect_group& group = state_.groups.emplace_back(make_effect_group(param_, e, log_));
        if (!is_pedigree_code(type)) continue;
        setup_relationships(group);
    }
    check_external_terms();
    allocate_tmpvectors();
}

/// Every external matrix must have a group, whose levels hold its own.
void mme_iod::check_external_terms() const {
    for (const auto& [effect, term] : state_.external->terms) {
        const auto group = std::ranges::find(state_.groups, effect, &effect_group::effect);
        const auto levels = term->levels();
        if (group == state_.groups.end() ||
            std::ranges::any_of(levels, [&](std::int32_t level) { return level > group->nlevel; }))
            fatal(log_, "Internal error: an external matrix has no place in effect " + inttochar(effect),
                  "modmmeiod", "setup_lhsrhs_iod");
    }
}

/// Work arrays of the random part: all effects use the same ones, one after the other.
void mme_iod::allocate_tmpvectors() {
    std::int64_t spill = 0, a22i_work = 0;
    state_.parts.resize(static_cast<std::size_t>(param_.neffect));
    for (const effect_group& group : state_.groups) {
        const auto e = static_cast<std::size_t>(group.effect - 1);
        if (state_.asparse[e] != nullptr) {
            state_.parts[e] =
                modmmeiod::make_sparse_parts(*state_.asparse[e], std::max(omp_get_max_threads(), 1));
            spill = std::max(spill, state_.parts[e].spill_size(group.order()));
        }
        if (const auto& a22i = state_.asparsesub[e]; a22i != nullptr)
            a22i_work =
                std::max(a22i_work, 2 * a22i->size() * group.order() + a22i->work_size(group.order()));
        for (const auto& [effect, term] : state_.external->terms)
            if (effect == group.effect)
                a22i_work = std::max(a22i_work, modmmeiod::external_work_size(group, *term));
    }
    for (const modmmeiod::across_term& block : state_.external->across)
        a22i_work = std::max(a22i_work, block.work_size());
    state_.tmpvector = page_array<double>(spill);
    state_.tmpvector1.assign(static_cast<std::size_t>(a22i_work), 0.0);
}

/// What stands between the levels of a group: an external matrix, or a pedigree and, unless the iteration
/// goes over the pedigree itself, its A-inverse.
void mme_iod::setup_relationships(const effect_group& group) {
    const std::int32_t e = group.effect, type = param_.type_random[e - 1];
    constexpr const char* procedure = "setup_lhsrhs_iod";
    if (param_.type_effect[e - 1] != teff_class && param_.n_level_nested[e - 1] < 1)
        fatal(log_, "Covariables are not possible with animal effect", "modmmeiod", procedure);
    log_.message("Computation of Ainv sparse (if any)");
    if (type == 10) {
        state_.asparse[e - 1] = std::make_unique<crssparse>(modmmeiod::lower_triangle(
            readcootoija(param_.file[e][0], narrow<std::int32_t>(group.nlevel), log_)));
        return;
    }
    const pedigree_type* const ped = e <= std::ssize(ped_) ? ped_[e - 1].get() : nullptr;
    const bool ploidy = is_ploidy_code(type);
    if (ploidy && dynamic_cast<const pedigree_ploidy_type*>(ped) == nullptr)
        fatal(log_, "The DT pedploidy is not allocated!", "modmmeiod", procedure);
    if (ped == nullptr || ped->f.empty())
        fatal(log_,
              "The effect " + inttochar(e) + " needs " +
                  (ped == nullptr ? "a pedigree" : "inbreeding coefficients") +
                  ", but the instruction file names no file of them",
              "modmmeiod", procedure);
    const std::string kind = ploidy ? "ped ploidy" : "ped";
    if (ped->nlength() != group.nlevel)
        fatal(log_, "The number of animals in param_type and in " + kind + " are different!", "modmmeiod",
              procedure);
    if (ped->nupg != (param_.nupg.empty() ? 0 : param_.nupg[e - 1]))
        fatal(log_, "The number of UPGs in param_type and in " + kind + " are different!", "modmmeiod",
              procedure);
    state_.pedigree[e - 1] = ped;
    if (param_.useasparse)
        state_.asparse[e - 1] = std::make_unique<crssparse>(
            modmmeiod::lower_triangle(ped->computeasparse_ped(type, param_.weightupg, {}, log_)));
    if (is_a22i_effect(type)) setup_a22i(group, *ped);
}

void mme_iod::setup_a22i(const effect_group& group, const pedigree_type& ped) {
    const std::int32_t e = group.effect;
    if (!std::isfinite(state_.a22i_weight))
        fatal(log_, "tau / beta - omega of effect " + inttochar(e) + " is not a finite number", "modmmeiod",
              "setup_lhsrhs_iod");
    if (state_.a22i_weight == 0.0) return;
    state_.asparsesub[e - 1] = std::make_unique<a22_inverse>(
        ped, e, readlevels(param_.file[e][3], ped.nlength() - ped.nupg, log_), log_);
}

void mme_iod::assign_computeleastsquare() {
    if (param_.pos[param_.neffect + 1] - 1 == param_.neffect)
        log_.information("All Delvane optimizations allowed");
    else
        log_.warning(
            "All Delvane optimizations not allowed!\nPossible reason: Multiple covariates in a same effect");
    const modmmeiod::ls_kernel* const kernel = this->kernel();
    if (kernel == nullptr)
        fatal(log_, "Subroutine for the least square part does not exist. Check the option loptimem",
              "modmmeiod", "assign_computeleastsquare");
    std::string text(kernel->text);
    if (kernel->partial)
        text +=
            "\nTo be efficient, the phenotype records must be sorted consecutively for the largest effect.";
    log_.information(text);
    log_.debug("computeleastsquarepart associated with " + std::string(kernel->procedure));
}

const modmmeiod::ls_kernel* mme_iod::kernel() const {
    return modmmeiod::find_ls_kernel(state_.loptimem, std::ranges::count(param_.type_random, 22) > 0);
}

/// The kernels with private copies do not take type 23.
void mme_iod::check_type_23() const {
    if (kernel()->partial) return;
    for (const modmmeiod::record_term& term : state_.terms) {
        if (!term.huge || param_.type_random_eff[term.effect - 1] != 23 || kernel()->takes_type_23) continue;
        for (std::int64_t rec = 0; rec < data_.effect.cols(); ++rec)
            if (data_.effect(term.row, rec) >= 1)
                fatal_plain(log_, " ERROR (modmmeiod): This type of effect 23 is not implemented");
    }
}

namespace {

/// True when no two stretches of one effect overlap.
bool are_disjoint(std::vector<modmmeiod::equation_bounds> bounds) {
    std::erase_if(bounds, [](const auto& b) { return b.hi < b.lo; });
    std::ranges::sort(bounds, {}, &modmmeiod::equation_bounds::lo);
    for (std::size_t i = 1; i < bounds.size(); ++i)
        if (bounds[i].lo <= bounds[i - 1].hi) return false;
    return true;
}

}  // namespace

modmmeiod::record_input mme_iod::records() const {
    modmmeiod::record_input in;
    in.ntrait = param_.ntrait;
    in.effect = data_.effect.view();
    in.combi = data_.combitrait;
    if (param_.nweight > 0) in.weight = data_.weight.view();
    in.rinv = &state_.rinv;
    in.terms = state_.terms;
    in.lcombieff = param_.lcombieff;
    return in;
}

void mme_iod::setleastsquarepart_full() {
    using namespace modmmeiod;
    const ls_kernel* const kernel = this->kernel();
    const record_input in = records();
    const auto nthread = static_cast<std::int64_t>(std::max(omp_get_max_threads(), 1));
    const std::int64_t nterm = std::ssize(state_.terms), neq = param_.neq;
    state_.blocks = make_blocks(in, nthread);
    if (kernel == nullptr || !kernel->partial) return;

    const wtime clock;
    std::vector<equation_bounds> bounds(static_cast<std::size_t>(nterm * nthread), {neq, 0});
    const std::span<equation_bounds> all = bounds;
#pragma omp parallel for schedule(static) default(none) shared(in, all, nthread, nterm, neq)
    for (std::int64_t th = 0; th < nthread; ++th)
        find_bounds(in, state_.blocks[th], neq, all.subspan(th * nterm, nterm));
    for (std::int64_t th = 0; th < nthread; ++th)
        log_.debug("aaa " + inttochar(th + 1) + " " + inttochar(state_.blocks[th].first + 1) + " " +
                   inttochar(state_.blocks[th].end) + " n " + inttochar(nthread));
    log_.message("Wall clock time (s) for determining bounds: " + realtochar(clock.seconds(), "(f0.3)"));

    // An effect that leaves each of its equations to one thread needs no arrays beside the result.
    state_.residual.assign(static_cast<std::size_t>(nterm * nthread), {});
    for (std::int64_t k = 0; k < nterm; ++k) {
        std::vector<equation_bounds> of_effect;
        for (std::int64_t th = 0; th < nthread; ++th) of_effect.push_back(all[th * nterm + k]);
        if (!(param_.landeffect && nthread > 1) && are_disjoint(of_effect)) continue;
        for (std::int64_t th = 0; th < nthread; ++th)
            state_.residual[k * nthread + th].initbounds_scal(of_effect[th].lo, of_effect[th].hi);
    }
    bool failed = false;
#pragma omp parallel for schedule(static) default(none) shared(nthread, nterm) reduction(|| : failed)
    for (std::int64_t th = 0; th < nthread; ++th) try {
            for (std::int64_t k = 0; k < nterm; ++k) state_.residual[k * nthread + th].initarray_scal();
        } catch (const std::bad_alloc&) {
            failed = true;
        }
    if (failed) fatal(log_, "Issue when allocating the DT residual", "modmmeiod", "setleastsquarepart_full");

    if (param_.thread_effect || log_.level() == log_level::debug) write_thread_effect(all, nthread);
    std::int64_t total = 0;
    for (std::int64_t th = 0; th < nthread; ++th)
        for (std::int64_t k = 0; k < nterm; ++k) {
            const auto bytes = std::ssize(state_.residual[k * nthread + th].values()) *
                               static_cast<std::int64_t>(sizeof(double));
            total += bytes;
            log_.information("Memory (MB) allocated for thread " + inttochar(th + 1) + " effect " +
                             inttochar(state_.terms[k].effect) + " : " + realtochar(mib(bytes), "(f0.3)"));
        }
    const std::int64_t full = nthread * neq * static_cast<std::int64_t>(sizeof(double));
    log_.information("Total memory (MB): " + realtochar(mib(total), "(f0.3)") + " out of " +
                     realtochar(mib(full), "(f0.3)"));
}

}  // namespace zendar
