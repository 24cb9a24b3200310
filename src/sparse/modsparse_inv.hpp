#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

/// Supernodal Cholesky factorisation and selected inverse of a sparse symmetric matrix, over raw arrays.
///
/// Three numberings meet here. The matrix's own; the elimination order that the caller gives (`perm`: the
/// matrix's equation at each new place); and the internal order, a postorder of the elimination tree of the
/// former. A postorder changes neither fill nor the order along any path of the tree, and all rows of a
/// column of the factor lie on one path: results go back to the caller's order without a sort.
///
/// Literature: Liu (1990) SIAM J. Matrix Anal. Appl. 11:134-172 (elimination trees); Gilbert, Ng & Peyton
/// (1994) SIAM J. Matrix Anal. Appl. 15:1075-1091 (column counts); Ng & Peyton (1993) SIAM J. Sci. Comput.
/// 14:1034-1056 (left-looking supernodes); Ashcraft & Grimes (1989) ACM Trans. Math. Softw. 15:291-309
/// (relaxed supernodes); Takahashi, Fagan & Chen (1973), Erisman & Tinney (1975) Commun. ACM 18:177-179
/// (selected inverse).
///
/// Nothing here logs or throws for numerical reasons; indices count from 0 unless said otherwise.
namespace zendar::modsparse_inv {

/// A symmetric matrix in the internal order: column j holds the rows i > j, sorted, and the diagonal apart.
struct permuted_matrix {
    std::vector<std::int64_t> xcol;  ///< n + 1
    std::vector<std::int32_t> row;
    std::vector<double> value;  ///< empty when only the structure is wanted
    std::vector<double> diag;
};

/// Column bounds of the supernodes.
struct super_node_bounds {
    std::vector<std::int32_t> xsuper;        ///< nsuper + 1 first columns
    std::int32_t largest = 0, smallest = 0;  ///< columns of a supernode
    [[nodiscard]] std::int32_t nsuper() const { return static_cast<std::int32_t>(xsuper.size()) - 1; }
};

/// Everything about the factor but its numbers.
struct supernodal_structure {
    std::int32_t n = 0;
    std::vector<std::int32_t> place;      ///< place in the caller's elimination order of each internal column
    std::vector<std::int32_t> equation;   ///< equation of the matrix of each internal column
    std::vector<std::int32_t> iequation;  ///< the inverse: internal column of each equation
    std::vector<std::int32_t> parent;     ///< elimination tree, -1 at a root
    std::vector<std::int32_t> colcount;   ///< elements of each column of L, with the diagonal
    std::vector<std::int64_t> xrow;       ///< n + 1: the columns k < i of row i of the matrix ...
    std::vector<std::int32_t> rowcol;     ///< ... sorted

    super_node_bounds nodes;
    std::vector<std::int32_t> snode;    ///< supernode of each column
    std::vector<std::int32_t> sparent;  ///< tree of the supernodes, -1 at a root
    std::vector<std::int64_t> xlindx;   ///< nsuper + 1: the rows of supernode s, its own columns first ...
    std::vector<std::int32_t> lindx;    ///< ... sorted
    std::vector<std::int64_t>
        xlnz;  ///< nsuper + 1: where the block of s (rows x columns, column-major) begins

