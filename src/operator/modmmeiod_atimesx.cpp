#include "modbasic.hpp"
#include "modmmeiod_detail.hpp"
#include "modmmeiod_ls.hpp"
#include "modstats.hpp"

namespace zendar {

void mme_iod::least_squares(const modmmeiod::record_input& in, std::span<double> r) {
    modmmeiod::ls_work work;
    work.blocks = state_.blocks;
    work.residual = state_.residual;
    work.r = r;
    work.shared_equations = param_.landeffect;
    modmmeiod::find_ls_kernel(state_.loptimem, false)->run(in, work);
}

void mme_iod::computeleastsquarepart(std::span<const double> x, std::span<double> r) {
    modmmeiod::record_input in = records();
    in.x = x.data();
    least_squares(in, r);
}

void mme_iod::atimesx(std::span<const double> x, std::span<double> r) {
    std::string text = "  Elapsed time (s) - C * x  :";
    const wtime least_squares_clock;
    computeleastsquarepart(x, r);
    text += " Least squares part * x  : " + realtochar(least_squares_clock.seconds(), "(f0.3)");
    const wtime random_clock;
    computerandompart(x, r, text);
    text += " Total random part * x   : " + realtochar(random_clock.seconds(), "(f0.3)");
    log_.message(text);
}

}  // namespace zendar
