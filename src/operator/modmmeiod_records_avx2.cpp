#include <algorithm>

#include "modmmeiod_records.hpp"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace zendar::modmmeiod {

#if defined(__x86_64__)

// Without fused products: the sums are to be those of the other loops.
#define ZENDAR_AVX2 [[gnu::target("avx2"), gnu::always_inline]] inline
#define ZENDAR_AVX2_LOOP [[gnu::target("avx2")]]

namespace {

/// NT values of an array that has no more.
template <int NT>
ZENDAR_AVX2 __m256d load(const double* p) {
    if constexpr (NT == 4)
        return _mm256_loadu_pd(p);
    else
        return _mm256_maskload_pd(p, _mm256_setr_epi64x(-1, -1, -1, 0));
}

/// p += x. Records next to each other often share a level, and what a masked store has written must leave the
/// processor's store buffer before it can be read: so three values are two and one.
template <int NT>
ZENDAR_AVX2 void add_to(double* p, const double* x) {
    if constexpr (NT == 4) {
        _mm256_storeu_pd(p, _mm256_add_pd(_mm256_loadu_pd(p), _mm256_loadu_pd(x)));
    } else {
        const __m128d pair = _mm_add_pd(_mm_loadu_pd(p), _mm_loadu_pd(x));
        const double third = p[2] + x[2];
        _mm_storeu_pd(p, pair);
        p[2] = third;
    }
}

template <int NT, bool first>
ZENDAR_AVX2_LOOP void gather_class(const record_input& in, const record_term& term, record_block batch,
                                   record_scratch& s, std::size_t, scatter_target target) {
    const double* const x = in.x;
    const std::int64_t before = term.first - NT;
    const double* const sums = target.data + (before - target.lo);
    const std::int64_t step = in.effect.ld, n = batch.end - batch.first;
    const std::int32_t* levels = in.effect.data + batch.first * step + term.row;
    double* v = s.v.data();
    for (std::int64_t i = 0; i < n; ++i, levels += step, v += 4) {
        const std::int64_t level = *levels;
        if (level < 1) {
            if (first) _mm256_storeu_pd(v, _mm256_setzero_pd());
            continue;
        }
        __builtin_prefetch(sums + level * NT, 1);  // comes while the other effects are gathered
        const __m256d own = load<NT>(x + (before + level * NT));
        _mm256_storeu_pd(v, first ? own : _mm256_add_pd(_mm256_loadu_pd(v), own));
    }
}

template <int NT>
ZENDAR_AVX2_LOOP void scatter_class(const record_input& in, const record_term& term, record_block batch,
                                    const record_scratch& s, std::size_t, scatter_target target) {
    double* const r = target.data;
    const std::int64_t before = term.first - NT - target.lo;
    const std::int64_t step = in.effect.ld, n = batch.end - batch.first;
    const std::int32_t* levels = in.effect.data + batch.first * step + term.row;
    const double* w = s.w.data();
    for (std::int64_t i = 0; i < n; ++i, levels += step, w += 4) {
        const std::int64_t level = *levels;
        if (level >= 1) add_to<NT>(r + (before + level * NT), w);
    }
}

/// Asks for blocks of the vector for a record of the next batch. The loop over the residuals has little else
/// to wait for, and hides the way to them.
ZENDAR_AVX2 void ask_for_blocks(const record_scratch& s, const std::int32_t* levels, std::int64_t ntrait) {
    for (const record_scratch::far_blocks& of : s.ahead) __builtin_prefetch(of.x + levels[of.row] * ntrait);
}

template <int NT, bool weighted>
ZENDAR_AVX2_LOOP void apply_residuals(const record_input& in, record_block batch, record_scratch& s,
                                      std::int64_t end) {
    const std::int64_t step = in.effect.ld;
    const std::int32_t* classes = in.effect.data + batch.first * step + in.effect.rows - 1;
    const double* weight = weighted ? in.weight.data + batch.first * in.weight.ld : nullptr;
    const double* v = s.v.data();
    double* w = s.w.data();
    for (std::int64_t rec = batch.first; rec < batch.end; ++rec, v += 4, w += 4, classes += step) {
        ask_for_blocks(s, in.effect.data + std::min(rec + batch_size, end - 1) * step, NT);
        const double* const rinv = in.rinv->of(in.combi[static_cast<std::size_t>(rec)], *classes);
        __m256d from = _mm256_loadu_pd(v), weights = from;
        if constexpr (weighted) {
            weights = load<NT>(weight);
            from = _mm256_mul_pd(from, weights);
            weight += in.weight.ld;
        }
        __m256d to = _mm256_mul_pd(load<NT>(rinv), _mm256_permute4x64_pd(from, 0x00));
        to = _mm256_add_pd(to, _mm256_mul_pd(load<NT>(rinv + NT), _mm256_permute4x64_pd(from, 0x55)));
        to = _mm256_add_pd(to, _mm256_mul_pd(load<NT>(rinv + 2 * NT), _mm256_permute4x64_pd(from, 0xaa)));
        if constexpr (NT == 4)
            to = _mm256_add_pd(to, _mm256_mul_pd(load<NT>(rinv + 3 * NT), _mm256_permute4x64_pd(from, 0xff)));
        if constexpr (weighted) to = _mm256_mul_pd(to, weights);
        _mm256_storeu_pd(w, to);
    }
}

template <int NT>
constexpr wide_loops loops{gather_class<NT, true>, gather_class<NT, false>, scatter_class<NT>,
                           apply_residuals<NT, false>, apply_residuals<NT, true>};

}  // namespace

const wide_loops* find_wide_loops(std::int32_t ntrait) {
    static const bool has_avx2 = __builtin_cpu_supports("avx2") != 0;
    if (!has_avx2) return nullptr;
    return ntrait == 3 ? &loops<3> : ntrait == 4 ? &loops<4> : nullptr;
}

#else

const wide_loops* find_wide_loops(std::int32_t) {
    return nullptr;
}

#endif

}  // namespace zendar::modmmeiod
