#include "modenum.hpp"
#include "modmmeiod_a22i.hpp"
#include "modpedigree_rules.hpp"
#include "modpreconditioneriod_random.hpp"

namespace zendar::modpreconditioneriod {

namespace {

/// The contributions of one animal: its own level, those of its parents, and the pairs of them.
template <class Sink>
void addpedcontribution(const Sink& sink, const pedigree_type& ped, std::int32_t animal, double w) {
    const std::array<std::int32_t, 3> node{animal, ped.sire(animal), ped.dam(animal)};
    for (std::size_t p = 0; p < 3; ++p) {
        if (node[p] == 0) continue;
        sink.add(node[p] - 1, w * contribution_row[p] * contribution_row[p]);
        for (std::size_t q = p + 1; q < 3; ++q) {
            if (node[q] == 0) continue;
            const double value = w * contribution_row[p] * contribution_row[q];
            if (node[q] == node[p]) {  // selfing
                sink.add(node[p] - 1, 2.0 * value);
            } else {
                if constexpr (Sink::pairs) sink.add(node[p] - 1, node[q] - 1, value);
            }
        }
    }
}

template <class Sink>
void add_pedigree(const Sink& sink, const pedigree_type& ped) {
    const std::int32_t nani = ped.nlength() - ped.nupg;
    for (std::int32_t i = 1; i <= nani; ++i) addpedcontribution(sink, ped, i, mendelian_factor(ped, i, nani));
}

void add_groups(const auto& sink, const pedigree_type& ped, double weightupg) {
    for (std::int32_t g = ped.nlength() - ped.nupg + 1; g <= ped.nlength(); ++g) sink.add(g - 1, weightupg);
}

/// With a sparse A-inverse its elements are taken: they hold the groups as well.
void add_animal_effect(const random_context& context, const effect_group& group, bool random_groups,
                       std::string_view procedure) {
    const auto place = static_cast<std::size_t>(group.effect - 1);
    if (place < context.in.asparse.size() && context.in.asparse[place] != nullptr)
        return add_relationship_matrix(context, group, *context.in.asparse[place], procedure);
    const pedigree_type* const ped =
        place < context.in.pedigree.size() ? context.in.pedigree[place] : nullptr;
    if (ped == nullptr)
        fatal(context.log, "asparsesub is not allocated for effect " + inttochar(group.effect), module_tag,
              procedure);
    add_to_preconditioner(context.in, group, context.mija_global, context.cootmp, procedure, context.log,
                          [&](const auto& sink) {
                              add_pedigree(sink, *ped);
                              if (random_groups) add_groups(sink, *ped, context.in.param.weightupg);
                          });
}

/// (tau/beta - omega) diag(A22^-1) for the listed animals; the diagonal is estimated.
void addrandompart_a22_huge_to_preconditioner(const random_context& context, const effect_group& group) {
    constexpr std::string_view procedure = "addrandompart_a22_huge_to_preconditioner";
    if (context.in.a22i_weight == 0.0) return;
    const auto place = static_cast<std::size_t>(group.effect - 1);
    a22_inverse* const a22i =
        place < context.in.asparsesub.size() ? context.in.asparsesub[place].get() : nullptr;
    if (a22i == nullptr)
        fatal(context.log, "asparsesub is not allocated for effect " + inttochar(group.effect), module_tag,
              procedure);
    context.log.message("Computation of diagonal elements of A22-1");
    const std::vector<double> diagonal = computediaga22i(*a22i, context.log);
    context.log.message("Addition of A22-1 to preconditioner");
    add_to_preconditioner(context.in, group, context.mija_global, context.cootmp, procedure, context.log,
                          [&](const auto& sink) {
                              for (std::size_t k = 0; k < diagonal.size(); ++k)
                                  sink.add(a22i->levels()[k] - 1, context.in.a22i_weight * diagonal[k]);
                          });
    context.log.message("    Number of elements for the core animals added to the preconditioner: " +
                        inttochar(a22i->size()));
}

/// With a part of A22^-1 where the type asks for it.
void add_parts(const random_context& context, const effect_group& group, bool random_groups,
               std::string_view procedure) {
    add_animal_effect(context, group, random_groups, procedure);
    if (is_a22i_effect(context.in.param.type_random[static_cast<std::size_t>(group.effect - 1)]))
        addrandompart_a22_huge_to_preconditioner(context, group);
}

}  // namespace

void addrandompart_eff_ani_inb_to_preconditioner(const random_context& context, const effect_group& group) {
    add_parts(context, group, false, "addrandompart_eff_ani_inb_to_preconditioner");
}

void addrandompart_eff_ani_upg_inb_to_preconditioner(const random_context& context,
                                                     const effect_group& group) {
    add_parts(context, group, false, "addrandompart_eff_ani_upg_inb_to_preconditioner");
}

void addrandompart_eff_ani_rupg_inb_to_preconditioner(const random_context& context,
                                                      const effect_group& group) {
    add_parts(context, group, true, "addrandompart_eff_upg_to_preconditioner");
}

void addrandompart_eff_ani_inb_meta_to_preconditioner(const random_context& context,
                                                      const effect_group& group) {
    add_parts(context, group, false, "addrandompart_eff_ani_inb_meta_to_preconditioner");
}

}  // namespace zendar::modpreconditioneriod
