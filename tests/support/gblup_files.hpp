#pragma once

#include <cmath>
#include <string>
#include <vector>

#include "external_parts.hpp"
#include "snp_files.hpp"

/// Small models of an animal effect, some animals of which have genotypes, run by the program itself.
namespace zendar::test {

/// The matrices of the genotypes of `snp_files`, from their definitions.
struct gblup_matrices {
    double alpha = 0.95, beta = 0.05, sum2pq = 0.0;
    std::vector<std::int32_t> levels = {2, 3, 4, 5, 6};
    matrix<double> w, a22, a22i, g, gi, l, ta;

    explicit gblup_matrices(const std::vector<std::string>& snps = snp_files().snps) {
        const auto n = static_cast<std::int64_t>(levels.size()), nsnp = std::ssize(snps);
        w = matrix<double>(n, nsnp);
        for (std::int64_t s = 0; s < nsnp; ++s) {
            double sum = 0.0;
            for (const char c : snps[s]) sum += c - '0';
            const double p = sum / static_cast<double>(2 * n);
            sum2pq += 2.0 * p * (1.0 - p);
            for (std::int64_t i = 0; i < n; ++i) w(i, s) = snps[s][i] - '0' - 2.0 * p;
        }
        matrix<std::int32_t> ped(2, 6);
        const std::int32_t parents[6][2] = {{0, 0}, {0, 0}, {1, 2}, {1, 2}, {1, 0}, {3, 4}};
        for (std::int64_t i = 0; i < 6; ++i)
            for (std::int64_t k = 0; k < 2; ++k) ped(k, i) = parents[i][k];
        const matrix<double> a = tabular_relationship(ped, 0);
        a22 = matrix<double>(n, n);
        for (std::int64_t i = 0; i < n; ++i)
            for (std::int64_t j = 0; j < n; ++j) a22(i, j) = a(levels[i] - 1, levels[j] - 1);
        a22i = dense_inverse(a22);
        g = product(w, transposed(w));
        for (std::int64_t k = 0; k < n * n; ++k)
            g.values()[k] = alpha * g.values()[k] / sum2pq + beta * a22.values()[k];
        gi = dense_inverse(g);
        matrix<double> m = product(transposed(w), product(a22i, w));
        for (double& v : m.values()) v /= beta;
        for (std::int64_t s = 0; s < nsnp; ++s) m(s, s) += sum2pq / alpha;
        l = cholesky(m);
        ta = ta_of(l, w, a22i, beta);
    }
    /// Gi - A22i, by the levels of the animals.
    [[nodiscard]] std::string gima22i_text() const {
        return lower(levels, [this](std::int64_t i, std::int64_t j) { return gi(i, j) - a22i(i, j); });
    }
    /// G^-1 as APY with all animals in the core.
    [[nodiscard]] std::string gapy_text() const {
        return lower(levels, [this](std::int64_t i, std::int64_t j) { return gi(i, j); });
    }
    [[nodiscard]] std::string core_text() const {
        std::string text;
        for (const std::int32_t level : levels) text += std::to_string(level) + "\n";
        return text;
    }
    [[nodiscard]] std::string ta_text() const {
        std::string text;
        for (std::int64_t k = 0; k < ta.cols(); ++k)
            for (std::int64_t s = 0; s < ta.rows(); ++s)
                text += element_line(levels[k], static_cast<std::int32_t>(s) + 1, ta(s, k));
        return text;
    }
    [[nodiscard]] std::string k_text() const {
        std::vector<std::int32_t> snps;
        for (std::int32_t s = 1; s <= l.rows(); ++s) snps.push_back(s);
        return std::to_string(l.rows()) + "\n" +
               lower(snps, [this](std::int64_t i, std::int64_t j) { return l(i, j); });
    }
    /// alpha / s W' G^-1 u
    [[nodiscard]] std::vector<double> snp_effects(const std::vector<double>& u) const {
        std::vector<double> effects(static_cast<std::size_t>(w.cols()), 0.0);
        for (std::int64_t s = 0; s < w.cols(); ++s)
            for (std::int64_t i = 0; i < w.rows(); ++i)
                for (std::int64_t j = 0; j < w.rows(); ++j)
                    effects[s] += alpha / sum2pq * w(i, s) * gi(i, j) * u[levels[j] - 1];
        return effects;
    }

  private:
    template <class Value>
    static std::string lower(const std::vector<std::int32_t>& of, const Value& value) {
        std::string text;
        for (std::int64_t i = 0; i < std::ssize(of); ++i)
            for (std::int64_t j = 0; j <= i; ++j) text += element_line(of[i], of[j], value(i, j));
        return text;
    }
};

/// A mean and an animal effect; the genotypes are there for options to use.
inline snp_files gblup_files(std::string options = {},
                             std::vector<std::pair<std::string, std::string>> more = {}) {
    snp_files files(0);
    files.effects = "1 0 1 1 0 0 none\n2 0 6 1 0 0 none\n";
    files.options = std::move(options);
    files.more = std::move(more);
    return files;
}

}  // namespace zendar::test
