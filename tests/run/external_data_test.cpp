#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "genotype_sets.hpp"
#include "modblas.hpp"
#include "modview.hpp"

/// Single-step models by every form of prepared matrices, which the companion program makes, on data whose
/// answers others computed.
namespace zendar::test {
namespace {

constexpr std::int32_t ngenotyped = 600, nanimal = 1500;

/// A copy of the data with matrices of the animals with genotypes.
class prepared_set {
  public:
    prepared_set() {
        copy_files(external(single_step), directory);
        for (const char* par : {"model.par", "model22.par", "model_compute.par"})
            std::filesystem::permissions(directory / par, std::filesystem::perms::owner_write,
                                         std::filesystem::perm_options::add);
        std::string par = directory.read("model.par"), with_snps = par;
        replace(with_snps, "!convcrit 1.0e-18\n", tight);
        directory.write("model.par", with_snps);
        // The model of animals alone.
        replace(par, "N_EFFECTS\n5\n", "N_EFFECTS\n4\n");
        replace(par, "5 3 600 1000 0 0 geno.bed\n", "");
        replace(par, "EFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n5 30 0 1000\nsnpcov.txt 1\n4\n", "");
        replace(par, "!allelefreq freq.txt 1 5\n", "");
        replace(par, "!convcrit 1.0e-18\n", tight);
        par_ = par;
    }
    void prepare(std::vector<std::string> outputs) const {
        std::vector<std::string> words{"--bfile",      "geno",     "--ped",    "ped.txt",
                                       "--allelefreq", "freq.txt", "--effect", "4"};
        words.insert(words.end(), outputs.begin(), outputs.end());
        const auto result = run_program(directory.path(), words, program_file("zendar-matrices"));
        ASSERT_EQ(result.status, 0) << result.out << result.error;
    }
    /// Runs the model of animals alone with further option lines.
    [[nodiscard]] std::vector<double> run(const std::string& options) const {
        directory.write("animals.par", par_ + options);
        return run_par("animals.par");
    }
    /// All solutions, in full precision.
    [[nodiscard]] std::vector<double> run_par(const std::string& par) const {
        // The coefficients of inbreeding that a run leaves have six digits.
        std::filesystem::remove(directory / "ped.txt.inb");
        const auto result = run_program(directory.path(), {par, "--ncpus", "2"});
        EXPECT_EQ(result.status, 0) << result.out << result.error;
        const std::string bytes = directory.read("ca491pcn.bin");
        std::vector<double> values(bytes.size() / sizeof(double));
        std::memcpy(values.data(), bytes.data(), values.size() * sizeof(double));
        return values;
    }
    static void replace(std::string& text, const std::string& piece, const std::string& by) {
        const auto at = text.find(piece);
        if (at == std::string::npos) throw std::logic_error("no such piece: " + piece);
        text.replace(at, piece.size(), by);
    }

    temporary_directory directory;

