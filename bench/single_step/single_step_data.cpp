// zendar_single_step_data folder animals genotyped snps [seed]: writes a single-step model of 10 generations
// with a record for each animal and genotypes of the youngest ones, and its instruction files for random
// types 22 and 30.
//
// Genotypes come by gene dropping, 64 SNPs of all animals at a time; chromosomes are independent of each
// other.

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace {

constexpr std::int32_t generations = 10, herds = 5000, chromosomes = 29;
constexpr std::int64_t snps_of_block = 64;
constexpr double genetic_variance = 0.5, residual_variance = 1.0, polygenic_part = 0.05;
/// SNP effects are counted in these, so that their sums do not depend on the order of the chromosomes.
constexpr double unit = 0x1p-40;

struct sizes {
    std::int32_t nanimal = 0, ngenotyped = 0, nsnp = 0;
    std::uint64_t seed = 20240501;
    [[nodiscard]] std::int64_t first_genotyped() const { return nanimal - ngenotyped; }
    [[nodiscard]] std::int64_t bytes_of_snp() const { return (std::int64_t{ngenotyped} + 3) / 4; }
    /// The SNPs of a chromosome begin here.
    [[nodiscard]] std::int64_t first_of(std::int64_t chromosome) const {
        return chromosome * nsnp / chromosomes;
    }
};

/// Animals and parents from 0; founders have parents -1.
struct animal_parents {
    std::int32_t sire, dam;
};

/// The splitmix64 generator: one for each chromosome, small and fast.
class random_bits {
  public:
    using result_type = std::uint64_t;
    explicit random_bits(std::uint64_t seed) : state_(seed) {}
    static constexpr result_type min() { return 0; }
    static constexpr result_type max() { return ~result_type{0}; }
    result_type operator()() {
        std::uint64_t z = state_ += 0x9e3779b97f4a7c15;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }

  private:
    std::uint64_t state_;
};

std::vector<animal_parents> make_pedigree(const sizes& n) {
    std::mt19937_64 random(n.seed);
    const std::int32_t size = n.nanimal / generations, sires = std::max(size / 50, 1),
                       dams = std::max(size / 2, 1);
    std::vector<std::int32_t> codes(static_cast<std::size_t>(size));
    std::vector<animal_parents> pedigree(static_cast<std::size_t>(n.nanimal), {-1, -1});
    for (std::int32_t i = size; i < n.nanimal; ++i) {
        const std::int32_t generation = std::min(i / size, generations - 1);
        if (i % size == 0 && i / size < generations) {
            std::iota(codes.begin(), codes.end(), (generation - 1) * size);
            std::shuffle(codes.begin(), codes.end(), random);
        }
        pedigree[i].sire = codes[random() % static_cast<std::uint64_t>(sires)];
        pedigree[i].dam =
            codes[static_cast<std::uint64_t>(size - dams) + random() % static_cast<std::uint64_t>(dams)];
    }
    return pedigree;
}

struct snp_effects {
    std::vector<double> frequency;     ///< of the second allele among the founders
    std::vector<std::int64_t> effect;  ///< of a copy of it, in units
    std::int64_t mean = 0;             ///< of the sums of the founders, in units
};

snp_effects make_snp_effects(const sizes& n) {
    std::mt19937_64 random(n.seed + 1);
    std::uniform_real_distribution<double> frequency(0.05, 0.95);
    std::normal_distribution<double> normal;
    snp_effects snps;
    std::vector<double> effect(static_cast<std::size_t>(n.nsnp));
    double variance = 0.0;
    for (double& a : effect) {
        const double p = snps.frequency.emplace_back(frequency(random));
        a = normal(random);
        variance += 2.0 * p * (1.0 - p) * a * a;
    }
    const double scale = std::sqrt((1.0 - polygenic_part) * genetic_variance / variance) / unit;
    double mean = 0.0;
    for (std::size_t j = 0; j < effect.size(); ++j) {
        snps.effect.push_back(std::llround(scale * effect[j]));
        mean += 2.0 * snps.frequency[j] * static_cast<double>(snps.effect.back());
    }
    snps.mean = std::llround(mean);
    return snps;
}

/// The two haplotypes of an animal over the SNPs of a block, a bit each, and the strands of its parents that
/// they go on with behind the block.
struct haplotypes {
    std::uint64_t paternal = 0, maternal = 0;
    std::uint8_t strand_paternal = 0, strand_maternal = 0;
};

std::uint64_t founder_alleles(const std::vector<std::uint32_t>& threshold, random_bits& random) {
    std::uint64_t alleles = 0;
    for (std::size_t k = 0; k < threshold.size(); k += 2) {
        const std::uint64_t bits = random();
        alleles |= std::uint64_t{static_cast<std::uint32_t>(bits) < threshold[k]} << k;
        if (k + 1 < threshold.size())
            alleles |= std::uint64_t{static_cast<std::uint32_t>(bits >> 32) < threshold[k + 1]} << (k + 1);
    }
    return alleles;
}

/// What a parent hands down, with at most one crossover in a block.
std::uint64_t gamete(const haplotypes& parent, std::uint8_t& strand, std::uint32_t crossover,
                     random_bits& random) {
    const std::uint64_t first = strand == 0 ? parent.paternal : parent.maternal;
    const std::uint64_t bits = random();
    if (static_cast<std::uint32_t>(bits) >= crossover) return first;
    const std::uint64_t before = (std::uint64_t{1} << (bits >> 58)) - 1;
    const std::uint64_t second = strand == 0 ? parent.maternal : parent.paternal;
    strand ^= 1U;
    return (first & before) | (second & ~before);
}

/// Sums of the effects of the alleles, by a table for each 8 SNPs.
class effect_tables {
  public:
    effect_tables(const std::int64_t* effect, std::int64_t n) : table_(8 * 256, 0) {
        for (std::int64_t j = 0; j < n; ++j)
            for (std::int64_t byte = 0; byte < 256; ++byte)
                if ((byte >> (j % 8) & 1) != 0) table_[j / 8 * 256 + byte] += effect[j];
    }
    [[nodiscard]] std::int64_t sum(std::uint64_t alleles) const {
        std::int64_t s = 0;
        for (std::int64_t k = 0; k < 8; ++k)
            s += table_[k * 256 + static_cast<std::int64_t>(alleles >> (8 * k) & 255)];
        return s;
    }

  private:
    std::vector<std::int64_t> table_;
};

/// The PLINK bytes of the SNPs of a block, one column after the other.
void pack(const std::vector<haplotypes>& animals, const sizes& n, std::int64_t nsnp,
          std::vector<std::uint8_t>& bed) {
    constexpr std::array<std::uint8_t, 3> codes = {0, 2, 3};
    const std::int64_t nbytes = n.bytes_of_snp();
    bed.assign(static_cast<std::size_t>(nsnp * nbytes), 0);
    for (std::int64_t i = 0; i < n.ngenotyped; ++i) {
        const haplotypes& own = animals[n.first_genotyped() + i];
        for (std::int64_t j = 0; j < nsnp; ++j) {
            const std::uint64_t copies = (own.paternal >> j & 1) + (own.maternal >> j & 1);
            bed[j * nbytes + i / 4] |= static_cast<std::uint8_t>(codes[copies] << (2 * (i % 4)));
        }
    }
}

void write_at(std::FILE* file, std::int64_t offset, const std::vector<std::uint8_t>& bytes, bool& failed) {
#pragma omp critical(bed_file)
    if (std::fseek(file, static_cast<long>(offset), SEEK_SET) != 0 ||
        std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size())
        failed = true;
}

/// Drops the genes of one chromosome, writes the genotypes, and adds to the genetic values.
void drop_genes(const sizes& n, const std::vector<animal_parents>& pedigree, const snp_effects& snps,
                std::int64_t chromosome, std::FILE* bed, std::vector<std::int64_t>& values, bool& failed) {
    const std::int64_t first = n.first_of(chromosome), last = n.first_of(chromosome + 1);
    if (first == last) return;
    random_bits random(n.seed * 1000003 + static_cast<std::uint64_t>(chromosome));
    std::vector<haplotypes> animals(pedigree.size());
    for (haplotypes& own : animals) {
        const std::uint64_t bits = random();
        own.strand_paternal = bits & 1;
        own.strand_maternal = bits >> 1 & 1;
    }
    std::vector<std::uint8_t> bytes;
    for (std::int64_t j0 = first; j0 < last; j0 += snps_of_block) {
        const std::int64_t nsnp = std::min(snps_of_block, last - j0);
        std::vector<std::uint32_t> threshold;
        for (std::int64_t j = 0; j < nsnp; ++j)
            threshold.push_back(static_cast<std::uint32_t>(snps.frequency[j0 + j] * 0x1p32));
        const auto crossover =  // one Morgan a chromosome
            static_cast<std::uint32_t>(
                std::min(0.5, static_cast<double>(snps_of_block) / static_cast<double>(last - first)) *
                0x1p32);
        const effect_tables effects(snps.effect.data() + j0, nsnp);
        for (std::size_t i = 0; i < pedigree.size(); ++i) {
            haplotypes& own = animals[i];
            const auto [sire, dam] = pedigree[i];
            if (sire < 0) {
                own.paternal = founder_alleles(threshold, random);
                own.maternal = founder_alleles(threshold, random);
            } else {
                own.paternal = gamete(animals[sire], own.strand_paternal, crossover, random);
                own.maternal = gamete(animals[dam], own.strand_maternal, crossover, random);
            }
            values[i] += effects.sum(own.paternal) + effects.sum(own.maternal);
        }
        pack(animals, n, nsnp, bytes);
        write_at(bed, 3 + j0 * n.bytes_of_snp(), bytes, failed);
    }
}

/// Genotypes to a .bed file. @returns the genetic values by SNPs, with mean 0 among the founders
std::vector<double> write_genotypes(const std::filesystem::path& folder, const sizes& n,
                                    const std::vector<animal_parents>& pedigree, bool& failed) {
    const snp_effects snps = make_snp_effects(n);
    std::FILE* const bed = std::fopen((folder / "snp.bed").c_str(), "wb");
    if (bed == nullptr) {
        failed = true;
        return {};
    }
    write_at(bed, 0, {0x6C, 0x1B, 0x01}, failed);
    std::vector<std::int64_t> values(pedigree.size(), 0);
#pragma omp parallel default(none) shared(n, pedigree, snps, bed, values, failed)
    {
        std::vector<std::int64_t> own(pedigree.size(), 0);
#pragma omp for schedule(dynamic)
        for (std::int64_t chromosome = 0; chromosome < chromosomes; ++chromosome)
            drop_genes(n, pedigree, snps, chromosome, bed, own, failed);
#pragma omp critical
        std::transform(own.begin(), own.end(), values.begin(), values.begin(), std::plus<>());
    }
    if (std::fclose(bed) != 0) failed = true;
    std::vector<double> genetic;
    for (const std::int64_t value : values) genetic.push_back(unit * static_cast<double>(value - snps.mean));

    std::ofstream bim(folder / "snp.bim"), fam(folder / "snp.fam");
    for (std::int64_t chromosome = 0; chromosome < chromosomes; ++chromosome)
        for (std::int64_t j = n.first_of(chromosome); j < n.first_of(chromosome + 1); ++j)
            bim << chromosome + 1 << " snp" << j + 1 << " 0 " << j + 1 << " C A\n";
    for (std::int64_t i = n.first_genotyped() + 1; i <= n.nanimal; ++i) fam << "0 " << i << " 0 0 0 -9\n";
    failed = failed || !bim.flush() || !fam.flush();
    return genetic;
}

/// Lines: phenotype, herd, animal, the animal again where it has genotypes, 0.
void write_animals(const std::filesystem::path& folder, const sizes& n,
                   const std::vector<animal_parents>& pedigree, const std::vector<double>& by_snps,
                   bool& failed) {
    std::mt19937_64 random(n.seed + 2);
    std::normal_distribution<double> normal;
    std::vector<double> herd(herds), polygenic(pedigree.size());
    for (double& h : herd) h = 0.5 * normal(random);
    std::ofstream animals(folder / "pedigree.txt"), data(folder / "data.txt");
    const double founder = std::sqrt(polygenic_part * genetic_variance);
    for (std::size_t i = 0; i < pedigree.size(); ++i) {
        const auto [sire, dam] = pedigree[i];
        const std::size_t code = i + 1;
        animals << code << ' ' << sire + 1 << ' ' << dam + 1 << '\n';
        polygenic[i] =
            sire < 0 ? founder * normal(random)
                     : 0.5 * (polygenic[sire] + polygenic[dam]) + std::sqrt(0.5) * founder * normal(random);
        const std::uint64_t h = random() % herds;
        const double y =
            10.0 + herd[h] + by_snps[i] + polygenic[i] + std::sqrt(residual_variance) * normal(random);
        char number[32];
        static_cast<void>(std::snprintf(number, sizeof number, "%.3f ", y));
        data << number << h + 1 << ' ' << code << ' '
             << (static_cast<std::int64_t>(i) >= n.first_genotyped() ? code : 0) << " 0\n";
    }
    failed = failed || !animals.flush() || !data.flush();
}

/// Records meet the SNP effects of type 22 only.
void write_model(const std::filesystem::path& folder, const sizes& n, int type, bool& failed) {
    std::ofstream par(folder / ("model" + std::to_string(type) + ".par"));
    par << "N_TRAITS\n1\nN_WEIGHTS\n0\nN_EFFECTS\n3\nPOS_TRAITS\n1\nPOS_WEIGHTS\n0\n"
        << "POS_EFFECTS TYPE_EFFECT N_LEVEL N_COV POS_NESTED N_LEVEL COV_FILE\n"
        << "2 0 " << herds << " 1 0 0 none\n3 0 " << n.nanimal << " 1 0 0 none\n"
        << (type == 22 ? 4 : 5) << " 3 " << n.nanimal << ' ' << n.nsnp << " 0 0 snp.bed\n"
        << "N_RESIDUAL_COV\n1 0\nresidual.txt\n"
        << "EFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n2 3 0 1\npedigree.txt compute\ng.txt\n"
        << "EFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n3 " << type << " 0 1\ncompute 1\n2\n"
        << "PHENO_FILE\ndata.txt\n";
    failed = failed || !par.flush();
}

template <class T>
bool read_number(std::string_view word, T lowest, T largest, T& value) {
    const char* const end = word.data() + word.size();
    const auto [stop, status] = std::from_chars(word.data(), end, value);
    return status == std::errc() && stop == end && value >= lowest && value <= largest;
}

}  // namespace

