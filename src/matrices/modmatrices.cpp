#include "modmatrices.hpp"

#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <ostream>
#include <utility>

#include "modbasic.hpp"
#include "modblas.hpp"
#include "modfile.hpp"
#include "modheader.hpp"
#include "modmatrices_apy.hpp"
#include "modmatrices_genomic.hpp"
#include "modmatrices_input.hpp"
#include "modmatrices_relationship.hpp"
#include "modmatrices_ta.hpp"
#include "modstats.hpp"
#include "modstructure_external.hpp"

namespace zendar::matrices {
namespace {

/// A run: what was asked for and what was read.
struct matrix_run {
    const matrix_options& options;
    const matrix_input& input;
    const core_split& core;
    logger& log;
    std::unique_ptr<a22_inverse>& a22i;  ///< its factors, once they are needed

    [[nodiscard]] a22_inverse& a22_inverse_factors() const {
        if (!a22i) a22i = std::make_unique<a22_inverse>(input.ped, options.effect, input.levels, log);
        return *a22i;
    }
    /// Logs a step before and, with its time, behind it.
    template <class Step>
    void step(const std::string& text, const Step& work) const {
        log.message(text + "...");
        const wtime clock;
        work();
        clock.end(log, text);
    }
    template <class Write, class Matrix>
    void write(const Write& writer, const Matrix& matrix, const std::string& file) const {
        if (!file.empty()) step("Writing of " + file, [&] { writer(matrix, file, log); });
    }
};

// ---- G, its inverse and A22
// --------------------------------------------------------------------------------

/// a = A22, both triangles.
void fill_relationships(const matrix_run& run, matrix_view<double> a) {
    run.step("Relationships by the pedigree, A22",
             [&] { relationship_columns(run.input.ped, run.input.levels, run.log).columns(0, a); });
}

/// The lower triangle of A22 becomes that of G; then both.
void add_genotypes(const matrix_run& run, matrix_view<double> g) {
    run.step("Genomic relationships, G", [&] {
        for (std::int64_t j = 0; j < g.cols; ++j)
            for (double& value : g.column(j)) value *= run.options.beta;
        add_genomic_products(run.input.genotypes, run.input.rows, run.options.alpha / run.input.sum2pq, g,
                             run.log);
        mirror_lower(g);
    });
}

void invert_genomic(const matrix_run& run, matrix_view<double> g) {
    run.step("Inversion of G", [&] {
        factorise(g, "G", run.input.levels, run.log);
        invert_factor(g, "G", run.log);
        mirror_lower(g);
    });
}

void make_apy(const matrix_run& run, core_parts parts) {
    apy result;
    run.step("Inverse for APY",
             [&] { result = invert_apy(std::move(parts), run.core, run.input.levels, run.log); });
    run.write(write_gapy, result, run.options.apy);
}

/// A22^-1 by columns, kept where it is to be written; g becomes tau g - omega A22^-1 where that is.
void combine_inverses(const matrix_run& run, gima22i_type& g) {
    const matrix_options& options = run.options;
    const std::int64_t n = run.input.nanimal();
    gima22i_type a22i{g.levels, {}};
    if (!options.a22i.empty()) a22i.elements.dense = matrix<double>(n, n);
    run.step("Inverse relationships by the pedigree, A22^-1", [&] {
        a22_inverse& inverse = run.a22_inverse_factors();
        std::vector<double> work;
        matrix<double> part(n, options.a22i.empty() ? std::min(relationship_block, n) : 0);
        for (std::int64_t first = 0; first < n; first += relationship_block) {
            const std::int64_t ncol = std::min(relationship_block, n - first);
            double* const to = options.a22i.empty() ? part.data() : &a22i.elements.dense(0, first);
            const matrix_view<double> columns{to, n, ncol, n};
            a22_inverse_columns(inverse, first, columns, work);
            if (options.gima22i.empty()) continue;
            matrix<double>& own = g.elements.dense;
            for (std::int64_t j = 0; j < ncol; ++j)
                for (std::int64_t i = 0; i < n; ++i)
                    own(i, first + j) = options.tau * own(i, first + j) - options.omega * columns(i, j);
        }
    });
    if (!options.a22i.empty()) mirror_lower(a22i.elements.dense.view());
    run.write(write_symmetric, a22i, options.a22i);
    if (options.gima22i.empty()) return;
    mirror_lower(g.elements.dense.view());
    run.write(write_symmetric, g, options.gima22i);
}

void make_symmetric(const matrix_run& run) {
    const matrix_options& options = run.options;
    const std::int64_t n = run.input.nanimal();
    gima22i_type g;
    g.levels.level = run.input.levels;
    matrix<double>& m = g.elements.dense;
    if (options.wants_g() || !options.a22.empty()) {
        m = matrix<double>(n, n);
        if (options.beta > 0.0 || !options.a22.empty()) fill_relationships(run, m.view());
        run.write(write_symmetric, g, options.a22);
    }
    if (options.wants_g()) {
        add_genotypes(run, m.view());
        run.write(write_symmetric, g, options.g);
        if (!options.apy.empty()) make_apy(run, select_core_parts(std::as_const(m).view(), run.core));
        if (!options.gi.empty() || !options.gima22i.empty()) invert_genomic(run, m.view());
        run.write(write_symmetric, g, options.gi);
    }
    if (options.gima22i.empty()) m = {};
    if (options.wants_a22i()) combine_inverses(run, g);
}

// ---- all
// -----------------------------------------------------------------------------------------------------

void write_frequencies(const matrix_run& run) {
    if (run.options.freq.empty()) return;
    run.step("Writing of " + run.options.freq, [&] {
        file_writer out;
        auto failure = out.open(run.options.freq);
        if (!failure) {
            for (const double p : run.input.genotypes.allelefreq) out.write(realtochar(p, "(g0)") + "\n");
            failure = out.commit();
        }
        if (failure)
            fatal_io(run.log, "Cannot write the file " + run.options.freq, "modmatrices", "write_frequencies",
                     failure->iostat, failure->iomsg);
    });
}

void make_ta(const matrix_run& run) {
    if (!run.options.wants_ta()) return;
    ta_parts parts;
    run.step("Components of Ta",
             [&] { parts = compute_ta(run.input, run.a22_inverse_factors(), run.options, run.log); });
    if (!run.options.ta.empty()) run.write(write_tamatrix, parts.ta, run.options.ta);
    run.write(
        [](const densesquare_type& l, const std::string& file, logger& log) {
            write_densesquare(l, file, file.ends_with("_tri") ? "_tri" : ".stream", log);
        },
        parts.l, run.options.k);
}

void run_program(const matrix_options& options, logger& log) {
    const matrix_input input = read_input(options, log);
    const core_split core = options.core.empty() ? core_split{} : read_core(options.core, input.levels, log);
    const matrix_sizes sizes{input.nanimal(), input.nsnp(), core.ncore};
    log.message("Number of animals with genotypes: " + inttochar(sizes.nanimal));
    log.message("Number of SNPs: " + inttochar(sizes.nsnp));
    log.message("Memory (MB) needed for the matrices and genotypes: " +
                realtochar(mib(peak_bytes(options, sizes)), "(f0.2)"));
    std::unique_ptr<a22_inverse> a22i;
    const matrix_run run{options, input, core, log, a22i};
    write_frequencies(run);
    if (options.wants_g() || options.wants_a22i() || !options.a22.empty()) make_symmetric(run);
    if (!options.apy.empty() && !options.wants_g()) {
        core_parts parts;
        run.step("Genomic relationships with the core animals",
                 [&] { parts = compute_core_parts(input, core, options.alpha, options.beta, log); });
        make_apy(run, std::move(parts));
    }
    make_ta(run);
    const std::vector<std::string> lines = instruction_lines(options);
    if (!lines.empty()) log.message("Lines for the instruction file:");
    for (const std::string& line : lines) log.message(line);
}

}  // namespace

int run_matrices(const std::vector<std::string>& words, std::ostream& out) {
    logger log;
    log.add_stream(out);
    log.configure({.max_width = std::numeric_limits<int>::max(), .indent = false});
    try {
        const matrix_options options = read_options(words, log);
        if (options.help) {
            out << usage() << std::flush;
            return 0;
        }
        set_number_of_threads(options.threads);
        log.message("zendar-matrices, version " + this_build().version);
        run_program(options, log);
        return 0;
    } catch (const fatal_error&) {
        return 1;  // its message has been logged
    } catch (const std::bad_alloc&) {
        log.error("There is not enough memory for this run", "modmatrices");
    } catch (const std::exception& failure) {
        log.error(std::string("Unexpected failure: ") + failure.what(), "modmatrices");
    }
    return 1;
}

}  // namespace zendar::matrices
