#include "modmatrices.hpp"

#include <omp.h>

#include <fstream>

#include "modblas.hpp"
#include "modmatrices_relationship.hpp"
#include "modmatrices_test_support.hpp"
#include "option_reader.hpp"

namespace zendar::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// ---- relationships
// -------------------------------------------------------------------------------------------

TEST(RelationshipColumns, AgreeWithTheTabularMethod) {
    captured_log log;
    for (std::uint64_t seed = 1; seed <= 12; ++seed) {
        const bool meta = seed % 3 == 0;
        const std::int32_t nupg = meta ? 4 : seed % 3 == 1 ? 2 : 0;
        pedigree_type ped;
        ped.ped =
            random_pedigree({.nanimal = 150, .nupg = nupg, .complete = meta, .selfing = seed % 2 == 0}, seed);
        ped.nupg = nupg;
        ped.ismeta = meta;
        if (meta) ped.metarel = random_metarel(nupg, seed);
        ped.computeinbreeding_ped({}, log);
        std::vector<std::int32_t> list, places;
        for (std::int32_t level = 150 - static_cast<std::int32_t>(seed); level >= 1; level -= 3) {
            list.push_back(level);
            places.push_back(level - 1);
        }
        const auto n = std::ssize(list);
        const matrix<double> a = block(tabular_relationship(ped.ped, nupg, ped.metarel), places, places);

        const matrices::relationship_columns columns(ped, list, log);
        matrix<double> left(n, 21), right(n, n - 21);
        columns.columns(0, left.view());
        columns.columns(21, right.view());

        for (std::int64_t j = 0; j < n; ++j)
            for (std::int64_t i = 0; i < n; ++i)
                ASSERT_NEAR(j < 21 ? left(i, j) : right(i, j - 21), a(i, j), 1e-12) << seed;
    }
}

// ---- G, A22 and their inverses
// -------------------------------------------------------------------------------

class PreparedMatricesOfType : public PreparedMatrices, public testing::WithParamInterface<std::int32_t> {};

TEST_P(PreparedMatricesOfType, AgreeWithDenseAlgebraInBothForms) {
    for (std::uint64_t seed = 1; seed <= 4; ++seed) {
        const genotyped_animals animals({.type = GetParam(), .seed = seed}, directory_);
        const double alpha = 0.8, beta = 0.3, tau = 1.25, omega = 0.75;
        for (const std::string form : {"_tri", ".stream"}) {
            run(words(GetParam(), {"--alpha", "0.8", "--beta", "0.3", "--tau", "1.25", "--omega", "0.75",
                                   "--g", "g" + form, "--gi", "gi" + form, "--gima22i", "gima" + form,
                                   "--a22", "a22" + form, "--a22i", "a22i" + form}));

            const matrix<double> g = animals.g(alpha, beta), gi = dense_inverse(g),
                                 a22i = dense_inverse(animals.a22);
            expect_near(read_symmetric("g" + form, animals), g, "G");
            expect_near(read_symmetric("gi" + form, animals), gi, "G^-1");
            expect_near(read_symmetric("a22" + form, animals), animals.a22, "A22");
            expect_near(read_symmetric("a22i" + form, animals), a22i, "A22^-1");
            expect_near(read_symmetric("gima" + form, animals), sum(tau, gi, -omega, a22i), "Gi-A22i");
        }
        gima22i_type text;
        readgima22i(model(animals), 1, "gima_tri", text, log_);
        expect_near(text.elements.dense, read_symmetric("gima.stream", animals), "the reader of Gi-A22i");
    }
}

