#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "modlogger.hpp"
#include "modpedigree.hpp"
#include "modsparse_pages.hpp"
#include "modstats.hpp"
#include "modview.hpp"

/// What the sources of the pedigree share; nobody else includes this.
namespace zendar::detail {

// ---- texts (modpedigree_read.cpp) ------------------------------------------------------------------------

/// The first few of `all`, and what tells that there are more: "3, 7, 9, ...".
std::string first_few(std::span<const std::int32_t> all, std::size_t most = 10);

/// A line "id value".
struct id_value_line {
    std::int64_t id = 0;
    double value = 0.0;

    /// @returns false when the line does not start with an integer and a real number.
    bool parse(std::string_view line);

  private:
    std::string text_;
};

// ---- computation of inbreeding coefficients (modpedigree_inbreeding.cpp) ----------------------------------

/// The count of animals on the screen: at every million, and whenever `seconds` went by without a line.
class inbreeding_progress {
  public:
    explicit inbreeding_progress(logger& log, double seconds = 10.0) : log_(log), seconds_(seconds) {}

    /// Called for 1, 2, ... n, or for a part of these in their order.
    void treated(std::int32_t animal) {
        if (animal % million == 0 || (animal % between_looks == 0 && clock_.seconds() >= seconds_))
            show(animal);
    }

  private:
    static constexpr std::int32_t million = 1'000'000, between_looks = 256;
    void show(std::int32_t animal);

    logger& log_;
    double seconds_;
    wtime clock_;
};

/// What is known of an animal with offspring, in 32 bytes: no two cache lines in a big array.
struct parent_record {
    double d;                          ///< its Mendelian sampling variance
    std::int32_t parents[2]{};         ///< their records, 0 unknown
    std::int32_t of_generations[2]{};  ///< those of the parents
    std::int32_t generation = 0;       ///< 0 without known parents, else one more than the higher of a parent
};
static_assert(sizeof(parent_record) == 32);

/// Only animals with offspring are ever visited: their records, by generation, so that parents come before
/// their offspring. Within a generation those with many offspring come first, which keeps them together in
/// the cache; so does that the values of a computation stand in arrays of their own.
struct parent_table {
    std::vector<std::int32_t> record_of;  ///< [position]: from 1; 0 for animals without offspring
    page_array<parent_record> records;    ///< [record]; the first one stands for unknown parents
    std::vector<std::int32_t> begin;      ///< [generation]: its first record, and the end of the last one
};

/// @param tped   2 x n, parents by position from old to young; 0 is unknown.
/// @param nmeta  the first positions are metafounders, with or without offspring: their records are
///               1 .. nmeta, which are all of generation 0.
parent_table make_parent_table(matrix_view<const std::int32_t> tped, std::int32_t nmeta);

/// A list of records for each generation, each record in it once at most.
class generation_lists {
  public:
    explicit generation_lists(const parent_table& table)
        : all_(table.records.size()), records_(all_.data()), begin_(table.begin), end_(table.begin) {}

    void push(std::int32_t generation, std::int32_t record) { records_[end_[generation]++] = record; }
    [[nodiscard]] std::span<const std::int32_t> operator[](std::int32_t generation) const {
        return {records_ + begin_[generation], records_ + end_[generation]};
    }
    void clear(std::int32_t generation) { end_[generation] = begin_[generation]; }

  private:
    page_array<std::int32_t> all_;
    std::int32_t* records_;
    std::vector<std::int32_t> begin_, end_;
};

/// Mendelian sampling variance from the coefficients of the parents, which are -1 for unknown ones.
double sampling_variance(double f_sire, double f_dam);

/// Sets all entries of groups, the first `nupg` positions, to unknown.
void forget_groups(matrix_view<std::int32_t> tped, std::int32_t nupg);

/// Inbreeding coefficients by tracing the paths from each animal to all of its ancestors.
///
/// Meuwissen and Luo (1992), Genet. Sel. Evol. 24:305-313.
///
/// Pending ancestors wait in a list per generation, not in one list sorted by position: to visit the
/// generations from young to old has every ancestor behind all of its offspring, too, and an insertion needs
/// no search.
///
/// @param tped  2 x n, parents by position in the order from old to young; 0 = unknown. Entries up to `nupg`
///              are set to 0.
/// @param nupg  the first positions are groups: they count as unknown parents and get f = 0.
/// @param f     n + 1 values by position, out; f[0] = 0 at the end.
///
/// Animals are treated by generation, and in it by sire: a few at a time share the walk to their common
/// ancestors.
///
/// O(n * mean number of ancestors) time, 8n bytes and 68 a parent of work space, 32 more while it is set up.
/// Single-threaded.
void compute_f_meuwissen_and_luo(matrix_view<std::int32_t> tped, std::int32_t nupg, std::span<double> f,
                                 inbreeding_progress& progress);

/// The same with metafounders at the first `nupg` positions, which get f = metarel(i, i) - 1. All parents of
/// others are known.
/// @param metarel  nupg x nupg, of which the lower triangle is read.
void compute_f_meuwissen_and_luo_meta(matrix_view<std::int32_t> tped, std::int32_t nupg,
                                      matrix_view<const double> metarel, std::span<double> f,
                                      inbreeding_progress& progress);

/// Inbreeding coefficients from the relationships of each sire with all of its mates.
///
/// Sargolzaei, Iwaisaki and Colleau (2005), J. Anim. Breed. Genet. 122:325-331; relationships by the products
/// of Colleau (2002), Genet. Sel. Evol. 34:409-421.
///
/// The two sweeps over the reduced pedigree of parents only visit the ancestors of the sire and of its mates.
///
/// Parameters as above; the results are the same up to rounding. 8n bytes and 45 a parent of work space.
void compute_f_sargolzaei_etal(matrix_view<std::int32_t> tped, std::int32_t nupg, std::span<double> f,
                               inbreeding_progress& progress);
void compute_f_sargolzaei_etal_meta(matrix_view<std::int32_t> tped, std::int32_t nupg,
                                    matrix_view<const double> metarel, std::span<double> f,
                                    inbreeding_progress& progress);

}  // namespace zendar::detail
