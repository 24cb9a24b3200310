// zendar_genotype_product stem n|t weights.txt result.txt columns [plain|compressed]: reads PLINK genotypes
// and makes the product of the centred genotypes with the last columns of a text file.
//
// n: a line of weights for each SNP, a line of results for each individual; t: the other way round. Lines
// that begin with # are passed over. compressed: through the five-code store, which costs time to build.

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "miraculix.hpp"
#include "modbasic.hpp"
#include "modfile.hpp"
#include "modlogger.hpp"
#include "modplink.hpp"
#include "modview.hpp"

namespace {

using namespace zendar;

[[noreturn]] void stop(const std::string& text) {
    throw fatal_error(text);
}

text_reader open(const std::string& name) {
    text_reader file;
    if (const auto failure = file.open(name)) stop(name + ": " + failure->iomsg);
    return file;
}

/// The word of each line of a .bim or .fam file that names the SNP or individual, its second one.
std::vector<std::string> read_names(const std::string& file) {
    text_reader input = open(file);
    std::vector<std::string> names;
    while (const auto line = input.line()) {
        std::string_view rest = *line, word;
        for (int k = 0; k < 2; ++k) {
            rest.remove_prefix(std::min(rest.find_first_not_of(" \t"), rest.size()));
            word = rest.substr(0, rest.find_first_of(" \t"));
            rest.remove_prefix(word.size());
        }
        if (word.empty()) stop(file + ", line " + inttochar(input.line_number()) + ": the name is missing");
        names.emplace_back(word);
    }
    return names;
}

/// The SNPs of a .bed file, block by block into the same memory: fresh pages cost more than the file's bytes.
class bed_file {
  public:
    bed_file(const std::string& name, std::int64_t individuals, std::int64_t snps, std::int64_t block)
        : name_(name),
          input_(name, std::ios::binary),
          left_(snps),
          genotypes_(narrow<std::int32_t>(individuals), narrow<std::int32_t>(std::min(block, snps))) {
        char magic[3] = {};
        input_.read(magic, sizeof magic);
        if (!input_ || std::memcmp(magic, "\x6c\x1b\x01", sizeof magic) != 0)
            stop(name + " is not a SNP-major file of PLINK");
    }
    /// The next block; null behind the last SNP.
    const plink_genotypes* next() {
        if (left_ == 0) return nullptr;
        genotypes_.ncol = static_cast<std::int32_t>(std::min<std::int64_t>(genotypes_.ncol, left_));
        left_ -= genotypes_.ncol;
        input_.read(reinterpret_cast<char*>(genotypes_.ival.data()),
                    genotypes_.nbytes * static_cast<std::int64_t>(genotypes_.ncol));
        if (!input_) stop(name_ + " is too short");
        return &genotypes_;
    }

