#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

/// The two-trait model of the comparison with programs that form the matrix, independent of ours: records,
/// (co)variances and the elements of the equations.
namespace zendar::peer {

inline constexpr int ntrait = 2;
inline constexpr int neffect = 3;  ///< the last one is random
inline constexpr double missing = -9.0;

using block = std::array<double, ntrait * ntrait>;

struct record {
    std::array<double, ntrait> y{};
    std::array<std::int32_t, neffect> level{};  ///< from 1
};

/// One element of the coefficient matrix, from 0; elements of one place add up.
struct element {
    std::int32_t i = 0, j = 0;
    double v = 0.0;
    [[nodiscard]] std::int32_t row() const { return i; }
    [[nodiscard]] std::int32_t col() const { return j; }
    [[nodiscard]] double value() const { return v; }
};

struct problem {
    std::array<std::int32_t, neffect> nlevel{};
    std::vector<record> records;
    block g_inverse{};
    std::array<block, 4> r_inverse{};  ///< by the traits that are there: bit 0, bit 1

    [[nodiscard]] std::int32_t size() const { return ntrait * (nlevel[0] + nlevel[1] + nlevel[2]); }
    /// Equation of the first trait; that of the second follows.
    [[nodiscard]] std::int32_t equation(int effect, std::int32_t level) const;
    [[nodiscard]] const block& weights(const record& rec) const;
    [[nodiscard]] std::vector<double> rhs() const;
};

/// Reads "sizes.txt", "data.txt", "residual.txt" and "g.txt" of a folder. @throws std::runtime_error
problem read_problem(const std::filesystem::path& folder);
/// Reads the values in the last column of a file of solutions. @throws std::runtime_error
std::vector<double> read_solutions(const std::filesystem::path& file, std::int32_t n);

/// Runs through the elements of the matrix without storing them: those of each record, then the prior.
class element_iterator {
  public:
    element_iterator(const problem& p, std::int64_t item, bool upper);
    const element& operator*() const { return buffer_[at_]; }
    const element* operator->() const { return &buffer_[at_]; }
    element_iterator& operator++() {
        if (++at_ == count_) {
            ++item_;
            load();
        }
        return *this;
    }
    bool operator!=(const element_iterator& other) const { return item_ != other.item_; }

  private:
    void load();
    void put(std::int32_t row, std::int32_t column, const block& weights);

    const problem* p_;
    std::int64_t item_;
    bool upper_;
    std::array<element, neffect * neffect * ntrait * ntrait> buffer_{};
    std::size_t at_ = 0, count_ = 0;
};
element_iterator begin_elements(const problem& p, bool upper);
element_iterator end_elements(const problem& p, bool upper);

// ---- measures
// -----------------------------------------------------------------------------------------------

struct seconds {
    double wall = 0.0, cpu = 0.0;
};
/// Since the start of the program.
seconds now();
double peak_mib();
/// Writes a line "name value value".
void report(const std::string& name, double value);
void report(const std::string& name, seconds from, seconds to);
/// The random effect of two solutions: largest difference over the largest value.
double random_difference(const problem& p, const double* x, const std::vector<double>& other);

}  // namespace zendar::peer