int main(int argc, char** argv) {
    constexpr std::int32_t largest = 100'000'000;
    sizes n;
    if (argc < 5 || argc > 6 || !read_number(argv[2], 20, largest, n.nanimal) ||
        !read_number(argv[3], 1, n.nanimal, n.ngenotyped) || !read_number(argv[4], 1, largest, n.nsnp) ||
        (argc > 5 && !read_number(argv[5], std::uint64_t{0}, ~std::uint64_t{0}, n.seed))) {
        static_cast<void>(
            std::fputs("zendar_single_step_data folder animals genotyped snps [seed]\n", stderr));
        return 1;
    }
    const std::filesystem::path folder = argv[1];
    std::error_code no_folder;  // then no file can be opened
    std::filesystem::create_directories(folder, no_folder);
    bool failed = false;
    const std::vector<animal_parents> pedigree = make_pedigree(n);
    const std::vector<double> by_snps = write_genotypes(folder, n, pedigree, failed);
    if (!failed) {
        write_animals(folder, n, pedigree, by_snps, failed);
        write_model(folder, n, 22, failed);
        write_model(folder, n, 30, failed);
        std::ofstream g(folder / "g.txt"), residual(folder / "residual.txt");
        g << genetic_variance << '\n';
        residual << "1 1 " << residual_variance << '\n';
        failed = failed || !g.flush() || !residual.flush();
    }
    if (failed) static_cast<void>(std::fprintf(stderr, "The data cannot be written to %s\n", argv[1]));
    return failed ? 1 : 0;
}
