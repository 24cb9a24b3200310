#include <initializer_list>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modfile.hpp"
#include "modparameters.hpp"
#include "modparameters_detail.hpp"

namespace zendar {

namespace {

using detail::modparameters_tag;

constexpr std::string_view procedure = "write_parameter_file";

/// A name as a word that list-directed input gives back unchanged.
std::string as_word(const std::string& name) {
    const bool needs_quotes =
        name.empty() || name.find_first_of(" \t,'\"*") != std::string::npos || name.front() == '!';
    if (!needs_quotes) return name;
    std::string quoted = "'";
    for (const char c : name) quoted += c == '\'' ? "''" : std::string(1, c);
    return quoted + "'";
}

/// Numbers and words of one line, separated by blanks.
class line_writer {
  public:
    explicit line_writer(file_writer& out) : out_(out) {}
    line_writer& number(std::int64_t n) { return word(inttochar(n)); }
    line_writer& name(const std::string& name) { return word(as_word(name)); }
    template <class Numbers>
    line_writer& numbers(const Numbers& numbers) {
        for (const auto n : numbers) number(n);
        return *this;
    }
    void end() { out_.write(line_ + "\n"); }

  private:
    line_writer& word(const std::string& text) {
        if (!line_.empty()) line_ += ' ';
        line_ += text;
        return *this;
    }
    file_writer& out_;
    std::string line_;
};

template <class Numbers>
void write_section(file_writer& out, std::string_view keyword, const Numbers& numbers) {
    out.write(std::string(keyword) + "\n");
    line_writer(out).numbers(numbers).end();
}

void write_effect(const param_type& param, std::int32_t e, file_writer& out) {
    line_writer(out)
        .numbers(param.pos_effects.column(e - 1))
        .number(param.type_effect[e - 1])
        .number(param.n_level[e - 1])
        .number(param.n_cov[e - 1])
        .numbers(param.pos_nested.column(e - 1))
        .number(param.n_level_nested[e - 1])
        .name(param.cov_file[e - 1])
        .end();
}

void write_block(const param_type& param, std::int32_t e, file_writer& out, logger& log) {
    const random_type_entry* entry = find_random_type(param.type_random[e - 1]);
    if (entry == nullptr)
        fatal(log, "This random type is not defined: " + inttochar(param.type_random[e - 1]),
              modparameters_tag, procedure);
    out.write("EFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n");
    line_writer(out)
        .number(e)
        .number(entry->code)
        .number(param.n_correlated[e - 1])
        .number(param.dim_g[e - 1])
        .end();
    if (!entry->words.empty()) {
        line_writer line(out);
        for (const block_word word : entry->words) {
            if (word == block_word::nupg)
                line.number(param.nupg[e - 1]);
            else
                line.name(param.file[e][static_cast<std::size_t>(word)]);
        }
        line.end();
    }
    if (entry->covariance == block_covariance::matrix_file) {
        // The matrix stays in its file; the log shows it.
        line_writer(out).name(param.gfile[e - 1]).end();
        writeg(param, e, log);
    } else {
        writeghuge(param, e, out);
        if (entry->covariance == block_covariance::huge_linked)
            line_writer(out).numbers(param.link_effect[e - 1]).end();
    }
}

/// Text at the right of a column.
std::string right(std::string_view text, std::size_t width) {
    return std::string(text.size() < width ? width - text.size() : 1, ' ') + std::string(text);
}

}  // namespace

void write_parameter_file(const param_type& param, const std::string& file, logger& log) {
    log.message("Write to parameter file (WIP): " + file);
    file_writer out;
    if (const auto why = out.open(file))
        fatal_io(log, "Cannot open the file " + file, modparameters_tag, procedure, why->iostat, why->iomsg);

    write_section(out, "N_TRAITS", std::initializer_list<std::int32_t>{param.ntrait});
    write_section(out, "N_WEIGHTS", std::initializer_list<std::int32_t>{param.nweight});
    write_section(out, "N_EFFECTS", std::initializer_list<std::int32_t>{param.neffect});
    write_section(out, "POS_TRAITS", param.pos_traits);
    write_section(out, "POS_WEIGHTS", param.pos_weights);
    out.write("POS_EFFECTS TYPE_EFFECT N_LEVEL N_COV POS_NESTED N_LEVEL COV_FILE\n");
    for (std::int32_t e = 1; e <= param.neffect; ++e) write_effect(param, e, out);
    write_section(out, "N_RESIDUAL_COV",
                  std::initializer_list<std::int32_t>{param.n_residual_cov, param.pos_residual});
    out.write(std::string(detail::not_stored) + "\n");
    for (std::int32_t e = 1; e <= param.neffect; ++e)
        if (param.type_random[e - 1] != 0) write_block(param, e, out, log);
    out.write("PHENO_FILE\n");
    line_writer(out).name(param.file[0][0]).end();
    write_parameter_file_options(param, out);

    if (const auto why = out.commit())
        fatal_io(log, "Cannot write the file " + file, modparameters_tag, procedure, why->iostat, why->iomsg);
}

void writeg(const param_type& param, std::int32_t e, logger& log) {
    constexpr std::size_t effect_width = 8, covariable_width = 12, trait_width = 7;
    constexpr std::string_view headers[] = {"Effect", "Covariable", "Trait", "(Co)variance(s)"};
    log.message(right(headers[0], effect_width) + right(headers[1], covariable_width) +
                right(headers[2], trait_width) + "  " + std::string(headers[3]));
    const matrix<double>& g = param.g[e - 1];
    std::int64_t row = 0;
    for (std::int32_t member = e; member <= e + param.n_correlated[e - 1]; ++member) {
        const std::int32_t columns =
            param.type_effect[member - 1] == teff_class ? 1 : param.n_cov[member - 1];
        for (std::int32_t j = 1; j <= columns; ++j) {
            for (std::int32_t t = 1; t <= param.ntrait && row < g.rows(); ++t, ++row) {
                std::string line = right(inttochar(member), effect_width) +
                                   right(inttochar(j), covariable_width) + right(inttochar(t), trait_width) +
                                   " ";
                for (std::int64_t k = 0; k <= row; ++k) line += " " + realtochar(g(row, k), "(g0.6)");
                log.message(line);
            }
        }
    }
}

void writeghuge(const param_type& param, std::int32_t e, file_writer& out) {
    line_writer(out).name(param.file[e][0]).number(param.ghuge_type[e - 1]).end();
}

}  // namespace zendar
