#include "external_parts.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>

namespace zendar::test {

matrix<double> cholesky(const matrix<double>& m) {
    const std::int64_t n = m.rows();
    matrix<double> l(n, n);
    for (std::int64_t j = 0; j < n; ++j)
        for (std::int64_t i = j; i < n; ++i) {
            double sum = m(i, j);
            for (std::int64_t k = 0; k < j; ++k) sum -= l(i, k) * l(j, k);
            l(i, j) = i == j ? std::sqrt(sum) : sum / l(j, j);
        }
    return l;
}

matrix<double> product(const matrix<double>& a, const matrix<double>& b) {
    matrix<double> c(a.rows(), b.cols());
    for (std::int64_t i = 0; i < a.rows(); ++i)
        for (std::int64_t j = 0; j < b.cols(); ++j)
            for (std::int64_t k = 0; k < a.cols(); ++k) c(i, j) += a(i, k) * b(k, j);
    return c;
}

matrix<double> transposed(const matrix<double>& a) {
    matrix<double> t(a.cols(), a.rows());
    for (std::int64_t i = 0; i < a.rows(); ++i)
        for (std::int64_t j = 0; j < a.cols(); ++j) t(j, i) = a(i, j);
    return t;
}

matrix<double> ta_of(const matrix<double>& l, const matrix<double>& w, const matrix<double>& a22i,
                     double beta) {
    matrix<double> ta = product(transposed(w), a22i);
    for (std::int64_t k = 0; k < ta.cols(); ++k)
        for (std::int64_t s = 0; s < ta.rows(); ++s) {
            ta(s, k) /= beta;
            for (std::int64_t q = 0; q < s; ++q) ta(s, k) -= l(s, q) * ta(q, k);
            ta(s, k) /= l(s, s);
        }
    return ta;
}

std::string element_line(std::int32_t i, std::int32_t j, double v) {
    return std::to_string(i) + " " + std::to_string(j) + " " + number(v) + "\n";
}

namespace {

class maker {
  public:
    maker(const random_model& model, const external_choice& choice, std::uint64_t seed)
        : model_(model), choice_(choice), random_(seed * 15485863) {}

    external_parts make() {
        result_.across = matrix<double>(model_.neq, model_.neq);
        for (std::int32_t e = 1; e <= std::ssize(model_.effects); ++e) of_effect(e);
        across();
        bool weights = false;
        for (const external_part& part : result_.parts) weights |= !part.a22i.empty();
        if (weights)
            result_.lines.push_back("!tau " + number(model_.tau) + "\n!beta " + number(model_.beta) +
                                    "\n!omega " + number(model_.omega));
        return std::move(result_);
    }

  private:
    void of_effect(std::int32_t e) {
        const random_effect& effect = model_.effects[e - 1];
        const std::int32_t type = effect.type_random;
        if (type == 0 || effect.huge || effect.nmember < 1) return;
        const bool animal = type != 1;
        if (animal && chance(0.5)) symmetric("gima22i", e);
        if (!choice_.in_memory && chance(0.4)) symmetric("qptransfo", e);
        const bool has_a22 = !effect.parents.empty() && type != 203;
        if (choice_.in_memory || !has_a22) return;
        if (chance(0.5)) gapy(e);
        const bool ta = !choice_.pedigree || type == 3;
        if (ta && chance(0.4)) tamatrix(e);
        if (ta && (type == 3 || type == 7) && chance(0.5)) tageno(e);
    }

    void symmetric(const std::string& option, std::int32_t e) {
        external_part part = begin(option, e, model_.effects[e - 1].nslot_level());
        std::string text;
        for (const std::int32_t i : part.levels)
            for (const std::int32_t j : part.levels) {
                if (i < j || chance(0.3)) continue;
                part.rest(i - 1, j - 1) = part.rest(j - 1, i - 1) = 0.2 * normal();
                text += element_line(i, j, part.rest(i - 1, j - 1));
            }
        if (text.empty()) text = element_line(1, 1, part.rest(0, 0) = 0.3);
        finish(std::move(part), "_tri", text);
    }

    void gapy(std::int32_t e) {
        external_part part = begin("gapy", e, nanimal(e));
        const std::int64_t ncore = pick(1, static_cast<std::int32_t>(part.levels.size()));
        std::string text, core;
        for (std::int64_t a = 0; a < std::ssize(part.levels); ++a) {
            const std::int32_t i = part.levels[a];
            if (a < ncore) core += std::to_string(i) + "\n";
            for (std::int64_t b = 0; b <= a; ++b) {
                const std::int32_t j = part.levels[b];
                if (a != b && a >= ncore && b >= ncore) continue;
                const double v = 0.2 * normal();
                part.rest(i - 1, j - 1) = part.rest(j - 1, i - 1) = model_.tau * v;
                text += a < ncore     ? element_line(std::max(i, j), std::min(i, j), v)
                        : chance(0.5) ? element_line(i, j, v)
                                      : element_line(j, i, v);
            }
        }
        add_a22i(part, -model_.omega);
        const std::string name = finish(std::move(part), "_tri", text);
        result_.files.emplace_back(name + "_core", core);
    }

