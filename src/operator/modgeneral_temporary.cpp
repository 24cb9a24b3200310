#include "modgeneral_temporary.hpp"

#include "modbasic.hpp"

namespace zendar {

temporary_stream::temporary_stream(const char* file, std::int64_t n, const std::string& missing,
                                   std::string_view module, std::string_view procedure, logger& log)
    : file_(file), module_(module), procedure_(procedure), log_(log) {
    if (const auto error = in_.open(file))
        fatal_io(log, missing, module, procedure, error->iostat, error->iomsg);
    const std::int64_t bytes = n * static_cast<std::int64_t>(sizeof(double));
    if (in_.size() != bytes)
        fatal(log,
              "The file " + std::string(file) + " has " + inttochar(in_.size()) + " bytes instead of " +
                  inttochar(bytes) + "!",
              module, procedure);
}

void temporary_stream::read(std::span<double> values) {
    if (!in_.read_values(values))
        fatal(log_, "The file " + std::string(file_) + " cannot be read to its end!", module_, procedure_);
}

matrix<double> read_phentmp(std::int64_t ntrait, std::int64_t nrec, const std::string& missing,
                            std::string_view module, std::string_view procedure, logger& log) {
    temporary_stream file(phentmp_file, ntrait * nrec, missing, module, procedure, log);
    matrix<double> phen(ntrait, nrec);
    file.read(phen.values());
    return phen;
}

}  // namespace zendar
