#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <span>
#include <string>
#include <utility>

#include "modbasic.hpp"
#include "modparameters_utils.hpp"
#include "modparameters_utils_detail.hpp"
#include "modstats.hpp"

namespace zendar {

namespace {

using detail::block_file;
using detail::line_block;
using detail::record_fault;
using detail::record_fault_kind;

constexpr const char* module_tag = "modparameters_utils";
constexpr const char* procedure_tag = "readdata_phen_ascii";
constexpr int bad_value = 1;  ///< status of a record that can be read but not understood

/// Where the parts of a record stand in its line: columns from 1.
struct record_columns {
    std::int64_t count = 0;            ///< columns of the file
    std::vector<std::int32_t> traits;  ///< per trait
    std::vector<std::int32_t> levels;  ///< per row of `effect` but the last
    std::int32_t residual = 0;         ///< 0: all records are of class 1
    std::int32_t n_residual_cov = 1;
    std::vector<std::int32_t> weights;  ///< per trait, 0: the weight is 1; empty without weights
};

std::int32_t highest_column(const param_type& param) {
    std::int32_t highest = param.n_residual_cov > 1 ? param.pos_residual : 0;
    const auto look_at = [&highest](std::span<const std::int32_t> columns) {
        for (const std::int32_t column : columns) highest = std::max(highest, column);
    };
    look_at(param.pos_traits);
    look_at(param.pos_effects.values());
    look_at(param.pos_nested.values());
    look_at(param.pos_weights);
    return highest;
}

/// The one column that all traits of effect e use; `positions` is (t, e).
std::int32_t column_of_effect(const matrix<std::int32_t>& positions, std::int32_t e, logger& log) {
    std::int32_t smallest = std::numeric_limits<std::int32_t>::max(), largest = 0;
    for (const std::int32_t column : positions.column(e - 1)) {
        if (column < 1) continue;
        smallest = std::min(smallest, column);
        largest = std::max(largest, column);
    }
    const std::string what = "Wrong definition for effect " + inttochar(e) + "\n";
    if (largest == 0) fatal(log, what + "All values (positions) are 0!", module_tag, procedure_tag);
    if (smallest != largest)
        fatal(
            log,
            what + "These 2 values should be the same: " + inttochar(smallest) + " and " + inttochar(largest),
            module_tag, procedure_tag);
    return largest;
}

/// The columns of the rows of `effect`: those of the effects, then the distinct nesting columns.
std::vector<std::int32_t> level_columns(const param_type& param, logger& log) {
    std::vector<std::int32_t> columns(static_cast<std::size_t>(param.neffect + param.nnested), 0);
    for (std::int32_t e = 1; e <= param.neffect; ++e)
        columns[e - 1] = column_of_effect(param.pos_effects, e, log);
    if (param.nnested == 0) return columns;
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        const auto rows = param.pos_nested2.column(e - 1);
        const std::int32_t row = *std::max_element(rows.begin(), rows.end());
        if (row > 0) columns[row - 1] = column_of_effect(param.pos_nested, e, log);
    }
    return columns;
}

/// A column that must be given; 0 would be read from before the record.
void check_given(std::int32_t column, const std::string& what, logger& log) {
    if (column < 1)
        fatal(log, "Wrong definition for " + what + "\nThe position " + inttochar(column) + " is no column",
              module_tag, procedure_tag);
}

record_columns columns_of_record(const param_type& param, std::int64_t count, logger& log) {
    record_columns columns;
    columns.count = count;
    columns.traits = param.pos_traits;
    for (std::int32_t t = 1; t <= param.ntrait; ++t)
        check_given(columns.traits[t - 1], "trait " + inttochar(t), log);
    columns.levels = level_columns(param, log);
    if (param.n_residual_cov > 1) {
        check_given(param.pos_residual, "the residual class", log);
        columns.residual = param.pos_residual;
        columns.n_residual_cov = param.n_residual_cov;
    }
    if (param.nweight > 0) {
        columns.weights = param.pos_weights;
        columns.weights.resize(static_cast<std::size_t>(param.ntrait), 0);
    }
    return columns;
}

void open_file(block_file& file, const std::string& name, logger& log) {
    if (const auto failure = file.open(name))
        fatal_io(log, "The phenotype file " + name + " cannot be read", module_tag, procedure_tag,
                 failure->iostat, failure->iomsg);
    if (file.empty()) fatal(log, "The phenotype file " + name + " is empty", module_tag, procedure_tag);
}

/// Columns of the first line, which are counted at blanks.
std::int64_t count_columns(const block_file& file, const std::string& name, logger& log) {
    std::vector<char> buffer;
    std::string_view line;
    if (const auto failure = file.first_line_text(buffer, line))
        fatal_io(log, "The phenotype file " + name + " cannot be read", module_tag, procedure_tag,
                 failure->iostat, failure->iomsg);
    const std::int64_t columns = count_words(line);
    if (line.find_first_of(",\t") != std::string_view::npos && detail::count_items(line) != columns)
        fatal(log,
              "The columns of the phenotype file " + name +
                  " are separated by commas or tabs: only blanks may separate the columns of its first line",
              module_tag, procedure_tag);
    return columns;
}

void check_columns(const param_type& param, std::int64_t columns, logger& log) {
    const std::int32_t highest = highest_column(param);
    if (columns < highest)
        fatal(
            log,
            "The number of columns in the phenotype file is lower than the highest position declared in the "
            "parameter file (that is " +
                inttochar(columns) + " < " + inttochar(highest) + ")",
            module_tag, procedure_tag);
}

void allocate(const param_type& param, std::int64_t nrec, phenotype_data& data, logger& log) {
    const std::int64_t rows = std::int64_t{param.neffect} + param.nnested + 1;
    const auto announce = [&log](const char* what, std::int64_t bytes) {
        log.message(what + realtochar(mib(bytes), "(f0.2)"));
    };
    const std::int64_t phen_bytes = param.ntrait * nrec * static_cast<std::int64_t>(sizeof(double));
    data.phen = matrix<double>(param.ntrait, nrec);
    data.effect = matrix<std::int32_t>(rows, nrec);
    data.combitrait.assign(static_cast<std::size_t>(nrec), 0);
    announce("Memory (MB) needed for phen  : ", phen_bytes);
    announce("Memory (MB) needed for effect: ",
             rows * nrec * static_cast<std::int64_t>(sizeof(std::int32_t)));
    if (param.nweight < 1) return;
    data.weight = matrix<double>(param.ntrait, nrec, 1.0);
    announce("Memory (MB) needed for weight: ", phen_bytes);
}

// ---- the records ------------------------------------------------------------------------------------------

/// The arrays of one record.
struct record_target {
    double* phen;
    std::int32_t* effect;
    double* weight;
};

bool is_level(double value) {
    return value > -2147483649.0 && value < 2147483648.0;
}

/// Spreads the values of a line over the arrays. False, with `fault` set, at a value that has no place there.
bool store_record(const record_columns& columns, const double* row, const record_target& target,
                  record_fault& fault) {
    const auto refuse = [&fault](record_fault_kind why, std::int32_t column) {
        fault.set(why, column);
        return false;
    };
    double* phen = target.phen;
    for (const std::int32_t column : columns.traits) {
        const double value = row[column - 1];
        if (!std::isfinite(value)) return refuse(record_fault_kind::not_finite, column);
        *phen++ = value;
    }
    std::int32_t* effect = target.effect;
    for (const std::int32_t column : columns.levels) {
        const double value = row[column - 1];
        if (!is_level(value)) return refuse(record_fault_kind::no_level, column);
        *effect++ = static_cast<std::int32_t>(value);
    }
    *effect = 1;
    if (columns.residual > 0) {
        const double value = row[columns.residual - 1];
        if (!(value >= 1.0 && value < columns.n_residual_cov + 1.0))
            return refuse(record_fault_kind::no_class, columns.residual);
        *effect = static_cast<std::int32_t>(value);
    }
    double* weight = target.weight;
    for (const std::int32_t column : columns.weights) {
        if (column > 0) *weight = row[column - 1];
        if (!std::isfinite(*weight)) return refuse(record_fault_kind::not_finite, column);
        ++weight;
    }
    return true;
}

/// What the threads share: the arrays, and the first bad line so far.
struct record_sink {
    record_sink(const record_columns& c, std::int64_t n, phenotype_data& d)
        : columns(c), nrec(n), phen(d.phen.view()), effect(d.effect.view()), weight(d.weight.view()) {}

