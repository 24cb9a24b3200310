#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <vector>

#include "modpedigree_detail.hpp"

namespace zendar::detail {

namespace {

constexpr std::uint8_t many_offspring = 8;

/// What the numbers of the records follow from, by position.
struct ranking {
    std::vector<std::int32_t> generation;
    std::vector<std::uint8_t> noffspring;  // up to `many_offspring`

    explicit ranking(matrix_view<const std::int32_t> tped)
        : generation(static_cast<std::size_t>(tped.cols) + 1, -1),
          noffspring(static_cast<std::size_t>(tped.cols) + 1, 0) {
        for (std::int32_t i = 1; i <= tped.cols; ++i) {
            const std::int32_t s = tped(0, i - 1), d = tped(1, i - 1);
            assert(s < i && d < i);
            generation[i] = 1 + std::max(generation[s], generation[d]);
            for (const std::int32_t p : {s, d})
                if (noffspring[p] < many_offspring) ++noffspring[p];
        }
        noffspring[0] = 0;
    }
    [[nodiscard]] std::int64_t group(std::int32_t position) const {
        return 2 * std::int64_t{generation[position]} + (noffspring[position] < many_offspring ? 1 : 0);
    }
};

}  // namespace

parent_table make_parent_table(matrix_view<const std::int32_t> tped, std::int32_t nmeta) {
    const auto n = static_cast<std::int32_t>(tped.cols);
    const ranking rank(tped);
    parent_table table;
    std::vector<std::int32_t> count(2, 0);  // [group]
    count[0] = nmeta;
    for (std::int32_t i = nmeta + 1; i <= n; ++i) {
        if (rank.noffspring[i] == 0) continue;
        const std::int64_t group = rank.group(i);
        if (group >= std::ssize(count)) count.resize(static_cast<std::size_t>(group / 2 + 1) * 2, 0);
        ++count[group];
    }
    std::vector<std::int32_t> last(count.size());  // [group]: the record given last
    std::int32_t sum = 0;
    for (std::size_t group = 0; group < count.size(); ++group) {
        if (group % 2 == 0) table.begin.push_back(sum + 1);
        last[group] = sum;
        sum += count[group];
    }
    table.begin.push_back(sum + 1);

    table.records = page_array<parent_record>(std::int64_t{sum} + 1);
    table.record_of.assign(static_cast<std::size_t>(n) + 1, 0);
    for (std::int32_t i = 1; i <= n; ++i) {
        if (i > nmeta && rank.noffspring[i] == 0) continue;
        const std::int32_t record = ++last[i <= nmeta ? 0 : rank.group(i)];
        table.record_of[i] = record;
        parent_record& own = table.records.data()[record];
        own.generation = rank.generation[i];
        for (std::int64_t k = 0; k < 2; ++k) {
            const std::int32_t parent = tped(k, i - 1);
            own.parents[k] = table.record_of[parent];
            own.of_generations[k] = std::max(rank.generation[parent], 0);
        }
    }
    return table;
}

double sampling_variance(double f_sire, double f_dam) {
    return std::fma(-0.25, f_sire + f_dam, 0.5);
}

void forget_groups(matrix_view<std::int32_t> tped, std::int32_t nupg) {
    for (std::int64_t i = 0; i < tped.cols; ++i)
        for (std::int32_t& parent : tped.column(i))
            if (parent <= nupg) parent = 0;
}

}  // namespace zendar::detail
