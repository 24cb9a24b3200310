#include "modgeneral_plot.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <limits>
#include <system_error>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modgeneral_detail.hpp"
#include "modplot.hpp"

namespace zendar {

namespace {

using detail::addressing;

constexpr std::int64_t max_bins = 30;
constexpr std::int64_t no_panel = -1;

// ---- counting --------------------------------------------------------------------------------------------

/// False for values without a place on an axis.
bool usable(double x) {
    return std::abs(x) < 1e300;
}

/// Twice the cube root of the number of values: few values need few bins.
std::int64_t number_of_bins(std::int64_t n) {
    return std::min(max_bins, static_cast<std::int64_t>(std::ceil(2.0 * std::cbrt(static_cast<double>(n)))));
}

/// Differences that are rounding have no shape to look at.
bool has_a_width(const solution_histogram& h) {
    constexpr double rounding = 1e-9, smallest = 1e-290;
    return h.most - h.least > std::max(smallest, rounding * std::max(std::abs(h.least), std::abs(h.most)));
}

/// The bin of a value, in agreement with the edges to the last digit.
std::int64_t bin_of(const solution_histogram& h, double x) {
    const std::int64_t last = std::ssize(h.counts) - 1;
    const double position = (x - h.least) / (h.most - h.least) * static_cast<double>(last + 1);
    std::int64_t k = std::clamp(static_cast<std::int64_t>(position), std::int64_t{0}, last);
    while (k > 0 && x < h.edge(k)) --k;
    while (k < last && x >= h.edge(k + 1)) ++k;
    return k;
}

template <addressing A>
std::vector<solution_histogram> count(const param_type& param, std::span<const double> vector, logger& log) {
    constexpr std::string_view procedure = "count_solutions";
    const std::int64_t ntrait = param.ntrait;
    std::vector<solution_histogram> histograms;
    // Of each trait within each effect; traits with the equations of an earlier one have none.
    std::vector<std::int64_t> panel(static_cast<std::size_t>(param.neffect * ntrait), no_panel);
    for (std::int32_t e = 1; e <= param.neffect; ++e)
        for (std::int32_t t = 1; t <= param.ntrait; ++t) {
            const auto same = [&](const solution_histogram& h) {
                return h.effect == e &&
                       detail::slot_of<A>(param, h.traits.front(), e) == detail::slot_of<A>(param, t, e);
            };
            if (const auto found = std::ranges::find_if(histograms, same); found != histograms.end()) {
                found->traits.push_back(t);
                continue;
            }
            panel[(e - 1) * ntrait + t - 1] = std::ssize(histograms);
            constexpr double infinity = std::numeric_limits<double>::infinity();
            histograms.push_back({.effect = e, .traits = {t}, .least = infinity, .most = -infinity});
        }

    const auto each = [&](const auto& take) {
        detail::for_each_row<A>(
            param, log, procedure,
            [&](std::int32_t t, std::int32_t e, std::int32_t, std::int32_t, std::int64_t equation) {
                const std::int64_t at = panel[(e - 1) * ntrait + t - 1];
                const double x = vector[equation - 1];
                if (at != no_panel && usable(x)) take(histograms[at], x);
            });
    };
    each([](solution_histogram& h, double x) {
        ++h.n;
        h.mean += (x - h.mean) / static_cast<double>(h.n);
        h.least = std::min(h.least, x);
        h.most = std::max(h.most, x);
    });
    for (solution_histogram& h : histograms)
        if (has_a_width(h)) h.counts.assign(static_cast<std::size_t>(number_of_bins(h.n)), 0);
    each([](solution_histogram& h, double x) {
        h.sd += (x - h.mean) * (x - h.mean);
        if (!h.counts.empty()) ++h.counts[bin_of(h, x)];
    });

    std::erase_if(histograms, [&](const solution_histogram& h) {
        const bool present = std::ranges::any_of(
            h.traits, [&](std::int32_t t) { return param.present(t - 1, h.effect - 1) != 0; });
        return h.n == 0 || (!present && h.least == 0.0 && h.most == 0.0);
    });
    for (solution_histogram& h : histograms)
        h.sd = h.n > 1 ? std::sqrt(h.sd / static_cast<double>(h.n - 1)) : 0.0;
    return histograms;
}

// ---- script ----------------------------------------------------------------------------------------------

std::string text_of(double x) {
    std::array<char, 32> text{};
    const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), x);
    return error == std::errc() ? std::string(text.data(), end) : "0";
}

