#include <algorithm>
#include <cmath>

#include "modbasic.hpp"
#include "modgeneral_detail.hpp"
#include "modmmeiod_huge.hpp"
#include "modstats.hpp"
#include "modstructure_product.hpp"

namespace zendar::modmmeiod {

namespace {

constexpr const char* procedure = "setup_lhsrhs_iod";

/// The animal of each row of genotypes.
std::vector<std::int32_t> animals_of_rows(const covariable_type& cov, std::int32_t e,
                                          const pedigree_type& ped, logger& log) {
    const std::span<const std::int32_t> rows = cov.rows();
    std::vector<std::int32_t> animals(static_cast<std::size_t>(coefficient_rows(cov)), 0);
    const std::int32_t nanimal = ped.nlength() - ped.nupg;
    for (std::int32_t level = 1; level <= std::ssize(rows); ++level) {
        if (rows[level - 1] == 0) continue;
        if (level > nanimal)
            fatal(log,
                  "Individual " + inttochar(level) + " of the SNP effect " + inttochar(e) +
                      " is not an animal of the pedigree, which has " + inttochar(nanimal) + " animals",
                  "modmmeiod", procedure);
        animals[rows[level - 1] - 1] = level;
    }
    return animals;
}

/// Adds `weight` times the rows of `from` times G0^-1 to r at the levels.
void add_times_ginv(const effect_group& group, std::span<const std::int32_t> levels, double weight,
                    matrix_view<const double> from, std::span<double> r) {
    const std::int64_t order = group.order(), n = from.rows;
#pragma omp parallel for schedule(static) default(none) shared(group, levels, weight, from, r, order, n)
    for (std::int64_t k = 0; k < n; ++k)
        for (std::int64_t i = 0; i < order; ++i) {
            double sum = 0.0;
            for (std::int64_t j = 0; j < order; ++j) sum += group.ginv(j, i) * from(k, j);
            r[static_cast<std::size_t>(group.at(i, levels[k] - 1))] += weight * sum;
        }
}

/// to(k, i) = x of entry i at the level of row k.
void gather(const effect_group& group, std::span<const std::int32_t> levels, std::span<const double> x,
            matrix_view<double> to) {
    const std::int64_t order = group.order(), n = to.rows;
#pragma omp parallel for schedule(static) default(none) shared(group, levels, x, to, order, n)
    for (std::int64_t k = 0; k < n; ++k)
        for (std::int64_t i = 0; i < order; ++i)
            to(k, i) = x[static_cast<std::size_t>(group.at(i, levels[k] - 1))];
}

}  // namespace

single_step_block::single_step_block(const param_type& param, std::int32_t e, const effect_group& animals,
                                     const pedigree_type& ped, const crssparse* asparse,
                                     std::span<const covariable_type> cov, logger& log)
    : effect_(e),
      type_(param.type_random[e - 1]),
      ntrait_(param.ntrait),
      tau_by_beta_(param.tau / param.beta),
      omega_(type_ == 22 ? 1.0 : param.omega),
      animals_(animals),
      cov_(cov),
      a22i_(ped, animals.effect, animals_of_rows(cov[e - 1], e, ped, log), log) {
    if (!std::isfinite(tau_by_beta_))
        fatal(log, "tau / beta of the SNP effect " + inttochar(e) + " is not a finite number", "modmmeiod",
              procedure);
    const std::int32_t nmember = std::max(param.n_correlated[e - 1], 0) + 1;
    std::vector<std::int32_t> linked;
    for (std::int32_t k = 0; k < nmember; ++k) {
        const std::int32_t link = detail::linked_effect(param, e + k);
        if (link < animals.effect || link >= animals.effect + animals.nmember ||
            std::ranges::count(linked, link) > 0)
            fatal(log,
                  "The SNP effect " + inttochar(e + k) + " is linked to effect " + inttochar(link) +
                      ", which must be another member of the group of effect " + inttochar(animals.effect),
                  "modmmeiod", procedure);
        linked.push_back(link);
        if (!std::ranges::equal(cov[e + k - 1].rows(), cov[e - 1].rows()))
            fatal(log,
                  "The SNP effects " + inttochar(e) + " and " + inttochar(e + k) +
                      " have different individuals",
                  "modmmeiod", procedure);
        member& own = members_.emplace_back();
        own.effect = e + k;
        own.first = param.sumequation[e + k];
        own.ncov = param.n_cov[e + k - 1];
        std::int64_t before = 0;
        for (std::int32_t l = animals.effect; l < link; ++l) before += std::int64_t{param.nx[l]} * ntrait_;
        if (param.nx[link] != 1)
            fatal(log,
                  "The SNP effect " + inttochar(e + k) + " is linked to effect " + inttochar(link) +
                      ", which has more than one covariable",
                  "modmmeiod", procedure);
        for (std::int32_t t = 0; t < ntrait_; ++t) own.entry.push_back(before + t);
    }
    if (nmember != animals.nmember)
        fatal(log,
              "The SNP effects from " + inttochar(e) +
                  " on must be linked to all effects of the group of effect " + inttochar(animals.effect),
              "modmmeiod", procedure);
    if (asparse != nullptr) find_neighbours(*asparse);

    const std::int64_t n = a22i_.size(), order = animals_.order();
    in_.assign(static_cast<std::size_t>(2 * order * n), 0.0);
    out_ = in_;
    work_.assign(static_cast<std::size_t>(a22i_.work_size(2 * order)), 0.0);
    around_.assign(static_cast<std::size_t>(std::ssize(neighbours_) * order), 0.0);
    if (type_ != 22) {
        std::int64_t most = 0;
        for (const member& own : members_) most = std::max(most, own.ncov);
        product_.assign(static_cast<std::size_t>((most + n) * ntrait_), 0.0);
    }
}

std::int64_t single_step_block::bytes() const {
    return (std::ssize(in_) + std::ssize(out_) + std::ssize(work_) + std::ssize(around_) +
            std::ssize(product_)) *
           static_cast<std::int64_t>(sizeof(double));
}

/// The rows of A^-1 of the genotyped animals, from one triangle of it.
void single_step_block::find_neighbours(const crssparse& asparse) {
    const crs_view<std::int32_t> a = asparse.view();
    const std::span<const std::int32_t> animals = a22i_.levels();
    std::vector<std::int32_t> row(static_cast<std::size_t>(a.dim1), 0);  // [level - 1]: from 1
    for (std::int32_t k = 0; k < std::ssize(animals); ++k) row[animals[k] - 1] = k + 1;
    std::vector<std::int32_t> column(row.size(), 0);
    std::vector<std::int32_t> begin(animals.size() + 1, 0);  // counts, then where the next element goes
    const auto for_all = [&](auto&& take) {
        for (std::int32_t i = 1; i <= a.dim1; ++i)
            for (std::int32_t k = a.ia[i - 1] - 1; k < a.ia[i] - 1; ++k) {
                const std::int32_t j = a.ja[k];
                if (row[i - 1] > 0) take(row[i - 1], j, a.a[k]);
                if (row[j - 1] > 0 && j != i) take(row[j - 1], i, a.a[k]);
            }
    };
    std::int64_t nel = 0;
    for_all([&](std::int32_t r, std::int32_t level, double) {
        ++nel;
        ++begin[r];
        column[level - 1] = 1;
    });
    for (std::int32_t level = 1; level <= a.dim1; ++level)
        if (column[level - 1] > 0) {
            neighbours_.push_back(level);
            column[level - 1] = narrow<std::int32_t>(std::ssize(neighbours_));
        }
    for (std::size_t r = 1; r < begin.size(); ++r) begin[r] += begin[r - 1];
    std::vector<std::int32_t> ia(begin.size()), ja(static_cast<std::size_t>(nel));
    std::vector<double> values(ja.size());
    std::ranges::transform(begin, ia.begin(), [](std::int32_t b) { return b + 1; });
    for_all([&](std::int32_t r, std::int32_t level, double value) {
        const std::int32_t at = begin[r - 1]++;
        ja[at] = column[level - 1];
        values[at] = value;
    });
    beside_ = crssparse(narrow<std::int32_t>(std::ssize(animals)), nel,
                        narrow<std::int32_t>(std::ssize(neighbours_)));
    beside_.external(ia, ja, values);
    beside_.sort();
    for (const std::int32_t animal : animals) place_.push_back(column[animal - 1] - 1);
}

matrix<double> single_step_block::ginv_of_snps() const {
    const std::int64_t n = std::ssize(members_) * ntrait_;
    matrix<double> ginv(n, n);
    const auto entry = [&](std::int64_t i) { return members_[i / ntrait_].entry[i % ntrait_]; };
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j < n; ++j) ginv(i, j) = animals_.ginv(entry(i), entry(j));
    return ginv;
}

