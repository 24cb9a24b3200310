#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "modpedigree.hpp"

namespace zendar {

/// A pedigree whose animals get any number of gene copies from each parent.
///
/// An animal that got ts copies from its sire and td from its dam has the ploidy p = ts + td. Two copies of
/// one gamete stem from the same copy of the parent with the chance lambda, and else from two different ones.
/// The coefficient f of an animal is the chance that two different copies of its own are identical, so that
/// its coancestry with itself is K(i,i) = (1 + (p - 1) f(i)) / p, and K(i,j) = (ts K(s,j) + td K(d,j)) / p.
///
/// An unknown parent is a base animal of its own, unrelated to all, whose two gametes were both like the one
/// it gave. A known parent that gives no copies counts for nothing. Groups and metafounders are not
/// supported.
///
/// What this adds to a pedigree takes 40 bytes a level.
class pedigree_ploidy_type : public pedigree_type {
  public:
    matrix<std::int32_t> tau;      ///< 2 x n: gene copies from sire and dam; both 0: not known yet
    matrix<double> lambda;         ///< 2 x n: chance of each gamete
    std::vector<double> kdiag;     ///< 2 K(i,i), which is 1 + f(i) for a diploid; empty: not known
    std::vector<double> kparents;  ///< 2 K(s,d); 0 unless both are known and give copies

    [[nodiscard]] std::int64_t ploidy(std::int32_t level) const {
        return std::int64_t{tau(0, level - 1)} + tau(1, level - 1);
    }
    /// The sire (0) or dam (1) of a level; 0 for one that is unknown, or gives no copies.
    [[nodiscard]] std::int32_t giver(std::int64_t which, std::int32_t level) const {
        return tau(which, level - 1) > 0 ? ped(which, level - 1) : 0;
    }

    // ---- reading (modpedigree_ploidy_read.cpp)

    /// Reads lines "id sire dam tausire taudam lambdasire lambdadam" as `readpedigree_max` does. Levels
    /// without a line are founders, for `computefounderploidy` to complete.
    /// @throws fatal_error  with the file and its first bad line: not five integers and two finite numbers, a
    ///                      level outside 1 .. nmax, a parent outside 0 .. nmax, copies below 0, no copies at
    ///                      all. Also when aggregates following Henderson (1988) are asked for.
    void readpedigree_ploidy(const std::string& file, std::int32_t nmax, std::int32_t nupg, logger& log,
                             bool henderson = false);
    /// The same for levels up to the largest of the five integers of a line in the file; codes above the
    /// largest id are groups.
    void readpedigree_ploidy(const std::string& file, logger& log, bool henderson = false);

    // ---- founders (modpedigree_ploidy_founders.cpp)

    /// Checks the founders, which have no parents that give copies, and completes those without a line.
    ///
    /// Regular gametes have half the copies of the founder. All of one founder must have the same lambda,
    /// which is 0 for a diploid. Others have a chance of their own.
    ///
    /// A founder without a line has twice the copies of the smallest gamete that it gives, and got two
    /// gametes like this one. Without offspring it is a diploid.
    /// @throws fatal_error  for a lambda outside 0 to 1, for regular gametes of a founder that differ or are
    /// those
    ///                      of a diploid with a lambda above 0, and without `nupg`.
    void computefounderploidy(logger& log);

    // ---- inbreeding (modpedigree_ploidy_inbreeding.cpp)

    /// Fills `f`, `kdiag` and `kparents`; `f` from the cache, if that belongs to this pedigree, and the
    /// others from it then. The ploidy of all levels must be known.
    /// @throws fatal_error  without `nupg`, for groups and for a loop.
    void computeinbreedingploidy(const inbreeding_options& options, logger& log);
    void computeinbreeding_ped(const inbreeding_options& options, logger& log) override {
        computeinbreedingploidy(options, log);
    }

    // ---- A-inverse (modpedigree_ploidy_asparse.cpp)

    /// The inverse of the matrix of 2 K(i,j), for the types 3, 103 and 203; upper triangle, symmetric,
    /// sorted. `weightupg` is not used; `effect` is for the messages.
    /// @throws fatal_error  for other types, and without `f`, `kdiag` and `kparents`.
    [[nodiscard]] crssparse computeaploidy(std::int32_t efftype, double weightupg,
                                           std::optional<std::int32_t> effect, logger& log) const;
    [[nodiscard]] crssparse computeasparse_ped(std::int32_t efftype, double weightupg,
                                               std::optional<std::int32_t> effect,
                                               logger& log) const override {
        return computeaploidy(efftype, weightupg, effect, log);
    }

    // ---- reports (modpedigree_print.cpp)

    /// Writes "<prefix>pedigree.varquil", with copies and lambdas behind the parents, and
    /// "<prefix>inbreeding.varquil".
    void print_pedigree_ploidy(const std::string& prefix, logger& log) const;
    void print_pedigree(const std::string& prefix, logger& log) const override {
        print_pedigree_ploidy(prefix, log);
    }
};

}  // namespace zendar
