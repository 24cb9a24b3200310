#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <string>
#include <system_error>

#include "modbasic.hpp"
#include "modparameters_utils_lines.hpp"

namespace zendar::detail {

namespace {

constexpr std::uint64_t largest_exact = std::uint64_t{1} << 53;  ///< integers up to this are exact as reals
constexpr double powers_of_ten[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                    1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
constexpr std::ptrdiff_t largest_power = 22;  ///< the last power of ten that is exact
constexpr std::ptrdiff_t most_digits = 18;    ///< more may overflow 64 bits

bool is_digit(char c) {
    return static_cast<unsigned char>(c - '0') < 10;
}

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

const char* skip_blanks(const char* p) {
    while (is_blank(*p)) ++p;
    return p;
}

/// A carriage return counts as part of the line's end only right before the line feed.
bool at_line_end(const char* p) {
    return *p == '\n' || (*p == '\r' && p[1] == '\n');
}

bool ends_word(const char* p) {
    return is_blank(*p) || *p == ',' || at_line_end(p);
}

/// Behind the separator that follows a value: blanks with at most one comma among them.
const char* skip_separator(const char* p) {
    p = skip_blanks(p);
    return *p == ',' ? p + 1 : p;
}

/// Adds the digits at p to `m`, which wraps around when there are too many of them. In files whose columns
/// have numbers of similar lengths this loop is well predicted, and then faster than to take eight digits at
/// once.
const char* read_digits(const char* p, std::uint64_t& m) {
    for (; is_digit(*p); ++p) m = 10 * m + static_cast<std::uint64_t>(*p - '0');
    return p;
}

/// The common case: up to 18 digits without an exponent whose value is exact in one operation, hence
/// correctly rounded. @returns the end of the word, or null when the number needs more work.
const char* read_plain_real(const char* p, double& value) {
    const bool negative = *p == '-';
    if (negative || *p == '+') ++p;
    std::uint64_t m = 0;
    const char* first = p;
    p = read_digits(p, m);
    std::ptrdiff_t digits = p - first, decimals = 0;
    if (*p == '.') {
        first = ++p;
        p = read_digits(p, m);
        decimals = p - first;
        digits += decimals;
    }
    if (digits < 1 || digits > most_digits || !ends_word(p)) return nullptr;

    auto magnitude = static_cast<double>(static_cast<std::int64_t>(m));
    if (decimals > 0) {
        if (m > largest_exact) return nullptr;
        magnitude /= powers_of_ten[decimals];
    }
    value = negative ? -magnitude : magnitude;
    return p;
}
static_assert(most_digits <= largest_power);

bool equals_ignoring_case(std::string_view word, std::string_view lower) {
    return std::equal(word.begin(), word.end(), lower.begin(), lower.end(),
                      [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b; });
}

bool parse_special(std::string_view word, double& value) {
    const bool negative = word.starts_with('-');
    if (negative || word.starts_with('+')) word.remove_prefix(1);
    if (equals_ignoring_case(word, "inf") || equals_ignoring_case(word, "infinity"))
        value = std::numeric_limits<double>::infinity();
    else if (equals_ignoring_case(word, "nan"))
        value = std::numeric_limits<double>::quiet_NaN();
    else
        return false;
    if (negative) value = -value;
    return true;
}

/// The parts of a decimal number without its sign.
struct decimal_parts {
    std::size_t exponent_at = std::string_view::npos;  ///< of the letter
    bool large = false;  ///< 1 or more, which tells an overflow from an underflow
};

std::size_t count_digits(std::string_view text) {
    return static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), is_digit) - text.begin());
}

/// Position of the first digit above 0 against the point: 1 for "5", 0 for ".5", -1 for ".05".
std::int64_t leading_digit(std::string_view whole, std::string_view fraction) {
    const std::size_t in_whole = whole.find_first_not_of('0');
    if (in_whole != std::string_view::npos) return static_cast<std::int64_t>(whole.size() - in_whole);
    const std::size_t in_fraction = fraction.find_first_not_of('0');
    return in_fraction == std::string_view::npos ? 0 : -static_cast<std::int64_t>(in_fraction);
}

