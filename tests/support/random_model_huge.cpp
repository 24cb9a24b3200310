#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <numeric>

#include "random_model.hpp"

/// SNP effects of random models. Their prior is written down from the distributions: with q = G0^-1,
/// type 30: u ~ single-step animals, u2 - W g ~ N(0, beta / tau A22); type 22: the same with a = u2 - W g in
/// the place of u2.
namespace zendar::test {

namespace {

template <class T>
void append(std::string& to, T value) {
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    to.append(bytes, sizeof value);
}

}  // namespace

void random_model::make_huge(const model_choice& choice) {
    const std::int32_t type = choice.huge;
    const bool linked = type == 22 || type == 30;
    const std::int32_t nmember = choice.correlated && chance(0.4) ? 2 : 1;
    const auto animal = static_cast<std::int32_t>(effects.size()) + 1;
    const std::int32_t type_animal = std::array{3, 5, 7, 9}[pick(0, 3)];
    const std::int32_t nupg = type_animal > 3 ? pick(1, 3) : 0, nanimal = pick(3, 18);
    std::vector<bool> in_block;
    for (std::int32_t k = 0; k < nmember; ++k) {
        random_effect effect;
        effect.owner = animal + k;
        effect.covariable = type == 30 && choice.covariables && chance(0.4);
        effect.nlevel = effect.covariable ? pick(2, 6) : nanimal + nupg;
        if (effect.covariable) {
            effect.nnest = nanimal + nupg;
            for (std::int32_t l = 0; l < effect.nlevel; ++l) effect.coefficients.push_back({normal()});
        }
        effect.present.assign(ntrait, true);
        if (choice.absent && chance(0.3))
            for (std::int32_t t = 1; t < ntrait; ++t) effect.present[t] = chance(0.6);
        effect.slot.resize(ntrait);
        std::iota(effect.slot.begin(), effect.slot.end(), 1);
        in_block.insert(in_block.end(), effect.present.begin(), effect.present.end());
        effects.push_back(effect);
    }
    random_effect& first = effects[animal - 1];
    first.nmember = nmember;
    first.g = random_covariance(nmember * ntrait);
    for (std::int32_t i = 0; i < nmember * ntrait; ++i)
        for (std::int32_t j = 0; j < nmember * ntrait; ++j)
            if (!in_block[i] || !in_block[j]) first.g(i, j) = 0.0;
    make_pedigree(first, type_animal, nupg);

    random_effect snp;
    snp.huge = snp.covariable = true;
    snp.nlevel = nanimal;
    for (std::int32_t i = 1; i <= nanimal; ++i)
        if (chance(0.6)) snp.genotyped.push_back(i);
    if (snp.genotyped.empty()) snp.genotyped.push_back(pick(1, nanimal));
    snp.ncov = pick(1, 9);
    snp.slot.resize(ntrait);
    std::iota(snp.slot.begin(), snp.slot.end(), 1);
    make_genotypes(snp, choice);
    std::vector<std::int32_t> links(nmember);
    std::iota(links.begin(), links.end(), animal);
    std::ranges::shuffle(links, random_);
    for (std::int32_t k = 0; k < nmember; ++k) {
        random_effect effect = snp;
        effect.owner = static_cast<std::int32_t>(effects.size()) + 1;
        effect.present = effects[animal - 1 + k].present;
        if (linked) {
            effect.link = links[k];
            effect.present = effects[links[k] - 1].present;
        }
        effects.push_back(effect);
    }
    random_effect& opener = effects[effects.size() - nmember];
    opener.type_random = type;
    opener.nmember = type == 0 ? 0 : nmember;
    opener.covariance = linked && (choice.single_step || chance(0.6)) ? "compute"
                        : chance(0.5)                                 ? "snp.txt"
                                                                      : "snp.inv";
    if (opener.covariance != "compute") {
        const std::int64_t n = std::int64_t{nmember} * snp.ncov * ntrait;
        opener.d = matrix<double>(n, n);
        for (std::int32_t j = 0; j < snp.ncov; ++j) {
            const matrix<double> block = random_covariance(nmember * ntrait);
            const auto at = [&](std::int64_t i) { return (i / ntrait * snp.ncov + j) * ntrait + i % ntrait; };
            for (std::int64_t a = 0; a < block.rows(); ++a)
                for (std::int64_t b = 0; b < block.cols(); ++b) opener.d(at(a), at(b)) = block(a, b);
        }
    }
    beta_snp = choice.single_step || chance(0.7);
    alpha = chance(0.5) ? 1.0 - beta : 0.6;
}

void random_model::make_genotypes(random_effect& effect, const model_choice& choice) {
    const auto n = static_cast<std::int32_t>(effect.genotyped.size());
    std::ranges::shuffle(effect.genotyped, random_);
    effect.form = std::array{"txt", "sparse", "stream", "bed"}[pick(0, choice.bed ? 3 : 2)];
    effect.sum2pq = 0.5 + std::abs(normal());
    effect.coefficients.resize(effect.nlevel);
    if (effect.form != "bed") {
        for (const std::int32_t animal : effect.genotyped)
            for (std::int32_t j = 0; j < effect.ncov; ++j)
                effect.coefficients[animal - 1].push_back(effect.form == "sparse" && chance(0.4) ? 0.0
                                                                                                 : normal());
        return;
    }
    effect.genotypes = matrix<std::int32_t>(n, effect.ncov);
    const bool from_file = chance(0.5);
    effect.engine = chance(0.5) && !choice.in_memory;
    double sum = 0.0;
    for (std::int32_t j = 0; j < effect.ncov; ++j) {
        const double p = 0.1 + 0.1 * pick(0, 8);
        double alleles = 0.0, seen = 0.0;
        for (std::int32_t i = 0; i < n; ++i) {
            std::int32_t& g = effect.genotypes(i, j);
            g = chance(0.1) ? -1 : (chance(p) ? 1 : 0) + (chance(p) ? 1 : 0);
            if (g < 0) continue;
            alleles += g;
            seen += 2.0;
        }
        effect.frequency.push_back(from_file ? p : seen > 0.0 ? alleles / seen : 0.0);
        sum += 2.0 * effect.frequency[j] * (1.0 - effect.frequency[j]);
        for (std::int32_t i = 0; i < n; ++i) {
            const std::int32_t g = effect.genotypes(i, j);
            const double centred = g >= 0          ? g - 2.0 * effect.frequency[j]
                                   : effect.engine ? -2.0 * effect.frequency[j]
                                                   : 0.0;
            effect.coefficients[effect.genotyped[i] - 1].push_back(centred);
        }
    }
    effect.frequency_file = from_file;
    effect.own_sum2pq = !from_file && (sum == 0.0 || chance(0.5));
    if (!effect.own_sum2pq) effect.sum2pq = sum;
}

std::int32_t random_model::first_huge() const {
    for (std::int32_t e = 1; e <= std::ssize(effects); ++e)
        if (effects[e - 1].huge) return e;
    return 0;
}

std::vector<std::array<std::int32_t, 4>> random_model::unknowns() const {
    std::vector<std::array<std::int32_t, 4>> all(static_cast<std::size_t>(neq));
    for (const auto& [key, equation] : equations_)
        if (const auto [e, level, covariable, slot] = key; effects[e - 1].owner == e)
            all[equation - 1] = {e, level, covariable, slot};
    return all;
}

matrix<double> random_model::dense_a22i() const {
    const random_effect& opener = effects[first_huge() - 1];
    std::int32_t animal = opener.link;
    while (effects[animal - 1].nmember == 0) --animal;
    const random_effect& animals = effects[animal - 1];
    const matrix<double> a = tabular_relationship(animals.parents, animals.nupg, animals.gamma);
    const std::int64_t n = std::ssize(opener.genotyped);
    matrix<double> a22(n, n);
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j < n; ++j) a22(i, j) = a(opener.genotyped[i] - 1, opener.genotyped[j] - 1);
    return dense_inverse(a22);
}

