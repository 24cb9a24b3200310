#include "source_texts.hpp"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>

namespace zendar::test {
namespace {

enum class token_kind { name, literal, other };

struct token {
    token_kind kind;
    std::string text;
    int line;

    [[nodiscard]] bool is(std::string_view what) const { return kind != token_kind::literal && text == what; }
};

bool is_name_character(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

/// What an escape sequence in a literal stands for.
char unescaped(char c) {
    switch (c) {
        case 'n':
            return '\n';
        case 't':
            return '\t';
        case 'r':
            return '\r';
        default:
            return c;
    }
}

class scanner {
  public:
    explicit scanner(const std::string& source) : source_(source) {}

    std::vector<token> run() {
        while (at_ < source_.size()) step();
        return std::move(tokens_);
    }

  private:
    [[nodiscard]] bool sees(std::string_view what) const {
        return source_.compare(at_, what.size(), what) == 0;
    }

    void advance_to(std::size_t end) {
        end = std::min(end, source_.size());
        line_ += static_cast<int>(std::count(source_.begin() + static_cast<std::ptrdiff_t>(at_),
                                             source_.begin() + static_cast<std::ptrdiff_t>(end), '\n'));
        at_ = end;
    }

    void add(token_kind kind, std::string text) { tokens_.push_back({kind, std::move(text), line_}); }

    void step() {
        const char c = source_[at_];
        if (std::isspace(static_cast<unsigned char>(c)) != 0)
            advance_to(at_ + 1);
        else if (sees("//"))
            advance_to(source_.find('\n', at_));
        else if (sees("/*"))
            advance_to(source_.find("*/", at_ + 2) + 2);
        else if (c == '#')
            skip_directive();
        else if (sees("R\"("))
            raw_literal();
        else if (c == '"')
            literal();
        else if (c == '\'')
            character();
        else if (is_name_character(c))
            name();
        else
            punctuation();
    }

    void skip_directive() {
        std::size_t end = source_.find('\n', at_);
        while (end != std::string::npos && source_[end - 1] == '\\') end = source_.find('\n', end + 1);
        advance_to(end);
    }

    void raw_literal() {
        const std::size_t end = source_.find(")\"", at_ + 3);
        add_literal(source_.substr(at_ + 3, end - at_ - 3));
        advance_to(end + 2);
    }

    void literal() {
        std::string text;
        std::size_t i = at_ + 1;
        for (; i < source_.size() && source_[i] != '"'; ++i)
            text += source_[i] == '\\' ? unescaped(source_[++i]) : source_[i];
        add_literal(text);
        advance_to(i + 1);
    }

    /// Literals that follow each other are one.
    void add_literal(const std::string& text) {
        if (!tokens_.empty() && tokens_.back().kind == token_kind::literal)
            tokens_.back().text += text;
        else
            add(token_kind::literal, text);
    }

    void character() {
        std::size_t i = at_ + 1;
        while (i < source_.size() && source_[i] != '\'') i += source_[i] == '\\' ? 2 : 1;
        add(token_kind::other, "'");
        advance_to(i + 1);
    }

    void name() {
        std::size_t end = at_;
        // A "'" inside a number separates digits.
        const bool number = std::isdigit(static_cast<unsigned char>(source_[at_])) != 0;
        while (end < source_.size() && (is_name_character(source_[end]) || (number && source_[end] == '\'')))
            ++end;
        add(token_kind::name, source_.substr(at_, end - at_));
        advance_to(end);
    }

    void punctuation() {
        static const std::string_view pairs[] = {"+=", "==", "!=", "<=", ">=", "&&",
                                                 "||", "<<", "->", "::", "++"};
        for (const std::string_view pair : pairs)
            if (sees(pair)) {
                add(token_kind::other, std::string(pair));
                advance_to(at_ + 2);
                return;
            }
        add(token_kind::other, std::string(1, source_[at_]));
        advance_to(at_ + 1);
    }

    const std::string& source_;
    std::size_t at_ = 0;
    int line_ = 1;
    std::vector<token> tokens_;
};

bool opens(const token& t) {
    return t.is("(") || t.is("{") || t.is("[");
}
bool closes(const token& t) {
    return t.is(")") || t.is("}") || t.is("]");
}

/// What ends an expression that is joined by "+".
bool separates(const token& t) {
    static const std::set<std::string> separators = {
        ",", ";", "?", ":", "=", "+=", "==", "!=", "&&", "||", "<<", "<=", ">=", "return"};
    return t.kind != token_kind::literal && separators.contains(t.text);
}

class text_finder {
  public:
    text_finder(std::vector<token> tokens, std::filesystem::path file)
        : tokens_(std::move(tokens)), file_(std::move(file)) {}

    std::vector<source_text> run() {
        group(0, tokens_.size());
        return std::move(texts_);
    }

  private:
    /// The position behind the bracket that closes the one at `open`.
    [[nodiscard]] std::size_t behind_group(std::size_t open) const {
        std::size_t depth = 0, i = open;
        for (; i < tokens_.size(); ++i) {
            if (opens(tokens_[i])) ++depth;
            if (closes(tokens_[i]) && --depth == 0) return i + 1;
        }
        return i;
    }

    /// The content of a pair of brackets: expressions between separators.
    void group(std::size_t begin, std::size_t end) {
        const std::size_t outer_argument = argument_;
        const std::string outer_target = std::exchange(target_, {});
        argument_ = 0;
        std::size_t start = begin, i = begin;
        while (i < end) {
            if (opens(tokens_[i])) {
                const bool block = tokens_[i].is("{");
                i = std::min(behind_group(i), end);
                // A block ends a statement without a semicolon.
                if (block && i < end && tokens_[i].kind == token_kind::name) {
                    expression(start, i);
                    start = i;
                }
                continue;
            }
            if (separates(tokens_[i])) {
                expression(start, i);
                if (tokens_[i].is(",")) ++argument_;
                const bool assigns = tokens_[i].is("=") || tokens_[i].is("+=");
                if (assigns && i > begin)
                    target_ = tokens_[i - 1].text;
                else if (tokens_[i].is(",") || tokens_[i].is(";"))
                    target_.clear();
                start = i + 1;
            }
            ++i;
        }
        expression(start, end);
        argument_ = outer_argument;
        target_ = outer_target;
    }

    /// One expression: operands between "+".
    void expression(std::size_t begin, std::size_t end) {
        source_text text;
        bool expression_before = false;
        std::size_t start = begin;
        for (std::size_t i = begin; i <= end; ++i) {
            if (i < end && opens(tokens_[i])) {
                i = std::min(behind_group(i), end) - 1;
                continue;
            }
            if (i < end && !tokens_[i].is("+")) continue;
            operand(start, i, text, expression_before);
            start = i + 1;
        }
        text.open_right = expression_before;
        if (text.parts.empty()) return;
        text.file = file_;
        text.calls = calls_;
        text.argument = argument_;
        text.target = target_;
        texts_.push_back(std::move(text));
    }

    void operand(std::size_t begin, std::size_t end, source_text& text, bool& expression_before) {
        if (begin == end) return;
        if (const token* literal = only_literal(begin, end)) {
            if (text.parts.empty()) {
                text.line = literal->line;
                text.open_left = expression_before;
                text.parts.push_back(literal->text);
            } else if (expression_before) {
                text.parts.push_back(literal->text);
            } else {
                text.parts.back() += literal->text;
            }
            expression_before = false;
            return;
        }
        expression_before = true;
        for (std::size_t i = begin; i < end; ++i) {
            if (!opens(tokens_[i])) continue;
            const std::size_t behind = std::min(behind_group(i), end);
            calls_.push_back(i > 0 && tokens_[i - 1].kind == token_kind::name ? tokens_[i - 1].text : "");
            group(i + 1, behind - 1);
            calls_.pop_back();
            i = behind - 1;
        }
    }

    /// The literal that an operand consists of, in brackets or made a string or not.
    [[nodiscard]] const token* only_literal(std::size_t begin, std::size_t end) const {
        const token* literal = nullptr;
        for (std::size_t i = begin; i < end; ++i) {
            const token& t = tokens_[i];
            if (t.kind == token_kind::literal && literal == nullptr)
                literal = &t;
            else if (!t.is("(") && !t.is(")") && !t.is("std") && !t.is("::") && !t.is("string") &&
                     !t.is("string_view"))
                return nullptr;
        }
        return literal;
    }

    std::vector<token> tokens_;
    std::filesystem::path file_;
    std::vector<source_text> texts_;
    std::vector<std::string> calls_;
    std::size_t argument_ = 0;
    std::string target_;
};

std::string content_of(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream source;
    source << in.rdbuf();
    return source.str();
}

bool is_program_source(const std::filesystem::path& path) {
    const std::string extension = path.extension().string(), stem = path.stem().string();
    return (extension == ".cpp" || extension == ".cu") && !stem.ends_with("_test");
}

/// The names in quotes behind #include.
std::vector<std::string> included_by(const std::string& source) {
    constexpr std::string_view directive = "#include \"";
    std::vector<std::string> names;
    for (std::size_t at = source.find(directive); at != std::string::npos; at = source.find(directive, at)) {
        at += directive.size();
        const std::string path = source.substr(at, source.find('"', at) - at);
        names.push_back(path.substr(path.rfind('/') + 1));
    }
    return names;
}

}  // namespace

std::string source_text::shape() const {
    std::string text = open_left ? "<...>" : "";
    for (std::size_t i = 0; i < parts.size(); ++i) text += (i == 0 ? "" : "<...>") + parts[i];
    return text + (open_right ? "<...>" : "");
}

std::vector<source_text> texts_of_source(const std::string& source, const std::filesystem::path& file) {
    return text_finder(scanner(source).run(), file).run();
}

std::vector<source_text> texts_of_folder(const std::filesystem::path& folder) {
    std::map<std::string, std::filesystem::path> headers;
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        if (!entry.is_regular_file()) continue;
        if (entry.path().extension() == ".hpp") headers[entry.path().filename().string()] = entry.path();
        if (is_program_source(entry.path())) files.push_back(entry.path());
    }
    std::ranges::sort(files);
    std::vector<source_text> texts;
    for (std::size_t i = 0; i < files.size(); ++i) {  // headers join in as they are met
        const std::string source = content_of(files[i]);
        for (const std::string& name : included_by(source))
            if (const auto header = headers.extract(name); !header.empty()) files.push_back(header.mapped());
        std::ranges::move(texts_of_source(source, files[i]), std::back_inserter(texts));
    }
    return texts;
}

}  // namespace zendar::test
