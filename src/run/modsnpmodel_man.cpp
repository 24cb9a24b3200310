#include "modsnpmodel.hpp"
#include "modsnpmodel_options_detail.hpp"

namespace zendar {

void man(bool markdown, logger& log) {
    man_param(markdown, log);
    man_solver(markdown, log);
    constexpr manual_frame frame{
        .begin = "+++++ MANUAL: other options available through the parameter file +++++",
        .end = "+++++ End of manual for other options +++++",
        .heading = "### Other options available through the parameter file"};
    print_manual(frame, detail::other_options(), markdown, log);
}

}  // namespace zendar
