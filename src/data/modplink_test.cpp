#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "captured_log.hpp"
#include "modplink.hpp"
#include "modplink_decode.hpp"
#include "modplink_detail.hpp"

namespace zendar {
namespace {

using detail::plink_kernels;
using test::captured_log;
using test::fatal_message;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

/// Sets the number of threads for as long as it lives.
class thread_count {
  public:
    explicit thread_count(int n) : old_(omp_get_max_threads()) { omp_set_num_threads(n); }
    ~thread_count() { omp_set_num_threads(old_); }
    thread_count(const thread_count&) = delete;
    thread_count& operator=(const thread_count&) = delete;

  private:
    int old_;
};

/// Random codes, of which about `missing_percent` are missing, and random bits behind the last individual.
/// The bytes end where their memory ends.
plink_genotypes random_genotypes(std::int32_t nrow, std::int32_t ncol, int missing_percent,
                                 std::uint32_t seed) {
    std::mt19937 random(seed);
    plink_genotypes a(nrow, ncol);
    for (std::int64_t k = 0; k < a.ival.size(); ++k) {
        std::uint8_t byte = 0;
        for (int i = 0; i < 4; ++i) {
            constexpr std::uint8_t codes[3] = {0, 2, 3};
            const bool missing = static_cast<int>(random() % 100) < missing_percent;
            const bool padding = 4 * (k % a.nbytes) + i >= nrow;
            const unsigned code = padding ? random() % 4 : missing ? 1 : codes[random() % 3];
            byte = static_cast<std::uint8_t>(byte | code << (2 * i));
        }
        a.ival.data()[k] = byte;
    }
    return a;
}

/// One product and its dense counterpart in extended precision.
struct product_case {
    plink_genotypes a;
    std::vector<double> freq, b, c;
    std::int64_t m, n, k, ldb, ldc;
    char transa;
    double beta;

