#include "modsimulate_traits.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <optional>

#include "modbasic.hpp"
#include "modsimulate_random.hpp"
#include "modsimulate_write.hpp"

namespace zendar::simulate {
namespace {

constexpr double missing_value = -9.0;

/// Normal deviates with given (co)variances.
class deviates {
  public:
    deviates(const std::vector<double>& covariances, std::int32_t n)
        : l_(cholesky(covariances, n)), z_(static_cast<std::size_t>(n)) {}
    /// The next ones, times a factor, are added to `to`.
    void add(double factor, random_stream& random, double* to) {
        for (double& z : z_) z = random.normal();
        const auto n = static_cast<std::int64_t>(z_.size());
        for (std::int64_t i = 0; i < n; ++i) {
            double sum = 0.0;
            for (std::int64_t k = 0; k <= i; ++k) sum += l_[i * n + k] * z_[k];
            to[i] += factor * sum;
        }
    }

  private:
    std::vector<double> l_, z_;
};

/// An independent effect of each level on each trait.
std::vector<double> class_effects(std::int64_t nlevel, const std::vector<double>& variances, double factor,
                                  random_stream& random) {
    std::vector<double> effects;
    effects.reserve(static_cast<std::size_t>(nlevel) * variances.size());
    for (std::int64_t level = 0; level < nlevel; ++level)
        for (const double variance : variances)
            effects.push_back(std::sqrt(factor * variance) * random.normal());
    return effects;
}

/// The files of records.
struct record_files {
    std::optional<text_file> data, snp, names;

    /// A record goes to data.txt, and by the other files' rules to them.
    void put(const simulate_options& options, const std::vector<double>& y, std::int32_t herd,
             std::int32_t animal, std::int32_t dam, const std::vector<std::string>& name) {
        const bool genotyped = animal > options.animals - options.genotyped;
        const auto put_numbers = [&](text_file& file) {
            for (const double value : y) file.fixed(value).text(" ");
            file.integer(herd).text(" ").integer(animal);
            if (options.genotyped > 0) file.text(" ").integer(genotyped ? animal : 0).text(" 0");
            if (dam > 0) file.text(" ").integer(dam);
            file.text("\n");
        };
        put_numbers(*data);
        if (snp && genotyped) put_numbers(*snp);
        if (!names) return;
        for (const double value : y) names->fixed(value).text(" ");
        names->text("herd").text(herd < 10 ? "0" : "").integer(herd).text(" ").text(name[animal - 1]);
        if (dam > 0) names->text(" ").text(name[dam - 1]);
        names->text("\n");
    }
    void close() {
        for (auto* file : {&data, &snp, &names})
            if (*file) (*file)->close();
    }
};

}  // namespace

std::vector<double> polygenic_values(const simulate_options& options, const population& animals,
                                     double share) {
    random_stream random(options.seed, subject::genetic);
    const std::int32_t nvalue = options.nvalue(), n = animals.nanimal();
    const std::vector<double> g = options.genetic_matrix();
    deviates mendelian(g, nvalue);
    // By the number of known parents.
    const double factor[] = {std::sqrt(share), std::sqrt(0.75 * share), std::sqrt(0.5 * share)};
    std::vector<double> values(static_cast<std::size_t>(n) * nvalue, 0.0);
    for (std::int32_t i = 0; i < n; ++i) {
        double* const own = &values[std::int64_t{i} * nvalue];
        int known = 0;
        for (const std::int32_t parent : animals.parents[i]) {
            const bool is_animal = animals.is_animal(parent);
            known += is_animal ? 1 : 0;
            if (parent == 0) continue;
            for (std::int32_t v = 0; v < nvalue; ++v)
                own[v] += is_animal ? 0.5 * values[std::int64_t{parent - 1} * nvalue + v]
                                    : 0.25 * (parent - n - 1) * std::sqrt(g[v * nvalue + v]);
        }
        mendelian.add(factor[known], random, own);
    }
    return values;
}

data_columns::data_columns(const simulate_options& options)
    : herd(options.traits + 1), animal(options.traits + 2) {
    std::int32_t last = animal;
    if (options.genotyped > 0) {
        genotyped = ++last;
        none = ++last;
    }
    if (options.has_maternal()) dam = ++last;
}

std::vector<std::string> make_names(const simulate_options& options) {
    random_stream random(options.seed, subject::names);
    std::vector<std::int32_t> number(static_cast<std::size_t>(options.animals));
    std::iota(number.begin(), number.end(), 1);
    for (std::int32_t i = options.animals - 1; i > 0; --i) std::swap(number[i], number[random.below(i + 1)]);
    const std::size_t width = std::max<std::size_t>(inttochar(options.animals).size(), 6);
    std::vector<std::string> names;
    for (const std::int32_t k : number) {
        const std::string digits = inttochar(k);
        names.push_back("NL" + std::string(width - digits.size(), '0') + digits);
    }
    return names;
}

std::int64_t write_records(const simulate_options& options, const population& animals,
                           const std::vector<double>& values, const std::vector<std::string>& names,
                           logger& log) {
    random_stream random(options.seed, subject::environment), missing(options.seed, subject::missing);
    const std::int32_t nt = options.traits, nvalue = options.nvalue(), n = animals.nanimal();
    const bool maternal = options.has_maternal();
    const std::vector<double> herd_effect = class_effects(options.herds, options.residual, 0.25, random),
                              dam_effect = class_effects(maternal ? n : 0, options.permanent, 1.0, random);
    deviates residual(options.residual_matrix(), nt);
    record_files files;
    files.data.emplace(options.folder, "data.txt", log);
    if (std::ranges::count(options.models, "snpblup") > 0)
        files.snp.emplace(options.folder, "data_snp.txt", log);
    if (!names.empty()) files.names.emplace(options.folder, "data_names.txt", log);
    std::int64_t nrecord = 0;
    std::vector<double> y(static_cast<std::size_t>(nt));
    for (std::int32_t i = 0; i < n; ++i) {
        const std::int32_t herd = random.below(options.herds), dam = maternal ? animals.parents[i][1] : 0;
        const std::vector<double> own = options.has_permanent()
                                            ? class_effects(1, options.permanent, 1.0, random)
                                            : std::vector<double>(static_cast<std::size_t>(nt), 0.0);
        for (std::int32_t r = 0; r < options.repeated; ++r) {
            bool observed = false;
            for (std::int32_t t = 0; t < nt; ++t) {
                y[t] = 10.0 * (t + 1) + herd_effect[std::int64_t{herd} * nt + t] +
                       values[std::int64_t{i} * nvalue + t] + own[t];
                if (animals.is_animal(dam))
                    y[t] += values[std::int64_t{dam - 1} * nvalue + nt + t] +
                            dam_effect[std::int64_t{dam - 1} * nt + t];
            }
            residual.add(1.0, random, y.data());
            for (std::int32_t t = 0; t < nt; ++t) {
                if (missing.uniform() < options.missing[t])
                    y[t] = missing_value;
                else
                    observed = true;
            }
            if (!observed || (maternal && !animals.is_animal(dam))) continue;
            files.put(options, y, herd + 1, i + 1, dam, names);
            ++nrecord;
        }
    }
    files.close();
    return nrecord;
}

}  // namespace zendar::simulate
