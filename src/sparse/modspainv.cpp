#include "modspainv.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "modbasic.hpp"
#include "modsparse_inv.hpp"
#include "modstats.hpp"

namespace zendar {

namespace {

/// What `get_ichol_spainv_crs` makes of the matrix.
enum class selector { chol, ichol, ldlt, spainv };

[[noreturn]] void stop(logger* unlog, const std::string& message) {
    if (unlog != nullptr) fatal_plain(*unlog, message);
    throw fatal_error(message);
}

template <std::signed_integral Index>
void check_matrix(const std::vector<Index>& ia, const std::vector<std::int32_t>& ja,
                  const std::vector<double>& a, logger* unlog) {
    if (ia.empty() || ia.front() != 1 || ja.size() != a.size() ||
        !std::in_range<std::int32_t>(ia.size() - 1) || std::cmp_not_equal(ia.back(), ja.size() + 1))
        stop(unlog, " ERROR: the row pointers of the CRS matrix do not fit its elements");
    const auto n = static_cast<std::int32_t>(ia.size()) - 1;
    for (std::int32_t i = 1; i <= n; ++i)
        if (ia[i] < ia[i - 1])
            stop(unlog, " ERROR: the row pointers of the CRS matrix decrease at row " + inttochar(i));
    for (std::int32_t i = 1; i <= n; ++i) {
        for (std::int64_t k = std::int64_t{ia[i - 1]} - 1; k < std::int64_t{ia[i]} - 1; ++k) {
            if (ja[k] < i || ja[k] > n)
                stop(unlog, " ERROR: the CRS matrix must be square and upper triangular stored");
            if (k > std::int64_t{ia[i - 1]} - 1 && ja[k] <= ja[k - 1])
                stop(unlog, " ERROR: row " + inttochar(i) + " of the CRS matrix is not sorted");
            if (!std::isfinite(a[k]))
                stop(unlog, " ERROR: the element (" + inttochar(i) + ", " + inttochar(ja[k]) +
                                ") of the CRS matrix is not a finite number");
        }
    }
}

void check_permutation(std::span<const std::int32_t> perm, std::int32_t n, logger* unlog) {
    if (perm.empty()) return;
    std::vector<char> seen(n, 0);
    if (std::ssize(perm) != n)
        stop(unlog, " ERROR: the permutation has " + inttochar(std::ssize(perm)) + " elements instead of " +
                        inttochar(n));
    for (const std::int32_t p : perm)
        if (p < 1 || p > n || std::exchange(seen[p - 1], char{1}) != 0)
            stop(unlog, " ERROR: the permutation does not hold each equation once, see " + inttochar(p));
}

/// Seconds of the steps, one after the other.
class step_clock {
  public:
    explicit step_clock(spainv_summary& summary) : summary_(summary) {}
    ~step_clock() { summary_.total = whole_.seconds(); }
    void end(spainv_step step) {
        summary_.seconds[static_cast<std::size_t>(step)] += step_.seconds();
        step_ = wtime();
    }

