#include "modsimulate_genotypes.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>

#include "modsimulate_random.hpp"

namespace zendar::simulate {
namespace {

constexpr std::int64_t snps_of_block = 64;
constexpr double unit = 0x1p-40;  // of SNP effects

/// Effects of the second allele in units, SNP by SNP for each value, and the mean of founders.
struct snp_effects {
    std::vector<std::vector<std::int64_t>> effect;
    std::vector<std::int64_t> mean;
};

snp_effects make_effects(const simulate_options& options, snp_data& snps) {
    random_stream random(options.seed, subject::snp_effects);
    const std::int32_t nvalue = options.nvalue();
    const std::vector<double> l = cholesky(options.genetic_matrix(), nvalue);
    for (std::int32_t j = 0; j < options.snps; ++j) {
        const double p = snps.frequency.emplace_back(0.05 + 0.9 * random.uniform());
        snps.sum2pq += 2.0 * p * (1.0 - p);
    }
    const double scale = std::sqrt((1.0 - polygenic_share) / snps.sum2pq) / unit;
    snp_effects result;
    result.effect.resize(static_cast<std::size_t>(nvalue));
    std::vector<double> mean(static_cast<std::size_t>(nvalue)), z(static_cast<std::size_t>(nvalue));
    for (std::int32_t j = 0; j < options.snps; ++j) {
        for (double& deviate : z) deviate = random.normal();
        for (std::int32_t v = 0; v < nvalue; ++v) {
            double a = 0.0;
            for (std::int32_t k = 0; k <= v; ++k) a += l[v * nvalue + k] * z[k];
            const std::int64_t units = std::llround(scale * a);
            result.effect[v].push_back(units);
            mean[v] += 2.0 * snps.frequency[j] * static_cast<double>(units);
        }
    }
    for (const double m : mean) result.mean.push_back(std::llround(m));
    return result;
}

/// The two haplotypes of an animal over the SNPs of a block, a bit each, and the strands of its parents that
/// they go on with behind the block.
struct haplotypes {
    std::array<std::uint64_t, 2> alleles{};
    std::array<std::uint8_t, 2> strand{};
};

/// How many crossovers a gamete has in a block: Poisson numbers by their cumulative probabilities.
class crossover_counts {
  public:
    explicit crossover_counts(double mean) {
        double exponential = 1.0, power = 1.0, sum = 0.0;  // exp(mean), by its series
        for (int k = 1; k < 40; ++k) exponential += power *= mean / k;
        double term = 1.0 / exponential;
        for (std::size_t k = 0; k < below_.size(); ++k) {
            sum += term;
            term *= mean / static_cast<double>(k + 1);
            below_[k] = static_cast<std::uint64_t>(sum * 0x1p32);
        }
    }
    [[nodiscard]] std::int32_t count(std::uint64_t bits32) const {
        std::int32_t n = 0;
        while (n < std::ssize(below_) && bits32 >= below_[n]) ++n;
        return n;
    }

  private:
    std::array<std::uint64_t, 12> below_{};
};

/// A block of SNPs of one chromosome.
struct snp_block {
    std::int64_t first = 0, n = 0;
    std::array<std::uint64_t, snps_of_block> threshold{};  ///< frequencies times 2^32
    crossover_counts crossovers;

    [[nodiscard]] std::uint64_t founder_alleles(random_stream& random) const {
        std::uint64_t alleles = 0;
        for (std::int64_t k = 0; k < n; k += 2) {
            const std::uint64_t bits = random.bits();
            alleles |= std::uint64_t{(bits & 0xffffffff) < threshold[k]} << k;
            if (k + 1 < n) alleles |= std::uint64_t{bits >> 32 < threshold[k + 1]} << (k + 1);
        }
        return alleles;
    }
    /// What a parent hands down; the crossover before a SNP is as likely for each SNP of the block.
    std::uint64_t gamete(const haplotypes& parent, std::uint8_t& strand, random_stream& random) const {
        const std::uint64_t bits = random.bits();
        const std::size_t old = strand;
        const std::int32_t count = crossovers.count(bits >> 32);
        std::uint64_t other = 0,
                      place = bits & 0xffffffff;  // `other`: SNPs of the strand that is not the old
        for (std::int32_t k = 0; k < count; ++k) {
            if (k > 0) place = random.bits() >> 32;
            other ^= ~std::uint64_t{0} << (place * static_cast<std::uint64_t>(n) >> 32);
        }
        strand ^= static_cast<std::uint8_t>(count & 1);
        return (parent.alleles[old] & ~other) | (parent.alleles[1 - old] & other);
    }
};

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

/// Dropping of the genes of one chromosome.
struct gene_drop {
    const simulate_options& options;
    const population& animals;
    const snp_effects& effects;
    snp_data& snps;