TEST_P(PreparedMatricesOfType, AreTheSameWhenAskedForAlone) {
    const genotyped_animals animals({.type = GetParam(), .seed = 9}, directory_);
    write_lines("core.txt", {animals.levels[3], animals.levels[0], animals.levels[10]});
    const std::vector<std::pair<std::string, std::string>> outputs{
        {"--g", "g.stream"},     {"--gi", "gi.stream"},     {"--gima22i", "gima.stream"},
        {"--a22", "a22.stream"}, {"--a22i", "a22i.stream"}, {"--ta", "ta.stream"},
        {"--k", "k.stream"},     {"--freq", "freq.txt"}};
    std::vector<std::string> all{"--apy", "apy.stream", "--core", "core.txt"};
    for (const auto& [option, file] : outputs) all.insert(all.end(), {option, file});
    run(words(GetParam(), all));

    for (const auto& [option, file] : outputs) {
        run(words(GetParam(), {option, "alone_" + file}));
        EXPECT_EQ(directory_.read("alone_" + file), directory_.read(file)) << option;
    }
    run(words(GetParam(), {"--apy", "alone_apy.stream", "--core", "core.txt"}));
    apy one, other;
    readgapy(model(animals), 1, "apy.stream", one, log_);
    readgapy(model(animals), 1, "alone_apy.stream", other, log_);
    expect_near(other.core, one.core, "the core of APY");
    expect_near(other.cross, one.cross, "the cross block of APY");
}

INSTANTIATE_TEST_SUITE_P(Pedigrees, PreparedMatricesOfType, testing::Values(3, 5, 7, 9));

TEST_F(PreparedMatrices, HaveTheWeightsOfTheSolverByDefault) {
    const genotyped_animals animals({.seed = 5}, directory_);
    const param_type fresh;

    run(words(3, {"--g", "g.stream", "--gima22i", "gima.stream"}));
    const matrix<double> g = animals.g(fresh.alpha, fresh.beta);
    expect_near(read_symmetric("g.stream", animals), g, "G");
    expect_near(read_symmetric("gima.stream", animals),
                sum(fresh.tau, dense_inverse(g), -fresh.omega, dense_inverse(animals.a22)), "Gi-A22i");

    run(words(3, {"--g", "g.stream", "--beta", "0.25"}));
    expect_near(read_symmetric("g.stream", animals), animals.g(0.75, 0.25), "G, with alpha = 1 - beta");
    run(words(3, {"--g", "g.stream", "--beta", "0"}));
    expect_near(read_symmetric("g.stream", animals), animals.g(1.0, 0.0), "G without the pedigree");
}

TEST_F(PreparedMatrices, TakeGivenFrequencies) {
    genotyped_animals animals({.seed = 6}, directory_);
    std::vector<double> p;
    std::string text;
    for (std::int64_t j = 0; j < animals.w.cols(); ++j) {
        p.push_back(0.05 * static_cast<double>(j + 1));
        text += realtochar(p.back(), "(g0)") + "\n";
    }
    directory_.write("p.txt", text);
    animals.centre(p);

    run(words(3, {"--allelefreq", "p.txt", "--g", "g.stream", "--freq", "freq.txt"}));

    expect_near(read_symmetric("g.stream", animals), animals.g(0.95, 0.05), "G");
    EXPECT_EQ(directory_.read("freq.txt"), text);
}

TEST_F(PreparedMatrices, WriteFrequenciesWithAllTheirDigits) {
    const genotyped_animals animals({.nsnp = 30, .seed = 7}, directory_);

    run({"--bfile", "geno", "--freq", "freq.txt"});

    std::ifstream in("freq.txt");
    std::vector<double> back;
    for (double value = 0.0; in >> value;) back.push_back(value);
    EXPECT_EQ(back, animals.frequency);
}

TEST_F(PreparedMatrices, LeaveNothingBesideTheirFiles) {
    const genotyped_animals animals({}, directory_);

    run(words(3, {"--g", "g.stream"}));

    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path()))
        files.push_back(entry.path().filename().string());
    EXPECT_THAT(files,
                testing::UnorderedElementsAre("geno.bed", "geno.bim", "geno.fam", "ped.txt", "g.stream"));
}

TEST_F(PreparedMatrices, CountGroupsAsTheOptionsSay) {
    const genotyped_animals animals({.type = 5, .seed = 3}, directory_);
    run(words(5, {"--a22", "found.stream"}));
    run(words(5, {"--nupg", "3", "--a22", "given.stream"}));
    run(words(5, {"--nupg", "3", "--nlevel", "43", "--a22", "level.stream"}));

    for (const char* file : {"found.stream", "given.stream", "level.stream"})
        expect_near(read_symmetric(file, animals), animals.a22, file);
}

