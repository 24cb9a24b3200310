#include <array>

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

void read_symmetric_stream(const external_file& file, std::int32_t declared, gima22i_type& matrix) {
    logger& log = file.log;
    detail::external_stream stream(file);
    std::array<std::int32_t, 2> sizes{};
    stream.read(std::span(sizes));
    const auto [maximum, n] = sizes;
    log.message("    Maximum level               : " + inttochar(maximum));
    log.message("   Effective size of the matrix: " + inttochar(n));
    if (n < 1) file.stop_at_kind("stream", inttochar(n) + " is no size of a matrix");
    stream.expect(n, std::int64_t{n} * (std::int64_t{n} + 1) / 2);
    matrix.levels = stream.read_levels(n, maximum, declared);
    file.announce(std::int64_t{n} * n * static_cast<std::int64_t>(sizeof(double)));
    matrix.elements = {};
    matrix.elements.dense = stream.read_triangle(n);
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
    const external_file source =
        detail::begin_external(e, declared, file, "QP transfo", "readqptransfo", log);
    if (source.ends_with(".stream"))
        read_symmetric_stream(source, declared, matrix);
    else
        read_symmetric(source, declared, matrix);
}

}  // namespace zendar
