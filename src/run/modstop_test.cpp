#include "modstop.hpp"

#include <gtest/gtest.h>

#include <csignal>

namespace zendar {
namespace {

class StopHandlers : public testing::Test {
  protected:
    void TearDown() override { reset_stop(); }
};

TEST_F(StopHandlers, NoteTheFirstSignalOnly) {
    install_stop_handlers();
    EXPECT_FALSE(stop_requested());
    EXPECT_STREQ(stop_signal(), "");

    std::raise(SIGTERM);

    EXPECT_TRUE(stop_requested());
    EXPECT_STREQ(stop_signal(), "SIGTERM");
}

TEST_F(StopHandlers, ForgetASignalAtAReset) {
    install_stop_handlers();
    std::raise(SIGINT);
    EXPECT_STREQ(stop_signal(), "SIGINT");

    reset_stop();
    EXPECT_FALSE(stop_requested());

    install_stop_handlers();
    std::raise(SIGINT);
    EXPECT_TRUE(stop_requested());
}

TEST_F(StopHandlers, PutBackWhatTheSignalsDidBefore) {
    struct sigaction mine {
    }, after{};
    mine.sa_handler = [](int) {};
    struct sigaction old {};
    sigaction(SIGTERM, &mine, &old);
    install_stop_handlers();

    reset_stop();

    sigaction(SIGTERM, &old, &after);
    EXPECT_EQ(after.sa_handler, mine.sa_handler);
}

TEST_F(StopHandlers, LeaveAnIgnoredSignalIgnored) {
    struct sigaction ignore {
    }, old{};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ignore, &old);

    install_stop_handlers();
    std::raise(SIGINT);
    EXPECT_FALSE(stop_requested());

    reset_stop();
    sigaction(SIGINT, &old, nullptr);
}

TEST(StopHandlersDeathTest, LetASecondSignalEndTheProcess) {
    const auto raise_both = [](int first, int second) {
        install_stop_handlers();
        std::raise(first);
        std::raise(second);
    };
    EXPECT_EXIT(raise_both(SIGINT, SIGINT), testing::KilledBySignal(SIGINT), "");
    EXPECT_EXIT(raise_both(SIGINT, SIGTERM), testing::KilledBySignal(SIGTERM), "");
}

}  // namespace
}  // namespace zendar
