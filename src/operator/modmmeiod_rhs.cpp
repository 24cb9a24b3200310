#include <algorithm>
#include <filesystem>
#include <vector>

#include "modbasic.hpp"
#include "modgeneral.hpp"
#include "modgeneral_temporary.hpp"
#include "modmmeiod_detail.hpp"
#include "modmmeiod_ls.hpp"
#include "modstats.hpp"

namespace zendar {

namespace {

constexpr const char* module_tag = "modmmeiod";
constexpr const char* rhs_file = "rhstmp.stream";

/// Appends the seconds of one step to a line of times.
class step_clock {
  public:
    explicit step_clock(std::string& text) : text_(text) {}
    void end(std::string_view label) {
        text_ += " " + std::string(label) + realtochar(clock_.seconds(), "(f0.3)");
        clock_ = wtime();
    }

  private:
    std::string& text_;
    wtime clock_;
};

}  // namespace

void mme_iod::computerhs(std::span<double> b, std::string& text) {
    const char* const procedure =
        param_.lcombieff ? "r_equal_b_minus_Atimesx_combieff" : "r_equal_b_minus_Atimesx_ori";
    step_clock clock(text);
    matrix<double> from_file;
    modmmeiod::record_input in = records();
    if (!data_.phen.empty()) {
        log_.message("Presence of an allocated phen array!");
        in.y = data_.phen.view();
    } else {
        from_file = read_phentmp(param_.ntrait, data_.effect.cols(),
                                 "The file phentmp.stream does not exist, AND phen is not allocated!",
                                 module_tag, procedure, log_);
        in.y = from_file.view();
        clock.end("Read phen               : ");
    }
    least_squares(in, b);
    summarize_all(b);
    clock.end("Compute b               : ");
}

void mme_iod::priormean(std::span<double> b, std::span<double> work, std::string& text) {
    if (param_.priormean == "none") return;
    step_clock clock(text);
    initvectorfromfile_real8(param_, work, param_.priormean, log_);
    clock.end("Reading prior_mean      : ");
    if (param_.nhuge > 0) {
        compute_sumestimates(work);
        clock.end("Huge_covariable * x     : ");
    }
    computerandompart(work, b, text);
    clock.end("Gi * prior_mean         : ");
}

void mme_iod::right_hand_side(std::span<double> b, std::span<double> work, std::string& text) {
    if (param_.providedrhs == "none") {
        computerhs(b, text);
    } else {
        step_clock clock(text);
        if (!std::filesystem::exists(param_.providedrhs))
            fatal(log_, "The file " + param_.providedrhs + " does not exist!", module_tag,
                  "r_equal_bprovided_minus_Atimesx");
        initvectorfromfile_real8(param_, b, param_.providedrhs, log_);
        clock.end("Read b                  : ");
    }
    priormean(b, work, text);
}

void mme_iod::r_equal_b_minus_atimesx(std::span<const double> x, std::span<double> b, std::span<double> r) {
    std::string text = "  Elapsed time (s) - r = b - C * x  :";
    right_hand_side(b, r, text);
    finish_residual(x, b, r, text);
}

void mme_iod::finish_residual(std::span<const double> x, std::span<const double> b, std::span<double> r,
                              std::string& text) {
    step_clock clock(text);
    const std::int64_t n = std::ssize(r);
    // Most runs start there, and need no product.
    const bool from_zero = std::ranges::all_of(x, [](double value) { return value == 0.0; });
    if (!from_zero) atimesx(x, r);
    clock.end("r = C * x               : ");
#pragma omp parallel for schedule(static) default(none) shared(b, r, n, from_zero)
    for (std::int64_t i = 0; i < n; ++i) r[i] = from_zero ? b[i] : b[i] - r[i];
    clock.end("r = b - r               : ");
    write_raw_stream(b, rhs_file, log_);
    clock.end("Write b to rhstmp.stream: ");
    log_.message(text);
}

void mme_iod::r_equal_savedb_minus_atimesx(std::span<const double> x, std::span<double> r) {
    constexpr const char* procedure = "r_equal_savedb_minus_Atimesx";
    constexpr std::int64_t piece = 65536;
    std::string text = "  Elapsed time (s) - r = b - C * x  :";
    step_clock clock(text);
    temporary_stream file(rhs_file, std::ssize(r), "The file rhstmp.stream does not exist!", module_tag,
                          procedure, log_);
    atimesx(x, r);
    clock.end("r = C * x               : ");
    std::vector<double> b(static_cast<std::size_t>(std::min(piece, std::ssize(r))));
    for (std::int64_t first = 0; first < std::ssize(r); first += piece) {
        const std::int64_t n = std::min(piece, std::ssize(r) - first);
        file.read(std::span(b).first(n));
        for (std::int64_t i = 0; i < n; ++i) r[first + i] = b[i] - r[first + i];
    }
    clock.end("r = b - r               : ");
    log_.message(text);
}

bool mme_iod::read_savedb(std::span<double> b) {
    if (!std::filesystem::exists(rhs_file)) return false;
    temporary_stream file(rhs_file, std::ssize(b), "The file rhstmp.stream does not exist!", module_tag,
                          "read_savedb", log_);
    file.read(b);
    return true;
}

}  // namespace zendar
