#include "random_model.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <stdexcept>

#include "modblas.hpp"
#include "ploidy_relationship.hpp"

namespace zendar::test {

std::int32_t random_model::pick(std::int32_t lo, std::int32_t hi) {
    return std::uniform_int_distribution<std::int32_t>(lo, hi)(random_);
}
bool random_model::chance(double p) {
    return std::bernoulli_distribution(p)(random_);
}
double random_model::normal() {
    return std::normal_distribution<double>()(random_);
}

matrix<double> random_model::random_covariance(std::int32_t n) {
    matrix<double> l(n, n), v(n, n);
    for (std::int32_t i = 0; i < n; ++i)
        for (std::int32_t j = 0; j <= i; ++j)
            l(i, j) = i == j ? 1.0 + 0.5 * std::abs(normal()) : 0.3 * normal();
    for (std::int32_t i = 0; i < n; ++i)
        for (std::int32_t j = 0; j < n; ++j)
            for (std::int32_t k = 0; k < n; ++k) v(i, j) += l(i, k) * l(j, k);
    return v;
}

random_model::random_model(const model_choice& choice, std::uint64_t seed)
    : ntrait(choice.ntrait), nrec(choice.nrec), random_(seed) {
    lweights_ = choice.weights && chance(0.5);
    if (choice.pedigrees || choice.huge >= 0) {
        tau = 0.5 + 0.25 * pick(0, 4);
        beta = 0.05 * pick(1, 8);
        omega = choice.huge == 22 ? 1.0 : 0.25 * pick(0, 4);
        if (choice.in_memory) tau = omega = 1.0;
    }
    make_effects(choice);
    if (choice.huge >= 0) make_huge(choice);
    make_records(choice);
    number_equations();
    form_equations();
}

void random_model::make_effects(const model_choice& choice) {
    for (std::int32_t e = 1; e <= choice.neffect;) {
        const bool opener = e > 1 && (choice.always_random || chance(0.6));
        const std::int32_t nmember = opener && choice.correlated && e < choice.neffect && chance(0.4) ? 2 : 1;
        const bool animal = opener && choice.pedigrees && chance(0.8);
        const bool external = !animal && opener && choice.external && chance(0.4);
        const std::int32_t type_animal = animal ? std::array{3, 5, 7, 9, 103, 105, 109, 203}[pick(0, 7)] : 0;
        const std::int32_t nupg = type_animal % 100 > 3 ? pick(1, 3) : 0;
        const std::int32_t nlevel = animal ? pick(1, 20) + nupg : pick(1, 9);
        std::int32_t order = 0;
        std::vector<bool> in_block;
        for (std::int32_t k = 0; k < nmember; ++k) {
            random_effect effect;
            effect.owner = e + k;
            effect.covariable = choice.covariables && chance(0.4);
            if (effect.covariable) {
                effect.ncov = pick(1, 3);
                effect.nlevel = pick(2, 12);
                // A group repeats its block at the same levels; a lone covariable need not be nested.
                const bool nested = nmember > 1 || external || animal || chance(0.6);
                effect.nnest = nested ? nlevel : 0;
                effect.coefficients.resize(effect.nlevel);
                for (auto& line : effect.coefficients)
                    if (chance(0.9) || &line == &effect.coefficients.back())
                        for (std::int32_t j = 0; j < effect.ncov; ++j) line.push_back(normal());
            } else {
                effect.nlevel = nlevel;
            }
            effect.present.assign(ntrait, true);
            if (choice.absent && chance(0.3))
                for (std::int32_t t = 1; t < ntrait; ++t) effect.present[t] = chance(0.6);
            effect.slot.resize(ntrait);
            std::iota(effect.slot.begin(), effect.slot.end(), 1);
            for (std::int32_t j = 0; j < effect.ncov; ++j)
                in_block.insert(in_block.end(), effect.present.begin(), effect.present.end());
            order += effect.ncov * ntrait;
            effects.push_back(effect);
        }
        if (opener) {
            random_effect& first = effects[e - 1];
            first.type_random = external ? 10 : 1;
            first.nmember = nmember;
            first.g = random_covariance(order);
            // What a trait does not have does not vary.
            for (std::int32_t i = 0; i < order; ++i)
                for (std::int32_t j = 0; j < order; ++j)
                    if (!in_block[i] || !in_block[j]) first.g(i, j) = 0.0;
            if (external) first.ainv = random_covariance(first.nslot_level());
            if (animal) make_pedigree(first, type_animal, nupg);
        }
        e += nmember;
    }
    if (choice.combieff && ntrait > 1) {
        for (random_effect& effect : effects)
            if (!effect.covariable || chance(0.5))
                if (std::ranges::all_of(effect.present, [](bool p) { return p; }) && chance(0.7)) {
                    for (std::int32_t t = 1; t < ntrait; ++t) effect.slot[t] = pick(1, t + 1);
                    lcombieff_ = true;
                }
    }
    if (choice.andeffect) {
        // One more class effect that has the equations of the first class effect.
        for (std::int32_t e = 1; e <= std::ssize(effects); ++e)
            if (!effects[e - 1].covariable && effects[e - 1].nmember < 2) {
                random_effect twin = effects[e - 1];
                twin.owner = e;
                twin.type_random = twin.nmember = 0;
                effects.push_back(twin);
                landeffect_ = true;
                break;
            }
    }
}

void random_model::make_pedigree(random_effect& effect, std::int32_t type, std::int32_t nupg) {
    if (type == 203) return make_ploidy_pedigree(effect);
    pedigree_choice choice;
    choice.nupg = effect.nupg = nupg;
    choice.nanimal = effect.nslot_level() - nupg;
    choice.complete = type == 7 || chance(0.5);
    choice.selfing = chance(0.3);
    effect.type_random = type;
    effect.parents = random_pedigree(choice, random_());
    const bool a22i = type > 100;
    type %= 100;
    if (type == 3) effect.ainv = dense_inverse(tabular_relationship(effect.parents, 0));
    if (type == 7) {
        effect.gamma = random_metarel(nupg, random_());
        effect.ainv = dense_inverse(tabular_relationship(effect.parents, nupg, effect.gamma));
    }
    if (type == 5 || type == 9) effect.ainv = dense_inverse_with_groups(effect.parents, nupg);
    if (type == 9)
        for (std::int32_t g = choice.nanimal; g < effect.nslot_level(); ++g) effect.ainv(g, g) += weightupg;
    if (a22i) add_part_of_a22i(effect, choice.nanimal);
}

void random_model::make_ploidy_pedigree(random_effect& effect) {
    ploidy_choice choice;
    choice.nanimal = effect.nslot_level();
    choice.invertible = true;
    pedigree_ploidy_type ped = random_ploidy_pedigree(choice, random_());
    // The regular gametes of a founder are all alike.
    for (std::int32_t i = 1; i <= choice.nanimal; ++i)
        for (std::int64_t k = 0; k < 2; ++k) {
            const std::int32_t parent = ped.giver(k, i);
            if (parent == 0 || ped.giver(0, parent) > 0 || ped.giver(1, parent) > 0) continue;
            if (2 * ped.tau(k, i - 1) == ped.ploidy(parent))
                ped.lambda(k, i - 1) = ped.ploidy(parent) > 2 ? 0.05 * (parent % 10) : 0.0;
        }
    for (std::int32_t i = 1; i <= choice.nanimal; ++i)
        for (std::int64_t k = 0; k < 2; ++k)
            if (ped.giver(0, i) == 0 && ped.giver(1, i) == 0 && 2 * ped.tau(k, i - 1) == ped.ploidy(i))
                ped.lambda(k, i - 1) = ped.ploidy(i) > 2 ? 0.05 * (i % 10) : 0.0;
    effect.type_random = 203;
    effect.parents = ped.ped;
    effect.copies = ped.tau;
    effect.lambda = ped.lambda;
    matrix<double> twice = tabular_coancestries(ped).k;
    for (double& value : twice.values()) value *= 2.0;
    effect.ainv = dense_inverse(twice);
}

void random_model::add_part_of_a22i(random_effect& effect, std::int32_t nanimal) {
    const double share = chance(0.1) ? 1.0 : 0.4;
    for (std::int32_t i = 1; i <= nanimal; ++i)
        if (chance(share)) effect.list.push_back(i);
    if (effect.list.empty()) effect.list.push_back(pick(1, nanimal));
    std::ranges::shuffle(effect.list, random_);
    const matrix<double> a = tabular_relationship(effect.parents, effect.nupg);
    const std::int64_t n = std::ssize(effect.list);
    matrix<double> a22(n, n);
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j < n; ++j) a22(i, j) = a(effect.list[i] - 1, effect.list[j] - 1);
    const matrix<double> inverse = dense_inverse(a22);
    effect.a22i = matrix<double>(effect.nslot_level(), effect.nslot_level());
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j < n; ++j)
            effect.a22i(effect.list[i] - 1, effect.list[j] - 1) = (tau / beta - omega) * inverse(i, j);
}

