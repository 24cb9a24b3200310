#include "modbasic.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <stdexcept>

namespace zendar {

namespace {

/// Significant digits that tell any two numbers of a type apart; "g0" and list-directed output print them
/// all.
template <class T>
constexpr std::int32_t all_digits = std::numeric_limits<T>::max_digits10;

/// No descriptor of ours comes near; it keeps a typing error from asking for gigabytes.
constexpr std::int32_t largest_count = 9999;

struct edit_descriptor {
    char letter = ' ';         // e, f, g or i
    std::int32_t width = 0;    // 0: the least width
    std::int32_t digits = -1;  // -1: not given
};

[[noreturn]] void bad_descriptor(std::string_view descriptor) {
    throw std::invalid_argument("Unknown edit descriptor \"" + std::string(descriptor) + "\"");
}

/// Takes a count off the front of `text`; false when there is none or it is too large.
bool take_count(std::string_view& text, std::int32_t& count) {
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (failure != std::errc() || count < 0 || count > largest_count) return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

edit_descriptor parse(std::string_view descriptor) {
    std::string_view text = trim(descriptor);
    if (text.starts_with('(') && text.ends_with(')')) text = trim(text.substr(1, text.size() - 2));
    if (text.empty()) bad_descriptor(descriptor);

    edit_descriptor edit;
    edit.letter = text.front();
    if (edit.letter >= 'A' && edit.letter <= 'Z') edit.letter = static_cast<char>(edit.letter - 'A' + 'a');
    text.remove_prefix(1);
    if (!take_count(text, edit.width)) bad_descriptor(descriptor);
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        if (!take_count(text, edit.digits)) bad_descriptor(descriptor);
    }
    if (!text.empty()) bad_descriptor(descriptor);
    return edit;
}

/// Right-justified in `width` positions, asterisks when it does not fit.
std::string right_justified(std::string text, std::int32_t width) {
    const auto positions = static_cast<std::size_t>(width);
    if (width == 0 || text.size() == positions) return text;
    if (text.size() > positions) return std::string(positions, '*');
    text.insert(0, positions - text.size(), ' ');
    return text;
}

/// Sign and body in `width` positions. The zero before a decimal point is left out where it has no room.
std::string signed_text(bool negative, std::string body, std::int32_t width) {
    if (width > 0 && body.size() + (negative ? 1 : 0) > static_cast<std::size_t>(width) && body.size() > 2 &&
        body.starts_with("0."))
        body.erase(0, 1);
    if (negative) body.insert(body.begin(), '-');
    return right_justified(std::move(body), width);
}

std::string not_finite(double x, std::int32_t width) {
    if (std::isnan(x)) return right_justified("NaN", width);
    const bool negative = x < 0.0;
    const bool in_full = width >= (negative ? 9 : 8);
    return signed_text(negative, in_full ? "Infinity" : "Inf", width);
}

/// |x| with `decimals` decimals and always a decimal point.
std::string fixed_body(double x, std::int32_t decimals) {
    std::string body(static_cast<std::size_t>(decimals) + 312, '\0');
    const auto written = std::to_chars(body.data(), body.data() + body.size(), std::abs(x),
                                       std::chars_format::fixed, decimals);
    body.resize(static_cast<std::size_t>(written.ptr - body.data()));
    if (decimals == 0) body += '.';
    return body;
}

/// |x| > 0 as 0.`digits` * 10^`exponent`, rounded to that many digits.
struct decimal {
    std::string digits;
    std::int32_t exponent = 0;
};

decimal rounded(double x, std::int32_t digits) {
    std::string text(static_cast<std::size_t>(digits) + 8, '\0');
    const auto written = std::to_chars(text.data(), text.data() + text.size(), std::abs(x),
                                       std::chars_format::scientific, digits - 1);
    text.resize(static_cast<std::size_t>(written.ptr - text.data()));
    const std::size_t letter = text.find('e');
    const std::int32_t exponent = std::atoi(text.c_str() + letter + 1);
    text.resize(letter);
    if (digits > 1) text.erase(1, 1);
    return {std::move(text), exponent + 1};
}

/// "E+01": sign and at least `least` digits.
std::string exponent_part(std::int32_t exponent, std::int32_t least) {
    std::string number = std::to_string(std::abs(exponent));
    if (static_cast<std::int32_t>(number.size()) < least)
        number.insert(0, static_cast<std::size_t>(least) - number.size(), '0');
    return (exponent < 0 ? "E-" : "E+") + number;
}

/// The exponent of a field of given width: two digits, or three at the cost of the letter.
std::string exponent_part_in_width(std::int32_t exponent) {
    std::string part = exponent_part(exponent, 2);
    if (part.size() > 4) part.erase(0, 1);
    return part;
}

std::string exponent_form(double x, std::int32_t width, std::int32_t digits) {
    if (x == 0.0) {
        const std::string zeros(static_cast<std::size_t>(digits), '0');
        return signed_text(std::signbit(x), "0." + zeros + "E+00", width);
    }
    const decimal number = rounded(x, digits);
    return signed_text(x < 0.0, "0." + number.digits + exponent_part_in_width(number.exponent), width);
}

/// Decimals of the fixed form of a general descriptor with `digits` digits; -1 where it takes the exponent
/// form.
std::int32_t general_decimals(double x, std::int32_t digits) {
    if (x == 0.0) return digits - 1;
    const std::int32_t exponent = rounded(x, digits).exponent;
    return exponent >= 0 && exponent <= digits ? digits - exponent : -1;
}

/// "g0.d" and "g0": the exponent has at least two digits.
std::string general_least_width(double x, std::int32_t digits) {
    const std::int32_t decimals = general_decimals(x, digits);
    if (decimals >= 0) return signed_text(std::signbit(x), fixed_body(x, decimals), 0);
    const decimal number = rounded(x, digits);
    return signed_text(x < 0.0, "0." + number.digits + exponent_part(number.exponent, 2), 0);
}

/// "gw.d": the fixed form leaves the four positions of an exponent blank.
std::string general_in_width(double x, std::int32_t width, std::int32_t digits) {
    const std::int32_t decimals = general_decimals(x, digits);
    if (decimals < 0) return exponent_form(x, width, digits);
    constexpr std::int32_t exponent_width = 4;
    const std::string overflow(static_cast<std::size_t>(width), '*');
    if (width <= exponent_width) return overflow;
    const std::string text = signed_text(std::signbit(x), fixed_body(x, decimals), width - exponent_width);
    return text.front() == '*' ? overflow : text + std::string(exponent_width, ' ');
}

std::string format_with_all_digits(double x, std::string_view descriptor, std::int32_t digits_of_g0) {
    const edit_descriptor edit = parse(descriptor);
    if (edit.letter == 'g' && edit.width == 0 && edit.digits <= 0)
        return std::isfinite(x) ? general_least_width(x, digits_of_g0) : not_finite(x, 0);

    const bool fixed = edit.letter == 'f' && edit.digits >= 0;
    const bool exponent = edit.letter == 'e' && edit.digits >= 1 && edit.width >= 1;
    const bool general = edit.letter == 'g' && edit.digits >= 1;
    if (!fixed && !exponent && !general) bad_descriptor(descriptor);

    if (!std::isfinite(x)) return not_finite(x, edit.width);
    if (exponent) return exponent_form(x, edit.width, edit.digits);
    if (general)
        return edit.width == 0 ? general_least_width(x, edit.digits)
                               : general_in_width(x, edit.width, edit.digits);
    std::string body = fixed_body(x, edit.digits);
    if (edit.width == 0 && edit.digits > 0 && body.front() == '0') body.erase(0, 1);
    return signed_text(std::signbit(x), std::move(body), edit.width);
}

/// The default form: all digits; an exponent form has one digit before its point and a fixed form leaves the
/// positions of the exponent blank.
std::string list_form_of_real(double x, std::int32_t digits, std::int32_t exponent_digits,
                              std::int32_t width) {
    if (!std::isfinite(x)) return not_finite(x, width);
    const std::int32_t decimals = general_decimals(x, digits);
    const std::int32_t exponent_width = exponent_digits + 2;
    if (decimals >= 0)
        return signed_text(std::signbit(x), fixed_body(x, decimals), width - exponent_width) +
               std::string(static_cast<std::size_t>(exponent_width), ' ');
    decimal number = rounded(x, digits);
    number.digits.insert(1, 1, '.');
    return signed_text(x < 0.0, number.digits + exponent_part(number.exponent - 1, exponent_digits), width);
}

}  // namespace

std::string format_real(double x, std::string_view descriptor) {
    return format_with_all_digits(x, descriptor, all_digits<double>);
}

std::string format_int(std::int64_t n, std::string_view descriptor) {
    const edit_descriptor edit = parse(descriptor);
    if (edit.letter != 'i' || edit.digits >= 0) bad_descriptor(descriptor);
    return right_justified(inttochar(n), edit.width);
}

std::string realtochar(double x, std::string_view descriptor) {
    return std::string(trim(format_real(x, descriptor)));
}

std::string realtochar(float x, std::string_view descriptor) {
    return std::string(trim(format_with_all_digits(double{x}, descriptor, all_digits<float>)));
}

std::string list_form(double x) {
    return list_form_of_real(x, all_digits<double>, 3, 26);
}

std::string list_form(float x) {
    return list_form_of_real(double{x}, all_digits<float>, 2, 17);
}

std::string list_form(std::int32_t n) {
    return right_justified(inttochar(n), 12);
}

std::string list_form(std::int64_t n) {
    return right_justified(inttochar(n), 21);
}

}  // namespace zendar
