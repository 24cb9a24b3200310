#include "varquil.hpp"

#include <exception>
#include <new>
#include <ostream>
#include <span>

#include "modbasic.hpp"
#include "modcommandline.hpp"
#include "modheader.hpp"
#include "modsnpmodel.hpp"

namespace zendar {
namespace {

constexpr const char* title = "ZENDAR";
constexpr const char* log_file = "log_zendar.dat";

void start_script(logger& log, const run_banner& banner) {
    try {
        run_script(log, "before_zendar");
    } catch (const fatal_error&) {
        // The banner, which removes the marker of an earlier run, will not be printed.
        banner.remove_marker(log);
        throw;
    }
}

void man_to_markdown(logger& log) {
    const logger::unit manual = log.add_log_file("zendar.md", logger::position::append);
    man(true, log);
    log.remove_unit(manual);
}

/// The stages of the run mode, in their order. @returns false for a run that was asked to end before its
/// results.
bool run_stages(run_state& run, const run_arguments& arguments) {
    run_mode mode{.lpec = arguments.lpec,
                  .lebvpev = arguments.lebvpev,
                  .relparam = arguments.relparam,
                  .ncpus = arguments.ncpus};
    if (mode.lpec) mode.lebvpev = false;
    initparfile(run, arguments.parfile, mode);
    setlhsrhs(run);
    if (!mode.lpec) {
        solve(run);
        if (run.quiet_end) return false;
        initoutput(run);
        output(run);
    }
    if (mode.lpec || mode.lebvpev) {
        pec(run);
        outputpevpec(run);
    }
    resetmemory(run);
    run.graph.wait();  // the marker of the end tells that all files are there
    return true;
}

void run_program(run_state& run, std::span<const std::string> words, run_streams streams) {
    logger& log = run.log;
    run_banner banner(title);
    log.add_log_file(log_file);
    start_script(log, banner);

    const build_stamp build = this_build();
    banner.header(log, build);
    command_line line = create_command_line(build.version);
    if (!line.parse(words, streams.error)) {
        banner.endheader(log);
        throw fatal_error("bad command line");
    }
    const run_arguments arguments = readargument(line, log);
    if (arguments.lverbose) log.set_level(log_level::debug);

    if (arguments.help_message) {
        streams.out << *arguments.help_message << '\n' << std::flush;
        man(false, log);
    } else if (arguments.lmarkdown) {
        man_to_markdown(log);
        return;  // a quiet end: neither closing banner nor marker
    } else if (!run_stages(run, arguments)) {
        return;
    }
    banner.endheader(log);
}

}  // namespace

int run_zendar(const std::vector<std::string>& arguments, run_streams streams) {
    run_state run;
    if (!scan_noscreen(arguments)) run.log.add_stream(streams.out);
    // A failing log file must not turn the report of an error into another one.
    const auto report = [&](const std::string& message) {
        try {
            run.log.error(message, "varquil");
        } catch (const fatal_error&) {
            streams.error << message << '\n';
        }
    };
    try {
        run_program(run, arguments, streams);
        return 0;
    } catch (const fatal_error& failure) {
        return failure.status() == 0 ? 1 : failure.status();
    } catch (const std::bad_alloc&) {
        report("There is not enough memory for this run");
    } catch (const std::exception& failure) {
        report(std::string("Unexpected failure: ") + failure.what());
    }
    return 1;
}

}  // namespace zendar
