#include "store.hpp"

#include <gmock/gmock.h>

#include <algorithm>

#include "genotype_sample.hpp"
#include "modfatal.hpp"
#include "tables.hpp"

namespace {

using namespace miraculix;
using miraculix::test::genotype_sample;
using testing::ElementsAre;
using testing::HasSubstr;

std::vector<int> row_bytes(const coded_matrix& matrix, std::int64_t row) {
    return {matrix.row(row), matrix.row(row) + matrix.lda()};
}

TEST(CodingName, IsKnownForEachCode) {
    EXPECT_STREQ(coding_name(coding_type::AutoCoding), "AutoCoding");
    EXPECT_STREQ(coding_name(coding_type::plink), "plink");
    EXPECT_STREQ(coding_name(coding_type::five_codes8), "5codes8");
    EXPECT_STREQ(coding_name(coding_type::orig_plink), "orig.plink");
    EXPECT_STREQ(coding_name(coding_type{9}), "unused9");
    EXPECT_STREQ(coding_name(coding_type{10}), "2bit4");
    EXPECT_STREQ(coding_name(coding_type{13}), "2bit32");
    EXPECT_STREQ(coding_name(coding_type{14}), "2bit32-T");
    EXPECT_STREQ(coding_name(coding_type{16}), "unused16");
    EXPECT_STREQ(coding_name(coding_type{17}), "1bit-H");
    EXPECT_STREQ(coding_name(coding_type{24}), "2bit64-HT");
    EXPECT_STREQ(coding_name(coding_type{26}), "filedot");
    EXPECT_STREQ(coding_name(coding_type{27}), "anyGeno");
    EXPECT_STREQ(coding_name(coding_type::five_codes8_T), "5codes8-T");
    EXPECT_STREQ(coding_name(coding_type{31}), "plink-T");
    EXPECT_STREQ(coding_name(coding_type::unknown), "unknown");
    EXPECT_STREQ(coding_name(coding_type{33}), "unknown");
    EXPECT_STREQ(coding_name(coding_type{-1}), "unknown");
}

TEST(LdaFiveCodes, RoundsTheRowUpToTheAlignmentInUnitsOf32Bits) {
    EXPECT_EQ(LdaFiveCodes(1), 2);
    EXPECT_EQ(LdaFiveCodes(8), 2);
    EXPECT_EQ(LdaFiveCodes(9), 4);
    EXPECT_EQ(LdaFiveCodes(4, 32), 1);
    EXPECT_EQ(LdaFiveCodes(5, 32), 2);
    EXPECT_EQ(LdaFiveCodes(5, 96), 3);
    EXPECT_EQ(LdaFiveCodes(33, 256), 16);
    EXPECT_EQ(LdaFiveCodes(2147483647), 536870912);
}

TEST(LdaFiveCodes, AssertsAnAlignmentOfWholeUnits) {
    EXPECT_THROW((void)LdaFiveCodes(5, 16), zendar::fatal_error);
    EXPECT_THROW((void)LdaFiveCodes(5, 48), zendar::fatal_error);
}

TEST(Align, FindsTheFirstAlignedAddress) {
    alignas(64) std::uint8_t memory[128];

    EXPECT_EQ(Align(memory, 64), memory);
    EXPECT_EQ(Align(memory + 1, 64), memory + 64);
    EXPECT_EQ(Align(memory + 63, 64), memory + 64);
    EXPECT_EQ(Align(memory + 1, 8), memory + 8);
}

// Three SNPs on seven individuals, by their codes:
//   SNP 1: 11 10 00 01 10 | 11 00    values 2 1 0 0 1 | 2 0
//   SNP 2: 00 11 11 10 01 | 10 10           0 2 2 1 0 | 1 1
//   SNP 3: 10 10 10 10 10 | 01 11           1 1 1 1 1 | 0 2
genotype_sample by_hand() {
    genotype_sample sample(3, 7, 1);
    sample.codes = {3, 2, 0, 1, 2, 3, 0, 0, 3, 3, 2, 1, 2, 2, 2, 2, 2, 2, 2, 1, 3};
    return sample;
}

TEST(PlinkToSxI, StoresFiveIndividualsOfASnpInAByteOfCoding5) {
    const auto store = plinkToSxI(by_hand().plink().data(), 3, 7, nullptr, 2);

    EXPECT_EQ(store->five.coding(), coding_type::five_codes8);
    ASSERT_EQ(store->five.nrow(), 2);
    EXPECT_EQ(store->five.ncol(), 3);
    EXPECT_EQ(store->five.lda(), 8);
    EXPECT_THAT(row_bytes(store->five, 0), ElementsAre(2 + 3 + 81, 6 + 18 + 27, 121, 0, 0, 0, 0, 0));
    EXPECT_THAT(row_bytes(store->five, 1), ElementsAre(2, 1 + 3, 6, 0, 0, 0, 0, 0));
}

TEST(PlinkToSxI, StoresFiveSnpsOfAnIndividualInAByteOfCoding28) {
    const auto store = plinkToSxI(by_hand().plink().data(), 3, 7, nullptr, 2);

    ASSERT_TRUE(store->transposed);
    EXPECT_EQ(store->transposed->coding(), coding_type::five_codes8_T);
    ASSERT_EQ(store->transposed->nrow(), 1);
    EXPECT_EQ(store->transposed->ncol(), 7);
    EXPECT_EQ(store->transposed->lda(), 8);
    EXPECT_THAT(row_bytes(*store->transposed, 0),
                ElementsAre(2 + 9, 1 + 6 + 9, 6 + 9, 3 + 9, 1 + 9, 2 + 3, 3 + 18, 0));
}

TEST(PlinkToSxI, AgreesWithCodingByteByByteForAllSizes) {
    for (const std::int64_t snps : {1, 4, 5, 6, 8, 9, 20, 63, 64, 65, 127, 128, 129, 131, 260}) {
        for (const std::int64_t individuals :
             {1, 2, 3, 4, 5, 7, 8, 19, 20, 21, 39, 40, 61, 239, 240, 241, 243, 505}) {
            const genotype_sample sample(snps, individuals, 7);
            const std::vector<std::uint8_t> plink = sample.plink(0xff);
            const auto store = plinkToSxI(plink.data(), static_cast<std::int32_t>(snps),
                                          static_cast<std::int32_t>(individuals), nullptr, 3);

            const auto expected = [&](std::int64_t units, std::int64_t column, std::int64_t row,
                                      bool by_snp) {
                int byte = 0, power = 1;
                for (std::int64_t u = 5 * row; u < std::min(units, 5 * row + 5); ++u, power *= 3)
                    byte +=
                        power * static_cast<int>(by_snp ? sample.value(u, column) : sample.value(column, u));
                return byte;
            };
            for (std::int64_t row = 0; row < store->five.nrow(); ++row)
                for (std::int64_t j = 0; j < store->five.lda(); ++j)
                    ASSERT_EQ(store->five.row(row)[j], j < snps ? expected(individuals, j, row, false) : 0)
                        << snps << " SNPs, " << individuals << " individuals, row " << row << ", column "
                        << j;
            for (std::int64_t row = 0; row < store->transposed->nrow(); ++row)
                for (std::int64_t j = 0; j < store->transposed->lda(); ++j)
                    ASSERT_EQ(store->transposed->row(row)[j],
                              j < individuals ? expected(snps, j, row, true) : 0)
                        << snps << " SNPs, " << individuals << " individuals, row " << row << ", column "
                        << j;
        }
    }
}

TEST(GetFreq, IsHalfTheMeanGenotypeWithMissingOnesAsNull) {
    const auto store = plinkToSxI(by_hand().plink().data(), 3, 7, nullptr, 2);

    EXPECT_THAT(store->freq, ElementsAre(6.0L / 14, 7.0L / 14, 7.0L / 14));
}

TEST(GetFreq, CoversMoreThanOneBlockOfSnps) {
    const genotype_sample sample(2050, 13, 3);

    const auto store = plinkToSxI(sample.plink().data(), 2050, 13, nullptr, 2);

    for (std::int64_t s = 0; s < sample.snps; ++s) {
        long double sum = 0;
        for (std::int64_t i = 0; i < sample.individuals; ++i) sum += sample.value(s, i);
        ASSERT_EQ(store->freq[s], sum / 26) << s;
    }
}

TEST(CodedMatrix, SaysHowMuchMemoryIsLacking) {
    testing::internal::CaptureStderr();
    try {
        const coded_matrix matrix(coding_type::five_codes8, 2147483647, 2147483647);
        FAIL() << matrix.bytes();
    } catch (const zendar::fatal_error& error) {
        EXPECT_EQ(error.status(), 1);
        EXPECT_THAT(error.what(), HasSubstr("Severe error occured in function 'CompleteCodeVector' (file "
                                            "'store.cpp', line "));
        EXPECT_THAT(error.what(), HasSubstr("). Not enough memory: 922337204544471040 bytes for 2147483647 x "
                                            "2147483647 genotypes in the coding '5codes8'."));
    }
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("Not enough memory"));
}

}  // namespace
