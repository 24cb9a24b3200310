#include <algorithm>
#include <filesystem>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modmmeiod_external.hpp"
#include "modpevpec.hpp"
#include "modsnpmodel.hpp"
#include "modstats.hpp"

/// SNP effects of models with a Ta matrix.
namespace zendar {
namespace {

using modmmeiod::ta_term;

bool has_file(const std::vector<std::string>& files, std::int32_t e) {
    return e <= std::ssize(files) && files[e - 1] != "none";
}

/// The term of a Ta matrix of effect e.
ta_term& term_of(run_state& run, std::int32_t e) {
    for (const auto& [effect, term] : run.lhs_iod->state().external->terms)
        if (effect == e)
            if (auto* const ta = dynamic_cast<ta_term*>(term.get())) return *ta;
    fatal(run.log, "Internal error: the Ta matrix of effect " + inttochar(e) + " is not there", "modsnpmodel",
          "solve");
}

/// L is in memory already, or is read into `kt`.
matrix_view<const double> factor_of(const ta_term& term, std::int32_t e, ktmatrix_type& kt, run_state& run) {
    if (const densesquare_type* const own = term.factor(); own != nullptr) return own->value.view();
    const std::string file(trim(run.param.ktamatrix[e - 1]));
    readktamatrix(run.param, e, file, kt, run.log);
    if (kt.k.n != term.nsnp())
        fatal(run.log,
              "The number of SNPs in " + file + " and " + std::string(trim(run.param.tamatrix[e - 1])) +
                  " is different!",
              "modsnpmodel", "solve");
    return kt.k.value.view();
}

}  // namespace

void check_ktamatrix(const param_type& param, logger& log) {
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        if (!has_file(param.ktamatrix, e)) continue;
        const std::int32_t type = param.type_random[e - 1];
        const bool is_animal = type == trandom_ani || type == trandom_ani_upg || type == trandom_ani_meta ||
                               type == trandom_ani_rupg;
        if (!is_animal || (!has_file(param.tamatrix, e) && !has_file(param.tageno, e)))
            fatal(log, "This type of effect " + inttochar(is_animal ? e : type) + " is not implemented",
                  "modsnpmodel", "solve");
        const std::string file(trim(param.ktamatrix[e - 1]));
        if (!file.ends_with("_tri") && !file.ends_with(".stream"))
            fatal(log, "This type of file is not supported: " + file, "modstructure", "readktamatrix");
        std::error_code unreadable;
        if (!std::filesystem::exists(file, unreadable))
            fatal(log, "The file " + file + " of the option !ktamatrix does not exist", "modsnpmodel",
                  "solve");
    }
}

void solve_snpeffects_ta(run_state& run) {
    const param_type& param = run.param;
    if (param.ktamatrix.empty() || run.lhs_iod == nullptr || !run.finite) return;
    std::vector<matrix<double>> values;
    std::vector<snp_columns> columns;
    values.reserve(static_cast<std::size_t>(param.neffect));
    for (const effect_group& group : run.lhs_iod->state().groups) {
        const std::int32_t e = group.effect;
        if (!has_file(param.ktamatrix, e)) continue;
        const wtime clock;
        ta_term& term = term_of(run, e);
        ktmatrix_type kt;
        matrix<double>& own = values.emplace_back(term.nsnp(), group.order());
        modmmeiod::compute_snpeffects_ta(group, term, factor_of(term, e, kt, run), run.solutions, own.view(),
                                         run.log);
        std::int64_t before = 0;
        for (std::int32_t k = e; k < e + group.nmember; ++k) {
            const std::int64_t n = std::int64_t{param.nx[k]} * param.ntrait;
            columns.push_back(
                {k, param.nx[k], {own.data() + before * own.rows(), own.rows(), n, own.rows()}});
            before += n;
        }
        clock.end(run.log, "SNP effects of effect " + inttochar(e));
    }
    if (!columns.empty()) write_snp_values(param.ntrait, columns, "snpeffects_ta.dat", run.log);
}

}  // namespace zendar
