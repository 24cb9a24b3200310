#include "modbasic.hpp"
#include "modsparse_crs.hpp"
#include "modsparse_io_detail.hpp"

// crssparse and crssparse64 file, little-endian, no record markers; index: int32 and int64
//   int32    20, 21                format code
//   int32    dim1, dim2
//   int64    elements
//   int32    lupperstorage         written 0 or 1; read: 0 false, 1 and -1 true, else an error
//   index    ia[dim1 + 1], ja[elements]
//   float64  a[elements]

namespace zendar {

namespace {

template <std::signed_integral Index>
constexpr std::int32_t format_code = sizeof(Index) == 4 ? 20 : 21;

template <std::signed_integral Index>
constexpr const char* refusal = sizeof(Index) == 4 ? " ERROR: the proposed file is not a CRS file"
                                                   : " ERROR: the proposed file is not a CRS64 file";

/// Whether the arrays take exactly what is left of the file.
template <std::signed_integral Index>
bool sizes_fit(const detail::matrix_reader& file, std::int64_t rows, std::int64_t elements) {
    constexpr std::int64_t index = sizeof(Index), element = index + 8;
    if (!file.fits(rows + 1, index) || !file.fits(elements, element)) return false;
    return (rows + 1) * index + elements * element == file.rest();
}

}  // namespace

template <std::signed_integral Index>
void crs_matrix<Index>::save(const std::filesystem::path& path) const {
    file_writer file;
    if (const auto failure = file.open(path)) fail(detail::cannot_write(path, *failure));
    detail::write_head(file, format_code<Index>, dim1_, dim2_, totalnumberofelements());
    detail::write_item(file, std::int32_t{lupperstorage_ ? 1 : 0});
    file.write_values(ia_.span());
    file.write_values(ja_.span());
    file.write_values(a_.span());
    if (const auto failure = file.commit()) fail(detail::cannot_write(path, *failure));
}

template <std::signed_integral Index>
crs_matrix<Index> crs_matrix<Index>::load(const std::filesystem::path& path, logger* unlog) {
    detail::matrix_reader file(path, refusal<Index>, unlog);
    const auto head = file.read_head(format_code<Index>);
    const bool upper = file.read_logical();
    if (!sizes_fit<Index>(file, head.dim1, head.elements))
        file.reject("the number of elements does not agree with the size of the file: " +
                    inttochar(head.elements));
    if (head.elements >= std::numeric_limits<Index>::max()) file.reject("too many elements");

    crs_matrix result(head.dim1, head.elements, head.dim2, upper, unlog);
    file.read_values(result.ia_.span());
    file.read_values(result.ja_.span());
    file.read_values(result.a_.span());
    switch (detail::check_crs(result.view(), upper)) {
        case detail::crs_defect::pointers:
            file.reject("the row pointers are not in order");
        case detail::crs_defect::columns:
            file.reject("a column number is outside the matrix");
        case detail::crs_defect::none:
            break;
    }
    result.lsorted_ = detail::is_sorted_by_column(result.view());
    return result;
}

template void crs_matrix<std::int32_t>::save(const std::filesystem::path&) const;
template void crs_matrix<std::int64_t>::save(const std::filesystem::path&) const;
template crs_matrix<std::int32_t> crs_matrix<std::int32_t>::load(const std::filesystem::path&, logger*);
template crs_matrix<std::int64_t> crs_matrix<std::int64_t>::load(const std::filesystem::path&, logger*);

}  // namespace zendar
