#include "modparameters_utils_triplets.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <string>

#include "modbasic.hpp"
#include "modsparse_detail.hpp"

namespace zendar::detail {
namespace {

constexpr double rounding = 1e-12;  ///< relative; both triangles may have been summed in another order

bool comes_before(const triplet& a, const triplet& b) {
    const std::int32_t column_a = std::abs(a.key), column_b = std::abs(b.key);
    if (column_a != column_b) return column_a < column_b;
    return a.key != b.key ? a.key > b.key : a.value < b.value;
}

/// The sums of one column in the two triangles.
struct column_sum {
    std::int32_t column = 0;
    double upper = 0.0, lower = 0.0;
    bool in_upper = false, in_lower = false;

    [[nodiscard]] bool agrees() const {
        if (!std::isfinite(upper) || !std::isfinite(lower)) return false;
        return !in_upper || !in_lower ||
               std::abs(upper - lower) <= rounding * std::max(std::abs(upper), std::abs(lower));
    }
    [[nodiscard]] double value() const { return in_upper ? upper : lower; }
};

/// Adds up the column that starts at element `k`, which is moved behind it.
column_sum sum_column(std::span<const triplet> row, std::size_t& k) {
    column_sum sum;
    sum.column = std::abs(row[k].key);
    for (; k < row.size() && std::abs(row[k].key) == sum.column; ++k) {
        const bool in_upper = row[k].key > 0;
        (in_upper ? sum.upper : sum.lower) += row[k].value;
        (in_upper ? sum.in_upper : sum.in_lower) = true;
    }
    return sum;
}

/// Row and column of an element of the upper triangle.
struct upper_position {
    std::int32_t row = 0, column = 0;
};
upper_position in_upper_triangle(const std::int64_t (&position)[2]) {
    const auto [least, most] = std::minmax(position[0], position[1]);
    return {static_cast<std::int32_t>(least), static_cast<std::int32_t>(most)};
}

}  // namespace

const char* parse_position(const char* p, const std::int32_t (&limits)[2], std::int64_t (&position)[2],
                           record_fault& fault) {
    for (int k = 0; k < 2; ++k) {
        p = parse_integer(p, k + 1, position[k], fault);
        if (fault.kind != record_fault_kind::none) return p;
        if (position[k] >= 1 && position[k] <= limits[k]) continue;
        fault.set(record_fault_kind::out_of_range, k + 1, inttochar(position[k]));
        fault.limit = limits[k];
        return p;
    }
    return p;
}

const char* parse_value(const char* p, double& value, record_fault& fault) {
    const char* const first = p;
    p = parse_record(p, {&value, 1}, fault);
    if (fault.kind == record_fault_kind::blank_line) fault.kind = record_fault_kind::short_line;
    if (fault.kind != record_fault_kind::none) {
        fault.value += 2;
        return p;
    }
    if (!std::isfinite(value)) {
        fault.set(record_fault_kind::not_finite, 3, record_word(first, 1));
        return p;
    }
    if (count_values(first, p) != 1) {
        fault.set(record_fault_kind::more_values, 0);
        return p;
    }
    return parse_line_end(p, fault);
}

std::int64_t merge_symmetric(std::span<triplet> row) {
    if (find_conflict(row).column > 0) return -1;
    std::int64_t left = 0;
    for (std::size_t k = 0; k < row.size();) {
        const column_sum sum = sum_column(row, k);
        row[left++] = {sum.column, sum.value()};
    }
    return left;
}

std::int64_t merge_sum(std::span<triplet> row) {
    return merge_symmetric(row);  // there is one triangle
}

std::int64_t merge_unique(std::span<triplet> row) {
    const auto same_column = [](const triplet& a, const triplet& b) {
        return std::abs(a.key) == std::abs(b.key);
    };
    if (std::ranges::adjacent_find(row, same_column) != row.end()) return -1;
    for (triplet& element : row) element.key = std::abs(element.key);
    return std::ssize(row);
}

triplet_conflict find_conflict(std::span<const triplet> row) {
    for (std::size_t k = 0; k < row.size();) {
        const column_sum sum = sum_column(row, k);
        if (!sum.agrees()) return {sum.column, sum.upper, sum.lower};
    }
    return {};
}

triplet_rows::triplet_rows(std::int32_t nrow) : nrow_(nrow), begin_(static_cast<std::size_t>(nrow) + 1, 0) {}

void triplet_rows::count(std::int32_t row) {
    std::atomic_ref(begin_[row]).fetch_add(1, std::memory_order_relaxed);
}

void triplet_rows::allocate() {
    for (std::int32_t row = 1; row <= nrow_; ++row) begin_[row] += begin_[row - 1];
    end_.assign(begin_.begin(), begin_.end() - 1);
    elements_.resize(static_cast<std::size_t>(begin_[nrow_]));
}

bool triplet_rows::put(std::int32_t row, std::int32_t key, double value) {
    const std::int64_t at = std::atomic_ref(end_[row - 1]).fetch_add(1, std::memory_order_relaxed);
    if (at >= begin_[row]) return false;
    elements_[at] = {key, value};
    return true;
}

std::int32_t triplet_rows::merge(triplet_merge how) {
    std::int32_t bad = std::numeric_limits<std::int32_t>::max();
#pragma omp parallel for if (nrow_ > 1024) schedule(dynamic, 1024) default(none) shared(how) \
    reduction(min : bad)
    for (std::int32_t row = 1; row <= nrow_; ++row) {
        const std::span<triplet> elements(elements_.data() + begin_[row - 1],
                                          elements_.data() + end_[row - 1]);
        std::sort(elements.begin(), elements.end(), comes_before);
        const std::int64_t left = how(elements);
        if (left < 0)
            bad = std::min(bad, row);
        else
            end_[row - 1] = begin_[row - 1] + left;
    }
    return bad <= nrow_ ? bad : 0;
}

std::span<const triplet> triplet_rows::row(std::int32_t row) const {
    return {elements_.data() + begin_[row - 1], elements_.data() + end_[row - 1]};
}

std::int64_t triplet_rows::bytes() const {
    return std::ssize(elements_) * static_cast<std::int64_t>(sizeof(triplet)) +
           (std::ssize(begin_) + std::ssize(end_)) * static_cast<std::int64_t>(sizeof(std::int64_t));
}

crssparse triplet_rows::to_crs(std::int32_t ncol, bool lupperstorage, logger& log) {
    const auto lacks_diagonal = [&](std::int32_t row) {
        const auto elements = this->row(row);
        return lupperstorage && (elements.empty() || elements.front().key != row);
    };
    std::int64_t nel = 0;
    for (std::int32_t row = 1; row <= nrow_; ++row)
        nel += std::ssize(this->row(row)) + (lacks_diagonal(row) ? 1 : 0);
    if (nel >= std::numeric_limits<std::int32_t>::max())
        fatal(log, "A matrix of " + inttochar(nel) + " elements is too large", "modparameters_utils",
              "to_crs");

    crssparse crs(nrow_, nel, ncol, lupperstorage, &log);
    const std::span<std::int32_t> ia = crs_arrays::ia(crs), ja = crs_arrays::ja(crs);
    const std::span<double> a = crs_arrays::a(crs);
    ia[0] = 1;
    for (std::int32_t row = 1; row <= nrow_; ++row)
        ia[row] = static_cast<std::int32_t>(ia[row - 1] + std::ssize(this->row(row)) +
                                            (lacks_diagonal(row) ? 1 : 0));
#pragma omp parallel for if (nrow_ > 1024) schedule(static) default(none) shared(ia, ja, a, lacks_diagonal)
    for (std::int32_t row = 1; row <= nrow_; ++row) {
        std::int32_t at = ia[row - 1] - 1;
        if (lacks_diagonal(row)) {
            ja[at] = row;
            a[at++] = 0.0;
        }
        for (const triplet& element : this->row(row)) {
            ja[at] = element.key;
            a[at++] = element.value;
        }
    }
    elements_ = {};
    begin_.assign(begin_.size(), 0);
    end_.assign(end_.size(), 0);
    crs.setsorted(true);
    if (lupperstorage) crs.setsymmetric();
    return crs;
}

record_fault read_symmetric_triplets(const block_file& text, triplet_rows& elements) {
    const std::int32_t n = elements.nrow();
    record_fault fault =
        read_lines(text, text.lines(), [&](const char* p, std::int64_t, record_fault& found) {
            std::int64_t position[2] = {};
            p = parse_position(p, {n, n}, position, found);
            if (found.kind == record_fault_kind::none) elements.count(in_upper_triangle(position).row);
            return p;
        });
    if (fault.kind != record_fault_kind::none) return fault;
    elements.allocate();
    return read_lines(text, text.lines(), [&](const char* p, std::int64_t, record_fault& found) {
        std::int64_t position[2] = {};
        double value = 0.0;
        p = parse_position(p, {n, n}, position, found);
        if (found.kind == record_fault_kind::none) p = parse_value(p, value, found);
        if (found.kind != record_fault_kind::none) return p;
        const auto [row, column] = in_upper_triangle(position);
        if (!elements.put(row, position[0] > position[1] ? -column : column, value))
            found.set(record_fault_kind::file_changed, 0);
        return p;
    });
}

std::vector<std::int64_t> lines_of_element(const block_file& text, std::int32_t n, std::int32_t row,
                                           std::int32_t column) {
    std::vector<std::int64_t> lines;
    std::mutex access;
    read_lines(text, text.lines(), [&](const char* p, std::int64_t line, record_fault& fault) {
        std::int64_t position[2] = {};
        p = parse_position(p, {n, n}, position, fault);
        if (fault.kind != record_fault_kind::none) return p;
        const upper_position upper = in_upper_triangle(position);
        if (upper.row == row && upper.column == column) {
            const std::lock_guard lock(access);
            lines.push_back(line);
        }
        return p;
    });
    std::ranges::sort(lines);
    return lines;
}

triplet_rows read_symmetric_file(block_file& text, const std::string& name, std::int32_t n,
                                 const std::string& what, const std::string& head, std::string_view procedure,
                                 logger& log) {
    constexpr std::string_view module_tag = "modparameters_utils";
    const auto stop_unreadable = [&](const file_error& failure) {
        fatal_io(log, "The file " + name + " of the " + what + " cannot be read", module_tag, procedure,
                 failure.iostat, failure.iomsg);
    };
    if (const auto failure = text.open(name)) stop_unreadable(*failure);
    if (text.empty()) fatal(log, "The file " + name + " of the " + what + " is empty", module_tag, procedure);
    if (const auto failure = text.index_lines(0)) stop_unreadable(*failure);

    triplet_rows elements(n);
    const record_fault fault = read_symmetric_triplets(text, elements);
    if (fault.kind != record_fault_kind::none)
        fatal_io(log, head + " not correctly read at line " + inttochar(fault.line), module_tag, procedure,
                 status_of(fault), "File " + name + ": " + describe(fault, 3));
    return elements;
}

}  // namespace zendar::detail
