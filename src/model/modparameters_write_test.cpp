#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "captured_log.hpp"
#include "modbasic.hpp"
#include "modenum.hpp"
#include "modfile.hpp"
#include "modparameters.hpp"
#include "temporary_directory.hpp"

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_message;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

class WriteParameterFile : public testing::Test {
  protected:
    param_type read(const std::string& file) {
        param_type param;
        read_parameter_file(param, file, log_);
        return param;
    }

    test::temporary_directory folder_;
    test::working_directory inside_{folder_.path()};
    captured_log log_;
};

TEST_F(WriteParameterFile, WritesTheSectionsInTheirOrder) {
    folder_.write("r.txt", "1 1 2\n2 1 0.5 3\n");
    folder_.write("g 2.txt", "2\n0.25 3\n");
    folder_.write(
        "m.par",
        "N_TRAITS\n2\nN_WEIGHTS\n1\nN_EFFECTS\n3\nPOS_TRAITS\n5 6\nPOS_WEIGHTS\n0 7\nPOS_EFFECTS\n"
        "1 0 0 3 1 0 0 0 none herd F\n2 2 1 4 1 8 8 5 'my cov.txt' age C\n4 4 3 0 50 0 0 0 geno.bed snp S\n"
        "N_RESIDUAL_COV\n1 0\nr.txt\n"
        "EFFECT_ID\n3 30 0 50\nsnp.txt 1\n1\nEFFECT_ID\n1 105 0 2\nped.txt 3\ninb.txt a22.bin\n'g 2.txt'\n"
        "PHENO_FILE\ndata.txt\n");
    const param_type param = read("m.par");
    captured_log log;

    write_parameter_file(param, "copy.par", log);

    const std::string text = folder_.read("copy.par");
    EXPECT_THAT(text,
                StartsWith("N_TRAITS\n2\nN_WEIGHTS\n1\nN_EFFECTS\n3\nPOS_TRAITS\n5 6\nPOS_WEIGHTS\n0 7\n"
                           "POS_EFFECTS TYPE_EFFECT N_LEVEL N_COV POS_NESTED N_LEVEL COV_FILE\n"
                           "1 0 0 3 1 0 0 0 none\n2 2 1 4 1 8 8 5 'my cov.txt'\n4 4 3 0 50 0 0 0 geno.bed\n"
                           "N_RESIDUAL_COV\n1 0\nNOT_STORED\n"
                           "EFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n1 105 0 2\n"
                           "ped.txt 3 inb.txt a22.bin\n'g 2.txt'\n"
                           "EFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n3 30 0 50\nsnp.txt 1\n1\n"
                           "PHENO_FILE\ndata.txt\n"));
    EXPECT_EQ(log.text(),
              "Write to parameter file (WIP): copy.par\n"
              "  Effect  Covariable  Trait  (Co)variance(s)\n"
              "       1           1      1  2.00000\n"
              "       1           1      2  0.250000 3.00000\n");
}

TEST_F(WriteParameterFile, StopsAtARandomTypeThatIsNotDefined) {
    param_type param;
    param.ntrait = param.neffect = 1;
    allocpar(param);
    param.type_random[0] = 4;

    EXPECT_EQ(fatal_message([&] { write_parameter_file(param, "copy.par", log_); }),
              "This random type is not defined: 4");
    EXPECT_THAT(log_.text(), HasSubstr("modparameters % write_parameter_file ("));
    EXPECT_FALSE(folder_.exists("copy.par"));
}

TEST_F(WriteParameterFile, StopsWhenTheFileCannotBeOpened) {
    param_type param;
    param.ntrait = param.neffect = 1;
    allocpar(param);
    EXPECT_EQ(fatal_message([&] { write_parameter_file(param, "none/copy.par", log_); }),
              "Cannot open the file none/copy.par");
    EXPECT_THAT(log_.text(),
                AllOf(HasSubstr("I/O ERROR: "), HasSubstr("With iostat = "), HasSubstr("With iomsg = ")));
}

TEST_F(WriteParameterFile, StopsWhenTheDiskIsFull) {
    if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
    param_type param;
    param.ntrait = param.neffect = 1;
    allocpar(param);
    EXPECT_EQ(fatal_message([&] { write_parameter_file(param, "/dev/full", log_); }),
              "Cannot write the file /dev/full");
}