/// Four digits.
std::string short_text(double x) {
    std::array<char, 32> text{};
    const auto [end, error] =
        std::to_chars(text.data(), text.data() + text.size(), x, std::chars_format::general, 4);
    return error == std::errc() ? std::string(text.data(), end) : "0";
}

/// In the quotes of gnuplot, whose contents are taken as they are.
std::string quoted(std::string text) {
    for (auto at = text.find('\''); at != std::string::npos; at = text.find('\'', at + 2))
        text.insert(at, 1, '\'');
    return "'" + text + "'";
}

/// 1, 2 or 5 times a power of ten, so that about four steps make up a range.
double tic_step(double range) {
    const double step = range / 4.0, power = std::pow(10.0, std::floor(std::log10(step)));
    for (const double factor : {1.0, 2.0, 5.0})
        if (step <= factor * power * 1.0001) return factor * power;
    return 10.0 * power;
}

std::string title_of(const param_type& param, const solution_histogram& h) {
    std::string title = param.lnames ? param.name_effect[h.effect - 1] : std::string();
    if (title.empty()) title = "effect " + inttochar(h.effect);
    if (param.ntrait == 1) return title;
    title += h.traits.size() == 1 ? ", trait" : ", traits";
    for (const std::int32_t t : h.traits) title += " " + inttochar(t);
    return title;
}

/// Columns and rows of panels.
struct panel_grid {
    std::int64_t columns = 1, rows = 1;
};

/// The place of each histogram: a row for each effect that has one, or the next free place.
std::vector<std::int64_t> places(const param_type& param, std::span<const solution_histogram> histograms,
                                 panel_grid& grid) {
    std::vector<std::int64_t> place;
    const std::int64_t n = std::ssize(histograms);
    if (param.ntrait == 1) {
        constexpr double widest = 4.0;
        grid.columns =
            static_cast<std::int64_t>(std::min(widest, std::ceil(std::sqrt(static_cast<double>(n)))));
        grid.rows = (n + grid.columns - 1) / grid.columns;
        for (std::int64_t i = 0; i < n; ++i) place.push_back(i);
        return place;
    }
    grid = {.columns = param.ntrait, .rows = 0};
    std::int32_t effect = 0;
    for (const solution_histogram& h : histograms) {
        if (h.effect != effect) ++grid.rows;
        effect = h.effect;
        place.push_back((grid.rows - 1) * grid.columns + h.traits.front() - 1);
    }
    return place;
}

std::string data_block(const solution_histogram& h, const std::string& name) {
    std::string text = name + " << EOD\n";
    for (std::int64_t k = 0; k < std::ssize(h.counts); ++k)
        text += text_of(h.edge(k)) + " " + text_of(h.edge(k + 1)) + " " +
                inttochar(h.counts[static_cast<std::size_t>(k)]) + "\n";
    return text + "EOD\n";
}

/// An axis with tics of round values.
std::string axis(const std::string& name, double from, double to, double step) {
    return "set " + name + "range [" + text_of(from) + ":" + text_of(to) + "]\nset " + name +
           "tics out nomirror " + text_of(step) + "\n";
}

std::string bars(const solution_histogram& h, const std::string& name) {
    const double range = h.most - h.least, margin = 0.03 * range;
    // A sum that cancels is told as 0, not by its rounding.
    const double mean = std::abs(h.mean) < 1e-6 * range ? 0.0 : h.mean;
    const auto highest = static_cast<double>(std::ranges::max(h.counts));
    return "set border 3\nset xlabel " +
           quoted("n = " + inttochar(h.n) + "   mean " + short_text(mean) + "   SD " + short_text(h.sd)) +
           "\n" + axis("x", h.least - margin, h.most + margin, tic_step(range)) +
           axis("y", 0.0, 1.05 * highest, std::max(1.0, tic_step(highest))) + "plot " + name +
           " using (0.5*$1+0.5*$2):3:($2-$1) with boxes lc rgb '#4477aa'\n";
}

