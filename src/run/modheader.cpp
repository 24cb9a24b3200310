#include "modheader.hpp"

#include <fcntl.h>
#include <omp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <system_error>
#include <utility>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modheader_version.hpp"

namespace zendar {

namespace {

constexpr int banner_width = 82;
const std::string margin(14, ' ');

double wall_clock() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string error_text(int code) {
    return std::generic_category().message(code);
}

std::string host_name() {
    std::array<char, 65> name{};
    if (gethostname(name.data(), name.size()) != 0) return {};
    name.back() = '\0';  // a cut name need not be terminated
    return std::string(trim_left(name.data()));
}

/// The team size that a parallel region really gets, which may be less than asked for.
std::int64_t team_size() {
    int size = 1;
#pragma omp parallel default(none) shared(size)
    {
#pragma omp master
        size = omp_get_num_threads();
    }
    return size;
}

/// Runs one command by the shell. @returns its exit status, as a shell would tell it.
int run_command(logger& log, const std::string& command) {
    const int status = std::system(command.c_str());
    if (status == -1)
        fatal_io(log, "Cannot start the command " + command, "modheader", "run_script", errno,
                 error_text(errno));
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

build_stamp this_build() {
#ifdef __clang__
    const std::string compiler = __VERSION__;  // begins with the compiler's name
#else
    const std::string compiler = "GCC " __VERSION__;
#endif
    return {compiler, __DATE__, __TIME__, ZENDAR_BUILD_VERSION, ZENDAR_BUILD_COMMIT, ZENDAR_GPU != 0};
}

run_banner::run_banner(std::string name) : name_(std::move(name)), starttime_(wall_clock()) {}

void run_banner::header(logger& log, const build_stamp& build) {
    starttime_ = wall_clock();
    log.configure({.max_width = banner_width, .indent = false});
    log.message(std::string(banner_width, '*'));
    write_nameprog(log, name_);
    log.message(margin + "Compiler: " + build.compiler);
    log.message(margin + "Compiled on " + build.date + " at " + build.time);
    if (!build.version.empty()) log.message(margin + "Version: " + build.version);
    if (!build.commit.empty()) log.message(margin + "Commit : " + build.commit.substr(0, 7));
    log.message(margin + "Compiled for Intel CPUs" + (build.gpu ? " + NVIDIA GPUs" : ""));
    log.message(margin + "Host   : " + host_name());
    log.message(margin + "Number of threads for OpenMP: " + inttochar(team_size()));
    log.message(margin + "Number of threads for MKL   : " + inttochar(std::int64_t{omp_get_max_threads()}));
    log.message("");
    write_time(log, margin + "Start on ");
    log.message("");
    log.message(std::string(banner_width, '*'));
    log.message("");
    log.configure({.max_width = banner_width, .indent = true});
    remove_marker(log);
}

void run_banner::endheader(logger& log) {
    write_nameprog(log, name_);
    log.message("");
    write_time(log, margin + "End on ");
    log.message(margin + "Elapsed time (s): " + realtochar(wall_clock() - starttime_, "(f0.2)"));
    log.message("");
    log.message(std::string(banner_width, '*'));

    const std::string marker = marker_file();
    const int descriptor = ::open(marker.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (descriptor < 0 || ::close(descriptor) != 0)
        fatal_io(log, "Cannot create the file " + marker, "modheader", "endheader", errno, error_text(errno));
}

void run_banner::remove_marker(logger& log) const {
    const std::string marker = marker_file();
    if (::unlink(marker.c_str()) != 0 && errno != ENOENT)
        fatal_io(log, "Cannot remove the file " + marker, "modheader", "remove_marker", errno,
                 error_text(errno));
}

std::string run_banner::marker_file() const {
    return "OK_" + std::string(trim_right(name_));
}

void write_nameprog(logger& log, std::string_view name) {
    const std::string_view title = trim_right(name);
    const std::size_t size = title.size();
    const std::string pad(size < 78 ? (78 - size) / 2 + 1 : 1, ' ');
    const std::string edge = pad + std::string(size + 4, '*');
    log.message(edge);
    log.message(pad + "* " + std::string(title) + " *");
    log.message(edge);
}

void write_time(logger& log, std::string_view prefix) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::array<char, 64> text{};
    const std::size_t size = std::strftime(text.data(), text.size(), "%d-%m-%Y at %Hh %Mm %Ss", &local);
    log.message(std::string(prefix).append(text.data(), size));
}

void run_script(logger& log, const std::filesystem::path& path) {
    constexpr std::size_t longest_command = 1000;
    text_reader script;
    if (const auto failure = script.open(path)) {
        if (failure->iostat == ENOENT || failure->iostat == ENOTDIR) return;
        fatal_io(log, "Cannot open the file " + script.name(), "modheader", "run_script", failure->iostat,
                 failure->iomsg);
    }
    while (const auto line = script.line()) {
        const std::string command(trim_right(*line));
        const std::string where =
            "Line " + inttochar(script.line_number()) + " of the file " + script.name() + " ";
        if (command.size() > longest_command)
            fatal(log, where + "has more than 1000 characters", "modheader", "run_script");
        if (command.find('\0') != std::string::npos)
            fatal(log, where + "is not text: it contains a NUL character", "modheader", "run_script");
        // The logger leaves nothing in its streams' buffers, so the command's own output comes behind this.
        log.information(" Will perform: " + command);
        if (const int status = run_command(log, command); status != 0)
            fatal(log, "Non-zero exit code", "modheader", "run_script", status);
    }
    if (const auto failure = script.error())
        fatal_io(log, "Cannot read the file " + script.name(), "modheader", "run_script", failure->iostat,
                 failure->iomsg);
}

}  // namespace zendar
