#include "modcommandline.hpp"

#include <omp.h>

#include <algorithm>
#include <ostream>
#include <utility>

#include "modbasic.hpp"
#include "modblas.hpp"
#include "modfile.hpp"

namespace zendar {
namespace {

constexpr std::size_t raw_word_length = 30;
constexpr int not_declared = 1;
constexpr int wrong_type = 2;

bool is_number(std::string_view word) {
    double ignored = 0.0;
    return parse_number(word, ignored).ok();
}

bool looks_like_switch(std::string_view word) {
    return word.size() > 1 && word.front() == '-' && !is_number(word);
}

std::string names_of(const command_switch& argument) {
    std::string names = argument.name;
    if (!argument.short_name.empty()) names += ", " + argument.short_name;
    if (argument.action == switch_action::store) names += " value";
    return names;
}

/// The master thread's view of the team that a parallel region gets.
int team_size() {
    int size = 1;
#pragma omp parallel default(none) shared(size)
    {
#pragma omp master
        size = omp_get_num_threads();
    }
    return size;
}

void check(int error, const std::string& message, logger& log) {
    if (error != 0) fatal(log, message + inttochar(error), "varquil", "readargument");
}

}  // namespace

command_line::command_line(std::string program, std::string version, std::string description)
    : program_(std::move(program)), version_(std::move(version)), description_(std::move(description)) {}

void command_line::add(command_switch argument) {
    auto& list = argument.name.empty() ? positionals_ : switches_;
    list.push_back({std::move(argument), std::nullopt});
}

std::size_t command_line::find(std::string_view name) const {
    const auto found = std::ranges::find_if(switches_, [&](const state& s) {
        return s.argument.name == name || (!s.argument.short_name.empty() && s.argument.short_name == name);
    });
    return static_cast<std::size_t>(found - switches_.begin());
}

bool command_line::parse(std::span<const std::string> words, std::ostream& error) {
    const auto refuse = [&](const std::string& message) {
        error << program_ << ": error: " << message << "\nTry " << program_ << " --help\n";
        return false;
    };
    std::size_t next_positional = 0;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (const std::size_t found = find(word); found < switches_.size()) {
            state& s = switches_[found];
            if (s.value) return refuse("the argument \"" + word + "\" was given twice");
            if (s.argument.action == switch_action::store_true) {
                s.value = "true";
                continue;
            }
            if (i + 1 == words.size() || looks_like_switch(words[i + 1]))
                return refuse("the argument \"" + word + "\" needs a value");
            s.value = words[++i];
        } else if (looks_like_switch(word)) {
            return refuse("the argument \"" + word + "\" is unknown");
        } else if (next_positional == positionals_.size()) {
            return refuse("the argument \"" + word + "\" is one too many");
        } else {
            positionals_[next_positional++].value = word;
        }
    }
    for (const state& s : switches_) {
        if (!s.value || s.argument.exclude.empty()) continue;
        const std::size_t other = find(s.argument.exclude);
        if (other < switches_.size() && switches_[other].value)
            return refuse("the arguments \"" + s.argument.name + "\" and \"" + s.argument.exclude +
                          "\" exclude each other");
    }
    return true;
}

int command_line::read_back(std::string_view name, switch_action action, std::string& value) const {
    const std::size_t found = find(name);
    if (found == switches_.size()) return not_declared;
    const state& s = switches_[found];
    if (s.argument.action != action) return wrong_type;
    value = s.value.value_or(action == switch_action::store ? s.argument.default_value : "");
    return 0;
}

int command_line::get(std::string_view name, bool& value) const {
    std::string word;
    const int error = read_back(name, switch_action::store_true, word);
    if (error == 0) value = !word.empty();
    return error;
}

int command_line::get(std::string_view name, std::int32_t& value) const {
    std::string word;
    if (const int error = get(name, word); error != 0) return error;
    return parse_number(word, value).ok() ? 0 : wrong_type;
}

int command_line::get(std::string_view name, std::string& value) const {
    return read_back(name, switch_action::store, value);
}

int command_line::get_positional(std::int32_t position, std::string& value) const {
    if (position < 1 || position > std::ssize(positionals_)) return not_declared;
    const state& s = positionals_[static_cast<std::size_t>(position - 1)];
    value = s.value.value_or(s.argument.default_value);
    return 0;
}

