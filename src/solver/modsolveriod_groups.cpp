#include <algorithm>
#include <cassert>

#include "modbasic.hpp"
#include "modsolveriod_detail.hpp"

namespace zendar {

namespace {

constexpr std::string_view module_tag = "modsolveriod";

void check_effect(const param_type& param, std::int32_t e, logger& log) {
    if (e >= 1 && e <= param.neffect) return;
    fatal(log,
          "Convergence criteria cannot be computed for the effect " + inttochar(e) +
              ": it is not the number of an effect (1 to " + inttochar(param.neffect) + ")!",
          module_tag, "convergence_groups");
}

}  // namespace

std::vector<equation_range> convergence_groups(const param_type& param, logger& log) {
    const auto effects = [&](std::int32_t from, std::int32_t to) {
        check_effect(param, from, log);
        check_effect(param, to, log);
        return equation_range{param.ntrait * param.sumlevel[from] + 1, param.ntrait * param.sumlevel[to + 1]};
    };
    const solver_type& solver = param.solver;
    std::vector<equation_range> groups;
    if (!solver.conveffs.empty())
        for (const std::int32_t e : solver.conveffs) groups.push_back(effects(e, e));
    else if (solver.convpart != 0)
        groups.push_back(effects(1, solver.convpart));
    else if (solver.conveff != 0)
        groups.push_back(effects(solver.conveff, solver.conveff));
    return groups;
}

namespace detail {

void check_groups(std::span<const equation_range> groups, std::int64_t neq, logger& log) {
    for (const equation_range& group : groups)
        if (group.first < 1 || group.last > neq)
            fatal(log,
                  "Convergence criteria cannot be computed for eq. " + inttochar(group.first) + " to " +
                      inttochar(group.last) + ": the equations are 1 to " + inttochar(neq) + "!",
                  module_tag, "solver_pcg_iod");
}

group_convergence::group_convergence(std::span<const equation_range> groups, std::span<const double> b)
    : groups_(groups.begin(), groups.end()), cr_effect_(groups.size(), 0.0), cd_effect_(groups.size(), 1.0) {
    for (const equation_range& group : groups_) rhs_effect_.push_back(sum_of_squares(b, group));

    // Between two neighbouring ends all equations lie in the same groups.
    std::vector<std::int64_t> starts;
    for (const equation_range& group : groups_) {
        starts.push_back(group.first);
        starts.push_back(group.last + 1);
    }
    std::ranges::sort(starts);
    for (std::size_t k = 0; k + 1 < starts.size(); ++k) {
        const equation_range range{starts[k], starts[k + 1] - 1};
        const auto first_group = std::ranges::find_if(groups_, [&](const equation_range& group) {
            return group.first <= range.first && range.last <= group.last;
        });
        if (range.first <= range.last && first_group != groups_.end())
            segments_.push_back({range, static_cast<std::size_t>(first_group - groups_.begin())});
    }
}

void group_convergence::start(std::span<const double> r) {
    for (std::size_t g = 0; g < groups_.size(); ++g)
        cr_effect_[g] = sum_of_squares(r, groups_[g]) / rhs_effect_[g];
}

void group_convergence::iterated(const pcg_state& s, const pcg_vectors& v) {
    std::ranges::fill(cd_effect_, 0.0);
    for (const segment& part : segments_)
        cd_effect_[part.group] += s.alpha * s.alpha * sum_of_squares(v.p, part.range);
    for (std::size_t g = 0; g < groups_.size(); ++g) {
        cr_effect_[g] = sum_of_squares(v.r, groups_[g]) / rhs_effect_[g];
        cd_effect_[g] /= sum_of_squares(v.x, groups_[g]);
    }
}

}  // namespace detail

}  // namespace zendar