TEST(Writeg, NamesMemberCovariableAndTraitOfEachRow) {
    param_type param;
    param.ntrait = 2;
    param.neffect = 3;
    allocpar(param);
    param.type_effect = {teff_class, teff_class, teff_covariable};
    param.n_cov = {9, 9, 2};
    param.n_correlated = {-1, 1, -1};
    param.g[1] = matrix<double>(6, 6);
    for (std::int64_t i = 0; i < 6; ++i)
        for (std::int64_t j = 0; j < 6; ++j)
            param.g[1](i, j) = static_cast<double>(10 * std::max(i, j) + std::min(i, j));
    captured_log log;

    writeg(param, 2, log);

    EXPECT_EQ(log.text(),
              "  Effect  Covariable  Trait  (Co)variance(s)\n"
              "       2           1      1  0.00000\n"
              "       2           1      2  10.0000 11.0000\n"
              "       3           1      1  20.0000 21.0000 22.0000\n"
              "       3           1      2  30.0000 31.0000 32.0000 33.0000\n"
              "       3           2      1  40.0000 41.0000 42.0000 43.0000 44.0000\n"
              "       3           2      2  50.0000 51.0000 52.0000 53.0000 54.0000 55.0000\n");
}

TEST(Writeghuge, WritesFileAndType) {
    const test::temporary_directory folder;
    param_type param;
    param.ntrait = param.neffect = 1;
    allocpar(param);
    param.file[1][0] = "snp.txt";
    param.ghuge_type[0] = 1;
    file_writer out;
    ASSERT_FALSE(out.open(folder / "line.txt"));

    writeghuge(param, 1, out);

    ASSERT_FALSE(out.commit());
    EXPECT_EQ(folder.read("line.txt"), "snp.txt 1\n");
}

// ---- random models ---------------------------------------------------------------------------------------

/// Writes a random model in a random layout and keeps what a reader must find.
class model_generator {
  public:
    model_generator(std::uint64_t seed, const test::temporary_directory& folder)
        : random_(seed), folder_(folder) {
        make_effects();
        make_blocks();
        make_text();
    }

    param_type expected;  // the fields that the text gives
    std::string text;

  private:
    std::int32_t draw(std::int32_t low, std::int32_t high) {
        return low + static_cast<std::int32_t>(random_() % static_cast<std::uint64_t>(high - low + 1));
    }
    bool chance(std::int32_t percent) { return draw(1, 100) <= percent; }
    std::string file_name() {
        static constexpr const char* stems[] = {"ped.txt", "/data/a b.txt", "x,y.bin", "none", "compute",
                                                "it's",    "dir/sub.d/f",   "!odd",    "3*4"};
        return stems[draw(0, 8)] + std::to_string(draw(0, 99));
    }

    void make_effects() {
        param_type& p = expected;
        p.ntrait = draw(1, 4);
        normal_ = draw(1, 6);
        p.nhuge = draw(0, 3);
        p.neffect = normal_ + p.nhuge;
        p.nweight = draw(0, 2);
        const std::int32_t nhuge = p.nhuge;
        allocpar(p);
        p.nhuge = nhuge;
        p.lnames = chance(30);
        for (auto& column : p.pos_traits) column = draw(1, 30);
        for (auto& column : p.pos_weights) column = draw(0, 30);
        for (std::int32_t e = 0; e < p.neffect; ++e) {
            const bool huge = e >= normal_;
            p.type_effect[e] = huge ? draw(2, 3) : draw(0, 1);
            p.n_level[e] = draw(0, 2000);
            p.n_cov[e] = p.type_effect[e] == 0 ? draw(-1, 7) : huge ? draw(1, 50) : draw(1, 3);
            p.n_level_nested[e] = huge ? 0 : draw(0, 9);
            for (std::int32_t t = 0; t < p.ntrait; ++t) {
                p.pos_effects(t, e) = draw(-1, 20);
                p.present(t, e) = p.pos_effects(t, e) > 0;
                p.pos_nested(t, e) = huge ? 0 : draw(0, 3);
            }
            p.cov_file[e] = file_name();
            if (p.lnames) {
                p.name_effect[e] = file_name();
                p.type_char[e] = std::string(1, static_cast<char>('A' + draw(0, 25)));
            }
        }
        p.n_residual_cov = draw(1, 3);
        p.pos_residual = draw(0, 20);
        p.residualfile = "residual.txt";
        p.file[0][0] = file_name();
        for (std::int32_t c = 0; c < p.n_residual_cov; ++c) p.r.push_back(dominant_matrix(p.ntrait));
    }

    /// Symmetric, with a diagonal that makes it positive definite.
    matrix<double> dominant_matrix(std::int64_t n) {
        std::uniform_real_distribution<double> uniform(-1.0, 1.0);
        matrix<double> a(n, n);
        for (std::int64_t i = 0; i < n; ++i) {
            for (std::int64_t j = 0; j < i; ++j) a(i, j) = a(j, i) = uniform(random_);
            a(i, i) = static_cast<double>(n) + uniform(random_);
        }
        return a;
    }

