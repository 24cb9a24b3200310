#include <algorithm>
#include <numeric>
#include <optional>
#include <span>

#include "modbasic.hpp"
#include "modenum.hpp"
#include "modparameters.hpp"
#include "modparameters_detail.hpp"
#include "modparameters_section_reader.hpp"

namespace zendar {

namespace {

using detail::max_equations;
using detail::modparameters_tag;
using detail::section_reader;

constexpr std::string_view procedure = detail::read_parameter_file_tag;
constexpr std::int32_t max_traits = 64;  // a combination of traits is one bit per trait in 64 bits
constexpr std::int32_t max_effects = 1'000'000;

// ---- POS_EFFECTS ---------------------------------------------------------------------------------------

/// Takes one line of POS_EFFECTS apart; false when it has another form or words that are no numbers.
bool take_effect_line(param_type& param, std::int32_t e, const std::vector<std::string>& words) {
    const std::int32_t nt = param.ntrait, i = e - 1;
    if (std::ssize(words) != 2 * nt + (param.lnames ? 7 : 5)) return false;

    auto word = words.begin();
    const auto number = [&word](std::int32_t& value) { return parse_number(*word++, value).ok(); };
    bool good = true;
    for (std::int32_t t = 0; t < nt; ++t) good = number(param.pos_effects(t, i)) && good;
    good = number(param.type_effect[i]) && good;
    good = number(param.n_level[i]) && good;
    good = number(param.n_cov[i]) && good;
    for (std::int32_t t = 0; t < nt; ++t) good = number(param.pos_nested(t, i)) && good;
    good = number(param.n_level_nested[i]) && good;
    param.cov_file[i] = *word++;
    if (param.lnames) {
        param.name_effect[i] = *word++;
        param.type_char[i] = word->substr(0, 1);
    }
    return good;
}

void read_pos_effects(section_reader& in, param_type& param) {
    in.keyword("POS_EFFECTS");
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        const std::vector<std::string> words = in.words_of_next_line();
        if (e == 1 && !words.empty()) {
            const std::int64_t n = std::ssize(words), without_names = 2 * std::int64_t{param.ntrait} + 5;
            if (n != without_names && n != without_names + 2)
                in.fail(
                    inttochar(n) +
                    " columns\nThe number of columns must be equal to (#traits*2 + 5) or to (#traits*2 + 7)");
            param.lnames = n == without_names + 2;
            if (param.lnames) in.log().message("Names and types of effects are in the parameter file");
        }
        if (!take_effect_line(param, e, words))
            in.fail("Too many or not enough columns for describing the effect in the section POS_EFFECTS: " +
                    inttochar(e));
    }

    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        if (!is_huge_effect(param.type_effect[e - 1])) continue;
        ++param.nhuge;
        if (std::ranges::any_of(param.pos_nested.column(e - 1), [](auto column) { return column != 0; }))
            in.fail("The huge effect " + inttochar(e) + " may not be a nested effect!");
    }
    for (std::int32_t e = param.neffect - param.nhuge + 1; e <= param.neffect; ++e)
        if (!is_huge_effect(param.type_effect[e - 1]))
            in.fail(
                "Effects of type 2 and 3 must be the last effects of the model! "
                "Please check your instruction file.");
    for (std::int32_t e = 0; e < param.neffect; ++e)
        for (std::int32_t t = 0; t < param.ntrait; ++t) param.present(t, e) = param.pos_effects(t, e) > 0;
}

// ---- N_RESIDUAL_COV --------------------------------------------------------------------------------------

