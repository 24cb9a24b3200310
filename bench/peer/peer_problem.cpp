#include "peer_problem.hpp"

#include <sys/resource.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>
#include <span>
#include <stdexcept>

namespace zendar::peer {
namespace {

const auto start = std::chrono::steady_clock::now();

struct closer {
    void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
};

/// The numbers of a text file, whatever its lines.
class number_reader {
  public:
    explicit number_reader(const std::filesystem::path& path)
        : path_(path), file_(std::fopen(path.c_str(), "rb")), buffer_(std::size_t{1} << 20) {
        if (file_ == nullptr) throw std::runtime_error("cannot open " + path.string());
    }

    template <class Number>
    bool next(Number& value) {
        skip();
        if (end_ - at_ < longest_number) {
            refill();
            skip();
        }
        if (at_ == end_) return false;
        const char* const first = buffer_.data() + at_;
        const auto [stop, status] = std::from_chars(first, buffer_.data() + end_, value);
        if (status != std::errc()) throw std::runtime_error("no number in " + path_.string());
        at_ += static_cast<std::size_t>(stop - first);
        return true;
    }
    template <class Number>
    void read(Number& value) {
        if (!next(value)) throw std::runtime_error(path_.string() + " is too short");
    }

  private:
    static constexpr std::size_t longest_number = 64;

    void skip() {
        for (;; ++at_) {
            if (at_ == end_) {
                refill();
                if (at_ == end_) return;
            }
            if (static_cast<unsigned char>(buffer_[at_]) > ' ') return;
        }
    }
    void refill() {
        std::copy(buffer_.data() + at_, buffer_.data() + end_, buffer_.data());
        end_ -= at_;
        at_ = 0;
        end_ += std::fread(buffer_.data() + end_, 1, buffer_.size() - end_, file_.get());
    }

