#include <algorithm>
#include <numeric>
#include <string>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modpedigree.hpp"
#include "modpedigree_ploidy.hpp"

namespace zendar {

namespace {

/// Writes a file of `n` lines; `line` gives the text of each, from 1.
template <class Line>
void write_lines(const std::string& file, std::int32_t n, logger& log, Line&& line) {
    file_writer output;
    auto failure = output.open(file);
    if (!failure) {
        for (std::int32_t i = 1; i <= n && !output.failed(); ++i) output.write(line(i));
        failure = output.commit();
    }
    if (failure)
        fatal_io(log, "Cannot write the file " + file, "modpedigree", "print_pedigree", failure->iostat,
                 failure->iomsg);
}

}  // namespace

void pedigree_type::print_pedigree(const std::string& prefix, logger& log) const {
    write_lines(prefix + "pedigree.varquil", nlength(), log,
                [&](std::int32_t i) { return list_form(sire(i)) + list_form(dam(i)) + "\n"; });
    write_lines(prefix + "inbreeding.varquil", static_cast<std::int32_t>(f.size()), log,
                [&](std::int32_t i) { return list_form(i) + list_form(f[i - 1]) + "\n"; });
}

void pedigree_ploidy_type::print_pedigree_ploidy(const std::string& prefix, logger& log) const {
    const auto copies = [&](std::int64_t which, std::int32_t i) {
        return " " + inttochar(tau(which, i - 1));
    };
    const auto chance = [&](std::int64_t which, std::int32_t i) {
        return " " + realtochar(lambda(which, i - 1), "(f0.3)");
    };
    write_lines(prefix + "pedigree.varquil", nlength(), log, [&](std::int32_t i) {
        return inttochar(sire(i)) + " " + inttochar(dam(i)) + copies(0, i) + copies(1, i) + chance(0, i) +
               chance(1, i) + "\n";
    });
    write_lines(prefix + "inbreeding.varquil", static_cast<std::int32_t>(f.size()), log,
                [&](std::int32_t i) { return inttochar(i) + " " + realtochar(f[i - 1], "(f0.3)") + "\n"; });
}

void pedigree_type::printstats_pedigree(logger& log) const {
    const std::int32_t ngroup = std::max(nupg, 0), nani = nlength() - ngroup;
    log.message("Number of levels (max ID)         : " + inttochar(nlength()));
    log.message("Number of (real) animals          : " + inttochar(nani));
    log.message("Number of declared genetic groups : " + inttochar(ngroup));
    if (f.empty()) return;
    const auto [lowest, highest] = std::minmax_element(f.begin(), f.end());
    const double sum = std::accumulate(f.begin(), f.end(), 0.0);
    log.message("Minimum inbreeding                : " + realtochar(*lowest, "(f0.3)"));
    log.message("Average inbreeding                : " + realtochar(nani > 0 ? sum / nani : 0.0, "(f0.3)"));
    log.message("Maximum inbreeding                : " + realtochar(*highest, "(f0.3)"));
}

}  // namespace zendar