    product_case(char trans, std::int32_t nrow, std::int32_t ncol, std::int64_t columns, int missing_percent,
                 double scale = 0.0)
        : a(random_genotypes(nrow, ncol, missing_percent, 7)),
          m(trans == 't' ? ncol : nrow),
          n(columns),
          k(trans == 't' ? nrow : ncol),
          ldb(k + 3),
          ldc(m + 2),
          transa(trans),
          beta(scale) {
        std::mt19937 random(11);
        const auto draw = [&](double from, double to) {
            return std::uniform_real_distribution<double>(from, to)(random);
        };
        for (std::int32_t j = 0; j < ncol; ++j) freq.push_back(draw(0.0, 1.0));
        // Nothing between the columns is read or written.
        b.assign(static_cast<std::size_t>(ldb * n), nan);
        c.assign(static_cast<std::size_t>(ldc * n), -77.0);
        for (std::int64_t j = 0; j < n; ++j) {
            for (std::int64_t i = 0; i < k; ++i) b[i + j * ldb] = draw(-1.0, 1.0);
            for (std::int64_t i = 0; i < m; ++i) c[i + j * ldc] = beta == 0.0 ? nan : draw(-1.0, 1.0);
        }
    }
    [[nodiscard]] detail::plink_product product(std::vector<double>& to) const {
        return {.a = a,
                .freq = freq,
                .n = n,
                .b = b.data(),
                .ldb = ldb,
                .beta = beta,
                .c = to.data(),
                .ldc = ldc};
    }
    [[nodiscard]] std::vector<double> result(const plink_kernels& kernels) const {
        std::vector<double> to = c;
        const detail::plink_product p = product(to);
        if (transa == 't')
            dgemm_comp_t(kernels, p);
        else if (n >= 16)
            dgemm_comp_n_881(kernels, p);
        else
            dgemm_comp_n_421(kernels, p);
        return to;
    }
    /// The largest error, relative to the sum of the absolute values of the terms; infinity for NaN, or for a
    /// value between the columns that has changed.
    [[nodiscard]] double error(const std::vector<double>& actual) const {
        constexpr double infinity = std::numeric_limits<double>::infinity();
        double worst = 0.0;
        for (std::int64_t j = 0; j < n; ++j)
            for (std::int64_t i = 0; i < ldc; ++i) {
                const double value = actual[i + j * ldc];
                if (i >= m) {
                    if (value != -77.0) return infinity;
                    continue;
                }
                long double sum = beta == 0.0 ? 0.0L : static_cast<long double>(beta) * c[i + j * ldc];
                long double size = fabsl(sum);
                for (std::int64_t l = 0; l < k; ++l) {
                    const std::int64_t snp = transa == 't' ? i : l, individual = transa == 't' ? l : i;
                    const std::int32_t code = a.code(individual, snp);
                    if (code == 1) continue;
                    const long double genotype = code == 0 ? 0.0L : code == 2 ? 1.0L : 2.0L;
                    sum += (genotype - 2.0L * freq[snp]) * b[l + j * ldb];
                    size += (genotype + 2.0L * freq[snp]) * fabsl(b[l + j * ldb]);
                }
                if (std::isnan(value)) return infinity;
                const long double difference = fabsl(value - sum);
                if (difference > 0.0L) worst = std::max(worst, static_cast<double>(difference / size));
            }
        return worst;
    }
};

std::vector<std::uint8_t> bytes_of(const plink_genotypes& a) {
    return {a.ival.data(), a.ival.data() + a.ival.size()};
}

plink_genotypes genotypes(std::int32_t nrow, std::int32_t ncol, const std::vector<std::uint8_t>& bytes) {
    plink_genotypes a(nrow, ncol);
    EXPECT_EQ(a.ival.size(), std::ssize(bytes));
    std::copy(bytes.begin(), bytes.end(), a.ival.data());
    return a;
}

// ---- decoding
// ----------------------------------------------------------------------------------------------

TEST(DecodeI1, HoldsTheFourGenotypesOfAByteLowBitsFirst) {
    EXPECT_THAT(detail::pgeno_wp, ElementsAre(0.0, 3.0, 1.0, 2.0));
    EXPECT_THAT(detail::DECODE_I1[0b11100100], ElementsAre(0.0, 3.0, 1.0, 2.0));
    EXPECT_THAT(detail::DECODE_I1[0b00000010], ElementsAre(1.0, 0.0, 0.0, 0.0));
    for (int byte = 0; byte < 256; ++byte)
        for (int k = 0; k < 4; ++k)
            EXPECT_EQ(detail::DECODE_I1[byte][k], detail::pgeno_wp[byte / (1 << (2 * k)) % 4]);
}

TEST(Centred, TakesAMissingGenotypeAsTheMean) {
    EXPECT_EQ(detail::centred(0.0, 0.5), -0.5);
    EXPECT_EQ(detail::centred(2.0, 0.5), 1.5);
    EXPECT_EQ(detail::centred(3.0, 0.5), 0.0);
}

TEST(PlinkGenotypes, HaveOneColumnOfWholeBytesPerSnp) {
    const plink_genotypes a = genotypes(5, 2, {0b11100100, 0b00000011, 0b00000010, 0b00000000});

    EXPECT_EQ(a.nbytes, 2);
    EXPECT_EQ(a.code(1, 0), 1);
    EXPECT_EQ(a.code(4, 0), 3);
    EXPECT_EQ(a.code(0, 1), 2);
}

// ---- products
// ----------------------------------------------------------------------------------------------

TEST(DgemmCompressed, GivesTheProductDoneByHand) {
    // Genotypes of three individuals: 0, missing, 2 and 1, 1, 0; their frequencies 0.5 and 0.25.
    const plink_genotypes a = genotypes(3, 2, {0b11110100, 0b01001010});
    const std::vector<double> freq = {0.5, 0.25}, b3 = {1.0, 10.0, 100.0}, b2 = {1.0, 10.0};
    std::vector<double> c2(2, nan), c3(3, nan);
    captured_log log;

    dgemm_compressed('t', 'n', 2, 1, 3, 1.0, a, freq, b3.data(), 3, 0.0, c2.data(), 2, log);
    dgemm_compressed('n', 'n', 3, 1, 2, 1.0, a, freq, b2.data(), 2, 0.0, c3.data(), 3, log);

    EXPECT_THAT(c2, ElementsAre(-1.0 + 100.0, 0.5 + 5.0 - 50.0));
    EXPECT_THAT(c3, ElementsAre(-1.0 + 5.0, 5.0, 1.0 - 5.0));
    EXPECT_EQ(log.text(), "");
}

TEST(DgemmCompressed, TakesEitherCaseOfTheLetters) {
    const product_case p('t', 9, 6, 2, 10), q('n', 9, 6, 2, 10);
    captured_log log;
    for (const char transb : {'n', 'N'}) {
        std::vector<double> t = p.c, upper_t = p.c, n = q.c, upper_n = q.c;
        dgemm_compressed('t', transb, p.m, p.n, p.k, 1.0, p.a, p.freq, p.b.data(), p.ldb, 0.0, t.data(),
                         p.ldc, log);
        dgemm_compressed('T', transb, p.m, p.n, p.k, 1.0, p.a, p.freq, p.b.data(), p.ldb, 0.0, upper_t.data(),
                         p.ldc, log);
        dgemm_compressed('n', transb, q.m, q.n, q.k, 1.0, q.a, q.freq, q.b.data(), q.ldb, 0.0, n.data(),
                         q.ldc, log);
        dgemm_compressed('N', transb, q.m, q.n, q.k, 1.0, q.a, q.freq, q.b.data(), q.ldb, 0.0, upper_n.data(),
                         q.ldc, log);

        EXPECT_EQ(t, upper_t);
        EXPECT_EQ(n, upper_n);
        EXPECT_LE(p.error(t), 1e-12);
        EXPECT_LE(q.error(n), 1e-12);
    }
}

TEST(DgemmCompressed, StopsAtOtherLettersAndFactors) {
    const plink_genotypes a = genotypes(3, 1, {0});
    const std::vector<double> freq(1), b(3, 1.0);
    std::vector<double> c(3, 5.0);
    captured_log log;
    const auto call = [&](char transa, char transb, double alpha) {
        return fatal_message([&] {
            dgemm_compressed(transa, transb, 1, 1, 3, alpha, a, freq, b.data(), 3, 0.0, c.data(), 1, log);
        });
    };

    EXPECT_EQ(call('x', 'n', 1.0), "This type of transa is not implemented");
    EXPECT_THAT(log.text(), HasSubstr("modplink % dgemm_compressed ("));
    for (const char transb : {'t', 'T', 'c'})
        EXPECT_THAT(
            call('t', transb, 1.0),
            MatchesRegex(R"( ERROR \([0-9]+, modplink\): Not yet implemented for transposed matrix)"));
    EXPECT_THAT(call('n', 'n', 2.0),
                MatchesRegex(R"( ERROR \([0-9]+, modplink\): Not yet implemented for alpha!=1)"));
    EXPECT_THAT(call('n', 'n', nan), HasSubstr("alpha!=1"));
    EXPECT_EQ(c, std::vector<double>(3, 5.0));
}

TEST(DgemmCompressed, TakesColumnsInPassesWhenThereAreMany) {
    for (const char transa : {'t', 'n'}) {
        const product_case p(transa, 33, 21, 65 + 64, 5, 2.0);
        std::vector<double> c = p.c;
        captured_log log;

        dgemm_compressed(transa, 'n', p.m, p.n, p.k, 1.0, p.a, p.freq, p.b.data(), p.ldb, 2.0, c.data(),
                         p.ldc, log);

        EXPECT_LE(p.error(c), 1e-12) << transa;
    }
}

TEST(DgemmCompressed, DoesNothingWithoutColumns) {
    const plink_genotypes a = genotypes(3, 1, {0});
    const std::vector<double> freq(1);
    captured_log log;
    dgemm_compressed('t', 'n', 1, 0, 3, 1.0, a, freq, nullptr, 3, 0.0, nullptr, 1, log);
    dgemm_compressed('n', 'n', 3, 0, 1, 1.0, a, freq, nullptr, 1, 0.0, nullptr, 3, log);
}

TEST(DgemmCompressed, GivesExactlyZeroForASnpWithoutGenotypes) {
    plink_genotypes a = random_genotypes(101, 40, 2, 3);
    std::fill_n(a.column(17), a.nbytes, std::uint8_t{0x55});
    const std::vector<double> freq(40, 0.3);
    std::vector<double> b(101 * 5), c(40 * 5, nan);
    std::mt19937 random(5);
    for (double& value : b) value = std::uniform_real_distribution<double>(-1.0, 1.0)(random);
    captured_log log;
    for (const std::int64_t n : {1, 5}) {
        dgemm_compressed('t', 'n', 40, n, 101, 1.0, a, freq, b.data(), 101, 0.0, c.data(), 40, log);
        for (std::int64_t j = 0; j < n; ++j) EXPECT_EQ(c[17 + 40 * j], 0.0);
    }
}

class Kernels : public testing::TestWithParam<std::tuple<std::size_t, int>> {
  protected:
    void SetUp() override {
        if (!kernels().is_supported())
            GTEST_SKIP() << kernels().name << " is not supported by this processor";
    }
    [[nodiscard]] const plink_kernels& kernels() const {
        return detail::all_plink_kernels()[std::get<0>(GetParam())];
    }
    [[nodiscard]] int threads() const { return std::get<1>(GetParam()); }
};

TEST_P(Kernels, AgreeWithTheDenseProductForAnyRemainderOfSizes) {
    const thread_count count(threads());
    for (const char transa : {'t', 'n'})
        for (std::int32_t nrow = 1; nrow <= 70; ++nrow)
            for (const std::int32_t ncol : {1, 7, 24, 33})
                for (const std::int64_t n : {1, 3}) {
                    const product_case p(transa, nrow, ncol, n, 10);
                    EXPECT_LE(p.error(p.result(kernels())), 1e-12)
                        << transa << nrow << " " << ncol << " " << n;
                    const product_case q(transa, ncol, nrow, n, 10);
                    EXPECT_LE(q.error(q.result(kernels())), 1e-12)
                        << transa << ncol << " " << nrow << " " << n;
                }
}

TEST_P(Kernels, AgreeWithTheDenseProductForAnyNumberOfColumns) {
    const thread_count count(threads());
    for (const char transa : {'t', 'n'})
        for (std::int64_t n = 1; n <= 40; ++n) {
            const product_case p(transa, 67, 53, n, 3);
            EXPECT_LE(p.error(p.result(kernels())), 1e-12) << transa << n;
        }
}

TEST_P(Kernels, AgreeWithTheDenseProductForManyAndFewMissingGenotypes) {
    const thread_count count(threads());
    for (const char transa : {'t', 'n'})
        for (const int missing : {0, 1, 20, 60, 100})
            for (const std::int64_t n : {1, 2, 4, 7}) {
                const product_case p(transa, 211, 45, n, missing);
                EXPECT_LE(p.error(p.result(kernels())), 1e-12) << transa << missing << " " << n;
            }
}

TEST_P(Kernels, AgreeWithTheDenseProductOverSeveralBlocks) {
    const thread_count count(threads());
    for (const char transa : {'t', 'n'})
        for (const std::int64_t n : {1, 4, 17}) {
            const product_case tall(transa, 9001, 37, n, 1), wide(transa, 35, 5003, n, 1);
            EXPECT_LE(tall.error(tall.result(kernels())), 1e-12) << transa << n;
            EXPECT_LE(wide.error(wide.result(kernels())), 1e-12) << transa << n;
        }
}

TEST_P(Kernels, AgreeWithTheDenseProductForManyIndividualsInFewColumns) {
    const thread_count count(threads());
    for (const std::int32_t nrow : {16384, 16385, 32768 + 31})
        for (const std::int64_t n : {1, 2}) {
            const product_case p('t', nrow, 6, n, 1);
            EXPECT_LE(p.error(p.result(kernels())), 1e-12) << nrow << " " << n;
        }
}

TEST_P(Kernels, ScaleWhatStoodInTheResult) {
    const thread_count count(threads());
    for (const char transa : {'t', 'n'})
        for (const double beta : {0.0, 1.0, 2.0, -0.5})
            for (const std::int64_t n : {1, 5, 16}) {
                const product_case p(transa, 45, 38, n, 5, beta);
                EXPECT_LE(p.error(p.result(kernels())), 1e-12) << transa << beta << " " << n;
            }
}

TEST_P(Kernels, GiveTheSameBitsForAnyNumberOfThreads) {
    for (const char transa : {'t', 'n'})
        for (const std::int64_t n : {1, 6, 16}) {
            const product_case p(transa, 700, 650, n, 5);
            const auto result_of = [&](int number) {
                const thread_count count(number);
                std::vector<double> c = p.result(kernels());
                for (std::int64_t j = 0; j < n; ++j)  // NaN between the columns would not compare
                    for (std::int64_t i = p.m; i < p.ldc; ++i) c[i + j * p.ldc] = 0.0;
                return c;
            };
            EXPECT_EQ(result_of(threads()), result_of(1)) << transa << n;
        }
}

TEST_P(Kernels, CountTheCodesOfEverySnp) {
    const thread_count count(threads());
    for (std::int32_t nrow = 1; nrow <= 140; ++nrow) {
        const plink_genotypes a = random_genotypes(nrow, 5, 20, 3);

        const std::vector<plink_counts> counts = count_with(kernels(), a);

        ASSERT_EQ(counts.size(), 5U);
        for (std::int32_t j = 0; j < 5; ++j) {
            plink_counts expected;
            for (std::int32_t i = 0; i < nrow; ++i) {
                expected.missing += a.code(i, j) == 1;
                expected.het += a.code(i, j) == 2;
                expected.hom2 += a.code(i, j) == 3;
            }
            EXPECT_EQ(counts[j], expected) << nrow << " " << j;
        }
    }
}

TEST_P(Kernels, TransposeMatricesOfAnySize) {
    const thread_count count(threads());
    std::vector<std::pair<std::int32_t, std::int32_t>> sizes = {{300, 600}, {129, 257}, {1, 1000}, {1000, 1}};
    for (std::int32_t n = 1; n <= 70; ++n) sizes.insert(sizes.end(), {{n, 35}, {35, n}, {n, n}});
    for (const auto& [nrow, ncol] : sizes) {
        const plink_genotypes a = random_genotypes(nrow, ncol, 20, 3);

        const plink_genotypes at = transpose_with(kernels(), a);

        ASSERT_EQ(at.nrow, ncol);
        ASSERT_EQ(at.ncol, nrow);
        std::int64_t wrong = 0;
        for (std::int32_t i = 0; i < nrow; ++i)
            for (std::int64_t j = 0; j < 4 * at.nbytes; ++j) {
                const std::int32_t code = (at.column(i)[j / 4] >> (2 * (j % 4))) & 3;
                wrong += code != (j < ncol ? a.code(i, j) : 0);
            }
        EXPECT_EQ(wrong, 0) << nrow << " x " << ncol;
    }
}

INSTANTIATE_TEST_SUITE_P(AllInstructionSets, Kernels,
                         testing::Combine(testing::Range<std::size_t>(0, detail::all_plink_kernels().size()),
                                          testing::Values(1, 2, 3, 4)));

TEST(DgemmCompReference, AgreesWithTheDenseProduct) {
    for (const char transa : {'t', 'n'})
        for (std::int32_t nrow = 1; nrow <= 9; ++nrow)
            for (const double beta : {0.0, 1.0, 2.0}) {
                const product_case p(transa, nrow, 7, 3, 20, beta);
                std::vector<double> c = p.c;
                dgemm_comp_reference(transa, p.product(c));
                EXPECT_LE(p.error(c), 1e-13) << transa << nrow;
            }
}

TEST(BestPlinkKernels, AreTheLastOnesThatTheProcessorSupports) {
    const auto all = detail::all_plink_kernels();
    EXPECT_TRUE(all[0].is_supported());
    const plink_kernels* last = nullptr;
    for (const plink_kernels& kernels : all)
        if (kernels.is_supported()) last = &kernels;
    EXPECT_EQ(&detail::best_plink_kernels(), last);
#if defined(__x86_64__)
    EXPECT_EQ(all.size(), 3U);
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") &&
        __builtin_cpu_supports("avx512bw")) {
        EXPECT_STREQ(last->name, "avx512");
    } else if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") &&
               __builtin_cpu_supports("bmi2")) {
        EXPECT_STREQ(last->name, "avx2");
    }
#endif
}

TEST(TransposeIntegermatrix, GivesTheBytesDoneByHand) {
    const plink_genotypes a = genotypes(3, 5, {0b11110100, 0b01001010, 0b00000011, 0b00001100, 0b11111111});

    EXPECT_THAT(bytes_of(transpose_integermatrix(a)),
                ElementsAre(0b00111000, 0b00000011, 0b11001001, 0b00000011, 0b00000011, 0b00000011));
}

TEST(CountGenotypes, LeavesOutWhatStandsBehindTheLastIndividual) {
    const std::vector<plink_counts> counts = count_genotypes(genotypes(3, 2, {0b01110100, 0b11101010}));

    ASSERT_EQ(counts.size(), 2U);
    EXPECT_EQ(counts[0], (plink_counts{.missing = 1, .het = 0, .hom2 = 1}));
    EXPECT_EQ(counts[1], (plink_counts{.missing = 0, .het = 3, .hom2 = 0}));
}

}  // namespace
}  // namespace zendar
