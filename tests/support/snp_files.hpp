#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <utility>

#include "program_run.hpp"

/// Small models with SNP effects, run by the program itself.
namespace zendar::test {

inline std::string packed(const std::vector<std::string>& snps) {
    std::string bed = "\x6C\x1B\x01";
    for (const std::string& snp : snps) {
        std::string column((snp.size() + 3) / 4, '\0');
        for (std::size_t i = 0; i < snp.size(); ++i) {
            const int code = snp[i] == '0' ? 0 : snp[i] == '1' ? 2 : snp[i] == '2' ? 3 : 1;
            column[i / 4] = static_cast<char>(column[i / 4] | code << 2 * (i % 4));
        }
        bed += column;
    }
    return bed;
}

/// A mean, an animal effect of six animals, and four SNPs of five of them. Tests change one thing in it.
struct snp_files {
    int type;
    std::vector<std::string> snps = {"01210", "21001", "10122", "00121"};  ///< per SNP; '-': missing
    std::string bed = packed(snps);
    std::string bim = "1 a 0 1 A B\n1 b 0 2 A B\n1 c 0 3 A B\n1 d 0 4 A B\n";
    std::string fam = "1 2 0 0 0 -9\n1 3 0 0 0 -9\n1 4 0 0 0 -9\n1 5 0 0 0 -9\n1 6 0 0 0 -9\n";
    std::string effects = "1 0 1 1 0 0 none\n2 0 6 1 0 0 none\n3 3 6 4 0 0 geno.bed\n";
    std::string animals = "2 3 0 1\nped.txt compute\ng.txt\n";
    std::string snp_block;
    std::string cov = "1 1 0.3\n2 2 0.3\n3 3 0.3\n4 4 0.3\n";
    std::string data = "1 1 0 12\n1 2 2 10.5\n1 3 3 11.5\n1 4 4 9.25\n1 5 5 8\n1 6 6 8.5\n1 6 6 9\n";
    std::string options;
    std::vector<std::pair<std::string, std::string>> more;  ///< further files

    explicit snp_files(int random_type = 23) : type(random_type) {
        if (linked())
            snp_block = "3 " + std::to_string(type) + " 0 4\nsnpcov.txt 1\n2\n";
        else if (type > 0)
            snp_block = "3 " + std::to_string(type) + " 0 4\nsnpcov.txt 1\n";
        if (type == 30) data = "1 1 0 12\n1 2 0 10.5\n1 3 0 11.5\n1 4 0 9.25\n1 5 0 8\n1 6 0 8.5\n1 6 0 9\n";
    }
    [[nodiscard]] bool linked() const { return type == 22 || type == 30; }

    void set_snps(const std::vector<std::string>& to) { bed = packed(snps = to); }
    static void replace(std::string& text, const std::string& piece, const std::string& by) {
        const auto at = text.find(piece);
        if (at == std::string::npos) throw std::logic_error("no such piece: " + piece);
        text.replace(at, piece.size(), by);
    }

