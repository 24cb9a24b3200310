#include "modbasic.hpp"
#include "modstructure_external_detail.hpp"

namespace zendar {
namespace {

using detail::external_file;
using detail::record_fault;

void read_symmetric(const external_file& file, std::int32_t declared, gima22i_type& matrix) {
    logger& log = file.log;
    if (!file.ends_with("_tri")) file.stop_at_form("_tri", "Its name does not end in _tri");
    const detail::external_text text(file, declared, declared);
    std::vector<unsigned char> marks(static_cast<std::size_t>(declared), 0);
    text.for_each_position([&](const std::int64_t(&position)[2], record_fault& fault) {
        if (position[0] < position[1])
            return detail::set_element_fault(fault, detail::above_diagonal, position);
        detail::mark_level(marks, position[0]);
        detail::mark_level(marks, position[1]);
    });
    matrix.levels = detail::marked_levels(marks);
    log.message("    Maximum level               : " + inttochar(matrix.levels.maximum()));
    log.message("Number of lines in the file: " + inttochar(text.lines()));
    log.message("   Effective size of the matrix: " + inttochar(matrix.levels.size()));
    matrix.elements = detail::read_elements(text, matrix.levels, matrix.levels, true);
}

}  // namespace

void readgima22i(const param_type& param, std::int32_t e, const std::string& file, gima22i_type& matrix,
                 logger& log) {
    const std::int32_t declared = declared_levels(param, e);
    read_symmetric(detail::begin_external(e, declared, file, "Gi-A22i", "readgima22i", log), declared,
                   matrix);
}

void readqptransfo(const param_type& param, std::int32_t e, const std::string& file, gima22i_type& matrix,
                   logger& log) {
    const std::int32_t declared = declared_levels(param, e);
    read_symmetric(detail::begin_external(e, declared, file, "QP transfo", "readqptransfo", log), declared,
                   matrix);
}

}  // namespace zendar
