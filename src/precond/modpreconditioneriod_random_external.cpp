#include "modmmeiod_external.hpp"
#include "modpreconditioneriod_random.hpp"

namespace zendar::modpreconditioneriod {

namespace {

/// The Kronecker product with a matrix between levels, given by one triangle. A row of it adds to its
/// own level only, but for sinks that take pairs.
template <class Sink>
void add_relationship(const Sink& sink, const crssparse& matrix) {
    const crs_view<std::int32_t> m = matrix.view();
    const std::int64_t n = matrix.getdim(1);
    if constexpr (Sink::levels_are_independent) {
#pragma omp parallel for schedule(static) default(none) shared(sink, m, n)
        for (std::int64_t i = 0; i < n; ++i)
            for (std::int32_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k)
                if (m.ja[k] == i + 1) sink.add(i, m.a[k]);
    } else {
        for (std::int64_t i = 0; i < n; ++i)
            for (std::int32_t k = m.ia[i] - 1; k < m.ia[i + 1] - 1; ++k) {
                if (m.ja[k] == i + 1) {
                    sink.add(i, m.a[k]);
                } else {
                    if constexpr (Sink::pairs) sink.add(i, m.ja[k] - 1, m.a[k]);
                }
            }
    }
}

}  // namespace

void addrandompart_externalmat_to_preconditioner(const random_context& context, const effect_group& group) {
    constexpr std::string_view procedure = "addrandompart_externalmat_to_preconditioner";
    context.log.message("Addition of external sparse matrix to preconditioner");
    const std::size_t place = static_cast<std::size_t>(group.effect) - 1;
    const crssparse* const matrix =
        place < context.in.asparse.size() ? context.in.asparse[place].get() : nullptr;
    if (matrix == nullptr)
        fatal(context.log, "asparsesub is not allocated for effect " + inttochar(group.effect), module_tag,
              procedure);
    add_relationship_matrix(context, group, *matrix, procedure);
}

void addrandompart_external_to_preconditioner(const random_context& context, const effect_group& group,
                                              modmmeiod::external_term& term) {
    const std::span<const std::int32_t> levels = term.levels();
    const external_matrix* const elements = term.elements();
    const std::vector<double> diagonal = term.diagonal(context.log);
    context.log.message(std::string(term.precond_text()));
    add_to_preconditioner(context.in, group, context.mija_global, context.cootmp,
                          "addrandompart_external_to_preconditioner", context.log, [&](const auto& sink) {
                              for (std::size_t k = 0; k < levels.size(); ++k)
                                  sink.add(levels[k] - 1, diagonal[k]);
                              if constexpr (std::remove_cvref_t<decltype(sink)>::pairs) {
                                  if (elements == nullptr) return;
                                  for (std::int64_t k = 0; k < std::ssize(levels); ++k)
                                      for (std::int64_t i = 0; i < k; ++i)
                                          sink.add(levels[i] - 1, levels[k] - 1, elements->value(i, k));
                              }
                          });
    context.log.message(std::string(term.precond_count_text()) + inttochar(term.size()));
}

void add_relationship_matrix(const random_context& context, const effect_group& group,
                             const crssparse& matrix, std::string_view procedure) {
    if (matrix.getdim(1) != group.nlevel || matrix.getdim(2) != group.nlevel)
        fatal(context.log,
              "Internal error: the matrix of effect " + inttochar(group.effect) + " has " +
                  inttochar(matrix.getdim(1)) + " rows, but the effect " + inttochar(group.nlevel) +
                  " levels",
              module_tag, procedure);
    add_to_preconditioner(context.in, group, context.mija_global, context.cootmp, procedure, context.log,
                          [&matrix](const auto& sink) { add_relationship(sink, matrix); });
}

}  // namespace zendar::modpreconditioneriod
