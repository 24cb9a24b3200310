#include <algorithm>
#include <numeric>
#include <ranges>
#include <utility>

#include "modbasic.hpp"
#include "modoption_rows.hpp"
#include "modparameters_options_detail.hpp"

namespace zendar::detail {

namespace {

// !acrosseff

bool read_acrosseff(const option_line& line, param_type& param) {
    const auto effects = line.effects(2);
    if (!effects || effects->size() != 2) return false;
    const across_effects option{.file = line.word(1), .effect1 = (*effects)[0], .effect2 = (*effects)[1]};
    const auto same = std::ranges::find_if(param.acrosseff, [&option](const across_effects& other) {
        return other.effect1 == option.effect1 && other.effect2 == option.effect2;
    });
    if (same != param.acrosseff.end())
        *same = option;
    else
        param.acrosseff.push_back(option);
    line.log().message("A file is present for the effect " + inttochar(option.effect1) +
                       " and is linked to the effect " + inttochar(option.effect2));
    return true;
}

std::vector<std::string> written_acrosseff(const param_type& param) {
    std::vector<std::string> lines;
    for (const across_effects& a : param.acrosseff)
        lines.push_back(option_text("acrosseff", {a.file, "2", inttochar(a.effect1), inttochar(a.effect2)}));
    return lines;
}

// !andeffect

/// "!andeffect #effect id_effect id_effs": the count, the effect whose equations are shared, the effects that
/// share them.
bool read_andeffect(const option_line& line, param_type& param) {
    if (line.int32(1) != line.size() - 3) return false;
    const std::int32_t owner = line.effect(2);
    std::vector<std::int32_t> effects;
    for (std::int32_t i = 3; i < line.size(); ++i) effects.push_back(line.effect(i));

    if (param.andeffect.empty()) {
        param.andeffect.resize(static_cast<std::size_t>(param.neffect));
        std::iota(param.andeffect.begin(), param.andeffect.end(), 1);
    }
    param.landeffect = true;
    for (const std::int32_t e : effects) {
        param.andeffect[e - 1] = owner;
        line.log().message("The effect " + inttochar(e) + " is combined with/the same as the effect " +
                           inttochar(owner));
    }
    return true;
}

std::vector<std::string> written_andeffect(const param_type& param) {
    std::vector<std::string> lines;
    if (!param.landeffect) return lines;
    for (std::int32_t owner = 1; owner <= param.neffect; ++owner) {
        std::vector<std::int32_t> effects;
        for (std::int32_t e = 1; e <= param.neffect; ++e)
            if (e != owner && param.andeffect[e - 1] == owner) effects.push_back(e);
        if (!effects.empty())
            lines.push_back(option_text("andeffect",
                                        {inttochar(std::ssize(effects)), inttochar(owner), joined(effects)}));
    }
    if (lines.empty()) lines.emplace_back("!andeffect 1 1 1");  // given, without effect
    return lines;
}

// !combieff

bool read_combieff(const option_line& line, param_type& param) {
    if (line.size() != param.ntrait + 2) return false;
    const std::int32_t e = line.effect(1);
    std::vector<std::int32_t> slots;
    for (std::int32_t t = 1; t <= param.ntrait; ++t) {
        const std::int32_t slot = line.int32(t + 1);
        if (slot < 1 || slot > param.ntrait)
            line.fail("The option !combieff: \"" + line.word(t + 1) +
                      "\" is not the number of a trait (1 to " + inttochar(param.ntrait) + ")!");
        slots.push_back(slot);
    }

    if (param.combieff_trait.empty()) {
        param.combieff_trait = matrix<std::int32_t>(param.ntrait, param.neffect);
        for (std::int32_t k = 0; k < param.neffect; ++k)
            std::ranges::copy(std::views::iota(1, param.ntrait + 1), param.combieff_trait.column(k).begin());
    }
    std::ranges::copy(slots, param.combieff_trait.column(e - 1).begin());
    param.lcombieff = true;
    line.log().message("Combination across traits for effect " + inttochar(e) + ": " + joined(slots));
    return true;
}

std::vector<std::string> written_combieff(const param_type& param) {
    std::vector<std::string> lines;
    if (!param.lcombieff) return lines;
    const auto add = [&](std::int32_t e) {
        lines.push_back(option_text("combieff", {inttochar(e), joined(param.combieff_trait.column(e - 1))}));
    };
    for (std::int32_t e = 1; e <= param.neffect; ++e)
        if (!std::ranges::equal(param.combieff_trait.column(e - 1), std::views::iota(1, param.ntrait + 1)))
            add(e);
    if (lines.empty()) add(1);  // given, without effect
    return lines;
}

// !structprecond

constexpr char no_letter = 'N';
constexpr char follower = 'u';  // goes on with the group that the letter before it opened

bool opens_group(char letter) {
    return std::string_view("fFsSrR").find(letter) != std::string_view::npos;
}
bool is_automatic(char letter) {
    return letter == 'a' || letter == 'A';
}

void log_structprecond(const option_line& line, const std::string& effects) {
    line.log().message("The structure of the preconditioner for the effect " + effects +
                       " will be (if allowed): " + line.word(1));
}

std::string range_of(std::int32_t first, std::int32_t last) {
    return inttochar(first) + " to " + inttochar(last);
}

/// "!structprecond type first last" for the letters that open a group, "!structprecond a" for the whole
/// model,
/// "!structprecond type #effects id_effect" for the others.
bool read_structprecond(const option_line& line, param_type& param) {
    const std::string& type = line.word(1);
    if (type.size() != 1)
        line.fail("The option !structprecond: the type \"" + type + "\" is not a single letter!");
    const char letter = type.front();
    std::vector<std::int32_t> effects;
    if (opens_group(letter)) {
        if (line.size() != 4) return false;
        const std::int32_t first = line.effect(2), last = line.effect(3);
        if (first > last)
            line.fail("The option !structprecond: the first effect (" + inttochar(first) +
                      ") is greater than the last effect (" + inttochar(last) + ")!");
        for (std::int32_t e = first; e <= last; ++e) effects.push_back(e);
    } else if (!is_automatic(letter) || line.size() > 2) {
        if (line.size() < 4) return false;
        const auto list = line.effects(2);
        if (!list) return false;
        effects = *list;
    }

    if (param.structprecond.empty())
        param.structprecond.assign(static_cast<std::size_t>(param.neffect), no_letter);
    param.lstructprecond = true;
    if (is_automatic(letter)) {
        param.autoprecond = true;
        log_structprecond(line, range_of(1, param.neffect));
    } else if (opens_group(letter)) {
        for (const std::int32_t e : effects)
            param.structprecond[e - 1] = e == effects.front() ? letter : follower;
        log_structprecond(line, range_of(effects.front(), effects.back()));
    } else {
        for (const std::int32_t e : effects) {
            param.structprecond[e - 1] = letter;
            log_structprecond(line, inttochar(e));
        }
    }
    return true;
}

std::vector<std::string> written_structprecond(const param_type& param) {
    std::vector<std::string> lines;
    if (!param.lstructprecond) return lines;
    if (param.autoprecond) lines.emplace_back("!structprecond a");
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        const char letter = param.structprecond[e - 1];
        if (letter == no_letter) continue;
        const std::string type(1, letter);
        if (!opens_group(letter)) {
            lines.push_back(option_text("structprecond", {type, "1", inttochar(e)}));
            continue;
        }
        const std::int32_t first = e;
        while (e < param.neffect && param.structprecond[e] == follower) ++e;
        lines.push_back(option_text("structprecond", {type, inttochar(first), inttochar(e)}));
    }
    if (lines.empty()) lines.emplace_back("!structprecond N 1 1");  // given, without effect
    return lines;
}

}  // namespace

