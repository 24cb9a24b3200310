#include <iostream>
#include <string>
#include <vector>

#include "modsimulate.hpp"

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    return zendar::simulate::run_simulate(words, std::cout);
}
