#pragma once

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "document_text.hpp"

/// The byte tables of docs/formats.md, and files taken apart by them.
namespace zendar::test {

inline const std::string& page() {
    static const std::string text = content(tree / "docs/formats.md");
    return text;
}

using known_values = std::map<std::string, std::int64_t>;

/// Sums, differences, products (also without a sign) and ceil(a / b) of whole numbers and names.
class expression {
  public:
    expression(const std::string& text, const known_values& known) : text_(text), known_(known) {}

    std::int64_t value() {
        const double result = sum();
        if (peek() != '\0' || result != std::floor(result)) fail();
        return static_cast<std::int64_t>(result);
    }

  private:
    char peek() {
        while (at_ < text_.size() && text_[at_] == ' ') ++at_;
        return at_ < text_.size() ? text_[at_] : '\0';
    }
    bool take(char c) {
        if (peek() != c) return false;
        ++at_;
        return true;
    }
    [[noreturn]] void fail() const { throw std::runtime_error("not understood: " + text_); }

    double sum() {
        double result = product();
        while (peek() == '+' || peek() == '-') result += take('+') ? product() : (++at_, -product());
        return result;
    }
    double product() {
        double result = factor();
        for (char c = peek(); c == '(' || c == '/' || std::isalnum(static_cast<unsigned char>(c)) != 0;
             c = peek())
            if (take('/'))
                result /= factor();
            else
                result *= factor();
        return result;
    }
    double factor() {
        if (take('(')) {
            const double result = sum();
            if (!take(')')) fail();
            return result;
        }
        std::string word;
        for (char c = peek(); at_ < text_.size() && std::isalnum(static_cast<unsigned char>(c)) != 0;
             c = at_ < text_.size() ? text_[at_] : ' ') {
            word += c;
            ++at_;
        }
        if (word.empty()) fail();
        if (std::isdigit(static_cast<unsigned char>(word[0])) != 0) return std::stod(word);
        if (word == "ceil") return std::ceil(factor());
        if (!known_.contains(word)) throw std::runtime_error(word + " is not known: " + text_);
        return static_cast<double>(known_.at(word));
    }

    const std::string& text_;
    const known_values& known_;
    std::size_t at_ = 0;
};

struct table_line {
    std::string offset, bytes, type, name;
};

/// The table behind the line "Bytes of <title>:".
inline std::vector<table_line> byte_table(const std::string& title) {
    std::vector<table_line> table;
    const std::vector<std::string> lines = lines_of(page());
    auto line = std::ranges::find(lines, "Bytes of " + title + ":");
    if (line == lines.end() || lines.end() - line < 5 || *(line + 2) != "| offset | bytes | type | content |")
        throw std::runtime_error("docs/formats.md has no table of the bytes of " + title);
    const std::regex row(R"(\| ([^|]+) \| ([^|]+) \| (\w+) \| `(\w+)`.*\|)");
    for (line += 4; line != lines.end() && line->starts_with('|'); ++line) {
        std::smatch parts;
        if (!std::regex_match(*line, parts, row)) throw std::runtime_error("a bad row: " + *line);
        table.push_back({parts[1], parts[2], parts[3], parts[4]});
    }
    return table;
}

inline std::int64_t size_of_type(const std::string& type) {
    static const std::map<std::string, std::int64_t> sizes = {
        {"uint8", 1}, {"int32", 4}, {"int64", 8}, {"float64", 8}, {"row", 1}};
    return sizes.at(type);
}

/// A file, or a row of one, by its table.
class taken_apart {
  public:
    taken_apart(const std::string& title, std::string bytes, known_values known = {})
        : title_(title), bytes_(std::move(bytes)), known_(std::move(known)) {
        std::int64_t end = 0;
        for (const table_line& line : byte_table(title)) {
            const std::int64_t offset = expression(line.offset, known_).value(),
                               size = expression(line.bytes, known_).value();
            if (offset != end || size < 0 || offset + size > std::ssize(bytes_) ||
                size % size_of_type(line.type) != 0)
                throw std::runtime_error(title + ": " + line.name + " stands at " + std::to_string(offset) +
                                         " of " + std::to_string(bytes_.size()) + " bytes, not at " +
                                         std::to_string(end));
            end = offset + size;
            items_[line.name] = {
                line.type, bytes_.substr(static_cast<std::size_t>(offset), static_cast<std::size_t>(size))};
            if (line.type == "int32" && size == 4) known_[line.name] = value<std::int32_t>(line.name);
            if (line.type == "int64" && size == 8) known_[line.name] = value<std::int64_t>(line.name);
        }
        if (end != std::ssize(bytes_))
            throw std::runtime_error(title + ": " + std::to_string(bytes_.size()) + " bytes, but " +
                                     std::to_string(end) + " in the table");
    }

    template <class T>
    [[nodiscard]] std::vector<T> values(const std::string& name) const {
        const auto& [type, bytes] = items_.at(name);
        const std::string wanted = std::is_same_v<T, double>         ? "float64"
                                   : std::is_same_v<T, std::uint8_t> ? "uint8"
                                   : sizeof(T) == 4                  ? "int32"
                                                                     : "int64";
        if (type != wanted) throw std::runtime_error(title_ + ": " + name + " is no " + wanted);
        std::vector<T> result(bytes.size() / sizeof(T));
        std::memcpy(result.data(), bytes.data(), bytes.size());
        return result;
    }
    template <class T>
    [[nodiscard]] T value(const std::string& name) const {
        return values<T>(name).at(0);
    }
    /// The rows of a block, all of one size.
    [[nodiscard]] std::vector<taken_apart> rows(const std::string& name, std::int64_t n) const {
        const auto& [type, bytes] = items_.at(name);
        if (type != "row") throw std::runtime_error(title_ + ": " + name + " are no rows");
        const std::size_t size = bytes.size() / static_cast<std::size_t>(n);
        std::vector<taken_apart> result;
        for (std::size_t at = 0; at < bytes.size(); at += size)
            result.emplace_back("a row of " + title_, bytes.substr(at, size), known_);
        return result;
    }

  private:
    std::string title_, bytes_;
    known_values known_;
    std::map<std::string, std::pair<std::string, std::string>> items_;  ///< type and bytes
};

}  // namespace zendar::test
