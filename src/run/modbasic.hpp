#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zendar {

// ---- text (modbasic_text.cpp) ----------------------------------------------------------------------------

/// The number in "i0" form.
std::string inttochar(std::int64_t n);

/// Word boundaries of a line: the starts of its words (from 1) and, last, the position one behind the end of
/// the last word; n words give n + 1 entries, a line of blanks a single entry. A word is a maximal run of
/// characters other than blanks.
std::vector<std::int32_t> pos_words(std::string_view line);

/// The words of a line, split at blanks only.
std::vector<std::string_view> words_of(std::string_view line);

/// Number of words of a line, split at blanks only.
std::int64_t count_words(std::string_view line);

std::string_view trim_left(std::string_view text);   ///< without leading blanks
std::string_view trim_right(std::string_view text);  ///< without trailing blanks
std::string_view trim(std::string_view text);        ///< without both

/// `dir` followed by the part of `path` behind its last "/".
std::string outputfile(std::string_view dir, std::string_view path);

/// The prefix of generated files for the option `!outputdir`: empty for "", "." and "./", else the directory
/// with exactly one "/" at its end.
std::string output_prefix(std::string_view outputdir);

// ---- numbers to text (modbasic_format.cpp) ---------------------------------------------------------------

/// One number through one edit descriptor, untrimmed, as a Fortran processor writes it: "fw.d" and "f0.d",
/// "ew.d", "gw.d", "g0.d", "g0"; "(...)" around it is allowed, letters in either case. f0.d prints no leading
/// zero (".500"); overflow of a width gives asterisks; values are rounded correctly, ties to even.
/// @throws std::invalid_argument  for a descriptor outside this list (an error of the caller).
std::string format_real(double x, std::string_view descriptor);

/// The same for an integer: "i0", "iw".
std::string format_int(std::int64_t n, std::string_view descriptor);

/// `format_real`, left-adjusted and trimmed.
std::string realtochar(double x, std::string_view descriptor);
/// Single precision; "g0" and the list-directed form then have single-precision digits.
std::string realtochar(float x, std::string_view descriptor);

/// A number in the default form of list-directed output, with its leading blank(s): integers of 32 bits in
/// 12 positions (one blank and 11), of 64 bits in 21, reals of 64 bits in 26 and of 32 bits in 17 positions.
std::string list_form(double x);
std::string list_form(float x);
std::string list_form(std::int32_t n);
std::string list_form(std::int64_t n);

/// Writes x in "g0.6" form (no blanks) at `out` and returns one past the last character. At most 16
/// characters. Meant for files of tens of millions of rows; the same text as format_real(x, "g0.6").
char* write_g06(char* out, double x);
/// Writes n in "i0" form at `out`; at most 20 characters.
char* write_i0(char* out, std::int64_t n);

// ---- list-directed input (modbasic_listread.cpp)
// -----------------------------------------------------------

/// Status of a read: 0 good, -1 end of file, above 0 an error with its message.
struct read_status {
    int iostat = 0;
    std::string iomsg;
    [[nodiscard]] bool ok() const { return iostat == 0; }
};

class text_reader;

/// One list-directed read statement: values from the next line of `input` on, separated by blanks, tabs or
/// commas, over as many lines as needed; what is left of the last line is skipped when the statement ends.
/// Repeat counts ("3*0"), null values (",,", "3*": the variable keeps its value) and exponents with d, D, e,
/// E are understood; a real variable takes integers, an integer variable only integers. Quotes around words
/// are taken off. A slash is an ordinary character. `input` must not be used otherwise while the statement
/// lives.
class list_read {
  public:
    explicit list_read(text_reader& input);
    ~list_read();  // skips nothing: the line taken last is already consumed
    list_read(const list_read&) = delete;
    list_read& operator=(const list_read&) = delete;

    read_status get(std::int32_t& value);
    read_status get(std::int64_t& value);
    read_status get(double& value);
    read_status get(std::string& word);
    read_status get(std::span<std::int32_t> values);
    read_status get(std::span<double> values);

  private:
    /// Supplies the next item of the statement; `null` when the item is a null value.
    read_status next_item(std::string_view& text, bool& null, bool is_word);
    read_status next_line();
    read_status take_repeat_count();
    read_status take_quoted(std::string_view& text);
    /// Keeps the status: a statement that failed once gives it to all that follows.
    read_status fail(read_status status);
    template <class Number>
    read_status get_number(Number& value);
    template <class Number>
    read_status get_numbers(std::span<Number> values);

    text_reader& input_;
    std::string_view rest_;           // of the line taken last
    bool separator_pending_ = false;  // a value was read and its separator not yet
    std::int64_t repeat_ = 0;         // how often `repeated_` still stands
    std::string_view repeated_;       // part of the line or of `unquoted_`
    bool repeated_null_ = false;
    std::string unquoted_;
    std::int64_t item_ = 0;  // items so far, for messages
    read_status failure_;
};

/// One whole word as a number, with the same rules as in a statement (no separators, no repeat count).
read_status parse_number(std::string_view word, std::int32_t& value);
read_status parse_number(std::string_view word, std::int64_t& value);
read_status parse_number(std::string_view word, double& value);

}  // namespace zendar