matrix<double> random_model::between_genotypes() const {
    const random_effect& opener = effects[first_huge() - 1];
    std::int32_t animal = opener.link;
    while (effects[animal - 1].nmember == 0) --animal;
    matrix<double> between = dense_a22i();
    const std::int64_t n = between.rows();
    if (opener.type_random == 22)
        for (std::int64_t i = 0; i < n; ++i)
            for (std::int64_t k = 0; k < n; ++k)
                between(i, k) = effects[animal - 1].ainv(opener.genotyped[i] - 1, opener.genotyped[k] - 1) -
                                between(i, k);
    matrix<double> all(opener.ncov, opener.ncov);
    for (std::int64_t a = 0; a < opener.ncov; ++a)
        for (std::int64_t b = 0; b < opener.ncov; ++b)
            for (std::int64_t i = 0; i < n; ++i)
                for (std::int64_t k = 0; k < n; ++k)
                    all(a, b) += opener.coefficients[opener.genotyped[i] - 1][a] * between(i, k) *
                                 opener.coefficients[opener.genotyped[k] - 1][b];
    return all;
}

void random_model::add_huge_part(std::int32_t e, matrix<double>& to) const {
    const random_effect& opener = effects[e - 1];
    const std::int32_t nmember = opener.nmember, nsnp = opener.ncov;
    const auto snp = [&](std::int32_t k, std::int32_t j, std::int32_t t) {
        return equation(e + k, 1, j + 1, t + 1) - 1;
    };
    const double scale = tau / (beta_snp ? alpha : 1.0);
    if (opener.covariance != "compute") {
        const matrix<double> d = opener.covariance == "snp.inv" ? opener.d : dense_inverse(opener.d);
        const double factor = opener.covariance == "snp.inv" ? 1.0 : scale;
        const std::int64_t first = snp(0, 0, 0);
        for (std::int64_t i = 0; i < d.rows(); ++i)
            for (std::int64_t j = 0; j < d.cols(); ++j) to(first + i, first + j) += factor * d(i, j);
    }
    if (opener.link == 0) return;

    std::int32_t animal = opener.link;  // opener of the animal effects
    while (effects[animal - 1].nmember == 0) --animal;
    const random_effect& animals = effects[animal - 1];
    const std::int32_t order = nmember * ntrait;
    std::vector<std::int64_t> varies;
    for (std::int64_t i = 0; i < order; ++i)
        if (animals.g(i, i) > 0.0) varies.push_back(i);
    matrix<double> g(std::ssize(varies), std::ssize(varies)), gi(order, order);
    for (std::int64_t i = 0; i < g.rows(); ++i)
        for (std::int64_t j = 0; j < g.cols(); ++j) g(i, j) = animals.g(varies[i], varies[j]);
    const matrix<double> inverse = dense_inverse(g);
    for (std::int64_t i = 0; i < g.rows(); ++i)
        for (std::int64_t j = 0; j < g.cols(); ++j) gi(varies[i], varies[j]) = inverse(i, j);
    const auto entry = [&](std::int32_t k, std::int32_t t) {  // of an SNP effect among those of the animals
        return (effects[e + k - 1].link - animal) * ntrait + t;
    };
    if (opener.covariance == "compute")
        for (std::int32_t j = 0; j < nsnp; ++j)
            for (std::int32_t k = 0; k < nmember; ++k)
                for (std::int32_t l = 0; l < nmember; ++l)
                    for (std::int32_t t = 0; t < ntrait; ++t)
                        for (std::int32_t s = 0; s < ntrait; ++s)
                            to(snp(k, j, t), snp(l, j, s)) +=
                                scale * opener.sum2pq * gi(entry(k, t), entry(l, s));

    // Linear combinations of equations: (row, entry) -> (equation, coefficient).
    using combination = std::vector<std::pair<std::int64_t, double>>;
    using combinations = std::vector<combination>;
    const auto animal_at = [&](std::int32_t level, std::int32_t i) {
        return combination{{equation(animal + i / ntrait, level, 1, i % ntrait + 1) - 1, 1.0}};
    };
    const auto add_genotypes = [&](combination& c, std::int32_t level, std::int32_t i, double factor) {
        for (std::int32_t k = 0; k < nmember; ++k)
            for (std::int32_t t = 0; t < ntrait; ++t)
                if (entry(k, t) == i)
                    for (std::int32_t j = 0; j < nsnp; ++j)
                        c.emplace_back(snp(k, j, t), factor * opener.coefficients[level - 1][j]);
    };
    const auto add_quadratic = [&](const combinations& c, const matrix<double>& between, double factor) {
        for (std::int64_t r = 0; r < between.rows(); ++r)
            for (std::int64_t q = 0; q < between.cols(); ++q)
                for (std::int64_t i = 0; i < order; ++i)
                    for (std::int64_t j = 0; j < order; ++j) {
                        const double m = factor * between(r, q) * gi(i, j);
                        if (m == 0.0) continue;
                        for (const auto& [eq1, c1] : c[r * order + i])
                            for (const auto& [eq2, c2] : c[q * order + j]) to(eq1, eq2) += m * c1 * c2;
                    }
    };
    const matrix<double> a22i = dense_a22i();
    combinations plain, with_genotypes;
    for (const std::int32_t level : opener.genotyped)
        for (std::int32_t i = 0; i < order; ++i) {
            plain.push_back(animal_at(level, i));
            with_genotypes.push_back(plain.back());
            add_genotypes(with_genotypes.back(), level, i, opener.type_random == 30 ? -1.0 : 1.0);
        }
    if (opener.type_random == 30) {
        add_quadratic(with_genotypes, a22i, tau / beta);
        add_quadratic(plain, a22i, -omega);
        return;
    }
    combinations levels, total;
    for (std::int32_t level = 1; level <= animals.nslot_level(); ++level)
        for (std::int32_t i = 0; i < order; ++i) {
            levels.push_back(animal_at(level, i));
            total.push_back(levels.back());
            if (std::ranges::count(opener.genotyped, level) > 0) add_genotypes(total.back(), level, i, 1.0);
        }
    add_quadratic(total, animals.ainv, 1.0);
    add_quadratic(levels, animals.ainv, -1.0);  // stands in the equations already
    add_quadratic(with_genotypes, a22i, -1.0);
    add_quadratic(plain, a22i, tau / beta);
}