std::vector<double> single_step_block::diagonal_of_ainv() const {
    std::vector<double> diagonal;
    for (std::size_t k = 0; k < place_.size(); ++k)
        diagonal.push_back(beside_.get(static_cast<std::int32_t>(k + 1), place_[k] + 1));
    return diagonal;
}

void single_step_block::between_genotypes(matrix_view<const double> in, matrix_view<double> out) {
    std::vector<double> work(static_cast<std::size_t>(a22i_.work_size(in.cols)));
    a22i_.computea22i_timesx(in, out, work);
    if (type_ != 22) return;
    matrix<double> around(std::ssize(neighbours_), in.cols);
    for (std::int64_t j = 0; j < in.cols; ++j)
        for (std::int64_t k = 0; k < in.rows; ++k) around(place_[k], j) = in(k, j);
    beside_.multgenm(1.0, 'n', around.view(), -1.0, out);
}

matrix_view<double> single_step_block::columns(std::vector<double>& of, std::int64_t first,
                                               std::int64_t n) const {
    return {of.data() + first * a22i_.size(), a22i_.size(), n, a22i_.size()};
}

/// out = A22^-1 in, all columns.
void single_step_block::apply_a22i(std::string& text) {
    const wtime clock;
    const std::int64_t n = 2 * animals_.order();
    a22i_.computea22i_timesx(columns(in_, 0, n), columns(out_, 0, n), work_);
    text += " A22i * x : " + realtochar(clock.seconds(), "(f0.3)");
}