    void make_blocks() {
        param_type& p = expected;
        for (std::int32_t e = 1; e <= p.neffect; ++e) {
            if (chance(30)) continue;
            const bool huge = e > normal_;
            const std::int32_t last = huge ? p.neffect : normal_;
            const std::int32_t n = std::min(draw(0, 2), last - e);
            const std::int32_t code = huge ? huge_code() : matrix_code();
            if (code == 0) continue;
            p.type_random[e - 1] = code;
            p.n_correlated[e - 1] = n;
            const random_type_entry& entry = *find_random_type(code);
            for (const block_word word : entry.words) {
                if (word == block_word::nupg) {
                    p.nupg.resize(static_cast<std::size_t>(p.neffect), 0);
                    p.nupg[e - 1] = draw(0, 12);
                } else {
                    p.file[e][static_cast<std::size_t>(word)] = file_name();
                }
            }
            if (huge) {
                p.dim_g[e - 1] = draw(-1, 1000);
                p.file[e][0] = file_name();
                p.ghuge_type[e - 1] = 1;
                for (std::int32_t k = 0; k <= n; ++k) {
                    p.type_random_eff[e - 1 + k] = code;
                    if (entry.covariance != block_covariance::huge_linked) continue;
                    const std::int32_t link = linkable(code);
                    p.link_effect[e - 1].push_back(link);
                    if (k > 0) p.link_effect[e - 1 + k] = {link};
                }
            } else {
                std::int32_t order = 0;
                for (std::int32_t k = e; k <= e + n; ++k)
                    order += p.type_effect[k - 1] == 0 ? p.ntrait : p.ntrait * p.n_cov[k - 1];
                p.dim_g[e - 1] = order;
                p.g[e - 1] = dominant_matrix(order);
                p.gfile[e - 1] = "g " + std::to_string(e) + ".txt";
                p.type_random_eff[e - 1] = code;
            }
            blocks_.push_back(e);
            e += n;
        }
        std::ranges::shuffle(blocks_, random_);
    }

    std::int32_t matrix_code() {
        static constexpr std::int32_t codes[] = {1, 3, 5, 7, 9, 10, 103, 105, 109, 203};
        return codes[draw(0, 9)];
    }
    std::int32_t huge_code() {
        static constexpr std::int32_t codes[] = {20, 22, 23, 30};
        const std::int32_t code = codes[draw(0, 3)];
        return (code == 22 || code == 30) && linkable(code) == 0 ? 20 : code;
    }
    /// An effect that a huge effect may be linked to; 0 when there is none.
    std::int32_t linkable(std::int32_t code) {
        std::vector<std::int32_t> found;
        for (std::int32_t e = 1; e <= normal_; ++e)
            if (expected.type_effect[e - 1] == 0 || (code == 30 && expected.n_cov[e - 1] == 1))
                found.push_back(e);
        return found.empty()
                   ? 0
                   : found[static_cast<std::size_t>(draw(0, static_cast<std::int32_t>(found.size()) - 1))];
    }

    // ---- the text ----

    void new_line() {
        text += chance(10) ? "\r\n" : "\n";
        while (chance(15)) text += chance(50) ? "  \t\n" : " !option 1 N_TRAITS\n";
        while (chance(20)) text += ' ';
    }
    void keyword(std::string_view word) {
        text += word;
        if (chance(20)) text += " 7 and the rest, skipped";
        new_line();
    }
    std::string separator() {
        static constexpr const char* forms[] = {" ", "   ", ",", " , ", "\t", ", "};
        return forms[draw(0, 5)];
    }
    /// Items of one statement, over several lines unless it must be one.
    void statement(const std::vector<std::string>& items, bool one_line = false) {
        for (std::size_t i = 0; i < items.size(); ++i) {
            if (i > 0) {
                if (!one_line && chance(25))
                    new_line();
                else
                    text += separator();
            }
            text += items[i];
        }
        if (!one_line && chance(20)) text += " skipped";
        new_line();
    }
    std::string quoted(const std::string& name) {
        if (name.find_first_of(" ,'!*") == std::string::npos && chance(80)) return name;
        if (name.find('\'') != std::string::npos) return "\"" + name + "\"";
        return chance(50) ? "'" + name + "'" : "\"" + name + "\"";
    }
    template <class Numbers>
    static void append(std::vector<std::string>& items, const Numbers& numbers) {
        for (const auto n : numbers) items.push_back(std::to_string(n));
    }
    template <class Numbers>
    void section(std::string_view name, const Numbers& numbers) {
        keyword(name);
        std::vector<std::string> items;
        append(items, numbers);
        statement(items);
    }

