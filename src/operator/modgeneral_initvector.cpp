#include <algorithm>
#include <array>
#include <cassert>
#include <cmath>
#include <cstring>

#include "modfile.hpp"
#include "modgeneral.hpp"
#include "modgeneral_detail.hpp"
#include "modgeneral_reading.hpp"

namespace zendar {

namespace {

namespace fs = std::filesystem;
using detail::check_opened;
using detail::is_plain;
using detail::is_there;
using detail::line_of;
using detail::next_number;
using detail::stop_reading;

constexpr std::string_view vector_procedure = "initvectorfromfile_real8";
constexpr std::string_view raw_name = "ca491pcn.bin";

/// The equations of the rows that a solutions file holds.
class row_target {
  public:
    row_target(const param_type& param, std::span<double> vector, const std::string& file, logger& log)
        : param_(param), vector_(vector), file_(file), log_(log) {}

    void store(const std::array<std::int32_t, 4>& row, double value) {
        ++nrows_;
        const auto [t, e, lev, k] = row;
        const std::int64_t equation = detail::equation_of(param_, t, e, lev, k);
        if (equation == 0)
            detail::internal_error(log_, vector_procedure,
                                   "row " + inttochar(nrows_) + " of the file " + file_ +
                                       " has no equation in the model (trait " + inttochar(t) + ", effect " +
                                       inttochar(e) + ", level " + inttochar(lev) + ", covariable " +
                                       inttochar(k) + ")");
        if (!std::isfinite(value))
            fatal(log_,
                  "Row " + inttochar(nrows_) + " of the file " + file_ + " has a value that is not finite",
                  "modgeneral", vector_procedure);
        vector_[equation - 1] = value;
    }
    [[nodiscard]] std::int64_t nrows() const { return nrows_; }

  private:
    const param_type& param_;
    std::span<double> vector_;
    const std::string& file_;
    logger& log_;
    std::int64_t nrows_ = 0;
};

void read_text_rows(const std::string& file, row_target& target, logger& log) {
    text_reader input;
    check_opened(input.open(file), file, vector_procedure, log);
    std::array<std::int32_t, 4> row{};
    double value = 0.0;
    while (const auto line = input.line()) {
        const char* at = line->data();
        const char* const end = at + line->size();
        if (is_plain(*line) && next_number(at, end, row[0]) && next_number(at, end, row[1]) &&
            next_number(at, end, row[2]) && next_number(at, end, row[3]) && next_number(at, end, value)) {
            target.store(row, value);
            continue;
        }
        input.backspace();
        list_read statement(input);
        read_status status = statement.get(row[0]);
        if (status.iostat == -1 && !input.error()) break;  // blank lines at the end
        if (status.ok()) status = statement.get(std::span<std::int32_t>(row).subspan(1));
        if (status.ok()) status = statement.get(value);
        if (!status.ok())
            stop_reading(log, "Cannot read the solution in " + line_of(input, file), vector_procedure,
                         status.iostat, status.iomsg);
        target.store(row, value);
    }
    check_opened(input.error(), file, vector_procedure, log);
}

void read_stream_rows(const param_type& param, const std::string& file, row_target& target, logger& log) {
    binary_reader input;
    check_opened(input.open(file), file, vector_procedure, log);

    std::vector<std::int32_t> header(static_cast<std::size_t>(param.neffect) + 2);
    std::vector<std::int32_t> expected(header.size(), 0);
    for (std::int32_t e = 1; e <= param.neffect; ++e) expected[e] = param.nx[e];
    if (!input.read_values(std::span<std::int32_t>(header)) || header != expected)
        fatal(log, "The file " + file + " was written for another model: its coefficient columns do not fit!",
              "modgeneral", vector_procedure);

    constexpr std::size_t row_bytes = 4 * sizeof(std::int32_t) + sizeof(double);
    constexpr std::int64_t block_rows = 4096;
    const std::int64_t bytes = input.size() - input.position();
    if (bytes % static_cast<std::int64_t>(row_bytes) != 0)
        fatal(log,
              "The file " + file + " ends within row " + inttochar(bytes / std::int64_t{row_bytes} + 1) + "!",
              "modgeneral", vector_procedure);

    std::vector<char> block(row_bytes * block_rows);
    for (std::int64_t left = bytes / std::int64_t{row_bytes}; left > 0;) {
        const std::int64_t rows = std::min(left, block_rows);
        if (!input.read_bytes(block.data(), static_cast<std::size_t>(rows) * row_bytes))
            fatal(log, "Cannot read the file " + file + " behind row " + inttochar(target.nrows()) + "!",
                  "modgeneral", vector_procedure);
        for (std::int64_t i = 0; i < rows; ++i) {
            std::array<std::int32_t, 4> row;
            double value = 0.0;
            const char* at = block.data() + static_cast<std::size_t>(i) * row_bytes;
            std::memcpy(row.data(), at, sizeof row);
            std::memcpy(&value, at + sizeof row, sizeof value);
            target.store(row, value);
        }
        left -= rows;
    }
}

/// The raw vector. False when the file does not hold exactly the vector.
/// False also when not all values are finite: a run that starts from such a vector cannot get away from it.
bool read_raw(std::span<double> vector, const std::string& file) {
    binary_reader input;
    return !input.open(file) && input.size() == static_cast<std::int64_t>(vector.size_bytes()) &&
           input.read_values(vector) &&
           std::ranges::all_of(vector, [](double v) { return std::isfinite(v); });
}

}  // namespace

void initvectorfromfile_real8(const param_type& param, std::span<double> vector, const std::string& file,
                              logger& log) {
    assert(std::ssize(vector) == param.neq);
    std::ranges::fill(vector, 0.0);
    const std::string zero = "The vector will be set to 0";
    if (!is_there(file, zero, vector_procedure, log)) return;

    std::int64_t nrows = param.neq;
    if (fs::path(file).filename() == raw_name) {
        if (!read_raw(vector, file)) {
            std::ranges::fill(vector, 0.0);
            log.warning("Issue while reading binary file: " + file, "modgeneral", vector_procedure);
            log.warning(zero, "modgeneral", vector_procedure);
            return;
        }
    } else {
        row_target target(param, vector, file, log);
        if (file.ends_with(".stream"))
            read_stream_rows(param, file, target, log);
        else
            read_text_rows(file, target, log);
        nrows = target.nrows();
    }
    log.message("Vector initiated from: " + file);
    log.message("Number of rows read from " + file + ": " + inttochar(nrows));
}

}  // namespace zendar
