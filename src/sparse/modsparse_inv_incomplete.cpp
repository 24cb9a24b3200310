#include <omp.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <mutex>

#include "modsparse_inv_crew.hpp"
#include "modsparse_inv_detail.hpp"

namespace zendar::modsparse_inv {

namespace {

/// Row k of U takes what the rows j of its column leave for it, where it has an element.
class incomplete_rows {
  public:
    incomplete_rows(const supernodal_structure& s, permuted_matrix& m, int nthreads)
        : s_(s), m_(m), single_(nthreads == 1), place_(nthreads) {
        for (auto& place : place_) place.assign(s.n, 0);
    }

    [[nodiscard]] std::vector<double> work() const {
        std::vector<double> w(s_.n, 10.0);
        for (std::int32_t k = 0; k < s_.n; ++k)
            for (std::int64_t e = s_.xrow[k]; e < s_.xrow[k + 1]; ++e)
                w[k] += 10.0 + static_cast<double>(m_.xcol[s_.rowcol[e] + 1] - m_.xcol[s_.rowcol[e]]);
        return w;
    }
    [[nodiscard]] factor_status status() const {
        const std::int32_t column = failed_.load();
        return column == none ? factor_status{} : factor_status{column, pivot_};
    }

    void row(std::int32_t k) const noexcept {
        if (failed_.load(std::memory_order_relaxed) < k) return;
        const std::int64_t begin = m_.xcol[k], end = m_.xcol[k + 1];
        std::int32_t* const place = place_[single_ ? 0 : omp_get_thread_num()].data();  // from 1; 0 is absent
        for (std::int64_t e = begin; e < end; ++e)
            place[m_.row[e]] = static_cast<std::int32_t>(e - begin) + 1;
        double pivot = m_.diag[k];
        double* const values = m_.value.data() + begin;
        for (std::int64_t r = s_.xrow[k]; r < s_.xrow[k + 1]; ++r) {
            const std::int32_t j = s_.rowcol[r];
            const auto last = m_.row.begin() + m_.xcol[j + 1];
            std::int64_t e = std::lower_bound(m_.row.begin() + m_.xcol[j], last, k) - m_.row.begin();
            const double x = m_.value[e];
            pivot -= x * x;
            while (++e < m_.xcol[j + 1])
                if (const std::int32_t at = place[m_.row[e]]; at > 0) values[at - 1] -= x * m_.value[e];
        }
        for (std::int64_t e = begin; e < end; ++e) place[m_.row[e]] = 0;
        if (!(pivot > 0.0)) {
            fail(k, pivot);
            return;
        }
        m_.diag[k] = std::sqrt(pivot);
        for (std::int64_t e = begin; e < end; ++e) m_.value[e] /= m_.diag[k];
    }

  private:
    static constexpr std::int32_t none = std::numeric_limits<std::int32_t>::max();

    void fail(std::int32_t column, double pivot) const {
        const std::lock_guard lock(guard_);
        if (column >= failed_.load(std::memory_order_relaxed)) return;
        failed_.store(column, std::memory_order_relaxed);
        pivot_ = pivot;
    }

    const supernodal_structure& s_;
    permuted_matrix& m_;
    const bool single_;
    mutable std::vector<std::vector<std::int32_t>> place_;
    mutable std::atomic<std::int32_t> failed_ = none;
    mutable double pivot_ = 0.0;
    mutable std::mutex guard_;
};

}  // namespace

factor_status incomplete_gsfct(const supernodal_structure& s, permuted_matrix& m) {
    const int nthreads = omp_in_parallel() ? 1 : omp_get_max_threads();
    const incomplete_rows kernel(s, m, nthreads);
    const std::vector<double> work = kernel.work();
    const tree_schedule schedule(s.parent, work, nthreads);
    tree_crew(schedule).run(tree_crew::direction::up, [&kernel](std::int32_t k) { kernel.row(k); });
    return kernel.status();
}

}  // namespace zendar::modsparse_inv
