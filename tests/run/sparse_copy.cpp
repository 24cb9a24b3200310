// sparse_copy FORMAT FROM TO: loads a matrix in a process of its own, saves it again and writes the non-zero
// values that it reads out, row by row, to TO.values.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "modsparse.hpp"

namespace {

template <class Matrix>
void copy(const std::filesystem::path& from, const std::filesystem::path& to) {
    const Matrix m = Matrix::load(from);
    m.save(to);
    std::ofstream values(to.string() + ".values", std::ios::binary);
    for (std::int32_t i = 1; i <= m.getdim(1); ++i) {
        for (std::int32_t j = 1; j <= m.getdim(2); ++j) {
            const double value = m.get(i, j);
            if (value != 0.0) values.write(reinterpret_cast<const char*>(&value), sizeof value);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string format = argc == 4 ? argv[1] : "";
    try {
        if (format == "coo")
            copy<zendar::coosparse>(argv[2], argv[3]);
        else if (format == "crs")
            copy<zendar::crssparse>(argv[2], argv[3]);
        else if (format == "crs64")
            copy<zendar::crssparse64>(argv[2], argv[3]);
        else
            return 2;
    } catch (const zendar::fatal_error& error) {
        std::fputs(error.what(), stderr);
        return 1;
    }
    return 0;
}
