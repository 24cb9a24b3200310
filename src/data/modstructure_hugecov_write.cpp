#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <filesystem>
#include <string>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modstructure_hugecov_detail.hpp"

namespace zendar::detail {

std::int32_t hugecov_followers(const param_type& param, std::int32_t e) {
    return std::max(param.n_correlated[e - 1], 0);
}

double hugecov_scale(const param_type& param, std::int32_t e, const char* procedure, logger& log) {
    const double alpha = param.lbetasnp ? param.alpha : 1.0, scale = param.tau / alpha;
    log.message("Inverted (co)variances for effect " + inttochar(e) +
                " is scaled by tau/alpha: " + realtochar(scale, "(g0.5)"));
    if (!std::isfinite(scale) || scale < 0.0)
        fatal(log,
              "The (co)variances of the huge effect " + inttochar(e) + " cannot be scaled with tau = " +
                  realtochar(param.tau, "(g0.5)") + " and alpha = " + realtochar(alpha, "(g0.5)"),
              hugecov_module, procedure);
    return scale;
}

void report_hugecov(const crssparse& ginv, std::int32_t e, logger& log) {
    log.message("Memory (MB) needed for the inverted (co)variances of effect " + inttochar(e) + ": " +
                realtochar(ginv.getmem() / 1048576.0, "(f0.2)"));
}

namespace {

/// Whether a covariance file of the model is this very file.
bool is_covariance_file(const param_type& param, const std::filesystem::path& path) {
    for (std::int32_t e = param.neffect - param.nhuge + 1; e <= param.neffect; ++e) {
        std::error_code missing;
        if (std::filesystem::equivalent(path, std::string(trim(param.file[e][0])), missing)) return true;
    }
    return false;
}

/// Values as text. Those of one SNP are often those of the next, so that they need not be formed anew.
class value_texts {
  public:
    const std::string& of(double value) {
        const auto bits = std::bit_cast<std::uint64_t>(value);
        entry& known = known_[bits * 0x9E3779B97F4A7C15U >> 56];
        if (known.text.empty() || known.bits != bits) known = {bits, realtochar(value, "(g0)")};
        return known.text;
    }

  private:
    struct entry {
        std::uint64_t bits = 0;
        std::string text;
    };
    std::array<entry, 256> known_;
};

void write_element(file_writer& file, std::int32_t row, std::int32_t column, const std::string& value) {
    constexpr std::size_t longest = 64;  // two integers and a value of 17 digits
    char* const line = file.reserve(longest);
    char* p = write_i0(line, row);
    *p++ = ' ';
    p = write_i0(p, column);
    *p++ = ' ';
    p = std::ranges::copy(value, p).out;
    *p++ = '\n';
    file.advance(static_cast<std::size_t>(p - line));
}

}  // namespace

void write_hugecov(const crssparse& ginv, const param_type& param, std::int32_t e, const std::string& suffix,
                   const char* procedure, logger& log) {
    const std::string name = output_directory(param) + "invcov_" + inttochar(e) + ".inv" + suffix;
    if (is_covariance_file(param, name)) {
        log.information("The file " + name + " is not written, because covariances are read from it");
        return;
    }
    const auto stop = [&](const file_error& why) {
        fatal_io(log, "The file " + name + " cannot be written", hugecov_module, procedure, why.iostat,
                 why.iomsg);
    };
    file_writer file;
    if (const auto failure = file.open(name)) stop(*failure);
    value_texts texts;
    const auto m = ginv.view();
    for (std::int32_t row = 1; row <= ginv.getdim(1) && !file.failed(); ++row)
        for (std::int32_t k = m.ia[row - 1] - 1; k < m.ia[row] - 1; ++k)
            write_element(file, row, m.ja[k], texts.of(m.a[k]));
    if (const auto failure = file.commit()) stop(*failure);
}

}  // namespace zendar::detail
