#include "options.hpp"

#include <gmock/gmock.h>

#include <cstdlib>
#include <string>

#include "miraculix.hpp"
#include "modfatal.hpp"

namespace {

using namespace miraculix;

/// Each test starts without options and leaves the environment as it was.
class Options : public testing::Test {
  protected:
    void SetUp() override {
        forget_options();
        const char* const value = std::getenv("OMP_NUM_THREADS");
        had_value_ = value != nullptr;
        if (had_value_) value_ = value;
        ::setenv("OMP_NUM_THREADS", "3", 1);
    }
    void TearDown() override {
        forget_options();
        if (had_value_)
            ::setenv("OMP_NUM_THREADS", value_.c_str(), 1);
        else
            ::unsetenv("OMP_NUM_THREADS");
    }

  private:
    bool had_value_ = false;
    std::string value_;
};

/// As the model calls it, but for what is given.
struct arguments {
    std::int32_t usegpu = 0, cores = 0, floatprecision = 0, meansubstract = 0, ignore = 1, docenter = 0,
                 normalize = 0, usefreq = 0, variant = 0, printlevel = 0;
};

const option_type& set(const arguments& a) {
    setOptions_compressed(a.usegpu, a.cores, a.floatprecision, a.meansubstract, a.ignore, a.docenter,
                          a.normalize, a.usefreq, a.variant, a.printlevel);
    return WhichOptionList().genetics;
}

TEST_F(Options, AreThoseOfTheStartWhenNobodyHasSetThem) {
    const option_pair& options = WhichOptionList();

    EXPECT_TRUE(options.genetics.tuning.gpu);
    EXPECT_EQ(options.genetics.basic.cores, 3);
    EXPECT_EQ(options.genetics.tuning.float_precision, 0);
    EXPECT_FALSE(options.genetics.tuning.mean_v);
    EXPECT_FALSE(options.genetics.tuning.mean_sxi);
    EXPECT_FALSE(options.genetics.ignore_missings);
    EXPECT_EQ(options.genetics.do_center, 1);
    EXPECT_FALSE(options.genetics.normalize);
    EXPECT_TRUE(options.genetics.use_caller_freq);
    EXPECT_EQ(options.genetics.tuning.variant, 128);
    EXPECT_EQ(options.utils.printlevel, 0);
}

TEST_F(Options, AreInvertedForMissingsCentringAndFrequencies) {
    const option_type& model = set({});

    EXPECT_FALSE(model.tuning.gpu);
    EXPECT_FALSE(model.ignore_missings);
    EXPECT_EQ(model.do_center, 1);
    EXPECT_TRUE(model.use_caller_freq);
    EXPECT_FALSE(model.normalize);
    EXPECT_EQ(model.tuning.variant, 32);

    EXPECT_EQ(set({.docenter = 1}).do_center, 0);
    EXPECT_FALSE(set({.usefreq = 1}).use_caller_freq);
    EXPECT_TRUE(set({.usegpu = 1}).tuning.gpu);
}

TEST_F(Options, SubtractMeansFromTheVectorAndTheMatrixByNumber) {
    const auto means = [](std::int32_t value) {
        const tuning_options& tuning = set({.meansubstract = value}).tuning;
        return std::pair(tuning.mean_v, tuning.mean_sxi);
    };

    EXPECT_EQ(means(0), std::pair(false, false));
    EXPECT_EQ(means(1), std::pair(true, true));
    EXPECT_EQ(means(2), std::pair(true, false));
    EXPECT_EQ(means(3), std::pair(false, true));
    EXPECT_EQ(means(4), std::pair(false, false));
}

TEST_F(Options, KeepTheVariantWithin32And256) {
    EXPECT_EQ(set({.variant = 0}).tuning.variant, 32);
    EXPECT_EQ(set({.variant = -5}).tuning.variant, 32);
    EXPECT_EQ(set({.variant = 128}).tuning.variant, 128);
    EXPECT_EQ(set({.variant = 256}).tuning.variant, 256);
    EXPECT_EQ(set({.variant = 1000}).tuning.variant, 256);
}

TEST_F(Options, TakeTheThreadsOfTheEnvironmentWhenCoresIsNull) {
    EXPECT_EQ(set({}).basic.cores, 3);
    EXPECT_EQ(set({.cores = 2}).basic.cores, 2);
}

TEST_F(Options, TakeFourThreadsWhenTheEnvironmentHasNoPositiveNumber) {
    for (const char* value : {"many", "", "0", "-2", "2,4", "2 ", "99999999999"}) {
        ::setenv("OMP_NUM_THREADS", value, 1);
        EXPECT_EQ(set({}).basic.cores, 4) << "'" << value << "'";
    }
    ::unsetenv("OMP_NUM_THREADS");
    EXPECT_EQ(set({}).basic.cores, 4);
}

TEST_F(Options, WarnOfTheEnvironmentAbovePrintLevelThree) {
    ::setenv("OMP_NUM_THREADS", "many", 1);
    testing::internal::CaptureStdout();
    set({.printlevel = 3});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    testing::internal::CaptureStdout();
    set({.printlevel = 4});
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "WARNING: seeing 'OMP_NUM_THREADS=many' only -- #threads set to 4\n");
}

