#include "modpreconditioneriod_random.hpp"

#include <array>

#include "modenum.hpp"
#include "modmmeiod_external.hpp"

namespace zendar::modpreconditioneriod {

namespace {

constexpr std::string_view procedure = "addrandompart_to_preconditioner";

constexpr std::string_view text_ani_inb =
    "Addition of the random contributions for the animal (with inbreeding) effect ";
constexpr std::string_view text_ani_upg_inb =
    "Addition of the random contributions for the animal (with unknown parents groups + inbreeding) effect ";
constexpr std::string_view text_ani_rupg_inb =
    "Addition of the random contributions for the animal (with random unknown parents groups + inbreeding) "
    "effect ";

constexpr std::array<random_addition, 11> additions{
    {{0, "", nullptr},
     {1, "Addition of the random contributions for the diagonal effect ",
      addrandompart_eff_dia_to_preconditioner},
     {trandom_ani, text_ani_inb, addrandompart_eff_ani_inb_to_preconditioner},
     {trandom_ani_upg, text_ani_upg_inb, addrandompart_eff_ani_upg_inb_to_preconditioner},
     {trandom_ani_meta,
      "Addition of the random contributions for the animal (with inbreeding AND metafounders) effect ",
      addrandompart_eff_ani_inb_meta_to_preconditioner},
     {trandom_ani_rupg, text_ani_rupg_inb, addrandompart_eff_ani_rupg_inb_to_preconditioner},
     {10, "", addrandompart_externalmat_to_preconditioner},
     {trandom_ani_a22i, text_ani_inb, addrandompart_eff_ani_inb_to_preconditioner},
     {trandom_ani_upg_a22i, text_ani_upg_inb, addrandompart_eff_ani_upg_inb_to_preconditioner},
     {trandom_ani_rupg_a22i, text_ani_rupg_inb, addrandompart_eff_ani_rupg_inb_to_preconditioner},
     {trandom_ani_ploidy, "Addition of the random contributions for the animal (with ploidy) effect ",
      addrandompart_externalmat_to_preconditioner}}};

/// The identity between levels.
template <class Sink>
void add_identity(const Sink& sink, std::int64_t nlevel) {
    if constexpr (Sink::levels_are_independent) {
#pragma omp parallel for schedule(static) default(none) shared(sink, nlevel)
        for (std::int64_t level = 0; level < nlevel; ++level) sink.add(level, 1.0);
    } else {
        for (std::int64_t level = 0; level < nlevel; ++level) sink.add(level, 1.0);
    }
}

}  // namespace

void addrandompart_eff_dia_to_preconditioner(const random_context& context, const effect_group& group) {
    add_to_preconditioner(context.in, group, context.mija_global, context.cootmp,
                          "addrandompart_eff_dia_to_preconditioner", context.log,
                          [&group](const auto& sink) { add_identity(sink, group.nlevel); });
}

const random_addition& find_random_addition(std::int32_t type_random, logger& log) {
    const auto found = std::ranges::find(additions, type_random, &random_addition::type_random);
    if (found == additions.end())
        fatal(log, " This type of effect " + inttochar(type_random) + " is not implemented", module_tag,
              procedure);
    return *found;
}

void addrandompart_to_preconditioner(const precond_input& in, std::span<mija> mija_global,
                                     cootmp_type& cootmp, logger& log) {
    const random_context context{in, mija_global, cootmp, log};
    for (std::int32_t e = 1; e <= in.param.neffect - in.param.nhuge; ++e) {
        const random_addition& addition = find_random_addition(in.param.type_random[e - 1], log);
        if (addition.add == nullptr) continue;
        if (!addition.text.empty()) log.message(std::string(addition.text) + inttochar(e));
        const auto group = std::ranges::find(in.groups, e, &effect_group::effect);
        if (group == in.groups.end())
            fatal(log, "Internal error: the covariance block of effect " + inttochar(e) + " was not prepared",
                  module_tag, procedure);
        addition.add(context, *group);
        if (in.external != nullptr)
            for (const auto& [effect, term] : in.external->terms)
                if (effect == e) addrandompart_external_to_preconditioner(context, *group, *term);
    }
    addrandompart_huge_to_preconditioner(context);
}

}  // namespace zendar::modpreconditioneriod
