#include "external_input.hpp"

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <string>

#include "modstructure_external.hpp"

namespace zendar::fuzz {
namespace {

constexpr std::int32_t declared = 16;

void require(bool holds) {
    if (!holds) std::abort();
}

void require_equal(const matrix_levels& a, const matrix_levels& b) {
    require(a.level == b.level && a.position == b.position && std::ssize(a.position) == declared);
    for (std::int64_t k = 0; k < a.size(); ++k) require(a.position[a.level[k] - 1] == k + 1);
}

void require_finite(const matrix<double>& m) {
    for (const double value : m.values()) require(std::isfinite(value));
}

void require_symmetric(const matrix<double>& m) {
    require(m.rows() == m.cols());
    require_finite(m);
    for (std::int64_t j = 0; j < m.cols(); ++j)
        for (std::int64_t i = 0; i < j; ++i) require(m(i, j) == m(j, i));
}

/// Reads the file, writes what it gave and reads that.
template <class Matrix, class Read, class Write, class Check>
bool round_trip(const std::string& file, const Read& read, const Write& write, const Check& check) {
    param_type param;
    param.neffect = 2;
    param.ntrait = 1;
    allocpar(param);
    param.n_level = {declared, declared};
    logger log;
    Matrix first, second;
    try {
        read(param, file, first, log);
    } catch (const fatal_error&) {
        return false;
    }
    const std::string copy = "copy_" + file;
    write(first, copy, log);
    read(param, copy, second, log);
    check(first, second);
    return true;
}

bool read_gima22i(const std::string& file) {
    return round_trip<gima22i_type>(
        file,
        [](const param_type& param, const std::string& name, gima22i_type& m, logger& log) {
            readgima22i(param, 1, name, m, log);
        },
        write_gima22i,
        [](const gima22i_type& a, const gima22i_type& b) {
            require_equal(a.levels, b.levels);
            require_symmetric(a.elements.dense);
            require(a.elements.dense.rows() == a.levels.size() && a.elements.dense == b.elements.dense);
        });
}

bool read_qptransfo(const std::string& file) {
    return round_trip<gima22i_type>(
        file,
        [](const param_type& param, const std::string& name, gima22i_type& m, logger& log) {
            readqptransfo(param, 1, name, m, log);
        },
        write_symmetric,
        [](const gima22i_type& a, const gima22i_type& b) {
            require_equal(a.levels, b.levels);
            require_symmetric(a.elements.dense);
            require(a.elements.dense.rows() == a.levels.size() && a.elements.dense == b.elements.dense);
        });
}

bool read_acrosseff(const std::string& file) {
    return round_trip<across_block>(
        file,
        [](const param_type& param, const std::string& name, across_block& m, logger& log) {
            readacrosseff(param, 1, 2, name, m, log);
        },
        write_acrosseff,
        [](const across_block& a, const across_block& b) {
            require_equal(a.rows, b.rows);
            require_equal(a.columns, b.columns);
            require_finite(a.elements.dense);
            require(a.elements.dense == b.elements.dense);
        });
}

bool read_list(const std::string& file) {
    return round_trip<matrix_levels>(
        file,
        [](const param_type& param, const std::string& name, matrix_levels& list, logger& log) {
            readlist(param, 1, name, list, log);
        },
        write_list, require_equal);
}

bool read_apy(const std::string& file) {
    return round_trip<apy>(
        file,
        [](const param_type& param, const std::string& name, apy& m, logger& log) {
            readgapy(param, 1, name, m, log);
        },
        write_gapy,
        [](const apy& a, const apy& b) {
            require_equal(a.levels, b.levels);
            require_symmetric(a.core);
            require_finite(a.cross);
            require(a.ncore == b.ncore && a.core == b.core && a.cross == b.cross && a.diagonal == b.diagonal);
            require(a.core.rows() == a.ncore && a.cross.rows() == a.ncore &&
                    a.cross.cols() == a.levels.size() - a.ncore && std::ssize(a.diagonal) == a.cross.cols());
        });
}

bool read_ta(const std::string& file) {
    return round_trip<tamatrix_type>(
        file,
        [](const param_type& param, const std::string& name, tamatrix_type& m, logger& log) {
            readtamatrix(param, 1, name, m, log);
        },
        write_tamatrix,
        [](const tamatrix_type& a, const tamatrix_type& b) {
            require_equal(a.levels, b.levels);
            require_finite(a.value);
            require(a.value.cols() == a.levels.size() && a.value == b.value);
        });
}

bool read_k(const std::string& file) {
    return round_trip<ktmatrix_type>(
        file,
        [](const param_type& param, const std::string& name, ktmatrix_type& m, logger& log) {
            readktamatrix(param, 1, name, m, log);
        },
        [](const ktmatrix_type& m, const std::string& name, logger& log) {
            write_densesquare(m.k, name, name.ends_with("_tri") ? "_tri" : ".stream", log);
        },
        [](const ktmatrix_type& a, const ktmatrix_type& b) {
            require_symmetric(a.k.value);
            require(a.k.n == a.k.value.rows() && std::ssize(a.levels) == a.k.n && a.k.value == b.k.value);
        });
}

void write_file(const char* name, std::string_view bytes) {
    std::ofstream(name, std::ios::binary) << bytes;
}

}  // namespace

bool read_external(std::string_view input) {
    constexpr std::string_view separator = "\n=\n";
    if (input.size() < 2) return false;
    std::string_view file = input.substr(2);
    if (input[0] == 'a') {
        const std::size_t end = file.find(separator);
        if (end == std::string_view::npos) return false;
        write_file("m_tri_core", file.substr(0, end));
        file = file.substr(end + separator.size());
    }
    write_file("m_tri", file);
    write_file("m.stream", file);
    switch (input[0]) {
        case 'g':
            return read_gima22i("m_tri");
        case 'Q':
            return read_qptransfo("m.stream");
        case 'x':
            return read_acrosseff("m_tri");
        case 'i':
            return read_list("m_tri");
        case 'a':
            return read_apy("m_tri");
        case 'A':
            return read_apy("m.stream");
        case 't':
            return read_ta("m_tri");
        case 'T':
            return read_ta("m.stream");
        case 'k':
            return read_k("m_tri");
        case 'K':
            return read_k("m.stream");
        default:
            return false;
    }
}

}  // namespace zendar::fuzz
