#include "miraculix.hpp"

#include <gmock/gmock.h>

#include <cmath>

#include "genotype_sample.hpp"
#include "gpu_state.hpp"
#include "modfatal.hpp"
#include "options.hpp"

namespace {

using namespace miraculix;
using miraculix::test::genotype_sample;
using miraculix::test::random_values;
using testing::ElementsAre;
using testing::HasSubstr;

/// The calls of the model, on two threads.
class Miraculix : public testing::Test {
  protected:
    void SetUp() override { set_options(); }
    void TearDown() override {
        free_compressed(&store_);
        forget_options();
    }
    static void set_options(std::int32_t docenter = 0, std::int32_t usefreq = 0,
                            std::int32_t floatprecision = 0, std::int32_t meansubstract = 0,
                            std::int32_t usegpu = 0) {
        setOptions_compressed(usegpu, 2, floatprecision, meansubstract, 1, docenter, 0, usefreq, 0, 0);
    }
    void build(const genotype_sample& g, const double* freq, std::int32_t maxn = 1) {
        const std::vector<std::uint8_t> plink = g.plink();
        plink2compressed(plink.data(), nullptr, static_cast<std::int32_t>(g.snps),
                         static_cast<std::int32_t>(g.individuals), freq, maxn, &store_);
    }
    /// Message and status of what ends the run; each is printed on standard error first, behind what else is.
    static std::pair<std::string, int> end_of(const auto& action, const std::string& printed_before = "") {
        std::pair<std::string, int> end{"", 0};
        testing::internal::CaptureStderr();
        try {
            action();
        } catch (const zendar::fatal_error& error) {
            end = {error.what(), error.status()};
        }
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  printed_before + (end.second == 0 ? "" : end.first + "\n"));
        return end;
    }

    compressed_store* store_ = nullptr;
};

// SNP 1: 2 1 0 0 (missing) and SNP 2: 0 2 1 1 on four individuals.
genotype_sample two_snps() {
    genotype_sample g(2, 4, 1);
    g.codes = {3, 2, 0, 1, 0, 3, 2, 2};
    return g;
}
constexpr double freq_of_two[2] = {0.25, 0.5};

TEST_F(Miraculix, MultipliesByCentredGenotypes) {
    build(two_snps(), freq_of_two);
    const double a[2] = {4, 1}, b[4] = {1, 2, 3, 4};
    double c[4], d[2];

    dgemm_compressed('N', store_, 1, a, 2, c, 4);
    dgemm_compressed('T', store_, 1, b, 4, d, 2);

    EXPECT_THAT(c, ElementsAre(8 - 3, 6 - 3, 1 - 3, 1 - 3));
    EXPECT_THAT(d, ElementsAre(4 - 0.5 * 10, 11 - 1.0 * 10));
}

TEST_F(Miraculix, DoesNotCentreWhenToldSo) {
    set_options(1);
    build(two_snps(), freq_of_two);
    const double b[4] = {1, 2, 3, 4};
    double d[2];

    dgemm_compressed('y', store_, 1, b, 4, d, 2);

    EXPECT_THAT(d, ElementsAre(4, 11));
}

TEST_F(Miraculix, KeepsTheFrequenciesOfTheCaller) {
    build(two_snps(), freq_of_two);
    double f[2];

    get_compressed_freq(store_, f);

    EXPECT_THAT(f, ElementsAre(0.25, 0.5));
}

TEST_F(Miraculix, ComputesFrequenciesWhenToldSo) {
    set_options(0, 1);
    build(two_snps(), nullptr);
    const double b[4] = {1, 2, 3, 4};
    double f[2], d[2];

    get_compressed_freq(store_, f);
    dgemm_compressed('T', store_, 1, b, 4, d, 2);

    EXPECT_THAT(f, ElementsAre(3.0 / 8, 4.0 / 8));
    EXPECT_THAT(d, ElementsAre(4 - 0.75 * 10, 11 - 1.0 * 10));
}

TEST_F(Miraculix, TakesMoreColumnsThanExpected) {
    const genotype_sample g(37, 29, 4);
    const std::vector<double> freq(37, 0.5), a = random_values(37 * 75, 5);
    build(g, freq.data(), 1);
    std::vector<double> all(29 * 75), one(29);

    dgemm_compressed('n', store_, 75, a.data(), 37, all.data(), 29);

    for (std::int64_t k = 0; k < 75; ++k) {
        dgemm_compressed('n', store_, 1, a.data() + k * 37, 37, one.data(), 29);
        for (std::int64_t i = 0; i < 29; ++i) ASSERT_NEAR(one[i], all[i + k * 29], 1e-13) << k;
    }
}

