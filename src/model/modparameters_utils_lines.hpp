#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "modfile.hpp"

/// Large text files of numbers, a record a line, read in blocks by all threads. What the readers of the input
/// data share; nobody else includes this.
namespace zendar::detail {

// ---- numbers and records (modparameters_utils_parse.cpp) -------------------------------------------------

enum class record_fault_kind : std::uint8_t {
    none,
    blank_line,
    short_line,  ///< fewer values than columns; `value` of them were found
    long_line,   ///< the record does not end within the longest record
    null_value,  ///< two commas in a row, a comma at the start, or "3*"
    not_a_number,
    not_finite,   ///< NaN or infinity where a number is needed
    no_level,     ///< outside the integers of 32 bits
    no_class,     ///< outside the residual classes
    more_values,  ///< the line goes on behind its last value
    not_an_integer,
    out_of_range,  ///< outside 1 .. `limit`
    read_error,    ///< `code` is the system's number
    file_changed,  ///< the file has become shorter
    no_memory,
};

/// Why a record is bad. Of fixed size, so that a thread can carry it without an allocation.
struct record_fault {
    record_fault_kind kind = record_fault_kind::none;
    std::int64_t line = 0;   ///< from 1
    std::int64_t value = 0;  ///< from 1: the value that is bad
    int code = 0;
    std::int64_t limit = 0;
    std::array<char, 41> word{};  ///< the start of the bad word, other characters than printable ones as '?'

    void set(record_fault_kind why, std::int64_t which, std::string_view text = {});
};

/// Why a record of `columns` values is bad, in words.
std::string describe(const record_fault& fault, std::int64_t columns);
/// The status that goes with it: that of the system, -1 for the end of the file, otherwise 1.
int status_of(const record_fault& fault);

/// Reads one word as a real number: optional sign, digits with an optional point, optional exponent with one
/// of the letters e, E, d, D; or "inf", "infinity", "nan" in either case. Correctly rounded; too large a
/// number is an infinity, too small a one is zero.
/// @returns false when the word is no number.
bool parse_real(std::string_view word, double& value);

/// Reads a record of `row.size()` values from the line at `p`, which has a line feed at its end. Blanks, tabs
/// or one comma separate values, "3*0" stands for three of them. What is left of the line is not looked at.
/// @returns where the reading stopped, on the same line; `fault` is set when the record is bad.
const char* parse_record(const char* p, std::span<double> row, record_fault& fault);

/// Reads one integer, of at most 18 digits and without repeat count, as value number `which` of the line at
/// `p`, by the same rules.
const char* parse_integer(const char* p, std::int64_t which, std::int64_t& value, record_fault& fault);

/// Sets `fault` when something stands between `p` and the end of its line.
const char* parse_line_end(const char* p, record_fault& fault);

/// Word number `value` (from 1) of the line at `p`, by the same rules; the word itself, without repeat count.
std::string_view record_word(const char* p, std::int64_t value);

/// Number of items on a line, by the same rules: an item with a repeat count is one, and a null value is one
/// too.
std::int64_t count_items(std::string_view line);  // needs a line feed behind its end

/// Number of values up to `end` on the line at `p`: an item counts as often as its repeat count says.
std::int64_t count_values(const char* p, const char* end);

// ---- the file as blocks of lines (modparameters_utils_blocks.cpp) -----------------------------------------

/// Sizes of the reading, in bytes.
struct reading_sizes {
    std::int64_t block = 0;  ///< 0: chosen by the number of threads, at most 1 MiB
    std::int64_t longest_record = std::int64_t{16} << 20;  ///< characters that the values of a line may take
    std::int64_t overhang = std::int64_t{64} << 10;  ///< the last line of a block is completed in such steps
    std::int64_t progress_from = std::int64_t{50} << 20;  ///< files from this size on report their progress
};

/// The whole lines that start in one block. `text` ends with a line feed, even if the file does not.
struct line_block {
    std::span<const char> text;
    std::int64_t owned = 0;  ///< lines that start before this offset of `text` belong to the block
    std::int64_t line = 0;   ///< number of the first line, from 1
    bool cut = false;        ///< the last line goes on in the file
};

/// A text file split into blocks of equal size. A byte-order mark at its start and the blank lines at its end
/// are no part of it. The member functions that are const may be called concurrently.
class block_file {
  public:
    explicit block_file(reading_sizes sizes);

    std::optional<file_error> open(const std::filesystem::path& path);
    [[nodiscard]] bool empty() const noexcept { return begin_ >= end_; }
    [[nodiscard]] std::int64_t bytes() const noexcept { return end_ - begin_; }
    [[nodiscard]] std::int64_t blocks() const noexcept { return (bytes() + sizes_.block - 1) / sizes_.block; }

    /// Counts the lines, at least up to `enough` of them (0: all). Needed before `load`.
    std::optional<file_error> index_lines(std::int64_t enough);
    [[nodiscard]] std::int64_t lines() const noexcept { return lines_; }  ///< counted by `index_lines`
    /// Blocks that hold the lines 1 .. n.
    [[nodiscard]] std::int64_t blocks_of(std::int64_t n) const;
    /// No line of the block has a lower number than this.
    [[nodiscard]] std::int64_t first_line(std::int64_t block) const { return feeds_before_[block] + 1; }

    /// Reads the lines of a block. @returns false with `fault` set when the file cannot be read.
    bool load(std::int64_t block, std::vector<char>& buffer, line_block& lines, record_fault& fault) const;
    /// The first line, or what the first million characters of it are.
    std::optional<file_error> first_line_text(std::vector<char>& buffer, std::string_view& line) const;

  private:
    /// Bytes [from, to) of the content. False with `fault` set when they cannot be read.
    bool read(std::int64_t from, std::int64_t to, char* data, record_fault& fault) const;
    /// The content of the block, and the byte before it where there is one, to the start of `buffer`.
    bool read_block(std::int64_t block, std::vector<char>& buffer, std::int64_t& used,
                    record_fault& fault) const;
    bool complete_last_line(std::int64_t at, std::int64_t& used, std::vector<char>& buffer, line_block& lines,
                            record_fault& fault) const;
    [[nodiscard]] std::int64_t count_feeds(std::int64_t block, std::vector<char>& buffer,
                                           record_fault& fault) const;
    std::optional<file_error> find_end();

    reading_sizes sizes_;
    random_reader file_;
    std::int64_t begin_ = 0, end_ = 0;        // the content, as offsets of the file
    std::vector<std::int64_t> feeds_before_;  // [block]: line feeds of the content before it
    std::int64_t lines_ = 0;
};

/// Reads the record of a line at `p`, which has a line feed at its end. Called by several threads at once.
/// @returns where the reading stopped, on the same line; `fault` is set when the record is bad.
using line_parser = std::function<const char*(const char* p, std::int64_t line, record_fault& fault)>;

/// Hands the lines 1 .. `last` to `parse`, those of a block in their order; `file` has been indexed.
/// @returns the fault of the first bad line (the same one for any number of threads), with its line.
record_fault read_lines(const block_file& file, std::int64_t last, const line_parser& parse);

}  // namespace zendar::detail