    [[nodiscard]] record_target target(std::int64_t record) const {
        return {phen.data + record * phen.ld, effect.data + record * effect.ld,
                weight.data == nullptr ? nullptr : weight.data + record * weight.ld};
    }

    const record_columns& columns;
    std::int64_t nrec;
    matrix_view<double> phen;
    matrix_view<std::int32_t> effect;
    matrix_view<double> weight;
    std::atomic<std::int64_t> bad_line = std::numeric_limits<std::int64_t>::max();
};

/// What one thread works with.
struct record_worker {
    std::vector<char> buffer;
    std::vector<double> row;
    record_fault fault;       ///< the lowest line of this thread that is bad
    std::int64_t stored = 0;  ///< records
};

/// Reads the record at p. @returns where the reading stopped.
const char* read_record(const char* p, std::int64_t line, record_sink& sink, record_worker& worker,
                        record_fault& fault) {
    const char* stop = detail::parse_record(p, worker.row, fault);
    if (fault.kind == record_fault_kind::none &&
        !store_record(sink.columns, worker.row.data(), sink.target(line - 1), fault)) {
        const std::string_view word = detail::record_word(p, fault.value);
        fault.set(fault.kind, fault.value, word);
    }
    return stop;
}

/// Start of the next line; `end` is behind a line feed.
const char* behind_line(const char* p, const char* end) {
    if (*p != '\n') p = static_cast<const char*>(std::memchr(p, '\n', static_cast<std::size_t>(end - p)));
    return p + 1;
}

/// Reads the records of one block up to its first bad one.
void read_block(const block_file& file, std::int64_t block, record_sink& sink,
                record_worker& worker) noexcept {
    record_fault fault;
    line_block lines;
    std::int64_t line = file.first_line(block);
    try {
        if (file.load(block, worker.buffer, lines, fault)) {
            line = lines.line;
            const char* p = lines.text.data();
            const char* const owned_end = p + lines.owned;
            const char* const end = p + lines.text.size();
            for (; p < owned_end && line <= sink.nrec; ++line) {
                const char* stop = read_record(p, line, sink, worker, fault);
                if (lines.cut && stop == end - 1) fault.set(record_fault_kind::long_line, 0);
                if (fault.kind != record_fault_kind::none) break;
                p = behind_line(stop, end);
            }
            worker.stored += line - lines.line;
        }
    } catch (const std::bad_alloc&) {  // a number of very many digits
        fault.set(record_fault_kind::no_memory, 0);
    }
    if (fault.kind == record_fault_kind::none) return;
    fault.line = line;
    if (worker.fault.kind == record_fault_kind::none || line < worker.fault.line) worker.fault = fault;
    std::int64_t lowest = sink.bad_line.load();
    while (line < lowest && !sink.bad_line.compare_exchange_weak(lowest, line)) {
    }
}

/// Reads the blocks [first, last); those behind a bad line are left out.
void read_blocks(const block_file& file, std::int64_t first, std::int64_t last, record_sink& sink,
                 std::vector<record_worker>& workers) {
#pragma omp parallel for schedule(dynamic, 1) default(none) shared(file, first, last, sink, workers)
    for (std::int64_t block = first; block < last; ++block)
        if (file.first_line(block) <= sink.bad_line.load(std::memory_order_relaxed))
            read_block(file, block, sink, workers[omp_get_thread_num()]);
}

[[noreturn]] void stop_at_line(std::int64_t line, int iostat, const std::string& file, const std::string& why,
                               logger& log) {
    fatal_io(log, "Phenotype (record) not correctly read at line " + inttochar(line), module_tag,
             procedure_tag, iostat, "File " + file + ": " + why);
}

/// Reads the first `nrec` lines into the arrays.
void read_records(const block_file& file, const record_columns& columns, std::int64_t nrec,
                  phenotype_data& data, const std::string& name, std::int64_t progress_from, logger& log) {
    record_sink sink(columns, nrec, data);
    std::vector<record_worker> workers(static_cast<std::size_t>(omp_get_max_threads()));
    for (record_worker& worker : workers) worker.row.resize(static_cast<std::size_t>(columns.count));

    const std::int64_t blocks = file.blocks_of(nrec);
    const bool report = file.bytes() >= progress_from;
    const std::int64_t batch = report ? std::max(blocks / 50, 4 * std::ssize(workers)) : blocks;
    progress_line progress(log);
    for (std::int64_t first = 0; first < blocks; first += batch) {
        const std::int64_t last = std::min(first + batch, blocks);
        read_blocks(file, first, last, sink, workers);
        if (sink.bad_line <= nrec) break;
        if (report) progress.progressloop(last, blocks);
    }

    const record_worker* worst = nullptr;
    std::int64_t stored = 0;
    for (const record_worker& worker : workers) {
        stored += worker.stored;
        if (worker.fault.kind != record_fault_kind::none &&
            (worst == nullptr || worker.fault.line < worst->fault.line))
            worst = &worker;
    }
    if (worst != nullptr) {
        const record_fault& fault = worst->fault;
        stop_at_line(fault.line, detail::status_of(fault), name, detail::describe(fault, columns.count), log);
    }
    if (stored != nrec)
        stop_at_line(stored + 1, bad_value, name, "the file has changed while it was read", log);
}

}  // namespace