    void write(const temporary_directory& directory) const {
        const auto neffect = std::count(effects.begin(), effects.end(), '\n');
        directory.write("model.par",
                        "N_TRAITS\n1\nN_WEIGHTS\n0\nN_EFFECTS\n" + std::to_string(neffect) +
                            "\nPOS_TRAITS\n4\nPOS_WEIGHTS\n0\n"
                            "POS_EFFECTS TYPE_EFFECT N_LEVEL N_COV POS_NESTED N_LEVEL COV_FILE\n" +
                            effects + "N_RESIDUAL_COV\n1 0\nresidual.txt\n" +
                            (animals.empty() ? "" : "EFFECT_ID TYPE N_CORRELATED DIM\n" + animals) +
                            (snp_block.empty() ? "" : "EFFECT_ID TYPE N_CORRELATED DIM\n" + snp_block) +
                            "PHENO_FILE\ndata.txt\n!convcrit 1.0e-18\n" + options);
        for (const auto& [name, text] : {std::pair{"geno.bed", &bed},
                                         {"geno.bim", &bim},
                                         {"geno.fam", &fam},
                                         {"snpcov.txt", &cov},
                                         {"data.txt", &data}})
            directory.write(name, *text);
        directory.write("residual.txt", "1 1 2.5\n");
        directory.write("g.txt", "0.5\n");
        directory.write("ped.txt", "1 0 0\n2 0 0\n3 1 2\n4 1 2\n5 1 0\n6 3 4\n");
        for (const auto& [name, text] : more) {
            if (text == "remove")
                std::filesystem::remove(directory / name);
            else
                directory.write(name, text);
        }
    }
};

struct snp_case {
    const char* name;
    int type;
    std::function<void(snp_files&)> change;
    std::vector<const char*> messages;
};

inline void PrintTo(const snp_case& input, std::ostream* os) {
    *os << input.name;
}

inline auto set(std::string snp_files::*which, std::string text) {
    return [=](snp_files& m) { m.*which = text; };
}
inline auto change(std::string snp_files::*which, std::string piece, std::string by) {
    return [=](snp_files& m) { snp_files::replace(m.*which, piece, by); };
}
inline auto option(std::string lines) {
    return set(&snp_files::options, std::move(lines));
}
inline auto remove_file(std::string name) {
    return [=](snp_files& m) { m.more = {{name, "remove"}}; };
}
inline auto frequencies(std::string text) {
    return [=](snp_files& m) { m.options = "!allelefreq freq.txt 1 3\n", m.more = {{"freq.txt", text}}; };
}
/// The SNP effect with coefficients of another file, which belong to the levels 2 to 6.
inline auto coefficients(std::string name, std::string text) {
    return [=](snp_files& m) {
        snp_files::replace(m.effects, "geno.bed", name);
        m.more = {{name, text}};
    };
}
/// Times a piece stands in a text.
inline int count(const std::string& text, const std::string& piece) {
    int n = 0;
    for (auto at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) ++n;
    return n;
}

/// Runs a model that has a fault: one error with the messages, and the files of an earlier run as they should
/// be.
inline void expect_refused(const snp_case& input) {
    using ::testing::HasSubstr;
    const temporary_directory run;
    snp_files files(input.type);
    input.change(files);
    files.write(run);
    std::filesystem::create_directory(run / "folder.bed");
    run.write("OK_ZENDAR", "");
    run.write("solutions.dat", "of an earlier run\n");

    const auto result = run_program(run.path(), {"model.par", "--ncpus", "1"});

    EXPECT_EQ(result.status, 1);
    const std::string text = unwrapped(result.out);
    for (const char* message : input.messages) EXPECT_THAT(text, HasSubstr(message));
    EXPECT_EQ(count(text, "): ERROR: ") + count(text, "): I/O ERROR: ") + count(text, "\n ERROR ("), 1)
        << result.out;
    EXPECT_EQ(result.error, "");
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
    EXPECT_EQ(run.read("solutions.dat"), "of an earlier run\n");
}

/// The values of "solutions.dat" by effect, all of which must be numbers.
inline std::vector<std::vector<double>> finite_solutions(const temporary_directory& run) {
    std::vector<std::vector<double>> effects;
    std::istringstream in(run.read("solutions.dat"));
    int t = 0, e = 0, level = 0, covariable = 0;
    for (std::string value; in >> t >> e >> level >> covariable >> value;) {
        effects.resize(std::max(effects.size(), static_cast<std::size_t>(e)));
        effects[static_cast<std::size_t>(e) - 1].push_back(std::strtod(value.c_str(), nullptr));
        EXPECT_TRUE(std::isfinite(effects[static_cast<std::size_t>(e) - 1].back())) << e << ": " << value;
    }
    return effects;
}

inline std::vector<std::vector<double>> solve(const snp_files& files,
                                              std::vector<const char*> messages = {}) {
    const temporary_directory run;
    files.write(run);
    const auto result = run_program(run.path(), {"model.par", "--ncpus", "1"});
    EXPECT_EQ(result.status, 0) << result.out << result.error;
    EXPECT_EQ(result.error, "");
    EXPECT_TRUE(run.exists("OK_ZENDAR"));
    for (const char* message : messages) EXPECT_THAT(unwrapped(result.out), ::testing::HasSubstr(message));
    return finite_solutions(run);
}

inline void expect_close(const std::vector<std::vector<double>>& a,
                         const std::vector<std::vector<double>>& b) {
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t e = 0; e < a.size(); ++e) {
        ASSERT_EQ(a[e].size(), b[e].size());
        for (std::size_t i = 0; i < a[e].size(); ++i)
            EXPECT_NEAR(a[e][i], b[e][i], 1e-5 * std::max(1.0, std::fabs(b[e][i]))) << e + 1 << ' ' << i + 1;
    }
}

}  // namespace zendar::test