void read_residual(section_reader& in, param_type& param) {
    in.keyword("N_RESIDUAL_COV", "Possible issues: Too many or not enough effects in the previous section!");
    const auto stop_on = [&in](const read_status& status) {
        if (!status.ok())
            fatal_io(in.log(), "Issue with the description of N_RESIDUAL_COV" + in.where(), modparameters_tag,
                     procedure, status.iostat, status.iomsg);
    };
    std::int32_t both[] = {0, 0};
    stop_on(list_read(in.input()).get(both));
    param.n_residual_cov = both[0];
    param.pos_residual = both[1];
    in.check_range("N_RESIDUAL_COV", param.n_residual_cov, 1, 1'000'000);
    constexpr std::int64_t most_elements = std::int64_t{1} << 27;  // 1 GiB
    if (std::int64_t{param.n_residual_cov} * param.ntrait * param.ntrait > most_elements)
        in.fail("N_RESIDUAL_COV is " + inttochar(param.n_residual_cov) +
                ", which is too much for the number of traits!");
    stop_on(list_read(in.input()).get(param.residualfile));
    readrf(param.residualfile, param.ntrait, param.n_residual_cov, param.r, in.log());
}

// ---- EFFECT_ID -----------------------------------------------------------------------------------------

/// The values of a block that must fit the effects, checked before any of its files is read.
void check_block(const section_reader& in, const param_type& param, std::int32_t e,
                 const random_type_entry& entry) {
    const std::int32_t n_correlated = param.n_correlated[e - 1], dim_g = param.dim_g[e - 1];
    in.check_range("N_CORRELATED_EFFECTS of the effect " + inttochar(e), n_correlated, 0, max_effects);
    if (std::int64_t{e} + n_correlated > param.neffect)
        in.fail("The group of the effect " + inttochar(e) + " with " + inttochar(n_correlated) +
                " correlated effects goes beyond the last effect " + inttochar(param.neffect) + "!");
    if (entry.covariance != block_covariance::matrix_file) return;

    if (dim_g > max_dim_g)
        in.fail("The dimension of the (co)variance matrix must be < " + inttochar(max_dim_g) +
                "\nThis limit could be modified on request!");
    const std::int64_t order = computenrhscontributions(param, e);
    if (dim_g != order)
        in.fail("The dimension of the (co)variance matrix of the effect " + inttochar(e) + " is " +
                inttochar(dim_g) + ", but the traits and columns of its group make an order of " +
                inttochar(order) + "!");
}

/// One read statement of a block; a failure names the effect.
template <class Value>
void block_item(section_reader& in, list_read& statement, std::int32_t e, Value&& value) {
    const read_status status = statement.get(value);
    if (!status.ok())
        fatal_io(in.log(), "IO issue(s) with the description of effect " + inttochar(e) + in.where(),
                 modparameters_tag, procedure, status.iostat, status.iomsg);
}

void read_block_words(section_reader& in, param_type& param, std::int32_t e, const random_type_entry& entry) {
    list_read statement(in.input());
    for (const block_word word : entry.words) {
        if (word == block_word::nupg) {
            if (param.nupg.empty()) param.nupg.assign(static_cast<std::size_t>(param.neffect), 0);
            block_item(in, statement, e, param.nupg[e - 1]);
            in.check_range("The number of genetic groups of the effect " + inttochar(e), param.nupg[e - 1], 0,
                           max_equations);
        } else {
            block_item(in, statement, e, param.file[e][static_cast<std::size_t>(word)]);
        }
    }
}

void readghuge(section_reader& in, param_type& param, std::int32_t e) {
    std::string type;
    {
        list_read statement(in.input());
        block_item(in, statement, e, param.file[e][0]);
        block_item(in, statement, e, type);
    }
    if (type != "1") in.fail("This random type for huge effect is not defined: " + type);
    param.ghuge_type[e - 1] = 1;
    if (!is_huge_effect(param.type_effect[e - 1]))
        in.fail("The effect " + inttochar(e) + " was not declared as a ghuge effect!");
}

