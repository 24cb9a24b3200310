#include "message_page.hpp"

#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>
#include <string_view>

namespace zendar::test {
namespace {

constexpr char variable = '\x01';  // stands for a "<name>"

bool is_letter(char c) {
    return std::isalpha(static_cast<unsigned char>(c)) != 0;
}

/// Blanks and line feeds in a row are one blank.
std::string normal(std::string_view text) {
    std::string result;
    for (const char c : text) {
        const bool blank = c == ' ' || c == '\n' || c == '\t';
        if (blank && !result.empty() && result.back() == ' ') continue;
        result += blank ? ' ' : c;
    }
    return result;
}

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

/// The text of an entry with `variable` for each "<name>".
std::string with_variables(const std::string& text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::size_t end = text.find_first_of("<>", i + 1);
        const bool name = text[i] == '<' && i + 1 < text.size() && is_letter(text[i + 1]) &&
                          end != std::string::npos && text[end] == '>';
        result += name ? variable : text[i];
        if (name) i = end;
    }
    return result;
}

int words_in(const std::string& text) {
    int words = 0;
    for (std::size_t i = 0; i < text.size();) {
        std::size_t end = i;
        while (end < text.size() && is_letter(text[end])) ++end;
        words += end - i >= 2 ? 1 : 0;
        i = end + 1;
    }
    return words;
}

/// What reports a message, and the number of the argument that is its text.
struct reporter {
    std::string_view name;
    std::size_t argument;
};
constexpr reporter reporters[] = {
    {"fatal", 1},   {"fatal_io", 1}, {"fatal_io", 5}, {"fatal_plain", 1}, {"fatal_error", 0},
    {"warning", 0}, {"error", 0},    {"io_error", 0}, {"end_run", 0},     {"severe_error", 1},
};

/// Helpers in the tables of options that pass a text on to a reporter.
const std::set<std::string_view> helpers = {"fail", "fail_on_word", "refuse", "check", "option_ignored"};

/// Sources of options, manuals, pictures and simulated files, where a text is a message only when it is
/// handed to a reporter or a helper.
bool is_full_of_other_texts(const std::string& file) {
    static const std::set<std::string_view> names = {"modcommandline.cpp",
                                                     "modgeneral_plot.cpp",
                                                     "modmatrices_options.cpp",
                                                     "modparameters_options_genomic.cpp",
                                                     "modoption_rows.hpp",
                                                     "modparameters_options_output.cpp",
                                                     "modparameters_options_pedigree.cpp",
                                                     "modsnpmodel_options.cpp",
                                                     "modsolvertype_options_rows.cpp"};
    return names.contains(file) || file.starts_with("modsimulate");
}

/// Calls whose texts are no messages: the log, files, names of kinds and of measured times.
const std::set<std::string_view> other_calls = {
    "message",
    "information",
    "debug",
    "screen_raw",
    "print_line",
    "print_option",
    "realtochar",
    "format_real",
    "ends_with",
    "starts_with",
    "write_time",
    "strftime",
    "log_seconds",
    "announce",
    "step",
    "frame",
    "solver_entry",
    "static_assert",
    "override",
    "cputime",
    "clock",
    "pvalue_clock",
    "end",
    "form",
    "init",
    "factorise",
    "invert_factor",
    "begin_external",
    "for_each_file",
    "check_given",
    "read_symmetric_file",
    "write",
    "asm",
    "volatile",
    "debug_info",
};

/// Other texts of the log, by the file and what they begin with.
struct log_text {
    std::string_view file, begin;
};
constexpr log_text log_texts[] = {
    {"dgemm_compressed_cuda.cu", "\tmiraculix"},
    {"dgemm_compressed_cuda.cu", "\tEntering"},
    {"modstructure_covariable.cpp", "Coefficient file for effect"},
    {"modstructure_covariable.cpp", "\nNumber of declared"},
    {"modstructure_covariable.cpp", "\nMaximum level"},
    {"modenum.cpp", "Read the "},
    {"modmatop_feast.cpp", " from "},
    {"modsolvertype_convergence.cpp", ""},
    {"modgeneral_statsped.cpp", "Effect "},
    {"modgeneral_statsped.cpp", "\nNumber of"},
    {"modmme.cpp", "  Elapsed time"},
    {"modmme_random.cpp", "Addition of the random contributions"},
    {"modmmeiod_atimesx.cpp", ""},
    {"modmmeiod_external.hpp", ""},
    {"modmmeiod_huge.cpp", " Huge_covariable"},
    {"modmmeiod_huge_block.cpp", " Huge_covariable"},
    {"modmmeiod_ls.cpp", "Subroutine for the least square part: "},
    {"modmmeiod_ls.cpp", "Subroutine for the least square part with"},
    {"modmmeiod_random.cpp", " (tau/beta - omega) * A22i"},
    {"modmmeiod_report.cpp", "set term"},
    {"modmmeiod_report.cpp", "plot "},
    {"modmmeiod_report.cpp", "\"<awk"},
    {"modmmeiod_report.cpp", "\" u 1:"},
    {"modmmeiod_rhs.cpp", "  Elapsed time"},
    {"modmmeiod_setup.cpp", "\nTo be efficient"},
    {"modmmeiod_snpeffects.cpp", ""},
    {"modpedigree_asparse.cpp", "Random contributions"},
    {"modpreconditioneriod_random.cpp", "Addition of the random contributions"},
    {"modpreconditioneriod_structure.cpp", ", number of elements: "},
    {"modsolver_dpcg.cpp", "  Start the"},
    {"modsolver_fpcg.cpp", "  Start the"},
    {"modsolver_pcg.cpp", "  Start the"},
    {"modspainv.cpp", "Symbolic factorization"},
    {"modspainv.cpp", "Setup of tmp arrays"},
    {"modspainv.cpp", "Node determination"},
    {"modspainv.cpp", "Cholesky factorization"},
    {"modspainv.cpp", "Matrix inversion"},
    {"modspainv.cpp", "Conversion to CRS"},
    {"modspainv.cpp", "SPARSE CHOL FACT."},
    {"modspainv.cpp", "CHOL FACT."},
    {"modspainv.cpp", "Total time"},
};

bool is_log_text(const source_text& text, const std::string& file) {
    return std::ranges::any_of(log_texts, [&](const log_text& known) {
        return file == known.file && std::string_view(text.parts.front()).starts_with(known.begin);
    });
}

}  // namespace

