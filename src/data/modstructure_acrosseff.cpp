#include "modbasic.hpp"
#include "modstructure_external_detail.hpp"

namespace zendar {

void readacrosseff(const param_type& param, std::int32_t e, std::int32_t linked, const std::string& file,
                   across_block& block, logger& log) {
    const std::int32_t nrow = declared_levels(param, e), ncolumn = declared_levels(param, linked);
    const detail::external_file source =
        detail::begin_external(e, nrow, file, "the block between two effects", "readacrosseff", log);
    if (!source.ends_with("_tri")) source.stop_at_form("_tri", "Its name does not end in _tri");
    const detail::external_text text(source, nrow, ncolumn);
    std::vector<unsigned char> rows(static_cast<std::size_t>(nrow), 0);
    std::vector<unsigned char> columns(static_cast<std::size_t>(ncolumn), 0);
    text.for_each_position([&](const std::int64_t(&position)[2], detail::record_fault&) {
        detail::mark_level(rows, position[0]);
        detail::mark_level(columns, position[1]);
    });
    block.effect1 = e;
    block.effect2 = linked;
    block.rows = detail::marked_levels(rows);
    block.columns = detail::marked_levels(columns);
    log.message("    Maximum level               : " + inttochar(block.rows.maximum()));
    log.message("    Linked effect               : " + inttochar(linked));
    log.message("    Maximum level               : " + inttochar(block.columns.maximum()));
    log.message("Number of lines in the file: " + inttochar(text.lines()));
    log.message("   Effective size of the matrix: " + inttochar(block.rows.size()) + " x " +
                inttochar(block.columns.size()));
    block.elements = detail::read_elements(text, block.rows, block.columns, false);
}

}  // namespace zendar
