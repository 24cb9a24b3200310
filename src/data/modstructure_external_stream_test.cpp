#include <cmath>
#include <limits>

#include "modstructure_external_test_support.hpp"

namespace zendar::test {
namespace {

using testing::HasSubstr;

struct stream_case {
    std::string name;
    std::string bytes;
    std::int64_t nheader;  ///< integers of the header
    std::function<void()> read;
};

class DamagedStream : public ExternalMatrix {
  protected:
    std::vector<stream_case> cases() {
        std::string k;
        append<std::int32_t>(k, {2});
        append(k, {1.0, 2.0, 3.0});
        return {{"APY", apy_stream(), 3, [this] { readgapy(param_, 1, "x.stream", apy_, log()); }},
                {"Ta matrix", ta_stream(), 3, [this] { readtamatrix(param_, 1, "x.stream", ta_, log()); }},
                {"QP transfo", symmetric_stream(), 2,
                 [this] { readqptransfo(param_, 1, "x.stream", qp_, log()); }},
                {"K matrix", k, 1, [this] { readktamatrix(param_, 1, "x.stream", kt_, log()); }}};
    }
    std::string told(const stream_case& c, const std::string& bytes) {
        directory_.write("x.stream", bytes);
        return refusal(c.read);
    }
    apy apy_;
    tamatrix_type ta_;
    ktmatrix_type kt_;
    gima22i_type qp_;
};

TEST_F(DamagedStream, CutAnywhereOrLongerIsRefused) {
    for (const stream_case& c : cases()) {
        EXPECT_EQ(told(c, c.bytes), "no fatal_error");
        for (std::size_t n = 0; n < c.bytes.size(); ++n) {
            const bool header = n < static_cast<std::size_t>(4 * c.nheader);
            EXPECT_THAT(told(c, c.bytes.substr(0, n)),
                        HasSubstr(header ? "The file x.stream is not a stream file! | It ends at byte "
                                         : "The file x.stream is not a stream file for " + c.name +
                                               "! | It has " + std::to_string(n) + " bytes"))
                << c.name << " " << n;
        }
        for (const std::size_t more : {1U, 4U, 8U, 800U})
            EXPECT_THAT(told(c, c.bytes + std::string(more, '\0')), HasSubstr("which do not hold "));
    }
}

TEST_F(DamagedStream, SizesAndLevelsThatDoNotFitAreRefusedBeforeAnyAllocation) {
    for (const stream_case& c : cases()) {
        const std::int64_t nint = c.name == "K matrix"     ? 1
                                  : c.name == "QP transfo" ? 4
                                  : c.name == "APY"        ? 7
                                                           : 5;
        for (std::int64_t k = 0; k < nint; ++k)
            for (const std::int32_t value : {std::numeric_limits<std::int32_t>::min(), -1, 0, 1, 13, 65536,
                                             std::numeric_limits<std::int32_t>::max()}) {
                std::string bytes = c.bytes;
                std::memcpy(bytes.data() + 4 * k, &value, 4);
                const std::string message = told(c, bytes);
                // Any level from 1 to 12 that the others are not may stand in a list, but for the maximum.
                if (k >= c.nheader && value == 1)
                    EXPECT_EQ(message, "no fatal_error");
                else
                    EXPECT_THAT(message, HasSubstr("is not a stream file for " + c.name + "! | "))
                        << c.name << " integer " << k << " is " << value;
            }
    }
    const auto with = [&](const stream_case& c, std::int64_t k, std::int32_t value) {
        std::string bytes = c.bytes;
        std::memcpy(bytes.data() + 4 * k, &value, 4);
        return told(c, bytes);
    };
    const stream_case g = cases()[0];
    EXPECT_EQ(with(g, 0, 10),
              "The file x.stream is not a stream file for APY! | Level 4: 11 must lie between 1 "
              "and 10");
    EXPECT_EQ(with(g, 0, 13),
              "The file x.stream is not a stream file for APY! | The maximum level 13 must lie "
              "between 1 and 12");
    EXPECT_EQ(with(g, 5, 4),
              "The file x.stream is not a stream file for APY! | Level 3: 4 stands there twice");
    EXPECT_EQ(with(g, 1, 5),
              "The file x.stream is not a stream file for APY! | It tells of 5 core levels among 4");
}

TEST_F(ExternalMatrix, LevelsOfASymmetricStreamStandInAnyOrder) {
    std::string bytes;
    append<std::int32_t>(bytes, {9, 3, 4, 9, 2});
    append(bytes, {1.0, 2.0, 3.0, 4.0, 5.0, 6.0});
    directory_.write("x.stream", bytes);

    gima22i_type matrix;
    readqptransfo(param_, 1, "x.stream", matrix, log());
    EXPECT_EQ(matrix.levels.level, (std::vector<std::int32_t>{4, 9, 2}));
    EXPECT_EQ(matrix.elements.value(1, 0), 2.0);  // 9 with 4
    EXPECT_EQ(matrix.elements.value(2, 1), 5.0);  // 2 with 9
    write_symmetric(matrix, "x_tri", log());
    readgima22i(param_, 1, "x_tri", matrix, log());
    EXPECT_EQ(matrix.levels.level, (std::vector<std::int32_t>{2, 4, 9}));
    EXPECT_EQ(matrix.elements.value(1, 0), 4.0);  // 4 with 2
    EXPECT_EQ(matrix.elements.value(2, 0), 5.0);
    EXPECT_EQ(matrix.elements.value(2, 1), 2.0);
    EXPECT_EQ(matrix.elements.value(2, 2), 3.0);
}

TEST_F(DamagedStream, ValuesAreFinite) {
    for (const stream_case& c : cases()) {
        const std::size_t first = c.name == "K matrix"     ? 4
                                  : c.name == "QP transfo" ? 16
                                  : c.name == "APY"        ? 28
                                                           : 20;
        for (std::size_t at = first; at < c.bytes.size(); at += 8)
            for (const double value : {std::nan(""), HUGE_VAL}) {
                std::string bytes = c.bytes;
                std::memcpy(bytes.data() + at, &value, 8);
                EXPECT_EQ(told(c, bytes), "The file x.stream is not a stream file! | The value behind byte " +
                                              std::to_string(at) + " is not a finite number");
            }
    }
}

TEST_F(ExternalMatrix, WritersRefuseNamesAndFolders) {
    for (const char* name : {"x", "x.stream"})
        EXPECT_EQ(refusal([&] { write_gima22i({}, name, log()); }),
                  "The form of the file " + std::string(name) + " is not implemented!");
    EXPECT_EQ(refusal([&] { write_symmetric({}, "x", log()); }),
              "The form of the file x is not implemented!");
    EXPECT_EQ(refusal([&] { write_acrosseff({}, "x", log()); }),
              "The form of the file x is not implemented!");
    EXPECT_EQ(refusal([&] { write_gapy({}, "x", log()); }), "The form of the file x is not implemented!");
    EXPECT_EQ(refusal([&] { write_tamatrix({}, "x", log()); }), "The form of the file x is not implemented!");
    EXPECT_THAT(refusal([&] { write_list({}, "none/x", log()); }),
                HasSubstr("Cannot write the file none/x | "));
    EXPECT_THAT(refusal([&] { write_densesquare({}, "none/x", "_tri", log()); }),
                HasSubstr("Cannot write the file none/x | "));
}

}  // namespace
}  // namespace zendar::test
