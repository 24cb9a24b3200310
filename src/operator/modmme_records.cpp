#include <array>

#include "modbasic.hpp"
#include "modmme_detail.hpp"
#include "modmmeiod_huge.hpp"

namespace zendar::modmme {

void expand_record(const modmmeiod::record_input& in, std::int64_t rec, std::vector<record_element>& elements,
                   std::span<double> ri) {
    const std::int32_t* const levels = in.effect.data + rec * in.effect.ld;
    const double* const rinv =
        in.rinv->of(in.combi[static_cast<std::size_t>(rec)], levels[in.effect.rows - 1]);
    const double* const weight = in.weight.data == nullptr ? nullptr : in.weight.data + rec * in.weight.ld;
    const std::int32_t nt = in.ntrait;
    for (std::int32_t t = 0; t < nt; ++t)
        for (std::int32_t s = 0; s < nt; ++s)
            ri[t * nt + s] = rinv[t * nt + s] * (weight == nullptr ? 1.0 : weight[t] * weight[s]);

    elements.clear();
    for (const modmmeiod::record_term& term : in.terms) {
        std::int64_t equation = 0;
        const double* const x = term.locate(levels, equation);
        if (x == nullptr) continue;
        const std::int32_t nx = term.huge || !term.covariable ? 1 : term.nx;
        for (std::int32_t j = 0; j < nx; ++j)
            for (std::int32_t t = 0; t < nt; ++t)
                if (rinv[t * nt + t] != 0.0 && term.mask[t] * x[j] != 0.0)
                    elements.push_back(
                        {equation + std::int64_t{j} * nt + term.slot[t], x[j], t, term.result});
    }
}

namespace {

/// Calls `among(own, other, r)` with each pair of equations of a record, and `with_huge` with each pair of an
/// equation and a row of genotypes; r is the element of the inverse residual matrix between their traits.
template <class Among, class WithHuge, class Done>
void for_each_product(const modmmeiod::record_input& in, const Among& among, const WithHuge& with_huge,
                      const Done& done) {
    const std::int64_t nrec = in.effect.cols, nt = in.ntrait;
    std::vector<record_element> elements;
    std::vector<double> ri(static_cast<std::size_t>(nt * nt));
    for (std::int64_t rec = 0; rec < nrec; ++rec) {
        expand_record(in, rec, elements, ri);
        for (const record_element& own : elements) {
            if (own.result > 0) continue;
            const double* const row = ri.data() + own.trait * nt;
            for (const record_element& other : elements) {
                if (other.result > 0)
                    with_huge(own, other, row[other.trait]);
                else if (own.equation <= other.equation)
                    among(own, other, row[other.trait]);
            }
        }
        done(rec + 1);
    }
}

}  // namespace

// A record of n elements costs n (n + 1) / 2 additions to a table that is reached at random: 16 bytes each,
// and as many cache misses, of which a core awaits about 24 at a time.
void addleastsquarepart(const assembly& a, coosparse& cross) {
    constexpr std::int64_t report = 1000000;
    const modmmeiod::record_input in = a.on_data.records();
    const std::int64_t nrec = in.effect.cols;
    std::vector<std::int64_t> before(a.on_data.state().huge.size() + 1, 0);  // [result]: columns of `cross`
    for (const modmmeiod::record_term& term : in.terms)
        if (term.huge && term.result + 1 < before.size())
            before[term.result + 1] = before[term.result] + term.last;
    for_each_product(
        in,
        [&](const record_element& own, const record_element& other, double r) {
            a.store.add(own.equation, other.equation, own.x * r * other.x);
        },
        [&](const record_element& own, const record_element& other, double r) {
            cross.add(static_cast<std::int32_t>(own.equation + 1),
                      narrow<std::int32_t>(before[other.result] + other.equation + 1), own.x * r * other.x);
        },
        [&](std::int64_t treated) {
            if (treated % report == 0 || treated == nrec)
                a.log.message("Number of treated records: " + inttochar(treated));
        });
}

void count_leastsquarepart(const assembly& a, std::vector<bool>& beside_huge) {
    for_each_product(
        a.on_data.records(),
        [&](const record_element& own, const record_element& other, double) {
            a.store.add(own.equation, other.equation, 1.0);
        },
        [&](const record_element& own, const record_element&, double) {
            beside_huge[static_cast<std::size_t>(own.equation)] = true;
        },
        [](std::int64_t) {});
}

}  // namespace zendar::modmme
