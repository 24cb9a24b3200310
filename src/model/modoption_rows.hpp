#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "modbasic.hpp"
#include "modoption.hpp"

/// Rows that several option tables share. The default of a value is the one of a fresh record.
namespace zendar::option_rows {

/// What a row says of itself: in the manual, and in the log when it is taken (empty: nothing).
struct texts {
    std::string usage = {}, help = {}, taken = {};
};

inline void log_taken(const option_line& line, const std::string& taken) {
    if (!taken.empty()) line.log().message(taken);
}

/// An option without arguments, which sets a flag to `value`.
template <class Record>
option_entry<Record> flag(std::vector<std::string_view> keywords, texts text, bool Record::*member,
                          bool value = true) {
    const std::string keyword(keywords.front());
    return {.usage = std::move(text.usage),
            .help = std::move(text.help),
            .keywords = std::move(keywords),
            .read =
                [member, value, taken = std::move(text.taken)](const option_line& line, Record& record) {
                    record.*member = value;
                    log_taken(line, taken);
                    return true;
                },
            .write =
                [member, value, keyword](const Record& record) {
                    const bool other = record.*member == value && Record{}.*member != value;
                    return other ? std::vector{option_text(keyword)} : std::vector<std::string>{};
                }};
}

/// A real number, logged behind its text in an edit descriptor.
template <class Record>
option_entry<Record> real(std::vector<std::string_view> keywords, texts text, std::string_view descriptor,
                          double Record::*member, std::string ignored = {}) {
    const std::string keyword(keywords.front());
    return {.usage = std::move(text.usage),
            .help = std::move(text.help),
            .keywords = std::move(keywords),
            .min_words = 2,
            .max_words = 2,
            .ignored = std::move(ignored),
            .read =
                [member, descriptor, taken = std::move(text.taken)](const option_line& line, Record& record) {
                    record.*member = line.real(1);
                    log_taken(line, taken + realtochar(record.*member, descriptor));
                    return true;
                },
            .write =
                [member, keyword](const Record& record) {
                    const bool other = record.*member != Record{}.*member;
                    return other ? std::vector{option_text(keyword, {option_number(record.*member)})}
                                 : std::vector<std::string>{};
                }};
}

/// A word, in most cases a file name.
template <class Record>
option_entry<Record> word(std::vector<std::string_view> keywords, texts text, std::string Record::*member,
                          std::string ignored = {}) {
    const std::string keyword(keywords.front());
    return {.usage = std::move(text.usage),
            .help = std::move(text.help),
            .keywords = std::move(keywords),
            .min_words = 2,
            .max_words = 2,
            .ignored = std::move(ignored),
            .read =
                [member, taken = std::move(text.taken)](const option_line& line, Record& record) {
                    record.*member = line.word(1);
                    if (!taken.empty()) line.log().message(taken + line.word(1));
                    return true;
                },
            .write =
                [member, keyword](const Record& record) {
                    const bool other = record.*member != Record{}.*member;
                    return other ? std::vector{option_text(keyword, {record.*member})}
                                 : std::vector<std::string>{};
                }};
}

}  // namespace zendar::option_rows
