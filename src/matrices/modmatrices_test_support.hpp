#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "captured_log.hpp"
#include "modbasic.hpp"
#include "modmatrices.hpp"
#include "modstructure_external.hpp"
#include "relationship.hpp"
#include "temporary_directory.hpp"

/// Random animals with genotypes, their files, and their matrices by plain loops over dense ones.
namespace zendar::test {

// ---- dense algebra

inline matrix<double> transposed(const matrix<double>& a) {
    matrix<double> t(a.cols(), a.rows());
    for (std::int64_t j = 0; j < a.cols(); ++j)
        for (std::int64_t i = 0; i < a.rows(); ++i) t(j, i) = a(i, j);
    return t;
}

inline matrix<double> product(const matrix<double>& a, const matrix<double>& b) {
    matrix<double> c(a.rows(), b.cols());
    for (std::int64_t j = 0; j < b.cols(); ++j)
        for (std::int64_t k = 0; k < a.cols(); ++k) {
            const double factor = b(k, j);
            const double* const from = a.data() + k * a.rows();
            double* const to = c.data() + j * c.rows();
            for (std::int64_t i = 0; i < a.rows(); ++i) to[i] += factor * from[i];
        }
    return c;
}

inline matrix<double> sum(double x, const matrix<double>& a, double y, const matrix<double>& b) {
    matrix<double> c = a;
    for (std::size_t k = 0; k < c.values().size(); ++k) c.values()[k] = x * a.values()[k] + y * b.values()[k];
    return c;
}

inline matrix<double> block(const matrix<double>& a, const std::vector<std::int32_t>& rows,
                            const std::vector<std::int32_t>& columns) {
    matrix<double> b(std::ssize(rows), std::ssize(columns));
    for (std::int64_t j = 0; j < b.cols(); ++j)
        for (std::int64_t i = 0; i < b.rows(); ++i) b(i, j) = a(rows[i], columns[j]);
    return b;
}

/// Element by element to 1e-10 of the largest one.
inline void expect_near(const matrix<double>& a, const matrix<double>& b, const std::string& what) {
    ASSERT_EQ(a.rows(), b.rows()) << what;
    ASSERT_EQ(a.cols(), b.cols()) << what;
    double largest = 0.0, difference = 0.0;
    for (std::size_t k = 0; k < a.values().size(); ++k) {
        ASSERT_TRUE(std::isfinite(a.values()[k])) << what;
        largest = std::max(largest, std::abs(b.values()[k]));
        difference = std::max(difference, std::abs(a.values()[k] - b.values()[k]));
    }
    EXPECT_LE(difference, 1e-10 * std::max(1.0, largest)) << what;
}

// ---- animals

struct animal_choice {
    std::int32_t type = 3;  ///< of the pedigree
    std::int32_t npedigree = 40, ngenotyped = 17, nsnp = 11;
    std::uint64_t seed = 1;
};

/// Files "ped.txt", "gamma.txt", "geno.bed", ".bim" and ".fam", and what is in them.
struct genotyped_animals {
    matrix<std::int32_t> ped;
    std::int32_t nupg = 0;
    std::vector<std::int32_t> levels;  ///< ascending
    std::vector<double> frequency;
    double s = 0.0;
    matrix<double> w;         ///< animals (ascending) x SNPs
    matrix<double> a22;       ///< by the tabular method
    matrix<double> genotype;  ///< as w, with 3 for a missing one

    genotyped_animals(const animal_choice& choice, const temporary_directory& directory) {
        std::mt19937_64 random(choice.seed);
        nupg = choice.type == 3 ? 0 : 3;
        ped = random_pedigree({.nanimal = choice.npedigree, .nupg = nupg, .complete = choice.type == 7},
                              choice.seed);
        for (std::int32_t level = choice.npedigree + 1; level <= ped.cols(); ++level)  // so that all occur
            ped(0, level - choice.npedigree - 1) = level;
        for (std::int32_t i = 1; i <= nupg; ++i)
            if (ped(1, i - 1) == 0 && choice.type == 7) ped(1, i - 1) = choice.npedigree + 1;
        std::vector<std::int32_t> fam(static_cast<std::size_t>(choice.npedigree));
        for (std::int32_t k = 0; k < choice.npedigree; ++k) fam[k] = k + 1;
        std::ranges::shuffle(fam, random);
        fam.resize(static_cast<std::size_t>(choice.ngenotyped));
        levels = fam;
        std::ranges::sort(levels);
        draw_genotypes(choice, random);
        write_genotypes(fam, directory);
        write_pedigree(directory);

        const matrix<double> gamma = choice.type == 7 ? random_metarel(nupg, choice.seed) : matrix<double>();
        if (choice.type == 7) write_gamma(gamma, directory);
        std::vector<std::int32_t> places;
        for (const std::int32_t level : levels) places.push_back(level - 1);
        a22 = block(tabular_relationship(ped, nupg, gamma), places, places);
        centre(counted());
    }

    [[nodiscard]] std::int64_t n() const { return std::ssize(levels); }

