#include "modstructure_hugecov.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "modbasic.hpp"
#include "modmatop.hpp"
#include "modparameters.hpp"
#include "modparameters_utils_lines.hpp"
#include "modparameters_utils_triplets.hpp"
#include "modsparse_detail.hpp"
#include "modstructure_hugecov_detail.hpp"

namespace zendar {
namespace {

using detail::hugecov_module;
using detail::triplet;
using detail::triplet_rows;

constexpr const char* procedure = "readghugediag";
constexpr std::int32_t small_block = 80;        ///< equations; larger blocks announce their memory
constexpr std::int64_t largest_block = 30'000;  ///< equations; 7 GB

/// A covariance file of a group.
struct covariance_file {
    const param_type& param;
    std::int32_t e;
    std::string name;
    std::int32_t order;  ///< equations of the group

    /// "The covariance file <name> of the huge effect <e>"
    [[nodiscard]] std::string title() const {
        return "The covariance file " + name + " of the huge effect " + inttochar(e);
    }
};

/// Member, SNP and trait of an equation of a group, all from 0.
struct equation_place {
    std::int32_t member = 0;
    std::int64_t snp = 0;
    std::int32_t trait = 0;
};
equation_place place_of(const covariance_file& file, std::int32_t equation) {
    const auto& sum = file.param.sumequation;
    const std::int64_t at = sum[file.e] + equation - 1;
    equation_place place;
    while (place.member < detail::hugecov_followers(file.param, file.e) &&
           sum[file.e + place.member + 1] <= at)
        ++place.member;
    const std::int64_t within = at - sum[file.e + place.member];
    place.snp = within / file.param.ntrait;
    place.trait = static_cast<std::int32_t>(within % file.param.ntrait);
    return place;
}

std::string describe(const covariance_file& file, std::int32_t equation) {
    const equation_place place = place_of(file, equation);
    return "equation " + inttochar(equation) + " (SNP " + inttochar(place.snp + 1) + ", trait " +
           inttochar(place.trait + 1) + " of the effect " + inttochar(file.e + place.member) + ")";
}

/// Whether the effect of an equation, or the animal effect it is linked to, has the equation's trait.
bool has_trait(const covariance_file& file, std::int32_t equation) {
    const equation_place place = place_of(file, equation);
    const auto& links = file.param.link_effect[file.e - 1];
    const bool linked = place.member < std::ssize(links);
    const std::int32_t with = linked ? links[place.member] : file.e + place.member;
    return file.param.pos_effects(place.trait, with - 1) > 0;
}

// ---- reading

[[noreturn]] void stop_at_repetition(const covariance_file& file, const detail::block_file& text,
                                     std::int32_t row, std::span<const triplet> elements, logger& log) {
    const auto same = [](const triplet& a, const triplet& b) { return std::abs(a.key) == std::abs(b.key); };
    const auto first = std::ranges::adjacent_find(elements, same);
    const std::int32_t column = std::abs(first->key);
    const std::vector<std::int64_t> lines = detail::lines_of_element(text, file.order, row, column);
    std::string where;
    if (lines.size() >= 2)
        where = ": line " + inttochar(lines[1]) + ", and before it line " + inttochar(lines[0]);
    fatal(log,
          file.title() + " gives the element (" + inttochar(row) + "," + inttochar(column) +
              ") more than once" + where,
          hugecov_module, procedure);
}

triplet_rows read_elements(const covariance_file& file, logger& log) {
    const auto stop_unreadable = [&](const file_error& why) {
        fatal_io(log, file.title() + " cannot be read", hugecov_module, procedure, why.iostat, why.iomsg);
    };
    detail::block_file text({});
    if (const auto failure = text.open(file.name)) stop_unreadable(*failure);
    if (text.empty()) fatal(log, file.title() + " is empty", hugecov_module, procedure);
    if (const auto failure = text.index_lines(0)) stop_unreadable(*failure);

    triplet_rows elements(file.order);
    const detail::record_fault fault = detail::read_symmetric_triplets(text, elements);
    if (fault.kind != detail::record_fault_kind::none)
        fatal_io(log,
                 "Covariances of the huge effect " + inttochar(file.e) + " not correctly read at line " +
                     inttochar(fault.line),
                 hugecov_module, procedure, detail::status_of(fault),
                 "File " + file.name + ": " + detail::describe(fault, 3));
    if (const std::int32_t row = elements.merge(detail::merge_unique); row > 0)
        stop_at_repetition(file, text, row, elements.row(row), log);
    log.message("Number of lines read for the covariance matrix of the effect " + inttochar(file.e) + " : " +
                inttochar(text.lines()));
    return elements;
}

// ---- blocks of connected equations

/// Equations, from 0, that elements of the matrix connect, directly or through others.
struct equation_blocks {
    std::vector<std::int32_t> begin;      ///< [block], and the end of the last
    std::vector<std::int32_t> equations;  ///< block after block, ascending in each
};

std::int32_t find_root(std::vector<std::int32_t>& parent, std::int32_t i) {
    while (parent[i] != i) i = parent[i] = parent[parent[i]];
    return i;
}

equation_blocks connected_blocks(const triplet_rows& elements) {
    const std::int32_t n = elements.nrow();
    std::vector<std::int32_t> parent(static_cast<std::size_t>(n));  // the root is the block's first equation
    std::iota(parent.begin(), parent.end(), 0);
    for (std::int32_t i = 0; i < n; ++i)
        for (const triplet& element : elements.row(i + 1)) {
            if (element.value == 0.0) continue;
            const std::int32_t a = find_root(parent, i), b = find_root(parent, element.key - 1);
            parent[std::max(a, b)] = std::min(a, b);
        }

    std::vector<std::int32_t> place(static_cast<std::size_t>(n), 0);  // of roots: size, then next free place
    for (std::int32_t i = 0; i < n; ++i) ++place[find_root(parent, i)];
    equation_blocks blocks;
    std::int32_t before = 0;
    for (std::int32_t i = 0; i < n; ++i) {
        if (parent[i] != i) continue;
        blocks.begin.push_back(before);
        before += std::exchange(place[i], before);
    }
    blocks.begin.push_back(before);
    blocks.equations.resize(static_cast<std::size_t>(n));
    for (std::int32_t i = 0; i < n; ++i) blocks.equations[place[find_root(parent, i)]++] = i;
    return blocks;
}

/// The empty upper triangle with full blocks: row pointers are set, the elements are not.
crssparse allocate_blocks(const covariance_file& file, const equation_blocks& blocks, logger& log) {
    std::int64_t nel = 0;
    for (std::size_t b = 0; b + 1 < blocks.begin.size(); ++b) {
        const std::int64_t size = blocks.begin[b + 1] - blocks.begin[b];
        if (size > largest_block)
            fatal(log,
                  file.title() + " has a block of " + inttochar(size) +
                      " connected equations, which is too large to be inverted (at most " +
                      inttochar(largest_block) + "): a file .inv with the inverse is needed",
                  hugecov_module, procedure);
        nel += size * (size + 1) / 2;
    }
    if (nel > detail::most_elements<std::int32_t>)
        fatal(log,
              "The inverse of the covariances of the huge effect " + inttochar(file.e) + " has " +
                  inttochar(nel) + " elements, which is too many",
              hugecov_module, procedure);

    crssparse ginv(file.order, nel, file.order, true, &log);
    const auto ia = crs_arrays::ia(ginv);
    for (std::size_t b = 0; b + 1 < blocks.begin.size(); ++b)
        for (std::int32_t k = blocks.begin[b]; k < blocks.begin[b + 1]; ++k)
            ia[blocks.equations[k] + 1] = blocks.begin[b + 1] - k;
    ia[0] = 1;
    for (std::int32_t i = 0; i < file.order; ++i) ia[i + 1] += ia[i];
    ginv.setsorted(true);
    ginv.setsymmetric();
    return ginv;
}

/// Inverts the blocks of a covariance matrix.
class block_inversion {
  public:
    block_inversion(const covariance_file& file, const triplet_rows& elements, double scale, logger& log)
        : file_(file),
          elements_(elements),
          scale_(scale),
          log_(log),
          place_(static_cast<std::size_t>(file.order)) {}

