#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "modfile.hpp"
#include "modlogger.hpp"

/// Private to the reading of an instruction file's sections.
namespace zendar::detail {

inline constexpr std::string_view read_parameter_file_tag = "read_parameter_file";

/// The fixed part of an instruction file as one statement after the other. Whatever cannot be read is fatal,
/// with the file and the line.
class section_reader {
  public:
    /// Takes the whole file; option lines become empty, so that values may go on behind them and every line
    /// keeps its number.
    section_reader(const std::string& file, logger& log);

    text_reader& input() { return input_; }
    [[nodiscard]] logger& log() const { return log_; }
    /// A further line of a message: where the reading stands.
    [[nodiscard]] std::string where() const;
    /// Length of what stands behind the line read last.
    [[nodiscard]] std::int64_t bytes_left() const;

    /// The first word of the next line; nothing at the end of the file.
    std::optional<std::string> next_word();
    /// The line of a keyword; any other word stops the run, with the message.
    void keyword(std::string_view name, std::string_view message = {});
    /// The integers of a section.
    void values(std::string_view section, std::span<std::int32_t> out);
    /// A keyword and its integer.
    std::int32_t keyword_and_value(std::string_view section);
    /// The words of the next line with any, without their quotes; none at the end of the file.
    std::vector<std::string> words_of_next_line();

    /// Stops unless lowest <= value <= highest.
    void check_range(std::string_view what, std::int64_t value, std::int64_t lowest,
                     std::int64_t highest) const;
    [[noreturn]] void fail(const std::string& message) const;

  private:
    text_reader input_;
    std::vector<std::int64_t> bytes_left_;  // from each line on
    logger& log_;
};

}  // namespace zendar::detail
