#include "modmmeiod_ls.hpp"

#include <omp.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <new>

namespace zendar::modmmeiod {

namespace {

struct free_memory {
    void operator()(double* p) const { std::free(p); }
};
/// Zeroed memory whose pages are first touched by the thread that uses them.
using zeroed_copy = std::unique_ptr<double[], free_memory>;

zeroed_copy make_zeroed_copy(std::size_t n) {
    zeroed_copy copy(static_cast<double*>(std::calloc(n, sizeof(double))));
    if (copy == nullptr) throw std::bad_alloc();
    return copy;
}

/// The blocks of the calling thread: one each, unless the run time gave fewer threads.
template <class Work>
void for_own_blocks(std::int64_t nblock, Work&& work) {
    for (std::int64_t b = omp_get_thread_num(); b < nblock; b += omp_get_num_threads()) work(b);
}

std::vector<record_scratch> make_scratch(const record_input& in, std::int64_t nblock) {
    return std::vector<record_scratch>(static_cast<std::size_t>(nblock), record_scratch(in));
}

/// Zeroes [first, end) of a result, each thread its part.
void zero_stretch(double* r, std::int64_t first, std::int64_t end) {
#pragma omp for schedule(static)
    for (std::int64_t i = first; i < end; ++i) r[i] = 0.0;
}

/// Zeroes the results where they hold no sums.
void zero_results(const ls_work& work) {
    std::int64_t first = 0;
    for (const equation_stretch& held : work.started) {
        zero_stretch(work.results[0].data(), first, held.first);
        first = held.end;
    }
    for (const std::span<double> result : work.results) {
        zero_stretch(result.data(), first, std::ssize(result));
        first = 0;
    }
}

/// A private copy of the results for each thread but the first, added up at the end.
void private_copies(const record_input& in, const ls_work& work) {
    const std::int64_t nblock = std::ssize(work.blocks);
    const std::size_t nresult = work.results.size();
    std::vector<std::vector<zeroed_copy>> copies(nresult);  // [result][thread - 1]
    for (std::size_t k = 0; k < nresult; ++k)
        for (std::int64_t b = 1; b < nblock; ++b)
            copies[k].push_back(make_zeroed_copy(work.results[k].size()));
    std::vector<record_scratch> scratch = make_scratch(in, nblock);
    std::vector<std::vector<scatter_target>> targets(static_cast<std::size_t>(nblock));
    for (std::int64_t b = 0; b < nblock; ++b)
        for (const record_term& term : in.terms)
            targets[b].push_back(
                {b == 0 ? work.results[term.result].data() : copies[term.result][b - 1].get(), 0});

#pragma omp parallel num_threads(static_cast<int>(nblock)) default(none) \
    shared(in, work, copies, scratch, targets, nblock, nresult)
    {
        zero_results(work);
        for_own_blocks(nblock,
                       [&](std::int64_t b) { add_records(in, work.blocks[b], targets[b], scratch[b]); });
#pragma omp barrier
        for (std::size_t k = 0; k < nresult; ++k)
            for (const zeroed_copy& copy : copies[k]) {
                double* const r = work.results[k].data();
                const double* const add = copy.get();
                const std::int64_t n = std::ssize(work.results[k]);
#pragma omp for schedule(static)
                for (std::int64_t i = 0; i < n; ++i) r[i] += add[i];
            }
    }
}

/// Adds the partial arrays of one term; every thread takes a part of the equations.
void reduce_by_equations(std::span<part_array> parts, double* r) {
    std::int64_t lo = 0, hi = -1;
    for (const part_array& part : parts) {
        if (!part.allocated()) continue;
        lo = hi < lo ? part.lo() : std::min(lo, part.lo());
        hi = std::max(hi, part.hi());
    }
    if (hi < lo) return;
    const std::int64_t threads = omp_get_num_threads(), me = omp_get_thread_num();
    const std::int64_t mine = lo + (hi - lo + 1) * me / threads;
    const std::int64_t end = lo + (hi - lo + 1) * (me + 1) / threads;
    for (part_array& part : parts) {
        if (!part.allocated()) continue;
        const std::int64_t first = std::max(mine, part.lo()), last = std::min(end - 1, part.hi());
        const double* const add = part.data() - part.lo();
        for (std::int64_t i = first; i <= last; ++i) r[i - 1] += add[i];
    }
}

/// The same by one thread.
void reduce_whole(std::span<part_array> parts, double* r) {
    for (part_array& part : parts)
        for (std::int64_t i = 0; part.allocated() && i < part.size(); ++i)
            r[part.lo() - 1 + i] += part.data()[i];
}

enum class reduction { by_equations, by_effects };

/// Partial arrays for the equations in which threads meet; the others are written in place.
template <reduction R>
void partial_arrays(const record_input& in, const ls_work& work) {
    const std::int64_t nblock = std::ssize(work.blocks), nterm = std::ssize(in.terms);
    const auto result_of = [&](std::int64_t k) { return work.results[in.terms[k].result].data(); };
    std::vector<record_scratch> scratch = make_scratch(in, nblock);
    std::vector<std::vector<scatter_target>> targets(static_cast<std::size_t>(nblock));
    for (std::int64_t b = 0; b < nblock; ++b)
        for (std::int64_t k = 0; k < nterm; ++k) {
            part_array& part = work.residual[k * nblock + b];
            targets[b].push_back(part.allocated() ? scatter_target{part.data(), part.lo() - 1}
                                                  : scatter_target{result_of(k), 0});
        }

#pragma omp parallel num_threads(static_cast<int>(nblock)) default(none) \
    shared(in, work, scratch, targets, result_of, nblock, nterm)
    {
        zero_results(work);
        for_own_blocks(nblock, [&](std::int64_t b) {
            for (std::int64_t k = 0; k < nterm; ++k) work.residual[k * nblock + b].zero();
            add_records(in, work.blocks[b], targets[b], scratch[b]);
        });
#pragma omp barrier
        if (R == reduction::by_equations) {
            for (std::int64_t k = 0; k < nterm; ++k) {
                reduce_by_equations(work.residual.subspan(k * nblock, nblock), result_of(k));
                // Terms that share equations are cut at other places.
                if (work.shared_equations) {
#pragma omp barrier
                }
            }
        } else if (work.shared_equations) {
#pragma omp single
            for (std::int64_t k = 0; k < nterm; ++k)
                reduce_whole(work.residual.subspan(k * nblock, nblock), result_of(k));
        } else {
#pragma omp for schedule(static)
            for (std::int64_t k = 0; k < nterm; ++k)
                reduce_whole(work.residual.subspan(k * nblock, nblock), result_of(k));
        }
    }
}

constexpr std::array<ls_kernel, 6> kernels{{
    {1, "Subroutine for the least square part: medium mem", "computeleastsquarepart_simplified_ori", false,
     false, private_copies},
    {2, "Subroutine for the least square part: opti Delvane",
     "computeleastsquarepart_simplified_res_delvane_ori", true, true,
     partial_arrays<reduction::by_equations>},
    {5, "Subroutine for the least square part: opti mem", "computeleastsquarepart_simplified_res_old_ori",
     true, true, partial_arrays<reduction::by_effects>},
    {11, "Subroutine for the least square part: medium mem", "computeleastsquarepart_simplified_combieff",
     false, false, private_copies},
    {12, "Subroutine for the least square part: opti Delvane",
     "computeleastsquarepart_simplified_res_delvane_combieff", true, true,
     partial_arrays<reduction::by_equations>},
    {15, "Subroutine for the least square part with combined effects: opti mem",
     "computeleastsquarepart_simplified_res_old_combieff", true, true, partial_arrays<reduction::by_effects>},
}};

constexpr std::array<ls_kernel, 2> kernels_type22{{
    {0, "Subroutine for the least square part: large mem", "computeleastsquarepart_full_res_ori", false, true,
     private_copies},
    {10, "Subroutine for the least square part: large mem", "computeleastsquarepart_full_res_combieff", false,
     true, private_copies},
}};

}  // namespace

const ls_kernel* find_ls_kernel(std::int32_t loptimem, bool type22) {
    const std::span<const ls_kernel> table =
        type22 ? std::span<const ls_kernel>(kernels_type22) : std::span<const ls_kernel>(kernels);
    const auto found = std::ranges::find(table, loptimem, &ls_kernel::loptimem);
    return found == table.end() ? nullptr : &*found;
}

}  // namespace zendar::modmmeiod