    /// `equations` are those of a block, from 0.
    void invert(std::span<const std::int32_t> equations, crssparse& ginv) {
        const std::int64_t n = std::ssize(equations);
        const std::int32_t first = equations.front() + 1;
        if (n == 1 && is_empty(first) && !has_trait(file_, first)) {
            store(equations, {&absent_, 1, 1, 1}, ginv);
            return;
        }
        if (n > small_block)
            log_.message("Memory (MB) needed for inverting a block of " + inttochar(n) +
                         " equations of effect " + inttochar(file_.e) + ": " +
                         realtochar(mib(n * n * static_cast<std::int64_t>(sizeof(double))), "(f0.2)"));
        const matrix_view<double> a = gather(equations);
        if (!invert_dense(a)) stop(equations, " is not positive definite");
        for (std::int64_t j = 0; j < n; ++j)
            for (double& value : a.column(j)) {
                value *= scale_;
                if (!std::isfinite(value)) stop(equations, " has no finite inverse");
            }
        store(equations, a, ginv);
    }

  private:
    [[nodiscard]] bool is_empty(std::int32_t row) const {
        return std::ranges::all_of(elements_.row(row), [](const triplet& t) { return t.value == 0.0; });
    }

    /// A single variance exactly, as there may be millions of them.
    bool invert_dense(matrix_view<double> a) {
        if (a.rows > 1) return invsym(a, log_);
        const double variance = a(0, 0);
        a(0, 0) = 1.0 / variance;
        return variance > 0.0;
    }