/// The second effect of a group takes the data of the first one in half of the models.
bool random_model::has_own_file(std::int32_t e) const {
    return !effects[e - 2].huge || e % 2 == 1;
}

std::string random_model::write_coefficients(std::int32_t e, const temporary_directory& directory) const {
    const random_effect& effect = effects[e - 1];
    if (!has_own_file(e)) return std::to_string(e - 1) + ".as_effect";
    const std::string stem = "snp_" + std::to_string(e);
    const std::string name = stem + "." + effect.form;
    const std::vector<std::int32_t>& rows = effect.genotyped;
    const auto n = static_cast<std::int32_t>(rows.size());
    std::string text;
    if (effect.form == "stream") {
        append(text, n);
        append(text, effect.ncov);
    }
    if (effect.form == "bed") {
        text = "\x6c\x1b\x01";
        for (std::int32_t j = 0; j < effect.ncov; ++j)
            for (std::int32_t i = 0; i < n; i += 4) {
                unsigned byte = 0;
                for (std::int32_t k = 0; k < 4; ++k) {
                    // The bits behind the last individual are of no account.
                    const std::int32_t g = i + k < n ? effect.genotypes(i + k, j) : (i + j) % 3;
                    byte |= (g < 0 ? 1U : g == 0 ? 0U : g == 1 ? 2U : 3U) << (2 * k);
                }
                text += static_cast<char>(byte);
            }
        std::string fam, bim, frequencies;
        for (const std::int32_t animal : rows) fam += "family " + std::to_string(animal) + " 0 0 0 -9\n";
        for (std::int32_t j = 1; j <= effect.ncov; ++j) {
            bim += "1 snp" + std::to_string(j) + " 0 " + std::to_string(j) + " A C\n";
            frequencies += number(effect.frequency[j - 1]) + "\n";
        }
        directory.write(stem + ".fam", fam);
        directory.write(stem + ".bim", bim);
        directory.write("frequencies.txt", frequencies);
    }
    for (const std::int32_t animal : rows) {
        const std::vector<double>& values = effect.coefficients[animal - 1];
        if (effect.form == "stream") append(text, animal);
        if (effect.form == "txt") text += std::to_string(animal);
        for (std::int32_t j = 1; j <= effect.ncov; ++j) {
            if (effect.form == "stream") append(text, values[j - 1]);
            if (effect.form == "txt") text += " " + number(values[j - 1]);
            if (effect.form == "sparse" && (values[j - 1] != 0.0 || j == 1))
                text += std::to_string(animal) + " " + std::to_string(j) + " " + number(values[j - 1]) + "\n";
        }
        if (effect.form == "txt") text += "\n";
    }
    directory.write(name, text);
    return name;
}

