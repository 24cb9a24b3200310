#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "modlogger.hpp"

/// The command line of `zendar-simulate`.
namespace zendar::simulate {

/// What the command line asks for. Lists hold a value for each trait once they are read.
struct simulate_options {
    bool help = false;
    std::string folder;

    std::int32_t animals = 1000, generations = 5;
    double unknown = 0.0;         ///< share of parents behind the first generation that are unknown
    std::string groups = "none";  ///< none, sex or generation

    std::int32_t traits = 1, herds = 20, repeated = 1;
    std::vector<double> genetic{0.5}, residual{1.0}, missing{0.0}, permanent{0.2}, maternal{0.0};
    double rg = 0.5, re = 0.2, rdm = -0.3;

    std::int32_t genotyped = 0, snps = 0, chromosomes = 10;

    std::vector<std::string> models;  ///< words of `model_words`
    bool names = false, truth = false;
    std::int64_t seed = 1;
    std::int32_t threads = 0;  ///< 0: as the environment says

    [[nodiscard]] bool has_maternal() const;
    /// Whether there are effects of the permanent environment of animals.
    [[nodiscard]] bool has_permanent() const { return repeated > 1; }
    /// Genetic values of an animal: direct ones, then maternal ones, by trait.
    [[nodiscard]] std::int32_t nvalue() const { return traits * (has_maternal() ? 2 : 1); }
    /// Genetic (co)variances, nvalue x nvalue by rows.
    [[nodiscard]] std::vector<double> genetic_matrix() const;
    /// Residual (co)variances, traits x traits by rows.
    [[nodiscard]] std::vector<double> residual_matrix() const;
};

/// Part of the genetic variance that the SNPs do not have, which is that of the solver's G by default.
inline constexpr double polygenic_share = 0.05;

/// Lower triangular l with l l' = m, by rows; empty when m is not positive definite.
[[nodiscard]] std::vector<double> cholesky(const std::vector<double>& m, std::int32_t n);

/// Reads the words behind the program's name and checks them.
/// @throws fatal_error  after one message that names the argument.
[[nodiscard]] simulate_options read_options(std::span<const std::string> words, logger& log);

/// What `--help` prints.
[[nodiscard]] std::string usage();

/// The names of all options, for tests of the help.
[[nodiscard]] std::vector<std::string> option_names();

}  // namespace zendar::simulate
