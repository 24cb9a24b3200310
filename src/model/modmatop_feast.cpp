#include "modmatop_feast.hpp"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <numeric>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modmatop_feast_detail.hpp"

namespace zendar {
namespace {

using detail::found_pairs;
using detail::shifted_matrix;

constexpr const char* module_tag = "modmatop";
constexpr const char* procedure_tag = "eigendfeastscsrev";
constexpr double end_margin = 1e-12;

/// Eigenvalues up to a place of the axis.
struct counted {
    double at = 0.0;
    std::int64_t below = 0;
};

counted count_at(shifted_matrix& a, double at) {
    return {at, a.below(at)};
}

/// Halves [low, high] on the logarithmic scale until the ends are close. `go_up(count)` tells that the place
/// sought lies above the middle, `exact(count)` that the middle, which then is the end set last, will do.
template <class GoUp, class Exact>
void bisect(shifted_matrix& a, counted& low, counted& high, double ratio, const GoUp& go_up,
            const Exact& exact) {
    while (high.at > ratio * low.at) {
        const counted middle = count_at(a, std::sqrt(low.at * high.at));
        (go_up(middle.below) ? low : high) = middle;
        if (exact(middle.below)) return;
    }
}

constexpr auto never = [](std::int64_t) { return false; };

/// A part of the interval, with the number of eigenvalues that are wanted of it.
struct slice {
    counted low, high;
    std::int64_t wanted = 0;
};

/// The parts that hold the eigenvalues to be found: one when all are, else those at the end that is kept,
/// with what cannot be split, i.e. a repeated eigenvalue, as a part of its own.
std::vector<slice> choose(shifted_matrix& a, counted low, counted high, std::int64_t most, spectrum_end end) {
    constexpr double not_split = 1.0 + 1e-9;
    const std::int64_t inside = high.below - low.below;
    if (inside <= most) return {{low, high, inside}};
    std::vector<slice> parts;
    counted l = low, h = high;
    if (end == spectrum_end::lowest) {
        bisect(
            a, l, h, not_split, [&](std::int64_t below) { return below - low.below <= most; },
            [&](std::int64_t below) { return below - low.below == most; });
        parts.push_back({low, l, l.below - low.below});
        parts.push_back({l, h, most - parts.front().wanted});
    } else {
        bisect(
            a, l, h, not_split, [&](std::int64_t below) { return high.below - below > most; },
            [&](std::int64_t below) { return high.below - below == most; });
        parts.push_back({h, high, high.below - h.below});
        parts.push_back({l, h, most - parts.front().wanted});
    }
    std::erase_if(parts, [](const slice& part) { return part.wanted == 0; });
    return parts;
}

/// A place for a shift on the far side of `at`, where the count is `below` too, so that the first eigenvalue
/// is not much nearer than its neighbours: else these would lose accuracy. Between `at` and `known` the count
/// does not change.
double stand_off(shifted_matrix& a, double at, double known, std::int64_t below, spectrum_end end) {
    constexpr double distance = 1.25;
    const bool lowest = end == spectrum_end::lowest;
    const double away = lowest ? at / distance : at * distance;
    if (lowest ? away >= known : away <= known) return away;
    return a.below(away) == below ? away : known;
}

/// Finds the eigenvalues of a part, from its end on, by shifts each of which serves eigenvalues of similar
/// size: those far from a shift lose accuracy.
void find_in_part(shifted_matrix& a, const slice& part, spectrum_end end, found_pairs& found) {
    constexpr double close = 1.5, width = 100.0;
    std::int64_t wanted = part.wanted;
    counted low = part.low, high = part.high;
    while (wanted > 0) {
        counted l = low, h = high;
        if (end == spectrum_end::lowest) {
            bisect(
                a, l, h, close, [&](std::int64_t below) { return below == low.below; }, never);
            const counted bound = high.at > width * l.at ? count_at(a, width * l.at) : high;
            const std::int64_t here = std::min(wanted, bound.below - low.below);
            const double shift = stand_off(a, l.at, low.at, low.below, end);
            detail::eigenpairs_of_slice(a.factorize(shift), 1.0, bound.at, here, a.order(), found);
            wanted -= here;
            low = bound;
        } else {
            bisect(
                a, l, h, close, [&](std::int64_t below) { return below != high.below; }, never);
            const counted bound = h.at > width * low.at ? count_at(a, h.at / width) : low;
            const std::int64_t here = std::min(wanted, high.below - bound.below);
            const double shift = stand_off(a, h.at, high.at, high.below, end);
            detail::eigenpairs_of_slice(a.factorize(shift), -1.0, bound.at, here, a.order(), found);
            wanted -= here;
            high = bound;
        }
    }
}

eigenpairs sorted(const found_pairs& found, std::int32_t n) {
    const std::size_t count = found.values.size();
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::ranges::stable_sort(order, {}, [&found](std::size_t k) { return found.values[k]; });
    eigenpairs result;
    result.vectors = matrix<double>(n, static_cast<std::int64_t>(count));
    for (std::size_t k = 0; k < count; ++k) {
        result.values.push_back(found.values[order[k]]);
        const auto from = found.vectors.begin() + static_cast<std::ptrdiff_t>(order[k]) * n;
        const auto largest =
            std::max_element(from, from + n, [](double x, double y) { return std::fabs(x) < std::fabs(y); });
        const double sign = n > 0 && *largest < 0.0 ? -1.0 : 1.0;
        std::transform(from, from + n, result.vectors.column(static_cast<std::int64_t>(k)).begin(),
                       [sign](double x) { return sign * x; });
    }
    return result;
}

}  // namespace

eigenpairs dfeast_scsrev(const crssparse& m, double lower, double upper, std::int32_t subspace,
                         spectrum_end end, logger& log) {
    assert(lower > 0.0 && upper > lower && subspace > 0);
    if (m.getdim(1) == 0) return {};
    shifted_matrix a(m, log);
    constexpr double indistinct = 2e-14;
    const double least = indistinct * a.norm();
    if (least > lower)
        log.message("Eigenvalues below " + realtochar(least, "(e12.5)") +
                    " cannot be told from 0 and are left out");
    const double first = std::max(lower, least) * (1.0 - end_margin);
    const double last = std::min(upper, a.norm()) * (1.0 + end_margin);
    if (!(last > first)) return {};
    const counted low = count_at(a, first), high = count_at(a, last);
    const std::int64_t inside = std::max<std::int64_t>(high.below - low.below, 0);
    if (inside > subspace)
        log.warning("The interval holds " + inttochar(inside) + " eigenvalues: only the " +
                        (end == spectrum_end::lowest ? "lowest " : "highest ") + inttochar(subspace) +
                        " are computed",
                    module_tag, procedure_tag);
    if (inside == 0) return {};

    found_pairs found;
    for (const slice& part : choose(a, low, high, subspace, end)) find_in_part(a, part, end, found);
    eigenpairs result = sorted(found, a.order());
    result.inside = inside;
    result.missing = std::min<std::int64_t>(inside, subspace) - std::ssize(result.values);
    if (result.missing > 0)
        log.warning(inttochar(result.missing) + " eigenvalues of the interval were not found", module_tag,
                    procedure_tag);
    log.message("Number of factorisations: " + inttochar(a.factorisations()));
    return result;
}

void eigendfeastscsrev(const crssparse& m, double lower, double upper, std::int32_t subspace,
                       const std::string& label, logger& log) {
    const spectrum_end end = label == "max" ? spectrum_end::highest : spectrum_end::lowest;
    const eigenpairs pairs = dfeast_scsrev(m, lower, upper, subspace, end, log);
    const std::string interval =
        " from " + realtochar(lower, "(e12.5)") + " to " + realtochar(upper, "(e12.5)");
    if (pairs.inside == 0)
        log.message("There are no eigenvalues" + interval);
    else
        log.message("Number of eigenvalues" + interval + ": " + inttochar(pairs.inside));

    const auto write = [&log](const std::string& name, const auto& content) {
        const auto check = [&](const std::optional<file_error>& why) {
            if (why)
                fatal_io(log, "Cannot write the file " + name, module_tag, procedure_tag, why->iostat,
                         why->iomsg);
        };
        file_writer file;
        check(file.open(name));
        content(file);
        check(file.commit());
    };
    write("eigenvalue_lhs." + label, [&pairs](file_writer& file) {
        for (const double value : pairs.values) file.write(realtochar(value, "g0") + "\n");
    });
    write("eigenvector_lhs." + label, [&pairs](file_writer& file) {
        std::string line;
        for (std::int64_t i = 0; !pairs.values.empty() && i < pairs.vectors.rows(); ++i) {
            line.clear();
            for (std::int64_t k = 0; k < pairs.vectors.cols(); ++k)
                line += (k > 0 ? " " : "") + realtochar(pairs.vectors(i, k), "g0");
            file.write(line + "\n");
            if (file.failed()) return;
        }
    });
}

}  // namespace zendar
