#pragma once

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <vector>

#include "moddistinct.hpp"
#include "modmme.hpp"
#include "modmmeiod_detail.hpp"
#include "modsparse_coo.hpp"

/// Shared by the sources of modmme.
namespace zendar::modmme {

inline constexpr std::string_view module_tag = "modmme";

/// The hash table of the assembly, filled by batches, or only a count of what would be in it. Elements of the
/// upper triangle only.
class element_store {
  public:
    /// @param available  bytes that growing may take in all
    element_store(coosparse& store, std::int64_t available, logger& log)
        : store_(&store), available_(available), log_(log) {
        rows_.reserve(batch);
        cols_.reserve(batch);
        values_.reserve(batch);
    }
    element_store(distinct_count& seen, logger& log) : seen_(&seen), log_(log) {}
    /// Adds to element (row, col), both from 0; its mirror image is not told.
    void add(std::int64_t row, std::int64_t col, double value) {
        if (seen_ != nullptr) {
            seen_->add(static_cast<std::uint64_t>(row) << 32 | static_cast<std::uint64_t>(col));
            return;
        }
        rows_.push_back(static_cast<std::int32_t>(row + 1));
        cols_.push_back(static_cast<std::int32_t>(col + 1));
        values_.push_back(value);
        if (std::ssize(rows_) == batch) flush();
    }
    /// The same for an element of either triangle.
    void add_any(std::int64_t i, std::int64_t j, double value) { add(std::min(i, j), std::max(i, j), value); }
    void flush();
    /// Whether elements are counted only; their values do not matter then.
    [[nodiscard]] bool counts() const noexcept { return seen_ != nullptr; }

  private:
    static constexpr std::int64_t batch = 16384;

    coosparse* store_ = nullptr;
    distinct_count* seen_ = nullptr;
    std::int64_t available_ = 0;
    logger& log_;
    std::vector<std::int32_t> rows_, cols_;
    std::vector<double> values_;
};

/// Bytes that the system has for new arrays; the largest number when it does not tell. The path is an
/// argument for tests.
[[nodiscard]] std::int64_t available_memory(const char* meminfo = "/proc/meminfo");

/// What the assembly works on: the matrices of the operator on data, and where the elements go.
struct assembly {
    const param_type& param;  ///< with all huge effects as those of the iteration on data
    mme_iod& on_data;
    std::span<const covariable_type> cov;
    element_store& store;
    logger& log;
};

// ---- records (modmme_records.cpp)

/// One record as the elements of its row: equations (from 0) of `which` vector, as the terms number them.
struct record_element {
    std::int64_t equation;
    double x;
    std::int32_t trait;
    std::size_t result;  ///< 0: an equation; else a row of genotypes of a huge effect
};
/// The elements of a record (from 0) for the traits that were observed; `ri` is its inverse residual matrix,
/// weights included (ntrait x ntrait).
void expand_record(const modmmeiod::record_input& in, std::int64_t rec, std::vector<record_element>& elements,
                   std::span<double> ri);

/// Z' R^-1 Z among the equations outside of huge effects; elements with rows of genotypes go to `cross`:
/// equation x (row of genotypes, trait), the effects one behind the other.
void addleastsquarepart(const assembly& a, coosparse& cross);
/// The elements of the same to a store that counts.
/// @param beside_huge  [equation]: set where there are elements with rows of genotypes
void count_leastsquarepart(const assembly& a, std::vector<bool>& beside_huge);

// ---- random effects (modmme_random.cpp)

/// @throws fatal_error  for a random type that has no place in memory, and covariances that are missing.
void check_random_types(const mme_input& in, logger& log);
/// Everything that the random effects add, SNP effects excepted.
void addrandompart(const assembly& a);
/// value times the covariances of the group between two levels (from 0).
void addrandompart_elem(const effect_group& group, std::int64_t k, std::int64_t l, double value,
                        element_store& store);
/// weight times A22^-1 times the covariances of the group; a store that counts sees the elements without
/// their being computed.
void addrandompart_a22(const effect_group& group, a22_inverse& a22i, double weight, const assembly& a);

// ---- huge effects (modmme_huge.cpp)

/// All elements in the rows and columns of huge effects, and A22^-1 of animal effects that are linked to
/// them.
/// @param cross  of `addleastsquarepart`
void addhugepart(const assembly& a, const crssparse& cross);
/// Elements in the rows and columns of huge effects; those of animal effects go to a store that counts.
[[nodiscard]] std::int64_t count_hugepart(const assembly& a, std::vector<bool>& beside_huge);

/// About how many elements the left-hand side will have, to 1 %: what the first table of the assembly is made
/// for, as growing takes half as much memory again. The elements are visited, but not computed.
[[nodiscard]] std::int64_t expected_elements(const param_type& param, mme_iod& on_data,
                                             std::span<const covariable_type> cov);

}  // namespace zendar::modmme
