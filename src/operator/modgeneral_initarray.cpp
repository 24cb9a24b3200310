#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

#include "modfile.hpp"
#include "modgeneral.hpp"
#include "modgeneral_detail.hpp"
#include "modgeneral_reading.hpp"

namespace zendar {

namespace {

using detail::check_opened;
using detail::next_number;

constexpr std::string_view procedure = "initvectorfromfile_array_real8";

// A text in one of two forms:
//   columns   one line per equation, in their order: a value per vector
//   rows      trait, effect, level, covariable and a value per vector, as in solution files, in any order
// Blank lines do not count. A row of another model must not pass for a line of columns, which may begin with
// whole numbers as well: it is rows when no fewer than half of the lines begin with the numbers of an
// equation.

constexpr std::int64_t numbers_of_row = 4;
using row_numbers = std::array<std::int32_t, numbers_of_row>;

/// Where a row belongs, from 1; 0 for one that the model does not have.
struct row_place {
    std::int64_t row = 0;       ///< among all rows, in which combined traits are apart
    std::int64_t equation = 0;  ///< of the trait's slot
};

row_place place_of(const param_type& param, const row_numbers& numbers) {
    const auto [t, e, lev, k] = numbers;
    detail::effect_layout layout;
    if (e < 1 || e > param.neffect || t < 1 || t > param.ntrait || !detail::layout_of(param, e, layout))
        return {};
    std::int64_t before = 0;
    if (layout.class_effect || layout.nested) {
        if (lev < 1 || lev > layout.nlevel) return {};
        before = (std::int64_t{lev} - 1) * layout.nx;
    }
    if (!layout.class_effect) {
        if (k < 1 || k > layout.nx) return {};
        before += k - 1;
    }
    const std::int32_t slot =
        param.lcombieff ? detail::slot_of<detail::addressing::combieff>(param, t, e) : t;
    const std::int64_t first = layout.first + before * param.ntrait;
    if (slot < 1 || slot > param.ntrait || first < 0 || first + param.ntrait > param.neq) return {};
    return {first + t, first + slot};
}

/// Reads numbers from one line alone, list-directed: nothing that the line lacks is taken from the next one.
class line_read {
  public:
    line_read(std::string_view line, const std::string& file)
        : input_(opened(line, file)), statement_(input_) {}

    template <class T>
    read_status get(T& values) {
        return statement_.get(values);
    }

  private:
    static text_reader opened(std::string_view line, const std::string& file) {
        text_reader input;
        input.open_text(std::string(line), file);
        return input;
    }
    text_reader input_;
    list_read statement_;
};

class array_file {
  public:
    array_file(const param_type& param, const std::string& file, logger& log)
        : param_(param), file_(file), log_(log) {}

    /// Looks at the whole file before anything is allocated.
    void inspect();
    [[nodiscard]] std::int64_t nvectors() const { return rows_ ? ncol_ - numbers_of_row : ncol_; }
    void read(matrix<double>& array);

  private:
    [[noreturn]] void stop(const std::string& what) const { fatal(log_, what, "modgeneral", procedure); }
    [[noreturn]] void stop_line(const std::string& what) const {
        stop("Line " + inttochar(input_.line_number()) + " of the file " + file_ + " " + what);
    }
    [[noreturn]] void stop_reading(const read_status& status) const {
        detail::stop_reading(log_, "Cannot read " + detail::line_of(input_, file_), procedure, status.iostat,
                             status.iomsg);
    }
    void open() {
        input_ = text_reader();
        check_opened(input_.open(file_), file_, procedure, log_);
    }
    /// The next line that is not blank.
    std::optional<std::string_view> next_line() {
        while (const auto line = input_.line())
            if (!trim(*line).empty()) return line;
        check_opened(input_.error(), file_, procedure, log_);
        return {};
    }
    /// At most one more than `limit`.
    std::int64_t count_columns(std::string_view line, std::int64_t limit) const;
    [[nodiscard]] bool names_equation(std::string_view line) const;
    void read_line(std::string_view line, row_numbers& numbers, std::span<double> values) const;
    std::int64_t equation_of_row(const row_numbers& numbers, std::span<const double> values,
                                 const matrix<double>& array);

