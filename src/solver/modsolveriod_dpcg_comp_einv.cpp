#include <algorithm>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modmatop.hpp"
#include "modsolveriod_detail.hpp"
#include "modsolveriod_dpcg_comp.hpp"
#include "modstats.hpp"

namespace zendar {

namespace {

constexpr std::string_view module_tag = "modsolveriod";
constexpr std::int32_t most_plain = 20;  ///< subdomains that are worth no other way than products with C
constexpr std::int64_t vectors_of_product = 32;
constexpr const char* text_file = "def_einv_20.dat";
constexpr const char* stream_file = "def_einv.stream";

/// Column `column` of E, as far as it comes from one product with C.
void multiply_subdomain(linear_system& system, const subdomains& z, std::int32_t column, std::span<double> v,
                        std::span<double> w, std::span<double> sums) {
    for (std::size_t i = 0; i < v.size(); ++i) v[i] = z.of[i] == column ? 1.0 : 0.0;
    system.atimesx(v, w);
    std::ranges::fill(sums, 0.0);
    for (std::size_t i = 0; i < w.size(); ++i)
        if (z.of[i] > 0) sums[z.of[i] - 1] += w[i];
}

std::string rows_of(const matrix<double>& e) {
    std::string text;
    for (std::int64_t i = 0; i < e.rows(); ++i) {
        for (std::int64_t j = 0; j < e.cols(); ++j) text += (j > 0 ? " " : "") + realtochar(e(i, j), "(g0)");
        text += "\n";
    }
    return text;
}

void check_written(const std::optional<file_error>& error, const char* name, logger& log) {
    if (error)
        fatal_io(log, std::string("Cannot write the file ") + name, module_tag, "createeinv", error->iostat,
                 error->iomsg);
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
    log.message("Start the computation of inv(ZAZ)");
    matrix<double> e(z.nsub, z.nsub);
    const wtime clock;
    if (z.nsub <= most_plain || structured == nullptr)
        createeinv(system, z, e.view());
    else
        createeinv_opt_1(system, *structured, z, e.view(), log);
    log.message("     Wall clock time (s) for the products: " + realtochar(clock.seconds(), "(f0.3)"));
    std::string text = rows_of(e) + "*******\n";
    // Rounding must not decide on which triangle is right.
    for (std::int64_t j = 0; j < e.cols(); ++j)
        for (std::int64_t i = 0; i < j; ++i) e(i, j) = e(j, i) = 0.5 * (e(i, j) + e(j, i));
    const wtime inversion;
    if (!invsym(e.view(), log))
        fatal(
            log,
            "The Galerkin matrix of the subdomains is not positive definite: a subdomain has no equation, or "
            "depends on others",
            module_tag, "createeinv");
    log.message("     Wall clock time (s) for the inversion: " + realtochar(inversion.seconds(), "(f0.3)"));
    const wtime writing;
    text += rows_of(e) + "*******\n";
    file_writer out;
    check_written(out.open(text_file), text_file, log);
    out.write(text);
    check_written(out.commit(), text_file, log);
    file_writer stream;
    check_written(stream.open(stream_file), stream_file, log);
    stream.write_values(std::span<const double>(e.values()));
    check_written(stream.commit(), stream_file, log);
    log.message("     Wall clock time (s) for writing: " + realtochar(writing.seconds(), "(f0.3)"));
    log.message("inv(ZAZ) computed (and saved to file)");
    log.message(" Elapsed time to compute inv(ZAZ): " + realtochar(clock.seconds(), "(f0.3)"));
    return e;
}

void computegalerkin(const param_type& param, linear_system& system, structured_operator* structured,
                     const subdomains& z, logger& log) {
    if (param.solver.galerkin != "none") fatal(log, "Internal error", module_tag, "computegalerkin");
    static_cast<void>(computeeinv(system, structured, z, log));
}

}  // namespace zendar