void single_step_block::timesx(std::span<huge_effect> huge, std::span<const double> x, std::span<double> r,
                               std::string& text, logger& log) {
    if (type_ == 22)
        timesx_difference(huge, x, r, text);
    else
        timesx_liu(x, r, text, log);
}

void single_step_block::timesx_liu(std::span<const double> x, std::span<double> r, std::string& text,
                                   logger& log) {
    const std::int64_t order = animals_.order(), n = a22i_.size();
    const std::int64_t ntrait = ntrait_;
    const matrix_view<double> left = columns(in_, 0, order), u = columns(in_, order, order);
    gather(animals_, a22i_.levels(), x, u);
    std::copy_n(u.data, order * n, left.data);
    double seconds = 0.0;
    for (const member& own : members_) {
        const matrix_view<double> g{product_.data(), own.ncov, ntrait, own.ncov};
        const matrix_view<double> wg{product_.data() + own.ncov * ntrait, n, ntrait, n};
        const double* const effects = x.data() + own.first;
#pragma omp parallel for schedule(static) default(none) shared(g, effects, ntrait)
        for (std::int64_t j = 0; j < g.rows; ++j)
            for (std::int64_t t = 0; t < ntrait; ++t) g(j, t) = effects[j * ntrait + t];
        const wtime clock;
        multiply_coefficients(cov_[own.effect - 1], 'n', g, wg, log);
        seconds += clock.seconds();
        for (std::int64_t t = 0; t < ntrait; ++t) {
            const std::span<double> to = left.column(own.entry[t]);
            const std::span<const double> from = wg.column(t);
            for (std::int64_t k = 0; k < n; ++k) to[k] -= from[k];
        }
    }
    apply_a22i(text);
    const matrix_view<double> of_left = columns(out_, 0, order), of_u = columns(out_, order, order);
    for (const member& own : members_) {
        const matrix_view<double> c{product_.data(), own.ncov, ntrait, own.ncov};
        const matrix_view<double> b{product_.data() + own.ncov * ntrait, n, ntrait, n};
        for (std::int64_t t = 0; t < ntrait; ++t) {
            const std::int64_t i = own.entry[t];
            for (std::int64_t k = 0; k < n; ++k) {
                double sum = 0.0;
                for (std::int64_t j = 0; j < order; ++j) sum += animals_.ginv(j, i) * of_left(k, j);
                b(k, t) = -tau_by_beta_ * sum;
            }
        }
        const wtime clock;
        multiply_coefficients(cov_[own.effect - 1], 't', b, c, log);
        seconds += clock.seconds();
        double* const to = r.data() + own.first;
#pragma omp parallel for schedule(static) default(none) shared(c, to, ntrait)
        for (std::int64_t j = 0; j < c.rows; ++j)
            for (std::int64_t t = 0; t < ntrait; ++t) to[j * ntrait + t] += c(j, t);
    }
    for (std::int64_t i = 0; i < order * n; ++i)
        of_left.data[i] = tau_by_beta_ * of_left.data[i] - omega_ * of_u.data[i];
    add_times_ginv(animals_, a22i_.levels(), 1.0, of_left, r);
    text += " Huge_covariable * x (single step) : " + realtochar(seconds, "(f0.3)");
}