TEST_F(Miraculix, WorksInOtherPrecisions) {
    const genotype_sample g(50, 60, 4);
    const std::vector<double> freq(50, 0.5), a = random_values(50, 5);
    build(g, freq.data());
    std::vector<double> c(60), single(60), extended(60);

    dgemm_compressed('N', store_, 1, a.data(), 50, c.data(), 60);
    set_options(0, 0, 1);
    dgemm_compressed('N', store_, 1, a.data(), 50, single.data(), 60);
    set_options(0, 0, -1);
    dgemm_compressed('N', store_, 1, a.data(), 50, extended.data(), 60);

    double difference = 0.0;
    for (std::size_t i = 0; i < 60; ++i) {
        EXPECT_NEAR(c[i], extended[i], 1e-13);
        EXPECT_NEAR(c[i], single[i], 1e-5);
        difference += std::abs(c[i] - single[i]);
    }
    EXPECT_GT(difference, 1e-9) << "the tables were not in single precision";
}

TEST_F(Miraculix, DoesNothingForNoColumns) {
    build(two_snps(), freq_of_two);
    EXPECT_EQ(end_of([&] { dgemm_compressed('N', store_, 0, nullptr, 0, nullptr, 0); }).second, 0);
}

TEST_F(Miraculix, CountsItsMemory) {
    build(genotype_sample(11, 23, 1), std::vector<double>(11, 0.5).data());

    EXPECT_EQ(memory_of(store_), 5 * 16 + 3 * 24 + 11 * 16);
}

TEST_F(Miraculix, ForgetsAReleasedStore) {
    build(two_snps(), freq_of_two);
    free_compressed(&store_);
    EXPECT_EQ(store_, nullptr);
    free_compressed(&store_);
    free_compressed(nullptr);
}

TEST_F(Miraculix, EndsWithStatus99ForAWrongLetter) {
    build(two_snps(), freq_of_two);
    double b[4] = {}, c[4];
    const auto [message, status] = end_of([&] { dgemm_compressed('x', store_, 1, b, 4, c, 4); });
    EXPECT_EQ(status, 99);
    EXPECT_EQ(message, "The transposition flag 'x' is not one of T, t, Y, y, N, n.");
}

TEST_F(Miraculix, AssertsItsArguments) {
    const std::vector<std::uint8_t> plink = two_snps().plink();
    double b[4] = {}, c[4];
    const auto assertion = [&](const std::string& function, const auto& action) {
        const auto [message, status] = end_of(action);
        EXPECT_EQ(status, 1);
        EXPECT_THAT(message, HasSubstr("'assert' failed in function '" + function + "' ("));
    };
    assertion("plink2compressed",
              [&] { plink2compressed(plink.data(), nullptr, 2, 4, nullptr, 1, &store_); });
    assertion("plink2compressed", [&] { plink2compressed(nullptr, nullptr, 2, 4, freq_of_two, 1, &store_); });
    assertion("plink2compressed",
              [&] { plink2compressed(plink.data(), nullptr, 2, 4, freq_of_two, 1, nullptr); });
    assertion("dgemm_compressed", [&] { dgemm_compressed('T', nullptr, 1, b, 4, c, 2); });
    assertion("get_compressed_freq", [&] { get_compressed_freq(nullptr, c); });
    assertion("memory_of", [&] { (void)memory_of(nullptr); });
    build(two_snps(), freq_of_two);
    assertion("get_compressed_freq", [&] { get_compressed_freq(store_, nullptr); });
    assertion("dgemm_compressed", [&] { dgemm_compressed('T', store_, -1, b, 4, c, 2); });
    assertion("dgemm_compressed", [&] { dgemm_compressed('T', store_, 1, nullptr, 4, c, 2); });
    assertion("dgemm_compressed", [&] { dgemm_compressed('T', store_, 1, b, 4, nullptr, 2); });
    assertion("gV_vG5_double", [&] { dgemm_compressed('T', store_, 1, b, 3, c, 2); });
    assertion("gV_vG5_double", [&] { dgemm_compressed('N', store_, 1, b, 2, c, 3); });
}

