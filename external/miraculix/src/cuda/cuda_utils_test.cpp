#include "cuda/cuda_utils.hpp"

#include <gmock/gmock.h>

#include <limits>

#include "cuda/gpu_interface.hpp"

namespace {

using namespace miraculix::gpu;
using testing::StartsWith;

/// What a call returned and printed.
struct outcome {
    int status;
    std::string out, error;
    bool operator==(const outcome&) const = default;
    friend std::ostream& operator<<(std::ostream& to, const outcome& o) {
        return to << o.status << "\nout: " << o.out << "\nerror: " << o.error;
    }
};

template <class F>
outcome outcome_of(F call) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = call();
    outcome found{status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
    if (status != 0) {
        EXPECT_EQ(found.error, last_failure() + "\n");
    }
    return found;
}

// ---- checkCuda

outcome versions(int driver, int runtime) {
    return outcome_of([=] { return checkCuda(driver, runtime); });
}

TEST(CheckCuda, FailsWithoutADriver) {
    EXPECT_EQ(versions(0, 13000), (outcome{1, "", "No CUDA driver detected.\n"}));
}

TEST(CheckCuda, FailsBelow10) {
    EXPECT_EQ(versions(9020, 13000),
              (outcome{1, "",
                       "Your CUDA driver is of version 9.2. CUDA driver versions below "
                       "10.0 are not supported.\n"}));
    EXPECT_EQ(versions(9999, 9000).status, 1);
    EXPECT_EQ(versions(10000, 10000), (outcome{0, "", ""}));
}

TEST(CheckCuda, WarnsOfADriverOlderThanTheRuntimeAndGoesOn) {
    EXPECT_EQ(versions(12080, 13000),
              (outcome{0,
                       "Warning: the CUDA driver is of version 12.8, older than the CUDA runtime of version "
                       "13.0. Please upgrade the driver.\n",
                       ""}));
    EXPECT_EQ(versions(13000, 13000), (outcome{0, "", ""}));
    EXPECT_EQ(versions(13010, 13000), (outcome{0, "", ""}));
}

// ---- switchDevice

constexpr const char* unset_text = "Environment variable CUDA_DEVICE is not set, using device 0.\n";
constexpr const char* none_visible =
    "There are no visible CUDA devices. Check if there is a device available or set the "
    "CUDA_VISIBLE_DEVICES variable\n";

struct choice {
    outcome printed;
    int ordinal = -7;
};
choice choose(const char* device, const char* visible) {
    choice made;
    made.printed = outcome_of([&] { return switchDevice(device, visible, made.ordinal); });
    return made;
}

TEST(SwitchDevice, TakesDevice0WhenNoneIsNamed) {
    const choice made = choose(nullptr, "0");
    EXPECT_EQ(made.printed, (outcome{0, unset_text, ""}));
    EXPECT_EQ(made.ordinal, 0);
}

TEST(SwitchDevice, TakesTheDeviceThatIsNamed) {
    const choice made = choose("2", "0,1,2,3");
    EXPECT_EQ(made.printed,
              (outcome{0, "Environment variable CUDA_DEVICE is set to 2, switching to device 2.\n", ""}));
    EXPECT_EQ(made.ordinal, 2);
}

/// The runtime counts the visible devices only, from 0.
TEST(SwitchDevice, CountsThePlaceAmongTheVisibleDevices) {
    EXPECT_EQ(choose("5", "3,5").ordinal, 1);
    EXPECT_EQ(choose("3", " 5 , 3 ").ordinal, 1);
    EXPECT_EQ(choose(nullptr, "1,GPU-a1b2,0").ordinal, 2);
}

TEST(SwitchDevice, FailsForADeviceThatIsNotVisible) {
    EXPECT_EQ(choose(nullptr, "1,2").printed,
              (outcome{-1, unset_text, "The requested device 0 is not visible to the CUDA driver.\n"}));
    EXPECT_EQ(choose("1", "11,12").printed,
              (outcome{-1, "Environment variable CUDA_DEVICE is set to 1, switching to device 1.\n",
                       "The requested device 1 is not visible to the CUDA driver.\n"}));
    for (const char* visible : {"", ",", "GPU-0", "0x0", "-1,0", "0 1"})
        EXPECT_EQ(choose(nullptr, visible).printed.status, -1) << visible;
}

TEST(SwitchDevice, FailsWhenNoDeviceIsVisible) {
    EXPECT_EQ(choose(nullptr, nullptr).printed, (outcome{-1, unset_text, none_visible}));
    EXPECT_EQ(choose("0", nullptr).printed,
              (outcome{-1, "Environment variable CUDA_DEVICE is set to 0, switching to device 0.\n",
                       none_visible}));
}

TEST(SwitchDevice, RefusesWhatIsNoNumberOfADevice) {
    for (const std::string device : {"", "one", "1x", "-1", "1.0", "99999999999", "0,1"})
        EXPECT_EQ(choose(device.c_str(), "0,1").printed,
                  (outcome{-1, "",
                           "Environment variable CUDA_DEVICE is set to '" + device +
                               "', which is not the number of a device.\n"}));
}

// ---- checkDevMemory, checkError, debug_info

TEST(CheckDevMemory, FailsWhenMoreIsRequiredThanFree) {
    constexpr std::size_t gb = std::size_t{1} << 30;
    const auto check = [](std::size_t required, std::size_t free, std::size_t total) {
        return outcome_of([=] { return checkDevMemory(required, free, total); });
    };
    EXPECT_EQ(check(5 * gb, 5 * gb, 80 * gb), (outcome{0, "", ""}));
    EXPECT_EQ(
        check(150 * gb + 5, 139 * gb - 1, 140 * gb),
        (outcome{1, "",
                 "CUDA Error: Not enough memory available. \nRequired 150 GB, free 138 GB, total on device "
                 "140 GB \n"}));
}

TEST(CheckError, PrintsWhereAndTheStatus) {
    EXPECT_EQ(outcome_of([] { return checkError("plink2gpu", 12, 0, ""); }), (outcome{0, "", ""}));
    EXPECT_EQ(outcome_of([] { return checkError("plink2gpu", 12, 2, "out of memory"); }),
              (outcome{1, "", "CUDA Error in plink2gpu, line 12: status 2 (out of memory)\n"}));
    EXPECT_EQ(outcome_of([] { return checkError("freegpu", 3, -4, ""); }),
              (outcome{1, "", "CUDA Error in freegpu, line 3: status -4\n"}));
}

TEST(DebugInfo, PrintsInColour) {
    EXPECT_EQ(outcome_of([] {
                  debug_info("Return");
                  return 0;
              }),
              (outcome{0, "\033[36m\tReturn\033[37m\n", ""}));
}

// ---- sizes

/// 10 SNPs of 3 bytes for 9 individuals, 9 individuals of 3 bytes for 10 SNPs; 12 is 10 rounded up to four.
TEST(SizesOf, AreThoseOfTheFormula) {
    const object_sizes sizes = sizes_of(10, 9, 7, 0);
    EXPECT_EQ(sizes.bytes_i, 3U);
    EXPECT_EQ(sizes.bytes_s, 3U);
    EXPECT_EQ(sizes.size, 7U * 12U);
    EXPECT_EQ(sizes.required, 9U * 3U + 10U * 3U + 24U * 7U * 12U);
    EXPECT_EQ(sizes.pitch_i, 16U);
    EXPECT_EQ(sizes.allocated, 19U * 16U + 24U * 7U * 12U + 8U * (10U + 10U));
}

TEST(SizesOf, CountTheRestOfARow) {
    EXPECT_EQ(sizes_of(1, 1, 1, 0).bytes_i, 1U);
    EXPECT_EQ(sizes_of(1, 4, 1, 0).bytes_i, 1U);
    EXPECT_EQ(sizes_of(1, 5, 1, 0).bytes_i, 2U);
    EXPECT_EQ(sizes_of(65, 64, 1, 0).pitch_s, 32U);
    EXPECT_EQ(sizes_of(65, 64, 1, 0).pitch_i, 16U);
}

TEST(SizesOf, HaveRoomForThePartialSums) {
    EXPECT_EQ(elements_of_c(84, 7, 20), 84U);
    EXPECT_EQ(elements_of_c(84, 7, 100), 107U);
    EXPECT_EQ(sizes_of(10, 9, 7, 100).allocated - sizes_of(10, 9, 7, 0).allocated, 8U * (107U - 84U));
}

/// A national evaluation is beyond 32 bits, and nonsense beyond 64.
TEST(SizesOf, DoNotOverflow) {
    const std::size_t snps = 50'000, individuals = 20'000'000;
    EXPECT_EQ(sizes_of(50'000, 20'000'000, 10, 0).required,
              individuals * (snps / 4) + snps * (individuals / 4) + 24 * 10 * individuals);
    constexpr auto most = std::numeric_limits<std::int32_t>::max();
    EXPECT_EQ(sizes_of(most, most, most, 1).required, std::numeric_limits<std::size_t>::max());
    EXPECT_EQ(sizes_of(most, most, most, 1).allocated, std::numeric_limits<std::size_t>::max());
}

TEST(MaxnOf, IsWhatTheObjectWasMadeFor) {
    for (const std::int32_t maxn : {1, 7, 64, 1000})
        for (const std::int32_t snps : {1, 9, 4000}) {
            EXPECT_EQ(maxn_of(sizes_of(snps, 57, maxn, 0).size, snps, 57), maxn);
            EXPECT_EQ(maxn_of(sizes_of(57, snps, maxn, 0).size, 57, snps), maxn);
        }
}

// ---- arguments

TEST(CheckObject, RefusesWhatCannotBe) {
    const int there = 0;
    const auto check = [&](std::int32_t snps, std::int32_t individuals, std::int32_t maxn, const void* t) {
        return outcome_of([=, &there] { return check_object(&there, t, snps, individuals, &there, maxn); })
            .error;
    };
    EXPECT_EQ(check(1, 1, 1, &there), "");
    EXPECT_EQ(check(0, 5, 1, &there), "There are 0 SNPs and 5 individuals; both must be positive.\n");
    EXPECT_EQ(check(5, -1, 1, &there), "There are 5 SNPs and -1 individuals; both must be positive.\n");
    EXPECT_EQ(check(5, 5, 0, &there), "The largest number of columns is 0; it must be positive.\n");
    EXPECT_EQ(check(5, 5, 1, nullptr),
              "The GPU needs the genotypes in both orientations and the frequencies.\n");
}

TEST(CheckProduct, RefusesMoreColumnsThanThereIsRoomFor) {
    const double there = 0.0;
    const auto check = [&](std::int32_t n, std::int64_t ldb, const void* b) {
        return outcome_of([=, &there] { return check_product(10, n, 4, b, ldb, &there); }).error;
    };
    EXPECT_EQ(check(4, 10, &there), "");
    EXPECT_EQ(check(0, 10, nullptr), "");
    EXPECT_EQ(check(5, 10, &there),
              "The product has 5 columns, but the work arrays on the device have room for 4.\n");
    EXPECT_THAT(check(-1, 10, &there), StartsWith("The product has -1 columns, but"));
    EXPECT_EQ(check(4, 9, &there),
              "The leading dimension of the right-hand side is 9, but it has 10 rows.\n");
    EXPECT_EQ(check(4, 10, nullptr), "The product lacks its matrices.\n");
}

TEST(GpuRecord, HasTheSizeThatIsAllocated) {
    EXPECT_EQ(sizeof(gpu_record), 80U);
}

}  // namespace
