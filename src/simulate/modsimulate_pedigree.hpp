#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "modsimulate_options.hpp"

namespace zendar::simulate {

/// Animals in order of age, with codes from 1.
struct population {
    /// Sire and dam of each animal: a code, 0 for unknown, or a code above `nanimal` for a group.
    std::vector<std::array<std::int32_t, 2>> parents;
    std::vector<bool> male;
    std::int32_t ngroup = 0;

    [[nodiscard]] std::int32_t nanimal() const { return static_cast<std::int32_t>(parents.size()); }
    [[nodiscard]] bool is_animal(std::int32_t code) const { return code > 0 && code <= nanimal(); }
    /// Levels of the animal effect.
    [[nodiscard]] std::int32_t nlevel() const { return nanimal() + ngroup; }
};

/// Generations of equal size (the last one takes the rest) that do not overlap. The first half of a random
/// order are males; a fiftieth of the animals, one at least, are sires of the next generation, and all
/// females are dams. Parents are drawn at random, with replacement.
[[nodiscard]] population make_population(const simulate_options& options);

}  // namespace zendar::simulate
