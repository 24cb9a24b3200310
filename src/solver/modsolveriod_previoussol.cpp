#include <algorithm>
#include <cmath>
#include <limits>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modsolveriod.hpp"
#include "modsolvertype_control.hpp"

namespace zendar {

namespace {

constexpr std::string_view module_tag = "modsolveriod";
constexpr std::string_view procedure = "computestatsprevioussol";

/// Sums over a set of equations, of the previous (a) and the current (c) solutions.
struct sums {
    double n = 0.0, a = 0.0, c = 0.0, aa = 0.0, cc = 0.0, ac = 0.0, dd = 0.0;
    double maxdiff = -1.0, c_at_maxdiff = 0.0;

    void add(double previous, double current) {
        const double d = current - previous;
        n += 1.0;
        a += previous;
        c += current;
        aa += previous * previous;
        cc += current * current;
        ac += previous * current;
        dd += d * d;
        if (std::fabs(d) > maxdiff) {
            maxdiff = std::fabs(d);
            c_at_maxdiff = current;
        }
    }
};

struct statistics {
    double r, slope, intercept, mse, maxdiff, maxrel;
};

statistics of(const sums& s) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    const double maxdiff = s.maxdiff < 0.0 ? nan : s.maxdiff;  // no difference was a number
    statistics result{nan, nan, nan, s.dd / s.n, maxdiff, maxdiff / std::fabs(s.c_at_maxdiff)};
    if (s.aa == 0.0 || s.cc == 0.0) return result;
    const double covariance = s.n * s.ac - s.a * s.c;
    const double variance_a = s.n * s.aa - s.a * s.a, variance_c = s.n * s.cc - s.c * s.c;
    result.r = covariance / (std::sqrt(variance_a) * std::sqrt(variance_c));
    result.slope = covariance / variance_a;
    result.intercept = s.c / s.n - result.slope * (s.a / s.n);
    return result;
}

/// The sums over all equations, and over each group. False when the file cannot be read whole.
bool read_sums(binary_reader& file, std::span<const double> x, std::span<const equation_range> groups,
               std::span<sums> sets) {
    constexpr std::int64_t block_size = 8192;
    std::vector<double> block(static_cast<std::size_t>(std::min<std::int64_t>(block_size, std::ssize(x))));
    for (std::int64_t first = 0; first < std::ssize(x); first += block_size) {
        const std::int64_t size = std::min(block_size, std::ssize(x) - first);
        if (!file.read_values(std::span(block).first(static_cast<std::size_t>(size)))) return false;
        const auto add = [&](std::int64_t from, std::int64_t end, sums& set) {
            for (std::int64_t i = std::max(from, first); i < std::min(end, first + size); ++i)
                set.add(block[i - first], x[i]);
        };
        add(0, std::ssize(x), sets[0]);
        for (std::size_t g = 0; g < groups.size(); ++g) add(groups[g].first - 1, groups[g].last, sets[g + 1]);
    }
    return true;
}

}  // namespace

void computestatsprevioussol(const param_type& param, std::int32_t iteration, std::span<const double> x,
                             std::span<const equation_range> groups, logger& log) {
    const std::string& name = param.solver.tmpsol;
    std::error_code ignored;
    if (!std::filesystem::exists(name, ignored)) return;

    const auto skip = [&](const std::string& reason) {
        log.warning("The file " + name + " holds no previous solutions of this model: " + reason, module_tag,
                    procedure);
    };
    binary_reader file;
    if (const auto failure = file.open(name)) return skip(failure->iomsg);
    if (file.size() != static_cast<std::int64_t>(x.size_bytes()))
        return skip("it has " + inttochar(file.size()) + " bytes instead of " +
                    inttochar(static_cast<std::int64_t>(x.size_bytes())));
    std::vector<sums> sets(groups.size() + 1);
    if (!read_sums(file, x, groups, sets)) return skip("it cannot be read");

    std::vector<statistics> values;
    for (const sums& set : sets) values.push_back(of(set));
    std::string row = "Iteration " + inttochar(iteration) + " = ";
    for (double statistics::*const member : {&statistics::r, &statistics::slope, &statistics::intercept,
                                             &statistics::mse, &statistics::maxdiff, &statistics::maxrel})
        for (const statistics& set : values)
            row += format_real(set.*member * (member == &statistics::maxrel ? 100.0 : 1.0), "g0.5") + " ";
    row_file(output_prefix(param.outputdir) + "stats_previous_sol.dat", log, row_file::position::append)
        .write(row);
}

}  // namespace zendar
