#include <algorithm>
#include <string>

#include "modbasic.hpp"
#include "modfile.hpp"
#include "modmmeiod_detail.hpp"

namespace zendar {

namespace {

void write_report(const std::string& name, const std::string& text, logger& log) {
    file_writer out;
    std::optional<file_error> error = out.open(name);
    if (!error) {
        out.write(text);
        error = out.commit();
    }
    if (error)
        fatal_io(log, "Cannot write the file " + name, "modmmeiod", "setleastsquarepart_full", error->iostat,
                 error->iomsg);
}

}  // namespace

void mme_iod::write_thread_effect(std::span<const modmmeiod::equation_bounds> bounds,
                                  std::int64_t nthread) const {
    const std::string directory = output_directory(param_);
    const std::string data = directory + "thread_effect.dat";
    const std::int64_t nterm = std::ssize(state_.terms);
    std::string text;
    for (std::int32_t e = 1; e <= param_.neffect; ++e) {
        const auto term = std::ranges::find(state_.terms, e, &modmmeiod::record_term::effect);
        const std::int64_t k = term - state_.terms.begin(), first = param_.sumequation[e] + 1;
        text += inttochar(e);
        for (std::int64_t th = 0; th < nthread; ++th) {
            modmmeiod::equation_bounds b{first, first};  // of an effect that records do not meet
            if (k < nterm) b = bounds[th * nterm + k];
            // A record with a huge effect has all of its equations.
            if (k < nterm && term->huge && b.lo <= b.hi) b = {first, param_.sumequation[e + 1]};
            text += " " + inttochar(b.lo) + " " + inttochar(b.hi);
        }
        text += "\n";
    }
    write_report(data, text, log_);

    // One box per thread and effect, the threads beside each other.
    constexpr double distance = 0.1;
    std::string script = "set term pngcairo size 1000,750\nset style fill solid 0.3\nset out '" + directory +
                         "thread_effect.png'\n";
    for (std::int64_t th = 0; th < nthread; ++th) {
        const std::string lo = inttochar(2 * th + 2), hi = inttochar(2 * th + 3);
        script += th == 0 ? "plot \"<awk '{$1 = $1 + 0; print $0}' "
                          : "\"<awk '{$1 = $1 + " + realtochar(distance * static_cast<double>(th), "(f0.3)") +
                                "; print $0}' ";
        script += data + "\" u 1:" + lo + ":($1-0.05):($1+0.05):" + lo + ":" + hi + " w boxxyerror notitle";
        script += th + 1 < nthread ? " ,\\\n" : "\n";
    }
    write_report(directory + "thread_effect.g", script, log_);
}

}  // namespace zendar