std::string command_line::usage() const {
    std::string text = "usage: " + program_ + " [instruction file] [options]\n\n" + description_ +
                       "\nVersion " + version_ + "\n\nPositional arguments:\n";
    std::size_t position = 0;
    for (const state& s : positionals_) {
        text += "   argument " + inttochar(static_cast<std::int64_t>(++position)) +
                " (optional)\n          " + s.argument.help + ", default " + s.argument.default_value + "\n";
    }
    text += "\nOptions:\n";
    for (const state& s : switches_) {
        text += "   " + names_of(s.argument) + "\n          " + s.argument.help;
        if (s.argument.action == switch_action::store) text += ", default " + s.argument.default_value;
        if (!s.argument.exclude.empty()) text += "; not together with " + s.argument.exclude;
        text += "\n";
    }
    return text;
}

std::string command_line::usage_markdown() const {
    std::string text = "# " + program_ + "\n\n" + description_ + "\n\nVersion " + version_ +
                       "\n\n## Usage\n\n```\n" + program_ + " [instruction file] [options]\n```\n\n" +
                       "| Argument | Default | Meaning |\n|---|---|---|\n";
    std::size_t position = 0;
    for (const state& s : positionals_)
        text += "| argument " + inttochar(static_cast<std::int64_t>(++position)) + " | " +
                s.argument.default_value + " | " + s.argument.help + " |\n";
    for (const state& s : switches_)
        text += "| `" + names_of(s.argument) + "` | " + s.argument.default_value + " | " + s.argument.help +
                (s.argument.exclude.empty() ? "" : "; not together with `" + s.argument.exclude + "`") +
                " |\n";
    return text + "\n";
}

command_line create_command_line(std::string_view version) {
    command_line line("zendar", std::string(version), "Program to solve linear systems of equations.");
    using enum switch_action;
    line.add({.name = "",
              .short_name = "",
              .action = store,
              .default_value = "none",
              .help = "Instruction file",
              .exclude = ""});
    const auto flag = [&](const char* name, const char* short_name, const char* help,
                          const char* exclude = "") {
        line.add({name, short_name, store_true, ".false.", help, exclude});
    };
    flag("--help", "-h", "Print this help");
    flag("--markdown", "-md", "Print this help in a Markdown file");
    line.add({"--ncpus", "--nthreads", store, "-1", "Number of CPUs/threads", ""});
    flag("--noscreen", "", "To not print the output to the screen");
    line.add({"REL", "r", store, "undef", "Option for computing reliabilities", ""});
    flag("--ebvpev", "",
         "Option for computing both EBVs and reliabilities (currently only for the inmem solvers)", "REL");
    flag("--verbose", "-vb", "Verbose mode");
    return line;
}

bool scan_noscreen(std::span<const std::string> words) {
    return std::ranges::any_of(words, [](const std::string& word) {
        return trim(std::string_view(word).substr(0, raw_word_length)) == "--noscreen";
    });
}

run_arguments readargument(const command_line& line, logger& log) {
    run_arguments arguments;
    bool lhelp = false;
    check(line.get("--help", lhelp), "Issue with the argument --help with FLAP error ", log);
    if (lhelp) arguments.help_message = line.usage();

    check(line.get("--markdown", arguments.lmarkdown), "Issue with the argument --markdown with FLAP error ",
          log);
    if (arguments.lmarkdown) {
        file_writer manual;
        auto failure = manual.open("zendar.md");
        if (!failure) {
            manual.write(line.usage_markdown());
            failure = manual.commit();
        }
        if (failure)
            fatal_io(log, "Cannot write the file zendar.md", "varquil", "readargument", failure->iostat,
                     failure->iomsg);
    }

    check(line.get_positional(1, arguments.parfile), "Issue with the argument 1 with FLAP error ", log);
    arguments.parfile = std::string(trim(arguments.parfile));

    std::int32_t ncpus = -1;
    check(line.get("--ncpus", ncpus), "Issue with the argument --ncpus with FLAP error ", log);
    if (ncpus > max_threads)
        fatal(log, "The value of --ncpus is above " + inttochar(max_threads) + ": " + inttochar(ncpus),
              "varquil", "readargument");
    if (ncpus > 0) {
        set_number_of_threads(ncpus);
        arguments.ncpus = ncpus;
        log.message("   Provided number of threads for OpenMP/MKL: " + inttochar(team_size()));
    }

    std::string rel;
    check(line.get("REL", rel), "Issue with REL with FLAP error ", log);
    if (rel != "undef") {
        arguments.lpec = true;
        arguments.relparam = std::string(trim(rel));
    }
    check(line.get("--ebvpev", arguments.lebvpev), "Issue with --ebvpev with FLAP error ", log);
    check(line.get("--verbose", arguments.lverbose), "Issue with the argument --verbose with FLAP error ",
          log);
    return arguments;
}

}  // namespace zendar
