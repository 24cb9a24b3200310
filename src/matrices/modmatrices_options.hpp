#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "modlogger.hpp"
#include "modparameters.hpp"

/// The command line of `zendar-matrices`.
namespace zendar::matrices {

/// What the command line asks for. An empty name: not given.
struct matrix_options {
    bool help = false;

    std::string bfile;  ///< stem of the PLINK files
    std::string ped;
    std::int32_t pedtype = 3;  ///< the random type of the animal effect: 3, 5, 7 or 9
    std::int32_t nlevel = 0;   ///< levels of the effect with its groups; 0: as the pedigree has
    std::int32_t nupg = 0;     ///< groups or metafounders; 0: the codes of the pedigree without a line
    std::string gamma;         ///< relationships between metafounders
    std::string allelefreq;
    std::string core;
    std::int32_t effect = 1;  ///< the animal effect, for messages and the lines of options

    double alpha = param_type{}.alpha;
    bool lalpha = false;  ///< `--alpha` was given
    double beta = param_type{}.beta;
    double tau = param_type{}.tau, omega = param_type{}.omega;
    std::int32_t threads = 0;  ///< 0: as the environment says

    std::string g, gi, gima22i, a22, a22i, apy, ta, k, freq;

    /// Whether something is made of all elements of G.
    [[nodiscard]] bool wants_g() const { return !g.empty() || !gi.empty() || !gima22i.empty(); }
    [[nodiscard]] bool wants_a22i() const { return !gima22i.empty() || !a22i.empty(); }
    [[nodiscard]] bool wants_ta() const { return !ta.empty() || !k.empty(); }
    /// Whether something depends on the genotypes' scale, the sum of 2pq.
    [[nodiscard]] bool wants_genomic() const { return wants_g() || !apy.empty() || wants_ta(); }
    [[nodiscard]] bool wants_pedigree() const { return wants_genomic() || wants_a22i() || !a22.empty(); }
};

/// Reads the words behind the program's name and checks what can be checked without opening a file.
/// @throws fatal_error  after one message that names the argument.
[[nodiscard]] matrix_options read_options(std::span<const std::string> words, logger& log);

/// What `--help` prints.
[[nodiscard]] std::string usage();

/// The names of all options, for tests of the help.
[[nodiscard]] std::vector<std::string> option_names();

}  // namespace zendar::matrices
