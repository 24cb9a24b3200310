#include <string>
#include <vector>

#include "modbasic.hpp"
#include "modpedigree_detail.hpp"
#include "modpedigree_ploidy.hpp"

namespace zendar {

namespace {

constexpr const char* module_tag = "modpedigree";
constexpr const char* procedure_tag = "computefounderploidy";

/// Stops, or warns, with the levels concerned.
class founder_report {
  public:
    founder_report(const pedigree_ploidy_type& ped, logger& log)
        : log_(log), file_(ped.filename ? "\nFile " + *ped.filename : std::string()) {}

    [[noreturn]] void stop(const std::string& text, const std::string& where) const {
        fatal(log_, text + "\n" + where + file_, module_tag, procedure_tag);
    }
    void warn(const std::string& text, const std::vector<std::int32_t>& levels) const {
        if (levels.empty()) return;
        log_.warning(text + ": " + inttochar(std::ssize(levels)) + " (" + detail::first_few(levels) + ")",
                     module_tag, procedure_tag);
    }

  private:
    logger& log_;
    std::string file_;
};

bool is_founder(const pedigree_ploidy_type& ped, std::int32_t level) {
    return ped.giver(0, level) == 0 && ped.giver(1, level) == 0;
}

void check_range(const pedigree_ploidy_type& ped, const founder_report& report) {
    for (std::int32_t i = 1; i <= ped.nlength(); ++i)
        for (const double lambda : ped.lambda.column(i - 1))
            if (!(lambda >= 0.0 && lambda <= 1.0))
                report.stop("Issue with values of lambda", "Level " + inttochar(i) + ": " +
                                                               realtochar(lambda, "(g0.6)") +
                                                               " does not lie between 0 and 1");
}

/// Calls use(founder, copies, lambda, offspring) for all gametes that founders give.
template <class Use>
void for_gametes_of_founders(const pedigree_ploidy_type& ped, Use&& use) {
    for (std::int32_t i = 1; i <= ped.nlength(); ++i)
        for (std::int64_t k = 0; k < 2; ++k)
            if (const std::int32_t giver = ped.giver(k, i); giver > 0 && is_founder(ped, giver))
                use(giver, ped.tau(k, i - 1), ped.lambda(k, i - 1), i);
}

/// Gives copies to founders without a line, whose lambdas are left for later. @returns these founders.
std::vector<std::int32_t> complete_copies(pedigree_ploidy_type& ped, const founder_report& report) {
    const std::int32_t n = ped.nlength();
    std::vector<std::int32_t> smallest(static_cast<std::size_t>(n), 0);  // [level - 1], 0: no offspring
    for_gametes_of_founders(ped, [&](std::int32_t founder, std::int32_t copies, double, std::int32_t) {
        std::int32_t& least = smallest[founder - 1];
        if (least == 0 || copies < least) least = copies;
    });
    std::vector<std::int32_t> completed, alone;
    bool diploid = true;
    for (std::int32_t i = 1; i <= n; ++i) {
        if (ped.ploidy(i) == 0) {
            completed.push_back(i);
            if (smallest[i - 1] == 0) alone.push_back(i);
            const std::int32_t copies = std::max(smallest[i - 1], 1);
            ped.tau(0, i - 1) = ped.tau(1, i - 1) = copies;
        }
        diploid = diploid && ped.ploidy(i) == 2;
    }
    if (!diploid)
        report.warn("Levels without a line and without offspring, which count as diploid founders", alone);
    return completed;
}

}  // namespace

void pedigree_ploidy_type::computefounderploidy(logger& log) {
    log.message("Start computation of founders");
    if (nupg < 0) fatal(log, "Number of UPGs < 0 (internal error)", module_tag, procedure_tag);
    const founder_report report(*this, log);
    check_range(*this, report);
    const std::vector<std::int32_t> completed = complete_copies(*this, report);

    // Of regular gametes. A lambda of its own line is that of the gametes which made a founder.
    constexpr double none = -1.0;
    std::vector<double> regular(static_cast<std::size_t>(nlength()), none);
    for_gametes_of_founders(*this, [&](std::int32_t founder, std::int32_t copies, double chance,
                                       std::int32_t offspring) {
        if (2 * std::int64_t{copies} != ploidy(founder)) return;
        double& first = regular[founder - 1];
        if (first == none) first = chance;
        if (first != chance)
            report.stop("The same founder is associated with different values of lambda.",
                        "Level " + inttochar(founder) + ": " + realtochar(first, "(g0.6)") +
                            " and, at level " + inttochar(offspring) + ", " + realtochar(chance, "(g0.6)"));
    });
    for (const std::int32_t founder : completed)
        lambda(0, founder - 1) = lambda(1, founder - 1) = std::max(regular[founder - 1], 0.0);

    std::vector<std::int32_t> above_zero;
    for (std::int32_t i = 1; i <= nlength(); ++i) {
        if (!is_founder(*this, i)) continue;
        bool above = regular[i - 1] > 0.0;
        for (std::int64_t k = 0; k < 2; ++k)
            above = above || (2 * std::int64_t{tau(k, i - 1)} == ploidy(i) && lambda(k, i - 1) > 0.0);
        if (!above) continue;
        if (ploidy(i) == 2)
            report.stop("Diploid founders with a lambda different than 0", "Level " + inttochar(i));
        above_zero.push_back(i);
    }
    report.warn("Lambda of some founders are higher than 0", above_zero);
}

}  // namespace zendar
