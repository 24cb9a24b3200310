#include "cuda/gpu_library.hpp"

#include <dlfcn.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <system_error>

#include "reports.hpp"

namespace miraculix::gpu {

namespace {

constexpr const char* object_name = "libzendar_gpu.so";

bool is_there(const std::string& file) {
    std::error_code unreadable;
    return std::filesystem::exists(file, unreadable);
}

[[noreturn]] void cannot_open(const std::string& file) {
    const char* const reason = ::dlerror();
    end_run("The GPU was asked for, but the library " + file +
            " could not be opened: " + (reason == nullptr ? "unknown reason" : reason));
}

template <class Function>
void find(Function& function, void* handle, const char* name, const std::string& file) {
    function = reinterpret_cast<Function>(::dlsym(handle, name));
    if (function == nullptr) cannot_open(file);
}

}  // namespace

std::vector<std::string> gpu_library_files(const std::string& program_folder) {
    return {program_folder + "/" + object_name,
            program_folder + "/" + ZENDAR_LIBRARY_FOLDER + "/" + object_name};
}

gpu_library open_gpu_library(const std::vector<std::string>& files, std::string_view function) {
    const auto file = std::ranges::find_if(files, is_there);
    if (file == files.end())
        severe_error(function, "The GPU was asked for, but this program was built without GPU support.");
    void* const handle = ::dlopen(file->c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) cannot_open(*file);
    gpu_library library{};
    find(library.to_gpu, handle, "plink2gpu", *file);
    find(library.multiply, handle, "dgemm_compressed_gpu", *file);
    find(library.multiply_reference, handle, "dgemm_compressed_gpu_reference", *file);
    find(library.free, handle, "freegpu", *file);
    find(library.last_failure, handle, "gpu_last_failure", *file);
    find(library.device_count, handle, "gpu_device_count", *file);
    return library;
}

const gpu_library& the_gpu_library(std::string_view function) {
    static std::optional<gpu_library> library;  // calls into the library do not overlap
    if (!library) {
        std::error_code unreadable;
        const auto program = std::filesystem::read_symlink("/proc/self/exe", unreadable);
        library = open_gpu_library(gpu_library_files(program.parent_path().string()), function);
    }
    return *library;
}

}  // namespace miraculix::gpu
