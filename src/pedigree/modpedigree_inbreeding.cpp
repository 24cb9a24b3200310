#include <algorithm>
#include <cmath>
#include <cstddef>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "modbasic.hpp"
#include "modblas.hpp"
#include "modfile.hpp"
#include "modpedigree.hpp"
#include "modpedigree_detail.hpp"
#include "modstats.hpp"

namespace zendar {

namespace {

constexpr const char* module_tag = "modpedigree";
constexpr const char* procedure_tag = "computeinbreeding_ped";

/// The name of the cache without its ending. Without an output directory the cache stands beside the
/// pedigree.
std::string cache_stem(const std::string& filename, const inbreeding_options& options) {
    return options.directory.empty() ? filename : outputfile(options.directory, filename);
}

bool is_there(const std::string& file) {
    std::error_code ignored;
    return std::filesystem::exists(file, ignored);
}

void warn_of_old_cache(const std::string& cache, const std::string& pedigree, logger& log) {
    std::error_code no_cache, no_pedigree;
    const auto written = std::filesystem::last_write_time(cache, no_cache);
    const auto changed = std::filesystem::last_write_time(pedigree, no_pedigree);
    if (!no_cache && !no_pedigree && written < changed)
        log.warning("The file " + cache + " is older than the pedigree file " + pedigree +
                        ". It is used nevertheless; remove it if the pedigree has changed",
                    module_tag, procedure_tag);
}

/// What a cache is found to be.
struct cache_state {
    bool good = false;
    int io = 0;
    std::int32_t hash = 0;
};

/// Fills `f` from a cache with this check value. `f` is not to be used when the cache is not good.
cache_state read_cache(const std::string& file, std::int32_t checkval, std::span<double> f) {
    cache_state state;
    text_reader input;
    const auto line = [&] {
        const auto text = input.line();
        if (!text) state.io = input.error() ? input.error()->iostat : -1;
        return text;
    };
    if (const auto failure = input.open(file)) {
        state.io = failure->iostat;
        return state;
    }
    const auto first = line();
    if (!first) return state;
    const std::vector<std::string_view> words = words_of(*first);
    if (words.size() < 2) {
        state.io = -1;
        return state;
    }
    if (const read_status status = parse_number(words[1], state.hash); !status.ok()) {
        state.io = status.iostat;
        return state;
    }
    if (state.hash != checkval) return state;

    std::vector<bool> seen(f.size(), false);
    detail::id_value_line pair;
    for (std::size_t row = 0; row < f.size(); ++row) {
        const auto text = line();
        if (!text) return state;
        state.io = pair.parse(*text) && std::isfinite(pair.value) && pair.id >= 1 &&
                           pair.id <= std::ssize(f) && !seen[static_cast<std::size_t>(pair.id - 1)]
                       ? 0
                       : 1;
        if (state.io != 0) return state;
        seen[static_cast<std::size_t>(pair.id - 1)] = true;
        f[pair.id - 1] = pair.value;
    }
    state.good = true;
    return state;
}

/// Parents by position in the order from old to young.
matrix<std::int32_t> temporary_pedigree(const matrix<std::int32_t>& ped, const pedigree_order& order,
                                        std::int32_t nupg) {
    matrix<std::int32_t> tped(2, ped.cols());
    for (std::int64_t k = nupg; k < ped.cols(); ++k)
        for (std::int64_t p = 0; p < 2; ++p) {
            const std::int32_t parent = ped(p, order.neworder[k] - 1);
            tped(p, k) = parent == 0 ? 0 : order.order[parent - 1];
        }
    return tped;
}

/// The first row (from 1) of a symmetric matrix that keeps it from being positive definite; 0 for none.
std::int64_t first_dependent(const matrix<double>& a) {
    constexpr double smallest_pivot = 1e-12;  // of its diagonal element: less is rounding
    for (std::int64_t j = 0; j < a.cols(); ++j)
        for (std::int64_t i = 0; i < a.rows(); ++i)
            if (!std::isfinite(a(i, j))) return i + 1;
    matrix<double> factor = a;
    const int info = lapack_dpotrf(factor.view());
    const std::int64_t pivots = info > 0 ? info - 1 : a.cols();
    for (std::int64_t j = 0; j < pivots; ++j)
        if (factor(j, j) * factor(j, j) < smallest_pivot * a(j, j)) return j + 1;
    return info;
}

void check_metafounders(const pedigree_type& ped, logger& log) {
    const std::int32_t nani = ped.nlength() - ped.nupg;
    if (ped.metarel.rows() != ped.nupg || ped.metarel.cols() != ped.nupg)
        fatal(log,
              "The relationships between the " + inttochar(ped.nupg) +
                  " metafounders have not been read (internal error)",
              module_tag, procedure_tag);
    for (std::int32_t i = 1; i <= nani; ++i)
        if (ped.sire(i) == 0 || ped.dam(i) == 0)
            fatal(log,
                  "Metafounder (=0) not defined.\nCheck your pedigree\nAnimal " + inttochar(i) +
                      (ped.filename ? " of the file " + *ped.filename : std::string()),
                  module_tag, procedure_tag);
    if (const std::int64_t bad = first_dependent(ped.metarel); bad > 0)
        fatal(log,
              "The matrix of relationships between metafounders is not positive definite (metafounder " +
                  inttochar(bad) + ")",
              module_tag, procedure_tag);
}

}  // namespace

namespace detail {

void inbreeding_progress::show(std::int32_t animal) {
    log_.screen_raw("     " + inttochar(animal) + " animals treated\n");
    clock_ = wtime();
}

}  // namespace detail

namespace {

/// The same parents have other coefficients without metafounders, or with others: theirs tell, to the digits
/// of a cache.
bool fits_metafounders(const pedigree_type& ped) {
    constexpr double digits = 1e-6;
    const std::int32_t nani = ped.nlength() - ped.nupg;
    for (std::int32_t m = 0; ped.ismeta && m < ped.nupg; ++m)
        if (!(std::abs(ped.f[nani + m] - (ped.metarel(m, m) - 1.0)) <= digits)) return false;
    return true;
}

}  // namespace

bool pedigree_type::read_inbreeding_cache(const inbreeding_options& options, logger& log, bool& exists) {
    exists = false;
    if (!filename) return false;
    const wtime clock;
    std::string name = cache_stem(*filename, options);
    log.debug("Check whether if the file " + name + ".inb exists, and read it if it is the case", module_tag,
              procedure_tag);
    if (!is_there(name + ".inb") && is_there(*filename + ".inb")) name = *filename;
    if (!is_there(name + ".inb")) return false;

    exists = true;
    const cache_state state = read_cache(name + ".inb", checkval(), f);
    if (state.good && fits_metafounders(*this)) {
        warn_of_old_cache(name + ".inb", *filename, log);
        warn_of_odd_coefficients(name + ".inb", log);
        clock.end(log, "Inbreeding coefficients read from " + name + ".inb");
        return true;
    }
    std::ranges::fill(f, 0.0);
    log.warning("The file " + name +
                    ".inb exists, but is incorrect (magic number or number of lines)\nio = " +
                    inttochar(state.io) + "\nhash: " + inttochar(state.hash) + " vs " + inttochar(checkval()),
                module_tag, procedure_tag);
    return false;
}

void pedigree_type::warn_of_odd_coefficients(const std::string& file, logger& log) const {
    std::vector<std::int32_t> odd;
    for (std::size_t i = 0; i < f.size(); ++i)
        if (!(std::abs(f[i]) <= 1.0)) odd.push_back(static_cast<std::int32_t>(i + 1));
    if (!odd.empty())
        log.warning("Inbreeding coefficients below -1 or above 1 in the file " + file + ": " +
                        inttochar(std::ssize(odd)) + " (" + detail::first_few(odd) + ")",
                    module_tag, procedure_tag);
}

void pedigree_type::write_inbreeding_cache(const inbreeding_options& options, logger& log) const {
    if (!filename) return;
    const wtime clock;
    const std::string name = cache_stem(*filename, options) + (ismeta ? "_meta" : "") + ".inb";
    file_writer output;
    auto failure = output.open(name);
    if (!failure) {
        output.write("# " + inttochar(checkval()) + "\n");
        for (std::size_t i = 0; i < f.size() && !output.failed(); ++i)
            output.write(inttochar(static_cast<std::int64_t>(i) + 1) + " " + realtochar(f[i], "f0.6") + "\n");
        failure = output.commit();
    }
    if (failure) {  // the coefficients themselves are there
        log.warning("The inbreeding coefficients cannot be saved in " + name + ": " + failure->iomsg,
                    module_tag, procedure_tag);
        return;
    }
    clock.end(log, "Inbreeding coefficients saved in " + name);
}

void pedigree_type::computeinbreeding_ped(const inbreeding_options& options, logger& log) {
    log.message("Start computation of inbreeding");
    if (nupg < 0) fatal(log, "Number of UPGs < 0 (internal error)", module_tag, procedure_tag);
    const std::int32_t n = nlength();
    if (nupg > n) fatal(log, "Number of UPGs > number of levels (internal error)", module_tag, procedure_tag);
    f.assign(static_cast<std::size_t>(n), 0.0);
    bool exists = false;
    if (read_inbreeding_cache(options, log, exists)) return check_loops(log);

    const wtime clock;
    const bool meuwissen = options.inbmethod == meuwissen_and_luo;
    if (!meuwissen && options.inbmethod != sargolzaei_etal)
        fatal(log, "Request of a method to compute inbreeding coefficients that is not implemented",
              module_tag, procedure_tag);
    if (ismeta) check_metafounders(*this, log);
    log.message("1. Get the order from old to young...");
    pedigree_order order = getorder(log);
    log.message("2. Creates temporary pedigree...");
    matrix<std::int32_t> tped = temporary_pedigree(ped, order, nupg);
    order.order = {};

    log.message(std::string("3. Computes inbreeding coefficients using ") +
                (meuwissen ? "Meuwissen and Luo (1993)" : "Sargolzaei et al. (2005)") +
                (ismeta ? " AND with metafounders..." : "..."));
    std::vector<double> by_position(static_cast<std::size_t>(n) + 1, 0.0);
    detail::inbreeding_progress progress(log);
    if (meuwissen && ismeta)
        detail::compute_f_meuwissen_and_luo_meta(tped.view(), nupg, metarel.view(), by_position, progress);
    else if (meuwissen)
        detail::compute_f_meuwissen_and_luo(tped.view(), nupg, by_position, progress);
    else if (ismeta)
        detail::compute_f_sargolzaei_etal_meta(tped.view(), nupg, metarel.view(), by_position, progress);
    else
        detail::compute_f_sargolzaei_etal(tped.view(), nupg, by_position, progress);
    for (std::int32_t k = ismeta ? 1 : nupg + 1; k <= n; ++k) f[order.neworder[k - 1] - 1] = by_position[k];
    clock.end(log, "Computation of inbreeding coefficients");
    if (!exists) write_inbreeding_cache(options, log);
}

}  // namespace zendar