void random_model::make_records(const model_choice& choice) {
    const auto n = static_cast<std::int32_t>(effects.size());
    const std::int32_t nclass = choice.residual_classes && chance(0.5) ? 2 : 1;
    for (std::int32_t k = 0; k < nclass; ++k) residual.push_back(random_covariance(ntrait));
    level = matrix<std::int32_t>(n, nrec);
    nesting = matrix<std::int32_t>(n, nrec);
    y = matrix<double>(ntrait, nrec);
    if (lweights_) weight = matrix<double>(ntrait, nrec, 1.0);
    for (std::int32_t rec = 0; rec < nrec; ++rec) {
        for (std::int32_t e = 0; e < n; ++e) {
            level(e, rec) = chance(0.05) ? 0 : pick(1, effects[e].nlevel);
            if (effects[e].huge && choice.huge == 30) level(e, rec) = 0;
            if (choice.single_step && effects[e].huge && choice.huge == 22) {
                const std::int32_t animal = level(effects[e].link - 1, rec);
                level(e, rec) = animal > effects[e].nlevel ? 0 : animal;
            }
            if (effects[e].nnest > 0) nesting(e, rec) = chance(0.05) ? 0 : pick(1, effects[e].nnest);
        }
        residual_class.push_back(pick(1, nclass));
        const bool all_missing = choice.missing && chance(0.03);
        for (std::int32_t t = 0; t < ntrait; ++t) {
            y(t, rec) = all_missing || (choice.missing && chance(0.25)) ? -9.0 : 10.0 + normal();
            if (lweights_ && t != 1) weight(t, rec) = 0.2 + std::abs(normal());
        }
    }
    if (choice.sorted) {
        std::vector<std::int32_t> last;
        for (std::int32_t rec = 0; rec < nrec; ++rec) last.push_back(level(n - 1, rec));
        if (!choice.single_step) std::ranges::sort(last);
        for (std::int32_t rec = 0; rec < nrec; ++rec) level(n - 1, rec) = last[rec];
    }
    std::int32_t column = ntrait;
    for (random_effect& effect : effects) {
        effect.column = ++column;
        if (effect.nnest > 0) effect.nested_column = ++column;
    }
}

