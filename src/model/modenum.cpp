#include "modenum.hpp"

#include <algorithm>
#include <array>

namespace zendar {

namespace {

using enum block_word;

constexpr std::array words_pedigree{file1, file2};
constexpr std::array words_groups{file1, nupg, file2};
constexpr std::array words_metafounders{file1, nupg, file2, file3};
constexpr std::array words_external{file1};
constexpr std::array words_pedigree_a22i{file1, file2, file4};
constexpr std::array words_groups_a22i{file1, nupg, file2, file4};

constexpr std::string_view read_plain = "Read the covariance matrix";
constexpr std::string_view read_external = "Read the (genetic) covariance matrix";
constexpr std::string_view read_genetic = "Read the genetic covariance matrix";

constexpr random_type_entry entry_without_matrix(std::int32_t code, block_covariance covariance) {
    return {.code = code,
            .words = {},
            .covariance = covariance,
            .log_text = {},
            .pedigree = false,
            .ploidy = false,
            .inverted = false};
}

constexpr random_type_entry entry_with_matrix(std::int32_t code, std::span<const block_word> words,
                                              std::string_view log_text) {
    return {.code = code,
            .words = words,
            .covariance = block_covariance::matrix_file,
            .log_text = log_text,
            .pedigree = is_pedigree_code(code),
            .ploidy = is_ploidy_code(code),
            .inverted = true};
}

constexpr std::array random_type_table{
    entry_without_matrix(0, block_covariance::none),
    entry_with_matrix(1, {}, read_plain),
    entry_with_matrix(3, words_pedigree, read_genetic),
    entry_with_matrix(5, words_groups, read_genetic),
    entry_with_matrix(7, words_metafounders, read_genetic),
    entry_with_matrix(9, words_groups, read_genetic),
    entry_with_matrix(10, words_external, read_external),
    entry_without_matrix(20, block_covariance::huge),
    entry_without_matrix(22, block_covariance::huge_linked),
    entry_without_matrix(23, block_covariance::huge),
    entry_without_matrix(30, block_covariance::huge_linked),
    entry_with_matrix(103, words_pedigree_a22i, read_genetic),
    entry_with_matrix(105, words_groups_a22i, read_genetic),
    entry_with_matrix(109, words_groups_a22i, read_genetic),
    entry_with_matrix(203, words_pedigree, read_genetic),
};

constexpr std::array solver_table{
    solver_entry{code_pardiso, "pardiso", "Chosen solver: IN-CORE + DIRECT + PARDISO", false},
    solver_entry{code_fpcg_inmem, "fpcg_inmem", "Chosen solver: IN-CORE + FPCG + BLOCK-JACOBI", false},
    solver_entry{code_pcg_inmem, "pcg_inmem", "Chosen solver: IN-CORE + PCG", false},
    solver_entry{code_pcg_inmem_block, "pcg_inmem_block", "Chosen solver: IN-CORE + PCG + BLOCK-JACOBI",
                 false},
    solver_entry{code_dpcg_inmem, "dpcg_inmem", "Chosen solver: IN-CORE + DPCG", false},
    solver_entry{code_pcg_iod, "pcg_iod", "Chosen solver: IOD + PCG", true},
    solver_entry{code_dpcg_iod, "dpcg_iod", "Chosen solver: IOD + DPCG", true},
    solver_entry{code_dpcg_iod_real, "dpcg_iod_real", "Chosen solver: IOD + DPCG + real", true},
    solver_entry{code_cheb_iod, "cheb_iod", "Chosen solver: IOD + CHEBYSHEV", true},
};

template <class Table>
auto find_code(const Table& table, std::int32_t code) -> decltype(table.data()) {
    const auto row = std::ranges::find_if(table, [code](const auto& entry) { return entry.code == code; });
    return row == table.end() ? nullptr : &*row;
}

}  // namespace

std::span<const random_type_entry> random_types() {
    return random_type_table;
}

const random_type_entry* find_random_type(std::int32_t code) {
    return find_code(random_type_table, code);
}

std::span<const solver_entry> solvers() {
    return solver_table;
}

const solver_entry* find_solver(std::int32_t code) {
    return find_code(solver_table, code);
}

bool is_iod_solver(std::int32_t code) {
    const solver_entry* entry = find_solver(code);
    return entry != nullptr && entry->iod;
}

bool is_inmemory_solver(std::int32_t code) {
    const solver_entry* entry = find_solver(code);
    return entry != nullptr && !entry->iod;
}

}  // namespace zendar
