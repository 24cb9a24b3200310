// zendar_single_step_data folder animals genotyped snps [seed]: the population of the benchmarks of
// single-step models, 10 generations with a record for each animal and genotypes of the youngest ones, and
// its instruction files for random types 22 and 30, by the simulation program.

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "modsimulate.hpp"

int main(int argc, char** argv) {
    if (argc < 5 || argc > 6) {
        static_cast<void>(
            std::fputs("zendar_single_step_data folder animals genotyped snps [seed]\n", stderr));
        return 1;
    }
    std::vector<std::string> words = {argv[1], "--animals", argv[2], "--genotyped",
                                      argv[3], "--snps",    argv[4]};
    words.insert(words.end(), {"--seed", argc > 5 ? argv[5] : "20240501", "--generations", "10"});
    words.insert(words.end(), {"--herds", "5000", "--chromosomes", "29", "--model", "ssgblup22,ssgblup30"});
    return zendar::simulate::run_simulate(words, std::cerr);
}
