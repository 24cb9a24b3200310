#include <algorithm>

#include "modbasic.hpp"
#include "modmatrices.hpp"
#include "modmatrices_count.hpp"
#include "modmatrices_genomic.hpp"

namespace zendar::matrices {

std::int64_t peak_bytes(const matrix_options& options, const matrix_sizes& sizes) {
    const std::int64_t n = sizes.nanimal, m = sizes.nsnp, c = sizes.ncore;
    const std::int64_t block = n * std::min(snp_block, m);
    const std::int64_t apy = options.apy.empty() ? 0 : c * n;
    // Counted, a block takes no more than the expanded one; the list behind it may.
    const auto missing = static_cast<std::int64_t>(counting::most_missing * static_cast<double>(n * m));
    const std::int64_t listed = std::min(counting::most_listed, missing) / 2;
    std::int64_t most = 0;
    if (options.wants_g()) most = n * n + std::max({block, apy, listed});
    if (!options.a22.empty() || !options.a22i.empty()) most = std::max(most, n * n);
    if (!options.a22i.empty() && !options.gima22i.empty()) most = std::max(most, 2 * n * n);
    if (apy > 0 && !options.wants_g()) most = std::max(most, apy + block);
    if (options.wants_ta()) most = std::max(most, m * m + (options.ta.empty() ? 0 : m * n) + 3 * block);
    return most * static_cast<std::int64_t>(sizeof(double)) + (n + 3) / 4 * m;
}

std::vector<std::string> instruction_lines(const matrix_options& options) {
    std::vector<std::string> lines;
    const auto line = [&](const std::string& option, const std::string& file) {
        lines.push_back("!" + option + " " + file + " 1 " + inttochar(options.effect));
    };
    const auto weight = [&](const char* name, double value) {
        lines.push_back(std::string("!") + name + " " + realtochar(value, "(g0)"));
    };
    // The option for this matrix reads text only; the other one adds any symmetric matrix in the same way.
    if (!options.gima22i.empty())
        line(options.gima22i.ends_with("_tri") ? "gima22i" : "qptransfo", options.gima22i);
    if (!options.apy.empty()) line("gapy", options.apy);
    if (!options.ta.empty()) line("tamatrix", options.ta);
    const std::string frequencies = options.freq.empty() ? options.allelefreq : options.freq;
    if (!options.k.empty()) {
        if (options.ta.empty()) line("tageno", options.bfile + ".bed");
        line("ktamatrix", options.k);
        if (options.ta.empty() && !frequencies.empty()) line("allelefreq", frequencies);
    }
    if (!options.apy.empty() || options.wants_ta()) {
        weight("alpha", options.alpha);
        weight("beta", options.beta);
        weight("tau", options.tau);
        weight("omega", options.omega);
    }
    if (options.gi.ends_with("_tri") && !frequencies.empty())
        lines.push_back("!pvalue " + inttochar(options.effect) + " " + options.gi + " " + options.bfile +
                        " " + frequencies);
    return lines;
}

}  // namespace zendar::matrices
