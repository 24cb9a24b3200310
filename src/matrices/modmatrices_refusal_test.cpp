#include <functional>
#include <map>

#include "modmatrices_test_support.hpp"
#include "program_run.hpp"

namespace zendar::test {
namespace {

using testing::HasSubstr;

/// Six animals, of which 3 to 6 have genotypes at two SNPs.
class RefusedMatrices : public PreparedMatrices {
  protected:
    RefusedMatrices() {
        directory_.write("ped.txt", "1 0 0\n2 0 0\n3 1 2\n4 1 2\n5 1 0\n6 3 4\n");
        directory_.write("geno.fam", "1 3 0 0 0 -9\n1 4 0 0 0 -9\n1 6 0 0 0 -9\n1 5 0 0 0 -9\n");
        directory_.write("geno.bim", "1 a 0 1 A B\n1 b 0 2 A B\n");
        directory_.write("geno.bed", std::string("\x6C\x1B\x01\xE8\x2C", 5));
    }
    /// The run ends with one error that has this text, and without a file of its own.
    void expect_refused(const std::vector<std::string>& arguments, const std::string& text) {
        const std::string told = run(arguments, 1);
        EXPECT_THAT(told, HasSubstr(text));
        std::size_t errors = 0;
        for (auto at = told.find("ERROR: "); at != std::string::npos; at = told.find("ERROR: ", at + 1))
            ++errors;
        EXPECT_EQ(errors, 1U) << told;
        for (const auto& entry : std::filesystem::directory_iterator(directory_.path()))
            EXPECT_FALSE(entry.path().filename().string().starts_with("out")) << entry.path();
    }
};

TEST_F(RefusedMatrices, AreSoundBeforeAnythingIsWrongWithThem) {
    run(words(3, {"--gima22i", "g.stream"}));
    EXPECT_TRUE(directory_.exists("g.stream"));
}

TEST_F(RefusedMatrices, ForFilesThatAreMissing) {
    const std::vector<std::string> arguments = words(3, {"--g", "out_tri"});
    for (const std::string file : {"geno.bed", "geno.bim", "geno.fam"}) {
        const std::string content = directory_.read(file);
        std::filesystem::remove(file);
        expect_refused(arguments, "The following file does not exist: " + file);
        directory_.write(file, content);
    }
    std::filesystem::remove("ped.txt");
    expect_refused(arguments, "ped.txt");
    expect_refused({"--bfile", "geno", "--allelefreq", "none.txt", "--freq", "out"},
                   "File with allele frequencies not found: none.txt");
}

TEST_F(RefusedMatrices, ForCoreListsThatDoNotFit) {
    const std::vector<std::string> arguments = words(3, {"--apy", "out_tri", "--core", "core.txt"});
    expect_refused(arguments, "The file core.txt with the core levels cannot be read");
    const std::map<std::string, std::string> faults{
        {"3\n\n2\n", " is not correct at line 3: the level 2 has no genotypes"},
        {"3\n7\n", " is not correct at line 2: the level 7 has no genotypes"},
        {"3\n4\n3\n", " is not correct at line 3: the level 3 stands at line 1 as well"},
        {"3\nx\n", " is not correct at line 2: it is not one integer: \"x\""},
        {"3 4\n", " is not correct at line 1: it is not one integer: \"3 4\""},
        {"", " is empty"},
        {" \n\n", " is empty"},
    };
    for (const auto& [text, reason] : faults) {
        directory_.write("core.txt", text);
        expect_refused(arguments, "The file core.txt with the core levels" + reason);
    }
}

TEST_F(RefusedMatrices, ForGenotypesThatDoNotFitThePedigree) {
    const std::vector<std::string> arguments = words(3, {"--g", "out_tri"});
    const std::string bed = directory_.read("geno.bed"), fam = directory_.read("geno.fam");
    directory_.write("geno.fam", "1 3 0 0 0 -9\n1 7 0 0 0 -9\n1 6 0 0 0 -9\n1 5 0 0 0 -9\n");
    expect_refused(arguments,
                   "The file geno.fam is not correct at line 2: the individual 7 must lie between 1 and 6");
    directory_.write("geno.fam", "1 3 0 0 0 -9\n1 4 0 0 0 -9\n1 3 0 0 0 -9\n1 5 0 0 0 -9\n");
    expect_refused(arguments,
                   "The file geno.fam is not correct at line 3: the individual 3 stands in line 1 as well");
    directory_.write("geno.fam", fam);
    directory_.write("geno.bim", "");
    expect_refused(arguments, "The file geno.bim is empty");
    directory_.write("geno.bim", "1 a 0 1 A B\n");
    expect_refused(arguments, "Unexpected error while reading geno.bed");
}

TEST_F(RefusedMatrices, ForSnpsThatDoNotSegregate) {
    directory_.write("geno.bed", std::string("\x6C\x1B\x01\xFF\x00", 5));
    for (const char* option : {"--g", "--gima22i", "--ta", "--k"})
        expect_refused(words(3, {option, "out_tri"}),
                       "The sum of 2pq of the genotypes geno is 0: no SNP segregates");
    run(words(3, {"--a22", "a22_tri", "--freq", "freq.txt"}));  // which need no scale
    EXPECT_EQ(directory_.read("freq.txt"), realtochar(1.0, "(g0)") + "\n" + realtochar(0.0, "(g0)") + "\n");
}

TEST_F(RefusedMatrices, ForAMatrixThatIsNotPositiveDefinite) {
    directory_.write("core.txt", "3\n4\n6\n");
    expect_refused(words(3, {"--gi", "out_tri", "--beta", "0"}),
                   "The matrix G is not positive definite (level ");
    expect_refused(words(3, {"--apy", "out_tri", "--core", "core.txt", "--beta", "0"}),
                   "The matrix G of the core animals is not positive definite (level ");
    directory_.write("core.txt", "3\n4\n");
    expect_refused(words(3, {"--apy", "out.stream", "--core", "core.txt", "--beta", "0"}),
                   "The matrix G is not positive definite: nothing is left of the level ");
}

TEST_F(RefusedMatrices, ForPedigreesThatDoNotFit) {
    expect_refused(words(5, {"--g", "out_tri"}),
                   "The pedigree file ped.txt has no groups, which a pedigree of type 5 needs");
    expect_refused(words(5, {"--g", "out_tri", "--nlevel", "6"}),
                   "a pedigree of type 5 needs: --nupg is missing");
    expect_refused(words(5, {"--g", "out_tri", "--nupg", "6"}),
                   "The pedigree file ped.txt has 6 levels: no animals are left beside 6 groups");
    expect_refused(words(3, {"--g", "out_tri", "--nlevel", "5"}), "ped.txt");
    directory_.write("gamma.txt", "1 1 0.5\n");
    expect_refused(words(7, {"--g", "out_tri", "--nupg", "1", "--nlevel", "7"}),
                   "Metafounder (=0) not defined.");
    directory_.write("ped.txt", "1 0 0\n2 0 0\n3 6 2\n4 1 2\n5 1 0\n6 3 4\n");
    expect_refused(words(3, {"--g", "out_tri"}), "ERROR: ");  // an animal among its own ancestors
    directory_.write("ped.txt", "1 0 0\n2 0\n");
    expect_refused(words(3, {"--g", "out_tri"}), "ped.txt");
}

TEST_F(RefusedMatrices, ForAFolderThatTakesNoFiles) {
    std::filesystem::create_directory("closed");
    // Root may write anywhere; a name that is too long is refused to everybody.
    const std::string name = "closed/" + std::string(300, 'x') + "_tri";
    expect_refused(words(3, {"--g", name}), "Cannot write the file " + name);
    EXPECT_TRUE(std::filesystem::is_empty("closed"));
}

// ---- the program itself
// --------------------------------------------------------------------------------------

using MatricesProgram = RefusedMatrices;

TEST_F(MatricesProgram, PrintsItsHelp) {
    const auto result = run_program(directory_.path(), {"--help"}, program_file("zendar-matrices"));

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, matrices::usage());
    EXPECT_EQ(result.error, "");
}

TEST_F(MatricesProgram, WritesWhatItIsAskedFor) {
    const auto result = run_program(
        directory_.path(), words(3, {"--gima22i", "gima_tri", "--freq", "freq.txt", "--threads", "1"}),
        program_file("zendar-matrices"));

    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_EQ(result.error, "");
    EXPECT_THAT(result.out, HasSubstr("Lines for the instruction file:\n!gima22i gima_tri 1 1\n"));
    const std::string written = directory_.read("gima_tri");
    run(words(3, {"--gima22i", "gima_tri", "--threads", "1"}));
    EXPECT_EQ(written, directory_.read("gima_tri"));
    EXPECT_EQ(directory_.read("freq.txt"),
              realtochar(4.0 / 8.0, "(g0)") + "\n" + realtochar(3.0 / 8.0, "(g0)") + "\n");
}

TEST_F(MatricesProgram, EndsWithStatus1AfterAnError) {
    const auto result =
        run_program(directory_.path(), {"--bfile", "none", "--freq", "out"}, program_file("zendar-matrices"));

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("ERROR: The following file does not exist: none.bed\n"));
    EXPECT_EQ(result.error, "");
    EXPECT_FALSE(directory_.exists("out"));
}

}  // namespace
}  // namespace zendar::test
