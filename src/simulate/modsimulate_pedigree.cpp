#include "modsimulate_pedigree.hpp"

#include <algorithm>
#include <numeric>

#include "modsimulate_random.hpp"

namespace zendar::simulate {
namespace {

/// A random order of the codes first + 1 to first + n.
void shuffle_codes(std::int32_t first, std::int32_t n, random_stream& random,
                   std::vector<std::int32_t>& codes) {
    codes.resize(static_cast<std::size_t>(n));
    std::iota(codes.begin(), codes.end(), first + 1);
    for (std::int32_t i = n - 1; i > 0; --i) std::swap(codes[i], codes[random.below(i + 1)]);
}

/// Puts group codes in place of unknown parents.
void assign_groups(const simulate_options& options, population& animals) {
    const std::int32_t n = animals.nanimal(), size = n / options.generations;
    std::vector<std::int32_t> code(static_cast<std::size_t>(std::max(options.generations, 2)), 0);
    for (std::int32_t i = 0; i < n; ++i)
        for (std::int32_t side = 0; side < 2; ++side) {
            if (animals.parents[i][side] != 0) continue;
            const std::int32_t group =
                options.groups == "sex" ? side : std::min(i / size, options.generations - 1);
            if (code[group] == 0) code[group] = n + ++animals.ngroup;  // only groups that occur have a code
            animals.parents[i][side] = code[group];
        }
}

}  // namespace

population make_population(const simulate_options& options) {
    random_stream random(options.seed, subject::pedigree), unknown(options.seed, subject::unknown_parents);
    const std::int32_t n = options.animals, size = n / options.generations, nmale = size / 2,
                       nsire = std::max(size / 50, 1);
    population animals;
    animals.parents.assign(static_cast<std::size_t>(n), {0, 0});
    animals.male.assign(static_cast<std::size_t>(n), false);
    std::vector<std::int32_t> codes;
    for (std::int32_t generation = 0; generation < options.generations; ++generation) {
        const std::int32_t first = generation * size,
                           last = generation + 1 == options.generations ? n : first + size;
        for (std::int32_t i = first; generation > 0 && i < last; ++i) {
            animals.parents[i] = {codes[random.below(nsire)], codes[nmale + random.below(size - nmale)]};
            if (options.unknown > 0.0)
                for (std::int32_t& parent : animals.parents[i])
                    if (unknown.uniform() < options.unknown) parent = 0;
        }
        shuffle_codes(first, last - first, random, codes);
        for (std::int32_t k = 0; k < (last - first) / 2; ++k) animals.male[codes[k] - 1] = true;
    }
    if (options.groups != "none") assign_groups(options, animals);
    return animals;
}

}  // namespace zendar::simulate