    void make_text() {
        const param_type& p = expected;
        if (chance(50)) new_line();
        section("N_TRAITS", std::vector{p.ntrait});
        section("N_WEIGHTS", std::vector{p.nweight});
        section("N_EFFECTS", std::vector{p.neffect});
        section("POS_TRAITS", p.pos_traits);
        section("POS_WEIGHTS", p.pos_weights);
        keyword("POS_EFFECTS");
        for (std::int32_t e = 0; e < p.neffect; ++e) {
            std::vector<std::string> items;
            append(items, p.pos_effects.column(e));
            append(items, std::vector{p.type_effect[e], p.n_level[e], p.n_cov[e]});
            append(items, p.pos_nested.column(e));
            append(items, std::vector{p.n_level_nested[e]});
            items.push_back(quoted(p.cov_file[e]));
            if (p.lnames) {
                items.push_back(quoted(p.name_effect[e]));
                items.push_back(p.type_char[e]);
            }
            statement(items, true);
        }
        section("N_RESIDUAL_COV", std::vector{p.n_residual_cov, p.pos_residual});
        statement({p.residualfile});
        write_residual();
        for (const std::int32_t e : blocks_) {
            section("EFFECT_ID", std::vector{e, p.type_random[e - 1], p.n_correlated[e - 1], p.dim_g[e - 1]});
            write_block(e);
        }
        keyword("PHENO_FILE");
        statement({quoted(p.file[0][0])});
        if (chance(50)) text += "behind the end\n";
    }

    void write_block(std::int32_t e) {
        const param_type& p = expected;
        const random_type_entry& entry = *find_random_type(p.type_random[e - 1]);
        std::vector<std::string> items;
        for (const block_word word : entry.words)
            items.push_back(word == block_word::nupg ? std::to_string(p.nupg[e - 1])
                                                     : quoted(p.file[e][static_cast<std::size_t>(word)]));
        if (!items.empty()) statement(items);
        if (entry.covariance == block_covariance::matrix_file) {
            statement({quoted(p.gfile[e - 1])});
            std::string lines;
            for (std::int64_t i = 0; i < p.g[e - 1].rows(); ++i) {
                for (std::int64_t j = 0; j <= i; ++j)
                    lines += list_form(p.g[e - 1](i, j)) + (chance(20) ? "\n" : " ");
                lines += "\n";
            }
            folder_.write(p.gfile[e - 1], lines);
            return;
        }
        statement({quoted(p.file[e][0]), "1"});
        items.clear();
        append(items, p.link_effect[e - 1]);
        if (!items.empty()) statement(items);
    }

    void write_residual() {
        std::vector<std::string> lines;
        for (std::size_t c = 0; c < expected.r.size(); ++c) {
            for (std::int32_t i = 0; i < expected.ntrait; ++i) {
                lines.push_back(std::to_string(i + 1) + separator() + std::to_string(c + 1));
                for (std::int32_t j = 0; j <= i; ++j) lines.back() += " " + list_form(expected.r[c](i, j));
            }
        }
        std::ranges::shuffle(lines, random_);
        std::string all;
        for (const std::string& line : lines) all += line + "\n";
        folder_.write("residual.txt", all);
    }

    std::mt19937_64 random_;
    const test::temporary_directory& folder_;
    std::int32_t normal_ = 0;
    std::vector<std::int32_t> blocks_;
};

TEST_F(WriteParameterFile, GivesBackEveryRandomModelThatWasRead) {
    std::array<std::int32_t, 300> blocks_of_code{};
    for (std::uint64_t seed = 1; seed <= 400; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const model_generator model(seed, folder_);
        folder_.write("m.par", model.text);
        folder_.write("NOT_STORED", folder_.read("residual.txt"));

        param_type first = read("m.par");
        ASSERT_EQ(first, model.expected) << model.text;
        write_parameter_file(first, "copy.par", log_);
        const param_type second = read("copy.par");

        first.residualfile = "NOT_STORED";
        first.lnames = false;
        first.name_effect = first.type_char = std::vector<std::string>(first.name_effect.size());
        ASSERT_EQ(second, first) << model.text << folder_.read("copy.par");
        for (const std::int32_t code : first.type_random) ++blocks_of_code[static_cast<std::size_t>(code)];
    }
    for (const auto& entry : random_types())
        EXPECT_GE(blocks_of_code[static_cast<std::size_t>(entry.code)], 20) << entry.code;
}

}  // namespace
}  // namespace zendar