void read_links(section_reader& in, param_type& param, std::int32_t e) {
    const std::int32_t n = param.n_correlated[e - 1] + 1;
    std::vector<std::int32_t> links(static_cast<std::size_t>(n), 0);
    list_read statement(in.input());
    block_item(in, statement, e, std::span<std::int32_t>(links));
    for (const std::int32_t link : links)
        in.check_range("An effect that the huge effect " + inttochar(e) + " is linked to", link, 1,
                       param.neffect);
    // Each further effect of the group knows its own link as well.
    for (std::int32_t k = 1; k < n; ++k)
        if (param.link_effect[e - 1 + k].empty()) param.link_effect[e - 1 + k] = {links[k]};
    param.link_effect[e - 1] = std::move(links);
}

void read_block(section_reader& in, param_type& param, std::vector<unsigned char>& seen) {
    std::int32_t numbers[] = {0, 0, 0, 0};
    const read_status status = list_read(in.input()).get(numbers);
    const auto [e, type_random, n_correlated, dim_g] = numbers;
    if (!status.ok())
        fatal_io(in.log(), "Issue(s) with the description of effect " + inttochar(e) + in.where(),
                 modparameters_tag, procedure, status.iostat, status.iomsg);
    in.check_range("The effect number of EFFECT_ID", e, 1, max_equations);
    if (e > param.neffect)
        in.fail("The effect number " + inttochar(e) + " is greater than " + inttochar(param.neffect));
    if (seen[e - 1] != 0) in.fail("The effect " + inttochar(e) + " is described by more than one EFFECT_ID!");
    seen[e - 1] = 1;

    const random_type_entry* entry = find_random_type(type_random);
    if (entry == nullptr) in.fail("This random type is not defined: " + inttochar(type_random));
    if (entry->covariance == block_covariance::none) return;  // as if the effect had no block
    param.type_random[e - 1] = type_random;
    param.n_correlated[e - 1] = n_correlated;
    param.dim_g[e - 1] = dim_g;
    check_block(in, param, e, *entry);

    read_block_words(in, param, e, *entry);
    if (entry->covariance == block_covariance::matrix_file) {
        {
            list_read statement(in.input());
            block_item(in, statement, e, param.gfile[e - 1]);
        }
        in.log().message(entry->log_text);
        readgf(param.gfile[e - 1], e, dim_g, param.g[e - 1], in.log());
    } else {
        readghuge(in, param, e);
        if (entry->covariance == block_covariance::huge_linked) read_links(in, param, e);
    }
}

void read_effect_id(section_reader& in, param_type& param) {
    std::vector<unsigned char> seen(static_cast<std::size_t>(param.neffect), 0);
    std::optional<std::string> word = in.next_word();
    for (; word == "EFFECT_ID"; word = in.next_word()) read_block(in, param, seen);
    if (word) in.input().backspace();
    in.log().warning("Unused keyword: EFFECT_ID");
}

/// Gives the effects of a group of huge effects the code of its first one.
void spread_huge_types(const section_reader& in, param_type& param) {
    param.type_random_eff = param.type_random;
    for (std::int32_t e = param.neffect - param.nhuge + 1; e <= param.neffect; ++e) {
        const std::int32_t code = param.type_random[e - 1];
        const random_type_entry* entry = find_random_type(code);
        const bool linked = entry->covariance == block_covariance::huge_linked;
        if (!linked && entry->covariance != block_covariance::huge) continue;
        for (std::int32_t k = 0; k <= param.n_correlated[e - 1]; ++k) {
            if (linked) {
                const std::int32_t link = param.link_effect[e - 1][k];
                const bool class_effect = param.type_effect[link - 1] == teff_class;
                const bool single_covariable =
                    param.type_effect[link - 1] == teff_covariable && param.n_cov[link - 1] == 1;
                if (!class_effect && !(code == 30 && single_covariable))
                    fatal(in.log(), "This type of effect " + inttochar(code) + " is not implemented",
                          "modsnpmodel", procedure);
                in.log().message("The SNP effect (teff_huge*) " + inttochar(e + k) +
                                 " is linked to the animal effect " + inttochar(link));
            }
            param.type_random_eff[e - 1 + k] = code;
        }
    }
}

}  // namespace

