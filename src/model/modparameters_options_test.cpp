#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>

#include "modparameters_options_detail.hpp"
#include "option_reader.hpp"

namespace zendar {
namespace {

using test::option_reader;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// One line of an option, what is logged when it is taken, and how it is written back.
struct taken_line {
    std::string line;
    std::vector<std::string> logged;
    std::string written;
    bool (*stored)(const param_type&);
};

using names = std::vector<std::string>;
using flags = std::vector<unsigned char>;
using P = const param_type&;

const taken_line taken_lines[] = {
    {"!acrosseff m.bin 2 2 3",
     {"A file is present for the effect 2 and is linked to the effect 3"},
     "!acrosseff m.bin 2 2 3",
     [](P p) {
         return p.acrosseff == std::vector<across_effects>{{"m.bin", 2, 3}};
     }},
    {"!allelefreq f.txt 2 4 1",
     {"A file with allele frequencies is present for the effect 4",
      "A file with allele frequencies is present for the effect 1"},
     "!allelefreq f.txt 2 1 4",
     [](P p) {
         return p.allelefreq == names{"f.txt", "none", "none", "f.txt"};
     }},
    {"!andeffect 2 1 3 4",
     {"The effect 3 is combined with/the same as the effect 1",
      "The effect 4 is combined with/the same as the effect 1"},
     "!andeffect 2 1 3 4",
     [](P p) {
         return p.landeffect && p.andeffect == std::vector<std::int32_t>{1, 2, 1, 1};
     }},
    {"!alpha 0.8",
     {"The value for alpha is set to: 0.8000"},
     "!alpha 0.80000000000000004",
     [](P p) { return p.lalpha && p.alpha == 0.8; }},
    {"!beta 0.1",
     {"The value for beta is set to (default=0.05): 0.1000"},
     "!beta 0.10000000000000001",
     [](P p) { return p.beta == 0.1; }},
    {"!checkpd",
     {"Positiveness of (co)variance matrices will be checked"},
     "!checkpd",
     [](P p) { return p.lcheckpd; }},
    {"!combieff 2 1 1",
     {"Combination across traits for effect 2: 1 1"},
     "!combieff 2 1 1",
     [](P p) {
         return p.lcombieff && p.combieff_trait(0, 1) == 1 && p.combieff_trait(1, 1) == 1 &&
                p.combieff_trait(1, 0) == 2 && p.combieff_trait(1, 3) == 2;
     }},
    {"!computeeigen 25",
     {"Extremal eigenvalues computed each 25 iteration!"},
     "!computeeigen 25",
     [](P p) { return p.computeeigen == 25; }},
    {"!gapy g 1 2",
     {"A matrix GAPY is present for the effect 2"},
     "!gapy g 1 2",
     [](P p) {
         return p.gapy == names{"none", "g", "none", "none"};
     }},
    {"!gima22i g 1 2",
     {"A matrix Gi-A22i is present for the effect 2"},
     "!gima22i g 1 2",
     [](P p) {
         return p.gima22i == names{"none", "g", "none", "none"};
     }},
    {"!ktamatrix g 1 2",
     {"A KTa matrix is present for the effect 2"},
     "!ktamatrix g 1 2",
     [](P p) {
         return p.ktamatrix == names{"none", "g", "none", "none"};
     }},
    {"!miraculix 4",
     {"Miraculix will be called for the effect 4"},
     "!miraculix 4",
     [](P p) {
         return p.miraculix == flags{0, 0, 0, 1} && p.miraculix_gpu.empty();
     }},
    {"!miraculix_gpu 3",
     {"Miraculix GPU will be called for the effect 3"},
     "!miraculix_gpu 3",
     [](P p) {
         return p.miraculix_gpu == flags{0, 0, 1, 0} && p.miraculix.empty();
     }},
    {"!quorlen",
     {"Solutions (i.e. aggregate solutions) will be written to solutions_quorlen.dat."},
     "!quorlen",
     [](P p) { return p.lquorlen; }},
    {"!solquorlen",
     {"Solutions (i.e. aggregate solutions) will be written to solutions_quorlen.dat."},
     "!quorlen",
     [](P p) { return p.lquorlen; }},
    {"!nphen 100",
     {"Number of phenotypes (records) read from top of phen.dat"},
     "!nphen 100",
     [](P p) { return p.nphen == 100; }},
    {"!no_beta_snp",
     {"Scaling with beta will not be applied for SNP effects"},
     "!no_beta_snp",
     [](P p) { return !p.lbetasnp; }},
    {"!notuseasparse",
     {"PCG + IOD (if applicable) will iterate on pedigree instead of using sparse A matrices."},
     "!notuseasparse",
     [](P p) { return !p.useasparse; }},
    {"!omega 0.5",
     {"The value for omega is set to (default=1.d0): .50"},
     "!omega 0.50000000000000000",
     [](P p) { return p.omega == 0.5; }},
    {"!outputdir .", {"Output directory: ."}, "", [](P p) { return p.outputdir == "."; }},
    {"!outputdir ./", {"Output directory: ./"}, "!outputdir ./", [](P p) { return p.outputdir == "./"; }},
    {"!phendev",
     {"Only the residual will be included in the phenotype deviations!"},
     "!phendev",
     [](P p) {
         return p.phendev == flags{0, 0, 0, 0};
     }},
    {"!phendev 2 3 1",
     {"Effect included in the phenotype deviations: 3", "Effect included in the phenotype deviations: 1"},
     "!phendev 2 1 3",
     [](P p) {
         return p.phendev == flags{1, 0, 1, 0};
     }},
    {"!plotsolutions",
     {"Histograms of the solutions will be drawn to solutions.png, if gnuplot is installed"},
     "!plotsolutions",
     [](P p) { return p.plotsolutions; }},
    {"!precondzaaaz",
     {"Computation of diag(ZAAAZ) (if applicable)."},
     "!precondzaaaz",
     [](P p) { return p.precondzaaaz; }},
    {"!printprecond",
     {"Will save the preconditioner and its inverse in a file"},
     "!printprecond",
     [](P p) { return p.printprecond; }},
    {"!priormean prior.dat",
     {"Provided prior mean (if applicable): prior.dat"},
     "!priormean prior.dat",
     [](P p) { return p.priormean == "prior.dat"; }},
    {"!providedrhs rhs.dat",
     {"Provided RHS (if applicable): rhs.dat"},
     "!providedrhs rhs.dat",
     [](P p) { return p.providedrhs == "rhs.dat"; }},
    {"!pvalue 3 gi geno freq",
     {"Computation of P-values for the effect 3:", "Gi file         : gi", "Genotype file   : geno",
      "Allele freq file: freq"},
     "!pvalue 3 gi geno freq",
     [](P p) {
         return p.pvalue == std::vector<pvalue_option>{{3, "gi", "geno", "freq"}};
     }},
    {"!qptransfo q 1 2",
     {"A matrix QPTRANSFO is present for the effect 2"},
     "!qptransfo q 1 2",
     [](P p) {
         return p.qptransfo == names{"none", "q", "none", "none"};
     }},
    {"!structprecond b 2 3 1",
     {"The structure of the preconditioner for the effect 3 will be (if allowed): b",
      "The structure of the preconditioner for the effect 1 will be (if allowed): b"},
     "!structprecond b 1 1\n!structprecond b 1 3",
     [](P p) { return p.lstructprecond && p.structprecond == "bNbN"; }},
    {"!structprecond s 2 4",
     {"The structure of the preconditioner for the effect 2 to 4 will be (if allowed): s"},
     "!structprecond s 2 4",
     [](P p) { return p.lstructprecond && p.structprecond == "Nsuu"; }},
    {"!structprecond a",
     {"The structure of the preconditioner for the effect 1 to 4 will be (if allowed): a"},
     "!structprecond a",
     [](P p) { return p.lstructprecond && p.autoprecond && p.structprecond == "NNNN"; }},
    {"!sum2pq 1234.5",
     {"Sum of 2pq (default: 0.0): 0.12345000E+04"},
     "!sum2pq 1234.5000000000000",
     [](P p) { return p.sum2pq == 1234.5; }},
    {"!sumeffect 1 3",
     {"The effect 1 will be added to the effect 3."},
     "!sumeffect 1 3",
     [](P p) {
         return p.sumeffect == std::vector<effect_pair>{{1, 3}};
     }},
    {"!solstream",
     {"Will write solutions to stream files (solutions.stream), if applicable"},
     "!solstream",
     [](P p) { return p.solstream; }},
    {"!tamatrix t 1 2",
     {"A Ta matrix is present for the effect 2"},
     "!tamatrix t 1 2",
     [](P p) {
         return p.tamatrix == names{"none", "t", "none", "none"};
     }},
    {"!tamatrix_blocks 2 512",
     {},
     "!tamatrix_blocks 2 512",
     [](P p) {
         return p.tamatrix_blocks == std::vector<std::int32_t>{0, 512, 0, 0};
     }},
    {"!tageno t 1 2",
     {"A genotype matrix for computing the Ta matrix is present for the effect 2"},
     "!tageno t 1 2",
     [](P p) {
         return p.tageno == names{"none", "t", "none", "none"};
     }},
    {"!taplink t 1 2",
     {"A genotype matrix for computing the Ta matrix is present for the effect 2"},
     "!tageno t 1 2",
     [](P p) {
         return p.tageno == names{"none", "t", "none", "none"};
     }},
    {"!tau 1.25",
     {"The value for tau is set to (default=1.00): 1.25"},
     "!tau 1.2500000000000000",
     [](P p) { return p.tau == 1.25; }},
    {"!thread_effect",
     {"Will output information on the distribution of equations across threads, if applicable"},
     "!thread_effect",
     [](P p) { return p.thread_effect; }},
    {"!useasparse",
     {"PCG + IOD (if applicable) will use Ainv sparse instead of iterating on pedigree (DEPRECATED OPTION)"},
     "",
     [](P p) { return p.useasparse; }},
    {"!weightupg 2.5",
     {"Weight for random genetic groups (default: 1.0): 2.500"},
     "!weightupg 2.5000000000000000",
     [](P p) { return p.weightupg == 2.5; }},
    {"!yhat",
     {"All effects will be included in yhat!"},
     "!yhat",
     [](P p) {
         return p.yhat == flags{0, 0, 0, 0};
     }},
    {"!yhat 1 3",
     {"Effect not included in yhat: 3"},
     "!yhat 1 3",
     [](P p) {
         return p.yhat == flags{0, 0, 1, 0};
     }},
};

TEST(ModelOptions, AreTakenLoggedAndWrittenBack) {
    for (const taken_line& row : taken_lines) {
        SCOPED_TRACE(row.line);
        option_reader reader;
        reader.param.file[0][0] = "phen.dat";

        reader.model(row.line + "\n");

        EXPECT_TRUE(row.stored(reader.param));
        for (const std::string& line : row.logged) EXPECT_TRUE(reader.has_line(line)) << reader.logged();
        EXPECT_EQ(reader.count("WARN"), 0);
        EXPECT_EQ(reader.written(), row.written.empty() ? "" : row.written + "\n");

        option_reader again;
        again.param.file[0][0] = "phen.dat";
        again.model(reader.written());
        EXPECT_TRUE(again.param == reader.param);
        EXPECT_EQ(again.count("WARN"), 0);
    }
}

TEST(ModelOptions, HaveEachATestedLine) {
    for (const auto& entry : detail::model_options())
        for (const auto keyword : entry.keywords)
            EXPECT_TRUE(std::ranges::any_of(taken_lines, [&](const taken_line& row) {
                return (row.line + " ").starts_with("!" + std::string(keyword) + " ");
            })) << keyword;
}

TEST(ModelOptions, WithAWrongNumberOfWordsAreDropped) {
    const std::string too_few_or_many[] = {"acrosseff f 2 1",
                                           "acrosseff f 2 1 2 3",
                                           "acrosseff f 3 1 2",
                                           "allelefreq f 1",
                                           "allelefreq f 2 1",
                                           "andeffect 1 1",
                                           "andeffect 2 1 3",
                                           "andeffect 0 1 3",
                                           "alpha",
                                           "alpha 1 2",
                                           "beta",
                                           "beta 1 2",
                                           "checkpd 1",
                                           "combieff",
                                           "combieff 1",
                                           "combieff 1 1",
                                           "combieff 1 1 2 3",
                                           "computeeigen",
                                           "computeeigen 1 2",
                                           "gapy f 1",
                                           "gapy f 1 1 2",
                                           "gima22i f 1",
                                           "gima22i f 3 1",
                                           "ktamatrix",
                                           "ktamatrix f 0",
                                           "miraculix",
                                           "miraculix 1 2",
                                           "miraculix_gpu",
                                           "miraculix_gpu 1 2",
                                           "quorlen 1",
                                           "solquorlen 1",
                                           "nphen",
                                           "nphen 1 2",
                                           "no_beta_snp 1",
                                           "notuseasparse 1",
                                           "omega",
                                           "omega 1 2",
                                           "outputdir",
                                           "outputdir a b",
                                           "phendev 1 2 3",
                                           "phendev 0 1",
                                           "plotsolutions 1",
                                           "precondzaaaz 1",
                                           "printprecond 1",
                                           "priormean",
                                           "priormean a b",
                                           "providedrhs",
                                           "providedrhs a b",
                                           "pvalue 1 a b",
                                           "pvalue 1 a b c d",
                                           "qptransfo f 1",
                                           "qptransfo f 2 1",
                                           "structprecond",
                                           "structprecond b",
                                           "structprecond b 1",
                                           "structprecond b 2 1",
                                           "structprecond f 1",
                                           "structprecond f 1 2 3",
                                           "structprecond a 1",
                                           "structprecond a 2 1",
                                           "sumeffect 1",
                                           "sumeffect 1 2 3",
                                           "solstream 1",
                                           "tamatrix f 1",
                                           "tamatrix f 2 1",
                                           "tamatrix_blocks 1",
                                           "tamatrix_blocks 1 2 3",
                                           "tau",
                                           "tau 1 2",
                                           "thread_effect 1",
                                           "useasparse 1",
                                           "yhat 2 1",
                                           "yhat 0 1"};
    for (const std::string& line : too_few_or_many) {
        SCOPED_TRACE(line);
        option_reader reader;
        const param_type before = reader.param;

        reader.model("!" + line + "\n");

        const std::string keyword = line.substr(0, line.find(' '));
        EXPECT_TRUE(reader.has_line("WARN: The option !" + keyword + " was found and will be ignored!"))
            << reader.logged();
        EXPECT_TRUE(reader.param == before);
    }
}

TEST(ModelOptions, WithAWrongNumberOfWordsMayTellTheirDefault) {
    for (const std::string arguments : {"", " 1 2"}) {
        option_reader reader;
        reader.model("!sum2pq" + arguments + "\n!weightupg" + arguments + "\n");

        EXPECT_TRUE(reader.has_line("WARN: The option !sum2pq was found and will be ignored (default: 0.0)"))
            << reader.logged();
        EXPECT_TRUE(
            reader.has_line("WARN: The option !weightupg was found and will be ignored (default: 1.0)"))
            << reader.logged();
    }
}

TEST(ModelOptions, NameBothKeywordsOfTheGenotypeMatrixWhenTheyAreDropped) {
    for (const std::string line : {"!tageno f 1", "!taplink", "!taplink f 2 1"}) {
        option_reader reader;
        reader.model(line + "\n");

        EXPECT_TRUE(reader.has_line("WARN: The option !!tageno or !taplink was found and will be ignored!"));
        EXPECT_THAT(reader.param.tageno, IsEmpty());
    }
}

TEST(ModelOptions, HaveTheDefaultsThatTheirHelpNames) {
    int found = 0;
    for (const auto& entry : detail::model_options()) {
        const std::string value = test::named_default(entry.help);
        // The help of alpha names 1 - beta, which is no number.
        if (value.empty() || entry.keywords.front() == "alpha") continue;
        ++found;
        option_reader reader;
        const param_type before = reader.param;

        reader.model("!" + std::string(entry.keywords.front()) + " " + value + "\n");

        EXPECT_TRUE(reader.param == before) << entry.keywords.front() << " " << value;
        EXPECT_EQ(reader.count("WARN"), 0);
    }
    EXPECT_EQ(found, 4);  // beta, omega, sum2pq, weightupg
    EXPECT_EQ(param_type{}.alpha, 1.0 - param_type{}.beta);
}

TEST(ModelOptions, StandInTheOrderOfTheManual) {
    std::vector<std::string> keywords;
    for (const auto& entry : detail::model_options()) keywords.emplace_back(entry.keywords.front());

    EXPECT_THAT(
        keywords,
        ElementsAre("acrosseff", "allelefreq", "andeffect", "alpha", "beta", "checkpd", "combieff",
                    "computeeigen", "gapy", "gima22i", "ktamatrix", "miraculix", "miraculix_gpu", "quorlen",
                    "nphen", "no_beta_snp", "notuseasparse", "omega", "outputdir", "phendev", "plotsolutions",
                    "precondzaaaz", "printprecond", "priormean", "providedrhs", "pvalue", "qptransfo",
                    "structprecond", "sum2pq", "sumeffect", "solstream", "tamatrix", "tamatrix_blocks",
                    "tageno", "tau", "thread_effect", "useasparse", "weightupg", "yhat"));
}

TEST(ReadModelOptions, LogsAFrameAroundTheOptions) {
    option_reader reader;
    reader.model("N_TRAITS\n 2\n");

    EXPECT_EQ(reader.logged(),
              "\n"
              "+++++++++++ Additional options ++++++++++\n"
              "The value for alpha is set to 1 - beta: 0.9500\n"
              "Output directory: .\n"
              "+++++++ End of additional options +++++++\n"
              "\n");
    EXPECT_EQ(reader.written(), "");
}

TEST(ReadModelOptions, MovesAlphaAlongWithBeta) {
    option_reader reader;
    reader.model("!beta 0.1\n");

    EXPECT_EQ(reader.param.alpha, 1.0 - 0.1);
    EXPECT_TRUE(reader.has_line("The value for alpha is set to 1 - beta: 0.9000"));
}

TEST(ReadModelOptions, KeepsAlphaAndBetaWhenBothAreGiven) {
    option_reader reader;
    reader.model("!alpha 0.8\n!beta 0.1\n");

    EXPECT_EQ(reader.param.alpha, 0.8);
    EXPECT_EQ(reader.param.beta, 0.1);
    EXPECT_EQ(reader.count("1 - beta"), 0);
}

TEST(ReadModelOptions, RecomputesAlphaInASecondFileUnlessEitherGaveIt) {
    option_reader plain, given;
    plain.model("!beta 0.1\n");
    plain.model("!beta 0.2\n");
    given.model("!alpha 0.8\n");
    given.model("!beta 0.2\n");

    EXPECT_EQ(plain.param.alpha, 1.0 - 0.2);
    EXPECT_EQ(given.param.alpha, 0.8);
}

TEST(ReadModelOptions, IsCaseSensitive) {
    option_reader reader;
    reader.model("!Beta 0.1\n");

    EXPECT_EQ(reader.param.beta, 0.05);
    EXPECT_EQ(reader.count("WARN"), 0);
}

TEST(ReadModelOptions, SetsOmegaToOneForRandomType22) {
    for (const std::string line : {"", "!omega 0.5\n"}) {
        option_reader reader;
        reader.param.type_random[3] = 22;
        reader.model(line);

        EXPECT_EQ(reader.param.omega, 1.0);
        EXPECT_TRUE(
            reader.has_line("WARN: Omega different than 1 is not supported with the requested options! "
                            "Omega will be set to 1."));
    }
}

TEST(ReadModelOptions, MakesTheOutputDirectory) {
    option_reader reader;
    const std::string directory = (reader.directory / "a/b'; c").string();
    // A name ends at a blank.
    const std::string named = directory.substr(0, directory.find(' '));

    reader.model("!outputdir " + named + "\n");

    EXPECT_TRUE(std::filesystem::is_directory(named));
    EXPECT_TRUE(reader.has_line("Output directory: " + named));
    EXPECT_EQ(reader.written(), "!outputdir " + named + "\n");
}

TEST(ReadModelOptions, GoesOnWhenTheOutputDirectoryCannotBeMade) {
    option_reader reader;
    reader.directory.write("file", "");
    const std::string name = (reader.directory / "file/below").string();

    reader.model("!outputdir " + name + "\n");

    EXPECT_EQ(reader.param.outputdir, name);
    EXPECT_TRUE(reader.has_line("+++++++ End of additional options +++++++"));
}

TEST(ReadModelOptions, TakesAnEmptyOutputDirectoryForTheWorkingDirectory) {
    option_reader reader;
    reader.param.outputdir.clear();
    reader.model("");

    EXPECT_EQ(reader.param.outputdir, ".");
}

TEST(ReadModelOptions, AddsTheListsOfASecondFileAndTakesItsValues) {
    option_reader reader;
    reader.model("!gapy g1 2 1 2\n!tau 2\n!phendev 1 1\n!sumeffect 1 2\n!outputdir ./\n");
    reader.model("!gapy g2 2 2 3\n!tau 3\n!phendev 1 4\n!sumeffect 1 2\n!sumeffect 3 2\n");

    EXPECT_THAT(reader.param.gapy, ElementsAre("g1", "g2", "g2", "none"));
    EXPECT_EQ(reader.param.tau, 3.0);
    EXPECT_THAT(reader.param.phendev, ElementsAre(1, 0, 0, 1));
    EXPECT_EQ(reader.param.sumeffect.size(), 2U);
    EXPECT_EQ(reader.param.outputdir, "./");
    EXPECT_EQ(reader.written(),
              "!gapy g1 1 1\n!gapy g2 2 2 3\n!outputdir ./\n!phendev 2 1 4\n!sumeffect 1 2\n!sumeffect 3 2\n"
              "!tau 3.0000000000000000\n");
}

TEST(ReadModelOptions, ReplacesWhatIsGivenAgainForTheSameEffects) {
    option_reader reader;
    reader.model(
        "!pvalue 3 a b c\n!pvalue 3 d e f\n!acrosseff x 2 1 2\n!acrosseff y 2 1 2\n"
        "!acrosseff z 2 2 1\n!phendev 1 1\n!phendev\n!notuseasparse\n!useasparse\n");

    EXPECT_EQ(reader.written(), "!acrosseff y 2 1 2\n!acrosseff z 2 2 1\n!phendev\n!pvalue 3 d e f\n");
}

TEST(ReadModelOptions, ListsNoEffectWithFewerThanThreeWords) {
    option_reader reader;
    reader.model("!phendev 3\n!yhat 3\n");

    EXPECT_TRUE(reader.has_line("Only the residual will be included in the phenotype deviations!"));
    EXPECT_TRUE(reader.has_line("All effects will be included in yhat!"));
    EXPECT_THAT(reader.param.phendev, ElementsAre(0, 0, 0, 0));
    EXPECT_THAT(reader.param.yhat, ElementsAre(0, 0, 0, 0));
}

TEST(ReadModelOptions, TakesAllLinesForNoPhenotypes) {
    option_reader reader;
    reader.model("!nphen 10\n!nphen 0\n");

    EXPECT_EQ(reader.param.nphen, 0);
    EXPECT_EQ(reader.written(), "");
}

TEST(ReadModelOptions, StoresOnePreconditionerLetterPerEffect) {
    const auto letters = [](const std::string& lines) {
        option_reader reader;
        reader.model(lines);
        option_reader again;
        again.model(reader.written());
        EXPECT_TRUE(reader.param == again.param) << reader.written();
        return reader.param.structprecond;
    };

    EXPECT_EQ(letters("!structprecond f 1 2\n!structprecond r 3 4\n"), "furu");
    EXPECT_EQ(letters("!structprecond S 2 2\n"), "NSNN");
    EXPECT_EQ(letters("!structprecond F 1 4\n!structprecond d 1 2\n"), "Fduu");
    EXPECT_EQ(letters("!structprecond R 1 3\n!structprecond u 1 4\n"), "Ruuu");
    EXPECT_EQ(letters("!structprecond W 1 2\n!structprecond U 2 3 4\n!structprecond C 1 1\n"), "CWUU");
    EXPECT_EQ(letters("!structprecond d 4 1 2 3 4\n!structprecond c 1 4\n"), "dddc");
    EXPECT_EQ(letters("!structprecond x 1 4\n"), "NNNx");  // refused by the preconditioner
    EXPECT_EQ(letters("!structprecond b 1 4\n!structprecond N 1 4\n"), "NNNN");
    EXPECT_EQ(letters("!structprecond b 1 4\n!structprecond A\n"), "NNNb");
    EXPECT_EQ(letters("!structprecond a 2 1 2\n"), "NNNN");
}

/// The message that ends the reading of a line.
std::string fatal_message(const std::string& line) {
    option_reader reader;
    try {
        reader.model("\n" + line + "\n");
    } catch (const fatal_error& error) {
        EXPECT_THAT(reader.logged(), HasSubstr("ERROR: " + std::string(error.what())));
        const std::string place = "\nFile " + (reader.directory / "model.par").string() + ", line 2: " + line;
        const std::string message = error.what();
        EXPECT_TRUE(message.ends_with(place)) << message;
        return message.substr(0, message.size() - std::min(message.size(), place.size()));
    }
    return {};
}

TEST(ReadModelOptions, RefusesEffectsThatTheModelDoesNotHave) {
    for (const std::string option : {"acrosseff f 2 1 #",
                                     "acrosseff f 2 # 1",
                                     "allelefreq f 1 #",
                                     "andeffect 1 # 2",
                                     "andeffect 1 2 #",
                                     "combieff # 1 2",
                                     "gapy f 2 1 #",
                                     "gima22i f 1 #",
                                     "ktamatrix f 1 #",
                                     "miraculix #",
                                     "miraculix_gpu #",
                                     "phendev 1 #",
                                     "pvalue # a b c",
                                     "qptransfo f 1 #",
                                     "structprecond d 1 #",
                                     "structprecond f # 4",
                                     "structprecond f 1 #",
                                     "sumeffect # 1",
                                     "sumeffect 1 #",
                                     "tamatrix f 1 #",
                                     "tamatrix_blocks # 8",
                                     "tageno f 1 #",
                                     "yhat 1 #"})
        for (const std::string effect : {"0", "5", "-1"}) {
            std::string line = option;
            line.replace(line.find('#'), 1, effect);
            EXPECT_EQ(fatal_message("!" + line), "The option !" + line.substr(0, line.find(' ')) + ": \"" +
                                                     effect + "\" is not the number of an effect (1 to 4)!");
        }
}

TEST(ReadModelOptions, RefusesWordsThatAreNoNumbers) {
    for (const std::string option : {"alpha", "beta", "omega", "sum2pq", "tau", "weightupg"})
        EXPECT_EQ(fatal_message("!" + option + " x"), "The option !" + option + ": \"x\" is not a number!");
    for (const std::string option :
         {"acrosseff f y 1 2", "allelefreq f y 1", "andeffect y 1 2", "combieff 1 2 y", "computeeigen y",
          "gapy f 1 y", "nphen y", "structprecond f 1 y", "tamatrix_blocks 1 y", "miraculix y",
          "phendev y 1"})
        EXPECT_EQ(fatal_message("!" + option),
                  "The option !" + option.substr(0, option.find(' ')) + ": \"y\" is not an integer!");
}

TEST(ReadModelOptions, RefusesValuesOutsideTheirRange) {
    EXPECT_EQ(fatal_message("!combieff 1 1 3"),
              "The option !combieff: \"3\" is not the number of a trait (1 to 2)!");
    EXPECT_EQ(fatal_message("!combieff 1 0 1"),
              "The option !combieff: \"0\" is not the number of a trait (1 to 2)!");
    EXPECT_EQ(fatal_message("!tamatrix_blocks 1 0"), "The option !tamatrix_blocks: \"0\" is less than 1!");
    EXPECT_EQ(fatal_message("!structprecond diag 1 1"),
              "The option !structprecond: the type \"diag\" is not a single letter!");
    EXPECT_EQ(fatal_message("!structprecond f 3 2"),
              "The option !structprecond: the first effect (3) is greater than the last effect (2)!");
}

TEST(ReadModelOptions, LeavesTheRecordWhenALineIsRefused) {
    for (const std::string line : {"!gapy f 2 1 9", "!andeffect 2 1 2 9", "!combieff 1 1 9", "!yhat 2 1 9",
                                   "!tamatrix_blocks 1 x", "!structprecond d 2 1 9"}) {
        option_reader reader;
        const param_type before = reader.param;
        EXPECT_THROW(reader.model(line), fatal_error);
        EXPECT_TRUE(reader.param == before) << line;
    }
}

TEST(ReadModelOptions, OfAMissingFileIsFatal) {
    option_reader reader;
    EXPECT_THROW(modparameters::read_parameter_file_options(reader.param, "missing.par", reader.log),
                 fatal_error);
    EXPECT_THAT(reader.logged(), HasSubstr("I/O ERROR: Cannot open the file missing.par"));
}

}  // namespace
}  // namespace zendar