  private:
    static constexpr const char* tight = "!convcrit 1.0e-24\n";
    std::string par_;
};

/// Sexes, seasons, the regression and animals.
constexpr std::size_t nequation = 2 + 3 + 1 + nanimal;

void expect_same(const std::vector<double>& a, const std::vector<double>& b, const char* what) {
    ASSERT_GE(a.size(), nequation);
    ASSERT_GE(b.size(), nequation);
    double largest = 0.0, difference = 0.0;
    for (std::size_t i = nequation - nanimal; i < nequation; ++i) {
        largest = std::max(largest, std::abs(b[i]));
        difference = std::max(difference, std::abs(a[i] - b[i]));
    }
    EXPECT_LT(difference, 1e-6 * largest) << what;
}

/// Rows "trait effect 0 SNP value" beside those of the answers, whose effect has another number.
void expect_snp_effects(const prepared_set& set, const char* what) {
    const solutions found = read_solutions(set.directory / "snpeffects_ta.dat"),
                    expected = read_solutions(set.directory / "derived_snp_effects.txt");
    EXPECT_EQ(found.size(), expected.size()) << what;
    const double tolerance = six_digits * largest_of(expected, 5);
    for (const auto& [key, value] : expected) {
        const auto own = found.find({std::get<0>(key), 4, std::get<2>(key), std::get<3>(key)});
        ASSERT_NE(own, found.end()) << what;
        EXPECT_NEAR(own->second, value, tolerance) << what << " SNP " << std::get<3>(key);
    }
}

TEST(PreparedMatrices, GiveThePublishedBreedingValuesInEveryForm) {
    if (!is_here(single_step)) GTEST_SKIP() << "the set " << single_step << " is not here";
    const prepared_set set;
    std::string core;
    for (int i = ngenotyped; i >= 1; --i) core += std::to_string(i) + "\n";
    set.directory.write("core.txt", core);
    set.prepare({"--gima22i", "gi_tri", "--apy", "apy.stream", "--core", "core.txt", "--ta", "ta.stream",
                 "--k", "k.stream"});
    set.prepare({"--apy", "apy_tri", "--core", "core.txt", "--k", "k_tri", "--ta", "ta_tri"});
    const std::vector<double> type30 = set.run_par("model.par");
    const std::string frequencies = "!allelefreq freq.txt 1 4\n";
    const struct {
        const char* name;
        std::string options;
        bool snps;
    } forms[] = {
        {"Gi-A22i", "!gima22i gi_tri 1 4\n", false},
        {"Gi-A22i in memory", "!gima22i gi_tri 1 4\n!solver pardiso\n", false},
        {"APY", "!gapy apy.stream 1 4\n", false},
        {"APY by text", "!gapy apy_tri 1 4\n", false},
        {"Ta", "!tamatrix ta.stream 1 4\n!ktamatrix k.stream 1 4\n", true},
        {"Ta by text, in blocks", "!tamatrix ta_tri 1 4\n!tamatrix_blocks 4 300\n!ktamatrix k_tri 1 4\n",
         true},
        {"Ta by the pedigree", "!notuseasparse\n!tamatrix ta.stream 1 4\n", false},
        {"components of Ta", "!tageno geno 1 4\n!ktamatrix k.stream 1 4\n" + frequencies, true},
        {"compressed components of Ta",
         "!tageno geno.bed 1 4\n!ktamatrix k_tri 1 4\n!miraculix 4\n" + frequencies, true},
    };
    for (const auto& form : forms) {
        std::filesystem::remove(set.directory / "snpeffects_ta.dat");
        expect_same(set.run(form.options), type30, form.name);
        expect_effects(set.directory / "solutions.dat", set.directory / "expected_solutions.txt",
                       {1, 2, 3, 4});
        EXPECT_EQ(set.directory.exists("snpeffects_ta.dat"), form.snps) << form.name;
        if (form.snps) expect_snp_effects(set, form.name);
        if (HasFailure()) break;
    }
    // Type 22 has the breeding values among its sums only, with six digits.
    EXPECT_GT(set.run_par("model22.par").size(), nequation);
    expect_effects(set.directory / "aggregate_solutions.dat", set.directory / "expected_solutions.txt", {4});
}

/// The lower triangle of a stream of a symmetric matrix, as a whole matrix.
matrix<double> read_stream(const prepared_set& set, const char* file) {
    const std::string bytes = set.directory.read(file);
    std::int32_t sizes[2] = {};
    std::memcpy(sizes, bytes.data(), sizeof sizes);
    const std::int64_t n = sizes[1];
    const char* at = bytes.data() + sizeof sizes + static_cast<std::size_t>(n) * sizeof(std::int32_t);
    matrix<double> m(n, n);
    for (std::int64_t i = 0; i < n; ++i)
        for (std::int64_t j = 0; j <= i; ++j, at += sizeof(double)) {
            double value = 0.0;
            std::memcpy(&value, at, sizeof value);
            m(i, j) = m(j, i) = value;
        }
    EXPECT_EQ(at, bytes.data() + bytes.size());
    return m;
}

void invert(matrix<double>& m) {
    ASSERT_EQ(lapack_dpotrf(m.view()), 0);
    ASSERT_EQ(lapack_dpotri(m.view()), 0);
    for (std::int64_t j = 0; j < m.cols(); ++j)
        for (std::int64_t i = 0; i < j; ++i) m(i, j) = m(j, i);
}

TEST(PreparedMatrices, OfAPartialCoreGiveTheSolutionsOfTheDenseInverse) {
    if (!is_here(single_step)) GTEST_SKIP() << "the set " << single_step << " is not here";
    const prepared_set set;
    constexpr std::int64_t ncore = 250, nother = ngenotyped - ncore;
    std::string core;
    std::vector<std::int64_t> order;  // core first, from 0
    for (std::int64_t i = 0; i < ngenotyped; ++i)
        if (i % 12 < 5) order.push_back(i);
    ASSERT_EQ(std::ssize(order), ncore);
    for (const std::int64_t i : order) core += std::to_string(i + 1) + "\n";
    for (std::int64_t i = 0; i < ngenotyped; ++i)
        if (i % 12 >= 5) order.push_back(i);
    set.directory.write("core.txt", core);
    set.prepare({"--apy", "apy.stream", "--core", "core.txt", "--g", "g.stream", "--a22i", "a22i.stream"});

    // G_APY^-1 = [I 0; -P' I]' diag(Gcc^-1, M^-1) [I 0; -P' I] with P = Gcc^-1 Gcn.
    const matrix<double> g = read_stream(set, "g.stream"), a22i = read_stream(set, "a22i.stream");
    matrix<double> gcc(ncore, ncore), gcn(ncore, nother), p(ncore, nother), inverse(ngenotyped, ngenotyped);
    for (std::int64_t i = 0; i < ncore; ++i) {
        for (std::int64_t j = 0; j < ncore; ++j) gcc(i, j) = g(order[i], order[j]);
        for (std::int64_t j = 0; j < nother; ++j) gcn(i, j) = g(order[i], order[ncore + j]);
    }
    invert(gcc);
    blas_dgemm(false, false, 1.0, gcc.view(), gcn.view(), 0.0, p.view());
    for (std::int64_t i = 0; i < ncore; ++i)
        for (std::int64_t j = 0; j < ncore; ++j) inverse(order[i], order[j]) = gcc(i, j);
    for (std::int64_t k = 0; k < nother; ++k) {
        const std::int64_t own = order[ncore + k];
        double m = g(own, own);
        for (std::int64_t i = 0; i < ncore; ++i) m -= gcn(i, k) * p(i, k);
        inverse(own, own) = 1.0 / m;
        for (std::int64_t i = 0; i < ncore; ++i) {
            inverse(order[i], own) = inverse(own, order[i]) = -p(i, k) / m;
            for (std::int64_t j = 0; j < ncore; ++j) inverse(order[i], order[j]) += p(i, k) * p(j, k) / m;
        }
    }
    std::string text;
    char line[64];
    for (int i = 0; i < ngenotyped; ++i)
        for (int j = 0; j <= i; ++j) {
            std::snprintf(line, sizeof line, "%d %d %.17g\n", i + 1, j + 1, inverse(i, j) - a22i(i, j));
            text += line;
        }
    set.directory.write("dense_tri", text);

    const std::vector<double> sparse = set.run("!gapy apy.stream 1 4\n"),
                              dense = set.run("!gima22i dense_tri 1 4\n");
    expect_same(sparse, dense, "partial core");
    // It is another model than that of all animals.
    set.prepare({"--gima22i", "gi_tri"});
    const std::vector<double> whole = set.run("!gima22i gi_tri 1 4\n");
    double change = 0.0;
    for (std::size_t i = nequation - nanimal; i < nequation; ++i)
        change = std::max(change, std::abs(whole[i] - sparse[i]));
    EXPECT_GT(change, 1e-3);
}

}  // namespace
}  // namespace zendar::test