// ---- APY
// -----------------------------------------------------------------------------------------------------

/// The inverse of the dense matrix with G_cc, G_cn and G_nc G_cc^-1 G_cn + M for the others.
matrix<double> dense_apy(const matrix<double>& g, std::int64_t c) {
    std::vector<std::int32_t> core, others;
    for (std::int32_t i = 0; i < g.rows(); ++i) (i < c ? core : others).push_back(i);
    const matrix<double> cc = block(g, core, core), cn = block(g, core, others),
                         nn = product(transposed(cn), product(dense_inverse(cc), cn));
    matrix<double> joint = g;
    for (const std::int32_t j : others)
        for (const std::int32_t i : others)
            if (i != j) joint(i, j) = nn(i - c, j - c);
    return dense_inverse(joint);
}

TEST_F(PreparedMatrices, ApyIsTheInverseOfGWithIndependentOthers) {
    for (std::uint64_t seed = 1; seed <= 6; ++seed) {
        const std::int32_t type = seed % 2 == 0 ? 7 : 3;
        const genotyped_animals animals({.type = type, .seed = seed}, directory_);
        std::vector<std::int32_t> order(animals.levels.size()), core_levels;
        for (std::size_t k = 0; k < order.size(); ++k) order[k] = static_cast<std::int32_t>(k);
        std::mt19937_64 random(seed);
        std::ranges::shuffle(order, random);
        const std::int64_t c = 1 + static_cast<std::int64_t>(seed) * 2;
        std::ranges::sort(order.begin() + c, order.end());
        std::vector<std::int32_t> ordered;
        for (const std::int32_t place : order) ordered.push_back(animals.levels[place]);
        core_levels.assign(ordered.begin(), ordered.begin() + c);
        write_lines("core.txt", core_levels);
        const matrix<double> expected = dense_apy(block(animals.g(0.9, 0.1), order, order), c);

        for (const std::vector<std::string>& more :
             {std::vector<std::string>{}, {"--g", "g.stream"}})  // by parts, and out of the whole G
            for (const std::string file : {"apy_tri", "apy.stream"}) {
                std::vector<std::string> arguments =
                    words(type, {"--beta", "0.1", "--core", "core.txt", "--apy", file});
                arguments.insert(arguments.end(), more.begin(), more.end());
                run(arguments);
                apy back;
                readgapy(model(animals), 1, file, back, log_);

                ASSERT_EQ(back.levels.level, ordered);
                ASSERT_EQ(back.ncore, c);
                matrix<double> whole(animals.n(), animals.n());
                for (std::int64_t j = 0; j < c; ++j)
                    for (std::int64_t i = 0; i < c; ++i) whole(i, j) = back.core(i, j);
                for (std::int64_t j = c; j < animals.n(); ++j) {
                    for (std::int64_t i = 0; i < c; ++i) whole(i, j) = whole(j, i) = back.cross(i, j - c);
                    whole(j, j) = back.diagonal[j - c];
                }
                expect_near(whole, expected, "APY, seed " + std::to_string(seed));
            }
    }
}

TEST_F(PreparedMatrices, ApyWithCoreAnimalsOnlyIsTheInverseOfG) {
    const genotyped_animals animals({.seed = 2}, directory_);
    write_lines("core.txt", animals.levels);

    run(words(3, {"--apy", "apy.stream", "--core", "core.txt"}));

    apy back;
    readgapy(model(animals), 1, "apy.stream", back, log_);
    expect_near(back.core, dense_inverse(animals.g(0.95, 0.05)), "APY");
    EXPECT_TRUE(back.diagonal.empty());
}

// ---- Ta
// ------------------------------------------------------------------------------------------------------

