#include <algorithm>

#include "modmmeiod_detail.hpp"

namespace zendar::modmmeiod {

std::vector<record_block> make_blocks(const record_input& in, std::int64_t nblock) {
    const std::int64_t nrec = in.effect.cols;
    const std::int64_t chunk = nrec / nblock;
    std::vector<record_block> blocks(static_cast<std::size_t>(nblock));
    for (std::int64_t i = 0; i < nblock; ++i)
        blocks[i] = {i * chunk, i + 1 == nblock ? nrec : (i + 1) * chunk};
    if (chunk == 0 || in.terms.empty()) return blocks;

    const record_term& largest = *std::ranges::max_element(
        in.terms, {}, [](const record_term& term) { return term.last - term.first; });
    const std::int32_t row = largest.nested_row >= 0 ? largest.nested_row : largest.row;
    const auto level = [&](std::int64_t rec) { return in.effect.data[rec * in.effect.ld + row]; };
    for (std::size_t i = 1; i < blocks.size(); ++i) {
        // Records that are not sorted must not unbalance the threads.
        const std::int64_t limit = std::min(blocks[i].first + chunk / 8, blocks[i].end);
        std::int64_t first = blocks[i].first;
        while (first < limit && level(first) == level(first - 1)) ++first;
        if (first < limit) blocks[i - 1].end = blocks[i].first = first;
    }
    return blocks;
}

void find_bounds(const record_input& in, record_block block, std::int64_t neq,
                 std::span<equation_bounds> bounds) {
    std::ranges::fill(bounds, equation_bounds{neq, 0});
    for (std::int64_t rec = block.first; rec < block.end; ++rec) {
        const std::int32_t* const levels = in.effect.data + rec * in.effect.ld;
        for (std::size_t k = 0; k < in.terms.size(); ++k) {
            std::int64_t equation = 0;
            if (in.terms[k].locate(levels, equation) == nullptr) continue;
            bounds[k].lo = std::min(bounds[k].lo, equation + 1);
            bounds[k].hi = std::max(bounds[k].hi, equation + std::int64_t{in.terms[k].nx} * in.ntrait);
        }
    }
}

}  // namespace zendar::modmmeiod
