#include "modbasic.hpp"
#include "modmmeiod_a22i.hpp"
#include "modrandom.hpp"
#include "modstats.hpp"

namespace zendar {

std::vector<double> computediaga22i(a22_inverse& a22i, logger& log) {
    constexpr std::int64_t iterations = 200, columns = 5;
    constexpr std::uint32_t seed = 1;
    const std::int64_t n = a22i.size();
    log.message("Start the Gibbs sampler for estimating diag(A22-1)...");
    log.message("Number of iterations: " + inttochar(iterations));
    log.message("Number of RHS       : " + inttochar(columns));
    const wtime clock;
    bernoulli_stream stream(seed);
    std::vector<double> diagonal(static_cast<std::size_t>(n), 0.0);
    std::vector<double> work(static_cast<std::size_t>(a22i.work_size(columns)));
    matrix<double> z(n, columns), v(n, columns);
    for (std::int64_t iteration = 0; iteration < iterations; ++iteration) {
        for (double& value : z.values()) value = 2.0 * stream.next(0.5) - 1.0;
        a22i.computea22i_timesx(z.view(), v.view(), work);
        for (std::int64_t c = 0; c < columns; ++c)
            for (std::int64_t i = 0; i < n; ++i) diagonal[static_cast<std::size_t>(i)] += z(i, c) * v(i, c);
    }
    for (double& value : diagonal) value /= static_cast<double>(iterations * columns);
    log.message("End of Gibbs sampler - wall clock time (s): " + realtochar(clock.seconds(), "(f0.3)"));
    return diagonal;
}

}  // namespace zendar
