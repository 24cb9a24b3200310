#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <concepts>
#include <limits>
#include <type_traits>
#include <utility>

#include "modbasic.hpp"
#include "modfile.hpp"

namespace zendar {

namespace {

constexpr bool is_blank(char c) {
    return c == ' ' || c == '\t';
}
constexpr bool is_separator(char c) {
    return is_blank(c) || c == ',';
}

/// Status of a wrong item, as a Fortran runtime numbers it.
constexpr std::int32_t bad_value = 5010;

read_status end_of_file() {
    return {-1, "End of file"};
}

enum class outcome { good, bad, overflow };

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_exponent_letter(char c) {
    return c == 'e' || c == 'E' || c == 'd' || c == 'D';
}

bool equals_ignoring_case(std::string_view text, std::string_view lower_case) {
    return std::ranges::equal(text, lower_case, [](char a, char b) {
        return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
    });
}

/// Characters before the first that `stops`; a plain loop, since items are short.
template <class Stops>
std::size_t length_until(std::string_view text, Stops stops) {
    std::size_t length = 0;
    while (length < text.size() && !stops(text[length])) ++length;
    return length;
}

/// Takes the digits off the front of `text`.
std::string_view take_digits(std::string_view& text) {
    const std::string_view digits = text.substr(0, length_until(text, [](char c) { return !is_digit(c); }));
    text.remove_prefix(digits.size());
    return digits;
}

/// Takes a sign off the front of `text`; true for a minus.
bool take_sign(std::string_view& text) {
    if (text.empty() || (text.front() != '+' && text.front() != '-')) return false;
    const bool negative = text.front() == '-';
    text.remove_prefix(1);
    return negative;
}

template <std::signed_integral Integer>
outcome convert(std::string_view item, Integer& value) {
    if (item.starts_with('+')) {
        item.remove_prefix(1);
        if (item.starts_with('-')) return outcome::bad;
    }
    Integer number = 0;
    const auto [end, failure] = std::from_chars(item.data(), item.data() + item.size(), number);
    if (failure == std::errc::invalid_argument || end != item.data() + item.size()) return outcome::bad;
    if (failure == std::errc::result_out_of_range) return outcome::overflow;
    value = number;
    return outcome::good;
}

/// The parts of an unsigned decimal number. Texts of digits only, the exponent with its sign.
struct real_parts {
    std::string_view mantissa;  // with its point
    std::string_view whole;
    std::string_view fraction;
    std::string_view exponent;
};

bool split_real(std::string_view text, real_parts& parts) {
    const std::string_view all = text;
    parts.whole = take_digits(text);
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        parts.fraction = take_digits(text);
    }
    if (parts.whole.empty() && parts.fraction.empty()) return false;
    parts.mantissa = all.substr(0, all.size() - text.size());
    if (text.empty()) return true;

    if (!is_exponent_letter(text.front())) return false;
    text.remove_prefix(1);
    parts.exponent = text;
    take_sign(text);
    return !take_digits(text).empty() && text.empty();
}

/// True when a number outside the range of double is a huge one, false when it is a tiny one.
bool is_huge(const real_parts& parts) {
    std::string_view exponent = parts.exponent;
    const bool negative = take_sign(exponent);
    std::int64_t power = 0;
    for (const char digit : exponent)
        power = std::min<std::int64_t>(10 * power + (digit - '0'), std::int64_t{1} << 40);
    if (negative) power = -power;

    const std::size_t first = parts.whole.find_first_not_of('0');
    if (first != std::string_view::npos) return power + std::ssize(parts.whole.substr(first)) > 0;
    const std::size_t zeros = std::min(parts.fraction.find_first_not_of('0'), parts.fraction.size());
    return power - static_cast<std::int64_t>(zeros) > 0;
}

outcome convert(std::string_view item, double& value) {
    const bool negative = take_sign(item);
    double number = 0.0;
    real_parts parts;
    if (!split_real(item, parts)) {
        if (equals_ignoring_case(item, "nan")) {
            number = std::numeric_limits<double>::quiet_NaN();
        } else if (equals_ignoring_case(item, "inf") || equals_ignoring_case(item, "infinity")) {
            number = std::numeric_limits<double>::infinity();
        } else {
            return outcome::bad;
        }
        value = negative ? -number : number;
        return outcome::good;
    }

    // The conversion knows the letter e only.
    std::array<char, 64> short_copy;
    std::string long_copy;
    const std::size_t letter = parts.mantissa.size();
    if (letter < item.size() && (item[letter] == 'd' || item[letter] == 'D')) {
        char* copy = short_copy.data();
        if (item.size() > short_copy.size()) {
            long_copy.resize(item.size());
            copy = long_copy.data();
        }
        std::ranges::copy(item, copy);
        copy[letter] = 'e';
        item = {copy, item.size()};
    }
    const auto [end, failure] = std::from_chars(item.data(), item.data() + item.size(), number);
    if (failure == std::errc::result_out_of_range || std::isinf(number)) {
        if (is_huge(parts)) return outcome::overflow;
        number = 0.0;
    } else if (failure != std::errc() || end != item.data() + item.size()) {
        return outcome::bad;
    }
    value = negative ? -number : number;
    return outcome::good;
}

template <class Number>
read_status convert_item(std::string_view text, std::int64_t item, Number& value) {
    constexpr bool real = std::is_floating_point_v<Number>;
    switch (convert(text, value)) {
        case outcome::good:
            return {};
        case outcome::bad:
            return {bad_value, real ? "Bad real number in item " + inttochar(item) + " of list input"
                                    : "Bad integer for item " + inttochar(item) + " in list input"};
        case outcome::overflow:
            break;
    }
    return {bad_value,
            (real ? "Floating point overflow while reading item " : "Integer overflow while reading item ") +
                inttochar(item)};
}

}  // namespace