TEST_F(Options, CanAskForMoreThreadsThanAMachineShouldBeGiven) {
    set({.cores = 2147483647});

    EXPECT_EQ(WhichOptionList().genetics.basic.cores, 2147483647);
    EXPECT_GE(thread_count(), 256);
    EXPECT_LT(thread_count(), 100'000);
}

TEST_F(Options, ArePrintedAbovePrintLevelTen) {
    testing::internal::CaptureStdout();
    set({.printlevel = 10});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

    testing::internal::CaptureStdout();
    set({.cores = 7, .variant = 64, .printlevel = 11});
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "gpu      : false\n"
              "cores    : 7\n"
              "float    : 0\n"
              "meanV    : false\n"
              "meanSxI  : false\n"
              "ignore missings: false\n"
              "do center: 1\n"
              "normalize: false\n"
              "use_caller_freq: true\n"
              "variant  : 64\n"
              "print lvl: 11\n"
              "setoptions5 done \n");
}

TEST_F(Options, NameTheExtendedPrecisionWhenPrinted) {
    testing::internal::CaptureStdout();
    set({.floatprecision = -1, .printlevel = 11});
    EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::HasSubstr("\nprecise  : true\n"));
}

void expect_refused(const arguments& a, const std::string& text) {
    testing::internal::CaptureStderr();
    try {
        set(a);
        ADD_FAILURE() << "The options were taken.";
    } catch (const zendar::fatal_error& error) {
        EXPECT_EQ(error.status(), 1);
        EXPECT_THAT(error.what(), testing::HasSubstr(text));
    }
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr(text));
}

TEST_F(Options, RefuseWhatCannotBeTreated) {
    const std::string text =
        "in case of 'gpu' the caller's frequency must always be used; missings/centering/normalizing cannot "
        "treated.";
    expect_refused({.usegpu = 1, .usefreq = 1}, text);
    expect_refused({.ignore = 0}, text);
    expect_refused({.normalize = 1}, text);
    expect_refused({.usegpu = 1, .normalize = 1}, text);
    expect_refused({.cores = -1}, "The number of cores is -1, but must not be negative.");
}

TEST_F(Options, StayAsTheyWereWhenNewOnesAreRefused) {
    set({.cores = 2, .variant = 64});

    expect_refused({.cores = 5, .normalize = 1}, "in case of 'gpu'");

    EXPECT_EQ(WhichOptionList().genetics.basic.cores, 2);
    EXPECT_EQ(WhichOptionList().genetics.tuning.variant, 64);
}

TEST(Is, ReadsTheTranspositionLetter) {
    for (const char c : {'T', 't', 'Y', 'y'}) EXPECT_TRUE(is(c)) << c;
    for (const char c : {'N', 'n'}) EXPECT_FALSE(is(c)) << c;
}

TEST(Is, EndsWithStatus99ForAnotherLetter) {
    for (const char c : {'x', 'C', '\0', ' '}) {
        testing::internal::CaptureStderr();
        try {
            (void)is(c);
            ADD_FAILURE() << c;
        } catch (const zendar::fatal_error& error) {
            EXPECT_EQ(error.status(), 99);
        }
        EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("transposition flag"));
    }
}

}  // namespace
