// zendar_peer_data folder [records levels1 levels2 levels3]: writes a two-trait data set and its instruction
// file.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int neffect = 3;

struct sizes {
    std::int32_t nrec = 1'000'000;
    std::array<std::int32_t, neffect> nlevel{10, 50'000, 1'000'000};
};

void write_model(const std::filesystem::path& folder, const sizes& n) {
    std::ofstream(folder / "sizes.txt")
        << n.nrec << ' ' << n.nlevel[0] << ' ' << n.nlevel[1] << ' ' << n.nlevel[2] << '\n';
    std::ofstream(folder / "residual.txt") << "1 1 1.0\n2 1 0.3 1.2\n";
    std::ofstream(folder / "g.txt") << "0.5\n0.1 0.4\n";
    std::ofstream par(folder / "model.par");
    par << "N_TRAITS\n2\nN_WEIGHTS\n0\nN_EFFECTS\n3\nPOS_TRAITS\n1 2\nPOS_WEIGHTS\n0 0\n"
           "POS_EFFECTS TYPE_EFFECT N_LEVEL N_COV POS_NESTED N_LEVEL COV_FILE\n";
    for (int e = 0; e < neffect; ++e)
        par << e + 3 << ' ' << e + 3 << " 0 " << n.nlevel[e] << " 1 0 0 0 none\n";
    par << "N_RESIDUAL_COV\n1 0\nresidual.txt\nEFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n"
           "3 1 0 2\ng.txt\nPHENO_FILE\ndata.txt\n";
}

void write_records(const std::filesystem::path& folder, const sizes& n) {
    std::mt19937_64 random(20240501);
    std::normal_distribution<double> normal;
    const auto pick = [&](std::int32_t last) {
        return std::uniform_int_distribution<std::int32_t>(1, last)(random);
    };
    std::vector<std::int32_t> sorted(static_cast<std::size_t>(n.nrec));
    for (std::int32_t& level : sorted) level = pick(n.nlevel[2]);
    std::ranges::sort(sorted);
    std::array<std::vector<float>, neffect> effect;
    for (int e = 0; e < neffect; ++e)
        for (std::int32_t l = 0; l < n.nlevel[e]; ++l)
            effect[e].push_back(static_cast<float>(normal(random)));

    std::ofstream file(folder / "data.txt", std::ios::binary);
    std::string text;
    std::array<char, 128> line{};
    for (const std::int32_t level3 : sorted) {
        const std::int32_t level1 = pick(n.nlevel[0]), level2 = pick(n.nlevel[1]);
        const double common = effect[0][level1 - 1] + effect[1][level2 - 1];
        const double y1 = 10.0 + common + 0.7 * effect[2][level3 - 1] + normal(random);
        const double y2 = 20.0 + common + 0.3 * effect[2][level3 - 1] + 1.1 * normal(random);
        const bool lacks = std::uniform_real_distribution<double>()(random) < 0.02;
        std::snprintf(line.data(), line.size(), "%.3f %.3f %d %d %d\n", y1, lacks ? -9.0 : y2, level1, level2,
                      level3);
        text += line.data();
        if (text.size() > (std::size_t{1} << 20)) {
            file << text;
            text.clear();
        }
    }
    file << text;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 && argc != 6) {
        static_cast<void>(std::fputs("zendar_peer_data folder [records levels1 levels2 levels3]\n", stderr));
        return 1;
    }
    sizes n;
    if (argc == 6) {
        n.nrec = std::atoi(argv[2]);
        for (int e = 0; e < neffect; ++e) n.nlevel[e] = std::atoi(argv[3 + e]);
        if (n.nrec < 1 || std::ranges::min(n.nlevel) < 1) return 1;
    }
    std::filesystem::create_directories(argv[1]);
    write_model(argv[1], n);
    write_records(argv[1], n);
    return 0;
}
