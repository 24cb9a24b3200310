#pragma once

#include <cstdint>
#include <span>
#include <string_view>

/// Codes of the instruction file and their predicates.
namespace zendar {

// TYPE_EFFECT
inline constexpr std::int32_t teff_class = 0;
inline constexpr std::int32_t teff_covariable = 1;
inline constexpr std::int32_t teff_huge = 2;
inline constexpr std::int32_t teff_huge_iod = 3;

// TYPE_RANDOM of effects with a pedigree
inline constexpr std::int32_t trandom_ani = 3;              ///< inbreeding
inline constexpr std::int32_t trandom_ani_upg = 5;          ///< and groups
inline constexpr std::int32_t trandom_ani_meta = 7;         ///< and metafounders
inline constexpr std::int32_t trandom_ani_rupg = 9;         ///< and random groups
inline constexpr std::int32_t trandom_ani_a22i = 103;       ///< the same with a part of A22^-1
inline constexpr std::int32_t trandom_ani_upg_a22i = 105;
inline constexpr std::int32_t trandom_ani_rupg_a22i = 109;
inline constexpr std::int32_t trandom_ani_ploidy = 203;     ///< any number of gene copies

/// What a file line of an EFFECT_ID block holds, in the order of the words.
enum class block_word : std::uint8_t { file1, file2, file3, file4, nupg };

/// What follows the words of an EFFECT_ID block.
enum class block_covariance : std::uint8_t { none, matrix_file, huge, huge_linked };

/// One row per TYPE_RANDOM: all that reading, writing and finalising need to know of it.
struct random_type_entry {
    std::int32_t code;
    std::span<const block_word> words;  ///< the words behind the EFFECT_ID values
    block_covariance covariance;
    std::string_view log_text;  ///< of the covariance line, empty when there is none
    bool pedigree;              ///< owns a record in `ped`
    bool ploidy;                ///< owns a record in `pedploidy`
    bool inverted;              ///< `invertg` inverts its matrix
};

/// The table of random types, in ascending order of the codes.
std::span<const random_type_entry> random_types();

/// The row of a code, or nothing for a code that is not defined.
const random_type_entry* find_random_type(std::int32_t code);

/// True for 103 up to and including 109.
constexpr bool is_a22i_effect(std::int32_t code) { return code >= 103 && code <= 109; }

/// True when a random type works on a pedigree: 3 to 10, 103 to 109, 203 to 209.
constexpr bool is_pedigree_code(std::int32_t code) {
    return (code >= 3 && code <= 10) || is_a22i_effect(code) || (code >= 203 && code <= 209);
}
constexpr bool is_ploidy_code(std::int32_t code) { return code >= 203 && code <= 209; }

constexpr bool is_huge_effect(std::int32_t type_effect) {
    return type_effect == teff_huge || type_effect == teff_huge_iod;
}

// Solver codes
inline constexpr std::int32_t code_pardiso = 0;
inline constexpr std::int32_t code_fpcg_inmem = 19;
inline constexpr std::int32_t code_pcg_inmem = 20;
inline constexpr std::int32_t code_pcg_inmem_block = 21;
inline constexpr std::int32_t code_dpcg_inmem = 25;
inline constexpr std::int32_t code_pcg_iod = 120;
inline constexpr std::int32_t code_dpcg_iod = 125;
inline constexpr std::int32_t code_dpcg_iod_real = 126;
inline constexpr std::int32_t code_cheb_iod = 150;

/// One row per solver code: the name of `!solver` and the log line of the dispatch.
struct solver_entry {
    std::int32_t code;
    std::string_view name;
    std::string_view log_text;
    bool iod;  ///< iteration on data; otherwise in memory
};
std::span<const solver_entry> solvers();
const solver_entry* find_solver(std::int32_t code);

/// Iteration on data: 120, 125, 126, 150.
bool is_iod_solver(std::int32_t code);
/// In memory: 0, 19, 20, 21, 25.
bool is_inmemory_solver(std::int32_t code);

}  // namespace zendar
