#include <omp.h>

#include <algorithm>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modphenanalysis.hpp"

namespace zendar {
namespace {

constexpr std::int64_t max_value = 17;  ///< characters of a value and what stands behind it

/// The lines of the records [first, end), at `out`. @returns behind their end.
char* put_records(matrix_view<const double> values, std::int64_t first, std::int64_t end, char* out) {
    for (std::int64_t rec = first; rec < end; ++rec) {
        const double* const own = values.data + rec * values.ld;
        for (std::int64_t t = 0; t < values.rows; ++t) {
            if (t > 0) *out++ = ' ';
            out = write_g06(out, own[t]);
        }
        *out++ = '\n';
    }
    return out;
}

}  // namespace

void write_records(matrix_view<const double> values, const std::filesystem::path& file, logger& log) {
    const auto check = [&](const std::optional<file_error>& error) {
        if (error)
            fatal_io(log, "Cannot write the file " + file.string(), "modphenanalysis", "write_records",
                     error->iostat, error->iomsg);
    };
    file_writer out;
    check(out.open(file));

    // A round of pieces is formatted by all threads, then written in order.
    constexpr std::int64_t values_of_piece = 16384;
    const std::int64_t records =
        std::max<std::int64_t>(values_of_piece / std::max<std::int64_t>(values.rows, 1), 1);
    const std::int64_t pieces = 4 * std::max<std::int64_t>(omp_get_max_threads(), 1);
    const auto room =
        static_cast<std::size_t>(std::min(records, values.cols) * (values.rows * max_value + 1));
    std::vector<std::vector<char>> text(static_cast<std::size_t>(pieces));
    std::vector<std::int64_t> used(static_cast<std::size_t>(pieces), 0);
    for (std::vector<char>& piece : text) piece.resize(room);
    for (std::int64_t begin = 0; begin < values.cols && !out.failed(); begin += records * pieces) {
#pragma omp parallel for schedule(dynamic, 1) default(none) shared(values, begin, records, pieces, text, used)
        for (std::int64_t k = 0; k < pieces; ++k) {
            const std::int64_t first = std::min(begin + k * records, values.cols);
            const std::int64_t end = std::min(first + records, values.cols);
            used[k] = put_records(values, first, end, text[k].data()) - text[k].data();
        }
        for (std::int64_t k = 0; k < pieces; ++k)
            out.write_bytes(text[k].data(), static_cast<std::size_t>(used[k]));
    }
    check(out.commit());
}

}  // namespace zendar
