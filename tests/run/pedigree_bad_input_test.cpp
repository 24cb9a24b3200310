#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "animal_files.hpp"

/// Animal models with one fault each, by the program itself.
namespace zendar::test {
namespace {

using ::testing::HasSubstr;

struct bad_animals {
    const char* name;
    int type;
    std::function<void(animal_files&)> change;
    std::vector<const char*> messages;
};

void PrintTo(const bad_animals& input, std::ostream* os) {
    *os << input.name;
}

auto ped(const char* text) {
    return [=](animal_files& m) { m.ped = text; };
}
auto gamma(const char* text) {
    return [=](animal_files& m) { m.gamma = text; };
}
auto list(const char* text) {
    return [=](animal_files& m) { m.list = text; };
}
auto option(const char* lines) {
    return [=](animal_files& m) { m.options = lines; };
}
auto name(std::string animal_files::*which, const char* value) {
    return [=](animal_files& m) { m.*which = value; };
}
auto inbreeding(const char* text) {
    return [=](animal_files& m) { m.inb_name = "f.txt", m.more = {{"f.txt", text}}; };
}

/// Each animal is a parent of the one before it, the first one of the last one.
void loop_of_thousand(animal_files& m) {
    m.nlevel = 1000;
    m.ped.clear();
    for (int i = 1; i <= 1000; ++i) m.ped += std::to_string(i) + " " + std::to_string(i % 1000 + 1) + " 0\n";
}

const char* const bad_line = "Pedigree not correctly read at line ";
const char* const bad_relationship = "Relationships of metafounders not correctly read at line 2";
const char* const not_positive = "The matrix of relationships between metafounders is not positive definite";
const char* const bad_level = "Level not correctly read at line 2";

const bad_animals inputs[] = {
    // the pedigree file
    {"MissingPedigree",
     3,
     name(&animal_files::ped_name, "nowhere.txt"),
     {"The file nowhere.txt cannot be read", "No such file"}},
    {"PedigreeIsADirectory",
     3,
     name(&animal_files::ped_name, "."),
     {"The file . cannot be read", "Is a directory"}},
    {"WordInThePedigree",
     3,
     ped("1 0 0\n2 one 0\n"),
     {bad_line, "line 2", "ped.txt: value 2 is not an integer: \"one\""}},
    {"HeaderOfThePedigree",
     3,
     ped("id sire dam\n1 0 0\n"),
     {bad_line, "line 1", "ped.txt: value 1 is not an integer"}},
    {"RealInThePedigree", 3, ped("1 0 0\n2 0 0\n3 1.5 2\n"), {bad_line, "line 3", "ped.txt: value 2"}},
    {"TwoNumbersOnALine",
     3,
     ped("1 0 0\n2 0\n3 1 2\n"),
     {bad_line, "line 2", "ped.txt: the line has 2 values"}},
    {"BlankLineInThePedigree",
     3,
     ped("1 0 0\n\n3 1 2\n"),
     {bad_line, "line 2", "ped.txt: the line is blank"}},
    {"ParentAboveTheLevels",
     3,
     ped("1 0 0\n3 1 7\n"),
     {bad_line, "line 2", "ped.txt: value 3 must lie between 0 and 6: \"7\""}},
    {"NegativeParent",
     3,
     ped("1 0 0\n3 -1 2\n"),
     {bad_line, "line 2", "ped.txt: value 2 must lie between 0 and 6: \"-1\""}},
    {"ParentBeyondTheIntegers", 3, ped("3 99999999999 2\n"), {bad_line, "line 1", "ped.txt: value 2"}},
    {"IdOfZero", 3, ped("1 0 0\n0 1 2\n"), {bad_line, "line 2", "ped.txt: value 1 must lie between 1 and 6"}},
    {"IdAboveTheLevels",
     3,
     ped("1 0 0\n7 1 2\n"),
     {bad_line, "line 2", "ped.txt: value 1 must lie between 1 and 6"}},
    {"GroupAboveTheLevels",
     5,
     ped("1 7 9\n"),
     {bad_line, "line 1", "ped.txt: value 3 must lie between 0 and 8: \"9\""}},
    {"TheFirstOfTwoBadPedigreeLines", 3, ped("1 0 0\n2 x 0\n3 y 0\n"), {"line 2", "\"x\""}},
    {"BinaryPedigree",
     3,
     [](animal_files& m) { m.ped.assign("\x6c\x1b\x01 \0 \xff\0\n", 9); },
     {bad_line, "line 1"}},
    {"APedigreeLineOfAMillionCharacters",
     3,
     [](animal_files& m) { m.ped += std::string(1'000'000, '7') + "\n"; },
     {bad_line, "line 7", "ped.txt"}},
    {"AnimalOfItsOwn",
     3,
     ped("1 0 0\n3 3 1\n"),
     {"An animal of the pedigree is its own ancestor: 3", "File ped.txt"}},
    {"LoopOfTwo",
     3,
     ped("3 4 1\n4 2 3\n"),
     {"An animal of the pedigree is its own ancestor: 4, 3", "File ped.txt"}},
    {"LoopOfAThousand",
     3,
     loop_of_thousand,
     {"An animal of the pedigree is its own ancestor: 1000, 999,", "...", "File ped.txt"}},
    {"LoopWithGroups", 5, ped("1 7 8\n3 4 7\n4 3 8\n"), {"is its own ancestor: 4, 3", "File ped.txt"}},
    {"LoopWithMetafounders",
     7,
     ped("1 7 8\n2 7 7\n3 4 7\n4 3 8\n5 7 7\n6 7 7\n"),
     {"is its own ancestor: 4, 3"}},
    {"LoopAndTheOtherMethod",
     3,
     [](animal_files& m) { m.ped = "3 4 1\n4 2 3\n", m.options = "!inbreeding sargolzaei\n"; },
     {"is its own ancestor: 4, 3"}},
    {"LoopAndCoefficientsOfAFile",
     3,
     [](animal_files& m) { m.ped = "3 4 1\n4 2 3\n", inbreeding("1 0\n")(m); },
     {"is its own ancestor: 4, 3", "File ped.txt"}},
    {"MoreGroupsThanLevels",
     5,
     [](animal_files& m) { m.nupg = 9; },
     {"The effect 2 has 9 genetic groups, but only 8 levels"}},
    {"NegativeGroups",
     5,
     [](animal_files& m) { m.nupg = -1; },
     {"The number of genetic groups of the effect 2 is -1"}},
    {"LoopAndACache",
     3,
     [](animal_files& m) {
         m.ped = "3 4 1\n4 2 3\n";
         m.more = {{"ped.txt.inb", "# 16\n1 0\n2 0\n3 0\n4 0\n5 0\n6 0\n"}};
     },
     {"Inbreeding coefficients read from ped.txt.inb", "is its own ancestor: 4, 3", "File ped.txt"}},
    // metafounders
    {"MissingMetafounders",
     7,
     name(&animal_files::gamma_name, "nowhere.txt"),
     {"The file nowhere.txt cannot be read", "No such file"}},
    {"EmptyMetafounders", 7, gamma(""), {not_positive, "metafounder 1"}},
    {"MetafounderWithoutElement", 7, gamma("1 1 0.5\n"), {not_positive, "metafounder 2"}},
    {"DependentMetafounders", 7, gamma("1 1 1\n2 1 1\n2 2 1\n"), {not_positive, "metafounder 2"}},
    {"IndefiniteMetafounders", 7, gamma("1 1 1\n2 1 2\n2 2 1\n"), {not_positive, "metafounder 2"}},
    {"NegativeMetafounder", 7, gamma("1 1 -1\n2 2 1\n"), {not_positive, "metafounder 1"}},
    {"MetafounderRowOutOfRange", 7, gamma("1 1 1\n3 1 1\n"), {bad_relationship, "gamma.txt", "value 1"}},
    {"MetafounderColumnOutOfRange", 7, gamma("1 1 1\n1 0 1\n"), {bad_relationship, "gamma.txt", "value 2"}},
    {"MetafounderIsAWord", 7, gamma("1 1 1\n2 2 x\n"), {bad_relationship, "gamma.txt", "\"x\""}},
    {"MetafounderIsNoNumber", 7, gamma("1 1 1\n2 2 nan\n"), {bad_relationship, "gamma.txt", "nan"}},
    {"MetafounderLineTooShort", 7, gamma("1 1 1\n2 2\n"), {bad_relationship, "gamma.txt"}},
    {"UnknownParentAndMetafounders",
     7,
     ped("1 7 8\n2 7 7\n3 1 2\n4 1 2\n5 1 0\n6 3 4\n"),
     {"Metafounder (=0) not defined.", "Check your pedigree", "Animal 5", "ped.txt"}},
    {"NoMetafounders",
     7,
     [](animal_files& m) { m.nupg = 0; },
     {"Number of metafounders <= 0 (internal error)"}},
    // the coefficients
    {"MissingInbreeding",
     3,
     name(&animal_files::inb_name, "nowhere.txt"),
     {"Issue while opening the file nowhere.txt"}},
    {"InbreedingIdAboveTheLevels",
     3,
     inbreeding("1 0\n7 0.1\n"),
     {"The id 7 at line 2 of the file f.txt is not one of the 6 levels"}},
    {"InbreedingIdOfZero",
     3,
     inbreeding("# id f\n0 0\n"),
     {"The id 0 at line 2 of the file f.txt is not one of the 6 levels"}},
    {"InbreedingIsNaN",
     3,
     inbreeding("1 0\n3 nan\n"),
     {"The inbreeding coefficient at line 2 of the file f.txt is not a finite number"}},
    {"InbreedingIsInfinite",
     3,
     inbreeding("1 inf\n"),
     {"The inbreeding coefficient at line 1 of the file f.txt is not a finite number"}},
    {"NoInbreeding",
     3,
     name(&animal_files::inb_name, "none"),
     {"The effect 2 needs inbreeding coefficients"}},
    {"NoPedigree", 3, name(&animal_files::ped_name, "none"), {"The effect 2 needs a pedigree"}},
    // the animals of A22
    {"MissingList",
     103,
     name(&animal_files::list_name, "nowhere.txt"),
     {"The file nowhere.txt cannot be read", "No such file"}},
    {"ListIsADirectory",
     103,
     name(&animal_files::list_name, "."),
     {"The file . cannot be read", "Is a directory"}},
    {"EmptyList", 103, list(""), {"The file list.txt holds no level"}},
    {"EmptyListWithGroups", 105, list("\n\n"), {"The file list.txt holds no level"}},
    {"ListedLevelOutsideOfThePedigree",
     103,
     list("3\n7\n"),
     {bad_level, "list.txt: the level 7 is not one of the animals 1 to 6"}},
    {"ListedLevelOfZero",
     103,
     list("3\n0\n"),
     {bad_level, "list.txt: the level 0 is not one of the animals 1 to 6"}},
    {"ListedTwice", 103, list("3\n3\n"), {bad_level, "list.txt: the level 3 stands on line 1 already"}},
    {"ListedGroup",
     105,
     list("3\n7\n"),
     {bad_level, "list.txt: the level 7 is not one of the animals 1 to 6"}},
    {"ListedRandomGroup",
     109,
     list("3\n8\n"),
     {bad_level, "list.txt: the level 8 is not one of the animals 1 to 6"}},
    {"WordInTheList", 103, list("3\nsix\n"), {bad_level, "list.txt: value 1 is not an integer: \"six\""}},
    {"BetaOfZero", 103, option("!beta 0\n"), {"tau / beta - omega of effect 2 is not a finite number"}},
    // the model
    {"NoSparseMetafounders", 7, option("!notuseasparse\n"), {" This type of effect 7 is not implemented"}},
    {"NoSparseExternalMatrix",
     10,
     [](animal_files& m) { m.options = "!notuseasparse\n", m.ped = "1 1 1\n2 2 1\n"; },
     {" This type of effect 10 is not implemented"}},
    {"NoSparseA22i", 103, option("!notuseasparse\n"), {" This type of effect 103 is not implemented"}},
    {"NoSparseA22iWithGroups",
     105,
     option("!notuseasparse\n"),
     {" This type of effect 105 is not implemented"}},
    {"NoSparseA22iWithRandomGroups",
     109,
     option("!notuseasparse\n"),
     {" This type of effect 109 is not implemented"}},
    {"CovariableThatIsNotNested",
     3,
     [](animal_files& m) {
         m.effect = "2 1 6 1 0 0 cov.txt";
         m.more = {{"cov.txt", "1 1\n2 2\n3 3\n4 4\n5 5\n6 6\n"}};
     },
     {"Covariables are not possible with animal effects"}},
    // The words are taken from the lines that follow.
    {"BlockWithoutPedigreeWords",
     3,
     [](animal_files& m) { m.ped_name = m.inb_name = ""; },
     {"The end of the file was found before the keyword PHENO_FILE", "model.par"}},
};

class BadPedigreeInput : public ::testing::TestWithParam<bad_animals> {};

TEST_P(BadPedigreeInput, IsOneClearMessageAndNoMarker) {
    const temporary_directory run;
    animal_files files(GetParam().type);
    GetParam().change(files);
    files.write(run);
    run.write("OK_ZENDAR", "");
    run.write("solutions.dat", "of an earlier run\n");

    const auto result = run_program(run.path(), {"model.par", "--ncpus", "1"});

    EXPECT_EQ(result.status, 1);
    const std::string text = unwrapped(result.out);
    for (const char* message : GetParam().messages) EXPECT_THAT(text, HasSubstr(message));
    const auto error = text.find("ERROR: ");
    ASSERT_NE(error, std::string::npos) << result.out;
    EXPECT_EQ(text.find("ERROR: ", error + 1), std::string::npos) << result.out;
    EXPECT_EQ(result.error, "");
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
    EXPECT_EQ(run.read("solutions.dat"), "of an earlier run\n");
    EXPECT_EQ(run.read("ped.txt"), files.ped);
}

INSTANTIATE_TEST_SUITE_P(Cases, BadPedigreeInput, ::testing::ValuesIn(inputs),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(BadPedigreeFile, WithoutPermissionIsNamed) {
    if (geteuid() == 0) GTEST_SKIP() << "every file can be read by root";
    const temporary_directory run;
    animal_files().write(run);
    std::filesystem::permissions(run / "ped.txt", std::filesystem::perms::none);

    const auto result = run_program(run.path(), {"model.par"});

    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(unwrapped(result.out), HasSubstr("The file ped.txt cannot be read"));
    EXPECT_THAT(result.out, HasSubstr("Permission denied"));
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
}

}  // namespace
}  // namespace zendar::test
