#include <string>

#include "modfile.hpp"
#include "modpreconditioneriod_detail.hpp"

namespace zendar::modpreconditioneriod {

namespace {

template <class Real>
void write_line(file_writer& out, std::int64_t equation, Real value) {
    out.write(inttochar(equation) + " " + realtochar(value, "g0") + "\n");
}

void write_blocks(file_writer& out, const mija& part) {
    const std::int64_t size = packed_size(part);
    for (std::int64_t level = 0; level < part.dim3; ++level) {
        std::int64_t place = 0;
        for (const block_stretch& stretch : part.stretches)
            for (std::int64_t i = 0; i < stretch.length; ++i, ++place)
                write_line(out, stretch.first + level * stretch.stride + i + 1,
                           part.block[level * size + packed(place, place)]);
    }
}

/// The line that opens an effect, and those of its equations.
void write_effect(file_writer& out, const param_type& param, std::span<const mija> mija_global,
                  std::int32_t e) {
    const mija& part = mija_global[e - 1];
    const std::string head = "Effect " + inttochar(e) + ": ";
    const std::int32_t opener = opener_of(mija_global, e);
    if (part.type == precond_none) {
        out.write(head + "equations of effect " + inttochar(owner_of(param, e)) + "\n");
    } else if (opener != e) {
        out.write(head + "in the group of effect " + inttochar(opener) + "\n");
    } else if (part.type == precond_diagonal) {
        out.write(head + "diagonal\n");
        for (std::int64_t i = 0; i < part.dim1; ++i) write_line(out, part.first + i, part.mat[i]);
    } else if (part.type == precond_block || part.type == precond_reorder) {
        out.write(head + "diagonal of the blocks\n");
        write_blocks(out, part);
    } else if (part.type == precond_whole) {
        out.write(head + "diagonal of the matrix\n");
        for (std::int64_t i = 0; i < part.dim1; ++i) write_line(out, part.first + i, part.w[packed(i, i)]);
    } else if (part.type == precond_dense) {
        out.write(head + "diagonal of the matrix\n");
        for (std::int64_t i = 0; i < part.dim1; ++i) write_line(out, part.first + i, part.dense(i, i));
    } else {
        out.write(head + "sparse matrix\n");
    }
}

}  // namespace

void printprecondiag(const param_type& param, std::span<const mija> mija_global, std::string_view name,
                     logger& log) {
    const std::string directory = output_directory(param), file = directory + std::string(name);
    const auto check = [&](const std::optional<file_error>& error) {
        if (error)
            fatal_io(log, "The file " + file + " cannot be written", module_tag, "printprecondiag",
                     error->iostat, error->iomsg);
    };
    file_writer out;
    check(out.open(file));
    for (std::int32_t e = 1; e <= param.neffect; ++e) write_effect(out, param, mija_global, e);
    check(out.commit());

    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        const mija& part = mija_global[e - 1];
        if (part.type != precond_sparse && part.type != precond_auto) continue;
        // Factors have a permutation; they would take the place of the matrix that the user asked to see.
        if (!part.sparse.haspermutation32()) part.sparse.printtofile(directory + "crs_" + inttochar(e));
    }
}

}  // namespace zendar::modpreconditioneriod
