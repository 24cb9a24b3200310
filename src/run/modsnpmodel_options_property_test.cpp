#include <gmock/gmock.h>

#include <array>
#include <cmath>
#include <random>

#include "option_reader.hpp"

namespace zendar {
namespace {

using test::option_reader;

/// Random option lines with arguments that fit a model.
class random_options {
  public:
    random_options(unsigned seed, std::int32_t neffect, std::int32_t ntrait, std::string directory)
        : random_(seed), neffect_(neffect), ntrait_(ntrait), directory_(std::move(directory)) {}

    std::string line() {
        const auto choice = upto(static_cast<std::int32_t>(forms.size())) - 1;
        std::string text = "!";
        for (const char c : forms[static_cast<std::size_t>(choice)]) text += argument(c);
        return text + "\n";
    }
    std::int32_t upto(std::int32_t n) { return std::uniform_int_distribution<std::int32_t>(1, n)(random_); }

  private:
    // E effect, L counted list of effects, V real, W positive real, I integer, J positive integer, F file
    // name, D directory, T traits, X letter of a single effect, G letter and range of a group; other
    // characters stand for themselves.
    static constexpr auto forms = std::to_array<std::string_view>({"acrosseff F 2 E E",
                                                                   "allelefreq F L",
                                                                   "alpha V",
                                                                   "beta V",
                                                                   "checkpd",
                                                                   "combieff ET",
                                                                   "computeeigen I",
                                                                   "gapy F L",
                                                                   "gapy F L",
                                                                   "gima22i F L",
                                                                   "ktamatrix F L",
                                                                   "miraculix E",
                                                                   "miraculix_gpu E",
                                                                   "quorlen",
                                                                   "solquorlen",
                                                                   "nphen I",
                                                                   "no_beta_snp",
                                                                   "notuseasparse",
                                                                   "omega V",
                                                                   "outputdir D",
                                                                   "phendev",
                                                                   "phendev L",
                                                                   "plotsolutions",
                                                                   "precondzaaaz",
                                                                   "printprecond",
                                                                   "priormean F",
                                                                   "providedrhs F",
                                                                   "pvalue E F F F",
                                                                   "qptransfo F L",
                                                                   "structprecond X L",
                                                                   "structprecond X L",
                                                                   "structprecond G",
                                                                   "structprecond G",
                                                                   "structprecond a",
                                                                   "sum2pq V",
                                                                   "sumeffect E E",
                                                                   "solstream",
                                                                   "tamatrix F L",
                                                                   "tamatrix_blocks E J",
                                                                   "tageno F L",
                                                                   "taplink F L",
                                                                   "tau V",
                                                                   "thread_effect",
                                                                   "useasparse",
                                                                   "weightupg V",
                                                                   "yhat",
                                                                   "yhat L",
                                                                   "altconv",
                                                                   "convcrit W",
                                                                   "convtol V",
                                                                   "computegalerkin",
                                                                   "computefinalrhs",
                                                                   "conveff E",
                                                                   "conveffs L",
                                                                   "convpart E",
                                                                   "convtype cr",
                                                                   "convtype cd",
                                                                   "convtype ck",
                                                                   "convtype ck V",
                                                                   "convtype cm V",
                                                                   "convtype cc V V",
                                                                   "convtype x V V",
                                                                   "deflationmat F",
                                                                   "galerkin F",
                                                                   "harville",
                                                                   "iterfile F",
                                                                   "maxiter I",
                                                                   "miniter I",
                                                                   "noesteigen",
                                                                   "noesteig",
                                                                   "peek I J",
                                                                   "printlhs",
                                                                   "eigenlhs",
                                                                   "restart",
                                                                   "scaleinvprec W L",
                                                                   "scaleinvprec W L",
                                                                   "solver pardiso",
                                                                   "solver fpcg_inmem",
                                                                   "solver pcg_inmem",
                                                                   "solver pcg_inmem_block",
                                                                   "solver dpcg_inmem J",
                                                                   "solver dpcg_inmem",
                                                                   "solver pcg_iod",
                                                                   "solver dpcg_iod J",
                                                                   "solver dpcg_iod_real F",
                                                                   "solver cheb_iod V V",
                                                                   "solver cheb_iod V",
                                                                   "solver unknown",
                                                                   "startsol F",
                                                                   "statprevioussol",
                                                                   "nwritetmpsol J",
                                                                   "andeffect A",
                                                                   "inbreeding sargo",
                                                                   "inbreeding meuw",
                                                                   "miss_phen V",
                                                                   "notoptimem",
                                                                   "optimem 0",
                                                                   "optimem 1",
                                                                   "optimem 5"});

