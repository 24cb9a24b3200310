#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "modlogger.hpp"
#include "modsparse_coo.hpp"
#include "modsparse_crs.hpp"
#include "modview.hpp"

/// Pedigrees: who the parents of each level of an effect are, how inbred it is, and what follows from that.
///
/// Levels, groups and positions count from 1; a parent 0 is unknown. With genetic groups or metafounders the
/// last `nupg` levels are these, and stand as parents only.
namespace zendar {

/// `inbmethod`.
inline constexpr std::int32_t meuwissen_and_luo = 1, sargolzaei_etal = 2;

/// Levels from old to young, so that every parent stands before its offspring.
struct pedigree_order {
    std::vector<std::int32_t> order;     ///< [level - 1]: its position, from 1
    std::vector<std::int32_t> neworder;  ///< [position - 1]: its level
};

/// How and where inbreeding coefficients are computed.
struct inbreeding_options {
    std::int32_t inbmethod = meuwissen_and_luo;
    std::string directory;  ///< what stands before names of the output directory
};

/// The pedigree of one effect. Movable; it owns all its tables.
class pedigree_type {
  public:
    pedigree_type() = default;
    pedigree_type(pedigree_type&&) noexcept = default;
    pedigree_type& operator=(pedigree_type&&) noexcept = default;
    virtual ~pedigree_type() = default;

    std::int32_t nupg = -1;    ///< groups or metafounders; -1 before it is known
    matrix<std::int32_t> ped;  ///< 2 x n: sire and dam of each level
    std::vector<double> f;     ///< inbreeding coefficient of each level; empty: not known
    matrix<double> metarel;    ///< nupg x nupg: relationships between the metafounders
    std::optional<std::string> filename;
    bool ismeta = false;
    crssparse ainv;  ///< A-inverse, where it is kept here

    [[nodiscard]] std::int32_t nlength() const noexcept { return static_cast<std::int32_t>(ped.cols()); }
    [[nodiscard]] std::int32_t sire(std::int32_t level) const { return ped(0, level - 1); }
    [[nodiscard]] std::int32_t dam(std::int32_t level) const { return ped(1, level - 1); }
    /// n plus the sires of the first 100 levels and the dams of the last 101, in 32-bit arithmetic that wraps
    /// around: what a cache of inbreeding coefficients is told by.
    [[nodiscard]] std::int32_t checkval() const;

    // ---- reading (modpedigree_read.cpp)

    /// Reads lines "id sire dam" in any order for levels 1 .. nmax; levels without a line have unknown
    /// parents. Everything read before is released. A level given again with other parents is a warning, and
    /// the last line holds; lines of groups are passed over with a warning.
    /// @throws fatal_error  with the file and its first bad line: not three integers, a level outside 1 ..
    /// nmax,
    ///                      a parent outside 0 .. nmax.
    void readpedigree_max(const std::string& file, std::int32_t nmax, std::int32_t nupg, logger& log);
    /// The same for levels up to the largest code in the file; codes above the largest id are groups.
    void readpedigree_nomax(const std::string& file, logger& log);
    /// Reads the lines of a pedigree into `ped`, whose size stands. What both of the above end in.
    void read_lines(const std::string& file, logger& log);
    /// Reads lines "i j value" into `metarel`, each for both triangles. `effect` is for the messages.
    /// @throws fatal_error  without metafounders, and with the file and its first bad line.
    void readmetarel(const std::string& file, std::int32_t effect, logger& log);
    /// Reads lines "id value" into `f`, zero for all others, up to the first line that cannot be read. Before
    /// the tenth value lines that begin with # are comments. Coefficients outside of -1 to 1 are a warning.
    /// @throws fatal_error  for an id outside of the levels or a value that is not finite, with its line, and
    ///                      for a loop in the pedigree.
    void readinbreeding(const std::string& file, logger& log);

    // ---- reports (modpedigree_print.cpp)

    /// Writes "<prefix>pedigree.varquil" and "<prefix>inbreeding.varquil".
    virtual void print_pedigree(const std::string& prefix, logger& log) const;
    void printstats_pedigree(logger& log) const;

    // ---- order (modpedigree_order.cpp)

    /// The depth-first post-order over sires, then dams, of the levels in the order of their codes; groups
    /// come first. With an explicit stack: any depth will do.
    /// @throws fatal_error  for an animal among its own ancestors, naming the animals of one loop.
    [[nodiscard]] pedigree_order getorder(logger& log) const;
    /// The same check for loops, without the order and without messages.
    void check_loops(logger& log) const;
    /// Flags (1) listed levels and all their ancestors, or descendants, groups excepted.
    [[nodiscard]] std::vector<std::uint8_t> getancestors(std::span<const std::int32_t> list) const;
    [[nodiscard]] std::vector<std::uint8_t> getdescendants(std::span<const std::int32_t> list) const;
    /// Parent averages, from old to young, for the levels whose flag is 0; their flag becomes -1.
    /// @param x  one row of `x.cols` values per level.
    void compute_pa(matrix_view<double> x, std::span<std::int32_t> flag, logger& log) const;

    // ---- inbreeding (modpedigree_inbreeding.cpp)

    /// Fills `f` from "<filename>.inb", if that belongs to this pedigree, and else computes it and writes the
    /// cache.
    /// @throws fatal_error  for an unknown method, without `nupg`, for a loop, and, with metafounders, for a
    ///                      parent 0 or a matrix `metarel` that is not positive definite.
    virtual void computeinbreeding_ped(const inbreeding_options& options, logger& log);

    // ---- A-inverse (modpedigree_asparse.cpp)

    /// The inverse relationship matrix of all levels, by the rules of Henderson (1976) and Quaas (1988), for
    /// the type of the effect; upper triangle, symmetric, sorted. `weightupg` is added to the diagonal of
    /// each random group. `effect` is for the messages.
    /// @throws fatal_error  for other types, and without inbreeding coefficients.
    [[nodiscard]] virtual crssparse computeasparse_ped(std::int32_t efftype, double weightupg,
                                                       std::optional<std::int32_t> effect, logger& log) const;

    // ---- contributions of groups (modpedigree_groups.cpp)

    /// Shares of the groups in each level, or in the listed ones: nupg x n or nupg x list, the groups in the
    /// order of `getorder`. Writes "gg_order_ped.dat" or "gg_order_ped_sel.dat": row and level of each group.
    /// Empty, with a message and without a file, when there are no groups.
    /// @throws fatal_error  for a listed level outside of the pedigree.
    [[nodiscard]] matrix<double> computeggcontributions_all(std::int32_t effect, const std::string& directory,
                                                            logger& log) const;
    [[nodiscard]] matrix<double> computeggcontributions_sel(std::int32_t effect,
                                                            std::span<const std::int32_t> list,
                                                            const std::string& directory, logger& log) const;

  protected:
    /// Steps around the computation of f that all pedigrees share: cache, log, cache again.
    /// @returns false when the cache held f.
    bool read_inbreeding_cache(const inbreeding_options& options, logger& log, bool& exists);
    void write_inbreeding_cache(const inbreeding_options& options, logger& log) const;
    /// Warns of values of `f` that cannot be right, which come from this file.
    void warn_of_odd_coefficients(const std::string& file, logger& log) const;
};

/// One element per effect, null for those without pedigree.
using pedigree_list = std::vector<std::unique_ptr<pedigree_type>>;

}  // namespace zendar
