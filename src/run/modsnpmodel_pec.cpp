#include "modsnpmodel.hpp"

namespace zendar {

void pec(run_state& run) {
    fatal(run.log, "Not implemented yet", "modsnpmodel", "pec");
}

void outputpevpec(run_state& run) {
    fatal(run.log, "Not implemented yet", "modsnpmodel", "outputpevpec");
}

}  // namespace zendar
