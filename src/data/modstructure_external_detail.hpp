#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "modfile.hpp"
#include "modparameters_utils_lines.hpp"
#include "modparameters_utils_triplets.hpp"
#include "modstructure_external.hpp"

/// What the readers and writers of external matrices share; nobody else includes this.
namespace zendar::detail {

inline constexpr const char* external_module = "modstructure";

/// A matrix file, and what messages say of it.
struct external_file {
    std::string name;
    std::string_view kind;  ///< "APY", "Gi-A22i", ...
    std::string_view procedure;
    logger& log;

    [[nodiscard]] bool ends_with(std::string_view ending) const { return name.ends_with(ending); }
    [[noreturn]] void stop_unreadable(const file_error& failure) const;
    /// "The file <name> is not a <form> file!", and why. @param form  "_tri" or "stream"
    [[noreturn]] void stop_at_form(std::string_view form, const std::string& why, int status = 1) const;
    /// "The file <name> is not a <form> file for <kind>!": its content does not fit its use.
    [[noreturn]] void stop_at_kind(std::string_view form, const std::string& why) const;
    void announce(std::int64_t bytes) const;
};

/// Logs what all readers log before they open their file. `declared` are the levels of effect e.
[[nodiscard]] external_file begin_external(std::int32_t e, std::int32_t declared, const std::string& file,
                                           std::string_view kind, std::string_view procedure, logger& log);

// ---- levels (modstructure_external.cpp) ------------------------------------------------------------------

/// The levels (from 1) that are marked.
[[nodiscard]] matrix_levels marked_levels(std::span<const unsigned char> marks);
/// Levels in the order of a list, none of them twice and all up to `declared`.
[[nodiscard]] matrix_levels listed_levels(std::vector<std::int32_t> list, std::int32_t declared);
/// The lines of a list, each with one level.
[[nodiscard]] matrix_levels read_level_lines(const external_file& file, std::int32_t declared,
                                             std::int64_t& lines);
/// Marks a level; called by several threads.
inline void mark_level(std::span<unsigned char> marks, std::int64_t level) {
    const std::atomic_ref mark(marks[level - 1]);
    if (mark.load(std::memory_order_relaxed) == 0) mark.store(1, std::memory_order_relaxed);
}

// ---- text (modstructure_external.cpp) --------------------------------------------------------------------

/// Faults of an element, beside those of a line. They go as `code` of an `out_of_range`.
inline constexpr int above_diagonal = 1, outside_core = 2;
void set_element_fault(record_fault& fault, int code, const std::int64_t (&position)[2]);

/// The elements of a text must not be too few for a matrix that is held dense.
[[nodiscard]] constexpr bool is_too_large(std::int64_t elements, std::int64_t lines) {
    constexpr std::int64_t any = std::int64_t{1} << 20, elements_of_line = 20;
    return elements > any && elements / elements_of_line > lines;
}

/// An open text file of elements.
class external_text {
  public:
    /// @param limits  largest row and column
    external_text(const external_file& file, std::int32_t rows, std::int32_t columns);

    [[nodiscard]] const external_file& file() const { return file_; }
    [[nodiscard]] std::int64_t lines() const { return text_.lines(); }
    /// The integer that the first line holds, and nothing else; from then on that line is passed over. 0
    /// without one.
    std::int64_t take_size();
    void set_limits(std::int32_t rows, std::int32_t columns);

    /// visit(position, fault) for each line, by all threads in any order. Stops at the first bad line.
    template <class Visit>
    void for_each_position(const Visit& visit) const {
        check(read_lines(text_, text_.lines(), [&](const char* p, std::int64_t line, record_fault& fault) {
            std::int64_t position[2] = {};
            if (line < first_line_) return p;
            p = parse_position(p, limits_, position, fault);
            if (fault.kind == record_fault_kind::none) visit(position, fault);
            return p;
        }));
    }
    /// visit(position, value, fault), likewise.
    template <class Visit>
    void for_each_element(const Visit& visit) const {
        check(read_lines(text_, text_.lines(), [&](const char* p, std::int64_t line, record_fault& fault) {
            std::int64_t position[2] = {};
            double value = 0.0;
            if (line < first_line_) return p;
            p = parse_position(p, limits_, position, fault);
            if (fault.kind == record_fault_kind::none) p = parse_value(p, value, fault);
            if (fault.kind == record_fault_kind::none) visit(position, value, fault);
            return p;
        }));
    }
    /// Names the first two lines of an element, of its mirror image too when the matrix is symmetric.
    [[noreturn]] void stop_at_repeat(std::int32_t row, std::int32_t column, bool symmetric) const;

  private:
    void check(const record_fault& fault) const;

    const external_file& file_;
    std::int32_t limits_[2];
    block_file text_{{}};
    std::int64_t first_line_ = 1;
};

/// Elements that are put once each, by any thread in any order. Before, all are NaN.
class element_grid {
  public:
    static constexpr double gap = std::numeric_limits<double>::quiet_NaN();

    explicit element_grid(std::span<double> values) : values_(values) {}
    void put(std::int64_t k, double value) {
        const double before = std::atomic_ref(values_[k]).exchange(value, std::memory_order_relaxed);
        if (before != before) return;
        std::int64_t first = repeat_.load();
        while (k < first && !repeat_.compare_exchange_weak(first, k)) {
        }
    }
    /// The first element that was put twice; -1 for none.
    [[nodiscard]] std::int64_t repeat() const { return repeat_.load() == none ? -1 : repeat_.load(); }
    /// Zeros where nothing was put.
    void fill_gaps();

  private:
    static constexpr std::int64_t none = std::numeric_limits<std::int64_t>::max();
    std::span<double> values_;
    std::atomic<std::int64_t> repeat_ = none;
};

/// Copies the upper triangle to the lower one; zeros in place of NaN.
void complete_symmetric(matrix<double>& m);

/// The elements of a text whose levels are known.
[[nodiscard]] external_matrix read_elements(const external_text& text, const matrix_levels& rows,
                                            const matrix_levels& columns, bool symmetric);

// ---- streams (modstructure_external_stream.cpp) ----------------------------------------------------------

/// An open stream file.
class external_stream {
  public:
    explicit external_stream(const external_file& file);

    /// @throws fatal_error  when the file ends before.
    void read(std::span<std::int32_t> values);
    /// @throws fatal_error  also for a value that is not finite.
    void read(std::span<double> values);
    /// Stops unless `integers` and then `reals` are all that is left. Neither is negative.
    void expect(std::int64_t integers, std::int64_t reals);
    /// `n` different levels from 1 to `maximum`, which must not be above the declared ones.
    [[nodiscard]] matrix_levels read_levels(std::int32_t n, std::int32_t maximum, std::int32_t declared);
    /// The lower triangle by rows, as a whole matrix.
    [[nodiscard]] matrix<double> read_triangle(std::int32_t n);

  private:
    const external_file& file_;
    binary_reader in_;
};

/// Writes the lower triangle by rows.
void write_triangle(file_writer& out, matrix_view<const double> m);

}  // namespace zendar::detail
