#include "options.hpp"

#include <omp.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <optional>
#include <string>

#include "miraculix.hpp"
#include "reports.hpp"

namespace miraculix {

namespace {

constexpr std::int32_t smallest_variant = 32;
constexpr std::int32_t largest_variant = 256;
constexpr std::int32_t default_cores = 4;

std::optional<option_pair>& global_options() {
    static std::optional<option_pair> options;
    return options;
}

/// Threads as the environment asks for them.
std::int32_t cores_of_environment(std::int32_t printlevel) {
    const char* const text = std::getenv("OMP_NUM_THREADS");
    const std::string value = text == nullptr ? "" : text;
    std::int32_t cores = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), cores);
    if (error == std::errc{} && end == value.data() + value.size() && cores > 0) return cores;
    if (printlevel > 3)
        print_line("WARNING: seeing 'OMP_NUM_THREADS=" + value + "' only -- #threads set to " +
                   std::to_string(default_cores));
    return default_cores;
}

void print_option(std::string label, const std::string& value) {
    label.resize(std::max<std::size_t>(label.size(), 9), ' ');
    print_line(label + ": " + value);
}

std::string text_of(bool value) {
    return value ? "true" : "false";
}

void print_options(const option_pair& options) {
    const option_type& genetics = options.genetics;
    print_option("gpu", text_of(genetics.tuning.gpu));
    print_option("cores", std::to_string(genetics.basic.cores));
    if (genetics.tuning.float_precision < 0)
        print_option("precise", text_of(true));
    else
        print_option("float", std::to_string(genetics.tuning.float_precision));
    print_option("meanV", text_of(genetics.tuning.mean_v));
    print_option("meanSxI", text_of(genetics.tuning.mean_sxi));
    print_option("ignore missings", text_of(genetics.ignore_missings));
    print_option("do center", std::to_string(genetics.do_center));
    print_option("normalize", text_of(genetics.normalize));
    print_option("use_caller_freq", text_of(genetics.use_caller_freq));
    print_option("variant", std::to_string(genetics.tuning.variant));
    print_option("print lvl", std::to_string(options.utils.printlevel));
    print_line("setoptions5 done ");
}

}  // namespace

const option_pair& WhichOptionList() {
    getStartedOptions();
    return *global_options();
}

void startMiraculix(std::int32_t cores) {
    global_options().emplace().genetics.basic.cores = cores;
}

void getStartedOptions() {
    if (global_options()) return;
    startMiraculix(1);
    setOptions5(true, 0, 0, false, false, false, 1, false, true, 128, 0);
}

void forget_options() {
    global_options().reset();
}

void setOptions5(bool gpu, std::int32_t cores, std::int32_t float_precision, bool mean_v, bool mean_sxi,
                 bool ignore_missings, std::int32_t do_center, bool normalize, bool use_caller_freq,
                 std::int32_t variant, std::int32_t printlevel) {
    if (cores < 0)
        severe_error("setOptions5",
                     "The number of cores is " + std::to_string(cores) + ", but must not be negative.");
    if (cores == 0) cores = cores_of_environment(printlevel);
    if ((gpu && !use_caller_freq) || ignore_missings || normalize)
        end_run(
            "in case of 'gpu' the caller's frequency must always be used; missings/centering/normalizing "
            "cannot "
            "treated.");

    if (!global_options()) startMiraculix(1);
    option_pair& options = *global_options();
    options.genetics = {
        .ignore_missings = ignore_missings,
        .do_center = do_center,
        .normalize = normalize,
        .use_caller_freq = use_caller_freq,
        .basic = {.cores = cores},
        .tuning = {.gpu = gpu,
                   .float_precision = float_precision,
                   .mean_v = mean_v,
                   .mean_sxi = mean_sxi,
                   .variant = std::min(std::max(variant, smallest_variant), largest_variant)}};
    options.utils.printlevel = printlevel;
    if (printlevel > 10) print_options(options);
}

void setOptions_compressed(std::int32_t usegpu, std::int32_t cores, std::int32_t floatprecision,
                           std::int32_t meansubstract, std::int32_t ignore, std::int32_t docenter,
                           std::int32_t normalize, std::int32_t usefreq, std::int32_t variant,
                           std::int32_t printlevel) {
    getStartedOptions();
    const bool mean_v = meansubstract == 1 || meansubstract == 2;
    const bool mean_sxi = meansubstract == 1 || meansubstract == 3;
    setOptions5(usegpu != 0, cores, floatprecision, mean_v, mean_sxi, ignore == 0, docenter == 0 ? 1 : 0,
                normalize != 0, usefreq == 0, variant, printlevel);
}

std::int32_t thread_count() {
    constexpr std::int32_t enough_for_any_machine = 256;
    const std::int32_t most = std::max<std::int32_t>(enough_for_any_machine, omp_get_num_procs());
    return std::clamp(WhichOptionList().genetics.basic.cores, 1, most);
}

bool is(char c) {
    switch (c) {
        case 'T':
        case 't':
        case 'Y':
        case 'y':
            return true;
        case 'N':
        case 'n':
            return false;
    }
    end_run(std::string("The transposition flag '") + c + "' is not one of T, t, Y, y, N, n.", 99);
}

}  // namespace miraculix
