#pragma once

#include <cstdint>
#include <span>

#include "modplink.hpp"

/// The products with packed genotypes; what their sources and tests share, nobody else includes this.
///
/// Both directions add up table entries rather than products. A word holds the codes of one output (a SNP of
/// t(G) b, an individual of G b) for some terms of its sum; it is cut into eight fields, and each field has a
/// table of what its terms add to the output, for every value of the field, in some columns of b at once:
///
///     columns at once   genotypes a field   table             additions a genotype and column
///     1                 4 (8 bits)          256 x  8 bytes    1/4
///     2                 3 (6 bits)           64 x 16 bytes    1/6
///     4                 3 (6 bits)           64 x 32 bytes    1/12
///     8 (AVX-512)       3 (6 bits)           64 x 64 bytes    1/24
///     1 (AVX-512)       2 (4 bits)           16 x  8 bytes    1/16, of eight outputs at once
///
/// The eight tables take 32 KB at most (40 KB for eight and two columns at once) and stay in the first cache,
/// the 16 of the last line in registers; filling them is spread over the outputs of a block. (t(G) b with one
/// or two columns multiplies decoded bytes instead: its additions are as many, and it needs no words.) In G b
/// the tables hold centred values. In t(G) b the frequency differs between outputs, so the tables hold
/// genotypes, missing as 0, and 2 freq (sum of b over those not missing) comes off at the end.
namespace zendar::detail {

/// One product, c := op(A) b + beta c.
struct plink_product {
    const plink_genotypes& a;
    std::span<const double> freq;
    std::int64_t n;  ///< columns of b and c
    const double* b;
    std::int64_t ldb;
    double beta;
    double* c;
    std::int64_t ldc;
};

inline constexpr std::int32_t fields_of_word = 8;
inline constexpr std::int64_t widest_group = 10;                                    ///< columns
inline constexpr std::int64_t size_of_tables = fields_of_word * 64 * widest_group;  ///< doubles
inline constexpr std::int64_t chunk = 128;  ///< individuals that the transposition takes at once
inline constexpr std::int64_t chunk_bytes = chunk / 4;

/// The kernels for `V` columns at once.
struct plink_table_kernels {
    /// Fills the tables of a word: genotype g of the word, with code c, adds b[g * V + v] * factor[g * step +
    /// c].
    void (*fill)(const double* b, const double* factor, std::int64_t step, double* tables);
    /// acc[i * V + v] += the entries of the fields of x[i].
    void (*add)(const std::uint64_t* x, std::int64_t n, const double* tables, double* acc);
};

/// What the genotypes of a SNP add to t(G) b.
struct snp_sums {
    double present = 0.0;  ///< genotypes times b
    double missing = 0.0;  ///< b of missing genotypes
    std::int32_t nmissing = 0;
};

/// One row per instruction set, all from the same templates.
struct plink_kernels {
    const char* name;
    plink_table_kernels columns1, columns2, columns4, columns8,
        columns10;                ///< the last two are not in all rows
    std::int64_t widest;          ///< columns that it takes at once
    std::int64_t columns_of_few;  ///< up to so many, t(G) b multiplies decoded genotypes
    /// Adds to the sums of four SNPs those of `words` times 32 individuals, whose b is contiguous.
    void (*dot)(const std::uint8_t* const* columns, std::int64_t words, const double* b, snp_sums* sums);
    /// Turns 32 SNPs (`snps` of them are there) x 128 individuals, `chunk_bytes` bytes from each of `rows`,
    /// into one word per individual, the first SNP in its lowest bits; individual i goes to
    /// place_in_chunk(i).
    void (*transpose)(const std::uint8_t* const* rows, std::int32_t snps, std::uint64_t* words);
    plink_counts (*count)(const std::uint8_t* bytes, std::int32_t nrow);
    bool (*is_supported)();
};

/// Where the transposition puts individual i of a chunk.
constexpr std::int64_t place_in_chunk(std::int64_t i) {
    const std::int64_t byte = i / 4;
    return (i % 4 * 8 + byte % 16 / 2) * 4 + byte % 2 + byte / 16 * 2;
}

#if defined(__x86_64__)
[[nodiscard]] const plink_kernels& plink_kernels_512();
#endif
[[nodiscard]] std::span<const plink_kernels> all_plink_kernels();  ///< the last supported one is the best
[[nodiscard]] const plink_kernels& best_plink_kernels();

/// Plainly right; the yardstick of the others.
void dgemm_comp_reference(char transa, const plink_product& p);

void dgemm_comp_t(const plink_kernels& kernels, const plink_product& p);
/// The same for very few columns: decoded bytes times b, so that the bytes are read as they stand.
void dgemm_comp_t_few(const plink_kernels& kernels, const plink_product& p);
/// From 16 columns on, and below. The two differ in the length of their blocks.
void dgemm_comp_n_881(const plink_kernels& kernels, const plink_product& p);
void dgemm_comp_n_421(const plink_kernels& kernels, const plink_product& p);

[[nodiscard]] plink_genotypes transpose_with(const plink_kernels& kernels, const plink_genotypes& a);
[[nodiscard]] std::vector<plink_counts> count_with(const plink_kernels& kernels, const plink_genotypes& a);

// ---- the right-hand side by groups of columns (modplink_columns.cpp)
// ---------------------------------------

/// Columns that are taken at once.
struct column_group {
    std::int64_t first = 0;   ///< column of b
    std::int64_t count = 0;   ///< columns of b in it
    std::int64_t width = 0;   ///< 1, 2, 4, 8 or 10; the columns behind `count` are zero
    std::int64_t before = 0;  ///< sum of the widths of the groups before
};

/// b with the columns of a group side by side, filled up with zeros to whole words.
class column_groups {
  public:
    /// @param widest  columns that the kernels take at once.
    column_groups(const double* b, std::int64_t ldb, std::int64_t rows, std::int64_t n, std::int64_t widest);

    [[nodiscard]] std::span<const column_group> groups() const { return groups_; }
    [[nodiscard]] std::int64_t genotypes_of_word() const { return word_; }
    [[nodiscard]] std::int64_t words() const { return rows_ / word_; }
    [[nodiscard]] std::int64_t width() const { return width_; }  ///< of all groups
    /// Row `row` (from 0) of a group, `width` values; the next rows follow.
    [[nodiscard]] const double* row(const column_group& group, std::int64_t row) const {
        return values_.data() + group.before * rows_ + row * group.width;
    }

  private:
    std::int64_t word_, rows_, width_ = 0;
    std::vector<column_group> groups_;
    page_array<double> values_;
};

/// Work space of several threads, each part on lines of the cache of its own.
class thread_parts {
  public:
    thread_parts(std::int64_t doubles, std::int64_t threads)
        : size_((doubles + 7) / 8 * 8), values_(size_ * threads + 8) {}
    [[nodiscard]] double* part(std::int64_t thread) {
        const auto address = reinterpret_cast<std::uintptr_t>(values_.data());
        return values_.data() + (64 - address % 64) % 64 / sizeof(double) + size_ * thread;
    }

  private:
    std::int64_t size_;
    page_array<double> values_;
};

[[nodiscard]] const plink_table_kernels& kernels_of(const plink_kernels& kernels, const column_group& group);

/// Outputs of a block, so that each thread has the same number of blocks; a multiple of `multiple`.
[[nodiscard]] std::int64_t block_length(std::int64_t outputs, std::int64_t longest, std::int64_t multiple);

}  // namespace zendar::detail
