#include <iostream>
#include <string>
#include <vector>

#include "modmatrices.hpp"

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    return zendar::matrices::run_matrices(words, std::cout);
}
