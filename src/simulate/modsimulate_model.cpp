#include <string>
#include <vector>

#include "modbasic.hpp"
#include "modsimulate_genotypes.hpp"
#include "modsimulate_traits.hpp"
#include "modsimulate_write.hpp"

namespace zendar::simulate {
namespace {

/// Lower triangle of the rows of a matrix, a line each.
void write_triangle(text_file& file, const std::vector<double>& m, std::int32_t n, bool residual) {
    for (std::int32_t i = 0; i < n; ++i) {
        if (residual) file.integer(i + 1).text(" 1 ");
        for (std::int32_t j = 0; j <= i; ++j) file.general(m[i * n + j]).text(j == i ? "\n" : " ");
    }
    file.close();
}

std::vector<double> diagonal(const std::vector<double>& values) {
    const std::size_t n = values.size();
    std::vector<double> m(n * n, 0.0);
    for (std::size_t i = 0; i < n; ++i) m[i * n + i] = values[i];
    return m;
}

/// The text of an instruction file, built effect by effect.
class instructions {
  public:
    instructions(const simulate_options& options, const std::string& data) : options_(options), data_(data) {}

    /// @returns the number of the effect.
    std::int32_t effect(std::int32_t column, std::int32_t type, std::int32_t nlevel, std::int32_t ncov,
                        const std::string& file) {
        for (std::int32_t t = 0; t < options_.traits; ++t) effects_ += inttochar(column) + " ";
        effects_ += inttochar(type) + " " + inttochar(nlevel) + " " + inttochar(ncov) + " ";
        for (std::int32_t t = 0; t < options_.traits; ++t) effects_ += "0 ";
        effects_ += "0 " + file + "\n";
        return ++neffect_;
    }
    void random(std::int32_t effect, std::int32_t type, std::int32_t ncorrelated, std::int32_t order,
                const std::string& lines) {
        random_ += "EFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n" + inttochar(effect) + " " +
                   inttochar(type) + " " + inttochar(ncorrelated) + " " + inttochar(order) + "\n" + lines;
    }
    void write(const std::string& name, const std::string& last, logger& log) const {
        std::string traits, weights;
        for (std::int32_t t = 1; t <= options_.traits; ++t) {
            traits += (t == 1 ? "" : " ") + inttochar(t);
            weights += t == 1 ? "0" : " 0";
        }
        text_file file(options_.folder, name, log);
        file.text("N_TRAITS\n" + inttochar(options_.traits) + "\nN_WEIGHTS\n0\nN_EFFECTS\n" +
                  inttochar(neffect_) + "\nPOS_TRAITS\n" + traits + "\nPOS_WEIGHTS\n" + weights +
                  "\nPOS_EFFECTS TYPE_EFFECT N_LEVEL N_COV POS_NESTED N_LEVEL COV_FILE\n" + effects_ +
                  "N_RESIDUAL_COV\n1 0\nresidual.txt\n" + random_ + "PHENO_FILE\n" + data_ + "\n" + last);
        file.close();
    }

  private:
    const simulate_options& options_;
    std::string data_, effects_, random_;
    std::int32_t neffect_ = 0;
};

/// Herd, animal, what the options add, and the SNPs of single-step models.
void write_animal_model(const simulate_options& options, const population& animals, const std::string& name,
                        std::int32_t type, std::int32_t snp_type, logger& log) {
    const data_columns column(options);
    const std::int32_t nt = options.traits, n = animals.nanimal();
    const bool groups = type != 3, maternal = options.has_maternal();
    instructions par(options, "data.txt");
    par.effect(column.herd, 0, options.herds, 1, "none");
    const std::int32_t animal = par.effect(column.animal, 0, animals.nlevel(), 1, "none");
    if (maternal) par.effect(column.dam, 0, animals.nlevel(), 1, "none");
    par.random(animal, type, maternal ? 1 : 0, options.nvalue(),
               "pedigree.txt" + (groups ? " " + inttochar(animals.ngroup) : std::string()) + " compute" +
                   (type == 7 ? " gamma.txt" : "") + "\ng.txt\n");
    if (options.has_permanent())
        par.random(par.effect(column.animal, 0, n, 1, "none"), 1, 0, nt, "g_permanent.txt\n");
    if (maternal) par.random(par.effect(column.dam, 0, n, 1, "none"), 1, 0, nt, "g_permanent.txt\n");
    if (snp_type > 0)  // records meet the SNP effects of type 22 only
        par.random(par.effect(snp_type == 22 ? column.genotyped : column.none, 3, n, options.snps, "snp.bed"),
                   snp_type, 0, nt, "compute 1\n" + inttochar(animal) + "\n");
    par.write(name, "", log);
}

void write_snp_model(const simulate_options& options, const snp_data& snps, logger& log) {
    const data_columns column(options);
    const std::int32_t nt = options.traits;
    instructions par(options, "data_snp.txt");
    par.effect(column.herd, 0, options.herds, 1, "none");
    par.random(par.effect(column.animal, 3, options.animals, options.snps, "snp.bed"), 23, 0, nt,
               "snpcov.txt 1\n");
    par.write("model_snpblup.par", "!alpha 1.0\n!no_beta_snp\n", log);
    text_file covariances(options.folder, "snpcov.txt", log);
    const std::vector<double> g = options.genetic_matrix();
    for (std::int64_t j = 0; j < options.snps; ++j)
        for (std::int64_t s = 0; s < nt; ++s)
            for (std::int64_t t = 0; t <= s; ++t)
                covariances.integer(j * nt + s + 1)
                    .text(" ")
                    .integer(j * nt + t + 1)
                    .text(" ")
                    .general(g[s * nt + t] / snps.sum2pq)
                    .text("\n");
    covariances.close();
}

}  // namespace

void write_models(const simulate_options& options, const population& animals, const snp_data& snps,
                  logger& log) {
    text_file g(options.folder, "g.txt", log), r(options.folder, "residual.txt", log);
    write_triangle(g, options.genetic_matrix(), options.nvalue(), false);
    write_triangle(r, options.residual_matrix(), options.traits, true);
    if (options.has_permanent() || options.has_maternal()) {
        text_file permanent(options.folder, "g_permanent.txt", log);
        write_triangle(permanent, diagonal(options.permanent), options.traits, false);
    }
    const std::int32_t type = animals.ngroup > 0 ? 5 : 3;
    for (const std::string& word : options.models) {
        if (word == "animal") write_animal_model(options, animals, "model.par", type, 0, log);
        if (word == "randomgroups") write_animal_model(options, animals, "model_groups.par", 9, 0, log);
        if (word == "ssgblup22") write_animal_model(options, animals, "model22.par", type, 22, log);
        if (word == "ssgblup30") write_animal_model(options, animals, "model30.par", type, 30, log);
        if (word == "snpblup") write_snp_model(options, snps, log);
        if (word != "metafounders") continue;
        write_animal_model(options, animals, "model_metafounders.par", 7, 0, log);
        text_file gamma(options.folder, "gamma.txt", log);
        for (std::int32_t i = 1; i <= animals.ngroup; ++i)
            for (std::int32_t j = 1; j <= i; ++j)
                gamma.integer(i).text(" ").integer(j).text(i == j ? " 0.5\n" : " 0.25\n");
        gamma.close();
    }
}

}  // namespace zendar::simulate
