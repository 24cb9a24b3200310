#include <filesystem>
#include <sstream>

#include "gpu_state.hpp"
#include "snp_files.hpp"

// Whole runs that ask for a GPU: what the program says where it is not to be had, and the same solutions
// where it is.

namespace zendar::test {
namespace {

namespace fs = std::filesystem;
using ::miraculix::gpu::test::devices;
using ::miraculix::gpu::test::driver_is_there;
using ::miraculix::gpu::test::environment_value;
using ::miraculix::gpu::test::object_is_built;
using ::miraculix::gpu::test::reason_without_visible_devices;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string without_support = "The GPU was asked for, but this program was built without GPU support.";

program_result run_on_gpu(const temporary_directory& run, const std::string& program = program_file()) {
    snp_files files(30);
    files.options = "!miraculix_gpu 3\n";
    files.write(run);
    return run_program(run.path(), {"model.par", "--ncpus", "1"}, program);
}

void expect_failure(const program_result& result, const temporary_directory& run, const std::string& reason) {
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.error, HasSubstr(reason));
    EXPECT_THAT(unwrapped(result.out), HasSubstr("ERROR: "));
    EXPECT_FALSE(run.exists("OK_ZENDAR"));
    EXPECT_FALSE(run.exists("solutions.dat"));
}

/// The program in a folder of its own, as in an installation: bin, and lib beside it.
fs::path installed(const temporary_directory& folder) {
    fs::create_directories(folder / "bin");
    fs::create_directories(folder / "lib");
    fs::copy_file(program_file(), folder / "bin/zendar");
    return folder / "bin/zendar";
}

TEST(RunOnGpu, WithoutAVisibleDeviceIsOneClearMessageAndNoMarker) {
    const environment_value hidden("CUDA_VISIBLE_DEVICES", nullptr);
    const temporary_directory run;
    expect_failure(run_on_gpu(run), run, reason_without_visible_devices());
}

TEST(RunOnGpu, WithoutADriverSaysSo) {
    if (!object_is_built()) GTEST_SKIP() << "built without GPU support: skipped";
    if (driver_is_there()) GTEST_SKIP() << "there is a CUDA driver: skipped";
    const environment_value shown("CUDA_VISIBLE_DEVICES", "0");
    const temporary_directory run;

    const program_result result = run_on_gpu(run);

    expect_failure(result, run, "No CUDA driver detected.\n");
    EXPECT_THAT(unwrapped(result.out), HasSubstr("The GPU failed: No CUDA driver detected."));
    EXPECT_THAT(result.out, HasSubstr("\tmiraculix - libdgemmcuda\n"));
}

TEST(RunOnGpu, OfAProgramWithoutTheLibrarySaysThatItWasBuiltWithoutGpuSupport) {
    const temporary_directory folder, run;
    expect_failure(run_on_gpu(run, installed(folder)), run, without_support);
}

TEST(RunOnGpu, WithALibraryThatCannotBeOpenedNamesIt) {
    const temporary_directory folder, run;
    const fs::path program = installed(folder);
    const fs::path library = folder.write("bin/libzendar_gpu.so", std::string(200, 'x'));

    const program_result result = run_on_gpu(run, program);

    expect_failure(result, run,
                   "The GPU was asked for, but the library " + library.string() +
                       " could not be opened: " + library.string() + ": invalid ELF header");
}

TEST(RunOnGpu, FindsTheLibraryOfAnInstallation) {
    if (!object_is_built()) GTEST_SKIP() << "built without GPU support: skipped";
    const environment_value hidden("CUDA_VISIBLE_DEVICES", nullptr);
    const temporary_directory folder, run;
    const fs::path program = installed(folder);
    const fs::path library =
        fs::path(::miraculix::gpu::gpu_library_files(folder / "bin")[1]).lexically_normal();
    fs::create_directories(library.parent_path());
    fs::copy_file(::miraculix::gpu::test::build_folder() / "libzendar_gpu.so", library);

    expect_failure(run_on_gpu(run, program), run, reason_without_visible_devices());
}

/// Without the option, nothing of the GPU is touched.
TEST(RunOnGpu, IsNotLookedForWhenItIsNotAskedFor) {
    const temporary_directory folder, run;
    const fs::path program = installed(folder);
    folder.write("bin/libzendar_gpu.so", std::string(200, 'x'));
    snp_files files(30);
    files.options = "!miraculix 3\n";
    files.write(run);

    const program_result result = run_program(run.path(), {"model.par", "--ncpus", "1"}, program);

    EXPECT_EQ(result.status, 0) << result.out << result.error;
    EXPECT_TRUE(run.exists("OK_ZENDAR"));
    EXPECT_THAT(result.out, AllOf(Not(HasSubstr("GPU enabled")), Not(HasSubstr("libdgemmcuda"))));
}

std::vector<double> numbers_of(const std::string& text) {
    std::istringstream words(text);
    std::vector<double> numbers;
    for (std::string word; words >> word;) {
        char* end = nullptr;
        const double number = std::strtod(word.c_str(), &end);
        if (*end == '\0') numbers.push_back(number);
    }
    return numbers;
}

void expect_same_solutions(const temporary_directory& found, const temporary_directory& expected) {
    const auto numbers = numbers_of(found.read("solutions.dat"));
    const auto others = numbers_of(expected.read("solutions.dat"));
    ASSERT_EQ(numbers.size(), others.size());
    for (std::size_t i = 0; i < numbers.size(); ++i) EXPECT_NEAR(numbers[i], others[i], 1e-6) << i;
}

/// The kernel's text on the host in the place of the device: all that the program does around it is tested
/// here.
TEST(RunOnGpu, HasTheSolutionsOfTheCpuByTheKernelOnTheHost) {
    const temporary_directory folder;
    const fs::path program = installed(folder);
    fs::copy_file(program_file("host_gpu/libzendar_gpu.so"), folder / "bin/libzendar_gpu.so");
    for (const int type : {20, 22, 23, 30}) {
        SCOPED_TRACE(type);
        const temporary_directory on_gpu, on_cpu;
        snp_files files(type);
        files.options = "!miraculix 3\n";
        files.write(on_cpu);
        const program_result cpu = run_program(on_cpu.path(), {"model.par", "--ncpus", "1"}, program);
        ASSERT_EQ(cpu.status, 0) << cpu.out << cpu.error;

        files.options = "!miraculix_gpu 3\n";
        files.write(on_gpu);
        const program_result gpu = run_program(on_gpu.path(), {"model.par", "--ncpus", "1"}, program);

        ASSERT_EQ(gpu.status, 0) << gpu.out << gpu.error;
        EXPECT_THAT(gpu.out, HasSubstr("Miraculix: Version: GPU\n"));
        expect_same_solutions(on_gpu, on_cpu);
    }
}

TEST(RunOnGpu, StopsWhenTheDeviceFails) {
    const environment_value fails("ZENDAR_HOST_GPU_FAILS", "1");
    const temporary_directory folder, run;
    const fs::path program = installed(folder);
    fs::copy_file(program_file("host_gpu/libzendar_gpu.so"), folder / "bin/libzendar_gpu.so");

    const program_result result = run_on_gpu(run, program);

    expect_failure(result, run, "The GPU failed: The host fails as it was told to.");
    EXPECT_THAT(unwrapped(result.out), HasSubstr("The GPU failed: The host fails as it was told to."));
}

TEST(RunOnGpu, HasTheSolutionsOfTheCpu) {
    if (devices() == 0) GTEST_SKIP() << "no GPU answers: skipped";
    const char* const visible = std::getenv("CUDA_VISIBLE_DEVICES");
    const environment_value shown("CUDA_VISIBLE_DEVICES", visible == nullptr ? "0" : visible);
    const temporary_directory on_gpu, on_cpu;
    snp_files files(30);
    files.options = "!miraculix 3\n";
    files.write(on_cpu);
    const program_result cpu = run_program(on_cpu.path(), {"model.par", "--ncpus", "1"});

    const program_result gpu = run_on_gpu(on_gpu);

    ASSERT_EQ(cpu.status, 0) << cpu.out << cpu.error;
    ASSERT_EQ(gpu.status, 0) << gpu.out << gpu.error;
    expect_same_solutions(on_gpu, on_cpu);
}

}  // namespace
}  // namespace zendar::test