std::pair<matrix<double>, std::vector<double>> random_model::single_step_equations() const {
    const std::int32_t e = first_huge();
    const random_effect& opener = effects[e - 1];
    std::int32_t animal = opener.link;
    while (effects[animal - 1].nmember == 0) --animal;
    const random_effect& animals = effects[animal - 1];
    const matrix<double> a = tabular_relationship(animals.parents, animals.nupg, animals.gamma);
    const std::int64_t n = std::ssize(opener.genotyped);
    matrix<double> a22(n, n), g(n, n);
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j < n; ++j) {
            const std::int32_t li = opener.genotyped[i], lj = opener.genotyped[j];
            a22(i, j) = a(li - 1, lj - 1);
            g(i, j) = beta * a22(i, j);
            for (std::int32_t s = 0; s < opener.ncov; ++s)
                g(i, j) +=
                    alpha / opener.sum2pq * opener.coefficients[li - 1][s] * opener.coefficients[lj - 1][s];
        }
    const matrix<double> gi = dense_inverse(g), a22i = dense_inverse(a22);
    matrix<double> h = animals.ainv;
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j < n; ++j)
            h(opener.genotyped[i] - 1, opener.genotyped[j] - 1) += tau * gi(i, j) - omega * a22i(i, j);

    const std::int64_t nequation = equation(e, 1, 1, 1) - 1;  // the SNP effects are the last ones
    matrix<double> lhs(neq, neq), result(nequation, nequation);
    for (std::int64_t i = 0; i < nequation; ++i)
        for (std::int64_t j = 0; j < nequation; ++j) lhs(i, j) = xrx(i, j);
    for (std::int32_t k = 1; k < e; ++k) {
        if (effects[k - 1].type_random == 0) continue;
        add_random_part(k, k == animal ? h : effects[k - 1].ainv, lhs);
        if (!effects[k - 1].a22i.empty()) add_random_part(k, effects[k - 1].a22i, lhs);
    }
    for (std::int64_t i = 0; i < nequation; ++i)
        for (std::int64_t j = 0; j < nequation; ++j) result(i, j) = lhs(i, j);
    return {result, {b.begin(), b.begin() + nequation}};
}

