#pragma once

#include <cstdint>

/// The one process-wide option set of the library. It is read without a lock: calls into the library must not
/// overlap.
namespace miraculix {

struct basic_options {
    std::int32_t cores = 0;  ///< threads of all parallel regions
};

struct tuning_options {
    bool gpu = false;                  ///< products run on the GPU
    std::int32_t float_precision = 0;  ///< 0 double, above 0 tables in single, below 0 extended precision
    bool mean_v = false;               ///< subtract row means from the vector
    bool mean_sxi = false;             ///< subtract means of the genotype matrix
    std::int32_t variant = 32;         ///< SIMD width in bits, 32 to 256
};

/// The genetics options, with threading and choice of method.
struct option_type {
    bool ignore_missings = false;  ///< treat missing genotypes apart
    std::int32_t do_center = 1;    ///< centre the genotypes
    bool normalize = false;        ///< divide by the standard deviation
    bool use_caller_freq = true;   ///< allele frequencies come from the caller
    basic_options basic;
    tuning_options tuning;
};

/// The run-wide utility options.
struct utilsoption_type {
    std::int32_t printlevel = 0;  ///< above 10, each setting of the options is printed
};

struct option_pair {
    option_type genetics;
    utilsoption_type utils;
};

/// The options; those of the start when nobody has set them.
[[nodiscard]] const option_pair& WhichOptionList();

/// Creates the options, if there are none, with a GPU, the caller's frequencies and centring, the threads of
/// the environment, double precision and variant 128. Stands ahead of every entry point.
void getStartedOptions();

/// Creates the option pair with the given number of threads.
void startMiraculix(std::int32_t cores);

/// Forgets the options, as if the library had not been called yet.
void forget_options();

/// Stores the options, prints them above print level 10.
///
/// @param cores  0: the value of the environment variable OMP_NUM_THREADS, or 4 when that is no positive
/// number.
/// @throws zendar::fatal_error  status 1, for what cannot be treated: a GPU without the caller's frequencies,
///                              missing genotypes apart, normalised genotypes, a negative number of threads.
void setOptions5(bool gpu, std::int32_t cores, std::int32_t float_precision, bool mean_v, bool mean_sxi,
                 bool ignore_missings, std::int32_t do_center, bool normalize, bool use_caller_freq,
                 std::int32_t variant, std::int32_t printlevel);

/// The threads for a parallel region: those of the options, as far as the machine can sensibly run them.
[[nodiscard]] std::int32_t thread_count();

/// Whether a letter asks for the transposed matrix.
///
/// @throws zendar::fatal_error  status 99, for another letter than "T", "t", "Y", "y", "N", "n".
[[nodiscard]] bool is(char c);

}  // namespace miraculix