TEST_F(Miraculix, RefusesSizesThatItCannotHold) {
    const std::vector<std::uint8_t> plink = two_snps().plink();
    double b[4] = {}, c[4];
    const auto refused = [&](const std::string& text, const auto& action) {
        const auto [message, status] = end_of(action);
        EXPECT_EQ(status, 1);
        EXPECT_THAT(message, HasSubstr("Severe error occured in function '"));
        EXPECT_THAT(message, HasSubstr(text));
    };
    refused("There are 0 SNPs and 4 individuals; both must be positive.",
            [&] { plink2compressed(plink.data(), nullptr, 0, 4, freq_of_two, 1, &store_); });
    refused("There are 2 SNPs and -1 individuals; both must be positive.",
            [&] { plink2compressed(plink.data(), nullptr, 2, -1, freq_of_two, 1, &store_); });
    refused("Not enough memory: ", [&] {
        plink2compressed(plink.data(), nullptr, 2147483647, 2147483647, freq_of_two, 1, &store_);
    });
    EXPECT_EQ(store_, nullptr);
    build(two_snps(), freq_of_two);
    refused("ldb = 4294967300 does not fit into 32 bits.",
            [&] { dgemm_compressed('T', store_, 1, b, 4294967300, c, 2); });
    refused("ldc = 4294967298 does not fit into 32 bits.",
            [&] { dgemm_compressed('T', store_, 1, b, 4, c, 4294967298); });
}

TEST_F(Miraculix, RefusesToSubtractMeans) {
    build(two_snps(), freq_of_two);
    double b[4] = {}, c[4];
    for (const std::int32_t means : {1, 2, 3}) {
        set_options(0, 0, 0, means);
        const auto [message, status] = end_of([&] { dgemm_compressed('T', store_, 1, b, 4, c, 2); });
        EXPECT_EQ(status, 1);
        EXPECT_THAT(message, HasSubstr("Means cannot be subtracted from the vector or the matrix."));
    }
}

/// What the object of the GPU path prints before the library stops.
std::string printed_by_gpu() {
    return gpu::test::object_is_built() ? gpu::test::reason_without_visible_devices() + "\n" : "";
}

bool is_end_without_gpu(const std::string& message) {
    const std::string reason = gpu::test::reason_without_visible_devices();
    if (!gpu::test::object_is_built())
        return message.starts_with(
                   "Severe error occured in function 'plink2gpu' (file 'gpu_library.cpp', line ") &&
               message.ends_with("). " + reason);
    return message.starts_with(
               "Severe error occured in function 'plink2gpu' (file 'dgemm_compressed.cpp', line ") &&
           message.ends_with("). The GPU failed: " + reason);
}

TEST_F(Miraculix, SaysWhyThereIsNoGpu) {
    const gpu::test::environment_value hidden("CUDA_VISIBLE_DEVICES", nullptr);
    const std::vector<std::uint8_t> plink = two_snps().plink();
    set_options(0, 0, 0, 0, 1);
    testing::internal::CaptureStdout();

    const auto end =
        end_of([&] { plink2compressed(plink.data(), plink.data(), 2, 4, freq_of_two, 1, &store_); },
               printed_by_gpu());

    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(end.second, 1);
    EXPECT_TRUE(is_end_without_gpu(end.first)) << end.first;
    EXPECT_EQ(store_, nullptr);
    EXPECT_EQ(out.find("\tmiraculix - libdgemmcuda\n") != std::string::npos, gpu::test::object_is_built());
}

TEST_F(Miraculix, StartsWithTheGpuWhenNoOptionsWereSet) {
    const gpu::test::environment_value hidden("CUDA_VISIBLE_DEVICES", nullptr);
    const std::vector<std::uint8_t> plink = two_snps().plink();
    forget_options();
    testing::internal::CaptureStdout();

    const auto end =
        end_of([&] { plink2compressed(plink.data(), plink.data(), 2, 4, freq_of_two, 1, &store_); },
               printed_by_gpu());

    testing::internal::GetCapturedStdout();
    EXPECT_EQ(end.second, 1);
    EXPECT_TRUE(is_end_without_gpu(end.first)) << end.first;
}

/// An effect on the CPU stays there when a later one has asked for the GPU.
TEST_F(Miraculix, MultipliesAnObjectWhereItIs) {
    build(two_snps(), freq_of_two);
    set_options(0, 0, 0, 0, 1);
    const double a[2] = {4, 1};
    double c[4];

    dgemm_compressed('N', store_, 1, a, 2, c, 4);

    EXPECT_THAT(c, ElementsAre(8 - 3, 6 - 3, 1 - 3, 1 - 3));
}

}  // namespace