    matrix_view<double> gather(std::span<const std::int32_t> equations) {
        const std::int64_t n = std::ssize(equations);
        if (n > small_block) work_ = {};  // never two large ones
        work_.assign(static_cast<std::size_t>(n * n), 0.0);
        for (std::int64_t i = 0; i < n; ++i) place_[equations[i]] = static_cast<std::int32_t>(i);
        const matrix_view<double> a{work_.data(), n, n, n};
        for (std::int64_t i = 0; i < n; ++i)
            for (const triplet& element : elements_.row(equations[i] + 1)) {
                if (element.value == 0.0) continue;  // does not connect
                const std::int64_t j = place_[element.key - 1];
                a(i, j) = a(j, i) = element.value;
            }
        return a;
    }

    static void store(std::span<const std::int32_t> equations, matrix_view<const double> a, crssparse& ginv) {
        const auto ia = crs_arrays::ia(ginv), ja = crs_arrays::ja(ginv);
        const auto values = crs_arrays::a(ginv);
        for (std::int64_t i = 0; i < a.rows; ++i) {
            std::int32_t at = ia[equations[i]] - 1;
            for (std::int64_t j = i; j < a.rows; ++j, ++at) {
                ja[at] = equations[j] + 1;
                values[at] = a(j, i);
            }
        }
    }

    [[noreturn]] void stop(std::span<const std::int32_t> equations, const char* why) const {
        fatal(log_,
              "The covariance matrix of the huge effect " + inttochar(file_.e) + " in the file " +
                  file_.name + why + ": the block of " + inttochar(std::ssize(equations)) +
                  " equation(s) that begins at " + describe(file_, equations.front() + 1),
              hugecov_module, procedure);
    }

    const covariance_file& file_;
    const triplet_rows& elements_;
    double scale_;
    logger& log_;
    std::vector<std::int32_t> place_;  // [equation]: within its block
    std::vector<double> work_;
    double absent_ = 0.0;
};

crssparse invert_covariances(const covariance_file& file, const triplet_rows& elements, double scale,
                             logger& log) {
    const equation_blocks blocks = connected_blocks(elements);
    crssparse ginv = allocate_blocks(file, blocks, log);
    block_inversion inversion(file, elements, scale, log);
    for (std::size_t b = 0; b + 1 < blocks.begin.size(); ++b)
        inversion.invert(std::span(blocks.equations)
                             .subspan(static_cast<std::size_t>(blocks.begin[b]),
                                      static_cast<std::size_t>(blocks.begin[b + 1] - blocks.begin[b])),
                         ginv);
    return ginv;
}

}  // namespace

crssparse readghugediag(const param_type& param, std::int32_t e, logger& log) {
    const std::int32_t followers = detail::hugecov_followers(param, e);
    const covariance_file file{
        .param = param,
        .e = e,
        .name = std::string(trim(param.file[e][0])),
        .order = narrow<std::int32_t>(param.sumequation[e + followers + 1] - param.sumequation[e])};
    const bool inverted = file.name.ends_with(".inv");
    if (inverted) log.message("The covariance matrix is assumed to be inverted for effect " + inttochar(e));
    triplet_rows elements = read_elements(file, log);
    crssparse ginv =
        inverted ? elements.to_crs(file.order, true, log)
                 : invert_covariances(file, elements, detail::hugecov_scale(param, e, procedure, log), log);
    detail::report_hugecov(ginv, e, log);
    detail::write_hugecov(ginv, param, e, "", procedure, log);
    return ginv;
}

}  // namespace zendar