    [[nodiscard]] std::int64_t first_of(std::int64_t chromosome) const {
        return chromosome * options.snps / options.chromosomes;
    }
    void pack(const std::vector<haplotypes>& own, const snp_block& block) const {
        constexpr std::array<std::uint8_t, 3> codes = {0, 2, 3};
        const std::int64_t nbytes = (std::int64_t{options.genotyped} + 3) / 4,
                           from = std::int64_t{options.animals} - options.genotyped;
        for (std::int64_t i = 0; i < options.genotyped; ++i) {
            const auto& [paternal, maternal] = own[from + i].alleles;
            for (std::int64_t j = 0; j < block.n; ++j)
                snps.bed[(block.first + j) * nbytes + i / 4] |= static_cast<std::uint8_t>(
                    codes[(paternal >> j & 1) + (maternal >> j & 1)] << (2 * (i % 4)));
        }
    }
    /// Sums go to nvalue units for each animal.
    void drop(std::int64_t chromosome, std::vector<std::int64_t>& sums) const {
        const std::int64_t first = first_of(chromosome), last = first_of(chromosome + 1);
        if (first == last) return;  // fewer SNPs than chromosomes
        const auto nvalue = std::ssize(effects.effect);
        random_stream random(options.seed, subject::chromosomes, static_cast<std::uint64_t>(chromosome));
        std::vector<haplotypes> own(animals.parents.size());
        for (haplotypes& h : own) {
            const std::uint64_t bits = random.bits();
            h.strand = {static_cast<std::uint8_t>(bits & 1), static_cast<std::uint8_t>(bits >> 1 & 1)};
        }
        for (std::int64_t j0 = first; j0 < last; j0 += snps_of_block) {
            const std::int64_t n = std::min(snps_of_block, last - j0);
            snp_block block{
                j0, n, {}, crossover_counts(static_cast<double>(n) / static_cast<double>(last - first))};
            for (std::int64_t j = 0; j < n; ++j)
                block.threshold[j] = static_cast<std::uint64_t>(snps.frequency[j0 + j] * 0x1p32);
            std::vector<effect_tables> tables;
            for (const auto& effect : effects.effect) tables.emplace_back(effect.data() + j0, n);
            for (std::size_t i = 0; i < own.size(); ++i) {
                for (std::size_t side = 0; side < 2; ++side) {
                    const std::int32_t parent = animals.parents[i][side];
                    own[i].alleles[side] = animals.is_animal(parent)
                                               ? block.gamete(own[parent - 1], own[i].strand[side], random)
                                               : block.founder_alleles(random);
                }
                for (std::int64_t v = 0; v < nvalue; ++v)
                    sums[static_cast<std::int64_t>(i) * nvalue + v] +=
                        tables[v].sum(own[i].alleles[0]) + tables[v].sum(own[i].alleles[1]);
            }
            pack(own, block);
        }
    }
};

}  // namespace

snp_data drop_genes(const simulate_options& options, const population& animals, std::vector<double>& values) {
    snp_data snps;
    const snp_effects effects = make_effects(options, snps);
    snps.bed.assign(static_cast<std::size_t>((std::int64_t{options.genotyped} + 3) / 4 * options.snps), 0);
    const gene_drop genes{options, animals, effects, snps};
    std::vector<std::int64_t> sums(values.size(), 0);
#pragma omp parallel default(none) shared(options, genes, sums)
    {
        std::vector<std::int64_t> own(sums.size(), 0);
#pragma omp for schedule(dynamic)
        for (std::int64_t chromosome = 0; chromosome < options.chromosomes; ++chromosome)
            genes.drop(chromosome, own);
#pragma omp critical
        std::transform(own.begin(), own.end(), sums.begin(), sums.begin(), std::plus<>());
    }
    const std::size_t nvalue = effects.mean.size();
    for (std::size_t i = 0; i < sums.size(); ++i)
        values[i] += unit * static_cast<double>(sums[i] - effects.mean[i % nvalue]);
    return snps;
}

}  // namespace zendar::simulate
