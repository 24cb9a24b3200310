#include <algorithm>

#include "modbasic.hpp"
#include "modsolveriod_dpcg_comp.hpp"
#include "modsolveriod_dpcg_detail.hpp"
#include "modstats.hpp"

namespace zendar {

namespace {

constexpr std::string_view module_tag = "modsolveriod";
constexpr std::int32_t most_plain = 20;  ///< subdomains that are worth no other way than products with C
constexpr std::int64_t vectors_of_product = 32;

/// Column `column` of E, as far as it comes from one product with C.
void multiply_subdomain(linear_system& system, const subdomains& z, std::int32_t column, std::span<double> v,
                        std::span<double> w, std::span<double> sums) {
    for (std::size_t i = 0; i < v.size(); ++i) v[i] = z.of[i] == column ? 1.0 : 0.0;
    system.atimesx(v, w);
    std::ranges::fill(sums, 0.0);
    for (std::size_t i = 0; i < w.size(); ++i)
        if (z.of[i] > 0) sums[z.of[i] - 1] += w[i];
}

}  // namespace

void createeinv(linear_system& system, const subdomains& z, matrix_view<double> e) {
    detail::work_vector v(system.size()), w(system.size());
    for (std::int32_t j = 1; j <= z.nsub; ++j) multiply_subdomain(system, z, j, v, w, e.column(j - 1));
}

void createeinv_opt_1(linear_system& system, structured_operator& structured, const subdomains& z,
                      matrix_view<double> e, logger& log) {
    const std::int64_t neq = system.size(), first = structured.first_structured();
    std::vector<bool> plain(static_cast<std::size_t>(z.nsub), false);
    for (std::int64_t i = 0; i < first; ++i)
        if (z.of[i] > 0) plain[z.of[i] - 1] = true;
    const std::int64_t nplain = std::ranges::count(plain, true);
    if (first < neq) {
        log.message(" Huge effects are present!");
        log.message(" Last equation considered in the first part       : " + inttochar(first));
        log.message(" Number of subdomains considered in the first part: " + inttochar(nplain));
    }
    {
        detail::work_vector v(neq), w(neq);
        for (std::int32_t j = 1; j <= z.nsub; ++j)
            if (plain[j - 1]) multiply_subdomain(system, z, j, v, w, e.column(j - 1));
    }
    std::vector<std::int32_t> others;
    for (std::int32_t j = 1; j <= z.nsub; ++j)
        if (!plain[j - 1]) others.push_back(j);
    const std::int64_t rows = neq - first;
    const std::int64_t nproduct = (std::ssize(others) + vectors_of_product - 1) / vectors_of_product;
    log.message("     Detailed numbers: " + inttochar(rows) + " equations, " + inttochar(std::ssize(others)) +
                " subdomains");
    log.message(" Number of multiplications: " + inttochar(nproduct));
    const wtime clock;
    std::vector<std::int64_t> place(static_cast<std::size_t>(z.nsub), -1);
    for (std::int64_t from = 0; from < std::ssize(others); from += vectors_of_product) {
        const std::int64_t n = std::min(vectors_of_product, std::ssize(others) - from);
        matrix<double> x(rows, n), r(rows, n);
        std::ranges::fill(place, -1);
        for (std::int64_t v = 0; v < n; ++v) place[others[from + v] - 1] = v;
        for (std::int64_t i = 0; i < rows; ++i)
            if (const std::int32_t sub = z.of[first + i]; sub > 0 && place[sub - 1] >= 0)
                x(i, place[sub - 1]) = 1.0;
        structured.atimesx_onlyhuge(x.view(), r.view());
        for (std::int64_t v = 0; v < n; ++v) {
            const std::int32_t column = others[from + v];
            for (std::int64_t i = 0; i < rows; ++i)
                if (const std::int32_t sub = z.of[first + i]; sub > 0 && !plain[sub - 1])
                    e(sub - 1, column - 1) += r(i, v);
        }
    }
    // What a subdomain of the first part has with the others came by its own product.
    for (std::int32_t j = 1; j <= z.nsub; ++j)
        for (std::int32_t i = 1; i <= z.nsub && !plain[j - 1]; ++i)
            if (plain[i - 1]) e(i - 1, j - 1) = e(j - 1, i - 1);
    log.message("     Wall clock time (s) for computing zaaaz  (" + inttochar(std::ssize(others)) +
                ") :" + realtochar(clock.seconds(), "(f0.3)"));
}

matrix<double> computeeinv(linear_system& system, structured_operator* structured, const subdomains& z,
                           logger& log) {
    const auto products = [&](matrix_view<double> e) {
        if (z.nsub <= most_plain || structured == nullptr)
            createeinv(system, z, e);
        else
            createeinv_opt_1(system, *structured, z, e, log);
    };
    return detail::compute_einv(
        z.nsub, products,
        "The Galerkin matrix of the subdomains is not positive definite: a subdomain has no equation, or "
        "depends on others",
        log);
}

void computegalerkin(const param_type& param, linear_system& system, structured_operator* structured,
                     const subdomains& z, logger& log) {
    if (param.solver.galerkin != "none") fatal(log, "Internal error", module_tag, "computegalerkin");
    static_cast<void>(computeeinv(system, structured, z, log));
}

}  // namespace zendar
