#include <gmock/gmock.h>

#include <cctype>
#include <cmath>
#include <cstring>
#include <map>
#include <numeric>
#include <regex>
#include <set>

#include "byte_table.hpp"
#include "captured_log.hpp"
#include "data_sets.hpp"
#include "modparameters.hpp"
#include "modsparse.hpp"
#include "modsparse_coo.hpp"
#include "modstructure.hpp"
#include "program_run.hpp"

/// docs/formats.md beside the sources and the files that the programs write: the byte tables of the page are
/// what takes these apart.
namespace zendar {
namespace {

namespace fs = std::filesystem;
using namespace test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

// ---- file names of the sources
// ----------------------------------------------------------------------------

/// The literals of a C++ source, without comments and directives.
std::vector<std::string> literals_of(const std::string& source) {
    std::vector<std::string> literals;
    for (const std::string& line : lines_of(source)) {
        if (line.find_first_not_of(' ') == std::string::npos || line[line.find_first_not_of(' ')] == '#')
            continue;
        std::string literal;
        bool inside = false;
        for (std::size_t i = 0; i < line.size(); ++i) {
            const bool quote = line[i] == '"' && (inside || i == 0 || line[i - 1] != '\'');
            if (!inside && line.compare(i, 2, "//") == 0) break;
            if (quote && inside) literals.push_back(std::exchange(literal, {}));
            if (quote)
                inside = !inside;
            else if (inside && line[i] == '\\' && i + 1 < line.size())
                literal += line[++i] == 'n' ? '\n' : line[i];
            else if (inside)
                literal += line[i];
        }
    }
    return literals;
}

/// Words with a point inside or in front, as file names and their endings are.
std::set<std::string> dotted_words(const std::string& text) {
    std::set<std::string> words;
    for (const std::string& word : matches(text, R"((\w*\.[A-Za-z_]\w*))"))
        if (std::isdigit(static_cast<unsigned char>(word[0])) == 0) words.insert(word);
    return words;
}

/// What may be a file name, or a part of one, in a literal.
std::set<std::string> names_in(const std::string& literal) {
    std::set<std::string> names = dotted_words(literal);
    if (std::regex_match(literal, std::regex("_[a-z]+|[A-Za-z]+(_[a-z]+)*_"))) names.insert(literal);
    return names;
}

std::map<std::string, fs::path> names_of_sources() {
    std::map<std::string, fs::path> names;
    for (const char* folder : {"src", "external"})
        for (const auto& entry : fs::recursive_directory_iterator(tree / folder)) {
            const std::string name = entry.path().filename().string();
            if (!std::regex_match(name, std::regex(".*\\.(cpp|hpp)")) || name.find("_test") < name.size())
                continue;
            const std::string source = content(entry.path());
            for (const std::string& literal : literals_of(source))
                for (const std::string& found : names_in(literal)) names.emplace(found, entry.path());
            // Names of files without a point in them.
            for (const char* pattern :
                 {R"((?:file|script|picture) = "([^" ]+)\")", R"(run_script\(\w+, "([^"]+)\")"})
                for (const std::string& found : matches(source, pattern)) names.emplace(found, entry.path());
        }
    return names;
}

TEST(FileNamesOfSources, AreFoundInLiteralsOnly) {
    EXPECT_THAT(literals_of("// \"a.x\"\n#include \"b.hpp\"\nf(\"c.x\" + s, '\"', \"d\\ng.x\");  // \"e\""),
                ElementsAre("c.x", "d\ng.x"));
    EXPECT_THAT(names_in("Cannot write rhs.dat"), ElementsAre("rhs.dat"));
    EXPECT_THAT(names_in(".stream"), ElementsAre(".stream"));
    EXPECT_THAT(names_in("_tri"), ElementsAre("_tri"));
    EXPECT_THAT(names_in("log_invcov_"), ElementsAre("log_invcov_"));
    EXPECT_THAT(names_in("It ends. (f0.2) 1.5 1.d0"), IsEmpty());
    EXPECT_GT(names_of_sources().size(), 90U);
}

TEST(FormatsPage, HasEveryFileNameOfTheSources) {
    const std::map<std::string, std::string> no_files = {
        {".false", "a default in the help"},
        {"e.g", "words of the help"},
        {"i.e", "words of the help"},
        {"none", "in place of a file"},
        {"orig.plink", "the name of a coding"},
        {"prmt.b32", "an instruction of a GPU"},
        {"libcuda.so", "a library"},
        {"libzendar_gpu.so", "a library"},
    };
    std::set<std::string> words = dotted_words(page());
    for (const std::string& word : matches(page(), R"(([A-Za-z_]+))")) words.insert(word);
    for (const auto& [name, source] : names_of_sources()) {
        if (no_files.contains(name)) continue;
        const bool begins_one = name.ends_with('_') && page().find("`" + name) < page().size();
        EXPECT_TRUE(begins_one || words.contains(name))
            << "docs/formats.md lacks " << name << " of " << source;
    }
}

// ---- byte tables

TEST(ByteTables, AreUnderstood) {
    const known_values known = {{"n", 5}, {"m", 3}};
    const auto value = [&](const std::string& text) { return expression(text, known).value(); };
    EXPECT_EQ(value("12 + 4 n (n + 1)"), 132);
    EXPECT_EQ(value("3 + ceil(n / 4) m - 1"), 8);
    EXPECT_ANY_THROW(value("4 k"));
    EXPECT_ANY_THROW(value("n / 4"));
    EXPECT_ANY_THROW(value("4 n)"));
    EXPECT_ANY_THROW(byte_table("`no_such_file`"));
    EXPECT_ANY_THROW(taken_apart("CRS", "too short"));
}

// ---- sparse matrices
// --------------------------------------------------------------------------------------

/// 2 0 0 -0.5 / 0 3 0 1 / 0 0 0 4
coosparse small_matrix() {
    coosparse coo(3, 4, 8, true);
    coo.set(1, 1, 2.0);
    coo.set(1, 4, -0.5);
    coo.set(2, 2, 3.0);
    coo.set(2, 4, 1.0);
    coo.set(3, 4, 4.0);
    return coo;
}

template <class Index>
void expect_small_crs(const taken_apart& file, std::int32_t code) {
    EXPECT_EQ(file.value<std::int32_t>("code"), code);
    EXPECT_EQ(file.value<std::int32_t>("dim1"), 3);
    EXPECT_EQ(file.value<std::int32_t>("dim2"), 4);
    EXPECT_EQ(file.value<std::int64_t>("elements"), 5);
    EXPECT_EQ(file.value<std::int32_t>("upper"), 1);
    EXPECT_THAT(file.values<Index>("ia"), ElementsAre(1, 3, 5, 6));
    EXPECT_THAT(file.values<Index>("ja"), ElementsAre(1, 4, 2, 4, 4));
    EXPECT_THAT(file.values<double>("a"), ElementsAre(2.0, -0.5, 3.0, 1.0, 4.0));
}

TEST(SparseMatrixFiles, AreAsTheirTablesSay) {
    const test::temporary_directory files;
    const coosparse coo = small_matrix();
    crssparse crs = convertfromcootocrs(coo);
    crs.sort();
    coo.save(files / "coo");
    crs.save(files / "crs");
    crssparse64 crs64 = convertfromcootocrs64(coo);
    crs64.sort();
    crs64.save(files / "crs64");

    expect_small_crs<std::int32_t>({"CRS", files.read("crs")}, 20);
    expect_small_crs<std::int64_t>({"CRS64", files.read("crs64")}, 21);

    const taken_apart file("COO", files.read("coo"));
    EXPECT_EQ(file.value<std::int32_t>("code"), 10);
    EXPECT_EQ(file.value<std::int32_t>("dim1"), 3);
    EXPECT_EQ(file.value<std::int32_t>("dim2"), 4);
    EXPECT_EQ(file.value<std::int64_t>("elements"), 5);
    EXPECT_EQ(file.value<std::int64_t>("nel"), coo.nel());
    EXPECT_EQ(file.value<std::int32_t>("upper"), 1);
    const auto keys = file.values<std::int32_t>("keys");
    const auto a = file.values<double>("a");
    std::map<std::pair<int, int>, double> elements;
    for (std::size_t slot = 0; slot < a.size(); ++slot)
        if (keys[2 * slot] != 0) elements[{keys[2 * slot], keys[2 * slot + 1]}] = a[slot];
    EXPECT_EQ(elements, (decltype(elements){
                            {{1, 1}, 2.0}, {{1, 4}, -0.5}, {{2, 2}, 3.0}, {{2, 4}, 1.0}, {{3, 4}, 4.0}}));
}

// ---- files of the programs
// ---------------------------------------------------------------------------------

std::vector<double> numbers_of(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<double>(in), {}};
}

/// Runs in a folder of their own. What they leave there must be named on the page.
class FilesOfPrograms : public testing::Test {
  protected:
    void take_example(const std::string& name, const std::string& options) {
        test::copy_files(test::example(name), files_);
        files_.write("model.par", files_.read("model.par") + options);
    }
    void run(const std::string& program, const std::vector<std::string>& arguments, int status = 0) {
        const std::set<std::string> before = names();
        const auto result = test::run_program(files_.path(), arguments,
                                              (fs::path(program_file()).parent_path() / program).string());
        ASSERT_EQ(result.status, status) << result.out << result.error;
        for (const std::string& name : names())
            EXPECT_TRUE(before.contains(name) || is_argument(name, arguments) || is_named(name))
                << "docs/formats.md does not name " << name;
    }
    [[nodiscard]] taken_apart apart(const std::string& title, const std::string& file,
                                    known_values known = {}) const {
        return {title, files_.read(file), std::move(known)};
    }
    /// The elements of a lower triangle by rows, as a text "row column value" has them.
    static std::vector<double> elements(const std::vector<std::int32_t>& levels,
                                        const std::vector<double>& triangle) {
        std::vector<double> lines;
        for (std::size_t i = 0, k = 0; i < levels.size(); ++i)
            for (std::size_t j = 0; j <= i; ++j, ++k) {
                lines.push_back(std::max(levels[i], levels[j]));
                lines.push_back(std::min(levels[i], levels[j]));
                lines.push_back(triangle.at(k));
            }
        return lines;
    }
    test::temporary_directory files_;

    static bool is_named(const std::string& name) {
        return name.front() != '.' &&
               std::ranges::any_of(matches(page(), "`([^` ]+)`"), [&](const std::string& word) {
                   const std::string plain = std::regex_replace(word, std::regex("[^A-Za-z0-9_<>-]"), "\\$&");
                   return std::regex_match(name,
                                           std::regex(std::regex_replace(plain, std::regex("<\\w+>"), ".+")));
               });
    }

  private:
    [[nodiscard]] std::set<std::string> names() const {
        std::set<std::string> found;
        for (const auto& entry : fs::directory_iterator(files_.path()))
            found.insert(entry.path().filename().string());
        return found;
    }
    static bool is_argument(const std::string& name, const std::vector<std::string>& arguments) {
        return std::ranges::any_of(
            arguments, [&](const std::string& word) { return name == word || name == word + "_core"; });
    }
};

TEST_F(FilesOfPrograms, AreNamedByTheirPatterns) {
    for (const char* name : {"rhs.dat", "solutions_25.dat", "ped.txt.inb", "crs_3"})
        EXPECT_TRUE(is_named(name));
    for (const char* name : {"other.dat", "solutions_25.txt", "crs", ".part", "rhsXdat"})
        EXPECT_FALSE(is_named(name)) << name;
}

TEST_F(FilesOfPrograms, SolutionsAndVectors) {
    take_example("gryphon_bwt",
                 "!solstream\n!computefinalrhs\n!nwritetmpsol 5\n!statprevioussol\n!peek 5 10\n"
                 "!printprecond\n!thread_effect\n!yhat\n!phendev\n!computeeigen 10\n");
    run("zendar", {"model.par"});
    for (const std::string name : {"solutions", "manufactured_rhs", "solutions_5"}) {
        const std::vector<double> text = numbers_of(files_.read(name + ".dat"));
        const std::int64_t nrow = std::ssize(text) / 5;
        ASSERT_EQ(nrow, 1311);
        const taken_apart file =
            apart("`solutions.stream`", name + ".stream", {{"neffect", 2}, {"nrow", nrow}});
        EXPECT_THAT(file.values<std::int32_t>("nx"), ElementsAre(0, 1, 1, 0));
        std::vector<double> solutions;
        for (const taken_apart& row : file.rows("rows", nrow)) {
            const double* line = text.data() + 5 * solutions.size();
            for (const char* item : {"trait", "effect", "level", "covariable"})
                EXPECT_EQ(row.value<std::int32_t>(item), *line++) << item;
            solutions.push_back(row.value<double>("value"));
            EXPECT_NEAR(solutions.back(), *line, 1e-5 * std::abs(*line));
        }
        if (name != "solutions") continue;
        EXPECT_EQ(apart("`ca491pcn.bin`", "ca491pcn.bin", {{"neq", nrow}}).values<double>("x"), solutions);
    }
}

TEST_F(FilesOfPrograms, TemporaryVectors) {
    take_example("gryphon_bwt", "");
    files_.write("ca452cnv.dat", "0\n");  // the run ends with an error, and leaves what it has
    run("zendar", {"model.par"}, 1);
    std::vector<double> phen, sum(2, 0.0);
    std::istringstream data(files_.read("data.txt"));
    int sex, animal;
    for (double y; data >> sex >> animal >> y; phen.push_back(y))
        sum.at(static_cast<std::size_t>(sex - 1)) += y / numbers_of(files_.read("residual.txt")).at(2);
    const known_values known = {{"neq", 1311}, {"ntrait", 1}, {"nrec", std::ssize(phen)}};
    EXPECT_EQ(apart("`phentmp.stream`", "phentmp.stream", known).values<double>("phen"), phen);
    const auto b = apart("`rhstmp.stream`", "rhstmp.stream", known).values<double>("b");
    for (std::size_t s = 0; s < 2; ++s) EXPECT_NEAR(b.at(s), sum[s], 1e-9 * sum[s]);
}

TEST_F(FilesOfPrograms, EquationsInMemory) {
    take_example("gryphon_bwt", "!solver pcg_inmem_block\n!printlhs\n!eigenlhs\n!plotsolutions\n");
    run("zendar", {"model.par", "--ebvpev"});
    for (const std::string name : {"lhsija", "lhsija_inv"}) {
        const taken_apart file = apart("CRS", name + ".stream");
        const auto ia = file.values<std::int32_t>("ia"), ja = file.values<std::int32_t>("ja");
        const auto a = file.values<double>("a");
        std::vector<double> lines;
        for (std::int32_t row = 1; row <= file.value<std::int32_t>("dim1"); ++row)
            for (std::int32_t k = ia.at(row - 1) - 1; k < ia.at(row) - 1; ++k)
                lines.insert(lines.end(), {double(row), double(ja.at(k)), a.at(k)});
        EXPECT_EQ(lines, numbers_of(files_.read(name + ".dat")));
    }
}

TEST_F(FilesOfPrograms, GalerkinMatrix) {
    take_example("single_step", "!solver dpcg_iod 50\n!computegalerkin\n");
    run("zendar", {"model.par"});
    const std::string text = files_.read("def_einv_20.dat");
    const std::size_t behind = text.find('\n', text.find('*'));
    const std::vector<double> by_rows = numbers_of(text.substr(behind, text.rfind("\n*") - behind));
    const auto einv = apart("`def_einv.stream`", "def_einv.stream", {{"nsub", 21}}).values<double>("einv");
    ASSERT_EQ(by_rows.size(), 441U);
    for (std::size_t i = 0; i < 21; ++i)
        for (std::size_t j = 0; j < 21; ++j) EXPECT_EQ(einv[i + 21 * j], by_rows[21 * i + j]);
}

TEST_F(FilesOfPrograms, ExternalMatrices) {
    // Levels 11 to 35 of a pedigree of 40.
    take_example("p_values", "");
    std::string ped, fam;
    for (int i = 1; i <= 40; ++i)
        ped += std::to_string(i) + (i < 11 ? " 0 0\n" : " 3 " + std::to_string(i / 2) + "\n");
    for (int i = 11; i <= 35; ++i) fam += "0 " + std::to_string(i) + " 0 0 0 -9\n";
    files_.write("ped.txt", ped);
    files_.write("geno.fam", fam);
    files_.write("core", "19\n12\n35\n17\n");
    for (const std::string ending : {"_tri", ".stream"})
        run("zendar-matrices",
            {"--bfile", "geno", "--ped", "ped.txt", "--core", "core", "--gima22i", "g" + ending, "--apy",
             "apy" + ending, "--ta", "ta" + ending, "--k", "k" + ending});
    const taken_apart g = apart("a symmetric matrix", "g.stream");
    const auto levels = g.values<std::int32_t>("levels");
    EXPECT_EQ(g.value<std::int32_t>("maximum"), 35);
    EXPECT_EQ(elements(levels, g.values<double>("triangle")), numbers_of(files_.read("g_tri")));

    const taken_apart ta = apart("Ta", "ta.stream");
    EXPECT_EQ(ta.value<std::int32_t>("maximum"), 35);
    EXPECT_EQ(ta.values<std::int32_t>("levels"), levels);
    const std::vector<double> ta_text = numbers_of(files_.read("ta_tri")),
                              ta_values = ta.values<double>("ta");
    ASSERT_EQ(ta_text.size(), 3 * ta_values.size());
    for (std::size_t k = 0; k < ta_values.size(); ++k) {
        EXPECT_EQ(ta_text[3 * k], levels.at(k / 40));
        EXPECT_EQ(ta_text[3 * k + 1], k % 40 + 1);
        EXPECT_EQ(ta_text[3 * k + 2], ta_values[k]);
    }

    const taken_apart l = apart("L", "k.stream");
    std::vector<std::int32_t> snps(static_cast<std::size_t>(l.value<std::int32_t>("n")));
    std::iota(snps.begin(), snps.end(), 1);
    std::vector<double> l_lines = elements(snps, l.values<double>("triangle"));
    l_lines.insert(l_lines.begin(), 40);
    EXPECT_EQ(l_lines, numbers_of(files_.read("k_tri")));

    const taken_apart apy = apart("APY", "apy.stream");
    const auto own = apy.values<std::int32_t>("levels");
    EXPECT_EQ(files_.read("apy_tri_core"), files_.read("core"));
    EXPECT_EQ(apy.value<std::int32_t>("maximum"), 35);
    EXPECT_THAT(std::vector(own.begin(), own.begin() + 5), ElementsAre(19, 12, 35, 17, 11));
    std::vector<double> lines = elements({19, 12, 35, 17}, apy.values<double>("core"));
    const auto cross = apy.values<double>("cross"), diagonal = apy.values<double>("diagonal");
    for (std::size_t j = 0; j < diagonal.size(); ++j) {
        for (std::size_t i = 0; i < 4; ++i)
            lines.insert(lines.end(), {double(std::max(own[i], own.at(4 + j))),
                                       double(std::min(own[i], own[4 + j])), cross.at(4 * j + i)});
        lines.insert(lines.end(), {double(own[4 + j]), double(own[4 + j]), diagonal[j]});
    }
    EXPECT_EQ(lines, numbers_of(files_.read("apy_tri")));
}

TEST_F(FilesOfPrograms, Genotypes) {
    run("zendar-simulate", {".", "--animals", "60", "--genotyped", "23", "--snps", "31", "--names", "--truth",
                            "--model", "animal,ssgblup22,ssgblup30,snpblup,metafounders,randomgroups",
                            "--groups", "sex", "--repeated", "2"});
    std::string bed = files_.read("snp.bed");
    bed[3] = '\x55';  // all of these are missing
    files_.write("snp.bed", bed);
    run("zendar-matrices", {"--bfile", "snp", "--freq", "freq.txt"});

    std::map<std::string, std::string> copies;  // by the bits, as the page has it
    for (const char* bits : {"00", "01", "10", "11"})
        copies[bits] = matches(page(), "\n\\| " + std::string(bits) + " \\| (\\w+) \\|\n").at(0);
    const taken_apart file = apart("`.bed`", "snp.bed", {{"nind", 23}, {"nsnp", 31}});
    EXPECT_THAT(file.values<std::uint8_t>("magic"), ElementsAre(108, 27, 1));
    const auto genotypes = file.values<std::uint8_t>("genotypes");
    const std::vector<double> frequencies = numbers_of(files_.read("freq.txt"));
    ASSERT_THAT(frequencies, SizeIs(31));
    for (std::size_t snp = 0; snp < 31; ++snp) {
        double second = 0.0, known = 0.0;
        for (std::size_t i = 0; i < 23; ++i) {
            const int code = genotypes.at(6 * snp + i / 4) >> (2 * (i % 4));
            const std::string count = copies.at(std::string(code & 2 ? "1" : "0") + (code & 1 ? "1" : "0"));
            if (count == "missing") continue;
            second += std::stod(count);
            known += 2.0;
        }
        EXPECT_EQ(known, snp == 0 ? 38.0 : 46.0);
        EXPECT_NEAR(frequencies[snp], second / known, 1e-15);
    }
}

TEST_F(FilesOfPrograms, Coefficients) {
    // Written by hand as the table says, and read by the program's reader.
    const std::vector<table_line> table = byte_table("coefficients"),
                                  row = byte_table("a row of coefficients");
    known_values known = {{"nrow", 2}, {"ncov", 3}};
    const auto at = [&](const std::string& text) { return expression(text, known).value(); };
    const std::int64_t first = at(table.at(2).offset), size = at(table[2].bytes) / 2;
    std::string bytes(static_cast<std::size_t>(first + 2 * size), '\0');
    const auto put = [&](std::int64_t place, auto value) {
        ASSERT_LE(place + std::ssize(std::string(sizeof value, ' ')), std::ssize(bytes));
        std::memcpy(bytes.data() + place, &value, sizeof value);
    };
    for (std::size_t k = 0; k < 2; ++k)
        put(at(table[k].offset), static_cast<std::int32_t>(at(table[k].name)));
    for (std::int32_t r = 0; r < 2; ++r) {
        put(first + r * size + at(row.at(0).offset), 4 - r);
        for (std::int32_t k = 0; k < 3; ++k)
            put(first + r * size + at(row.at(1).offset) + 8 * k, r + 0.25 * k);
    }
    const taken_apart file("coefficients", bytes);
    EXPECT_EQ(file.value<std::int32_t>("nrow"), 2);
    EXPECT_EQ(file.value<std::int32_t>("ncov"), 3);
    std::int32_t id = 4;
    for (const taken_apart& own : file.rows("rows", 2)) {
        EXPECT_EQ(own.value<std::int32_t>("id"), id);
        EXPECT_THAT(own.values<double>("coefficients"), ElementsAre(4 - id, 4.25 - id, 4.5 - id));
        --id;
    }

    param_type param;
    param.neffect = 1;
    param.n_level = {5};
    param.n_cov = {3};
    param.type_effect = {1};
    param.cov_file = {files_.write("own.stream", bytes).string()};
    test::captured_log log;
    covariable_type cov;
    readcovariable(cov, param, 1, log);
    for (std::int32_t k = 1; k <= 3; ++k) {
        EXPECT_EQ(getvalue(cov, 4, k), 0.25 * (k - 1));
        EXPECT_EQ(getvalue(cov, 3, k), 1.0 + 0.25 * (k - 1));
    }
}

}  // namespace
}  // namespace zendar
