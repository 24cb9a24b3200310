#include <gtest/gtest.h>
#include <malloc.h>
#include <omp.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <random>

#include "modspainv_test_support.hpp"
#include "modsparse_inv.hpp"

namespace {

std::atomic<std::int64_t> in_use = 0, most_in_use = 0;

[[maybe_unused]] void* counted(std::size_t bytes) {
    void* const memory = std::malloc(bytes == 0 ? 1 : bytes);
    if (memory == nullptr) throw std::bad_alloc();
    const std::int64_t now = in_use += static_cast<std::int64_t>(malloc_usable_size(memory));
    for (std::int64_t most = most_in_use; most < now && !most_in_use.compare_exchange_weak(most, now);) {
    }
    return memory;
}

[[maybe_unused]] void released(void* memory) {
    if (memory != nullptr) in_use -= static_cast<std::int64_t>(malloc_usable_size(memory));
    std::free(memory);
}

}  // namespace

// Every allocation of this test program is counted. Sanitizers of clang link operators of their own instead.
#if defined(__clang__) && defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define ZENDAR_OPERATORS_TAKEN
#endif
#endif
#ifndef ZENDAR_OPERATORS_TAKEN
void* operator new(std::size_t bytes) {
    return counted(bytes);
}
void* operator new[](std::size_t bytes) {
    return counted(bytes);
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
    return counted(bytes);
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
    return counted(bytes);
}
void operator delete(void* memory) noexcept {
    released(memory);
}
void operator delete[](void* memory) noexcept {
    released(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    released(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    released(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    released(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    released(memory);
}
#endif

namespace zendar::modsparse_inv {
namespace {

using test::upper_crs;

class thread_count {
  public:
    explicit thread_count(int n) { omp_set_num_threads(n); }
    ~thread_count() { omp_set_num_threads(before_); }

  private:
    int before_ = omp_get_max_threads();
};

/// Numbers and subscripts of the supernodes.
double bytes_of_factor(const supernodal_structure& s) {
    return 8.0 * static_cast<double>(s.xlnz[s.nsuper()]) + 4.0 * static_cast<double>(s.lindx.size()) +
           24.0 * s.nsuper();
}

/// What a call takes beyond what it leaves behind.
double working_bytes(const auto& call) {
    most_in_use = in_use.load();
    call();
    return static_cast<double>(most_in_use - in_use);
}

class Workspace : public ::testing::TestWithParam<int> {};

TEST_P(Workspace, StaysWithinThirtyPerCentOfTheFactorForAnyNumberOfThreads) {
#ifdef ZENDAR_OPERATORS_TAKEN
    GTEST_SKIP() << "the sanitizer has operators of its own";
#endif
    const thread_count set(GetParam());
    std::mt19937 random(29);
    const upper_crs matrices[] = {test::random_definite(100, 100.0, random),
                                  test::random_definite(400, 400.0, random),
                                  test::random_definite(400, 2.0, random),
                                  test::random_definite(1500, 2.0, random),
                                  test::random_definite(1500, 0.8, random),
                                  test::grid(12),
                                  test::grid(20),
                                  test::grid(25)};
    for (const upper_crs& m : matrices) {
        const std::span<const std::int32_t> ia(m.ia), ja(m.ja);
        supernodal_structure s = symbolicfact(m.n(), ia, ja, test::metis_order(m.ia, m.ja));
        s.nodes = super_nodes(s.parent, s.colcount);
        smbfct(s);
        const permuted_matrix p = computexsparsdiag(s, ia, ja, std::span<const double>(m.a));
        const double factor = bytes_of_factor(s);
        SCOPED_TRACE(std::to_string(m.n()) + " equations, factor of " + std::to_string(factor) + " bytes");
        supernodal_factor f;

        const double factorisation =
            working_bytes([&] { ASSERT_EQ(super_gsfct(s, p, pivot_rule::drop, f).column, -1); });
        const double inversion = working_bytes([&] { ASSERT_EQ(super_sparsinv(s, f), 0); });

        if (factor > 2e6) {
            EXPECT_LE(factorisation, 0.3 * factor);
        }
        EXPECT_LE(inversion, 0.3 * factor);
        RecordProperty("of_factor_" + std::to_string(m.n()), std::to_string(inversion / factor));
    }
}

INSTANTIATE_TEST_SUITE_P(Threads, Workspace, ::testing::Values(1, 2, 3, 4, 8, 16, 48));

}  // namespace
}  // namespace zendar::modsparse_inv
