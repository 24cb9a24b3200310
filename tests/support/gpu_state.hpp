#pragma once

#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "cuda/gpu_library.hpp"

/// For the tests: what the machine has, and what a program must say there.
namespace miraculix::gpu::test {

inline std::filesystem::path build_folder() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}
inline bool object_is_built() {
    return std::filesystem::exists(build_folder() / "libzendar_gpu.so");
}
/// Whether there is a driver at all: its library.
inline bool driver_is_there() {
    return ::dlopen("libcuda.so.1", RTLD_NOW | RTLD_LOCAL) != nullptr;
}
inline int devices() {
    return object_is_built() ? the_gpu_library("devices").device_count() : 0;
}
/// Whether the object beside the test is the one that runs on the host.
inline bool device_is_the_host() {
    return build_folder().filename() == "host_gpu";
}
/// Why nothing can run on a GPU when the environment names no visible device.
inline std::string reason_without_visible_devices() {
    if (!object_is_built()) return "The GPU was asked for, but this program was built without GPU support.";
    if (!driver_is_there()) return "No CUDA driver detected.";
    return "There are no visible CUDA devices. Check if there is a device available or set the "
           "CUDA_VISIBLE_DEVICES variable";
}

/// Sets or (null) unsets an environment variable for as long as it lives.
class environment_value {
  public:
    environment_value(std::string name, const char* value) : name_(std::move(name)) {
        if (const char* const old = std::getenv(name_.c_str())) old_ = old;
        set(value);
    }
    ~environment_value() { set(old_ ? old_->c_str() : nullptr); }
    environment_value(const environment_value&) = delete;
    environment_value& operator=(const environment_value&) = delete;

  private:
    void set(const char* value) const {
        if (value == nullptr)
            ::unsetenv(name_.c_str());
        else
            ::setenv(name_.c_str(), value, 1);
    }
    std::string name_;
    std::optional<std::string> old_;
};

}  // namespace miraculix::gpu::test