    void tamatrix(std::int32_t e) {
        external_part part = begin("tamatrix", e, nanimal(e));
        const std::int32_t nsnp = pick(1, 7);
        matrix<double> ta(nsnp, std::ssize(part.levels));
        std::string text;
        for (std::int64_t k = 0; k < ta.cols(); ++k)
            for (std::int32_t s = 0; s < nsnp; ++s) {
                ta(s, k) = 0.3 * normal();
                text += element_line(part.levels[k], s + 1, ta(s, k));
            }
        add_ta(part, ta);
        if (chance(0.5))
            result_.lines.push_back("!tamatrix_blocks " + std::to_string(e) + " " +
                                    std::to_string(pick(1, 8)));
        finish(std::move(part), "_tri", text);
    }

    /// Genotypes as coefficients of a text, centred already, so that any values will do.
    void tageno(std::int32_t e) {
        external_part part = begin("tageno", e, nanimal(e));
        const std::int32_t nsnp = pick(1, 6);
        const std::int64_t n = std::ssize(part.levels);
        matrix<double> w(n, nsnp);
        std::string text;
        for (std::int64_t k = 0; k < n; ++k) {
            text += std::to_string(part.levels[k]);
            for (std::int32_t s = 0; s < nsnp; ++s) text += " " + number(w(k, s) = normal());
            text += "\n";
        }
        const matrix<double> a22i = inverse_of_levels(part);
        matrix<double> m = product(transposed(w), product(a22i, w));
        for (double& v : m.values()) v /= model_.beta;
        for (std::int32_t s = 0; s < nsnp; ++s) m(s, s) += 2.0;
        const matrix<double> l = cholesky(m);
        const matrix<double> ta = ta_of(l, w, a22i, model_.beta);
        add_ta(part, ta);
        part.snp = ta;
        for (std::int64_t k = 0; k < n; ++k)
            for (std::int32_t s = nsnp - 1; s >= 0; --s) {
                for (std::int32_t q = s + 1; q < nsnp; ++q) part.snp(s, k) -= l(q, s) * part.snp(q, k);
                part.snp(s, k) /= l(s, s);
            }
        std::string factor = chance(0.5) ? std::to_string(nsnp) + "\n" : "";
        for (std::int32_t s = 0; s < nsnp; ++s)
            for (std::int32_t q = 0; q <= s; ++q) factor += element_line(s + 1, q + 1, l(s, q));
        const std::string id = std::to_string(e);
        result_.files.emplace_back("k_" + id + "_tri", factor);
        result_.lines.push_back("!ktamatrix k_" + id + "_tri 1 " + id);
        finish(std::move(part), ".txt", text);
    }

    /// Blocks between two random effects with as many covariables in a level.
    void across() {
        for (std::int32_t e1 = 1; e1 <= std::ssize(model_.effects); ++e1)
            for (std::int32_t e2 = 1; e2 <= std::ssize(model_.effects); ++e2) {
                const random_effect &one = model_.effects[e1 - 1], &two = model_.effects[e2 - 1];
                if (e1 == e2 || !is_random(e1) || !is_random(e2) || chance(0.6)) continue;
                if (one.owner != e1 || two.owner != e2 || covariables(one) != covariables(two)) continue;
                const std::string name = "across_" + std::to_string(e1) + "_" + std::to_string(e2) + "_tri";
                std::string text;
                for (std::int32_t i = 1; i <= levels(one); ++i)
                    for (std::int32_t j = 1; j <= levels(two); ++j) {
                        if (chance(0.6)) continue;
                        const double v = 0.2 * normal();
                        text += element_line(i, j, v);
                        for (std::int32_t c = 1; c <= covariables(one); ++c)
                            for (std::int32_t t = 1; t <= model_.ntrait; ++t) {
                                if (!one.present[t - 1] || !two.present[t - 1]) continue;
                                const std::int64_t a = equation(e1, i, c, t), b = equation(e2, j, c, t);
                                result_.across(a, b) += v;
                                result_.across(b, a) += v;
                            }
                    }
                if (text.empty()) continue;
                result_.files.emplace_back(name, text);
                result_.lines.push_back("!acrosseff " + name + " 2 " + std::to_string(e1) + " " +
                                        std::to_string(e2));
            }
    }
    [[nodiscard]] bool is_random(std::int32_t e) const {
        std::int32_t opener = e;
        while (opener > 1 && model_.effects[opener - 1].nmember == 0) --opener;
        const random_effect& first = model_.effects[opener - 1];
        return first.type_random != 0 && e < opener + first.nmember;
    }
    /// Levels of a SNP effect or of covariables that are not nested are their coefficients.
    static bool by_coefficient(const random_effect& effect) { return effect.covariable && effect.nnest == 0; }
    static std::int32_t levels(const random_effect& effect) {
        return by_coefficient(effect) ? effect.ncov : effect.nslot_level();
    }
    static std::int32_t covariables(const random_effect& effect) {
        return by_coefficient(effect) ? 1 : effect.ncov;
    }
    [[nodiscard]] std::int64_t equation(std::int32_t e, std::int32_t level, std::int32_t c,
                                        std::int32_t t) const {
        return (by_coefficient(model_.effects[e - 1]) ? model_.equation(e, 1, level, t)
                                                      : model_.equation(e, level, c, t)) -
               1;
    }

