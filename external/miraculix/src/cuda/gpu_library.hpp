#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "cuda/gpu_interface.hpp"

/// The shared object of the GPU path. It is opened when a GPU is asked for, so that a program starts, and
/// does all the rest, where there is no CUDA, and one that was built without it is the same program.
namespace miraculix::gpu {

struct gpu_library {
    decltype(&plink2gpu) to_gpu;
    decltype(&dgemm_compressed_gpu) multiply, multiply_reference;
    decltype(&freegpu) free;
    decltype(&gpu_last_failure) last_failure;
    decltype(&gpu_device_count) device_count;
};

/// Where the object is looked for: beside the program, as in a build folder, then in the library folder of an
/// installation.
[[nodiscard]] std::vector<std::string> gpu_library_files(const std::string& program_folder);

/// Opens the first of the files that is there. It stays open to the end of the process.
///
/// @param function  in whose name the errors are told.
/// @throws zendar::fatal_error  when no file is there: the program was built without GPU support; or when the
///                              file cannot be opened, with its name and the reason.
[[nodiscard]] gpu_library open_gpu_library(const std::vector<std::string>& files, std::string_view function);

/// The object of this program, opened at the first call.
[[nodiscard]] const gpu_library& the_gpu_library(std::string_view function);

}  // namespace miraculix::gpu
