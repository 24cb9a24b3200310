#include <cassert>
#include <cstring>
#include <type_traits>

#include "modfile.hpp"
#include "modgeneral.hpp"
#include "modgeneral_detail.hpp"

namespace zendar {

namespace {

using detail::addressing;

// Text rows: trait, effect, level, covariable and value with single blanks between them, no header line.
//
// Stream file, little-endian, no record markers:
//   int32    nx(0 .. neffect + 1)      the two ends are 0
//   then for each row
//   int32    trait, effect, level, covariable
//   float64  value

/// How a row is written.
enum class row_form { text, text_with_equation, stream };

struct form_entry {
    std::string_view procedure;
    row_form form;
};
constexpr form_entry real8{"writeoutput_real8", row_form::text};
constexpr form_entry int4{"writeoutput_int4", row_form::text};
constexpr form_entry neq_int4{"writeoutput_neq_int4", row_form::text_with_equation};
constexpr form_entry stream_real8{"writeoutputstream_real8", row_form::stream};

/// No row is longer: six integers of up to 20 characters, or five and a real of 16, with their blanks.
constexpr std::ptrdiff_t max_row = 160;

/// Where rows go, and what a failure has to tell.
struct output_file {
    const std::filesystem::path& path;
    std::string_view procedure;
    logger& log;

    void check(const std::optional<file_error>& error) const {
        if (error)
            fatal_io(log, "Cannot write the file " + path.string(), "modgeneral", procedure, error->iostat,
                     error->iomsg);
    }
};

/// Fills the buffer of a writer in blocks, so that a row costs no call.
class row_buffer {
  public:
    row_buffer(file_writer& out, const output_file& file) : out_(out), file_(file) {}

    /// Room for one row.
    char* next() {
        if (end_ - position_ < max_row) refill();
        return position_;
    }
    void done(char* position) { position_ = position; }
    void flush() {
        if (begin_ != nullptr) out_.advance(static_cast<std::size_t>(position_ - begin_));
        begin_ = position_ = end_ = nullptr;
    }

  private:
    static constexpr std::size_t block = std::size_t{64} << 10;
    void refill() {
        flush();
        if (out_.failed()) file_.check(out_.commit());  // no use in formatting the rest
        begin_ = position_ = out_.reserve(block);
        end_ = begin_ + block;
    }

