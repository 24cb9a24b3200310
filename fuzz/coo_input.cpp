#include "coo_input.hpp"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

#include "modparameters_utils.hpp"

namespace zendar::fuzz {
namespace {

constexpr std::size_t header_length = 2;

void require(bool holds) {
    if (!holds) std::abort();
}

std::optional<crssparse> read(std::string_view text, std::int32_t n) {
    std::ofstream("matrix.txt", std::ios::binary) << text;
    logger log;
    try {
        return readcootoija("matrix.txt", n, log);
    } catch (const fatal_error&) {
        return std::nullopt;
    }
}

void check(const crssparse& m, std::int32_t n) {
    require(m.getdim(1) == n && m.getdim(2) == n && m.isupperstorage() && m.issymmetric() && m.issorted());
    const auto ia = m.get_rowptr(), ja = m.get_colval();
    require(std::ssize(ia) == n + 1 && ia[0] == 1);
    for (std::int32_t row = 1; row <= n; ++row) {
        require(ia[row] > ia[row - 1] && ja[ia[row - 1] - 1] == row);  // the diagonal comes first
        for (std::int32_t k = ia[row - 1]; k < ia[row] - 1; ++k) require(ja[k - 1] < ja[k]);
        require(ja[ia[row] - 2] <= n);
    }
    require(std::ranges::all_of(m.get_nzval(), [](double value) { return std::isfinite(value); }));
}

bool are_equal(const crssparse& a, const crssparse& b) {
    return std::ranges::equal(a.get_rowptr(), b.get_rowptr()) &&
           std::ranges::equal(a.get_colval(), b.get_colval()) &&
           std::ranges::equal(a.get_nzval(), b.get_nzval());
}

std::string reversed_lines(std::string_view text) {
    constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
    if (text.starts_with(byte_order_mark)) text.remove_prefix(byte_order_mark.size());
    text = text.substr(0, text.find_last_not_of(" \t\r\n") + 1);
    std::string lines;
    while (!text.empty()) {
        const std::size_t feed = text.rfind('\n');
        const std::size_t start = feed == std::string_view::npos ? 0 : feed + 1;
        lines.append(text.substr(start)).push_back('\n');
        text = text.substr(0, start == 0 ? 0 : feed);
    }
    return lines;
}

/// Sets the number of threads for as long as it lives.
class thread_count {
  public:
    explicit thread_count(int n) : old_(omp_get_max_threads()) { omp_set_num_threads(n); }
    ~thread_count() { omp_set_num_threads(old_); }
    thread_count(const thread_count&) = delete;
    thread_count& operator=(const thread_count&) = delete;

  private:
    int old_;
};

}  // namespace

bool read_coo(std::string_view input) {
    if (input.size() < header_length) return false;
    const std::int32_t n = static_cast<unsigned char>(input[0]) % 16;
    if (n < 1) return false;
    const std::string_view text = input.substr(header_length);
    const std::optional<crssparse> m = read(text, n);
    if (!m) return false;
    check(*m, n);
    const thread_count three(3);
    const std::optional<crssparse> other = read(reversed_lines(text), n);
    require(other.has_value() && are_equal(*m, *other));
    return true;
}

}  // namespace zendar::fuzz