/// Checks the form of a number; false when it is none.
bool split_decimal(std::string_view text, decimal_parts& parts) {
    const std::string_view whole = text.substr(0, count_digits(text));
    std::string_view rest = text.substr(whole.size()), fraction;
    if (rest.starts_with('.')) {
        fraction = rest.substr(1, count_digits(rest.substr(1)));
        rest.remove_prefix(fraction.size() + 1);
    }
    if (whole.empty() && fraction.empty()) return false;

    std::int64_t exponent = 0;
    if (!rest.empty()) {
        if (std::string_view("eEdD").find(rest[0]) == std::string_view::npos) return false;
        parts.exponent_at = text.size() - rest.size();
        rest.remove_prefix(1);
        const bool negative = rest.starts_with('-');
        if (negative || rest.starts_with('+')) rest.remove_prefix(1);
        if (rest.empty() || count_digits(rest) != rest.size()) return false;
        for (const char c : rest)
            exponent = std::min<std::int64_t>(10 * exponent + (c - '0'), 1'000'000'000'000);
        if (negative) exponent = -exponent;
    }
    parts.large = leading_digit(whole, fraction) + exponent > 0;
    return true;
}

/// The value of a number of good form without sign.
double decimal_value(std::string_view text, const decimal_parts& parts) {
    // The library knows the letter e only.
    char small[64];
    std::string large;
    if (parts.exponent_at != std::string_view::npos && text[parts.exponent_at] != 'e') {
        char* copy = small;
        if (text.size() > sizeof small) {
            large.resize(text.size());
            copy = large.data();
        }
        std::memcpy(copy, text.data(), text.size());
        copy[parts.exponent_at] = 'e';
        text = {copy, text.size()};
    }
    double value = 0.0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec == std::errc::result_out_of_range)
        return parts.large ? std::numeric_limits<double>::infinity() : 0.0;
    return value;
}

/// One item of a line: a word with its repeat count, or a null value.
struct line_item {
    std::string_view text;    ///< as it stands
    std::string_view word;    ///< without its repeat count
    std::int64_t repeat = 1;  ///< 0 for a count that is none
};

/// The item that starts at p, which is no blank and no line end. @returns its end.
const char* read_item(const char* p, line_item& item) {
    const char* end = p;
    while (!ends_word(end)) ++end;
    item.text = item.word = {p, static_cast<std::size_t>(end - p)};
    item.repeat = 1;
    const std::size_t digits = count_digits(item.text);
    if (digits == 0 || digits == item.text.size() || item.text[digits] != '*') return end;
    item.repeat = 0;
    if (digits <= static_cast<std::size_t>(most_digits)) std::from_chars(p, p + digits, item.repeat);
    item.word.remove_prefix(digits + 1);
    return end;
}

}  // namespace

void record_fault::set(record_fault_kind why, std::int64_t which, std::string_view text) {
    kind = why;
    value = which;
    word = {};
    const std::size_t size = std::min(text.size(), word.size() - 1);
    for (std::size_t k = 0; k < size; ++k) word[k] = text[k] > ' ' && text[k] <= '~' ? text[k] : '?';
}

std::string describe(const record_fault& fault, std::int64_t columns) {
    const std::string value = "value " + inttochar(fault.value);
    const std::string word = " \"" + std::string(fault.word.data()) + "\"";
    switch (fault.kind) {
        case record_fault_kind::none:
            break;
        case record_fault_kind::blank_line:
            return "the line is blank, expected are " + inttochar(columns) + " values";
        case record_fault_kind::short_line:
            return "the line has " + inttochar(fault.value) + " values, expected are " + inttochar(columns);
        case record_fault_kind::long_line:
            return "the line is too long, expected are " + inttochar(columns) + " values";
        case record_fault_kind::null_value:
            return value + " is missing, expected is a number" +
                   (fault.word[0] == '\0' ? "" : " instead of" + word);
        case record_fault_kind::not_a_number:
            return value + " is not a number:" + word;
        case record_fault_kind::not_finite:
            return value + " is not a finite number:" + word;
        case record_fault_kind::no_level:
            return value + " is a level, which must be an integer of 32 bits:" + word;
        case record_fault_kind::no_class:
            return value + " is not a residual class of the model:" + word;
        case record_fault_kind::more_values:
            return "the line has more than " + inttochar(columns) + " values";
        case record_fault_kind::not_an_integer:
            return value + " is not an integer:" + word;
        case record_fault_kind::out_of_range:
            return value + " must lie between 1 and " + inttochar(fault.limit) + ":" + word;
        case record_fault_kind::read_error:
            return std::generic_category().message(fault.code);
        case record_fault_kind::file_changed:
            return "the file has changed while it was read";
        case record_fault_kind::no_memory:
            return "there is not enough memory for the line";
    }
    return {};
}

