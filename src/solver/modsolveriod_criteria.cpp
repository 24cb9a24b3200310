#include <algorithm>
#include <cmath>

#include "modsolveriod_detail.hpp"

namespace zendar::detail {

criteria::criteria(solver_type& solver, logger& log) : solver_(solver) {
    constexpr double not_converged = 1.0e6;
    const std::string& type = solver.convtype;
    family_ = type == "ck" || type == "cm" || type == "cc";
    if (type == "cr" || type == "cd") {
        solver.eigmin = 1.0;
        solver.condnumber = 1.0;
    } else if (type == "ck") {
        solver.condnumber = 1.0;
    } else if (!family_) {
        fatal(log, "This type of convergence criterion \"" + type + "\" is not implemented", "modsolveriod",
              "solver_pcg_iod");
    }
    if (type == "cd") {
        selected_ = &cd_;
        cd_ = not_converged;
    } else if (type == "ck") {
        selected_ = &ck_;
        ck_ = not_converged;
    } else if (type == "cm") {
        selected_ = &cm_;
        cm_ = not_converged;
    } else if (type == "cc") {
        selected_ = &cc_;
        ck_ = cm_ = cc_ = not_converged;
    }
}

void criteria::start(double bb, double rr, double normminvb) {
    bb_ = bb;
    normminvb_ = normminvb;
    cr_ = rr / bb;
}

void criteria::iterated(const pcg_state& s) {
    cr_ = s.rr / bb_;
    cd_ = s.dd / s.xx;
    const double ratio1 = std::sqrt(s.zz) / std::sqrt(s.xx), ratio2 = std::sqrt(s.zz) / normminvb_;
    ck_ = family_ ? ratio1 / solver_.eigmin : ratio1;
    cm_ = family_ ? ratio2 * solver_.condnumber : ratio2;
    cc_ = std::min(ck_, cm_);
}

convergence_values criteria::row(const pcg_state& s) const {
    convergence_values values{.tau = s.tau, .cr = cr_, .cd = cd_, .maxdiff = s.maxdiff};
    if (s.i <= 2) return values;  // of one update the bounds say nothing
    values.ck = ck_;
    values.ck_unscaled = ck_ * solver_.eigmin;
    values.cm = cm_;
    values.cm_unscaled = cm_ / solver_.condnumber;
    return values;
}

}  // namespace zendar::detail
