#include <algorithm>
#include <cmath>

#include "modbasic.hpp"
#include "modstructure_external_detail.hpp"

namespace zendar::detail {
namespace {

constexpr const char* stream_form = "stream";

}  // namespace

external_stream::external_stream(const external_file& file) : file_(file) {
    if (const auto failure = in_.open(file.name)) file.stop_unreadable(*failure);
}

void external_stream::read(std::span<std::int32_t> values) {
    if (!in_.read_values(values))
        file_.stop_at_form(stream_form, "It ends at byte " + inttochar(in_.size()), -1);
}

void external_stream::read(std::span<double> values) {
    const std::int64_t before = in_.position();
    if (!in_.read_values(values))
        file_.stop_at_form(stream_form, "It ends at byte " + inttochar(in_.size()), -1);
    const auto bad = std::ranges::find_if_not(values, [](double value) { return std::isfinite(value); });
    if (bad == values.end()) return;
    const std::int64_t byte = before + (bad - values.begin()) * static_cast<std::int64_t>(sizeof(double));
    file_.stop_at_form(stream_form, "The value behind byte " + inttochar(byte) + " is not a finite number");
}

void external_stream::expect(std::int64_t integers, std::int64_t reals) {
    const std::int64_t left = in_.size() - in_.position() - integers * std::int64_t{4};
    if (left >= 0 && left % 8 == 0 && left / 8 == reals) return;
    file_.stop_at_kind(stream_form, "It has " + inttochar(in_.size()) + " bytes, which do not hold " +
                                        inttochar(integers) + " levels and " + inttochar(reals) +
                                        " elements");
}

matrix_levels external_stream::read_levels(std::int32_t n, std::int32_t maximum, std::int32_t declared) {
    if (maximum < 1 || maximum > declared)
        file_.stop_at_kind(stream_form, "The maximum level " + inttochar(maximum) +
                                            " must lie between 1 and " + inttochar(declared));
    std::vector<std::int32_t> list(static_cast<std::size_t>(n));
    read(std::span(list));
    std::vector<unsigned char> seen(static_cast<std::size_t>(maximum), 0);
    for (std::int64_t k = 0; k < n; ++k) {
        const std::string level = "Level " + inttochar(k + 1) + ": " + inttochar(list[k]);
        if (list[k] < 1 || list[k] > maximum)
            file_.stop_at_kind(stream_form, level + " must lie between 1 and " + inttochar(maximum));
        if (seen[list[k] - 1] != 0) file_.stop_at_kind(stream_form, level + " stands there twice");
        seen[list[k] - 1] = 1;
    }
    return listed_levels(std::move(list), declared);
}

matrix<double> external_stream::read_triangle(std::int32_t n) {
    matrix<double> m(n, n);
    // A row of the lower triangle is the start of a column of the upper one.
    for (std::int64_t j = 0; j < n; ++j) read(m.column(j).first(static_cast<std::size_t>(j + 1)));
    complete_symmetric(m);
    return m;
}

void write_triangle(file_writer& out, matrix_view<const double> m) {
    for (std::int64_t j = 0; j < m.cols && !out.failed(); ++j)
        out.write_values(m.column(j).first(static_cast<std::size_t>(j + 1)));
}

}  // namespace zendar::detail