/// Words instead of a single bar.
std::string constant(const solution_histogram& h) {
    const std::string value = short_text(h.mean);
    return "set border 0\nunset xtics\nunset ytics\nset xlabel\nset label 1 " +
           quoted(h.n == 1 ? value : "all " + inttochar(h.n) + " are " + value) +
           " at graph 0.5,0.5 center\nplot [0:1][0:1] NaN\nunset label 1\n";
}

}  // namespace

double solution_histogram::edge(std::int64_t k) const {
    const std::int64_t bins = std::ssize(counts);
    return k == bins ? most : least + (most - least) * (static_cast<double>(k) / static_cast<double>(bins));
}

std::vector<solution_histogram> count_solutions(const param_type& param, std::span<const double> vector,
                                                logger& log) {
    return param.lcombieff ? count<addressing::combieff>(param, vector, log)
                           : count<addressing::ori>(param, vector, log);
}

std::string solutions_graph_script(const param_type& param, std::span<const solution_histogram> histograms,
                                   const std::string& picture) {
    constexpr std::int64_t width = 380, height = 270, top = 40, most = 16000;
    panel_grid grid;
    const std::vector<std::int64_t> place = places(param, histograms, grid);
    std::string script = "set term pngcairo size " + inttochar(std::min(most, grid.columns * width)) + "," +
                         inttochar(std::min(most, top + grid.rows * height)) +
                         " noenhanced font ',10'\nset out " + quoted(picture) +
                         "\nset encoding utf8\nset zero 0\n";
    std::vector<std::string> names;
    for (std::size_t i = 0; i < histograms.size(); ++i) {
        names.push_back("$bins" + inttochar(static_cast<std::int64_t>(i) + 1));
        script += data_block(histograms[i], names.back());
    }
    script +=
        "unset key\nset style fill solid 0.7 border lc rgb 'white'\nset format x '%.4g'\nset format y "
        "'%.0f'\n"
        "set multiplot layout " +
        inttochar(grid.rows) + "," + inttochar(grid.columns) +
        " title 'Solutions: number in each interval' font ',12'\n";
    std::int64_t next = 0;
    for (std::size_t i = 0; i < histograms.size(); ++i, ++next) {
        for (; next < place[i]; ++next) script += "set multiplot next\n";
        const solution_histogram& h = histograms[i];
        script += "set title " + quoted(title_of(param, h)) + "\n";
        script += h.counts.empty() ? constant(h) : bars(h, names[i]);
    }
    return script + "unset multiplot\nset out\n";
}

void plot_solutions(const param_type& param, std::span<const double> vector, logger& log) {
    const std::string script = "solutions_graph.g", picture = "solutions.png";
    std::error_code ignored;
    std::filesystem::remove(picture, ignored);
    const std::vector<solution_histogram> histograms = count_solutions(param, vector, log);
    if (histograms.empty()) {
        log.warning("No picture of the solutions: none of them is finite");
        return;
    }

    file_writer out;
    std::optional<file_error> error = out.open(script);
    if (!error) {
        out.write(solutions_graph_script(param, histograms, picture));
        error = out.commit();
    }
    if (error) {
        log.warning("No picture of the solutions: cannot write the file " + script + ": " + error->iomsg);
        return;
    }
    const plot_result result = gnuplot_run(script).wait();
    if (result == plot_result::drawn) return;
    std::filesystem::remove(picture, ignored);
    log.warning(result == plot_result::no_gnuplot
                    ? "No picture of the solutions: gnuplot is not installed. Where it is, \"gnuplot " +
                          script + "\" draws it"
                    : "No picture of the solutions: gnuplot failed on the file " + script);
}

}  // namespace zendar
