#pragma once

#include <filesystem>
#include <iosfwd>
#include <memory>
#include <source_location>
#include <string>
#include <string_view>
#include <vector>

#include "modfatal.hpp"

namespace zendar {

/// Messages below the logger's level are dropped. `message` is never dropped.
enum class log_level : int { debug = 10, information = 20, warning = 30, error = 40 };

/// How a logger lays out its lines.
struct logger_layout {
    int max_width = 82;   ///< longer lines break at a blank; a word longer than this is cut
    bool indent = false;  ///< continuation lines (of a break or of an embedded line feed) start with 4 blanks
};

/// Writes messages to streams (the screen) and to log files, each line flushed as it is written.
///
/// A line is the head "module % procedure: " (only when a module is given; "module: " without a procedure),
/// then the level's prefix "INFO: ", "WARN: ", "ERROR: ", "I/O ERROR: " or "DEBUG: ", then the text.
/// `message` has no prefix. Leading blanks of the text are kept. Not safe for concurrent calls.
class logger {
  public:
    /// A unit's handle for `remove_unit`.
    using unit = int;
    enum class position { replace, append };

    logger();
    ~logger();
    logger(const logger&) = delete;
    logger& operator=(const logger&) = delete;

    /// Adds a stream that outlives the logger, e.g. standard output.
    unit add_stream(std::ostream& stream);
    /// Opens a log file in place (`replace` truncates it, `append` needs an existing file).
    /// @throws fatal_error  when the file cannot be opened; the message went to the units present so far.
    unit add_log_file(const std::filesystem::path& path, position where = position::replace);
    void remove_unit(unit which);
    [[nodiscard]] std::vector<unit> units() const;

    /// Names the logger that is told when a file of this one, which has no screen, cannot be opened or
    /// written. `other` outlives this logger.
    void tell_failures_to(logger& other);

    void configure(logger_layout layout);
    [[nodiscard]] logger_layout layout() const;
    void set_level(log_level level);
    [[nodiscard]] log_level level() const;

    void message(std::string_view text, std::string_view module = {}, std::string_view procedure = {});
    void debug(std::string_view text, std::string_view module = {}, std::string_view procedure = {});
    void information(std::string_view text, std::string_view module = {}, std::string_view procedure = {});
    void warning(std::string_view text, std::string_view module = {}, std::string_view procedure = {});
    void error(std::string_view text, std::string_view module = {}, std::string_view procedure = {});
    /// As `error`, with the prefix "I/O ERROR: " and, on further lines, "With iostat = " and the status, and
    /// "With iomsg = " and the message in double quotes.
    void io_error(std::string_view text, std::string_view module, std::string_view procedure, int iostat,
                  std::string_view iomsg);

    /// Text without a line feed to the streams only (never to files): the progress lines.
    void screen_raw(std::string_view text);

  private:
    struct implementation;
    std::unique_ptr<implementation> self_;
};

/// Logs one error with the head "module % procedure (line): " and throws `fatal_error`.
[[noreturn]] void fatal(logger& log, const std::string& message, std::string_view module,
                        std::string_view procedure, int status = 1,
                        std::source_location where = std::source_location::current());

/// As `fatal`, through `io_error`.
[[noreturn]] void fatal_io(logger& log, const std::string& message, std::string_view module,
                           std::string_view procedure, int iostat, std::string_view iomsg,
                           std::source_location where = std::source_location::current());

/// Logs one error line without head and prefix (texts that begin " ERROR (mod...") and throws.
[[noreturn]] void fatal_plain(logger& log, const std::string& message, int status = 1);

}  // namespace zendar