std::vector<model_option> relationship_options() {
    using option_rows::flag;
    using option_rows::real;
    return {
        {.usage = "!acrosseff file #effects id_effect_1 id_effect_2",
         .help = "This option allows to add an external matrix between the random effects id_effect_1 and "
                 "id_effect_2.",
         .keywords = {"acrosseff"},
         .min_words = 5,
         .max_words = 5,
         .read = read_acrosseff,
         .write = written_acrosseff},
        {.usage = "!andeffect #effect id_effect id_effs",
         .help = "This option allows to combine #effects id_effs with the effect id_effect.",
         .keywords = {"andeffect"},
         .min_words = 4,
         .max_words = any_number_of_words,
         .read = read_andeffect,
         .write = written_andeffect},
        {.usage = "!alpha value",
         .help = "default=1-beta.",
         .keywords = {"alpha"},
         .min_words = 2,
         .max_words = 2,
         .read =
             [](const option_line& line, param_type& param) {
                 param.alpha = line.real(1);
                 param.lalpha = true;
                 line.log().message("The value for alpha is set to: " + realtochar(param.alpha, "(g0.4)"));
                 return true;
             },
         .write =
             [](const param_type& param) {
                 return param.lalpha ? std::vector{option_text("alpha", {option_number(param.alpha)})}
                                     : std::vector<std::string>{};
             }},
        real({"beta"}, {"!beta value", "default=0.05.", "The value for beta is set to (default=0.05): "},
             "(g0.4)", &param_type::beta),
        flag({"checkpd"},
             {"!checkpd", "Checks the positiveness of the (co)variance matrices.",
              "Positiveness of (co)variance matrices will be checked"},
             &param_type::lcheckpd),
        {.usage = "!combieff effect traits",
         .help = "Combines the effect across traits.",
         .keywords = {"combieff"},
         .max_words = any_number_of_words,
         .read = read_combieff,
         .write = written_combieff},
        flag({"notuseasparse"},
             {"!notuseasparse",
              "Allow to iterate on pedigree instead of using sparse Ainv (only applicable with PCG+IOD)",
              "PCG + IOD (if applicable) will iterate on pedigree instead of using sparse A matrices."},
             &param_type::useasparse, false),
        real({"omega"}, {"!omega value", "default=1.00.", "The value for omega is set to (default=1.d0): "},
             "(f0.2)", &param_type::omega),
        {.usage = "!structprecond type #effects id_effect",
         .help =
             "Structure of the preconditioner per effect (type = d (diagonal) or b (block-diagonal)). If "
             "type = s (sparse matrix) or f (dense matrix), #effects must be equal to the first considered "
             "effect and id_effect must be equal to the last considered effect.",
         .keywords = {"structprecond"},
         .min_words = 2,
         .max_words = any_number_of_words,
         .read = read_structprecond,
         .write = written_structprecond},
        real({"tau"}, {"!tau value", "", "The value for tau is set to (default=1.00): "}, "(f0.2)",
             &param_type::tau),
        flag({"useasparse"},
             {"!useasparse",
              "DEPRECATED OPTION: Allow to use sparse Ainv instead of iterating on pedigree (only applicable "
              "with PCG+IOD)",
              "PCG + IOD (if applicable) will use Ainv sparse instead of iterating on pedigree (DEPRECATED "
              "OPTION)"},
             &param_type::useasparse),
        real({"weightupg"},
             {"!weightupg value", "Sets the weight for random genetic groups at value (default: 1.0)",
              "Weight for random genetic groups (default: 1.0): "},
             "(g0.4)", &param_type::weightupg,
             option_ignored("weightupg", realtochar(param_type{}.weightupg, "(g0.2)"))),
    };
}

}  // namespace zendar::detail
