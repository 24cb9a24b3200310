#include "modlogger.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <optional>
#include <ostream>
#include <utility>

#include "modbasic.hpp"
#include "modfile_detail.hpp"

namespace zendar {

namespace {

constexpr std::size_t indentation = 4;

/// Bytes of the character that starts at `at`: more than one for a whole UTF-8 sequence only.
std::size_t character_size(std::string_view text, std::size_t at) {
    const auto lead = static_cast<unsigned char>(text[at]);
    std::size_t size = 1;
    if (lead >= 0xC2 && lead <= 0xDF) size = 2;
    if (lead >= 0xE0 && lead <= 0xEF) size = 3;
    if (lead >= 0xF0 && lead <= 0xF4) size = 4;
    if (at + size > text.size()) return 1;
    for (std::size_t k = 1; k < size; ++k)
        if ((static_cast<unsigned char>(text[at + k]) & 0xC0U) != 0x80U) return 1;
    return size;
}

/// How much of `text` the next line takes, and where the text goes on behind it.
struct piece {
    std::size_t size, next;
};

piece first_piece(std::string_view text, std::size_t width) {
    std::size_t end = 0, break_at = 0;
    bool has_word = false;  // a line of blanks only is no place to break
    for (std::size_t characters = 0; end < text.size() && characters < width; ++characters) {
        if (text[end] != ' ')
            has_word = true;
        else if (has_word)
            break_at = end;
        end += character_size(text, end);
    }
    if (end == text.size()) return {end, end};
    if (text[end] == ' ' && has_word) break_at = end;
    if (break_at == 0) return {end, end};
    return {break_at, break_at + 1};
}

/// Adds one line of text, broken to the layout's width, each piece ended by a line feed.
void append_line(std::string& out, std::string_view text, const logger_layout& layout, bool continuation) {
    const std::size_t full_width = layout.max_width > 1 ? static_cast<std::size_t>(layout.max_width) : 1;
    do {
        const std::size_t indent = continuation && layout.indent ? indentation : 0;
        const std::size_t width = full_width > indent ? full_width - indent : 1;
        const piece taken = first_piece(text, width);
        if (taken.size > 0) out.append(indent, ' ');
        out.append(text.substr(0, taken.size)).push_back('\n');
        text.remove_prefix(taken.next);
        continuation = true;
    } while (text.find_first_not_of(' ') != std::string_view::npos);
}

std::string lay_out(std::string_view text, const logger_layout& layout) {
    std::string out;
    bool continuation = false;
    for (;;) {
        const std::size_t feed = text.find('\n');
        append_line(out, text.substr(0, feed), layout, continuation);
        if (feed == std::string_view::npos) return out;
        text.remove_prefix(feed + 1);
        continuation = true;
    }
}

/// The procedure with its source line, as errors name it.
std::string tag(std::string_view procedure, const std::source_location& where) {
    return std::string(procedure) + " (" + inttochar(std::int64_t{where.line()}) + ")";
}

std::string compose(std::string_view prefix, std::string_view text, std::string_view module,
                    std::string_view procedure) {
    std::string line;
    if (!module.empty()) {
        line.append(module);
        if (!procedure.empty()) line.append(" % ").append(procedure);
        line.append(": ");
    }
    return line.append(prefix).append(text);
}

/// One place that messages go to: a stream, or a file by its descriptor.
struct output_unit {
    logger::unit handle = 0;
    std::ostream* stream = nullptr;
    int descriptor = -1;
    std::string name;
    bool failed = false;
};

}  // namespace

struct logger::implementation {
    std::vector<output_unit> units;
    unit next_handle = 1;
    logger_layout layout;
    log_level level = log_level::information;
    logger* told = nullptr;  // of failures of this logger's own files

    implementation() = default;
    implementation(const implementation&) = delete;
    implementation& operator=(const implementation&) = delete;
    ~implementation() {
        for (const output_unit& u : units)
            if (u.descriptor >= 0) ::close(u.descriptor);
    }

    /// A screen that is gone (a closed pipe) is left out from then on: the run still has its log file.
    static void write_stream(output_unit& u, std::string_view text) {
        detail::pipe_guard guard;
        u.stream->write(text.data(), static_cast<std::streamsize>(text.size()));
        u.stream->flush();
        u.failed = !u.stream->good();
        // The stream still holds the text and tries once more when the process ends: that must not kill it.
        if (u.failed && guard.take()) std::signal(SIGPIPE, SIG_IGN);
    }

    void write_streams(std::string_view text) {
        for (output_unit& u : units)
            if (u.stream != nullptr && !u.failed) write_stream(u, text);
    }