    file_writer& out_;
    const output_file& file_;
    char* begin_ = nullptr;
    char* position_ = nullptr;
    char* end_ = nullptr;
};

/// An integer and a blank. Most are small: traits, effects and covariables.
char* put_int(char* at, std::int64_t n) {
    if (n >= 0 && n < 10)
        *at++ = static_cast<char>('0' + n);
    else
        at = write_i0(at, n);
    *at++ = ' ';
    return at;
}

template <class T>
char* put_raw(char* at, T value) {
    std::memcpy(at, &value, sizeof value);
    return at + sizeof value;
}

template <row_form Form, class T>
char* put_row(char* at, std::int32_t t, std::int32_t e, std::int32_t lev, std::int32_t k,
              std::int64_t equation, T value) {
    if constexpr (Form == row_form::stream) {
        at = put_raw(put_raw(put_raw(put_raw(at, t), e), lev), k);
        return put_raw(at, value);
    } else {
        if constexpr (Form == row_form::text_with_equation) at = put_int(at, equation);
        at = put_int(put_int(put_int(put_int(at, t), e), lev), k);
        if constexpr (std::is_floating_point_v<T>)
            at = write_g06(at, value);
        else
            at = write_i0(at, value);
        *at++ = '\n';
        return at;
    }
}

std::vector<std::int32_t> stream_header(const param_type& param) {
    std::vector<std::int32_t> header(static_cast<std::size_t>(param.neffect) + 2, 0);
    for (std::int32_t e = 1; e <= param.neffect; ++e) header[e] = param.nx[e];
    return header;
}

/// The one body of all writers of vectors.
template <addressing A, const form_entry& Entry, class T>
void write_rows(const param_type& param, std::span<const T> vector, const std::filesystem::path& file,
                logger& log, std::int32_t offset) {
    assert(std::ssize(vector) >= param.neq);
    const output_file target{file, Entry.procedure, log};
    file_writer out;
    target.check(out.open(file));
    if constexpr (Entry.form == row_form::stream)
        out.write_values(std::span<const std::int32_t>(stream_header(param)));

    row_buffer rows(out, target);
    detail::for_each_row<A>(
        param, log, Entry.procedure,
        [&](std::int32_t t, std::int32_t e, std::int32_t lev, std::int32_t k, std::int64_t equation) {
            rows.done(
                put_row<Entry.form>(rows.next(), t, e + offset, lev, k, equation, vector[equation - 1]));
        });
    rows.flush();
    target.check(out.commit());
}

/// The form that the model asks for.
template <const form_entry& Entry, class T>
void write_rows_of_model(const param_type& param, std::span<const T> vector,
                         const std::filesystem::path& file, logger& log, std::int32_t offset) {
    if (param.lcombieff)
        write_rows<addressing::combieff, Entry>(param, vector, file, log, offset);
    else
        write_rows<addressing::ori, Entry>(param, vector, file, log, offset);
}

}  // namespace

void writeoutput_real8_ori(const param_type& param, std::span<const double> vector,
                           const std::filesystem::path& file, logger& log, std::int32_t offset) {
    write_rows<addressing::ori, real8>(param, vector, file, log, offset);
}

void writeoutput_real8_combieff(const param_type& param, std::span<const double> vector,
                                const std::filesystem::path& file, logger& log, std::int32_t offset) {
    write_rows<addressing::combieff, real8>(param, vector, file, log, offset);
}

void writeoutput_int4_ori(const param_type& param, std::span<const std::int32_t> vector,
                          const std::filesystem::path& file, logger& log, std::int32_t offset) {
    write_rows<addressing::ori, int4>(param, vector, file, log, offset);
}

void writeoutput_int4_combieff(const param_type& param, std::span<const std::int32_t> vector,
                               const std::filesystem::path& file, logger& log, std::int32_t offset) {
    write_rows<addressing::combieff, int4>(param, vector, file, log, offset);
}

void writeoutput_neq_int4_ori(const param_type& param, std::span<const std::int32_t> vector,
                              const std::filesystem::path& file, logger& log, std::int32_t offset) {
    write_rows<addressing::ori, neq_int4>(param, vector, file, log, offset);
}

void writeoutput_neq_int4_combieff(const param_type& param, std::span<const std::int32_t> vector,
                                   const std::filesystem::path& file, logger& log, std::int32_t offset) {
    write_rows<addressing::combieff, neq_int4>(param, vector, file, log, offset);
}

void writeoutputstream_real8_ori(const param_type& param, std::span<const double> vector,
                                 const std::filesystem::path& file, logger& log) {
    write_rows<addressing::ori, stream_real8>(param, vector, file, log, 0);
}

void writeoutputstream_real8_combieff(const param_type& param, std::span<const double> vector,
                                      const std::filesystem::path& file, logger& log) {
    write_rows<addressing::combieff, stream_real8>(param, vector, file, log, 0);
}

void writeoutput_real8(const param_type& param, std::span<const double> vector,
                       const std::filesystem::path& file, logger& log, std::int32_t offset) {
    write_rows_of_model<real8>(param, vector, file, log, offset);
}

void writeoutput_int4(const param_type& param, std::span<const std::int32_t> vector,
                      const std::filesystem::path& file, logger& log, std::int32_t offset) {
    write_rows_of_model<int4>(param, vector, file, log, offset);
}

void writeoutput_neq_int4(const param_type& param, std::span<const std::int32_t> vector,
                          const std::filesystem::path& file, logger& log, std::int32_t offset) {
    write_rows_of_model<neq_int4>(param, vector, file, log, offset);
}

void writeoutputstream_real8(const param_type& param, std::span<const double> vector,
                             const std::filesystem::path& file, logger& log) {
    write_rows_of_model<stream_real8>(param, vector, file, log, 0);
}

void write_raw_stream(std::span<const double> values, const std::filesystem::path& file, logger& log) {
    const output_file target{file, "write_raw_stream", log};
    file_writer out;
    target.check(out.open(file));
    out.write_values(values);
    target.check(out.commit());
}

}  // namespace zendar
