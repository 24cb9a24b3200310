#pragma once

#include <filesystem>
#include <sstream>
#include <string>
#include <string_view>

#include "modfatal.hpp"
#include "modfile.hpp"
#include "modlogger.hpp"
#include "modparameters.hpp"
#include "modsnpmodel.hpp"
#include "temporary_directory.hpp"

namespace zendar::test {

/// The number behind "default" in a help text, as it stands there; empty when there is none.
inline std::string named_default(const std::string& help) {
    const std::size_t word = help.find("default");
    if (word == std::string::npos) return {};
    const std::size_t begin = help.find_first_not_of(" :=", word + std::string_view("default").size());
    if (begin == std::string::npos) return {};
    const std::string text = help.substr(begin, help.find_first_not_of("0123456789.e-", begin) - begin);
    return text.substr(0, text.find_last_of("0123456789") + 1);
}

/// Reads option lines into the record of a model of given size, and keeps what was logged, without line
/// breaks.
class option_reader {
  public:
    explicit option_reader(std::int32_t neffect = 4, std::int32_t ntrait = 2) {
        log.add_stream(text_);
        log.configure({.max_width = 100'000, .indent = false});
        param.neffect = neffect;
        param.ntrait = ntrait;
        allocpar(param);
    }

    /// The model's reader.
    void model(std::string_view lines) {
        modparameters::read_parameter_file_options(param, write(lines), log);
    }
    /// The solver's reader.
    void solver(std::string_view lines) {
        read_parameter_file_options_solver(param.solver, write(lines), param.neffect, log);
    }
    /// All three readers.
    void all(std::string_view lines) {
        modsnpmodel::read_parameter_file_options(param, options, write(lines), log);
    }
    /// What is logged from now on only.
    void clear() { text_.str({}); }

    [[nodiscard]] std::string logged() const { return text_.str(); }
    [[nodiscard]] bool has_line(std::string_view line) const {
        return ("\n" + text_.str()).find("\n" + std::string(line) + "\n") != std::string::npos;
    }
    [[nodiscard]] int count(std::string_view part) const {
        const std::string all = text_.str();
        int n = 0;
        for (auto at = all.find(part); at != std::string::npos; at = all.find(part, at + 1)) ++n;
        return n;
    }

    /// The option lines of the record.
    [[nodiscard]] std::string written() const {
        file_writer out;
        const auto failure = out.open(directory / "written");
        if (failure) throw fatal_error(failure->iomsg);
        modsnpmodel::write_parameter_file_options(param, options, out);
        if (const auto why = out.commit()) throw fatal_error(why->iomsg);
        return directory.read("written");
    }

    temporary_directory directory;
    logger log;
    param_type param;
    run_options options;

  private:
    std::string write(std::string_view lines) { return directory.write("model.par", lines).string(); }

    std::ostringstream text_;
};

}  // namespace zendar::test