list_read::list_read(text_reader& input) : input_(input) {}
list_read::~list_read() = default;

read_status list_read::fail(read_status status) {
    repeat_ = 0;
    failure_ = status;
    return status;
}

read_status list_read::next_line() {
    const auto line = input_.line();
    if (line) {
        rest_ = *line;
        return {};
    }
    rest_ = {};
    if (const auto failure = input_.error()) return fail({failure->iostat, failure->iomsg});
    return fail(end_of_file());
}

read_status list_read::take_quoted(std::string_view& text) {
    const char quote = rest_.front();
    unquoted_.clear();
    std::size_t position = 1;
    while (true) {
        const std::size_t end = rest_.find(quote, position);
        if (end == std::string_view::npos)
            return fail(
                {bad_value, "Missing end of the quoted word in item " + inttochar(item_) + " of list input"});
        unquoted_ += rest_.substr(position, end - position);
        position = end + 1;
        if (position == rest_.size() || rest_[position] != quote) break;
        unquoted_ += quote;  // a doubled one stands for itself
        ++position;
    }
    if (position < rest_.size() && !is_separator(rest_[position]))
        return fail({bad_value, "Invalid string input in item " + inttochar(item_)});
    rest_.remove_prefix(position);
    text = unquoted_;
    return {};
}

read_status list_read::take_repeat_count() {
    std::string_view text = rest_;
    const std::string_view digits = take_digits(text);
    if (digits.empty() || !text.starts_with('*')) return {};

    const auto failure = std::from_chars(digits.data(), digits.data() + digits.size(), repeat_).ec;
    if (failure != std::errc())
        return fail({bad_value, "Repeat count overflow in item " + inttochar(item_) + " of list input"});
    if (repeat_ == 0)
        return fail({bad_value, "Zero repeat count in item " + inttochar(item_) + " of list input"});
    rest_ = text.substr(1);
    return {};
}

read_status list_read::next_item(std::string_view& text, bool& null, bool is_word) {
    if (!failure_.ok()) return failure_;
    ++item_;
    if (repeat_ > 0) {
        --repeat_;
        text = repeated_;
        null = repeated_null_;
        return {};
    }

    while (true) {
        rest_.remove_prefix(length_until(rest_, [](char c) { return !is_blank(c); }));
        if (rest_.empty()) {
            if (read_status status = next_line(); !status.ok()) return status;
        } else if (rest_.front() == ',') {
            rest_.remove_prefix(1);
            if (!separator_pending_) {
                null = true;
                return {};
            }
            separator_pending_ = false;
        } else {
            break;
        }
    }

    separator_pending_ = true;
    repeat_ = 1;
    if (read_status status = take_repeat_count(); !status.ok()) return status;
    if (is_word && !rest_.empty() && (rest_.front() == '"' || rest_.front() == '\'')) {
        if (read_status status = take_quoted(repeated_); !status.ok()) return status;
        repeated_null_ = false;
    } else {
        repeated_ = rest_.substr(0, length_until(rest_, is_separator));
        repeated_null_ = repeated_.empty();  // possible behind a repeat count only
        rest_.remove_prefix(repeated_.size());
    }
    --repeat_;
    text = repeated_;
    null = repeated_null_;
    return {};
}

template <class Number>
read_status list_read::get_number(Number& value) {
    std::string_view text;
    bool null = false;
    if (read_status status = next_item(text, null, false); !status.ok() || null) return status;
    read_status status = convert_item(text, item_, value);
    return status.ok() ? status : fail(std::move(status));
}

template <class Number>
read_status list_read::get_numbers(std::span<Number> values) {
    for (Number& value : values)
        if (read_status status = get_number(value); !status.ok()) return status;
    return {};
}

read_status list_read::get(std::int32_t& value) {
    return get_number(value);
}
read_status list_read::get(std::int64_t& value) {
    return get_number(value);
}
read_status list_read::get(double& value) {
    return get_number(value);
}
read_status list_read::get(std::string& word) {
    std::string_view text;
    bool null = false;
    read_status status = next_item(text, null, true);
    if (status.ok() && !null) word = text;
    return status;
}
read_status list_read::get(std::span<std::int32_t> values) {
    return get_numbers(values);
}
read_status list_read::get(std::span<double> values) {
    return get_numbers(values);
}

read_status parse_number(std::string_view word, std::int32_t& value) {
    return convert_item(word, 1, value);
}
read_status parse_number(std::string_view word, std::int64_t& value) {
    return convert_item(word, 1, value);
}
read_status parse_number(std::string_view word, double& value) {
    return convert_item(word, 1, value);
}

}  // namespace zendar
