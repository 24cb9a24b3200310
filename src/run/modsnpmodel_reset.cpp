#include <cerrno>
#include <cstring>
#include <filesystem>

#include "modsnpmodel.hpp"

namespace zendar {
namespace {

void delete_stream(const char* file, logger& log) {
    std::error_code failure;
    std::filesystem::remove(file, failure);
    if (failure)
        fatal_io(log, std::string("Cannot delete the file ") + file, "modsnpmodel", "resetmemory",
                 failure.value(), failure.message());
}

}  // namespace

void deallocdata(run_state& run) {
    run.data = {};
    run.param.g = {};
}

void resetmemory(run_state& run) {
    delete_stream("rhstmp.stream", run.log);
    delete_stream("phentmp.stream", run.log);
    reset_param(run.param);
    reset_solver(run.param.solver);
    run.options = {};
    run.lhs_iod.reset();
    run.ped.clear();
    run.mija_global.reset();
    destroy_solver_iod(run.solver_iod);
    run.finite = true;
    run.data = {};
    run.rhs = {};
    run.solutions = {};
    run.aggregatesolutions = {};
    run.lhsija.destroy();
    run.lhsija64.destroy();
    run.lhs_is_inverse = false;
    run.pev = {};
    run.snpeffects = run.varhatsnp = run.pvalues = {};
    run.cov = {};
    run.ghuge.clear();
}

}  // namespace zendar