void single_step_block::timesx_difference(std::span<huge_effect> huge, std::span<const double> x,
                                          std::span<double> r, std::string& text) {
    const std::int64_t order = animals_.order(), n = a22i_.size(), m = std::ssize(neighbours_);
    const std::int64_t ntrait = ntrait_;
    const matrix_view<double> v = columns(in_, 0, order), a = columns(in_, order, order);
    const matrix_view<double> around{around_.data(), m, order, m};
    gather(animals_, a22i_.levels(), x, a);
    gather(animals_, neighbours_, x, around);
    std::copy_n(a.data, order * n, v.data);
    for (std::size_t k = 0; k < members_.size(); ++k)
        for (std::int64_t t = 0; t < ntrait; ++t) {
            const std::int64_t i = members_[k].entry[t];
            const double* const wg = huge[k].sumestimates.data();
            for (std::int64_t row = 0; row < n; ++row) {
                v(row, i) += wg[row * ntrait + t];
                around(place_[row], i) += wg[row * ntrait + t];
            }
        }
    apply_a22i(text);
    const matrix_view<double> of_v = columns(out_, 0, order), of_a = columns(out_, order, order);
    // a gets (tau / beta) A22^-1 a - A22^-1 v, and what A^-1 makes of W g below.
    for (std::int64_t i = 0; i < order * n; ++i) of_a.data[i] = tau_by_beta_ * of_a.data[i] - of_v.data[i];
    add_times_ginv(animals_, a22i_.levels(), 1.0, of_a, r);
    // q = A^-1 v - A22^-1 v
    const matrix_view<double> q = of_v;
    beside_.multgenm(1.0, 'n', around, -1.0, q);
    for (std::size_t k = 0; k < members_.size(); ++k) {
        huge_effect& own = huge[k];
        if (!own.pending) std::ranges::fill(own.res_edhc, 0.0);
        own.pending = true;
        for (std::int64_t t = 0; t < ntrait; ++t) {
            const std::int64_t i = members_[k].entry[t];
            for (std::int64_t row = 0; row < n; ++row) {
                double sum = 0.0;
                for (std::int64_t j = 0; j < order; ++j) sum += animals_.ginv(j, i) * q(row, j);
                own.res_edhc[row * ntrait + t] += sum;
            }
        }
    }
    // A^-1 of W g alone: the animal effect has had its own.
    const matrix_view<double> wg = v;
    for (std::int64_t i = 0; i < order * n; ++i) wg.data[i] -= a.data[i];
    beside_.multgenm(1.0, 't', wg, 0.0, around);
    add_times_ginv(animals_, neighbours_, 1.0, around, r);
}

}  // namespace zendar::modmmeiod
