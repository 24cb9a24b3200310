#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "modsparse_pages.hpp"

/// Genotypes as PLINK keeps them, two bits each, and products with them that never unpack the matrix.
namespace zendar {

class logger;

/// Packed genotypes, SNP-major as in a .bed file: column j holds SNP j, nbytes = ceil(nrow / 4) bytes; the
/// genotype of individual i (from 0) stands in byte i / 4 at bits 2 (i mod 4). What stands behind the last
/// individual in the last byte of a column is never looked at.
///
/// | code | genotype                            |
/// |------|-------------------------------------|
/// | 00   | 0 copies of the second allele       |
/// | 01   | missing                             |
/// | 10   | 1 copy                              |
/// | 11   | 2 copies                            |
struct plink_genotypes {
    std::int32_t nrow = 0;    ///< individuals
    std::int32_t ncol = 0;    ///< SNPs
    std::int64_t nbytes = 0;  ///< bytes of a SNP
    page_array<std::uint8_t> ival;

    plink_genotypes() = default;
    /// Allocates zero bytes, which are not touched yet. @throws std::bad_alloc
    plink_genotypes(std::int32_t individuals, std::int32_t snps)
        : nrow(individuals),
          ncol(snps),
          nbytes((std::int64_t{individuals} + 3) / 4),
          ival(nbytes * std::int64_t{snps}) {}

    [[nodiscard]] std::uint8_t* column(std::int64_t snp) noexcept { return ival.data() + snp * nbytes; }
    [[nodiscard]] const std::uint8_t* column(std::int64_t snp) const noexcept {
        return ival.data() + snp * nbytes;
    }
    /// The two bits of one genotype; both indices from 0.
    [[nodiscard]] std::int32_t code(std::int64_t individual, std::int64_t snp) const noexcept {
        return (column(snp)[individual / 4] >> (2 * (individual % 4))) & 3;
    }
};

/// How often the codes of a SNP stand among its individuals.
struct plink_counts {
    std::int32_t missing = 0;
    std::int32_t het = 0;   ///< code 10
    std::int32_t hom2 = 0;  ///< code 11
    bool operator==(const plink_counts&) const = default;
};

/// Counts the codes of every SNP, in one pass over the bytes, SNPs in parallel.
[[nodiscard]] std::vector<plink_counts> count_genotypes(const plink_genotypes& a);

/// Stops with "The following file does not exist: " at the first of `stem`.bed, .bim and .fam that is
/// missing.
void check_plinkfiles(const std::string& stem, logger& log);

/// c := op(A) b + beta c. A is individuals x SNPs, each genotype minus 2 freq of its SNP; a missing genotype
/// is 0, i.e. takes the mean. The matrices b and c are column-major; c is not read when beta is 0.
///
/// @param transa  't' or 'T': m = SNPs, k = individuals; 'n' or 'N': m = individuals, k = SNPs.
/// @param transb  'n' or 'N'.
/// @param alpha   1.
/// @param freq    frequency of the second allele, one per SNP.
/// @throws fatal_error  for another letter or alpha.
///
/// The same bits for any number of threads. Work space: a copy of b, 4 doubles a SNP, and less than 2 MB a
/// thread.
void dgemm_compressed(char transa, char transb, std::int64_t m, std::int64_t n, std::int64_t k, double alpha,
                      const plink_genotypes& a, std::span<const double> freq, const double* b,
                      std::int64_t ldb, double beta, double* c, std::int64_t ldc, logger& log);

/// The PLINK bytes of the transposed matrix: individual i is column i, ceil(ncol / 4) bytes, its last byte
/// filled up with zeros. @throws std::bad_alloc
[[nodiscard]] plink_genotypes transpose_integermatrix(const plink_genotypes& a);

}  // namespace zendar
