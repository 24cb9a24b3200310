#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <random>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "modview.hpp"
#include "relationship.hpp"
#include "temporary_directory.hpp"

/// Small random models with all that an instruction file can say of records, and their equations as a dense
/// matrix, formed from the model's definition alone: C = X' R^-1 X + G^-1, b = X' R^-1 y.
namespace zendar::test {

/// What a random model may contain.
struct model_choice {
    std::int32_t ntrait = 1;
    std::int32_t nrec = 40;
    std::int32_t neffect = 3;
    bool covariables = true;  ///< covariable effects, nested or not
    bool correlated = true;   ///< groups of correlated random effects
    bool external = true;     ///< effects with an external inverse relationship matrix
    bool pedigrees = false;   ///< animal effects: a pedigree, with groups or metafounders
    bool residual_classes = true;
    bool weights = true;
    bool missing = true;
    bool absent = true;  ///< effects that some traits do not have
    bool combieff = false;
    bool andeffect = false;
    bool sorted = false;         ///< records in the order of the last effect's levels
    bool always_random = false;  ///< every effect but the first is random, so that solutions are unique
    /// Random type of a group of SNP effects that is added (0, 20, 22, 23 or 30), with an animal effect; -1
    /// for none.
    std::int32_t huge = -1;
    bool bed = false;  ///< genotypes from .bed files, too, where some are missing
    /// Makes a model of type 22 or 30 one that has the breeding values of a model with H^-1.
    bool single_step = false;
    bool in_memory = false;  ///< nothing that the equations in memory do not take: tau and omega are 1
};

/// By the seed a third of the models get animal effects, a third SNP effects of each type in turn, and the others,
/// where it is told, effects that are combined or share equations.
inline void choose_kind(model_choice& choice, std::uint64_t seed, bool combieff, bool andeffect) {
    constexpr std::array huge_types{0, 20, 22, 23, 30};
    choice.pedigrees = seed % 3 == 1;
    if (seed % 3 == 2) {
        choice.bed = true;
        choice.huge = huge_types[seed % huge_types.size()];
    } else {
        choice.combieff = combieff;
        choice.andeffect = andeffect;
    }
}

struct random_effect {
    bool covariable = false;
    std::int32_t nlevel = 1, ncov = 1, nnest = 0;
    std::int32_t type_random = 0, nmember = 0;      ///< nmember: effects of the group that this one opens
    std::int32_t column = 0, nested_column = 0;     ///< of the phenotype file, from 1
    std::vector<bool> present;                      ///< per trait
    std::vector<std::int32_t> slot;                 ///< per trait, from 1
    std::int32_t owner = 0;                         ///< effect whose equations this one has, from 1
    std::vector<std::vector<double>> coefficients;  ///< per level; empty: no line in the file
    matrix<double> g;              ///< covariances of the group, by member, covariable and trait
    matrix<double> ainv;           ///< inverse relationships of the levels
    matrix<std::int32_t> parents;  ///< 2 x levels, of an animal effect
    std::int32_t nupg = 0;
    matrix<std::int32_t> copies;     ///< 2 x levels, of polyploids
    matrix<double> lambda;           ///< likewise
    matrix<double> gamma;            ///< relationships of metafounders
    std::vector<std::int32_t> list;  ///< animals with a part of A22^-1, types 103 to 109
    matrix<double> a22i;             ///< levels x levels: this part with its weight

    // A SNP effect: a covariable that is not nested, with a level for each animal.
    bool huge = false;
    std::int32_t link = 0;                ///< the animal effect, from 1
    std::vector<std::int32_t> genotyped;  ///< the animal of each row of genotypes
    matrix<std::int32_t> genotypes;       ///< rows x SNPs: 0, 1, 2; -1 missing; of a .bed file
    std::vector<double> frequency;        ///< in use, of a .bed file
    std::string form;                     ///< of the file: "bed", "txt", "sparse", "stream"
    bool frequency_file = false;
    bool own_sum2pq = false;  ///< `!sum2pq` is given
    bool engine = false;      ///< `!miraculix`
    std::string covariance;   ///< "compute" or a file name
    double sum2pq = 0.0;
    matrix<double> d;  ///< what the file says: over all equations of the group
    [[nodiscard]] std::int32_t nslot_level() const { return covariable ? (nnest > 0 ? nnest : 1) : nlevel; }
};

/// A model, the text of its files and its dense equations.
class random_model {
  public:
    random_model(const model_choice& choice, std::uint64_t seed);

    /// Writes "model.par" and all that it names.
    void write(const temporary_directory& directory, const std::string& options = {}) const;

    std::int32_t ntrait, nrec;
    std::vector<random_effect> effects;
    std::vector<matrix<double>> residual;      ///< per class
    matrix<double> y;                          ///< ntrait x nrec, -9 for missing
    matrix<std::int32_t> level, nesting;       ///< effect x record
    std::vector<std::int32_t> residual_class;  ///< per record, from 1
    matrix<double> weight;                     ///< ntrait x nrec, or empty

