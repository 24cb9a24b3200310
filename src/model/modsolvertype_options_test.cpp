#include <gmock/gmock.h>

#include <algorithm>

#include "modsolvertype_options_detail.hpp"
#include "option_reader.hpp"

namespace zendar {
namespace {

using test::option_reader;
using testing::ElementsAre;
using testing::HasSubstr;

/// One line of an option, what is logged when it is taken, and how it is written back.
struct taken_line {
    std::string line;
    std::string logged;
    std::string written;
    bool (*stored)(const solver_type&);
};

using S = const solver_type&;

const taken_line taken_lines[] = {
    {"!altconv", "", "!altconv", [](S s) { return s.altconv; }},
    {"!convcrit 0.125", "Convergence threshold for PCG: 0.12500000E+00", "!convcrit 0.12500000000000000",
     [](S s) { return s.convcrit == 0.125; }},
    {"!convtol 0.25", "Convergence threshold for PCG: 0.25000000E+00", "!convcrit 0.25000000000000000",
     [](S s) { return s.convcrit == 0.25; }},
    {"!computegalerkin", "Only the Galerkin matrix will be computed (if IOD+DPCG is called)!",
     "!computegalerkin", [](S s) { return s.computegalerkin; }},
    {"!computefinalrhs", "Final RHS will be computed as C*hat_x!", "!computefinalrhs",
     [](S s) { return s.computefinalrhs; }},
    {"!conveff 2", "Convergence criteria will be computed for the effect 2", "!conveff 2",
     [](S s) { return s.conveff == 2; }},
    {"!conveffs 2 4 1", "The convergence criteria will be computed for the following effects: 4 1",
     "!conveffs 2 4 1",
     [](S s) {
         return s.conveffs == std::vector<std::int32_t>{4, 1};
     }},
    {"!convpart 3", "Convergence criteria will be computed for the effects until 3", "!convpart 3",
     [](S s) { return s.convpart == 3; }},
    {"!convtype cd", "Convergence criteria for PCG: cd", "!convtype cd",
     [](S s) { return s.convtype == "cd"; }},
    {"!deflationmat def.dat", "", "!deflationmat def.dat", [](S s) { return s.deflationmat == "def.dat"; }},
    {"!galerkin gal.dat", "", "!galerkin gal.dat", [](S s) { return s.galerkin == "gal.dat"; }},
    {"!harville", "", "!harville", [](S s) { return s.harville; }},
    {"!iterfile iter.dat", "Maximum number of iterations for PCG read from: iter.dat", "!iterfile iter.dat",
     [](S s) { return s.iterfile == "iter.dat"; }},
    {"!maxiter 30000", "Absolute maximum number of iterations for PCG: 30000", "!maxiter 30000",
     [](S s) { return s.maxiter == 30000; }},
    {"!miniter 10", "Absolute minimum number of iterations for PCG: 10", "!miniter 10",
     [](S s) { return s.miniter == 10; }},
    {"!noesteigen", "No estimation of eigenvalues and condition number!", "!noesteigen",
     [](S s) { return !s.esteigen; }},
    {"!noesteig", "No estimation of eigenvalues and condition number!", "!noesteigen",
     [](S s) { return !s.esteigen; }},
    {"!peek 20 5", "Write the solutions each 5 iteration starting from the 20 iteration (only for IOD).",
     "!peek 20 5", [](S s) { return s.peek && s.peek_first == 20 && s.peek_step == 5; }},
    {"!printlhs", "Will print the LHS if an option \"inmem\" is used", "!printlhs",
     [](S s) { return s.printlhs; }},
    {"!eigenlhs", "Will compute eigenvalues of the LHS if an option \"inmem\" is used", "!eigenlhs",
     [](S s) { return s.eigenlhs; }},
    {"!restart", " Starting values for solutions will be read from the file ca491pcn.bin", "!restart",
     [](S s) { return s.startsol == "ca491pcn.bin"; }},
    {"!scaleinvprec 2.5 2 1 3", "The inverse of the preconditioner for the effect 3 will be scaled by 2.500",
     "!scaleinvprec 2.5000000000000000 1 1\n!scaleinvprec 2.5000000000000000 1 3",
     [](S s) {
         return s.scaleinvprec == std::vector<double>{2.5, 1.0, 2.5, 1.0};
     }},
    {"!solver pardiso", "", "!solver pardiso", [](S s) { return s.solver == 0; }},
    {"!solver dpcg_inmem 50", "The number of equations per block for DPCG is: 50", "!solver dpcg_inmem 50",
     [](S s) {
         return s.solver == 25 && s.neqblock == std::array<std::int32_t, 2>{50, 0};
     }},
    {"!solver dpcg_iod 50", "The number of equations per block for DPCG is: 50", "!solver dpcg_iod 50",
     [](S s) {
         return s.solver == 125 && s.neqblock == std::array<std::int32_t, 2>{50, 0};
     }},
    {"!solver dpcg_iod_real v.dat", "", "!deflationmat v.dat\n!solver dpcg_iod_real v.dat",
     [](S s) { return s.solver == 126 && s.deflationmat == "v.dat"; }},
    {"!solver cheb_iod 2.5 0.5", " Large | Small eigenvalues: 0.25000000E+01 0.50000000E+00",
     "!solver cheb_iod 2.5000000000000000 0.50000000000000000",
     [](S s) { return s.solver == 150 && s.eigmax == 2.5 && s.eigmin == 0.5; }},
    {"!startsol old.bin", "Starting values for solutions will be read from the file old.bin",
     "!startsol old.bin", [](S s) { return s.startsol == "old.bin"; }},
    {"!statprevioussol",
     "Computation of some statistics (correlation, regression, MSE,...) between previous (saved to file) and "
     "current \nsolutions (if applicable).",
     "!statprevioussol", [](S s) { return s.statprevioussol; }},
    {"!nwritetmpsol 5", "Solutions will be saved to binary file each 5 iteration.", "!nwritetmpsol 5",
     [](S s) { return s.nwritetmpsol == 5; }},
};

TEST(SolverOptions, AreTakenLoggedAndWrittenBack) {
    for (const taken_line& row : taken_lines) {
        SCOPED_TRACE(row.line);
        option_reader reader;

        reader.solver(row.line + "\n");

        EXPECT_TRUE(row.stored(reader.param.solver));
        EXPECT_TRUE(row.logged.empty() || reader.has_line(row.logged)) << reader.logged();
        EXPECT_EQ(reader.count("WARN"), 0) << reader.logged();
        EXPECT_EQ(reader.written(), row.written + "\n");

        option_reader again;
        again.solver(reader.written());
        EXPECT_TRUE(again.param.solver == reader.param.solver);
        EXPECT_EQ(again.count("WARN"), 0);
    }
}

TEST(SolverOptions, HaveEachATestedLine) {
    for (const auto& entry : detail::solver_options())
        for (const auto keyword : entry.keywords)
            EXPECT_TRUE(!entry.read || std::ranges::any_of(taken_lines, [&](const taken_line& row) {
                return (row.line + " ").starts_with("!" + std::string(keyword) + " ");
            })) << keyword;
}

TEST(SolverOptions, WithoutLogLineSayNothing) {
    for (const std::string line : {"!altconv", "!deflationmat f", "!galerkin f", "!harville"}) {
        option_reader with, without;
        with.solver(line);
        without.solver("");
        EXPECT_EQ(with.logged(), without.logged()) << line;
    }
}

TEST(SolverOptions, WithAWrongNumberOfWordsAreDropped) {
    const std::pair<std::string, std::string> defaults[] = {
        {"convcrit", "convcrit was found and will be ignored (default: 0.10000000E-11)"},
        {"convcrit 1 2", "convcrit was found and will be ignored (default: 0.10000000E-11)"},
        {"convtol", "convcrit was found and will be ignored (default: 0.10000000E-11)"},
        {"iterfile", "iterfile was found and will be ignored (default: ca452cnv.dat)"},
        {"iterfile a b", "iterfile was found and will be ignored (default: ca452cnv.dat)"},
        {"maxiter", "maxiter was found and will be ignored (default: 5000)"},
        {"maxiter 1 2", "maxiter was found and will be ignored (default: 5000)"},
        {"miniter", "miniter was found and will be ignored (default: 4)"},
        {"miniter 1 2", "miniter was found and will be ignored (default: 4)"}};
    std::vector<std::pair<std::string, std::string>> lines(std::begin(defaults), std::end(defaults));
    for (const std::string line : {"altconv 1",
                                   "computegalerkin 1",
                                   "computefinalrhs 1",
                                   "conveff",
                                   "conveff 1 2",
                                   "conveffs",
                                   "conveffs 1",
                                   "conveffs 2 1",
                                   "conveffs 1 1 2",
                                   "convpart",
                                   "convpart 1 2",
                                   "convtype",
                                   "convtype cc 1 2 3",
                                   "deflationmat",
                                   "deflationmat a b",
                                   "galerkin",
                                   "galerkin a b",
                                   "harville 1",
                                   "noesteigen 1",
                                   "noesteig 1",
                                   "peek 1",
                                   "peek 1 2 3",
                                   "printlhs 1",
                                   "eigenlhs 1",
                                   "restart 1",
                                   "scaleinvprec 2 1",
                                   "scaleinvprec",
                                   "scaleinvprec 2 2 1",
                                   "solver",
                                   "solver a b c d",
                                   "startsol",
                                   "startsol a b",
                                   "statprevioussol 1",
                                   "nwritetmpsol",
                                   "nwritetmpsol 1 2"})
        lines.emplace_back(line, line.substr(0, line.find(' ')) + " was found and will be ignored!");

    for (const auto& [line, message] : lines) {
        option_reader reader;
        reader.solver("!" + line + "\n");

        EXPECT_TRUE(reader.has_line("WARN: The option !" + message)) << line << "\n" << reader.logged();
        EXPECT_TRUE(reader.param.solver == solver_type{}) << line;
    }
}

TEST(SolverOptions, HaveTheDefaultsThatTheirHelpNames) {
    int found = 0;
    for (const auto& entry : detail::solver_options()) {
        const std::string value = test::named_default(entry.help);
        if (!entry.read || value.empty()) continue;
        ++found;
        option_reader reader;
        reader.solver("!" + std::string(entry.keywords.front()) + " " + value + "\n");

        // The default of the threshold is a single-precision number.
        if (entry.keywords.front() == "convcrit")
            reader.param.solver.convcrit =
                static_cast<double>(static_cast<float>(reader.param.solver.convcrit));
        EXPECT_TRUE(reader.param.solver == solver_type{}) << entry.keywords.front() << " " << value;
        EXPECT_EQ(reader.count("WARN"), 0);
    }
    EXPECT_EQ(found, 3);  // convcrit, maxiter, miniter
}

TEST(ReadSolverOptions, LogsTheCriterionAndTheEnd) {
    option_reader reader;
    reader.solver("");

    EXPECT_EQ(reader.logged(),
              "Convergence criteria for PCG: cr\n"
              "+++++++ End of options for the solver +++++++\n"
              "\n");
    EXPECT_EQ(reader.written(), "");
}

TEST(ReadSolverOptions, LimitsTheIterations) {
    option_reader reader;
    reader.solver("!maxiter 40000\n!miniter 30001\n");

    EXPECT_EQ(reader.param.solver.maxiter, 30000);
    EXPECT_EQ(reader.param.solver.miniter, 30000);
    EXPECT_TRUE(reader.has_line("WARN: Absolute maximum number of iterations for PCG is limited to 30000"));
    EXPECT_TRUE(reader.has_line("WARN: Absolute minimum number of iterations for PCG is limited to 30000"));
    EXPECT_TRUE(reader.has_line("Absolute maximum number of iterations for PCG: 30000"));
}

TEST(ReadSolverOptions, LetsTheLaterOfRestartAndStartsolWin) {
    option_reader first, second;
    first.solver("!restart\n!startsol x\n");
    second.solver("!startsol x\n!restart\n");

    EXPECT_EQ(first.param.solver.startsol, "x");
    EXPECT_EQ(second.param.solver.startsol, "ca491pcn.bin");
}

TEST(ReadSolverOptions, TakesTheLastListOfEffects) {
    option_reader reader;
    reader.solver("!conveffs 2 1 2\n!conveffs 1 3\n");

    EXPECT_THAT(reader.param.solver.conveffs, ElementsAre(3));
}

TEST(ReadSolverOptions, MultipliesTheScalesOfAnEffect) {
    option_reader reader;
    reader.solver("!scaleinvprec 2 1 3\n!scaleinvprec 4 2 2 3\n");
    EXPECT_THAT(reader.param.solver.scaleinvprec, ElementsAre(1.0, 4.0, 8.0, 1.0));
    EXPECT_TRUE(
        reader.has_line("The inverse of the preconditioner for the effect 3 will be scaled by 8.000"));

    reader.solver("!scaleinvprec 0.5 2 2 3\n!scaleinvprec 0.25 1 3\n!scaleinvprec 0.5 1 2\n");
    EXPECT_EQ(reader.written(), "!scaleinvprec 1.0 1 1\n");
}

// !convtype

solver_type criterion(const std::string& lines, option_reader& reader) {
    reader.solver(lines);
    return reader.param.solver;
}

TEST(Convtype, TakesCrAndCdAlone) {
    for (const std::string type : {"cr", "cd"}) {
        option_reader reader;
        EXPECT_EQ(criterion("!convtype " + type, reader).convtype, type);
        EXPECT_EQ(reader.count("WARN"), 0);
        EXPECT_EQ(reader.count("Convergence criteria for PCG: " + type), 1);
        EXPECT_EQ(reader.count("Current approximated"), 0);
        EXPECT_EQ(reader.param.solver.convcrit, static_cast<double>(1e-12f));
    }
}

TEST(Convtype, FallsBackToCrForATypeThatDoesNotFit) {
    for (const std::string line : {"ck", "cm", "cc", "CR", "crx", "x", "cr 1", "cd 1", "cc 1", "x 1"}) {
        option_reader reader;
        EXPECT_EQ(criterion("!convtype cd\n!convtype " + line, reader).convtype, "cr") << line;
        EXPECT_TRUE(reader.has_line("WARN: Invalid value for the option !convtype (default: cr)"));
    }
}

TEST(Convtype, StaysForTwoValuesOfAnotherTypeThanCc) {
    for (const std::string line : {"cr 1 2", "ck 1 2", "x 1 2"}) {
        option_reader reader;
        EXPECT_EQ(criterion("!convtype cd\n!convtype " + line, reader).convtype, "cd") << line;
        EXPECT_TRUE(reader.has_line("WARN: Invalid value for the option !convtype (default: cr)"));
    }
}

TEST(Convtype, CkTakesTheSmallestEigenvalue) {
    option_reader reader;
    const solver_type solver = criterion("!convtype ck 1e-3\n!noesteigen\n", reader);

    EXPECT_EQ(solver.convtype, "ck");
    EXPECT_EQ(solver.eigmin, 1e-3);
    EXPECT_FALSE(solver.esteigen);
    EXPECT_TRUE(reader.has_line("Convergence criteria for PCG: ck"));
    EXPECT_TRUE(reader.has_line("Current approximated smallest eigenvalue : 0.10000000E-02"));
    EXPECT_EQ(reader.count("condition number    : "), 0);
}

TEST(Convtype, CmTakesTheConditionNumber) {
    option_reader reader;
    const solver_type solver = criterion("!noesteigen\n!convtype cm 500\n", reader);

    EXPECT_EQ(solver.convtype, "cm");
    EXPECT_EQ(solver.condnumber, 500.0);
    EXPECT_EQ(solver.eigmin, 9.999999747378752e-05);
    EXPECT_TRUE(solver.esteigen);
    EXPECT_TRUE(reader.has_line("Current approximated condition number    : 0.50000000E+03"));
    EXPECT_EQ(reader.count("smallest eigenvalue : "), 0);
}

TEST(Convtype, CcTakesBothAndEstimatesInAnyCase) {
    option_reader reader;
    const solver_type solver = criterion("!noesteigen\n!convtype cc 1e-3 100\n", reader);

    EXPECT_EQ(solver.convtype, "cc");
    EXPECT_EQ(solver.eigmin, 1e-3);
    EXPECT_EQ(solver.condnumber, 100.0);
    EXPECT_TRUE(solver.esteigen);
    EXPECT_TRUE(reader.has_line("Current approximated smallest eigenvalue : 0.10000000E-02"));
    EXPECT_TRUE(reader.has_line("Current approximated condition number    : 0.10000000E+03"));
}

TEST(Convtype, RaisesAThresholdThatIsTooSmallForABound) {
    const std::string warning =
        "WARN: Due to the use of CK/CM/CC as convergence criterion, convergence threshold for PCG was set "
        "to: "
        "0.50000000E+00";
    for (const std::string type : {"ck 1e-3", "cm 100", "cc 1e-3 100"}) {
        option_reader small, large, limit;

        EXPECT_EQ(criterion("!convtype " + type, small).convcrit, 0.5);
        EXPECT_TRUE(small.has_line(warning));
        EXPECT_EQ(criterion("!convcrit 1e-4\n!convtype " + type, large).convcrit, 1e-4);
        EXPECT_FALSE(large.has_line(warning));
        // 1e-5 lies above the single-precision number that is the limit.
        EXPECT_EQ(criterion("!convcrit 1e-5\n!convtype " + type, limit).convcrit, 1e-5);
    }
    option_reader below;
    EXPECT_EQ(criterion("!convcrit 9.999999e-6\n!convtype ck 1", below).convcrit, 0.5);
}

TEST(Convtype, LeavesNothingOfTheChoicesThatItOverrides) {
    option_reader reader;
    reader.solver("!solver cheb_iod 10 0.1\n!convtype cc 1e-3 100\n!solver dpcg_iod 7\n");
    reader.solver("!convcrit 0.5\n!convtype cr\n!solver pcg_inmem\n");

    solver_type expected;
    expected.solver = 20;
    expected.convcrit = 0.5;
    EXPECT_TRUE(reader.param.solver == expected);
}

TEST(Convtype, LeavesTheEigenvaluesOfTheChebyshevIteration) {
    option_reader reader;
    reader.solver("!solver cheb_iod 10 0.1\n!convtype cr\n");

    EXPECT_EQ(reader.param.solver.eigmax, 10.0);
    EXPECT_EQ(reader.param.solver.eigmin, 0.1);
}

// failures

std::string fatal_message(const std::string& line) {
    option_reader reader;
    try {
        reader.solver("\n\n" + line + "\n");
    } catch (const fatal_error& error) {
        EXPECT_THAT(reader.logged(), HasSubstr("ERROR: " + std::string(error.what())));
        EXPECT_TRUE(reader.param.solver == solver_type{});
        const std::string place = "\nFile " + (reader.directory / "model.par").string() + ", line 3: " + line;
        const std::string message = error.what();
        EXPECT_TRUE(message.ends_with(place)) << message;
        return message.substr(0, message.size() - std::min(message.size(), place.size()));
    }
    return {};
}

TEST(ReadSolverOptions, RefusesEffectsThatTheModelDoesNotHave) {
    for (const std::string option :
         {"conveff #", "convpart #", "conveffs 1 #", "conveffs 2 1 #", "scaleinvprec 2 1 #"})
        for (const std::string effect : {"0", "5"}) {
            std::string line = option;
            line.replace(line.find('#'), 1, effect);
            EXPECT_EQ(fatal_message("!" + line), "The option !" + line.substr(0, line.find(' ')) + ": \"" +
                                                     effect + "\" is not the number of an effect (1 to 4)!");
        }
}

TEST(ReadSolverOptions, RefusesWordsThatAreNoNumbers) {
    EXPECT_EQ(fatal_message("!convcrit x"), "The option !convcrit: \"x\" is not a number!");
    EXPECT_EQ(fatal_message("!convtol x"), "The option !convtol: \"x\" is not a number!");
    EXPECT_EQ(fatal_message("!convtype ck x"), "The option !convtype: \"x\" is not a number!");
    EXPECT_EQ(fatal_message("!convtype cm x"), "The option !convtype: \"x\" is not a number!");
    EXPECT_EQ(fatal_message("!convtype cc 1 x"), "The option !convtype: \"x\" is not a number!");
    EXPECT_EQ(fatal_message("!scaleinvprec x 1 1"), "The option !scaleinvprec: \"x\" is not a number!");
    EXPECT_EQ(fatal_message("!solver cheb_iod 1 x"), "The option !solver cheb_iod: \"x\" is not a number!");
    for (const std::string option : {"maxiter", "miniter", "nwritetmpsol", "conveff", "convpart"})
        EXPECT_EQ(fatal_message("!" + option + " 1.5"),
                  "The option !" + option + ": \"1.5\" is not an integer!");
    EXPECT_EQ(fatal_message("!peek x 1"), "The option !peek: \"x\" is not an integer!");
    EXPECT_EQ(fatal_message("!solver dpcg_iod x"), "The option !solver dpcg_iod: \"x\" is not an integer!");
}

TEST(ReadSolverOptions, RefusesValuesOutsideTheirRange) {
    EXPECT_EQ(fatal_message("!peek 1 0"), "The option !peek: \"0\" is less than 1!");
    EXPECT_EQ(fatal_message("!nwritetmpsol 0"), "The option !nwritetmpsol: \"0\" is less than 1!");
    EXPECT_EQ(fatal_message("!scaleinvprec 0 1 1"), "The option !scaleinvprec: the value may not be 0!");
    EXPECT_EQ(fatal_message("!solver dpcg_inmem -3"),
              "The option !solver dpcg_inmem: \"-3\" is less than 1!");
    EXPECT_EQ(fatal_message("!solver dpcg_iod_real"),
              "A file for the deflation matrix must be provided with the option dpcg_iod_real.");
}

}  // namespace
}  // namespace zendar