std::vector<page_entry> entries_of_page(const std::string& page) {
    std::vector<page_entry> entries;
    std::istringstream lines(page);
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        const std::size_t begin = line.find_first_not_of(' ');
        if (begin == std::string::npos || line.compare(begin, 3, "- `") != 0) continue;
        const std::size_t end = line.find('`', begin + 3);
        if (end != std::string::npos)
            entries.push_back({with_variables(line.substr(begin + 3, end - begin - 3)), number});
    }
    return entries;
}

bool is_message(const source_text& text) {
    const std::string file = text.file.filename().string(), shape = text.shape();
    const std::string call = text.calls.empty() ? "" : text.calls.back();
    bool names_reporter = false;
    for (const reporter& known : reporters) {
        if (call != known.name) continue;
        if (text.argument == known.argument) return words_in(shape) > 0;
        names_reporter = true;
    }
    if (names_reporter || words_in(shape) < 2 || shape.find(' ') == std::string::npos) return false;
    const auto inside = [&](const std::set<std::string_view>& names) {
        return std::ranges::any_of(text.calls, [&](const std::string& name) { return names.contains(name); });
    };
    if (is_full_of_other_texts(file)) return helpers.contains(call);
    return !inside(other_calls) && !is_log_text(text, file);
}

bool shows(const page_entry& entry, const source_text& text) {
    std::size_t at = 0;
    for (std::size_t i = 0; i < text.parts.size(); ++i) {
        std::string part = normal(text.parts[i]);
        if (i == 0) part = part.substr(std::min(part.find_first_not_of(' '), part.size()));
        if (i + 1 == text.parts.size()) part = trimmed("|" + part).substr(1);
        const std::size_t found = normal(entry.text).find(part, i == 0 ? 0 : at + 1);
        if (found == std::string::npos) return false;
        at = found + part.size();
    }
    return true;
}

literal_tiles::literal_tiles(const std::vector<source_text>& texts) {
    std::set<std::string> all;
    for (const source_text& text : texts)
        for (const std::string& part : text.parts) {
            const bool letters = std::ranges::any_of(part, is_letter);
            // Single letters, of which every text could consist.
            if (!part.empty() && (!letters || part.size() > 2)) all.insert(normal(part));
        }
    tiles_.assign(all.begin(), all.end());
}

std::string literal_tiles::unknown_piece(const page_entry& entry) const {
    const std::string text = normal(entry.text);
    std::size_t begin = 0;
    while (begin <= text.size()) {
        const std::size_t end = std::min(text.find(variable, begin), text.size());
        const std::string piece = text.substr(begin, end - begin);
        if (!consists_of_tiles(piece, begin == 0, end == text.size())) return piece;
        begin = end + 1;
    }
    return {};
}

bool literal_tiles::consists_of_tiles(const std::string& piece, bool first, bool last) const {
    std::vector<bool> reached(piece.size() + 1, false);
    reached[0] = true;
    for (std::size_t at = 0; at < piece.size(); ++at) {
        if (!reached[at]) continue;
        const bool blank_before = at == 0 ? first : piece[at - 1] == ' ';
        for (const std::string& tile : tiles_) {
            std::string_view rest = tile;
            if (piece.compare(at, rest.size(), rest) == 0) reached[at + rest.size()] = true;
            if (blank_before && rest.starts_with(' ')) rest.remove_prefix(1);
            if (piece.compare(at, rest.size(), rest) == 0) reached[at + rest.size()] = true;
            if (!last || !rest.ends_with(' ')) continue;
            rest.remove_suffix(1);
            if (at + rest.size() == piece.size() && piece.compare(at, rest.size(), rest) == 0)
                reached[piece.size()] = true;
        }
    }
    return reached[piece.size()];
}

}  // namespace zendar::test