void read_parameter_file(param_type& param, const std::string& parfile, logger& log) {
    reset_param(param);
    log.message("Parameter file: " + parfile);
    log.message("");
    section_reader in(parfile, log);

    param.ntrait = in.keyword_and_value("N_TRAITS");
    in.check_range("N_TRAITS", param.ntrait, 1, max_traits);
    param.nweight = in.keyword_and_value("N_WEIGHTS");
    in.check_range("N_WEIGHTS", param.nweight, 0, max_equations);
    param.neffect = in.keyword_and_value("N_EFFECTS");
    in.check_range("N_EFFECTS", param.neffect, 1, max_effects);
    // Before anything of this size is allocated: each word takes a character and its separator.
    if (std::int64_t{param.neffect} * 2 * (2 * param.ntrait + 5) > in.bytes_left())
        in.fail("N_EFFECTS is " + inttochar(param.neffect) +
                ", but the file is too short for so many effects!");
    allocpar(param);

    in.keyword("POS_TRAITS");
    in.values("POS_TRAITS", param.pos_traits);
    in.keyword("POS_WEIGHTS");
    in.values("POS_WEIGHTS", param.pos_weights);
    read_pos_effects(in, param);
    read_residual(in, param);
    read_effect_id(in, param);
    spread_huge_types(in, param);

    in.keyword("PHENO_FILE");
    const read_status status = list_read(in.input()).get(param.file[0][0]);
    if (!status.ok())
        fatal_io(log, "Issue with the file name of PHENO_FILE" + in.where(), modparameters_tag, procedure,
                 status.iostat, status.iomsg);
}

void allocpar(param_type& param) {
    const auto n = static_cast<std::size_t>(param.neffect);
    const auto nt = static_cast<std::size_t>(param.ntrait);
    param.nhuge = 0;
    for (auto* counts :
         {&param.n_level, &param.n_level_nested, &param.type_effect, &param.type_random,
          &param.type_random_eff, &param.n_cov, &param.dim_g, &param.ghuge_type, &param.nexteffect})
        counts->assign(n, 0);
    param.n_correlated.assign(n, -1);
    param.nx.assign(n + 2, 0);
    param.pos.assign(n + 2, 0);
    param.sumlevel.assign(n + 3, 0);
    param.sumequation.assign(n + 3, 0);
    param.nupg.clear();
    param.pos_traits.assign(nt, 0);
    param.pos_weights.assign(nt, 0);
    for (auto* columns : {&param.pos_effects, &param.pos_nested, &param.pos_nested2, &param.combieff_trait})
        *columns = matrix<std::int32_t>(param.ntrait, param.neffect);
    param.present = matrix<unsigned char>(param.ntrait, param.neffect);
    for (std::int32_t e = 0; e < param.neffect; ++e)
        for (std::int32_t t = 0; t < param.ntrait; ++t) param.combieff_trait(t, e) = t + 1;
    param.andeffect.resize(n);
    std::iota(param.andeffect.begin(), param.andeffect.end(), 1);
    param.link_effect.assign(n, {});
    param.g.assign(n, {});
    param.file.assign(n + 1, {});
    for (auto* names : {&param.type_char, &param.gfile, &param.cov_file, &param.name_effect})
        names->assign(n, {});
    param.structprecond.assign(n, 'N');
}

void checkparam(logger& log, std::string_view word, std::string_view keyword, std::string_view alternative,
                std::string_view message) {
    word = trim(word);
    if (word == trim(keyword) || (!alternative.empty() && word == trim(alternative))) return;
    std::string text = "The following keyword is missing: " + std::string(keyword);
    if (!alternative.empty()) text += "\n OR the following keyword: " + std::string(alternative);
    if (!message.empty()) text += "\n" + std::string(message);
    text += "\nLast line read: " + std::string(word) + "\nPlease, check the parameter file.";
    fatal(log, text, modparameters_tag, "checkparam");
}

void reset_param(param_type& param) {
    param = param_type{};
}

}  // namespace zendar