    std::filesystem::path path_;
    std::unique_ptr<std::FILE, closer> file_;
    std::vector<char> buffer_;
    std::size_t at_ = 0, end_ = 0;
};

/// @param packed  1,1; 2,1; 2,2
block inverse(std::span<const double, 3> packed) {
    const double det = packed[0] * packed[2] - packed[1] * packed[1];
    if (!(det > 0.0)) throw std::runtime_error("a (co)variance matrix is not positive definite");
    return {packed[2] / det, -packed[1] / det, -packed[1] / det, packed[0] / det};
}

}  // namespace

std::int32_t problem::equation(int effect, std::int32_t level) const {
    std::int32_t before = 0;
    for (int e = 0; e < effect; ++e) before += nlevel[e];
    return ntrait * (before + level - 1);
}

const block& problem::weights(const record& rec) const {
    return r_inverse[(rec.y[0] != missing ? 1U : 0U) + (rec.y[1] != missing ? 2U : 0U)];
}

std::vector<double> problem::rhs() const {
    std::vector<double> b(static_cast<std::size_t>(size()), 0.0);
    for (const record& rec : records) {
        const block& w = weights(rec);
        for (int e = 0; e < neffect; ++e) {
            double* const at = &b[equation(e, rec.level[e])];
            at[0] += w[0] * rec.y[0] + w[1] * rec.y[1];
            at[1] += w[2] * rec.y[0] + w[3] * rec.y[1];
        }
    }
    return b;
}

problem read_problem(const std::filesystem::path& folder) {
    problem p;
    std::int64_t nrec = 0;
    number_reader sizes(folder / "sizes.txt");
    sizes.read(nrec);
    for (std::int32_t& n : p.nlevel) sizes.read(n);

    std::array<double, 3> r{}, g{};
    std::array<int, 2> labels{};
    number_reader residual(folder / "residual.txt"), random(folder / "g.txt");
    for (int i = 0, k = 0; i < ntrait; ++i) {
        for (int& label : labels) residual.read(label);
        for (int j = 0; j <= i; ++j) {
            random.read(g[k]);
            residual.read(r[k++]);
        }
    }
    p.g_inverse = inverse(g);
    p.r_inverse = {block{}, block{1.0 / r[0], 0, 0, 0}, block{0, 0, 0, 1.0 / r[2]}, inverse(r)};

    p.records.resize(static_cast<std::size_t>(nrec));
    number_reader data(folder / "data.txt");
    for (record& rec : p.records) {
        for (double& y : rec.y) data.read(y);
        for (int e = 0; e < neffect; ++e) {
            data.read(rec.level[e]);
            if (rec.level[e] < 1 || rec.level[e] > p.nlevel[e]) throw std::runtime_error("a level is wrong");
        }
    }
    return p;
}

std::vector<double> read_solutions(const std::filesystem::path& file, std::int32_t n) {
    std::unique_ptr<std::FILE, closer> text(std::fopen(file.c_str(), "rb"));
    if (text == nullptr) throw std::runtime_error("cannot open " + file.string());
    std::vector<double> x;
    std::array<char, 512> line{};
    while (std::fgets(line.data(), line.size(), text.get()) != nullptr) {
        std::string_view words(line.data());
        words = words.substr(0, words.find_last_not_of(" \r\n") + 1);
        const std::string_view last = words.substr(words.find_last_of(' ') + 1);
        double value = 0.0;
        const auto [stop, status] = std::from_chars(last.data(), last.data() + last.size(), value);
        if (status == std::errc() && stop == last.data() + last.size()) x.push_back(value);
    }
    if (std::ssize(x) != n)
        throw std::runtime_error(file.string() + " has " + std::to_string(x.size()) + " solutions");
    return x;
}

element_iterator::element_iterator(const problem& p, std::int64_t item, bool upper)
    : p_(&p), item_(item), upper_(upper) {
    load();
}

void element_iterator::load() {
    at_ = count_ = 0;
    const std::int64_t nrec = std::ssize(p_->records);
    if (item_ >= nrec) {
        if (item_ >= nrec + p_->nlevel[neffect - 1]) return;
        const std::int32_t at = p_->equation(neffect - 1, static_cast<std::int32_t>(item_ - nrec) + 1);
        put(at, at, p_->g_inverse);
        return;
    }
    const record& rec = p_->records[item_];
    const block& w = p_->weights(rec);
    for (int e = 0; e < neffect; ++e)
        for (int f = upper_ ? e : 0; f < neffect; ++f)
            put(p_->equation(e, rec.level[e]), p_->equation(f, rec.level[f]), w);
}

void element_iterator::put(std::int32_t row, std::int32_t column, const block& weights) {
    for (int s = 0; s < ntrait; ++s)
        for (int t = 0; t < ntrait; ++t)
            if (!upper_ || row + s <= column + t)
                buffer_[count_++] = {row + s, column + t, weights[s * ntrait + t]};
}

element_iterator begin_elements(const problem& p, bool upper) {
    return {p, 0, upper};
}
element_iterator end_elements(const problem& p, bool upper) {
    return {p, std::ssize(p.records) + p.nlevel[neffect - 1], upper};
}

seconds now() {
    const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
    return {wall.count(), static_cast<double>(std::clock()) / CLOCKS_PER_SEC};
}

double peak_mib() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

void report(const std::string& name, double value) {
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), " %.6g\n", value);
    static_cast<void>(std::fputs((name + text.data()).c_str(), stdout));
}
void report(const std::string& name, seconds from, seconds to) {
    report(name + "_wall", to.wall - from.wall);
    report(name + "_cpu", to.cpu - from.cpu);
}

double random_difference(const problem& p, const double* x, const std::vector<double>& other) {
    double difference = 0.0, largest = 0.0;
    for (std::int32_t i = p.equation(neffect - 1, 1); i < p.size(); ++i) {
        difference = std::max(difference, std::abs(x[i] - other[i]));
        largest = std::max(largest, std::abs(x[i]));
    }
    return difference / largest;
}

}  // namespace zendar::peer
