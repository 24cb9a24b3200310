#include "sparse_input.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "modsparse.hpp"

namespace zendar::fuzz {
namespace {

std::string content(const char* name) {
    std::ifstream file(name, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

template <class Matrix>
std::optional<Matrix> load(const char* name) {
    try {
        return Matrix::load(name);
    } catch (const fatal_error&) {
        return std::nullopt;
    }
}

/// A matrix of huge dimensions is a good file; what is as long as a dimension is left out then.
bool is_small(const gen_sparse& m) {
    return m.getdim(1) <= 4096 && m.getdim(2) <= 4096;
}

void use(coosparse& m) {
    if (is_small(m)) {
        static_cast<void>(m.diag_vect());
        static_cast<void>(convertfromcootocrs(m).totalnumberofelements());
    }
    m.add(1, 1, 1.0);
    m.scale(0.5);
}

void use(crssparse& m) {
    m.sort();
    m.add(1, 1, 1.0);
    if (is_small(m)) {
        static_cast<void>(m.diag_vect());
        static_cast<void>(convertfromcrstoll(m).totalnumberofelements());
        static_cast<void>(convertfromcrstocoo(m).totalnumberofelements());
    }
    if (is_small(m) && m.issquare() && m.isupperstorage()) static_cast<void>(convertfromcrstometisgraph(m).n);
}

void use(crssparse64& m) {
    m.sort();
    m.add(1, 1, 1.0);
    if (is_small(m)) static_cast<void>(convertfromcrs64tocoo(m).totalnumberofelements());
}

template <class Matrix>
bool try_format() {
    std::optional<Matrix> m = load<Matrix>("input");
    if (!m) return false;
    m->save("first");
    std::optional<Matrix> again = load<Matrix>("first");
    if (!again) std::abort();
    again->save("second");
    if (content("first") != content("second")) std::abort();
    use(*m);
    return true;
}

}  // namespace

bool read_sparse(std::string_view input) {
    std::ofstream("input", std::ios::binary) << input;
    const bool coo = try_format<coosparse>(), crs = try_format<crssparse>(),
               crs64 = try_format<crssparse64>();
    return coo || crs || crs64;
}

}  // namespace zendar::fuzz
