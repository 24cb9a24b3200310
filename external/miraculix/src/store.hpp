#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "miraculix.hpp"

namespace miraculix {

/// Codings of a genotype matrix. The library makes those of five codes only.
enum class coding_type : std::int32_t {
    AutoCoding = 0,
    plink = 4,
    five_codes8 = 5,
    orig_plink = 6,
    five_codes8_T = 28,
    unknown = 32
};

/// The name of a coding, also of those that are not made here.
[[nodiscard]] const char* coding_name(coding_type coding);

/// Length of a row in units of 32 bits: `bits` rounded up to a multiple of `align` bits.
[[nodiscard]] std::int64_t fctnLDAalignBitSnps(std::int64_t bits, std::int64_t align);

/// Length of a row of `columns` five-code bytes in units of 32 bits.
///
/// @param align  bits, at least 32 and a multiple of 32.
[[nodiscard]] std::int64_t LdaFiveCodes(std::int64_t columns, std::int64_t align = 64);

/// The first address from `data` on that is a multiple of `alignment` bytes, a power of two.
[[nodiscard]] std::uint8_t* Align(std::uint8_t* data, std::size_t alignment);

/// One orientation: ceil(units / 5) rows; row b has a byte for each column with the genotypes of the units
/// 5b + 1 to 5b + 5 for it. Rows are padded with 0, and so is the last byte of a column when units are
/// lacking.
///
/// Coding 5 has individuals as units and a column for each SNP; coding 28 has SNPs as units and a column for
/// each individual.
class coded_matrix {
  public:
    /// Allocates the bytes, which are not set.
    /// @throws zendar::fatal_error  when there is not enough memory.
    coded_matrix(coding_type coding, std::int64_t units, std::int64_t columns);

    [[nodiscard]] coding_type coding() const { return coding_; }
    [[nodiscard]] std::int64_t units() const { return units_; }
    [[nodiscard]] std::int64_t nrow() const { return nrow_; }
    [[nodiscard]] std::int64_t ncol() const { return ncol_; }
    [[nodiscard]] std::int64_t lda() const {
        return lda_;
    }  ///< bytes from one row to the next, a multiple of 8
    [[nodiscard]] std::int64_t bytes() const { return nrow_ * lda_; }
    [[nodiscard]] const std::uint8_t* row(std::int64_t r) const { return data_ + r * lda_; }
    [[nodiscard]] std::uint8_t* row(std::int64_t r) { return data_ + r * lda_; }

  private:
    struct release {
        std::size_t mapped;  // bytes when the memory is a mapping of its own
        void operator()(std::uint8_t* memory) const;
    };
    coding_type coding_;
    std::int64_t units_, nrow_, ncol_, lda_;
    std::unique_ptr<std::uint8_t, release> memory_{nullptr, release{0}};
    std::uint8_t* data_ = nullptr;
};

namespace gpu {
struct gpu_record;
}
struct gpu_release {
    void operator()(gpu::gpu_record* record) const;
};

struct compressed_store {
    std::int32_t snps;
    std::int32_t individuals;
    coded_matrix five;                       ///< coding 5; empty when the genotypes are on the GPU
    std::optional<coded_matrix> transposed;  ///< coding 28
    std::vector<long double> freq;           ///< frequencies of the second allele, one for each SNP
    std::unique_ptr<gpu::gpu_record, gpu_release> gpu;  ///< the genotypes on the GPU, or null
};

/// Both orientations and the frequencies of a PLINK matrix, see `plink2compressed`. `freq` is null when the
/// frequencies are to be computed.
[[nodiscard]] std::unique_ptr<compressed_store> plinkToSxI(const std::uint8_t* plink, std::int32_t snps,
                                                           std::int32_t individuals, const double* freq,
                                                           std::int32_t cores);

/// Fills coding 5 (units: individuals, columns: SNPs) from SNP-major PLINK bytes.
void fill_five_codes(const std::uint8_t* plink, coded_matrix& matrix, std::int32_t cores);

/// Fills coding 28 (units: SNPs, columns: individuals) from SNP-major PLINK bytes.
void fill_five_codes_transposed(const std::uint8_t* plink, coded_matrix& matrix, std::int32_t cores);

/// Allele frequency of each SNP, from coding 28: half the mean genotype. Missing genotypes count as 0.
[[nodiscard]] std::vector<long double> getFreq(const compressed_store& store, std::int32_t cores);

}  // namespace miraculix