TEST_F(PreparedMatrices, TaAndItsFactorGiveTheInverseOfGAndTheSnpEffects) {
    for (const std::int32_t type : {3, 7})
        for (std::uint64_t seed = 1; seed <= 3; ++seed)
            for (const std::string form : {"_tri", ".stream"}) {
                const genotyped_animals animals({.type = type, .nsnp = 23, .seed = seed}, directory_);
                const double alpha = 0.85, beta = 0.2;

                run(words(type,
                          {"--alpha", "0.85", "--beta", "0.2", "--ta", "ta" + form, "--k", "k" + form}));

                param_type param = model(animals);
                tamatrix_type ta;
                readtamatrix(param, 1, "ta" + form, ta, log_);
                param.n_level = {23};
                ktmatrix_type kt;
                readktamatrix(param, 1, "k" + form, kt, log_);
                ASSERT_EQ(ta.levels.level, animals.levels);
                const matrix<double> gi = dense_inverse(animals.g(alpha, beta)),
                                     a22i = dense_inverse(animals.a22), wt = transposed(animals.w);
                expect_near(sum(1.0 / beta, a22i, -1.0, product(transposed(ta.value), ta.value)), gi, "G^-1");

                matrix<double> ll = kt.k.value;
                for (std::int64_t j = 0; j < ll.cols(); ++j)
                    for (std::int64_t i = 0; i < j; ++i) ll(i, j) = 0.0;
                const matrix<double> l = ll;
                ll = product(l, transposed(l));
                matrix<double> expected = product(wt, product(a22i, animals.w));
                for (std::int64_t j = 0; j < 23; ++j) {
                    for (std::int64_t i = 0; i < 23; ++i) expected(i, j) /= beta;
                    expected(j, j) += animals.s / alpha;
                }
                expect_near(ll, expected, "L L'");

                matrix<double> effects = ta.value;  // of one breeding value each
                ASSERT_EQ(lapack_dtrtrs(true, l.view(), effects.view()), 0);
                expect_near(effects, sum(alpha / animals.s, product(wt, gi), 0.0, product(wt, gi)),
                            "effects of the SNPs");
            }
}

// ---- more than one block of everything
// -----------------------------------------------------------------------

TEST_F(PreparedMatrices, AgreeWithDenseAlgebraBeyondTheirBlocks) {
    const genotyped_animals animals({.npedigree = 800, .ngenotyped = 571, .nsnp = 1029, .seed = 4},
                                    directory_);
    std::vector<std::int32_t> order, core(animals.levels.begin() + 400, animals.levels.begin() + 418);
    for (std::int32_t i = 400; i < 418; ++i) order.push_back(i);
    for (std::int32_t i = 0; i < 571; ++i)
        if (i < 400 || i >= 418) order.push_back(i);
    write_lines("core.txt", core);

    run(words(3, {"--threads", "2", "--g", "g.stream", "--gima22i", "gima.stream", "--ta", "ta.stream"}));
    run(words(3, {"--threads", "2", "--apy", "apy.stream", "--core", "core.txt"}));

    const matrix<double> g = animals.g(0.95, 0.05), gi = dense_inverse(g), a22i = dense_inverse(animals.a22);
    expect_near(read_symmetric("g.stream", animals), g, "G");
    expect_near(read_symmetric("gima.stream", animals), sum(1.0, gi, -1.0, a22i), "Gi-A22i");
    tamatrix_type ta;
    readtamatrix(model(animals), 1, "ta.stream", ta, log_);
    ASSERT_EQ(ta.value.rows(), 1029);
    expect_near(sum(1.0 / 0.05, a22i, -1.0, product(transposed(ta.value), ta.value)), gi, "G^-1 by Ta");
    apy back;
    readgapy(model(animals), 1, "apy.stream", back, log_);
    const matrix<double> expected = dense_apy(block(g, order, order), 18);
    matrix<double> cross(18, 553), cc(18, 18);
    for (std::int64_t j = 0; j < 553; ++j) {
        for (std::int64_t i = 0; i < 18; ++i) cross(i, j) = expected(i, 18 + j);
        EXPECT_NEAR(back.diagonal[j], expected(18 + j, 18 + j), 1e-9);
    }
    for (std::int64_t j = 0; j < 18; ++j)
        for (std::int64_t i = 0; i < 18; ++i) cc(i, j) = expected(i, j);
    expect_near(back.cross, cross, "cross block of APY");
    expect_near(back.core, cc, "core block of APY");
}

// ---- reports
// -------------------------------------------------------------------------------------------------