void detail::read_phenotypes(param_type& param, phenotype_data& data, logger& log,
                             const reading_sizes& sizes) {
    data = {};
    const std::string name(trim(param.file[0][0]));
    block_file file(sizes);
    open_file(file, name, log);
    const std::int64_t ncolumns = count_columns(file, name, log);
    check_columns(param, ncolumns, log);

    const std::int64_t asked = std::max(param.nphen, 0);
    if (const auto failure = file.index_lines(asked))
        fatal_io(log, "The phenotype file " + name + " cannot be read", module_tag, procedure_tag,
                 failure->iostat, failure->iomsg);
    const std::int64_t nrec = asked > 0 ? std::min(asked, file.lines()) : file.lines();
    if (!std::in_range<std::int32_t>(nrec))
        fatal(log, "The phenotype file " + name + " has more than 2147483647 records", module_tag,
              procedure_tag);
    param.nphen = static_cast<std::int32_t>(std::max(nrec, asked));

    allocate(param, nrec, data, log);
    const record_columns columns = columns_of_record(param, ncolumns, log);
    read_records(file, columns, nrec, data, name, sizes.progress_from, log);
    if (nrec < asked)
        stop_at_line(
            nrec + 1, -1, name,
            "End of file: the file has " + inttochar(nrec) + " records, !nphen asks for " + inttochar(asked),
            log);
}

void readdata_phen_ascii(param_type& param, phenotype_data& data, logger& log) {
    detail::read_phenotypes(param, data, log, {});
}

}  // namespace zendar