    [[nodiscard]] std::int32_t nsuper() const { return nodes.nsuper(); }
    [[nodiscard]] std::int32_t columns(std::int32_t s) const { return nodes.xsuper[s + 1] - nodes.xsuper[s]; }
    [[nodiscard]] std::int32_t rows(std::int32_t s) const {
        return static_cast<std::int32_t>(xlindx[s + 1] - xlindx[s]);
    }
    [[nodiscard]] std::span<const std::int32_t> rows_of(std::int32_t s) const {
        return {lindx.data() + xlindx[s], static_cast<std::size_t>(rows(s))};
    }
    /// Elements of the factor, without the zeros that supernodes store besides.
    [[nodiscard]] std::int64_t elements() const;
};

/// The numbers: the blocks of L, or, after `super_sparsinv`, those of the inverse. Only lower triangles of
/// the diagonal blocks mean something.
struct supernodal_factor {
    std::unique_ptr<double[]> lnz;
    std::vector<char> dropped;  ///< per internal column; empty when nothing may be dropped
    std::int32_t ndropped = 0;
};

/// How a pivot that is not positive is met.
enum class pivot_rule {
    positive,  ///< the factorisation fails
    drop       ///< at or below 1e-10 of its diagonal: dropped with its row; below -1e-8 of it: fails
};
inline constexpr double dropped_pivot = 1e-10, negative_pivot = -1e-8;

/// Outcome of a factorisation: `column` is -1, or the first internal column in elimination order whose pivot
/// failed, the same for every number of threads.
struct factor_status {
    std::int32_t column = -1;
    double pivot = 0.0;
};

/// Called with (done, total) work units, by one thread at a time.
using progress_function = std::function<void(std::int64_t, std::int64_t)>;

/// Elimination tree, postorder and column counts of the upper triangle `ia`, `ja` (both from 1, sorted rows).
/// `perm` (from 1) holds the equation at each new place; empty is the identity. O(elements) time.
template <std::signed_integral Index>
supernodal_structure symbolicfact(std::int32_t n, std::span<const Index> ia, std::span<const std::int32_t> ja,
                                  std::span<const std::int32_t> perm);

/// The matrix in the internal order.
template <std::signed_integral Index>
permuted_matrix computexsparsdiag(const supernodal_structure& s, std::span<const Index> ia,
                                  std::span<const std::int32_t> ja, std::span<const double> a);

/// Cuts the columns into supernodes. A column joins the next when all its other rows are shared; small or
/// nearly equal supernodes are then merged with their last child as long as few zeros come in.
super_node_bounds super_nodes(std::span<const std::int32_t> parent, std::span<const std::int32_t> colcount);

/// Column structure of L in compressed subscripts: fills `snode`, `sparent`, `xlindx`, `lindx` and `xlnz`
/// from `nodes`. O(size of the subscripts + elements of the matrix).
void smbfct(supernodal_structure& s);

/// Left-looking blocked factorisation. Subtrees run side by side, the big supernodes near the roots by tiles;
/// the arithmetic does not depend on the number of threads.
/// Work space of a thread: n integers and at most 0.5 MiB; for all, 8 bytes for each pair of supernodes that
/// meet. There are as many threads as keep theirs within a fifth of the factor, at least one.
factor_status super_gsfct(const supernodal_structure& s, const permuted_matrix& m, pivot_rule rule,
                          supernodal_factor& f, const progress_function& progress = {});

/// Selected inverse in place of the factor, supernode by supernode from the last; rows and columns of dropped
/// pivots become zero. @returns the error code of DPOTRI, 0 when all went well.
/// Work space, with all lists less than 30 % of the factor whatever the number of threads: what each thread
/// has, and what the big supernodes at hand have besides, stays within a fifth of it (for which their number,
/// then the number of threads, then the width of the steps gives way), and the plan of the work takes up to
/// 44 bytes a supernode.
int super_sparsinv(const supernodal_structure& s, supernodal_factor& f,
                   const progress_function& progress = {});

/// Incomplete factorisation without fill, in place of the numbers of `m`: the rows of the factor U take the
/// columns of `m`, and at every element of the pattern U'U equals the matrix. Rows run in parallel over the
/// elimination tree. Work space of a thread: n integers.
factor_status incomplete_gsfct(const supernodal_structure& s, permuted_matrix& m);

/// What the diagonal of a converted factor holds.
enum class factor_form {
    cholesky,  ///< U = L' with its diagonal
    ldlt       ///< U of U'DU: unit diagonal; D goes to `d`, zero where the pivot was dropped
};

/// The factor as U = L' by rows in the caller's order, `ia` and `ja` from 1, rows sorted, without the zeros
/// that the supernodes store besides. `ia` has n + 1, `ja` and `a` have s.elements() entries; `d` n or none.
template <std::signed_integral Index>
void convertfactortoija(const supernodal_structure& s, const supernodal_factor& f, factor_form form,
                        std::span<Index> ia, std::span<std::int32_t> ja, std::span<double> a,
                        std::span<double> d);

/// The incomplete factor by rows in the caller's order, as `convertfactortoija`; n + m.row.size() elements.
template <std::signed_integral Index>
void converttoija_noperm(const supernodal_structure& s, const permuted_matrix& m, std::span<Index> ia,
                         std::span<std::int32_t> ja, std::span<double> a);

/// The inverse on the pattern of the factor, as upper triangle of the matrix's own numbering (from 1), rows
/// sorted. Sizes as for `convertfactortoija`.
template <std::signed_integral Index>
void converttoija(const supernodal_structure& s, const supernodal_factor& f, std::span<Index> ia,
                  std::span<std::int32_t> ja, std::span<double> a);

/// The inverse at the elements of the matrix only: `ia` and `ja` stay, `a` is overwritten.
template <std::signed_integral Index>
void converttoija_pattern(const supernodal_structure& s, const supernodal_factor& f,
                          std::span<const Index> ia, std::span<const std::int32_t> ja, std::span<double> a);

}  // namespace zendar::modsparse_inv
