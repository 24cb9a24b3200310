#include "cuda/gpu_library.hpp"

#include <gmock/gmock.h>

#include <exception>

#include "gpu_state.hpp"
#include "modfatal.hpp"
#include "temporary_directory.hpp"

namespace {

using namespace miraculix::gpu;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

std::string end_of_opening(const std::vector<std::string>& files) {
    testing::internal::CaptureStderr();
    std::string text;
    try {
        static_cast<void>(open_gpu_library(files, "plink2gpu"));
    } catch (const zendar::fatal_error& error) {
        text = error.what();
        EXPECT_EQ(error.status(), 1);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), text.empty() ? "" : text + "\n");
    return text;
}

TEST(GpuLibrary, IsLookedForBesideTheProgramAndInTheLibraryFolder) {
    EXPECT_THAT(gpu_library_files("/opt/zendar/bin"),
                ElementsAre("/opt/zendar/bin/libzendar_gpu.so",
                            AllOf(StartsWith("/opt/zendar/bin/../lib"), HasSubstr("/libzendar_gpu.so"))));
}

TEST(GpuLibrary, WhichIsNotThereWasNotBuilt) {
    const zendar::test::temporary_directory folder;
    EXPECT_THAT(
        end_of_opening({folder / "a.so", folder / "b.so"}),
        AllOf(StartsWith("Severe error occured in function 'plink2gpu' (file 'gpu_library.cpp', line "),
              HasSubstr("The GPU was asked for, but this program was built without GPU support.")));
}

TEST(GpuLibrary, ThatCannotBeOpenedIsNamedWithTheReason) {
    const zendar::test::temporary_directory folder;
    folder.write("b.so", "this is no shared object, though it is long enough to have the head of one ......");
    const std::string file = folder / "b.so";
    EXPECT_EQ(end_of_opening({folder / "a.so", file}), "The GPU was asked for, but the library " + file +
                                                           " could not be opened: " + file +
                                                           ": invalid ELF header");
}

/// Another shared object, the standard library for instance.
TEST(GpuLibrary, ThatLacksAFunctionIsNamedWithIt) {
    Dl_info info{};
    ASSERT_NE(::dladdr(reinterpret_cast<void*>(&std::set_terminate), &info), 0);
    const std::string file = info.dli_fname;
    EXPECT_THAT(end_of_opening({file}),
                AllOf(HasSubstr("the library " + file + " could not be opened: "), HasSubstr("plink2gpu")));
}

TEST(GpuLibrary, OpensWithoutADriver) {
    if (!test::object_is_built()) GTEST_SKIP() << "built without GPU support: skipped";
    EXPECT_EQ(end_of_opening(gpu_library_files(test::build_folder())), "");
    EXPECT_GE(the_gpu_library("test").device_count(), 0);
    if (!test::driver_is_there()) {
        EXPECT_EQ(the_gpu_library("test").device_count(), 0);
    }
}

/// The object by itself, as far as it gets where it cannot have a device.
TEST(GpuLibrary, SaysWhatItIsBeforeItFails) {
    if (!test::object_is_built()) GTEST_SKIP() << "built without GPU support: skipped";
    const test::environment_value visible("CUDA_VISIBLE_DEVICES", nullptr), device("CUDA_DEVICE", nullptr);
    const gpu_library& library = the_gpu_library("test");
    const std::uint8_t byte = 0;
    const double f = 0.5;
    gpu_record* record = nullptr;

    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = library.to_gpu(&byte, &byte, 3, 4, &f, 2, &record);
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string error = testing::internal::GetCapturedStderr();

    EXPECT_EQ(status, 1);
    EXPECT_EQ(record, nullptr);
    EXPECT_THAT(out,
                testing::ContainsRegex("^-+\n\tmiraculix - libdgemmcuda\n\tcompiled on .*, revision .*\n-+\n"
                                       "\033\\[36m\tDimensions: \\(3,4\\), size in bytes: 199, size_t 8"
                                       "\033\\[37m\n"));
    EXPECT_EQ(error, test::reason_without_visible_devices() + "\n");
    EXPECT_EQ(library.last_failure(), test::reason_without_visible_devices());
}

TEST(GpuLibrary, RefusesAnObjectThatCannotBe) {
    if (!test::object_is_built()) GTEST_SKIP() << "built without GPU support: skipped";
    const gpu_library& library = the_gpu_library("test");
    const std::uint8_t byte = 0;
    const double f = 0.5;
    double c = 0.0;
    gpu_record* record = nullptr;
    gpu_record empty{};
    empty.snps = empty.individuals = 1;
    empty.size = 4;

    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(library.to_gpu(&byte, nullptr, 3, 4, &f, 2, &record), 1);
    EXPECT_EQ(library.to_gpu(&byte, &byte, 3, 4, &f, 0, &record), 1);
    EXPECT_EQ(library.to_gpu(&byte, &byte, 3, 4, &f, 2, nullptr), 1);
    EXPECT_EQ(library.multiply(true, nullptr, 1, &f, 1, 1, 0, &c, 1), 1);
    EXPECT_EQ(library.multiply(true, &empty, 2, &f, 1, 1, 0, &c, 1), 1);
    EXPECT_EQ(library.multiply(true, &empty, 1, &f, 1, 2, 0, &c, 1), 1);
    EXPECT_EQ(library.free(nullptr), 0);
    const std::string error = testing::internal::GetCapturedStderr();
    const std::string out = testing::internal::GetCapturedStdout();

    EXPECT_THAT(error,
                HasSubstr("The product has 2 columns, but the work arrays on the device have room for 1.\n"));
    EXPECT_THAT(error, HasSubstr("CUDA Error in dgemm_compressed_gpu, line "));
    EXPECT_THAT(out,
                HasSubstr("\tEntering GPU multiplication\n\033[36m\tPointer: d_M 0, Dimensions: m 1, k 1, "
                          "k1 1, n 2\033[37m\n"));
}

}  // namespace