    // ---- parts

    external_part begin(const std::string& option, std::int32_t e, std::int32_t nlevel) {
        external_part part;
        part.option = option;
        part.effect = e;
        const std::int32_t n = model_.effects[e - 1].nslot_level();
        part.rest = part.k = matrix<double>(n, n);
        for (std::int32_t level = 1; level <= nlevel; ++level)
            if (chance(0.6)) part.levels.push_back(level);
        if (part.levels.empty()) part.levels.push_back(pick(1, nlevel));
        std::ranges::shuffle(part.levels, random_);
        return part;
    }
    std::string finish(external_part part, const std::string& ending, const std::string& text) {
        const std::string id = std::to_string(part.effect), name = part.option + "_" + id + ending;
        for (std::int64_t i = 0; i < std::ssize(part.k.values()); ++i)
            part.k.values()[i] = part.rest.values()[i] + (part.a22i.empty() ? 0.0 : part.a22i.values()[i]);
        result_.files.emplace_back(name, text);
        result_.lines.push_back("!" + part.option + " " + name + " 1 " + id);
        result_.parts.push_back(std::move(part));
        return name;
    }
    [[nodiscard]] matrix<double> inverse_of_levels(const external_part& part) const {
        const random_effect& effect = model_.effects[part.effect - 1];
        const matrix<double> a = tabular_relationship(effect.parents, effect.nupg, effect.gamma);
        const std::int64_t n = std::ssize(part.levels);
        matrix<double> a22(n, n);
        for (std::int64_t i = 0; i < n; ++i)
            for (std::int64_t j = 0; j < n; ++j) a22(i, j) = a(part.levels[i] - 1, part.levels[j] - 1);
        return dense_inverse(a22);
    }
    void add_a22i(external_part& part, double weight) const {
        const matrix<double> inverse = inverse_of_levels(part);
        part.a22i = matrix<double>(part.k.rows(), part.k.cols());
        for (std::int64_t i = 0; i < inverse.rows(); ++i)
            for (std::int64_t j = 0; j < inverse.cols(); ++j)
                part.a22i(part.levels[i] - 1, part.levels[j] - 1) = weight * inverse(i, j);
    }
    /// (tau / beta - omega) A22^-1 - tau Ta' Ta
    void add_ta(external_part& part, const matrix<double>& ta) const {
        add_a22i(part, model_.tau / model_.beta - model_.omega);
        const matrix<double> square = product(transposed(ta), ta);
        for (std::int64_t i = 0; i < square.rows(); ++i)
            for (std::int64_t j = 0; j < square.cols(); ++j)
                part.rest(part.levels[i] - 1, part.levels[j] - 1) = -model_.tau * square(i, j);
    }
    [[nodiscard]] std::int32_t nanimal(std::int32_t e) const {
        const random_effect& effect = model_.effects[e - 1];
        return effect.nslot_level() - effect.nupg;
    }
    std::int32_t pick(std::int32_t lo, std::int32_t hi) {
        return std::uniform_int_distribution<std::int32_t>(lo, hi)(random_);
    }
    bool chance(double p) { return std::uniform_real_distribution<double>(0.0, 1.0)(random_) < p; }
    double normal() { return std::normal_distribution<double>()(random_); }

    const random_model& model_;
    external_choice choice_;
    std::mt19937_64 random_;
    external_parts result_;
};

}  // namespace

std::string external_parts::options() const {
    std::string text;
    for (const std::string& own : lines) text += own + "\n";
    return text;
}

void external_parts::write(const temporary_directory& directory) const {
    for (const auto& [name, content] : files) directory.write(name, content);
}

matrix<double> external_parts::equations(const random_model& model) const {
    matrix<double> c = model.c;
    for (std::int64_t i = 0; i < std::ssize(c.values()); ++i) c.values()[i] += across.values()[i];
    for (const external_part& part : parts) model.add_random_part(part.effect, part.k, c);
    return c;
}

external_parts random_external(const random_model& model, const external_choice& choice, std::uint64_t seed) {
    return maker(model, choice, seed).make();
}

}  // namespace zendar::test
