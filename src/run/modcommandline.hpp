#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "modlogger.hpp"

namespace zendar {

enum class switch_action : std::uint8_t { store, store_true };

/// One argument of the command line. A positional argument has no names.
struct command_switch {
    std::string name;        ///< "--ncpus", empty for a positional argument
    std::string short_name;  ///< "-n", may be empty
    switch_action action = switch_action::store;
    std::string default_value;
    std::string help;
    std::string exclude;  ///< name of a switch that may not stand beside this one
};

/// A command line: declared arguments, parsing, reading back, usage in text and Markdown.
///
/// A `store` switch takes the next word as its value, which must not begin with a dash unless it is a number.
/// A word that is no switch is the next positional argument.
class command_line {
  public:
    command_line(std::string program, std::string version, std::string description);

    void add(command_switch argument);

    /// @returns true when the words fit the declaration; otherwise one message went to `error`.
    bool parse(std::span<const std::string> words, std::ostream& error);

    /// Reading back; 0 when good, else an error number:
    /// 1 the argument is not declared, 2 the value is not of the type asked for.
    int get(std::string_view name, bool& value) const;
    int get(std::string_view name, std::int32_t& value) const;
    int get(std::string_view name, std::string& value) const;
    int get_positional(std::int32_t position, std::string& value) const;  ///< position from 1

    [[nodiscard]] std::string usage() const;
    [[nodiscard]] std::string usage_markdown() const;

  private:
    struct state {
        command_switch argument;
        std::optional<std::string> value;
    };
    /// Position of a switch in `switches_`, or its size.
    [[nodiscard]] std::size_t find(std::string_view name) const;
    [[nodiscard]] int read_back(std::string_view name, switch_action action, std::string& value) const;

    std::string program_, version_, description_;
    std::vector<state> switches_, positionals_;
};

/// What the command line says.
struct run_arguments {
    std::string parfile = "none";
    std::string relparam = "none";
    bool lpec = false;
    bool lebvpev = false;
    bool lverbose = false;
    bool lmarkdown = false;
    std::int32_t ncpus = 0;  ///< 0: not given
    std::optional<std::string> help_message;  ///< only for `--help`
};

/// Largest value of `--ncpus`.
inline constexpr std::int32_t max_threads = 1024;

/// The interface of the program, without words yet.
command_line create_command_line(std::string_view version);

/// True when one of the raw words (each cut to 30 characters and trimmed) is "--noscreen".
bool scan_noscreen(std::span<const std::string> words);

/// Reads the parsed values back and acts on `--markdown` (writes zendar.md) and `--ncpus` (sets the threads).
/// @throws fatal_error  when a value cannot be read.
run_arguments readargument(const command_line& line, logger& log);

}  // namespace zendar