    /// The text to all units. @returns the file that could not be written, with its error.
    std::optional<std::pair<std::string, file_error>> write_units(std::string_view text) {
        std::optional<std::pair<std::string, file_error>> failure;
        write_streams(text);
        for (output_unit& u : units) {
            if (u.descriptor < 0 || u.failed) continue;
            const int code = detail::write_all(u.descriptor, text.data(), text.size());
            u.failed = code != 0;
            if (u.failed && !failure) failure.emplace(u.name, detail::system_error(code));
        }
        return failure;
    }

    void put(std::string_view line) {
        const auto failure = write_units(lay_out(line, layout));
        if (!failure) return;
        const std::string text = "Cannot write the log file " + failure->first;
        const std::string procedure = tag("put", std::source_location::current());
        // A second file that fails now is left out like the first; the run ends with the first one.
        write_units(lay_out(io_error_line(text, "modlogger", procedure, failure->second), layout));
        if (told != nullptr)
            told->io_error(text, "modlogger", procedure, failure->second.iostat, failure->second.iomsg);
        throw fatal_error(text);
    }

    static std::string io_error_line(std::string_view text, std::string_view module,
                                     std::string_view procedure, const file_error& why) {
        return compose("I/O ERROR: ", text, module, procedure) + "\nWith iostat = " + inttochar(why.iostat) +
               "\nWith iomsg = \"" + why.iomsg + "\"";
    }
};

logger::logger() : self_(std::make_unique<implementation>()) {}
logger::~logger() = default;

logger::unit logger::add_stream(std::ostream& stream) {
    output_unit u;
    u.handle = self_->next_handle++;
    u.stream = &stream;
    self_->units.push_back(std::move(u));
    return self_->units.back().handle;
}

logger::unit logger::add_log_file(const std::filesystem::path& path, position where) {
    const int mode = where == position::append ? O_APPEND : O_CREAT | O_TRUNC;
    output_unit u;
    u.name = path.string();
    u.descriptor = ::open(path.c_str(), O_WRONLY | O_CLOEXEC | mode, 0666);
    if (u.descriptor < 0) {
        const file_error why = detail::system_error();
        fatal_io(self_->told != nullptr ? *self_->told : *this, "Cannot open the log file " + u.name,
                 "modlogger", "add_log_file", why.iostat, why.iomsg);
    }
    u.handle = self_->next_handle++;
    self_->units.push_back(std::move(u));
    return self_->units.back().handle;
}

void logger::remove_unit(unit which) {
    auto& units = self_->units;
    const auto found =
        std::find_if(units.begin(), units.end(), [which](const output_unit& u) { return u.handle == which; });
    if (found == units.end()) return;
    if (found->descriptor >= 0) ::close(found->descriptor);
    units.erase(found);
}

std::vector<logger::unit> logger::units() const {
    std::vector<unit> handles;
    for (const output_unit& u : self_->units) handles.push_back(u.handle);
    return handles;
}

void logger::tell_failures_to(logger& other) {
    self_->told = &other;
}

void logger::configure(logger_layout layout) {
    self_->layout = layout;
}
logger_layout logger::layout() const {
    return self_->layout;
}
void logger::set_level(log_level level) {
    self_->level = level;
}
log_level logger::level() const {
    return self_->level;
}

void logger::message(std::string_view text, std::string_view module, std::string_view procedure) {
    self_->put(compose("", text, module, procedure));
}

void logger::debug(std::string_view text, std::string_view module, std::string_view procedure) {
    if (self_->level <= log_level::debug) self_->put(compose("DEBUG: ", text, module, procedure));
}

void logger::information(std::string_view text, std::string_view module, std::string_view procedure) {
    if (self_->level <= log_level::information) self_->put(compose("INFO: ", text, module, procedure));
}

void logger::warning(std::string_view text, std::string_view module, std::string_view procedure) {
    if (self_->level <= log_level::warning) self_->put(compose("WARN: ", text, module, procedure));
}

void logger::error(std::string_view text, std::string_view module, std::string_view procedure) {
    self_->put(compose("ERROR: ", text, module, procedure));
}

void logger::io_error(std::string_view text, std::string_view module, std::string_view procedure, int iostat,
                      std::string_view iomsg) {
    self_->put(implementation::io_error_line(text, module, procedure, {iostat, std::string(iomsg)}));
}

void logger::screen_raw(std::string_view text) {
    self_->write_streams(text);
}

void fatal(logger& log, const std::string& message, std::string_view module, std::string_view procedure,
           int status, std::source_location where) {
    log.error(message, module, tag(procedure, where));
    throw fatal_error(message, status);
}

void fatal_io(logger& log, const std::string& message, std::string_view module, std::string_view procedure,
              int iostat, std::string_view iomsg, std::source_location where) {
    log.io_error(message, module, tag(procedure, where), iostat, iomsg);
    throw fatal_error(message);
}

void fatal_plain(logger& log, const std::string& message, int status) {
    log.message(message);
    throw fatal_error(message, status);
}

}  // namespace zendar
