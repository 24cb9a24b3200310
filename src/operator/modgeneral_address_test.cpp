#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <cstdlib>
#include <new>

#include "modgeneral.hpp"
#include "modgeneral_test_model.hpp"

namespace {
thread_local std::int64_t allocations = 0;

[[maybe_unused]] void* counted(std::size_t bytes) {
    ++allocations;
    if (void* memory = std::malloc(bytes == 0 ? 1 : bytes)) return memory;
    throw std::bad_alloc();
}
}  // namespace

// Every allocation of this test program is counted. Sanitizers of clang link operators of their own instead.
#if defined(__clang__) && defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
#define ZENDAR_OPERATORS_TAKEN
#endif
#endif
#ifndef ZENDAR_OPERATORS_TAKEN
void* operator new(std::size_t bytes) {
    return counted(bytes);
}
void* operator new[](std::size_t bytes) {
    return counted(bytes);
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
    return std::malloc(bytes == 0 ? 1 : bytes);
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
    return std::malloc(bytes == 0 ? 1 : bytes);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
#endif

namespace zendar {
namespace {

using test::captured_log;
using test::fatal_text;
using test::model_effect;
using test::small_model;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::vector<double> values_of(const matrix<double>& x) {
    return {x.values().begin(), x.values().end()};
}

/// A matrix of levels from its records.
matrix<std::int32_t> records(const std::vector<std::vector<std::int32_t>>& rows) {
    matrix<std::int32_t> levels(std::ssize(rows.front()), std::ssize(rows));
    for (std::size_t i = 0; i < rows.size(); ++i)
        for (std::size_t j = 0; j < rows[i].size(); ++j)
            levels(static_cast<std::int64_t>(j), static_cast<std::int64_t>(i)) = rows[i][j];
    return levels;
}

covariable_type covariable(std::vector<std::int32_t> indice, std::int64_t ncov,
                           const std::vector<double>& values) {
    matrix<double> value(ncov, std::ssize(values) / ncov);
    std::ranges::copy(values, value.values().begin());
    return {std::move(indice), std::move(value)};
}

record_address addressed(const param_type& param, const std::vector<std::int32_t>& record,
                         std::span<const covariable_type> cov = {}) {
    captured_log log;
    record_address out(param);
    setaddressx_alter(param, records({record}).view(), cov, 1, out, log);
    return out;
}

/// The error of both the addressing and the check of one record.
std::string fault(const param_type& param, const std::vector<std::int32_t>& record) {
    const auto levels = records({record});
    captured_log log, check_log;
    std::vector<covariable_type> cov(static_cast<std::size_t>(param.neffect));
    record_address out(param);
    const std::string text = fatal_text([&] { setaddressx_alter(param, levels.view(), cov, 1, out, log); });
    EXPECT_EQ(fatal_text([&] { check_levels(param, levels.view(), check_log); }), text);
    if (!text.empty()) {
        EXPECT_THAT(log.text(), HasSubstr(text));
        EXPECT_THAT(check_log.text(), HasSubstr(text));
    }
    return text;
}

TEST(SetaddressxAlter, AddressesAClassEffectForTheTraitsThatHaveIt) {
    small_model model(3, {{.nlevel = 4}, {.nlevel = 5}});
    model.param.pos_effects(1, 1) = 0;

    const record_address out = addressed(model.param, {3, 5});

    EXPECT_THAT(out.address, ElementsAre(6, 12 + 12));
    EXPECT_THAT(values_of(out.x), ElementsAre(1, 1, 1, 1, 0, 1));
    EXPECT_THAT(out.hugeactive, Each(0));
}

TEST(SetaddressxAlter, TakesTheCoefficientsOfTheLevelsRow) {
    small_model model(2, {{.nlevel = 4}, {.type = 1, .nlevel = 3, .ncov = 2}});
    model.param.pos_effects(0, 1) = 0;
    std::vector<covariable_type> cov(2);
    cov[1] = covariable({2, 0, 1}, 2, {10, 20, 30, 40});

    const record_address out = addressed(model.param, {1, 1}, cov);

    EXPECT_THAT(out.address, ElementsAre(0, 8));
    EXPECT_THAT(values_of(out.x), ElementsAre(1, 1, 0, 30, 0, 40));
    EXPECT_THAT(values_of(addressed(model.param, {0, 3}, cov).x), ElementsAre(0, 0, 0, 10, 0, 20));
}

TEST(SetaddressxAlter, GivesNoCoefficientsToALevelWithoutALine) {
    const small_model model(1, {{.type = 1, .nlevel = 0, .ncov = 2}});
    const std::vector<covariable_type> cov{covariable({2, 0, 1, 7, -1}, 2, {10, 20, 30, 40})};

    EXPECT_THAT(values_of(addressed(model.param, {2}, cov).x), ElementsAre(0, 0));
    EXPECT_THAT(values_of(addressed(model.param, {4}, cov).x), ElementsAre(0, 0));  // a row beyond the table
    EXPECT_THAT(values_of(addressed(model.param, {5}, cov).x), ElementsAre(0, 0));
    EXPECT_THAT(values_of(addressed(model.param, {6}, cov).x), ElementsAre(0, 0));  // a level beyond the file
    EXPECT_THAT(values_of(addressed(model.param, {2147483647}, cov).x), ElementsAre(0, 0));
    EXPECT_THAT(values_of(addressed(model.param, {1}, cov).x), ElementsAre(30, 40));
}

TEST(SetaddressxAlter, AddressesANestedCovariableByItsNestingLevel) {
    const small_model model(2, {{.nlevel = 2}, {.type = 1, .nlevel = 3, .ncov = 3, .nnest = 5}});
    std::vector<covariable_type> cov(2);
    cov[1] = covariable({1, 2, 3}, 3, {1, 2, 3, 4, 5, 6, 7, 8, 9});

    const record_address out = addressed(model.param, {2, 3, 4}, cov);

    EXPECT_THAT(out.address, ElementsAre(2, 4 + 3 * 2 * 3));
    EXPECT_THAT(values_of(out.x), ElementsAre(1, 1, 7, 7, 8, 8, 9, 9));
}

TEST(SetaddressxAlter, LeavesANestedCovariableOutWithoutANestingLevel) {
    const small_model model(1, {{.nlevel = 2}, {.type = 1, .nlevel = 3, .ncov = 2, .nnest = 5}});
    std::vector<covariable_type> cov(2);
    cov[1] = covariable({1, 2, 3}, 2, {1, 2, 3, 4, 5, 6});

    for (const std::int32_t nest : {0, -3}) {
        const record_address out = addressed(model.param, {2, 3, nest}, cov);
        EXPECT_THAT(out.address, ElementsAre(1, 2));
        EXPECT_THAT(values_of(out.x), ElementsAre(1, 0, 0));
    }
}

TEST(SetaddressxAlter, LeavesEveryKindOfEffectOutBelowLevelOne) {
    const small_model model(1, {{.nlevel = 4},
                                {.type = 1, .nlevel = 4, .ncov = 2},
                                {.type = 1, .nlevel = 4, .ncov = 2, .nnest = 3},
                                {.type = 2, .nlevel = 4, .ncov = 3},
                                {.type = 3, .nlevel = 4, .ncov = 3, .random = 20},
                                {.type = 3, .nlevel = 4, .ncov = 3, .random = 5}});
    param_type strange = model.param;
    strange.type_effect[0] = 4;

    for (const param_type& param : {model.param, strange}) {
        const record_address out = addressed(param, {0, -1, 0, -9, 0, -2147483647, 2});
        EXPECT_THAT(out.address, ElementsAre(0, 4, 6, 12, 15, 18));
        EXPECT_THAT(out.x.values(), Each(0.0));
        EXPECT_THAT(out.hugeactive, Each(0));
    }
}

TEST(SetaddressxAlter, GivesAHugeEffectInMemoryItsCoefficients) {
    const small_model model(2, {{.nlevel = 1}, {.type = 2, .nlevel = 2, .ncov = 3, .random = 20}});
    std::vector<covariable_type> cov(2);
    cov[1] = covariable({1, 2}, 3, {0, 1, 2, 2, 1, 0});

    const record_address out = addressed(model.param, {1, 2}, cov);

    EXPECT_THAT(out.address, ElementsAre(0, 2));
    EXPECT_THAT(values_of(out.x), ElementsAre(1, 1, 2, 2, 1, 1, 0, 0));
    EXPECT_THAT(out.hugeactive, ElementsAre(0, 1));

    covariable_data data;  // the same in the sparse store
    data.indice = {1, 2};
    data.sparse = crssparse(2, 4, 3);
    data.sparse.external(std::vector<std::int32_t>{1, 3, 5}, std::vector<std::int32_t>{2, 3, 1, 2},
                         std::vector<double>{1, 2, 2, 1});
    cov[1].data = std::make_shared<const covariable_data>(std::move(data));
    EXPECT_EQ(values_of(addressed(model.param, {1, 2}, cov).x), values_of(out.x));
    EXPECT_THAT(values_of(addressed(model.param, {1, 1}, cov).x), ElementsAre(1, 1, 0, 0, 1, 1, 2, 2));
}

TEST(SetaddressxAlter, MarksAHugeEffectOnDataWithOneCoefficient) {
    for (const std::int32_t random : {0, 20, 23}) {
        small_model model(2, {{.nlevel = 1}, {.type = 3, .nlevel = 2, .ncov = 2, .random = random}});
        model.param.pos_effects(0, 1) = 0;
        const record_address out = addressed(model.param, {1, 2});
        EXPECT_THAT(out.address, ElementsAre(0, 2));
        EXPECT_THAT(values_of(out.x), ElementsAre(1, 1, 0, 1, 0, 0));
        EXPECT_THAT(out.hugeactive, ElementsAre(0, 1));
    }
}

TEST(SetaddressxAlter, TakesALinkedHugeEffectWhenItsLinkIsAClassEffect) {
    small_model model(1, {{.nlevel = 3},
                          {.type = 1, .nlevel = 3},
                          {.type = 3, .nlevel = 2, .ncov = 2, .random = 22},
                          {.type = 3, .nlevel = 2, .ncov = 1, .random = 22}});
    model.param.n_correlated[2] = 1;
    model.param.link_effect[2] = {1, 1};  // the list of the group stands with its first effect

    EXPECT_THAT(addressed(model.param, {0, 0, 1, 2}).hugeactive, ElementsAre(0, 0, 1, 1));

    const std::string text = " ERROR (modgeneral, 350): This type of effect 22 is not implemented";
    model.param.link_effect[2] = {1, 2};
    EXPECT_EQ(fault(model.param, {0, 0, 1, 0}), "");
    EXPECT_EQ(fault(model.param, {0, 0, 1, 1}), text);
    model.param.link_effect[2] = {1};  // nothing, or no effect, to link to
    EXPECT_EQ(fault(model.param, {0, 0, 0, 1}), text);
    model.param.link_effect[2] = {9, 9};
    EXPECT_EQ(fault(model.param, {0, 0, 1, 0}), text);
    model.param.link_effect[2] = {};
    EXPECT_EQ(fault(model.param, {0, 0, 1, 0}), text);
}

TEST(SetaddressxAlter, RefusesOtherRandomTypesOfHugeEffects) {
    const small_model model(1, {{.type = 3, .nlevel = 2, .ncov = 2, .random = 30}});

    EXPECT_EQ(fault(model.param, {1}),
              " ERROR (modgeneral, 354): This type of effect 30 is not implemented\n"
              "   Most likely issue: non-negative number in the corresponding column");
    EXPECT_EQ(fault(model.param, {0}), "");
}

TEST(SetaddressxAlter, RefusesANestedHugeEffect) {
    const small_model model(1, {{.type = 2, .nlevel = 2, .ncov = 2, .nnest = 2}});

    EXPECT_EQ(fault(model.param, {1, 1}), " Not yet implemented mmeaddress");
}

TEST(SetaddressxAlter, RefusesAnEffectTypeThatDoesNotExist) {
    small_model model(1, {{.nlevel = 1}, {.nlevel = 1}});
    model.param.type_effect[1] = 4;

    EXPECT_EQ(fault(model.param, {1, 1}), " ERROR: Effect type 4 for effect 2 does not exist!");
}

TEST(SetaddressxAlter, RefusesALevelAboveItsLimit) {
    const small_model model(1, {{.nlevel = 3},
                                {.nlevel = 5},
                                {.type = 1, .nlevel = 2, .ncov = 2},
                                {.type = 1, .nlevel = 2, .ncov = 2, .nnest = 4},
                                {.type = 3, .nlevel = 6, .ncov = 2, .random = 20}});

    EXPECT_EQ(fault(model.param, {3, 5, 2, 2, 6, 4}), "");
    EXPECT_EQ(fault(model.param, {3, 7, 2, 2, 6, 4}),
              "Record 1: level 7 of effect 2 is above its number of levels (5)");
    EXPECT_EQ(fault(model.param, {3, 5, 3, 2, 6, 4}),
              "Record 1: level 3 of effect 3 is above its number of levels (2)");
    EXPECT_EQ(fault(model.param, {3, 5, 2, 2147483647, 6, 4}),
              "Record 1: level 2147483647 of effect 4 is above its number of levels (2)");
    EXPECT_EQ(fault(model.param, {3, 5, 2, 2, 6, 5}),
              "Record 1: nesting level 5 of effect 4 is above its number of levels (4)");
    EXPECT_EQ(fault(model.param, {3, 5, 2, 2, 7, 4}),
              "Record 1: level 7 of effect 5 is above its number of levels (6)");
    EXPECT_EQ(fault(model.param, {4, 7, 3, 3, 7, 5}),
              "Record 1: level 4 of effect 1 is above its number of levels (3)");
}

TEST(SetaddressxAlter, ClearsWhatTheRecordBeforeLeft) {
    const small_model model(1, {{.nlevel = 3}, {.type = 3, .nlevel = 2, .ncov = 2, .random = 20}});
    const auto levels = records({{3, 1}, {0, 0}});
    captured_log log;
    record_address out(model.param);
    out.x(0, 2) = 99.0;

    setaddressx_alter(model.param, levels.view(), {}, 1, out, log);
    EXPECT_THAT(values_of(out.x), ElementsAre(1, 1, 0));
    setaddressx_alter(model.param, levels.view(), {}, 2, out, log);

    EXPECT_THAT(out.x.values(), Each(0.0));
    EXPECT_THAT(out.hugeactive, Each(0));
    EXPECT_THAT(out.address, ElementsAre(0, 3));
}

TEST(SetaddressxAlter, SendsACombinedEffectToTheEquationsOfItsOwner) {
    small_model model(2, {{.nlevel = 4}, {.nlevel = 3}, {.nlevel = 4}}, {1, 2, 1});

    EXPECT_THAT(addressed(model.param, {1, 3, 4}).address, ElementsAre(0, 12, 6));
}

TEST(SetaddressxAlter, KeepsACombinedEffectWithinTheEquationsOfItsOwner) {
    const small_model levels(2, {{.nlevel = 4}, {.nlevel = 9}}, {1, 1});
    const small_model nesting(1, {{.nlevel = 5}, {.type = 1, .nlevel = 1, .ncov = 2, .nnest = 4}}, {1, 1});

    EXPECT_EQ(fault(levels.param, {1, 4}), "");
    EXPECT_EQ(fault(levels.param, {1, 5}), "Record 1: level 5 of effect 2 is above its number of levels (4)");
    EXPECT_EQ(fault(nesting.param, {1, 1, 2}), "");
    EXPECT_EQ(fault(nesting.param, {1, 1, 3}),
              "Record 1: nesting level 3 of effect 2 is above its number of levels (2)");
}

/// Records of a model with all levels within their limits, some missing.
matrix<std::int32_t> random_records(const small_model& model, std::int64_t nrec, std::uint32_t seed) {
    std::mt19937 generator(seed);
    const param_type& param = model.param;
    matrix<std::int32_t> levels(param.neffect + param.nnested, nrec);
    const auto level = [&](std::int32_t limit) {
        return static_cast<std::int32_t>(generator() % (limit + 1));
    };
    for (std::int64_t i = 0; i < nrec; ++i)
        for (std::int32_t e = 1; e <= param.neffect; ++e) {
            levels(e - 1, i) = level(param.n_level[e - 1]);
            if (const std::int32_t row = model.nest_row[e - 1]; row > 0)
                levels(row - 1, i) = level(param.n_level_nested[e - 1]);
        }
    return levels;
}

std::vector<covariable_type> random_covariables(const param_type& param, std::uint32_t seed) {
    std::mt19937 generator(seed);
    std::vector<covariable_type> cov(static_cast<std::size_t>(param.neffect));
    for (std::int32_t e = 1; e <= param.neffect; ++e) {
        if (param.type_effect[e - 1] == 0) continue;
        matrix<double> values(param.nx[e], param.n_level[e - 1]);
        for (double& value : values.values()) value = static_cast<double>(generator() % 1000) + 1.0;
        std::vector<std::int32_t> indice;
        for (std::int32_t lev = 1; lev <= param.n_level[e - 1]; ++lev)
            indice.push_back(generator() % 5 == 0 ? 0 : param.n_level[e - 1] + 1 - lev);
        cov[e - 1] = covariable_type(std::move(indice), std::move(values));
    }
    return cov;
}

TEST(SetaddressxAlter, GivesTheEquationsAndCoefficientsOfRandomModels) {
    for (std::uint32_t seed = 1; seed <= 300; ++seed) {
        SCOPED_TRACE(seed);
        small_model model = test::random_model(seed);
        param_type& param = model.param;
        std::mt19937 generator(seed);
        for (auto& column : param.pos_effects.values()) column = static_cast<std::int32_t>(generator() % 3);
        const auto levels = random_records(model, 20, seed);
        const auto cov = random_covariables(param, seed);
        captured_log log;
        record_address out(param);
        check_levels(param, levels.view(), log);

        for (std::int64_t i = 0; i < 20; ++i) {
            setaddressx_alter(param, levels.view(), cov, i + 1, out, log);
            for (std::int32_t e = 1; e <= param.neffect; ++e) {
                const std::int32_t type = param.type_effect[e - 1], lev = levels(e - 1, i);
                const std::int32_t nest =
                    model.nest_row[e - 1] > 0 ? levels(model.nest_row[e - 1] - 1, i) : 1;
                const bool in_record = lev > 0 && nest > 0;
                const std::int32_t block = !in_record ? 1 : type == 0 ? lev : nest;
                EXPECT_EQ(out.hugeactive[e - 1], in_record && type >= 2);
                for (std::int32_t j = 1; j <= param.nx[e]; ++j)
                    for (std::int32_t t = 1; t <= param.ntrait; ++t) {
                        ASSERT_EQ(out.address[e - 1] + (j - 1) * param.ntrait + t,
                                  model.equation.at({e, block, j, t}));
                        double expected = 0.0;
                        if (in_record && param.pos_effects(t - 1, e - 1) > 0) {
                            const covariable_type& c = cov[e - 1];
                            if (type == 0 || (type == 3 && j == 1)) expected = 1.0;
                            if ((type == 1 || type == 2) && c.rows()[lev - 1] > 0)
                                expected = c.values()(j - 1, c.rows()[lev - 1] - 1);
                        }
                        ASSERT_EQ(out.x(t - 1, param.pos[e] + j - 2), expected);
                    }
            }
        }
    }
}

TEST(SetaddressxAlter, AllocatesNothing) {
    const small_model model(3, {{.nlevel = 40},
                                {.type = 1, .nlevel = 10, .ncov = 3},
                                {.type = 1, .nlevel = 10, .ncov = 2, .nnest = 7},
                                {.type = 2, .nlevel = 10, .ncov = 5, .random = 20},
                                {.type = 3, .nlevel = 10, .ncov = 5, .random = 23}});
    const auto levels = random_records(model, 100, 7);
    const auto cov = random_covariables(model.param, 7);
    captured_log log;
    record_address out(model.param);

#ifdef ZENDAR_OPERATORS_TAKEN
    GTEST_SKIP() << "allocations cannot be counted in this build";
#endif
    const std::int64_t before = allocations;
    for (std::int64_t i = 1; i <= 100; ++i) setaddressx_alter(model.param, levels.view(), cov, i, out, log);
    const std::int64_t counted_in_calls = allocations - before;
    const auto seen = std::make_unique<int>(0);

    EXPECT_EQ(counted_in_calls, 0);
    EXPECT_EQ(allocations - before, 1) << "the counter counts";
}

TEST(SetaddressxAlter, GivesTheSameFromManyThreads) {
    const small_model model(2, {{.nlevel = 40},
                                {.type = 1, .nlevel = 10, .ncov = 3},
                                {.type = 1, .nlevel = 10, .ncov = 2, .nnest = 7}});
    const std::int64_t nrec = 2000;
    const auto levels = random_records(model, nrec, 11);
    const auto cov = random_covariables(model.param, 11);
    std::vector<double> serial(nrec), threaded(nrec);
    const auto digest = [](const record_address& out) {
        double sum = 0.0, weight = 1.0;
        for (const auto a : out.address) sum += a * weight++;
        for (const double x : out.x.values()) sum += x * weight++;
        return sum;
    };
    captured_log log;
    record_address out(model.param);
    for (std::int64_t i = 0; i < nrec; ++i) {
        setaddressx_alter(model.param, levels.view(), cov, i + 1, out, log);
        serial[i] = digest(out);
    }

#pragma omp parallel num_threads(4) default(none) shared(model, levels, cov, log, threaded, digest, nrec)
    {
        record_address own(model.param);
#pragma omp for
        for (std::int64_t i = 0; i < nrec; ++i) {
            setaddressx_alter(model.param, levels.view(), cov, i + 1, own, log);
            threaded[i] = digest(own);
        }
    }

    EXPECT_EQ(threaded, serial);
}

TEST(CheckLevels, ReportsTheFirstRecordWithAnyNumberOfThreads) {
    const small_model model(1, {{.nlevel = 3}, {.nlevel = 5}});
    matrix<std::int32_t> levels(2, 10000, 1);
    for (std::int64_t i = 1233; i < 10000; i += 7) levels(i % 2, i) = 6;
    const int threads = omp_get_max_threads();

    for (const int n : {1, 2, 4, 7}) {
        omp_set_num_threads(n);
        captured_log log;
        EXPECT_EQ(fatal_text([&] { check_levels(model.param, levels.view(), log); }),
                  "Record 1234: level 6 of effect 2 is above its number of levels (5)");
        EXPECT_THAT(log.text(), HasSubstr("modgeneral % check_levels ("));
    }
    omp_set_num_threads(threads);
}

TEST(CheckLevels, PassesGoodRecordsSilently) {
    const small_model model(1, {{.nlevel = 3}, {.type = 1, .nlevel = 0, .ncov = 1}});
    captured_log log;

    check_levels(model.param, records({{3, 100}, {0, 0}, {-5, 7}}).view(), log);
    check_levels(model.param, matrix<std::int32_t>(2, 0).view(), log);

    EXPECT_EQ(log.text(), "");
}

TEST(CheckLevels, RefusesACovariableThatOverrunsTheEquationsItShares) {
    const small_model model(1, {{.type = 1, .nlevel = 2, .ncov = 2}, {.type = 1, .nlevel = 2, .ncov = 3}},
                            {1, 1});
    captured_log log;

    EXPECT_EQ(fatal_text([&] {
                  check_levels(model.param, records({{0, 0}}).view(), log);
              }),
              "Effect 2 has more covariables than effect 1, whose equations it shares!");
}

}  // namespace
}  // namespace zendar