    const param_type& param_;
    const std::string& file_;
    logger& log_;
    text_reader input_;
    std::int64_t ncol_ = 0;
    bool rows_ = false;
    std::vector<bool> seen_, filled_;  ///< by row and by equation
};

void array_file::inspect() {
    open();
    const auto first = input_.line();
    std::int64_t nrows = 0, named = 0;
    if (first) {
        if (trim(*first).empty() && next_line())
            stop("The first line of the file " + file_ + " holds no columns!");
        open();
    }
    while (const auto line = next_line()) {
        if (nrows == 0) {
            const std::int64_t most = std::int64_t{param_.neq} + numbers_of_row;
            ncol_ = count_columns(*line, most);
            if (ncol_ > most) stop_line("has more columns than vectors can be independent!");
        } else if (const std::int64_t n = count_columns(*line, ncol_); n != ncol_) {
            stop_line(n > ncol_ ? "has more than " + inttochar(ncol_) + " columns!"
                                : "has " + inttochar(n) + " columns instead of " + inttochar(ncol_) + "!");
        }
        ++nrows;
        if (ncol_ > numbers_of_row && names_equation(*line)) ++named;
    }
    if (nrows != param_.neq)
        stop("The file " + file_ + " has " + inttochar(nrows) + " rows, but the number of equations is " +
             inttochar(param_.neq) + "!");
    rows_ = ncol_ > numbers_of_row && 2 * named >= nrows;
    if (nvectors() > param_.neq)
        stop("The file " + file_ + " has " + inttochar(nvectors()) +
             " vectors, but the number of equations is " + inttochar(param_.neq) + "!");
}

std::int64_t array_file::count_columns(std::string_view line, std::int64_t limit) const {
    std::int64_t n = 0;
    if (detail::is_plain(line)) {
        bool inside = false;
        for (const char c : line) {
            n += !inside && !detail::is_separator(c) ? 1 : 0;
            inside = !detail::is_separator(c);
        }
        return n;
    }
    line_read numbers(line, file_);
    for (double value = 0.0; n <= limit; ++n)
        if (const read_status status = numbers.get(value); status.iostat == -1)
            break;
        else if (!status.ok())
            stop_reading(status);
    return n;
}

bool array_file::names_equation(std::string_view line) const {
    row_numbers numbers{};
    if (detail::is_plain(line) && line.find('+') == std::string_view::npos) {
        const char* at = line.data();
        for (std::int32_t& number : numbers)
            if (!next_number(at, line.data() + line.size(), number)) return false;
    } else {
        std::span<std::int32_t> all(numbers);
        if (!line_read(line, file_).get(all).ok()) return false;
    }
    return place_of(param_, numbers).row > 0;
}

void array_file::read_line(std::string_view line, row_numbers& numbers, std::span<double> values) const {
    const std::span<std::int32_t> leading(numbers.data(), rows_ ? numbers.size() : 0);
    if (detail::is_plain(line)) {
        const char* at = line.data();
        const char* const end = at + line.size();
        const auto read = [&](auto& value) { return next_number(at, end, value); };
        if (std::ranges::all_of(leading, read) && std::ranges::all_of(values, read)) return;
    }
    line_read statement(line, file_);
    std::ranges::fill(values, 0.0);
    read_status status;
    if (rows_) status = statement.get(leading);
    if (status.ok()) status = statement.get(values);
    if (!status.ok()) stop_reading(status);
}

std::int64_t array_file::equation_of_row(const row_numbers& numbers, std::span<const double> values,
                                         const matrix<double>& array) {
    const row_place place = place_of(param_, numbers);
    const auto stop_row = [&](const std::string& what) {
        stop_line(what + " (trait " + inttochar(numbers[0]) + ", effect " + inttochar(numbers[1]) +
                  ", level " + inttochar(numbers[2]) + ", covariable " + inttochar(numbers[3]) + ")");
    };
    if (place.row == 0) stop_row("has no equation in the model");
    if (seen_[place.row - 1]) stop_row("has an equation for the second time");
    seen_[place.row - 1] = true;
    const std::int64_t i = place.equation - 1;
    for (std::size_t j = 0; filled_[i] && j < values.size(); ++j)
        if (values[j] != array(i, static_cast<std::int64_t>(j)))
            stop_row("has other values than another trait of the same equation");
    filled_[i] = true;
    return i;
}

void array_file::read(matrix<double>& array) {
    const std::int64_t neq = param_.neq;
    array = matrix<double>(neq, nvectors());
    std::vector<double> values(static_cast<std::size_t>(nvectors()));
    row_numbers numbers{};
    if (rows_) {
        seen_.assign(static_cast<std::size_t>(neq), false);
        filled_ = seen_;
    }
    open();
    for (std::int64_t n = 0; n < neq; ++n) {
        const auto line = next_line();
        if (!line) stop("The file " + file_ + " became shorter while it was read");
        read_line(*line, numbers, values);
        if (!std::ranges::all_of(values, [](double value) { return std::isfinite(value); }))
            stop_line("has a value that is not finite!");
        const std::int64_t i = rows_ ? equation_of_row(numbers, values, array) : n;
        for (std::int64_t j = 0; j < nvectors(); ++j) array(i, j) = values[j];
    }
}

}  // namespace

void initvectorfromfile_array_real8(const param_type& param, matrix<double>& array, const std::string& file,
                                    logger& log) {
    array = {};
    if (!detail::is_there(file, "The array will be set to 0.", procedure, log)) return;
    array_file input(param, file, log);
    input.inspect();
    input.read(array);
    log.message("Array initiated from: " + file);
    log.message("Number of columns: " + inttochar(input.nvectors()));
}

}  // namespace zendar
