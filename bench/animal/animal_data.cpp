// zendar_animal_data folder [animals [traits [herds]]]: the population of the benchmarks of animal models, 10
// generations with a record for each animal, and its instruction file, by the simulation program.

#include <array>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "modsimulate.hpp"

int main(int argc, char** argv) {
    if (argc < 2 || argc > 5) {
        static_cast<void>(std::fputs("zendar_animal_data folder [animals [traits [herds]]]\n", stderr));
        return 1;
    }
    std::array<std::string, 3> sizes = {"1000000", "2", "5000"};
    for (int k = 2; k < argc; ++k) sizes[static_cast<std::size_t>(k - 2)] = argv[k];
    const auto& [animals, traits, herds] = sizes;
    std::string missing = "0";  // every animal has the first trait
    for (int t = std::atoi(traits.c_str()); t > 1; --t) missing += ",0.2";
    const std::vector<std::string> words = {argv[1],   "--animals", animals,     "--traits", traits,
                                            "--herds", herds,       "--missing", missing,    "--generations",
                                            "10",      "--rg",      "0.2",       "--seed",   "20240501"};
    return zendar::simulate::run_simulate(words, std::cerr);
}
