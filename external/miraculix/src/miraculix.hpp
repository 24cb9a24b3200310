#pragma once

#include <cstdint>

/// Compressed genotype store: the genotypes 0, 1, 2 of an effect, five to a byte, in both orientations, and
/// products of the matrix with real matrices.
///
/// G is the individuals x SNPs matrix of genotypes. A missing genotype counts as 0 before centring.
/// The library has one process-wide option set, reports on standard output and standard error, and ends what
/// it cannot do with `zendar::fatal_error`, whose status is 1 or 99. Calls must not overlap in time.
namespace miraculix {

/// Both orientations of one genotype matrix and the allele frequencies, on the host or on a GPU. Made by
/// `plink2compressed`, released by `free_compressed`.
struct compressed_store;

/// Sets all options. Mind that 0 means yes for `ignore`, `docenter` and `usefreq`.
///
/// @param usegpu          not 0: the objects that are made from now on, and their products, are on the GPU.
/// @param cores           threads of all parallel regions; 0: as the environment variable OMP_NUM_THREADS
/// says.
/// @param floatprecision  0 double, above 0 tables in single precision, below 0 extended precision.
/// @param meansubstract   1 or 2: means are taken from the vector; 1 or 3: means are taken from the matrix.
/// @param ignore          0: missing genotypes are treated apart.
/// @param docenter        0: genotypes are centred by twice the allele frequency.
/// @param normalize       not 0: genotypes are divided by their standard deviation.
/// @param usefreq         0: the allele frequencies are those of the caller, else they are computed.
/// @param variant         SIMD width in bits, kept within 32 to 256.
/// @param printlevel      above 10, the options are printed.
/// @throws zendar::fatal_error  status 1, when the options cannot be met together.
void setOptions_compressed(std::int32_t usegpu, std::int32_t cores, std::int32_t floatprecision,
                           std::int32_t meansubstract, std::int32_t ignore, std::int32_t docenter,
                           std::int32_t normalize, std::int32_t usefreq, std::int32_t variant,
                           std::int32_t printlevel);

/// Builds both orientations, each of about 0.2 bytes a genotype.
///
/// @param plink            SNP-major bytes, ceil(individuals / 4) a SNP, as in a .bed file behind its three
///                         leading bytes. Bits behind the last individual of a SNP are not looked at.
/// @param plinktransposed  individual-major bytes, ceil(snps / 4) an individual; only the GPU looks at them,
///                         may be null otherwise.
/// @param freq             `snps` frequencies of the second allele; may be null when they are computed.
/// @param maxn             the number of columns that products will usually have. More are possible.
/// @param compressed       out, the new object. Unchanged when an error is thrown.
/// @throws zendar::fatal_error  status 1: sizes below 1, null pointers, memory lacking, a GPU asked for
///                              although the program was built without or none answers.
void plink2compressed(const std::uint8_t* plink, const std::uint8_t* plinktransposed, std::int32_t snps,
                      std::int32_t individuals, const double* freq, std::int32_t maxn,
                      compressed_store** compressed);

/// c = t(G) b or c = G b with centred G, as the options say. c is overwritten. All matrices column-major.
///
/// @param trans  "T", "t", "Y", "y": t(G) b, b of `individuals` and c of `snps` rows;
///               "N", "n": G b, b of `snps` and c of `individuals` rows.
/// @param n      columns of b and c.
/// @param ldb    leading dimension of b, at least its rows; the same for ldc and c. Both must fit into 32
/// bits.
/// @throws zendar::fatal_error  status 99: another letter; status 1: the rest.
void dgemm_compressed(char trans, const compressed_store* compressed, std::int32_t n, const double* b,
                      std::int64_t ldb, double* c, std::int64_t ldc);

/// Releases the object and sets the pointer to null. A null object is left alone.
void free_compressed(compressed_store** compressed);

/// Writes the `snps` frequencies of the object to `freq`.
void get_compressed_freq(const compressed_store* compressed, double* freq);

/// Bytes of both orientations and the frequencies, as far as they are in the memory of the host.
[[nodiscard]] std::int64_t memory_of(const compressed_store* compressed);

}  // namespace miraculix
