#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <set>
#include <vector>

#include "genotype_sample.hpp"
#include "gpu_state.hpp"
#include "miraculix.hpp"
#include "modfatal.hpp"
#include "options.hpp"
#include "store.hpp"

// Products on the device beside those of the five-code store. They need a GPU that answers, or the object
// that runs on the host (host_gpu.cpp) beside the test.

namespace {

using namespace miraculix;
using miraculix::test::genotype_sample;
using miraculix::test::random_values;

struct store_release {
    void operator()(compressed_store* store) const { free_compressed(&store); }
};
using any_store = std::unique_ptr<compressed_store, store_release>;

class GpuProduct : public testing::Test {
  protected:
    GpuProduct()
        : visible_("CUDA_VISIBLE_DEVICES", std::getenv("CUDA_VISIBLE_DEVICES") == nullptr
                                               ? "0"
                                               : std::getenv("CUDA_VISIBLE_DEVICES")) {}
    void SetUp() override {
        if (gpu::test::devices() == 0) GTEST_SKIP() << "no GPU answers: skipped";
        testing::internal::CaptureStdout();  // the library tells each of its steps
        captured_ = true;
    }
    void TearDown() override {
        if (captured_) testing::internal::GetCapturedStdout();
        forget_options();
    }

    /// The same genotypes with SNPs and individuals exchanged.
    static genotype_sample transposed_of(const genotype_sample& g) {
        genotype_sample t(g.individuals, g.snps, 1);
        for (std::int64_t i = 0; i < g.individuals; ++i)
            for (std::int64_t s = 0; s < g.snps; ++s) t.codes[i * g.snps + s] = g.code(s, i);
        return t;
    }
    static any_store build(const genotype_sample& g, const std::vector<double>& freq, std::int32_t maxn,
                           bool gpu, bool centre = true) {
        setOptions_compressed(gpu ? 1 : 0, 2, 0, 0, 1, centre ? 0 : 1, 0, 0, 0, 0);
        // Bits behind the last genotype of a row must not count.
        const std::vector<std::uint8_t> plink = g.plink(0xE7), transposed = transposed_of(g).plink(0x9B);
        compressed_store* store = nullptr;
        plink2compressed(plink.data(), transposed.data(), static_cast<std::int32_t>(g.snps),
                         static_cast<std::int32_t>(g.individuals), freq.data(), maxn, &store);
        return any_store(store);
    }
    static std::vector<double> frequencies(std::int64_t snps) {
        std::vector<double> freq = random_values(snps, 3);
        for (double& f : freq) f = std::abs(f);
        return freq;
    }
    static std::vector<double> multiply(const any_store& store, char trans, std::int32_t n,
                                        const std::vector<double>& b, std::int64_t ldb, std::int64_t ldc) {
        std::vector<double> c(static_cast<std::size_t>(ldc * n), 77.0);
        dgemm_compressed(trans, store.get(), n, b.data(), ldb, c.data(), ldc);
        return c;
    }
    static double largest(const std::vector<double>& values) {
        double most = 0.0;
        for (const double v : values) most = std::max(most, std::abs(v));
        return most;
    }
    static void expect_near(const std::vector<double>& found, const std::vector<double>& expected,
                            const std::string& where) {
        ASSERT_EQ(found.size(), expected.size());
        const double tolerance = 1e-12 * largest(expected);
        for (std::size_t i = 0; i < found.size(); ++i)
            ASSERT_NEAR(found[i], expected[i], tolerance) << where << ", element " << i;
    }
    static void expect_the_five_code_product(std::int64_t snps, std::int64_t individuals, std::int32_t n) {
        const genotype_sample g(snps, individuals, static_cast<std::uint64_t>(n));
        const std::vector<double> freq = frequencies(snps);
        const any_store cpu = build(g, freq, n, false), device = build(g, freq, n, true);
        for (const char trans : {'n', 't'}) {
            const std::int64_t m = trans == 't' ? snps : individuals, k = trans == 't' ? individuals : snps;
            const std::vector<double> b = random_values(k * n, 5);
            const std::string where = std::to_string(snps) + " SNPs, " + std::to_string(individuals) +
                                      " individuals, " + std::to_string(n) + " columns, " + trans;
            const std::vector<double> expected = multiply(cpu, trans, n, b, k, m);
            expect_near(multiply(device, trans, n, b, k, m), expected, where);
            if (n % 10 != 1) continue;
            std::vector<double> plain(expected.size());
            ASSERT_EQ(gpu::the_gpu_library("test").multiply_reference(trans == 't', device->gpu.get(), n,
                                                                      b.data(), k, 1, 0, plain.data(), m),
                      0);
            expect_near(plain, expected, where + " (reference kernel)");
        }
    }