  private:
    spainv_summary& summary_;
    wtime whole_, step_;
};

void writetime(logger* unlog, selector what, const spainv_summary& summary) {
    if (unlog == nullptr) return;
    static constexpr std::array<const char*, n_spainv_step> names = {
        "Symbolic factorization", "Setup of tmp arrays", "Node determination",
        "Cholesky factorization", "Matrix inversion",    "Conversion to CRS"};
    const std::string heading = what == selector::spainv  ? "INVERSION"
                                : what == selector::ichol ? "SPARSE CHOL FACT."
                                                          : "CHOL FACT.";
    const auto line = [&](std::string name, double seconds) {
        name.resize(24, ' ');
        unlog->message("  " + name + ": " + realtochar(seconds, "(f0.3)") + " s");
    };
    unlog->message(heading + " CRS MATRIX ");
    for (std::int32_t i = 0; i < n_spainv_step; ++i)
        if (what == selector::spainv || i != static_cast<std::int32_t>(spainv_step::inversion))
            line(names[i], summary.seconds[i]);
    line("Total time", summary.total);
    if (summary.ndropped > 0) unlog->message("  Number of dropped pivots: " + inttochar(summary.ndropped));
}

void check_pivot(const modsparse_inv::supernodal_structure& s, modsparse_inv::factor_status status,
                 modsparse_inv::pivot_rule rule, logger* unlog) {
    if (status.column < 0) return;
    const std::string head = " ERROR: the pivot of equation " + inttochar(s.equation[status.column] + 1);
    if (rule == modsparse_inv::pivot_rule::drop)
        stop(unlog, head + " is negative: the matrix is not positive semidefinite");
    stop(unlog, head + " is not positive: the matrix is not positive definite");
}

template <std::signed_integral Index>
void check_size(std::int64_t elements, logger* unlog) {
    if (elements >= std::numeric_limits<Index>::max())
        stop(unlog, " ERROR: the result has " + inttochar(elements) +
                        " elements, too many for the row pointers of the CRS matrix");
}

/// The arrays of a result, which become the matrix's own at the very end.
template <std::signed_integral Index>
struct arrays {
    std::vector<Index> ia;
    std::vector<std::int32_t> ja;
    std::vector<double> a;
    arrays(std::int32_t n, std::int64_t elements)
        : ia(std::size_t{0} + n + 1), ja(static_cast<std::size_t>(elements)), a(ja.size()) {}
};

template <std::signed_integral Index>
spainv_summary get_ichol_spainv_crs(selector what, std::vector<Index>& ia, std::vector<std::int32_t>& ja,
                                    std::vector<double>& a, std::vector<double>* d,
                                    std::span<const std::int32_t> perm, const spainv_controls& controls) {
    using namespace modsparse_inv;
    logger* const unlog = controls.unlog;
    check_matrix(ia, ja, a, unlog);
    const auto n = static_cast<std::int32_t>(ia.size()) - 1;
    check_permutation(perm, n, unlog);
    const std::span<const Index> rows(ia);
    const std::span<const std::int32_t> columns(ja);
    const bool in_place = what == selector::spainv && controls.lmatrix_pattern;

    spainv_summary summary;
    {
        step_clock clock(summary);
        supernodal_structure s = symbolicfact(n, rows, columns, perm);
        summary.nfactor =
            what == selector::ichol ? static_cast<std::int64_t>(n + s.rowcol.size()) : s.elements();
        if (!in_place) check_size<Index>(summary.nfactor, unlog);
        clock.end(spainv_step::symbolic);
        permuted_matrix m = computexsparsdiag(s, rows, columns, std::span<const double>(a));
        clock.end(spainv_step::setup);

        if (what == selector::ichol) {
            check_pivot(s, incomplete_gsfct(s, m), pivot_rule::positive, unlog);
            clock.end(spainv_step::cholesky);
            arrays<Index> u(n, summary.nfactor);
            converttoija_noperm(s, m, std::span(u.ia), std::span(u.ja), std::span(u.a));
            ia = std::move(u.ia);
            ja = std::move(u.ja);
            a = std::move(u.a);
            clock.end(spainv_step::conversion);
        } else {
            s.nodes = super_nodes(s.parent, s.colcount);
            smbfct(s);
            summary.nsuper = s.nsuper();
            summary.largest = s.nodes.largest;
            summary.smallest = s.nodes.smallest;
            summary.nstored = s.xlnz[s.nsuper()];
            clock.end(spainv_step::nodes);

            progress_function progress;
            if (unlog != nullptr && controls.lprogress)
                progress = [line = progress_line(*unlog)](std::int64_t i, std::int64_t total) mutable {
                    line.progressloop(i, total);
                };
            const pivot_rule rule = what == selector::chol ? pivot_rule::positive : pivot_rule::drop;
            supernodal_factor f;
            check_pivot(s, super_gsfct(s, m, rule, f, progress), rule, unlog);
            summary.ndropped = f.ndropped;
            m = {};
            clock.end(spainv_step::cholesky);

            if (what == selector::spainv) {
                const int code = super_sparsinv(s, f, progress);
                if (code != 0) stop(unlog, "Routine DPOTRI returned error code " + inttochar(code));
                clock.end(spainv_step::inversion);
            }
            if (in_place) {
                converttoija_pattern(s, f, rows, columns, std::span(a));
            } else {
                arrays<Index> result(n, summary.nfactor);
                if (what == selector::spainv) {
                    converttoija(s, f, std::span(result.ia), std::span(result.ja), std::span(result.a));
                } else {
                    std::vector<double> pivots(what == selector::ldlt ? n : 0);
                    convertfactortoija(
                        s, f, what == selector::ldlt ? factor_form::ldlt : factor_form::cholesky,
                        std::span(result.ia), std::span(result.ja), std::span(result.a), std::span(pivots));
                    if (d != nullptr) *d = std::move(pivots);
                }
                ia = std::move(result.ia);
                ja = std::move(result.ja);
                a = std::move(result.a);
            }
            clock.end(spainv_step::conversion);
        }
    }
    writetime(unlog, what, summary);
    return summary;
}

}  // namespace

template <std::signed_integral Index>
spainv_summary get_chol_crs(std::vector<Index>& ia, std::vector<std::int32_t>& ja, std::vector<double>& a,
                            std::span<const std::int32_t> perm, const spainv_controls& controls) {
    return get_ichol_spainv_crs(selector::chol, ia, ja, a, nullptr, perm, controls);
}

template <std::signed_integral Index>
spainv_summary get_ichol_crs(std::vector<Index>& ia, std::vector<std::int32_t>& ja, std::vector<double>& a,
                             std::span<const std::int32_t> perm, const spainv_controls& controls) {
    return get_ichol_spainv_crs(selector::ichol, ia, ja, a, nullptr, perm, controls);
}

template <std::signed_integral Index>
spainv_summary get_ldlt_crs(std::vector<Index>& ia, std::vector<std::int32_t>& ja, std::vector<double>& a,
                            std::vector<double>& d, std::span<const std::int32_t> perm,
                            const spainv_controls& controls) {
    return get_ichol_spainv_crs(selector::ldlt, ia, ja, a, &d, perm, controls);
}

template <std::signed_integral Index>
spainv_summary get_spainv_crs(std::vector<Index>& ia, std::vector<std::int32_t>& ja, std::vector<double>& a,
                              std::span<const std::int32_t> perm, const spainv_controls& controls) {
    return get_ichol_spainv_crs(selector::spainv, ia, ja, a, nullptr, perm, controls);
}

using crs32 = std::vector<std::int32_t>;
using crs64 = std::vector<std::int64_t>;
using reals = std::vector<double>;
using order = std::span<const std::int32_t>;
template spainv_summary get_chol_crs(crs32&, crs32&, reals&, order, const spainv_controls&);
template spainv_summary get_chol_crs(crs64&, crs32&, reals&, order, const spainv_controls&);
template spainv_summary get_ichol_crs(crs32&, crs32&, reals&, order, const spainv_controls&);
template spainv_summary get_ichol_crs(crs64&, crs32&, reals&, order, const spainv_controls&);
template spainv_summary get_ldlt_crs(crs32&, crs32&, reals&, reals&, order, const spainv_controls&);
template spainv_summary get_ldlt_crs(crs64&, crs32&, reals&, reals&, order, const spainv_controls&);
template spainv_summary get_spainv_crs(crs32&, crs32&, reals&, order, const spainv_controls&);
template spainv_summary get_spainv_crs(crs64&, crs32&, reals&, order, const spainv_controls&);

}  // namespace zendar
