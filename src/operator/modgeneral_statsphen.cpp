#include <algorithm>
#include <cmath>
#include <string>
#include <unordered_map>
#include <vector>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modgeneral.hpp"

namespace zendar {

namespace {

constexpr std::int32_t most_traits = 64;  ///< bits of a combination code

/// Sums of the observations of one trait.
struct trait_sums {
    std::int64_t count = 0;
    double sum = 0.0, squares = 0.0, minimum = 1e17, maximum = -1e17;

    [[nodiscard]] double mean() const { return sum / static_cast<double>(count); }
    /// Without a correction of the count. Rounding can leave a variance of zero slightly negative.
    [[nodiscard]] double sd() const {
        return std::sqrt(std::max(0.0, squares / static_cast<double>(count) - mean() * mean()));
    }
};

/// Adds a record to the sums. @returns its code, with a bit for each observed trait.
std::int64_t add_record(std::span<const double> phen, double rmissing, std::span<trait_sums> sums) {
    std::uint64_t code = 0;
    for (std::size_t t = 0; t < phen.size(); ++t) {
        const double y = phen[t];
        if (y == rmissing) continue;
        trait_sums& trait = sums[t];
        ++trait.count;
        trait.sum += y;
        trait.squares += y * y;
        trait.minimum = std::min(trait.minimum, y);
        trait.maximum = std::max(trait.maximum, y);
        code |= std::uint64_t{1} << t;
    }
    return static_cast<std::int64_t>(code);
}

/// The codes seen so far, numbered from 1 by their first appearance.
class combination_list {
  public:
    std::int32_t number_of(std::int64_t code) {
        if (last_number_ > 0 && code == last_code_) return last_number_;
        const auto [found, is_new] = numbers_.try_emplace(code, static_cast<std::int32_t>(codes_.size()) + 1);
        if (is_new) codes_.push_back(code);
        last_code_ = code;
        last_number_ = found->second;
        return last_number_;
    }
    [[nodiscard]] const std::vector<std::int64_t>& codes() const { return codes_; }

  private:
    std::unordered_map<std::int64_t, std::int32_t> numbers_;
    std::vector<std::int64_t> codes_;
    std::int64_t last_code_ = 0;  // most records have the code of the one before
    std::int32_t last_number_ = 0;
};

/// Puts the text at a column, from 1, as a tab of an edit descriptor does.
void tab_to(std::string& line, std::size_t column, std::string_view text) {
    line.resize(column - 1, ' ');
    line += text;
}

std::string table_header() {
    std::string line;
    tab_to(line, 1, "Trait");
    tab_to(line, 19, "Mean");
    tab_to(line, 33, "SD");
    tab_to(line, 44, "Min");
    tab_to(line, 56, "Max");
    tab_to(line, 66, "#obs");
    tab_to(line, 73, "%obs");
    return line;
}

std::string table_row(std::int32_t t, const trait_sums& trait, std::int64_t nrec) {
    const std::string label = "Trait" + format_int(t, "i3") + "    ";
    if (trait.count <= 0) return label + "Warning : No record for this trait!";
    const auto real = [](double x) { return format_real(x, "f10.2") + "  "; };
    const double percentage = 100.0 * static_cast<double>(trait.count) / static_cast<double>(nrec);
    return label + real(trait.mean()) + real(trait.sd()) + real(trait.minimum) + real(trait.maximum) +
           format_int(trait.count, "i9") + " " + format_real(percentage, "f6.2");
}

std::string combination_row(std::int64_t number, std::int64_t code, std::int32_t ntrait) {
    std::string line = "Combination           " + format_int(number, "i6") + ": ";
    for (std::int32_t t = 0; t < ntrait; ++t)
        line += (static_cast<std::uint64_t>(code) >> t & 1U) != 0 ? 'T' : '.';
    return line;
}

/// Makes the report's own logger ready.
void open_report(logger& report, logger& log) {
    constexpr int any_width = 1 << 20;
    report.configure({.max_width = any_width, .indent = false});
    report.tell_failures_to(log);
    report.add_log_file("log_stats.dat");
}

}  // namespace

void statsphen(param_type& param, matrix_view<const double> phen, std::span<std::int32_t> combitrait,
               double rmissing, logger& report, logger& log) {
    if (param.ntrait > most_traits)
        fatal(log,
              "The combinations of traits can be told apart for up to 64 traits; the model has " +
                  inttochar(param.ntrait),
              "modgeneral", "statsphen");
    report.message("STATISTICS FOR PHENOTYPES");
    report.message("");

    const std::int64_t nrec = phen.cols;
    std::vector<trait_sums> sums(static_cast<std::size_t>(param.ntrait));
    combination_list combinations;
    bool only_missing = false;
    for (std::int64_t i = 0; i < nrec; ++i) {
        const std::int64_t code = add_record(phen.column(i), rmissing, sums);
        only_missing = only_missing || code == 0;
        combitrait[i] = combinations.number_of(code);
    }
    param.combination = combinations.codes();
    param.ncombination = static_cast<std::int32_t>(param.combination.size());

    report.message("Number of phenotypes: " + inttochar(nrec));
    report.message("Number of traits    : " + inttochar(param.ntrait));
    report.message(table_header());
    for (std::int32_t t = 1; t <= param.ntrait; ++t) report.message(table_row(t, sums[t - 1], nrec));
    report.message("Number of trait combinations: " + inttochar(param.ncombination));
    for (std::int64_t k = 0; k < param.ncombination; ++k)
        report.message(combination_row(k + 1, param.combination[k], param.ntrait));
    if (only_missing) report.warning("Some observations have only missing records");
}

void statsdata(param_type& param, phenotype_data& data, double rmissing, logger& log,
               std::span<const std::unique_ptr<pedigree_type>> ped) {
    logger report;
    open_report(report, log);
    data.combitrait.resize(static_cast<std::size_t>(data.phen.cols()));
    statsphen(param, data.phen.view(), data.combitrait, rmissing, report, log);
    statsped(param, ped, report, log);
    if (std::ranges::any_of(param.type_random, is_ploidy_code)) statspedploidy(param, ped, report, log);
}

}  // namespace zendar