    double real() {
        const double exponent = std::uniform_real_distribution<double>(-20.0, 20.0)(random_);
        return std::uniform_real_distribution<double>(0.1, 1.0)(random_) * std::pow(10.0, exponent);
    }
    static std::string text_of(double x) {
        std::ostringstream text;
        text.precision(15);
        text << x;
        return text.str();
    }
    std::string list(std::int32_t n) {
        std::string text;
        for (std::int32_t i = 0; i < n; ++i) text += " " + std::to_string(upto(neffect_));
        return text;
    }
    std::string argument(char c) {
        switch (c) {
            case 'E':
                return std::to_string(upto(neffect_));
            case 'L': {
                const std::int32_t n = upto(5);
                return std::to_string(n) + list(n);
            }
            case 'A': {  // effects that share the equations of the first one
                const std::int32_t n = upto(3);
                return std::to_string(n) + " 1" + list(n);
            }
            case 'V':
                return (upto(2) == 1 ? "-" : "") + text_of(real());
            case 'W':
                return text_of(real());
            case 'I':
                return std::to_string(upto(60000) - 100);
            case 'J':
                return std::to_string(upto(1000));
            case 'F': {
                const std::array names{"none", "a.dat", "b.dat", "dir/c.bin", "ca491pcn.bin", "ca452cnv.dat"};
                return names[static_cast<std::size_t>(upto(6)) - 1];
            }
            case 'D': {
                const std::array ends{".", "./", "one", "one/two", "three/"};
                const std::size_t i = static_cast<std::size_t>(upto(5)) - 1;
                return (i < 2 ? "" : directory_ + "/") + ends[i];
            }
            case 'T': {
                std::string text;
                for (std::int32_t t = 0; t < ntrait_; ++t) text += " " + std::to_string(upto(ntrait_));
                return text;
            }
            case 'X':
                return std::string(1,
                                   std::string_view("dDbBwWuUcCNxz")[static_cast<std::size_t>(upto(13)) - 1]);
            case 'G': {
                const std::int32_t a = upto(neffect_), b = upto(neffect_);
                return std::string(1, "fFsSrR"[upto(6) - 1]) + " " + std::to_string(std::min(a, b)) + " " +
                       std::to_string(std::max(a, b));
            }
            default:
                return {c};
        }
    }

    std::mt19937 random_;
    std::int32_t neffect_, ntrait_;
    std::string directory_;
};

TEST(WriteOptions, GiveTheSameRecordWhenTheyAreReadAgain) {
    std::size_t lines_written = 0;
    for (unsigned seed = 1; seed <= 500; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 size(seed);
        const auto neffect = static_cast<std::int32_t>(1 + size() % 6),
                   ntrait = static_cast<std::int32_t>(1 + size() % 4);
        const bool second_file = size() % 2 == 0;
        const std::int32_t random_type = size() % 5 == 0 ? 22 : 0;
        option_reader first(neffect, ntrait), second(neffect, ntrait);
        first.param.type_random.back() = second.param.type_random.back() = random_type;
        random_options options(seed, neffect, ntrait, first.directory.path().string());
        for (int file = 0; file <= (second_file ? 1 : 0); ++file) {
            std::string lines;
            for (std::int32_t n = options.upto(30); n > 0; --n) lines += options.line();
            first.all(lines);
        }

        const std::string written = first.written();
        second.all(written);

        EXPECT_TRUE(first.param == second.param) << written << "\n" << second.written();
        EXPECT_EQ(first.options.loptimem, second.options.loptimem);
        EXPECT_EQ(first.options.inbmethod, second.options.inbmethod);
        EXPECT_EQ(first.options.rmissing, second.options.rmissing);
        EXPECT_EQ(second.written(), written);
        EXPECT_EQ(second.count("will be ignored"), 0) << second.logged();
        EXPECT_EQ(second.count("Unknown"), 0);
        lines_written += static_cast<std::size_t>(std::ranges::count(written, '\n'));
    }
    EXPECT_GT(lines_written, 5000U);
}

}  // namespace
}  // namespace zendar
