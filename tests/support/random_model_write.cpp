#include <algorithm>
#include <cstdio>

#include "random_model.hpp"

/// The files of a random model.
namespace zendar::test {

std::string number(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

namespace {

/// What a line of a polyploid pedigree has behind the parents.
std::string copies_of(const random_effect& effect, std::int64_t i) {
    if (effect.copies.empty()) return "";
    return " " + std::to_string(effect.copies(0, i)) + " " + std::to_string(effect.copies(1, i)) + " " +
           number(effect.lambda(0, i)) + " " + number(effect.lambda(1, i));
}

}  // namespace

void random_model::write(const temporary_directory& directory, const std::string& options) const {
    const bool classes = residual.size() > 1;
    std::int32_t columns = ntrait;
    for (const random_effect& effect : effects) columns += effect.nnest > 0 ? 2 : 1;
    const std::int32_t class_column = ++columns, first_weight = columns + 1;

    std::string par = "N_TRAITS\n" + std::to_string(ntrait) + "\nN_WEIGHTS\n" +
                      std::to_string(lweights_ ? ntrait : 0) + "\nN_EFFECTS\n" +
                      std::to_string(effects.size()) + "\nPOS_TRAITS\n";
    for (std::int32_t t = 1; t <= ntrait; ++t) par += std::to_string(t) + " ";
    par += "\nPOS_WEIGHTS\n";
    for (std::int32_t t = 0; t < ntrait; ++t)
        par += std::to_string(lweights_ && t != 1 ? first_weight + t : 0) + " ";
    par += "\nPOS_EFFECTS TYPE_EFFECT N_LEVEL N_COV POS_NESTED N_LEVEL COV_FILE\n";
    for (std::size_t e = 0; e < effects.size(); ++e) {
        const random_effect& effect = effects[e];
        for (std::int32_t t = 0; t < ntrait; ++t)
            par += std::to_string(effect.present[t] ? effect.column : 0) + " ";
        par += std::to_string(effect.huge         ? 3 - (neq % 2)
                              : effect.covariable ? 1
                                                  : 0) +
               " " + std::to_string(effect.nlevel) + " " + std::to_string(effect.ncov) + " ";
        for (std::int32_t t = 0; t < ntrait; ++t) par += std::to_string(effect.nested_column) + " ";
        par += std::to_string(effect.nnest) + " ";
        if (!effect.covariable) {
            par += "none\n";
            continue;
        }
        if (effect.huge) {
            par += write_coefficients(static_cast<std::int32_t>(e + 1), directory) + "\n";
            continue;
        }
        const std::string file = "coefficients_" + std::to_string(e + 1) + ".txt";
        par += file + "\n";
        std::string text;
        for (std::size_t l = 0; l < effect.coefficients.size(); ++l) {
            if (effect.coefficients[l].empty()) continue;
            text += std::to_string(l + 1);
            for (const double v : effect.coefficients[l]) text += " " + number(v);
            text += "\n";
        }
        directory.write(file, text);
    }
    par += "N_RESIDUAL_COV\n" + std::to_string(residual.size()) + " " +
           std::to_string(classes ? class_column : 0) + "\nresidual.txt\n";
    std::string text;
    for (std::size_t k = 0; k < residual.size(); ++k)
        for (std::int32_t i = 0; i < ntrait; ++i) {
            text += std::to_string(i + 1) + " " + std::to_string(k + 1);
            for (std::int32_t j = 0; j <= i; ++j) text += " " + number(residual[k](i, j));
            text += "\n";
        }
    directory.write("residual.txt", text);
    for (std::size_t e = 0; e < effects.size(); ++e) {
        const random_effect& effect = effects[e];
        if (effect.type_random == 0) continue;
        if (effect.huge) {
            par += write_huge(static_cast<std::int32_t>(e + 1), directory);
            continue;
        }
        const std::string id = std::to_string(e + 1);
        par += "EFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n" + id + " " +
               std::to_string(effect.type_random) + " " + std::to_string(effect.nmember - 1) + " " +
               std::to_string(effect.g.rows()) + "\n";
        if (effect.type_random == 10) {
            par += "ainv_" + id + ".txt\n";
            text.clear();
            for (std::int64_t i = 0; i < effect.ainv.rows(); ++i)
                for (std::int64_t j = 0; j <= i; ++j)
                    text += std::to_string(i + 1) + " " + std::to_string(j + 1) + " " +
                            number(effect.ainv(i, j)) + "\n";
            directory.write("ainv_" + id + ".txt", text);
        }
        if (!effect.parents.empty()) {
            par += "ped_" + id + ".txt" + (effect.nupg > 0 ? " " + std::to_string(effect.nupg) : "") +
                   " compute" + (effect.gamma.empty() ? "" : " gamma_" + id + ".txt") +
                   (effect.list.empty() ? "" : " list_" + id + ".txt") + "\n";
            text.clear();
            for (std::int64_t i = 0; i < effect.parents.cols() - effect.nupg; ++i)
                text += std::to_string(i + 1) + " " + std::to_string(effect.parents(0, i)) + " " +
                        std::to_string(effect.parents(1, i)) + copies_of(effect, i) + "\n";
            directory.write("ped_" + id + ".txt", text);
            text.clear();
            for (std::int64_t i = 0; i < effect.gamma.rows(); ++i)
                for (std::int64_t j = 0; j <= i; ++j)
                    text += std::to_string(i + 1) + " " + std::to_string(j + 1) + " " +
                            number(effect.gamma(i, j)) + "\n";
            if (!effect.gamma.empty()) directory.write("gamma_" + id + ".txt", text);
            text.clear();
            for (const std::int32_t animal : effect.list) text += std::to_string(animal) + " genotyped\n";
            if (!effect.list.empty()) directory.write("list_" + id + ".txt", text);
        }
        par += "g_" + id + ".txt\n";
        text.clear();
        for (std::int64_t i = 0; i < effect.g.rows(); ++i) {
            for (std::int64_t j = 0; j <= i; ++j) text += number(effect.g(i, j)) + " ";
            text += "\n";
        }
        directory.write("g_" + id + ".txt", text);
    }
    par += "PHENO_FILE\ndata.txt\n";
    if (lcombieff_)
        for (std::size_t e = 0; e < effects.size(); ++e) {
            par += "!combieff " + std::to_string(e + 1);
            for (const std::int32_t s : effects[e].slot) par += " " + std::to_string(s);
            par += "\n";
        }
    for (std::size_t e = 0; landeffect_ && e < effects.size(); ++e)
        if (effects[e].owner != static_cast<std::int32_t>(e + 1))
            par += "!andeffect 1 " + std::to_string(effects[e].owner) + " " + std::to_string(e + 1) + "\n";
    if (!effects.back().huge &&
        std::ranges::any_of(effects, [](const random_effect& effect) { return !effect.list.empty(); }))
        par += "!tau " + number(tau) + "\n!beta " + number(beta) + "\n!omega " + number(omega) + "\n";
    directory.write("model.par", par + huge_options() + options);

    text.clear();
    for (std::int32_t rec = 0; rec < nrec; ++rec) {
        for (std::int32_t t = 0; t < ntrait; ++t) text += number(y(t, rec)) + " ";
        for (std::size_t e = 0; e < effects.size(); ++e) {
            text += std::to_string(level(e, rec)) + " ";
            if (effects[e].nnest > 0) text += std::to_string(nesting(e, rec)) + " ";
        }
        text += std::to_string(residual_class[rec]);
        for (std::int32_t t = 0; lweights_ && t < ntrait; ++t) text += " " + number(weight(t, rec));
        text += "\n";
    }
    directory.write("data.txt", text);
}

std::string random_model::describe() const {
    std::string text = std::to_string(ntrait) + " traits, " + std::to_string(nrec) + " records";
    for (const random_effect& effect : effects)
        text +=
            "; " + std::string(effect.covariable ? "covariable" : "class") + " levels " +
            std::to_string(effect.nlevel) + " covs " + std::to_string(effect.ncov) + " nested " +
            std::to_string(effect.nnest) + " random " + std::to_string(effect.type_random) + " members " +
            std::to_string(effect.nmember) + " owner " + std::to_string(effect.owner) +
            (effect.huge ? " " + effect.form + (effect.engine ? " engine " : " ") + effect.covariance : "");
    return text;
}

}  // namespace zendar::test
