#include "modbasic.hpp"
#include "modmmeiod_detail.hpp"
#include "modmmeiod_huge.hpp"
#include "modmmeiod_ls.hpp"
#include "modstats.hpp"

namespace zendar {

void mme_iod::least_squares(const modmmeiod::record_input& in, std::span<double> r,
                            std::span<const modmmeiod::equation_stretch> started) {
    modmmeiod::ls_work work;
    work.started = started;
    work.blocks = state_.blocks;
    work.residual = state_.residual;
    std::vector<std::span<double>> results{r};
    for (modmmeiod::huge_effect& huge : state_.huge)
        if (!huge.res_edhc.empty()) {
            results.emplace_back(huge.res_edhc);
            huge.pending = true;
        }
    work.results = results;
    work.shared_equations = param_.landeffect;
    kernel()->run(in, work);
}

void mme_iod::computeleastsquarepart(std::span<const double> x, std::span<double> r) {
    modmmeiod::record_input in = records();
    in.x = x.data();
    least_squares(in, r);
    summarize_all(r);
}

void mme_iod::atimesx(std::span<const double> x, std::span<double> r) {
    std::string text = "  Elapsed time (s) - C * x  :";
    if (param_.nhuge > 0) {
        const wtime huge_clock;
        compute_sumestimates(x);
        text += " Huge_covariable * x     : " + realtochar(huge_clock.seconds(), "(f0.3)");
    }
    const wtime diagonal_clock;
    const std::vector<modmmeiod::equation_stretch> started = set_random_diagonals(x, r);
    const double diagonal_seconds = diagonal_clock.seconds();
    const wtime least_squares_clock;
    modmmeiod::record_input in = records();
    in.x = x.data();
    least_squares(in, r, started);
    // What Z' is to multiply of an effect of type 22 is complete only with the random part.
    for (modmmeiod::huge_effect& huge : state_.huge)
        if (param_.type_random_eff[huge.effect - 1] != 22) summarize(huge, r);
    text += " Least squares part * x  : " + realtochar(least_squares_clock.seconds(), "(f0.3)");
    const wtime random_clock;
    add_random_part(x, r, true, text);
    text += " Total random part * x   : " + realtochar(diagonal_seconds + random_clock.seconds(), "(f0.3)");
    log_.message(text);
}

}  // namespace zendar