    std::int64_t neq = 0;
    double weightupg = 1.0;
    double tau = 1.0, beta = 0.05, omega = 1.0;  ///< A22^-1 has the weight tau / beta - omega
    double alpha = 0.95;
    bool beta_snp = true;   ///< without `!no_beta_snp`
    matrix<double> xrx;     ///< neq x neq: X' R^-1 X
    matrix<double> c;       ///< neq x neq
    std::vector<double> b;  ///< neq

    /// Equation (from 1) of an unknown of effect e (from 1).
    [[nodiscard]] std::int64_t equation(std::int32_t e, std::int32_t level, std::int32_t covariable,
                                        std::int32_t slot) const {
        return equations_.at({e, level, covariable, slot});
    }
    [[nodiscard]] std::string describe() const;
    /// Effect, level, covariable and slot (from 1) of each equation, in their order.
    [[nodiscard]] std::vector<std::array<std::int32_t, 4>> unknowns() const;
    /// First SNP effect (from 1); 0 for none.
    [[nodiscard]] std::int32_t first_huge() const;
    /// A22^-1 of the animals with genotypes, by their order in the file.
    [[nodiscard]] matrix<double> dense_a22i() const;
    /// W' A22^-1 W of type 30, W' (A^22 - A22^-1) W of type 22.
    [[nodiscard]] matrix<double> between_genotypes() const;
    void add_huge_part(std::int32_t e, matrix<double>& to) const;
    /// The row of X of a trait (from 0) of a record (from 0): equations (from 0) and coefficients.
    [[nodiscard]] std::vector<std::pair<std::int64_t, double>> row_of(std::int32_t t, std::int32_t rec) const;
    /// Whether an effect cannot be had by iteration on the pedigree: metafounders, external matrices, parts
    /// of A22^-1.
    [[nodiscard]] bool needs_asparse() const;
    /// Adds a matrix between the levels of the random effect e (from 1), times its inverse covariances, to
    /// the equations `to`. An empty matrix stands for the identity.
    void add_random_part(std::int32_t e, const matrix<double>& between, matrix<double>& to) const;
    /// C and b of the model with the animal effects under H^-1 = A^-1 + tau G^-1 - omega A22^-1 and without
    /// SNP effects, for a model of `single_step`.
    [[nodiscard]] std::pair<matrix<double>, std::vector<double>> single_step_equations() const;
    /// The breeding values, trait by entry by level, as SNP and animal effects or H^-1 have them.
    [[nodiscard]] std::vector<double> breeding_values(std::span<const double> x, bool with_snps) const;
    /// What is unique in any solution: the fitted values of all records and traits, then all that has a
    /// prior.
    [[nodiscard]] std::vector<double> estimable(std::span<const double> x) const;

  private:
    void make_effects(const model_choice& choice);
    void make_pedigree(random_effect& effect, std::int32_t type, std::int32_t nupg);
    void make_ploidy_pedigree(random_effect& effect);
    void make_huge(const model_choice& choice);
    void make_genotypes(random_effect& effect, const model_choice& choice);
    [[nodiscard]] bool has_own_file(std::int32_t e) const;
    /// @returns the name of the file
    [[nodiscard]] std::string write_coefficients(std::int32_t e, const temporary_directory& directory) const;
    [[nodiscard]] std::string huge_options() const;
    [[nodiscard]] std::string write_huge(std::int32_t e, const temporary_directory& directory) const;
    void add_part_of_a22i(random_effect& effect, std::int32_t nanimal);
    void make_records(const model_choice& choice);
    void number_equations();
    void form_equations();
    [[nodiscard]] matrix<double> random_covariance(std::int32_t n);
    [[nodiscard]] std::int32_t pick(std::int32_t lo, std::int32_t hi);
    [[nodiscard]] bool chance(double p);
    [[nodiscard]] double normal();

    std::mt19937_64 random_;
    bool lweights_ = false, lcombieff_ = false, landeffect_ = false;
    std::map<std::tuple<std::int32_t, std::int32_t, std::int32_t, std::int32_t>, std::int64_t> equations_;
};

/// All digits.
[[nodiscard]] std::string number(double value);

/// The solution of least norm of a symmetric positive semidefinite consistent system, by its eigenvectors.
[[nodiscard]] std::vector<double> dense_solution(const matrix<double>& c, const std::vector<double>& b);
/// The smallest eigenvalue of a symmetric matrix, relative to the largest one.
[[nodiscard]] double smallest_eigenvalue(const matrix<double>& c);
/// Whether it has none below 0 but for rounding.
[[nodiscard]] inline bool is_semidefinite(const matrix<double>& c) {
    return smallest_eigenvalue(c) > -1e-10;
}
[[nodiscard]] std::vector<double> dense_product(const matrix<double>& c, const std::vector<double>& x);

}  // namespace zendar::test
