#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modsolvertype_control.hpp"

namespace zendar {

namespace {

namespace fs = std::filesystem;

std::string error_text(int code) {
    return std::generic_category().message(code);
}

/// E12.5 and a blank.
std::string column(double value) {
    return format_real(value, "e12.5") + " ";
}

std::string columns(std::span<const double> values) {
    std::string text;
    for (const double value : values) text += column(value);
    return text;
}

std::string row_start(std::int32_t i) {
    return "   Iteration " + format_int(i, "i6");
}

}  // namespace

row_file::row_file(const fs::path& path, logger& log, position where) : name_(path.string()), log_(log) {
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (where == position::append ? O_APPEND : O_TRUNC);
    descriptor_ = ::open(path.c_str(), flags, 0666);
    if (descriptor_ < 0)
        fatal_io(log, "Cannot open the file " + name_, "modsolvertype", "row_file", errno, error_text(errno));
}

row_file::~row_file() {
    if (descriptor_ >= 0) ::close(descriptor_);
}

void row_file::write(std::string_view row) {
    if (failed_) return;
    std::string line(row);
    line += '\n';
    for (std::string_view rest = line; !rest.empty();) {
        const ssize_t written = ::write(descriptor_, rest.data(), rest.size());
        if (written >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            failed_ = true;
            log_.warning("Cannot write the file " + name_ + ": " + error_text(errno));
            return;
        }
    }
}

std::string convergence_header(std::size_t ngroup) {
    std::string header = "   Iteration      # tau =        value Convergence = ";
    for (const std::string_view name : {"CR", "CD", "CK", "CK", "CM", "CM", "Abs(max(diff))"}) {
        constexpr std::size_t width = 12;
        const std::string_view cut = name.substr(0, width);
        header += std::string(width - cut.size(), ' ') + std::string(cut) + " ";
    }
    for (std::size_t g = 0; g < ngroup; ++g) header += "   CR_effect";
    for (std::size_t g = 0; g < ngroup; ++g) header += "   CD_effect";
    return header;
}

std::string convergence_row(std::int32_t i, const convergence_values& values,
                            std::span<const double> cr_effect, std::span<const double> cd_effect) {
    return row_start(i) + " tau = " + format_real(values.tau, "e12.5") +
           " Convergence = " + column(values.cr) + column(values.cd) + column(values.ck) +
           column(values.ck_unscaled) + column(values.cm) + column(values.cm_unscaled) +
           column(values.maxdiff) + columns(cr_effect) + columns(cd_effect);
}

std::string ritz_row(std::int32_t i, double smallest, double largest, double relative_error) {
    return row_start(i) + " small | large Ritz value (+relative error)=  " + format_real(smallest, "g0.5") +
           " " + format_real(largest, "g0.5") + " " + format_real(relative_error, "g0.5");
}

std::string convergence_cheb_row(std::int32_t i, const std::array<double, 4>& values) {
    return row_start(i) + " Convergence = " + columns(values);
}

std::string convergence_inmem_row(std::int32_t i, double tau, const std::array<double, 4>& values) {
    if (i == 1) return row_start(i) + " tau =  0.00000E+00 Convergence =" + columns(values);
    return row_start(i) + " tau = " + format_real(tau, "e12.5") + " Convergence = " + columns(values);
}

std::string convergence_graph_script(const std::string& directory) {
    struct curve {
        std::string_view field, title;
    };
    constexpr std::array<curve, 5> curves = {
        {{"8", "log(CR^2)"}, {"9", "log(CD^2)"}, {"10", "log(CK)"}, {"12", "log(CM)"}, {"5", "log(tau)"}}};
    std::string script =
        "set term pngcairo size 1000,750 enhanced \n"
        "set key on outside center bottom horizontal\n"
        "set grid ytics\n"
        "set xlabel 'Iteration'\n"
        "set ylabel 'Convergence'\n";
    script += "set out '" + directory + "cvg.png'\n";
    script += "plot ";
    for (std::size_t k = 0; k < curves.size(); ++k) {
        script += "\"< awk '{print $2,log($" + std::string(curves[k].field) + ")/log(10)}' " + directory +
                  "convergence.dat\" u 1:2 w l title \"" + std::string(curves[k].title) + "\"";
        script += k + 1 < curves.size() ? " ,\\\n" : "\n";
    }
    return script;
}

void convergence_graph::draw(std::int32_t iter) {
    if (period_ < 1 || iter % period_ != 0) return;
    const std::string script = directory_ + "cvg_graph.g";
    std::error_code ignored;
    if (!fs::exists(script, ignored)) {
        file_writer out;
        if (out.open(script)) return;
        out.write(convergence_graph_script(directory_));
        if (out.commit()) return;
    }
    drawing_.wait();
    drawing_ = gnuplot_run(script);
}

void convergence_graph::draw(std::int32_t iter, std::int32_t period) {
    period_ = period;
    draw(iter);
}

}  // namespace zendar