void random_model::number_equations() {
    for (std::int32_t e = 1; e <= std::ssize(effects); ++e) {
        const random_effect& effect = effects[e - 1];
        for (std::int32_t l = 1; l <= effect.nslot_level(); ++l)
            for (std::int32_t j = 1; j <= effect.ncov; ++j)
                for (std::int32_t s = 1; s <= ntrait; ++s)
                    equations_[{e, l, j, s}] =
                        effect.owner == e ? ++neq : equations_.at({effect.owner, l, j, s});
    }
}

std::vector<std::pair<std::int64_t, double>> random_model::row_of(std::int32_t t, std::int32_t rec) const {
    std::vector<std::pair<std::int64_t, double>> row;
    for (std::int32_t e = 1; e <= std::ssize(effects); ++e) {
        const random_effect& effect = effects[e - 1];
        const std::int32_t l = level(e - 1, rec);
        if (l < 1 || !effect.present[t]) continue;
        if (!effect.covariable) {
            row.emplace_back(equation(e, l, 1, effect.slot[t]) - 1, 1.0);
            continue;
        }
        const std::int32_t at = effect.nnest > 0 ? nesting(e - 1, rec) : 1;
        if (at < 1) continue;
        const std::vector<double>& coefficients = effect.coefficients[l - 1];
        for (std::int32_t j = 1; j <= std::ssize(coefficients); ++j)
            row.emplace_back(equation(e, at, j, effect.slot[t]) - 1, coefficients[j - 1]);
    }
    return row;
}

bool random_model::needs_asparse() const {
    return std::ranges::any_of(effects, [](const random_effect& effect) {
        return effect.type_random == 7 || effect.type_random == 10 || effect.type_random == 203 ||
               !effect.list.empty();
    });
}

std::vector<double> random_model::estimable(std::span<const double> x) const {
    std::vector<double> values;
    for (std::int32_t rec = 0; rec < nrec; ++rec)
        for (std::int32_t t = 0; t < ntrait; ++t) {
            if (y(t, rec) == -9.0) continue;
            double fitted = 0.0;
            for (const auto& [eq, coefficient] : row_of(t, rec)) fitted += coefficient * x[eq];
            values.push_back(fitted);
        }
    // With fixed groups the animals are estimable up to a constant only.
    std::vector<bool> with_groups(static_cast<std::size_t>(neq), false);
    for (const auto& [key, equation] : equations_) {
        std::int32_t opener = std::get<0>(key);
        while (effects[opener - 1].nmember == 0 && opener > 1) --opener;
        with_groups[equation - 1] = effects[opener - 1].type_random % 100 == 5 &&
                                    std::get<0>(key) < opener + effects[opener - 1].nmember;
    }
    for (std::int64_t i = 0; i < neq; ++i)
        if (c(i, i) > xrx(i, i) && !with_groups[i]) values.push_back(x[i]);
    return values;
}

