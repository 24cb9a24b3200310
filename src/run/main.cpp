#include <iostream>
#include <string>
#include <vector>

#include "modstop.hpp"
#include "varquil.hpp"

int main(int argc, char** argv) {
    zendar::install_stop_handlers();
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    return zendar::run_zendar(arguments, {std::cout, std::cerr});
}