  private:
    gpu::test::environment_value visible_;
    bool captured_ = false;
};

TEST_F(GpuProduct, AgreesWithTheFiveCodeProductForAllRemainders) {
    std::set<std::int64_t> of_snps, of_individuals;
    for (std::int32_t n = 1; n <= 70; ++n) {
        const std::int64_t snps = 1 + 32 * (n % 9) + 7 * n % 32, individuals = 1 + 32 * (n * 5 % 11) + n % 32;
        of_snps.insert(snps % 32);
        of_individuals.insert(individuals % 32);
        ASSERT_NO_FATAL_FAILURE(expect_the_five_code_product(snps, individuals, n));
    }
    EXPECT_EQ(of_snps.size(), 32U);
    EXPECT_EQ(of_individuals.size(), 32U);
}

TEST_F(GpuProduct, AgreesForTheSmallestSizes) {
    for (std::int64_t snps = 1; snps <= 5; ++snps)
        for (std::int64_t individuals = 1; individuals <= 5; ++individuals)
            ASSERT_NO_FATAL_FAILURE(expect_the_five_code_product(snps, individuals, 3));
}

/// More tiles and steps than a device has multiprocessors.
TEST_F(GpuProduct, AgreesForLargeMatrices) {
    if (gpu::test::device_is_the_host()) GTEST_SKIP() << "too large for the host: skipped";
    for (const std::int32_t n : {1, 8, 13, 24, 31, 40, 64})
        ASSERT_NO_FATAL_FAILURE(expect_the_five_code_product(12'345, 6'789, n));
}

TEST_F(GpuProduct, TakesMoreColumnsThanItWasMadeForAndGapsBetweenThem) {
    const genotype_sample g(130, 75, 9);
    const std::vector<double> freq = frequencies(130), b = random_values((130 + 7) * 11, 4);
    const any_store cpu = build(g, freq, 1, false), device = build(g, freq, 3, true);

    const std::vector<double> expected = multiply(cpu, 'n', 11, b, 130 + 7, 75 + 5);
    const std::vector<double> found = multiply(device, 'n', 11, b, 130 + 7, 75 + 5);

    for (std::size_t i = 0; i < found.size(); ++i) ASSERT_NEAR(found[i], expected[i], 1e-11) << i;
    for (std::size_t k = 0; k < 11; ++k) EXPECT_EQ(found[k * 80 + 79], 77.0);
}

TEST_F(GpuProduct, DoesNotCentreWhenToldSo) {
    const genotype_sample g(400, 300, 2);
    const std::vector<double> freq = frequencies(400), b = random_values(300 * 4, 4);
    const any_store cpu = build(g, freq, 4, false, false);
    const std::vector<double> expected = multiply(cpu, 't', 4, b, 300, 400);
    const any_store device = build(g, freq, 4, true, false);
    expect_near(multiply(device, 't', 4, b, 300, 400), expected, "not centred");
}

TEST_F(GpuProduct, EndsTheRunWhenItFails) {
    const genotype_sample g(130, 75, 9);
    const any_store device = build(g, frequencies(130), 3, true);
    const std::vector<double> b(129, 0.0);
    std::vector<double> c(75);

    testing::internal::CaptureStderr();
    try {
        dgemm_compressed('n', device.get(), 1, b.data(), 129, c.data(), 75);
        ADD_FAILURE() << "no fatal_error";
    } catch (const zendar::fatal_error& error) {
        EXPECT_THAT(
            error.what(),
            testing::EndsWith("The GPU failed: The leading dimension of the right-hand side is 129, but it "
                              "has 130 rows."));
    }
    testing::internal::GetCapturedStderr();
}

TEST_F(GpuProduct, CountsNoMemoryOfTheHostButTheFrequencies) {
    const any_store device = build(genotype_sample(130, 75, 9), frequencies(130), 3, true);
    EXPECT_EQ(memory_of(device.get()), 130 * static_cast<std::int64_t>(sizeof(long double)));
}

/// Partial sums are added up in a fixed order.
TEST_F(GpuProduct, IsTheSameEachTime) {
    const std::int64_t snps = gpu::test::device_is_the_host() ? 300 : 3000, individuals = 2 * snps;
    const genotype_sample g(snps, individuals, 2);
    const any_store device = build(g, frequencies(snps), 8, true);
    const std::vector<double> b = random_values(individuals * 8, 4);
    const std::vector<double> first = multiply(device, 't', 8, b, individuals, snps);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(multiply(device, 't', 8, b, individuals, snps), first);
}

}  // namespace