std::vector<double> random_model::breeding_values(std::span<const double> x, bool with_snps) const {
    const std::int32_t e = first_huge();
    const random_effect& opener = effects[e - 1];
    std::vector<double> values;
    for (std::int32_t k = 0; k < opener.nmember; ++k) {
        const std::int32_t link = effects[e + k - 1].link;
        for (std::int32_t level = 1; level <= opener.nlevel; ++level)
            for (std::int32_t t = 1; t <= ntrait; ++t) {
                double value = x[equation(link, level, 1, t) - 1];
                const std::vector<double>& w = opener.coefficients[level - 1];
                for (std::int32_t j = 1; with_snps && opener.type_random == 22 && j <= std::ssize(w); ++j)
                    value += w[j - 1] * x[equation(e + k, 1, j, t) - 1];
                values.push_back(value);
            }
    }
    return values;
}

std::string random_model::write_huge(std::int32_t e, const temporary_directory& directory) const {
    const random_effect& effect = effects[e - 1];
    std::string par = "EFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n" + std::to_string(e) + " " +
                      std::to_string(effect.type_random) + " " + std::to_string(effect.nmember - 1) + " 1\n" +
                      effect.covariance + " 1\n";
    if (effect.link > 0) {
        for (std::int32_t k = 0; k < effect.nmember; ++k)
            par += std::to_string(effects[e + k - 1].link) + " ";
        par += "\n";
    }
    if (effect.covariance == "compute") return par;
    std::string text;
    for (std::int64_t i = 0; i < effect.d.rows(); ++i)
        for (std::int64_t j = 0; j <= i; ++j)
            if (effect.d(i, j) != 0.0)
                text +=
                    std::to_string(i + 1) + " " + std::to_string(j + 1) + " " + number(effect.d(i, j)) + "\n";
    directory.write(effect.covariance, text);
    return par;
}

std::string random_model::huge_options() const {
    std::string options;
    for (std::size_t e = 0; e < effects.size(); ++e) {
        const random_effect& effect = effects[e];
        if (!effect.huge) continue;
        const std::string id = std::to_string(e + 1);
        const bool own = has_own_file(static_cast<std::int32_t>(e + 1));
        if (effect.frequency_file) options += "!allelefreq frequencies.txt 1 " + id + "\n";
        if (effect.engine && own) options += "!miraculix " + id + "\n";
        if (options.find("!tau") != std::string::npos) continue;
        options += "!tau " + number(tau) + "\n!beta " + number(beta) + "\n!alpha " + number(alpha) +
                   "\n!omega " + number(omega) + "\n";
        if (!beta_snp) options += "!no_beta_snp\n";
        if (effect.form != "bed" || effect.own_sum2pq) options += "!sum2pq " + number(effect.sum2pq) + "\n";
    }
    return options;
}

}  // namespace zendar::test
