#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <limits>
#include <new>
#include <numeric>
#include <stdexcept>

#include "miraculix.hpp"
#include "modbasic.hpp"
#include "modenum.hpp"
#include "modparameters.hpp"
#include "modplink_decode.hpp"
#include "modstats.hpp"
#include "modstructure_covariable_detail.hpp"

namespace zendar {
namespace {

using detail::covariable_file;
using detail::covariable_module;
using detail::covariable_procedure;

constexpr std::array<const char*, 3> extensions = {".bed", ".bim", ".fam"};
constexpr std::array<std::uint8_t, 3> snp_major = {0x6C, 0x1B, 0x01};

std::string stem_of(const std::string& name) {
    return name.ends_with(extensions[0]) ? name.substr(0, name.size() - std::strlen(extensions[0])) : name;
}

[[noreturn]] void stop_at_line(const std::string& file, std::int64_t line, const std::string& why,
                               logger& log) {
    fatal(log, "The file " + file + " is not correct at line " + inttochar(line) + ": " + why,
          covariable_module, covariable_procedure);
}

/// Hands each line of a file to `use`; blank lines may stand at the end only. @returns their number.
template <class Use>
std::int32_t read_lines(const std::string& file, const Use& use, logger& log) {
    text_reader input;
    std::int64_t count = 0;
    const auto stop_unreadable = [&](const file_error& failure) {
        fatal_io(log, "The file " + file + " cannot be read", covariable_module, covariable_procedure,
                 failure.iostat, failure.iomsg);
    };
    if (const auto failure = input.open(file)) stop_unreadable(*failure);
    while (const auto line = input.line()) {
        if (detail::word_of(*line, 1).empty()) continue;
        if (++count != input.line_number()) stop_at_line(file, count, "the line is blank", log);
        if (count > std::numeric_limits<std::int32_t>::max())
            stop_at_line(file, count, "there are more lines than 2147483647", log);
        use(*line, count);
    }
    if (const auto failure = input.error()) stop_unreadable(*failure);
    if (count == 0) fatal(log, "The file " + file + " is empty", covariable_module, covariable_procedure);
    return static_cast<std::int32_t>(count);
}

/// A whole word as an integer; one of too many digits is the largest (smallest) number.
std::optional<std::int64_t> integer_of(std::string_view word) {
    std::int64_t number = 0;
    const char* const end = word.data() + word.size();
    const auto [stop, status] = std::from_chars(word.data(), end, number);
    if (stop != end || status == std::errc::invalid_argument) return std::nullopt;
    if (status == std::errc::result_out_of_range)
        return word.front() == '-' ? std::numeric_limits<std::int64_t>::min()
                                   : std::numeric_limits<std::int64_t>::max();
    return number;
}

struct fam_names {
    std::vector<std::int64_t> numbers;  ///< second words, as far as all are integers
    std::int64_t other = 0;             ///< the first line whose second word is no integer; 0: there is none
    std::int32_t lines = 0;
};

fam_names read_fam(const std::string& file, logger& log) {
    fam_names names;
    const auto use = [&](std::string_view line, std::int64_t number) {
        const std::string_view name = detail::word_of(line, 2);
        if (name.empty())
            stop_at_line(file, number, "the name of the individual, its second word, is missing", log);
        if (names.other > 0) return;
        if (const auto code = integer_of(name))
            names.numbers.push_back(*code);
        else
            names.other = number;
    };
    names.lines = read_lines(file, use, log);
    return names;
}

/// The level of each individual.
std::vector<std::int32_t> levels_of(const fam_names& names, const covariable_file& file,
                                    const std::string& fam, logger& log) {
    std::vector<std::int32_t> ids(static_cast<std::size_t>(names.lines));
    if (names.other > 0) {
        log.information("The levels of effect " + inttochar(file.e) + " are the line numbers of the file " +
                            fam + ": the name of the individual in line " + inttochar(names.other) +
                            " is no integer",
                        covariable_module, covariable_procedure);
        if (names.lines > file.largest_id())
            stop_at_line(fam, std::int64_t{file.largest_id()} + 1,
                         "the level " + inttochar(std::int64_t{file.largest_id()} + 1) +
                             " must lie between 1 and " + inttochar(file.largest_id()),
                         log);
        std::iota(ids.begin(), ids.end(), 1);
        return ids;
    }
    for (std::int32_t i = 0; i < names.lines; ++i) {
        if (names.numbers[i] < 1 || names.numbers[i] > file.largest_id())
            stop_at_line(fam, std::int64_t{i} + 1,
                         "the individual " + inttochar(names.numbers[i]) + " must lie between 1 and " +
                             inttochar(file.largest_id()),
                         log);
        ids[i] = static_cast<std::int32_t>(names.numbers[i]);
    }
    return ids;
}

[[noreturn]] void stop_reading(const std::string& bed, int iostat, const std::string& iomsg, logger& log) {
    fatal_io(log, "Unexpected error while reading " + bed, covariable_module, covariable_procedure, iostat,
             iomsg);
}

[[noreturn]] void stop_without_memory(const covariable_file& file, const std::string& what, logger& log) {
    fatal(log, "There is not enough memory for the " + what + " of effect " + inttochar(file.e),
          covariable_module, covariable_procedure);
}

plink_genotypes allocate_genotypes(const covariable_file& file, std::int32_t nind, std::int32_t nsnp,
                                   logger& log) {
    try {
        return {nind, nsnp};
    } catch (const std::bad_alloc&) {
        stop_without_memory(file, "genotypes (" + inttochar(nind) + " x " + inttochar(nsnp) + ")", log);
    }
}

/// Fills the packed matrix in batches, by all threads, so that each page lies with the thread that will use
/// it.
void read_columns(const random_reader& input, plink_genotypes& plink, const std::string& bed, logger& log) {
    constexpr std::int64_t batch = 16;  // SNPs
    const std::int64_t batches = (std::int64_t{plink.ncol} + batch - 1) / batch;
    std::int64_t bad = batches;
    int code = 0;
#pragma omp parallel for schedule(static) default(none) shared(input, plink, batches, code) \
    reduction(min : bad)
    for (std::int64_t k = 0; k < batches; ++k) {
        if (bad < batches) continue;
        const std::int64_t first = k * batch;
        const std::int64_t bytes = std::min(std::int64_t{batch}, plink.ncol - first) * plink.nbytes;
        char* const to = reinterpret_cast<char*>(plink.column(first));
        const std::int64_t got = input.read_at(std::ssize(snp_major) + first * plink.nbytes,
                                               {to, static_cast<std::size_t>(bytes)});
        if (got == bytes) continue;
        bad = k;
#pragma omp atomic write
        code = got < 0 ? errno : -1;
    }
    if (bad < batches)
        stop_reading(bed, code, code > 0 ? std::strerror(code) : "The file has become shorter", log);
}

plink_genotypes read_bed(const covariable_file& file, const std::string& bed, std::int32_t nind,
                         std::int32_t nsnp, logger& log) {
    random_reader input;
    if (const auto failure = input.open(bed)) stop_reading(bed, failure->iostat, failure->iomsg, log);
    std::array<char, 3> magic{};
    const std::int64_t got = input.read_at(0, magic);
    if (got < 0) stop_reading(bed, errno, std::strerror(errno), log);
    if (got < std::ssize(magic) || std::memcmp(magic.data(), snp_major.data(), magic.size()) != 0)
        fatal(log,
              "The following file is not a Plink SNP-major bed file: " + bed + inttochar(file.e) +
                  " are not equal.",
              covariable_module, covariable_procedure);

    const std::int64_t nbytes = (std::int64_t{nind} + 3) / 4;
    log.message("    Each SNP for all individuals requires " + inttochar(nbytes) + " bytes.");
    const std::int64_t expected = std::ssize(magic) + nbytes * nsnp;
    if (input.size() != expected)
        stop_reading(bed, -1,
                     "The file has " + inttochar(input.size()) + " bytes; " + inttochar(nsnp) + " SNPs of " +
                         inttochar(nind) + " individuals take " + inttochar(expected),
                     log);
    plink_genotypes plink = allocate_genotypes(file, nind, nsnp, log);
    read_columns(input, plink, bed, log);
    return plink;
}

/// The centred genotypes as a dense matrix, for an effect whose coefficients enter the records one by one.
void expand(covariable_type& cov, const covariable_file& file, logger& log) {
    const plink_genotypes& plink = cov.data->plink;
    covariable_data dense;
    dense.indice = cov.data->indice;
    dense.value = detail::allocate_coefficients(file, plink.ncol, plink.nrow, log);
    const auto value = dense.value.view();
#pragma omp parallel for schedule(static) default(none) shared(plink, value, cov)
    for (std::int64_t i = 0; i < plink.nrow; ++i)
        for (std::int64_t j = 0; j < plink.ncol; ++j)
            value(j, i) = detail::centred(detail::genotype_of(plink.code(i, j)), 2.0 * cov.allelefreq[j]);
    cov.data = std::make_shared<const covariable_data>(std::move(dense));
}

/// The options are flags; both together are no valid code.
std::int32_t miraculix_mode(const param_type& param, std::int32_t e) {
    const auto is_set = [e](const std::vector<unsigned char>& flags) {
        return !flags.empty() && flags[e - 1] != 0;
    };
    return (is_set(param.miraculix) ? 10 : 0) + (is_set(param.miraculix_gpu) ? 20 : 0);
}

void start_miraculix(covariable_type& cov, std::int32_t e, std::int32_t maxcols, std::int32_t cores,
                     logger& log) {
    if (cov.miraculix != 10 && cov.miraculix != 20)
        fatal(log, "Miraculix option " + inttochar(cov.miraculix) + " is not correct!", covariable_module,
              covariable_procedure);
    const bool usegpu = cov.miraculix == 20;
    const std::string device = usegpu ? "GPU" : "CPU";
    log.message("Miraculix: Version: " + device);
    if (cov.nmissing > 0)
        log.warning(
            "Effect " + inttochar(e) + ": the " + inttochar(cov.nmissing) +
                " missing genotypes count as 0 with Miraculix, and as the mean without it: the solutions "
                "differ",
            covariable_module, covariable_procedure);
    const wtime clock;
    init_miraculix(cov, maxcols, usegpu ? 1 : 0, log, cores);
    log.message("Initialization Miraculix " + device + " : " + realtochar(clock.seconds(), "(f0.3)"));
    log.message("Miraculix: Max. number of columns: " + inttochar(maxcols));
}

}  // namespace

namespace detail {

std::string_view word_of(std::string_view line, std::int32_t which) {
    constexpr std::string_view blanks = " \t";
    std::string_view word;
    for (std::int32_t k = 0; k < which; ++k) {
        line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
        word = line.substr(0, line.find_first_of(blanks));
        line.remove_prefix(word.size());
    }
    return word;
}

}  // namespace detail

void check_plinkfiles(const std::string& stem, logger& log) {
    for (const char* extension : extensions) {
        std::error_code unreadable;
        if (!std::filesystem::exists(stem + extension, unreadable))
            fatal(log, "The following file does not exist: " + stem + extension, "modplink",
                  "check_plinkfiles");
    }
}

std::vector<std::int32_t> read_plink_levels(const std::string& name, std::int32_t e, std::int32_t n_level,
                                            logger& log) {
    covariable_file file;
    file.name = trim(name);
    file.e = e;
    file.n_level = std::max(n_level, 0);
    const std::string stem = stem_of(file.name), fam = stem + ".fam";
    check_plinkfiles(stem, log);
    return levels_of(read_fam(fam, log), file, fam, log);
}

std::int32_t count_plink_snps(const std::string& name, logger& log) {
    const std::string stem = stem_of(std::string(trim(name)));
    check_plinkfiles(stem, log);
    return read_lines(
        stem + ".bim", [](std::string_view, std::int64_t) {}, log);
}

void readcovariable_bed(covariable_type& cov, const param_type& param, std::int32_t e, std::int32_t maxcols,
                        logger& log) {
    cov = {};
    covariable_file file;
    file.name = trim(param.cov_file[e - 1]);
    file.e = e;
    file.n_level = std::max(param.n_level[e - 1], 0);
    file.n_cov = param.n_cov[e - 1];
    const std::string stem = stem_of(file.name), fam = stem + ".fam", bed = stem + ".bed";

    check_plinkfiles(stem, log);
    const fam_names names = read_fam(fam, log);
    const std::int32_t nsnp = read_lines(
        stem + ".bim", [](std::string_view, std::int64_t) {}, log);
    const std::vector<std::int32_t> ids = levels_of(names, file, fam, log);
    detail::report_covariable(file, names.lines, nsnp, *std::ranges::max_element(ids), log);
    check_ncol_checkval(e, nsnp, file.n_cov, log);

    covariable_data data;
    try {
        detail::covariable_rows rows = detail::rows_by_id(ids, file.n_level);
        if (rows.repeated > 0) {
            const std::int32_t id = ids[rows.repeated - 1];
            stop_at_line(fam, rows.repeated,
                         "the individual " + inttochar(id) + " stands in line " +
                             inttochar(rows.indice[id - 1]) + " as well",
                         log);
        }
        data.indice = std::move(rows.indice);
    } catch (const std::bad_alloc&) {
        stop_without_memory(file, "levels", log);
    }
    data.plink = read_bed(file, bed, names.lines, nsnp, log);
    const std::vector<plink_counts> counts = count_genotypes(data.plink);
    cov.data = std::make_shared<const covariable_data>(std::move(data));
    readallelefreq(cov, param, e, counts, log);
    for (const plink_counts& snp : counts) cov.nmissing += snp.missing;
    log.message("Missing genotypes: " + inttochar(cov.nmissing));

    const std::int32_t mode = miraculix_mode(param, e);
    if (!is_huge_effect(param.type_effect[e - 1])) {
        if (mode != 0)
            log.warning("Effect " + inttochar(e) + ": Miraculix is not used for a covariable",
                        covariable_module, covariable_procedure);
        expand(cov, file, log);
        return;
    }
    cov.miraculix = mode;
    if (mode != 0)
        start_miraculix(cov, e, maxcols > 0 ? maxcols : std::max(param.ntrait, 1), param.ncpus, log);
}

void init_miraculix(covariable_type& cov, std::int32_t maxcols, std::optional<std::int32_t> usegpu,
                    logger& log, std::int32_t cores) {
    const plink_genotypes& plink = cov.data->plink;
    const bool gpu = usegpu.value_or(1) != 0;
    log.message("Use of Miraculix procedures");
    plink_genotypes transposed;
    if (gpu) {
        log.message("GPU enabled");
        const wtime clock;
        transposed = transpose_integermatrix(plink);
        log.message("Transposition of Bed matrix: " + realtochar(clock.seconds(), "(f0.3)"));
    }
    log.message("Call c_setOptions");
    ::miraculix::setOptions_compressed(gpu ? 1 : 0, cores, 0, 0, 1, 0, 0, 0, 0, 0);
    // The library takes the SNP-major bytes as they stand here: no copy is made for it.
    log.message("Allocates transpose(cov%ival)");
    log.message("Number of columns: " + inttochar(maxcols));
    ::miraculix::compressed_store* store = nullptr;
    try {
        ::miraculix::plink2compressed(plink.ival.data(), gpu ? transposed.ival.data() : nullptr, plink.ncol,
                                      plink.nrow, cov.allelefreq.data(), maxcols, &store);
    } catch (const fatal_error& failure) {
        // The library, which knows no logger, has told it on standard error only.
        fatal(log, failure.what(), "modstructure", "init_miraculix", failure.status());
    }
    cov.compressed = {store,
                      [](::miraculix::compressed_store* held) { ::miraculix::free_compressed(&held); }};
}

}  // namespace zendar