  private:
    std::string name_;
    std::ifstream input_;
    std::int64_t left_;
    plink_genotypes genotypes_;
};

matrix<double> read_weights(const std::string& file, std::int64_t rows, std::int64_t columns) {
    text_reader input = open(file);
    matrix<double> weights(rows, columns);
    std::int64_t row = 0;
    while (const auto line = input.line()) {
        if (line->starts_with('#')) continue;
        if (row == rows) stop(file + " has more than " + inttochar(rows) + " lines of weights");
        std::string_view rest = *line;
        for (std::int64_t j = columns - 1; j >= 0; --j) {
            rest = rest.substr(0, rest.find_last_not_of(" \t") + 1);
            const std::string_view word = rest.substr(rest.find_last_of(" \t") + 1);
            const char* const end = word.data() + word.size();
            const auto [last, status] = std::from_chars(word.data(), end, weights(row, j));
            if (status != std::errc() || last != end)
                stop(file + ", line " + inttochar(input.line_number()) + ": a number is expected");
            rest.remove_suffix(word.size());
        }
        ++row;
    }
    if (row < rows) stop(file + " has " + inttochar(row) + " of " + inttochar(rows) + " lines of weights");
    return weights;
}

void write_result(const std::string& file, const std::vector<std::string>& names,
                  const matrix<double>& result) {
    file_writer output;
    if (const auto failure = output.open(file)) stop(file + ": " + failure->iomsg);
    for (std::int64_t i = 0; i < result.rows(); ++i) {
        output.write(names[static_cast<std::size_t>(i)]);
        for (std::int64_t j = 0; j < result.cols(); ++j) {
            char* const to = output.reserve(32);
            to[0] = ' ';
            const auto [end, status] =
                std::to_chars(to + 1, to + 32, result(i, j), std::chars_format::general, 9);
            output.advance(static_cast<std::size_t>(end - to));
        }
        output.write("\n");
    }
    if (const auto failure = output.commit()) stop(file + ": " + failure->iomsg);
}

std::vector<double> frequencies_of(const plink_genotypes& genotypes) {
    std::vector<double> frequencies;
    for (const plink_counts& n : count_genotypes(genotypes)) {
        const double seen = 2.0 * (genotypes.nrow - n.missing);
        frequencies.push_back(seen > 0.0 ? (n.het + 2.0 * n.hom2) / seen : 0.0);
    }
    return frequencies;
}

void multiply_plain(bed_file& file, char trans, const matrix<double>& weights, matrix<double>& result,
                    logger& log) {
    const bool transposed = trans == 't';
    std::int64_t first = 0;
    while (const plink_genotypes* const genotypes = file.next()) {
        const std::vector<double> frequencies = frequencies_of(*genotypes);
        const std::int64_t snps = genotypes->ncol;
        dgemm_compressed(trans, 'n', transposed ? snps : result.rows(), result.cols(),
                         transposed ? weights.rows() : snps, 1.0, *genotypes, frequencies,
                         weights.data() + (transposed ? 0 : first), weights.rows(),
                         transposed || first == 0 ? 0.0 : 1.0, result.data() + (transposed ? first : 0),
                         result.rows(), log);
        first += snps;
    }
}

void multiply_compressed(bed_file& file, char trans, const matrix<double>& weights, matrix<double>& result) {
    const plink_genotypes& genotypes = *file.next();
    const std::vector<double> frequencies = frequencies_of(genotypes);
    miraculix::setOptions_compressed(0, 0, 0, 0, 1, 0, 0, 0, 0, 0);
    miraculix::compressed_store* store = nullptr;
    const auto columns = narrow<std::int32_t>(weights.cols());
    miraculix::plink2compressed(genotypes.ival.data(), nullptr, genotypes.ncol, genotypes.nrow,
                                frequencies.data(), columns, &store);
    miraculix::dgemm_compressed(trans, store, columns, weights.data(), weights.rows(), result.data(),
                                result.rows());
    miraculix::free_compressed(&store);
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const bool direction = words.size() >= 5 && (words[1] == "n" || words[1] == "t");
    const bool store =
        words.size() == 5 || (words.size() == 6 && (words[5] == "plain" || words[5] == "compressed"));
    std::int64_t columns = 0;
    if (direction) std::from_chars(words[4].data(), words[4].data() + words[4].size(), columns);
    if (!direction || !store || columns < 1 || columns > 1000) {
        static_cast<void>(std::fputs(
            "zendar_genotype_product stem n|t weights result columns [plain|compressed]\n", stderr));
        return 1;
    }
    try {
        logger log;
        const std::vector<std::string> snps = read_names(words[0] + ".bim"),
                                       individuals = read_names(words[0] + ".fam");
        const bool compressed = words.size() == 6 && words[5] == "compressed";
        constexpr std::int64_t block = 4096;
        const std::int64_t nsnp = std::ssize(snps);
        bed_file file(words[0] + ".bed", std::ssize(individuals), nsnp, compressed ? nsnp : block);
        const bool transposed = words[1] == "t";
        const auto& from = transposed ? individuals : snps;
        const auto& to = transposed ? snps : individuals;
        const matrix<double> weights = read_weights(words[2], std::ssize(from), columns);
        matrix<double> result(std::ssize(to), columns);
        if (compressed)
            multiply_compressed(file, words[1][0], weights, result);
        else
            multiply_plain(file, words[1][0], weights, result, log);
        write_result(words[3], to, result);
    } catch (const fatal_error& failure) {
        static_cast<void>(std::fprintf(stderr, "%s\n", failure.what()));
        return 1;
    }
    return 0;
}
