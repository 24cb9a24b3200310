#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "modbasic.hpp"
#include "modparameters_utils_triplets.hpp"
#include "modpedigree.hpp"
#include "modstats.hpp"

/// What the builders of A-inverse and of its blocks share.
namespace zendar {

/// Elements of a matrix in two rounds over the same calls of `add`: counted, then stored. Of an upper
/// triangle, those below the diagonal are dropped (their mirror images are offered as well), and the diagonal
/// is added up at once. Elements of one position add up.
class element_store {
  public:
    element_store(std::int32_t nrow, std::int32_t ncol, bool upper)
        : rows_(nrow),
          diagonal_(upper ? static_cast<std::size_t>(nrow) : 0, 0.0),
          ncol_(ncol),
          upper_(upper) {}

    void begin_storing() {
        for (std::int32_t i = 1; i <= std::ssize(diagonal_); ++i) rows_.count(i);
        rows_.allocate();
        storing_ = true;
    }
    void add(std::int32_t row, std::int32_t col, double value) {
        if (upper_ && row > col) return;
        const bool on_diagonal = upper_ && row == col;
        if (!storing_) {
            if (!on_diagonal) rows_.count(row);
        } else if (on_diagonal) {
            diagonal_[row - 1] += value;
        } else {
            rows_.put(row, col, value);
        }
    }
    crssparse finish(logger& log) {
        for (std::int32_t i = 1; i <= std::ssize(diagonal_); ++i) rows_.put(i, i, diagonal_[i - 1]);
        diagonal_ = {};
        rows_.merge(detail::merge_sum);
        crssparse result = rows_.to_crs(ncol_, upper_, log);
        result.setoutputunit(nullptr);
        return result;
    }
    [[nodiscard]] std::int64_t bytes() const {
        return rows_.bytes() + std::ssize(diagonal_) * static_cast<std::int64_t>(sizeof(double));
    }

  private:
    detail::triplet_rows rows_;
    std::vector<double> diagonal_;
    std::int32_t ncol_;
    bool upper_, storing_ = false;
};

/// The upper triangle, n x n, of what `offer(store)` adds, which is called twice; tells of memory and of the
/// time since the start of `clock`.
template <class Offer>
crssparse inverse_from_elements(std::int32_t n, Offer&& offer, const wtime& clock, logger& log) {
    element_store store(n, n, true);
    offer(store);
    store.begin_storing();
    offer(store);
    log.message("Temporary memory (MB)             : " + realtochar(mib(store.bytes()), "(f0.2)"));
    crssparse result = store.finish(log);
    log.message("Memory (MB) needed for sparse Ainv: " +
                realtochar(mib(12 * result.totalnumberofelements() + 4 * std::int64_t{n}), "(f0.2)"));
    log.message("Wall clock time (s)               : " + realtochar(clock.seconds(), "(f0.3)"));
    return result;
}

/// @throws fatal_error  for an animal with an unknown parent, which no pedigree with metafounders may have.
void check_metafounders(const pedigree_type& ped, std::string_view procedure, logger& log);

}  // namespace zendar