void random_model::form_equations() {
    c = matrix<double>(neq, neq);
    b.assign(neq, 0.0);
    for (std::int32_t rec = 0; rec < nrec; ++rec) {
        std::vector<std::int32_t> seen;
        for (std::int32_t t = 0; t < ntrait; ++t)
            if (y(t, rec) != -9.0) seen.push_back(t);
        const auto n = std::ssize(seen);
        matrix<double> r(n, n);
        for (std::int64_t i = 0; i < n; ++i)
            for (std::int64_t j = 0; j < n; ++j)
                r(i, j) = residual[residual_class[rec] - 1](seen[i], seen[j]);
        const matrix<double> ri = dense_inverse(r);
        for (std::int64_t i = 0; i < n; ++i)
            for (std::int64_t j = 0; j < n; ++j) {
                double v = ri(i, j);
                if (lweights_) v *= weight(seen[i], rec) * weight(seen[j], rec);
                for (const auto& [eq, x] : row_of(seen[i], rec)) {
                    b[eq] += x * v * y(seen[j], rec);
                    for (const auto& [eq2, x2] : row_of(seen[j], rec)) c(eq, eq2) += x * v * x2;
                }
            }
    }
    xrx = c;
    for (std::int32_t e = 1; e <= std::ssize(effects); ++e) {
        if (effects[e - 1].type_random == 0) continue;
        if (effects[e - 1].huge) {
            add_huge_part(e, c);
            continue;
        }
        add_random_part(e, effects[e - 1].ainv, c);
        if (!effects[e - 1].a22i.empty()) add_random_part(e, effects[e - 1].a22i, c);
    }
}

void random_model::add_random_part(std::int32_t e, const matrix<double>& between, matrix<double>& to) const {
    const random_effect& first = effects[e - 1];
    std::vector<std::tuple<std::int32_t, std::int32_t, std::int32_t>> block;  // effect, covariable, slot
    for (std::int32_t k = 0; k < first.nmember; ++k)
        for (std::int32_t j = 1; j <= effects[e - 1 + k].ncov; ++j)
            for (std::int32_t s = 1; s <= ntrait; ++s) block.emplace_back(e + k, j, s);
    // Only what varies has a prior.
    std::vector<std::int64_t> varies;
    for (std::int64_t i = 0; i < std::ssize(block); ++i)
        if (first.g(i, i) > 0.0) varies.push_back(i);
    matrix<double> g(std::ssize(varies), std::ssize(varies));
    for (std::int64_t i = 0; i < g.rows(); ++i)
        for (std::int64_t j = 0; j < g.cols(); ++j) g(i, j) = first.g(varies[i], varies[j]);
    const matrix<double> gi = dense_inverse(g);
    const std::int32_t nlevel = first.nslot_level();
    for (std::int32_t l1 = 1; l1 <= nlevel; ++l1)
        for (std::int32_t l2 = 1; l2 <= nlevel; ++l2) {
            const double a = between.empty() ? (l1 == l2 ? 1.0 : 0.0) : between(l1 - 1, l2 - 1);
            if (a == 0.0) continue;
            for (std::int64_t i = 0; i < g.rows(); ++i)
                for (std::int64_t j = 0; j < g.cols(); ++j) {
                    const auto [e1, j1, s1] = block[varies[i]];
                    const auto [e2, j2, s2] = block[varies[j]];
                    to(equation(e1, l1, j1, s1) - 1, equation(e2, l2, j2, s2) - 1) += a * gi(i, j);
                }
        }
}

std::vector<double> dense_solution(const matrix<double>& c, const std::vector<double>& b) {
    const std::int64_t n = c.rows();
    matrix<double> vectors = c;
    std::vector<double> values(n), x(n, 0.0);
    if (lapack_dsyevd_vectors(vectors.view(), values) != 0) throw std::runtime_error("no eigenvalues");
    for (std::int64_t k = 0; k < n; ++k) {
        if (std::abs(values[k]) < 1e-10 * values[n - 1]) continue;
        double dot = 0.0;
        for (std::int64_t i = 0; i < n; ++i) dot += vectors(i, k) * b[i];
        for (std::int64_t i = 0; i < n; ++i) x[i] += vectors(i, k) * dot / values[k];
    }
    return x;
}

double smallest_eigenvalue(const matrix<double>& c) {
    matrix<double> work = c;
    std::vector<double> values(static_cast<std::size_t>(c.rows()));
    if (lapack_dsyevd(work.view(), values) != 0) throw std::runtime_error("no eigenvalues");
    return values.front() / values.back();
}

std::vector<double> dense_product(const matrix<double>& c, const std::vector<double>& x) {
    std::vector<double> r(x.size(), 0.0);
    for (std::int64_t j = 0; j < c.cols(); ++j)
        for (std::int64_t i = 0; i < c.rows(); ++i) r[i] += c(i, j) * x[j];
    return r;
}

}  // namespace zendar::test
