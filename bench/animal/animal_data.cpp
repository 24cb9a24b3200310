// zendar_animal_data folder [animals [traits [herds]]]: writes an animal model of 10 generations with a
// record for each animal, and its instruction file.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int max_trait = 6;

struct sizes {
    std::int32_t nanimal = 1'000'000;
    int ntrait = 2;
    int nherd = 5000;
};

void write_model(const std::filesystem::path& folder, const sizes& n) {
    std::ofstream residual(folder / "residual.txt"), g(folder / "g.txt");
    for (int i = 0; i < n.ntrait; ++i) {
        residual << i + 1 << " 1 ";
        for (int j = 0; j <= i; ++j) {
            residual << (i == j ? 1.0 : 0.2) << (j == i ? '\n' : ' ');
            g << (i == j ? 0.5 : 0.1) << (j == i ? '\n' : ' ');
        }
    }
    residual.close();
    g.close();
    std::ofstream par(folder / "model.par");
    par << "N_TRAITS\n" << n.ntrait << "\nN_WEIGHTS\n0\nN_EFFECTS\n2\nPOS_TRAITS\n";
    for (int t = 1; t <= n.ntrait; ++t) par << t << ' ';
    par << "\nPOS_WEIGHTS\n";
    for (int t = 1; t <= n.ntrait; ++t) par << "0 ";
    par << "\nPOS_EFFECTS TYPE_EFFECT N_LEVEL N_COV POS_NESTED N_LEVEL COV_FILE\n";
    for (int e = 1; e <= 2; ++e) {
        for (int t = 1; t <= n.ntrait; ++t) par << n.ntrait + e << ' ';
        par << "0 " << (e == 1 ? n.nherd : n.nanimal) << " 1 ";
        for (int t = 1; t <= n.ntrait; ++t) par << "0 ";
        par << "0 none\n";
    }
    par << "N_RESIDUAL_COV\n1 0\nresidual.txt\nEFFECT_ID TYPE_RANDOM N_CORRELATED_EFFECTS DIM_G\n2 3 0 "
        << n.ntrait << "\npedigree.txt compute\ng.txt\nPHENO_FILE\ndata.txt\n";
}

/// Lines that are collected before they are written.
class text_file {
  public:
    explicit text_file(const std::filesystem::path& path) : file_(path, std::ios::binary) {}
    ~text_file() { file_ << text_; }
    text_file(const text_file&) = delete;
    text_file& operator=(const text_file&) = delete;
    void put(const std::string& text) {
        text_ += text;
        if (text_.size() < (std::size_t{1} << 20)) return;
        file_ << text_;
        text_.clear();
    }

  private:
    std::ofstream file_;
    std::string text_;
};

void write_animals(const std::filesystem::path& folder, const sizes& n) {
    std::mt19937_64 random(20240501);
    std::normal_distribution<double> normal;
    constexpr std::int32_t generations = 10;
    const std::int32_t size = n.nanimal / generations, sires = std::max(size / 50, 1),
                       dams = std::max(size / 2, 1);
    std::vector<std::int32_t> codes(static_cast<std::size_t>(size));
    std::vector<float> value(static_cast<std::size_t>(n.nanimal));
    text_file pedigree(folder / "pedigree.txt"), data(folder / "data.txt");
    for (std::int32_t i = 1; i <= n.nanimal; ++i) {
        const std::int32_t generation = std::min((i - 1) / size, generations - 1);
        std::int32_t sire = 0, dam = 0;
        if (generation > 0) {
            if ((i - 1) % size == 0 && (i - 1) / size < generations) {
                std::iota(codes.begin(), codes.end(), (generation - 1) * size + 1);
                std::shuffle(codes.begin(), codes.end(), random);
            }
            sire = codes[random() % static_cast<std::uint64_t>(sires)];
            dam =
                codes[static_cast<std::uint64_t>(size - dams) + random() % static_cast<std::uint64_t>(dams)];
        }
        pedigree.put(std::to_string(i) + ' ' + std::to_string(sire) + ' ' + std::to_string(dam) + '\n');
        const double mean = sire > 0 ? 0.5 * (value[sire - 1] + value[dam - 1]) : 0.0;
        value[i - 1] = static_cast<float>(mean + (sire > 0 ? 0.5 : 0.7) * normal(random));
        std::string line;
        char number[32];
        for (int t = 0; t < n.ntrait; ++t) {
            const bool missing = t > 0 && random() % 5 == 0;
            static_cast<void>(std::snprintf(number, sizeof number, "%.3f ",
                                            missing ? -9.0 : 10.0 * (t + 1) + value[i - 1] + normal(random)));
            line += number;
        }
        data.put(line + std::to_string(random() % static_cast<std::uint64_t>(n.nherd) + 1) + ' ' +
                 std::to_string(i) + '\n');
    }
}

}  // namespace

int main(int argc, char** argv) {
    sizes n;
    if (argc > 2) n.nanimal = std::atoi(argv[2]);
    if (argc > 3) n.ntrait = std::atoi(argv[3]);
    if (argc > 4) n.nherd = std::atoi(argv[4]);
    if (argc < 2 || argc > 5 || n.nanimal < 20 || n.nherd < 1 || n.ntrait < 1 || n.ntrait > max_trait) {
        static_cast<void>(std::fputs("zendar_animal_data folder [animals [traits [herds]]]\n", stderr));
        return 1;
    }
    std::filesystem::create_directories(argv[1]);
    write_model(argv[1], n);
    write_animals(argv[1], n);
    return 0;
}
