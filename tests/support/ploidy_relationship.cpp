#include "ploidy_relationship.hpp"

#include <algorithm>
#include <numeric>
#include <random>
#include <stdexcept>

namespace zendar::test {

pedigree_ploidy_type random_ploidy_pedigree(const ploidy_choice& choice, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    const auto pick = [&](std::int32_t lo, std::int32_t hi) {
        return std::uniform_int_distribution<std::int32_t>(lo, hi)(random);
    };
    const auto share = [&] { return std::uniform_real_distribution<double>()(random); };
    const std::int32_t n = choice.nanimal;
    std::vector<std::int32_t> code(static_cast<std::size_t>(n));  // [age - 1]
    std::iota(code.begin(), code.end(), 1);
    if (choice.shuffled) std::ranges::shuffle(code, random);

    pedigree_ploidy_type ped;
    ped.nupg = 0;
    ped.ped = matrix<std::int32_t>(2, n);
    ped.tau = matrix<std::int32_t>(2, n);
    ped.lambda = matrix<double>(2, n);
    for (std::int32_t age = 1; age <= n; ++age) {
        const std::int32_t column = code[age - 1] - 1;
        const std::int32_t p =
            choice.ploidies[pick(0, static_cast<std::int32_t>(choice.ploidies.size()) - 1)];
        const bool one_sided = share() < choice.one_sided;
        const std::int32_t first = pick(0, 1);
        ped.tau(first, column) = one_sided || p == 1 ? p : pick(0, 1) == 0 ? (p + 1) / 2 : pick(1, p - 1);
        ped.tau(1 - first, column) = p - ped.tau(first, column);
        for (std::int64_t k = 0; k < 2; ++k) {
            std::int32_t& parent = ped.ped(k, column);
            if (age > 1 && share() >= choice.unknown) parent = code[pick(1, age - 1) - 1];
            if (!choice.selfing && k == 1 && parent == ped.ped(0, column)) parent = 0;
            if (choice.invertible && parent > 0 && ped.ploidy(parent) == 1) parent = 0;
            double& lambda = ped.lambda(k, column);
            const double t = ped.tau(k, column);
            if (t > 1) lambda = pick(0, 3) == 0 ? static_cast<double>(pick(0, 1)) : share();
            if (!choice.invertible || t <= 1) continue;
            double least = 0.0;  // above which a gamete is more variable than the mean of the parent
            if (parent > 0) {
                const auto q = static_cast<double>(ped.ploidy(parent));
                least = std::max(least, (t - q) / (q * (t - 1.0)));
            }
            lambda = least + (0.9 - least) * (0.05 + 0.9 * share());
        }
    }
    return ped;
}

namespace {

/// The chances of identity of all gene copies that there are.
class copy_table {
  public:
    using copies = std::vector<std::size_t>;

    /// Two unrelated gametes of t copies each, of an animal whose parents were such animals.
    copies add_base(std::int32_t t, double lambda) {
        double f = 0.0;
        const double pairs = 2.0 * t * (2.0 * t - 1.0);
        for (int round = 0; round < 2000; ++round)
            f = 2.0 * t * (t - 1.0) * (lambda + (1.0 - lambda) * f) / pairs;
        const copies all = grow(2 * t);
        for (const std::size_t a : all)
            for (const std::size_t b : all) chance_[a][b] = a == b ? 1.0 : f;
        return all;
    }
    /// The copies of gametes from these parents; a parent without copies gives none.
    copies add(const copies (&parents)[2], const std::int32_t (&t)[2], const double (&lambda)[2]) {
        const std::size_t before = chance_.size();
        copies own[2];
        for (std::size_t k = 0; k < 2; ++k) own[k] = grow(t[k]);
        for (std::size_t k = 0; k < 2; ++k)
            for (const std::size_t a : own[k]) {
                for (std::size_t x = 0; x < before; ++x)
                    chance_[a][x] = chance_[x][a] = mean(parents[k], {x});
                for (const std::size_t b : own[k])
                    chance_[a][b] =
                        a == b ? 1.0 : lambda[k] + (1.0 - lambda[k]) * mean_of_different(parents[k]);
                for (const std::size_t b : own[1 - k]) chance_[a][b] = mean(parents[k], parents[1 - k]);
            }
        own[0].insert(own[0].end(), own[1].begin(), own[1].end());
        return own[0];
    }
    [[nodiscard]] double mean(const copies& x, const copies& y) const {
        double sum = 0.0;
        for (const std::size_t a : x)
            for (const std::size_t b : y) sum += chance_[a][b];
        return sum / static_cast<double>(x.size() * y.size());
    }
    [[nodiscard]] double mean_of_different(const copies& x) const {
        double sum = 0.0;
        for (const std::size_t a : x)
            for (const std::size_t b : x) sum += a == b ? 0.0 : chance_[a][b];
        return x.size() < 2 ? 0.0 : sum / static_cast<double>(x.size() * (x.size() - 1));
    }

  private:
    copies grow(std::int32_t count) {
        const std::size_t before = chance_.size(), after = before + static_cast<std::size_t>(count);
        for (auto& row : chance_) row.resize(after, 0.0);
        chance_.resize(after, std::vector<double>(after, 0.0));
        copies all(static_cast<std::size_t>(count));
        std::iota(all.begin(), all.end(), before);
        return all;
    }
    std::vector<std::vector<double>> chance_;
};

}  // namespace

ploidy_coancestries tabular_coancestries(const pedigree_ploidy_type& ped) {
    const std::int32_t n = ped.nlength();
    ploidy_coancestries result{matrix<double>(n, n), std::vector<double>(static_cast<std::size_t>(n), 0.0),
                               std::vector<double>(static_cast<std::size_t>(n), 0.0)};
    copy_table table;
    std::vector<copy_table::copies> of(static_cast<std::size_t>(n));
    std::int32_t left = n;
    for (bool found = true; left > 0 && found;) {
        found = false;
        for (std::int32_t i = 0; i < n; ++i) {
            const auto ready = [&](std::int64_t k) {
                return ped.tau(k, i) == 0 || ped.ped(k, i) == 0 || !of[ped.ped(k, i) - 1].empty();
            };
            if (!of[i].empty() || !ready(0) || !ready(1)) continue;
            copy_table::copies parents[2];
            const std::int32_t t[2] = {ped.tau(0, i), ped.tau(1, i)};
            const double lambda[2] = {ped.lambda(0, i), ped.lambda(1, i)};
            for (std::int64_t k = 0; k < 2; ++k)
                if (t[k] > 0)
                    parents[k] = ped.ped(k, i) > 0 ? of[ped.ped(k, i) - 1] : table.add_base(t[k], lambda[k]);
            of[i] = table.add(parents, t, lambda);
            result.f[i] = table.mean_of_different(of[i]);
            if (t[0] > 0 && t[1] > 0 && ped.ped(0, i) > 0 && ped.ped(1, i) > 0)
                result.kparents[i] = table.mean(parents[0], parents[1]);
            found = true;
            --left;
        }
    }
    if (left > 0) throw std::runtime_error("a loop in the pedigree");
    for (std::int32_t j = 0; j < n; ++j)
        for (std::int32_t i = 0; i < n; ++i) result.k(i, j) = table.mean(of[i], of[j]);
    return result;
}

}  // namespace zendar::test
