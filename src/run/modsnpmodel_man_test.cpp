#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "modsnpmodel.hpp"
#include "places.hpp"

namespace zendar {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string stored(const std::string& name) {
    std::ifstream file(test::source_folder() / "tests/data" / name, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string manual(bool markdown, logger_layout layout) {
    std::ostringstream text;
    logger log;
    log.add_stream(text);
    log.configure(layout);
    man(markdown, log);
    EXPECT_EQ(log.layout().max_width, layout.max_width);
    EXPECT_EQ(log.layout().indent, layout.indent);
    return text.str();
}

constexpr logger_layout wide{.max_width = 100'000, .indent = false};
constexpr logger_layout as_run{.max_width = 82, .indent = true};

TEST(Man, PrintsEveryOptionOnTheScreen) {
    EXPECT_EQ(manual(false, wide), stored("manual.txt"));
}

TEST(Man, FitsTheScreen) {
    std::istringstream text(manual(false, as_run));
    for (std::string line; std::getline(text, line);) EXPECT_LE(line.size(), 82U) << line;
}

TEST(Man, PrintsEveryOptionInMarkdown) {
    EXPECT_EQ(manual(true, as_run), stored("manual.md"));
}

TEST(Man, HasNoCodeBlockInMarkdown) {
    std::istringstream text(manual(true, as_run));
    for (std::string line; std::getline(text, line);) EXPECT_FALSE(line.starts_with("    ")) << line;
}

TEST(Man, HasItsSectionsInOrder) {
    const std::string text = manual(false, as_run);
    const std::string frames[] = {
        "+++++ MANUAL: options for the model available through the parameter file +++++\n",
        "+++++ End of manual for the model +++++\n",
        "+++++ MANUAL: options for the solver available through the parameter file +++++\n",
        "+++++ End of manual for solver +++++\n",
        "+++++ MANUAL: other options available through the parameter file +++++\n",
        "+++++ End of manual for other options +++++\n"};
    std::size_t position = 0;
    for (const std::string& frame : frames) {
        const std::size_t next = text.find("\n" + frame, position);
        ASSERT_NE(next, std::string::npos) << frame;
        position = next;
    }
    EXPECT_THAT(manual(true, as_run), Not(HasSubstr("+++++")));
}

}  // namespace
}  // namespace zendar
