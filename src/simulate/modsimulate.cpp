#include "modsimulate.hpp"

#include <omp.h>

#include <exception>
#include <filesystem>
#include <limits>
#include <new>
#include <ostream>
#include <system_error>

#include "modbasic.hpp"
#include "modsimulate_genotypes.hpp"
#include "modsimulate_traits.hpp"
#include "modsimulate_write.hpp"

namespace zendar::simulate {
namespace {

void make_folder(const simulate_options& options, logger& log) {
    std::error_code failure;
    std::filesystem::create_directories(options.folder, failure);
    if (failure)
        fatal(log, "Cannot make the folder " + options.folder + ": " + failure.message(), "modsimulate",
              "make_folder");
}

std::string columns_of(const simulate_options& options) {
    const data_columns column(options);
    std::string text = "Columns of data.txt: traits 1" +
                       (options.traits > 1 ? " to " + inttochar(options.traits) : std::string()) + ", herd " +
                       inttochar(column.herd) + ", animal " + inttochar(column.animal);
    if (column.genotyped > 0)
        text +=
            ", genotyped animal or 0 " + inttochar(column.genotyped) + ", zeros " + inttochar(column.none);
    if (column.dam > 0) text += ", dam " + inttochar(column.dam);
    return text;
}

void simulate(const simulate_options& options, logger& log) {
    make_folder(options, log);
    const population animals = make_population(options);
    std::vector<double> values =
        polygenic_values(options, animals, options.genotyped > 0 ? polygenic_share : 1.0);
    const std::vector<std::string> names = options.names ? make_names(options) : std::vector<std::string>();
    snp_data snps;
    if (options.genotyped > 0) {
        snps = drop_genes(options, animals, values);
        write_genotypes(options, snps, names, log);
    }
    write_pedigree(options, animals, names, log);
    const std::int64_t nrecord = write_records(options, animals, values, names, log);
    if (options.truth) write_true_values(options, values, log);
    write_models(options, animals, snps, log);
    log.message("Animals: " + inttochar(animals.nanimal()) + ", groups: " + inttochar(animals.ngroup) +
                ", records: " + inttochar(nrecord) + ", genotyped animals: " + inttochar(options.genotyped) +
                ", SNPs: " + inttochar(options.snps));
    log.message(columns_of(options));
}

}  // namespace

int run_simulate(const std::vector<std::string>& words, std::ostream& out) {
    logger log;
    log.add_stream(out);
    log.configure({.max_width = std::numeric_limits<int>::max(), .indent = false});
    try {
        const simulate_options options = read_options(words, log);
        if (options.help) {
            out << usage() << std::flush;
            return 0;
        }
        if (options.threads > 0) omp_set_num_threads(options.threads);
        simulate(options, log);
        return 0;
    } catch (const fatal_error&) {
        return 1;  // its message has been logged
    } catch (const std::bad_alloc&) {
        log.error("There is not enough memory for this population", "modsimulate");
    } catch (const std::exception& failure) {
        log.error(std::string("Unexpected failure: ") + failure.what(), "modsimulate");
    }
    return 1;
}

}  // namespace zendar::simulate