TEST_F(PreparedMatrices, TellSizesMemoryTimesAndTheOptionsOfTheSolver) {
    const genotyped_animals animals({}, directory_);
    write_lines("core.txt", {animals.levels[0]});

    const std::string told =
        run(words(3, {"--gima22i", "gima_tri", "--apy", "apy.stream", "--core", "core.txt", "--effect", "2",
                      "--ta", "ta.stream", "--threads", "1"}));

    for (const char* text : {"Number of animals in the pedigree: 40\n",
                             "Number of animals with genotypes: 17\n", "Number of SNPs: 11\n",
                             "Memory (MB) needed for the matrices and genotypes: ", "Inversion of G...\n",
                             "Inversion of G - Wall clock time (s): ", "Number of core animals: 1 of 17\n",
                             "Writing of gima_tri - Wall clock time (s): ",
                             "Lines for the instruction file:\n!gima22i gima_tri 1 2\n!gapy apy.stream 1 2\n"
                             "!tamatrix ta.stream 1 2\n!alpha "})
        EXPECT_THAT(told, HasSubstr(text));
    EXPECT_LT(told.find("Memory (MB) needed for the matrices"), told.find("Relationships by the pedigree"));
}

TEST(InstructionLines, AreOptionsThatTheSolverReads) {
    matrices::matrix_options options;
    options.bfile = "geno";
    options.effect = 3;
    options.gima22i = "gima.stream";
    options.apy = "apy_tri";
    options.k = "k.stream";
    options.freq = "freq.txt";
    options.gi = "gi_tri";
    options.beta = 0.1;
    options.alpha = 0.8;
    const std::vector<std::string> lines = matrices::instruction_lines(options);

    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    option_reader reader;
    reader.model(text);

    EXPECT_EQ(reader.param.qptransfo[2], "gima.stream");
    EXPECT_EQ(reader.param.gapy[2], "apy_tri");
    EXPECT_EQ(reader.param.tageno[2], "geno.bed");
    EXPECT_EQ(reader.param.ktamatrix[2], "k.stream");
    EXPECT_EQ(reader.param.allelefreq[2], "freq.txt");
    EXPECT_EQ(reader.param.alpha, 0.8);
    EXPECT_EQ(reader.param.beta, 0.1);
    EXPECT_THAT(reader.param.pvalue, ElementsAre(pvalue_option{3, "gi_tri", "geno", "freq.txt"}));
    EXPECT_EQ(lines.size(), 10U);
}

TEST(InstructionLines, OfATaMatrixNeedNoGenotypes) {
    matrices::matrix_options options;
    options.bfile = "geno";
    options.ta = "ta_tri";
    options.k = "k_tri";

    const std::vector<std::string> lines = matrices::instruction_lines(options);

    ASSERT_EQ(lines.size(), 6U);
    EXPECT_EQ(lines[0], "!tamatrix ta_tri 1 1");
    EXPECT_EQ(lines[1], "!ktamatrix k_tri 1 1");
}

TEST(PeakBytes, CountWhatIsHeldAtOnce) {
    const matrices::matrix_sizes sizes{.nanimal = 100, .nsnp = 1000, .ncore = 30};
    const std::int64_t packed = 25 * 1000, block = 100 * 512;
    const auto of = [&](auto set) {
        matrices::matrix_options options;
        set(options);
        return (matrices::peak_bytes(options, sizes) - packed) / 8;
    };

    EXPECT_EQ(of([](auto& o) { o.freq = "x"; }), 0);
    EXPECT_EQ(of([](auto& o) { o.g = "x"; }), 100 * 100 + block);
    EXPECT_EQ(of([](auto& o) { o.a22 = "x"; }), 100 * 100);
    EXPECT_EQ(of([](auto& o) { o.apy = "x"; }), 30 * 100 + block);
    EXPECT_EQ(of([](auto& o) { o.k = "x"; }), 1000 * 1000 + 3 * block);
    EXPECT_EQ(of([](auto& o) { o.ta = "x"; }), 1000 * 1000 + 1000 * 100 + 3 * block);
}

}  // namespace
}  // namespace zendar::test