    /// Centres the genotypes by other frequencies.
    void centre(const std::vector<double>& p) {
        frequency = p;
        s = 0.0;
        w = genotype;
        for (std::int64_t j = 0; j < w.cols(); ++j) {
            s += 2.0 * p[j] * (1.0 - p[j]);
            for (double& value : w.column(j)) value = value == 3.0 ? 0.0 : value - 2.0 * p[j];
        }
    }
    [[nodiscard]] matrix<double> g(double alpha, double beta) const {
        return sum(alpha / s, product(w, transposed(w)), beta, a22);
    }

  private:
    void draw_genotypes(const animal_choice& choice, std::mt19937_64& random) {
        genotype = matrix<double>(choice.ngenotyped, choice.nsnp);
        for (std::int64_t j = 0; j < choice.nsnp; ++j) {
            const double p = std::uniform_real_distribution<double>(0.1, 0.9)(random);
            for (double& value : genotype.column(j))
                value = std::uniform_real_distribution<double>()(random) < 0.05
                            ? 3.0
                            : std::binomial_distribution<int>(2, p)(random);
        }
    }
    [[nodiscard]] std::vector<double> counted() const {
        std::vector<double> p;
        for (std::int64_t j = 0; j < genotype.cols(); ++j) {
            double alleles = 0.0, second = 0.0;
            for (const double value : genotype.column(j))
                if (value < 3.0) alleles += 2.0, second += value;
            p.push_back(alleles > 0.0 ? second / alleles : 0.0);
        }
        return p;
    }
    void write_genotypes(const std::vector<std::int32_t>& fam, const temporary_directory& directory) const {
        std::string lines, bim, bed = "\x6C\x1B\x01";
        for (const std::int32_t level : fam) lines += "1 " + std::to_string(level) + " 0 0 0 -9\n";
        for (std::int64_t j = 0; j < genotype.cols(); ++j) {
            bim += "1 s" + std::to_string(j) + " 0 1 A B\n";
            std::string bytes((fam.size() + 3) / 4, '\0');
            for (std::size_t i = 0; i < fam.size(); ++i) {
                const auto row = std::ranges::lower_bound(levels, fam[i]) - levels.begin();
                const double value = genotype(row, j);
                const int code = value == 3.0 ? 1 : value == 0.0 ? 0 : value == 1.0 ? 2 : 3;
                bytes[i / 4] = static_cast<char>(bytes[i / 4] | code << 2 * (i % 4));
            }
            bed += bytes;
        }
        directory.write("geno.fam", lines);
        directory.write("geno.bim", bim);
        directory.write("geno.bed", bed);
    }
    void write_pedigree(const temporary_directory& directory) const {
        std::string lines;
        for (std::int32_t level = 1; level <= ped.cols() - nupg; ++level)
            lines += std::to_string(level) + " " + std::to_string(ped(0, level - 1)) + " " +
                     std::to_string(ped(1, level - 1)) + "\n";
        directory.write("ped.txt", lines);
    }
    void write_gamma(const matrix<double>& gamma, const temporary_directory& directory) const {
        std::string lines;
        for (std::int64_t i = 0; i < gamma.rows(); ++i)
            for (std::int64_t j = 0; j <= i; ++j)
                lines += std::to_string(i + 1) + " " + std::to_string(j + 1) + " " +
                         realtochar(gamma(i, j), "(g0)") + "\n";
        directory.write("gamma.txt", lines);
    }
};

// ---- runs

/// Runs the program in a directory of its own, and reads what it left.
class PreparedMatrices : public testing::Test {
  protected:
    PreparedMatrices() : at_(directory_.path()) {}

    /// The words of pedigree and genotypes, and `more`.
    static std::vector<std::string> words(std::int32_t type, std::vector<std::string> more) {
        std::vector<std::string> all{"--bfile", "geno",      "--ped",
                                     "ped.txt", "--pedtype", std::to_string(type)};
        if (type == 7) all.insert(all.end(), {"--gamma", "gamma.txt"});
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }
    std::string run(const std::vector<std::string>& arguments, int status = 0) {
        std::ostringstream out;
        EXPECT_EQ(matrices::run_matrices(arguments, out), status) << out.str();
        return out.str();
    }
    /// Of either form; its levels must be those of the animals.
    matrix<double> read_symmetric(const std::string& file, const genotyped_animals& animals) {
        gima22i_type m;
        readqptransfo(model(animals), 1, file, m, log_);
        EXPECT_EQ(m.levels.level, animals.levels) << file;
        return m.elements.dense;
    }
    static param_type model(const genotyped_animals& animals) {
        param_type param;
        param.ntrait = 1;
        param.neffect = 1;
        allocpar(param);
        param.n_level = {static_cast<std::int32_t>(animals.ped.cols())};
        param.type_effect = {0};
        param.n_cov = {1};
        return param;
    }
    void write_lines(const char* name, const std::vector<std::int32_t>& values) {
        std::string text;
        for (const std::int32_t value : values) text += std::to_string(value) + "\n";
        directory_.write(name, text);
    }

    temporary_directory directory_;
    working_directory at_;
    captured_log log_;
};

}  // namespace zendar::test