int status_of(const record_fault& fault) {
    if (fault.kind == record_fault_kind::read_error) return fault.code;
    return fault.kind == record_fault_kind::file_changed ? -1 : 1;
}

bool parse_real(std::string_view word, double& value) {
    std::string_view text = word;
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    decimal_parts parts;
    if (!split_decimal(text, parts)) return parse_special(word, value);
    value = decimal_value(text, parts);
    if (negative) value = -value;
    return true;
}

const char* parse_record(const char* p, std::span<double> row, record_fault& fault) {
    double* const begin = row.data();
    double* const end = begin + row.size();
    for (double* out = begin; out != end;) {
        p = skip_blanks(p);
        if (const char* behind = read_plain_real(p, *out)) [[likely]] {
            ++out;
            p = skip_separator(behind);
            continue;
        }
        const std::int64_t done = out - begin;
        if (at_line_end(p)) {
            fault.set(done == 0 ? record_fault_kind::blank_line : record_fault_kind::short_line, done);
            return p;
        }
        line_item item;
        const char* behind = read_item(p, item);
        double value = 0.0;
        if (item.text.empty() || (item.word.empty() && item.repeat > 0)) {
            fault.set(record_fault_kind::null_value, done + 1, item.text);
        } else if (item.repeat < 1 || !parse_real(item.word, value)) {
            fault.set(record_fault_kind::not_a_number, done + 1, item.text);
        }
        if (fault.kind != record_fault_kind::none) return behind;
        const std::int64_t count = std::min<std::int64_t>(item.repeat, end - out);
        out = std::fill_n(out, count, value);
        p = skip_separator(behind);
    }
    return p;
}

const char* parse_integer(const char* p, std::int64_t which, std::int64_t& value, record_fault& fault) {
    const char* const start = p = skip_blanks(p);
    if (at_line_end(p)) {
        fault.set(which == 1 ? record_fault_kind::blank_line : record_fault_kind::short_line, which - 1);
        return p;
    }
    const bool negative = *p == '-';
    if (negative || *p == '+') ++p;
    std::uint64_t m = 0;
    const char* const digits = p;
    p = read_digits(p, m);
    if (p == digits || p - digits > most_digits || !ends_word(p)) {
        line_item item;
        p = read_item(start, item);
        fault.set(item.text.empty() ? record_fault_kind::null_value : record_fault_kind::not_an_integer,
                  which, item.text);
        return p;
    }
    value = negative ? -static_cast<std::int64_t>(m) : static_cast<std::int64_t>(m);
    return skip_separator(p);
}

const char* parse_line_end(const char* p, record_fault& fault) {
    p = skip_blanks(p);
    if (!at_line_end(p)) fault.set(record_fault_kind::more_values, 0);
    return p;
}

std::string_view record_word(const char* p, std::int64_t value) {
    line_item item;
    for (p = skip_blanks(p); !at_line_end(p); p = skip_blanks(p)) {
        p = skip_separator(read_item(p, item));
        if (value <= item.repeat) return item.word;
        value -= item.repeat;
    }
    return {};
}

std::int64_t count_items(std::string_view line) {
    const char* p = skip_blanks(line.data());
    const char* const end = line.data() + line.size();
    std::int64_t count = 0;
    for (line_item item; p < end && !at_line_end(p); ++count)
        p = skip_blanks(skip_separator(read_item(p, item)));
    return count;
}

std::int64_t count_values(const char* p, const char* end) {
    std::int64_t count = 0;
    line_item item;
    for (p = skip_blanks(p); p < end && !at_line_end(p); p = skip_blanks(skip_separator(p))) {
        p = read_item(p, item);
        count += std::max<std::int64_t>(item.repeat, 1);
    }
    return count;
}

}  // namespace zendar::detail
